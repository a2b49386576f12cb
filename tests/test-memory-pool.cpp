#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log-capture.h"

namespace {

typedef ZNRBlockMemoryPool::BlockPoolInfo Info;
typedef ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam> PoolAllocator;

std::uint64_t const kError42 = 0x800000010000002AULL;
std::uint64_t const kError44 = 0x800000010000002CULL;
std::uint64_t const kError46 = 0x800000010000002EULL;

ZNRBlockMemoryPool::InitParam MakeParam(std::vector<Info> const& classes) {
    ZNRBlockMemoryPool::InitParam param;
    *param.block_pools = classes;
    return param;
}

// "current used max" in bytes.
std::string Sizes(ZNRBlockMemoryPool const& pool) {
    return std::to_string(pool.GetCurrentSize()) + " " + std::to_string(pool.GetUsedSize()) + " " +
           std::to_string(pool.GetMaxCapacity());
}

class MemoryPoolTest : public ::testing::Test {
protected:
    std::vector<std::string> Messages(unsigned char level, bool sorted = false) const {
        std::vector<std::string> out = log_.Messages(level);
        if (sorted) std::sort(out.begin(), out.end());
        return out;
    }

    LogCapture log_;
    std::uint64_t error_ = 0;
};

TEST_F(MemoryPoolTest, CountersAndFirstFitOverSizeClasses) {
    // Added out of order: the classes are still walked by ascending size.
    ZNRBlockMemoryPool::InitParam param = MakeParam({Info(65536, 0, 5), Info(4096, 10, 100)});
    ZNRBlockMemoryPool pool;
    ASSERT_EQ(0u, pool.Init(&param));
    EXPECT_EQ(nullptr, (*param.block_pools)[0].block_list);
    EXPECT_EQ("40960 0 737280", Sizes(pool));
    void* big = pool.Alloc(5000, "a.cpp", 1, &error_);
    ASSERT_NE(nullptr, big);
    EXPECT_EQ(0u, error_);
    EXPECT_EQ("106496 65536 737280", Sizes(pool));

    // The ten preallocated blocks come out lowest address first.
    std::vector<unsigned char*> small;
    for (int i = 0; i < 10; ++i) {
        small.push_back(static_cast<unsigned char*>(pool.Alloc(i == 0 ? 100 : 4096, "a.cpp", 2, &error_)));
        ASSERT_NE(nullptr, small.back());
    }
    EXPECT_TRUE(std::is_sorted(small.begin(), small.end()));
    EXPECT_EQ(small.end(), std::adjacent_find(small.begin(), small.end()));
    EXPECT_EQ("106496 106496 737280", Sizes(pool));
    // With nothing free the class grows rather than moving up a class.
    ASSERT_NE(nullptr, pool.Alloc(1, "a.cpp", 3, &error_));
    EXPECT_EQ("110592 110592 737280", Sizes(pool));

    // Reuse prefers the lowest free address, whatever the order of freeing.
    EXPECT_EQ(0u, pool.Free(small[7]) | pool.Free(small[3]));
    EXPECT_EQ("110592 102400 737280", Sizes(pool));
    EXPECT_EQ(small[3], pool.Alloc(10, "a.cpp", 4, &error_));
    EXPECT_EQ(small[7], pool.Alloc(10, "a.cpp", 4, &error_));
    EXPECT_EQ("110592 110592 737280", Sizes(pool));
    EXPECT_EQ(0u, error_);
    EXPECT_EQ(0u, pool.Free(big));
    EXPECT_EQ(big, pool.Alloc(65536, "a.cpp", 5, &error_));
    EXPECT_EQ(nullptr, pool.Alloc(65537, "a.cpp", 6, &error_));
    EXPECT_EQ(kError44, error_);
}

TEST_F(MemoryPoolTest, FullClassesFreeErrorsAndFill) {
    ZNRBlockMemoryPool::InitParam param = MakeParam({Info(4096, 1, 1)});
    ZNRBlockMemoryPool pool;
    ASSERT_EQ(0u, pool.Init(&param));
    void* first = pool.Alloc(10, "b.cpp", 1, &error_);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(nullptr, pool.Alloc(10, "b.cpp", 2, &error_));
    EXPECT_EQ(kError44, error_);
    EXPECT_EQ(nullptr, pool.Alloc(10, "b.cpp", 2, nullptr));
    EXPECT_EQ(0u, pool.Free(first));
    error_ = 0;
    EXPECT_EQ(first, pool.Alloc(10, "b.cpp", 3, &error_));
    EXPECT_EQ(0u, error_);

    // A full class hands the request on to the next larger one.
    ZNRBlockMemoryPool::InitParam two = MakeParam({Info(64, 0, 1), Info(128, 0, 1)});
    ZNRBlockMemoryPool spill;
    ASSERT_EQ(0u, spill.Init(&two));
    EXPECT_NE(nullptr, spill.Alloc(10, "b.cpp", 4, &error_));
    EXPECT_EQ("64 64 192", Sizes(spill));
    EXPECT_NE(nullptr, spill.Alloc(10, "b.cpp", 5, &error_));
    EXPECT_EQ(nullptr, spill.Alloc(10, "b.cpp", 6, &error_));
    EXPECT_EQ("192 192 192", Sizes(spill));

    // Pointers the pool does not hold as used change nothing.
    int local = 0;
    for (void* p : {static_cast<void*>(&local), static_cast<void*>(nullptr),
                    static_cast<void*>(static_cast<unsigned char*>(first) + 1)})
        EXPECT_EQ(kError46, pool.Free(p));
    EXPECT_EQ(0u, pool.Free(first));
    EXPECT_EQ(kError46, pool.Free(first));
    EXPECT_EQ(0u, pool.GetUsedSize());

    // Fill covers the requested bytes only.
    std::memset(first, 0, 4096);
    ASSERT_EQ(first, pool.Alloc(10, 'x', "b.cpp", 7, &error_));
    EXPECT_EQ(std::string(10, 'x') + '\0', std::string(static_cast<char*>(first), 11));
    EXPECT_EQ(nullptr, pool.Alloc(10, 'x', "b.cpp", 8, &error_));
}

TEST_F(MemoryPoolTest, InitRejectsForeignParametersAndClampsMaxToPrealloc) {
    // A class with its block list already set stops Init: classes before it stay, those after are not added.
    ZNRBlockMemoryPool::InitParam param = MakeParam({Info(64, 1, 1), Info(128, 1, 1), Info(256, 1, 1)});
    (*param.block_pools)[1].block_list = reinterpret_cast<ZNRBlockMemoryPool::BlockList*>(&param);
    ZNRBlockMemoryPool pool, wrong;
    EXPECT_EQ(kError42, pool.Init(&param));
    EXPECT_EQ("64 0 64", Sizes(pool));
    EXPECT_NE(nullptr, pool.Alloc(64, "d.cpp", 1, &error_));
    EXPECT_EQ(nullptr, pool.Alloc(100, "d.cpp", 2, &error_));
    EXPECT_EQ(kError44, error_);
    ZNRMemoryPool::InitParamBase other;
    EXPECT_EQ(kError42, wrong.Init(&other));

    // max below prealloc: warned about, and the class behaves as max 5; the caller's copy is untouched.
    ZNRBlockMemoryPool::InitParam clamp = MakeParam({Info(4096, 5, 2)});
    ZNRBlockMemoryPool clamped;
    log_.clear();
    ASSERT_EQ(0u, clamped.Init(&clamp));
    ASSERT_EQ(1u, log_.lines().size());
    EXPECT_EQ((std::vector<std::string>{"Memory block pool max count is bigger than prealloc block count, bug?, force "
                                        "set it's max to prealloc count, block_size=4096 block_max_count=2 "
                                        "block_prealloc_count=5"}),
              Messages(ZNRLogger::LOGL_WARNING));
    EXPECT_EQ(20480u, clamped.GetMaxCapacity());
    EXPECT_EQ(2u, (*clamp.block_pools)[0].max_count);
    for (int i = 0; i < 5; ++i) EXPECT_NE(nullptr, clamped.Alloc(1, "d.cpp", 3, &error_)) << i;
    EXPECT_EQ(nullptr, clamped.Alloc(1, "d.cpp", 4, &error_));
}

TEST_F(MemoryPoolTest, ClearLogsUsedBlocksAndKeepsClassesAndCounters) {
    ZNRBlockMemoryPool::InitParam param = MakeParam({Info(512, 3, 4)});
    ZNRBlockMemoryPool pool;
    ASSERT_EQ(0u, pool.Init(&param));
    void* a = pool.Alloc(1, "owner.cpp", 12, &error_);
    ASSERT_LT(a, pool.Alloc(1, "other.cpp", 34, &error_));
    log_.clear();
    EXPECT_EQ(0u, pool.Clear());
    EXPECT_EQ((std::vector<std::string>{"Clear used memory block, size=512, owner_info=owner.cpp:12",
                                        "Clear used memory block, size=512, owner_info=other.cpp:34"}),
              Messages(ZNRLogger::LOGL_WARNING));
    EXPECT_EQ(2u, log_.lines().size());
    EXPECT_EQ("1536 1024 2048", Sizes(pool));
    EXPECT_EQ(kError46, pool.Free(a));

    // The class serves again, growing from nothing, up to its max count.
    for (int i = 0; i < 4; ++i) EXPECT_NE(nullptr, pool.Alloc(100, "f.cpp", 1, &error_)) << i;
    EXPECT_EQ(1536u + 2048u, pool.GetCurrentSize());
    EXPECT_EQ(nullptr, pool.Alloc(100, "f.cpp", 2, &error_));
    log_.clear();
    pool.Clear();
    EXPECT_EQ(4u, Messages(ZNRLogger::LOGL_WARNING).size());
}

// Random takes and frees against a model of the free and used sets, across
// growth (blocks made at any address) and Clear: every take must be the
// lowest free address, every double free error 46.
TEST_F(MemoryPoolTest, TakesTheLowestFreeAddressThroughGrowthAndClear) {
    ZNRBlockMemoryPool::InitParam param = MakeParam({Info(48, 5, 200)});
    ZNRBlockMemoryPool pool;
    ASSERT_EQ(0u, pool.Init(&param));
    std::set<void*> free_set, used;
    std::vector<void*> freed;
    unsigned int seed = 7;
    auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
    for (int round = 0; round < 2; ++round) {
        unsigned int const base = pool.GetUsedSize();  // Clear keeps the counters
        for (int step = 0; step < 4000; ++step) {
            if (next() % 8 < 5 || used.empty()) {
                void* p = pool.Alloc(1 + next() % 48, "m.cpp", step, &error_);
                if (!free_set.empty()) {
                    ASSERT_EQ(*free_set.begin(), p) << step;
                    free_set.erase(free_set.begin());
                } else if (free_set.size() + used.size() < 200) {
                    ASSERT_TRUE(p != nullptr && used.count(p) == 0) << step;
                } else {
                    ASSERT_EQ(nullptr, p);
                    continue;
                }
                used.insert(p);
            } else {
                auto it = used.begin();
                std::advance(it, next() % used.size());
                ASSERT_EQ(0u, pool.Free(*it));
                freed.push_back(*it);
                free_set.insert(*it);
                used.erase(it);
            }
            if (step % 97 == 0 && !freed.empty() && free_set.count(freed.back())) {
                ASSERT_EQ(kError46, pool.Free(freed.back()));
            }
            ASSERT_EQ(base + 48u * used.size(), pool.GetUsedSize()) << step;
        }
        log_.clear();
        pool.Clear();
        ASSERT_EQ(used.size(), Messages(ZNRLogger::LOGL_WARNING).size());
        free_set.clear();
        used.clear();
        freed.clear();
    }
}

TEST_F(MemoryPoolTest, PoolAllocatorGivesEachThreadItsOwnPool) {
    PoolAllocator allocator(MakeParam({Info(64, 2, 2)}));
    void* mine[2] = {allocator.Alloc(10, "g.cpp", 1), allocator.Alloc(64, "g.cpp", 2)};
    ASSERT_TRUE(mine[0] != nullptr && mine[1] != nullptr);
    // Another thread has a pool of its own: its two blocks come without a fallback, and its memory is not known here.
    void* theirs = nullptr;
    std::uint64_t their_free_of_mine = 0, stranger = 0;
    std::thread([&] {
        theirs = allocator.Alloc(10, "g.cpp", 3);
        void* second = allocator.Alloc(10, "g.cpp", 4);
        EXPECT_NE(nullptr, second);
        EXPECT_EQ(0u, allocator.Free(second));
        their_free_of_mine = allocator.Free(mine[0]);
    }).join();
    ASSERT_NE(nullptr, theirs);
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_DEBUG).empty());
    EXPECT_EQ(kError46, their_free_of_mine);
    EXPECT_EQ(kError46, allocator.Free(theirs));
    EXPECT_EQ(0u, allocator.Free(mine[0]));
    EXPECT_EQ(mine[0], allocator.Alloc(1, "g.cpp", 5));
    // A thread that never allocated has nothing to free.
    std::thread([&] { stranger = allocator.Free(mine[1]); }).join();
    EXPECT_EQ(kError46, stranger);
}

