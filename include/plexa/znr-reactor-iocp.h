#ifndef PLEXA_ZNR_REACTOR_IOCP_H
#define PLEXA_ZNR_REACTOR_IOCP_H

#include <plexa/znr-export.h>
#include <plexa/znr-id-allocator.h>
#include <plexa/znr-reactor.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>
#include <plexa/znr-thread-mutex.h>

#include <atomic>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class ZNRCompletionEngine;
struct ZNRCompletion;
class ZNRReactorIOCPDeviceBase;
class ZNRReactorIOCPLoopEventReadDevice;
class ZNRReactorIOCPLoopEventWriteDevice;
class ZNRReactorIOCPSendOverflowLoopEvent;
class ZNRThread;

/// @file
/// The library's reactor on the platform's completion engine.

/// The library's reactor, on the platform's completion engine: one loop
/// thread (the one in Open) waits for completions, turns them into device
/// handler calls, runs loop events and fires timers. Other threads reach
/// it through loop events, queued under a lock; a wake-up channel, whose
/// read end the loop watches as device 1, tells it that the queue is not
/// empty.
///
/// Any thread: Stop, RegisterTask, RegisterLoopEvent, the stop-notify and
/// timer registrations, SendData, UnregisterDevice, IsStopped. Loop thread
/// only (before Open: the thread that will run it): RegisterDevice,
/// IsDeviceExist.
///
/// A device ends the same way from every path (a handler callback, a timer,
/// a task, a close request from another thread): it leaves the device
/// table, its I/O stops, and at the end of the loop turn its handler gets
/// OnClose and Destroy; what it had under way is cancelled, and the device
/// itself goes once those operations have completed. Nothing of the handler is
/// called after that, and nothing is freed under a caller's stack. See
/// @ref handler_life.
///
/// Once the loop has ended (and before Init) every cross-thread call is
/// refused with library error 11, logged as "Can not register loop event
/// to reactor, not ready?".
class ZNR_API ZNRReactorIOCP : public ZNRReactor {
public:
    /// Owns timer_mgr from now on.
    explicit ZNRReactorIOCP(ZNRTimerMgr* timer_mgr);

