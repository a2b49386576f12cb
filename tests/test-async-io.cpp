#include "net-test-util.h"
#include "znr-completion-engine.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <process.h>
#else
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#endif

using namespace nettest;

namespace {

std::uint64_t const kTimedOut = 0x8000000100000011ULL;

// A connected stream pair: the first end non-blocking, for the engine.
std::pair<RawSocket, RawSocket> StreamPair() {
    RawSocket fds[2];
    EXPECT_TRUE(nettest::StreamPair(fds));
    SetNonBlocking(fds[0]);
    return {fds[0], fds[1]};
}

// Waits until fd holds exactly n bytes to read, so that all of them are
// there for the engine's first edge.
bool Queued(RawSocket fd, int n) {
#if defined(_WIN32)
    u_long got = 0;
#else
    int got = -1;
#endif
    for (int i = 0; i < 5000 && static_cast<int>(got) < n; ++i) {
#if defined(_WIN32)
        if (::ioctlsocket(fd, FIONREAD, &got) != 0) return false;
#else
        if (::ioctl(fd, FIONREAD, &got) != 0) return false;
#endif
        if (static_cast<int>(got) < n) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return static_cast<int>(got) == n;
}

// Transfers outlive the call that starts them: literals only, no temporaries.
unsigned char const* L(char const* text) { return reinterpret_cast<unsigned char const*>(text); }

std::string PipeName(char const* tag) {
    return std::string("\\\\.\\pipe\\plexa-test-") + tag + "-" + std::to_string(::getpid());
}

// CPU time the calling thread has used, in milliseconds.
double ThreadCpuMs() {
#if defined(_WIN32)
    FILETIME created, exited, kernel, user;
    ::GetThreadTimes(::GetCurrentThread(), &created, &exited, &kernel, &user);
    auto const ticks = [](FILETIME const& t) { return (static_cast<unsigned long long>(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return static_cast<double>(ticks(kernel) + ticks(user)) / 1e4;
#else
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec / 1e6;
#endif
}

class AsyncIO : public ::testing::Test {
protected:
    void SetUp() override {
        std::uint64_t err = 0;
        engine_.reset(ZNRCompletionEngine::Create(&err));
        ASSERT_NE(nullptr, engine_) << err;
    }

    // One completion at a time, as the cases below take them: the rest of
    // a batch waits for the next call.
    std::uint64_t WaitOne(int ms, ZNRCompletion* c) {
        if (held_.empty()) {
            ZNRCompletion batch[8];
            int count = 0;
            std::uint64_t const rc = engine_->Wait(ms, batch, 8, &count);
            if (rc != 0) return rc;
            held_.assign(batch, batch + count);
        }
        *c = held_.front();
        held_.erase(held_.begin());
        return 0;
    }
    // The next completion, waiting at most five seconds.
    ZNRCompletion Next() {
        ZNRCompletion c{};
        EXPECT_EQ(0u, WaitOne(5000, &c));
        return c;
    }
    void ExpectNothing(int ms = 20) {
        ZNRCompletion c{};
        EXPECT_EQ(kTimedOut, WaitOne(ms, &c)) << "key " << c.key;
    }
    void Watch(ZNRDevice* device, ZNRAsyncIO* io, std::uint32_t key) {
        ASSERT_EQ(0u, engine_->Associate(device->GetFd(), key, io));
    }
    // An async socket over the first end of a stream pair, watched under key.
    std::unique_ptr<ZNRAsyncSocket> Adopt(RawSocket fd, std::uint32_t key) {
        std::unique_ptr<ZNRAsyncSocket> s(new ZNRAsyncSocket());
        EXPECT_EQ(0u, s->Open(ZNRSocket::TYPE_TCP_V4, Handle(fd)));
        EXPECT_EQ(0u, engine_->Associate(Handle(fd), key, s.get()));
        return s;
    }
    DevicePtr<ZNRAsyncTcpDevice> Tcp(ZNRNetAddrInfo const* remote) {
        ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
        ZNRTcpDeviceParam param;
        param.local_addr = remote == nullptr ? &local : nullptr;
        param.remote_addr = remote;
        auto device = MakeDevice<ZNRAsyncTcpDevice>();
        EXPECT_TRUE(device->Open(&param)) << device->GetError();
        return device;
    }
    DevicePtr<ZNRAsyncPipeDevice> Pipe(std::string const& name, bool server, unsigned int wait = 1000) {
        ZNRAsyncPipeDeviceParam param;
        param.name = ZNRString(name);
        param.is_server = server;
        param.wait_timeout = wait;
        auto device = MakeDevice<ZNRAsyncPipeDevice>();
        device->Open(&param);
        return device;
    }

    std::unique_ptr<ZNRCompletionEngine> engine_;
    std::vector<ZNRCompletion> held_;
};

}  // namespace

TEST_F(AsyncIO, AcceptAndConnectStartedBeforeAssociation) {
    auto listener = Tcp(nullptr);
    Watch(listener.get(), listener.get(), 1);
    ASSERT_TRUE(listener->BeginAccept());
    ExpectNothing();
    std::uint64_t err = 0;
    ZNRNetAddrInfo const bound = *listener->GetBindAddr(&err);

    // Connecting is under way before the engine knows the descriptor.
    auto client = Tcp(&bound);
    ASSERT_TRUE(client->Connect());
    EXPECT_EQ(ZNRAsyncIOCB::OP_CONNECT, client->GetWriteIOCB()->operation);
    Watch(client.get(), client.get(), 2);

    std::map<std::uint32_t, ZNRCompletion> done;
    for (int i = 0; i < 2; ++i) {
        ZNRCompletion const c = Next();
        done[c.key] = c;
    }
    ASSERT_EQ(2u, done.size());
    EXPECT_EQ(listener->GetReadIOCB(), done[1].iocb);
    EXPECT_EQ(ZNRAsyncIOCB::OP_ACCEPT, done[1].iocb->operation);
    EXPECT_FALSE(done[1].failed);
    EXPECT_EQ(client->GetWriteIOCB(), done[2].iocb);
    EXPECT_FALSE(done[2].failed);

    auto conn = MakeDevice<ZNRAsyncTcpDevice>();
    ASSERT_TRUE(listener->Accept(conn.get()));
    EXPECT_EQ(ZNRDevice::TYPE_TCP_ACCEPTED, conn->GetType());
    EXPECT_EQ("Tcp accept client, remote ip=127.0.0.1 remote port=" +
                  Str(client->GetBindAddr(&err)->GetPortStr()),
              Str(conn->GetDescInfo()));
    // Nothing more was accepted.
    auto spare = MakeDevice<ZNRAsyncTcpDevice>();
    EXPECT_FALSE(listener->Accept(spare.get()));

    // The accepted connection carries data both ways through the engine.
    Watch(conn.get(), conn.get(), 3);
    unsigned char buf[16] = {};
    EXPECT_EQ(0, conn->Read(buf, sizeof buf));
    client->GetWriteIOCB()->Reset();
    EXPECT_EQ(0, client->Write(L("ping"), 4));
    std::map<std::uint32_t, int> bytes;
    for (int i = 0; i < 2; ++i) {
        ZNRCompletion const c = Next();
        bytes[c.key] = c.bytes;
    }
    EXPECT_EQ((std::map<std::uint32_t, int>{{2, 4}, {3, 4}}), bytes);
    EXPECT_EQ("ping", Bytes(buf, 4));
}

TEST_F(AsyncIO, ConnectRefused) {
    ZNRNetAddrInfo closed = V4("127.0.0.1", "0");
    {
        auto probe = Tcp(nullptr);  // a port that was just free again
        std::uint64_t err = 0;
        closed = *probe->GetBindAddr(&err);
    }
    auto client = Tcp(&closed);
    if (!client->Connect()) {
        EXPECT_EQ(ZNRSysError(kErrRefused), client->GetError());
        return;
    }
    Watch(client.get(), client.get(), 7);
    ZNRCompletion const c = Next();
    EXPECT_EQ(7u, c.key);
    EXPECT_TRUE(c.failed);
    EXPECT_EQ(ZNRSysError(kErrRefused), c.error);
    EXPECT_EQ(ZNRAsyncIOCB::OP_CONNECT, c.iocb->operation);
}

TEST_F(AsyncIO, ReadsWaitingImmediateOncePerSideAndPeerClose) {
    auto const fds = StreamPair();
    auto s = Adopt(fds.first, 5);
    ZNRAsyncIOCB* const cb = s->GetReadIOCB();
    unsigned char buf[64] = {};
    std::uint64_t err = 0;

    // Nothing there: the read waits for the peer.
    EXPECT_EQ(0, s->Recv(buf, 64, &err));
    EXPECT_EQ(ZNRSysError(EBUSY), cb->Reset());
    EXPECT_EQ(-1, s->Recv(buf, 64, &err));
    EXPECT_EQ(ZNRSysError(EBUSY), err);
    ExpectNothing();
    ASSERT_EQ(5, WriteRaw(fds.second, "hello", 5));
    ZNRCompletion c = Next();
    EXPECT_EQ(5u, c.key);
    EXPECT_EQ(5, c.bytes);
    EXPECT_EQ(cb, c.iocb);
    EXPECT_EQ(ZNRAsyncIOCB::OP_READ, cb->operation);
    EXPECT_EQ("hello", Bytes(buf, 5));
    ExpectNothing();  // its count came once

    // A read that fills its buffer leaves the side ready: the next one
    // finishes inside the call, before any wait.
    ASSERT_EQ(0u, cb->Reset());
    ASSERT_EQ(20, WriteRaw(fds.second, "abcdefghijklmnopqrst", 20));
    EXPECT_EQ(0, s->Recv(buf, 8, &err));
    c = Next();
    EXPECT_EQ(8, c.bytes);
    ASSERT_EQ(0u, cb->Reset());
    EXPECT_EQ(0, s->Recv(buf, 8, &err));
    EXPECT_EQ(ZNRAsyncIOCB::STATUS_DONE, cb->status);
    EXPECT_EQ("ijklmnop", Bytes(buf, 8));
    c = Next();
    EXPECT_EQ(8, c.bytes);

    // Reset drops a completion not yet handed out.
    ASSERT_EQ(0u, cb->Reset());
    EXPECT_EQ(0, s->Recv(buf, 2, &err));
    ASSERT_EQ(0u, cb->Reset());
    ExpectNothing();

    // An orderly close completes a read successfully with 0 bytes.
    EXPECT_EQ(0, s->Recv(buf, 64, &err));
    c = Next();
    EXPECT_EQ(2, c.bytes);
    ASSERT_EQ(0u, cb->Reset());
    ShutWrite(fds.second);
    EXPECT_EQ(0, s->Recv(buf, 64, &err));
    c = Next();
    EXPECT_FALSE(c.failed);
    EXPECT_EQ(0, c.bytes);
    CloseRaw(fds.second);

    // Last bytes and the end (close or half-close) in one edge: the short
    // read that takes the bytes must not leave the end waiting for an edge
    // that never comes.
    for (bool half : {false, true}) {
        auto const late = StreamPair();
        ASSERT_EQ(4, WriteRaw(late.second, "last", 4));
        ASSERT_EQ(0, half ? ShutWrite(late.second) : CloseRaw(late.second));
        auto t = Adopt(late.first, 6);
        EXPECT_EQ(0, t->Recv(buf, 64, &err));
        c = Next();
        EXPECT_EQ(4, c.bytes) << half;
        ASSERT_EQ(0u, t->GetReadIOCB()->Reset());
        EXPECT_EQ(0, t->Recv(buf, 64, &err));
        c = Next();
        EXPECT_EQ(6u, c.key);
        EXPECT_EQ(0, c.bytes) << half;
        if (half) CloseRaw(late.second);
    }
}

TEST_F(AsyncIO, ShortReadsWithMoreBehindDoNotWaitForAnEdge) {
    unsigned char buf[64];
#if defined(__linux__)
    // A terminal in canonical mode hands out one line per read.
    int const master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, ::grantpt(master));
    ASSERT_EQ(0, ::unlockpt(master));
    ZNRUnknownDeviceParam param;
    param.fd = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(param.fd, 0);
    termios tio;
    ASSERT_EQ(0, ::tcgetattr(param.fd, &tio));
    tio.c_lflag = (tio.c_lflag | ICANON) & ~ECHO;
    ASSERT_EQ(0, ::tcsetattr(param.fd, TCSANOW, &tio));
    auto terminal = MakeDevice<ZNRAsyncUnknownDevice>();
    ASSERT_TRUE(terminal->Open(&param));
    Watch(terminal.get(), terminal.get(), 1);
    ASSERT_EQ(14, WriteRaw(master, "one\ntwo\nthree\n", 14));
    ASSERT_TRUE(Queued(param.fd, 14));
    std::vector<std::string> lines;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(0u, terminal->ResetReadIOStatus());
        ASSERT_EQ(0, terminal->Read(buf, sizeof buf));
        if (i == 3) {
            // Emptied, the side waits for the next edge again.
            ExpectNothing();
            ASSERT_EQ(5, WriteRaw(master, "four\n", 5));
        }
        ZNRCompletion c{};
        ASSERT_EQ(0u, WaitOne(1000, &c)) << i;
        lines.push_back(Bytes(buf, c.bytes));
    }
    EXPECT_EQ((std::vector<std::string>{"one\n", "two\n", "three\n", "four\n"}), lines);
    terminal.reset();
    ::close(master);
#endif

    // TCP stops a read at the urgent mark; the urgent byte itself comes in
    // line, on sockets created and adopted alike (a plain listener, without
    // the option, accepts the connection that is adopted).
    RawSocket const raw = NewSocket(AF_INET, SOCK_STREAM);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sin;
    ASSERT_EQ(0, ::bind(raw, reinterpret_cast<sockaddr*>(&sin), len));
    ASSERT_EQ(0, ::listen(raw, 1));
    ASSERT_EQ(0, ::getsockname(raw, reinterpret_cast<sockaddr*>(&sin), &len));
    ZNRNetAddrInfo bound;
    ASSERT_EQ(0u, bound.Open(reinterpret_cast<sockaddr*>(&sin), len));
    auto client = Tcp(&bound);
    ASSERT_TRUE(client->Connect());
    Watch(client.get(), client.get(), 2);
    EXPECT_FALSE(Next().failed);
    RawSocket const accepted = ::accept(raw, nullptr, nullptr);
    SetNonBlocking(accepted);
    auto conn = Adopt(accepted, 3);
    CloseRaw(raw);
    struct Ends {
        ZNRAsyncIO* reader;
        RawSocket in, out;
    };
    for (Ends const& ends : {Ends{client.get(), Raw(client->GetFd()), Raw(conn->GetFd())},
                             Ends{conn.get(), Raw(conn->GetFd()), Raw(client->GetFd())}}) {
        int const on = 1;
        ASSERT_EQ(0, ::setsockopt(ends.out, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char const*>(&on), sizeof on));
        ASSERT_EQ(4, ::send(ends.out, "abcd", 4, 0));
        ASSERT_EQ(1, ::send(ends.out, "!", 1, MSG_OOB));
        ASSERT_EQ(4, ::send(ends.out, "efgh", 4, 0));
        ASSERT_TRUE(Queued(ends.in, 9));
        ZNRAsyncIOCB* const cb = ends.reader->GetReadIOCB();
        std::string got;
        while (got.size() < 9) {
            ASSERT_EQ(0u, cb->Reset());
            ASSERT_EQ(0u, cb->Begin(ZNRAsyncIOCB::OP_READ, ZNRAsyncIOCB::METHOD_RECV, buf, 64));
            ZNRCompletion c{};
            ASSERT_EQ(0u, WaitOne(1000, &c)) << got;
            got += Bytes(buf, c.bytes);
        }
        EXPECT_EQ("abcd!efgh", got);
    }
}

TEST_F(AsyncIO, LargeWritesArePartialAndArriveWhole) {
    auto const fds = StreamPair();
    auto s = Adopt(fds.first, 9);
    std::vector<unsigned char> data(4 << 20);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 131 + i / 7);
    std::string got;
    std::thread reader([&] { got = ReadUpTo(fds.second, data.size()); });
    std::size_t sent = 0;
    int writes = 0;
    std::uint64_t err = 0;
    while (sent < data.size()) {
        ASSERT_EQ(0u, s->ResetWriteIOStatus());
        ASSERT_EQ(0, s->Send(data.data() + sent, static_cast<int>(data.size() - sent), &err));
        ZNRCompletion const c = Next();
        ASSERT_FALSE(c.failed);
        ASSERT_EQ(ZNRAsyncIOCB::OP_WRITE, c.iocb->operation);
        ASSERT_GT(c.bytes, 0);
        sent += static_cast<std::size_t>(c.bytes);
        ++writes;
    }
    reader.join();
#if !defined(_WIN32)  // an overlapped send holds the whole buffer until all of it is gone
    EXPECT_GT(writes, 1);
#endif
    EXPECT_TRUE(got == std::string(data.begin(), data.end()));
}

TEST_F(AsyncIO, DatagramsWithPeerAddresses) {
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    ZNRUdpDeviceParam param;
    param.local_addr = &local;
    auto a = MakeDevice<ZNRAsyncUdpDevice>();
    auto b = MakeDevice<ZNRAsyncUdpDevice>();
    ASSERT_TRUE(a->Open(&param));
    ASSERT_TRUE(b->Open(&param));
    std::uint64_t err = 0;
    ZNRNetAddrInfo const a_addr = *a->GetBindAddr(&err);
    std::string const b_text = Text(*b->GetBindAddr(&err));
    Watch(a.get(), a.get(), 1);
    Watch(b.get(), b.get(), 2);

    b->SetNextSendPeerAddr(&a_addr);
    for (char const* text : {"one", "three"}) {
        ASSERT_EQ(0u, b->ResetWriteIOStatus());
        EXPECT_EQ(0, b->Write(L(text), static_cast<int>(std::strlen(text))));
        ZNRCompletion const c = Next();
        EXPECT_EQ(2u, c.key);
        EXPECT_EQ(static_cast<int>(std::strlen(text)), c.bytes);
    }
    // Both datagrams wait in the socket; the second read must not wait
    // for another edge.
    unsigned char buf[32] = {};
    for (char const* text : {"one", "three"}) {
        ASSERT_EQ(0u, a->ResetReadIOStatus());
        EXPECT_EQ(-1, a->Read(buf, sizeof buf));
        EXPECT_EQ(0u, a->GetError());
        ZNRCompletion const c = Next();
        EXPECT_EQ(1u, c.key);
        EXPECT_EQ(text, Bytes(buf, c.bytes));
        ASSERT_TRUE(a->UpdateLastRecvPeerAddr());
        EXPECT_EQ(b_text, Text(*a->GetLastRecvPeerAddr()));
    }
}

TEST_F(AsyncIO, PipeInstancesClientsAndClose) {
    std::string const name = PipeName("pair");
    auto s1 = Pipe(name, true);
    auto s2 = Pipe(name, true);
    ASSERT_FALSE(s1->IsClosed());
    ASSERT_FALSE(s2->IsClosed()) << s2->GetError();
    EXPECT_EQ(ZNRDevice::TYPE_PIPE_SERVER, s1->GetType());
    EXPECT_EQ("Pipe server, name=\"" + name + "\"", Str(s1->GetDescInfo()));
    // A client may connect before its server starts accepting.
    auto c1 = Pipe(name, false);
    ASSERT_FALSE(c1->IsClosed()) << c1->GetError();
    EXPECT_EQ(ZNRDevice::TYPE_PIPE_CLIENT, c1->GetType());
    EXPECT_EQ("Pipe client, path=\"" + name + "\"", Str(c1->GetDescInfo()));
    // Windows tells the server that took c1 so (535); its accept completes
    // all the same. An accept begun before its watch ends through it.
    Watch(s1.get(), s1.get(), 1);
    int early = 0;
    for (auto* s : {s1.get(), s2.get()}) {
        if (s->BeginAccept()) continue;
        ++early;
#if defined(_WIN32)
        EXPECT_EQ(ZNRSysError(ERROR_PIPE_CONNECTED), s->GetError());
#endif
    }
#if defined(_WIN32)
    EXPECT_EQ(1, early);
#else
    EXPECT_EQ(0, early);
#endif
    Watch(s2.get(), s2.get(), 2);
    auto c2 = Pipe(name, false);
    ASSERT_FALSE(c2->IsClosed());
    std::set<std::uint32_t> accepted;
    for (int i = 0; i < 2; ++i) {
        ZNRCompletion const c = Next();
        EXPECT_EQ(ZNRAsyncIOCB::OP_ACCEPT, c.iocb->operation);
        EXPECT_FALSE(c.failed);
        accepted.insert(c.key);
    }
    EXPECT_EQ((std::set<std::uint32_t>{1, 2}), accepted);

    // Unwatched clients finish their writes through CheckWriteIOStatus.
    int n = 0;
    EXPECT_EQ(0, c1->Write(L("one"), 3));
    EXPECT_EQ(0u, c1->CheckWriteIOStatus(-1, &n));
    EXPECT_EQ(3, n);
    EXPECT_EQ(0, c2->Write(L("two!"), 4));
    EXPECT_EQ(0u, c2->CheckWriteIOStatus(1000, &n));
    unsigned char b1[8] = {}, b2[8] = {};
    ASSERT_EQ(0u, s1->ResetReadIOStatus());
    ASSERT_EQ(0u, s2->ResetReadIOStatus());
    EXPECT_EQ(0, s1->Read(b1, sizeof b1));
    EXPECT_EQ(0, s2->Read(b2, sizeof b2));
    std::set<std::string> got;
    for (int i = 0; i < 2; ++i) {
        ZNRCompletion const c = Next();
        got.insert(Bytes(c.key == 1 ? b1 : b2, c.bytes));
    }
    EXPECT_EQ((std::set<std::string>{"one", "two!"}), got);

    // The peer going away ends the server's stream.
    c1->Close();
    c2->Close();
    for (auto* s : {s1.get(), s2.get()}) {
        ASSERT_EQ(0u, s->ResetReadIOStatus());
        EXPECT_EQ(0, s->Read(b1, sizeof b1));
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(0, Next().bytes);

    // Closing twice is fine and leaves the plain pipe type.
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(s1->Close());
        EXPECT_EQ(ZNRDevice::TYPE_PIPE, s1->GetType());
        EXPECT_TRUE(s1->IsEof());
        EXPECT_EQ("", Str(s1->GetDescInfo()));
    }
    EXPECT_FALSE(s1->CloseWrite());
    EXPECT_EQ(0x8000000100000025ULL, s1->GetError());
}

TEST_F(AsyncIO, PipeClientWaitsForServerAndPathNamesLeaveNoFile) {
    auto lonely = Pipe(PipeName("none"), false, 30);
    EXPECT_TRUE(lonely->IsClosed());
#if defined(_WIN32)
    // At once: a client waits only for a pipe that exists.
    EXPECT_EQ(ZNRSysError(ERROR_FILE_NOT_FOUND), lonely->GetError());
    // The name is used as given: only a pipe path names a pipe.
    EXPECT_EQ(ZNRSysError(ERROR_INVALID_NAME), Pipe("plexa-test-pipe", true)->GetError());
    // Every instance busy: the client waits for the next one.
    std::string const path = PipeName("wait");
    auto busy = Pipe(path, true);
    auto first = Pipe(path, false);
    ASSERT_FALSE(first->IsClosed()) << first->GetError();
#else
    EXPECT_EQ(ZNRSysError(ECONNREFUSED), lonely->GetError());
    std::string const path = "/tmp/plexa-test-pipe-" + std::to_string(::getpid());
#endif
#if defined(__linux__)
    ::unlink(path.c_str());
#endif
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        auto server = Pipe(path, true);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    });
    auto client = Pipe(path, false, 5000);
    EXPECT_FALSE(client->IsClosed()) << client->GetError();
    late.join();
