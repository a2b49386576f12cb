// ZNREntityMap and ZNRCompatEntityMap dispatch: typed targets that unpack
// the every-field message, raw proxies that only look at the body, and
// unknown uris. The data goes to the maps directly or through a dispatcher
// cutting a stream, as a device handler does.
//
// Input: flags (bit 0 byte order, bit 1 through the dispatcher), then the
// entity (uri and body) or compat packet, or a stream of them.
#include "fuzz-common.h"

namespace {

struct Target {
    int calls = 0;
    bool OnEntity(FuzzAllFields const& f, void* context) {
        FUZZ_CHECK(context == this);
        ++calls;
        return (f.c & 1) == 0;
    }
    bool OnCompat(FuzzAllFields const& f, unsigned short, void* context) {
        return OnEntity(f, context);
    }
};

class RawProxy : public ZNREntityTargetProxyBase, public ZNRCompatEntityTargetProxyBase {
public:
    bool Dispatch(unsigned char const* body, int length, bool, void*) override {
        return Touch(body, length);
    }
    bool Dispatch(unsigned char const* body, int length, unsigned short, bool, void*) override {
        return Touch(body, length);
    }
    void Destroy() override { delete this; }

private:
    ~RawProxy() override {}
    // Reads every byte it was given, so a body past the packet shows.
    static bool Touch(unsigned char const* body, int length) {
        FUZZ_CHECK(length >= 0);
        unsigned int sum = 0;
        for (int k = 0; k < length; ++k) sum += body[k];
        return (sum & 1) == 0;
    }
};

struct Maps : public ZNRDataDispatcher {
    Target target;
    ZNREntityMap entities;
    ZNRCompatEntityMap compats;
    bool bigendian = false;

    Maps() {
        FUZZ_CHECK(entities.AddEntityTarget(kFuzzEntityTyped, &target, &Target::OnEntity));
        FUZZ_CHECK(entities.AddEntityMap(kFuzzEntityRaw, new RawProxy));
        FUZZ_CHECK(compats.AddCompatEntityTarget(kFuzzCompatTyped, &target, &Target::OnCompat));
        FUZZ_CHECK(compats.AddCompatEntityMap(kFuzzCompatRaw, new RawProxy));
    }

    void Entity(unsigned char const* d, int n, bool be) {
        unsigned int uri = 0;
        bool const peeked = entities.PeekUri(d, n, be, &uri) == 0;
        FUZZ_CHECK(peeked == (n >= 4));
        bool handled = false;
        int const calls = target.calls;
        FUZZ_CHECK(entities.DispatchEntity(d, n, be, &handled, &target) == peeked);
        if (peeked && uri != kFuzzEntityTyped && uri != kFuzzEntityRaw) FUZZ_CHECK(!handled);
        if (uri != kFuzzEntityTyped || !peeked) FUZZ_CHECK(target.calls == calls);
    }
    void Compat(unsigned char const* d, int n, bool be) {
        unsigned int uri = 0;
        bool const peeked = compats.PeekUri(d, n, be, &uri) == 0;
        FUZZ_CHECK(peeked == (n >= 8));
        bool handled = false;
        FUZZ_CHECK(compats.DispatchCompatEntity(d, n, be, &handled, &target) == (n >= 10));
        if (n >= 10 && uri != kFuzzCompatTyped && uri != kFuzzCompatRaw) FUZZ_CHECK(!handled);
    }

protected:
    bool OnEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        Entity(d, n, be);
        return true;
    }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        Compat(d, n, be);
        return n > 0;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 1) return 0;
    bool const bigendian = (data[0] & 1) != 0, stream = (data[0] & 2) != 0;
    unsigned char const* d = data + 1;
    int const n = static_cast<int>(size - 1);
    Maps maps;
    if (stream) {
        int consumed = 0;
        maps.DispatchData(d, n, &consumed, ZNRDataDispatcher::MODE_ENTITY);
        maps.DispatchData(d, n, &consumed, ZNRDataDispatcher::MODE_COMPAT_ENTITY);
    } else {
        maps.Entity(d, n, bigendian);
        maps.Compat(d, n, bigendian);
    }
    // A copy shares the proxies; removal ends them once, whoever goes last.
    ZNREntityMap copy(maps.entities);
    maps.entities.RemoveEntityMap(kFuzzEntityRaw);
    bool handled = false;
    FUZZ_CHECK(copy.DispatchEntity(d, n, bigendian, &handled, &maps.target) == (n >= 4));
    return 0;
}
