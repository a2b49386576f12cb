#include <plexa/znr-thread-cond.h>
#include <plexa/znr-thread-mutex.h>

#include "znr-event.h"

ZNRThreadCond::ZNRThreadCond() : event_(nullptr), mutex_(nullptr), manual_reset_(false) {}

ZNRThreadCond::~ZNRThreadCond() { delete event_; }

std::uint64_t ZNRThreadCond::Open(ZNRThreadMutex* mutex, bool manual_reset) {
    mutex_ = mutex;
    manual_reset_ = manual_reset;
    delete event_;
    event_ = new ZNREvent(manual_reset, false);
    return 0;
}

std::uint64_t ZNRThreadCond::Signal() {
    event_->Set();
    return 0;
}

int ZNRThreadCond::Wait(int timeout_seconds, void* check_arg, void* fetch_arg, void** result,
                        std::uint64_t* /*error*/) {
    ZNRGuardLock guard(mutex_);
    std::int64_t const wait_ms = timeout_seconds < 0 ? -1 : std::int64_t{timeout_seconds} * 1000;
    while (!OnCheckCond(check_arg)) {
        mutex_->Unlock();
        bool const signalled = event_->Wait(wait_ms);
        mutex_->Lock();
        if (!signalled) return 0;
        event_->Reset();
    }
    void* fetched = OnSignalHandle(fetch_arg);
    if (result != nullptr) *result = fetched;
    return 1;
}