#if defined(__linux__)
    struct stat st;
    EXPECT_NE(0, ::stat(path.c_str(), &st));  // the last server removed it
#endif

    // Error numbers 38 and 109 mean end of file whatever the high word.
    for (std::uint64_t code : std::vector<std::uint64_t>{0x26, 0x400000010000006D, 0x8000000100000004, ZNRSysError(EPIPE)}) {
        client->SetError(code);
        EXPECT_TRUE(client->IsEof()) << std::hex << code;
    }
    client->SetError(ZNRSysError(EAGAIN));
    EXPECT_FALSE(client->IsEof());
}

TEST_F(AsyncIO, ClosingWithCompletionsQueuedAndDescriptorReuse) {
    auto fds = StreamPair();
    auto s = Adopt(fds.first, 11);
    ASSERT_EQ(4, WriteRaw(fds.second, "data", 4));
    unsigned char buf[4];
    std::uint64_t err = 0;
    ASSERT_EQ(0, s->Send(L("out"), 3, &err));  // may finish at once
    ASSERT_EQ(0, s->Recv(buf, 4, &err));
#if !defined(_WIN32)  // an overlapped receive has taken the bytes already
    ASSERT_TRUE(WaitFor(fds.first));
#endif
    RawSocket const old_fd = fds.first;
    s.reset();  // pending and queued work goes with it
    CloseRaw(fds.second);

    // The number comes back at once for a new socket.
    fds = StreamPair();
#if defined(__linux__)
    ASSERT_EQ(old_fd, fds.first);
#else
    (void)old_fd;
#endif
    ExpectNothing();
    auto again = Adopt(fds.first, 12);
    ASSERT_EQ(0, again->Recv(buf, 4, &err));
    ExpectNothing();
    ASSERT_EQ(2, WriteRaw(fds.second, "ok", 2));
    ZNRCompletion const c = Next();
    EXPECT_EQ(12u, c.key);
    EXPECT_EQ(2, c.bytes);
    CloseRaw(fds.second);
}

