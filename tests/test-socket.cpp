#include "net-test-util.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#if defined(_WIN32)
#include <afunix.h>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/un.h>
#endif

using namespace nettest;

namespace {

std::uint64_t const kUnsupported = 0x8000000100000003ULL;

// Type, length and both texts of an address in one comparable text.
std::string Desc(ZNRNetAddrInfo const& a) {
    return (a.GetType() == ZNRNetAddrInfo::TYPE_IPV6 ? "v6/" : "v4/") + std::to_string(a.GetAddrLen()) + " " + Text(a);
}

std::string Raw(ZNRNetAddrInfo const& a, int from, int n) {
    return Bytes(reinterpret_cast<unsigned char const*>(a.GetAddr()) + from, n);
}

}  // namespace

TEST(NetAddrInfo, LayoutCopiesAndTextOpen) {
    ZNRNetAddrInfo const empty4, empty6(ZNRNetAddrInfo::TYPE_IPV6);
    EXPECT_EQ("v4/16  |v6/28  ", Desc(empty4) + "|" + Desc(empty6));
    EXPECT_EQ(std::make_pair(AF_INET, AF_INET6),
              std::make_pair(+empty4.GetAddr()->sa_family, +empty6.GetAddr()->sa_family));
    // Port first; family, port in network order, address, then zeros.
    ZNRNetAddrInfo a = V4("192.168.0.1", "8080");
    EXPECT_EQ("v4/16 192.168.0.1 8080", Desc(a));
    EXPECT_EQ(AF_INET, a.GetAddr()->sa_family);
    EXPECT_EQ(std::string("\x1F\x90\xC0\xA8\0\1\0\0", 8), Raw(a, 2, 8));

    // Copies own their bytes.
    ZNRNetAddrInfo copy(a);
    ASSERT_EQ(0u, a.Open(ZNRString("81"), ZNRString("10.9.9.9")));
    EXPECT_EQ(std::string("\x1F\x90\xC0\xA8", 4), Raw(copy, 2, 4));

    // A bad port is refused with the bare errno value and changes nothing.
    for (char const* port : {"http", "65536"}) {
        EXPECT_EQ(static_cast<std::uint64_t>(EINVAL), a.Open(ZNRString(port), ZNRString("1.1.1.1"))) << port;
        EXPECT_EQ("10.9.9.9 81", Text(a)) << port;
    }

    // Assigning an IPv6 address to an IPv4 object takes its length and type;
    // a text Open turns it back into IPv4.
    ZNRNetAddrInfo const six = V6Loopback(443);
    a = six;
    EXPECT_EQ("v6/28 ::1 443", Desc(a));
    EXPECT_EQ(Raw(six, 0, 28), Raw(a, 0, 28));
    ASSERT_EQ(0u, a.Open(ZNRString("53"), ZNRString("127.0.0.1")));
    ASSERT_EQ(0u, a.Reopen());
    EXPECT_EQ("v4/16 127.0.0.1 53", Desc(a));

    // A text that is no address is taken as 255.255.255.255; recomputing the
    // texts from the binary form shows it.
    ZNRNetAddrInfo host = V4("localhost", "7");
    EXPECT_EQ("localhost 7", Text(host));
    ASSERT_EQ(0u, host.Open());
    EXPECT_EQ("255.255.255.255 7", Text(host));
}