    /// Names the completion engine Init makes: "io_uring" or "epoll" on
    /// Linux. Null or empty (the default): the one the PLEXA_ENGINE
    /// environment variable names, else io_uring where the kernel allows
    /// it and epoll otherwise. A named engine that cannot start, or an
    /// unknown name, fails Init. Before Init (after it: EBUSY), from the
    /// thread that will call Init.
    std::uint64_t SetEngine(char const* name);
    /// The engine Init made ("io_uring", "epoll"); null before Init and
    /// after the loop has ended. Loop thread.
    char const* GetEngineName() const;
    /// Creates the completion engine and the wake-up channel; 0 at once
    /// when done before. Logs which engine it made and why, as "IOCP
    /// reactor uses the %s completion engine, %s". A system error (errno)
    /// when either fails: a named engine the system refuses gives the
    /// system's error, an unknown name EINVAL. Any thread, before Open.
    std::uint64_t Init() override;
    /// Runs the loop on the calling thread, which becomes the loop thread,
    /// until a stop request (0) or a failure of the engine (its error,
    /// logged as "IOCP reactor main loop was stopped, error=\"%s\"");
    /// library error 11 without Init. On the way out, in order: devices
    /// closed during the loop (OnClose, Destroy), begin-stop notifies,
    /// every device left in id order (Destroy only), loop events still
    /// queued (destroyed unrun), the channel, the engine, the timers still
    /// registered (destroyed without OnClose), end-stop notifies.
    std::uint64_t Open() override;
    /// Loop thread only. Failure: EINVAL for a null device or handler or
    /// a device without an asynchronous side, library error 40 when the id
    /// space has wrapped onto a live device ("IOCP reactor device id is
    /// overflow!"), library error 11 without Init, the system error of
    /// watching the descriptor; device and handler then stay the caller's.
    /// On success both are the reactor's, and the handler gets OnCreated,
    /// then OnOpen (accepted TCP connection) or OnWriten(0) (pipe client).
    /// A handler that refuses ends its device through a close request: the
    /// id is returned all the same.
    std::uint64_t RegisterDevice(ZNRDevice* device, ZNRDeviceHandler* handler,
                                 std::uint64_t* error, int recv_buff_max_size,
                                 int recv_buff_grow_size, int send_buff_max_size,
                                 unsigned int timeout) override;
    /// Loop thread only. False for an id above 32 bits.
    bool IsDeviceExist(std::uint64_t device_id) override;
    /// On the loop thread: 0, or library error 12 for an unknown device; the
    /// device is destroyed at the end of the turn. From another thread the
    /// close travels as a loop event (0, or the queue's error).
    std::uint64_t UnregisterDevice(std::uint64_t device_id) override;
    /// Never refused for a full queue: the events queued before it run, the
    /// ones after it are destroyed unrun. Library error 11 once torn down.
    std::uint64_t Stop() override;
    /// A task that returns true runs again on a later turn, behind what was
    /// queued meanwhile; it keeps its place even when the queue is full.
    /// Null is Stop(). Refused (library error 39, queue full; 11) the task
    /// stays the caller's.
    std::uint64_t RegisterTask(ZNRReactorTask* task) override;
    using ZNRReactor::RegisterTask;
    /// Any thread. Null is Stop(). Library error 39 when the queue is at
    /// its maximum, 11 when torn down; the event then stays the caller's.
    std::uint64_t RegisterLoopEvent(ZNRReactorLoopEvent* event) override;
    /// Any thread; always taken over.
    void RegisterBeginStopNotify(ZNRReactorStopNotify* notify) override;
    /// Any thread; always taken over.
    void RegisterEndStopNotify(ZNRReactorStopNotify* notify) override;
    /// Any thread; a timer due before the loop means to wake wakes it.
    /// The timer runs on the loop thread and is destroyed when it ends or
    /// when the reactor stops. All ones for a null timer or one already
    /// registered; *error is never written.
    std::uint64_t RegisterTimer(ZNRTimer* timer, std::uint64_t* error) override;
    using ZNRReactor::RegisterTimer;
    /// Any thread; 0 always. An unknown id (a timer that has ended, its
    /// object gone) is ignored.
    std::uint64_t UnregisterTimer(std::uint64_t timer_id) override;
    /// Any thread. Library error 12 for an id above 32 bits, EINVAL for a
    /// negative size or null data. On the loop thread: library error 38
    /// for an unknown device; a send that fails (library error 8 past the
    /// send maximum, or the write's system error) tells the handler
    /// (OnError) and ends the device. From another thread the bytes are
    /// copied into a loop event; what such events and the device's send
    /// queue hold counts against its send maximum here, so a send past it
    /// is refused with library error 8 and nothing queued (the device
    /// stays); 39 and 11 as RegisterLoopEvent; a device gone meanwhile
    /// drops the bytes with a log line.
    std::uint64_t SendData(std::uint64_t device_id, unsigned char const* data, int size) override;
    /// Deletes the reactor; what is still open is closed as at the end of
    /// Open, handlers without OnClose. Not while Open runs.
    void Destroy() override;

    /// Any thread: whether the loop has ended.
    bool IsStopped() const { return stopped_; }
    /// Any thread. How often the loop woke from an empty wait, for tests
    /// and tuning.
    std::uint64_t GetIdleWakeups() const { return idle_wakeups_.load(std::memory_order_relaxed); }

protected:
    ~ZNRReactorIOCP() override;

private:
    friend class ZNRReactorIOCPDeviceBase;
    friend class ZNRReactorIOCPDeviceTimer;
    friend class ZNRReactorIOCPAcceptRetryTimer;
    friend class ZNRReactorIOCPSendDataLoopEvent;
    friend class ZNRReactorIOCPSendOverflowLoopEvent;

    // Looked up on every completion; ordered only at shutdown.
    typedef std::unordered_map<std::uint32_t, ZNRReactorIOCPDeviceBase*> DeviceMap;
    // What cross-thread sends hold in the loop-event queue for one device,
    // and the bytes in its send queue: both count against its maximum.
    struct SendBudget {
        int max;
        int queued;
        std::atomic<int> const* device_queued;
        // Refusals waiting to be logged on the loop thread, if any; the
        // description's text once that has been done.
        ZNRReactorIOCPSendOverflowLoopEvent* overflow;
        std::unique_ptr<std::string> desc;
    };
    typedef std::unordered_map<std::uint32_t, SendBudget> SendBudgetMap;