TEST_F(AsyncIO, CancelAbortsEachPendingOperationOnceAndKeepsFinishedOnes) {
    auto const fds = StreamPair();
    char chunk[4096] = {};
    while (WriteRaw(fds.first, chunk, sizeof chunk) > 0) {
    }
    auto s = Adopt(fds.first, 8);
    unsigned char in[8];
    std::uint64_t err = 0;
    ASSERT_EQ(0, s->Recv(in, sizeof in, &err));
    ASSERT_EQ(0, s->Send(L("held"), 4, &err));
    ExpectNothing();
    EXPECT_EQ(2, engine_->Cancel(s.get()));
    std::set<ZNRAsyncIOCB*> aborted;
    for (int i = 0; i < 2; ++i) {
        ZNRCompletion const c = Next();
        EXPECT_EQ(8u, c.key);
        EXPECT_TRUE(c.failed);
        EXPECT_EQ(ZNRSysError(kErrCancelled), c.error);
        EXPECT_EQ(0, c.bytes);
        aborted.insert(c.iocb);
    }
    EXPECT_EQ((std::set<ZNRAsyncIOCB*>{s->GetReadIOCB(), s->GetWriteIOCB()}), aborted);
    // Nothing is left to abort; the peer's bytes do not revive the read.
    EXPECT_EQ(0, engine_->Cancel(s.get()));
    ASSERT_EQ(1, WriteRaw(fds.second, "x", 1));
    ExpectNothing();

    // A finished operation whose completion is not handed out yet is
    // counted, not aborted: two reads finish together, one is handed out.
    auto const other = StreamPair();
    auto t = Adopt(other.first, 9);
    ASSERT_EQ(1, WriteRaw(other.second, "z", 1));
    ExpectNothing();  // epoll learns that both can be read
    unsigned char in2[8];
    ASSERT_EQ(0u, s->ResetReadIOStatus());
    ASSERT_EQ(0, s->Recv(in, sizeof in, &err));
    ASSERT_EQ(0, t->Recv(in2, sizeof in2, &err));
    ZNRCompletion first{};
    int count = 0;
    ASSERT_EQ(0u, engine_->Wait(5000, &first, 1, &count));
    ASSERT_EQ(1, count);
    ZNRAsyncIO* const left = first.key == 8u ? static_cast<ZNRAsyncIO*>(t.get()) : s.get();
    EXPECT_EQ(1, engine_->Cancel(left));
    ZNRCompletion const c = Next();
    EXPECT_NE(first.key, c.key);
    EXPECT_FALSE(c.failed);
    EXPECT_EQ(1, c.bytes);
    for (RawSocket fd : {fds.second, other.second}) CloseRaw(fd);
}

