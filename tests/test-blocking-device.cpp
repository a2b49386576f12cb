#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "net-test-util.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <unistd.h>

using nettest::DevicePtr;
using nettest::MakeDevice;
using nettest::Str;

namespace {

ZNRNetAddrInfo V4(char const* ip, char const* port) {
    ZNRNetAddrInfo addr;
    EXPECT_EQ(0u, addr.Open(ZNRString(port), ZNRString(ip)));
    return addr;
}

ZNRNetAddrInfo V6Loopback() {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_addr = in6addr_loopback;
    ZNRNetAddrInfo addr(ZNRNetAddrInfo::TYPE_IPV6);
    EXPECT_EQ(0u, addr.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    return addr;
}

// A listening device on port 0; *port receives the port that the system chose.
DevicePtr<ZNRTcpDevice> OpenListener(ZNRNetAddrInfo const& local, bool v6, std::string* port,
                                     unsigned int recv_timeout = 0) {
    auto dev = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam param;
    param.local_addr = &local;
    param.ipv6 = v6;
    param.recv_timeout = recv_timeout;
    EXPECT_TRUE(dev->Open(&param)) << std::hex << dev->GetError();
    std::uint64_t err = 0;
    ZNRNetAddrInfo const* bound = dev->GetBindAddr(&err);
    EXPECT_NE(nullptr, bound) << std::hex << err;
    if (bound != nullptr) *port = Str(bound->GetPortStr());
    return dev;
}

void StreamDevices(bool v6) {
    ZNRNetAddrInfo const local = v6 ? V6Loopback() : V4("127.0.0.1", "0");
    std::string const ip = v6 ? "::1" : "127.0.0.1";
    std::string port;
    auto listener = OpenListener(local, v6, &port, 3000);
    EXPECT_EQ(ZNRDevice::TYPE_TCP_LISTEN, listener->GetType());
    EXPECT_EQ("tcp listen , listen ip=" + ip + " listen port=0", Str(listener->GetDescInfo()));
    EXPECT_FALSE(listener->IsClosed());
    EXPECT_EQ(nullptr, listener->GetRemoteAddr());
    // The learnt address is kept: asking again gives the same object.
    EXPECT_EQ(listener->GetBindAddr(nullptr), listener->GetBindAddr(nullptr));
    // Time-outs are for the accepted sockets, not the listener.
    unsigned int ms = 1;
    ASSERT_EQ(0u, listener->GetSocket()->GetRecvTimeout(&ms));
    EXPECT_EQ(0u, ms);

    ZNRNetAddrInfo remote;
    if (v6) {
        ZNRHostInfo host;
        ASSERT_EQ(0u, host.Open(ZNRString("::1"), ZNRString(port), true));
        remote = *host.GetAddrInfos()[0];
    } else {
        remote = V4("127.0.0.1", port.c_str());
    }
    auto client = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam cparam;
    cparam.remote_addr = &remote;
    cparam.ipv6 = v6;
    cparam.recv_timeout = 5000;
    ASSERT_TRUE(client->Open(&cparam));
    EXPECT_EQ(ZNRDevice::TYPE_TCP_CLIENT, client->GetType());
    EXPECT_EQ("tcp client , remote ip=" + ip + " remote port=" + port, Str(client->GetDescInfo()));
    ASSERT_EQ(0u, client->GetSocket()->GetRecvTimeout(&ms));
    EXPECT_EQ(5000u, ms);
    ASSERT_TRUE(client->Connect());
    std::uint64_t err = 0;
    ZNRNetAddrInfo const* client_local = client->GetBindAddr(&err);
    ASSERT_NE(nullptr, client_local);

    ASSERT_TRUE(nettest::WaitReadable(listener->GetFd()));
    auto accepted = MakeDevice<ZNRTcpDevice>();
    ASSERT_TRUE(listener->Accept(accepted.get())) << std::hex << listener->GetError();
    EXPECT_EQ(ZNRDevice::TYPE_TCP_ACCEPTED, accepted->GetType());
    EXPECT_EQ("Tcp accept client, remote ip=" + ip + " remote port=" + Str(client_local->GetPortStr()),
              Str(accepted->GetDescInfo()));
    ASSERT_NE(nullptr, accepted->GetRemoteAddr());
    EXPECT_EQ(ip, Str(accepted->GetRemoteAddr()->GetAddrStr()));
    ASSERT_EQ(0u, accepted->GetSocket()->GetRecvTimeout(&ms));
    EXPECT_EQ(3000u, ms);

    unsigned char const msg[] = {0, 1, 2, 0xFE, 0xFF, 'z'};
    unsigned char got[16] = {};
    EXPECT_EQ(6, client->Write(msg, 6));
    ASSERT_TRUE(nettest::WaitReadable(accepted->GetFd()));
    ASSERT_EQ(6, accepted->Read(got, sizeof(got)));
    EXPECT_EQ(0, std::memcmp(msg, got, 6));

    // Half-close by the client: end of stream on the other side, which may
    // still answer.
    ASSERT_TRUE(client->CloseWrite());
    ASSERT_TRUE(nettest::WaitReadable(accepted->GetFd()));
    EXPECT_EQ(-1, accepted->Read(got, sizeof(got)));
    EXPECT_EQ(0x8000000100000004ULL, accepted->GetError());
    EXPECT_TRUE(accepted->IsEof());
    EXPECT_EQ(1, accepted->Write(msg, 1));
    ASSERT_EQ(1, client->Read(got, sizeof(got)));

    EXPECT_TRUE(listener->Close());
    EXPECT_EQ(ZNRDevice::TYPE_CLOSED, listener->GetType());
    EXPECT_TRUE(listener->IsClosed());
    EXPECT_TRUE(listener->GetDescInfo().empty());
    EXPECT_EQ(nullptr, listener->GetSocket());
    EXPECT_EQ(-1, listener->GetFd());
    EXPECT_TRUE(listener->Close());
}

}  // namespace

TEST(TcpDevice, ListenConnectAcceptTransferIpv4) { StreamDevices(false); }

TEST(TcpDevice, ListenConnectAcceptTransferIpv6) {
    if (!nettest::HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    StreamDevices(true);
}

TEST(TcpDevice, EofFollowsTheStoredCode) {
    auto dev = MakeDevice<ZNRTcpDevice>();
    EXPECT_EQ(ZNRDevice::TYPE_CLOSED, dev->GetType());
    EXPECT_TRUE(dev->IsClosed());
    EXPECT_TRUE(dev->IsEof());
    EXPECT_TRUE(dev->GetDescInfo().empty());
    dev->SetError(ZNRSysError(ECONNRESET));
    EXPECT_FALSE(dev->IsEof());
    dev->SetError(0x8000000100000004ULL);
    EXPECT_TRUE(dev->IsEof());
    dev->SetError(0x4000000100000004ULL);
    EXPECT_FALSE(dev->IsEof());
    dev->SetError(0x8000000100000004ULL);
    dev->ClearError();
    EXPECT_TRUE(dev->IsEof());

    // Operations on a device that was never opened fail cleanly.
    unsigned char buf[4];
    EXPECT_EQ(-1, dev->Read(buf, 4));
    EXPECT_EQ(ZNRSysError(EBADF), dev->GetError());
    EXPECT_EQ(-1, dev->Write(buf, 4));
    EXPECT_FALSE(dev->Connect());
    EXPECT_FALSE(dev->CloseRead());
    std::uint64_t err = 0;
    EXPECT_EQ(nullptr, dev->GetBindAddr(&err));
    EXPECT_EQ(ZNRSysError(EBADF), err);
}

TEST(TcpDevice, ClientWithLocalAddressAndShutdownPeer) {
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    std::string port;
    auto listener = OpenListener(local, false, &port);
    ZNRNetAddrInfo const remote = V4("127.0.0.1", port.c_str());

    auto client = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam param;
    param.local_addr = &local;
    param.remote_addr = &remote;
    param.non_block = true;
    ASSERT_TRUE(client->Open(&param));
    EXPECT_EQ("tcp client , local ip=127.0.0.1 local port=0 remote ip=127.0.0.1 remote port=" + port,
              Str(client->GetDescInfo()));
    // Non-blocking: the connect is in progress (or already done) and counts as started.
    ASSERT_TRUE(client->Connect()) << std::hex << client->GetError();
    ASSERT_TRUE(nettest::WaitFor(client->GetFd(), POLLOUT));
    std::uint64_t pending = 0;
    ASSERT_EQ(0u, client->GetSocket()->GetError(&pending));
    EXPECT_EQ(0x4000000100000000ULL, pending);
    std::uint64_t err = 0;
    ZNRNetAddrInfo const* bound = client->GetBindAddr(&err);
    ASSERT_NE(nullptr, bound);
    EXPECT_NE("0", Str(bound->GetPortStr()));

    ASSERT_TRUE(nettest::WaitReadable(listener->GetFd()));
    auto accepted = MakeDevice<ZNRTcpDevice>();
    ASSERT_TRUE(listener->Accept(accepted.get()));
    EXPECT_EQ(Str(bound->GetPortStr()), Str(accepted->GetRemoteAddr()->GetPortStr()));


    // The accepted side closes: the client reads the end of the stream.
    unsigned char buf[8];
    accepted->Close();
    ASSERT_TRUE(nettest::WaitReadable(client->GetFd()));
    EXPECT_EQ(-1, client->Read(buf, sizeof(buf)));
    EXPECT_EQ(0x8000000100000004ULL, client->GetError());
    EXPECT_TRUE(client->IsEof());
    // Writing into the closed connection fails without SIGPIPE.
    int result = 0;
    for (int i = 0; i < 100 && result >= 0; ++i) result = client->Write(buf, sizeof(buf));
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(client->GetError() == EPIPE || client->GetError() == ECONNRESET)
        << client->GetError();
    EXPECT_FALSE(client->IsEof());
}

TEST(TcpDevice, OpenConnectAndAcceptFailures) {
    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    std::string port;
    auto listener = OpenListener(local, false, &port);
    ZNRNetAddrInfo const taken = V4("127.0.0.1", port.c_str());

    // The port is in use: Open fails, closes the device and keeps the code.
    auto second = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam param;
    param.local_addr = &taken;
    EXPECT_FALSE(second->Open(&param));
    EXPECT_EQ(ZNRSysError(EADDRINUSE), second->GetError());
    EXPECT_TRUE(second->IsClosed());
    EXPECT_EQ(ZNRDevice::TYPE_CLOSED, second->GetType());
    EXPECT_TRUE(second->GetDescInfo().empty());
    EXPECT_EQ(-1, second->GetFd());
    ZNRUdpDeviceParam wrong;
    EXPECT_FALSE(second->Open(&wrong));
    EXPECT_EQ(ZNRSysError(EINVAL), second->GetError());

    // A blocking connect to a port without a listener is refused.
    ZNRSocket bound_only;
    ASSERT_EQ(0u, bound_only.Open(ZNRSocket::TYPE_TCP_V4));
    ASSERT_EQ(0u, bound_only.Bind(&local));
    ZNRNetAddrInfo dead;
    ASSERT_EQ(0u, bound_only.GetLocalInfo(&dead));
    auto refused = MakeDevice<ZNRTcpDevice>();
    ZNRTcpDeviceParam rparam;
    rparam.remote_addr = &dead;
    ASSERT_TRUE(refused->Open(&rparam));
    EXPECT_FALSE(refused->Connect());
    EXPECT_EQ(ZNRSysError(ECONNREFUSED), refused->GetError());

    // Nothing pending on a non-blocking listener: the error stays on the
    // listener, the client gets no address and stays closed.
    ASSERT_EQ(0u, listener->GetSocket()->NonBlock(true));
    auto client = MakeDevice<ZNRTcpDevice>();
    EXPECT_FALSE(listener->Accept(client.get()));
    EXPECT_EQ(ZNRSysError(EAGAIN), listener->GetError());
    EXPECT_EQ(0u, client->GetError());
    EXPECT_EQ(nullptr, client->GetRemoteAddr());
    EXPECT_TRUE(client->IsClosed());
    EXPECT_EQ(ZNRDevice::TYPE_CLOSED, client->GetType());
    auto fake = MakeDevice<ZNRFakeDevice>();
    EXPECT_FALSE(listener->Accept(fake.get()));
    EXPECT_EQ(ZNRSysError(EINVAL), listener->GetError());
}

TEST(UdpDevice, DescriptionsDatagramsAndPeers) {
    auto bare = MakeDevice<ZNRUdpDevice>();
    EXPECT_EQ(ZNRDevice::TYPE_UDP, bare->GetType());
    EXPECT_TRUE(bare->IsClosed());
    ZNRUdpDeviceParam bare_param;
    ASSERT_TRUE(bare->Open(&bare_param));
    EXPECT_EQ("udp ", Str(bare->GetDescInfo()));
    EXPECT_FALSE(bare->IsClosed());
    EXPECT_FALSE(bare->IsEof());

    // Without a destination nothing is sent.
    unsigned char const msg[] = {'d', 'g', 0, 'm'};
    EXPECT_EQ(-1, bare->Write(msg, 4));
    EXPECT_EQ(0x8000000100000006ULL, bare->GetError());

    ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
    ZNRUdpDeviceParam param;
    param.local_addr = &local;
    param.recv_timeout = 5000;
    auto a = MakeDevice<ZNRUdpDevice>();
    auto b = MakeDevice<ZNRUdpDevice>();
    ASSERT_TRUE(a->Open(&param));
    ASSERT_TRUE(b->Open(&param));
    EXPECT_EQ("udp  , local ip=127.0.0.1 local port=0", Str(a->GetDescInfo()));
    std::uint64_t err = 0;
    ZNRNetAddrInfo const b_addr = *b->GetBindAddr(&err);
    ZNRNetAddrInfo const a_addr = *a->GetBindAddr(&err);
    EXPECT_NE("0", Str(a_addr.GetPortStr()));

    // Setting the destination also prepares the receive peer.
    EXPECT_EQ(nullptr, a->GetLastSendPeerAddr());
    EXPECT_EQ(nullptr, a->GetLastRecvPeerAddr());
    a->SetNextSendPeerAddr(&b_addr);
    ASSERT_NE(nullptr, a->GetLastSendPeerAddr());
    EXPECT_NE(&b_addr, a->GetLastSendPeerAddr());
    EXPECT_NE(nullptr, a->GetLastRecvPeerAddr());
    EXPECT_EQ(4, a->Write(msg, 4));

    // The datagram's length is left in the error slot; Read gives -1.
    unsigned char got[16] = {};
    EXPECT_EQ(-1, b->Read(got, sizeof(got)));
    EXPECT_EQ(4u, b->GetError());
    EXPECT_EQ(0, std::memcmp(msg, got, 4));
    ASSERT_NE(nullptr, b->GetLastRecvPeerAddr());
    EXPECT_EQ("127.0.0.1", Str(b->GetLastRecvPeerAddr()->GetAddrStr()));
    EXPECT_EQ(Str(a_addr.GetPortStr()), Str(b->GetLastRecvPeerAddr()->GetPortStr()));

    // Answer the sender.
    b->SetNextSendPeerAddr(b->GetLastRecvPeerAddr());
    unsigned char const reply[] = {'r', 'e'};
    EXPECT_EQ(2, b->Write(reply, 2));
    EXPECT_EQ(-1, a->Read(got, sizeof(got)));
    EXPECT_EQ(2u, a->GetError());
    EXPECT_EQ(0, std::memcmp(reply, got, 2));

    // A failed receive leaves -1, sign-extended.
    ZNRUdpDeviceParam nb;
    nb.non_block = true;
    auto c = MakeDevice<ZNRUdpDevice>();
    ASSERT_TRUE(c->Open(&nb));
    EXPECT_EQ(-1, c->Read(got, -5));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, c->GetError());
    // Nothing waiting: the receive gave 0.
    EXPECT_EQ(-1, c->Read(got, sizeof(got)));
    EXPECT_EQ(0u, c->GetError());

    // Forgetting the destination stops writes again.
    a->SetNextSendPeerAddr(nullptr);
    EXPECT_EQ(-1, a->Write(msg, 4));
    EXPECT_EQ(0x8000000100000006ULL, a->GetError());

    EXPECT_TRUE(b->Close());
    EXPECT_EQ(ZNRDevice::TYPE_UDP, b->GetType());
    EXPECT_TRUE(b->IsClosed());
    EXPECT_TRUE(b->GetDescInfo().empty());
    EXPECT_EQ(nullptr, b->GetLastRecvPeerAddr());
    EXPECT_EQ(nullptr, b->GetLastSendPeerAddr());
    EXPECT_EQ(-1, b->GetFd());
}

TEST(UnknownDevice, AdoptsADescriptor) {
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    auto reader = MakeDevice<ZNRUnknownDevice>();
    auto writer = MakeDevice<ZNRUnknownDevice>();
    EXPECT_EQ("Unknown device", Str(reader->GetDescInfo()));
    EXPECT_EQ(ZNRDevice::TYPE_UNKNOWN, reader->GetType());
    EXPECT_EQ(-1, reader->GetFd());
    ZNRUnknownDeviceParam rp;
    rp.fd = fds[0];
    ZNRUnknownDeviceParam wp;
    wp.fd = fds[1];
    ASSERT_TRUE(reader->Open(&rp));
    ASSERT_TRUE(writer->Open(&wp));
    EXPECT_EQ(fds[0], reader->GetFd());
    EXPECT_FALSE(reader->IsClosed());
    EXPECT_FALSE(reader->IsEof());

    unsigned char const msg[] = {'a', 0, 'b'};
    EXPECT_EQ(3, writer->Write(msg, 3));
    unsigned char got[8] = {};
    ASSERT_EQ(3, reader->Read(got, sizeof(got)));
    EXPECT_EQ(0, std::memcmp(msg, got, 3));

    EXPECT_FALSE(reader->CloseRead());
    EXPECT_EQ(0x8000000100000025ULL, reader->GetError());

    // The writer goes: end of data, and eof stays whatever is stored later.
    EXPECT_TRUE(writer->Close());
    EXPECT_TRUE(writer->IsClosed());
    EXPECT_EQ(-1, ::fcntl(fds[1], F_GETFD));
    EXPECT_TRUE(writer->Close());
    EXPECT_EQ(-1, reader->Read(got, sizeof(got)));
    EXPECT_EQ(0x8000000100000004ULL, reader->GetError());
    EXPECT_TRUE(reader->IsEof());
    reader->SetError(ZNRSysError(EIO));
    EXPECT_TRUE(reader->IsEof());

    // Writing into a pipe without reader fails with EPIPE, no SIGPIPE.
    int fds2[2];
    ASSERT_EQ(0, ::pipe(fds2));
    ::close(fds2[0]);
    auto orphan = MakeDevice<ZNRUnknownDevice>();
    ZNRUnknownDeviceParam op;
    op.fd = fds2[1];
    ASSERT_TRUE(orphan->Open(&op));
    EXPECT_EQ(-1, orphan->Write(msg, 3));
    EXPECT_EQ(ZNRSysError(EPIPE), orphan->GetError());
    EXPECT_FALSE(orphan->IsEof());
}

TEST(FakeDevice, ZeroReadsDiscardedWritesNeverClosed) {
    auto fake = MakeDevice<ZNRFakeDevice>();
    EXPECT_EQ(ZNRDevice::TYPE_FAKE, fake->GetType());
    EXPECT_EQ("Fake device", Str(fake->GetDescInfo()));
    ZNRFakeDeviceParam param;
    EXPECT_TRUE(fake->Open(&param));
    unsigned char buf[8];
    std::memset(buf, 0xAA, sizeof(buf));
    EXPECT_EQ(5, fake->Read(buf, 5));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(0, buf[i]) << i;
    EXPECT_EQ(0xAA, buf[5]);
    EXPECT_EQ(7, fake->Write(buf, 7));
    EXPECT_EQ(-1, fake->GetFd());
    EXPECT_FALSE(fake->CloseRead());
    EXPECT_EQ(0x8000000100000025ULL, fake->GetError());
    EXPECT_TRUE(fake->Close());
    EXPECT_FALSE(fake->IsClosed());
    EXPECT_FALSE(fake->IsEof());
    EXPECT_EQ("Fake device", Str(fake->GetDescInfo()));
}

TEST(Pipe, PairTransfersAndEnds) {
    ZNRPipe pipe;
    EXPECT_EQ(-1, pipe.GetReadFd());
    EXPECT_EQ(-1, pipe.GetWriteFd());
    ASSERT_EQ(0u, pipe.Open());
    ASSERT_GE(pipe.GetReadFd(), 0);
    ASSERT_GE(pipe.GetWriteFd(), 0);
    // Child processes inherit both ends.
    EXPECT_EQ(0, ::fcntl(pipe.GetReadFd(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, ::fcntl(pipe.GetWriteFd(), F_GETFD) & FD_CLOEXEC);

    std::uint64_t err = 0;
    unsigned char const msg[] = {1, 0, 255};
    EXPECT_EQ(3, pipe.Write(msg, 3, &err));
    unsigned char got[8] = {};
    ASSERT_EQ(3, pipe.Read(got, sizeof(got), &err));
    EXPECT_EQ(0, std::memcmp(msg, got, 3));

    ASSERT_EQ(0u, pipe.CloseWrite());
    EXPECT_EQ(-1, pipe.GetWriteFd());
    EXPECT_EQ(ZNRSysError(EBADF), pipe.CloseWrite());
    EXPECT_EQ(-1, pipe.Read(got, sizeof(got), &err));
    EXPECT_EQ(0x8000000100000004ULL, err);

    // Adopted ends; a write without reader fails with the bare EPIPE and
    // the destructor closes what is left.
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    {
        ZNRPipe adopted(fds[0], fds[1]);
        ASSERT_EQ(0u, adopted.CloseRead());
        EXPECT_EQ(-1, adopted.Write(msg, 3, &err));
        EXPECT_EQ(static_cast<std::uint64_t>(EPIPE), err);
        }
    EXPECT_EQ(-1, ::fcntl(fds[1], F_GETFD));
}
