#ifndef PLEXA_ZNR_COMPAT_ENTITY_MAP_H
#define PLEXA_ZNR_COMPAT_ENTITY_MAP_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-unpack.h>

#include <map>
#include <memory>

// What a compat entity map calls for one uri. The map owns it and ends it
// through Destroy().
class ZNR_API ZNRCompatEntityTargetProxyBase {
public:
    ZNRCompatEntityTargetProxyBase() {}
    ZNRCompatEntityTargetProxyBase(ZNRCompatEntityTargetProxyBase const&) {}
    ZNRCompatEntityTargetProxyBase& operator=(ZNRCompatEntityTargetProxyBase const&) {
        return *this;
    }

    // body is the entity after the 10-byte packet header; the result is
    // what the map reports as handled.
    virtual bool Dispatch(unsigned char const* body, int length, unsigned short res_code,
                          bool bigendian, void* context) = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRCompatEntityTargetProxyBase() {}
};

// Compat uri: service id in the low 8 bits, command id in the high 24.
constexpr unsigned int ZNRMakeCompatEntityUri(unsigned char service, unsigned int command) {
    return (command << 8) | service;
}

// Routes compat entity packets (u32 total length, u32 uri, u16 result
// code, then the marshalled entity) to the proxy registered for their uri.
// Not synchronised: registration, removal and dispatch must not overlap.
class ZNR_API ZNRCompatEntityMap {
public:
    // Copies of a map share the proxies; the last map holding one ends it.
    typedef std::map<unsigned int, std::shared_ptr<ZNRCompatEntityTargetProxyBase>>
        CompatEntityMap_t;

    ZNRCompatEntityMap();
    ZNRCompatEntityMap(ZNRCompatEntityMap const& other);
    ZNRCompatEntityMap& operator=(ZNRCompatEntityMap const& other);
    virtual ~ZNRCompatEntityMap();

    // Skips the length and reads the uri; the first failing read's error.
    virtual std::uint64_t PeekUri(unsigned char const* data, int size, bool bigendian,
                                  unsigned int* uri);
    // False only when the header cannot be read. An unknown uri is logged
    // and returns true with *handled untouched; otherwise *handled (when
    // not null) gets the proxy's result.
    virtual bool DispatchCompatEntity(unsigned char const* data, int size, bool bigendian,
                                      bool* handled, void* context);

    // False, and the proxy not taken, when the uri is already registered.
    bool AddCompatEntityMap(unsigned int uri, ZNRCompatEntityTargetProxyBase* proxy) {
        if (proxy == nullptr || compat_entity_maps_->count(uri) != 0) return false;
        compat_entity_maps_->emplace(
            uri, std::shared_ptr<ZNRCompatEntityTargetProxyBase>(proxy, &EndProxy));
        return true;
    }

    // Registers target->method for the uri: the body is unmarshalled into
    // a fresh Entity and handed over with the result code and the context.
    template <class Entity, class Target>
    bool AddCompatEntityTarget(unsigned int uri, Target* target,
                               bool (Target::*method)(Entity const& entity,
                                                      unsigned short res_code, void* context));

    // The uri must be registered.
    void RemoveCompatEntityMap(unsigned int uri);
    void RemoveAllCompatEntityMap();

private:
    static void EndProxy(ZNRCompatEntityTargetProxyBase* proxy) { proxy->Destroy(); }

    ZNRStlAdapter<CompatEntityMap_t> compat_entity_maps_;
};

// Unpacks a compat body into an Entity (a ZNRMarshallable with a default
// constructor) and calls a member function of the target. A body that does
// not unmarshal is not handled.
template <class Entity, class Target>
class ZNRCompatEntityTargetProxy_T : public ZNRCompatEntityTargetProxyBase {
public:
    typedef bool (Target::*Method_t)(Entity const& entity, unsigned short res_code, void* context);

    ZNRCompatEntityTargetProxy_T(Target* target, Method_t method)
        : target_(target), method_(method) {}

    bool Dispatch(unsigned char const* body, int length, unsigned short res_code, bool bigendian,
                  void* context) override {
        if (length < 0) return false;
        ZNRUnpack unpack(body, static_cast<unsigned int>(length), bigendian, false);
        Entity entity;
        if (unpack.Pop(&entity) != 0) return false;
        return (target_->*method_)(entity, res_code, context);
    }

    void Destroy() override { delete this; }

protected:
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
