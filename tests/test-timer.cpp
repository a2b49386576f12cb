#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

typedef std::vector<std::string> Log;

// Records every callback as "name:event"; OnClose also records the fire
// count so that the counting rule shows.
class RecTimer : public ZNRTimer {
public:
    RecTimer(char const* name, Log* log, unsigned int interval, unsigned int limit,
             bool keep = true)
        : ZNRTimer(interval, limit, nullptr), name_(name), log_(log), keep_(keep) {}

    std::function<void()> on_expires;

    bool OnExpires(std::uint64_t) override {
        log_->push_back(name_ + ":expires");
        // The hook may delete this timer: nothing of it is used afterwards.
        bool const keep = keep_;
        std::function<void()> hook = on_expires;
        if (hook) hook();
        return keep;
    }
    void OnReset() override { log_->push_back(name_ + ":reset"); }
    void OnClose() override {
        log_->push_back(name_ + ":close:" + std::to_string(GetFireCount()));
    }
    void Destroy() override {
        log_->push_back(name_ + ":destroy");
        delete this;
    }

private:
    std::string name_;
    Log* log_;
    bool keep_;
};

// Timers the manager has detached are still ours to free.
void Free(RecTimer* timer) { delete timer; }

// Arms the timers on a fresh manager, again until their expiries tie.
ZNRTimerMgr* ArmTogether(std::vector<RecTimer*> const& timers) {
    for (;;) {
        ZNRTimerMgr* mgr = new ZNRTimerMgr();
        for (RecTimer* t : timers) mgr->AddTimer(t);
        if (timers.front()->GetExpiry() == timers.back()->GetExpiry()) return mgr;
        mgr->RemoveAll();
        mgr->Destroy();
    }
}

void WaitUntilTick(std::uint64_t tick) {
    while (ZNRGetSysTick() < tick) ZNRSleep(1);
}

constexpr std::uint64_t kNoId = 0xFFFFFFFFFFFFFFFFULL;

}  // namespace

TEST(TimerMgr, RepeatLimitFiresThenClosesAndDestroys) {
    Log log;
    ZNRTimerMgr* mgr = new ZNRTimerMgr(0, 0);
    RecTimer* t = new RecTimer("a", &log, 0, 3);
    EXPECT_EQ(t->GetId(), kNoId);
    std::uint64_t const id = mgr->AddTimer(t);
    EXPECT_EQ(id, 1u);
    EXPECT_EQ(t->GetId(), 1u);
    EXPECT_EQ(mgr->Size(), 1u);
    std::uint64_t const e = t->GetExpiry();

    // Interval 0 re-arms at the same (past) expiry: one fire per call, never
    // two in the same call.
    EXPECT_EQ(mgr->ScheduleTimers(e), 1u);
    EXPECT_EQ(t->GetFireCount(), 1u);
    EXPECT_EQ(t->GetExpiry(), e);
    EXPECT_EQ(mgr->ScheduleTimers(e), 1u);
    EXPECT_EQ(mgr->Size(), 1u);
    EXPECT_EQ(mgr->ScheduleTimers(e), 1u);
    EXPECT_EQ(mgr->Size(), 0u);
    EXPECT_EQ(mgr->ScheduleTimers(e), 0u);
    EXPECT_EQ(log, (Log{"a:expires", "a:reset", "a:expires", "a:reset", "a:expires",
                        "a:close:3", "a:destroy"}));
    mgr->Destroy();
}

TEST(TimerMgr, EqualExpiriesKeepInsertionOrderAndCallbackOrder) {
    Log log;
    std::vector<RecTimer*> t{new RecTimer("a", &log, 0, ZNRTimer::REPEAT_FOREVER),
                             new RecTimer("b", &log, 0, ZNRTimer::REPEAT_FOREVER, false),
                             new RecTimer("c", &log, 0, 1)};
    ZNRTimerMgr* mgr = ArmTogether(t);
    EXPECT_EQ(t[0]->GetId(), 1u);
    EXPECT_EQ(t[2]->GetId(), 3u);

    // Ending timers close and go at once; re-arming waits for the walk's end.
    // "b" returns false: it ends although it could repeat forever, uncounted.
    EXPECT_EQ(mgr->ScheduleTimers(t[0]->GetExpiry()), 3u);
    EXPECT_EQ(log, (Log{"a:expires", "b:expires", "b:close:0", "b:destroy", "c:expires",
                        "c:close:1", "c:destroy", "a:reset"}));
    EXPECT_EQ(mgr->Size(), 1u);
    mgr->RemoveAll();
    Free(t[0]);
    mgr->Destroy();
}

