#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-message-queue.h>
#include <plexa/znr-thread.h>

#include "znr-thread-platform.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

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

// Held by an ending thread while its adopted object unregisters, and by
// Destroy, so that the manager is neither destroyed under that thread nor
// made anew by it.
std::mutex g_manager_life;

}  // namespace

class ZNRThreadMgr::Adoption : public ZNRThreadExitHook {
public:
    explicit Adoption(ZNRThread* thread) : thread_(thread) {}

    // The object goes to whoever asks first: its ending thread, the
    // manager's destructor, or Remove when it is deleted earlier.
    ZNRThread* Claim() { return thread_.exchange(nullptr); }

    void OnThreadExit() override {
        std::lock_guard<std::mutex> life(g_manager_life);
        delete Claim();
    }
    bool Expired() override { return thread_.load() == nullptr; }

private:
    std::atomic<ZNRThread*> thread_;
};

namespace {

// Marks an adopted thread's end for whoever waits on its handle.
class ThreadEndHook : public ZNRThreadExitHook {
public:
    explicit ThreadEndHook(std::shared_ptr<ZNRThreadEnd> end) : end_(std::move(end)) {}
    void OnThreadExit() override { ZNRPlatformThreadEndMark(end_.get()); }
    // Nobody can wait once the handle is gone.
    bool Expired() override { return end_.use_count() == 1; }

private:
    std::shared_ptr<ZNRThreadEnd> end_;
};

}  // namespace

std::uint64_t ZNRThreadWatchEnd(std::shared_ptr<ZNRThreadEnd> const& end) {
    ThreadEndHook* hook = new ThreadEndHook(end);
    std::uint64_t const error = ZNRAtThreadExit(hook);
    if (error != 0) hook->Destroy();
    return error;
}

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

void ZNRThreadMgr::Destroy() {
    std::lock_guard<std::mutex> life(g_manager_life);
    ZNRSingleton<ZNRThreadMgr>::Destroy();
}

ZNRThreadMgr::ZNRThreadMgr() {
    std::uint64_t error = current_.Open();
    if (error == 0) error = current_.Set(nullptr);
    if (error != 0) {
        ZNR_LOG(ERROR, "Can not init current thread, error_msg=%s", ZNRGetErrorText(error).c_str());
    }
}

ZNRThreadMgr::~ZNRThreadMgr() {
    std::vector<ZNRThread*> owned;
    {
        ZNRGuardLock guard(&lock_);
        for (auto const& adopted : *adopted_) {
            if (ZNRThread* thread = adopted.second->Claim()) owned.push_back(thread);
        }
        adopted_->clear();
    }
    // Their destructors unregister through Instance(), which still answers
    // with this manager while the singleton is being destroyed.
    for (ZNRThread* thread : owned) delete thread;
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
        auto adopted = adopted_->find(thread);
        if (adopted != adopted_->end()) {
            // Deleted before its thread ended: the thread's hook must not
            // delete it again.
            adopted->second->Claim();
            adopted_->erase(adopted);
        }
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
    std::uint64_t error = 0;
    ZNRThreadHandle* handle = ZNRPlatformThreadAdoptCurrent(&error);
    if (error != 0) {
        ZNR_LOG(ERROR, "Open thread error, error_msg=%s", ZNRGetErrorText(error).c_str());
    }
    thread->handle_ = handle;
    thread->started_ = true;
    SetCurrent(thread);
    // Hooks run in the order added: waiters on the handle learn that the
    // thread has ended before its object goes (WaitAll holds the lock that
    // the object's unregistering needs).
    Adoption* adoption = new Adoption(thread);
    {
        ZNRGuardLock guard(&lock_);
        (*adopted_)[thread] = adoption;
    }
    error = ZNRAtThreadExit(adoption);
    if (error != 0) {
        // Without the hook the object stays, as any the host made.
        ZNR_LOG(ERROR, "Open thread error, error_msg=%s", ZNRGetErrorText(error).c_str());
        {
            ZNRGuardLock guard(&lock_);
            adopted_->erase(thread);
        }
        adoption->Destroy();
    }
    current_.Get(&value);
    return static_cast<ZNRThread*>(value);
}

void ZNRThreadMgr::WaitAll() {
    ZNRGuardLock guard(&lock_);
    for (ZNRThread* thread : *threads_) thread->Join(nullptr);
}

std::size_t ZNRThreadMgr::GetThreadCount() {
    ZNRGuardLock guard(&lock_);
    return threads_->size();
}
