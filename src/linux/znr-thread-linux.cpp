#include <plexa/znr-error.h>

#include "../znr-thread-platform.h"

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Priorities map onto SCHED_OTHER nice values of the new thread:
// highest -10, above normal -5, normal inherited as is, anything else 19.
// Raising a thread's priority needs CAP_SYS_NICE (or RLIMIT_NICE room).
bool NiceOf(int priority, int* nice) {
    switch (priority) {
    case 0: *nice = -10; return true;
    case 1: *nice = -5; return true;
    case 2: return false;
    default: *nice = 19; return true;
    }
}

struct StartBlock {
    void (*body)(void*);
    void* arg;
    int priority;
    std::mutex mutex;
    std::condition_variable cond;
    bool reported;
    int result;
};

void* Trampoline(void* p) {
    StartBlock* block = static_cast<StartBlock*>(p);
    void (*body)(void*) = block->body;
    void* arg = block->arg;
    int result = 0;
    int nice = 0;
    if (NiceOf(block->priority, &nice)) {
        auto const tid = static_cast<id_t>(syscall(SYS_gettid));
        if (setpriority(PRIO_PROCESS, tid, nice) != 0) result = errno;
    }
    {
        // The block lives on the starter's stack: not touched after this.
        std::lock_guard<std::mutex> lock(block->mutex);
        block->reported = true;
        block->result = result;
        block->cond.notify_one();
    }
    if (result == 0) body(arg);
    return nullptr;
}

}  // namespace

struct ZNRThreadEnd {
    explicit ZNRThreadEnd(pthread_t self) : thread(self), ended(false) {}
    pthread_t const thread;
    std::mutex mutex;
    std::condition_variable cond;
    bool ended;
};

void ZNRPlatformThreadEndMark(ZNRThreadEnd* end) {
    std::lock_guard<std::mutex> lock(end->mutex);
    end->ended = true;
    end->cond.notify_all();
}

struct ZNRThreadHandle {
    pthread_t thread;
    std::shared_ptr<ZNRThreadEnd> adopted;
};

std::uint64_t ZNRPlatformThreadCreate(void (*body)(void*), void* arg, int priority,
                                      ZNRThreadHandle** handle) {
    std::unique_ptr<ZNRThreadHandle> created(new (std::nothrow) ZNRThreadHandle());
    if (!created) return ZNRSysError(ENOMEM);
    StartBlock block;
    block.body = body;
    block.arg = arg;
    block.priority = priority;
    block.reported = false;
    block.result = 0;
    int const rc = pthread_create(&created->thread, nullptr, &Trampoline, &block);
    if (rc != 0) return ZNRSysError(rc);
    int result;
    {
        std::unique_lock<std::mutex> lock(block.mutex);
        block.cond.wait(lock, [&block] { return block.reported; });
        result = block.result;
    }
    if (result != 0) {
        pthread_join(created->thread, nullptr);
        return ZNRSysError(result);
    }
    *handle = created.release();
    return 0;
}

std::uint64_t ZNRPlatformThreadJoin(ZNRThreadHandle* handle, long* exit_code) {
    if (handle == nullptr) return ZNRSysError(ESRCH);
    if (handle->adopted) {
        ZNRThreadEnd& state = *handle->adopted;
        if (pthread_equal(state.thread, pthread_self())) return ZNRSysError(EDEADLK);
        std::unique_lock<std::mutex> lock(state.mutex);
        state.cond.wait(lock, [&state] { return state.ended; });
        lock.unlock();
        *exit_code = 0;
    } else {
        void* value = nullptr;
        int const rc = pthread_join(handle->thread, &value);
        if (rc != 0) return ZNRSysError(rc);
        *exit_code = static_cast<long>(reinterpret_cast<std::intptr_t>(value));
    }
    delete handle;
    return 0;
}

void ZNRPlatformThreadRelease(ZNRThreadHandle* handle) {
    if (handle == nullptr) return;
    if (!handle->adopted) pthread_detach(handle->thread);
    delete handle;
}

ZNRThreadHandle* ZNRPlatformThreadAdoptCurrent(std::uint64_t* error) {
    std::unique_ptr<ZNRThreadHandle> handle(new (std::nothrow) ZNRThreadHandle());
    if (!handle) {
        *error = ZNRSysError(ENOMEM);
        return nullptr;
    }
    handle->thread = pthread_self();
    handle->adopted = std::make_shared<ZNRThreadEnd>(handle->thread);
    *error = ZNRThreadWatchEnd(handle->adopted);
    return *error == 0 ? handle.release() : nullptr;
}

void ZNRPlatformThreadSetName(char const* name) {
    char cut[16];
    std::strncpy(cut, name, sizeof cut - 1);
    cut[sizeof cut - 1] = '\0';
    pthread_setname_np(pthread_self(), cut);
}

void ZNRPlatformThreadExit(long code) {
    pthread_exit(reinterpret_cast<void*>(static_cast<std::intptr_t>(code)));
}
