// The reactor at rest: the share of a core that an idle reactor thread
// takes over ten seconds, with and without a timer due far ahead; and
// SendData from other threads through the manager into one reactor; the
// loop thread's CPU to take in one large frame over loopback TCP; and a
// message now and then on each of many otherwise idle connections.
#include <plexa/plexa.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

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

// Fresh pages touched: the cost of a block's growth that no copy count shows.
long ThreadMinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

// Waits for a whole frame as a frame-cutting handler does: nothing is
// consumed until all of it is held. The loop CPU spans the registration to
// the complete frame; the device is closed as soon as the frame is taken.
class FrameTaker : public ZNRDeviceHandler {
public:
    struct Result {
        std::size_t frame = 0;
        double cpu_start = 0;
        double cpu_end = 0;
        long faults_start = 0;
        long faults_end = 0;
        int reads = 0;
        unsigned int max_block = 0;
        std::promise<void> whole;
        std::promise<void> destroyed;
    };
    explicit FrameTaker(Result* result) : result_(result) {}
    bool OnData(ZNRByteBuffer const* buffer, int* offset) override {
        ++result_->reads;
        unsigned int const block = buffer->GetBlockSize();
        if (block > result_->max_block) result_->max_block = block;
        if (buffer->GetDataCount() < result_->frame) return true;
        result_->cpu_end = ThreadCpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        result_->faults_end = ThreadMinorFaults();
        if (buffer->GetDataCount() != result_->frame) std::abort();  // the writer sends one frame
        *offset = static_cast<int>(result_->frame);
        GetReactor()->UnregisterDevice(GetDeviceId());
        result_->whole.set_value();
        return true;
    }
    void Destroy() override {
        result_->destroyed.set_value();
        delete this;
    }

private:
    Result* result_;
};

// Each iteration: a fresh loopback TCP connection; a writer thread sends one
// frame of range(0) MiB, which the reactor takes with a 16 KiB grow step and
// a 32 MiB receive maximum (the maximum is counted on top of the default
// step and a read needs room for a whole step, so 16 MiB + 64 would not
// fit). Time is the wall time from registration to the whole frame.
void BM_ReactorLargeFrame(benchmark::State& state) {
    std::size_t const frame = static_cast<std::size_t>(state.range(0)) << 20;
    auto* reactor = new ZNRReactorIOCP(new ZNRTimerMgr());
    if (reactor->Init() != 0) std::abort();
    std::thread loop([reactor] { reactor->Open(); });

    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listener, 4) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        std::abort();
    }
    std::string const bytes(frame, 'f');
    double loop_cpu = 0;
    double reads = 0;
    double faults = 0;
    unsigned int max_block = 0;
    for (auto _ : state) {
        int const client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (client < 0 || ::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            std::abort();
        }
        ZNRUnknownDeviceParam param;
        param.fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        auto* device = new ZNRAsyncUnknownDevice();
        if (param.fd < 0 || !device->Open(&param)) std::abort();
        FrameTaker::Result result;
        result.frame = frame;
        std::future<void> whole = result.whole.get_future();
        std::future<void> destroyed = result.destroyed.get_future();

        auto const start = std::chrono::steady_clock::now();
        reactor->RegisterTask(new Call([&] {
            result.cpu_start = ThreadCpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            result.faults_start = ThreadMinorFaults();
            std::uint64_t err = 0;
            if (reactor->RegisterDevice(device, new FrameTaker(&result), &err, 32 << 20, 16 << 10,
                                        4096, 0xFFFFFFFF) == ~0ULL) {
                std::abort();
            }
        }));
        std::thread writer([&] {
            for (std::size_t at = 0; at < bytes.size();) {
                ssize_t const n =
                    ::send(client, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
                if (n <= 0) std::abort();
                at += static_cast<std::size_t>(n);
            }
        });
        whole.wait();
        auto const took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(std::chrono::duration<double>(took).count());
        writer.join();
        destroyed.wait();  // nothing of this device runs into the next iteration
        ::close(client);
        loop_cpu += result.cpu_end - result.cpu_start;
        reads += result.reads;
        faults += static_cast<double>(result.faults_end - result.faults_start);
        if (result.max_block > max_block) max_block = result.max_block;
    }
    double const n = static_cast<double>(state.iterations());
    state.counters["loop_cpu_ms"] = loop_cpu * 1e3 / n;
    state.counters["reads"] = reads / n;
    state.counters["page_faults"] = faults / n;
    state.counters["block_mib"] = static_cast<double>(max_block) / (1 << 20);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame));
    ::close(listener);
    reactor->Stop();
    loop.join();
    reactor->Destroy();
}
BENCHMARK(BM_ReactorLargeFrame)
    ->Arg(2)
    ->Arg(8)
    ->Arg(16)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Counts whole 64-byte messages and keeps a partial one, as a frame-cutting
