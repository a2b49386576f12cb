#include <plexa/znr-error.h>
#include <plexa/znr-tls.h>

#include "znr-exit-hooks.h"

#include <new>

#include <windows.h>

// Exported by ntdll since Windows XP, declared in no SDK header: true once
// the process has begun to end.
extern "C" BOOLEAN NTAPI RtlDllShutdownInProgress();

namespace {

// The thread's hooks live in a TLS slot, which stays readable while FLS
// callbacks run; the FLS slot only arms the callback that fires at thread
// end. Both are allocated once for the process and never freed: freeing the
// FLS slot would run the callback on the freeing thread.
struct ExitSlots {
    DWORD tls;
    DWORD fls;
    DWORD error;
};

void WINAPI RunExitHooks(void*);

ExitSlots MakeExitSlots() {
    ExitSlots slots = {TLS_OUT_OF_INDEXES, FLS_OUT_OF_INDEXES, 0};
    slots.tls = TlsAlloc();
    if (slots.tls == TLS_OUT_OF_INDEXES) {
        slots.error = GetLastError();
        return slots;
    }
    slots.fls = FlsAlloc(&RunExitHooks);
    if (slots.fls == FLS_OUT_OF_INDEXES) slots.error = GetLastError();
    return slots;
}

ExitSlots const& Slots() {
    static ExitSlots const slots = MakeExitSlots();
    return slots;
}

// Each list is taken off the slot before it runs, so hooks added by these
// hooks start a new list, run in the next round. FLS callbacks also run for
// the thread that ends the process, which must run no hooks.
void WINAPI RunExitHooks(void*) {
    if (RtlDllShutdownInProgress()) return;
    DWORD const tls = Slots().tls;
    while (ZNRExitHooks* hooks = static_cast<ZNRExitHooks*>(TlsGetValue(tls))) {
        TlsSetValue(tls, nullptr);
        ZNRExitHooksRun(hooks);
    }
}

}  // namespace

std::uint64_t ZNRAtThreadExit(ZNRThreadExitHook* hook) {
    ExitSlots const& slots = Slots();
    if (slots.error != 0) return ZNRSysError(static_cast<int>(slots.error));
    ZNRExitHooks* hooks = static_cast<ZNRExitHooks*>(TlsGetValue(slots.tls));
    if (hooks == nullptr) {
        hooks = new (std::nothrow) ZNRExitHooks();
        if (hooks == nullptr) return ZNRSysError(ERROR_NOT_ENOUGH_MEMORY);
        // Any non-null FLS value arms the callback.
        if (!TlsSetValue(slots.tls, hooks) ||
            (FlsGetValue(slots.fls) == nullptr && !FlsSetValue(slots.fls, hooks))) {
            DWORD const error = GetLastError();
            TlsSetValue(slots.tls, nullptr);
            delete hooks;
            return ZNRSysError(static_cast<int>(error));
        }
    }
    if (!ZNRExitHooksAdd(hooks, hook)) return ZNRSysError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
}

ZNRTLS::ZNRTLS() : key_(0), opened_(false) {}

ZNRTLS::~ZNRTLS() {
    if (opened_) TlsFree(key_);
}

std::uint64_t ZNRTLS::Open() {
    DWORD const key = TlsAlloc();
    if (key == TLS_OUT_OF_INDEXES) return ZNRSysError(static_cast<int>(GetLastError()));
    key_ = key;
    opened_ = true;
    return 0;
}

std::uint64_t ZNRTLS::Set(void* value) {
    if (!opened_) return ZNRSysError(ERROR_INVALID_PARAMETER);
    if (!TlsSetValue(key_, value)) return ZNRSysError(static_cast<int>(GetLastError()));
    return 0;
}

std::uint64_t ZNRTLS::Get(void** out) {
    if (!opened_) return ZNRSysError(ERROR_INVALID_PARAMETER);
    *out = TlsGetValue(key_);
    return 0;
}
