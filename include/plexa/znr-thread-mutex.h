#ifndef PLEXA_ZNR_THREAD_MUTEX_H
#define PLEXA_ZNR_THREAD_MUTEX_H

#include <plexa/znr-export.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

class ZNREvent;

/// Recursive mutex: the owner may lock again and must unlock as often.
/// Safe to share between threads; take it through a guard (ZNRGuardLock,
/// ZNRGuardSpinLock) so that every way out of a block releases it.
class ZNR_API ZNRThreadMutex {
public:
    /// Unlocked.
    ZNRThreadMutex();
    /// Must not be held by anyone.
    virtual ~ZNRThreadMutex();
    ZNRThreadMutex(ZNRThreadMutex const&) = delete;
    ZNRThreadMutex& operator=(ZNRThreadMutex const&) = delete;

    /// Waits until the calling thread holds it; never fails.
    virtual void Lock() const;
    /// Releases one Lock() of the calling thread, which must hold it.
    virtual void Unlock() const;
    /// Locks without waiting; false when another thread holds it.
    virtual bool Trylock() const;
    /// The underlying std::recursive_mutex, still owned by this object.
    virtual void* GetFd();

private:
    mutable std::recursive_mutex mutex_;
};

/// Reader-preferring reader/writer lock: readers share the lock, a writer
/// waits until no reader holds it and then keeps the writer mutex.
/// Re-entrant: a reader may read again, and the writer may read or write
/// again (counted as part of its write); each lock needs its own Unlock.
/// A reader that asks to write waits for itself forever. A steady flow of
/// readers can starve a writer. Safe to share between threads; no call fails.
class ZNR_API ZNRThreadRWMutex {
public:
    /// The last mode taken, kept for diagnostics.
    enum Mode_t { MODE_NONE = 0, MODE_READ = 1, MODE_WRITE = 2 };
    /** @var ZNRThreadRWMutex::MODE_NONE
     *  Never locked.
     *  @var ZNRThreadRWMutex::MODE_READ
     *  Last taken for reading.
     *  @var ZNRThreadRWMutex::MODE_WRITE
     *  Last taken for writing. */

    /// Unlocked.
    ZNRThreadRWMutex();
    /// Must not be held by anyone.
    virtual ~ZNRThreadRWMutex();
    ZNRThreadRWMutex(ZNRThreadRWMutex const&) = delete;
    ZNRThreadRWMutex& operator=(ZNRThreadRWMutex const&) = delete;

    /// Shares the lock; waits while a writer holds it.
    virtual void LockRead() const;
    /// Waits until no reader holds the lock, then holds it alone.
    virtual void LockWrite() const;
    /// LockRead() without waiting; false when a writer holds the lock.
    virtual bool TrylockRead() const;
    /// LockWrite() without waiting; false when a reader or another writer holds it.
    virtual bool TrylockWrite() const;
    /// Releases the calling thread's last read or write lock.
    virtual void Unlock() const;

private:
    void AddReader() const;
    bool NestInWrite() const;
    void TakeWrite() const;

    ZNREvent* no_readers_;
    ZNRThreadMutex writer_;
    mutable std::uint32_t readers_;
    // The last mode taken, for diagnostics: Unlock goes by the writer's thread,
    // since a mode shared by all threads cannot tell whose lock is released.
    mutable std::atomic<unsigned char> mode_;
    // The writer's thread, and its locks still to undo (guarded by the writer mutex).
    mutable std::atomic<std::thread::id> writer_thread_;
    mutable std::uint32_t write_depth_;
};

/// Holds a ZNRThreadMutex for the guard's scope (Lock in the constructor,
/// Unlock in the destructor). The mutex is borrowed and must outlive the
/// guard; the guard stays on the thread that made it.
class ZNR_API ZNRGuardLock {
public:
    /// Locks lock, which must not be null.
    explicit ZNRGuardLock(ZNRThreadMutex const* lock);
    /// Unlocks.
    virtual ~ZNRGuardLock();
    ZNRGuardLock(ZNRGuardLock const&) = delete;
    ZNRGuardLock& operator=(ZNRGuardLock const&) = delete;

private:
    ZNRThreadMutex const* lock_;
};

