#include "znr-event.h"

#include <chrono>

void ZNREvent::Set() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
    }
    if (manual_reset_)
        cond_.notify_all();
    else
        cond_.notify_one();
}

void ZNREvent::Reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = false;
}

bool ZNREvent::Wait(std::int64_t timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto is_set = [this] { return set_; };
    if (timeout_ms < 0) {
        cond_.wait(lock, is_set);
    } else if (!cond_.wait_for(lock, std::chrono::milliseconds(timeout_ms), is_set)) {
        return false;
    }
    if (!manual_reset_) set_ = false;
    return true;
}
