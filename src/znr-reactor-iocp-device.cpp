#include <plexa/znr-async-device.h>
#include <plexa/znr-async-io.h>
#include <plexa/znr-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-reactor-iocp.h>

#include "znr-completion-engine.h"
#include "znr-fd-io.h"
#include "znr-reactor-iocp-device.h"
#include "znr-error-platform.h"
#include "znr-wakeup.h"

#include <cerrno>

namespace {

// Connections a listener takes from its backlog per completion. One per
// completion would take one per pass over every busy connection of the
// loop, and a backlog filling faster than that overflows.
int const kAcceptBurst = 64;

std::string Narrow(ZNRString const& text) { return text.ToStdCStr(); }

void SetError(std::uint64_t* error, std::uint64_t code) {
    if (error != nullptr) *error = code;
}

} // namespace

// ---------------------------------------------------------------- lent memory, send queue

void* ZNRLentBlock::Alloc(unsigned int size, char const* owner_file, unsigned int owner_line) {
    if (offered_ == nullptr) return Default()->Alloc(size, owner_file, owner_line);
    lent_ = offered_;
    offered_ = nullptr;
    return lent_;
}

std::uint64_t ZNRLentBlock::Free(void* p) {
    if (p == nullptr || p != lent_) return Default()->Free(p);
    lent_ = nullptr;
    return 0;
}

ZNRSendQueue::~ZNRSendQueue() {
    for (std::size_t i = head_; i < items_.size(); ++i) delete items_[i];
}

