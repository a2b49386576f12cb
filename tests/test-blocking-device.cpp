#include "net-test-util.h"

#include <cerrno>

using namespace nettest;

namespace {

std::uint64_t const kEndOfStream = 0x8000000100000004ULL;
std::uint64_t const kNoDestination = 0x8000000100000006ULL;
std::uint64_t const kNotSupported = 0x8000000100000025ULL;
// A send once this side has shut its sending down.
#if defined(_WIN32)
std::uint64_t const kErrSendShut[] = {WSAESHUTDOWN, WSAECONNRESET};
#else
std::uint64_t const kErrSendShut[] = {EPIPE, ECONNRESET};
#endif

DevicePtr<ZNRTcpDevice> OpenTcp(ZNRNetAddrInfo const* local, ZNRNetAddrInfo const* remote, bool v6 = false,
                                unsigned int recv_timeout = 0, bool non_block = false) {
    auto dev = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam p;
    p.local_addr = local, p.remote_addr = remote, p.ipv6 = v6, p.recv_timeout = recv_timeout;
    p.non_block = non_block;
    EXPECT_TRUE(dev->Open(&p)) << std::hex << dev->GetError();
    return dev;
}

unsigned int RecvTimeout(ZNRTcpDevice* d) {
    unsigned int ms = 1;
    EXPECT_EQ(0u, d->GetSocket()->GetRecvTimeout(&ms));
    return ms;
}

// Type, open or closed, eof, descriptor and description in one text.
std::string State(ZNRDevice* d) {
    static char const* const kTypes[] = {"closed", "listen", "accepted", "client", "udp", "pipe",
                                         "?", "pipe-server", "pipe-client", "fake", "unknown"};
    return std::string("type=") + kTypes[d->GetType()] + (d->IsClosed() ? " closed" : " open") +
           (d->IsEof() ? " eof" : "") + (!ZNRIsHandle(d->GetFd()) ? " nofd '" : " fd '") + Str(d->GetDescInfo()) + "'";
}

// An anonymous pipe made with the system's call.
bool RawPipe(ZNRNativeHandle fds[2]) {
#if defined(_WIN32)
    return ::CreatePipe(&fds[0], &fds[1], nullptr, 0) != 0;
#else
    return ::pipe(fds) == 0;
#endif
}

void CloseHandleRaw(ZNRNativeHandle h) {
#if defined(_WIN32)
    ::CloseHandle(h);
#else
    ::close(h);
#endif
}

// Non-blocking listener and client with local addresses, through a whole connection life.
void StreamDevices(bool v6) {
    ZNRNetAddrInfo const local = v6 ? V6Loopback() : V4("127.0.0.1", "0");
    std::string const ip = v6 ? "::1" : "127.0.0.1";
    auto listener = OpenTcp(&local, nullptr, v6, 3000, true);
    EXPECT_EQ("type=listen open fd 'tcp listen , listen ip=" + ip + " listen port=0'", State(listener.get()));
    // The learnt address is kept: asking again gives the same object.
    ZNRNetAddrInfo const* bound = listener->GetBindAddr(nullptr);
    ASSERT_NE(nullptr, bound);
    EXPECT_EQ(bound, listener->GetBindAddr(nullptr));
    std::string const port = Str(bound->GetPortStr());
    // Time-outs are for the accepted sockets, not the listener.
    EXPECT_EQ(0u, RecvTimeout(listener.get()));

    ZNRNetAddrInfo const remote = v6 ? V6Loopback(std::stoi(port)) : V4("127.0.0.1", port);
    auto client = OpenTcp(&local, &remote, v6, 5000, true);
    EXPECT_EQ("type=client open fd 'tcp client , local ip=" + ip + " local port=0 remote ip=" + ip +
                  " remote port=" + port + "'",
              State(client.get()));
    EXPECT_EQ(5000u, RecvTimeout(client.get()));
    // The connect is in progress (or already done) and counts as started.
    ASSERT_TRUE(client->Connect()) << std::hex << client->GetError();
    ASSERT_TRUE(WaitFor(client->GetFd(), POLLOUT));
    // The ephemeral port 0 is replaced by the one the system chose.
    ZNRNetAddrInfo const* client_local = client->GetBindAddr(nullptr);
    ASSERT_NE(nullptr, client_local);
    EXPECT_NE("0", Str(client_local->GetPortStr()));

    auto accepted = MakeDevice<ZNRTcpDevice>();
    ASSERT_TRUE(WaitFor(listener->GetFd()));
    ASSERT_TRUE(listener->Accept(accepted.get())) << std::hex << listener->GetError();
    EXPECT_EQ("type=accepted open fd 'Tcp accept client, remote ip=" + ip + " remote port=" +
                  Str(client_local->GetPortStr()) + "'",
              State(accepted.get()));
    EXPECT_EQ(3000u, RecvTimeout(accepted.get()));
    EXPECT_EQ(v6 ? ZNRSocket::TYPE_TCP_V6 : ZNRSocket::TYPE_TCP_V4, accepted->GetSocket()->GetType());
    // Non-blocking like the listener (Winsock cannot be asked), and not inherited.
#if !defined(_WIN32)
    EXPECT_NE(0, ::fcntl(accepted->GetFd(), F_GETFL) & O_NONBLOCK);
#endif
    EXPECT_FALSE(IsInherited(accepted->GetFd()));
    // Nothing pending: the error stays on the listener; the target stays closed.
    auto none = MakeDevice<ZNRTcpDevice>();
    EXPECT_FALSE(listener->Accept(none.get()));
    EXPECT_EQ(ZNRSysError(kErrWouldBlock), listener->GetError());
    EXPECT_EQ(0u, none->GetError());
    EXPECT_EQ(nullptr, none->GetRemoteAddr());
    EXPECT_EQ("type=closed closed eof nofd ''", State(none.get()));

    // Nothing to read yet: 0, not an error.
    unsigned char got[16] = {};
    EXPECT_EQ(0, accepted->Read(got, sizeof(got)));
    EXPECT_EQ(0u, accepted->GetError());
    std::string const msg("\0\1\2\xFE\xFFz", 6);
    EXPECT_EQ(6, client->Write(U(msg), 6));
    ASSERT_TRUE(WaitFor(accepted->GetFd()));
    ASSERT_EQ(6, accepted->Read(got, sizeof(got)));
    EXPECT_EQ(msg, Bytes(got, 6));

    // Client half-close: end of stream on the other side, which may still answer.
    ASSERT_TRUE(client->CloseWrite());
    ASSERT_TRUE(WaitFor(accepted->GetFd()));
    EXPECT_EQ(-1, accepted->Read(got, sizeof(got)));
    EXPECT_EQ(kEndOfStream, accepted->GetError());
    EXPECT_TRUE(accepted->IsEof());
    EXPECT_EQ(1, accepted->Write(U(msg), 1));
    ASSERT_TRUE(WaitFor(client->GetFd()));
    ASSERT_EQ(1, client->Read(got, sizeof(got)));

    // Accepted side closes: the client reads eof; writing then fails (no SIGPIPE), no eof.
    EXPECT_TRUE(accepted->Close());
    ASSERT_TRUE(WaitFor(client->GetFd()));
    EXPECT_EQ(-1, client->Read(got, sizeof(got)));
    EXPECT_EQ(kEndOfStream, client->GetError());
    EXPECT_TRUE(client->IsEof());
    int result = 0;
    for (int i = 0; i < 100 && result >= 0; ++i) result = client->Write(got, sizeof(got));
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(client->GetError() == kErrSendShut[0] || client->GetError() == kErrSendShut[1]) << client->GetError();
    EXPECT_FALSE(client->IsEof());

    EXPECT_TRUE(listener->Close());
    EXPECT_EQ("type=closed closed eof nofd ''", State(listener.get()));
    EXPECT_EQ(nullptr, listener->GetSocket());
    EXPECT_TRUE(listener->Close());  // twice is fine
}

}  // namespace