TEST_F(AsyncIO, RegistrationsFollowDetachAndFailedRebind) {
    unsigned char buf[8];
    std::uint64_t err = 0;
    // Detached, a descriptor that stays open can be watched again at once.
    auto const fds = StreamPair();
    auto s = Adopt(fds.first, 1);
    s->Detach();
    s->SetIOFd(Handle(fds.first));
    ASSERT_EQ(0u, engine_->Associate(Handle(fds.first), 2, s.get()));
    ASSERT_EQ(0, s->Recv(buf, 4, &err));
    ASSERT_EQ(2, WriteRaw(fds.second, "hi", 2));
    ZNRCompletion c = Next();
    EXPECT_EQ(std::make_pair(2u, 2), std::make_pair(c.key, c.bytes));
#if defined(__linux__)
    // Closed before it was detached while a duplicate keeps it open, a
    // descriptor stays registered: its edges must not reach the next one in
    // its slot, here a FIFO that has had no writer yet and reads as ended.
    auto const old = StreamPair();
    ZNRAsyncIOWin32 gone;
    gone.SetIOFd(old.first);
    ASSERT_EQ(0u, engine_->Associate(old.first, 3, &gone));
    int const dup = ::dup(old.first);
    ::close(old.first);
    gone.Detach();
    std::string const fifo = "/tmp/plexa-test-fifo-" + std::to_string(::getpid());
    ::unlink(fifo.c_str());
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    ZNRUnknownDeviceParam param;
    param.fd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    auto reader = MakeDevice<ZNRAsyncUnknownDevice>();
    ASSERT_TRUE(reader->Open(&param));
    Watch(reader.get(), reader.get(), 4);
    ASSERT_EQ(0, reader->Read(buf, sizeof buf));
    ASSERT_EQ(1, WriteRaw(old.second, "x", 1));
    ExpectNothing();
    int const writer = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ::unlink(fifo.c_str());
    ASSERT_EQ(1, WriteRaw(writer, "y", 1));
    c = Next();
    EXPECT_EQ(std::make_pair(4u, 1), std::make_pair(c.key, c.bytes));
    for (int fd : {dup, old.second, writer}) ::close(fd);

    // A rebind the system refuses leaves the old descriptor watched and
    // named: detaching it later must not unwatch the descriptor that took
    // the refused one's number. Only epoll refuses one (a regular file).
    if (std::string(engine_->GetName()) != "epoll") {
        CloseRaw(fds.second);
        return;
    }
    int const file = ::memfd_create("plexa-test", MFD_CLOEXEC);
    ASSERT_GE(file, 0);
    ASSERT_EQ(ZNRSysError(EPERM), s->GetReadIOCB()->SwitchFd(file));
    EXPECT_EQ(std::make_pair(fds.first, fds.first),
              std::make_pair(s->GetReadIOCB()->fd, s->GetWriteIOCB()->fd));
    ASSERT_EQ(0u, s->ResetReadIOStatus());
    ASSERT_EQ(0, s->Recv(buf, 4, &err));
    ASSERT_EQ(2, WriteRaw(fds.second, "ok", 2));
    c = Next();
    EXPECT_EQ(std::make_pair(2u, 2), std::make_pair(c.key, c.bytes));
    auto const taker = StreamPair();
    ASSERT_EQ(file, taker.first);
    auto u = Adopt(taker.first, 5);
    ASSERT_EQ(0, u->Recv(buf, 4, &err));
    s.reset();
    ASSERT_EQ(2, WriteRaw(taker.second, "up", 2));
    c = Next();
    EXPECT_EQ(std::make_pair(5u, 2), std::make_pair(c.key, c.bytes));
    for (int fd : {fds.second, taker.second}) ::close(fd);
#else
    CloseRaw(fds.second);
#endif
}

