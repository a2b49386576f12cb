#include <plexa/znr-blocking-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-socket.h>

#include "znr-error-platform.h"
#include "znr-fd-io.h"

#include <cerrno>
#include <cstring>

namespace {

std::uint64_t const kBadParam = ZNRSysError(EINVAL);
std::uint64_t const kNoSocket = ZNRSysError(EBADF);

// Shared by the TCP and UDP devices: the stored address unless it is
// missing or still carries the ephemeral port 0.
ZNRNetAddrInfo const* BindAddrOf(ZNRSocket* socket, ZNRNetAddrInfo*& local, std::uint64_t* err) {
    if (local != nullptr && local->GetPortStr() != ZNRString(u"0")) return local;
    std::uint64_t rc = kNoSocket;
    if (socket != nullptr) {
        if (local == nullptr) local = new ZNRNetAddrInfo(ZNRNetAddrInfo::TYPE_IPV4);
        rc = socket->GetLocalInfo(local);
        if (rc == 0) return local;
    }
    if (err != nullptr) *err = rc;
    delete local;
    local = nullptr;
    return nullptr;
}

// True when rc is 0; otherwise the device keeps it as its last error.
bool Kept(ZNRDevice* device, std::uint64_t rc) {
    if (rc == 0) return true;
    device->SetError(rc);
    return false;
}

// A byte count from a socket call, or -1 with the reason kept in the device.
template <class Call>
int Transfer(ZNRDevice* device, ZNRSocket* socket, Call call) {
    if (socket == nullptr) {
        device->SetError(kNoSocket);
        return -1;
    }
    std::uint64_t err = 0;
    int const n = call(socket, &err);
    if (n < 0) {
        device->SetError(err);
        return -1;
    }
    return n;
}

bool BadBuffer(void const* buf, int len) { return len < 0 || (buf == nullptr && len > 0); }

} // namespace

// ---------------------------------------------------------------- TCP

ZNRTcpDevice::ZNRTcpDevice()
    : socket_(nullptr), closed_(true), eof_(true), local_addr_(nullptr), remote_addr_(nullptr),
      recv_timeout_(0), send_timeout_(0) {
    SetType(TYPE_CLOSED);
}

ZNRTcpDevice::~ZNRTcpDevice() { ZNRTcpDevice::Close(); }

void ZNRTcpDevice::SetError(std::uint64_t err) {
    ZNRDevice::SetError(err);
    eof_ = err == ZNR_ERROR_END_OF_STREAM;
}

bool ZNRTcpDevice::Open(ZNRDeviceParam* param) {
    if (!closed_) Close();
    auto* p = dynamic_cast<ZNRTcpDeviceParam*>(param);
    if (p == nullptr) {
        Close();
        SetError(kBadParam);
        return false;
    }
    if (p->local_addr != nullptr) local_addr_ = new ZNRNetAddrInfo(*p->local_addr);
    if (p->remote_addr != nullptr) remote_addr_ = new ZNRNetAddrInfo(*p->remote_addr);
    recv_timeout_ = p->recv_timeout;
    send_timeout_ = p->send_timeout;
    bool const listening = remote_addr_ == nullptr;

    socket_ = OnCreateSocket();
    std::uint64_t rc = socket_->Open(p->ipv6 ? ZNRSocket::TYPE_TCP_V6 : ZNRSocket::TYPE_TCP_V4);
    if (rc == 0) {
        if (listening) {
            rc = socket_->ReuseAddress(true);
        } else {
            if (recv_timeout_ > 0) rc = socket_->SetRecvTimeout(recv_timeout_);
            if (rc == 0 && send_timeout_ > 0) rc = socket_->SetSendTimeout(send_timeout_);
        }
    }
    if (rc == 0 && local_addr_ != nullptr) rc = socket_->Bind(local_addr_);
    if (rc == 0 && p->non_block) rc = socket_->NonBlock(true);
    if (rc == 0 && listening) rc = socket_->Listen(p->backlog);
    if (rc != 0) {
        Close();
        SetError(rc);
        return false;
    }

    ZNRString local_ip;
    ZNRString local_port;
    if (local_addr_ != nullptr) {
        local_ip = local_addr_->GetAddrStr();
        local_port = local_addr_->GetPortStr();
    }
    if (listening) {
        desc_ = ZNRString(u"tcp listen , listen ip=") + local_ip + ZNRString(u" listen port=") +
                local_port;
    } else {
        desc_ = ZNRString(u"tcp client ,");
        if (local_addr_ != nullptr) {
            desc_ += ZNRString(u" local ip=") + local_ip + ZNRString(u" local port=") + local_port;
        }
        desc_ += ZNRString(u" remote ip=") + remote_addr_->GetAddrStr() +
                 ZNRString(u" remote port=") + remote_addr_->GetPortStr();
    }
    closed_ = false;
    eof_ = false;
    SetType(listening ? TYPE_TCP_LISTEN : TYPE_TCP_CLIENT);
    return true;
}

