#include <plexa/znr-async-device.h>
#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-reactor-iocp.h>
#include <plexa/znr-thread.h>
#include <plexa/znr-timer.h>
#include <plexa/znr-utils.h>

#include "znr-completion-engine.h"
#include "znr-fd-io.h"
#include "znr-loop-tuning.h"
#include "znr-reactor-iocp-device.h"
#include "znr-wakeup.h"

#include <algorithm>
#include <vector>
#include <cerrno>
#include <climits>

namespace {

std::uint64_t const kNoId = ZNR_ERROR_FAILED_ID;
std::uint32_t const kNoDeviceId = 0xFFFFFFFFu;

std::string Narrow(ZNRString const& text) { return text.ToStdCStr(); }

// Wakes the loop so that it plans its wait again; does nothing itself.
class ZNRReactorIOCPWakeLoopEvent : public ZNRReactorLoopEvent {
public:
    bool OnLoopEvent(ZNRReactor*) override { return false; }
    void Destroy() override { delete this; }
};

} // namespace

// Runs one task on the loop thread; owns it until it ends.
class ZNRReactorIOCPTaskLoopEvent : public ZNRReactorLoopEvent {
public:
    explicit ZNRReactorIOCPTaskLoopEvent(ZNRReactorTask* task) : task_(task) {}

    bool OnLoopEvent(ZNRReactor*) override { return task_->Run(); }
    ZNRReactorTask* TakeTask() {
        ZNRReactorTask* const task = task_;
        task_ = nullptr;
        return task;
    }
    void Destroy() override {
        if (task_ != nullptr) task_->Destroy();
        delete this;
    }

private:
    ZNRReactorTask* task_;
};

// Carries a send (or, empty, a close) to the loop thread.
class ZNRReactorIOCPSendDataLoopEvent : public ZNRReactorLoopEvent {
public:
    ZNRReactorIOCPSendDataLoopEvent(std::uint32_t device_id, unsigned char const* data, int size)
        : device_id_(device_id),
          buffer_(size > 0 ? new ZNRByteBuffer(data, static_cast<unsigned int>(size))
                           : new ZNRByteBuffer()) {}

    bool OnLoopEvent(ZNRReactor* reactor) override {
        auto* const r = static_cast<ZNRReactorIOCP*>(reactor);
        int const size = static_cast<int>(buffer_->GetDataCount());
        ZNRReactorIOCPDeviceBase* const device = r->FindDevice(device_id_);
        if (device == nullptr) {
            ZNR_LOG(ERROR, "Can not send data to iocp device, not found!, device_id=%u", device_id_);
            return false;
        }
        if (size == 0) {
            r->DelIOCPDevice(device_id_);
            return false;
        }
        ZNRByteBuffer* const buffer = buffer_;
        buffer_ = nullptr;
        std::uint64_t error = 0;
        bool const sent = device->Send(buffer, &error);
        // Only now: until the bytes are in the device's queue, senders on
        // other threads must still count them here.
        r->ReleaseSendBudget(device_id_, size);
        // A normal device has told its handler of a failed send already.
        if (!sent) r->DelIOCPDevice(device_id_);
        return false;
    }
    void Destroy() override {
        delete buffer_;
        delete this;
    }

private:
    std::uint32_t device_id_;
    ZNRByteBuffer* buffer_;
};

void LogSendOverflow(int held, int max, std::string const& desc) {
    ZNR_LOG(ERROR,
            "Can not send data to iocp device, send buffer is overflow, current_size=%d "
            "max_size=%d desc_info=\"%s\"",
            held, max, desc.c_str());
}

// The first sends refused on other threads for a device's send maximum:
// only the loop thread may read the device's description, which is made
// when first asked for. It logs them and leaves a copy of the text with
// the device's send budget, so that later refusals are logged where they
// happen; refusals meanwhile join the report.
class ZNRReactorIOCPSendOverflowLoopEvent : public ZNRReactorLoopEvent {
public:
    ZNRReactorIOCPSendOverflowLoopEvent(ZNRReactorIOCP* reactor, std::uint32_t device_id, int max)
        : reactor_(reactor), device_id_(device_id), max_(max) {}
    ~ZNRReactorIOCPSendOverflowLoopEvent() override = default;

