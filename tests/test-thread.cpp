#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace {

// What the system keeps of the calling thread: its name and its priority
// (a nice value on Linux, a priority level on Windows). Windows names are
// whole and wide, from the name's GBK bytes; Linux cuts them to 15 bytes.
#ifdef _WIN32
std::u16string OwnWideName() {
    typedef HRESULT(WINAPI * GetDescription)(HANDLE, PWSTR*);
    auto const get = reinterpret_cast<GetDescription>(reinterpret_cast<void (*)()>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
    PWSTR name = nullptr;
    if (get == nullptr || FAILED(get(GetCurrentThread(), &name))) return u"<no name>";
    std::u16string const out(reinterpret_cast<char16_t const*>(name));
    LocalFree(name);
    return out;
}
std::string OwnName() { return ZNRString(reinterpret_cast<unsigned short const*>(OwnWideName().c_str())).ToStdCStr(); }
int OwnNice() { return GetThreadPriority(GetCurrentThread()); }
int const kIdle = THREAD_PRIORITY_IDLE, kHighest = THREAD_PRIORITY_HIGHEST;
int const kDeadlock = ERROR_POSSIBLE_DEADLOCK, kNoThread = ERROR_INVALID_HANDLE;
char const kCutName[] = "plexa-worker-name-too-long";
#else
std::string OwnName() {
    char buf[64] = {};
    pthread_getname_np(pthread_self(), buf, sizeof buf);
    return buf;
}
int OwnNice() { return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid))); }
int const kIdle = 19, kHighest = -10;
int const kDeadlock = EDEADLK, kNoThread = ESRCH;
char const kCutName[] = "plexa-worker-na";
#endif

// Records what the body saw; waits for *gate when one is given.
class Probe : public ZNRThreadRunable {
public:
    void Run(ZNRThread* thread) override {
        while (gate != nullptr && !*gate) std::this_thread::yield();
        got = thread;
        is_current = thread->IsCurrent() && thread->Started();
        name = OwnName();
        nice = OwnNice();
        run_tid = std::this_thread::get_id();
        ++runs;
        if (exit_code != 0) ZNRThread::Exit(exit_code);
    }
    void Destroy() override {
        destroyed_on_run_thread = run_tid == std::this_thread::get_id();
        ++destroys;
    }

    std::atomic<bool>* gate = nullptr;
    long exit_code = 0;
    ZNRThread* got = nullptr;
    bool is_current = false, destroyed_on_run_thread = false;
    std::string name;
    int nice = 0, destroys = 0;
    std::thread::id run_tid;
    std::atomic<int> runs{0};
};

class LoopHandler : public ZNRMessageHandler {
public:
    explicit LoopHandler(ZNRThread* t) : thread(t) {}
    void OnMessage(ZNRMessage* message) override {
        ids.push_back(message->id);
        if (!thread->IsCurrent()) on_wrong_thread = true;
    }
    ZNRThread* thread;
    std::vector<unsigned int> ids;
    bool on_wrong_thread = false;
};

}  // namespace

TEST(ThreadMgr, AdoptsTheMainThreadOnceAndJoinErrors) {
    ZNRThread* current = ZNRThreadMgr::Instance()->GetCurrent();
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current->GetName().ToStdCStr(), "default");
    EXPECT_TRUE(ZNRThreadMgr::Instance()->GetCurrent() == current && current->IsCurrent());
    // A thread cannot wait for itself: an error, and it stays started.
    long code = -1;
    EXPECT_EQ(current->Join(&code), ZNRSysError(kDeadlock));
    EXPECT_EQ(code, -1);
    EXPECT_TRUE(current->Started());

    ZNRThread never;
    EXPECT_EQ(never.Join(&code), ZNRSysError(kNoThread));
    EXPECT_EQ(code, -1);
    EXPECT_FALSE(never.IsCurrent() || never.Started() || never.GetFd() != nullptr);
}

