#include <plexa/znr-error.h>
#include <plexa/znr-tls.h>

#include "znr-exit-hooks.h"

#include <cerrno>
#include <new>

#include <pthread.h>

namespace {

pthread_once_t g_exit_once = PTHREAD_ONCE_INIT;
pthread_key_t g_exit_key;
int g_exit_key_error = 0;

// pthread clears the slot before calling this, so hooks added by these
// hooks start a new list, which pthread then visits in another round.
void RunExitHooks(void* value) { ZNRExitHooksRun(static_cast<ZNRExitHooks*>(value)); }

// One key for the process, never deleted: a deleted key's destructor may
// still be running on an ending thread.
void MakeExitKey() { g_exit_key_error = pthread_key_create(&g_exit_key, &RunExitHooks); }

}  // namespace

std::uint64_t ZNRAtThreadExit(ZNRThreadExitHook* hook) {
    pthread_once(&g_exit_once, &MakeExitKey);
    if (g_exit_key_error != 0) return ZNRSysError(g_exit_key_error);
    ZNRExitHooks* hooks = static_cast<ZNRExitHooks*>(pthread_getspecific(g_exit_key));
    if (hooks == nullptr) {
        hooks = new (std::nothrow) ZNRExitHooks();
        if (hooks == nullptr) return ZNRSysError(ENOMEM);
        int const rc = pthread_setspecific(g_exit_key, hooks);
        if (rc != 0) {
            delete hooks;
            return ZNRSysError(rc);
        }
    }
    if (!ZNRExitHooksAdd(hooks, hook)) return ZNRSysError(ENOMEM);
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
