#ifndef PLEXA_TESTS_NET_TEST_UTIL_H
#define PLEXA_TESTS_NET_TEST_UTIL_H

#include <plexa/plexa.h>

#include <gtest/gtest.h>

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <memory>
#include <string>

namespace nettest {

// The test side's own sockets, made with the system's calls.
#if defined(_WIN32)
typedef SOCKET RawSocket;
// The values the system gives for the failures the suites provoke.
int const kErrInvalid = WSAEINVAL;
int const kErrNotSocket = WSAENOTSOCK;
int const kErrNoDestination = WSAEDESTADDRREQ;
int const kErrRefused = WSAECONNREFUSED;
int const kErrCancelled = ERROR_OPERATION_ABORTED;
int const kErrWouldBlock = WSAEWOULDBLOCK;
int const kErrBrokenPipe = ERROR_BROKEN_PIPE;
#else
typedef int RawSocket;
int const kErrInvalid = EINVAL;
int const kErrNotSocket = EBADF;
int const kErrNoDestination = EDESTADDRREQ;
int const kErrRefused = ECONNREFUSED;
int const kErrCancelled = ECANCELED;
int const kErrWouldBlock = EAGAIN;
int const kErrBrokenPipe = EPIPE;
#endif

// Whether h is inherited by child processes.
inline bool IsInherited(ZNRNativeHandle h) {
#if defined(_WIN32)
    DWORD flags = 0;
    return ::GetHandleInformation(h, &flags) && (flags & HANDLE_FLAG_INHERIT) != 0;
#else
    return (::fcntl(h, F_GETFD) & FD_CLOEXEC) == 0;
#endif
}
// Whether h still names an open handle or descriptor.
inline bool IsOpenHandle(ZNRNativeHandle h) {
#if defined(_WIN32)
    DWORD flags = 0;
    return ::GetHandleInformation(h, &flags) != 0;
#else
    return ::fcntl(h, F_GETFD) != -1;
#endif
}

// Winsock starts with the library; elsewhere this does nothing.
inline std::uint64_t const kStarted = ZNRInit();

inline RawSocket Raw(ZNRNativeHandle h) { return (RawSocket)(h); }
inline ZNRNativeHandle Handle(RawSocket s) { return (ZNRNativeHandle)(s); }

inline std::string Str(ZNRString const& s) { return s.ToStdCStr(); }
inline std::string Bytes(unsigned char const* p, int n) { return std::string(reinterpret_cast<char const*>(p), n); }
// "address port", to compare both texts of an address at once.
inline std::string Text(ZNRNetAddrInfo const& a) { return Str(a.GetAddrStr()) + " " + Str(a.GetPortStr()); }
inline unsigned char const* U(std::string const& s) { return reinterpret_cast<unsigned char const*>(s.data()); }

// Waits at most five seconds, so that a missing peer fails a test instead
// of hanging it.
inline bool WaitFor(RawSocket fd, short events = POLLIN) {
#if defined(_WIN32)
    WSAPOLLFD p{fd, events, 0};
    return ::WSAPoll(&p, 1, 5000) == 1;
#else
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, 5000) == 1;
#endif
}
#if defined(_WIN32)
inline bool WaitFor(ZNRNativeHandle h, short events = POLLIN) { return WaitFor(Raw(h), events); }
#endif

// Bytes written, or -1.
inline long long SendRaw(RawSocket fd, char const* data, std::size_t n) {
#if defined(_WIN32)
    return ::send(fd, data, static_cast<int>(n), 0);
#else
    return ::send(fd, data, n, MSG_NOSIGNAL);
#endif
}
// write(2) where there is one: it serves pipes and sockets alike.
inline long long WriteRaw(RawSocket fd, char const* data, std::size_t n) {
#if defined(_WIN32)
    return ::send(fd, data, static_cast<int>(n), 0);
#else
    return ::write(fd, data, n);
#endif
}
inline long long RecvRaw(RawSocket fd, char* data, std::size_t n) {
#if defined(_WIN32)
    return ::recv(fd, data, static_cast<int>(n), 0);
#else
    return ::read(fd, data, n);
#endif
}

