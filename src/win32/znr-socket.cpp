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

// The socket layer's counterpart of EINVAL, for checks made before any call.
int const kInvalid = WSAEINVAL;

SOCKET Sock(ZNRNativeHandle handle) { return reinterpret_cast<SOCKET>(handle); }

ZNRNativeHandle Handle(SOCKET s) { return reinterpret_cast<ZNRNativeHandle>(s); }

std::uint64_t LastSysError() { return ZNRSysError(WSAGetLastError()); }

// Best effort, as on Linux. TCP: urgent data stays in the stream, where
// reads find it in order, instead of being skipped. UDP: Windows would
// fail the next receive with WSAECONNRESET after a datagram sent to a
// closed port; Linux reports nothing on an unconnected socket.
void Tune(ZNRNativeHandle fd, ZNRSocket::Type_t type) {
    if (ZNRSocketIsTcp(type)) {
        ZNRSocketSetInt(fd, SO_OOBINLINE, 1);
        return;
    }
    BOOL report = FALSE;
    DWORD returned = 0;
    WSAIoctl(Sock(fd), SIO_UDP_CONNRESET, &report, sizeof(report), nullptr, 0, &returned, nullptr,
             nullptr);
}

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

std::uint64_t ZNRNetAddrInfo::InnerOpenAddr(sockaddr const* sa, unsigned int len) {
    if (sa == nullptr) return ZNRSysError(kInvalid);
    if (sa->sa_family != AF_INET && sa->sa_family != AF_INET6) return ZNRSysError(WSAEAFNOSUPPORT);
    // Room for an IPv6 text with a scope name.
    char host[64];
    char service[16];
    // Resolver failures are Winsock codes, with texts of their own.
    int const rc = getnameinfo(sa, static_cast<socklen_t>(len), host, sizeof(host), service,
                               sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
    if (rc != 0) return ZNRSysError(rc);
    type_ = sa->sa_family == AF_INET6 ? TYPE_IPV6 : TYPE_IPV4;
    addr_str_ = ZNRString(host);
    port_str_ = ZNRString(service);
    return 0;
}

std::uint64_t ZNRNetAddrInfo::StrAddrToNet(ZNRString const& text, unsigned int* addr) {
    unsigned long const value = inet_addr(text.ToStdCStr().c_str());
    if (addr != nullptr) *addr = static_cast<unsigned int>(value);
    return 0;
}

std::uint64_t ZNRNetAddrInfo::NetAddrToStr(unsigned int addr, ZNRString* text) {
    in_addr in;
    in.s_addr = addr;
    char buffer[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &in, buffer, sizeof(buffer)) == nullptr) return LastSysError();
    if (text != nullptr) *text = ZNRString(buffer, "chs");
    return 0;
}

