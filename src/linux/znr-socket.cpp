#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>
#include <plexa/znr-utils.h>

#include "znr-socket-platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {


std::uint64_t LastSysError() { return ZNRSysError(errno); }

// Shared tail of Recv and RecvFrom: n is the system call's result.
int RecvResult(ssize_t n, std::uint64_t* err) {
    if (n > 0) return static_cast<int>(n);
    if (n == 0) {
        ZNRStoreError(err, ZNR_ERROR_END_OF_STREAM);
        return -1;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    ZNRStoreError(err, static_cast<std::uint32_t>(errno));
    return -1;
}

int SendResult(ssize_t n, std::uint64_t* err) {
    if (n >= 0) return static_cast<int>(n);
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    ZNRStoreError(err, static_cast<std::uint32_t>(errno));
    return -1;
}

} // namespace

int const kZNRSocketInvalid = EINVAL;
int const kZNRSocketNoFamily = EAFNOSUPPORT;

std::uint64_t ZNRSocketLastError() { return LastSysError(); }

// Resolver failures have no errno of their own; each is given the nearest
// one so that the code reads sensibly through ZNRGetErrorMsg.
std::uint64_t ZNRResolverError(int rc) {
    switch (rc) {
    case EAI_SYSTEM: return ZNRSysError(errno != 0 ? errno : EIO);
    case EAI_MEMORY: return ZNRSysError(ENOMEM);
    case EAI_FAMILY: return ZNRSysError(EAFNOSUPPORT);
#ifdef EAI_ADDRFAMILY
    case EAI_ADDRFAMILY: return ZNRSysError(EAFNOSUPPORT);
#endif
    case EAI_AGAIN: return ZNRSysError(EAGAIN);
    case EAI_OVERFLOW: return ZNRSysError(EOVERFLOW);
    case EAI_SOCKTYPE: return ZNRSysError(ESOCKTNOSUPPORT);
    case EAI_BADFLAGS: return ZNRSysError(EINVAL);
    case EAI_FAIL: return ZNRSysError(EIO);
    default: return ZNRSysError(ENXIO);  // no such host or service
    }
}

std::uint64_t ZNRSocketMake(ZNRSocketKind const& kind, bool non_blocking, int* fd) {
    int const flags = SOCK_CLOEXEC | (non_blocking ? SOCK_NONBLOCK : 0);
    int const s = ::socket(kind.family, kind.type | flags, kind.protocol);
    if (s < 0) return LastSysError();
    *fd = s;
    return 0;
}

// Urgent data stays in the stream, where reads find it in order, instead
// of being skipped. Best effort: without it only that one byte is lost.
void ZNRSocketTune(int fd, int type) {
    if (ZNRSocketIsTcp(type)) ZNRSocketSetInt(fd, SO_OOBINLINE, 1);
}

void ZNRSocketCloseHandle(int fd) { ::close(fd); }

std::uint64_t ZNRSocketAcceptOne(int listener, sockaddr* sa, socklen_t* len, int* fd) {
    // Accepted sockets take on the listener's blocking mode, as callers of
    // a non-blocking listener expect.
    int flags = SOCK_CLOEXEC;
    int const listener_flags = ::fcntl(listener, F_GETFL);
    if (listener_flags != -1 && (listener_flags & O_NONBLOCK) != 0) flags |= SOCK_NONBLOCK;
    int s;
    do {
        s = ::accept4(listener, sa, len, flags);
    } while (s < 0 && errno == EINTR);
    if (s < 0) return LastSysError();
    *fd = s;
    return 0;
}

int ZNRSocketRecvOne(int fd, unsigned char* buf, int len, sockaddr* sa, socklen_t* sa_len, std::uint64_t* err) {
    ssize_t n;
    do {
        n = ::recvfrom(fd, buf, static_cast<size_t>(len), 0, sa, sa_len);
    } while (n < 0 && errno == EINTR);
    return RecvResult(n, err);
}

int ZNRSocketSendOne(int fd, unsigned char const* buf, int len, sockaddr const* sa, socklen_t sa_len,
                     std::uint64_t* err) {
    ssize_t n;
    do {
        n = ::sendto(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL, sa, sa_len);
    } while (n < 0 && errno == EINTR);
    return SendResult(n, err);
}

// The system tells an unconnected socket's missing destination itself.
int ZNRSocketSendToPeer(int fd, unsigned char const* buf, int len, std::uint64_t* err) {
    return ZNRSocketSendOne(fd, buf, len, nullptr, 0, err);
}