    // Under the reactor's loop-event lock.
    void Add(int held) { held_.push_back(held); }

    bool OnLoopEvent(ZNRReactor*) override {
        ZNRReactorIOCPDeviceBase* const device = reactor_->FindDevice(device_id_);
        std::string const desc = device != nullptr ? Narrow(device->GetDescInfo()) : std::string();
        std::vector<int> held;
        reactor_->TakeSendOverflows(device_id_, this, &desc, &held);
        for (int h : held) LogSendOverflow(h, max_, desc);
        return false;
    }
    void Destroy() override {
        reactor_->TakeSendOverflows(device_id_, this, nullptr, nullptr);
        delete this;
    }

private:
    friend class ZNRReactorIOCP;

    ZNRReactorIOCP* reactor_;
    std::uint32_t device_id_;
    int max_;
    std::vector<int> held_;
};

ZNRReactorLoopEvent::~ZNRReactorLoopEvent() = default;
ZNRReactorTask::~ZNRReactorTask() = default;
ZNRReactorStopNotify::~ZNRReactorStopNotify() = default;

ZNRReactor::ZNRReactor(ZNRTimerMgr* timer_mgr)
    : timer_mgr_(timer_mgr), loop_event_dispose_size_(kDefaultLoopEventDisposeSize),
      loop_event_queue_max_size_(kDefaultLoopEventQueueMax) {}

ZNRReactor::~ZNRReactor() {
    if (timer_mgr_ != nullptr) timer_mgr_->Destroy();
}

// ---------------------------------------------------------------- life

ZNRReactorIOCP::ZNRReactorIOCP(ZNRTimerMgr* timer_mgr)
    : ZNRReactor(timer_mgr), engine_(nullptr), loop_thread_(nullptr), stopped_(false),
      queued_count_(0), read_device_(nullptr), write_device_(nullptr),
      read_device_id_(kNoDeviceId), planned_wake_(kNoId),
      dispose_size_(kDefaultLoopEventDisposeSize), queue_max_(kDefaultLoopEventQueueMax),
      wake_pending_(false), stop_requested_(false), events_before_stop_(0),
      dispatching_(nullptr), now_(0), events_left_(false), idle_wakeups_(0) {}

ZNRReactorIOCP::~ZNRReactorIOCP() {
    stopped_ = true;
    CloseAll();
}

void ZNRReactorIOCP::Destroy() { delete this; }

std::uint64_t ZNRReactorIOCP::Init() {
    if (engine_ != nullptr) return 0;
    dispose_size_ = std::max(1, GetLoopEventDisposeSize());
    queue_max_ = GetLoopEventQueueMaxSize();
    std::uint64_t rc = 0;
    std::string choice;
    engine_ = ZNRCompletionEngine::Create(engine_name_->c_str(), &rc, &choice);
    if (engine_ == nullptr) {
        ZNR_LOG(ERROR, "IOCP reactor can not start its completion engine, %s, error=\"%s\"",
                choice.c_str(), ZNRGetErrorText(rc).c_str());
        return rc;
    }
    ZNR_LOG(INFO, "IOCP reactor uses the %s completion engine, %s", engine_->GetName(),
            choice.c_str());
    id_allocator_.AllocULONGNumId(&read_device_id_);
    ZNRNativeHandle fd = ZNRNoHandle();
    ZNRNativeHandle write_end = ZNRNoHandle();
    rc = ZNRWakeupOpen(&fd, &write_end);
    if (rc == 0) {
        ZNRUnknownDeviceParam param;
        param.fd = fd;
        auto* const channel = new ZNRAsyncUnknownDevice();
        if (!channel->Open(&param)) {
            rc = channel->GetError();
            channel->Destroy();
        } else {
            read_device_ = new ZNRReactorIOCPLoopEventReadDevice(this, read_device_id_, channel);
            rc = AddIOCPEvent(channel, read_device_id_);
        }
    }
    if (rc == 0) rc = read_device_->Recv();
    if (rc != 0) {
        if (ZNRIsHandle(write_end)) ZNRFdClose(write_end);
        if (read_device_ != nullptr) read_device_->Destroy();
        read_device_ = nullptr;
        read_device_id_ = kNoDeviceId;
        delete engine_;
        engine_ = nullptr;
        return rc;
    }
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    write_device_ = new ZNRReactorIOCPLoopEventWriteDevice(this, kNoDeviceId, write_end);
    return 0;
}