std::uint64_t ZNRNetAddrInfo::GetLocalAddrs(std::map<ZNRString, unsigned int>* out) {
    if (out == nullptr) return ZNRSysError(kInvalid);
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
    if (rc != 0) return ZNRSysError(rc);
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

ZNRSocket::ZNRSocket() : type_(TYPE_NONE), fd_(ZNRNoHandle()) {}

ZNRSocket::~ZNRSocket() {
    if (ZNRIsHandle(fd_)) closesocket(Sock(fd_));
}

std::uint64_t ZNRSocket::Open(Type_t type, ZNRNativeHandle fd) {
    if (ZNRSocketKindOf(type) == nullptr) return ZNR_ERROR_BAD_SOCKET_TYPE;
    if (ZNRIsHandle(fd)) Tune(fd, type);
    type_ = type;
    fd_ = fd;
    return 0;
}

std::uint64_t ZNRSocket::Open(Type_t type) { return Create(type, false); }

std::uint64_t ZNRSocket::Create(Type_t type, bool non_blocking) {
    if (ZNRSocketKindOf(type) == nullptr) return ZNR_ERROR_BAD_SOCKET_TYPE;
    ZNRSocketKind const& kind = *ZNRSocketKindOf(type);
    // Overlapped for the completion port; not inherited by child processes.
    SOCKET const s = WSASocketW(kind.family, kind.type, kind.protocol, nullptr, 0,
                                WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (s == INVALID_SOCKET) return LastSysError();
    u_long on = 1;
    if (non_blocking && ioctlsocket(s, FIONBIO, &on) != 0) {
        std::uint64_t const rc = LastSysError();
        closesocket(s);
        return rc;
    }
    Tune(Handle(s), type);
    type_ = type;
    fd_ = Handle(s);
    return 0;
}

std::uint64_t ZNRSocket::Bind(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(kInvalid);
    if (::bind(Sock(fd_), addr->GetAddr(), static_cast<int>(addr->GetAddrLen())) != 0) {
        return LastSysError();
    }
    return 0;
}

std::uint64_t ZNRSocket::Listen(int backlog) {
    if (::listen(Sock(fd_), backlog) != 0) return LastSysError();
    return 0;
}

std::uint64_t ZNRSocket::Accept(ZNRSocket* client, ZNRNetAddrInfo* peer) {
    if (client == nullptr) return ZNRSysError(kInvalid);
    sockaddr_storage storage;
    sockaddr* sa = nullptr;
    int len = 0;
    int peer_len = 0;
    if (peer != nullptr) {
        if (!ZNRSocketIsTcp(type_)) return ZNR_ERROR_BAD_SOCKET_TYPE;
        peer_len = static_cast<int>(ZNRSocketKindOf(type_)->addr_len);
        len = peer_len;
        sa = reinterpret_cast<sockaddr*>(&storage);
    }
    // The accepted socket takes the listener's properties, blocking mode
    // and overlapped flag included.
    SOCKET const s = ::accept(Sock(fd_), sa, sa != nullptr ? &len : nullptr);
    if (s == INVALID_SOCKET) return LastSysError();
    // Whether the no-inherit flag passes on is not documented: clear it.
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    if (peer != nullptr) {
        std::uint64_t const rc = peer->Open(sa, static_cast<unsigned int>(std::min(len, peer_len)));
        if (rc != 0) {
            closesocket(s);
            return rc;
        }
    }
    Tune(Handle(s), type_);
    client->type_ = type_;
    client->fd_ = Handle(s);
    return 0;
}

std::uint64_t ZNRSocket::Connect(ZNRNetAddrInfo const* addr) {
    if (addr == nullptr || addr->GetAddr() == nullptr) return ZNRSysError(kInvalid);
    if (::connect(Sock(fd_), addr->GetAddr(), static_cast<int>(addr->GetAddrLen())) == 0) return 0;
    int const code = WSAGetLastError();
    // Winsock says "would block" for a connection under way; callers look
    // for "in progress", as Linux says it.
    return ZNRSysError(code == WSAEWOULDBLOCK ? WSAEINPROGRESS : code);
}

int ZNRSocket::Recv(unsigned char* buf, int len, std::uint64_t* err) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    // A zero-byte read would look like the peer's shutdown.
    if (len == 0) return 0;
    int const n = ::recv(Sock(fd_), reinterpret_cast<char*>(buf), len, 0);
    return RecvResult(n, len, err);
}

int ZNRSocket::RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    sockaddr_storage storage;
    sockaddr* sa = nullptr;
    int from_len = 0;
    int len_in = 0;
    if (from != nullptr) {
        if (ZNRSocketKindOf(type_) == nullptr) {
            ZNRStoreError(err, ZNR_ERROR_BAD_SOCKET_TYPE);
            return -1;
        }
        from_len = static_cast<int>(ZNRSocketKindOf(type_)->addr_len);
        len_in = from_len;
        sa = reinterpret_cast<sockaddr*>(&storage);
    }
    int const n = ::recvfrom(Sock(fd_), reinterpret_cast<char*>(buf), len, 0, sa,
                             sa != nullptr ? &len_in : nullptr);
    int const result = RecvResult(n, len, err);
    if (result > 0 && from != nullptr) {
        std::uint64_t const rc = from->Open(sa, static_cast<unsigned int>(std::min(len_in, from_len)));
        if (rc != 0) {
            ZNRStoreError(err, rc);
            return -1;
        }
    }
    return result;
}

// Windows has no SIGPIPE: a send to a closed peer only fails.
int ZNRSocket::Send(unsigned char const* buf, int len, std::uint64_t* err) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    int const n = ::send(Sock(fd_), reinterpret_cast<char const*>(buf), len, 0);
    return SendResult(n, err);
}

int ZNRSocket::SendTo(unsigned char const* buf, int len, std::uint64_t* err,
                      ZNRNetAddrInfo const* to) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    sockaddr const* sa = to != nullptr ? to->GetAddr() : nullptr;
    int const sa_len = sa != nullptr ? static_cast<int>(to->GetAddrLen()) : 0;
    // Winsock versions disagree on what an unconnected socket without a
    // destination reports; the caller is told what is missing.
    sockaddr_storage peer;
    int peer_len = sizeof(peer);
    if (sa == nullptr && ::getpeername(Sock(fd_), reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0 &&
        WSAGetLastError() == WSAENOTCONN) {
        ZNRStoreError(err, WSAEDESTADDRREQ);
        return -1;
    }
    int const n = ::sendto(Sock(fd_), reinterpret_cast<char const*>(buf), len, 0, sa, sa_len);
    return SendResult(n, err);
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

std::uint64_t ZNRSocket::GetError(std::uint64_t* err) {
    long value = 0;
    std::uint64_t const rc = ZNRSocketGetInt(fd_, SO_ERROR, &value);
    if (rc != 0) return rc;
    ZNRStoreError(err, ZNRSysError(static_cast<int>(value)));
    return 0;
}

std::uint64_t ZNRSocket::GetLocalInfo(ZNRNetAddrInfo* addr) {
    if (ZNRSocketKindOf(type_) == nullptr) return ZNR_ERROR_BAD_SOCKET_TYPE;
    if (addr == nullptr) return ZNRSysError(kInvalid);
    sockaddr_storage storage;
    int const want = static_cast<int>(ZNRSocketKindOf(type_)->addr_len);
    int len = want;
    auto* sa = reinterpret_cast<sockaddr*>(&storage);
    if (::getsockname(Sock(fd_), sa, &len) != 0) return LastSysError();
    return addr->Open(sa, static_cast<unsigned int>(std::min(len, want)));
}
