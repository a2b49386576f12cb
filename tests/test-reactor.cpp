#include "log-capture.h"
#include "reactor-test-util.h"
#include "net-test-util.h"

#if defined(__linux__)
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif
#if defined(_WIN32)
#include <regex>
#endif
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace nettest;

using namespace reactortest;

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;
unsigned char const* L(char const* text) { return reinterpret_cast<unsigned char const*>(text); }
std::uint64_t E(std::uint32_t n) { return 0x8000000100000000ULL | n; }

class Event : public ZNRReactorLoopEvent {
public:
    Event(Journal* j, std::string name, int repeats = 0) : j_(j), name_(std::move(name)), repeats_(repeats) {}
    bool OnLoopEvent(ZNRReactor*) override {
        j_->Add(name_);
        return repeats_-- > 0;
    }
    void Destroy() override {
        j_->Add("~" + name_);
        delete this;
    }

private:
    Journal* j_;
    std::string name_;
    int repeats_;
};

// Runs fn on each turn while it answers true.
class Repeat : public ZNRReactorLoopEvent {
public:
    explicit Repeat(std::function<bool()> fn) : fn_(std::move(fn)) {}
    bool OnLoopEvent(ZNRReactor*) override { return fn_(); }
    void Destroy() override { delete this; }

private:
    std::function<bool()> fn_;
};

// A handler whose reactions a test sets; it journals every call.
class Handler : public ZNRDeviceHandler {
public:
    explicit Handler(Journal* j, std::string name = "h") : j_(j), name_(std::move(name)) {}
    std::function<bool(ZNRByteBuffer const*, int*)> on_data;
    std::function<bool(int)> on_writen;
    std::function<bool()> on_timeout;
    std::function<bool()> on_created;
    std::function<void()> on_error;
    std::function<void()> on_close;

    bool OnCreated() override { return on_created ? on_created() : true; }
    bool OnOpen() override { return Log("open"); }
    bool OnData(ZNRByteBuffer const* b, int* offset) override {
        if (on_data) return on_data(b, offset);
        if (b != nullptr) *offset = static_cast<int>(b->GetDataCount());
        return Log("data");
    }
    bool OnWriten(int n) override {
        Log("writen " + std::to_string(n));
        return on_writen ? on_writen(n) : true;
    }
    bool OnTimeout(std::uint64_t) override { return on_timeout ? on_timeout() : true; }
    void OnError() override {
        Log("error " + std::to_string(GetDevice()->GetError() & 0xFFFFFFFF));
        if (on_error) on_error();
    }
    void OnClose() override {
        Log("close");
        if (on_close) on_close();
    }
    void Destroy() override {
        Log("destroy");
        delete this;
    }
    bool Log(std::string const& what) {
        j_->Add(name_ + " " + what);
        return true;
    }

private:
    Journal* j_;
    std::string name_;
};

class Reactor : public ::testing::Test {
protected:
    void SetUp() override {
        reactor_ = new ZNRReactorIOCP(new ZNRTimerMgr());
        ASSERT_EQ(0u, reactor_->Init());
    }
    void TearDown() override {
        StopAndJoin();
        reactor_->Destroy();
    }
    void Start() {
        loop_ = std::thread([this] { result_ = reactor_->Open(); });
    }
    void StopAndJoin() {
        if (!loop_.joinable()) return;
        reactor_->Stop();
        loop_.join();
    }
    // Runs fn on the loop thread and waits for it.
    void OnLoop(std::function<void()> fn) {
        std::promise<void> done;
        ASSERT_EQ(0u, reactor_->RegisterTask(new Task([&] {
            fn();
            done.set_value();
        })));
        ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(5)));
    }
    std::uint64_t Register(ZNRDevice* device, Handler* handler, int send_max = 1 << 20,
                           unsigned int timeout = 0xFFFFFFFF) {
        std::uint64_t id = kNoId;
        OnLoop([&] {
            std::uint64_t err = 0;
            id = reactor_->RegisterDevice(device, handler, &err, 1 << 20, 4096, send_max, timeout);
            EXPECT_NE(kNoId, id) << err;
        });
        return id;
    }
    // Keeps the loop thread inside a task until the returned call.
    std::function<void()> HoldLoop() {
        auto const release = std::make_shared<std::promise<void>>();
        std::shared_future<void> const released(release->get_future());
        std::promise<void> holding;
        EXPECT_EQ(0u, reactor_->RegisterTask(new Task([&holding, released] {
            holding.set_value();
            released.wait();
        })));
        holding.get_future().wait();
        return [release] { release->set_value(); };
    }
    // A listener whose handler registers every accepted connection with a
    // handler from make; returns its port.
    std::string Listen(std::function<Handler*()> make) {
        ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
        ZNRTcpDeviceParam param;
        param.local_addr = &local;
        auto* listener = new ZNRAsyncTcpDevice();
        EXPECT_TRUE(listener->Open(&param));
        std::uint64_t err = 0;
        std::string const port = Str(listener->GetBindAddr(&err)->GetPortStr());
        auto* h = new Handler(&journal_, "listener");
        h->on_data = [this, listener, make](ZNRByteBuffer const*, int*) {
            auto* conn = new ZNRAsyncTcpDevice();
            EXPECT_TRUE(listener->Accept(conn));
            std::uint64_t e = 0;
            EXPECT_NE(kNoId, reactor_->RegisterDevice(conn, make(), &e, 1 << 20, 4096, 1 << 20, 0xFFFFFFFF));
            return true;
        };
        Register(listener, h);
        OnLoop([&] { EXPECT_TRUE(listener->BeginAccept()); });
        return port;
    }
    // An echo handler: everything received is sent back.
    Handler* Echo() {
        auto* h = new Handler(&journal_, "echo");
        h->on_data = [this, h](ZNRByteBuffer const* b, int* offset) {
            *offset = static_cast<int>(b->GetDataCount());
            EXPECT_EQ(0u, reactor_->SendData(h->GetDeviceId(), b->GetData(), *offset));
            return true;
        };
        return h;
    }

    // Consumes everything and journals it as "<name> got <bytes>".
    Handler* Recorder(std::string const& name) {
        auto* h = new Handler(&journal_, name);
        h->on_data = [h](ZNRByteBuffer const* b, int* offset) {
            *offset = static_cast<int>(b->GetDataCount());
            return h->Log("got " + std::string(reinterpret_cast<char const*>(b->GetData()), b->GetDataCount()));
        };
        return h;
    }

    // A plain descriptor device on one end of a socket pair; *peer gets the other.
    ZNRAsyncUnknownDevice* PairDevice(RawSocket* peer) {
        RawSocket fds[2];
        EXPECT_TRUE(nettest::StreamPair(fds));
        ZNRUnknownDeviceParam param;
        param.fd = Handle(fds[0]);
        auto* device = new ZNRAsyncUnknownDevice();
        EXPECT_TRUE(device->Open(&param));
        *peer = fds[1];
        return device;
    }
    // The journal's entries of one handler, in order.
    std::vector<std::string> Of(std::string const& name) {
        std::vector<std::string> out;
        for (std::string const& e : journal_.Get()) {
            if (e.compare(0, name.size() + 1, name + " ") == 0) out.push_back(e.substr(name.size() + 1));
        }
        return out;
    }

    Journal journal_;
    ZNRReactorIOCP* reactor_ = nullptr;
    std::thread loop_;
    std::uint64_t result_ = 1;
};

}  // namespace