TEST(TcpDevice, ConnectionLifeIpv4) { StreamDevices(false); }

TEST(TcpDevice, ConnectionLifeIpv6) {
    if (!HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    StreamDevices(true);
}

TEST(TcpDevice, UnopenedDeviceAndEofFlag) {
    auto dev = MakeDevice<ZNRTcpDevice>();
    EXPECT_EQ("type=closed closed eof nofd ''", State(dev.get()));
    unsigned char buf[4];
    EXPECT_EQ(-1, dev->Read(buf, 4));
    EXPECT_EQ(ZNRSysError(EBADF), dev->GetError());
    EXPECT_EQ(-1, dev->Write(buf, 4));
    EXPECT_FALSE(dev->Connect());
    EXPECT_FALSE(dev->CloseRead());
    std::uint64_t err = 0;
    EXPECT_EQ(nullptr, dev->GetBindAddr(&err));
    EXPECT_EQ(ZNRSysError(EBADF), err);

    // Only the exact end-of-stream code means eof; clearing keeps the flag.
    struct Row { std::uint64_t code; bool eof; };
    for (Row r : {Row{ZNRSysError(ECONNRESET), false}, Row{kEndOfStream, true}, Row{0x4000000100000004ULL, false}}) {
        dev->SetError(r.code);
        EXPECT_EQ(r.eof, dev->IsEof()) << std::hex << r.code;
    }
    dev->SetError(kEndOfStream);
    dev->ClearError();
    EXPECT_TRUE(dev->IsEof());
}

TEST(TcpDevice, OpenConnectAndAcceptFailures) {
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    auto listener = OpenTcp(&local, nullptr);
    ZNRNetAddrInfo const taken = *listener->GetBindAddr(nullptr);

    // The port is in use: Open fails, closes the device and keeps the code.
    // (Windows lets listeners that reuse addresses share a port.)
    auto dev = MakeDevice<ZNRTcpDevice>();
#if !defined(_WIN32)
    ZNRTcpDeviceParam param;
    param.local_addr = &taken;
    EXPECT_FALSE(dev->Open(&param));
    EXPECT_EQ(ZNRSysError(EADDRINUSE), dev->GetError());
    EXPECT_EQ("type=closed closed nofd ''", State(dev.get()));
#endif
    ZNRUdpDeviceParam wrong;
    EXPECT_FALSE(dev->Open(&wrong));
    EXPECT_EQ(ZNRSysError(EINVAL), dev->GetError());
    EXPECT_FALSE(listener->Accept(MakeDevice<ZNRFakeDevice>().get()));
    EXPECT_EQ(ZNRSysError(EINVAL), listener->GetError());

    // A blocking connect to a port without a listener is refused.
    ZNRSocket bound_only;  // bound, never listening
    ZNRNetAddrInfo dead;
    ASSERT_EQ(0u, bound_only.Open(ZNRSocket::TYPE_TCP_V4));
    ASSERT_EQ(0u, bound_only.Bind(&local));
    ASSERT_EQ(0u, bound_only.GetLocalInfo(&dead));
    auto refused = OpenTcp(nullptr, &dead);
    EXPECT_EQ("tcp client , remote ip=127.0.0.1 remote port=" + Str(dead.GetPortStr()), Str(refused->GetDescInfo()));
    EXPECT_FALSE(refused->Connect());
    EXPECT_EQ(ZNRSysError(kErrRefused), refused->GetError());
#if defined(_WIN32)
    // Winsock's "would block" for a connect under way comes as 10036,
    // which the device counts as started.
    ZNRNetAddrInfo const remote = V4("127.0.0.1", Str(taken.GetPortStr()));
    auto pending = OpenTcp(nullptr, &remote, false, 0, true);
    EXPECT_EQ(0x4000000100002734ULL, pending->GetSocket()->Connect(&remote));
    auto started = OpenTcp(nullptr, &remote, false, 0, true);
    EXPECT_TRUE(started->Connect());
    EXPECT_EQ(0u, started->GetError());
#endif
}

TEST(UdpDevice, DescriptionsDatagramsAndPeers) {
    auto a = MakeDevice<ZNRUdpDevice>();
    auto b = MakeDevice<ZNRUdpDevice>();
    EXPECT_EQ("type=udp closed eof nofd ''", State(a.get()));
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    ZNRUdpDeviceParam pa, pb;
    pa.non_block = true, pb.local_addr = &local, pb.recv_timeout = 5000;
    ASSERT_TRUE(a->Open(&pa));
    ASSERT_TRUE(b->Open(&pb));
    EXPECT_EQ("type=udp open fd 'udp '", State(a.get()));
    EXPECT_EQ("udp  , local ip=127.0.0.1 local port=0", Str(b->GetDescInfo()));

    // Any destination call prepares the receive peer; without a destination nothing is sent.
    std::string const msg("dg\0m", 4);
    EXPECT_EQ(nullptr, a->GetLastRecvPeerAddr());
    a->SetNextSendPeerAddr(nullptr);
    EXPECT_NE(nullptr, a->GetLastRecvPeerAddr());
    EXPECT_EQ(-1, a->Write(U(msg), 4));
    EXPECT_EQ(kNoDestination, a->GetError());
    // Read always gives -1, the receive's result in the error slot: -1 sign-extended, 0 when empty.
    unsigned char got[16] = {};
    EXPECT_EQ(-1, a->Read(got, -5));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, a->GetError());
    EXPECT_EQ(-1, a->Read(got, sizeof(got)));
    EXPECT_EQ(0u, a->GetError());

    // The datagram's length is left in the error slot.
    ZNRNetAddrInfo const b_addr = *b->GetBindAddr(nullptr);
    EXPECT_NE("0", Str(b_addr.GetPortStr()));
    a->SetNextSendPeerAddr(&b_addr);
    EXPECT_EQ(4, a->Write(U(msg), 4));
    EXPECT_EQ(-1, b->Read(got, sizeof(got)));
    EXPECT_EQ(4u, b->GetError());
    EXPECT_EQ(msg, Bytes(got, 4));
    ASSERT_NE(nullptr, b->GetLastRecvPeerAddr());
    EXPECT_EQ("127.0.0.1 " + Str(a->GetBindAddr(nullptr)->GetPortStr()), Text(*b->GetLastRecvPeerAddr()));
    // Answer the sender.
    b->SetNextSendPeerAddr(b->GetLastRecvPeerAddr());
    EXPECT_EQ(2, b->Write(U("re"), 2));
    ASSERT_TRUE(WaitFor(a->GetFd()));
    EXPECT_EQ(-1, a->Read(got, sizeof(got)));
    EXPECT_EQ(2u, a->GetError());
    EXPECT_EQ("re", Bytes(got, 2));
    // Forgetting the destination stops writes again.
    a->SetNextSendPeerAddr(nullptr);
    EXPECT_EQ(-1, a->Write(U(msg), 4));
    EXPECT_EQ(kNoDestination, a->GetError());

    EXPECT_TRUE(b->Close());
    EXPECT_EQ("type=udp closed eof nofd ''", State(b.get()));
    EXPECT_EQ(nullptr, b->GetLastRecvPeerAddr());
    EXPECT_EQ(nullptr, b->GetLastSendPeerAddr());
}

