#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

typedef std::vector<std::string> Log;
constexpr std::uint64_t kNoId = 0xFFFFFFFFFFFFFFFFULL;
constexpr unsigned int kForever = ZNRTimer::REPEAT_FOREVER;

// Records every callback as "name:event"; OnClose also records the fire count so that the counting rule shows.
class RecTimer : public ZNRTimer {
public:
    RecTimer(char const* name, Log* log, std::set<RecTimer*>* alive, unsigned int interval, unsigned int limit,
             bool keep)
        : ZNRTimer(interval, limit, nullptr), name_(name), log_(log), alive_(alive), keep_(keep) {
        alive->insert(this);
    }
    ~RecTimer() override { alive_->erase(this); }

    std::function<void()> on_expires;

    bool OnExpires(std::uint64_t) override {
        log_->push_back(name_ + ":expires");
        // The hook may delete this timer: nothing of it is used afterwards.
        bool const keep = keep_;
        if (std::function<void()> hook = on_expires) hook();
        return keep;
    }
    void OnReset() override { log_->push_back(name_ + ":reset"); }
    void OnClose() override { log_->push_back(name_ + ":close:" + std::to_string(GetFireCount())); }
    void Destroy() override { log_->push_back(name_ + ":destroy"), delete this; }

private:
    std::string name_;
    Log* log_;
    std::set<RecTimer*>* alive_;
    bool keep_;
};

// Timers the manager has detached are still ours: the fixture frees whatever is left.
class TimerMgr : public ::testing::Test {
protected:
    void TearDown() override {
        mgr_->RemoveAll();
        while (!alive_.empty()) delete *alive_.begin();
        mgr_->Destroy();
    }
    RecTimer* Make(char const* name, unsigned int interval, unsigned int limit, bool keep = true) {
        return new RecTimer(name, &log_, &alive_, interval, limit, keep);
    }
    // Arms the timers on a fresh manager, again until their expiries tie.
    void ArmTogether(std::vector<RecTimer*> const& timers) {
        for (;;) {
            for (RecTimer* t : timers) mgr_->AddTimer(t);
            if (timers.front()->GetExpiry() == timers.back()->GetExpiry()) return;
            mgr_->RemoveAll();
            mgr_->Destroy();
            mgr_ = new ZNRTimerMgr();
        }
    }

    Log log_;
    std::set<RecTimer*> alive_;
    ZNRTimerMgr* mgr_ = new ZNRTimerMgr();
};

