#ifndef PLEXA_ZNR_THREAD_COND_H
#define PLEXA_ZNR_THREAD_COND_H

#include <plexa/znr-export.h>

class ZNREvent;
class ZNRThreadMutex;

/// A condition whose predicate and hand-over are supplied by a subclass.
/// Wait returns 1 when the condition held, 0 on time-out, -1 on failure.
/// After Open(), Signal() and Wait() are safe from any thread; the shared
/// state is guarded by the mutex given to Open().
class ZNR_API ZNRThreadCond {
public:
    /// Not open: Open() before Signal() or Wait().
    ZNRThreadCond();
    /// Releases the event; the mutex is not the condition's.
    virtual ~ZNRThreadCond();
    ZNRThreadCond(ZNRThreadCond const&) = delete;
    ZNRThreadCond& operator=(ZNRThreadCond const&) = delete;

    /// Keeps mutex (borrowed: it must outlive the condition) and creates a
    /// non-signalled event, manual-reset if asked. Opening again replaces the
    /// event. Returns 0: it cannot fail on Linux.
    std::uint64_t Open(ZNRThreadMutex* mutex, bool manual_reset);
    /// Wakes a waiter (the event stays set until a waiter resets it).
    /// Returns 0: it cannot fail on Linux.
    std::uint64_t Signal();
    /// Under the mutex: while OnCheckCond(check_arg) is false, releases the
    /// mutex and waits for a signal. Once it holds, stores
    /// OnSignalHandle(fetch_arg) in *result (if not null) and returns 1.
    /// The time-out applies to each wait for the event, not to the whole call;
    /// a negative time-out waits without limit, 0 checks once. On Linux it
    /// never fails, so error is never written and -1 never returned.
    int Wait(int timeout_seconds, void* check_arg, void* fetch_arg, void** result,
             std::uint64_t* error);

protected:
    /// The predicate, called with the mutex held on the waiting thread.
    virtual bool OnCheckCond(void* arg) = 0;
    /// The hand-over once the predicate holds, mutex held, waiting thread.
    virtual void* OnSignalHandle(void* arg) = 0;

private:
    ZNREvent* event_;
    ZNRThreadMutex* mutex_;
    bool manual_reset_;
};

#endif