TEST_F(MemoryPoolTest, PoolAllocatorFallsBackToTheHeapAndWarnsOnDestruction) {
    {
        PoolAllocator allocator(MakeParam({Info(64, 1, 1)}));
        ASSERT_NE(nullptr, allocator.Alloc(64, "h.cpp", 1));
        EXPECT_TRUE(Messages(ZNRLogger::LOGL_DEBUG).empty());
        unsigned char* heap = static_cast<unsigned char*>(allocator.Alloc(100, "h.cpp", 2));
        ASSERT_NE(nullptr, heap);
        std::memset(heap, 1, 100);
        EXPECT_EQ((std::vector<std::string>{"Can not alloc memory from pool, force to use std memory allocator, "
                                            "size=100, owner=h.cpp:2, error=\"A user error was occured, domain=1 "
                                            "errnum=44\""}),
                  Messages(ZNRLogger::LOGL_DEBUG));
        EXPECT_EQ(0u, allocator.Free(heap));
        EXPECT_EQ(kError46, allocator.Free(heap));
        // Still used at the end: a pooled block, a heap block, and memory of a thread that is gone.
        ASSERT_NE(nullptr, allocator.Alloc(7, "h.cpp", 3));
        std::thread([&] { EXPECT_NE(nullptr, allocator.Alloc(8, "t.cpp", 4)); }).join();
        EXPECT_EQ(2u, allocator.GetPoolCount());
        log_.clear();
    }
    EXPECT_EQ((std::vector<std::string>{"Clear used memory block, size=64, owner_info=h.cpp:1",
                                        "Clear used memory block, size=64, owner_info=t.cpp:4",
                                        "Clear used memory, size=7, owner=h.cpp:3"}),
              Messages(ZNRLogger::LOGL_WARNING, true));
}

