// The reactor at rest: the share of a core that an idle reactor thread
// takes over ten seconds, with and without a timer due far ahead; and
// SendData from other threads through the manager into one reactor.
#include <plexa/plexa.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <pthread.h>
#include <vector>
#include <ctime>
#include <functional>
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

// Counts what reaches a fake device.
class Sink : public ZNRDeviceHandler {
public:
    explicit Sink(std::atomic<std::uint64_t>* seen) : seen_(seen) {}
    bool OnData(ZNRByteBuffer const* buffer, int* offset) override {
        *offset = static_cast<int>(buffer->GetDataCount());
        seen_->fetch_add(1, std::memory_order_relaxed);
        return true;
    }

private:
    std::atomic<std::uint64_t>* seen_;
};

class Call : public ZNRReactorTask {
public:
    explicit Call(std::function<void()> fn) : fn_(std::move(fn)) {}
    bool Run() override { return fn_(), false; }
    void Cancel() override {}
    void Destroy() override { delete this; }

private:
    std::function<void()> fn_;
};

double ThreadCpuSeconds(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Each iteration: every sending thread sends 20,000 64-byte messages to a
// fake device on the reactor thread; done when the device has seen them all.
void BM_CrossThreadSendData(benchmark::State& state) {
    int const senders = static_cast<int>(state.range(0));
    int const per_sender = 20000;
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::uint64_t const reactor = mgr->New(&err);
    mgr->StartThread(reactor, ZNRString("bench-loop"), nullptr);
    std::atomic<std::uint64_t> seen{0};
    std::atomic<std::uint64_t> device{0};
    std::atomic<clockid_t> loop_clock{0};
    mgr->RegisterTask(reactor, new Call([&] {
        clockid_t clock;
        pthread_getcpuclockid(pthread_self(), &clock);
        loop_clock = clock;
        std::uint64_t e = 0;
        device = mgr->RegisterDevice(reactor, new ZNRFakeDevice(), new Sink(&seen), &e, 4096, 512,
                                     1 << 20, 0xFFFFFFFF);
    }));
    while (device.load() == 0) std::this_thread::yield();
    unsigned char message[64] = {};
    double loop_cpu = 0;
    for (auto _ : state) {
        std::uint64_t const target = seen.load() + static_cast<std::uint64_t>(senders) * per_sender;
        double const cpu = ThreadCpuSeconds(loop_clock.load());
        auto const start = std::chrono::steady_clock::now();
        std::vector<std::thread> threads;
        for (int t = 0; t < senders; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < per_sender; ++i) {
                    while (mgr->SendData(reactor, device.load(), message, sizeof message) != 0) {
                        std::this_thread::yield();  // the queue is full: let the loop drain
                    }
                }
            });
        }
        for (auto& t : threads) t.join();
        while (seen.load() < target) std::this_thread::yield();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        loop_cpu += ThreadCpuSeconds(loop_clock.load()) - cpu;
    }
    std::uint64_t const messages = state.iterations() * static_cast<std::uint64_t>(senders) * per_sender;
    state.SetItemsProcessed(static_cast<std::int64_t>(messages));
    state.counters["loop_us_per_msg"] = loop_cpu * 1e6 / static_cast<double>(messages);
    mgr->Remove(reactor);
}
BENCHMARK(BM_CrossThreadSendData)->Arg(1)->Arg(4)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