    bool IsLoopThread();
    std::uint64_t AddIOCPEvent(ZNRDevice* device, std::uint32_t key);
    // Takes the device out of the table and stops its I/O; it is destroyed
    // by DestroyClosed. Unknown ids (closed already) are ignored.
    void DelIOCPDevice(std::uint32_t id);
    ZNRReactorIOCPDeviceBase* FindDevice(std::uint32_t id);
    // One turn of the loop, its phases in order; false ends the loop.
    bool Turn(std::uint64_t* error);
    void UpdateTime();
    void RunTimers();
    bool RunLoopEvents(std::uint64_t* error);
    // How long the wait may block, in ms: 0 when work is pending, else
    // until the nearest timer, else -1 (without limit).
    int PlanWait();
    bool WaitCompletions(ZNRCompletion* batch, int* count, std::uint64_t* error);
    bool Dispatch(ZNRCompletion const& completion, std::uint64_t* error);
    // A completion for a device closed in an earlier turn: the last one
    // it waited for destroys it.
    void CountDrained(std::uint32_t id);
    // Handlers of devices closed during the turn hear OnClose; their
    // operations are cancelled, and each device goes once its last
    // completion is in.
    void DestroyClosed();
    // Under the loop-event lock, which the caller holds: whether the
    // channel takes more (bounded: also whether the queue has room), the
    // wake-up signal, queueing.
    std::uint64_t AdmitLocked(bool bounded);
    std::uint64_t WakeLocked();
    std::uint64_t QueueLocked(ZNRReactorLoopEvent* event);
    std::uint64_t QueueSend(std::uint32_t id, unsigned char const* data, int size);
    void ReleaseSendBudget(std::uint32_t id, int size);
    // A send over the device's maximum from another thread: library error
    // 8, and a line logged on the loop thread. Under the loop-event lock.
    std::uint64_t ReportSendOverflowLocked(std::uint32_t id, SendBudget* budget, int held);
    // The report's refusals into *held (when given); the device's budget
    // forgets the report and keeps *desc (when given).
    void TakeSendOverflows(std::uint32_t id, ZNRReactorIOCPSendOverflowLoopEvent* report,
                           std::string const* desc, std::vector<int>* held);
    void NotifyStop(ZNRStlAdapter<std::list<ZNRReactorStopNotify*>>& notifies);
    void CloseAll();
    void DrainClosed();

    ZNRCompletionEngine* engine_;
    ZNRStlAdapter<std::string> engine_name_;
    ZNRIdAllocator id_allocator_;
    ZNRStlAdapter<DeviceMap> devices_;
    // Closed during this turn, released at its end in closing order.
    ZNRStlAdapter<std::vector<ZNRReactorIOCPDeviceBase*>> closed_;
    // Closed devices waiting for the completions of their cancelled
    // operations, with how many are still to come.
    struct Draining {
        ZNRReactorIOCPDeviceBase* device;
        int left;
    };
    ZNRStlAdapter<std::unordered_map<std::uint32_t, Draining>> draining_;
    ZNRStlAdapter<std::list<ZNRReactorStopNotify*>> begin_stop_notifies_;
    ZNRStlAdapter<std::list<ZNRReactorStopNotify*>> end_stop_notifies_;
    ZNRThreadMutex timer_lock_;
    ZNRThreadMutex stop_notify_lock_;
    std::atomic<ZNRThread*> loop_thread_;
    std::atomic<bool> stopped_;
    // A deque: queueing an event allocates nothing in the steady state.
    ZNRStlAdapter<std::deque<ZNRReactorLoopEvent*>> loop_events_;
    ZNRThreadMutex loop_event_lock_;
    int queued_count_;
    ZNRReactorIOCPLoopEventReadDevice* read_device_;
    ZNRReactorIOCPLoopEventWriteDevice* write_device_;
    std::uint32_t read_device_id_;
    // The tick the loop means to wake at (all ones: not before an event),
    // so that a timer due earlier, added from another thread, wakes it.
    std::uint64_t planned_wake_;
    int dispose_size_;
    int queue_max_;
    bool wake_pending_;  // under the loop-event lock
    // A stop request stands beside the queue, behind the events queued
    // before it (under the loop-event lock).
    bool stop_requested_;
    int events_before_stop_;
    ZNRStlAdapter<SendBudgetMap> send_budgets_;  // under the loop-event lock
    // The device whose completion is being handled, so that its handler's
    // answers need no lookup; cleared when it closes.
    ZNRReactorIOCPDeviceBase* dispatching_;
    // Loop thread only: the tick of this turn, and whether loop events
    // were left queued past the turn's bound.
    std::uint64_t now_;
    bool events_left_;
    std::atomic<std::uint64_t> idle_wakeups_;
};

#endif