TEST(UnknownDevice, AdoptsADescriptor) {
    ZNRNativeHandle fds[2];
    ASSERT_TRUE(RawPipe(fds));
    auto reader = MakeDevice<ZNRUnknownDevice>();
    auto writer = MakeDevice<ZNRUnknownDevice>();
    EXPECT_EQ("type=unknown closed eof nofd 'Unknown device'", State(reader.get()));
    ZNRUnknownDeviceParam rp, wp;
    rp.fd = fds[0], wp.fd = fds[1];
    ASSERT_TRUE(reader->Open(&rp));
    ASSERT_TRUE(writer->Open(&wp));
    EXPECT_EQ(fds[0], reader->GetFd());
    EXPECT_EQ("type=unknown open fd 'Unknown device'", State(reader.get()));
    std::string const msg("a\0b", 3);
    EXPECT_EQ(3, writer->Write(U(msg), 3));
    unsigned char got[8] = {};
    ASSERT_EQ(3, reader->Read(got, sizeof(got)));
    EXPECT_EQ(msg, Bytes(got, 3));
    EXPECT_FALSE(reader->CloseRead());
    EXPECT_EQ(kNotSupported, reader->GetError());

    // The writer goes: end of data, and eof stays whatever is stored later.
    EXPECT_TRUE(writer->Close());
    EXPECT_EQ("type=unknown closed eof nofd 'Unknown device'", State(writer.get()));
    EXPECT_FALSE(IsOpenHandle(fds[1]));
    EXPECT_TRUE(writer->Close());  // twice is fine
    EXPECT_EQ(-1, reader->Read(got, sizeof(got)));
    EXPECT_EQ(kEndOfStream, reader->GetError());
    EXPECT_TRUE(reader->IsEof());
    reader->SetError(ZNRSysError(EIO));
    EXPECT_TRUE(reader->IsEof());

    // Writing into a pipe without reader fails with a broken pipe, no SIGPIPE.
    ASSERT_TRUE(RawPipe(fds));
    CloseHandleRaw(fds[0]);
    wp.fd = fds[1];
    ASSERT_TRUE(writer->Open(&wp));
    EXPECT_EQ(-1, writer->Write(U(msg), 3));
    EXPECT_EQ(ZNRSysError(kErrBrokenPipe), writer->GetError());
    EXPECT_FALSE(writer->IsEof());
}

