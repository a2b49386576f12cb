#include <plexa/znr-signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Log = std::vector<std::string>;

// Records its calls as "<name>:<args>" in a shared log.
class Host : public ZNRSlotHost {
public:
    Host(std::string name, Log* log) : name_(std::move(name)), log_(log) {}
    ~Host() override { DisconnectAll(); }
    void On0() { log_->push_back(name_); }
    void On1(int a) { log_->push_back(name_ + ":" + std::to_string(a)); }
    void On2(int a, std::string const& b) const { log_->push_back(name_ + ":" + std::to_string(a) + b); }
    void On3(int a, char b, double c) { log_->push_back(name_ + ":" + std::to_string(a) + b + std::to_string(int(c))); }

private:
    std::string name_;
    Log* log_;
};

class SignalTest : public ::testing::Test {
protected:
    Log log;
};

TEST_F(SignalTest, ConnectEmitCountDisconnect) {
    Host a("a", &log), b("b", &log);
    ZNRSignal0 s0;
    ZNRSignal1<int> s1;
    ZNRSignal2<int, std::string const&> s2;  // a reference and
    ZNRSignal3<int, char, double> s3;        // converted arguments
    std::uint64_t const a0 = s0.Connect(&a, &Host::On0);
    s0.Connect(&b, &Host::On0); s0.Connect(&a, &Host::On0);
    s1.Connect(&b, &Host::On1); s2.Connect(&a, &Host::On2); s3.Connect(&b, &Host::On3);
    s1.Connect(&a, [&](int v) { log.push_back("l:" + std::to_string(v)); });
    s1.Connect(nullptr, [&](int v) { log.push_back("free:" + std::to_string(v)); });
    EXPECT_EQ(1u, a0);
    EXPECT_EQ(4u, a.GetConnectionCount());
    EXPECT_EQ(3u, b.GetConnectionCount());
    s0(); s1.Emit(7); s2.Emit(1, "x"); s3.Emit(2, 'y', 3.5);
    EXPECT_EQ((Log{"a", "b", "a", "b:7", "l:7", "free:7", "a:1x", "b:2y3"}), log);

    log.clear();
    EXPECT_TRUE(s0.Disconnect(a0));
    EXPECT_FALSE(s0.Disconnect(a0));
    EXPECT_FALSE(s0.Disconnect(99));
    EXPECT_EQ(1u, s1.DisconnectHost(&a));  // the lambda tied to a
    EXPECT_EQ(2u, a.GetConnectionCount());
    s0(); s1(8);
    EXPECT_EQ((Log{"b", "a", "b:8", "free:8"}), log);

    // Refusals: all-ones id and library error 1; nothing connected.
    std::uint64_t err[3] = {};
    void (*none)(int) = nullptr;
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(static_cast<Host*>(nullptr), &Host::On1, &err[0]));
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(&a, static_cast<void (Host::*)(int)>(nullptr), &err[1]));
    EXPECT_EQ(ZNR_ERROR_FAILED_ID, s1.Connect(&a, none, &err[2]));
    for (std::uint64_t e : err) EXPECT_EQ(ZNRUserError(1), e);
    EXPECT_EQ(2u, s1.GetSlotCount());

    s0.DisconnectAll();
    EXPECT_EQ(0u, s0.GetSlotCount());
    EXPECT_EQ(1u, a.GetConnectionCount());  // s2
}

TEST_F(SignalTest, SlotsChangingConnectionsDuringEmit) {
    ZNRSignal0 s;
    Host a("a", &log), c("c", &log);
    auto b = std::make_unique<Host>("b", &log);
    std::uint64_t self = 0, later = 0;
    // Disconnects itself and a later slot, connects a new one (first called next time).
    self = s.Connect(&a, [&] {
        log.push_back("self");
        EXPECT_TRUE(s.Disconnect(self));
        EXPECT_TRUE(s.Disconnect(later));
        s.Connect(&a, [&] { log.push_back("new"); });
    });
    s.Connect(&a, &Host::On0);
    later = s.Connect(&c, &Host::On0);
    s.Connect(b.get(), [&] { log.push_back("b dies"); b.reset(); });  // destroys its own host
    s.Connect(&c, [&] { log.push_back(b ? "b alive" : "b gone"); });
    s();
    EXPECT_EQ((Log{"self", "a", "b dies", "b gone"}), log);
    EXPECT_EQ(3u, s.GetSlotCount());
    log.clear(); s();
    EXPECT_EQ((Log{"a", "b gone", "new"}), log);

    // A slot that destroys its own signal: later slots are not called, and
    // the hosts keep only their other connections.
    log.clear();
    auto owned = std::make_unique<ZNRSignal1<int>>();
    owned->Connect(&a, [&](int) { owned.reset(); log.push_back("reset"); });
    owned->Connect(&c, &Host::On1);
    owned->Emit(5);
    EXPECT_EQ(Log{"reset"}, log);
    EXPECT_EQ(1u, c.GetConnectionCount());
}

// Counts calls that arrive after its destruction began.
class Guarded : public ZNRSlotHost {
public:
    explicit Guarded(std::atomic<int>* misuse) : misuse_(misuse) {}
    ~Guarded() override { DisconnectAll(); alive_ = false; }
    void On(int) { if (!alive_) misuse_->fetch_add(1); }

private:
    std::atomic<int>* misuse_;
    std::atomic<bool> alive_{true};
};

TEST_F(SignalTest, ConcurrentEmitConnectDisconnect) {
    ZNRSignal1<int> s;
    std::atomic<int> misuse{0};
    std::atomic<bool> stop{false};
    Guarded stable(&misuse);
    s.Connect(&stable, &Guarded::On);
    std::vector<std::thread> emitters;
    for (int t = 0; t < 3; ++t) emitters.emplace_back([&] { while (!stop) s.Emit(1); });
    std::thread hosts([&] {  // hosts come and go while the emitters run
        for (int i = 0; i < 300; ++i) {
            auto h = std::make_unique<Guarded>(&misuse);
            s.Connect(h.get(), &Guarded::On);
            s.Connect(h.get(), &Guarded::On);
            if (i % 3 == 0) {
                EXPECT_EQ(2u, s.DisconnectHost(h.get()));
            }
        }
    });
    std::thread free_slots([&] {  // free slots connected and disconnected by id
        for (int i = 0; i < 300; ++i) EXPECT_TRUE(s.Disconnect(s.Connect(nullptr, [](int) {})));
    });
    hosts.join(); free_slots.join();
    stop = true;
    for (std::thread& t : emitters) t.join();
    EXPECT_EQ(0, misuse.load());
    EXPECT_EQ(1u, s.GetSlotCount());
    EXPECT_EQ(1u, stable.GetConnectionCount());
}

// Destroying a host (0) or a signal (1) while another thread is inside one of
// its slots waits for that slot to return; the next slot is not called.
TEST_F(SignalTest, DestroyedWhileAnotherThreadEmits) {
    class Blocking : public ZNRSlotHost {
    public:
        ~Blocking() override { DisconnectAll(); }
    };
    for (int which = 0; which < 2; ++which) {
        std::atomic<bool> entered{false}, release{false}, destroyed{false};
        std::atomic<int> calls{0};
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
        destroyer.join(); emitter.join();
        EXPECT_EQ(1, calls.load()) << which;
        EXPECT_EQ(0u, which == 0 ? signal->GetSlotCount() : host->GetConnectionCount());
    }
}

}  // namespace