TEST_F(TimerMgr, RepeatLimitFiresThenClosesAndDestroys) {
    RecTimer* t = Make("a", 0, 3);
    EXPECT_EQ(t->GetId(), kNoId);
    EXPECT_EQ(mgr_->AddTimer(t), 1u);
    EXPECT_EQ(t->GetId(), 1u);
    std::uint64_t const e = t->GetExpiry();
    // Interval 0 re-arms at the same (past) expiry: one fire per call, never two in the same call.
    // Per call: fired, then the size left.
    std::vector<std::size_t> steps{mgr_->Size()};
    for (int i = 0; i < 4; ++i) {
        steps.push_back(mgr_->ScheduleTimers(e)), steps.push_back(mgr_->Size());
        if (i == 0) { EXPECT_EQ(t->GetExpiry(), e); }
    }
    EXPECT_EQ(steps, (std::vector<std::size_t>{1, 1, 1, 1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(log_, (Log{"a:expires", "a:reset", "a:expires", "a:reset", "a:expires", "a:close:3", "a:destroy"}));
}

TEST_F(TimerMgr, EqualExpiriesKeepInsertionOrderAndCallbackOrder) {
    std::vector<RecTimer*> t{Make("a", 0, kForever), Make("b", 0, kForever, false), Make("c", 0, 1)};
    ArmTogether(t);
    EXPECT_EQ(t[0]->GetId(), 1u);
    EXPECT_EQ(t[2]->GetId(), 3u);
    // Ending timers close and go at once; re-arming waits for the walk's end.
    // "b" returns false: it ends although it could repeat forever, uncounted.
    EXPECT_EQ(mgr_->ScheduleTimers(t[0]->GetExpiry()), 3u);
    EXPECT_EQ(log_, (Log{"a:expires", "b:expires", "b:close:0", "b:destroy", "c:expires", "c:close:1", "c:destroy",
                         "a:reset"}));
    EXPECT_EQ(mgr_->Size(), 1u);
}

TEST_F(TimerMgr, SlotIsExpiryAndSixAndOnlyThatSlotIsExamined) {
    mgr_->Destroy();
    mgr_ = new ZNRTimerMgr(10, 10);  // the shape arguments are ignored
    for (std::uint64_t now = 0; now < 8; ++now) EXPECT_EQ(mgr_->ScheduleTimers(now), 0u);  // never-used slots
    RecTimer* t = Make("a", 0, kForever);
    mgr_->AddTimer(t);
    std::uint64_t const e = t->GetExpiry();
    EXPECT_EQ(t->GetSlot(), e & 6);
    for (std::uint64_t other : {e + 2, e + 4, e + 6}) EXPECT_EQ(mgr_->ScheduleTimers(other), 0u);
    EXPECT_TRUE(log_.empty());
    // Bit 0 and bits above 2 do not matter.
    for (std::uint64_t same : {e ^ 1, e + 8, e + 800}) EXPECT_EQ(mgr_->ScheduleTimers(same), 1u);
    EXPECT_EQ(t->GetFireCount(), 3u);
}

TEST_F(TimerMgr, ReArmsFromPreviousExpiryNotFromNow) {
    RecTimer* t = Make("a", 4, kForever);
    mgr_->AddTimer(t);
    std::uint64_t const e = t->GetExpiry();
    while (ZNRGetSysTick() < e + 20) ZNRSleep(1);
    EXPECT_EQ(mgr_->ScheduleTimers(e), 1u);
    EXPECT_EQ(t->GetExpiry(), e + 4);
    EXPECT_EQ(t->GetSlot(), (e + 4) & 6);
    // The new expiry is already past, in another slot: the old slot is empty.
    EXPECT_EQ(mgr_->ScheduleTimers(e), 0u);
    EXPECT_EQ(mgr_->ScheduleTimers(e + 4), 1u);
    EXPECT_EQ(t->GetExpiry(), e + 8);
    mgr_->RemoveTimer(t->GetId());

    // A far-future timer in the examined slot stops the walk.
    RecTimer* later = Make("later", 100000000, 1);
    mgr_->AddTimer(later);
    EXPECT_EQ(mgr_->ScheduleTimers(later->GetExpiry()), 0u);
    EXPECT_EQ(log_, (Log{"a:expires", "a:reset", "a:expires", "a:reset"}));
    EXPECT_EQ(mgr_->Size(), 1u);
}

TEST_F(TimerMgr, RemovedTimersAreNeverCalledNorDestroyed) {
    RecTimer *a = Make("a", 0, 1), *b = Make("b", 0, 1), *c = Make("c", 0, 1);
    // The second "b" is already registered.
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 3, kNoId, kNoId}),
              (std::vector<std::uint64_t>{mgr_->AddTimer(a), mgr_->AddTimer(b), mgr_->AddTimer(c), mgr_->AddTimer(b),
                                          mgr_->AddTimer(nullptr)}));
    mgr_->RemoveTimer(2);
    mgr_->RemoveTimer(2);
    mgr_->RemoveTimer(999);
    EXPECT_EQ(mgr_->Size(), 2u);
    EXPECT_EQ(b->GetId(), kNoId);
    std::uint64_t const ea = a->GetExpiry(), ec = c->GetExpiry();
    unsigned int fired = mgr_->ScheduleTimers(ea);
    if ((ea & 6) != (ec & 6)) fired += mgr_->ScheduleTimers(ec);
    EXPECT_EQ(fired, 2u);
    EXPECT_EQ(mgr_->Size(), 0u);
    for (std::string const& entry : log_) EXPECT_EQ(entry.rfind("b:", 0), std::string::npos);

    // A detached timer may be armed again, under a new id.
    log_.clear();
    EXPECT_EQ(mgr_->AddTimer(b), 4u);
    EXPECT_EQ(mgr_->ScheduleTimers(b->GetExpiry()), 1u);
    EXPECT_EQ(log_, (Log{"b:expires", "b:close:1", "b:destroy"}));
}

TEST_F(TimerMgr, RemovingInsideAWalkIsSafe) {
    RecTimer *a = Make("a", 0, kForever), *b = Make("b", 0, kForever), *c = Make("c", 0, kForever);
    ArmTogether({a, b, c});
    // "a" detaches and frees the pending "c"; "b" detaches and frees itself.
    a->on_expires = [&] { mgr_->RemoveTimer(c->GetId()), delete c; };
    b->on_expires = [&] { mgr_->RemoveTimer(b->GetId()), delete b; };
    EXPECT_EQ(mgr_->ScheduleTimers(a->GetExpiry()), 2u);
    EXPECT_EQ(log_, (Log{"a:expires", "b:expires", "a:reset"}));
    EXPECT_EQ(mgr_->Size(), 1u);
    EXPECT_EQ(a->GetId(), 1u);
}

TEST_F(TimerMgr, RemoveTimersTakesAnInclusiveIdRange) {
    std::vector<RecTimer*> t;
    for (int i = 0; i < 6; ++i) {
        t.push_back(Make("t", 100000000, 1));
        EXPECT_EQ(mgr_->AddTimer(t.back()), static_cast<std::uint64_t>(i + 1));
    }
    EXPECT_EQ(mgr_->RemoveTimers(4, 2), 0u);
    EXPECT_EQ(mgr_->RemoveTimers(2, 4), 3u);
    std::vector<std::uint64_t> ids;
    for (RecTimer* timer : t) ids.push_back(timer->GetId());
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{1, kNoId, kNoId, kNoId, 5, 6}));
    EXPECT_EQ((std::vector<std::size_t>{3, 0, 1, 2, 0}),
              (std::vector<std::size_t>{mgr_->Size(), mgr_->RemoveTimers(2, 4), mgr_->RemoveTimers(5, 5),
                                        mgr_->RemoveTimers(0, kNoId), mgr_->Size()}));

    for (int i = 0; i < 3; ++i) mgr_->AddTimer(t[i]);
    EXPECT_EQ(t[2]->GetId(), 9u);
    mgr_->RemoveAll();
    EXPECT_EQ(mgr_->Size(), 0u);
    EXPECT_EQ(t[2]->GetId(), kNoId);
    EXPECT_EQ(mgr_->ScheduleTimers(t[2]->GetExpiry()), 0u);
    EXPECT_TRUE(log_.empty());
}

}  // namespace
