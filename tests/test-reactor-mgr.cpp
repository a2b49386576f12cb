#include "log-capture.h"
#include "net-test-util.h"
#include "reactor-test-util.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace reactortest;

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;
std::uint64_t const kNotFound = 0x8000000100000000ULL | 30;
std::string const kFn = "ZNRReactorMgr_T<class ZNRReactorIOCP,class ZNRTimerMgr,class ZNRReactorThread>::";

class NoTimer : public ZNRTimer {
public:
    NoTimer() : ZNRTimer(1000, 1, nullptr) {}
    bool OnExpires(std::uint64_t) override { return false; }
    void OnReset() override {}
    void OnClose() override {}
    void Destroy() override { delete this; }
};

// Each reactor's timer manager tells the journal when its reactor is gone;
// on_stop, when set, hears of every stop asked of a reactor, by number.
class Mgr : public ZNRReactorMgr {
public:
    explicit Mgr(Journal* j) : j_(j) {}
    ~Mgr() override { RemoveAll(); }

    std::function<void(int)> on_stop;

protected:
    class Reactor : public ZNRReactorIOCP {
    public:
        Reactor(ZNRTimerMgr* timers, Mgr* mgr, int n) : ZNRReactorIOCP(timers), mgr_(mgr), n_(n) {}
        std::uint64_t Stop() override {
            if (mgr_->on_stop) mgr_->on_stop(n_);
            return ZNRReactorIOCP::Stop();
        }

    private:
        Mgr* mgr_;
        int n_;
    };
    class Timers : public ZNRTimerMgr {
    public:
        Timers(Journal* j, int n) : j_(j), n_(n) {}
        void Destroy() override {
            j_->Add("destroyed " + std::to_string(n_));
            ZNRTimerMgr::Destroy();
        }

    private:
        Journal* j_;
        int n_;
    };
    ZNRTimerMgr* OnCreateTimerMgr() override { return new Timers(j_, ++made_); }
    ZNRReactorIOCP* OnCreateReactor(ZNRTimerMgr* timers) override {
        return new Reactor(timers, this, made_);
    }

private:
    Journal* j_;
    int made_ = 0;
};

// The thread's own record; the thread suite checks that the system's
// name follows it.
std::string ThreadName() { return ZNRSingleton<ZNRThreadMgr>::Instance()->GetCurrent()->GetName().ToStdCStr(); }

// Runs fn on a thread of its own. A deadlock there cannot be undone, so a
// run that has not finished within five seconds aborts the process.
void MustFinish(char const* what, std::function<void()> fn) {
    std::packaged_task<void()> task(std::move(fn));
    std::future<void> done = task.get_future();
    std::thread runner(std::move(task));
    if (done.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        std::fprintf(stderr, "Deadlock: %s has not finished\n", what);
        std::abort();
    }
    runner.join();
    done.get();
}

// Runs fn when the reactor registers its device.
class OnCreatedHandler : public ZNRDeviceHandler {
public:
    explicit OnCreatedHandler(std::function<void()> fn) : fn_(std::move(fn)) {}
    bool OnCreated() override {
        fn_();
        return true;
    }

private:
    std::function<void()> fn_;
};

// Journals "<what> gone" when the last copy of the callable holding it goes.
std::shared_ptr<void> Watch(Journal* j, std::string what) {
    return std::shared_ptr<void>(nullptr, [j, what](void*) { j->Add(what + " gone"); });
}

// Sends back what arrives; journals its end.
class EchoHandler : public ZNRDeviceHandler {
public:
    EchoHandler(std::uint64_t reactor, Journal* j) : reactor_(reactor), j_(j) {}
    bool OnData(ZNRByteBuffer const* b, int* offset) override {
        *offset = static_cast<int>(b->GetDataCount());
        ZNRSingleton<ZNRReactorMgr>::Instance()->SendData(reactor_, GetDeviceId(), b->GetData(), *offset);
        return true;
    }
    void Destroy() override {
        j_->Add("handler gone");
        ZNRDeviceHandler::Destroy();
    }

private:
    std::uint64_t reactor_;
    Journal* j_;
};

class ReactorMgr : public LogCaptureTest {
protected:
    Journal j_;
    Mgr mgr_{&j_};
};

}  // namespace

