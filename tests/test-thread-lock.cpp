#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <tuple>
#include <utility>

namespace {

template <class F>
auto OnOtherThread(F f) {
    return std::async(std::launch::async, f).get();
}

// Whether another thread can take the lock right now; it lets go at once.
bool OtherCanLock(ZNRThreadMutex& m) {
    return OnOtherThread([&] { return m.Trylock() ? (m.Unlock(), true) : false; });
}

// {can read, can write} for another thread right now.
using Access = std::pair<bool, bool>;
Access const kNone{false, false}, kReadOnly{true, false}, kBoth{true, true};
Access Others(ZNRThreadRWMutex& rw) {
    return OnOtherThread([&] {
        bool read = rw.TrylockRead() ? (rw.Unlock(), true) : false;
        return Access(read, rw.TrylockWrite() ? (rw.Unlock(), true) : false);
    });
}

// Takes rw on a thread of its own and releases it there on demand, since
// the owning thread must be the one to unlock.
class Holder {
public:
    Holder(ZNRThreadRWMutex& rw, bool write)
        : thread_([this, &rw, write] {
              write ? rw.LockWrite() : rw.LockRead();
              taken_.set_value();
              go_.get_future().wait();
              rw.Unlock();
          }) {}
    ~Holder() { Release(); }
    void WaitTaken() { taken_future_.wait(); }
    // A bounded look: a false answer may only mean "not yet".
    bool IsTaken() { return taken_future_.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready; }
    void Release() { if (thread_.joinable()) { go_.set_value(); thread_.join(); } }

private:
    std::promise<void> taken_, go_;
    std::future<void> taken_future_ = taken_.get_future();
    std::thread thread_;
};

struct TestCond : ZNRThreadCond {
    bool ready = false;
    std::atomic<int> checks{0};
    void* last_check_arg = nullptr;
    int handled = 0;
    bool OnCheckCond(void* arg) override { ++checks; last_check_arg = arg; return ready; }
    void* OnSignalHandle(void* arg) override { ++handled; return arg; }
};

} // namespace

TEST(ThreadMutex, RecursiveOwnerAndExclusiveOthers) {
    ZNRThreadMutex m;
    m.Lock();
    EXPECT_TRUE(m.Trylock());
    EXPECT_FALSE(OtherCanLock(m));
    m.Unlock();
    EXPECT_FALSE(OtherCanLock(m));  // still held once
    m.Unlock();
    EXPECT_TRUE(OtherCanLock(m));
    EXPECT_NE(nullptr, m.GetFd());
    {
        ZNRGuardLock outer(&m);
        ZNRGuardSpinLock inner(&m, __FILE__, __LINE__);
        EXPECT_FALSE(OtherCanLock(m));
    }
    EXPECT_TRUE(OtherCanLock(m));
}

TEST(ThreadRWMutex, GuardsHoldAndRelease) {
    ZNRThreadRWMutex rw;
    // A guard left locked would hang the next one: stop at the first.
    { ZNRGuardReadLock g(&rw); EXPECT_EQ(kReadOnly, Others(rw)); }
    ASSERT_EQ(kBoth, Others(rw));
    { ZNRGuardReadSpinLock g(&rw, __FILE__, __LINE__); EXPECT_EQ(kReadOnly, Others(rw)); }
    ASSERT_EQ(kBoth, Others(rw));
    { ZNRGuardWriteLock g(&rw); EXPECT_EQ(kNone, Others(rw)); }
    ASSERT_EQ(kBoth, Others(rw));
    { ZNRGuardWriteSpinLock g(&rw, __FILE__, __LINE__); EXPECT_EQ(kNone, Others(rw)); }
    EXPECT_EQ(kBoth, Others(rw));
}

TEST(ThreadRWMutex, WriterWaitsForEveryReaderWhileReadersStillEnter) {
    ZNRThreadRWMutex rw;
    Holder reader1(rw, false), reader2(rw, false);
    reader1.WaitTaken(), reader2.WaitTaken();
    Holder writer(rw, true);
    EXPECT_FALSE(writer.IsTaken());
    EXPECT_EQ(kReadOnly, Others(rw));  // a waiting writer does not hold readers back
    reader1.Release();
    EXPECT_FALSE(writer.IsTaken());
    reader2.Release();
    writer.WaitTaken();
    EXPECT_EQ(kNone, Others(rw));
    // A blocking reader gets in once the writer leaves.
    Holder late_reader(rw, false);
    EXPECT_FALSE(late_reader.IsTaken());
    writer.Release();
    late_reader.WaitTaken(), late_reader.Release();
    EXPECT_EQ(kBoth, Others(rw));
}

TEST(ThreadRWMutex, WriterPastTheEventStillWaitsForAReaderThatSlipsIn) {
    ZNRThreadRWMutex rw;
    Holder first(rw, true);
    first.WaitTaken();
    // Both queue on the writer mutex, the reader first; the writer already saw no readers.
    Holder reader(rw, false);
    EXPECT_FALSE(reader.IsTaken());
    Holder writer(rw, true);
    EXPECT_FALSE(writer.IsTaken());
    first.Release();
    while (!reader.IsTaken() && !writer.IsTaken()) {}
    Holder& in = reader.IsTaken() ? reader : writer;
    Holder& out = &in == &reader ? writer : reader;
    bool const both = out.IsTaken();
    EXPECT_FALSE(both);
    EXPECT_EQ(&in == &reader ? kReadOnly : kNone, Others(rw));
    if (both) out.Release();  // so that the failure does not hang
    in.Release();
    out.WaitTaken(), out.Release();
    EXPECT_EQ(kBoth, Others(rw));
}