bool ZNRTcpDevice::Connect() {
    if (socket_ == nullptr) {
        SetError(kNoSocket);
        return false;
    }
    std::uint64_t const rc = socket_->Connect(remote_addr_);
    // A non-blocking connect under way counts as started.
    if (rc == 0 || ZNRPlatformIsInProgress(rc)) return true;
    SetError(rc);
    return false;
}

bool ZNRTcpDevice::Accept(ZNRDevice* client) {
    auto* c = dynamic_cast<ZNRTcpDevice*>(client);
    if (c == nullptr || c == this) {
        SetError(kBadParam);
        return false;
    }
    if (socket_ == nullptr) {
        SetError(kNoSocket);
        return false;
    }
    c->Close();
    c->socket_ = OnCreateSocket();
    c->remote_addr_ = new ZNRNetAddrInfo(ZNRNetAddrInfo::TYPE_IPV4);
    std::uint64_t rc = socket_->Accept(c->socket_, c->remote_addr_);
    if (rc == 0 && recv_timeout_ > 0) rc = c->socket_->SetRecvTimeout(recv_timeout_);
    if (rc == 0 && send_timeout_ > 0) rc = c->socket_->SetSendTimeout(send_timeout_);
    if (rc != 0) {
        SetError(rc);
        c->Close();
        return false;
    }
    c->MarkAccepted();
    return true;
}

void ZNRTcpDevice::MarkAccepted() {
    closed_ = false;
    eof_ = false;
    SetType(TYPE_TCP_ACCEPTED);
}

// Most connections a server holds are never described: the text would
// cost each of them more than a hundred bytes for nothing. An open device
// with a peer and no text yet is an accepted one: clients get theirs at Open.
ZNRString const& ZNRTcpDevice::GetDescInfo() const {
    if (desc_.empty() && !closed_ && remote_addr_ != nullptr) {
        desc_ = ZNRString(u"Tcp accept client, remote ip=") + remote_addr_->GetAddrStr() +
                ZNRString(u" remote port=") + remote_addr_->GetPortStr();
    }
    return desc_;
}

int ZNRTcpDevice::Read(unsigned char* buf, int len) {
    return Transfer(this, socket_, [&](ZNRSocket* s, std::uint64_t* err) { return s->Recv(buf, len, err); });
}

int ZNRTcpDevice::Write(unsigned char const* buf, int len) {
    return Transfer(this, socket_, [&](ZNRSocket* s, std::uint64_t* err) { return s->Send(buf, len, err); });
}

ZNRNativeHandle ZNRTcpDevice::GetFd() { return socket_ != nullptr ? socket_->GetFd() : ZNRNoHandle(); }

bool ZNRTcpDevice::CloseRead() { return Kept(this, socket_ != nullptr ? socket_->CloseRecv() : kNoSocket); }

