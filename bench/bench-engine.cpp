// The completion engine alone: a request and its reply between two
// sockets on one engine, and an empty wait.
#include <plexa/plexa.h>

#include "znr-completion-engine.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <memory>
#include <sys/socket.h>

namespace {

struct Side {
    ZNRAsyncSocket socket;
    unsigned char in[4096];
};

// Waits until both sides' operations have completed.
void Drain(ZNRCompletionEngine* engine, int count) {
    ZNRCompletion batch[2];
    while (count > 0) {
        int n = 0;
        if (engine->Wait(1000, batch, count, &n) != 0) std::abort();
        for (int i = 0; i < n; ++i) {
            if (batch[i].failed) std::abort();
        }
        count -= n;
    }
}

void BM_EngineRoundTrip(benchmark::State& state) {
    std::uint64_t err = 0;
    std::unique_ptr<ZNRCompletionEngine> engine(ZNRCompletionEngine::Create(&err));
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
    Side a, b;
    a.socket.Open(ZNRSocket::TYPE_TCP_V4, fds[0]);
    b.socket.Open(ZNRSocket::TYPE_TCP_V4, fds[1]);
    engine->Associate(fds[0], 1, &a.socket);
    engine->Associate(fds[1], 2, &b.socket);
    int const size = static_cast<int>(state.range(0));
    std::unique_ptr<unsigned char[]> message(new unsigned char[size]());
    for (auto _ : state) {
        for (Side* from : {&a, &b}) {
            Side* const to = from == &a ? &b : &a;
            from->socket.ResetWriteIOStatus();
            to->socket.ResetReadIOStatus();
            from->socket.Send(message.get(), size, &err);
            to->socket.Recv(to->in, sizeof to->in, &err);
            Drain(engine.get(), 2);
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EngineRoundTrip)->Arg(64)->Arg(1024);

void BM_EngineEmptyWait(benchmark::State& state) {
    std::uint64_t err = 0;
    std::unique_ptr<ZNRCompletionEngine> engine(ZNRCompletionEngine::Create(&err));
    ZNRCompletion c{};
    int n = 0;
    for (auto _ : state) benchmark::DoNotOptimize(engine->Wait(0, &c, 1, &n));
}
BENCHMARK(BM_EngineEmptyWait);

} // namespace

BENCHMARK_MAIN();