TEST_F(AsyncIO, UnwatchedDescriptorsAndIdleBlocks) {
    ZNRAsyncIOWin32 idle;
    int n = -1;
    EXPECT_EQ(kTimedOut, idle.CheckReadIOStatus(0, &n));
    EXPECT_EQ(kTimedOut, idle.CheckWriteIOStatus(-1, &n));  // nothing started: no hang

    // A pipe, or on Windows a socket, which it reads as a file too.
#if defined(_WIN32)
    RawSocket p[2];
    ASSERT_TRUE(nettest::StreamPair(p));
#else
    int p[2];
    ASSERT_EQ(0, ::pipe2(p, O_CLOEXEC));
#endif
    ZNRUnknownDeviceParam param;
    param.fd = Handle(p[0]);
    auto reader = MakeDevice<ZNRAsyncUnknownDevice>();
    ASSERT_TRUE(reader->Open(&param));
    unsigned char buf[8] = {};
    EXPECT_EQ(0, reader->Read(buf, sizeof buf));
    EXPECT_EQ(kTimedOut, reader->CheckReadIOStatus(0, &n));
    EXPECT_EQ(kTimedOut, reader->CheckReadIOStatus(10, &n));
    ASSERT_EQ(3, WriteRaw(p[1], "abc", 3));
    EXPECT_EQ(0u, reader->CheckReadIOStatus(-1, &n));
    EXPECT_EQ(3, n);
    EXPECT_EQ(ZNRAsyncIOCB::OP_NONE, reader->GetReadIOCB()->operation);

    // Finished before the engine watched it: the completion still comes.
    ASSERT_EQ(0u, reader->ResetReadIOStatus());
    ASSERT_EQ(1, WriteRaw(p[1], "z", 1));
    EXPECT_EQ(0, reader->Read(buf, sizeof buf));
    Watch(reader.get(), reader.get(), 4);
    ZNRCompletion const c = Next();
    EXPECT_EQ(4u, c.key);
    EXPECT_EQ(1, c.bytes);
    EXPECT_EQ('z', buf[0]);
    CloseRaw(p[1]);

    // An empty wait sleeps out its time: the part of a millisecond left
    // after a poll is not spent polling again with a zero wait.
    double const before = ThreadCpuMs();
    ZNRCompletion none{};
    for (int i = 0; i < 20; ++i) EXPECT_EQ(kTimedOut, WaitOne(2, &none));
    double const cpu_ms = ThreadCpuMs() - before;
    EXPECT_LT(cpu_ms, 10.0);  // a spin takes about half of the 40 ms
}