std::uint64_t ZNRReactorIOCP::SetEngine(char const* name) {
    if (engine_ != nullptr) return ZNRSysError(EBUSY);
    *engine_name_ = name != nullptr ? name : "";
    return 0;
}

char const* ZNRReactorIOCP::GetEngineName() const {
    return engine_ != nullptr ? engine_->GetName() : nullptr;
}

// The loop, until a stop request or a failure of the engine.
std::uint64_t ZNRReactorIOCP::Open() {
    if (engine_ == nullptr) return ZNR_ERROR_NOT_READY;
    loop_thread_ = ZNRThreadMgr::Instance()->GetCurrent();
    std::uint64_t error = 0;
    while (Turn(&error)) {
    }
    // Closed while the loop ran: their handlers hear OnClose.
    DestroyClosed();
    stopped_ = true;
    if (error != 0) {
        ZNR_LOG(ERROR, "IOCP reactor main loop was stopped, error=\"%s\"",
                ZNRGetErrorText(error).c_str());
    }
    CloseAll();
    // The thread object may go with its thread; its address could come back.
    loop_thread_ = nullptr;
    return error;
}

bool ZNRReactorIOCP::Turn(std::uint64_t* error) {
    UpdateTime();
    RunTimers();
    if (!RunLoopEvents(error)) return false;
    ZNRCompletion batch[kCompletionBatch];
    int count = 0;
    if (!WaitCompletions(batch, &count, error)) return false;
    for (int i = 0; i < count; ++i) {
        if (!Dispatch(batch[i], error)) return false;
    }
    DestroyClosed();
    return true;
}

void ZNRReactorIOCP::UpdateTime() { now_ = ZNRGetSysTick(); }

// The wheel fires only what is due, so a turn before the earliest expiry
// skips it.
void ZNRReactorIOCP::RunTimers() {
    ZNRGuardSpinLock guard(&timer_lock_, __FILE__, __LINE__);
    ZNRTimerMgr* const timers = GetTimerMgr();
    std::uint64_t const next = timers->GetNextExpiry();
    if (next != kNoId && next <= now_) timers->ScheduleTimers(now_);
}

bool ZNRReactorIOCP::WaitCompletions(ZNRCompletion* batch, int* count, std::uint64_t* error) {
    std::uint64_t const rc = engine_->Wait(PlanWait(), batch, kCompletionBatch, count);
    if (rc == ZNR_ERROR_TIMED_OUT) {
        idle_wakeups_.fetch_add(1, std::memory_order_relaxed);
        *count = 0;
        return true;
    }
    *error = rc;
    return rc == 0;
}

int ZNRReactorIOCP::PlanWait() {
    ZNRGuardSpinLock guard(&timer_lock_, __FILE__, __LINE__);
    std::uint64_t const next = GetTimerMgr()->GetNextExpiry();
    // Events left past the bound, or devices that timers and events closed
    // and that this turn must still release.
    if (events_left_ || !closed_->empty()) {
        planned_wake_ = now_;
        return 0;
    }
    if (next == kNoId) {
        planned_wake_ = kNoId;
        return -1;
    }
    // Timers may have run since the turn began.
    std::uint64_t const now = ZNRGetSysTick();
    if (next <= now + kNearTimerMs) {
        planned_wake_ = now + 1;
        return 1;
    }
    std::uint64_t const wait = std::min<std::uint64_t>(next - now - kNearTimerMs, INT_MAX);
    planned_wake_ = now + wait;
    return static_cast<int>(wait);
}

