#ifndef PLEXA_ZNR_REACTOR_H
#define PLEXA_ZNR_REACTOR_H

#include <plexa/znr-export.h>

#include <cstdint>
#include <functional>

class ZNRDevice;
class ZNRDeviceHandler;
class ZNRReactor;
class ZNRTimer;
class ZNRTimerMgr;

// Work run on a reactor's thread, queued from any thread. True keeps the
// event for a later wake-up; false ends it (the reactor calls Destroy).
class ZNR_API ZNRReactorLoopEvent {
public:
    virtual bool OnLoopEvent(ZNRReactor* reactor) = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRReactorLoopEvent();
};

// A task run on a reactor's thread: true runs it again on a later turn,
// false ends it. The reactor never calls Cancel; Destroy releases it.
class ZNR_API ZNRReactorTask {
public:
    virtual bool Run() = 0;
    virtual void Cancel() = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRReactorTask();
};

/// A task that runs a callable: what RegisterTask(std::function) queues.
/// The callable runs on the reactor's thread; true runs it again on a
/// later turn, false ends it. Destroy deletes the task and the callable
/// with it, on the thread that releases the task.
class ZNR_API ZNRFunctionTask : public ZNRReactorTask {
public:
    /// Takes fn; any thread.
    explicit ZNRFunctionTask(std::function<bool()> fn);

    /// The callable's answer; on the reactor's thread.
    bool Run() override;
    /// Does nothing: the reactor never calls it.
    void Cancel() override;
    /// Deletes the task and the callable.
    void Destroy() override;

protected:
    ~ZNRFunctionTask() override;

private:
    std::function<bool()> fn_;
};

// Told that a reactor stops (begin: before its devices close; end: after
// everything closed), then released with Destroy.
class ZNR_API ZNRReactorStopNotify {
public:
    virtual void OnStop(ZNRReactor* reactor) = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRReactorStopNotify();
};

// An event loop driven by one thread. Registered objects become the
// reactor's on success (released through their Destroy) and stay the
// caller's on failure. Creating calls return an id, or all ones with
// *error set.
class ZNR_API ZNRReactor {
public:
    // Owns timer_mgr from now on.
    explicit ZNRReactor(ZNRTimerMgr* timer_mgr);
    ZNRReactor(ZNRReactor const&) = delete;
    ZNRReactor& operator=(ZNRReactor const&) = delete;

    virtual std::uint64_t Init() = 0;
    // Runs the loop on the calling thread until it stops.
    virtual std::uint64_t Open() = 0;
    virtual std::uint64_t Stop() = 0;
    // Sizes in bytes; timeout in milliseconds, 0xFFFFFFFF for none.
    virtual std::uint64_t RegisterDevice(ZNRDevice* device, ZNRDeviceHandler* handler,
                                         std::uint64_t* error, int recv_buff_max_size,
                                         int recv_buff_grow_size, int send_buff_max_size,
                                         unsigned int timeout) = 0;
    virtual bool IsDeviceExist(std::uint64_t device_id) = 0;
    virtual std::uint64_t UnregisterDevice(std::uint64_t device_id) = 0;
    virtual std::uint64_t RegisterTask(ZNRReactorTask* task) = 0;
    virtual std::uint64_t RegisterLoopEvent(ZNRReactorLoopEvent* event) = 0;
    virtual void RegisterBeginStopNotify(ZNRReactorStopNotify* notify) = 0;
    virtual void RegisterEndStopNotify(ZNRReactorStopNotify* notify) = 0;
    virtual std::uint64_t RegisterTimer(ZNRTimer* timer, std::uint64_t* error) = 0;
    /// Queues fn as a task (ZNRFunctionTask): it runs on this reactor's
    /// thread, again on later turns while it returns true. Any thread.
    /// Returns 0, or RegisterTask's error (fn is then destroyed, not run).
    std::uint64_t RegisterTask(std::function<bool()> fn);
    /// Arms fn as a timer (ZNRFunctionTimer) of interval ms that fires at
    /// most repeat_limit times (ZNRTimer::REPEAT_FOREVER: no limit). fn runs
    /// on this reactor's thread with the tick it fires at; true keeps the
    /// timer, false ends it. It is destroyed when it ends or the reactor
    /// stops; UnregisterTimer detaches it without destroying it, as for any
    /// timer, so end it early by having fn return false. Any thread.
    /// Returns the timer id, or all ones with *error (when given) set to
    /// RegisterTimer's error (fn is then destroyed, not run).
    std::uint64_t RegisterTimer(unsigned int interval, unsigned int repeat_limit,
                                std::function<bool(std::uint64_t now)> fn, std::uint64_t* error);
    virtual std::uint64_t UnregisterTimer(std::uint64_t timer_id) = 0;
    // Size 0 asks to close the device.
    virtual std::uint64_t SendData(std::uint64_t device_id, unsigned char const* data, int size) = 0;
    virtual void Destroy() = 0;

    // Effective at Init.
    void SetLoopEventDisposeSize(int size) { loop_event_dispose_size_ = size; }
    int GetLoopEventDisposeSize() const { return loop_event_dispose_size_; }
    void SetLoopEventQueueMaxSize(int size) { loop_event_queue_max_size_ = size; }
    int GetLoopEventQueueMaxSize() const { return loop_event_queue_max_size_; }

protected:
    virtual ~ZNRReactor();
    ZNRTimerMgr* GetTimerMgr() const { return timer_mgr_; }

private:
    ZNRTimerMgr* timer_mgr_;
    int loop_event_dispose_size_;
    int loop_event_queue_max_size_;
};

#endif