TEST_F(AsyncIO, BusyDescriptorDoesNotStarveOthers) {
    auto busy_fds = StreamPair();
    auto quiet_fds = StreamPair();
    auto busy = Adopt(busy_fds.first, 1);
    auto quiet = Adopt(quiet_fds.first, 2);
    std::string const flood(4096, 'x');
    ASSERT_EQ(4096, WriteRaw(busy_fds.second, flood.data(), flood.size()));
    unsigned char one = 0, other[8];
    std::uint64_t err = 0;
    ASSERT_EQ(0, quiet->Recv(other, sizeof other, &err));
    ASSERT_EQ(0, busy->Recv(&one, 1, &err));
    // Each one-byte read finishes at once and is posted again at once; the
    // quiet descriptor becomes ready only once that is under way.
    int turns = 0;
    for (; turns < 1000; ++turns) {
        ZNRCompletion const c = Next();
        if (c.key == 2) break;
        ASSERT_EQ(1, c.bytes);
        if (turns == 3) {
            ASSERT_EQ(1, WriteRaw(quiet_fds.second, "q", 1));
        }
        ASSERT_EQ(0u, busy->ResetReadIOStatus());
        ASSERT_EQ(0, busy->Recv(&one, 1, &err));
    }
    EXPECT_LT(turns, 200);
    CloseRaw(busy_fds.second);
    CloseRaw(quiet_fds.second);
}

