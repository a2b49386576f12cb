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

/// @file
/// The reactor interface and the callback objects that run work on a
/// reactor's loop thread.

/// Work run on a reactor's thread, queued from any thread. True keeps the
/// event for a later wake-up; false ends it (the reactor calls Destroy).
class ZNR_API ZNRReactorLoopEvent {
public:
    /// Runs on the loop thread. True queues the event again, behind what
    /// was queued meanwhile, for a later turn; false ends it.
    virtual bool OnLoopEvent(ZNRReactor* reactor) = 0;
    /// Releases the event; called by the reactor once the event has ended,
    /// or unrun when the reactor stops with the event still queued.
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRReactorLoopEvent();
};

/// A task run on a reactor's thread: true runs it again on a later turn,
/// false ends it. The reactor never calls Cancel; Destroy releases it.
class ZNR_API ZNRReactorTask {
public:
    /// Runs on the loop thread; true runs the task again on a later turn.
    virtual bool Run() = 0;
    /// Never called by the reactor: for the host's own use.
    virtual void Cancel() = 0;
    /// Releases the task; called by the reactor once Run returned false,
    /// or unrun when the reactor stops with the task still queued.
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

/// Told that a reactor stops (begin: before its devices close; end: after
/// everything closed), then released with Destroy.
class ZNR_API ZNRReactorStopNotify {
public:
    /// Called once, in registration order, on the loop thread as the loop
    /// ends (on the destroying thread for a reactor that never ran).
    virtual void OnStop(ZNRReactor* reactor) = 0;
    /// Releases the notify, right after OnStop.
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRReactorStopNotify();
};

/// An event loop driven by one thread. Registered objects become the
/// reactor's on success (released through their Destroy) and stay the
/// caller's on failure. Creating calls return an id, or all ones with
/// *error set. Which thread may call what is stated per operation of
/// ZNRReactorIOCP, the one implementation.
class ZNR_API ZNRReactor {
public:
    /// Owns timer_mgr from now on: the destructor destroys it.
    explicit ZNRReactor(ZNRTimerMgr* timer_mgr);
    ZNRReactor(ZNRReactor const&) = delete;
    ZNRReactor& operator=(ZNRReactor const&) = delete;

    /// Makes the reactor ready to run; once, before Open.
    virtual std::uint64_t Init() = 0;
    /// Runs the loop on the calling thread until it stops.
    virtual std::uint64_t Open() = 0;
    /// Asks the loop to stop; does not wait.
    virtual std::uint64_t Stop() = 0;
    /// Registers device and handler and returns the device id, or all
    /// ones with *error (when not null) set. Sizes in bytes: the receive
    /// buffer's maximum, counted on top of one grow step (grow + max, or
    /// twice grow when max is smaller); the grow step, the most one read
    /// asks for (clipped to that maximum); the send queue's maximum,
    /// inclusive. timeout: the period of OnTimeout in milliseconds,
    /// 0xFFFFFFFF for none. See @ref handler_life.
    virtual std::uint64_t RegisterDevice(ZNRDevice* device, ZNRDeviceHandler* handler,
                                         std::uint64_t* error, int recv_buff_max_size,
                                         int recv_buff_grow_size, int send_buff_max_size,
                                         unsigned int timeout) = 0;
    /// Whether device_id names a registered device not closed yet.
    virtual bool IsDeviceExist(std::uint64_t device_id) = 0;
    /// Ends a device: its handler gets OnClose, then Destroy.
    virtual std::uint64_t UnregisterDevice(std::uint64_t device_id) = 0;
    /// Queues a task for the loop thread; null is a stop request.
    virtual std::uint64_t RegisterTask(ZNRReactorTask* task) = 0;
    /// Queues a loop event for the loop thread; null is a stop request.
    virtual std::uint64_t RegisterLoopEvent(ZNRReactorLoopEvent* event) = 0;
    /// Takes notify over; it is told before the devices close at stop.
    virtual void RegisterBeginStopNotify(ZNRReactorStopNotify* notify) = 0;
    /// Takes notify over; it is told after everything closed at stop.
    virtual void RegisterEndStopNotify(ZNRReactorStopNotify* notify) = 0;
    /// Arms timer and returns its id; the reactor owns it until it ends
    /// or is unregistered.
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
    /// Detaches a timer without calling it; the caller owns it again.
    virtual std::uint64_t UnregisterTimer(std::uint64_t timer_id) = 0;
    /// Sends a copy of size bytes of data to the device; the caller may
    /// reuse data as soon as the call returns. Size 0 asks to close the
    /// device.
    virtual std::uint64_t SendData(std::uint64_t device_id, unsigned char const* data, int size) = 0;
    /// Deletes the reactor; not while Open runs.
    virtual void Destroy() = 0;

    /// At most this many queued loop events run per turn (default 100).
    /// Effective at Init: set it before, on the creating thread.
    void SetLoopEventDisposeSize(int size) { loop_event_dispose_size_ = size; }
    /// The value given to SetLoopEventDisposeSize.
    int GetLoopEventDisposeSize() const { return loop_event_dispose_size_; }
    /// The most loop events that may wait at once (default 100000); past
    /// it new events are refused with library error 39. Effective at Init.
    void SetLoopEventQueueMaxSize(int size) { loop_event_queue_max_size_ = size; }
    /// The value given to SetLoopEventQueueMaxSize.
    int GetLoopEventQueueMaxSize() const { return loop_event_queue_max_size_; }

protected:
    /// Destroys the timer manager.
    virtual ~ZNRReactor();
    /// The timer manager, owned by the reactor.
    ZNRTimerMgr* GetTimerMgr() const { return timer_mgr_; }

private:
    ZNRTimerMgr* timer_mgr_;
    int loop_event_dispose_size_;
    int loop_event_queue_max_size_;
};

#endif