std::uint64_t ZNRSocketLocalName(int fd, sockaddr* sa, socklen_t* len) {
    if (::getsockname(fd, sa, len) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocketSetInt(int fd, int name, int value) {
    if (setsockopt(fd, SOL_SOCKET, name, &value, sizeof(value)) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocketGetInt(int fd, int name, long* out) {
    int value = 0;
    socklen_t len = sizeof(value);
    if (getsockopt(fd, SOL_SOCKET, name, &value, &len) != 0) return LastSysError();
    if (out != nullptr) *out = value;
    return 0;
}

std::uint64_t ZNRSocketSetTime(int fd, int name, unsigned int ms) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    if (setsockopt(fd, SOL_SOCKET, name, &tv, sizeof(tv)) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocketGetTime(int fd, int name, unsigned int* ms) {
    timeval tv{};
    socklen_t len = sizeof(tv);
    if (getsockopt(fd, SOL_SOCKET, name, &tv, &len) != 0) return LastSysError();
    if (ms != nullptr) {
        *ms = static_cast<unsigned int>(tv.tv_sec * 1000 + tv.tv_usec / 1000);
    }
    return 0;
}

// ---------------------------------------------------------------- addresses

std::uint64_t ZNRNetAddrInfo::StrAddrToNet(ZNRString const& text, unsigned int* addr) {
    in_addr_t const value = inet_addr(text.ToStdCStr().c_str());
    if (addr != nullptr) *addr = static_cast<unsigned int>(value);
    return 0;
}

std::uint64_t ZNRNetAddrInfo::GetLocalAddrs(std::map<ZNRString, unsigned int>* out) {
    if (out == nullptr) return ZNRSysError(EINVAL);
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return LastSysError();
    std::set<std::string> seen;
    for (ifaddrs* p = list; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_INET) continue;
        if (!seen.insert(p->ifa_name).second) continue;
        sockaddr_in sin;
        std::memcpy(&sin, p->ifa_addr, sizeof(sin));
        (*out)[ZNRString(p->ifa_name)] = static_cast<unsigned int>(sin.sin_addr.s_addr);
    }
    freeifaddrs(list);
    return 0;
}

// ---------------------------------------------------------------- host info

std::uint64_t ZNRHostInfo::Open(ZNRString const& host, ZNRString const& service, bool ipv6) {
    Clear();
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_flags = host.empty() ? AI_PASSIVE : AI_CANONNAME;
    std::string const host_text = host.ToStdCStr();
    std::string const service_text = service.ToStdCStr();
    addrinfo* result = nullptr;
    int const rc = getaddrinfo(host.empty() ? nullptr : host_text.c_str(),
                               service.empty() ? nullptr : service_text.c_str(), &hints, &result);
    if (rc != 0) return ZNRResolverError(rc);
    std::uint64_t code = 0;
    for (addrinfo* p = result; p != nullptr && code == 0; p = p->ai_next) {
        code = AddResolved(p->ai_addr, static_cast<unsigned int>(p->ai_addrlen), p->ai_family == AF_INET6);
    }
    freeaddrinfo(result);
    if (code != 0) return code;
    host_ = host;
    service_ = service;
    return 0;
}

// ---------------------------------------------------------------- socket

std::uint64_t ZNRSocket::Bind(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(EINVAL);
    if (::bind(fd_, addr->GetAddr(), addr->GetAddrLen()) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Listen(int backlog) {
    if (::listen(fd_, backlog) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Connect(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(EINVAL);
    if (::connect(fd_, addr->GetAddr(), addr->GetAddrLen()) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::CloseRecv() {
    if (::shutdown(fd_, SHUT_RD) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::CloseSend() {
    if (::shutdown(fd_, SHUT_WR) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Close() {
    if (fd_ < 0) return ZNRSysError(EBADF);
    // Linux releases the descriptor even when close reports an error, so
    // it is forgotten either way: closing it again could hit a reused one.
    int const rc = ::close(fd_);
    int const saved = errno;
    fd_ = -1;
    return rc != 0 ? ZNRSysError(saved) : 0;
}

std::uint64_t ZNRSocket::NonBlock(bool on) {
    int value = on ? 1 : 0;
    if (::ioctl(fd_, FIONBIO, &value) != 0) return LastSysError();
    return 0;
}
