#include <plexa/znr-error.h>

#include "../znr-thread-platform.h"
#include "znr-win32-wide.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <process.h>

#include <windows.h>

namespace {

bool LevelOf(int priority, int* level) {
    switch (priority) {
    case 0: *level = THREAD_PRIORITY_HIGHEST; return true;
    case 1: *level = THREAD_PRIORITY_ABOVE_NORMAL; return true;
    case 2: return false;
    default: *level = THREAD_PRIORITY_IDLE; return true;
    }
}

// Owned by the new thread, which frees it before body runs (body may end
// the thread without returning).
struct StartBlock {
    void (*body)(void*);
    void* arg;
    bool run;
};

unsigned __stdcall Trampoline(void* p) {
    StartBlock* block = static_cast<StartBlock*>(p);
    void (*body)(void*) = block->body;
    void* arg = block->arg;
    bool const run = block->run;
    delete block;
    if (run) body(arg);
    return 0;
}

}  // namespace

// Set by the adopted thread's exit hook.
struct ZNRThreadEnd {
    ZNRThreadEnd() : ended(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~ZNRThreadEnd() {
        if (ended != nullptr) CloseHandle(ended);
    }
    ZNRThreadEnd(ZNRThreadEnd const&) = delete;
    ZNRThreadEnd& operator=(ZNRThreadEnd const&) = delete;
    HANDLE const ended;
};

void ZNRPlatformThreadEndMark(ZNRThreadEnd* end) { SetEvent(end->ended); }

struct ZNRThreadHandle {
    ~ZNRThreadHandle() {
        if (thread != nullptr) CloseHandle(thread);
    }
    HANDLE thread = nullptr;
    std::shared_ptr<ZNRThreadEnd> adopted;
};

// The thread starts suspended and gets its priority before it first runs,
// which is before body as the seam asks.
std::uint64_t ZNRPlatformThreadCreate(void (*body)(void*), void* arg, int priority,
                                      ZNRThreadHandle** handle) {
    std::unique_ptr<ZNRThreadHandle> created(new (std::nothrow) ZNRThreadHandle());
    StartBlock* block = new (std::nothrow) StartBlock{body, arg, true};
    if (!created || block == nullptr) {
        delete block;
        return ZNRSysError(ERROR_NOT_ENOUGH_MEMORY);
    }
    std::uintptr_t const started =
        _beginthreadex(nullptr, 0, &Trampoline, block, CREATE_SUSPENDED, nullptr);
    if (started == 0) {
        delete block;
        // The C runtime's own allocation failures leave no system error.
        return ZNRSysError(_doserrno != 0 ? static_cast<int>(_doserrno) : ERROR_NOT_ENOUGH_MEMORY);
    }
    created->thread = reinterpret_cast<HANDLE>(started);
    DWORD error = 0;
    int level = 0;
    if (LevelOf(priority, &level) && !SetThreadPriority(created->thread, level)) {
        error = GetLastError();
        block->run = false;
    }
    if (ResumeThread(created->thread) == static_cast<DWORD>(-1)) {
        // It never ran: nothing of it is left half done.
        DWORD const resume_error = GetLastError();
        TerminateThread(created->thread, 0);
        delete block;
        return ZNRSysError(static_cast<int>(resume_error));
    }
    if (error != 0) {
        WaitForSingleObject(created->thread, INFINITE);
        return ZNRSysError(static_cast<int>(error));
    }
    *handle = created.release();
    return 0;
}

std::uint64_t ZNRPlatformThreadJoin(ZNRThreadHandle* handle, long* exit_code) {
    if (handle == nullptr) return ZNRSysError(ERROR_INVALID_HANDLE);
    if (GetThreadId(handle->thread) == GetCurrentThreadId())
        return ZNRSysError(ERROR_POSSIBLE_DEADLOCK);
    if (handle->adopted) {
        // The thread's own end also counts, for a thread killed before its
        // exit hooks ran.
        HANDLE const ends[2] = {handle->adopted->ended, handle->thread};
        if (WaitForMultipleObjects(2, ends, FALSE, INFINITE) == WAIT_FAILED)
            return ZNRSysError(static_cast<int>(GetLastError()));
        *exit_code = 0;
    } else {
        DWORD code = 0;
        if (WaitForSingleObject(handle->thread, INFINITE) == WAIT_FAILED ||
            !GetExitCodeThread(handle->thread, &code)) {
            return ZNRSysError(static_cast<int>(GetLastError()));
        }
        *exit_code = static_cast<long>(code);
    }
    delete handle;
    return 0;
}

void ZNRPlatformThreadRelease(ZNRThreadHandle* handle) { delete handle; }

ZNRThreadHandle* ZNRPlatformThreadAdoptCurrent(std::uint64_t* error) {
    std::unique_ptr<ZNRThreadHandle> handle(new (std::nothrow) ZNRThreadHandle());
    if (!handle) {
        *error = ZNRSysError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    // GetCurrentThread() is a pseudo handle that names whichever thread uses it.
    if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(),
                         &handle->thread, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        handle->thread = nullptr;
        *error = ZNRSysError(static_cast<int>(GetLastError()));
        return nullptr;
    }
    handle->adopted = std::make_shared<ZNRThreadEnd>();
    if (handle->adopted->ended == nullptr) {
        *error = ZNRSysError(static_cast<int>(GetLastError()));
        return nullptr;
    }
    *error = ZNRThreadWatchEnd(handle->adopted);
    return *error == 0 ? handle.release() : nullptr;
}

// SetThreadDescription is missing before Windows 10 1607 and under some
// Wine versions; the name is then only the library's.
void ZNRPlatformThreadSetName(char const* name) {
    typedef HRESULT(WINAPI * SetDescription)(HANDLE, PCWSTR);
    static SetDescription const set_description = reinterpret_cast<SetDescription>(
        reinterpret_cast<void (*)()>(
            GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription")));
    if (set_description == nullptr) return;
    // Names come from ZNRString::ToStdCStr in the library's default "chs"
    // (GBK, code page 936).
    std::wstring wide;
    if (ZNRWin32Widen(name, 936, &wide)) set_description(GetCurrentThread(), wide.c_str());
}

void ZNRPlatformThreadExit(long code) { _endthreadex(static_cast<unsigned>(code)); }
