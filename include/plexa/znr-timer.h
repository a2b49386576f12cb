#ifndef PLEXA_ZNR_TIMER_H
#define PLEXA_ZNR_TIMER_H

#include <plexa/znr-export.h>
#include <plexa/znr-id-allocator.h>
#include <plexa/znr-stl-adapter.h>

#include <functional>
#include <map>

/// @file
/// Timers and the timer manager behind every reactor.

/// Base of every timed callback. Ticks are ZNRGetSysTick() milliseconds.
/// Registered with a reactor, a timer is called on its loop thread and is
/// the reactor's until it ends (OnClose, then Destroy) or is unregistered.
class ZNR_API ZNRTimer {
public:
    /// The repeat limit of a timer that repeats until OnExpires says no.
    enum : unsigned int { REPEAT_FOREVER = 0xFFFFFFFFu };

    /// interval: milliseconds between expiries; repeat_limit: the number
    /// of fires after which the timer ends; user_data: for the subclass,
    /// not owned.
    ZNRTimer(unsigned int interval, unsigned int repeat_limit, void* user_data);
    ZNRTimer(ZNRTimer const&) = delete;
    ZNRTimer& operator=(ZNRTimer const&) = delete;

    /// A diagnostic hook; does nothing here.
    virtual void Trace();
    /// True keeps the timer (until its repeat limit), false ends it. now
    /// is the current tick. Runs under the reactor's timer lock, which a
    /// callback may take again: it may register or remove timers.
    virtual bool OnExpires(std::uint64_t now) = 0;
    /// Called before a repeating timer is re-armed.
    virtual void OnReset() = 0;
    /// Called when the timer ends, right before Destroy().
    virtual void OnClose() = 0;
    /// Releases the timer: after OnClose when it ends, or alone when its
    /// reactor stops with the timer still registered.
    virtual void Destroy() = 0;

    /// Milliseconds between expiries.
    unsigned int GetInterval() const { return interval_; }
    /// Fires after which the timer ends; REPEAT_FOREVER: none.
    unsigned int GetRepeatLimit() const { return repeat_limit_; }
    /// Fires so far (those whose OnExpires returned true).
    unsigned int GetFireCount() const { return fire_count_; }
    /// The constructor's user data.
    void* GetUserData() const { return user_data_; }
    /// All ones while not registered with a timer manager.
    std::uint64_t GetId() const { return id_; }
    /// The tick at which the timer is due.
    std::uint64_t GetExpiry() const { return expiry_; }
    /// The wheel slot that holds the timer.
    unsigned int GetSlot() const { return slot_; }

protected:
    virtual ~ZNRTimer();

private:
    friend class ZNRTimerMgr;

    std::uint32_t interval_;
    std::uint32_t repeat_limit_;
    std::uint32_t fire_count_;
    void* user_data_;
    std::uint64_t id_;
    std::uint64_t expiry_;
    std::uint32_t slot_;
};

/// A timer that runs a callable: what RegisterTimer(interval, repeat
/// limit, std::function) arms. On each expiry the callable gets the tick
/// and returns as OnExpires does: true keeps the timer (until its repeat
/// limit), false ends it. Destroy deletes the timer and the callable, on
/// the reactor's thread.
class ZNR_API ZNRFunctionTimer : public ZNRTimer {
public:
    /// Takes fn; any thread. interval in ms; repeat_limit as for ZNRTimer.
    ZNRFunctionTimer(unsigned int interval, unsigned int repeat_limit,
                     std::function<bool(std::uint64_t now)> fn);

    /// The callable's answer for the tick now; on the reactor's thread.
    bool OnExpires(std::uint64_t now) override;
    /// Does nothing: the callable keeps its own state.
    void OnReset() override;
    /// Does nothing: Destroy follows.
    void OnClose() override;
    /// Deletes the timer and the callable.
    void Destroy() override;

protected:
    ~ZNRFunctionTimer() override;

private:
    std::function<bool(std::uint64_t now)> fn_;
};

/// The timers of one reactor in a small hashed wheel. No lock: it is used on
/// its reactor's thread (or under the reactor's timer lock) only.
///
/// The wheel always has 7 slots and a timer lands in slot (expiry & 6), so
/// only the even slots hold timers. ScheduleTimers looks at the one slot of
/// the tick it is given; a due timer in another slot waits for a call whose
/// tick maps to its slot.
class ZNR_API ZNRTimerMgr {
public:
    /// The timers of one slot by expiry; equal expiries in arming order.
    typedef std::multimap<std::uint64_t, ZNRTimer*> SlotMap;

    /// Both arguments are ignored: the wheel shape is fixed.
    explicit ZNRTimerMgr(unsigned int bits = 3, unsigned int shift = 0);
    ZNRTimerMgr(ZNRTimerMgr const&) = delete;
    ZNRTimerMgr& operator=(ZNRTimerMgr const&) = delete;

    /// Arms the timer at now + interval and returns its new id; all ones for
    /// a null timer or one that is already registered. The manager owns the
    /// timer only once it ends.
    virtual std::uint64_t AddTimer(ZNRTimer* timer);
    /// Detaches the timer without calling it; the caller keeps it and may
    /// add it again. Unknown ids are ignored.
    virtual void RemoveTimer(std::uint64_t id);
    /// Detaches every timer whose id lies in [first_id, last_id]; returns how
    /// many were detached.
    virtual unsigned int RemoveTimers(std::uint64_t first_id, std::uint64_t last_id);
    /// Detaches every timer.
    virtual void RemoveAll();
    /// Detaches every timer and destroys it (without OnClose): the end of
    /// timers still registered when their owner goes away.
    void DestroyAll();
    /// The earliest expiry of any timer; all ones when there is none.
    std::uint64_t GetNextExpiry() const;
    /// The number of registered timers.
    virtual unsigned int Size();
    /// Fires the due timers of the slot of now; returns how many it handled.
    /// A timer that ends gets OnClose and Destroy; a repeating one OnReset,
    /// then it is re-armed (not fired twice in one call).
    virtual unsigned int ScheduleTimers(std::uint64_t now);
    /// Logs, at DEBUG, the wheel shape, the number of timers and each slot's load.
    virtual void Trace();
    /// Deletes the manager; timers still registered are neither called nor
    /// destroyed.
    virtual void Destroy();

protected:
    virtual ~ZNRTimerMgr();
    /// Re-arms at the previous expiry + interval, keeping the cadence.
    virtual void UpdateTimer(ZNRTimer* timer);

private:
    unsigned int SlotOf(std::uint64_t expiry) const;
    void Insert(ZNRTimer* timer);
    bool EraseFromSlot(ZNRTimer* timer);

    std::uint32_t bits_;
    std::uint32_t shift_;
    std::uint32_t slot_count_;
    SlotMap** slots_;
    ZNRStlAdapter<std::map<std::uint64_t, ZNRTimer*>> timers_;
    ZNRIdAllocator id_allocator_;
};

#endif
