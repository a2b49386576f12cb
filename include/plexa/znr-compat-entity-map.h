#ifndef PLEXA_ZNR_COMPAT_ENTITY_MAP_H
#define PLEXA_ZNR_COMPAT_ENTITY_MAP_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-unpack.h>

#include <map>
#include <memory>

/// What a compat entity map calls for one uri. The map owns it and ends it
/// through Destroy(). Called on the thread that dispatches the map (a
/// device handler's: the reactor's loop thread).
class ZNR_API ZNRCompatEntityTargetProxyBase {
public:
    /// Nothing to set up.
    ZNRCompatEntityTargetProxyBase() {}
    /// Copies nothing.
    ZNRCompatEntityTargetProxyBase(ZNRCompatEntityTargetProxyBase const&) {}
    /// Copies nothing.
    ZNRCompatEntityTargetProxyBase& operator=(ZNRCompatEntityTargetProxyBase const&) {
        return *this;
    }

    /// body is the entity after the 10-byte packet header; the result is
    /// what the map reports as handled. body is borrowed for the call.
    virtual bool Dispatch(unsigned char const* body, int length, unsigned short res_code,
                          bool bigendian, void* context) = 0;
    /// Ends the proxy, once no map holds it.
    virtual void Destroy() = 0;

protected:
    /// Proxies end through Destroy().
    virtual ~ZNRCompatEntityTargetProxyBase() {}
};

/// Compat uri: service id in the low 8 bits, command id in the high 24.
constexpr unsigned int ZNRMakeCompatEntityUri(unsigned char service, unsigned int command) {
    return (command << 8) | service;
}

/// Routes compat entity packets (u32 total length, u32 uri, u16 result
/// code, then the marshalled entity) to the proxy registered for their uri.
/// Not synchronised: registration, removal and dispatch must not overlap.
class ZNR_API ZNRCompatEntityMap {
public:
    /// Copies of a map share the proxies; the last map holding one ends it.
    typedef std::map<unsigned int, std::shared_ptr<ZNRCompatEntityTargetProxyBase>>
        CompatEntityMap_t;

    /// No entries.
    ZNRCompatEntityMap();
    /// Shares other's proxies.
    ZNRCompatEntityMap(ZNRCompatEntityMap const& other);
    /// Drops its own entries, then shares other's proxies.
    ZNRCompatEntityMap& operator=(ZNRCompatEntityMap const& other);
    /// RemoveAllCompatEntityMap().
    virtual ~ZNRCompatEntityMap();

    /// Skips the length and reads the uri; the first failing read's error
    /// (library error 22 when short).
    virtual std::uint64_t PeekUri(unsigned char const* data, int size, bool bigendian,
                                  unsigned int* uri);
    /// False only when the header cannot be read (logged at WARNING: "Get
    /// compat entity header ... error, ..."). An unknown uri is logged ("Can
    /// not find compat entity map, service id=%u command id=%u")
    /// and returns true with *handled untouched; otherwise *handled (when
    /// not null) gets the proxy's result. The packet's length field is not
    /// checked against size. data is borrowed for the call.
    virtual bool DispatchCompatEntity(unsigned char const* data, int size, bool bigendian,
                                      bool* handled, void* context);

    /// False, and the proxy not taken, when the uri is already registered
    /// or proxy is null; true, and the map owns proxy.
    bool AddCompatEntityMap(unsigned int uri, ZNRCompatEntityTargetProxyBase* proxy) {
        if (proxy == nullptr || compat_entity_maps_->count(uri) != 0) return false;
        compat_entity_maps_->emplace(
            uri, std::shared_ptr<ZNRCompatEntityTargetProxyBase>(proxy, &EndProxy));
        return true;
    }

    /// Registers target->method for the uri: the body is unmarshalled into
    /// a fresh Entity and handed over with the result code and the context.
    /// target is borrowed and must outlive the entry. False when the uri is taken.
    template <class Entity, class Target>
    bool AddCompatEntityTarget(unsigned int uri, Target* target,
                               bool (Target::*method)(Entity const& entity,
                                                      unsigned short res_code, void* context));

    /// Drops the entry for uri (an unregistered uri is ignored); the proxy
    /// ends once no copy of the map holds it.
    void RemoveCompatEntityMap(unsigned int uri);
    /// Drops every entry, as RemoveCompatEntityMap().
    void RemoveAllCompatEntityMap();

private:
    static void EndProxy(ZNRCompatEntityTargetProxyBase* proxy) { proxy->Destroy(); }

    ZNRStlAdapter<CompatEntityMap_t> compat_entity_maps_;
};

/// Unpacks a compat body into an Entity (a ZNRMarshallable with a default
/// constructor) and calls a member function of the target. A body that does
/// not unmarshal is not handled.
template <class Entity, class Target>
class ZNRCompatEntityTargetProxy_T : public ZNRCompatEntityTargetProxyBase {
public:
    /// The target's handler: true when handled.
    typedef bool (Target::*Method_t)(Entity const& entity, unsigned short res_code, void* context);

    /// target is borrowed and must outlive the proxy.
    ZNRCompatEntityTargetProxy_T(Target* target, Method_t method)
        : target_(target), method_(method) {}

    /// Unmarshals body and calls the method; false when length is negative
    /// or the body does not unmarshal.
    bool Dispatch(unsigned char const* body, int length, unsigned short res_code, bool bigendian,
                  void* context) override {
        if (length < 0) return false;
        ZNRUnpack unpack(body, static_cast<unsigned int>(length), bigendian, false);
        Entity entity;
        if (unpack.Pop(&entity) != 0) return false;
        return (target_->*method_)(entity, res_code, context);
    }

    /// Deletes the proxy.
    void Destroy() override { delete this; }

protected:
    /// Proxies end through Destroy().
    ~ZNRCompatEntityTargetProxy_T() override {}

private:
    Target* target_;
    Method_t method_;
};

template <class Entity, class Target>
bool ZNRCompatEntityMap::AddCompatEntityTarget(
    unsigned int uri, Target* target,
    bool (Target::*method)(Entity const& entity, unsigned short res_code, void* context)) {
    ZNRCompatEntityTargetProxyBase* proxy =
        new ZNRCompatEntityTargetProxy_T<Entity, Target>(target, method);
    if (AddCompatEntityMap(uri, proxy)) return true;
    proxy->Destroy();
    return false;
}

#endif