TEST_F(ReactorMgr, IdsCountFromOneAndDefaultIsTheSmallest) {
    std::uint64_t err = 0;
    EXPECT_EQ(1u, mgr_.New(&err));
    EXPECT_EQ(2u, mgr_.New(&err));
    EXPECT_EQ(0u, err);

    // Empty table: a new reactor, not started (so Start can run it).
    Mgr fresh(&j_);
    std::uint64_t const id = fresh.GetDefault(&err);
    EXPECT_EQ(1u, id);
    EXPECT_EQ(1u, fresh.GetCount());
    EXPECT_TRUE(fresh.IsRunInCurrentThread(id));
    ASSERT_EQ(0u, fresh.Stop(id));
    EXPECT_EQ(0u, fresh.Start(id));

    for (int i = 3; i <= 5; ++i) mgr_.New(&err);
    mgr_.Remove(1);
    mgr_.Remove(2);
    mgr_.Remove(4);
    EXPECT_EQ(3u, mgr_.GetDefault(&err));
    EXPECT_EQ(2u, mgr_.GetCount());

    ZNRReactorMgr* const single = ZNRSingleton<ZNRReactorMgr>::Instance();
    EXPECT_EQ(single, ZNRSingleton<ZNRReactorMgr>::Instance());
    EXPECT_EQ(1u, single->New(&err));
    single->RemoveAll();
    EXPECT_EQ(0u, single->GetCount());
    ZNRSingleton<ZNRReactorMgr>::Destroy();
}

TEST_F(ReactorMgr, UnknownIdsAreRefused) {
    std::uint64_t const id = 77;
    ZNRDevice* device = new ZNRFakeDevice();
    ZNRDeviceHandler* handler = new ZNRDeviceHandler();
    ZNRReactorTask* task = new Task([] {});
    ZNRReactorStopNotify* notify = new Notify([] {});
    ZNRTimer* timer = new NoTimer();
    std::uint64_t err = 0;
    struct Row {
        std::function<std::uint64_t()> call;
        std::uint64_t result;
        std::string function;
        std::string message;
    };
    Row const rows[] = {
        {[&] { return mgr_.RegisterDevice(id, device, handler, &err, 4096, 512, 4096, 0xFFFFFFFF); },
         kNoId, "RegisterDevice",
         "Can not register device to reactor, reactor not found, reactor id=77, device desc=\"Fake device\""},
        {[&] { return mgr_.UnregisterDevice(id, 0x100000002ULL); }, kNotFound, "UnregisterDevice",
         "Can not unregister device from reactor, reactor not found, reactor id=77, device id=4294967298"},
        {[&] { return mgr_.RegisterTask(id, task); }, kNotFound, "RegisterTask",
         "Can not register task to reactor, reactor not found, reactor id=77"},
        {[&] { return mgr_.RegisterBeginStopNotify(id, notify); }, kNotFound, "RegisterBeginStopNotify",
         "Can not register begin stop notify to reactor, reactor not found, reactor id=77"},
        {[&] { return mgr_.RegisterEndStopNotify(id, notify); }, kNotFound, "RegisterEndStopNotify",
         "Can not register end stop notify to reactor, reactor not found, reactor id=77"},
        {[&] { return mgr_.RegisterTimer(id, timer, &err); }, kNotFound, "RegisterTimer",
         "Can not register timer to reactor, reactor not found, reactor id=77"},
        {[&] { return mgr_.UnregisterTimer(id, 5); }, kNotFound, "UnregisterTimer",
         "Can not unregister timer from reactor, reactor not found, reactor id=77 timer id=5"},
        {[&] { return mgr_.SendData(id, 9, nullptr, 0); }, kNotFound, "SendData",
         "Can not send data to reactor device, reactor not found, reactor id=77 device id=9"},
    };
    for (Row const& row : rows) {
        logs_.clear();
        err = 0;
        EXPECT_EQ(row.result, row.call()) << row.function;
        ASSERT_EQ(1u, logs_.size()) << row.function;
        EXPECT_EQ(ZNRLogger::LOGL_ERROR, logs_[0].level);
        EXPECT_EQ(kFn + row.function, logs_[0].function);
        EXPECT_EQ(row.message, logs_[0].message);
        EXPECT_EQ(row.function == "RegisterDevice" ? kNotFound : 0u, err) << row.function;
    }
    // Refused objects stay the caller's.
    device->Destroy();
    handler->Destroy();
    task->Destroy();
    notify->Destroy();
    timer->Destroy();

    // Lifecycle calls on an unknown id neither crash nor log.
    mgr_.New(&err);
    logs_.clear();
    EXPECT_EQ(kNotFound, mgr_.Start(id));
    EXPECT_EQ(kNotFound, mgr_.StartThread(id, ZNRString("x"), nullptr));
    EXPECT_EQ(kNotFound, mgr_.Stop(id));
    EXPECT_FALSE(mgr_.IsRunInCurrentThread(id));
    mgr_.Wait(id);
    mgr_.Remove(id);
    mgr_.Destroy(id);
    EXPECT_EQ(1u, mgr_.GetCount());
    EXPECT_TRUE(logs_.empty());
}