TEST_F(MemoryPoolTest, PoolAllocatorDropsThePoolsOfThreadsThatEndIdle) {
    {
        PoolAllocator allocator(MakeParam({Info(64, 1, 1)}));
        EXPECT_EQ(0u, allocator.Free(allocator.Alloc(10, "i.cpp", 1)));
        // Each thread frees what it took, a pooled block or a heap one.
        std::vector<std::thread> threads;
        for (int i = 0; i < 64; ++i)
            threads.emplace_back(
                [&allocator, i] { EXPECT_EQ(0u, allocator.Free(allocator.Alloc(i % 2 ? 10 : 100, "i.cpp", 2))); });
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(1u, allocator.GetPoolCount());
        // Ending with memory still taken keeps the pool, and the memory is the ended thread's alone.
        void* kept[2] = {};
        for (int i = 0; i < 2; ++i)
            std::thread([&allocator, &kept, i] { kept[i] = allocator.Alloc(i ? 100 : 10, "i.cpp", 3 + i); }).join();
        EXPECT_EQ(3u, allocator.GetPoolCount());
        EXPECT_EQ(kError46, allocator.Free(kept[0]) | allocator.Free(kept[1]));
        log_.clear();
    }
    EXPECT_EQ((std::vector<std::string>{"Clear used memory block, size=64, owner_info=i.cpp:3",
                                        "Clear used memory, size=100, owner=i.cpp:4"}),
              Messages(ZNRLogger::LOGL_WARNING, true));

    // The allocator may end before threads that used it, or while they end.
    PoolAllocator* early = new PoolAllocator(MakeParam({Info(64, 1, 1)}));
    std::atomic<int> ready(0);
    std::atomic<bool> go(false);
    std::vector<std::thread> late;
    for (int i = 0; i < 8; ++i)
        late.emplace_back([&, i] {
            void* p = early->Alloc(10, "j.cpp", i);
            if (i % 2 == 0) early->Free(p);
            ++ready;
            while (i < 4 && !go) std::this_thread::yield();
        });
    while (ready < 8) std::this_thread::yield();
    log_.clear();
    delete early;
    go = true;
    for (std::thread& thread : late) thread.join();
    EXPECT_EQ(4u, Messages(ZNRLogger::LOGL_WARNING).size());
}

