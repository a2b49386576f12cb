#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "net-test-util.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

using nettest::Str;

namespace {

ZNRNetAddrInfo V4(char const* ip, char const* port) {
    ZNRNetAddrInfo addr(ZNRNetAddrInfo::TYPE_IPV4);
    EXPECT_EQ(0u, addr.Open(ZNRString(port), ZNRString(ip)));
    return addr;
}

ZNRNetAddrInfo V6Loopback(unsigned short port) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(port);
    sin6.sin6_addr = in6addr_loopback;
    ZNRNetAddrInfo addr(ZNRNetAddrInfo::TYPE_IPV6);
    EXPECT_EQ(0u, addr.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    return addr;
}

ZNRSocket::Type_t TcpType(bool v6) { return v6 ? ZNRSocket::TYPE_TCP_V6 : ZNRSocket::TYPE_TCP_V4; }

// A listener on port 0 of the loopback address; *bound receives the port
// that the system chose.
void Listen(ZNRSocket* s, ZNRNetAddrInfo const& any_port, bool v6, ZNRNetAddrInfo* bound) {
    ASSERT_EQ(0u, s->Open(TcpType(v6)));
    ASSERT_EQ(0u, s->ReuseAddress(true));
    ASSERT_EQ(0u, s->Bind(&any_port));
    ASSERT_EQ(0u, s->Listen(5));
    ASSERT_EQ(0u, s->GetLocalInfo(bound));
    ASSERT_NE("0", Str(bound->GetPortStr()));
}

void StreamRoundTrip(bool v6) {
    ZNRNetAddrInfo const any_port = v6 ? V6Loopback(0) : V4("127.0.0.1", "0");
    char const* const host = v6 ? "::1" : "127.0.0.1";
    ZNRSocket listener;
    ZNRNetAddrInfo bound;
    Listen(&listener, any_port, v6, &bound);
    EXPECT_EQ(host, Str(bound.GetAddrStr()));

    ZNRSocket client;
    ASSERT_EQ(0u, client.Open(TcpType(v6)));
    ASSERT_EQ(0u, client.SetRecvTimeout(5000));
    ASSERT_EQ(0u, client.Connect(&bound));
    ZNRNetAddrInfo client_local;
    ASSERT_EQ(0u, client.GetLocalInfo(&client_local));

    ASSERT_TRUE(nettest::WaitReadable(listener.GetFd()));
    ZNRSocket accepted;
    ZNRNetAddrInfo peer;
    ASSERT_EQ(0u, listener.Accept(&accepted, &peer));
    EXPECT_EQ(TcpType(v6), accepted.GetType());
    EXPECT_EQ(host, Str(peer.GetAddrStr()));
    EXPECT_EQ(Str(client_local.GetPortStr()), Str(peer.GetPortStr()));
    EXPECT_EQ(v6 ? ZNRNetAddrInfo::TYPE_IPV6 : ZNRNetAddrInfo::TYPE_IPV4, peer.GetType());
    ASSERT_EQ(0u, accepted.SetRecvTimeout(5000));

    std::uint64_t err = 0;
    unsigned char const hello[] = {'h', 'e', 0, 'l', 0xFF};
    EXPECT_EQ(5, client.Send(hello, 5, &err));
    unsigned char got[16] = {};
    ASSERT_TRUE(nettest::WaitReadable(accepted.GetFd()));
    ASSERT_EQ(5, accepted.Recv(got, sizeof(got), &err));
    EXPECT_EQ(0, std::memcmp(hello, got, 5));
    EXPECT_EQ(3, accepted.Send(hello, 3, &err));
    ASSERT_EQ(3, client.Recv(got, 3, nullptr));
    EXPECT_EQ(0, std::memcmp(hello, got, 3));

    // Nothing pending on a non-blocking socket: 0, not an error.
    ASSERT_EQ(0u, accepted.NonBlock(true));
    err = 0;
    EXPECT_EQ(0, accepted.Recv(got, sizeof(got), &err));
    EXPECT_EQ(0u, err);
    ASSERT_EQ(0u, accepted.NonBlock(false));

    // Half-close: the peer sees the end of the stream.
    ASSERT_EQ(0u, client.CloseSend());
    ASSERT_TRUE(nettest::WaitReadable(accepted.GetFd()));
    EXPECT_EQ(-1, accepted.Recv(got, sizeof(got), &err));
    EXPECT_EQ(0x8000000100000004ULL, err);

    EXPECT_EQ(0u, accepted.Close());
    EXPECT_EQ(-1, accepted.GetFd());
    EXPECT_EQ(ZNRSysError(EBADF), accepted.Close());
}

}  // namespace