bool ZNRTcpDevice::CloseWrite() { return Kept(this, socket_ != nullptr ? socket_->CloseSend() : kNoSocket); }

bool ZNRTcpDevice::Close() {
    delete local_addr_;
    local_addr_ = nullptr;
    delete remote_addr_;
    remote_addr_ = nullptr;
    delete socket_;
    socket_ = nullptr;
    SetType(TYPE_CLOSED);
    closed_ = true;
    eof_ = true;
    desc_.clear();
    return true;
}

void ZNRTcpDevice::Destroy() { delete this; }

ZNRSocket* ZNRTcpDevice::GetSocket() { return closed_ ? nullptr : socket_; }

ZNRNetAddrInfo const* ZNRTcpDevice::GetBindAddr(std::uint64_t* err) {
    return BindAddrOf(socket_, local_addr_, err);
}

ZNRNetAddrInfo const* ZNRTcpDevice::GetRemoteAddr() const { return remote_addr_; }

ZNRSocket* ZNRTcpDevice::OnCreateSocket() { return new ZNRSocket(); }

// ---------------------------------------------------------------- UDP

ZNRUdpDevice::ZNRUdpDevice()
    : socket_(nullptr), closed_(true), eof_(true), local_addr_(nullptr), last_recv_peer_(nullptr),
      last_send_peer_(nullptr) {
    SetType(TYPE_UDP);
}

ZNRUdpDevice::~ZNRUdpDevice() { ZNRUdpDevice::Close(); }

void ZNRUdpDevice::SetError(std::uint64_t err) {
    ZNRDevice::SetError(err);
    eof_ = err == ZNR_ERROR_END_OF_STREAM;
}

bool ZNRUdpDevice::Open(ZNRDeviceParam* param) {
    if (!closed_) Close();
    auto* p = dynamic_cast<ZNRUdpDeviceParam*>(param);
    if (p == nullptr) {
        Close();
        SetError(kBadParam);
        return false;
    }
    if (p->local_addr != nullptr) local_addr_ = new ZNRNetAddrInfo(*p->local_addr);
    socket_ = OnCreateSocket();
    std::uint64_t rc = socket_->Open(p->ipv6 ? ZNRSocket::TYPE_UDP_V6 : ZNRSocket::TYPE_UDP_V4);
    if (rc == 0 && p->recv_timeout > 0) rc = socket_->SetRecvTimeout(p->recv_timeout);
    if (rc == 0 && p->send_timeout > 0) rc = socket_->SetSendTimeout(p->send_timeout);
    if (rc == 0 && local_addr_ != nullptr) rc = socket_->Bind(local_addr_);
    if (rc == 0 && p->non_block) rc = socket_->NonBlock(true);
    if (rc != 0) {
        Close();
        SetError(rc);
        return false;
    }
    desc_ = ZNRString(u"udp ");
    if (local_addr_ != nullptr) {
        desc_ += ZNRString(u" , local ip=") + local_addr_->GetAddrStr() +
                 ZNRString(u" local port=") + local_addr_->GetPortStr();
    }
    closed_ = false;
    eof_ = false;
    return true;
}

int ZNRUdpDevice::Read(unsigned char* buf, int len) {
    if (last_recv_peer_ == nullptr) last_recv_peer_ = new ZNRNetAddrInfo(ZNRNetAddrInfo::TYPE_IPV4);
    int n = -1;
    if (socket_ != nullptr) n = socket_->RecvFrom(buf, len, nullptr, last_recv_peer_);
    // Hosts read the datagram's length from the error slot.
    SetError(static_cast<std::uint64_t>(static_cast<std::int64_t>(n)));
    return -1;
}

int ZNRUdpDevice::Write(unsigned char const* buf, int len) {
    if (last_send_peer_ == nullptr) {
        SetError(ZNR_ERROR_NO_DESTINATION);
        return -1;
    }
    return Transfer(this, socket_, [&](ZNRSocket* s, std::uint64_t* err) {
        return s->SendTo(buf, len, err, last_send_peer_);
    });
}

