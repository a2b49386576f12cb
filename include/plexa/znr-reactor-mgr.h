#ifndef PLEXA_ZNR_REACTOR_MGR_H
#define PLEXA_ZNR_REACTOR_MGR_H

#include <plexa/znr-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-export.h>
#include <plexa/znr-id-allocator.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-reactor-iocp.h>
#include <plexa/znr-singleton.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>
#include <plexa/znr-thread-mutex.h>
#include <plexa/znr-thread.h>
#include <plexa/znr-timer.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <list>
#include <map>
#include <string>

/// @file
/// The reactor manager: creates reactors, runs them and routes calls to
/// them by id.

/// The thread a reactor manager runs one reactor's loop on. Made and
/// owned by the manager.
class ZNR_API ZNRReactorThread : public ZNRThread {
public:
    /// user_data is not owned.
    ZNRReactorThread(std::uint64_t reactor_id, void* user_data);

    /// The id of the reactor the thread runs.
    std::uint64_t GetReactorId() const { return reactor_id_; }
    /// The user data given to StartThread.
    void* GetUserData() const { return user_data_; }
    /// Deletes the object; the thread itself is neither stopped nor joined.
    virtual void Destroy();

protected:
    ~ZNRReactorThread() override;

private:
    std::uint64_t reactor_id_;
    void* user_data_;
};

/// @cond INTERNAL
// Log lines name the functions as the library's one instantiation.
#define PLEXA_REACTOR_MGR_FUNCTION(name) \
    "ZNRReactorMgr_T<class ZNRReactorIOCP,class ZNRTimerMgr,class ZNRReactorThread>::" name
/// @endcond

/// Creates reactors, runs each on the caller's thread (Start) or on a thread
/// of its own (StartThread), and routes calls to them by a 64-bit id. R is
/// the reactor, T its timer manager, TH the thread. The process-wide one
/// is ZNRSingleton<ZNRReactorMgr>::Instance(); RemoveAll is its shutdown
/// call, before the singleton is destroyed.
///
/// A reader/writer lock guards the table only: no reactor call, handler or
/// join runs under it, so whatever a reactor calls back may use the whole
/// manager. A call routed to a reactor holds a reference to its entry, as
/// does a running loop and a Wait; a removal takes the entry out of the
/// table, and whoever lets go of the last reference destroys the reactor,
/// so a removal never waits for calls in progress, nor frees the reactor
/// under one.
///
/// An id that names no reactor is refused: Start, StartThread and Stop
/// return library error 30, IsRunInCurrentThread false, and Wait, Remove
/// and Destroy do nothing.
///
/// Only a thread made by StartThread is ever stopped, joined or deleted
/// here; the creating thread recorded by New is only compared with the
/// caller. A reactor whose loop runs where the remover cannot join it (its
/// own loop: a task, a handler, OnThreadStopped; or a loop of Start on
/// another thread) is taken out of the table at once, asked to stop, and
/// destroyed once Open has returned; a reactor thread nobody has joined is
/// joined by the next RemoveAll or by the destructor.
///
/// A reactor removed or destroyed while devices are still open closes them
/// without OnClose: their handlers get Destroy only (see @ref handler_life).
template <class R, class T, class TH>
class ZNR_API ZNRReactorMgr_T {
public:
    /// @cond INTERNAL
    struct ReactorWrap {
        // Whether a loop (Start or the reactor thread) is inside Open.
        enum Loop_t { LOOP_IDLE = 0, LOOP_RUNNING = 1 };

        std::uint64_t id = 0xFFFFFFFFFFFFFFFFULL;
        R* reactor = nullptr;
        ZNRThread* thread = nullptr;
        bool own_thread = false;
        std::atomic<int> loop{LOOP_IDLE};
        // The table's, the loop's and one per call in progress.
        std::atomic<int> refs{1};
    };

    // Runs one reactor's loop on its reactor thread.
    class ReactorThreadRunable : public ZNRThreadRunable {
    public:
        ReactorThreadRunable(ZNRReactorMgr_T* mgr, ReactorWrap* wrap) : mgr_(mgr), wrap_(wrap) {}