TEST_F(ReactorMgr, ReactorThreadRunsTasksAndReportsItsEnd) {
    std::uint64_t err = 0;
    std::uint64_t const id = mgr_.New(&err);
    ASSERT_EQ(0u, mgr_.StartThread(id, ZNRString("rmgr-loop"), nullptr));
    EXPECT_FALSE(mgr_.IsRunInCurrentThread(id));
    // A second loop on the same reactor is refused.
    EXPECT_EQ(ZNRSysError(EBUSY), mgr_.StartThread(id, ZNRString("again"), nullptr));
    EXPECT_EQ(ZNRSysError(EBUSY), mgr_.Start(id));

    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0u, mgr_.RegisterTask(id, new Task([&, i] {
            j_.Add("task " + std::to_string(i) + " " + ThreadName() + " " +
                   (mgr_.IsRunInCurrentThread(id) ? "current" : "elsewhere"));
        })));
    }
    ASSERT_TRUE(j_.WaitCount(2));
    ASSERT_EQ(0u, mgr_.Stop(id));
    mgr_.Wait(id);
    EXPECT_EQ((std::vector<std::string>{"task 0 rmgr-loop current", "task 1 rmgr-loop current"}), j_.Get());
    // The loop has ended, the reactor is still there.
    EXPECT_EQ(1u, mgr_.GetCount());
    // Init names the engine it made, and why.
    auto const infos = Messages(ZNRLogger::LOGL_INFO);
    ASSERT_EQ(2u, infos.size());
    std::string const engine = std::getenv("PLEXA_ENGINE") != nullptr ? std::getenv("PLEXA_ENGINE") : "";
#ifdef _WIN32
    char const kBest[] = "iocp";
#else
    char const kBest[] = "io_uring";
#endif
    EXPECT_EQ(engine.empty() ? std::string("IOCP reactor uses the ") + kBest +
                                   " completion engine, the best the system offers"
                             : "IOCP reactor uses the " + engine + " completion engine, chosen by PLEXA_ENGINE",
              infos[0]);
    EXPECT_EQ("Reactor thread has stopped, id=1 thread name=\"rmgr-loop\"", infos[1]);
    EXPECT_EQ(kFn + "OnThreadStopped", logs_.back().function);
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_ERROR).empty());

    mgr_.Destroy(id);
    EXPECT_EQ(0u, mgr_.GetCount());
    EXPECT_EQ("destroyed 1", j_.Get().back());
}

// From a task of its own loop: no stop-and-join of itself; the reactor is
// gone from the table at once and destroyed when its loop has returned.
TEST_F(ReactorMgr, RemoveFromItsOwnLoop) {
    for (bool own_thread : {true, false}) {
        SCOPED_TRACE(own_thread ? "reactor thread" : "Start on the caller");
        Journal j;
        Mgr mgr(&j);
        std::uint64_t err = 0;
        std::uint64_t const id = mgr.New(&err);
        ASSERT_EQ(0u, mgr.RegisterEndStopNotify(id, new Notify([&] { j.Add("end"); })));
        ASSERT_EQ(0u, mgr.RegisterTask(id, new Task([&] {
            mgr.Remove(id);
            j.Add("removed, count " + std::to_string(mgr.GetCount()));
        })));
        if (own_thread) {
            ASSERT_EQ(0u, mgr.StartThread(id, ZNRString("rmgr-self"), nullptr));
        } else {
            EXPECT_EQ(0u, mgr.Start(id));
        }
        ASSERT_TRUE(j.WaitCount(3));
        EXPECT_EQ((std::vector<std::string>{"removed, count 0", "end", "destroyed 1"}), j.Get());
        EXPECT_EQ(0u, mgr.GetCount());
        mgr.RemoveAll();  // joins the thread
        EXPECT_EQ(3u, j.Get().size());
    }
}