// Emptied, the queue starts over; under a lasting backlog the written
// front is dropped once it is half of the queue.
void ZNRSendQueue::pop_front() {
    if (++head_ == items_.size()) {
        items_.clear();
        head_ = 0;
    } else if (head_ >= 16 && 2 * head_ >= items_.size()) {
        items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
}

// ---------------------------------------------------------------- base

ZNRReactorIOCPDeviceBase::ZNRReactorIOCPDeviceBase(ZNRReactorIOCP* reactor, std::uint32_t id,
                                                   ZNRDevice* device, ZNRDeviceHandler* handler)
    : reactor_(reactor), id_(id), device_(device), handler_(handler), io_(nullptr), timer_(nullptr),
      recv_buff_grow_size_(512), recv_buff_max_size_(4096), send_buff_max_size_(4096),
      recv_buffer_(0, &lender_), spare_(nullptr), queued_send_bytes_(0), sending_(false),
      connecting_(false), lending_(false), closing_(false), ended_(false) {
    // Looked up once: every completion asks for it.
    io_ = dynamic_cast<ZNRAsyncIO*>(device);
}

ZNRReactorIOCPDeviceBase::~ZNRReactorIOCPDeviceBase() {
    delete spare_;
    if (device_ != nullptr) device_->Destroy();
}

// The device's own: it lives as long as this does.
ZNRString const& ZNRReactorIOCPDeviceBase::GetDescInfo() const {
    static ZNRString const none;
    return device_ != nullptr ? device_->GetDescInfo() : none;
}

// Its completions find it no more and nothing new is posted; what the
// system still holds for it is cancelled at the end of the turn.
void ZNRReactorIOCPDeviceBase::BeginClose() { closing_ = true; }

// A handler hears of its device's closing only while the loop runs; at
// shutdown it is just released.
void ZNRReactorIOCPDeviceBase::ReleaseHandler() {
    DropTimer(timer_);
    timer_ = nullptr;
    if (handler_ == nullptr) return;
    if (!reactor_->IsStopped()) handler_->OnClose();
    handler_->Destroy();
    handler_ = nullptr;
}

int ZNRReactorIOCPDeviceBase::GetType() const {
    return device_ != nullptr ? device_->GetType() : ZNRDevice::TYPE_UNKNOWN;
}

void ZNRReactorIOCPDeviceBase::SetRecvBuffGrowSize(int size) {
    recv_buff_grow_size_ = size < recv_buff_max_size_ ? size : recv_buff_max_size_;
}

void ZNRReactorIOCPDeviceBase::SetRecvBuffMaxSize(int size) {
    recv_buff_max_size_ = size >= recv_buff_grow_size_ ? recv_buff_grow_size_ + size
                                                        : 2 * recv_buff_grow_size_;
}

void ZNRReactorIOCPDeviceBase::SetTimeout(unsigned int timeout) {
    if (timeout == 0xFFFFFFFFu) return;
    timer_ = new ZNRReactorIOCPDeviceTimer(timeout, this);
    AddTimer(timer_);
}

void ZNRReactorIOCPDeviceBase::AddTimer(ZNRTimer* timer) {
    ZNRGuardSpinLock guard(&reactor_->timer_lock_, __FILE__, __LINE__);
    reactor_->GetTimerMgr()->AddTimer(timer);
}

void ZNRReactorIOCPDeviceBase::DropTimer(ZNRTimer* timer) {
    if (timer == nullptr) return;
    ZNRGuardSpinLock guard(&reactor_->timer_lock_, __FILE__, __LINE__);
    reactor_->GetTimerMgr()->RemoveTimer(timer->GetId());
    timer->Destroy();
}

ZNRAsyncIO* ZNRReactorIOCPDeviceBase::GetAsyncIO() { return io_; }

std::uint64_t ZNRReactorIOCPDeviceBase::CloseWrite() {
    return device_->CloseWrite() ? 0 : device_->GetError();
}

std::uint64_t ZNRReactorIOCPDeviceBase::Recv() {
    ZNRAsyncIO* const io = GetAsyncIO();
    if (io == nullptr) return ZNR_ERROR_NOT_SUPPORTED;
    std::uint64_t rc = io->ResetReadIOStatus();
    if (rc != 0) return rc;
    unsigned int const count = recv_buffer_.GetDataCount();
    lending_ = false;
    if (static_cast<long long>(recv_buff_max_size_) <
        static_cast<long long>(recv_buff_grow_size_) + count) {
        ZNR_LOG(ERROR,
                "IOCP device recv buffer is overflow, current_size=%d max_size=%d desc_info=\"%s\"",
                static_cast<int>(count), recv_buff_max_size_, Narrow(GetDescInfo()).c_str());
        return ZNR_ERROR_RECV_OVERFLOW;
    }
    if (count == 0 && Lends()) {
        recv_buffer_.SetCapacity(0);  // waiting costs no receive memory
        rc = ZNRCompletionBinding::Lend(io->GetReadIOCB(), recv_buff_grow_size_);
        lending_ = rc == 0;
        return rc;
    }
    unsigned int const grow = static_cast<unsigned int>(recv_buff_grow_size_);
    if (recv_buffer_.GetFreeCapacity() < grow) {
        // The block doubles (up to the maximum) while the capacity the
        // handler sees grows by the step: a large frame costs a few copies,
        // not one per read.
        unsigned int const need = count + grow;
        if (need > recv_buffer_.GetBlockSize()) {
            unsigned long long block = 2ULL * recv_buffer_.GetBlockSize();
            if (block > static_cast<unsigned long long>(recv_buff_max_size_)) {
                block = static_cast<unsigned long long>(recv_buff_max_size_);
            }
            rc = recv_buffer_.Reserve(block > need ? static_cast<unsigned int>(block) : need);
            if (rc != 0) return rc;
        }
        rc = recv_buffer_.ExtendCapacity(need - recv_buffer_.GetCapacity());
        if (rc != 0) return rc;
    }
    if (device_->Read(recv_buffer_.GetData() + count, recv_buff_grow_size_) < 0) {
        return device_->GetError();
    }
    return 0;
}

bool ZNRReactorIOCPDeviceBase::Lends() const {
    int const type = GetType();
    if (type != ZNRDevice::TYPE_TCP_ACCEPTED && type != ZNRDevice::TYPE_TCP_CLIENT) return false;
    ZNRCompletionBinding const* const binding = ZNRCompletionBinding::Of(io_->GetReadIOCB());
    return binding != nullptr && binding->engine->LendsReceives();
}

void ZNRReactorIOCPDeviceBase::TakeLent() {
    lender_.Offer(io_->GetReadIOCB()->buf);
    recv_buffer_.SetCapacity(static_cast<unsigned int>(io_->GetReadIOCB()->transferred));
}

std::uint64_t ZNRReactorIOCPDeviceBase::KeepTail() {
    unsigned int const count = recv_buffer_.GetDataCount();
    if (count == 0) return recv_buffer_.SetCapacity(0);
    // Reads lend at most the grow size, so this is past the lent block:
    // the tail is copied out of it.
    return recv_buffer_.Reserve(count + static_cast<unsigned int>(recv_buff_grow_size_));
}

// Memory goes back once the held data is under a quarter of the block,
// down to what the next read needs.
void ZNRReactorIOCPDeviceBase::ShrinkRecvBuffer() {
    unsigned int const count = recv_buffer_.GetDataCount();
    unsigned int const block = recv_buffer_.GetBlockSize();
    unsigned int const need = count + static_cast<unsigned int>(recv_buff_grow_size_);
    if (count < block / 4 && need < block / 2) recv_buffer_.SetCapacity(need);
}

// The write holds its bytes until it completes, long after the caller's
// may have changed: they are copied before it starts.
bool ZNRReactorIOCPDeviceBase::Send(unsigned char const* data, int size, std::uint64_t* error) {
    return Send(Copy(data, size), error);
}

ZNRByteBuffer* ZNRReactorIOCPDeviceBase::Copy(unsigned char const* data, int size) {
    unsigned int const n = static_cast<unsigned int>(size);
    ZNRByteBuffer* buffer = spare_;
    if (buffer != nullptr && buffer->GetCapacity() >= n) {
        spare_ = nullptr;
        buffer->ResetDataCount(0);
        buffer->AppendData(data, n);
        return buffer;
    }
    return new ZNRByteBuffer(data, n);
}

// Keeps one written buffer for the next copied send, so that a steady
// exchange allocates nothing; the larger one wins, up to a limit.
void ZNRReactorIOCPDeviceBase::Recycle(ZNRByteBuffer* buffer) {
    unsigned int const kSpareMax = 64 * 1024;
    if (buffer->GetCapacity() > kSpareMax ||
        (spare_ != nullptr && spare_->GetCapacity() >= buffer->GetCapacity())) {
        delete buffer;
        return;
    }
    delete spare_;
    spare_ = buffer;
}

bool ZNRReactorIOCPDeviceBase::Send(ZNRByteBuffer* buffer, std::uint64_t* error) {
    int const size = static_cast<int>(buffer->GetDataCount());
    int const queued = GetQueuedSendBytes();
    if (static_cast<long long>(queued) + size > send_buff_max_size_) {
        ZNR_LOG(ERROR,
                "Can not send data to iocp device, send buffer is overflow, current_size=%d "
                "max_size=%d desc_info=\"%s\"",
                queued, send_buff_max_size_, Narrow(GetDescInfo()).c_str());
        delete buffer;
        SetError(error, ZNR_ERROR_SEND_OVERFLOW);
        return false;
    }
    send_queue_.push_back(buffer);
    AddQueued(size);
    if (sending_ || connecting_) return true;
    std::uint64_t const rc = PostSend();
    if (rc == 0) return true;
    SetError(error, rc);
    return false;
}

std::uint64_t ZNRReactorIOCPDeviceBase::PostSend() {
    ZNRAsyncIO* const io = GetAsyncIO();
    if (io == nullptr) return ZNR_ERROR_NOT_SUPPORTED;
    std::uint64_t const rc = io->ResetWriteIOStatus();
    if (rc != 0) return rc;
    ZNRByteBuffer* const front = send_queue_.front();
    if (device_->Write(front->GetData(), static_cast<int>(front->GetDataCount())) < 0) {
        return device_->GetError();
    }
    sending_ = true;
    return 0;
}

void ZNRReactorIOCPDeviceBase::Destroy() { delete this; }

bool ZNRReactorIOCPDeviceBase::OnRecvEvent(int, std::uint64_t*) { return true; }

bool ZNRReactorIOCPDeviceBase::OnSendEvent(int bytes, std::uint64_t*) {
    Written(bytes);
    return true;
}

void ZNRReactorIOCPDeviceBase::Written(int bytes) {
    sending_ = false;
    if (send_queue_.empty()) return;
    ZNRByteBuffer* const front = send_queue_.front();
    if (static_cast<unsigned int>(bytes) < front->GetDataCount()) {
        front->CutData(static_cast<unsigned int>(bytes));  // the rest goes next
    } else {
        send_queue_.pop_front();
        Recycle(front);
    }
    AddQueued(-bytes);
}

void ZNRReactorIOCPDeviceBase::OnErrorEvent(std::uint64_t const&) {}

bool ZNRReactorIOCPDeviceBase::RetryLater(std::uint64_t) { return false; }

bool ZNRReactorIOCPDeviceBase::OnTimeoutEvent(std::uint64_t) { return true; }

// ---------------------------------------------------------------- normal

ZNRReactorIOCPNormalDevice::ZNRReactorIOCPNormalDevice(ZNRReactorIOCP* reactor, std::uint32_t id,
                                                       ZNRDevice* device, ZNRDeviceHandler* handler)
    : ZNRReactorIOCPDeviceBase(reactor, id, device, handler) {}

ZNRReactorIOCPNormalDevice::~ZNRReactorIOCPNormalDevice() = default;

void ZNRReactorIOCPNormalDevice::Destroy() { delete this; }

bool ZNRReactorIOCPNormalDevice::Fail(std::uint64_t err, std::uint64_t* error) {
    device_->SetError(err);
    if (!closing_) handler_->OnError();
    SetError(error, err);
    return false;
}

bool ZNRReactorIOCPNormalDevice::Send(ZNRByteBuffer* buffer, std::uint64_t* error) {
    std::uint64_t err = 0;
    if (ZNRReactorIOCPDeviceBase::Send(buffer, &err)) return true;
    Fail(err, error);
    return false;
}

bool ZNRReactorIOCPNormalDevice::OnRecvEvent(int bytes, std::uint64_t* error) {
    if (bytes == 0) {
        // A peer that ended its stream may still read: the replies to what
        // it sent go out first, whether sends finish at once or a turn later.
        if (sending_ || !send_queue_.empty()) {
            ended_ = true;
            return true;
        }
        return End(error);
    }
    if (lending_) TakeLent();
    recv_buffer_.ResetDataCount(recv_buffer_.GetDataCount() + static_cast<unsigned int>(bytes));
    return Deliver(error);
}

bool ZNRReactorIOCPNormalDevice::End(std::uint64_t* error) {
    device_->SetError(ZNR_ERROR_END_OF_STREAM);
    handler_->OnError();
    SetError(error, ZNR_ERROR_END_OF_STREAM);
    return false;
}

bool ZNRReactorIOCPNormalDevice::Deliver(std::uint64_t* error) {
    int offset = 0;
    if (!handler_->OnData(&recv_buffer_, &offset)) return false;
    if (closing_) return true;
    unsigned int const count = recv_buffer_.GetDataCount();
    if (offset < 0 || static_cast<unsigned int>(offset) > count) {
        ZNR_LOG(ERROR,
                "Invalid recv buffer offset, above data handler may be received a invalid "
                "package,current_recv_buff_size=%u, offset=%d, desc_info=\"%s\"",
                count, offset, Narrow(GetDescInfo()).c_str());
        SetError(error, ZNR_ERROR_BAD_OFFSET);
        return false;
    }
    recv_buffer_.CutData(static_cast<unsigned int>(offset));
    std::uint64_t rc = 0;
    if (lender_.Holds(recv_buffer_.GetData())) {
        rc = KeepTail();
    } else {
        ShrinkRecvBuffer();
    }
    if (rc == 0) rc = Recv();
    return rc == 0 || Fail(rc, error);
}

bool ZNRReactorIOCPNormalDevice::Connected(std::uint64_t* error) {
    connecting_ = false;
    std::uint64_t rc = Recv();
    if (rc == 0 && !sending_ && !send_queue_.empty()) rc = PostSend();
    return rc == 0 || Fail(rc, error);
}

bool ZNRReactorIOCPNormalDevice::OnSendEvent(int bytes, std::uint64_t* error) {
    ZNRReactorIOCPDeviceBase::OnSendEvent(bytes, error);
    if (!handler_->OnWriten(bytes)) return false;
    if (closing_ || sending_) return true;
    if (send_queue_.empty()) return !ended_ || End(error);
    std::uint64_t const rc = PostSend();
    return rc == 0 || Fail(rc, error);
}

void ZNRReactorIOCPNormalDevice::OnErrorEvent(std::uint64_t const& error) {
    device_->SetError(error);
    if (!closing_) handler_->OnError();
}

bool ZNRReactorIOCPNormalDevice::OnTimeoutEvent(std::uint64_t now) { return handler_->OnTimeout(now); }

// ---------------------------------------------------------------- by type

bool ZNRReactorIOCPTcpServerDevice::OnRecvEvent(int, std::uint64_t* error) {
    ZNRAsyncIO* const io = GetAsyncIO();
    if (io->GetReadIOCB()->operation != ZNRAsyncIOCB::OP_ACCEPT) return true;
    if (starved_) {
        ZNR_LOG(INFO, "Tcp server device accepts clients again, desc_info=\"%s\"", Narrow(GetDescInfo()).c_str());
        starved_ = false;
    }
    auto* const listener = dynamic_cast<ZNRAsyncTcpDevice*>(device_);
    if (listener == nullptr) return Fail(ZNRSysError(EINVAL), error);
    ZNRAsyncIOCB const* const cb = io->GetReadIOCB();
    for (int taken = 1;; ++taken) {
        if (!handler_->OnData(nullptr, nullptr)) return false;
        if (closing_) return true;
        // Also takes back a completion the last accept queued at once.
        std::uint64_t const rc = io->ResetReadIOStatus();
        if (rc != 0) return Fail(rc, error);
        if (!listener->BeginAccept()) return Fail(device_->GetError(), error);
        // A pending accept, a failure or the burst's end go through the loop.
        if (taken == kAcceptBurst || cb->status != ZNRAsyncIOCB::STATUS_DONE || cb->error != 0) return true;
    }
}

ZNRReactorIOCPTcpServerDevice::~ZNRReactorIOCPTcpServerDevice() { DropTimer(retry_timer_); }

bool ZNRReactorIOCPTcpServerDevice::RetryLater(std::uint64_t error) {
    if (GetAsyncIO()->GetReadIOCB()->operation != ZNRAsyncIOCB::OP_ACCEPT ||
        !ZNRPlatformIsShortage(error)) {
        return false;
    }
    if (!starved_) {
        ZNR_LOG(WARNING,
                "Can not accept tcp client, out of resources, retry every %ums, error=\"%s\" "
                "desc_info=\"%s\"",
                ZNRReactorIOCPAcceptRetryTimer::kRetryMs, ZNRGetErrorText(error).c_str(),
                Narrow(GetDescInfo()).c_str());
        starved_ = true;
    }
    ArmRetry();
    return true;
}

void ZNRReactorIOCPTcpServerDevice::ArmRetry() {
    retry_timer_ = new ZNRReactorIOCPAcceptRetryTimer(this);
    AddTimer(retry_timer_);
}

bool ZNRReactorIOCPTcpServerDevice::RetryAccept() {
    retry_timer_ = nullptr;  // it ends when this returns
    if (closing_) return true;
    auto* const listener = dynamic_cast<ZNRAsyncTcpDevice*>(device_);
    std::uint64_t rc = GetAsyncIO()->ResetReadIOStatus();
    if (rc == 0 && listener != nullptr && listener->BeginAccept()) return true;
    if (rc == 0) rc = listener != nullptr ? device_->GetError() : ZNRSysError(EINVAL);
    if (ZNRPlatformIsShortage(rc)) {
        ArmRetry();
        return true;
    }
    return Fail(rc, nullptr);
}

ZNRReactorIOCPTcpClientDevice::ZNRReactorIOCPTcpClientDevice(ZNRReactorIOCP* reactor,
                                                             std::uint32_t id, ZNRDevice* device,
                                                             ZNRDeviceHandler* handler)
    : ZNRReactorIOCPNormalDevice(reactor, id, device, handler) {
    connecting_ = true;
}

bool ZNRReactorIOCPTcpClientDevice::OnSendEvent(int bytes, std::uint64_t* error) {
    if (!connecting_) return ZNRReactorIOCPNormalDevice::OnSendEvent(bytes, error);
    if (!handler_->OnWriten(0)) return false;
    return closing_ || Connected(error);
}

bool ZNRReactorIOCPUdpDevice::OnRecvEvent(int bytes, std::uint64_t* error) {
    auto* const udp = dynamic_cast<ZNRAsyncUdpDevice*>(device_);
    if (udp == nullptr || !udp->UpdateLastRecvPeerAddr()) {
        return Fail(udp != nullptr ? device_->GetError() : ZNRSysError(EINVAL), error);
    }
    // An empty datagram is a datagram, not the end of a stream.
    recv_buffer_.ResetDataCount(recv_buffer_.GetDataCount() + static_cast<unsigned int>(bytes));
    return Deliver(error);
}

ZNRReactorIOCPPipeAcceptClientDevice::ZNRReactorIOCPPipeAcceptClientDevice(
    ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device, ZNRDeviceHandler* handler)
    : ZNRReactorIOCPNormalDevice(reactor, id, device, handler) {
    connecting_ = true;
}

bool ZNRReactorIOCPPipeAcceptClientDevice::OnRecvEvent(int bytes, std::uint64_t* error) {
    if (!connecting_) return ZNRReactorIOCPNormalDevice::OnRecvEvent(bytes, error);
    if (!handler_->OnOpen()) return false;
    return closing_ || Connected(error);
}

// ---------------------------------------------------------------- fake

ZNRReactorIOCPFakeDevice::ZNRReactorIOCPFakeDevice(ZNRReactorIOCP* reactor, std::uint32_t id,
                                                   ZNRDevice* device, ZNRDeviceHandler* handler)
    : ZNRReactorIOCPDeviceBase(reactor, id, device, handler) {}

ZNRReactorIOCPFakeDevice::~ZNRReactorIOCPFakeDevice() = default;

void ZNRReactorIOCPFakeDevice::Destroy() { delete this; }

std::uint64_t ZNRReactorIOCPFakeDevice::CloseWrite() { return ZNR_ERROR_NOT_SUPPORTED; }

std::uint64_t ZNRReactorIOCPFakeDevice::Recv() { return ZNR_ERROR_NOT_SUPPORTED; }

bool ZNRReactorIOCPFakeDevice::Send(ZNRByteBuffer* buffer, std::uint64_t*) {
    int offset = 0;
    bool const kept = handler_->OnData(buffer, &offset);
    if (kept && offset != static_cast<int>(buffer->GetDataCount())) {
        ZNR_LOG(WARNING,
                "IOCP reactor fake device handler was setted dealed offset for recv buffer may be "
                "not incorrect recv_buff_size=%d offset=%d",
                static_cast<int>(buffer->GetDataCount()), offset);
    }
    delete buffer;
    return kept;
}

bool ZNRReactorIOCPFakeDevice::OnRecvEvent(int, std::uint64_t*) { return false; }

bool ZNRReactorIOCPFakeDevice::OnSendEvent(int, std::uint64_t*) { return false; }

void ZNRReactorIOCPFakeDevice::OnErrorEvent(std::uint64_t const&) {}

bool ZNRReactorIOCPFakeDevice::OnTimeoutEvent(std::uint64_t now) { return handler_->OnTimeout(now); }

// ---------------------------------------------------------------- wake-up channel

ZNRReactorIOCPLoopEventReadDevice::ZNRReactorIOCPLoopEventReadDevice(ZNRReactorIOCP* reactor,
                                                                     std::uint32_t id,
                                                                     ZNRDevice* device)
    : ZNRReactorIOCPDeviceBase(reactor, id, device), count_(0) {}

std::uint64_t ZNRReactorIOCPLoopEventReadDevice::Recv() {
    ZNRAsyncIO* const io = GetAsyncIO();
    std::uint64_t const rc = io->ResetReadIOStatus();
    if (rc != 0) return rc;
    count_ = 0;
    if (device_->Read(reinterpret_cast<unsigned char*>(&count_), sizeof count_) < 0) {
        return device_->GetError();
    }
    return 0;
}

bool ZNRReactorIOCPLoopEventReadDevice::Send(ZNRByteBuffer* buffer, std::uint64_t* error) {
    delete buffer;
    SetError(error, ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

bool ZNRReactorIOCPLoopEventReadDevice::OnRecvEvent(int bytes, std::uint64_t* error) {
    if (bytes != static_cast<int>(sizeof count_)) {
        SetError(error, ZNRSysError(EIO));
        return false;
    }
    // The loop runs the queued events itself; the read only re-arms.
    std::uint64_t const rc = Recv();
    if (rc == 0) return true;
    SetError(error, rc);
    return false;
}

void ZNRReactorIOCPLoopEventReadDevice::OnErrorEvent(std::uint64_t const& error) {
    ZNR_LOG(ERROR, "IOCP reactor loop event read device has an error, error=\"%s\"",
            ZNRGetErrorText(error).c_str());
}

ZNRReactorIOCPLoopEventWriteDevice::ZNRReactorIOCPLoopEventWriteDevice(ZNRReactorIOCP* reactor,
                                                                       std::uint32_t id, ZNRNativeHandle fd)
    : ZNRReactorIOCPDeviceBase(reactor, id, nullptr), fd_(fd) {}

ZNRReactorIOCPLoopEventWriteDevice::~ZNRReactorIOCPLoopEventWriteDevice() { ZNRFdClose(fd_); }

std::uint64_t ZNRReactorIOCPLoopEventWriteDevice::Recv() { return ZNR_ERROR_NOT_SUPPORTED; }

bool ZNRReactorIOCPLoopEventWriteDevice::Send(ZNRByteBuffer* buffer, std::uint64_t* error) {
    delete buffer;
    SetError(error, ZNR_ERROR_NOT_SUPPORTED);
    return false;
}

std::uint64_t ZNRReactorIOCPLoopEventWriteDevice::Signal(std::uint64_t count) {
    return ZNRWakeupAdd(fd_, count);
}

// ---------------------------------------------------------------- device timer

ZNRReactorIOCPDeviceTimer::ZNRReactorIOCPDeviceTimer(unsigned int period,
                                                     ZNRReactorIOCPDeviceBase* device)
    : ZNRTimer(period, ZNRTimer::REPEAT_FOREVER, nullptr), device_(device) {}

// Devices are destroyed outside the timer walk, so the device is alive
// here even when its handler has just ended it.
bool ZNRReactorIOCPAcceptRetryTimer::OnExpires(std::uint64_t) {
    if (!device_->RetryAccept()) device_->GetReactor()->DelIOCPDevice(device_->GetId());
    return false;
}

bool ZNRReactorIOCPDeviceTimer::OnExpires(std::uint64_t now) {
    if (!device_->IsClosing() && device_->OnTimeoutEvent(now) && !device_->IsClosing()) return true;
    device_->ClearTimer();
    device_->GetReactor()->DelIOCPDevice(device_->GetId());
    return false;
}
