#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_constructed{0}, g_destroyed{0};

struct SlowService {
    // The sleep widens the window in which a racing thread could build a second one.
    SlowService() : serial(++g_constructed) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }
    ~SlowService() { ++g_destroyed; }
    int serial;
};

struct NeverCreated {};

typedef std::vector<int> IntVector;

// Reserves room in every container it makes, which shows whose factory ran.
struct ReservingAdapter : ZNRStlAdapter<IntVector> {
    static inline int created = 0;
    IntVector* OnCreateObject() override {
        ++created;
        IntVector* v = new IntVector();
        v->reserve(64);
        return v;
    }
};

// Runs one of the allocator's counters once.
template <class T>
std::int64_t Next(ZNRIdAllocator& ids, void (ZNRIdAllocator::*alloc)(T*)) {
    T v{};
    (ids.*alloc)(&v);
    return static_cast<std::int64_t>(v);
}

} // namespace

TEST(Singleton, RacingFirstUseGivesOneInstanceAndDestroyRenews) {
    using S = ZNRSingleton<SlowService>;
    std::atomic<bool> go{false};
    std::vector<SlowService*> seen(16, nullptr);
    std::vector<std::thread> threads;
    for (SlowService*& slot : seen)
        threads.emplace_back([&] {
            while (!go.load()) std::this_thread::yield();
            slot = S::Instance();
        });
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(1, g_constructed.load());
    EXPECT_EQ(std::vector<SlowService*>(16, seen[0]), seen);
    EXPECT_EQ(1, seen[0]->serial);

    S::Destroy();
    S::Destroy();  // nothing left to delete
    EXPECT_EQ(1, g_destroyed.load());
    EXPECT_EQ(2, S::Instance()->serial);
    EXPECT_EQ(2, S::Instance()->serial);
    S::Destroy();
    EXPECT_EQ(2, g_destroyed.load());
    ZNRSingleton<NeverCreated>::Destroy();
}

TEST(StlAdapter, CopiesAreDeepAndAssignmentUsesTheFactory) {
    ZNRStlAdapter<IntVector> a;
    EXPECT_TRUE(a->empty());
    a->push_back(1);
    ZNRStlAdapter<IntVector> b(a), c;
    b->push_back(2);
    EXPECT_EQ(IntVector({1}), *a);
    EXPECT_EQ(IntVector({1, 2}), *b);
    c->assign({7, 8, 9});
    c = b;
    a->push_back(5);
    b->clear();
    EXPECT_EQ(IntVector({1, 2}), *c);
    ZNRStlAdapter<IntVector>& alias = c;
    IntVector* before = c.Get();
    c = alias;  // self-assignment keeps the same container
    EXPECT_EQ(before, c.Get());
    EXPECT_EQ(IntVector({1, 2}), *c);

    ReservingAdapter r, source;
    // A base constructor cannot reach the override.
    EXPECT_EQ(0, ReservingAdapter::created);
    EXPECT_LT(r->capacity(), 64u);
    source->assign({3, 4});
    r = source;
    EXPECT_EQ(1, ReservingAdapter::created);
    EXPECT_GE(r->capacity(), 64u);
    source->push_back(5);
    EXPECT_EQ(IntVector({3, 4}), *r);
}

TEST(IdAllocator, CountersStartAtOneAndAreIndependent) {
    ZNRIdAllocator ids;
    using A = ZNRIdAllocator;
    // Braced lists run in order.
    std::vector<std::int64_t> got{Next(ids, &A::AllocNumId), Next(ids, &A::AllocUIntNumId),
                                  Next(ids, &A::AllocNumId), Next(ids, &A::AllocNumId),
                                  Next(ids, &A::AllocIntNumId), Next(ids, &A::AllocULONGNumId),
                                  Next(ids, &A::AllocULONGNumId), Next(ids, &A::AllocUIntNumId)};
    EXPECT_EQ((std::vector<std::int64_t>{1, 1, 2, 3, 1, 1, 2, 2}), got);

    // One counter for all groups, the group in the top byte.
    ZNRGroupIdAllocator groups;
    std::vector<std::uint64_t> group_ids;
    for (unsigned char g : {3, 0xFF, 0}) {
        std::uint64_t id = 0;
        groups.AllocIdByGroup(g, &id);
        group_ids.push_back(id);
    }
    EXPECT_EQ((std::vector<std::uint64_t>{0x0300000000000001ULL, 0xFF00000000000002ULL, 3}), group_ids);
}

TEST(IdAllocator, UuidsAreVersionFourTextAndUnique) {
    ZNRIdAllocator ids;
    std::regex const form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        ZNRString uuid("old");
        ASSERT_EQ(0u, ids.AllocUUID(&uuid));
        ASSERT_TRUE(std::regex_match(uuid.ToStdCStr(), form)) << uuid.ToStdCStr();
        seen.insert(uuid.ToStdCStr());
    }
    EXPECT_EQ(1000u, seen.size());
    EXPECT_EQ(1, Next(ids, &ZNRIdAllocator::AllocNumId));  // UUIDs take nothing from the counters
}