TEST_F(ReactorMgr, RemoveAllStopsEveryReactorInIdOrder) {
    std::uint64_t err = 0;
    for (int i = 1; i <= 3; ++i) {
        std::uint64_t const id = mgr_.New(&err);
        // A reactor thread may still route calls through the manager while
        // RemoveAll waits for it; its own entry is already gone by then.
        mgr_.RegisterBeginStopNotify(id, new Notify([this, id] {
            j_.Add("begin " + std::to_string(id) + " count " + std::to_string(mgr_.GetCount()));
        }));
        mgr_.RegisterEndStopNotify(id, new Notify([this, id] { j_.Add("end " + std::to_string(id)); }));
        ASSERT_EQ(0u, mgr_.StartThread(id, ZNRString("rmgr-" + std::to_string(id)), nullptr));
    }
    mgr_.New(&err);  // never started
    mgr_.RemoveAll();
    EXPECT_EQ(0u, mgr_.GetCount());
    EXPECT_EQ((std::vector<std::string>{"begin 1 count 3", "end 1", "destroyed 1", "begin 2 count 2",
                                        "end 2", "destroyed 2", "begin 3 count 1", "end 3",
                                        "destroyed 3", "destroyed 4"}),
              j_.Get());
    auto const infos = Messages(ZNRLogger::LOGL_INFO);
    EXPECT_EQ(3, std::count_if(infos.begin(), infos.end(), [](std::string const& m) {
                  return m.rfind("Reactor thread has stopped", 0) == 0;
              }));
    EXPECT_EQ(4, std::count_if(infos.begin(), infos.end(), [](std::string const& m) {
                  return m.rfind("IOCP reactor uses the ", 0) == 0;
              }));
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_ERROR).empty());
    mgr_.RemoveAll();
}

// A thread joining a reactor thread in Wait keeps no writer out, and a
// Remove racing that Wait leaves it a live thread object to join.
TEST_F(ReactorMgr, WaitLetsOtherCallsThrough) {
    std::uint64_t err = 0;
    std::uint64_t const one = mgr_.New(&err);
    ASSERT_EQ(0u, mgr_.StartThread(one, ZNRString("rmgr-wait"), nullptr));
    std::thread waiter([&] {
        mgr_.Wait(one);
        j_.Add("waited");
    });
    // Lets the waiter reach the join; were it late, the checks below would
    // still hold, they would just prove less.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::uint64_t two = 0;
    MustFinish("New while another thread waits", [&] { two = mgr_.New(&err); });
    EXPECT_EQ(2u, two);
    MustFinish("Remove while another thread waits", [&] { mgr_.Remove(one); });
    waiter.join();
    auto entries = j_.Get();
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ((std::vector<std::string>{"destroyed 1", "waited"}), entries);
    EXPECT_EQ(1u, mgr_.GetCount());
}

// A task on reactor 1 removes reactor 2 while the main thread is removing
// (and joining) reactor 1.
TEST_F(ReactorMgr, RemovesFromBothSidesOfAJoin) {
    std::uint64_t err = 0;
    std::uint64_t const one = mgr_.New(&err);
    std::uint64_t const two = mgr_.New(&err);
    std::promise<void> stopping;
    std::atomic<bool> told{false};
    mgr_.on_stop = [&](int n) {
        if (n == 1 && !told.exchange(true)) stopping.set_value();
    };
    std::future<void> stopping_seen = stopping.get_future();
    ASSERT_EQ(0u, mgr_.RegisterTask(one, new Task([&] {
        // Until the main thread is inside Remove(1).
        EXPECT_EQ(std::future_status::ready, stopping_seen.wait_for(std::chrono::seconds(5)));
        mgr_.Remove(two);
        j_.Add("removed 2, count " + std::to_string(mgr_.GetCount()));
    })));
    ASSERT_EQ(0u, mgr_.StartThread(one, ZNRString("rmgr-1"), nullptr));
    ASSERT_EQ(0u, mgr_.StartThread(two, ZNRString("rmgr-2"), nullptr));
    MustFinish("Remove(1) while its task removes 2", [&] { mgr_.Remove(one); });
    EXPECT_EQ((std::vector<std::string>{"destroyed 2", "removed 2, count 0", "destroyed 1"}), j_.Get());
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_ERROR).empty());
}