TEST(FakeDevice, ZeroReadsDiscardedWritesNeverClosed) {
    auto fake = MakeDevice<ZNRFakeDevice>();
    ZNRFakeDeviceParam param;
    EXPECT_TRUE(fake->Open(&param));
    unsigned char buf[8] = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
    EXPECT_EQ(5, fake->Read(buf, 5));
    EXPECT_EQ(std::string("\0\0\0\0\0\xAA", 6), Bytes(buf, 6));
    EXPECT_EQ(7, fake->Write(buf, 7));
    EXPECT_FALSE(fake->CloseRead());
    EXPECT_EQ(kNotSupported, fake->GetError());
    EXPECT_TRUE(fake->Close());
    EXPECT_EQ("type=fake open nofd 'Fake device'", State(fake.get()));
}

TEST(Pipe, PairTransfersAndEnds) {
    ZNRPipe pipe;
    EXPECT_TRUE(pipe.GetReadFd() == ZNRNoHandle() && pipe.GetWriteFd() == ZNRNoHandle());
    ASSERT_EQ(0u, pipe.Open());
    // Child processes inherit both ends.
    for (ZNRNativeHandle fd : {pipe.GetReadFd(), pipe.GetWriteFd()}) {
        ASSERT_TRUE(ZNRIsHandle(fd));
        EXPECT_TRUE(IsInherited(fd));
    }
    std::uint64_t err = 0;
    std::string const msg("\1\0\xFF", 3);
    EXPECT_EQ(3, pipe.Write(U(msg), 3, &err));
    unsigned char got[8] = {};
    ASSERT_EQ(3, pipe.Read(got, sizeof(got), &err));
    EXPECT_EQ(msg, Bytes(got, 3));
    ASSERT_EQ(0u, pipe.CloseWrite());
    EXPECT_EQ(ZNRNoHandle(), pipe.GetWriteFd());
    EXPECT_EQ(ZNRSysError(EBADF), pipe.CloseWrite());
    EXPECT_EQ(-1, pipe.Read(got, sizeof(got), &err));
    EXPECT_EQ(kEndOfStream, err);

    // Adopted ends: a write without reader fails with a bare broken pipe; the destructor closes the rest.
    ZNRNativeHandle fds[2];
    ASSERT_TRUE(RawPipe(fds));
    {
        ZNRPipe adopted(fds[0], fds[1]);
        ASSERT_EQ(0u, adopted.CloseRead());
        EXPECT_EQ(-1, adopted.Write(U(msg), 3, &err));
        EXPECT_EQ(static_cast<std::uint64_t>(kErrBrokenPipe), err);
    }
    EXPECT_FALSE(IsOpenHandle(fds[1]));
}
