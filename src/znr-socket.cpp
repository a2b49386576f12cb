#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>
#include <plexa/znr-utils.h>

#include "znr-socket-platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

// The address records' layouts and copies; resolving and the sockets
// themselves are the platform's.

namespace {

sockaddr* NewAddrBuffer(unsigned int len) {
    auto* p = new unsigned char[len];
    std::memset(p, 0, len);
    return reinterpret_cast<sockaddr*>(p);
}

void FreeAddrBuffer(sockaddr* addr) { delete[] reinterpret_cast<unsigned char*>(addr); }

}  // namespace

ZNRSocketKind const* ZNRSocketKindOf(int type) {
    static ZNRSocketKind const kinds[] = {
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, sizeof(sockaddr_in)},
        {AF_INET6, SOCK_STREAM, IPPROTO_TCP, sizeof(sockaddr_in6)},
        {AF_INET, SOCK_DGRAM, IPPROTO_UDP, sizeof(sockaddr_in)},
        {AF_INET6, SOCK_DGRAM, IPPROTO_UDP, sizeof(sockaddr_in6)},
    };
    return type >= ZNRSocket::TYPE_TCP_V4 && type <= ZNRSocket::TYPE_UDP_V6 ? &kinds[type] : nullptr;
}

bool ZNRSocketIsTcp(int type) { return type == ZNRSocket::TYPE_TCP_V4 || type == ZNRSocket::TYPE_TCP_V6; }

void ZNRStoreError(std::uint64_t* err, std::uint64_t code) {
    if (err != nullptr) *err = code;
}

bool ZNRSocketBadLength(unsigned char const* buf, int len, std::uint64_t* err) {
    if (len >= 0 && (buf != nullptr || len == 0)) return false;
    ZNRStoreError(err, EINVAL);
    return true;
}

// ---------------------------------------------------------------- addresses

ZNRNetAddrInfo::ZNRNetAddrInfo(Type_t type) : addr_(nullptr), addr_len_(0), type_(TYPE_IPV4) {
    if (type == TYPE_IPV6) {
        type_ = TYPE_IPV6;
        addr_len_ = sizeof(sockaddr_in6);
        addr_ = NewAddrBuffer(addr_len_);
        addr_->sa_family = AF_INET6;
    } else {
        addr_len_ = sizeof(sockaddr_in);
        addr_ = NewAddrBuffer(addr_len_);
        addr_->sa_family = AF_INET;
    }
}

ZNRNetAddrInfo::ZNRNetAddrInfo(ZNRNetAddrInfo const& other)
    : addr_(nullptr), addr_len_(0), type_(other.type_), addr_str_(other.addr_str_),
      port_str_(other.port_str_) {
    if (other.addr_ != nullptr) {
        addr_ = NewAddrBuffer(other.addr_len_);
        std::memcpy(addr_, other.addr_, other.addr_len_);
        addr_len_ = other.addr_len_;
    }
}

ZNRNetAddrInfo& ZNRNetAddrInfo::operator=(ZNRNetAddrInfo const& other) {
    if (this == &other) return *this;
    FreeAddrBuffer(addr_);
    addr_ = nullptr;
    addr_len_ = 0;
    addr_str_.clear();
    port_str_.clear();
    if (other.addr_ == nullptr) return *this;
    addr_ = NewAddrBuffer(other.addr_len_);
    std::memcpy(addr_, other.addr_, other.addr_len_);
    addr_len_ = other.addr_len_;
    type_ = other.type_;
    addr_str_ = other.addr_str_;
    port_str_ = other.port_str_;
    return *this;
}

ZNRNetAddrInfo::~ZNRNetAddrInfo() { FreeAddrBuffer(addr_); }

std::uint64_t ZNRNetAddrInfo::Open(ZNRString const& port, ZNRString const& ip) {
    unsigned short port_num = 0;
    if (!ZNRStrToUInt16(port, &port_num)) return EINVAL;
    unsigned int ip_num = 0;
    StrAddrToNet(ip, &ip_num);
    if (addr_ == nullptr || addr_len_ < sizeof(sockaddr_in)) {
        FreeAddrBuffer(addr_);
        addr_ = NewAddrBuffer(sizeof(sockaddr_in));
    }
    sockaddr_in sin;
    std::memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port_num);
    sin.sin_addr.s_addr = ip_num;
    std::memset(addr_, 0, addr_len_ > sizeof(sin) ? addr_len_ : sizeof(sin));
    std::memcpy(addr_, &sin, sizeof(sin));
    type_ = TYPE_IPV4;
    addr_len_ = sizeof(sockaddr_in);
    addr_str_ = ip;
    port_str_ = port;
    return 0;
}

std::uint64_t ZNRNetAddrInfo::Open() { return InnerOpenAddr(addr_, addr_len_); }

std::uint64_t ZNRNetAddrInfo::Open(sockaddr const* sa, unsigned int len) {
    std::uint64_t const rc = InnerOpenAddr(sa, len);
    if (rc != 0) return rc;
    sockaddr* copy = NewAddrBuffer(len);
    std::memcpy(copy, sa, len);
    FreeAddrBuffer(addr_);
    addr_ = copy;
    addr_len_ = len;
    return 0;
}