bool ZNRReactorIOCP::Dispatch(ZNRCompletion const& c, std::uint64_t* error) {
    if (c.key == read_device_id_) {
        // The channel stays until CloseAll has taken its writer away.
        if (c.failed) {
            read_device_->OnErrorEvent(c.error);
            *error = c.error;
            return false;
        }
        if (c.iocb != read_device_->GetAsyncIO()->GetReadIOCB()) return true;
        return read_device_->OnRecvEvent(c.bytes, error);
    }
    ZNRReactorIOCPDeviceBase* const device = FindDevice(c.key);
    if (device == nullptr) {
        CountDrained(c.key);
        return true;
    }
    dispatching_ = device;
    bool keep = false;
    std::uint64_t err = 0;
    ZNRAsyncIO* const io = device->GetAsyncIO();
    if (c.failed) {
        if (io != nullptr && c.iocb == io->GetReadIOCB() && device->RetryLater(c.error)) {
            keep = true;
        } else {
            device->OnErrorEvent(c.error);
        }
    } else if (io != nullptr && c.iocb == io->GetReadIOCB()) {
        keep = device->OnRecvEvent(c.bytes, &err);
    } else if (io != nullptr && c.iocb == io->GetWriteIOCB()) {
        keep = device->OnSendEvent(c.bytes, &err);
    } else {
        keep = true;
    }
    dispatching_ = nullptr;
    if (!keep) DelIOCPDevice(c.key);
    return true;
}

bool ZNRReactorIOCP::IsLoopThread() {
    ZNRThread* const loop = loop_thread_.load();
    return loop != nullptr && ZNRThreadMgr::Instance()->GetCurrent() == loop;
}

// ---------------------------------------------------------------- loop events

// A flag beside the queue, so that a full queue cannot refuse it.
std::uint64_t ZNRReactorIOCP::Stop() {
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    std::uint64_t const rc = AdmitLocked(false);
    if (rc != 0 || stop_requested_) return rc;
    std::uint64_t const woken = WakeLocked();
    if (woken != 0) return woken;
    stop_requested_ = true;
    events_before_stop_ = queued_count_;
    return 0;
}

std::uint64_t ZNRReactorIOCP::RegisterTask(ZNRReactorTask* task) {
    if (task == nullptr) return Stop();
    auto* const event = new ZNRReactorIOCPTaskLoopEvent(task);
    std::uint64_t const rc = RegisterLoopEvent(event);
    if (rc != 0) {
        event->TakeTask();
        event->Destroy();
    }
    return rc;
}

std::uint64_t ZNRReactorIOCP::RegisterLoopEvent(ZNRReactorLoopEvent* event) {
    if (event == nullptr) return Stop();
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    std::uint64_t const rc = AdmitLocked(true);
    return rc != 0 ? rc : QueueLocked(event);
}

std::uint64_t ZNRReactorIOCP::AdmitLocked(bool bounded) {
    if (write_device_ == nullptr) {
        ZNR_LOG(ERROR, "Can not register loop event to reactor, not ready?");
        return ZNR_ERROR_NOT_READY;
    }
    return bounded && queued_count_ >= queue_max_ ? ZNR_ERROR_QUEUE_FULL : 0;
}

// A wake-up is owed only while none is pending: until the loop finds the
// queue empty (under the lock) it takes whatever is queued, and signals
// itself while events are left. One system call per burst.
std::uint64_t ZNRReactorIOCP::WakeLocked() {
    if (wake_pending_) return 0;
    std::uint64_t const rc = write_device_->Signal(1);
    if (rc == 0) wake_pending_ = true;
    return rc;
}

std::uint64_t ZNRReactorIOCP::QueueLocked(ZNRReactorLoopEvent* event) {
    std::uint64_t const rc = WakeLocked();
    if (rc != 0) return rc;
    loop_events_->push_back(event);
    ++queued_count_;
    return 0;
}