// handler does; reports the loop thread's CPU clock once.
class SparseCounter : public ZNRDeviceHandler {
public:
    static constexpr unsigned int kMessage = 64;
    struct Shared {
        std::atomic<std::uint64_t> messages{0};
        std::atomic<std::uint64_t> reads{0};
        std::atomic<clockid_t> loop_clock{0};
        std::atomic<bool> clock_known{false};
    };
    explicit SparseCounter(Shared* shared) : shared_(shared) {}
    bool OnOpen() override {
        if (!shared_->clock_known.exchange(true)) {
            clockid_t clock{};
            pthread_getcpuclockid(pthread_self(), &clock);
            shared_->loop_clock = clock;
        }
        return true;
    }
    bool OnData(ZNRByteBuffer const* buffer, int* offset) override {
        unsigned int const whole = buffer->GetDataCount() / kMessage;
        *offset = static_cast<int>(whole * kMessage);
        shared_->reads.fetch_add(1, std::memory_order_relaxed);
        shared_->messages.fetch_add(whole, std::memory_order_release);
        return true;
    }

private:
    Shared* shared_;
};

class SparseAcceptor : public ZNRTcpAcceptor {
public:
    explicit SparseAcceptor(SparseCounter::Shared* shared)
        : ZNRTcpAcceptor(64 << 10, 16 << 10, 64 << 10), shared_(shared) {}

protected:
    ZNRDeviceHandler* OnCreateHandler(std::uint64_t) override { return new SparseCounter(shared_); }

private:
    SparseCounter::Shared* shared_;
};

template <class Pred>
void SpinUntil(Pred pred) {
    while (!pred()) std::this_thread::yield();
}

// Each iteration: one 64-byte message on the next of 1,000 connections, so
// every connection is idle between its messages and none holds receive
// memory when one comes. range(0) = 1: the message comes in two halves, the
// first read a tail the connection must keep (a block allocated, filled,
// given back). Time is the wall time to the handler; loop_cpu_us the loop
// thread's CPU per message.
void BM_SparseMessages(benchmark::State& state) {
    bool const split = state.range(0) != 0;
    int const connections = 1000;
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::uint64_t const reactor = mgr->New(&err);
    if (err != 0 || mgr->StartThread(reactor, ZNRString("sparse"), nullptr) != 0) std::abort();
    SparseCounter::Shared shared;
    SparseAcceptor acceptor(&shared);
    ZNRNetAddrInfo bound;
    if (acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), {reactor}, &bound) != 0) std::abort();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<unsigned short>(std::atoi(bound.GetPortStr().ToStdCStr().c_str())));
    std::vector<int> fds;
    for (int i = 0; i < connections; ++i) {
        int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) std::abort();
        fds.push_back(fd);
    }
    SpinUntil([&] { return shared.clock_known.load(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // every connection adopted

    char const message[SparseCounter::kMessage] = {};
    unsigned int const first = split ? SparseCounter::kMessage / 2 : SparseCounter::kMessage;
    clockid_t const loop_clock = shared.loop_clock;
    double const cpu_start = ThreadCpuSeconds(loop_clock);
    std::uint64_t const reads_start = shared.reads.load();
    std::size_t next = 0;
    std::uint64_t sent = shared.messages.load();
    for (auto _ : state) {
        int const fd = fds[next++ % fds.size()];
        std::uint64_t const reads = shared.reads.load();
        auto const start = std::chrono::steady_clock::now();
        if (::send(fd, message, first, MSG_NOSIGNAL) != static_cast<ssize_t>(first)) std::abort();
        if (split) {
            SpinUntil([&] { return shared.reads.load() != reads; });
            if (::send(fd, message + first, sizeof message - first, MSG_NOSIGNAL) !=
                static_cast<ssize_t>(sizeof message - first)) {
                std::abort();
            }
        }
        ++sent;
        SpinUntil([&] { return shared.messages.load(std::memory_order_acquire) == sent; });
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    double const n = static_cast<double>(state.iterations());
    state.counters["loop_cpu_us"] = (ThreadCpuSeconds(loop_clock) - cpu_start) * 1e6 / n;
    state.counters["reads"] = static_cast<double>(shared.reads.load() - reads_start) / n;
    for (int fd : fds) ::close(fd);
    mgr->RemoveAll();
}
BENCHMARK(BM_SparseMessages)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
