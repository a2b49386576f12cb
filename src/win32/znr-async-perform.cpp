#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>

#include "znr-async-perform.h"

// Control blocks that no engine watches run their request as a
// non-blocking socket call, and wait with WSAPoll; watched ones never come
// here on Windows, where the completion port carries every request out.

namespace {

SOCKET AsSocket(ZNRNativeHandle h) { return reinterpret_cast<SOCKET>(h); }

ZNRPerformResult Transferred(ZNRAsyncIOCB* cb, int n) {
    if (n == SOCKET_ERROR) {
        int const err = ::WSAGetLastError();
        if (err == WSAEWOULDBLOCK) return ZNR_PERFORM_AGAIN;
        cb->Complete(0, ZNRSysError(err));
        return ZNR_PERFORM_DONE;
    }
    cb->Complete(n, 0);
    return n < cb->len ? ZNR_PERFORM_DRAINED : ZNR_PERFORM_DONE;
}

}  // namespace

ZNRPerformResult ZNRAsyncPerform(ZNRAsyncIOCB* cb, bool known_ready) {
    SOCKET const s = AsSocket(cb->fd);
    char* const buf = reinterpret_cast<char*>(cb->buf);
    switch (cb->method) {
    case ZNRAsyncIOCB::METHOD_RECV:
    case ZNRAsyncIOCB::METHOD_READ:
        return Transferred(cb, ::recv(s, buf, cb->len, 0));
    case ZNRAsyncIOCB::METHOD_RECVFROM: {
        int len = static_cast<int>(cb->addr_len);
        int const n = ::recvfrom(s, buf, cb->len, 0, static_cast<sockaddr*>(cb->addr), &len);
        if (n != SOCKET_ERROR) cb->addr_len = static_cast<unsigned int>(len);
        return Transferred(cb, n);
    }
    case ZNRAsyncIOCB::METHOD_SEND:
    case ZNRAsyncIOCB::METHOD_WRITE:
        return Transferred(cb, ::send(s, buf, cb->len, 0));
    case ZNRAsyncIOCB::METHOD_SENDTO:
        return Transferred(cb, ::sendto(s, buf, cb->len, 0, static_cast<sockaddr const*>(cb->addr),
                                        static_cast<int>(cb->addr_len)));
    case ZNRAsyncIOCB::METHOD_ACCEPT:
    case ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT: {
        int len = static_cast<int>(cb->addr_len);
        sockaddr* const sa = static_cast<sockaddr*>(cb->addr);
        SOCKET const accepted = ::accept(s, sa, sa != nullptr ? &len : nullptr);
        if (accepted == INVALID_SOCKET) {
            int const err = ::WSAGetLastError();
            if (err == WSAEWOULDBLOCK) return ZNR_PERFORM_AGAIN;
            cb->Complete(0, ZNRSysError(err));
            return ZNR_PERFORM_DONE;
        }
        if (sa != nullptr) cb->addr_len = static_cast<unsigned int>(len);
        ZNRAsyncAdopt(cb, reinterpret_cast<ZNRNativeHandle>(accepted), true);
        return ZNR_PERFORM_DONE;
    }
    case ZNRAsyncIOCB::METHOD_CONNECT: {
        if (!known_ready && !ZNRAsyncWaitReady(cb, 0)) return ZNR_PERFORM_AGAIN;
        int value = 0;
        int len = sizeof(value);
        if (::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&value), &len) != 0) {
            value = ::WSAGetLastError();
        }
        cb->Complete(0, value == 0 ? 0 : ZNRSysError(value));
        return ZNR_PERFORM_DONE;
    }
    case ZNRAsyncIOCB::METHOD_NONE:
        break;
    }
    return ZNR_PERFORM_AGAIN;
}

void ZNRAsyncAdopt(ZNRAsyncIOCB* cb, ZNRNativeHandle fd, bool peer_known) {
    if (!peer_known && cb->addr != nullptr) {
        int len = static_cast<int>(cb->addr_len);
        bool const ok = ::getpeername(AsSocket(fd), static_cast<sockaddr*>(cb->addr), &len) == 0;
        cb->addr_len = ok ? static_cast<unsigned int>(len) : 0;
    }
    std::uint64_t rc = 0;
    if (cb->method == ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT) {
        rc = cb->SwitchFd(fd);
    } else {
        rc = cb->accept_into->Open(static_cast<ZNRSocket::Type_t>(cb->accept_type), fd);
        if (rc != 0) ::closesocket(AsSocket(fd));
    }
    cb->Complete(0, rc);
}

bool ZNRAsyncWaitReady(ZNRAsyncIOCB const* cb, int timeout_ms) {
    WSAPOLLFD p{};
    p.fd = AsSocket(cb->fd);
    p.events = cb->IsReadSide() ? POLLRDNORM : POLLWRNORM;
    return ::WSAPoll(&p, 1, timeout_ms) > 0;
}