std::uint64_t ZNRReactorIOCP::QueueSend(std::uint32_t id, unsigned char const* data, int size) {
    auto* const event = new ZNRReactorIOCPSendDataLoopEvent(id, data, size);
    std::string desc;
    bool log_here = false;
    int held = 0;
    int max = 0;
    std::uint64_t rc = 0;
    {
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        SendBudgetMap::iterator const budget = send_budgets_->find(id);
        bool const known = budget != send_budgets_->end();
        if (known) {
            held = budget->second.queued + budget->second.device_queued->load(std::memory_order_relaxed);
            max = budget->second.max;
        }
        rc = AdmitLocked(true);
        if (rc == 0 && known && static_cast<long long>(held) + size > max) {
            log_here = budget->second.desc != nullptr;
            if (log_here) desc = *budget->second.desc;
            rc = log_here ? ZNR_ERROR_SEND_OVERFLOW : ReportSendOverflowLocked(id, &budget->second, held);
        } else if (rc == 0) {
            rc = QueueLocked(event);
            if (rc == 0 && known) budget->second.queued += size;
        }
    }
    if (log_here) LogSendOverflow(held, max, desc);
    if (rc != 0) event->Destroy();
    return rc;
}

std::uint64_t ZNRReactorIOCP::ReportSendOverflowLocked(std::uint32_t id, SendBudget* budget, int held) {
    if (budget->overflow == nullptr) {
        auto* const report = new ZNRReactorIOCPSendOverflowLoopEvent(this, id, budget->max);
        std::uint64_t const rc = QueueLocked(report);
        if (rc != 0) {
            delete report;  // not Destroy: the lock is held
            return rc;
        }
        budget->overflow = report;
    }
    budget->overflow->Add(held);
    return ZNR_ERROR_SEND_OVERFLOW;
}

void ZNRReactorIOCP::TakeSendOverflows(std::uint32_t id, ZNRReactorIOCPSendOverflowLoopEvent* report,
                                       std::string const* desc, std::vector<int>* held) {
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    SendBudgetMap::iterator const budget = send_budgets_->find(id);
    if (budget != send_budgets_->end() && budget->second.overflow == report) {
        budget->second.overflow = nullptr;
        if (desc != nullptr) budget->second.desc.reset(new std::string(*desc));
    }
    if (held != nullptr) held->swap(report->held_);
}

void ZNRReactorIOCP::ReleaseSendBudget(std::uint32_t id, int size) {
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    SendBudgetMap::iterator const budget = send_budgets_->find(id);
    if (budget != send_budgets_->end()) budget->second.queued -= size;
}

// Runs what was queued when the turn began, at most the dispose size, so
// that device completions get their turn before the rest and an event
// queued again runs on a later turn. While events are left the wake-up
// stays owed, so senders do not signal, and the turn's wait does not block.
bool ZNRReactorIOCP::RunLoopEvents(std::uint64_t* error) {
    int budget = dispose_size_;
    {
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        budget = std::min(budget, queued_count_);
    }
    for (int i = 0; i <= budget; ++i) {
        ZNRReactorLoopEvent* event = nullptr;
        {
            ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
            if (stop_requested_ && events_before_stop_ == 0) {
                *error = 0;  // what follows the stop stays queued
                return false;
            }
            if (i == budget) break;
            event = loop_events_->front();
            loop_events_->pop_front();
            --queued_count_;
            if (stop_requested_) --events_before_stop_;
        }
        if (!event->OnLoopEvent(this)) {
            event->Destroy();
            continue;
        }
        // Past the queue's bound if need be: only new events are refused.
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        loop_events_->push_back(event);
        ++queued_count_;
    }
    ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
    events_left_ = !loop_events_->empty();
    if (!events_left_) wake_pending_ = false;
    return true;
}

void ZNRReactorIOCP::RegisterBeginStopNotify(ZNRReactorStopNotify* notify) {
    ZNRGuardSpinLock guard(&stop_notify_lock_, __FILE__, __LINE__);
    begin_stop_notifies_->push_back(notify);
}