        void Run(ZNRThread* thread) override {
            TH* const reactor_thread = static_cast<TH*>(thread);
            std::uint64_t const error = wrap_->reactor->Open();
            mgr_->OnThreadStopped(reactor_thread->GetReactorId(), thread, error);
            mgr_->EndLoop(wrap_);
        }
        void Destroy() override { delete this; }

    protected:
        ~ReactorThreadRunable() override {}

    private:
        ZNRReactorMgr_T* mgr_;
        ReactorWrap* wrap_;
    };
    /// @endcond

    /// An empty table.
    ZNRReactorMgr_T() = default;
    ZNRReactorMgr_T(ZNRReactorMgr_T const&) = delete;
    ZNRReactorMgr_T& operator=(ZNRReactorMgr_T const&) = delete;

    /// Frees the table; stops and destroys no reactor (RemoveAll does). Joins
    /// the threads of destroyed reactors that nobody has joined.
    virtual ~ZNRReactorMgr_T() {
        for (auto& entry : *table_) delete entry.second;
        ReapThreads();
    }

    /// Any thread. Creates and initialises a reactor bound to the calling
    /// thread, not started, and returns its id (the first is 1); all ones
    /// with *error (when not null) set to Init's error when Init fails.
    virtual std::uint64_t New(std::uint64_t* error) {
        T* const timer_mgr = OnCreateTimerMgr();
        OnTimerMgrCreated(timer_mgr);
        R* const reactor = OnCreateReactor(timer_mgr);
        OnReactorCreated(reactor);
        std::uint64_t const rc = reactor->Init();
        if (rc != 0) {
            if (error != nullptr) *error = rc;
            reactor->Destroy();
            return 0xFFFFFFFFFFFFFFFFULL;
        }
        ReactorWrap* const wrap = new ReactorWrap();
        wrap->reactor = reactor;
        wrap->thread = ZNRThreadMgr::Instance()->GetCurrent();
        ZNRGuardWriteSpinLock guard(&lock_, __FILE__, __LINE__);
        id_allocator_.AllocNumId(&wrap->id);
        (*table_)[wrap->id] = wrap;
        return wrap->id;
    }

    /// Any thread. Runs the loop on the calling thread until it ends and
    /// returns its result; EBUSY when the reactor already runs.
    virtual std::uint64_t Start(std::uint64_t id) {
        ReactorWrap* wrap = nullptr;
        {
            ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
            wrap = Find(id);
            if (wrap == nullptr) return ZNR_ERROR_NO_REACTOR;
            if (wrap->own_thread || !BeginLoop(wrap)) return ZNRSysError(EBUSY);
            Ref(wrap);
        }
        std::uint64_t const error = wrap->reactor->Open();
        EndLoop(wrap);
        return error;
    }

    /// Any thread. Runs the loop on a new reactor thread named name; EBUSY
    /// when the reactor already runs, the thread's start error when it
    /// cannot start (the reactor stays, not running). user_data is not
    /// owned.
    virtual std::uint64_t StartThread(std::uint64_t id, ZNRString const& name, void* user_data) {
        ZNRGuardWriteSpinLock guard(&lock_, __FILE__, __LINE__);
        ReactorWrap* const wrap = Find(id);
        if (wrap == nullptr) return ZNR_ERROR_NO_REACTOR;
        if (wrap->own_thread || !BeginLoop(wrap)) return ZNRSysError(EBUSY);
        TH* const thread = OnCreateThread(id, user_data);
        OnThreadCreated(thread);
        wrap->thread = thread;
        wrap->own_thread = true;
        thread->SetName(name);
        ReactorThreadRunable* const runable = new ReactorThreadRunable(this, wrap);
        // The loop's reference; the table's keeps it from being the last
        // while the lock is held.
        Ref(wrap);
        std::uint64_t const error = thread->Start(runable);
        if (error != 0) {
            runable->Destroy();
            thread->Destroy();
            wrap->thread = nullptr;
            wrap->own_thread = false;
            wrap->loop = ReactorWrap::LOOP_IDLE;
            wrap->refs.fetch_sub(1, std::memory_order_relaxed);
        }
        return error;
    }

    /// Any thread. Whether the reactor's thread (the creating thread until
    /// StartThread) is the caller.
    virtual bool IsRunInCurrentThread(std::uint64_t id) {
        ZNRThread* const current = ZNRThreadMgr::Instance()->GetCurrent();
        ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
        ReactorWrap* const wrap = Find(id);
        return wrap != nullptr && wrap->thread == current;
    }

