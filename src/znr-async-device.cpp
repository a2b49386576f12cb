#include <plexa/znr-async-device.h>
#include <plexa/znr-async-socket.h>
#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>

#include "znr-fd-io.h"

#include <cerrno>

namespace {

// A started transfer gives 0; a refused start -1 with the reason kept.
int Started(ZNRDevice* device, std::uint64_t rc) {
    if (rc == 0) return 0;
    device->SetError(rc);
    return -1;
}

} // namespace

// ---------------------------------------------------------------- TCP

ZNRAsyncTcpDevice::ZNRAsyncTcpDevice() : async_socket_(nullptr), accept_socket_(nullptr) {}

ZNRAsyncTcpDevice::~ZNRAsyncTcpDevice() { ZNRAsyncTcpDevice::Close(); }

bool ZNRAsyncTcpDevice::Open(ZNRDeviceParam* param) {
    if (!ZNRTcpDevice::Open(param)) return false;
    async_socket_ = static_cast<ZNRAsyncSocket*>(socket_);
    return true;
}

ZNRSocket* ZNRAsyncTcpDevice::OnCreateSocket() { return new ZNRAsyncSocket(); }

ZNRAsyncIOCB* ZNRAsyncTcpDevice::GetReadIOCB() {
    return async_socket_ != nullptr ? async_socket_->GetReadIOCB() : ZNRAsyncIOWin32::GetReadIOCB();
}

ZNRAsyncIOCB* ZNRAsyncTcpDevice::GetWriteIOCB() {
    return async_socket_ != nullptr ? async_socket_->GetWriteIOCB()
                                    : ZNRAsyncIOWin32::GetWriteIOCB();
}

bool ZNRAsyncTcpDevice::BeginAccept() {
    if (async_socket_ == nullptr) {
        SetError(ZNRSysError(EBADF));
        return false;
    }
    if (accept_socket_ == nullptr) accept_socket_ = new ZNRAsyncSocket();
    std::uint64_t const rc = async_socket_->Accept2(accept_socket_, accept_buffer_);
    if (rc == 0) return true;
    SetError(rc);
    return false;
}

bool ZNRAsyncTcpDevice::Accept(ZNRDevice* client) {
    auto* c = dynamic_cast<ZNRAsyncTcpDevice*>(client);
    if (c == nullptr || c == this || async_socket_ == nullptr) {
        SetError(ZNRSysError(EINVAL));
        return false;
    }
    if (accept_socket_ == nullptr || !ZNRIsHandle(accept_socket_->GetFd())) {
        SetError(ZNRSysError(EAGAIN));  // no accept has completed
        return false;
    }
    c->Close();
    c->remote_addr_ = new ZNRNetAddrInfo(ZNRNetAddrInfo::TYPE_IPV4);
    std::uint64_t const rc =
        async_socket_->GetRemoteAddrFromAccept2Buffer(accept_buffer_, c->remote_addr_);
    if (rc != 0) {
        delete c->remote_addr_;
        c->remote_addr_ = nullptr;
        SetError(rc);
        return false;
    }
    c->socket_ = c->async_socket_ = accept_socket_;
    accept_socket_ = nullptr;
    c->MarkAccepted();
    return true;
}

bool ZNRAsyncTcpDevice::Close() {
    ZNRTcpDevice::Close();
    async_socket_ = nullptr;
    delete accept_socket_;
    accept_socket_ = nullptr;
    return true;
}

void ZNRAsyncTcpDevice::Destroy() { delete this; }

// ---------------------------------------------------------------- UDP

ZNRAsyncUdpDevice::~ZNRAsyncUdpDevice() { ZNRAsyncUdpDevice::Close(); }

bool ZNRAsyncUdpDevice::Open(ZNRDeviceParam* param) {
    if (!ZNRUdpDevice::Open(param)) return false;
    async_socket_ = static_cast<ZNRAsyncSocket*>(socket_);
    return true;
}

ZNRSocket* ZNRAsyncUdpDevice::OnCreateSocket() { return new ZNRAsyncSocket(); }

ZNRAsyncIOCB* ZNRAsyncUdpDevice::GetReadIOCB() {
    return async_socket_ != nullptr ? async_socket_->GetReadIOCB() : ZNRAsyncIOWin32::GetReadIOCB();
}

ZNRAsyncIOCB* ZNRAsyncUdpDevice::GetWriteIOCB() {
    return async_socket_ != nullptr ? async_socket_->GetWriteIOCB()
                                    : ZNRAsyncIOWin32::GetWriteIOCB();
}

int ZNRAsyncUdpDevice::Read(unsigned char* buf, int len) {
    // The system writes the sender straight into this address: it must
    // have room for the socket's family.
    if (last_recv_peer_ == nullptr && socket_ != nullptr) {
        last_recv_peer_ = new ZNRNetAddrInfo(socket_->GetType() == ZNRSocket::TYPE_UDP_V6
                                                 ? ZNRNetAddrInfo::TYPE_IPV6
                                                 : ZNRNetAddrInfo::TYPE_IPV4);
    }
    return ZNRUdpDevice::Read(buf, len);
}

bool ZNRAsyncUdpDevice::UpdateLastRecvPeerAddr() {
    if (last_recv_peer_ == nullptr) {
        SetError(ZNRSysError(EINVAL));
        return false;
    }
    std::uint64_t const rc = last_recv_peer_->Reopen();
    if (rc == 0) return true;
    SetError(rc);
    return false;
}

bool ZNRAsyncUdpDevice::Close() {
    ZNRUdpDevice::Close();
    async_socket_ = nullptr;
    return true;
}

void ZNRAsyncUdpDevice::Destroy() { delete this; }

// ---------------------------------------------------------------- any descriptor

ZNRAsyncUnknownDevice::~ZNRAsyncUnknownDevice() { ZNRAsyncUnknownDevice::Close(); }

bool ZNRAsyncUnknownDevice::Open(ZNRDeviceParam* param) {
    if (!ZNRUnknownDevice::Open(param)) return false;
    int const err = ZNRFdSetNonBlocking(fd_);
    if (err != 0) {
        Close();
        SetError(ZNRSysError(err));
        return false;
    }
    SetIOFd(fd_);
    return true;
}

int ZNRAsyncUnknownDevice::Read(unsigned char* buf, int len) {
    ZNRAsyncIOCB* const cb = GetReadIOCB();
    return Started(this, cb->Begin(cb->operation, ZNRAsyncIOCB::METHOD_READ, buf, len));
}

int ZNRAsyncUnknownDevice::Write(unsigned char const* buf, int len) {
    ZNRAsyncIOCB* const cb = GetWriteIOCB();
    return Started(this, cb->Begin(cb->operation, ZNRAsyncIOCB::METHOD_WRITE,
                                   const_cast<unsigned char*>(buf), len));
}

bool ZNRAsyncUnknownDevice::Close() {
    Detach();
    return ZNRUnknownDevice::Close();
}

void ZNRAsyncUnknownDevice::Destroy() { delete this; }