TEST_F(Reactor, LoopEventsStopAndNotifies) {
    // One event per wake-up: the rest is counted back into the channel.
    reactor_->Destroy();
    reactor_ = new ZNRReactorIOCP(new ZNRTimerMgr());
    reactor_->SetLoopEventDisposeSize(1);
    ASSERT_EQ(0u, reactor_->Init());
    reactor_->RegisterBeginStopNotify(new Notify([this] { journal_.Add("begin1"); }));
    reactor_->RegisterBeginStopNotify(new Notify([this] { journal_.Add("begin2"); }));
    reactor_->RegisterEndStopNotify(new Notify([this] { journal_.Add("end"); }));
    for (char const* name : {"a", "b"}) ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Event(&journal_, name)));
    ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Event(&journal_, "again", 2)));
    ASSERT_EQ(0u, reactor_->Stop());
    ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Event(&journal_, "late")));
    ASSERT_EQ(0u, reactor_->RegisterTask(new Task([] { ADD_FAILURE() << "ran after stop"; }, [this] { journal_.Add("~task"); })));
    std::uint64_t err = 0;
    for (char const* name : {"fake1", "fake2", "fake3", "fake4", "fake5"})
        ASSERT_NE(kNoId, reactor_->RegisterDevice(new ZNRFakeDevice(), new Handler(&journal_, name), &err, 100, 10, 100, 0xFFFFFFFF));
    Start();
    loop_.join();
    EXPECT_EQ(0u, result_);
    EXPECT_TRUE(reactor_->IsStopped());
    // The repeating event is queued again behind the stop and never reruns;
    // what came after the stop is destroyed unrun; handlers only get
    // Destroy, in device id order.
    EXPECT_EQ((std::vector<std::string>{"a", "~a", "b", "~b", "again", "begin1", "begin2", "fake1 destroy",
                                        "fake2 destroy", "fake3 destroy", "fake4 destroy", "fake5 destroy",
                                        "~late", "~task", "~again", "end"}),
              journal_.Get());
    // After the channel is gone every cross-thread call is refused.
    LogCapture capture;
    auto* event = new Event(&journal_, "x");
    EXPECT_EQ(E(11), reactor_->RegisterLoopEvent(event));
    event->Destroy();
    EXPECT_EQ(E(11), reactor_->SendData(2, L("x"), 1));
    EXPECT_EQ(std::vector<std::string>(2, "Can not register loop event to reactor, not ready?"),
              capture.Messages(ZNRLogger::LOGL_ERROR));
}

TEST_F(Reactor, QueueLimitTaskOwnershipAndPerThreadOrder) {
    // Nothing drains before Start: the queue fills without a writer blocking.
    reactor_->SetLoopEventQueueMaxSize(100000);
    std::atomic<int> ran{0};
    auto count = [&ran] { return new Repeat([&ran] { return ++ran, false; }); };
    for (int i = 0; i < 100000; ++i) ASSERT_EQ(0u, reactor_->RegisterLoopEvent(count()));
    auto* extra = count();
    EXPECT_EQ(E(39), reactor_->RegisterLoopEvent(extra));
    extra->Destroy();
    auto* task = new Task([] {}, [this] { journal_.Add("~task"); });
    EXPECT_EQ(E(39), reactor_->RegisterTask(task));
    EXPECT_TRUE(journal_.Get().empty());  // the caller still owns it
    task->Destroy();

    Start();
    std::vector<std::thread> senders;
    std::vector<std::vector<int>> seen(4);
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                // A refused task stays ours: offer it again once the queue drains.
                auto* task = new Task([&seen, t, i] { seen[t].push_back(i); });
                while (reactor_->RegisterTask(task) != 0) std::this_thread::yield();
            }
        });
    }
    for (auto& s : senders) s.join();
    OnLoop([] {});
    EXPECT_EQ(100000, ran.load());
    for (auto const& per_thread : seen) {
        ASSERT_EQ(500u, per_thread.size());
        EXPECT_TRUE(std::is_sorted(per_thread.begin(), per_thread.end()));
    }
}