TEST(Thread, MessageLoopRunsUntilStopAndJoinGivesZero) {
    ZNRThread t(new ZNRMessageQueue());
    LoopHandler h(&t);
    ZNRMessageQueue* q = t.GetMsgQ();
    for (unsigned int i = 1; i <= 50; ++i) q->Post(&h, i, nullptr);  // before the start
    ASSERT_EQ(t.Start(), 0u);
    EXPECT_TRUE(t.Started());
    EXPECT_EQ(t.Start(), ZNRSysError(EBUSY));
    for (unsigned int i = 51; i <= 100; ++i) q->Post(&h, i, nullptr);
    t.Stop();
    q->Post(&h, 1000, nullptr);  // after the stop: never dispatched

    long code = -1;
    ASSERT_EQ(t.Join(&code), 0u);
    EXPECT_EQ(code, 0);
    EXPECT_FALSE(t.Started());
    std::vector<unsigned int> expected(100);
    for (unsigned int i = 0; i < 100; ++i) expected[i] = i + 1;
    EXPECT_EQ(h.ids, expected);
    EXPECT_FALSE(h.on_wrong_thread);
    EXPECT_EQ(q->Size(), 1u);
    EXPECT_EQ(t.Join(&code), ZNRSysError(kNoThread));

    // The same object runs again after a join.
    q->ClearAll(nullptr);
    ASSERT_EQ(t.Start(), 0u);
    t.Stop();
    EXPECT_EQ(t.Join(nullptr), 0u);
}

TEST(Thread, RunableBodyNameAndExitCode) {
    ZNRThread t;
    t.SetName(ZNRString("plexa-worker-name-too-long"));
    Probe probe;
    ASSERT_EQ(t.Start(&probe), 0u);
    long code = -1;
    ASSERT_EQ(t.Join(&code), 0u);
    EXPECT_EQ(std::make_tuple(0L, 1, 1, &t, kCutName),
              std::make_tuple(code, probe.runs.load(), probe.destroys, probe.got, probe.name));
    EXPECT_TRUE(probe.is_current && probe.destroyed_on_run_thread);

    // Exit ends the thread with its code; Destroy is not reached.
    t.SetName(ZNRString("short"));
    Probe leaving;
    leaving.exit_code = 7;
    ASSERT_EQ(t.Start(&leaving), 0u);
    ASSERT_EQ(t.Join(&code), 0u);
    EXPECT_EQ(std::make_tuple(7L, "short", 0), std::make_tuple(code, leaving.name, leaving.destroys));
}

TEST(Thread, PriorityIsAppliedBeforeTheBodyOrReported) {
    ZNRThread idle, normal, high;
    idle.SetPriority(ZNRThread::PRIORITY_IDLE);
    high.SetPriority(ZNRThread::PRIORITY_HIGHEST);
    Probe lowered, inherited, raised;
    ASSERT_EQ(0u, idle.Start(&lowered) | normal.Start(&inherited));
    ASSERT_EQ(0u, idle.Join(nullptr) | normal.Join(nullptr));
    EXPECT_EQ(lowered.nice, kIdle);
    EXPECT_EQ(inherited.nice, OwnNice());

    std::uint64_t const error = high.Start(&raised);
    if (error != 0) {
        // Not permitted (Linux without CAP_SYS_NICE): reported, and the body never ran.
        EXPECT_EQ(error, ZNRSysError(EACCES));
        EXPECT_FALSE(high.Started());
        EXPECT_EQ(raised.runs, 0);
        EXPECT_EQ(high.Join(nullptr), ZNRSysError(kNoThread));
#ifdef _WIN32
        ADD_FAILURE() << "raising a thread's priority needs no privilege on Windows";
#endif
    } else {
        ASSERT_EQ(high.Join(nullptr), 0u);
        EXPECT_EQ(raised.nice, kHighest);
    }
}

