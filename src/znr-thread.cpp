#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-message-queue.h>
#include <plexa/znr-thread.h>

#include "znr-thread-platform.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

template class ZNRSingleton<ZNRThreadMgr>;

namespace {

// Handed to the new thread, which frees it.
struct StartRecord {
    ZNRThread* thread;
    ZNRThreadRunable* runable;
    std::string name;
};

void ThreadEntry(void* arg) {
    std::unique_ptr<StartRecord> record(static_cast<StartRecord*>(arg));
    ZNRThreadMgr::Instance()->SetCurrent(record->thread);
    ZNRPlatformThreadSetName(record->name.c_str());
    if (record->runable != nullptr) {
        record->runable->Run(record->thread);
        record->runable->Destroy();
    } else {
        record->thread->Run();
    }
}

}  // namespace

ZNRThreadRunable::~ZNRThreadRunable() {}

ZNRThread::ZNRThread(ZNRMessageQueue* queue)
    : handle_(nullptr),
      priority_(PRIORITY_NORMAL),
      name_("default"),
      started_(false),
      queue_(queue) {
    ZNRThreadMgr::Instance()->Add(this);
}

ZNRThread::~ZNRThread() {
    ZNRThreadMgr::Instance()->Remove(this);
    if (queue_ != nullptr) queue_->Release();
    ZNRPlatformThreadRelease(handle_.exchange(nullptr));
}

std::uint64_t ZNRThread::Start(ZNRThreadRunable* runable) {
    if (started_.exchange(true)) return ZNRSysError(EBUSY);
    StartRecord* record = new StartRecord{this, runable, name_.ToStdCStr()};
    ZNRThreadHandle* handle = nullptr;
    std::uint64_t const error =
        ZNRPlatformThreadCreate(&ThreadEntry, record, priority_, &handle);
    if (error != 0) {
        delete record;
        started_ = false;
        return error;
    }
    handle_ = handle;
    return 0;
}

std::uint64_t ZNRThread::Join(long* exit_code) {
    // Taking the handle out keeps a second joiner (WaitAll) off it.
    ZNRThreadHandle* handle = handle_.exchange(nullptr);
    long code = 0;
    std::uint64_t const error = ZNRPlatformThreadJoin(handle, &code);
    if (error != 0) {
        if (handle != nullptr) handle_ = handle;
        return error;
    }
    started_ = false;
    if (exit_code != nullptr) *exit_code = code;
    return 0;
}

void ZNRThread::Exit(long code) { ZNRPlatformThreadExit(code); }

void ZNRThread::Run() {
    if (queue_ == nullptr) return;
    ZNRMessage message;
    while (queue_->Get(&message, -1) != nullptr && message.handler != nullptr) {
        queue_->Dispatch(&message);
    }
}

void ZNRThread::Stop() {
    if (queue_ != nullptr) queue_->Post(nullptr, 0, nullptr);
}

bool ZNRThread::IsCurrent() { return this == ZNRThreadMgr::Instance()->GetCurrent(); }

ZNRThreadMgr* ZNRThreadMgr::Instance() { return ZNRSingleton<ZNRThreadMgr>::Instance(); }

void ZNRThreadMgr::Destroy() { ZNRSingleton<ZNRThreadMgr>::Destroy(); }

ZNRThreadMgr::ZNRThreadMgr() : adopted_(nullptr) {
    std::uint64_t error = current_.Open();
    if (error == 0) error = current_.Set(nullptr);
    if (error != 0) {
        ZNR_LOG(ERROR, "Can not init current thread, error_msg=%s", ZNRGetErrorText(error).c_str());
    }
}

ZNRThreadMgr::~ZNRThreadMgr() {
    ZNRThread* adopted = adopted_;
    Remove(adopted);
    // Its destructor unregisters once more through Instance(), which still
    // answers with this manager while the singleton is being destroyed.
    delete adopted;
}

void ZNRThreadMgr::Add(ZNRThread* thread) {
    ZNRGuardLock guard(&lock_);
    threads_->push_back(thread);
}

void ZNRThreadMgr::Remove(ZNRThread* thread) {
    {
        ZNRGuardLock guard(&lock_);
        auto it = std::find(threads_->begin(), threads_->end(), thread);
        if (it != threads_->end()) threads_->erase(it);
        if (adopted_ == thread) adopted_ = nullptr;
    }
    // A thread dropping its own object gets a fresh one from GetCurrent.
    void* value = nullptr;
    if (current_.Get(&value) == 0 && value == thread) current_.Set(nullptr);
}

void ZNRThreadMgr::SetCurrent(ZNRThread* thread) {
    std::uint64_t const error = current_.Set(thread);
    if (error != 0) {
        ZNR_LOG(ERROR, "Can not set current thread, error_msg=%s", ZNRGetErrorText(error).c_str());
    }
}

ZNRThread* ZNRThreadMgr::GetCurrent() {
    void* value = nullptr;
    current_.Get(&value);
    if (value != nullptr) return static_cast<ZNRThread*>(value);

    ZNRThread* thread = new ZNRThread(nullptr);
    {
        ZNRGuardLock guard(&lock_);
        adopted_ = thread;
    }
    std::uint64_t error = 0;
    ZNRThreadHandle* handle = ZNRPlatformThreadAdoptCurrent(&error);
    if (error != 0) {
        ZNR_LOG(ERROR, "Open thread error, error_msg=%s", ZNRGetErrorText(error).c_str());
    }
    thread->handle_ = handle;
    thread->started_ = true;
    SetCurrent(thread);
    current_.Get(&value);
    return static_cast<ZNRThread*>(value);
}

void ZNRThreadMgr::WaitAll() {
    ZNRGuardLock guard(&lock_);
    for (ZNRThread* thread : *threads_) thread->Join(nullptr);
}
