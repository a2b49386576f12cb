#ifndef PLEXA_ZNR_THREAD_H
#define PLEXA_ZNR_THREAD_H

#include <plexa/znr-export.h>
#include <plexa/znr-singleton.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>
#include <plexa/znr-thread-mutex.h>
#include <plexa/znr-tls.h>

#include <atomic>
#include <list>
#include <map>

class ZNRMessageQueue;
class ZNRThread;
struct ZNRThreadHandle;

// A thread body supplied by the host. Destroy() is called on the thread
// right after Run() returns.
class ZNR_API ZNRThreadRunable {
public:
    virtual void Run(ZNRThread* thread) = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRThreadRunable();
};

// One operating-system thread with a name, a priority and an optional
// message queue whose loop is the default body.
class ZNR_API ZNRThread {
public:
    // On Linux: highest and above normal raise the thread's nice value to
    // -10 and -5 (this needs CAP_SYS_NICE or RLIMIT_NICE room), normal
    // leaves it as inherited, any other value lowers it to 19.
    enum Priority_t {
        PRIORITY_HIGHEST = 0,
        PRIORITY_ABOVE_NORMAL = 1,
        PRIORITY_NORMAL = 2,
        PRIORITY_IDLE = 3,
    };

    // Takes ownership of queue (may be null) and registers with the
    // thread manager.
    explicit ZNRThread(ZNRMessageQueue* queue = nullptr);
    ZNRThread(ZNRThread const&) = delete;
    ZNRThread& operator=(ZNRThread const&) = delete;

    // Posts the message that ends the default loop; does nothing without a
    // queue.
    virtual void Stop();
    // Default body: gets and dispatches messages until one without handler.
    virtual void Run();
    // Unregisters and releases the queue; neither stops nor joins.
    virtual ~ZNRThread();

    // Runs runable (or Run() when null) on a new thread, named and with its
    // priority applied before the body starts. A priority that cannot be
    // applied is returned as the error and the body never runs (runable
    // stays the caller's).
    std::uint64_t Start(ZNRThreadRunable* runable = nullptr);
    // Waits for the thread and reads its exit code; an operating-system
    // error when the thread was never started or is already joined.
    std::uint64_t Join(long* exit_code);
    [[noreturn]] static void Exit(long code);

    void SetName(ZNRString const& name) { name_ = name; }
    ZNRString const& GetName() const { return name_; }
    // Takes effect at the next Start.
    void SetPriority(Priority_t priority) { priority_ = priority; }
    Priority_t GetPriority() const { return priority_; }
    // The platform handle, null until started and after a join.
    void* GetFd() const { return handle_.load(); }
    ZNRMessageQueue* GetMsgQ() const { return queue_; }
    bool Started() const { return started_.load(); }
    bool IsCurrent();

private:
    friend class ZNRThreadMgr;

    std::atomic<ZNRThreadHandle*> handle_;
    Priority_t priority_;
    ZNRString name_;
    std::atomic<bool> started_;
    ZNRMessageQueue* queue_;
};

// Registry of thread objects and keeper of each thread's current object.
class ZNR_API ZNRThreadMgr {
public:
    static ZNRThreadMgr* Instance();
    static void Destroy();

    ZNRThreadMgr();
    ~ZNRThreadMgr();
    ZNRThreadMgr(ZNRThreadMgr const&) = delete;
    ZNRThreadMgr& operator=(ZNRThreadMgr const&) = delete;

    void Add(ZNRThread* thread);
    void Remove(ZNRThread* thread);
    void SetCurrent(ZNRThread* thread);
    // The calling thread's object; a thread the library did not start gets
    // one named "default", already started, on its first call. Such an
    // adopted object is the library's: it is destroyed when its thread ends
    // (or with the manager, if that comes first), so other threads must not
    // keep it; WaitAll may wait for its thread.
    ZNRThread* GetCurrent();
    // Joins every registered thread in registration order, holding the
    // registry lock throughout; threads that cannot be joined (never
    // started, or the caller itself) are passed over.
    void WaitAll();
    // Thread objects registered now.
    std::size_t GetThreadCount();

private:
    // An adopted object and the exit hook of its thread.
    class Adoption;

    ZNRStlAdapter<std::list<ZNRThread*>> threads_;
    ZNRThreadMutex lock_;
    ZNRStlAdapter<std::map<ZNRThread*, Adoption*>> adopted_;
    ZNRTLS current_;
};

extern template class ZNRSingleton<ZNRThreadMgr>;

#endif
