#ifndef PLEXA_SRC_ZNR_EVENT_H
#define PLEXA_SRC_ZNR_EVENT_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

// A settable event: a manual-reset one stays set until Reset, an automatic
// one lets exactly one waiter through and clears itself.
class ZNREvent {
public:
    ZNREvent(bool manual_reset, bool initially_set)
        : manual_reset_(manual_reset), set_(initially_set) {}

    void Set();
    void Reset();
    // Negative timeout waits without limit. True when the event was set.
    bool Wait(std::int64_t timeout_ms);

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool const manual_reset_;
    bool set_;
};

#endif