// Up to n bytes, fewer when the peer closes first.
inline std::string ReadUpTo(RawSocket fd, std::size_t n) {
    std::string out;
    char buf[65536];
    while (out.size() < n && WaitFor(fd)) {
        long long const got = RecvRaw(fd, buf, std::min(sizeof buf, n - out.size()));
        if (got <= 0) break;
        out.append(buf, static_cast<std::size_t>(got));
    }
    return out;
}

inline bool SendAll(RawSocket fd, std::string const& data) {
    for (std::size_t at = 0; at < data.size();) {
        long long const n = SendRaw(fd, data.data() + at, data.size() - at);
        if (n <= 0) return false;
        at += static_cast<std::size_t>(n);
    }
    return true;
}

inline int ShutWrite(RawSocket fd) {
#if defined(_WIN32)
    return ::shutdown(fd, SD_SEND);
#else
    return ::shutdown(fd, SHUT_WR);
#endif
}

inline int CloseRaw(RawSocket fd) {
#if defined(_WIN32)
    return ::closesocket(fd);
#else
    return ::close(fd);
#endif
}

inline void SetNonBlocking(RawSocket fd) {
#if defined(_WIN32)
    u_long on = 1;
    ::ioctlsocket(fd, FIONBIO, &on);
#else
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
#endif
}

// Whether fd still names an open socket.
inline bool IsOpenSocket(RawSocket fd) {
    int type = 0;
    socklen_t len = sizeof(type);
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &len) == 0;
}

inline RawSocket NewSocket(int family, int type) {
#if defined(_WIN32)
    return ::WSASocketW(family, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
#else
    return ::socket(family, type | SOCK_CLOEXEC, 0);
#endif
}

inline sockaddr_in6 Loopback6(unsigned short port) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(port);
    sin6.sin6_addr = in6addr_loopback;
    return sin6;
}

inline bool HasIpv6Loopback() {
    RawSocket const fd = NewSocket(AF_INET6, SOCK_STREAM);
    sockaddr_in6 sin6 = Loopback6(0);
    bool const open = IsOpenSocket(fd);
    bool const ok = open && ::bind(fd, reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)) == 0;
    if (open) CloseRaw(fd);
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
inline RawSocket ConnectTo(std::string const& port) {
    RawSocket const fd = NewSocket(AF_INET, SOCK_STREAM);
    ZNRNetAddrInfo const to = V4("127.0.0.1", port);
    EXPECT_EQ(0, ::connect(fd, to.GetAddr(), to.GetAddrLen()));
    return fd;
}

// A connected stream pair: a Unix socket pair, or on Windows, which has
// none to hand, the two ends of a loopback TCP connection.
inline bool StreamPair(RawSocket fds[2]) {
#if defined(_WIN32)
    RawSocket const listener = NewSocket(AF_INET, SOCK_STREAM);
    ZNRNetAddrInfo any = V4("127.0.0.1", "0");
    sockaddr_in bound{};
    int len = sizeof(bound);
    bool ok = ::bind(listener, any.GetAddr(), any.GetAddrLen()) == 0 && ::listen(listener, 1) == 0 &&
              ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &len) == 0;
    fds[0] = NewSocket(AF_INET, SOCK_STREAM);
    ok = ok && ::connect(fds[0], reinterpret_cast<sockaddr*>(&bound), len) == 0;
    fds[1] = ok ? ::accept(listener, nullptr, nullptr) : INVALID_SOCKET;
    ::closesocket(listener);
    // Small writes go out at once, as on a Unix pair.
    BOOL const on = TRUE;
    for (int i = 0; i < 2; ++i) {
        ::setsockopt(fds[i], IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char const*>(&on), sizeof(on));
    }
    return ok && fds[1] != INVALID_SOCKET;
#else
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
#endif
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
