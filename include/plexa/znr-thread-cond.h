#ifndef PLEXA_ZNR_THREAD_COND_H
#define PLEXA_ZNR_THREAD_COND_H

#include <plexa/znr-export.h>

class ZNREvent;
class ZNRThreadMutex;

// A condition whose predicate and hand-over are supplied by a subclass.
// Wait returns 1 when the condition held, 0 on time-out, -1 on failure.
class ZNR_API ZNRThreadCond {
public:
    ZNRThreadCond();
    virtual ~ZNRThreadCond();
    ZNRThreadCond(ZNRThreadCond const&) = delete;
    ZNRThreadCond& operator=(ZNRThreadCond const&) = delete;

    std::uint64_t Open(ZNRThreadMutex* mutex, bool manual_reset);
    std::uint64_t Signal();
    // The time-out applies to each wait for the event, not to the whole call;
    // a negative time-out waits without limit.
    int Wait(int timeout_seconds, void* check_arg, void* fetch_arg, void** result,
             std::uint64_t* error);

protected:
    virtual bool OnCheckCond(void* arg) = 0;
    virtual void* OnSignalHandle(void* arg) = 0;

private:
    ZNREvent* event_;
    ZNRThreadMutex* mutex_;
    bool manual_reset_;
};

#endif
