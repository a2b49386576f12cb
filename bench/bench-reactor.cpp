// The reactor at rest: the share of a core that an idle reactor thread
// takes over ten seconds, with and without a timer due far ahead.
#include <plexa/plexa.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <thread>

namespace {

class FarTimer : public ZNRTimer {
public:
    FarTimer() : ZNRTimer(3600 * 1000, 1, nullptr) {}
    bool OnExpires(std::uint64_t) override { return true; }
    void OnReset() override {}
    void OnClose() override {}
    void Destroy() override { delete this; }
};

double ProcessCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void BM_ReactorIdleCpu(benchmark::State& state) {
    auto* reactor = new ZNRReactorIOCP(new ZNRTimerMgr());
    if (reactor->Init() != 0) std::abort();
    std::thread loop([reactor] { reactor->Open(); });
    std::uint64_t err = 0;
    if (state.range(0) != 0) reactor->RegisterTimer(new FarTimer(), &err);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (auto _ : state) {
        double const cpu = ProcessCpuSeconds();
        std::uint64_t const wakeups = reactor->GetIdleWakeups();
        std::this_thread::sleep_for(std::chrono::seconds(10));
        state.counters["core_percent"] = (ProcessCpuSeconds() - cpu) / 10.0 * 100.0;
        state.counters["wakeups_per_s"] = static_cast<double>(reactor->GetIdleWakeups() - wakeups) / 10.0;
    }
    reactor->Stop();
    loop.join();
    reactor->Destroy();
}
BENCHMARK(BM_ReactorIdleCpu)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
