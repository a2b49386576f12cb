#ifndef PLEXA_TESTS_NET_TEST_UTIL_H
#define PLEXA_TESTS_NET_TEST_UTIL_H

#include <plexa/plexa.h>

#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace nettest {

inline std::string Str(ZNRString const& s) { return s.ToStdCStr(); }

// Waits at most five seconds, so that a missing peer fails a test instead
// of hanging it.
inline bool WaitFor(int fd, short events) {
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, 5000) == 1;
}
inline bool WaitReadable(int fd) { return WaitFor(fd, POLLIN); }

inline bool HasIpv6Loopback() {
    int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_addr = in6addr_loopback;
    bool const ok = ::bind(fd, reinterpret_cast<sockaddr*>(&sin6), sizeof(sin6)) == 0;
    ::close(fd);
    return ok;
}

struct DestroyDevice {
    void operator()(ZNRDevice* d) const { d->Destroy(); }
};
template <class D>
using DevicePtr = std::unique_ptr<D, DestroyDevice>;

template <class D>
DevicePtr<D> MakeDevice() {
    return DevicePtr<D>(new D());
}

}  // namespace nettest

#endif