TEST_F(Reactor, EchoOfMegabytesInOddPieces) {
    Start();
    std::string const port = Listen([this] { return Echo(); });
    RawSocket const fd = ConnectTo(port);
    std::string data(3 << 20, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
    std::thread writer([&] {
        std::size_t sent = 0, piece = 1;
        while (sent < data.size()) {
            std::size_t const n = std::min(piece, data.size() - sent);
            ASSERT_EQ(static_cast<long long>(n), SendRaw(fd, data.data() + sent, n));
            sent += n;
            piece = piece * 3 % 65521 + 1;
        }
    });
    std::string const back = ReadUpTo(fd, data.size());
    writer.join();
    EXPECT_TRUE(back == data) << back.size();
    CloseRaw(fd);
    EXPECT_TRUE(journal_.WaitFor("echo close"));
    EXPECT_TRUE(journal_.WaitFor("echo destroy"));
    std::vector<std::string> const j = journal_.Get();
    EXPECT_EQ("echo open", j.at(0));
    EXPECT_EQ("echo error 4", j.at(j.size() - 3));  // the peer's orderly close
}

// A peer that ends its stream while the replies to it still queue gets
// them all, then the end; its device hears of the end only then.
TEST_F(Reactor, HalfClosedPeerGetsEveryReplyBeforeTheEnd) {
    Start();
    // Small socket buffers at both ends: the replies back up into the
    // device's queue.
    int const small = 4096;
    std::string const port = Listen([this, small] {
        Handler* const h = Echo();
        h->on_created = [h, small] {
            return ::setsockopt(Raw(h->GetDevice()->GetFd()), SOL_SOCKET, SO_SNDBUF,
                                reinterpret_cast<char const*>(&small), sizeof small) == 0;
        };
        return h;
    });
    RawSocket const fd = ConnectTo(port);
    ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<char const*>(&small), sizeof small));
    std::string data(512 << 10, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 13 + i / 509);
    ASSERT_EQ(static_cast<long long>(data.size()), SendRaw(fd, data.data(), data.size()));
    ShutWrite(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<std::string> const before = journal_.Get();
    EXPECT_EQ(before.end(), std::find(before.begin(), before.end(), "echo error 4"));
    // Read with room again, so that the rest comes quickly.
    int const roomy = 1 << 20;
    ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<char const*>(&roomy), sizeof roomy));
    std::string const back = ReadUpTo(fd, data.size() + 1);
    EXPECT_TRUE(back == data) << back.size();
    CloseRaw(fd);
    EXPECT_TRUE(journal_.WaitFor("echo destroy"));
    std::vector<std::string> const j = journal_.Get();
    EXPECT_EQ("echo error 4", j.at(j.size() - 3));
}

// A send on the loop thread starts from the caller's bytes; whatever the
// system has not taken when SendData returns must be the reactor's own
// copy: a write that waits for room, one taken in part, one taken whole.
TEST_F(Reactor, LoopThreadSendsKeepNothingOfTheCallersBytes) {
    Start();
    RawSocket fds[2];
    ASSERT_TRUE(nettest::StreamPair(fds));
    SetNonBlocking(fds[0]);
    std::string expected;
    char chunk[4096] = {};
    for (long long n; (n = WriteRaw(fds[0], chunk, sizeof chunk)) > 0;) expected.append(chunk, static_cast<std::size_t>(n));
    auto* device = new ZNRAsyncUnknownDevice();
    ZNRUnknownDeviceParam param;
    param.fd = Handle(fds[0]);
    ASSERT_TRUE(device->Open(&param));
    std::uint64_t const id = Register(device, Recorder("pair"), 8 << 20);
    auto send = [&](std::size_t size, char seed) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + i * 13 + i / 509);
        expected += bytes;
        OnLoop([&] {
            EXPECT_EQ(0u, reactor_->SendData(id, reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<int>(size)));
            bytes.assign(size, 'X');
        });
    };
    send(300000, 1);  // no room yet: waits
    send(10, 2);      // queued behind it
    EXPECT_TRUE(ReadUpTo(fds[1], expected.size()) == expected);
    expected.clear();
    send(3 << 20, 3);  // taken in part
    EXPECT_TRUE(ReadUpTo(fds[1], expected.size()) == expected);
    expected.clear();
    send(100, 4);  // taken whole
    EXPECT_TRUE(ReadUpTo(fds[1], expected.size()) == expected);
    CloseRaw(fds[1]);
    EXPECT_TRUE(journal_.WaitFor("pair destroy"));
}

// A device whose own end is journaled, to see when the reactor lets it go.
class JournaledDevice : public ZNRAsyncUnknownDevice {
public:
    JournaledDevice(Journal* j, std::string name) : j_(j), name_(std::move(name)) {}
    void Destroy() override {
        j_->Add(name_ + " gone");
        ZNRAsyncUnknownDevice::Destroy();
    }

private:
    Journal* j_;
    std::string name_;
};

// Ends of a stream pair whose first end has a full send buffer, so that a
// write on it stays pending, registered as a device with a pending read.
struct Stuffed {
    RawSocket peer{};
    std::size_t stuffed = 0;
    std::uint64_t id = 0;
};

TEST_F(Reactor, ClosedDevicesWaitForTheirCancelledOperationsSilently) {
    Start();
    auto stuff = [this](Handler* handler, std::string const& name) {
        RawSocket fds[2];
        EXPECT_TRUE(nettest::StreamPair(fds));
        SetNonBlocking(fds[0]);
        Stuffed s;
        s.peer = fds[1];
        char chunk[4096] = {};
        for (long long n; (n = WriteRaw(fds[0], chunk, sizeof chunk)) > 0;) s.stuffed += static_cast<std::size_t>(n);
        auto* device = new JournaledDevice(&journal_, name);
        ZNRUnknownDeviceParam param;
        param.fd = Handle(fds[0]);
        EXPECT_TRUE(device->Open(&param));
        s.id = Register(device, handler);
        return s;
    };
    // Closed with a read and a write under way: both are aborted, the
    // handler hears of neither, and the device goes after its handler.
    Stuffed a = stuff(new Handler(&journal_, "a"), "a");
    OnLoop([&] {
        EXPECT_EQ(0u, reactor_->SendData(a.id, L("pending"), 7));
        EXPECT_EQ(0u, reactor_->SendData(a.id, nullptr, 0));
    });
    EXPECT_TRUE(journal_.WaitFor("a gone"));
    EXPECT_EQ((std::vector<std::string>{"close", "destroy", "gone"}), Of("a"));
    CloseRaw(a.peer);

    // The read that closes the device and its own write's completion come
    // in one batch: the write's is dropped, OnWriten never follows OnClose.
    auto* closer = new Handler(&journal_, "b");
    closer->on_data = [closer](ZNRByteBuffer const*, int*) { return !closer->Log("data"); };
    Stuffed b = stuff(closer, "b");
    OnLoop([&] { EXPECT_EQ(0u, reactor_->SendData(b.id, L("late"), 4)); });
    std::function<void()> const release = HoldLoop();
    ASSERT_EQ(1, SendRaw(b.peer, "x", 1));
    EXPECT_EQ(b.stuffed, ReadUpTo(b.peer, b.stuffed).size());
    release();
    EXPECT_TRUE(journal_.WaitFor("b gone"));
    EXPECT_EQ((std::vector<std::string>{"data", "close", "destroy", "gone"}), Of("b"));
    CloseRaw(b.peer);
}

