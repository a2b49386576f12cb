#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_constructed{0};
std::atomic<int> g_destroyed{0};

struct SlowService {
    SlowService() : serial(++g_constructed) {
        // Widens the window in which a racing thread could build a second one.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~SlowService() { ++g_destroyed; }
    int serial;
};

struct NeverCreated {};

typedef std::vector<int> IntVector;

// Reserves room in every container it makes, which shows whose factory ran.
class ReservingAdapter : public ZNRStlAdapter<IntVector> {
public:
    static int created;

protected:
    IntVector* OnCreateObject() override {
        ++created;
        IntVector* v = new IntVector();
        v->reserve(64);
        return v;
    }
};
int ReservingAdapter::created = 0;

} // namespace

TEST(Singleton, RacingFirstUseGivesOneInstanceAndDestroyRenews) {
    constexpr int kThreads = 16;
    g_constructed = 0;
    g_destroyed = 0;
    std::atomic<bool> go{false};
    std::vector<SlowService*> seen(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            while (!go.load()) std::this_thread::yield();
            seen[i] = ZNRSingleton<SlowService>::Instance();
        });
    }
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(1, g_constructed.load());
    for (SlowService* s : seen) EXPECT_EQ(seen[0], s);
    EXPECT_EQ(1, seen[0]->serial);

    ZNRSingleton<SlowService>::Destroy();
    EXPECT_EQ(1, g_destroyed.load());
    ZNRSingleton<SlowService>::Destroy();  // nothing left to delete
    EXPECT_EQ(1, g_destroyed.load());
    EXPECT_EQ(2, ZNRSingleton<SlowService>::Instance()->serial);
    EXPECT_EQ(2, ZNRSingleton<SlowService>::Instance()->serial);
    ZNRSingleton<SlowService>::Destroy();
    EXPECT_EQ(2, g_destroyed.load());

    ZNRSingleton<NeverCreated>::Destroy();
}

TEST(StlAdapter, CopiesAreDeepAndAssignmentUsesTheFactory) {
    ZNRStlAdapter<IntVector> a;
    EXPECT_TRUE(a->empty());
    a->push_back(1);
    ZNRStlAdapter<IntVector> b(a);
    b->push_back(2);
    EXPECT_EQ(IntVector({1}), *a);
    EXPECT_EQ(IntVector({1, 2}), *b);
    EXPECT_NE(a.Get(), b.Get());

    ZNRStlAdapter<IntVector> c;
    c->assign({7, 8, 9});
    c = b;
    a->push_back(5);
    b->clear();
    EXPECT_EQ(IntVector({1, 2}), *c);
    ZNRStlAdapter<IntVector>& alias = c;
    IntVector* before = c.Get();
    c = alias;
    EXPECT_EQ(before, c.Get());
    EXPECT_EQ(IntVector({1, 2}), *c);

    ReservingAdapter::created = 0;
    ReservingAdapter r;
    // A base constructor cannot reach the override.
    EXPECT_EQ(0, ReservingAdapter::created);
    EXPECT_LT(r->capacity(), 64u);
    ReservingAdapter source;
    source->assign({3, 4});
    r = source;
    EXPECT_EQ(1, ReservingAdapter::created);
    EXPECT_GE(r->capacity(), 64u);
    EXPECT_EQ(IntVector({3, 4}), *r);
    source->push_back(5);
    EXPECT_EQ(IntVector({3, 4}), *r);
}

TEST(IdAllocator, CountersStartAtOneAndAreIndependent) {
    ZNRIdAllocator ids;
    std::uint64_t num = 0;
    int int_id = 0;
    unsigned int uint_id = 0;
    std::uint32_t ulong_id = 0;
    ids.AllocNumId(&num);
    EXPECT_EQ(1u, num);
    ids.AllocUIntNumId(&uint_id);
    EXPECT_EQ(1u, uint_id);
    ids.AllocNumId(&num);
    ids.AllocNumId(&num);
    EXPECT_EQ(3u, num);
    ids.AllocIntNumId(&int_id);
    EXPECT_EQ(1, int_id);
    ids.AllocULONGNumId(&ulong_id);
    ids.AllocULONGNumId(&ulong_id);
    EXPECT_EQ(2u, ulong_id);
    ids.AllocUIntNumId(&uint_id);
    EXPECT_EQ(2u, uint_id);

    ZNRGroupIdAllocator groups;
    std::uint64_t id = 0;
    groups.AllocIdByGroup(3, &id);
    EXPECT_EQ(0x0300000000000001ULL, id);
    // One counter for all groups.
    groups.AllocIdByGroup(0xFF, &id);
    EXPECT_EQ(0xFF00000000000002ULL, id);
    groups.AllocIdByGroup(0, &id);
    EXPECT_EQ(3u, id);
}

TEST(IdAllocator, UuidsAreVersionFourTextAndUnique) {
    ZNRIdAllocator ids;
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        ZNRString uuid("old");
        ASSERT_EQ(0u, ids.AllocUUID(&uuid));
        std::string const text = uuid.ToStdCStr();
        ASSERT_EQ(36u, text.size()) << text;
        for (std::size_t p = 0; p < text.size(); ++p) {
            if (p == 8 || p == 13 || p == 18 || p == 23) {
                ASSERT_EQ('-', text[p]) << text;
            } else {
                ASSERT_TRUE((text[p] >= '0' && text[p] <= '9') || (text[p] >= 'a' && text[p] <= 'f'))
                    << text;
            }
        }
        ASSERT_EQ('4', text[14]) << text;
        ASSERT_NE(std::string::npos, std::string("89ab").find(text[19])) << text;
        seen.insert(text);
    }
    EXPECT_EQ(1000u, seen.size());
    // UUIDs take nothing from the counters.
    std::uint64_t num = 0;
    ids.AllocNumId(&num);
    EXPECT_EQ(1u, num);
}
