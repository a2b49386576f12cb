#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>
#include <plexa/znr-utils.h>

#include "znr-socket-platform.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <mswsock.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

// Sockets need WSAStartup, which ZNRInit() does.

namespace {

SOCKET Sock(ZNRNativeHandle handle) { return reinterpret_cast<SOCKET>(handle); }

ZNRNativeHandle Handle(SOCKET s) { return reinterpret_cast<ZNRNativeHandle>(s); }

std::uint64_t LastSysError() { return ZNRSysError(WSAGetLastError()); }


// Shared tail of Recv and RecvFrom: n is the system call's result for a
// buffer of len bytes.
int RecvResult(int n, int len, std::uint64_t* err) {
    if (n > 0) return n;
    if (n == 0) {
        ZNRStoreError(err, ZNR_ERROR_END_OF_STREAM);
        return -1;
    }
    int const code = WSAGetLastError();
    if (code == WSAEWOULDBLOCK) return 0;
    // A datagram longer than the buffer filled it; Linux returns that part.
    if (code == WSAEMSGSIZE) return len;
    ZNRStoreError(err, static_cast<std::uint32_t>(code));
    return -1;
}

int SendResult(int n, std::uint64_t* err) {
    if (n >= 0) return n;
    int const code = WSAGetLastError();
    if (code == WSAEWOULDBLOCK) return 0;
    ZNRStoreError(err, static_cast<std::uint32_t>(code));
    return -1;
}

} // namespace

int const kZNRSocketInvalid = WSAEINVAL;
int const kZNRSocketNoFamily = WSAEAFNOSUPPORT;

std::uint64_t ZNRSocketLastError() { return LastSysError(); }

// Resolver failures are Winsock codes, with texts of their own.
std::uint64_t ZNRResolverError(int rc) { return ZNRSysError(rc); }