TEST_F(Reactor, ConsumedOffsetContract) {
    Start();
    // Consumes whole 4-byte packets only; a packet "bad!" answers -1.
    std::string const port = Listen([this] {
        auto* h = new Handler(&journal_, "packets");
        h->on_data = [h](ZNRByteBuffer const* b, int* offset) {
            std::string const got(reinterpret_cast<char const*>(b->GetData()), b->GetDataCount());
            if (got.find("bad!") == 0) return *offset = -1, true;
            *offset = static_cast<int>(got.size() / 4 * 4);
            for (int i = 0; i < *offset; i += 4) h->Log(got.substr(static_cast<std::size_t>(i), 4));
            return true;
        };
        return h;
    });
    RawSocket const fd = ConnectTo(port);
    for (char const* piece : {"ab", "cdef", "gh", "ijkl"}) {
        ASSERT_GT(SendRaw(fd, piece, std::strlen(piece)), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // separate reads, not a wait
    }
    EXPECT_TRUE(journal_.WaitFor("packets ijkl"));
    LogCapture capture;
    ASSERT_EQ(4, SendRaw(fd, "bad!", 4));
    EXPECT_TRUE(journal_.WaitFor("packets destroy"));
    std::vector<std::string> j = journal_.Get();
    j.erase(j.begin(), std::find(j.begin(), j.end(), "packets open"));
    EXPECT_EQ((std::vector<std::string>{"packets open", "packets abcd", "packets efgh", "packets ijkl",
                                        "packets close", "packets destroy"}),
              j);
    StopAndJoin();
    ASSERT_EQ(1u, capture.Messages(ZNRLogger::LOGL_ERROR).size());
    EXPECT_EQ(0u, capture.Messages(ZNRLogger::LOGL_ERROR)[0].find(
                      "Invalid recv buffer offset, above data handler may be received a invalid "
                      "package,current_recv_buff_size=4, offset=-1, desc_info=\"Tcp accept client, remote ip=127.0.0.1"));
    CloseRaw(fd);
}

TEST_F(Reactor, SendLimitsCloseRequestsAndUnknownIds) {
    Start();
    std::string const port = Listen([this] {
        return new Handler(&journal_, "c0");
    });
    RawSocket const a = ConnectTo(port), b = ConnectTo(port);
    ASSERT_TRUE(journal_.WaitUntil([](std::vector<std::string> const& j) {
        return std::count(j.begin(), j.end(), "c0 open") == 2;
    }));
    // Device ids: 1 is the wake-up channel, 2 the listener.
    std::string const big((1 << 20) + 1, 'x');
    auto const* bytes = reinterpret_cast<unsigned char const*>(big.data());
    LogCapture capture;
    OnLoop([&] {
        EXPECT_TRUE(reactor_->IsDeviceExist(3));
        EXPECT_EQ(0u, reactor_->SendData(3, L("ok"), 2));
        // The maximum is inclusive: one byte over fails and closes.
        EXPECT_EQ(E(8), reactor_->SendData(4, bytes, 1 << 20 | 1));
        EXPECT_EQ(E(38), reactor_->SendData(99, L("x"), 1));
        EXPECT_EQ(E(12), reactor_->SendData(0x100000003ULL, L("x"), 1));
        EXPECT_EQ(E(12), reactor_->UnregisterDevice(0x100000003ULL));
        EXPECT_EQ(E(12), reactor_->UnregisterDevice(99));
        EXPECT_FALSE(reactor_->IsDeviceExist(0x100000003ULL));
    });
    EXPECT_EQ("ok", ReadUpTo(a, 2));
    EXPECT_TRUE(journal_.WaitFor("c0 close"));
    // From another thread, bytes waiting for the loop count against the
    // maximum: refused at the caller, nothing queued, the device stays.
    // Two turns first, so that the completion of "ok" is in.
    OnLoop([] {});
    OnLoop([] {});
    std::function<void()> const release = HoldLoop();
    EXPECT_EQ(0u, reactor_->SendData(3, bytes, 1 << 20));
    EXPECT_EQ(E(8), reactor_->SendData(3, L("x"), 1));
    release();
    EXPECT_EQ(std::string(1 << 20, 'x'), ReadUpTo(a, 1 << 20));
    OnLoop([] {});  // the write's completion was queued before this task
    EXPECT_EQ(0u, reactor_->SendData(3, L("y"), 1));
    EXPECT_EQ("y", ReadUpTo(a, 1));
    // A close request from another thread: OnClose, then Destroy.
    EXPECT_EQ(0u, reactor_->SendData(3, nullptr, 0));
    EXPECT_TRUE(journal_.WaitUntil([](std::vector<std::string> const& j) {
        return std::count(j.begin(), j.end(), "c0 destroy") == 2;
    }));
    StopAndJoin();
    std::vector<std::string> const errors = capture.Messages(ZNRLogger::LOGL_ERROR);
    ASSERT_EQ(3u, errors.size());
    EXPECT_EQ(0u, errors[0].find("Can not send data to iocp device, send buffer is overflow, "
                                "current_size=0 max_size=1048576 desc_info=\"Tcp accept client"));
    EXPECT_EQ("Can not send data to device which not found, id=99", errors[1]);
    EXPECT_EQ(0u, errors[2].find("Can not send data to iocp device, send buffer is overflow, "
                                "current_size=1048576 max_size=1048576 desc_info=\"Tcp accept client"));
    CloseRaw(a);
    CloseRaw(b);
}

TEST_F(Reactor, ClientsTimeoutsDatagramsPipesAndFakes) {
    Start();
    std::string const port = Listen([this] { return Echo(); });
    // A client is announced with OnWriten(0) and may send at once.
    ZNRNetAddrInfo const to = V4("127.0.0.1", port);
    ZNRTcpDeviceParam param;
    param.remote_addr = &to;
    auto* client = new ZNRAsyncTcpDevice();
    ASSERT_TRUE(client->Open(&param));
    ASSERT_TRUE(client->Connect());
    std::uint64_t const cid = Register(client, Recorder("client"));
    EXPECT_EQ(0u, reactor_->SendData(cid, L("hi"), 2));
    EXPECT_TRUE(journal_.WaitFor("client got hi"));
    std::vector<std::string> const seen = journal_.Get();
    auto const writen = std::find(seen.begin(), seen.end(), "client writen 0");
    EXPECT_LT(writen, std::find(seen.begin(), seen.end(), "client got hi"));

    // Refused: OnError, then the close.
    ZNRNetAddrInfo closed = V4("127.0.0.1", "1");
    param.remote_addr = &closed;
    auto* refused = new ZNRAsyncTcpDevice();
    ASSERT_TRUE(refused->Open(&param));
    if (refused->Connect()) {
        Register(refused, new Handler(&journal_, "refused"));
        EXPECT_TRUE(journal_.WaitFor("refused destroy"));
        std::vector<std::string> j = journal_.Get();
        j.erase(std::remove_if(j.begin(), j.end(), [](std::string const& e) { return e.find("refused") != 0; }), j.end());
        EXPECT_EQ((std::vector<std::string>{"refused error " + std::to_string(kErrRefused), "refused close",
                                            "refused destroy"}),
                  j);
    } else {
        refused->Destroy();
    }

    // Device timeout: every 5 ms until the handler says no.
    int ticks = 0;
    auto* th = new Handler(&journal_, "timed");
    th->on_timeout = [&ticks] { return ++ticks < 3; };
    Register(new ZNRFakeDevice(), th, 100, 5);
    EXPECT_TRUE(journal_.WaitFor("timed destroy"));
    EXPECT_EQ(3, ticks);

    // Fake devices hand what is sent straight to their own handler.
    std::uint64_t const fid = Register(new ZNRFakeDevice(), Recorder("fake"));
    EXPECT_EQ(0u, reactor_->SendData(fid, L("loop"), 4));
    EXPECT_TRUE(journal_.WaitFor("fake got loop"));

    // UDP: a datagram echoed to its sender.
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    ZNRUdpDeviceParam up;
    up.local_addr = &local;
    auto* udp = new ZNRAsyncUdpDevice();
    ASSERT_TRUE(udp->Open(&up));
    std::uint64_t err = 0;
    ZNRNetAddrInfo const udp_addr = *udp->GetBindAddr(&err);
    auto* uh = new Handler(&journal_, "udp");
    uh->on_data = [this, udp, uh](ZNRByteBuffer const* b, int* offset) {
        udp->SetNextSendPeerAddr(udp->GetLastRecvPeerAddr());
        *offset = static_cast<int>(b->GetDataCount());
        EXPECT_EQ(0u, reactor_->SendData(uh->GetDeviceId(), b->GetData(), *offset));
        return true;
    };
    Register(udp, uh);
    RawSocket const u = NewSocket(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(5, ::sendto(u, "dgram", 5, 0, udp_addr.GetAddr(), udp_addr.GetAddrLen()));
    ASSERT_TRUE(WaitFor(u));
    char buf[16];
    EXPECT_EQ(5, ::recv(u, buf, sizeof buf, 0));
    CloseRaw(u);

    // Pipes: the server announces its client with OnOpen, the client its
    // connection with OnWriten(0). A client that came before the accept is
    // not lost, though Windows tells BeginAccept (535).
    ZNRAsyncPipeDeviceParam pp;
    pp.name = ZNRString("\\\\.\\pipe\\plexa-reactor-" + std::to_string(::getpid()));
    pp.is_server = true;
    auto* server = new ZNRAsyncPipeDevice();
    ASSERT_TRUE(server->Open(&pp));
    Handler* sh = Echo();
    Register(server, sh);
    pp.is_server = false;
    auto* pipe_client = new ZNRAsyncPipeDevice();
    ASSERT_TRUE(pipe_client->Open(&pp));
#if defined(_WIN32)
    OnLoop([&] {
        EXPECT_FALSE(server->BeginAccept());
        EXPECT_EQ(ZNRSysError(ERROR_PIPE_CONNECTED), server->GetError());
    });
#else
    OnLoop([&] { EXPECT_TRUE(server->BeginAccept()); });
#endif
    std::uint64_t const pid = Register(pipe_client, Recorder("pipe"));
    EXPECT_EQ(0u, reactor_->SendData(pid, L("via pipe"), 8));
    EXPECT_TRUE(journal_.WaitFor("pipe got via pipe"));
    std::vector<std::string> const j = journal_.Get();
    EXPECT_NE(j.end(), std::find(j.begin(), j.end(), "pipe writen 0"));
}

TEST_F(Reactor, ListenerTakesItsBacklogInBurstsBesideBusyDevices) {
    // While the loop is held, eight connections wait in the backlog and
    // four devices get a byte each: the connections must be taken in one
    // burst, not one per pass over the devices that are ready with them.
    Start();
    RawSocket peers[4];
    for (RawSocket& peer : peers) Register(PairDevice(&peer), Recorder("busy"));
    std::string const port = Listen([this] {
        journal_.Add("accepted");
        return new Handler(&journal_, "conn");
    });
    std::vector<RawSocket> clients;
    OnLoop([&] {
        for (int i = 0; i < 8; ++i) clients.push_back(ConnectTo(port));
        for (RawSocket peer : peers) EXPECT_EQ(1, WriteRaw(peer, "x", 1));
    });
    EXPECT_TRUE(journal_.WaitUntil([](std::vector<std::string> const& e) {
        return std::count(e.begin(), e.end(), "accepted") == 8 && std::count(e.begin(), e.end(), "busy got x") == 4;
    }));
    std::vector<std::string> const j = journal_.Get();
    auto const first = std::find(j.begin(), j.end(), "accepted");
    auto const last = std::find(j.rbegin(), j.rend(), "accepted").base();
    EXPECT_EQ(8, std::count(first, last, "accepted"));
    EXPECT_EQ(0, std::count(first, last, "busy got x"));
    for (RawSocket fd : clients) CloseRaw(fd);
    for (RawSocket peer : peers) CloseRaw(peer);
}

TEST_F(Reactor, HandlersEndTheirDevicesFromEveryPath) {
    Start();
    LogCapture capture;
    auto const self = [this](Handler* h) { return reactor_->UnregisterDevice(h->GetDeviceId()); };
    RawSocket peers[4]{};

    // A task overflows a device's queue; its handler ends it from OnError.
    auto* overflow = new Handler(&journal_, "overflow");
    overflow->on_error = [&] { EXPECT_EQ(0u, self(overflow)); };
    std::uint64_t const oid = Register(PairDevice(&peers[0]), overflow, 100);
    OnLoop([&] {
        std::string const big(101, 'x');
        EXPECT_EQ(E(8), reactor_->SendData(oid, reinterpret_cast<unsigned char const*>(big.data()), 101));
        EXPECT_FALSE(reactor_->IsDeviceExist(oid));
        EXPECT_EQ(E(38), reactor_->SendData(oid, L("x"), 1));
        EXPECT_EQ((std::vector<std::string>{"error 8"}), Of("overflow"));  // closed, not yet destroyed
    });

    // Its own OnData: closed once, and not called again whatever arrives.
    auto* reader = new Handler(&journal_, "reader");
    reader->on_data = [&](ZNRByteBuffer const* b, int* offset) {
        *offset = static_cast<int>(b->GetDataCount());
        EXPECT_EQ(0u, self(reader));
        EXPECT_EQ(E(12), self(reader));
        EXPECT_EQ(E(38), reactor_->SendData(reader->GetDeviceId(), L("x"), 1));
        EXPECT_EQ(1, WriteRaw(peers[1], "b", 1));
        return reader->Log("data");
    };
    Register(PairDevice(&peers[1]), reader);
    ASSERT_EQ(1, WriteRaw(peers[1], "a", 1));
    EXPECT_TRUE(journal_.WaitFor("reader destroy"));

    // OnTimeout, answering either way; OnCreated, before any OnOpen.
    for (bool keep : {false, true}) {
        std::string const name = keep ? "kept" : "timeout";
        auto* h = new Handler(&journal_, name);
        h->on_timeout = [&, h, keep] {
            h->Log("timeout");
            EXPECT_EQ(0u, self(h));
            return keep;
        };
        Register(new ZNRFakeDevice(), h, 100, 2);
        EXPECT_TRUE(journal_.WaitFor(name + " destroy"));
    }
    auto* created = new Handler(&journal_, "created");
    created->on_created = [&] {
        EXPECT_EQ(0u, self(created));
        return true;
    };
    Register(PairDevice(&peers[2]), created);

    // A task ends two devices; the first one's OnClose ends a third. All go
    // at the end of that turn, in the order they were closed.
    std::uint64_t ids[3];
    auto* first = new Handler(&journal_, "first");
    first->on_close = [&] { EXPECT_EQ(0u, reactor_->UnregisterDevice(ids[2])); };
    ids[0] = Register(new ZNRFakeDevice(), first);
    ids[1] = Register(new ZNRFakeDevice(), new Handler(&journal_, "second"));
    ids[2] = Register(new ZNRFakeDevice(), new Handler(&journal_, "third"));
    std::size_t mark = 0;
    OnLoop([&] {
        mark = journal_.Get().size();
        EXPECT_EQ(0u, reactor_->UnregisterDevice(ids[1]));
        EXPECT_EQ(0u, reactor_->UnregisterDevice(ids[0]));
        EXPECT_EQ(E(12), reactor_->UnregisterDevice(ids[0]));
        EXPECT_EQ(mark, journal_.Get().size());
    });
    OnLoop([&] {
        std::vector<std::string> const j = journal_.Get();
        EXPECT_EQ((std::vector<std::string>{"second close", "second destroy", "first close",
                                            "first destroy", "third close", "third destroy"}),
                  std::vector<std::string>(j.begin() + static_cast<std::ptrdiff_t>(mark), j.end()));
    });

    // Another thread, through the reactor itself.
    std::uint64_t const rid = Register(PairDevice(&peers[3]), new Handler(&journal_, "remote"));
    EXPECT_EQ(0u, reactor_->UnregisterDevice(rid));
    EXPECT_TRUE(journal_.WaitFor("remote destroy"));

    std::vector<std::string> const closed{"close", "destroy"};
    EXPECT_EQ((std::vector<std::string>{"error 8", "close", "destroy"}), Of("overflow"));
    EXPECT_EQ((std::vector<std::string>{"data", "close", "destroy"}), Of("reader"));
    EXPECT_EQ((std::vector<std::string>{"timeout", "close", "destroy"}), Of("timeout"));
    EXPECT_EQ((std::vector<std::string>{"timeout", "close", "destroy"}), Of("kept"));
    EXPECT_EQ(closed, Of("created"));
    EXPECT_EQ(closed, Of("remote"));
    for (RawSocket fd : peers) CloseRaw(fd);
}

TEST_F(Reactor, StopAndRepeatingEventsGetThroughAFullQueue) {
    reactor_->Destroy();
    reactor_ = new ZNRReactorIOCP(new ZNRTimerMgr());
    reactor_->SetLoopEventQueueMaxSize(3);
    ASSERT_EQ(0u, reactor_->Init());
    std::promise<void> running, full;
    std::shared_future<void> filled(full.get_future());
    int runs = 0;
    // Held on its first run until the queue is full: queued again all the same.
    ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Repeat([&] {
        if (++runs == 1) {
            running.set_value();
            filled.wait();
        }
        return true;
    })));
    Start();
    running.get_future().wait();
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Event(&journal_, "e")));
    for (char const* name : {"refused", "late"}) {
        auto* event = new Event(&journal_, name);
        EXPECT_EQ(E(39), reactor_->RegisterLoopEvent(event));
        event->Destroy();
        if (std::string(name) == "refused") {
            EXPECT_EQ(0u, reactor_->Stop());
        }
    }
    EXPECT_EQ(0u, reactor_->Stop());
    full.set_value();
    loop_.join();
    EXPECT_EQ(0u, result_);
    // The events queued before the stop ran; the repeating one, queued
    // again behind the stop, did not run again and went with the reactor.
    EXPECT_EQ((std::vector<std::string>{"~refused", "~late", "e", "~e", "e", "~e", "e", "~e"}),
              journal_.Get());
    EXPECT_EQ(1, runs);
}