    /// Any thread. The smallest reactor id, or a new unstarted reactor when
    /// there is none (errors as New).
    virtual std::uint64_t GetDefault(std::uint64_t* error) {
        {
            ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
            if (!table_->empty()) return table_->begin()->first;
        }
        return New(error);
    }

    /// Any thread. Takes the reactor out of the table, then, with no lock
    /// held, stops it, joins a reactor thread unless it is the caller, and
    /// destroys it (or leaves that to the last call still using it); see the
    /// class comment for the caller's own loop.
    virtual void Remove(std::uint64_t id) { RemoveOne(id, ZNRThreadMgr::Instance()->GetCurrent()); }

    /// Any thread. Destroys a reactor whose loop has ended, without stop or
    /// join (an unjoined thread is left to RemoveAll); a loop still running
    /// is asked to stop, and the reactor goes once Open has returned.
    virtual void Destroy(std::uint64_t id) {
        ReactorWrap* const wrap = Take(id);
        if (wrap == nullptr) return;
        StopLoop(wrap);
        Unref(wrap);
    }

    /// Any thread but the reactor's own. Joins the reactor thread, with no
    /// lock held; nothing for a reactor without one.
    virtual void Wait(std::uint64_t id) {
        ReactorWrap* wrap = nullptr;
        {
            ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
            wrap = Find(id);
            if (wrap == nullptr || !wrap->own_thread) return;
            Ref(wrap);
        }
        // A racing Remove may join first; the thread object outlives both.
        wrap->thread->Join(nullptr);
        Unref(wrap);
    }

    /// Any thread. Asks the reactor to stop; does not wait. The reactor's
    /// own refusal (library error 11 once its loop has ended) is returned.
    virtual std::uint64_t Stop(std::uint64_t id) {
        Pin const wrap(this, id);
        if (!wrap) return ZNR_ERROR_NO_REACTOR;
        return wrap->reactor->Stop();
    }

    /// Any thread; the shutdown call. Removes every reactor in id order, as
    /// Remove does: each is stopped, its thread joined, and the devices it
    /// still holds are destroyed without OnClose.
    virtual void RemoveAll() {
        ZNRThread* const current = ZNRThreadMgr::Instance()->GetCurrent();
        for (;;) {
            std::uint64_t id = 0;
            {
                ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
                if (table_->empty()) break;
                id = table_->begin()->first;
            }
            RemoveOne(id, current);
        }
        ReapThreads();
    }

    /// @name Routing
    /// Any thread for tasks, notifies, timers, sends and UnregisterDevice;
    /// the reactor's thread for RegisterDevice (before Start: the thread
    /// that will run it). The reactor runs the call with no lock held and
    /// outlives it; its result and ownership rules are ZNRReactorIOCP's.
    /// Unknown reactor: logged, library error 30, and the object handed in
    /// stays the caller's.
    ///@{