TEST(NetAddrInfo, ConstructionCopyAndAssignment) {
    ZNRNetAddrInfo v4(ZNRNetAddrInfo::TYPE_IPV4);
    ASSERT_EQ(16u, v4.GetAddrLen());
    EXPECT_EQ(AF_INET, v4.GetAddr()->sa_family);
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV4, v4.GetType());

    ZNRNetAddrInfo v6(ZNRNetAddrInfo::TYPE_IPV6);
    ASSERT_EQ(28u, v6.GetAddrLen());
    EXPECT_EQ(AF_INET6, v6.GetAddr()->sa_family);

    ZNRNetAddrInfo a = V4("10.1.2.3", "80");
    ZNRNetAddrInfo copy(a);
    EXPECT_NE(a.GetAddr(), copy.GetAddr());
    EXPECT_EQ(0, std::memcmp(a.GetAddr(), copy.GetAddr(), 16));
    ASSERT_EQ(0u, a.Open(ZNRString("81"), ZNRString("10.9.9.9")));
    EXPECT_EQ("10.1.2.3", Str(copy.GetAddrStr()));
    EXPECT_EQ("80", Str(copy.GetPortStr()));

    // Assigning an IPv6 address to an IPv4 object takes its length and type.
    ZNRNetAddrInfo target = V4("1.2.3.4", "5");
    ZNRNetAddrInfo const six = V6Loopback(443);
    target = six;
    EXPECT_EQ(28u, target.GetAddrLen());
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV6, target.GetType());
    EXPECT_EQ("::1", Str(target.GetAddrStr()));
    EXPECT_EQ(0, std::memcmp(six.GetAddr(), target.GetAddr(), 28));
}

TEST(NetAddrInfo, OpenFromTextsPortFirst) {
    ZNRNetAddrInfo a(ZNRNetAddrInfo::TYPE_IPV4);
    ASSERT_EQ(0u, a.Open(ZNRString("8080"), ZNRString("192.168.0.1")));
    EXPECT_EQ("192.168.0.1", Str(a.GetAddrStr()));
    EXPECT_EQ("8080", Str(a.GetPortStr()));
    EXPECT_EQ(16u, a.GetAddrLen());
    // Family, port in network order, address, then zeros.
    unsigned char const expected[8] = {0x1F, 0x90, 192, 168, 0, 1, 0, 0};
    EXPECT_EQ(AF_INET, a.GetAddr()->sa_family);
    EXPECT_EQ(0, std::memcmp(expected, reinterpret_cast<unsigned char const*>(a.GetAddr()) + 2, 8));

    // A bad port is refused with the bare errno value and changes nothing.
    EXPECT_EQ(static_cast<std::uint64_t>(EINVAL), a.Open(ZNRString("http"), ZNRString("1.1.1.1")));
    EXPECT_EQ(static_cast<std::uint64_t>(EINVAL), a.Open(ZNRString("65536"), ZNRString("1.1.1.1")));
    EXPECT_EQ("192.168.0.1", Str(a.GetAddrStr()));

    // An IPv6 object becomes an IPv4 address.
    ZNRNetAddrInfo six(ZNRNetAddrInfo::TYPE_IPV6);
    ASSERT_EQ(0u, six.Open(ZNRString("53"), ZNRString("127.0.0.1")));
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV4, six.GetType());
    EXPECT_EQ(16u, six.GetAddrLen());
    ASSERT_EQ(0u, six.Reopen());
    EXPECT_EQ("127.0.0.1", Str(six.GetAddrStr()));
    EXPECT_EQ("53", Str(six.GetPortStr()));

    // A text that is no address is taken as 255.255.255.255; recomputing the
    // texts from the binary form shows it.
    ZNRNetAddrInfo host(ZNRNetAddrInfo::TYPE_IPV4);
    ASSERT_EQ(0u, host.Open(ZNRString("7"), ZNRString("localhost")));
    EXPECT_EQ("localhost", Str(host.GetAddrStr()));
    ASSERT_EQ(0u, host.Open());
    EXPECT_EQ("255.255.255.255", Str(host.GetAddrStr()));
    EXPECT_EQ("7", Str(host.GetPortStr()));
}