TEST_F(Reactor, LoopEventsYieldToCompletionsEachTurn) {
    // Events and a completion are ready at the first wait: the events run
    // first, at most the dispose size of them and only those queued when
    // the turn began (a repeating one waits for a later turn), then the
    // completion.
    struct Case {
        int dispose;
        int events;
        int ran_before_data;
        int repeats_before_data;
    } const cases[] = {{2, 5, 2, 1}, {8, 2, 3, 1}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.dispose);
        StopAndJoin();
        reactor_->Destroy();
        reactor_ = new ZNRReactorIOCP(new ZNRTimerMgr());
        reactor_->SetLoopEventDisposeSize(c.dispose);
        ASSERT_EQ(0u, reactor_->Init());
        int ran = 0, repeats = 0, ran_at_data = -1, repeats_at_data = -1;
        bool done = false;
        ASSERT_EQ(0u, reactor_->RegisterLoopEvent(new Repeat([&] {
            ++ran;
            ++repeats;
            return !done;
        })));
        for (int i = 0; i < c.events; ++i) {
            ASSERT_EQ(0u, reactor_->RegisterTask(new Task([&] { ++ran; })));
        }
        RawSocket peer{};
        auto* h = new Handler(&journal_, "pair");
        h->on_data = [&](ZNRByteBuffer const* b, int* offset) {
            *offset = static_cast<int>(b->GetDataCount());
            if (ran_at_data < 0) ran_at_data = ran, repeats_at_data = repeats;
            done = true;
            return true;
        };
        std::uint64_t err = 0;
        ASSERT_NE(kNoId, reactor_->RegisterDevice(PairDevice(&peer), h, &err, 100, 10, 100, 0xFFFFFFFF));
        ASSERT_EQ(1, WriteRaw(peer, "x", 1));
        Start();
        OnLoop([] {});
        OnLoop([] {});
        EXPECT_EQ(c.ran_before_data, ran_at_data);
        EXPECT_EQ(c.repeats_before_data, repeats_at_data);
        CloseRaw(peer);
    }
}

