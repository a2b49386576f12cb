#ifndef PLEXA_ZNR_ENTITY_MAP_H
#define PLEXA_ZNR_ENTITY_MAP_H

#include <plexa/znr-export.h>
#include <plexa/znr-unpack.h>

#include <map>
#include <memory>

/// What an entity map calls for one uri. The map owns it and ends it
/// through Destroy(). Called on the thread that dispatches the map (a
/// device handler's: the reactor's loop thread).
class ZNR_API ZNREntityTargetProxyBase {
public:
    /// Nothing to set up.
    ZNREntityTargetProxyBase() {}
    /// Copies nothing.
    ZNREntityTargetProxyBase(ZNREntityTargetProxyBase const&) {}
    /// Copies nothing.
    ZNREntityTargetProxyBase& operator=(ZNREntityTargetProxyBase const&) { return *this; }

    /// body is the entity after its 4-byte uri; the result is what the
    /// map reports as handled. body is borrowed for the call.
    virtual bool Dispatch(unsigned char const* body, int length, bool bigendian,
                          void* context) = 0;
    /// Ends the proxy, once no map holds it.
    virtual void Destroy() = 0;

protected:
    /// Proxies end through Destroy().
    virtual ~ZNREntityTargetProxyBase() {}
};

/// Entity uri: service id in the high 16 bits, command id in the low 16.
constexpr unsigned int ZNRMakeEntityUri(unsigned short service, unsigned short command) {
    return (static_cast<unsigned int>(service) << 16) | command;
}

/// Routes entity bodies (u32 uri, then the marshalled entity) to the proxy
/// registered for their uri. Not synchronised: registration, removal and
/// dispatch must not overlap on one map.
class ZNR_API ZNREntityMap {
public:
    /// Copies of a map share the proxies; the last map holding one ends it.
    typedef std::map<unsigned int, std::shared_ptr<ZNREntityTargetProxyBase>> EntityMap_t;

    /// No entries.
    ZNREntityMap();
    /// Shares other's proxies.
    ZNREntityMap(ZNREntityMap const& other);
    /// Drops its own entries, then shares other's proxies.
    ZNREntityMap& operator=(ZNREntityMap const& other);
    /// RemoveAllEntityMap().
    virtual ~ZNREntityMap();

    /// Reads the uri from the first 4 bytes (library error 22 when shorter).
    virtual std::uint64_t PeekUri(unsigned char const* data, int size, bool bigendian,
                                  unsigned int* uri);
    /// False only when no uri can be read (logged at WARNING: "Get entity
    /// uri error, ..."). An unknown uri is logged ("Can not find entity map,
    /// service id=%u command id=%u") and
    /// returns true with *handled untouched; otherwise *handled (when not
    /// null) gets the proxy's result. data is borrowed for the call; context
    /// goes to the proxy as it is.
    virtual bool DispatchEntity(unsigned char const* data, int size, bool bigendian,
                                bool* handled, void* context);

    /// False, and the proxy not taken, when the uri is already registered
    /// or proxy is null; true, and the map owns proxy.
    bool AddEntityMap(unsigned int uri, ZNREntityTargetProxyBase* proxy) {
        if (proxy == nullptr || (entity_maps_ && entity_maps_->count(uri) != 0)) return false;
        Own().emplace(uri, std::shared_ptr<ZNREntityTargetProxyBase>(proxy, &EndProxy));
        return true;
    }

    /// Registers target->method for the uri: the body is unmarshalled into
    /// a fresh Entity and handed over with the dispatch context. target is
    /// borrowed and must outlive the entry. False when the uri is taken.
    template <class Entity, class Target>
    bool AddEntityTarget(unsigned int uri, Target* target,
                         bool (Target::*method)(Entity const& entity, void* context));

    /// Drops the entry for uri (an unregistered uri is ignored); the proxy
    /// ends once no copy of the map holds it.
    void RemoveEntityMap(unsigned int uri);
    /// Drops every entry, as RemoveEntityMap().
    void RemoveAllEntityMap();

private:
    static void EndProxy(ZNREntityTargetProxyBase* proxy) { proxy->Destroy(); }
    // The table, copied first while other maps share it.
    EntityMap_t& Own();

    // Copies share one table until one of them changes (every connection's
    // handler holds a copy of its server's map); none while empty.
    std::shared_ptr<EntityMap_t> entity_maps_;
};

/// Unpacks a body into an Entity (a ZNRMarshallable with a default
/// constructor) and calls a member function of the target. A body that does
/// not unmarshal is not handled.
template <class Entity, class Target>
class ZNREntityTargetProxy_T : public ZNREntityTargetProxyBase {
public:
    /// The target's handler: true when handled.
    typedef bool (Target::*Method_t)(Entity const& entity, void* context);

    /// target is borrowed and must outlive the proxy.
    ZNREntityTargetProxy_T(Target* target, Method_t method) : target_(target), method_(method) {}

    /// Unmarshals body and calls the method; false when length is negative
    /// or the body does not unmarshal.
    bool Dispatch(unsigned char const* body, int length, bool bigendian, void* context) override {
        if (length < 0) return false;
        ZNRUnpack unpack(body, static_cast<unsigned int>(length), bigendian, false);
        Entity entity;
        if (unpack.Pop(&entity) != 0) return false;
        return (target_->*method_)(entity, context);
    }

    /// Deletes the proxy.
    void Destroy() override { delete this; }

protected:
    /// Proxies end through Destroy().
    ~ZNREntityTargetProxy_T() override {}

private:
    Target* target_;
    Method_t method_;
};

template <class Entity, class Target>
bool ZNREntityMap::AddEntityTarget(unsigned int uri, Target* target,
                                   bool (Target::*method)(Entity const& entity, void* context)) {
    ZNREntityTargetProxyBase* proxy = new ZNREntityTargetProxy_T<Entity, Target>(target, method);
    if (AddEntityMap(uri, proxy)) return true;
    proxy->Destroy();
    return false;
}

#endif