TEST(NetAddrInfo, BinaryOpenAndConversions) {
    sockaddr_in6 sin6 = Loopback6(443);
    ASSERT_EQ(1, inet_pton(AF_INET6, "2001:db8::1:0:0:1", &sin6.sin6_addr));
    ZNRNetAddrInfo a(ZNRNetAddrInfo::TYPE_IPV4);
    ASSERT_EQ(0u, a.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    // A family that has no numeric text fails and keeps everything as it was.
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    EXPECT_EQ(0x40000001u, a.Open(reinterpret_cast<sockaddr*>(&un), sizeof(un)) >> 32);
    EXPECT_NE(0u, a.Open(nullptr, 16));
    EXPECT_EQ("v6/28 2001:db8::1:0:0:1 443", Desc(a));
    EXPECT_EQ(0, std::memcmp(&sin6, a.GetAddr(), sizeof(sin6)));
    // Mapped IPv4 addresses stay IPv6 texts.
    ASSERT_EQ(1, inet_pton(AF_INET6, "::ffff:10.0.0.2", &sin6.sin6_addr));
    ASSERT_EQ(0u, a.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    EXPECT_EQ("::ffff:10.0.0.2 443", Text(a));

    // Text Open shows the handling of texts that are no address.
    unsigned int addr = 0;
    ZNRString text("old");
    ASSERT_EQ(0u, ZNRNetAddrInfo::StrAddrToNet(ZNRString("127.0.0.1"), &addr) |
                      ZNRNetAddrInfo::NetAddrToStr(htonl(0xC0A80001u), &text));
    EXPECT_EQ(htonl(0x7F000001u), addr);
    EXPECT_EQ("192.168.0.1", Str(text));

    // Interfaces are keyed by name; an existing entry is overwritten,
    // unrelated ones stay.
#if defined(_WIN32)
    // Its name differs between Windows versions (and Wine): found by address.
    ZNRString loopback;
    std::map<ZNRString, unsigned int> first;
    ASSERT_EQ(0u, ZNRNetAddrInfo::GetLocalAddrs(&first));
    for (auto const& entry : first) {
        if (entry.second == htonl(INADDR_LOOPBACK)) loopback = entry.first;
    }
    ASSERT_FALSE(loopback.empty());
#else
    ZNRString const loopback("lo");
#endif
    std::map<ZNRString, unsigned int> addrs{{loopback, 1}, {ZNRString("not-an-interface"), 2}};
    ASSERT_EQ(0u, ZNRNetAddrInfo::GetLocalAddrs(&addrs));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), addrs[loopback]);
    EXPECT_EQ(2u, addrs[ZNRString("not-an-interface")]);
    EXPECT_NE(0u, ZNRNetAddrInfo::GetLocalAddrs(nullptr));
}

TEST(HostInfo, LookupsPassiveAndFailures) {
    ZNRHostInfo info;
    ASSERT_EQ(0u, info.Open(ZNRString("localhost"), ZNRString("80"), false));
    EXPECT_EQ("localhost 80", Str(info.GetHost()) + " " + Str(info.GetService()));
    std::set<std::string> seen;
    for (ZNRNetAddrInfo const* a : info.GetAddrInfos()) EXPECT_TRUE(seen.insert(Desc(*a)).second) << Desc(*a);
    EXPECT_EQ(1u, seen.count("v4/16 127.0.0.1 80"));
    // Copies are deep (a shared list would be freed twice).
    ZNRHostInfo copy(info);
    ASSERT_EQ(info.GetAddrInfos().size(), copy.GetAddrInfos().size());
    EXPECT_EQ(Text(*info.GetAddrInfos()[0]), Text(*copy.GetAddrInfos()[0]));

    // An empty host asks for the wildcard addresses.
    ZNRHostInfo passive;
    for (bool v6 : {false, true}) {
        ASSERT_EQ(0u, passive.Open(ZNRString(""), ZNRString(v6 ? "9" : "8080"), v6));
        ASSERT_EQ(1u, passive.GetAddrInfos().size());
        EXPECT_EQ(v6 ? "v6/28 :: 9" : "v4/16 0.0.0.0 8080", Desc(*passive.GetAddrInfos()[0]));
    }
    EXPECT_EQ("", Str(passive.GetHost()));

    // A failed lookup empties the list and keeps the previous names.
    copy = passive;
    EXPECT_EQ(0x40000001u, info.Open(ZNRString(""), ZNRString(""), false) >> 32);
    EXPECT_TRUE(info.GetAddrInfos().empty());
    EXPECT_EQ("localhost", Str(info.GetHost()));
    EXPECT_NE(0u, info.Open(ZNRString("127.0.0.1"), ZNRString("no-such-service-xyz"), false));
    EXPECT_TRUE(info.GetAddrInfos().empty());
    ASSERT_EQ(1u, copy.GetAddrInfos().size());
    EXPECT_EQ(":: 9", Text(*copy.GetAddrInfos()[0]));
}