TEST_F(Reactor, BurstFromAnotherThreadThroughASmallSendBound) {
    // A reader keeps up: a burst four times the bound, sent line by line
    // from another thread, arrives whole; the bound only pushes back on
    // the sender (error 8, nothing queued), it never cuts the reader off.
    Start();
    RawSocket peer{};
    int const bound = 256 * 1024;
    std::uint64_t const id = Register(PairDevice(&peer), new Handler(&journal_, "relay"), bound);
    std::string sent;
    for (int i = 0; sent.size() < 4u * bound; ++i) sent += std::string(20000, static_cast<char>('a' + i % 26)) + "\n";
    LogCapture capture;
    std::future<std::string> got = std::async(std::launch::async, [&] { return ReadUpTo(peer, sent.size()); });
    int refused = 0;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (std::size_t at = 0; at < sent.size(); at += 20001) {
        std::uint64_t rc;
        while ((rc = reactor_->SendData(id, U(sent) + at, 20001)) == E(8)) {
            ++refused;
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the queue never drains";
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        ASSERT_EQ(0u, rc);
    }
    EXPECT_TRUE(got.get() == sent);
    // No error, no close; every byte reported written, once. The last
    // write's completion may still be on its way when the peer has it all.
    auto const written = [this] {
        std::size_t sum = 0;
        for (std::string const& e : Of("relay")) sum += e.find("writen ") == 0 ? std::stoul(e.substr(7)) : 0;
        return sum;
    };
    for (int i = 0; i < 500 && written() < sent.size(); ++i) OnLoop([] {});
    OnLoop([&] { EXPECT_TRUE(reactor_->IsDeviceExist(id)); });
    for (std::string const& e : Of("relay")) ASSERT_EQ(0u, e.find("writen ")) << e;
    EXPECT_EQ(sent.size(), written());
    EXPECT_EQ(static_cast<std::size_t>(refused), capture.Messages(ZNRLogger::LOGL_ERROR).size());
    CloseRaw(peer);
}

TEST_F(Reactor, LargeFrameGrowsTheBlockGeometricallyAndGivesItBack) {
    Start();
    RawSocket peer{};
    std::size_t const frame = 3 << 20;
    std::vector<unsigned int> blocks;
    std::atomic<unsigned int> after{0};  // read by the test while the loop may still write it
    auto* h = new Handler(&journal_, "frame");
    h->on_data = [&](ZNRByteBuffer const* b, int* offset) {
        if (blocks.empty() || blocks.back() != b->GetBlockSize()) blocks.push_back(b->GetBlockSize());
        if (b->GetDataCount() == frame) {
            *offset = static_cast<int>(frame);  // the whole frame at once
            h->Log("whole");
        } else if (b->GetDataCount() < 4096 && blocks.size() > 1) {
            after = b->GetBlockSize();
            *offset = static_cast<int>(b->GetDataCount());
        }
        return true;
    };
    std::uint64_t err = 0;
    OnLoop([&] {
        EXPECT_NE(kNoId, reactor_->RegisterDevice(PairDevice(&peer), h, &err, 4 << 20, 4096, 100, 0xFFFFFFFF));
    });
    std::string const bytes(frame, 'f');
    std::thread writer([&] {
        for (std::size_t at = 0; at < bytes.size();) {
            long long const n = WriteRaw(peer, bytes.data() + at, bytes.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
    });
    writer.join();
    ASSERT_TRUE(journal_.WaitFor("frame whole"));
    ASSERT_EQ(1, WriteRaw(peer, "z", 1));
    for (int i = 0; i < 500 && after == 0; ++i) OnLoop([] {});
    // Doubling: about log2(3 MiB / 4 KiB) blocks, not one per read.
    EXPECT_LE(blocks.size(), 14u);
    EXPECT_GE(*std::max_element(blocks.begin(), blocks.end()), frame);
    EXPECT_GT(after.load(), 0u);
    EXPECT_LE(after.load(), 2u * 4096);
    CloseRaw(peer);
}

TEST_F(Reactor, IdleLoopSleepsAndCrossThreadTimersWakeIt) {
    Start();
    OnLoop([] {});
    std::uint64_t const before = reactor_->GetIdleWakeups();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(reactor_->GetIdleWakeups() - before, 2u);  // not one a millisecond

    // Journals name when it expires (fire) or ends (end).
    class Timer : public ZNRTimer {
    public:
        Timer(Journal* j, unsigned int limit, std::string fire, std::string end = "")
            : ZNRTimer(20, limit, nullptr), j_(j), fire_(std::move(fire)), end_(std::move(end)) {}
        bool OnExpires(std::uint64_t) override {
            if (!fire_.empty()) j_->Add(fire_);
            return true;
        }
        void OnReset() override {}
        void OnClose() override { if (!end_.empty()) j_->Add(end_); }
        void Destroy() override { delete this; }
        Journal* j_;
        std::string fire_, end_;
    };
    std::uint64_t err = 0;
    EXPECT_NE(kNoId, reactor_->RegisterTimer(new Timer(&journal_, 1, "fired"), &err));
    EXPECT_TRUE(journal_.WaitFor("fired"));
    // A repeating 20 ms timer (a listener's accept retry): the loop sleeps
    // up to each expiry instead of stepping through the last milliseconds.
    // Four a period at most, or, where a loaded machine (or Wine's coarse
    // clock) stretched the periods, one per 4 ms taken: a stepping loop
    // wakes every millisecond.
    std::uint64_t const start = reactor_->GetIdleWakeups();
    auto const began = std::chrono::steady_clock::now();
    EXPECT_NE(kNoId, reactor_->RegisterTimer(new Timer(&journal_, 10, "", "ten"), &err));
    EXPECT_TRUE(journal_.WaitFor("ten"));
    auto const taken_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now() - began).count();
    EXPECT_LE(reactor_->GetIdleWakeups() - start, std::max<std::uint64_t>(40, taken_ms / 4)) << taken_ms << " ms";
    // A timer left registered ends with the reactor.
    EXPECT_NE(kNoId, reactor_->RegisterTimer(new Timer(&journal_, 1, "x"), &err));
    auto* later = new Timer(&journal_, 1, "x");
    std::uint64_t const later_id = reactor_->RegisterTimer(later, &err);
    EXPECT_EQ(0u, reactor_->UnregisterTimer(later_id));
    later->Destroy();
}

#if defined(__linux__)
namespace {

// As a container's seccomp profile does: io_uring_setup fails with EPERM,
// for the calling thread only. Its number is the same on every
// architecture.
void ForbidIoUring() {
    sock_filter const filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_io_uring_setup, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]),
                          const_cast<sock_filter*>(filter)};
    ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
    ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program));
}

}  // namespace

