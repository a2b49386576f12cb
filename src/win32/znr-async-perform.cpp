#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>
#include <plexa/znr-async-socket.h>
#include <plexa/znr-socket.h>

#include "znr-async-perform.h"

#include <algorithm>

// Control blocks that no engine watches run their request as a
// non-blocking socket call, and wait with WSAPoll; watched ones never come
// here on Windows, where the completion port carries every request out.
// Pipes have no readiness to wait for: a read takes what PeekNamedPipe
// shows, an accept waits until a client is there to peek at, and a write
// runs to its end on an event of its own.

namespace {

SOCKET AsSocket(ZNRNativeHandle h) { return reinterpret_cast<SOCKET>(h); }

bool IsSocket(ZNRNativeHandle h) {
    int type = 0;
    int len = sizeof(type);
    return ::getsockopt(AsSocket(h), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &len) == 0;
}

// One overlapped call on a pipe, waited for to its end: 0 or the error,
// the count in *bytes.
DWORD PipeCall(ZNRAsyncIOCB* cb, ZNRAsyncIOCB::Method_t how, DWORD len, DWORD* bytes) {
    OVERLAPPED ov{};
    ov.hEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ov.hEvent == nullptr) return ::GetLastError();
    HANDLE const h = static_cast<HANDLE>(cb->fd);
    BOOL ok = FALSE;
    if (how == ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT) {
        ok = ::ConnectNamedPipe(h, &ov);
    } else if (how == ZNRAsyncIOCB::METHOD_READ) {
        ok = ::ReadFile(h, cb->buf, len, nullptr, &ov);
    } else {
        ok = ::WriteFile(h, cb->buf, len, nullptr, &ov);
    }
    DWORD err = ok ? 0 : ::GetLastError();
    if (err == ERROR_IO_PENDING) err = ::GetOverlappedResult(h, &ov, bytes, TRUE) ? 0 : ::GetLastError();
    else if (err == 0) ::GetOverlappedResult(h, &ov, bytes, FALSE);
    ::CloseHandle(ov.hEvent);
    return err;
}

ZNRPerformResult PerformOnPipe(ZNRAsyncIOCB* cb) {
    DWORD bytes = 0;
    DWORD err = 0;
    switch (cb->method) {
    case ZNRAsyncIOCB::METHOD_RECV:
    case ZNRAsyncIOCB::METHOD_READ: {
        DWORD avail = 0;
        if (!::PeekNamedPipe(static_cast<HANDLE>(cb->fd), nullptr, 0, nullptr, &avail, nullptr)) {
            err = ::GetLastError();
        } else if (avail == 0) {
            return ZNR_PERFORM_AGAIN;
        } else {
            err = PipeCall(cb, ZNRAsyncIOCB::METHOD_READ, std::min<DWORD>(avail, static_cast<DWORD>(cb->len)),
                           &bytes);
        }
        break;
    }
    case ZNRAsyncIOCB::METHOD_SEND:
    case ZNRAsyncIOCB::METHOD_WRITE:
        err = PipeCall(cb, ZNRAsyncIOCB::METHOD_WRITE, static_cast<DWORD>(cb->len), &bytes);
        break;
    case ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT:
        // A listening instance cannot be peeked at: no client yet.
        if (!::PeekNamedPipe(static_cast<HANDLE>(cb->fd), nullptr, 0, nullptr, nullptr, nullptr) &&
            ::GetLastError() == ERROR_BAD_PIPE) {
            return ZNR_PERFORM_AGAIN;
        }
        err = PipeCall(cb, ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT, 0, &bytes);
        // The client came first: that is the connection.
        if (err == ERROR_PIPE_CONNECTED) err = 0;
        break;
    default:
        return ZNR_PERFORM_AGAIN;
    }
    // A pipe whose writer left reads as ended, as a socket does.
    if (err == ERROR_BROKEN_PIPE || err == ERROR_HANDLE_EOF) err = 0;
    cb->Complete(static_cast<int>(bytes), err == 0 ? 0 : ZNRSysError(static_cast<int>(err)));
    return ZNR_PERFORM_DONE;
}

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

ZNRPerformResult ZNRAsyncPerform(ZNRAsyncIOCB* cb, bool) {
    if (!IsSocket(cb->fd)) return PerformOnPipe(cb);
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
    case ZNRAsyncIOCB::METHOD_CONNECT:
        // ConnectEx goes out once an engine watches the socket.
        return ZNR_PERFORM_AGAIN;
    case ZNRAsyncIOCB::METHOD_NONE:
        break;
    }
    return ZNR_PERFORM_AGAIN;
}

// ConnectEx starts it when the engine issues the write side's operation,
// then or once the socket is watched: a plain connect() first would leave
// ConnectEx a socket that is connecting already.
std::uint64_t ZNRAsyncConnect(ZNRAsyncSocket* socket, ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(WSAEINVAL);
    ZNRAsyncIOCB* const cb = socket->GetWriteIOCB();
    cb->addr = const_cast<sockaddr*>(addr->GetAddr());
    cb->addr_len = addr->GetAddrLen();
    return cb->Begin(ZNRAsyncIOCB::OP_CONNECT, ZNRAsyncIOCB::METHOD_CONNECT, nullptr, 0);
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
    if (!IsSocket(cb->fd)) {
        // Looked at again a millisecond later.
        ::Sleep(timeout_ms < 0 ? 1 : std::min(timeout_ms, 1));
        return true;
    }
    WSAPOLLFD p{};
    p.fd = AsSocket(cb->fd);
    p.events = cb->IsReadSide() ? POLLRDNORM : POLLWRNORM;
    return ::WSAPoll(&p, 1, timeout_ms) > 0;
}