TEST(NetAddrInfo, OpenFromBinaryAddresses) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(443);
    ASSERT_EQ(1, inet_pton(AF_INET6, "2001:db8::1:0:0:1", &sin6.sin6_addr));
    ZNRNetAddrInfo a(ZNRNetAddrInfo::TYPE_IPV4);
    ASSERT_EQ(0u, a.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV6, a.GetType());
    EXPECT_EQ("2001:db8::1:0:0:1", Str(a.GetAddrStr()));
    EXPECT_EQ("443", Str(a.GetPortStr()));
    EXPECT_EQ(28u, a.GetAddrLen());
    EXPECT_NE(static_cast<void const*>(&sin6), static_cast<void const*>(a.GetAddr()));
    EXPECT_EQ(0, std::memcmp(&sin6, a.GetAddr(), sizeof(sin6)));

    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = htons(1);
    ASSERT_EQ(1, inet_pton(AF_INET6, "::ffff:10.0.0.2", &mapped.sin6_addr));
    ZNRNetAddrInfo m(ZNRNetAddrInfo::TYPE_IPV6);
    ASSERT_EQ(0u, m.Open(reinterpret_cast<sockaddr*>(&mapped), sizeof(mapped)));
    EXPECT_EQ("::ffff:10.0.0.2", Str(m.GetAddrStr()));

    // A family that has no numeric text fails and keeps everything as it was.
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::uint64_t const rc = a.Open(reinterpret_cast<sockaddr*>(&un), sizeof(un));
    EXPECT_EQ(0x40000001u, rc >> 32);
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV6, a.GetType());
    EXPECT_EQ("2001:db8::1:0:0:1", Str(a.GetAddrStr()));
    EXPECT_EQ(28u, a.GetAddrLen());
    EXPECT_EQ(0, std::memcmp(&sin6, a.GetAddr(), sizeof(sin6)));
    EXPECT_NE(0u, a.Open(nullptr, 16));
}

TEST(NetAddrInfo, TextConversionsAndLocalAddrs) {
    unsigned int addr = 0;
    EXPECT_EQ(0u, ZNRNetAddrInfo::StrAddrToNet(ZNRString("localhost"), &addr));
    EXPECT_EQ(0xFFFFFFFFu, addr);
    EXPECT_EQ(0u, ZNRNetAddrInfo::StrAddrToNet(ZNRString("127.0.0.1"), &addr));
    EXPECT_EQ(htonl(0x7F000001u), addr);

    ZNRString text("old");
    ASSERT_EQ(0u, ZNRNetAddrInfo::NetAddrToStr(htonl(0xC0A80001u), &text));
    EXPECT_EQ("192.168.0.1", Str(text));

    // Interfaces are keyed by name; an existing entry is overwritten,
    // unrelated ones stay.
    std::map<ZNRString, unsigned int> addrs;
    addrs[ZNRString("lo")] = 1;
    addrs[ZNRString("not-an-interface")] = 2;
    ASSERT_EQ(0u, ZNRNetAddrInfo::GetLocalAddrs(&addrs));
    ASSERT_EQ(1u, addrs.count(ZNRString("lo")));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), addrs[ZNRString("lo")]);
    EXPECT_EQ(2u, addrs[ZNRString("not-an-interface")]);
    EXPECT_NE(0u, ZNRNetAddrInfo::GetLocalAddrs(nullptr));
}