TEST(TimerMgr, SlotIsExpiryAndSixAndOnlyThatSlotIsExamined) {
    Log log;
    ZNRTimerMgr* mgr = new ZNRTimerMgr(10, 10);
    // Never-used slots report 0 whatever the tick.
    for (std::uint64_t now = 0; now < 8; ++now) EXPECT_EQ(mgr->ScheduleTimers(now), 0u);

    RecTimer* t = new RecTimer("a", &log, 0, ZNRTimer::REPEAT_FOREVER);
    mgr->AddTimer(t);
    std::uint64_t const e = t->GetExpiry();
    EXPECT_EQ(t->GetSlot(), e & 6);
    EXPECT_EQ(t->GetSlot() % 2, 0u);

    EXPECT_EQ(mgr->ScheduleTimers(e + 2), 0u);
    EXPECT_EQ(mgr->ScheduleTimers(e + 4), 0u);
    EXPECT_EQ(mgr->ScheduleTimers(e + 6), 0u);
    EXPECT_TRUE(log.empty());
    // Bit 0 and bits above 2 do not matter.
    EXPECT_EQ(mgr->ScheduleTimers(e ^ 1), 1u);
    EXPECT_EQ(mgr->ScheduleTimers(e + 8), 1u);
    EXPECT_EQ(mgr->ScheduleTimers(e + 800), 1u);
    EXPECT_EQ(t->GetFireCount(), 3u);
    mgr->RemoveAll();
    Free(t);
    mgr->Destroy();
}

TEST(TimerMgr, ReArmsFromPreviousExpiryNotFromNow) {
    Log log;
    ZNRTimerMgr* mgr = new ZNRTimerMgr();
    RecTimer* t = new RecTimer("a", &log, 4, ZNRTimer::REPEAT_FOREVER);
    mgr->AddTimer(t);
    std::uint64_t const e = t->GetExpiry();
    WaitUntilTick(e + 20);

    EXPECT_EQ(mgr->ScheduleTimers(e), 1u);
    EXPECT_EQ(t->GetExpiry(), e + 4);
    EXPECT_EQ(t->GetSlot(), (e + 4) & 6);
    // The new expiry is already past, in another slot: the old slot is empty.
    EXPECT_EQ(mgr->ScheduleTimers(e), 0u);
    EXPECT_EQ(mgr->ScheduleTimers(e + 4), 1u);
    EXPECT_EQ(t->GetExpiry(), e + 8);

    mgr->RemoveTimer(t->GetId());
    Free(t);

    // A far-future timer in the examined slot stops the walk.
    RecTimer* later = new RecTimer("later", &log, 100000000, 1);
    mgr->AddTimer(later);
    EXPECT_EQ(mgr->ScheduleTimers(later->GetExpiry()), 0u);
    EXPECT_EQ(log, (Log{"a:expires", "a:reset", "a:expires", "a:reset"}));
    EXPECT_EQ(mgr->Size(), 1u);
    mgr->RemoveAll();
    Free(later);
    mgr->Destroy();
}

