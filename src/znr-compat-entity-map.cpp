#include <plexa/znr-compat-entity-map.h>

#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-string.h>

ZNRCompatEntityMap::ZNRCompatEntityMap() {}

ZNRCompatEntityMap::ZNRCompatEntityMap(ZNRCompatEntityMap const& other)
    : compat_entity_maps_(other.compat_entity_maps_) {}

ZNRCompatEntityMap& ZNRCompatEntityMap::operator=(ZNRCompatEntityMap const& other) {
    if (this != &other) {
        RemoveAllCompatEntityMap();
        compat_entity_maps_ = other.compat_entity_maps_;
    }
    return *this;
}

ZNRCompatEntityMap::~ZNRCompatEntityMap() { RemoveAllCompatEntityMap(); }

std::uint64_t ZNRCompatEntityMap::PeekUri(unsigned char const* data, int size, bool bigendian,
                                          unsigned int* uri) {
    ZNRUnpack unpack(data, size < 0 ? 0u : static_cast<unsigned int>(size), bigendian, false);
    unsigned int length = 0;
    std::uint64_t const error = unpack.Pop(&length);
    if (error != 0) return error;
    return unpack.Pop(uri);
}

bool ZNRCompatEntityMap::DispatchCompatEntity(unsigned char const* data, int size, bool bigendian,
                                              bool* handled, void* context) {
    ZNRUnpack unpack(data, size < 0 ? 0u : static_cast<unsigned int>(size), bigendian, false);
    // The length field is read only to step over it; the dispatcher has
    // already cut the packet by it.
    unsigned int length = 0;
    std::uint64_t error = unpack.Pop(&length);
    if (error != 0) {
        ZNR_LOG(WARNING,
                "Get compat entity header length error, may be invalid header?, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    }
    unsigned int uri = 0;
    error = unpack.Pop(&uri);
    if (error != 0) {
        ZNR_LOG(WARNING, "Get compat entity header uri error, may be invalid header?, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    }
    unsigned short res_code = 0;
    error = unpack.Pop(&res_code);
    if (error != 0) {
        ZNR_LOG(WARNING,
                "Get compat entity header res code error, may be invalid header?, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
        return false;
    }
    CompatEntityMap_t::const_iterator it = compat_entity_maps_->find(uri);
    if (it == compat_entity_maps_->end()) {
        ZNR_LOG(WARNING, "Can not find compat entity map, service id=%u command id=%u", uri & 0xFF,
                uri >> 8);
        return true;
    }
    // Held for the call, so a proxy that removes its own entry survives it.
    std::shared_ptr<ZNRCompatEntityTargetProxyBase> const proxy = it->second;
    bool const result = proxy->Dispatch(data + 10, size - 10, res_code, bigendian, context);
    if (handled != nullptr) *handled = result;
    return true;
}

void ZNRCompatEntityMap::RemoveCompatEntityMap(unsigned int uri) {
    compat_entity_maps_->erase(uri);
}

void ZNRCompatEntityMap::RemoveAllCompatEntityMap() {
    for (CompatEntityMap_t::value_type& entry : *compat_entity_maps_) entry.second.reset();
    compat_entity_maps_->clear();
}