TEST(ThreadRWMutex, OwnerNestsReadsAndWritesAndUnwindsThem) {
    // Steps on this thread: R/W lock, r/w try (must succeed), u unlock. After each step, what
    // another thread can take: '-' nothing, 'r' read only, 'b' both. A lock left held fails, never hangs.
    struct Row { char const* steps; char const* others; } const rows[] = {
        {"WRuu", "---b"}, {"WWuu", "---b"}, {"RRuu", "rrrb"}, {"WrRwWuuuuu", "---------b"},
        {"WRuRuu", "-----b"}, {"RuWRuu", "rb---b"}};
    for (Row const& row : rows) {
        SCOPED_TRACE(row.steps);
        ZNRThreadRWMutex rw;
        for (int i = 0; row.steps[i] != '\0'; ++i) {
            switch (row.steps[i]) {
            case 'R': rw.LockRead(); break;
            case 'W': rw.LockWrite(); break;
            case 'r': ASSERT_TRUE(rw.TrylockRead()); break;
            case 'w': ASSERT_TRUE(rw.TrylockWrite()); break;
            default: rw.Unlock();
            }
            Access const a = Others(rw);
            ASSERT_EQ(row.others[i], a == kNone ? '-' : a == kReadOnly ? 'r' : a == kBoth ? 'b' : '?') << i;
        }
    }
}

TEST(ThreadCond, TimeoutAndConditionAlreadyTrue) {
    ZNRThreadMutex m;
    TestCond cond;
    ASSERT_EQ(0u, cond.Open(&m, false));
    int check_arg = 0, fetch_arg = 0;
    void* result = &cond;
    std::uint64_t error = 0;
    EXPECT_EQ(0, cond.Wait(0, &check_arg, &fetch_arg, &result, &error));
    EXPECT_EQ(std::make_tuple(1, static_cast<void*>(&check_arg), 0, static_cast<void*>(&cond), 0ull),
              std::make_tuple(cond.checks.load(), cond.last_check_arg, cond.handled, result, error));

    // A pending signal, condition false: woken once, checked again, then the zero wait times out.
    ASSERT_EQ(0u, cond.Signal());
    cond.checks = 0;
    EXPECT_EQ(0, cond.Wait(0, &check_arg, &fetch_arg, &result, &error));
    EXPECT_EQ(2, cond.checks.load());

    // Already true: no wait at all, even with a zero time-out.
    cond.ready = true, cond.checks = 0;
    EXPECT_EQ(1, cond.Wait(0, &check_arg, &fetch_arg, &result, nullptr));
    EXPECT_EQ(std::make_tuple(static_cast<void*>(&fetch_arg), 1, 1),
              std::make_tuple(result, cond.checks.load(), cond.handled));
    EXPECT_EQ(1, cond.Wait(-1, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(OtherCanLock(m));  // free again after every return
}

TEST(ThreadCond, SignalFromAnotherThreadWakesWaiter) {
    for (bool manual_reset : {false, true}) {
        SCOPED_TRACE(manual_reset ? "manual reset" : "automatic reset");
        ZNRThreadMutex m;
        TestCond cond;
        ASSERT_EQ(0u, cond.Open(&m, manual_reset));
        int fetch_arg = 0;
        // A long time-out in seconds must not overflow into "no wait".
        auto waiter = std::async(std::launch::async, [&] {
            void* result = nullptr;
            int rc = cond.Wait(3000000, nullptr, &fetch_arg, &result, nullptr);
            return std::make_pair(rc, result);
        });
        while (cond.checks.load() < 1) std::this_thread::yield();
        // A signal while the condition is still false sends the waiter back.
        ASSERT_EQ(0u, cond.Signal());
        while (cond.checks.load() < 2) std::this_thread::yield();
        EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(50)));
        {
            ZNRGuardLock g(&m);
            cond.ready = true;
        }
        ASSERT_EQ(0u, cond.Signal());
        EXPECT_EQ(std::make_pair(1, static_cast<void*>(&fetch_arg)), waiter.get());
        EXPECT_EQ(1, cond.handled);
    }
}

TEST(TLS, UnsetIsNullAndValuesArePerThreadAndPerSlot) {
    ZNRTLS tls, second;
    ASSERT_EQ(0u, tls.Open() | second.Open());
    // Get() returning {rc, value}, starting from a non-null value.
    auto get = [](ZNRTLS& t) {
        void* out = &out;
        std::uint64_t rc = t.Get(&out);
        return std::make_pair(rc, out);
    };
    using R = std::pair<std::uint64_t, void*>;
    int main_value = 1, other_value = 2;
    EXPECT_EQ(R(0, nullptr), get(tls));
    ASSERT_EQ(0u, tls.Set(&main_value));
    auto other = OnOtherThread([&] {
        R before = get(tls);
        std::uint64_t rc = tls.Set(&other_value);
        return std::make_tuple(before, rc, get(tls));
    });
    EXPECT_EQ(std::make_tuple(R(0, nullptr), 0ull, R(0, &other_value)), other);
    EXPECT_EQ(R(0, &main_value), get(tls));
    EXPECT_EQ(R(0, nullptr), get(second));  // slots do not share values
    // A stored null is a value, not an error.
    ASSERT_EQ(0u, tls.Set(nullptr));
    EXPECT_EQ(R(0, nullptr), get(tls));
}