TEST(TimerMgr, RemovedTimersAreNeverCalledNorDestroyed) {
    Log log;
    ZNRTimerMgr* mgr = new ZNRTimerMgr();
    RecTimer* a = new RecTimer("a", &log, 0, 1);
    RecTimer* b = new RecTimer("b", &log, 0, 1);
    RecTimer* c = new RecTimer("c", &log, 0, 1);
    EXPECT_EQ(mgr->AddTimer(a), 1u);
    EXPECT_EQ(mgr->AddTimer(b), 2u);
    EXPECT_EQ(mgr->AddTimer(c), 3u);
    EXPECT_EQ(mgr->AddTimer(b), kNoId);  // already registered
    EXPECT_EQ(mgr->AddTimer(nullptr), kNoId);

    mgr->RemoveTimer(2);
    mgr->RemoveTimer(2);
    mgr->RemoveTimer(999);
    EXPECT_EQ(mgr->Size(), 2u);
    EXPECT_EQ(b->GetId(), kNoId);
    std::uint64_t const ea = a->GetExpiry();
    std::uint64_t const ec = c->GetExpiry();
    unsigned int fired = mgr->ScheduleTimers(ea);
    if ((ea & 6) != (ec & 6)) fired += mgr->ScheduleTimers(ec);
    EXPECT_EQ(fired, 2u);
    EXPECT_EQ(mgr->Size(), 0u);
    for (std::string const& entry : log) EXPECT_EQ(entry.rfind("b:", 0), std::string::npos);

    // A detached timer may be armed again, under a new id.
    log.clear();
    EXPECT_EQ(mgr->AddTimer(b), 4u);
    EXPECT_EQ(mgr->ScheduleTimers(b->GetExpiry()), 1u);
    EXPECT_EQ(log, (Log{"b:expires", "b:close:1", "b:destroy"}));
    mgr->Destroy();
}

TEST(TimerMgr, RemovingInsideAWalkIsSafe) {
    Log log;
    RecTimer* a = new RecTimer("a", &log, 0, ZNRTimer::REPEAT_FOREVER);
    RecTimer* b = new RecTimer("b", &log, 0, ZNRTimer::REPEAT_FOREVER);
    RecTimer* c = new RecTimer("c", &log, 0, ZNRTimer::REPEAT_FOREVER);
    ZNRTimerMgr* mgr = ArmTogether({a, b, c});
    // "a" detaches and frees the pending "c"; "b" detaches and frees itself.
    a->on_expires = [&] {
        mgr->RemoveTimer(c->GetId());
        Free(c);
    };
    b->on_expires = [&] {
        mgr->RemoveTimer(b->GetId());
        Free(b);
    };
    EXPECT_EQ(mgr->ScheduleTimers(a->GetExpiry()), 2u);
    EXPECT_EQ(log, (Log{"a:expires", "b:expires", "a:reset"}));
    EXPECT_EQ(mgr->Size(), 1u);
    EXPECT_EQ(a->GetId(), 1u);
    mgr->RemoveAll();
    Free(a);
    mgr->Destroy();
}

TEST(TimerMgr, RemoveTimersTakesAnInclusiveIdRange) {
    Log log;
    ZNRTimerMgr* mgr = new ZNRTimerMgr();
    std::vector<RecTimer*> t;
    for (int i = 0; i < 6; ++i) {
        t.push_back(new RecTimer("t", &log, 100000000, 1));
        EXPECT_EQ(mgr->AddTimer(t.back()), static_cast<std::uint64_t>(i + 1));
    }
    EXPECT_EQ(mgr->RemoveTimers(4, 2), 0u);
    EXPECT_EQ(mgr->RemoveTimers(2, 4), 3u);
    EXPECT_EQ(mgr->Size(), 3u);
    EXPECT_EQ(t[0]->GetId(), 1u);
    EXPECT_EQ(t[1]->GetId(), kNoId);
    EXPECT_EQ(t[3]->GetId(), kNoId);
    EXPECT_EQ(t[4]->GetId(), 5u);
    EXPECT_EQ(mgr->RemoveTimers(2, 4), 0u);
    EXPECT_EQ(mgr->RemoveTimers(5, 5), 1u);
    EXPECT_EQ(mgr->RemoveTimers(0, kNoId), 2u);
    EXPECT_EQ(mgr->Size(), 0u);

    for (int i = 0; i < 3; ++i) mgr->AddTimer(t[i]);
    EXPECT_EQ(t[2]->GetId(), 9u);
    mgr->RemoveAll();
    EXPECT_EQ(mgr->Size(), 0u);
    EXPECT_EQ(t[2]->GetId(), kNoId);
    EXPECT_EQ(mgr->ScheduleTimers(t[2]->GetExpiry()), 0u);
    EXPECT_TRUE(log.empty());
    for (RecTimer* timer : t) Free(timer);
    mgr->Destroy();
}
