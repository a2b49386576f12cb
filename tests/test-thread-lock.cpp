#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace {

template <class F>
auto OnOtherThread(F f) {
    return std::async(std::launch::async, f).get();
}

// Whether another thread can take the lock right now; it lets go at once.
bool OtherCanLock(ZNRThreadMutex& m) {
    return OnOtherThread([&] {
        bool got = m.Trylock();
        if (got) m.Unlock();
        return got;
    });
}
bool OtherCanRead(ZNRThreadRWMutex& rw) {
    return OnOtherThread([&] {
        bool got = rw.TrylockRead();
        if (got) rw.Unlock();
        return got;
    });
}
bool OtherCanWrite(ZNRThreadRWMutex& rw) {
    return OnOtherThread([&] {
        bool got = rw.TrylockWrite();
        if (got) rw.Unlock();
        return got;
    });
}

// Takes a lock on a thread of its own and releases it there on demand, so
// that locks owned by a thread are also released by it.
class Holder {
public:
    Holder(std::function<void()> take, std::function<void()> release)
        : thread_([this, take, release] {
              take();
              taken_.set_value();
              go_.get_future().wait();
              release();
          }) {}
    ~Holder() { Release(); }
    // Blocks until the lock is held.
    void WaitTaken() { taken_future_.wait(); }
    bool IsTaken() {
        return taken_future_.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready;
    }
    void Release() {
        if (!thread_.joinable()) return;
        go_.set_value();
        thread_.join();
    }

private:
    std::promise<void> taken_;
    std::future<void> taken_future_ = taken_.get_future();
    std::promise<void> go_;
    std::thread thread_;
};

class TestCond : public ZNRThreadCond {
public:
    bool ready = false;
    std::atomic<int> checks{0};
    void* last_check_arg = nullptr;
    int handled = 0;

protected:
    bool OnCheckCond(void* arg) override {
        ++checks;
        last_check_arg = arg;
        return ready;
    }
    void* OnSignalHandle(void* arg) override {
        ++handled;
        return arg;
    }
};

} // namespace

