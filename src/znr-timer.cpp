#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-timer.h>
#include <plexa/znr-utils.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

constexpr std::uint64_t kNoId = ZNR_ERROR_FAILED_ID;
constexpr std::uint32_t kSlotCount = 7;

}  // namespace

ZNRTimer::ZNRTimer(unsigned int interval, unsigned int repeat_limit, void* user_data)
    : interval_(interval),
      repeat_limit_(repeat_limit),
      fire_count_(0),
      user_data_(user_data),
      id_(kNoId),
      expiry_(0),
      slot_(0) {}

ZNRTimer::~ZNRTimer() {}

void ZNRTimer::Trace() {}

ZNRTimerMgr::ZNRTimerMgr(unsigned int, unsigned int)
    : bits_(3), shift_(0), slot_count_(kSlotCount), slots_(new SlotMap*[kSlotCount]()) {}

ZNRTimerMgr::~ZNRTimerMgr() {
    for (std::uint32_t i = 0; i < slot_count_; ++i) delete slots_[i];
    delete[] slots_;
}

void ZNRTimerMgr::Destroy() { delete this; }

unsigned int ZNRTimerMgr::SlotOf(std::uint64_t expiry) const {
    // With 7 slots the mask is 6: odd slots and slot 7 never come up.
    return static_cast<unsigned int>((expiry >> shift_) & (slot_count_ - 1));
}

void ZNRTimerMgr::Insert(ZNRTimer* timer) {
    timer->slot_ = SlotOf(timer->expiry_);
    SlotMap*& slot = slots_[timer->slot_];
    if (slot == nullptr) slot = new SlotMap();
    // A multimap inserts after the entries of equal key: equal expiries
    // fire in the order they were armed.
    slot->insert(SlotMap::value_type(timer->expiry_, timer));
}

bool ZNRTimerMgr::EraseFromSlot(ZNRTimer* timer) {
    SlotMap* slot = slots_[timer->slot_];
    if (slot == nullptr) return false;
    auto range = slot->equal_range(timer->expiry_);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second->id_ == timer->id_) {
            slot->erase(it);
            return true;
        }
    }
    return false;
}

std::uint64_t ZNRTimerMgr::AddTimer(ZNRTimer* timer) {
    if (timer == nullptr || timer->id_ != kNoId) return kNoId;
    std::uint64_t id = 0;
    id_allocator_.AllocNumId(&id);
    timer->fire_count_ = 0;
    timer->expiry_ = ZNRGetSysTick() + timer->interval_;
    Insert(timer);
    (*timers_)[id] = timer;
    timer->id_ = id;
    return id;
}

void ZNRTimerMgr::UpdateTimer(ZNRTimer* timer) {
    timer->expiry_ += timer->interval_;
    Insert(timer);
}

void ZNRTimerMgr::RemoveTimer(std::uint64_t id) {
    auto it = timers_->find(id);
    if (it == timers_->end()) return;
    ZNRTimer* timer = it->second;
    // Not in a slot when it is waiting to be re-armed inside ScheduleTimers.
    EraseFromSlot(timer);
    timers_->erase(it);
    timer->id_ = kNoId;
}

unsigned int ZNRTimerMgr::RemoveTimers(std::uint64_t first_id, std::uint64_t last_id) {
    if (first_id > last_id) return 0;
    unsigned int removed = 0;
    auto it = timers_->lower_bound(first_id);
    while (it != timers_->end() && it->first <= last_id) {
        ZNRTimer* timer = it->second;
        EraseFromSlot(timer);
        it = timers_->erase(it);
        timer->id_ = kNoId;
        ++removed;
    }
    return removed;
}

void ZNRTimerMgr::RemoveAll() {
    for (auto& entry : *timers_) entry.second->id_ = kNoId;
    timers_->clear();
    for (std::uint32_t i = 0; i < slot_count_; ++i) {
        if (slots_[i] != nullptr) slots_[i]->clear();
    }
}

void ZNRTimerMgr::DestroyAll() {
    std::vector<ZNRTimer*> ended;
    ended.reserve(timers_->size());
    for (auto& entry : *timers_) ended.push_back(entry.second);
    RemoveAll();
    for (ZNRTimer* timer : ended) timer->Destroy();
}

std::uint64_t ZNRTimerMgr::GetNextExpiry() const {
    std::uint64_t next = kNoId;
    for (std::uint32_t i = 0; i < slot_count_; ++i) {
        if (slots_[i] != nullptr && !slots_[i]->empty()) next = std::min(next, slots_[i]->begin()->first);
    }
    return next;
}

unsigned int ZNRTimerMgr::Size() { return static_cast<unsigned int>(timers_->size()); }

unsigned int ZNRTimerMgr::ScheduleTimers(std::uint64_t now) {
    SlotMap* slot = slots_[SlotOf(now)];
    if (slot == nullptr) return 0;

    // A callback may detach (and even delete) any timer, so a timer is only
    // touched again after checking that its id still maps to it.
    auto registered = [this](std::uint64_t id, ZNRTimer* timer) {
        auto it = timers_->find(id);
        return it != timers_->end() && it->second == timer;
    };

    std::vector<std::pair<std::uint64_t, ZNRTimer*>> rearm;
    unsigned int handled = 0;
    while (!slot->empty()) {
        auto head = slot->begin();
        std::uint64_t const tick = ZNRGetSysTick();
        if (head->first > tick) break;
        ZNRTimer* timer = head->second;
        std::uint64_t const id = timer->id_;
        bool const keep = timer->OnExpires(tick);
        ++handled;
        if (!registered(id, timer)) continue;
        EraseFromSlot(timer);
        bool ends = !keep;
        if (keep) {
            ++timer->fire_count_;
            ends = timer->repeat_limit_ != ZNRTimer::REPEAT_FOREVER &&
                   timer->fire_count_ >= timer->repeat_limit_;
        }
        if (ends) {
            timers_->erase(id);
            timer->OnClose();
            timer->Destroy();
        } else {
            rearm.emplace_back(id, timer);
        }
    }

    // Re-armed only now, so none fires twice in one call.
    for (auto const& entry : rearm) {
        if (!registered(entry.first, entry.second)) continue;
        entry.second->OnReset();
        if (registered(entry.first, entry.second)) UpdateTimer(entry.second);
    }
    return handled;
}

void ZNRTimerMgr::Trace() {
    unsigned int load[kSlotCount] = {};
    for (std::uint32_t i = 0; i < slot_count_; ++i) {
        if (slots_[i] != nullptr) load[i] = static_cast<unsigned int>(slots_[i]->size());
    }
    ZNR_LOG(DEBUG, "Timer manager, bits=%u shift=%u size=%u slots=%u,%u,%u,%u,%u,%u,%u", bits_,
            shift_, Size(), load[0], load[1], load[2], load[3], load[4], load[5], load[6]);
}

ZNRFunctionTimer::ZNRFunctionTimer(unsigned int interval, unsigned int repeat_limit,
                                   std::function<bool(std::uint64_t now)> fn)
    : ZNRTimer(interval, repeat_limit, nullptr), fn_(std::move(fn)) {}

ZNRFunctionTimer::~ZNRFunctionTimer() = default;

bool ZNRFunctionTimer::OnExpires(std::uint64_t now) { return fn_(now); }

void ZNRFunctionTimer::OnReset() {}

void ZNRFunctionTimer::OnClose() {}

void ZNRFunctionTimer::Destroy() { delete this; }