// Overlapped for the completion port; not inherited by child processes.
std::uint64_t ZNRSocketMake(ZNRSocketKind const& kind, bool non_blocking, ZNRNativeHandle* fd) {
    SOCKET const s = WSASocketW(kind.family, kind.type, kind.protocol, nullptr, 0,
                                WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (s == INVALID_SOCKET) return LastSysError();
    u_long on = 1;
    if (non_blocking && ioctlsocket(s, FIONBIO, &on) != 0) {
        std::uint64_t const rc = LastSysError();
        closesocket(s);
        return rc;
    }
    *fd = Handle(s);
    return 0;
}

// Best effort, as on Linux. TCP: urgent data stays in the stream, where
// reads find it in order, instead of being skipped. UDP: Windows would
// fail the next receive with WSAECONNRESET after a datagram sent to a
// closed port; Linux reports nothing on an unconnected socket.
void ZNRSocketTune(ZNRNativeHandle fd, int type) {
    if (ZNRSocketIsTcp(type)) {
        ZNRSocketSetInt(fd, SO_OOBINLINE, 1);
        return;
    }
    BOOL report = FALSE;
    DWORD returned = 0;
    WSAIoctl(Sock(fd), SIO_UDP_CONNRESET, &report, sizeof(report), nullptr, 0, &returned, nullptr,
             nullptr);
}

void ZNRSocketCloseHandle(ZNRNativeHandle fd) { closesocket(Sock(fd)); }

// The accepted socket takes the listener's properties, blocking mode and
// overlapped flag included.
std::uint64_t ZNRSocketAcceptOne(ZNRNativeHandle listener, sockaddr* sa, int* len, ZNRNativeHandle* fd) {
    SOCKET const s = ::accept(Sock(listener), sa, len);
    if (s == INVALID_SOCKET) return LastSysError();
    // Whether the no-inherit flag passes on is not documented: clear it.
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    *fd = Handle(s);
    return 0;
}

int ZNRSocketRecvOne(ZNRNativeHandle fd, unsigned char* buf, int len, sockaddr* sa, int* sa_len,
                     std::uint64_t* err) {
    int const n = ::recvfrom(Sock(fd), reinterpret_cast<char*>(buf), len, 0, sa, sa_len);
    return RecvResult(n, len, err);
}

// Windows has no SIGPIPE: a send to a closed peer only fails.
int ZNRSocketSendOne(ZNRNativeHandle fd, unsigned char const* buf, int len, sockaddr const* sa, int sa_len,
                     std::uint64_t* err) {
    int const n = ::sendto(Sock(fd), reinterpret_cast<char const*>(buf), len, 0, sa, sa_len);
    return SendResult(n, err);
}

// Winsock versions disagree on what an unconnected socket without a
// destination reports; the caller is told what is missing.
int ZNRSocketSendToPeer(ZNRNativeHandle fd, unsigned char const* buf, int len, std::uint64_t* err) {
    sockaddr_storage peer;
    int peer_len = sizeof(peer);
    if (::getpeername(Sock(fd), reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0 &&
        WSAGetLastError() == WSAENOTCONN) {
        ZNRStoreError(err, WSAEDESTADDRREQ);
        return -1;
    }
    return ZNRSocketSendOne(fd, buf, len, nullptr, 0, err);
}

std::uint64_t ZNRSocketLocalName(ZNRNativeHandle fd, sockaddr* sa, int* len) {
    if (::getsockname(Sock(fd), sa, len) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocketSetInt(ZNRNativeHandle fd, int name, int value) {
    if (setsockopt(Sock(fd), SOL_SOCKET, name, reinterpret_cast<char const*>(&value),
                   sizeof(value)) != 0) {
        return LastSysError();
    }
    return 0;
}

std::uint64_t ZNRSocketGetInt(ZNRNativeHandle fd, int name, long* out) {
    int value = 0;
    int len = sizeof(value);
    if (getsockopt(Sock(fd), SOL_SOCKET, name, reinterpret_cast<char*>(&value), &len) != 0) {
        return LastSysError();
    }
    if (out != nullptr) *out = value;
    return 0;
}

std::uint64_t ZNRSocketSetTime(ZNRNativeHandle fd, int name, unsigned int ms) {
    DWORD value = ms;
    if (setsockopt(Sock(fd), SOL_SOCKET, name, reinterpret_cast<char const*>(&value),
                   sizeof(value)) != 0) {
        return LastSysError();
    }
    return 0;
}

std::uint64_t ZNRSocketGetTime(ZNRNativeHandle fd, int name, unsigned int* ms) {
    DWORD value = 0;
    int len = sizeof(value);
    if (getsockopt(Sock(fd), SOL_SOCKET, name, reinterpret_cast<char*>(&value), &len) != 0) {
        return LastSysError();
    }
    if (ms != nullptr) *ms = static_cast<unsigned int>(value);
    return 0;
}

// ---------------------------------------------------------------- addresses

std::uint64_t ZNRNetAddrInfo::StrAddrToNet(ZNRString const& text, unsigned int* addr) {
    unsigned long const value = inet_addr(text.ToStdCStr().c_str());
    if (addr != nullptr) *addr = static_cast<unsigned int>(value);
    return 0;
}

std::uint64_t ZNRNetAddrInfo::GetLocalAddrs(std::map<ZNRString, unsigned int>* out) {
    if (out == nullptr) return ZNRSysError(kZNRSocketInvalid);
    ULONG const flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    // The list can grow between the sizing call and the next one.
    std::vector<unsigned char> buffer(16 * 1024);
    ULONG rc;
    for (;;) {
        ULONG size = static_cast<ULONG>(buffer.size());
        rc = GetAdaptersAddresses(AF_INET, flags, nullptr,
                                  reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
        if (rc != ERROR_BUFFER_OVERFLOW) break;
        buffer.resize(size);
    }
    if (rc == ERROR_NO_DATA) return 0;
    if (rc != ERROR_SUCCESS) return ZNRSysError(static_cast<int>(rc));
    for (auto* p = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); p != nullptr;
         p = p->Next) {
        IP_ADAPTER_UNICAST_ADDRESS const* first = p->FirstUnicastAddress;
        if (first == nullptr || first->Address.lpSockaddr->sa_family != AF_INET) continue;
        sockaddr_in sin;
        std::memcpy(&sin, first->Address.lpSockaddr, sizeof(sin));
        ZNRString const name(reinterpret_cast<unsigned short const*>(p->FriendlyName));
        (*out)[name] = static_cast<unsigned int>(sin.sin_addr.s_addr);
    }
    return 0;
}

// ---------------------------------------------------------------- host info

std::uint64_t ZNRHostInfo::Open(ZNRString const& host, ZNRString const& service, bool ipv6) {
    Clear();
    ADDRINFOW hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_flags = host.empty() ? AI_PASSIVE : AI_CANONNAME;
    // The texts are UTF-16 already: the wide resolver needs no code page.
    ZNRStdWString const host_text = host.ToStdWStr();
    ZNRStdWString const service_text = service.ToStdWStr();
    ADDRINFOW* result = nullptr;
    int const rc = GetAddrInfoW(
        host.empty() ? nullptr : reinterpret_cast<wchar_t const*>(host_text.c_str()),
        service.empty() ? nullptr : reinterpret_cast<wchar_t const*>(service_text.c_str()), &hints,
        &result);
    if (rc != 0) return ZNRResolverError(rc);
    std::uint64_t code = 0;
    for (ADDRINFOW* p = result; p != nullptr && code == 0; p = p->ai_next) {
        code = AddResolved(p->ai_addr, static_cast<unsigned int>(p->ai_addrlen), p->ai_family == AF_INET6);
    }
    FreeAddrInfoW(result);
    if (code != 0) return code;
    host_ = host;
    service_ = service;
    return 0;
}

// ---------------------------------------------------------------- socket

std::uint64_t ZNRSocket::Bind(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(kZNRSocketInvalid);
    if (::bind(Sock(fd_), addr->GetAddr(), static_cast<int>(addr->GetAddrLen())) != 0) {
        return LastSysError();
    }
    return 0;
}

std::uint64_t ZNRSocket::Listen(int backlog) {
    if (::listen(Sock(fd_), backlog) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Connect(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(kZNRSocketInvalid);
    if (::connect(Sock(fd_), addr->GetAddr(), static_cast<int>(addr->GetAddrLen())) == 0) return 0;
    int const code = WSAGetLastError();
    // Winsock says "would block" for a connection under way; callers look
    // for "in progress", as Linux says it.
    return ZNRSysError(code == WSAEWOULDBLOCK ? WSAEINPROGRESS : code);
}

std::uint64_t ZNRSocket::CloseRecv() {
    if (::shutdown(Sock(fd_), SD_RECEIVE) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::CloseSend() {
    if (::shutdown(Sock(fd_), SD_SEND) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Close() {
    if (!ZNRIsHandle(fd_)) return ZNRSysError(WSAENOTSOCK);
    // Forgotten either way, as on Linux: a failed close is not retried.
    int const rc = closesocket(Sock(fd_));
    int const saved = WSAGetLastError();
    fd_ = ZNRNoHandle();
    return rc != 0 ? ZNRSysError(saved) : 0;
}

std::uint64_t ZNRSocket::NonBlock(bool on) {
    u_long value = on ? 1 : 0;
    if (ioctlsocket(Sock(fd_), FIONBIO, &value) != 0) return LastSysError();
    return 0;
}
