#include <plexa/znr-signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// Records its calls as "<name>:<args>" in a shared log.
class Host : public ZNRSlotHost {
public:
    Host(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
    ~Host() override { DisconnectAll(); }

    void On0() { log_->push_back(name_); }
    void On1(int a) { log_->push_back(name_ + ":" + std::to_string(a)); }
    void On2(int a, std::string const& b) const { log_->push_back(name_ + ":" + std::to_string(a) + b); }
    void On3(int a, char b, double c) { log_->push_back(name_ + ":" + std::to_string(a) + b + std::to_string(int(c))); }

private:
    std::string name_;
    std::vector<std::string>* log_;
};

class SignalTest : public ::testing::Test {
protected:
    std::vector<std::string> log;
};

TEST_F(SignalTest, ConnectEmitCountDisconnect) {
    Host a("a", &log), b("b", &log);
    ZNRSignal0 s0;
    ZNRSignal1<int> s1;
    ZNRSignal2<int, std::string const&> s2;
    ZNRSignal3<int, char, double> s3;
    std::uint64_t const a0 = s0.Connect(&a, &Host::On0);
    s0.Connect(&b, &Host::On0);
    s0.Connect(&a, &Host::On0);
    s1.Connect(&b, &Host::On1);
    s2.Connect(&a, &Host::On2);
    s3.Connect(&b, &Host::On3);
    std::uint64_t const lambda = s1.Connect(&a, [&](int v) { log.push_back("l:" + std::to_string(v)); });
    s1.Connect(nullptr, [&](int v) { log.push_back("free:" + std::to_string(v)); });
    EXPECT_EQ(1u, a0);
    EXPECT_EQ(4u, a.GetConnectionCount());
    EXPECT_EQ(3u, b.GetConnectionCount());
    EXPECT_EQ(3u, s1.GetSlotCount());

    s0();
    s1.Emit(7);
    s2.Emit(1, "x");
    s3.Emit(2, 'y', 3.5);
    EXPECT_EQ((std::vector<std::string>{"a", "b", "a", "b:7", "l:7", "free:7", "a:1x", "b:2y3"}), log);

    log.clear();
    EXPECT_TRUE(s0.Disconnect(a0));
    EXPECT_FALSE(s0.Disconnect(a0));
    EXPECT_FALSE(s0.Disconnect(99));
    EXPECT_EQ(1u, s1.DisconnectHost(&a));  // the lambda tied to a
    EXPECT_FALSE(s1.Disconnect(lambda));
    EXPECT_EQ(2u, a.GetConnectionCount());
    s0();
    s1(8);
    EXPECT_EQ((std::vector<std::string>{"b", "a", "b:8", "free:8"}), log);

    // Refusals: the id is all ones and the error is set.
    std::uint64_t error = 0;
    void (*none)(int) = nullptr;
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(static_cast<Host*>(nullptr), &Host::On1, &error));
    EXPECT_EQ(ZNRUserError(1), error);
    error = 0;
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(&a, static_cast<void (Host::*)(int)>(nullptr), &error));
    EXPECT_EQ(ZNRUserError(1), error);
    error = 0;
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(&a, none, &error));
    EXPECT_EQ(ZNRUserError(1), error);
    EXPECT_EQ(2u, s1.GetSlotCount());

    s0.DisconnectAll();
    EXPECT_EQ(0u, s0.GetSlotCount());
    EXPECT_EQ(1u, a.GetConnectionCount());  // s2
}

TEST_F(SignalTest, EitherSideDestroyedFirst) {
    auto host = std::make_unique<Host>("h", &log);
    Host keep("k", &log);
    ZNRSignal1<int> s;
    {
        ZNRSignal0 gone;
        gone.Connect(host.get(), &Host::On0);
        gone.Connect(&keep, &Host::On0);
        s.Connect(host.get(), &Host::On1);
        s.Connect(&keep, &Host::On1);
        EXPECT_EQ(2u, host->GetConnectionCount());
    }
    EXPECT_EQ(1u, host->GetConnectionCount());
    EXPECT_EQ(1u, keep.GetConnectionCount());
    host.reset();
    EXPECT_EQ(1u, s.GetSlotCount());
    s(1);
    EXPECT_EQ((std::vector<std::string>{"k:1"}), log);
}