namespace {

// Bytes that tell their offset and their stream apart.
std::string Pattern(std::size_t n, unsigned int seed) {
    std::string out(n, '\0');
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 31 + i / 253 + seed * 7);
    return out;
}

}  // namespace

// More readers with data than an engine has receive buffers at once, and a
// reader that stops reading while its peer goes on writing: every byte
// arrives once, in order, on the stream it was written to.
TEST_F(AsyncIO, ReceiveMemoryRunningOutAndALaggingReaderLoseNothing) {
    int const kStreams = 80;
    std::size_t const kEach = 40 << 10;
    std::vector<std::pair<RawSocket, RawSocket>> pairs;
    std::vector<std::unique_ptr<ZNRAsyncSocket>> sockets;
    std::vector<std::string> got(kStreams);
    std::vector<std::vector<unsigned char>> bufs(kStreams, std::vector<unsigned char>(64 << 10));
    std::uint64_t err = 0;
    for (int i = 0; i < kStreams; ++i) {
        pairs.push_back(StreamPair());
        std::string const data = Pattern(kEach, static_cast<unsigned int>(i));
        ASSERT_EQ(static_cast<long long>(kEach), WriteRaw(pairs.back().second, data.data(), kEach));
        sockets.push_back(Adopt(pairs.back().first, static_cast<std::uint32_t>(100 + i)));
        ASSERT_EQ(0, sockets.back()->Recv(bufs[i].data(), static_cast<int>(bufs[i].size()), &err));
    }
    for (std::size_t total = 0; total < kStreams * kEach;) {
        ZNRCompletion const c = Next();
        ASSERT_FALSE(c.failed) << c.error;
        ASSERT_GE(c.key, 100u);
        int const i = static_cast<int>(c.key - 100);
        ASSERT_GT(c.bytes, 0) << "stream " << i << " ended early";
        got[i].append(reinterpret_cast<char const*>(bufs[i].data()), static_cast<std::size_t>(c.bytes));
        total += static_cast<std::size_t>(c.bytes);
        ASSERT_EQ(0u, sockets[i]->ResetReadIOStatus());
        if (got[i].size() < kEach) {
            ASSERT_EQ(0, sockets[i]->Recv(bufs[i].data(), static_cast<int>(bufs[i].size()), &err));
        }
    }
    for (int i = 0; i < kStreams; ++i) {
        EXPECT_TRUE(got[i] == Pattern(kEach, static_cast<unsigned int>(i))) << "stream " << i;
    }
    for (auto const& p : pairs) CloseRaw(p.second);
    sockets.clear();

    // Its read done and not started again while four megabytes come.
    auto const fds = StreamPair();
    auto s = Adopt(fds.first, 7);
    unsigned char buf[65536];
    ASSERT_EQ(1, WriteRaw(fds.second, "a", 1));
    ASSERT_EQ(0, s->Recv(buf, sizeof buf, &err));
    EXPECT_EQ(1, Next().bytes);
    std::string const flood = Pattern(4 << 20, 99);
    std::thread writer([&] {
        for (std::size_t sent = 0; sent < flood.size();) {
            long long const n = WriteRaw(fds.second, flood.data() + sent, flood.size() - sent);
            ASSERT_GT(n, 0);
            sent += static_cast<std::size_t>(n);
        }
    });
    ExpectNothing(100);
    // Into the engine's memory where it lends: a backlog comes as one read
    // of what was asked, however the engine holds it.
    bool const lends = engine_->LendsReceives();
    std::string back;
    for (bool first = true; back.size() < flood.size(); first = false) {
        ASSERT_EQ(0u, s->ResetReadIOStatus());
        if (lends) {
            ASSERT_EQ(0u, ZNRCompletionBinding::Lend(s->GetReadIOCB(), sizeof buf));
        } else {
            ASSERT_EQ(0, s->Recv(buf, sizeof buf, &err));
        }
        ZNRCompletion const c = Next();
        ASSERT_GT(c.bytes, 0);
        if (first) {
            EXPECT_EQ(static_cast<int>(sizeof buf), c.bytes);
        }
        back.append(reinterpret_cast<char const*>(s->GetReadIOCB()->buf), static_cast<std::size_t>(c.bytes));
    }
    writer.join();
    EXPECT_TRUE(back == flood) << back.size();
    CloseRaw(fds.second);
}