// A handler run inside the manager's RegisterDevice may create and remove
// reactors, its own included: that one outlives the call.
TEST_F(ReactorMgr, HandlerInsideRegisterDeviceReachesBackIn) {
    struct Row {
        char const* name;
        std::function<void(Mgr&, Journal&)> on_created;
        std::vector<std::string> journal;
    };
    Row const rows[] = {
        {"New", [](Mgr& mgr, Journal& j) {
             std::uint64_t err = 0;
             j.Add("new " + std::to_string(mgr.New(&err)));
         }, {"new 3", "registered"}},
        {"Remove another", [](Mgr& mgr, Journal& j) {
             mgr.Remove(2);
             j.Add("count " + std::to_string(mgr.GetCount()));
         }, {"destroyed 2", "count 1", "registered"}},
        {"Remove itself", [](Mgr& mgr, Journal& j) {
             mgr.Remove(1);
             j.Add("count " + std::to_string(mgr.GetCount()));
         }, {"count 1", "destroyed 1", "registered"}},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.name);
        MustFinish(row.name, [&] {
            Journal j;
            Mgr mgr(&j);
            std::uint64_t err = 0;
            std::uint64_t const id = mgr.New(&err);
            mgr.New(&err);
            auto* handler = new OnCreatedHandler([&] { row.on_created(mgr, j); });
            EXPECT_NE(kNoId, mgr.RegisterDevice(id, new ZNRFakeDevice(), handler, &err, 100, 10, 100,
                                                0xFFFFFFFF));
            j.Add("registered");
            EXPECT_EQ(row.journal, j.Get());
        });
    }
    EXPECT_TRUE(Messages(ZNRLogger::LOGL_ERROR).empty());
}

// The same callables through a reactor and through the manager: a task
// runs until it says stop, a timer until its limit, each with its callable
// destroyed at the end; a refused one is destroyed unrun.
TEST_F(ReactorMgr, CallableTasksAndTimers) {
    std::uint64_t err = 0;
    std::uint64_t const id = mgr_.New(&err);
    ASSERT_EQ(0u, mgr_.StartThread(id, ZNRString("rmgr-fn"), nullptr));
    ZNRReactorIOCP* const reactor = new ZNRReactorIOCP(new ZNRTimerMgr());
    ASSERT_EQ(0u, reactor->Init());
    std::thread loop([reactor] { reactor->Open(); });
    struct Via {
        char const* name;
        std::function<std::uint64_t(std::function<bool()>)> task;
        std::function<std::uint64_t(unsigned int, std::function<bool(std::uint64_t)>, std::uint64_t*)> timer;
    };
    Via const vias[] = {
        {"reactor", [&](std::function<bool()> fn) { return reactor->RegisterTask(std::move(fn)); },
         [&](unsigned int limit, std::function<bool(std::uint64_t)> fn, std::uint64_t* e) {
             return reactor->RegisterTimer(5, limit, std::move(fn), e);
         }},
        {"manager", [&](std::function<bool()> fn) { return mgr_.RegisterTask(id, std::move(fn)); },
         [&](unsigned int limit, std::function<bool(std::uint64_t)> fn, std::uint64_t* e) {
             return mgr_.RegisterTimer(id, 5, limit, std::move(fn), e);
         }},
    };
    for (Via const& via : vias) {
        SCOPED_TRACE(via.name);
        Journal j;
        std::uint64_t const start = ZNRGetSysTick();
        ASSERT_EQ(0u, via.task([&j, n = 0, w = Watch(&j, "task")]() mutable {
            j.Add("task " + std::to_string(++n));
            return n < 3;
        }));
        ASSERT_TRUE(j.WaitFor("task gone"));
        EXPECT_EQ((std::vector<std::string>{"task 1", "task 2", "task 3", "task gone"}), j.Get());

        Journal t;
        // Fire n is due interval * n after the timer was armed.
        std::uint64_t const timer_id = via.timer(3, [&t, start, n = 0, w = Watch(&t, "timer")](std::uint64_t now) mutable {
            t.Add(now >= start + 5 * ++n ? "fired on time" : "fired early");
            return true;
        }, &err);
        EXPECT_NE(kNoId, timer_id);
        ASSERT_TRUE(t.WaitFor("timer gone"));
        EXPECT_EQ((std::vector<std::string>{"fired on time", "fired on time", "fired on time", "timer gone"}),
                  t.Get());
    }

    // Refused: an unknown reactor (logged as for any task or timer), a
    // stopped one.
    logs_.clear();
    Journal r;
    EXPECT_EQ(kNotFound, mgr_.RegisterTask(77, [w = Watch(&r, "task 77")] { return false; }));
    err = 0;
    EXPECT_EQ(kNoId, mgr_.RegisterTimer(77, 5, 1, [w = Watch(&r, "timer 77")](std::uint64_t) { return false; },
                                        &err));
    EXPECT_EQ(kNotFound, err);
    EXPECT_EQ((std::vector<std::string>{"Can not register task to reactor, reactor not found, reactor id=77",
                                        "Can not register timer to reactor, reactor not found, reactor id=77"}),
              Messages(ZNRLogger::LOGL_ERROR));
    reactor->Stop();
    loop.join();
    EXPECT_NE(0u, reactor->RegisterTask([&r, w = Watch(&r, "task stopped")] {
        r.Add("ran");
        return false;
    }));
    EXPECT_EQ((std::vector<std::string>{"task 77 gone", "timer 77 gone", "task stopped gone"}), r.Get());
    reactor->Destroy();
}

