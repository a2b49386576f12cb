#include <plexa/znr-thread-mutex.h>

#include "znr-event.h"

ZNRThreadMutex::ZNRThreadMutex() {}
ZNRThreadMutex::~ZNRThreadMutex() {}

void ZNRThreadMutex::Lock() const { mutex_.lock(); }
void ZNRThreadMutex::Unlock() const { mutex_.unlock(); }
bool ZNRThreadMutex::Trylock() const { return mutex_.try_lock(); }
void* ZNRThreadMutex::GetFd() { return &mutex_; }

ZNRThreadRWMutex::ZNRThreadRWMutex()
    : no_readers_(new ZNREvent(true, true)),
      readers_(0),
      mode_(MODE_NONE),
      writer_thread_(std::thread::id()),
      write_depth_(0) {}

ZNRThreadRWMutex::~ZNRThreadRWMutex() { delete no_readers_; }

// Called with the writer mutex held.
void ZNRThreadRWMutex::AddReader() const {
    if (++readers_ == 1) {
        no_readers_->Reset();
        mode_.store(MODE_READ, std::memory_order_relaxed);
    }
}

// Only this thread stores its own id, so a relaxed look is exact. Counting a
// nested lock into the write keeps the reader count and the mode untouched,
// so that the last Unlock still releases the writer mutex.
bool ZNRThreadRWMutex::NestInWrite() const {
    if (writer_thread_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return false;
    ++write_depth_;
    return true;
}

// Called with the writer mutex just taken and no readers.
void ZNRThreadRWMutex::TakeWrite() const {
    writer_thread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    write_depth_ = 1;
    mode_.store(MODE_WRITE, std::memory_order_relaxed);
}

void ZNRThreadRWMutex::LockRead() const {
    if (NestInWrite()) return;
    ZNRGuardLock guard(&writer_);
    AddReader();
}

void ZNRThreadRWMutex::LockWrite() const {
    if (NestInWrite()) return;
    for (;;) {
        no_readers_->Wait(-1);
        writer_.Lock();
        // A reader may have slipped in between the event and the mutex;
        // holding the writer mutex keeps any new one out, so check once more.
        if (readers_ == 0) break;
        writer_.Unlock();
    }
    TakeWrite();
}

bool ZNRThreadRWMutex::TrylockRead() const {
    if (NestInWrite()) return true;
    if (!writer_.Trylock()) return false;
    AddReader();
    writer_.Unlock();
    return true;
}

bool ZNRThreadRWMutex::TrylockWrite() const {
    if (NestInWrite()) return true;
    if (!no_readers_->Wait(0)) return false;
    if (!writer_.Trylock()) return false;
    if (readers_ != 0) {
        writer_.Unlock();
        return false;
    }
    TakeWrite();
    return true;
}

void ZNRThreadRWMutex::Unlock() const {
    if (writer_thread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
        if (--write_depth_ == 0) {
            writer_thread_.store(std::thread::id(), std::memory_order_relaxed);
            writer_.Unlock();
        }
        return;
    }
    // Not the writer: a reader's unlock.
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