    /// ZNRReactorIOCP::RegisterDevice on reactor_id. Unknown reactor:
    /// library error 30 in *error, all ones returned.
    virtual std::uint64_t RegisterDevice(std::uint64_t reactor_id, ZNRDevice* device,
                                         ZNRDeviceHandler* handler, std::uint64_t* error,
                                         int recv_buff_max_size, int recv_buff_grow_size,
                                         int send_buff_max_size, unsigned int timeout) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("RegisterDevice"))(
                "Can not register device to reactor, reactor not found, reactor id=%llu, "
                "device desc=\"%s\"",
                static_cast<unsigned long long>(reactor_id),
                device != nullptr ? device->GetDescInfo().ToStdCStr().c_str() : "");
            if (error != nullptr) *error = ZNR_ERROR_NO_REACTOR;
            return 0xFFFFFFFFFFFFFFFFULL;
        }
        return wrap->reactor->RegisterDevice(device, handler, error, recv_buff_max_size,
                                             recv_buff_grow_size, send_buff_max_size, timeout);
    }

    /// ZNRReactorIOCP::UnregisterDevice on reactor_id.
    virtual std::uint64_t UnregisterDevice(std::uint64_t reactor_id, std::uint64_t device_id) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("UnregisterDevice"))(
                "Can not unregister device from reactor, reactor not found, reactor id=%llu, "
                "device id=%llu",
                static_cast<unsigned long long>(reactor_id),
                static_cast<unsigned long long>(device_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        return wrap->reactor->UnregisterDevice(device_id);
    }

    /// ZNRReactorIOCP::RegisterTask on reactor_id.
    virtual std::uint64_t RegisterTask(std::uint64_t reactor_id, ZNRReactorTask* task) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("RegisterTask"))(
                "Can not register task to reactor, reactor not found, reactor id=%llu",
                static_cast<unsigned long long>(reactor_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        return wrap->reactor->RegisterTask(task);
    }

    /// ZNRReactorIOCP::RegisterBeginStopNotify on reactor_id; 0 when found.
    virtual std::uint64_t RegisterBeginStopNotify(std::uint64_t reactor_id,
                                                  ZNRReactorStopNotify* notify) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("RegisterBeginStopNotify"))(
                "Can not register begin stop notify to reactor, reactor not found, reactor id=%llu",
                static_cast<unsigned long long>(reactor_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        wrap->reactor->RegisterBeginStopNotify(notify);
        return 0;
    }

    /// ZNRReactorIOCP::RegisterEndStopNotify on reactor_id; 0 when found.
    virtual std::uint64_t RegisterEndStopNotify(std::uint64_t reactor_id,
                                                ZNRReactorStopNotify* notify) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("RegisterEndStopNotify"))(
                "Can not register end stop notify to reactor, reactor not found, reactor id=%llu",
                static_cast<unsigned long long>(reactor_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        wrap->reactor->RegisterEndStopNotify(notify);
        return 0;
    }

    /// ZNRReactorIOCP::RegisterTimer on reactor_id. Unknown reactor: library
    /// error 30 returned in place of the timer id, *error untouched.
    virtual std::uint64_t RegisterTimer(std::uint64_t reactor_id, ZNRTimer* timer,
                                        std::uint64_t* error) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("RegisterTimer"))(
                "Can not register timer to reactor, reactor not found, reactor id=%llu",
                static_cast<unsigned long long>(reactor_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        return wrap->reactor->RegisterTimer(timer, error);
    }

    /// Queues fn as a task on the reactor (see ZNRReactor::RegisterTask(fn)).
    /// Any thread. Returns 0; library error 30 (logged as for a task) for
    /// an unknown reactor, or the reactor's refusal: fn is then destroyed.
    std::uint64_t RegisterTask(std::uint64_t reactor_id, std::function<bool()> fn) {
        ZNRReactorTask* const task = new ZNRFunctionTask(std::move(fn));
        std::uint64_t const error = RegisterTask(reactor_id, task);
        if (error != 0) task->Destroy();
        return error;
    }

    /// Arms fn as a timer on the reactor (see ZNRReactor::RegisterTimer(
    /// interval, repeat_limit, fn, error)). Any thread. Returns the timer id,
    /// or all ones with *error (when given) set: library error 30 (logged
    /// as for a timer) for an unknown reactor, else the reactor's refusal;
    /// fn is then destroyed.
    std::uint64_t RegisterTimer(std::uint64_t reactor_id, unsigned int interval,
                                unsigned int repeat_limit, std::function<bool(std::uint64_t now)> fn,
                                std::uint64_t* error) {
        std::uint64_t const not_found = ZNR_ERROR_NO_REACTOR;
        ZNRTimer* const timer = new ZNRFunctionTimer(interval, repeat_limit, std::move(fn));
        std::uint64_t rc = ZNRSysError(EINVAL);  // a reactor may refuse without saying why
        std::uint64_t const id = RegisterTimer(reactor_id, timer, &rc);
        // The routing call answers an unknown reactor with 30 in the place of the id.
        if (id != 0xFFFFFFFFFFFFFFFFULL && id != not_found) return id;
        timer->Destroy();
        if (error != nullptr) *error = id == not_found ? not_found : rc;
        return 0xFFFFFFFFFFFFFFFFULL;
    }

    /// ZNRReactorIOCP::UnregisterTimer on reactor_id.
    virtual std::uint64_t UnregisterTimer(std::uint64_t reactor_id, std::uint64_t timer_id) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("UnregisterTimer"))(
                "Can not unregister timer from reactor, reactor not found, reactor id=%llu "
                "timer id=%llu",
                static_cast<unsigned long long>(reactor_id),
                static_cast<unsigned long long>(timer_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        return wrap->reactor->UnregisterTimer(timer_id);
    }

    /// ZNRReactorIOCP::SendData on reactor_id: the bytes are copied, size 0
    /// closes the device.
    virtual std::uint64_t SendData(std::uint64_t reactor_id, std::uint64_t device_id,
                                   unsigned char const* data, int size) {
        Pin const wrap(this, reactor_id);
        if (!wrap) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("SendData"))(
                "Can not send data to reactor device, reactor not found, reactor id=%llu "
                "device id=%llu",
                static_cast<unsigned long long>(reactor_id),
                static_cast<unsigned long long>(device_id));
            return ZNR_ERROR_NO_REACTOR;
        }
        return wrap->reactor->SendData(device_id, data, size);
    }

    ///@}

    /// Any thread. The number of reactors in the table.
    virtual unsigned int GetCount() const {
        ZNRGuardReadSpinLock guard(&lock_, __FILE__, __LINE__);
        return static_cast<unsigned int>(table_->size());
    }

    /// On the reactor thread, once its loop has ended. Logs "Reactor thread
    /// has stopped, ..." (at error level with the error's text when error is
    /// not 0); the reactor stays in the table.
    virtual void OnThreadStopped(std::uint64_t reactor_id, ZNRThread* thread, std::uint64_t error) {
        std::string const name = thread->GetName().ToStdCStr();
        if (error == 0) {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_INFO, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("OnThreadStopped"))(
                "Reactor thread has stopped, id=%llu thread name=\"%s\"",
                static_cast<unsigned long long>(reactor_id), name.c_str());
        } else {
            ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_ERROR, ZNR_SOURCE_FILE, __LINE__,
                                 PLEXA_REACTOR_MGR_FUNCTION("OnThreadStopped"))(
                "Reactor thread has stopped, id=%llu thread name=\"%s\" error=\"%s\"",
                static_cast<unsigned long long>(reactor_id), name.c_str(),
                ZNRGetErrorText(error).c_str());
        }
    }