void ZNRReactorIOCP::RegisterEndStopNotify(ZNRReactorStopNotify* notify) {
    ZNRGuardSpinLock guard(&stop_notify_lock_, __FILE__, __LINE__);
    end_stop_notifies_->push_back(notify);
}

void ZNRReactorIOCP::NotifyStop(ZNRStlAdapter<std::list<ZNRReactorStopNotify*>>& notifies) {
    ZNRGuardSpinLock guard(&stop_notify_lock_, __FILE__, __LINE__);
    for (ZNRReactorStopNotify* notify : *notifies) {
        notify->OnStop(this);
        notify->Destroy();
    }
    notifies->clear();
}

// ---------------------------------------------------------------- timers

std::uint64_t ZNRReactorIOCP::RegisterTimer(ZNRTimer* timer, std::uint64_t*) {
    std::uint64_t id;
    bool wake = false;
    {
        ZNRGuardSpinLock guard(&timer_lock_, __FILE__, __LINE__);
        id = GetTimerMgr()->AddTimer(timer);
        if (id != kNoId && timer->GetExpiry() < planned_wake_ && !IsLoopThread()) {
            planned_wake_ = timer->GetExpiry();
            wake = true;
        }
    }
    if (wake) {
        auto* const event = new ZNRReactorIOCPWakeLoopEvent();
        if (RegisterLoopEvent(event) != 0) event->Destroy();  // a full queue wakes it anyway
    }
    return id;
}

std::uint64_t ZNRReactorIOCP::UnregisterTimer(std::uint64_t timer_id) {
    ZNRGuardSpinLock guard(&timer_lock_, __FILE__, __LINE__);
    GetTimerMgr()->RemoveTimer(timer_id);
    return 0;
}

// ---------------------------------------------------------------- devices

std::uint64_t ZNRReactorIOCP::AddIOCPEvent(ZNRDevice* device, std::uint32_t key) {
    if (engine_ == nullptr) return ZNR_ERROR_NOT_READY;
    auto* const io = dynamic_cast<ZNRAsyncIO*>(device);
    if (io == nullptr) return ZNRSysError(EINVAL);
    return engine_->Associate(device->GetFd(), key, io);
}

