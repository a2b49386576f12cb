// An outside program built against an installed plexa: it sees only the
// installed headers and library, like any host project.
#include <plexa/plexa.h>

#include <cstdio>
#include <cstring>

#if __cplusplus < 201703L
#error "plexa's headers need C++17; the build did not ask for it"
#endif

namespace {

class Counter : public ZNRSlotHost {
public:
    void Add(int n) { total += n; }
    int total = 0;
};

int Fail(char const* what) {
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

}  // namespace

int main() {
    if (ZNRInit() != 0) return Fail("ZNRInit failed");
    if (std::strcmp(ZNRGetVersion(), PLEXA_EXPECTED_VERSION) != 0) return Fail("version differs");

    Counter counter;
    ZNRSignal1<int> signal;
    std::uint64_t error = 0;
    signal.Connect(&counter, &Counter::Add, &error);
    if (error != 0) return Fail("Connect failed");
    signal.Emit(40);
    signal(2);
    if (counter.total != 42 || counter.GetConnectionCount() != 1) return Fail("signal lost a call");

    ZNRString text;
    if (ZNRBase64::Encode("plexa", 5, &text) != 0 || text.ToStdCStr() != "cGxleGE=")
        return Fail("Base64 differs");

    std::printf("consumer: ok, libplexa %s\n", ZNRGetVersion());
    return 0;
}