// Changes made by slots while the signal runs them.
TEST_F(SignalTest, SlotsChangingConnectionsDuringEmit) {
    ZNRSignal0 s;
    Host a("a", &log), c("c", &log);
    auto b = std::make_unique<Host>("b", &log);
    std::uint64_t self = 0;
    std::uint64_t later = 0;
    // 1: disconnects itself and the slot after the next; connects a new one.
    self = s.Connect(&a, [&] {
        log.push_back("self");
        EXPECT_TRUE(s.Disconnect(self));
        EXPECT_TRUE(s.Disconnect(later));
        s.Connect(&a, [&] { log.push_back("new"); });
    });
    s.Connect(&a, &Host::On0);
    later = s.Connect(&c, &Host::On0);
    // b destroys itself from inside its own slot.
    s.Connect(b.get(), [&] {
        log.push_back("b dies");
        b.reset();
    });
    s.Connect(&c, [&] { log.push_back(b ? "b alive" : "b gone"); });
    s();
    EXPECT_EQ((std::vector<std::string>{"self", "a", "b dies", "b gone"}), log);
    EXPECT_EQ(3u, s.GetSlotCount());

    log.clear();
    s();
    EXPECT_EQ((std::vector<std::string>{"a", "b gone", "new"}), log);

    // A slot that destroys its own signal: later slots are not called.
    log.clear();
    auto owned = std::make_unique<ZNRSignal1<int>>();
    owned->Connect(&a, [&](int) { owned.reset(); log.push_back("reset"); });
    owned->Connect(&c, &Host::On1);
    owned->Emit(5);
    EXPECT_EQ((std::vector<std::string>{"reset"}), log);
    EXPECT_EQ(1u, c.GetConnectionCount());
}

// A host that checks it is never called after its destruction began.
class Guarded : public ZNRSlotHost {
public:
    explicit Guarded(std::atomic<int>* misuse) : misuse_(misuse) {}
    ~Guarded() override {
        DisconnectAll();
        alive_ = false;
    }
    void On(int v) {
        if (!alive_) misuse_->fetch_add(1);
        sum_ += v;
    }

private:
    std::atomic<int>* misuse_;
    std::atomic<bool> alive_{true};
    std::atomic<long> sum_{0};
};

TEST_F(SignalTest, ConcurrentEmitConnectDisconnect) {
    ZNRSignal1<int> s;
    std::atomic<int> misuse{0};
    std::atomic<bool> stop{false};
    std::atomic<long> free_calls{0};
    Guarded stable(&misuse);
    s.Connect(&stable, &Guarded::On);

    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) s.Emit(1);
        });
    }
    // Hosts come and go while the emitters run.
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            auto h = std::make_unique<Guarded>(&misuse);
            s.Connect(h.get(), &Guarded::On);
            s.Connect(h.get(), &Guarded::On);
            if (i % 3 == 0) {
                EXPECT_EQ(2u, s.DisconnectHost(h.get()));
            }
        }
    });
    // Free slots connected and disconnected by id.
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            std::uint64_t const id = s.Connect(nullptr, [&](int) { ++free_calls; });
            EXPECT_TRUE(s.Disconnect(id));
        }
    });
    threads[3].join();
    threads[4].join();
    stop = true;
    for (int t = 0; t < 3; ++t) threads[t].join();
    EXPECT_EQ(0, misuse.load());
    EXPECT_EQ(1u, s.GetSlotCount());
    EXPECT_EQ(1u, stable.GetConnectionCount());
}

// Destroying a host or a signal on one thread while another thread is inside
// one of its slots waits for that slot to return.
TEST_F(SignalTest, DestroyedWhileAnotherThreadEmits) {
    for (int which = 0; which < 2; ++which) {
        std::atomic<bool> entered{false}, release{false}, destroyed{false};
        std::atomic<int> calls{0};
        class Blocking : public ZNRSlotHost {
        public:
            ~Blocking() override { DisconnectAll(); }
        };
        auto host = std::make_unique<Blocking>();
        auto signal = std::make_unique<ZNRSignal0>();
        signal->Connect(host.get(), [&] {
            ++calls;
            entered = true;
            while (!release) std::this_thread::yield();
            EXPECT_FALSE(destroyed.load());
        });
        signal->Connect(host.get(), [&] { ++calls; });
        ZNRSignal0* const raw = signal.get();
        std::thread emitter([raw] { raw->Emit(); });
        while (!entered) std::this_thread::yield();
        std::thread destroyer([&] {
            if (which == 0) host.reset();
            else signal.reset();
            destroyed = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let the destroyer wait
        release = true;
        destroyer.join();
        emitter.join();
        EXPECT_EQ(1, calls.load()) << which;
        if (which == 0) EXPECT_EQ(0u, signal->GetSlotCount());
        else EXPECT_EQ(0u, host->GetConnectionCount());
    }
}

}  // namespace