std::uint64_t ZNRReactorIOCP::RegisterDevice(ZNRDevice* device, ZNRDeviceHandler* handler,
                                             std::uint64_t* error, int recv_buff_max_size,
                                             int recv_buff_grow_size, int send_buff_max_size,
                                             unsigned int timeout) {
    auto fail = [error](std::uint64_t code) {
        if (error != nullptr) *error = code;
        return kNoId;
    };
    if (device == nullptr || handler == nullptr) return fail(ZNRSysError(EINVAL));
    std::uint32_t id = 0;
    id_allocator_.AllocULONGNumId(&id);
    if (devices_->count(id) != 0 || draining_->count(id) != 0 || id == read_device_id_) {
        ZNR_LOG(ERROR, "IOCP reactor device id is overflow!");
        return fail(ZNR_ERROR_ID_OVERFLOW);
    }
    int const type = device->GetType();
    if (type != ZNRDevice::TYPE_FAKE) {
        std::uint64_t const rc = AddIOCPEvent(device, id);
        if (rc != 0) return fail(rc);
    }
    ZNRReactorIOCPDeviceBase* iocp_device;
    switch (type) {
    case ZNRDevice::TYPE_TCP_LISTEN:
        iocp_device = new ZNRReactorIOCPTcpServerDevice(this, id, device, handler);
        break;
    case ZNRDevice::TYPE_TCP_CLIENT:
        iocp_device = new ZNRReactorIOCPTcpClientDevice(this, id, device, handler);
        break;
    case ZNRDevice::TYPE_UDP:
        iocp_device = new ZNRReactorIOCPUdpDevice(this, id, device, handler);
        break;
    case ZNRDevice::TYPE_PIPE_SERVER:
        iocp_device = new ZNRReactorIOCPPipeAcceptClientDevice(this, id, device, handler);
        break;
    case ZNRDevice::TYPE_FAKE:
        iocp_device = new ZNRReactorIOCPFakeDevice(this, id, device, handler);
        break;
    default:
        iocp_device = new ZNRReactorIOCPNormalDevice(this, id, device, handler);
        break;
    }
    handler->SetDevice(device);
    handler->SetReactor(this);
    handler->SetDeviceId(id);
    iocp_device->SetRecvBuffMaxSize(recv_buff_max_size);
    iocp_device->SetRecvBuffGrowSize(recv_buff_grow_size);
    iocp_device->SetSendBuffMaxSize(send_buff_max_size);
    iocp_device->SetTimeout(timeout);
    (*devices_)[id] = iocp_device;
    {
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        (*send_budgets_)[id] = SendBudget{iocp_device->GetSendBuffMaxSize(), 0,
                                          iocp_device->GetQueuedSendBytesCounter(), nullptr, nullptr};
    }

    // Accepted connections are announced with OnOpen, connections made as
    // a client with OnWriten(0); datagram and plain descriptors start
    // reading at once; listeners and connects hear from their completion.
    // A handler may end its device in any of these calls.
    bool ok = handler->OnCreated();
    if (ok && !iocp_device->IsClosing() && type == ZNRDevice::TYPE_TCP_ACCEPTED) ok = handler->OnOpen();
    if (ok && !iocp_device->IsClosing() && type == ZNRDevice::TYPE_PIPE_CLIENT) ok = handler->OnWriten(0);
    if (ok && !iocp_device->IsClosing() && (type == ZNRDevice::TYPE_TCP_ACCEPTED || type == ZNRDevice::TYPE_PIPE_CLIENT ||
               type == ZNRDevice::TYPE_UDP || type == ZNRDevice::TYPE_UNKNOWN)) {
        std::uint64_t const rc = iocp_device->Recv();
        if (rc != 0) {
            device->SetError(rc);
            ok = false;
        }
    }
    if (!ok) {
        std::uint64_t const rc = SendData(id, nullptr, 0);
        if (rc != 0) {
            ZNR_LOG(ERROR,
                    "Can not send delay close request to device when registing failed, may be a "
                    "bug? error=\"%s\" device desc=\"%s\"",
                    ZNRGetErrorText(rc).c_str(), Narrow(device->GetDescInfo()).c_str());
        }
    }
    return id;
}

bool ZNRReactorIOCP::IsDeviceExist(std::uint64_t device_id) {
    return (device_id >> 32) == 0 && FindDevice(static_cast<std::uint32_t>(device_id)) != nullptr;
}

std::uint64_t ZNRReactorIOCP::UnregisterDevice(std::uint64_t device_id) {
    if ((device_id >> 32) != 0) return ZNR_ERROR_NO_DEVICE;
    if (!IsLoopThread() && loop_thread_.load() != nullptr) {
        return SendData(device_id, nullptr, 0);
    }
    if (!IsDeviceExist(device_id)) return ZNR_ERROR_NO_DEVICE;
    DelIOCPDevice(static_cast<std::uint32_t>(device_id));
    return 0;
}

ZNRReactorIOCPDeviceBase* ZNRReactorIOCP::FindDevice(std::uint32_t id) {
    DeviceMap::const_iterator const it = devices_->find(id);
    return it != devices_->end() ? it->second : nullptr;
}

void ZNRReactorIOCP::DelIOCPDevice(std::uint32_t id) {
    DeviceMap::iterator const it = devices_->find(id);
    if (it == devices_->end()) return;
    ZNRReactorIOCPDeviceBase* const device = it->second;
    devices_->erase(it);
    {
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        send_budgets_->erase(id);
    }
    if (dispatching_ == device) dispatching_ = nullptr;
    device->BeginClose();
    closed_->push_back(device);
}

