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

/// A thread body supplied by the host. Destroy() is called on the thread
/// right after Run() returns.
class ZNR_API ZNRThreadRunable {
public:
    /// The body, on the new thread; thread is the object that started it.
    virtual void Run(ZNRThread* thread) = 0;
    /// Called on the same thread once Run() returns: the runable disposes
    /// of itself here (or does nothing, if its owner keeps it).
    virtual void Destroy() = 0;

protected:
    /// Runables end through Destroy().
    virtual ~ZNRThreadRunable();
};

/// One operating-system thread with a name, a priority and an optional
/// message queue whose loop is the default body. The object is driven by
/// the thread that owns it (Start, Join, setters); Stop(), Started() and
/// GetFd() are safe from any thread.
class ZNR_API ZNRThread {
public:
    /// On Linux: highest and above normal raise the thread's nice value to
    /// -10 and -5 (this needs CAP_SYS_NICE or RLIMIT_NICE room), normal
    /// leaves it as inherited, any other value lowers it to 19.
    enum Priority_t {
        PRIORITY_HIGHEST = 0,
        PRIORITY_ABOVE_NORMAL = 1,
        PRIORITY_NORMAL = 2,
        PRIORITY_IDLE = 3,
    };
    /** @var ZNRThread::PRIORITY_HIGHEST
     *  Nice value -10.
     *  @var ZNRThread::PRIORITY_ABOVE_NORMAL
     *  Nice value -5.
     *  @var ZNRThread::PRIORITY_NORMAL
     *  The default: the nice value is left as inherited.
     *  @var ZNRThread::PRIORITY_IDLE
     *  Nice value 19. */

    /// Takes ownership of queue (may be null) and registers with the
    /// thread manager. Named "default", priority normal, not started.
    explicit ZNRThread(ZNRMessageQueue* queue = nullptr);
    ZNRThread(ZNRThread const&) = delete;
    ZNRThread& operator=(ZNRThread const&) = delete;

    /// Posts the message that ends the default loop; does nothing without a
    /// queue. Safe from any thread; a runable body must be ended by its own means.
    virtual void Stop();
    /// Default body: gets and dispatches messages until one without handler.
    /// Returns at once without a queue.
    virtual void Run();
    /// Unregisters and releases the queue; neither stops nor joins, so a
    /// running thread must be joined first.
    virtual ~ZNRThread();

    /// Runs runable (or Run() when null) on a new thread, named and with its
    /// priority applied before the body starts. A priority that cannot be
    /// applied is returned as the error (EPERM, EACCES) and the body never
    /// runs (runable stays the caller's). EBUSY when already started; the
    /// system's error (EAGAIN, ENOMEM) when no thread can be made. On
    /// success runable is the thread's until its Destroy().
    std::uint64_t Start(ZNRThreadRunable* runable = nullptr);
    /// Waits for the thread and reads its exit code into *exit_code (if not
    /// null); an operating-system error when the thread was never started or
    /// is already joined (ESRCH), or when a thread joins itself (EDEADLK).
    std::uint64_t Join(long* exit_code);
    /// Ends the calling thread with code; what it holds is not released.
    [[noreturn]] static void Exit(long code);

    /// Name given to the thread at the next Start (cut to 15 bytes).
    void SetName(ZNRString const& name) { name_ = name; }
    /// The name, "default" unless set.
    ZNRString const& GetName() const { return name_; }
    /// Takes effect at the next Start.
    void SetPriority(Priority_t priority) { priority_ = priority; }
    /// The priority for the next Start.
    Priority_t GetPriority() const { return priority_; }
    /// The platform handle, null until started and after a join.
    void* GetFd() const { return handle_.load(); }
    /// The thread's queue (still the thread's), or null.
    ZNRMessageQueue* GetMsgQ() const { return queue_; }
    /// True from a successful Start until a successful Join.
    bool Started() const { return started_.load(); }
    /// True when called on the thread this object stands for.
    bool IsCurrent();

private:
    friend class ZNRThreadMgr;

    std::atomic<ZNRThreadHandle*> handle_;
    Priority_t priority_;
    ZNRString name_;
    std::atomic<bool> started_;
    ZNRMessageQueue* queue_;
};

/// Registry of thread objects and keeper of each thread's current object.
/// A process-wide singleton; every member is safe from any thread.
class ZNR_API ZNRThreadMgr {
public:
    /// The process-wide manager, created on first use.
    static ZNRThreadMgr* Instance();
    /// Deletes the manager (adopted thread objects with it); registered
    /// threads the host made are not deleted.
    static void Destroy();

    /// Opens the current-thread slot; a failure is logged at ERROR as
    /// "Can not init current thread, error_msg=%s" and otherwise ignored.
    ZNRThreadMgr();
    /// Deletes the adopted thread objects still alive.
    ~ZNRThreadMgr();
    ZNRThreadMgr(ZNRThreadMgr const&) = delete;
    ZNRThreadMgr& operator=(ZNRThreadMgr const&) = delete;

    /// Registers thread (not taken over); ZNRThread's constructor calls it.
    void Add(ZNRThread* thread);
    /// Unregisters thread; ZNRThread's destructor calls it.
    void Remove(ZNRThread* thread);
    /// Makes thread the calling thread's object (not taken over); a slot
    /// failure is logged at ERROR as "Can not set current thread, error_msg=%s".
    void SetCurrent(ZNRThread* thread);
    /// The calling thread's object; a thread the library did not start gets
    /// one named "default", already started, on its first call. Such an
    /// adopted object is the library's: it is destroyed when its thread ends
    /// (or with the manager, if that comes first), so other threads must not
    /// keep it; WaitAll may wait for its thread. Adoption failures are
    /// logged at ERROR as "Open thread error, error_msg=%s".
    ZNRThread* GetCurrent();
    /// Joins every registered thread in registration order, holding the
    /// registry lock throughout; threads that cannot be joined (never
    /// started, or the caller itself) are passed over. Threads that make or
    /// delete ZNRThread objects meanwhile wait until it ends.
    void WaitAll();
    /// Thread objects registered now.
    std::size_t GetThreadCount();

private:
    // An adopted object and the exit hook of its thread.
    class Adoption;

    ZNRStlAdapter<std::list<ZNRThread*>> threads_;
    ZNRThreadMutex lock_;
    ZNRStlAdapter<std::map<ZNRThread*, Adoption*>> adopted_;
    ZNRTLS current_;
};

extern template class ZNR_API ZNRSingleton<ZNRThreadMgr>;

#endif