TEST(HostInfo, LookupsPassiveAndFailures) {
    ZNRHostInfo info;
    ASSERT_EQ(0u, info.Open(ZNRString("localhost"), ZNRString("80"), false));
    EXPECT_EQ("localhost", Str(info.GetHost()));
    EXPECT_EQ("80", Str(info.GetService()));
    ASSERT_FALSE(info.GetAddrInfos().empty());
    std::set<std::string> seen;
    bool loopback = false;
    for (ZNRNetAddrInfo const* a : info.GetAddrInfos()) {
        EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV4, a->GetType());
        EXPECT_EQ("80", Str(a->GetPortStr()));
        EXPECT_TRUE(seen.insert(Str(a->GetAddrStr())).second) << "listed twice";
        loopback = loopback || Str(a->GetAddrStr()) == "127.0.0.1";
    }
    EXPECT_TRUE(loopback);

    // Copies are deep.
    ZNRHostInfo copy(info);
    ASSERT_EQ(info.GetAddrInfos().size(), copy.GetAddrInfos().size());
    EXPECT_NE(info.GetAddrInfos()[0], copy.GetAddrInfos()[0]);
    EXPECT_EQ(Str(info.GetAddrInfos()[0]->GetAddrStr()), Str(copy.GetAddrInfos()[0]->GetAddrStr()));

    // An empty host asks for the wildcard addresses.
    ZNRHostInfo passive;
    ASSERT_EQ(0u, passive.Open(ZNRString(""), ZNRString("8080"), false));
    ASSERT_EQ(1u, passive.GetAddrInfos().size());
    EXPECT_EQ("0.0.0.0", Str(passive.GetAddrInfos()[0]->GetAddrStr()));
    EXPECT_EQ("8080", Str(passive.GetAddrInfos()[0]->GetPortStr()));
    ASSERT_EQ(0u, passive.Open(ZNRString(""), ZNRString("9"), true));
    ASSERT_EQ(1u, passive.GetAddrInfos().size());
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV6, passive.GetAddrInfos()[0]->GetType());
    EXPECT_EQ("::", Str(passive.GetAddrInfos()[0]->GetAddrStr()));
    EXPECT_EQ("", Str(passive.GetHost()));

    // A failed lookup empties the list and keeps the previous names.
    copy = passive;
    EXPECT_EQ(0x40000001u, info.Open(ZNRString(""), ZNRString(""), false) >> 32);
    EXPECT_TRUE(info.GetAddrInfos().empty());
    EXPECT_EQ("localhost", Str(info.GetHost()));
    EXPECT_NE(0u, info.Open(ZNRString("127.0.0.1"), ZNRString("no-such-service-xyz"), false));
    EXPECT_TRUE(info.GetAddrInfos().empty());
    EXPECT_EQ(1u, copy.GetAddrInfos().size());
    EXPECT_EQ("::", Str(copy.GetAddrInfos()[0]->GetAddrStr()));
}