TEST_F(MemoryPoolTest, PoolAllocatorThreadsWorkSideBySide) {
    PoolAllocator allocator(MakeParam({Info(64, 4, 8), Info(512, 0, 8)}));
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&allocator, &failures, t] {
            for (int round = 0; round < 500; ++round) {
                unsigned char* blocks[16];
                for (int i = 0; i < 16; ++i) {
                    blocks[i] = static_cast<unsigned char*>(allocator.Alloc(i % 2 ? 64 : 500, "s.cpp", i));
                    if (blocks[i] == nullptr) ++failures[t];
                    else blocks[i][0] = static_cast<unsigned char>(t);
                }
                for (int i = 15; i >= 0; --i)
                    failures[t] += (blocks[i] != nullptr && blocks[i][0] != t) + (allocator.Free(blocks[i]) != 0);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(4, 0), failures);
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_DEBUG).empty());
}

TEST_F(MemoryPoolTest, PackAllocatorServesTwoMegabyteBlocks) {
    ZNRPackMemAllocator* pack = ZNRPackMemAllocator::Instance();
    ASSERT_NE(nullptr, pack);
    EXPECT_EQ(pack, ZNRPackMemAllocator::Instance());
    void* block = pack->Alloc(0x200000, "p.cpp", 1);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0u, pack->Free(block));
    EXPECT_EQ(block, pack->Alloc(16, "p.cpp", 2));
    EXPECT_EQ(0u, pack->Free(block));
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_DEBUG).empty());
    void* large = pack->Alloc(0x200001, "p.cpp", 3);  // beyond the block size: from the heap, with a note
    ASSERT_NE(nullptr, large);
    EXPECT_EQ(1u, Messages(ZNRLogger::LOGL_DEBUG).size());
    EXPECT_EQ(0u, pack->Free(large));
    ZNRPackMemAllocator::Destroy();
    ZNRPackMemAllocator::Destroy();
}

}  // namespace