protected:
    // Factory hooks, called by New and StartThread on the caller's thread.
    /// A new reactor owning timer_mgr; the manager owns what it returns.
    virtual R* OnCreateReactor(T* timer_mgr) { return new R(timer_mgr); }
    /// Told of a new reactor before its Init; does nothing here.
    virtual void OnReactorCreated(R*) {}
    /// A new timer manager, handed to OnCreateReactor.
    virtual T* OnCreateTimerMgr() { return new T(); }
    /// Told of a new timer manager; does nothing here.
    virtual void OnTimerMgrCreated(T*) {}
    /// A new reactor thread, owned by the manager.
    virtual TH* OnCreateThread(std::uint64_t reactor_id, void* user_data) {
        return new TH(reactor_id, user_data);
    }
    /// Told of a new reactor thread before it starts; does nothing here.
    virtual void OnThreadCreated(TH*) {}

private:
    typedef std::map<std::uint64_t, ReactorWrap*> ReactorMap;

    ReactorWrap* Find(std::uint64_t id) const {
        auto const it = table_->find(id);
        return it == table_->end() ? nullptr : it->second;
    }

    // A reference to an entry, taken under the read lock and dropped
    // without it; empty for an unknown id.
    class Pin {
    public:
        Pin(ZNRReactorMgr_T* mgr, std::uint64_t id) : mgr_(mgr) {
            ZNRGuardReadSpinLock guard(&mgr->lock_, __FILE__, __LINE__);
            wrap_ = mgr->Find(id);
            if (wrap_ != nullptr) Ref(wrap_);
        }
        ~Pin() {
            if (wrap_ != nullptr) mgr_->Unref(wrap_);
        }
        Pin(Pin const&) = delete;
        Pin& operator=(Pin const&) = delete;

        explicit operator bool() const { return wrap_ != nullptr; }
        ReactorWrap* operator->() const { return wrap_; }

    private:
        ZNRReactorMgr_T* mgr_;
        ReactorWrap* wrap_;
    };

    // Under the lock (read or write) while the entry is in the table, or
    // by a holder of another reference.
    static void Ref(ReactorWrap* wrap) { wrap->refs.fetch_add(1, std::memory_order_relaxed); }

    // The last reference destroys the reactor and the wrap, with no lock
    // held, as the reactor's handlers may call in.
    void Unref(ReactorWrap* wrap) {
        if (wrap->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        if (wrap->own_thread) {
            TH* const thread = static_cast<TH*>(wrap->thread);
            if (thread->GetFd() == nullptr) {
                thread->Destroy();
            } else {
                // Not joined (this may be that very thread): joined by the
                // next RemoveAll or the destructor, so that nothing outlives
                // the manager.
                ZNRGuardLock guard(&reap_lock_);
                reap_->push_back(thread);
            }
        }
        wrap->reactor->Destroy();
        delete wrap;
    }

    static bool BeginLoop(ReactorWrap* wrap) {
        int idle = ReactorWrap::LOOP_IDLE;
        return wrap->loop.compare_exchange_strong(idle, ReactorWrap::LOOP_RUNNING);
    }

    // On the loop's thread once Open has returned.
    void EndLoop(ReactorWrap* wrap) {
        wrap->loop = ReactorWrap::LOOP_IDLE;
        Unref(wrap);
    }

    // Out of the table first, so that no other remover or Wait can reach
    // the entry, then stop and join with no lock held: the reactor thread
    // may use the manager while it winds down.
    void RemoveOne(std::uint64_t id, ZNRThread* current) {
        ReactorWrap* const wrap = Take(id);
        if (wrap == nullptr) return;
        StopLoop(wrap);
        // A Wait racing this join may have taken the thread's handle; its
        // reference keeps the thread object until it has joined.
        if (wrap->own_thread && wrap->thread != current) wrap->thread->Join(nullptr);
        Unref(wrap);
    }

    // Returns the table's reference.
    ReactorWrap* Take(std::uint64_t id) {
        ZNRGuardWriteSpinLock guard(&lock_, __FILE__, __LINE__);
        auto const it = table_->find(id);
        if (it == table_->end()) return nullptr;
        ReactorWrap* const wrap = it->second;
        table_->erase(it);
        return wrap;
    }

    // The stop is skipped for a loop that has already ended, which would
    // refuse it with an error line. Out of the table, no loop can begin.
    static void StopLoop(ReactorWrap* wrap) {
        if (wrap->loop.load() == ReactorWrap::LOOP_RUNNING && !wrap->reactor->IsStopped()) {
            wrap->reactor->Stop();
        }
    }

    // Joins and deletes the threads nobody joined before their reactors
    // were destroyed; the caller's own thread stays for a later call.
    void ReapThreads() {
        ZNRStlAdapter<std::list<TH*>> threads;
        {
            ZNRGuardLock guard(&reap_lock_);
            if (reap_->empty()) return;
            threads->swap(*reap_);
            ZNRThread* const current = ZNRThreadMgr::Instance()->GetCurrent();
            auto const self = std::find(threads->begin(), threads->end(), current);
            if (self != threads->end()) {
                reap_->push_back(*self);
                threads->erase(self);
            }
        }
        for (TH* thread : *threads) {
            thread->Join(nullptr);
            thread->Destroy();
        }
    }

    ZNRStlAdapter<ReactorMap> table_;
    ZNRThreadRWMutex lock_;
    ZNRIdAllocator id_allocator_;
    // Threads of destroyed reactors, still to be joined.
    ZNRStlAdapter<std::list<TH*>> reap_;
    ZNRThreadMutex reap_lock_;
};

#undef PLEXA_REACTOR_MGR_FUNCTION

/// The library's reactor manager; the process-wide one is
/// ZNRSingleton<ZNRReactorMgr>::Instance().
typedef ZNRReactorMgr_T<ZNRReactorIOCP, ZNRTimerMgr, ZNRReactorThread> ZNRReactorMgr;

// MinGW exports no member defined in a class template's body from a DLL:
// programs there make their own, all of them being in this header.
#ifndef _WIN32
extern template class ZNRReactorMgr_T<ZNRReactorIOCP, ZNRTimerMgr, ZNRReactorThread>;
#endif
extern template class ZNR_API ZNRSingleton<ZNRReactorMgr_T<ZNRReactorIOCP, ZNRTimerMgr, ZNRReactorThread>>;

#endif