ZNRNativeHandle ZNRUdpDevice::GetFd() { return socket_ != nullptr ? socket_->GetFd() : ZNRNoHandle(); }

bool ZNRUdpDevice::CloseRead() { return Kept(this, socket_ != nullptr ? socket_->CloseRecv() : kNoSocket); }

bool ZNRUdpDevice::CloseWrite() { return Kept(this, socket_ != nullptr ? socket_->CloseSend() : kNoSocket); }

bool ZNRUdpDevice::Close() {
    delete local_addr_;
    local_addr_ = nullptr;
    delete last_send_peer_;
    last_send_peer_ = nullptr;
    delete last_recv_peer_;
    last_recv_peer_ = nullptr;
    delete socket_;
    socket_ = nullptr;
    desc_.clear();
    closed_ = true;
    eof_ = true;
    return true;
}

void ZNRUdpDevice::Destroy() { delete this; }

ZNRNetAddrInfo const* ZNRUdpDevice::GetLastRecvPeerAddr() const { return last_recv_peer_; }

void ZNRUdpDevice::SetNextSendPeerAddr(ZNRNetAddrInfo const* addr) {
    if (last_recv_peer_ == nullptr) last_recv_peer_ = new ZNRNetAddrInfo(ZNRNetAddrInfo::TYPE_IPV4);
    if (addr == nullptr) {
        delete last_send_peer_;
        last_send_peer_ = nullptr;
    } else if (last_send_peer_ == nullptr) {
        last_send_peer_ = new ZNRNetAddrInfo(*addr);
    } else {
        *last_send_peer_ = *addr;
    }
}

ZNRNetAddrInfo const* ZNRUdpDevice::GetLastSendPeerAddr() const { return last_send_peer_; }

ZNRNetAddrInfo const* ZNRUdpDevice::GetBindAddr(std::uint64_t* err) {
    return BindAddrOf(socket_, local_addr_, err);
}

ZNRSocket* ZNRUdpDevice::OnCreateSocket() { return new ZNRSocket(); }

// ---------------------------------------------------------------- any descriptor

ZNRUnknownDevice::ZNRUnknownDevice()
    : closed_(true), eof_(true), fd_(ZNRNoHandle()), desc_(u"Unknown device") {}

ZNRUnknownDevice::~ZNRUnknownDevice() { ZNRUnknownDevice::Close(); }

void ZNRUnknownDevice::SetError(std::uint64_t err) {
    ZNRDevice::SetError(err);
    if (err == ZNR_ERROR_END_OF_STREAM) eof_ = true;
}

bool ZNRUnknownDevice::Open(ZNRDeviceParam* param) {
    auto* p = dynamic_cast<ZNRUnknownDeviceParam*>(param);
    if (p == nullptr) {
        SetError(kBadParam);
        return false;
    }
    if (!closed_) Close();
    fd_ = p->fd;
    closed_ = false;
    eof_ = false;
    return true;
}

int ZNRUnknownDevice::Read(unsigned char* buf, int len) {
    if (BadBuffer(buf, len)) {
        SetError(kBadParam);
        return -1;
    }
    if (len == 0) return 0;
    int err = 0;
    int const n = ZNRFdRead(fd_, buf, len, &err);
    if (n > 0) return n;
    if (n == 0) {
        SetError(ZNR_ERROR_END_OF_STREAM);
        return -1;
    }
    if (ZNRFdWouldBlock(err)) return 0;
    SetError(ZNRSysError(err));
    return -1;
}

int ZNRUnknownDevice::Write(unsigned char const* buf, int len) {
    if (BadBuffer(buf, len)) {
        SetError(kBadParam);
        return -1;
    }
    int err = 0;
    int const n = ZNRFdWrite(fd_, buf, len, &err);
    if (n >= 0) return n;
    if (ZNRFdWouldBlock(err)) return 0;
    SetError(ZNRSysError(err));
    return -1;
}

