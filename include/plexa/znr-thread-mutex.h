#ifndef PLEXA_ZNR_THREAD_MUTEX_H
#define PLEXA_ZNR_THREAD_MUTEX_H

#include <plexa/znr-export.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

class ZNREvent;

// Recursive mutex: the owner may lock again and must unlock as often.
class ZNR_API ZNRThreadMutex {
public:
    ZNRThreadMutex();
    virtual ~ZNRThreadMutex();
    ZNRThreadMutex(ZNRThreadMutex const&) = delete;
    ZNRThreadMutex& operator=(ZNRThreadMutex const&) = delete;

    virtual void Lock() const;
    virtual void Unlock() const;
    virtual bool Trylock() const;
    virtual void* GetFd();

private:
    mutable std::recursive_mutex mutex_;
};

// Reader-preferring reader/writer lock: readers share the lock, a writer
// waits until no reader holds it and then keeps the writer mutex.
// Re-entrant: a reader may read again, and the writer may read or write
// again (counted as part of its write); each lock needs its own Unlock.
// A reader that asks to write waits for itself forever.
class ZNR_API ZNRThreadRWMutex {
public:
    enum Mode_t { MODE_NONE = 0, MODE_READ = 1, MODE_WRITE = 2 };

    ZNRThreadRWMutex();
    virtual ~ZNRThreadRWMutex();
    ZNRThreadRWMutex(ZNRThreadRWMutex const&) = delete;
    ZNRThreadRWMutex& operator=(ZNRThreadRWMutex const&) = delete;

    virtual void LockRead() const;
    virtual void LockWrite() const;
    virtual bool TrylockRead() const;
    virtual bool TrylockWrite() const;
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

class ZNR_API ZNRGuardLock {
public:
    explicit ZNRGuardLock(ZNRThreadMutex const* lock);
    virtual ~ZNRGuardLock();
    ZNRGuardLock(ZNRGuardLock const&) = delete;
    ZNRGuardLock& operator=(ZNRGuardLock const&) = delete;

private:
    ZNRThreadMutex const* lock_;
};

// The spin guards also record where the lock was taken, for diagnostics.
class ZNR_API ZNRGuardSpinLock {
public:
    ZNRGuardSpinLock(ZNRThreadMutex const* lock, char const* file, unsigned int line);
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

class ZNR_API ZNRGuardReadLock {
public:
    explicit ZNRGuardReadLock(ZNRThreadRWMutex const* lock);
    virtual ~ZNRGuardReadLock();
    ZNRGuardReadLock(ZNRGuardReadLock const&) = delete;
    ZNRGuardReadLock& operator=(ZNRGuardReadLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
};

class ZNR_API ZNRGuardWriteLock {
public:
    explicit ZNRGuardWriteLock(ZNRThreadRWMutex const* lock);
    virtual ~ZNRGuardWriteLock();
    ZNRGuardWriteLock(ZNRGuardWriteLock const&) = delete;
    ZNRGuardWriteLock& operator=(ZNRGuardWriteLock const&) = delete;

private:
    ZNRThreadRWMutex const* lock_;
};

class ZNR_API ZNRGuardReadSpinLock {
public:
    ZNRGuardReadSpinLock(ZNRThreadRWMutex const* lock, char const* file, unsigned int line);
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

class ZNR_API ZNRGuardWriteSpinLock {
public:
    ZNRGuardWriteSpinLock(ZNRThreadRWMutex const* lock, char const* file, unsigned int line);
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