TEST(Socket, OpenOptionsAndErrors) {
    // Unknown types and unopened sockets fail before any system call.
    ZNRSocket none;
    ZNRNetAddrInfo addr;
    unsigned char buf[4];
    std::uint64_t err = 0;
    EXPECT_EQ((std::vector<std::uint64_t>{kUnsupported, kUnsupported, kUnsupported, ZNRSysError(kErrNotSocket)}),
              (std::vector<std::uint64_t>{none.Open(static_cast<ZNRSocket::Type_t>(5)), none.Open(ZNRSocket::TYPE_NONE),
                                          none.GetLocalInfo(&addr), none.Close()}));
    EXPECT_TRUE(none.GetType() == ZNRSocket::TYPE_NONE && !ZNRIsHandle(none.GetFd()));
    EXPECT_EQ(-1, none.RecvFrom(buf, 4, &err, &addr));
    EXPECT_EQ(kUnsupported, err);

    ZNRSocket s;
    ASSERT_EQ(0u, s.Open(ZNRSocket::TYPE_TCP_V4));
    RawSocket const fd = Raw(s.GetFd());
    ASSERT_TRUE(ZNRIsHandle(s.GetFd()));
#if defined(_WIN32)
    DWORD flags = 0;
    ASSERT_TRUE(::GetHandleInformation(s.GetFd(), &flags));
    EXPECT_EQ(0u, flags & HANDLE_FLAG_INHERIT);
#else
    EXPECT_NE(0, ::fcntl(fd, F_GETFD) & FD_CLOEXEC);
#endif
    std::uint64_t pending = 0;
    ASSERT_EQ(0u, s.GetError(&pending));
    EXPECT_EQ(0x4000000100000000ULL, pending);
    for (bool on : {true, false}) {
        ASSERT_EQ(0u, s.NonBlock(on));
#if !defined(_WIN32)  // Winsock cannot be asked
        EXPECT_EQ(on, (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
#endif
    }
    // The two time-outs are kept apart, with milliseconds intact.
    unsigned int send_ms = 1, recv_ms = 1;
    ASSERT_EQ(std::vector<std::uint64_t>(4), (std::vector<std::uint64_t>{s.SetRecvTimeout(1000), s.SetSendTimeout(2500),
                                                                         s.GetSendTimeout(&send_ms),
                                                                         s.GetRecvTimeout(&recv_ms)}));
    EXPECT_EQ(std::make_pair(2500u, 1000u), std::make_pair(send_ms, recv_ms));

    // Bad arguments never reach the system; failures of the system calls
    // come back as operating-system codes.
    err = 0;
    EXPECT_EQ(-1, s.Send(nullptr, 4, &err));
    EXPECT_EQ(static_cast<std::uint64_t>(EINVAL), err);
    ZNRNetAddrInfo const six = V6Loopback();
    EXPECT_EQ(ZNRSysError(kErrInvalid), s.Bind(nullptr));
    EXPECT_EQ(0x40000001u, s.Bind(&six) >> 32);
    EXPECT_EQ(0u, s.Close());
    EXPECT_TRUE(!ZNRIsHandle(s.GetFd()) && !IsOpenSocket(fd));
    EXPECT_EQ(std::make_pair(ZNRSysError(kErrNotSocket), ZNRSysError(kErrNotSocket)), std::make_pair(s.Listen(1), s.Close()));
}

// Streams are exercised end to end through the TCP devices.
TEST(Socket, UdpDatagramsAndMisuse) {
    ZNRNetAddrInfo const any_port = V4("127.0.0.1", "0");
    ZNRSocket s;
    ZNRNetAddrInfo self;
    ASSERT_EQ(0u, s.Open(ZNRSocket::TYPE_UDP_V4));
    ASSERT_EQ(0u, s.Bind(&any_port));
    ASSERT_EQ(0u, s.GetLocalInfo(&self));
    ASSERT_EQ(0u, s.NonBlock(true));
    // Nothing pending: 0, and no error stored.
    std::uint64_t err = 0;
    unsigned char got[8] = {};
    EXPECT_EQ(0, s.RecvFrom(got, sizeof(got), &err, nullptr));
    EXPECT_EQ(0u, err);
    std::string const ping("ping", 5);
    ASSERT_EQ(5, s.SendTo(U(ping), 5, &err, &self));
    ASSERT_TRUE(WaitFor(s.GetFd()));
    // The sender's family replaces the one the address object had.
    ZNRNetAddrInfo from(ZNRNetAddrInfo::TYPE_IPV6);
    ASSERT_EQ(5, s.RecvFrom(got, sizeof(got), &err, &from));
    EXPECT_EQ(ping, Bytes(got, 5));
    EXPECT_EQ(Desc(self), Desc(from));

    // Without a destination an unconnected socket cannot send; only TCP
    // sockets give peer addresses on accept.
    EXPECT_EQ(-1, s.SendTo(U(ping), 4, &err, nullptr));
    EXPECT_EQ(static_cast<std::uint64_t>(kErrNoDestination), err);
    ZNRSocket none;
    EXPECT_EQ(kUnsupported, s.Accept(&none, &from));
}