TEST(ThreadMutex, RecursiveOwnerAndExclusiveOthers) {
    ZNRThreadMutex m;
    m.Lock();
    EXPECT_TRUE(m.Trylock());
    EXPECT_FALSE(OtherCanLock(m));
    m.Unlock();
    // Still held once: another thread must not get it yet.
    EXPECT_FALSE(OtherCanLock(m));
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

TEST(ThreadRWMutex, ReadersShareAndKeepWritersOut) {
    ZNRThreadRWMutex rw;
    rw.LockRead();
    Holder second_reader([&] { EXPECT_TRUE(rw.TrylockRead()); }, [&] { rw.Unlock(); });
    second_reader.WaitTaken();
    EXPECT_FALSE(OtherCanWrite(rw));
    rw.Unlock();
    // One reader left.
    EXPECT_FALSE(OtherCanWrite(rw));
    EXPECT_TRUE(OtherCanRead(rw));
    second_reader.Release();
    EXPECT_TRUE(OtherCanWrite(rw));

    // A writer keeps both readers and other writers out until it unlocks.
    Holder writer([&] { EXPECT_TRUE(rw.TrylockWrite()); }, [&] { rw.Unlock(); });
    writer.WaitTaken();
    EXPECT_FALSE(OtherCanRead(rw));
    EXPECT_FALSE(OtherCanWrite(rw));
    writer.Release();
    EXPECT_TRUE(OtherCanRead(rw));
    // Read, then write, then read again on one thread.
    rw.LockRead();
    rw.Unlock();
    rw.LockWrite();
    rw.Unlock();
    EXPECT_TRUE(OtherCanRead(rw));
    EXPECT_TRUE(OtherCanWrite(rw));
}

TEST(ThreadRWMutex, WriterWaitsForEveryReaderWhileReadersStillEnter) {
    ZNRThreadRWMutex rw;
    Holder reader1([&] { rw.LockRead(); }, [&] { rw.Unlock(); });
    Holder reader2([&] { rw.LockRead(); }, [&] { rw.Unlock(); });
    reader1.WaitTaken();
    reader2.WaitTaken();

    Holder writer([&] { rw.LockWrite(); }, [&] { rw.Unlock(); });
    EXPECT_FALSE(writer.IsTaken());
    // A waiting writer does not hold readers back.
    EXPECT_TRUE(OtherCanRead(rw));
    reader1.Release();
    EXPECT_FALSE(writer.IsTaken());
    reader2.Release();
    writer.WaitTaken();
    EXPECT_FALSE(OtherCanRead(rw));

    // A blocking reader gets in once the writer leaves.
    Holder late_reader([&] { rw.LockRead(); }, [&] { rw.Unlock(); });
    EXPECT_FALSE(late_reader.IsTaken());
    writer.Release();
    late_reader.WaitTaken();
    late_reader.Release();
    EXPECT_TRUE(OtherCanWrite(rw));
}

TEST(ThreadRWMutex, GuardsReleaseOnScopeExit) {
    ZNRThreadRWMutex rw;
    {
        ZNRGuardReadLock g(&rw);
        EXPECT_FALSE(OtherCanWrite(rw));
        EXPECT_TRUE(OtherCanRead(rw));
    }
    EXPECT_TRUE(OtherCanWrite(rw));
    {
        ZNRGuardReadSpinLock g(&rw, __FILE__, __LINE__);
        EXPECT_FALSE(OtherCanWrite(rw));
    }
    EXPECT_TRUE(OtherCanWrite(rw));
    {
        ZNRGuardWriteLock g(&rw);
        EXPECT_FALSE(OtherCanRead(rw));
        EXPECT_FALSE(OtherCanWrite(rw));
    }
    EXPECT_TRUE(OtherCanRead(rw));
    {
        ZNRGuardWriteSpinLock g(&rw, __FILE__, __LINE__);
        EXPECT_FALSE(OtherCanRead(rw));
    }
    EXPECT_TRUE(OtherCanRead(rw));
    EXPECT_TRUE(OtherCanWrite(rw));
}

TEST(ThreadCond, TimeoutAndConditionAlreadyTrue) {
    ZNRThreadMutex m;
    TestCond cond;
    ASSERT_EQ(0u, cond.Open(&m, false));
    int check_arg = 0;
    int fetch_arg = 0;
    void* result = &cond;
    std::uint64_t error = 0;

    EXPECT_EQ(0, cond.Wait(0, &check_arg, &fetch_arg, &result, &error));
    EXPECT_EQ(1, cond.checks.load());
    EXPECT_EQ(&check_arg, cond.last_check_arg);
    EXPECT_EQ(0, cond.handled);
    EXPECT_EQ(static_cast<void*>(&cond), result);
    EXPECT_EQ(0u, error);

    // A pending signal with a false condition: woken once, checked again,
    // then the second zero-length wait times out.
    ASSERT_EQ(0u, cond.Signal());
    cond.checks = 0;
    EXPECT_EQ(0, cond.Wait(0, &check_arg, &fetch_arg, &result, &error));
    EXPECT_EQ(2, cond.checks.load());

    // Already true: no wait at all, even with a zero time-out.
    cond.ready = true;
    cond.checks = 0;
    EXPECT_EQ(1, cond.Wait(0, &check_arg, &fetch_arg, &result, nullptr));
    EXPECT_EQ(&fetch_arg, result);
    EXPECT_EQ(1, cond.checks.load());
    EXPECT_EQ(1, cond.handled);
    EXPECT_EQ(1, cond.Wait(-1, nullptr, nullptr, nullptr, nullptr));
    // The mutex is free again after every return.
    EXPECT_TRUE(OtherCanLock(m));
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
        auto [rc, result] = waiter.get();
        EXPECT_EQ(1, rc);
        EXPECT_EQ(&fetch_arg, result);
        EXPECT_EQ(1, cond.handled);
    }
}

TEST(TLS, UnsetIsNullAndValuesArePerThread) {
    ZNRTLS tls;
    ASSERT_EQ(0u, tls.Open());
    int main_value = 1;
    int other_value = 2;
    void* out = &out;
    EXPECT_EQ(0u, tls.Get(&out));
    EXPECT_EQ(nullptr, out);

    ASSERT_EQ(0u, tls.Set(&main_value));
    auto other = OnOtherThread([&] {
        void* before = &before;
        std::uint64_t rc1 = tls.Get(&before);
        std::uint64_t rc2 = tls.Set(&other_value);
        void* after = nullptr;
        std::uint64_t rc3 = tls.Get(&after);
        return std::make_tuple(rc1 | rc2 | rc3, before, after);
    });
    EXPECT_EQ(0u, std::get<0>(other));
    EXPECT_EQ(nullptr, std::get<1>(other));
    EXPECT_EQ(&other_value, std::get<2>(other));
    EXPECT_EQ(0u, tls.Get(&out));
    EXPECT_EQ(&main_value, out);

    // A stored null is a value, not an error.
    ASSERT_EQ(0u, tls.Set(nullptr));
    out = &out;
    EXPECT_EQ(0u, tls.Get(&out));
    EXPECT_EQ(nullptr, out);

    // Two slots do not share values.
    ZNRTLS second;
    ASSERT_EQ(0u, second.Open());
    ASSERT_EQ(0u, tls.Set(&main_value));
    out = &out;
    EXPECT_EQ(0u, second.Get(&out));
    EXPECT_EQ(nullptr, out);
}