std::uint64_t ZNRNetAddrInfo::Reopen() { return InnerOpenAddr(addr_, addr_len_); }

std::uint64_t ZNRNetAddrInfo::InnerOpenAddr(sockaddr const* sa, unsigned int len) {
    if (sa == nullptr) return ZNRSysError(kZNRSocketInvalid);
    // The resolver also names local-socket addresses; only IP ones are ours.
    if (sa->sa_family != AF_INET && sa->sa_family != AF_INET6) return ZNRSysError(kZNRSocketNoFamily);
    // Room for an IPv6 text with a scope name.
    char host[64];
    char service[16];
    int const rc = getnameinfo(sa, static_cast<ZNRSockLen>(len), host, sizeof(host), service,
                               sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
    if (rc != 0) return ZNRResolverError(rc);
    type_ = sa->sa_family == AF_INET6 ? TYPE_IPV6 : TYPE_IPV4;
    addr_str_ = ZNRString(host);
    port_str_ = ZNRString(service);
    return 0;
}

std::uint64_t ZNRNetAddrInfo::NetAddrToStr(unsigned int addr, ZNRString* text) {
    in_addr in;
    in.s_addr = addr;
    char buffer[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &in, buffer, sizeof(buffer)) == nullptr) return ZNRSocketLastError();
    if (text != nullptr) *text = ZNRString(buffer, "chs");
    return 0;
}

// ---------------------------------------------------------------- host info

ZNRHostInfo::ZNRHostInfo() {}

ZNRHostInfo::ZNRHostInfo(ZNRHostInfo const& other)
    : host_(other.host_), service_(other.service_) {
    CopyAddrs(other);
}

ZNRHostInfo& ZNRHostInfo::operator=(ZNRHostInfo const& other) {
    if (this == &other) return *this;
    Clear();
    host_ = other.host_;
    service_ = other.service_;
    CopyAddrs(other);
    return *this;
}

ZNRHostInfo::~ZNRHostInfo() { Clear(); }

void ZNRHostInfo::Clear() {
    for (ZNRNetAddrInfo* addr : *addr_infos_) delete addr;
    addr_infos_->clear();
}

void ZNRHostInfo::CopyAddrs(ZNRHostInfo const& other) {
    addr_infos_->reserve(other.addr_infos_->size());
    for (ZNRNetAddrInfo const* addr : *other.addr_infos_) {
        addr_infos_->push_back(new ZNRNetAddrInfo(*addr));
    }
}

// Without a socket type the resolver repeats each address once per socket
// type; the list keeps each address once.
std::uint64_t ZNRHostInfo::AddResolved(sockaddr const* sa, unsigned int len, bool ipv6) {
    for (ZNRNetAddrInfo const* known : *addr_infos_) {
        if (known->GetAddrLen() == len && std::memcmp(known->GetAddr(), sa, len) == 0) return 0;
    }
    auto* addr = new ZNRNetAddrInfo(ipv6 ? ZNRNetAddrInfo::TYPE_IPV6 : ZNRNetAddrInfo::TYPE_IPV4);
    std::uint64_t const code = addr->Open(sa, len);
    if (code != 0) {
        delete addr;
        return code;
    }
    addr_infos_->push_back(addr);
    return 0;
}

// ---------------------------------------------------------------- sockets

ZNRSocket::ZNRSocket() : type_(TYPE_NONE), fd_(ZNRNoHandle()) {}

ZNRSocket::~ZNRSocket() {
    if (ZNRIsHandle(fd_)) ZNRSocketCloseHandle(fd_);
}

std::uint64_t ZNRSocket::Open(Type_t type, ZNRNativeHandle fd) {
    if (ZNRSocketKindOf(type) == nullptr) return ZNR_ERROR_BAD_SOCKET_TYPE;
    if (ZNRIsHandle(fd)) ZNRSocketTune(fd, type);
    type_ = type;
    fd_ = fd;
    return 0;
}

std::uint64_t ZNRSocket::Open(Type_t type) { return Create(type, false); }

std::uint64_t ZNRSocket::Create(Type_t type, bool non_blocking) {
    ZNRSocketKind const* const kind = ZNRSocketKindOf(type);
    if (kind == nullptr) return ZNR_ERROR_BAD_SOCKET_TYPE;
    ZNRNativeHandle fd = ZNRNoHandle();
    std::uint64_t const rc = ZNRSocketMake(*kind, non_blocking, &fd);
    if (rc != 0) return rc;
    ZNRSocketTune(fd, type);
    type_ = type;
    fd_ = fd;
    return 0;
}