TEST_F(Reactor, EngineChoiceFallsBackToEpollWhereIoUringIsForbidden) {
    LogCapture logs;
    std::string const env = std::getenv("PLEXA_ENGINE") != nullptr ? std::getenv("PLEXA_ENGINE") : "";
    ::unsetenv("PLEXA_ENGINE");
    reactor_->Destroy();
    reactor_ = nullptr;
    std::string const eperm = ZNRGetErrorText(ZNRSysError(EPERM));
    std::thread([&] {
        ForbidIoUring();
        // Forced, io_uring fails Init with the system's error; automatic,
        // epoll serves.
        auto* forced = new ZNRReactorIOCP(new ZNRTimerMgr());
        ASSERT_EQ(0u, forced->SetEngine("io_uring"));
        EXPECT_EQ(ZNRSysError(EPERM), forced->Init());
        EXPECT_EQ(nullptr, forced->GetEngineName());
        forced->Destroy();
        reactor_ = new ZNRReactorIOCP(new ZNRTimerMgr());
        ASSERT_EQ(0u, reactor_->Init());
    }).join();
    if (!env.empty()) ::setenv("PLEXA_ENGINE", env.c_str(), 1);
    ASSERT_NE(nullptr, reactor_);
    EXPECT_STREQ("epoll", reactor_->GetEngineName());
    EXPECT_EQ(ZNRSysError(EBUSY), reactor_->SetEngine("io_uring"));
    EXPECT_EQ((std::vector<std::string>{"IOCP reactor can not start its completion engine, io_uring chosen by "
                                        "the host, error=\"" + eperm + "\""}),
              logs.Messages(ZNRLogger::LOGL_ERROR));
    EXPECT_EQ((std::vector<std::string>{"IOCP reactor uses the epoll completion engine, io_uring is "
                                        "unavailable, error=\"" + eperm + "\""}),
              logs.Messages(ZNRLogger::LOGL_INFO));

    Start();
    std::string const port = Listen([this] { return Echo(); });
    RawSocket const fd = ConnectTo(port);
    ASSERT_EQ(4, SendRaw(fd, "ping", 4));
    EXPECT_EQ("ping", ReadUpTo(fd, 4));
    CloseRaw(fd);

    // An engine nobody knows is refused by name.
    auto* const unknown = new ZNRReactorIOCP(new ZNRTimerMgr());
    ASSERT_EQ(0u, unknown->SetEngine("kqueue"));
    EXPECT_EQ(ZNRSysError(EINVAL), unknown->Init());
    unknown->Destroy();
    EXPECT_EQ("IOCP reactor can not start its completion engine, unknown engine \"kqueue\" chosen by the host, "
              "error=\"" + ZNRGetErrorText(ZNRSysError(EINVAL)) + "\"",
              logs.Messages(ZNRLogger::LOGL_ERROR).back());
}
#endif

