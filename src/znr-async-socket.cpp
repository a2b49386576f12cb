#include <plexa/znr-async-socket.h>
#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"

#include <cerrno>

namespace {

// Room for one address; twice that is reserved, as the accept buffer
// always was.
unsigned int AddrSlot(ZNRSocket::Type_t type) { return type == ZNRSocket::TYPE_TCP_V6 ? 56 : 32; }

int Started(std::uint64_t rc, std::uint64_t* err) {
    if (rc == 0) return 0;
    if (err != nullptr) *err = rc;
    return -1;
}

} // namespace

ZNRAsyncSocket::~ZNRAsyncSocket() { Detach(); }

std::uint64_t ZNRAsyncSocket::Open(Type_t type, ZNRNativeHandle fd) {
    std::uint64_t const rc = ZNRSocket::Open(type, fd);
    if (rc == 0) SetIOFd(fd);
    return rc;
}

std::uint64_t ZNRAsyncSocket::Open(Type_t type) {
    std::uint64_t const rc = Create(type, true);
    if (rc == 0) SetIOFd(GetFd());
    return rc;
}

std::uint64_t ZNRAsyncSocket::Connect(ZNRNetAddrInfo const* addr) { return ZNRAsyncConnect(this, addr); }

int ZNRAsyncSocket::Recv(unsigned char* buf, int len, std::uint64_t* err) {
    return Started(GetReadIOCB()->Begin(ZNRAsyncIOCB::OP_READ, ZNRAsyncIOCB::METHOD_RECV, buf, len),
                   err);
}

int ZNRAsyncSocket::RecvFrom(unsigned char* buf, int len, std::uint64_t* err,
                             ZNRNetAddrInfo* from) {
    if (from == nullptr) return Started(ZNRSysError(EINVAL), err);
    ZNRAsyncIOCB* const cb = GetReadIOCB();
    cb->addr = const_cast<sockaddr*>(from->GetAddr());
    cb->addr_len = from->GetAddrLen();
    return Started(cb->Begin(ZNRAsyncIOCB::OP_READ, ZNRAsyncIOCB::METHOD_RECVFROM, buf, len), err);
}

int ZNRAsyncSocket::Send(unsigned char const* buf, int len, std::uint64_t* err) {
    return Started(GetWriteIOCB()->Begin(ZNRAsyncIOCB::OP_WRITE, ZNRAsyncIOCB::METHOD_SEND,
                                         const_cast<unsigned char*>(buf), len),
                   err);
}

int ZNRAsyncSocket::SendTo(unsigned char const* buf, int len, std::uint64_t* err,
                           ZNRNetAddrInfo const* to) {
    if (to == nullptr) return Started(ZNRSysError(EDESTADDRREQ), err);
    ZNRAsyncIOCB* const cb = GetWriteIOCB();
    cb->addr = const_cast<sockaddr*>(to->GetAddr());
    cb->addr_len = to->GetAddrLen();
    return Started(cb->Begin(ZNRAsyncIOCB::OP_WRITE, ZNRAsyncIOCB::METHOD_SENDTO,
                             const_cast<unsigned char*>(buf), len),
                   err);
}

std::uint64_t ZNRAsyncSocket::Close() {
    Detach();
    return ZNRSocket::Close();
}

std::uint64_t ZNRAsyncSocket::Accept2(ZNRSocket* client, ZNRByteBuffer& buffer) {
    if (client == nullptr) return ZNRSysError(EINVAL);
    if (GetType() != TYPE_TCP_V4 && GetType() != TYPE_TCP_V6) return ZNR_ERROR_BAD_SOCKET_TYPE;
    unsigned int const slot = AddrSlot(GetType());
    if (buffer.GetCapacity() < 2 * slot) buffer.SetCapacity(2 * slot);
    if (buffer.GetCapacity() < 2 * slot) return ZNRSysError(ENOMEM);
    if (ZNRIsHandle(client->GetFd())) client->Close();
    ZNRAsyncIOCB* const cb = GetReadIOCB();
    cb->addr = buffer.GetData();
    cb->addr_len = slot;
    cb->accept_into = client;
    cb->accept_type = GetType();
    return cb->Begin(ZNRAsyncIOCB::OP_ACCEPT, ZNRAsyncIOCB::METHOD_ACCEPT, nullptr, 0);
}

std::uint64_t ZNRAsyncSocket::GetRemoteAddrFromAccept2Buffer(ZNRByteBuffer& buffer,
                                                             ZNRNetAddrInfo* addr) {
    ZNRAsyncIOCB const* const cb = GetReadIOCB();
    if (addr == nullptr || buffer.GetData() == nullptr || cb->addr != buffer.GetData()) {
        return ZNRSysError(EINVAL);
    }
    return addr->Open(static_cast<sockaddr const*>(cb->addr), cb->addr_len);
}
