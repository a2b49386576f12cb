#include <plexa/znr-async-pipe-device.h>
#include <plexa/znr-error.h>

#include "znr-fd-io.h"
#include "znr-local-socket.h"

#include <cerrno>
#include <string>

ZNRAsyncPipeDevice::ZNRAsyncPipeDevice() : eof_(true), closed_(true), is_server_(false) {
    SetType(TYPE_PIPE);
}

ZNRAsyncPipeDevice::~ZNRAsyncPipeDevice() { ZNRAsyncPipeDevice::Close(); }

void ZNRAsyncPipeDevice::SetError(std::uint64_t err) {
    ZNRDevice::SetError(err);
    std::uint32_t const low = ZNRErrorNumber(err);
    eof_ = low == 38 || low == 109 || err == ZNR_ERROR_END_OF_STREAM || err == ZNRSysError(EPIPE) ||
           err == ZNRSysError(ECONNRESET);
}

bool ZNRAsyncPipeDevice::Open(ZNRDeviceParam* param) {
    if (!closed_) Close();
    auto* p = dynamic_cast<ZNRAsyncPipeDeviceParam*>(param);
    std::string name;
    if (p == nullptr || !p->name.ToUtf8Str(&name) || name.empty()) {
        SetError(ZNRSysError(EINVAL));
        return false;
    }
    ZNRNativeHandle fd = ZNRNoHandle();
    std::uint64_t const rc = p->is_server ? ZNRLocalListen(name, p->in_buffer_size, p->out_buffer_size, &fd)
                                          : ZNRLocalConnect(name, p->wait_timeout, &fd);
    if (rc != 0) {
        SetError(rc);
        return false;
    }
    SetIOFd(fd);
    is_server_ = p->is_server;
    name_ = p->name;
    ZNRString const quote(u"\"");
    desc_ = ZNRString(is_server_ ? u"Pipe server, name=" : u"Pipe client, path=") + quote + name_ +
            quote;
    eof_ = false;
    closed_ = false;
    SetType(is_server_ ? TYPE_PIPE_SERVER : TYPE_PIPE_CLIENT);
    return true;
}

bool ZNRAsyncPipeDevice::BeginAccept() {
    ZNRAsyncIOCB* const cb = GetReadIOCB();
    std::uint64_t rc = ZNRSysError(EINVAL);
    if (!closed_ && GetType() == TYPE_PIPE_SERVER) {
        // The caller learns that the client came first, and the accept still
        // completes, so that a reactor announces the connection all the same.
        std::uint64_t const first = ZNRLocalConnectedFirst(GetFd());
        cb->addr = nullptr;
        cb->addr_len = 0;
        rc = cb->Begin(ZNRAsyncIOCB::OP_ACCEPT, ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT, nullptr, 0);
        if (rc == 0) rc = first;
    }
    if (rc == 0) return true;
    SetError(rc);
    return false;
}

int ZNRAsyncPipeDevice::Read(unsigned char* buf, int len) {
    std::uint64_t const rc =
        GetReadIOCB()->Begin(ZNRAsyncIOCB::OP_READ, ZNRAsyncIOCB::METHOD_RECV, buf, len);
    if (rc == 0) return 0;
    SetError(rc);
    return -1;
}

int ZNRAsyncPipeDevice::Write(unsigned char const* buf, int len) {
    std::uint64_t const rc = GetWriteIOCB()->Begin(ZNRAsyncIOCB::OP_WRITE, ZNRAsyncIOCB::METHOD_SEND,
                                                   const_cast<unsigned char*>(buf), len);
    if (rc == 0) return 0;
    SetError(rc);
    return -1;
}

bool ZNRAsyncPipeDevice::CloseRead() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRAsyncPipeDevice::CloseWrite() {
    SetError(ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRAsyncPipeDevice::Close() {
    if (!closed_) {
        ZNRNativeHandle const fd = GetFd();
        Detach();
        if (is_server_) {
            std::string name;
            name_.ToUtf8Str(&name);
            ZNRLocalRelease(name, fd);
        }
        ZNRFdClose(fd);
        closed_ = true;
        eof_ = true;
        desc_.clear();
    }
    SetType(TYPE_PIPE);
    return true;
}

void ZNRAsyncPipeDevice::Destroy() { delete this; }
