#include <plexa/znr-error.h>
#include <plexa/znr-tls.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <vector>

#include <pthread.h>

namespace {

typedef std::vector<ZNRThreadExitHook*> ExitHooks;

pthread_once_t g_exit_once = PTHREAD_ONCE_INIT;
pthread_key_t g_exit_key;
int g_exit_key_error = 0;

// pthread clears the slot before calling this, so hooks added by these
// hooks start a new list, which pthread then visits in another round.
void RunExitHooks(void* value) {
    std::unique_ptr<ExitHooks> hooks(static_cast<ExitHooks*>(value));
    for (ZNRThreadExitHook* hook : *hooks) {
        hook->OnThreadExit();
        hook->Destroy();
    }
}

// One key for the process, never deleted: a deleted key's destructor may
// still be running on an ending thread.
void MakeExitKey() { g_exit_key_error = pthread_key_create(&g_exit_key, &RunExitHooks); }

}  // namespace

ZNRThreadExitHook::~ZNRThreadExitHook() {}

bool ZNRThreadExitHook::Expired() { return false; }

void ZNRThreadExitHook::Destroy() { delete this; }

std::uint64_t ZNRAtThreadExit(ZNRThreadExitHook* hook) {
    pthread_once(&g_exit_once, &MakeExitKey);
    if (g_exit_key_error != 0) return ZNRSysError(g_exit_key_error);
    ExitHooks* hooks = static_cast<ExitHooks*>(pthread_getspecific(g_exit_key));
    if (hooks == nullptr) {
        hooks = new (std::nothrow) ExitHooks();
        if (hooks == nullptr) return ZNRSysError(ENOMEM);
        int const rc = pthread_setspecific(g_exit_key, hooks);
        if (rc != 0) {
            delete hooks;
            return ZNRSysError(rc);
        }
    }
    hooks->erase(std::remove_if(hooks->begin(), hooks->end(),
                                [](ZNRThreadExitHook* old) {
                                    if (!old->Expired()) return false;
                                    old->Destroy();
                                    return true;
                                }),
                 hooks->end());
    try {
        hooks->push_back(hook);
    } catch (std::bad_alloc const&) {
        return ZNRSysError(ENOMEM);
    }
    return 0;
}

ZNRTLS::ZNRTLS() : key_(0), opened_(false) {}

ZNRTLS::~ZNRTLS() {
    if (opened_) pthread_key_delete(static_cast<pthread_key_t>(key_));
}

std::uint64_t ZNRTLS::Open() {
    pthread_key_t key;
    int const rc = pthread_key_create(&key, nullptr);
    if (rc != 0) return ZNRSysError(rc);
    key_ = static_cast<std::uint32_t>(key);
    opened_ = true;
    return 0;
}

std::uint64_t ZNRTLS::Set(void* value) {
    if (!opened_) return ZNRSysError(EINVAL);
    int const rc = pthread_setspecific(static_cast<pthread_key_t>(key_), value);
    return rc == 0 ? 0 : ZNRSysError(rc);
}

std::uint64_t ZNRTLS::Get(void** out) {
    if (!opened_) return ZNRSysError(EINVAL);
    *out = pthread_getspecific(static_cast<pthread_key_t>(key_));
    return 0;
}