#if defined(_WIN32)
namespace {

// How many pipe handles of this process are named "\<uuid>", as the
// wake-up channels under \\.\pipe\ are.
int UuidPipes() {
    std::wregex const uuid(L"\\\\[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
    int n = 0;
    for (std::uintptr_t v = 4; v < 0x10000; v += 4) {
        HANDLE const h = reinterpret_cast<HANDLE>(v);
        union {
            FILE_NAME_INFO info;
            char bytes[1024];
        } u;
        if (::GetFileType(h) != FILE_TYPE_PIPE || !::GetFileInformationByHandleEx(h, FileNameInfo, &u, sizeof u)) {
            continue;
        }
        n += std::regex_match(std::wstring(u.info.FileName, u.info.FileNameLength / sizeof(wchar_t)), uuid);
    }
    return n;
}

}  // namespace

// Each reactor's wake-up channel is a pipe of its own, named by a fresh UUID.
TEST_F(Reactor, WakeupPipeNamedByAFreshUuid) {
    int const before = UuidPipes();
    auto* other = new ZNRReactorIOCP(new ZNRTimerMgr());
    ASSERT_EQ(0u, other->Init());
    EXPECT_EQ(before + 2, UuidPipes());  // its two ends
    other->Destroy();
    EXPECT_EQ(before, UuidPipes());
}
#endif
