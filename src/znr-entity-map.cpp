#include <plexa/znr-entity-map.h>

#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-string.h>

ZNREntityMap::ZNREntityMap() {}

ZNREntityMap::ZNREntityMap(ZNREntityMap const& other) : entity_maps_(other.entity_maps_) {}

ZNREntityMap& ZNREntityMap::operator=(ZNREntityMap const& other) {
    if (this != &other) {
        RemoveAllEntityMap();
        entity_maps_ = other.entity_maps_;
    }
    return *this;
}

ZNREntityMap::~ZNREntityMap() { RemoveAllEntityMap(); }

std::uint64_t ZNREntityMap::PeekUri(unsigned char const* data, int size, bool bigendian,
                                    unsigned int* uri) {
    ZNRUnpack unpack(data, size < 0 ? 0u : static_cast<unsigned int>(size), bigendian, false);
    return unpack.Pop(uri);
}

bool ZNREntityMap::DispatchEntity(unsigned char const* data, int size, bool bigendian,
                                  bool* handled, void* context) {
    unsigned int uri = 0;
    std::uint64_t const error = PeekUri(data, size, bigendian, &uri);
    if (error != 0) {
        ZNR_LOG(WARNING, "Get entity uri error, may be invalid entity data?, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    }
    EntityMap_t::const_iterator it;
    if (!entity_maps_ || (it = entity_maps_->find(uri)) == entity_maps_->end()) {
        ZNR_LOG(WARNING, "Can not find entity map, service id=%u command id=%u", uri >> 16,
                uri & 0xFFFF);
        return true;
    }
    // Held for the call, so a proxy that removes its own entry survives it.
    std::shared_ptr<ZNREntityTargetProxyBase> const proxy = it->second;
    bool const result = proxy->Dispatch(data + 4, size - 4, bigendian, context);
    if (handled != nullptr) *handled = result;
    return true;
}

void ZNREntityMap::RemoveEntityMap(unsigned int uri) {
    if (entity_maps_ && entity_maps_->count(uri) != 0) Own().erase(uri);
}

// Proxies this map held last end in key order.
void ZNREntityMap::RemoveAllEntityMap() {
    if (entity_maps_ && entity_maps_.use_count() == 1) {
        for (EntityMap_t::value_type& entry : *entity_maps_) entry.second.reset();
    }
    entity_maps_.reset();
}

ZNREntityMap::EntityMap_t& ZNREntityMap::Own() {
    if (!entity_maps_) {
        entity_maps_ = std::make_shared<EntityMap_t>();
    } else if (entity_maps_.use_count() > 1) {
        entity_maps_ = std::make_shared<EntityMap_t>(*entity_maps_);
    }
    return *entity_maps_;
}