bool ZNRUnknownDevice::CloseRead() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRUnknownDevice::CloseWrite() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRUnknownDevice::Close() {
    if (closed_) return true;
    // The descriptor is released even when close reports an error.
    int const rc = ZNRFdClose(fd_);
    fd_ = ZNRNoHandle();
    closed_ = true;
    eof_ = true;
    if (rc != 0) {
        SetError(ZNRSysError(rc));
        return false;
    }
    return true;
}

void ZNRUnknownDevice::Destroy() { delete this; }

// ---------------------------------------------------------------- fake

ZNRFakeDevice::ZNRFakeDevice() : desc_(u"Fake device") { SetType(TYPE_FAKE); }

ZNRFakeDevice::~ZNRFakeDevice() {}

bool ZNRFakeDevice::Open(ZNRDeviceParam*) { return true; }

int ZNRFakeDevice::Read(unsigned char* buf, int len) {
    if (buf == nullptr || len <= 0) return 0;
    std::memset(buf, 0, static_cast<size_t>(len));
    return len;
}

int ZNRFakeDevice::Write(unsigned char const*, int len) { return len > 0 ? len : 0; }

bool ZNRFakeDevice::CloseRead() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRFakeDevice::CloseWrite() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRFakeDevice::Close() { return true; }

void ZNRFakeDevice::Destroy() { delete this; }

// ---------------------------------------------------------------- pipe

ZNRPipe::ZNRPipe() : read_fd_(ZNRNoHandle()), write_fd_(ZNRNoHandle()) {}

ZNRPipe::ZNRPipe(ZNRNativeHandle read_fd, ZNRNativeHandle write_fd) : read_fd_(read_fd), write_fd_(write_fd) {}

ZNRPipe::~ZNRPipe() {
    if (ZNRIsHandle(read_fd_)) ZNRFdClose(read_fd_);
    if (ZNRIsHandle(write_fd_)) ZNRFdClose(write_fd_);
}

std::uint64_t ZNRPipe::Open() {
    ZNRNativeHandle read_fd = ZNRNoHandle();
    ZNRNativeHandle write_fd = ZNRNoHandle();
    int const rc = ZNRFdPipe(&read_fd, &write_fd);
    if (rc != 0) return ZNRSysError(rc);
    read_fd_ = read_fd;
    write_fd_ = write_fd;
    return 0;
}

namespace {

std::uint64_t CloseEnd(ZNRNativeHandle* fd) {
    if (!ZNRIsHandle(*fd)) return ZNRSysError(EBADF);
    int const rc = ZNRFdClose(*fd);
    *fd = ZNRNoHandle();
    return rc != 0 ? ZNRSysError(rc) : 0;
}

} // namespace

std::uint64_t ZNRPipe::CloseRead() { return CloseEnd(&read_fd_); }

std::uint64_t ZNRPipe::CloseWrite() { return CloseEnd(&write_fd_); }

int ZNRPipe::Read(unsigned char* buf, int len, std::uint64_t* err) {
    if (BadBuffer(buf, len)) {
        if (err != nullptr) *err = EINVAL;
        return -1;
    }
    if (len == 0) return 0;
    int sys_err = 0;
    int const n = ZNRFdRead(read_fd_, buf, len, &sys_err);
    if (n > 0) return n;
    if (err != nullptr) *err = n == 0 ? ZNR_ERROR_END_OF_STREAM : static_cast<std::uint64_t>(sys_err);
    return -1;
}

int ZNRPipe::Write(unsigned char const* buf, int len, std::uint64_t* err) {
    if (BadBuffer(buf, len)) {
        if (err != nullptr) *err = EINVAL;
        return -1;
    }
    int sys_err = 0;
    int const n = ZNRFdWrite(write_fd_, buf, len, &sys_err);
    if (n >= 0) return n;
    if (err != nullptr) *err = static_cast<std::uint64_t>(sys_err);
    return -1;
}