/// ZNRGuardLock that also records where the lock was taken (file, a string
/// that must outlive the guard, and line), for diagnostics.
class ZNR_API ZNRGuardSpinLock {
public:
    /// Locks lock, which must not be null.
    ZNRGuardSpinLock(ZNRThreadMutex const* lock, char const* file, unsigned int line);
    /// Unlocks.
    virtual ~ZNRGuardSpinLock();
    ZNRGuardSpinLock(ZNRGuardSpinLock const&) = delete;
    ZNRGuardSpinLock& operator=(ZNRGuardSpinLock const&) = delete;

private:
    ZNRThreadMutex const* lock_;
    [[maybe_unused]] std::int32_t reserved1_;
    [[maybe_unused]] std::int32_t reserved2_;
    [[maybe_unused]] char const* file_;
    [[maybe_unused]] unsigned int line_;
};

/// Holds a ZNRThreadRWMutex for reading for the guard's scope. The lock is
/// borrowed and must outlive the guard; the guard stays on its thread.
class ZNR_API ZNRGuardReadLock {
public:
    /// LockRead() on lock, which must not be null.
    explicit ZNRGuardReadLock(ZNRThreadRWMutex const* lock);
    /// Unlocks.
    virtual ~ZNRGuardReadLock();
    ZNRGuardReadLock(ZNRGuardReadLock const&) = delete;
    ZNRGuardReadLock& operator=(ZNRGuardReadLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
};

/// Holds a ZNRThreadRWMutex for writing for the guard's scope. The lock is
/// borrowed and must outlive the guard; the guard stays on its thread.
class ZNR_API ZNRGuardWriteLock {
public:
    /// LockWrite() on lock, which must not be null.
    explicit ZNRGuardWriteLock(ZNRThreadRWMutex const* lock);
    /// Unlocks.
    virtual ~ZNRGuardWriteLock();
    ZNRGuardWriteLock(ZNRGuardWriteLock const&) = delete;
    ZNRGuardWriteLock& operator=(ZNRGuardWriteLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
};

/// ZNRGuardReadLock that also records file and line, for diagnostics.
class ZNR_API ZNRGuardReadSpinLock {
public:
    /// LockRead() on lock, which must not be null.
    ZNRGuardReadSpinLock(ZNRThreadRWMutex const* lock, char const* file, unsigned int line);
    /// Unlocks.
    virtual ~ZNRGuardReadSpinLock();
    ZNRGuardReadSpinLock(ZNRGuardReadSpinLock const&) = delete;
    ZNRGuardReadSpinLock& operator=(ZNRGuardReadSpinLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
    [[maybe_unused]] std::int32_t reserved1_;
    [[maybe_unused]] std::int32_t reserved2_;
    [[maybe_unused]] char const* file_;
    [[maybe_unused]] unsigned int line_;
};

/// ZNRGuardWriteLock that also records file and line, for diagnostics.
class ZNR_API ZNRGuardWriteSpinLock {
public:
    /// LockWrite() on lock, which must not be null.
    ZNRGuardWriteSpinLock(ZNRThreadRWMutex const* lock, char const* file, unsigned int line);
    /// Unlocks.
    virtual ~ZNRGuardWriteSpinLock();
    ZNRGuardWriteSpinLock(ZNRGuardWriteSpinLock const&) = delete;
    ZNRGuardWriteSpinLock& operator=(ZNRGuardWriteSpinLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
    [[maybe_unused]] std::int32_t reserved1_;
    [[maybe_unused]] std::int32_t reserved2_;
    [[maybe_unused]] char const* file_;
    [[maybe_unused]] unsigned int line_;
};

#endif
