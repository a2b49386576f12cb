#ifndef PLEXA_TESTS_NET_TEST_UTIL_H
#define PLEXA_TESTS_NET_TEST_UTIL_H

#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace nettest {

inline std::string Str(ZNRString const& s) { return s.ToStdCStr(); }
inline std::string Bytes(unsigned char const* p, int n) { return std::string(reinterpret_cast<char const*>(p), n); }
// "address port", to compare both texts of an address at once.
inline std::string Text(ZNRNetAddrInfo const& a) { return Str(a.GetAddrStr()) + " " + Str(a.GetPortStr()); }
inline unsigned char const* U(std::string const& s) { return reinterpret_cast<unsigned char const*>(s.data()); }

// Waits at most five seconds, so that a missing peer fails a test instead
// of hanging it.
inline bool WaitFor(int fd, short events = POLLIN) {
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, 5000) == 1;
}

// Up to n bytes, fewer when the peer closes first.
inline std::string ReadUpTo(int fd, std::size_t n) {
    std::string out;
    char buf[65536];
    while (out.size() < n && WaitFor(fd)) {
        ssize_t const got = ::read(fd, buf, std::min(sizeof buf, n - out.size()));
        if (got <= 0) break;
        out.append(buf, static_cast<std::size_t>(got));
    }
    return out;
}

inline sockaddr_in6 Loopback6(unsigned short port) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(port);
    sin6.sin6_addr = in6addr_loopback;
    return sin6;
}

inline bool HasIpv6Loopback() {
    int const fd = ::socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 sin6 = Loopback6(0);
    bool const ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)) == 0;
    if (fd >= 0) ::close(fd);
    return ok;
}

inline ZNRNetAddrInfo V4(char const* ip, std::string const& port) {
    ZNRNetAddrInfo addr(ZNRNetAddrInfo::TYPE_IPV4);
    EXPECT_EQ(0u, addr.Open(ZNRString(port), ZNRString(ip)));
    return addr;
}

inline ZNRNetAddrInfo V6Loopback(unsigned short port = 0) {
    sockaddr_in6 sin6 = Loopback6(port);
    ZNRNetAddrInfo addr(ZNRNetAddrInfo::TYPE_IPV6);
    EXPECT_EQ(0u, addr.Open(reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)));
    return addr;
}

// A plain blocking client of 127.0.0.1:port.
inline int ConnectTo(std::string const& port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ZNRNetAddrInfo const to = V4("127.0.0.1", port);
    EXPECT_EQ(0, ::connect(fd, to.GetAddr(), to.GetAddrLen()));
    return fd;
}

struct DestroyDevice {
    void operator()(ZNRDevice* d) const { d->Destroy(); }
};
template <class D>
using DevicePtr = std::unique_ptr<D, DestroyDevice>;
template <class D>
DevicePtr<D> MakeDevice() { return DevicePtr<D>(new D()); }

}  // namespace nettest

#endif