TEST(Socket, OpenTypesAndOptions) {
    ZNRSocket none;
    EXPECT_EQ(ZNRSocket::TYPE_NONE, none.GetType());
    EXPECT_EQ(-1, none.GetFd());
    EXPECT_EQ(0x8000000100000003ULL, none.Open(static_cast<ZNRSocket::Type_t>(5)));
    EXPECT_EQ(0x8000000100000003ULL, none.Open(ZNRSocket::TYPE_NONE));
    EXPECT_EQ(ZNRSocket::TYPE_NONE, none.GetType());
    EXPECT_EQ(-1, none.GetFd());
    ZNRNetAddrInfo addr;
    EXPECT_EQ(0x8000000100000003ULL, none.GetLocalInfo(&addr));
    unsigned char buf[4];
    std::uint64_t err = 0;
    EXPECT_EQ(-1, none.RecvFrom(buf, 4, &err, &addr));
    EXPECT_EQ(0x8000000100000003ULL, err);
    EXPECT_EQ(ZNRSysError(EBADF), none.Close());

    ZNRSocket s;
    ASSERT_EQ(0u, s.Open(ZNRSocket::TYPE_TCP_V4));
    EXPECT_EQ(ZNRSocket::TYPE_TCP_V4, s.GetType());
    int const fd = s.GetFd();
    ASSERT_GE(fd, 0);
    EXPECT_NE(0, ::fcntl(fd, F_GETFD) & FD_CLOEXEC);

    std::uint64_t pending = 0;
    ASSERT_EQ(0u, s.GetError(&pending));
    EXPECT_EQ(0x4000000100000000ULL, pending);

    ASSERT_EQ(0u, s.NonBlock(true));
    EXPECT_NE(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK);
    ASSERT_EQ(0u, s.NonBlock(false));
    EXPECT_EQ(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK);


    unsigned int ms = 1;
    ASSERT_EQ(0u, s.GetRecvTimeout(&ms));
    EXPECT_EQ(0u, ms);
    ASSERT_EQ(0u, s.SetRecvTimeout(1000));
    ASSERT_EQ(0u, s.GetRecvTimeout(&ms));
    EXPECT_EQ(1000u, ms);
    ASSERT_EQ(0u, s.SetSendTimeout(2000));
    ASSERT_EQ(0u, s.GetSendTimeout(&ms));
    EXPECT_EQ(2000u, ms);
    ASSERT_EQ(0u, s.GetRecvTimeout(&ms));
    EXPECT_EQ(1000u, ms);


    // Failures of the system calls come back as operating-system codes.
    ZNRNetAddrInfo const six = V6Loopback(0);
    EXPECT_EQ(ZNRSysError(EINVAL), s.Bind(nullptr));
    EXPECT_EQ(0x40000001u, s.Bind(&six) >> 32);
    EXPECT_EQ(0u, s.Close());
    EXPECT_EQ(ZNRSysError(EBADF), s.Listen(1));
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST(Socket, TcpLoopbackIpv4) { StreamRoundTrip(false); }

TEST(Socket, TcpLoopbackIpv6) {
    if (!nettest::HasIpv6Loopback()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    StreamRoundTrip(true);
}

TEST(Socket, RefusedClosedAndBrokenConnections) {
    // A bound port without a listener refuses connections.
    ZNRSocket bound_only;
    ASSERT_EQ(0u, bound_only.Open(ZNRSocket::TYPE_TCP_V4));
    ZNRNetAddrInfo const any_port = V4("127.0.0.1", "0");
    ASSERT_EQ(0u, bound_only.Bind(&any_port));
    ZNRNetAddrInfo target;
    ASSERT_EQ(0u, bound_only.GetLocalInfo(&target));
    ZNRSocket refused;
    ASSERT_EQ(0u, refused.Open(ZNRSocket::TYPE_TCP_V4));
    EXPECT_EQ(ZNRSysError(ECONNREFUSED), refused.Connect(&target));

    // A non-blocking connect is under way, reported as the system's value.
    ZNRSocket listener;
    ZNRNetAddrInfo bound;
    Listen(&listener, any_port, false, &bound);
    ZNRSocket client;
    ASSERT_EQ(0u, client.Open(ZNRSocket::TYPE_TCP_V4));
    ASSERT_EQ(0u, client.NonBlock(true));
    std::uint64_t const rc = client.Connect(&bound);
    EXPECT_TRUE(rc == 0 || rc == ZNRSysError(EINPROGRESS)) << std::hex << rc;
    ASSERT_TRUE(nettest::WaitFor(client.GetFd(), POLLOUT));

    // The listener is non-blocking: so is the accepted socket; with nothing
    // pending, Accept reports EAGAIN.
    ASSERT_EQ(0u, listener.NonBlock(true));
    ASSERT_TRUE(nettest::WaitReadable(listener.GetFd()));
    ZNRSocket accepted;
    ASSERT_EQ(0u, listener.Accept(&accepted, nullptr));
    EXPECT_NE(0, ::fcntl(accepted.GetFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, ::fcntl(accepted.GetFd(), F_GETFD) & FD_CLOEXEC);
    ZNRSocket none;
    EXPECT_EQ(ZNRSysError(EAGAIN), listener.Accept(&none, nullptr));
    EXPECT_EQ(-1, none.GetFd());

    // The peer goes away: reads end the stream, writes fail without SIGPIPE.
    ASSERT_EQ(0u, client.Close());
    ASSERT_TRUE(nettest::WaitReadable(accepted.GetFd()));
    unsigned char buf[8];
    std::uint64_t err = 0;
    EXPECT_EQ(-1, accepted.Recv(buf, sizeof(buf), &err));
    EXPECT_EQ(0x8000000100000004ULL, err);
    unsigned char const data[4] = {1, 2, 3, 4};
    int result = 0;
    for (int i = 0; i < 100 && result >= 0; ++i) result = accepted.Send(data, 4, &err);
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;

    // Bad arguments never reach the system.
    err = 0;
    EXPECT_EQ(-1, accepted.Send(nullptr, 4, &err));
    EXPECT_EQ(static_cast<std::uint64_t>(EINVAL), err);

    // Only TCP sockets give peer addresses on accept.
    ZNRSocket udp;
    ASSERT_EQ(0u, udp.Open(ZNRSocket::TYPE_UDP_V4));
    ZNRNetAddrInfo peer;
    EXPECT_EQ(0x8000000100000003ULL, udp.Accept(&none, &peer));
}

TEST(Socket, UdpDatagramsBothWays) {
    ZNRNetAddrInfo const any_port = V4("127.0.0.1", "0");
    ZNRSocket a;
    ZNRSocket b;
    ZNRNetAddrInfo a_addr;
    ZNRNetAddrInfo b_addr;
    for (auto pair : {std::make_pair(&a, &a_addr), std::make_pair(&b, &b_addr)}) {
        ASSERT_EQ(0u, pair.first->Open(ZNRSocket::TYPE_UDP_V4));
        ASSERT_EQ(0u, pair.first->SetRecvTimeout(5000));
        ASSERT_EQ(0u, pair.first->Bind(&any_port));
        ASSERT_EQ(0u, pair.first->GetLocalInfo(pair.second));
    }
    std::uint64_t err = 0;
    unsigned char const ping[] = {'p', 'i', 'n', 'g', 0};
    ASSERT_EQ(5, a.SendTo(ping, 5, &err, &b_addr));
    unsigned char got[32] = {};
    ZNRNetAddrInfo from(ZNRNetAddrInfo::TYPE_IPV6);
    ASSERT_EQ(5, b.RecvFrom(got, sizeof(got), &err, &from));
    EXPECT_EQ(0, std::memcmp(ping, got, 5));
    EXPECT_EQ(ZNRNetAddrInfo::TYPE_IPV4, from.GetType());
    EXPECT_EQ("127.0.0.1", Str(from.GetAddrStr()));
    EXPECT_EQ(Str(a_addr.GetPortStr()), Str(from.GetPortStr()));

    unsigned char const pong[] = {'p', 'o', 'n', 'g'};
    ASSERT_EQ(4, b.SendTo(pong, 4, &err, &from));
    ASSERT_EQ(4, a.RecvFrom(got, sizeof(got), &err, nullptr));
    EXPECT_EQ(0, std::memcmp(pong, got, 4));

    // Without a destination an unconnected socket cannot send.
    EXPECT_EQ(-1, a.SendTo(pong, 4, &err, nullptr));
    EXPECT_EQ(static_cast<std::uint64_t>(EDESTADDRREQ), err);
}