// The handlers' OnClose may close further devices: they go in this turn too.
void ZNRReactorIOCP::DestroyClosed() {
    for (std::size_t i = 0; i < closed_->size(); ++i) {
        ZNRReactorIOCPDeviceBase* const device = (*closed_)[i];
        device->ReleaseHandler();
        ZNRAsyncIO* const io = device->GetAsyncIO();
        int const left = io != nullptr && engine_ != nullptr ? engine_->Cancel(io) : 0;
        if (left == 0) {
            device->Destroy();
        } else {
            (*draining_)[device->GetId()] = Draining{device, left};
        }
    }
    closed_->clear();
}

// The system may still hold buffers of closed devices: their cancelled
// operations complete before they go, within a bound after which freeing
// them makes the engine let go synchronously.
void ZNRReactorIOCP::DrainClosed() {
    ZNRCompletion batch[kCompletionBatch];
    while (!draining_->empty() && engine_ != nullptr) {
        int count = 0;
        if (engine_->Wait(kDrainWaitMs, batch, kCompletionBatch, &count) != 0) break;
        for (int i = 0; i < count; ++i) {
            if (batch[i].key != read_device_id_) CountDrained(batch[i].key);
        }
    }
    for (auto const& entry : *draining_) entry.second.device->Destroy();
    draining_->clear();
}

void ZNRReactorIOCP::CountDrained(std::uint32_t id) {
    auto const it = draining_->find(id);
    // Else a completion for a device closed earlier in this batch: it was
    // handed out before the cancel, which does not count it.
    if (it == draining_->end() || --it->second.left > 0) return;
    ZNRReactorIOCPDeviceBase* const device = it->second.device;
    draining_->erase(it);
    device->Destroy();
}

std::uint64_t ZNRReactorIOCP::SendData(std::uint64_t device_id, unsigned char const* data, int size) {
    if ((device_id >> 32) != 0) return ZNR_ERROR_NO_DEVICE;
    if (size < 0 || (data == nullptr && size > 0)) return ZNRSysError(EINVAL);
    std::uint32_t const id = static_cast<std::uint32_t>(device_id);
    if (!IsLoopThread()) return QueueSend(id, data, size);
    // A handler answering on its own device, the common case, needs no lookup.
    ZNRReactorIOCPDeviceBase* const device =
        dispatching_ != nullptr && dispatching_->GetId() == id ? dispatching_ : FindDevice(id);
    if (device == nullptr) {
        ZNR_LOG(ERROR, "Can not send data to device which not found, id=%u", id);
        return ZNR_ERROR_SEND_NO_DEVICE;
    }
    std::uint64_t error = 0;
    if (size != 0 && device->Send(data, size, &error)) return 0;
    // Destroyed at the end of the turn, never inside the caller's stack.
    DelIOCPDevice(id);
    return error;
}

// ---------------------------------------------------------------- shutdown

// Begin-stop notifies, devices in id order, loop events never run, the
// wake-up channel, the engine, the timers, end-stop notifies.
void ZNRReactorIOCP::CloseAll() {
    NotifyStop(begin_stop_notifies_);
    DestroyClosed();
    // In id order; a handler may still add or end devices meanwhile.
    while (!devices_->empty()) {
        std::vector<std::uint32_t> ids;
        ids.reserve(devices_->size());
        for (auto const& entry : *devices_) ids.push_back(entry.first);
        std::sort(ids.begin(), ids.end());
        for (std::uint32_t id : ids) DelIOCPDevice(id);
        DestroyClosed();
    }
    DrainClosed();
    {
        ZNRGuardSpinLock guard(&loop_event_lock_, __FILE__, __LINE__);
        for (ZNRReactorLoopEvent* event : *loop_events_) {
            if (event != nullptr) event->Destroy();
        }
        loop_events_->clear();
        queued_count_ = 0;
        if (write_device_ != nullptr) write_device_->Destroy();
        write_device_ = nullptr;
    }
    if (read_device_ != nullptr) read_device_->Destroy();
    read_device_ = nullptr;
    delete engine_;
    engine_ = nullptr;
    {
        // Timers still registered are the reactor's: they end with it.
        ZNRGuardSpinLock guard(&timer_lock_, __FILE__, __LINE__);
        GetTimerMgr()->DestroyAll();
    }
    NotifyStop(end_stop_notifies_);
}