#ifdef _WIN32
TEST(Thread, WindowsNamesAreWideFromGbkAndLevelsFollowPriorities) {
    ZNRThread t;
    t.SetName(ZNRString(u"\u4E2D\u6587 worker thread name"));  // "chs": GBK on its way to the system
    struct WideProbe : ZNRThreadRunable {
        void Run(ZNRThread*) override { name = OwnWideName(), level = OwnNice(); }
        void Destroy() override {}
        std::u16string name;
        int level = 99;
    } probe;
    int const levels[] = {THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_ABOVE_NORMAL, GetThreadPriority(GetCurrentThread()),
                          THREAD_PRIORITY_IDLE};
    for (int priority = 0; priority < 4; ++priority) {
        t.SetPriority(static_cast<ZNRThread::Priority_t>(priority));
        ASSERT_EQ(0u, t.Start(&probe));
        ASSERT_EQ(0u, t.Join(nullptr));
        EXPECT_EQ(levels[priority], probe.level) << priority;
        EXPECT_EQ(u"\u4E2D\u6587 worker thread name", probe.name);
    }
}
#endif

TEST(ThreadMgr, WaitAllJoinsEveryStartedThread) {
    ZNRThread* main_thread = ZNRThreadMgr::Instance()->GetCurrent();
    std::atomic<bool> go(false);
    ZNRThread never_started;  // skipped, as is the caller's own (adopted) thread
    std::vector<ZNRThread> threads(3);
    std::vector<Probe> probes(3);
    for (int i = 0; i < 3; ++i) {
        probes[i].gate = &go;
        ASSERT_EQ(threads[i].Start(&probes[i]), 0u);
    }
    std::thread opener([&go] { ZNRSleep(20), go = true; });
    ZNRThreadMgr::Instance()->WaitAll();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(probes[i].runs == 1 && !threads[i].Started() && threads[i].Join(nullptr) == ZNRSysError(kNoThread))
            << i;
    EXPECT_TRUE(main_thread->Started());
    opener.join();
}

TEST(ThreadMgr, ForeignThreadsAreAdoptedUntilTheyEnd) {
    ZNRThreadMgr* mgr = ZNRThreadMgr::Instance();
    ZNRThread* main_thread = mgr->GetCurrent();
    std::size_t const registered = mgr->GetThreadCount();
    std::atomic<ZNRThread*> seen(nullptr);
    std::atomic<bool> release(false);
    std::thread foreign([&] {
        ZNRThread* self = mgr->GetCurrent();
        EXPECT_TRUE(self == mgr->GetCurrent() && self->IsCurrent());
        seen = self;
        while (!release) std::this_thread::yield();
    });
    while (seen == nullptr) std::this_thread::yield();
    EXPECT_NE(seen.load(), main_thread);
    EXPECT_TRUE(seen.load()->Started());  // adopted threads count as started
    EXPECT_EQ(registered + 1, mgr->GetThreadCount());
    // Its object lives until it ends, so WaitAll can wait for it meanwhile.
    std::thread opener([&release] { ZNRSleep(20), release = true; });
    mgr->WaitAll();
    EXPECT_TRUE(release);
    foreign.join();
    opener.join();
    // Every ended thread takes its object along.
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([mgr] { EXPECT_EQ("default", mgr->GetCurrent()->GetName().ToStdCStr()); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(registered, mgr->GetThreadCount());

    // Dropping the calling thread's own object: the next call adopts anew,
    // and so does a fresh manager, also for a thread that outlives the old one.
    delete main_thread;
    ZNRThread* again = mgr->GetCurrent();
    EXPECT_TRUE(again != nullptr && again->IsCurrent() && mgr->GetCurrent() == again);
    seen = nullptr;
    release = false;
    std::thread outliving([&] {
        seen = ZNRThreadMgr::Instance()->GetCurrent();
        while (!release) std::this_thread::yield();
        EXPECT_TRUE(ZNRThreadMgr::Instance()->GetCurrent()->IsCurrent());
    });
    while (seen == nullptr) std::this_thread::yield();
    ZNRThreadMgr::Destroy();
    release = true;
    outliving.join();
    EXPECT_TRUE(ZNRThreadMgr::Instance()->GetCurrent()->IsCurrent());
    EXPECT_EQ(1u, ZNRThreadMgr::Instance()->GetThreadCount());
}