std::uint64_t ZNRSocket::Accept(ZNRSocket* client, ZNRNetAddrInfo* peer) {
    if (client == nullptr) return ZNRSysError(kZNRSocketInvalid);
    sockaddr_storage storage;
    sockaddr* sa = nullptr;
    ZNRSockLen len = 0;
    ZNRSockLen peer_len = 0;
    if (peer != nullptr) {
        if (!ZNRSocketIsTcp(type_)) return ZNR_ERROR_BAD_SOCKET_TYPE;
        peer_len = static_cast<ZNRSockLen>(ZNRSocketKindOf(type_)->addr_len);
        len = peer_len;
        sa = reinterpret_cast<sockaddr*>(&storage);
    }
    ZNRNativeHandle fd = ZNRNoHandle();
    std::uint64_t rc = ZNRSocketAcceptOne(fd_, sa, sa != nullptr ? &len : nullptr, &fd);
    if (rc != 0) return rc;
    if (peer != nullptr) {
        rc = peer->Open(sa, static_cast<unsigned int>(std::min(len, peer_len)));
        if (rc != 0) {
            ZNRSocketCloseHandle(fd);
            return rc;
        }
    }
    ZNRSocketTune(fd, type_);
    client->type_ = type_;
    client->fd_ = fd;
    return 0;
}

int ZNRSocket::Recv(unsigned char* buf, int len, std::uint64_t* err) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    // A zero-byte read would look like the peer's shutdown.
    if (len == 0) return 0;
    return ZNRSocketRecvOne(fd_, buf, len, nullptr, nullptr, err);
}

int ZNRSocket::RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    sockaddr_storage storage;
    sockaddr* sa = nullptr;
    ZNRSockLen from_len = 0;
    ZNRSockLen len_in = 0;
    if (from != nullptr) {
        if (ZNRSocketKindOf(type_) == nullptr) {
            ZNRStoreError(err, ZNR_ERROR_BAD_SOCKET_TYPE);
            return -1;
        }
        from_len = static_cast<ZNRSockLen>(ZNRSocketKindOf(type_)->addr_len);
        len_in = from_len;
        sa = reinterpret_cast<sockaddr*>(&storage);
    }
    int const result = ZNRSocketRecvOne(fd_, buf, len, sa, sa != nullptr ? &len_in : nullptr, err);
    if (result > 0 && from != nullptr) {
        std::uint64_t const rc = from->Open(sa, static_cast<unsigned int>(std::min(len_in, from_len)));
        if (rc != 0) {
            ZNRStoreError(err, rc);
            return -1;
        }
    }
    return result;
}

int ZNRSocket::Send(unsigned char const* buf, int len, std::uint64_t* err) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    return ZNRSocketSendOne(fd_, buf, len, nullptr, 0, err);
}

int ZNRSocket::SendTo(unsigned char const* buf, int len, std::uint64_t* err, ZNRNetAddrInfo const* to) {
    if (ZNRSocketBadLength(buf, len, err)) return -1;
    sockaddr const* const sa = to != nullptr ? to->GetAddr() : nullptr;
    if (sa == nullptr) return ZNRSocketSendToPeer(fd_, buf, len, err);
    return ZNRSocketSendOne(fd_, buf, len, sa, static_cast<ZNRSockLen>(to->GetAddrLen()), err);
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
    if (addr == nullptr) return ZNRSysError(kZNRSocketInvalid);
    sockaddr_storage storage;
    ZNRSockLen const want = static_cast<ZNRSockLen>(ZNRSocketKindOf(type_)->addr_len);
    ZNRSockLen len = want;
    auto* const sa = reinterpret_cast<sockaddr*>(&storage);
    std::uint64_t const rc = ZNRSocketLocalName(fd_, sa, &len);
    if (rc != 0) return rc;
    return addr->Open(sa, static_cast<unsigned int>(std::min(len, want)));
}

// ---------------------------------------------------------------- socket options

std::uint64_t ZNRSocket::ReuseAddress(bool on) { return ZNRSocketSetInt(fd_, SO_REUSEADDR, on ? 1 : 0); }

std::uint64_t ZNRSocket::GetSendBufferSize(long* size) { return ZNRSocketGetInt(fd_, SO_SNDBUF, size); }

std::uint64_t ZNRSocket::SetSendBufferSize(long size) {
    return ZNRSocketSetInt(fd_, SO_SNDBUF, static_cast<int>(size));
}

std::uint64_t ZNRSocket::GetRecvBufferSize(long* size) { return ZNRSocketGetInt(fd_, SO_RCVBUF, size); }

std::uint64_t ZNRSocket::SetRecvBufferSize(long size) {
    return ZNRSocketSetInt(fd_, SO_RCVBUF, static_cast<int>(size));
}

std::uint64_t ZNRSocket::SetRecvTimeout(unsigned int ms) { return ZNRSocketSetTime(fd_, SO_RCVTIMEO, ms); }

std::uint64_t ZNRSocket::GetRecvTimeout(unsigned int* ms) { return ZNRSocketGetTime(fd_, SO_RCVTIMEO, ms); }

std::uint64_t ZNRSocket::SetSendTimeout(unsigned int ms) { return ZNRSocketSetTime(fd_, SO_SNDTIMEO, ms); }

std::uint64_t ZNRSocket::GetSendTimeout(unsigned int* ms) { return ZNRSocketGetTime(fd_, SO_SNDTIMEO, ms); }