// The group owns its reactors only: its destructor stops, joins and
// destroys them with their devices, a task still queued, a repeating task
// and a timer, and leaves the manager's other reactors be.
TEST_F(ReactorMgr, GroupEndsItsOwnReactorsWithTheirWork) {
    std::uint64_t err = 0;
    {
        ZNRReactorGroup group(&mgr_);
        EXPECT_EQ(ZNRSysError(EINVAL), group.Start(0, ZNRString("grp")));
        ASSERT_EQ(0u, group.Start(2, ZNRString("grp")));
        EXPECT_EQ(ZNRSysError(EINVAL), group.Start(1, ZNRString("grp")));
        EXPECT_EQ((std::vector<std::uint64_t>{1, 2}), group.GetIds());
        EXPECT_EQ(3u, mgr_.New(&err));  // not the group's
        for (std::uint64_t id : group.GetIds()) {
            ASSERT_EQ(0u, mgr_.RegisterTask(id, [this, id] {
                mgr_.RegisterDevice(id, new ZNRFakeDevice(), new EchoHandler(id, &j_), nullptr, 100, 10, 100,
                                    0xFFFFFFFF);
                j_.Add("on " + ThreadName());  // the group may end from here on
                std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the next task waits
                return false;
            }));
            ASSERT_EQ(0u, mgr_.RegisterTask(id, [w = Watch(&j_, "queued")] { return false; }));
            ASSERT_EQ(0u, mgr_.RegisterTask(id, [w = Watch(&j_, "repeating")] { return true; }));
            ASSERT_NE(kNoId, mgr_.RegisterTimer(id, 1, ZNRTimer::REPEAT_FOREVER,
                                                [w = Watch(&j_, "timer")](std::uint64_t) { return true; }, &err));
        }
        ASSERT_TRUE(j_.WaitCount(2));
    }
    std::vector<std::string> entries = j_.Get();
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ((std::vector<std::string>{"destroyed 1", "destroyed 2", "handler gone", "handler gone", "on grp-1",
                                        "on grp-2", "queued gone", "queued gone", "repeating gone",
                                        "repeating gone", "timer gone", "timer gone"}),
              entries);
    EXPECT_EQ(1u, mgr_.GetCount());
}

// A handler factory in place of a subclass: each connection gets what it
// makes on its reactor's thread, and a null refuses the connection.
TEST_F(ReactorMgr, FactoryAcceptorServesConnections) {
    std::atomic<int> made{0};
    ZNRTcpFactoryAcceptor acceptor(
        [this, &made](std::uint64_t reactor) -> ZNRDeviceHandler* {
            bool const own = ZNRSingleton<ZNRReactorMgr>::Instance()->IsRunInCurrentThread(reactor);
            j_.Add(std::string("made ") + (own ? "on its thread" : "elsewhere"));
            return made++ == 0 ? nullptr : new EchoHandler(reactor, &j_);
        },
        4096, 512, 4096);
    {
        ZNRReactorGroup group;  // after the acceptor: its reactors go first
        ASSERT_EQ(0u, group.Start(1, ZNRString("grp-acc")));
        ZNRNetAddrInfo bound;
        ASSERT_EQ(0u, acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), group.GetIds(), &bound));
        char reply[8] = {};
        for (char const* expected : {"", "ping"}) {
            nettest::RawSocket const fd = nettest::NewSocket(AF_INET, SOCK_STREAM);
            ASSERT_EQ(0, ::connect(fd, bound.GetAddr(), bound.GetAddrLen()));
            ASSERT_EQ(4, nettest::SendRaw(fd, "ping", 4));
            ASSERT_TRUE(nettest::WaitFor(fd));
            long long const got = nettest::RecvRaw(fd, reply, sizeof reply);
            EXPECT_EQ(expected, std::string(reply, got > 0 ? static_cast<std::size_t>(got) : 0));
            nettest::CloseRaw(fd);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"made on its thread", "made on its thread", "handler gone"}), j_.Get());
}
