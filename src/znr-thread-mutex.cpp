#include <plexa/znr-thread-mutex.h>

#include "znr-event.h"

ZNRThreadMutex::ZNRThreadMutex() {}
ZNRThreadMutex::~ZNRThreadMutex() {}

void ZNRThreadMutex::Lock() const { mutex_.lock(); }
void ZNRThreadMutex::Unlock() const { mutex_.unlock(); }
bool ZNRThreadMutex::Trylock() const { return mutex_.try_lock(); }
void* ZNRThreadMutex::GetFd() { return &mutex_; }

ZNRThreadRWMutex::ZNRThreadRWMutex()
    : no_readers_(new ZNREvent(true, true)), readers_(0), mode_(MODE_NONE) {}

ZNRThreadRWMutex::~ZNRThreadRWMutex() { delete no_readers_; }

// Called with the writer mutex held.
void ZNRThreadRWMutex::AddReader() const {
    if (++readers_ == 1) {
        no_readers_->Reset();
        mode_.store(MODE_READ, std::memory_order_relaxed);
    }
}

void ZNRThreadRWMutex::LockRead() const {
    ZNRGuardLock guard(&writer_);
    AddReader();
}

void ZNRThreadRWMutex::LockWrite() const {
    for (;;) {
        no_readers_->Wait(-1);
        writer_.Lock();
        // A reader may have slipped in between the event and the mutex;
        // holding the writer mutex keeps any new one out, so check once more.
        if (readers_ == 0) break;
        writer_.Unlock();
    }
    mode_.store(MODE_WRITE, std::memory_order_relaxed);
}

bool ZNRThreadRWMutex::TrylockRead() const {
    if (!writer_.Trylock()) return false;
    AddReader();
    writer_.Unlock();
    return true;
}

bool ZNRThreadRWMutex::TrylockWrite() const {
    if (!no_readers_->Wait(0)) return false;
    // A failed try leaves the mode alone: the holder of the writer mutex may
    // be a reader on its way in, whose Unlock must still see read mode.
    if (!writer_.Trylock()) return false;
    if (readers_ != 0) {
        writer_.Unlock();
        return false;
    }
    mode_.store(MODE_WRITE, std::memory_order_relaxed);
    return true;
}

void ZNRThreadRWMutex::Unlock() const {
    if (mode_.load(std::memory_order_relaxed) != MODE_READ) {
        writer_.Unlock();
        return;
    }
    ZNRGuardLock guard(&writer_);
    if (readers_ > 0 && --readers_ == 0) no_readers_->Set();
}

ZNRGuardLock::ZNRGuardLock(ZNRThreadMutex const* lock) : lock_(lock) { lock_->Lock(); }
ZNRGuardLock::~ZNRGuardLock() { lock_->Unlock(); }

ZNRGuardSpinLock::ZNRGuardSpinLock(ZNRThreadMutex const* lock, char const* file, unsigned int line)
    : lock_(lock), reserved1_(-1), reserved2_(-1), file_(file), line_(line) {
    lock_->Lock();
}
ZNRGuardSpinLock::~ZNRGuardSpinLock() { lock_->Unlock(); }

ZNRGuardReadLock::ZNRGuardReadLock(ZNRThreadRWMutex const* lock) : lock_(lock) { lock_->LockRead(); }
ZNRGuardReadLock::~ZNRGuardReadLock() { lock_->Unlock(); }

ZNRGuardWriteLock::ZNRGuardWriteLock(ZNRThreadRWMutex const* lock) : lock_(lock) { lock_->LockWrite(); }
ZNRGuardWriteLock::~ZNRGuardWriteLock() { lock_->Unlock(); }

ZNRGuardReadSpinLock::ZNRGuardReadSpinLock(ZNRThreadRWMutex const* lock, char const* file,
                                           unsigned int line)
    : lock_(lock), reserved1_(-1), reserved2_(-1), file_(file), line_(line) {
    lock_->LockRead();
}
ZNRGuardReadSpinLock::~ZNRGuardReadSpinLock() { lock_->Unlock(); }

ZNRGuardWriteSpinLock::ZNRGuardWriteSpinLock(ZNRThreadRWMutex const* lock, char const* file,
                                             unsigned int line)
    : lock_(lock), reserved1_(-1), reserved2_(-1), file_(file), line_(line) {
    lock_->LockWrite();
}
ZNRGuardWriteSpinLock::~ZNRGuardWriteSpinLock() { lock_->Unlock(); }
