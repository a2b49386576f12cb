#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>
#include <plexa/znr-async-socket.h>
#include <plexa/znr-socket.h>

#include "znr-async-perform.h"
#include "znr-error-platform.h"
#include "znr-fd-io.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

// A stream socket's transfer that moved less than asked has emptied it (or
// filled its send buffer): the next edge says when to go on. Other
// descriptors prove nothing by it (a terminal hands out one line per read),
// so they go on until the system says it would block.
ZNRPerformResult Transferred(ZNRAsyncIOCB* cb, ssize_t n, bool stream) {
    if (n < 0) {
        if (WouldBlock()) return ZNR_PERFORM_AGAIN;
        cb->Complete(0, ZNRSysError(errno));
        return ZNR_PERFORM_DONE;
    }
    cb->Complete(static_cast<int>(n), 0);
    return stream && n < cb->len ? ZNR_PERFORM_DRAINED : ZNR_PERFORM_DONE;
}

int AcceptOne(ZNRAsyncIOCB* cb) {
    socklen_t len = cb->addr_len;
    sockaddr* sa = static_cast<sockaddr*>(cb->addr);
    int fd;
    // A connection that died in the backlog is not the listener's failure.
    do {
        len = cb->addr_len;
        fd = ::accept4(cb->fd, sa, sa != nullptr ? &len : nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED || errno == EPROTO));
    if (fd >= 0 && sa != nullptr) cb->addr_len = len;
    return fd;
}

ZNRPerformResult Accepted(ZNRAsyncIOCB* cb, int fd) {
    if (fd < 0) {
        if (WouldBlock()) return ZNR_PERFORM_AGAIN;
        cb->Complete(0, ZNRSysError(errno));
        return ZNR_PERFORM_DONE;
    }
    ZNRAsyncAdopt(cb, fd, true);
    return ZNR_PERFORM_DONE;
}

ZNRPerformResult Connected(ZNRAsyncIOCB* cb, bool known_ready) {
    if (!known_ready && !ZNRAsyncWaitReady(cb, 0)) return ZNR_PERFORM_AGAIN;
    int value = 0;
    socklen_t len = sizeof(value);
    if (::getsockopt(cb->fd, SOL_SOCKET, SO_ERROR, &value, &len) != 0) value = errno;
    cb->Complete(0, value == 0 ? 0 : ZNRSysError(value));
    return ZNR_PERFORM_DONE;
}

} // namespace

ZNRPerformResult ZNRAsyncPerform(ZNRAsyncIOCB* cb, bool known_ready) {
    ssize_t n;
    switch (cb->method) {
    case ZNRAsyncIOCB::METHOD_RECV:
        do {
            n = ::recv(cb->fd, cb->buf, static_cast<size_t>(cb->len), 0);
        } while (n < 0 && errno == EINTR);
        return Transferred(cb, n, true);
    case ZNRAsyncIOCB::METHOD_READ:
        do {
            n = ::read(cb->fd, cb->buf, static_cast<size_t>(cb->len));
        } while (n < 0 && errno == EINTR);
        return Transferred(cb, n, false);
    case ZNRAsyncIOCB::METHOD_RECVFROM: {
        socklen_t len = cb->addr_len;
        do {
            n = ::recvfrom(cb->fd, cb->buf, static_cast<size_t>(cb->len), 0,
                           static_cast<sockaddr*>(cb->addr), &len);
        } while (n < 0 && errno == EINTR);
        if (n >= 0) cb->addr_len = len;
        return Transferred(cb, n, false);
    }
    case ZNRAsyncIOCB::METHOD_SEND:
        do {
            n = ::send(cb->fd, cb->buf, static_cast<size_t>(cb->len), MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        return Transferred(cb, n, true);
    case ZNRAsyncIOCB::METHOD_SENDTO:
        do {
            n = ::sendto(cb->fd, cb->buf, static_cast<size_t>(cb->len), MSG_NOSIGNAL,
                         static_cast<sockaddr const*>(cb->addr), cb->addr_len);
        } while (n < 0 && errno == EINTR);
        return Transferred(cb, n, false);
    case ZNRAsyncIOCB::METHOD_WRITE: {
        int err = 0;
        n = ZNRFdWrite(cb->fd, cb->buf, cb->len, &err);
        errno = err;
        return Transferred(cb, n, false);
    }
    case ZNRAsyncIOCB::METHOD_ACCEPT:
    case ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT:
        return Accepted(cb, AcceptOne(cb));
    case ZNRAsyncIOCB::METHOD_CONNECT:
        return Connected(cb, known_ready);
    case ZNRAsyncIOCB::METHOD_NONE:
        break;
    }
    return ZNR_PERFORM_AGAIN;
}

// The system starts it; the write side's readiness tells the outcome.
std::uint64_t ZNRAsyncConnect(ZNRAsyncSocket* socket, ZNRNetAddrInfo const* addr) {
    std::uint64_t const rc = socket->ZNRSocket::Connect(addr);
    if (rc != 0 && !ZNRPlatformIsInProgress(rc)) return rc;
    return socket->GetWriteIOCB()->Begin(ZNRAsyncIOCB::OP_CONNECT, ZNRAsyncIOCB::METHOD_CONNECT, nullptr, 0);
}

void ZNRAsyncAdopt(ZNRAsyncIOCB* cb, int fd, bool peer_known) {
    if (!peer_known && cb->addr != nullptr) {
        socklen_t len = cb->addr_len;
        if (::getpeername(fd, static_cast<sockaddr*>(cb->addr), &len) == 0) {
            cb->addr_len = len;
        } else {
            cb->addr_len = 0;
        }
    }
    std::uint64_t rc = 0;
    if (cb->method == ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT) {
        rc = cb->SwitchFd(fd);
    } else {
        rc = cb->accept_into->Open(static_cast<ZNRSocket::Type_t>(cb->accept_type), fd);
        if (rc != 0) ::close(fd);
    }
    cb->Complete(0, rc);
}

bool ZNRAsyncWaitReady(ZNRAsyncIOCB const* cb, int timeout_ms) {
    pollfd p = {cb->fd, static_cast<short>(cb->IsReadSide() ? POLLIN : POLLOUT), 0};
    int rc;
    do {
        rc = ::poll(&p, 1, timeout_ms);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}
