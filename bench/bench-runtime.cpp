// Runtime costs: pooled allocation against the heap, the timer wheel, and
// message passing between two threads.
#include <plexa/plexa.h>
#include <plexa/znr-pool-mem-allocator.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <thread>
#include <vector>

namespace {

typedef ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam> PoolAllocator;

PoolAllocator* MakePoolAllocator() {
    ZNRBlockMemoryPool::InitParam param;
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(64, 256, 4096));
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(512, 256, 4096));
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(4096, 256, 4096));
    return new PoolAllocator(param);
}

// One block taken and given back per iteration, on the owning thread.
void BM_PoolAllocFree(benchmark::State& state) {
    unsigned int const size = static_cast<unsigned int>(state.range(0));
    PoolAllocator* allocator = MakePoolAllocator();
    allocator->Free(allocator->Alloc(size, __FILE__, __LINE__));  // makes this thread's pool
    for (auto _ : state) {
        void* p = allocator->Alloc(size, __FILE__, __LINE__);
        benchmark::DoNotOptimize(p);
        allocator->Free(p);
    }
    delete allocator;
}
BENCHMARK(BM_PoolAllocFree)->Arg(64)->Arg(512)->Arg(4096);

// The same on a bare block pool: the pool's share of the cost above.
void BM_BlockPoolAllocFree(benchmark::State& state) {
    unsigned int const size = static_cast<unsigned int>(state.range(0));
    ZNRBlockMemoryPool::InitParam param;
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(64, 256, 4096));
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(512, 256, 4096));
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(4096, 256, 4096));
    ZNRBlockMemoryPool pool;
    pool.Init(&param);
    std::uint64_t error = 0;
    for (auto _ : state) {
        void* p = pool.Alloc(size, __FILE__, __LINE__, &error);
        benchmark::DoNotOptimize(p);
        pool.Free(p);
    }
}
BENCHMARK(BM_BlockPoolAllocFree)->Arg(64)->Arg(512)->Arg(4096);

void BM_MallocFree(benchmark::State& state) {
    std::size_t const size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(512)->Arg(4096);

// 64 blocks held at once, then all given back: exercises the free sets.
void BM_PoolAllocFreeBatch(benchmark::State& state) {
    unsigned int const size = static_cast<unsigned int>(state.range(0));
    PoolAllocator* allocator = MakePoolAllocator();
    std::vector<void*> held(64);
    for (auto _ : state) {
        for (void*& p : held) p = allocator->Alloc(size, __FILE__, __LINE__);
        benchmark::DoNotOptimize(held.data());
        for (void* p : held) allocator->Free(p);
    }
    state.SetItemsProcessed(state.iterations() * 64);
    delete allocator;
}
BENCHMARK(BM_PoolAllocFreeBatch)->Arg(64)->Arg(512)->Arg(4096);

void BM_MallocFreeBatch(benchmark::State& state) {
    std::size_t const size = static_cast<std::size_t>(state.range(0));
    std::vector<void*> held(64);
    for (auto _ : state) {
        for (void*& p : held) p = std::malloc(size);
        benchmark::DoNotOptimize(held.data());
        for (void* p : held) std::free(p);
    }
    state.SetItemsProcessed(state.iterations() * 64);
}
BENCHMARK(BM_MallocFreeBatch)->Arg(64)->Arg(512)->Arg(4096);

class OneShotTimer : public ZNRTimer {
public:
    OneShotTimer() : ZNRTimer(0, 1, nullptr) {}
    bool OnExpires(std::uint64_t) override { return true; }
    void OnReset() override {}
    void OnClose() override {}
    void Destroy() override { delete this; }
};

// 10,000 timers armed, then fired (and ended) by walking the four slots.
void BM_TimerAddFire(benchmark::State& state) {
    constexpr int kTimers = 10000;
    for (auto _ : state) {
        ZNRTimerMgr* mgr = new ZNRTimerMgr();
        for (int i = 0; i < kTimers; ++i) mgr->AddTimer(new OneShotTimer());
        unsigned int fired = 0;
        while (mgr->Size() > 0) {
            for (std::uint64_t slot = 0; slot < 8; slot += 2) fired += mgr->ScheduleTimers(slot);
        }
        benchmark::DoNotOptimize(fired);
        mgr->Destroy();
    }
    state.SetItemsProcessed(state.iterations() * kTimers);
}
BENCHMARK(BM_TimerAddFire)->Unit(benchmark::kMillisecond);

class NullHandler : public ZNRMessageHandler {
public:
    void OnMessage(ZNRMessage*) override {}
};

// One thread posts a batch while the benchmark thread gets it.
void BM_MessageQueuePostGet(benchmark::State& state) {
    constexpr unsigned int kBatch = 10000;
    ZNRMessageQueue* queue = new ZNRMessageQueue();
    NullHandler handler;
    for (auto _ : state) {
        std::thread poster([queue, &handler] {
            for (unsigned int i = 0; i < kBatch; ++i) queue->Post(&handler, i, nullptr);
        });
        ZNRMessage message;
        for (unsigned int i = 0; i < kBatch; ++i) {
            queue->Get(&message, -1);
            queue->Dispatch(&message);
        }
        poster.join();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    queue->Release();
}
BENCHMARK(BM_MessageQueuePostGet)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
