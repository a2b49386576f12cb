#include <plexa/znr-error.h>
#include <plexa/znr-process.h>
#include <plexa/znr-string.h>

#include "znr-fd-io.h"
#include "znr-process-start.h"

#include <windows.h>

#include <atomic>
#include <cwchar>
#include <string>
#include <vector>

namespace {

DWORD const kBufferSize = 64 * 1024;
// Windows has no signals: a killed child reports what Linux reports for
// SIGKILL, and the exit code it is given stays unseen.
int const kKillSignal = 9;
UINT const kKilledExitCode = 128 + kKillSignal;

std::uint64_t LastError() { return ZNRSysError(static_cast<int>(GetLastError())); }

// The texts come from ZNRProcessArgv/ZNRProcessEnv, valid UTF-8.
std::wstring Wide(std::string const& utf8) {
    ZNRString text;
    text.NewFromUtf8Str(utf8);
    ZNRStdWString const units = text.ToStdWStr();
    return std::wstring(units.begin(), units.end());
}

std::vector<std::string> ParentEnv() {
    std::vector<std::string> out;
    wchar_t* const block = GetEnvironmentStringsW();
    if (block == nullptr) return out;
    for (wchar_t const* p = block; *p != L'\0'; p += wcslen(p) + 1) {
        std::string entry;
        if (ZNRString(reinterpret_cast<unsigned short const*>(p), nullptr).ToUtf8Str(&entry)) {
            out.push_back(entry);
        }
    }
    FreeEnvironmentStringsW(block);
    return out;
}

// Appends arg so that the Microsoft C runtime's command-line split gives it
// back as it is: quoted when empty or holding blanks or quotes, with a
// quote escaped and the backslashes before it (or before the closing
// quote) doubled.
void AppendQuoted(std::string const& arg, std::string* line) {
    if (!line->empty()) line->push_back(' ');
    if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) {
        line->append(arg);
        return;
    }
    line->push_back('"');
    std::size_t slashes = 0;
    for (char const c : arg) {
        if (c == '\\') {
            ++slashes;
            continue;
        }
        line->append(c == '"' ? slashes * 2 + 1 : slashes, '\\');
        slashes = 0;
        line->push_back(c);
    }
    line->append(slashes * 2, '\\');
    line->push_back('"');
}

// An output pipe: the read end is an overlapped named pipe, so that a
// reactor's completion port can watch it; the child's write end is a
// plain synchronous handle, as programs expect, and inheritable.
std::uint64_t OutputPipe(ZNRNativeHandle* read_end, ZNRNativeHandle* child_end) {
    static std::atomic<unsigned long> serial(0);
    std::wstring const path = L"\\\\.\\pipe\\plexa-process-" + std::to_wstring(GetCurrentProcessId()) +
                              L"-" + std::to_wstring(++serial);
    // The first and only instance: a name someone else took fails.
    HANDLE const r = CreateNamedPipeW(
        path.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 0, kBufferSize, 0, nullptr);
    if (r == INVALID_HANDLE_VALUE) return LastError();
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE const w = CreateFileW(path.c_str(), GENERIC_WRITE, 0, &inherit, OPEN_EXISTING,
                                 SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr);
    if (w == INVALID_HANDLE_VALUE) {
        std::uint64_t const rc = LastError();
        CloseHandle(r);
        return rc;
    }
    *read_end = r;
    *child_end = w;
    return 0;
}

// Starts the command with the three standard handles and no other
// inheritable handle of this process.
std::uint64_t Spawn(std::vector<std::string> const& argv, std::vector<std::string> const& env,
                    HANDLE in, HANDLE out, HANDLE err, PROCESS_INFORMATION* pi) {
    std::string line;
    for (std::string const& arg : argv) AppendQuoted(arg, &line);
    std::wstring command = Wide(line);
    // "NAME=value" entries each ended by a zero, the block by one more.
    std::wstring block;
    for (std::string const& entry : env) {
        block += Wide(entry);
        block.push_back(L'\0');
    }
    if (block.empty()) block.push_back(L'\0');
    block.push_back(L'\0');

    HANDLE handles[3] = {in, out, err};
    DWORD const count = out == err ? 2 : 3;
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<unsigned char> storage(size);
    auto* const list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    if (!InitializeProcThreadAttributeList(list, 1, 0, &size)) return LastError();
    STARTUPINFOEXW si = {};
    si.StartupInfo.cb = sizeof(si);
    si.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    si.StartupInfo.hStdInput = in;
    si.StartupInfo.hStdOutput = out;
    si.StartupInfo.hStdError = err;
    si.lpAttributeList = list;
    std::uint64_t rc = 0;
    // Without a module name the system looks the program up (adding
    // ".exe") in its directory, the system's and the PATH.
    if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles,
                                   count * sizeof(HANDLE), nullptr, nullptr) ||
        !CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE,
                        CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT, &block[0],
                        nullptr, &si.StartupInfo, pi)) {
        rc = LastError();
    }
    DeleteProcThreadAttributeList(list);
    return rc;
}

// A blocking read of an overlapped handle: one operation, waited for here.
std::uint64_t ReadFd(ZNRNativeHandle fd, void* buf, unsigned int size, unsigned int* got) {
    if (got == nullptr || (buf == nullptr && size > 0)) return ZNRSysError(ERROR_INVALID_PARAMETER);
    *got = 0;
    if (!ZNRIsHandle(fd)) return ZNR_ERROR_NOT_READY;
    // A zero-byte pipe read would wait for data; Linux returns at once.
    if (size == 0) return 0;
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ov.hEvent == nullptr) return LastError();
    DWORD n = 0;
    DWORD err = 0;
    if (!ReadFile(fd, buf, size, nullptr, &ov) && GetLastError() != ERROR_IO_PENDING) {
        err = GetLastError();
    } else if (!GetOverlappedResult(fd, &ov, &n, TRUE)) {
        err = GetLastError();
    }
    CloseHandle(ov.hEvent);
    // Every writer gone is the end of the stream: a read of 0, as on Linux.
    if (err == ERROR_BROKEN_PIPE) return 0;
    if (err != 0) return ZNRSysError(static_cast<int>(err));
    *got = n;
    return 0;
}

}  // namespace

std::uint64_t ZNRProcessWin32::Start(ZNRProcessParam const& param) {
    if (pid_ > 0 && !reaped_) return ZNRSysError(ERROR_BUSY);
    std::vector<std::string> argv;
    std::vector<std::string> env;
    if (!ZNRProcessArgv(param, &argv) || !ZNRProcessEnv(param, ParentEnv(), &env)) {
        return ZNRSysError(ERROR_INVALID_PARAMETER);
    }
    ClosePipes();
    ZNRFdRelease(&pidfd_);
    pid_ = 0;
    reaped_ = false;
    exit_code_ = -1;
    exit_signal_ = 0;

    // Only the child's ends are inheritable, and only for the time of the
    // start; input needs no watching, so a plain pipe does.
    ZNRNativeHandle child_in = ZNRNoHandle();
    ZNRNativeHandle child_out = ZNRNoHandle();
    ZNRNativeHandle child_err = ZNRNoHandle();
    std::uint64_t rc = 0;
    if (!CreatePipe(&child_in, &in_fd_, nullptr, 0) ||
        !SetHandleInformation(child_in, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT)) {
        rc = LastError();
    }
    if (rc == 0) rc = OutputPipe(&out_fd_, &child_out);
    if (rc == 0 && !param.error_to_output) rc = OutputPipe(&err_fd_, &child_err);
    PROCESS_INFORMATION pi = {};
    if (rc == 0) {
        rc = Spawn(argv, env, child_in, child_out, param.error_to_output ? child_out : child_err, &pi);
    }
    ZNRFdRelease(&child_in);
    ZNRFdRelease(&child_out);
    ZNRFdRelease(&child_err);
    if (rc != 0) {
        ClosePipes();
        return rc;
    }
    CloseHandle(pi.hThread);
    pid_ = static_cast<int>(pi.dwProcessId);
    pidfd_ = pi.hProcess;
    return AttachOutput(param);
}

std::uint64_t ZNRProcessWin32::WriteInput(void const* data, unsigned int size) {
    if (data == nullptr && size > 0) return ZNRSysError(ERROR_INVALID_PARAMETER);
    if (!ZNRIsHandle(in_fd_)) return ZNR_ERROR_NOT_READY;
    auto const* p = static_cast<unsigned char const*>(data);
    while (size > 0) {
        DWORD n = 0;
        // A child that closed its end fails the write (ERROR_NO_DATA).
        if (!WriteFile(in_fd_, p, size, &n, nullptr)) return LastError();
        p += n;
        size -= n;
    }
    return 0;
}

std::uint64_t ZNRProcessWin32::CloseInput() {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    if (!ZNRIsHandle(in_fd_)) return 0;
    BOOL const ok = CloseHandle(in_fd_);
    std::uint64_t const rc = ok ? 0 : LastError();
    in_fd_ = ZNRNoHandle();
    return rc;
}

std::uint64_t ZNRProcessWin32::ReadOutput(void* buf, unsigned int size, unsigned int* got) {
    return ReadFd(out_fd_, buf, size, got);
}

std::uint64_t ZNRProcessWin32::ReadErrorOutput(void* buf, unsigned int size, unsigned int* got) {
    return ReadFd(err_fd_, buf, size, got);
}

std::uint64_t ZNRProcessWin32::Reap(bool block) {
    DWORD const w = WaitForSingleObject(pidfd_, block ? INFINITE : 0);
    if (w == WAIT_TIMEOUT) return ZNR_ERROR_TIMED_OUT;
    // Even a failure ends the wait for good, as on Linux.
    reaped_ = true;
    DWORD code = 0;
    std::uint64_t rc = 0;
    if (w != WAIT_OBJECT_0 || !GetExitCodeProcess(pidfd_, &code)) {
        rc = LastError();
    } else if (exit_signal_ == 0) {
        exit_code_ = static_cast<int>(code);
    }
    ZNRFdRelease(&pidfd_);
    return rc;
}

std::uint64_t ZNRProcessWin32::Wait(int timeout_ms) {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    if (reaped_) return 0;
    DWORD const limit = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    DWORD const w = WaitForSingleObject(pidfd_, limit);
    if (w == WAIT_OBJECT_0) return Reap(true);
    if (w == WAIT_TIMEOUT) return ZNR_ERROR_TIMED_OUT;
    return LastError();
}

std::uint64_t ZNRProcessWin32::Kill() {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    // Until reaped the handle holds the process, so the id cannot name another.
    if (reaped_) return 0;
    if (TerminateProcess(pidfd_, kKilledExitCode)) {
        exit_signal_ = kKillSignal;
        return 0;
    }
    std::uint64_t const rc = LastError();
    // A child that has already ended is not an error, as on Linux.
    return WaitForSingleObject(pidfd_, 0) == WAIT_OBJECT_0 ? 0 : rc;
}

bool ZNRProcessWin32::IsRunning() { return pid_ > 0 && !reaped_ && Reap(false) == ZNR_ERROR_TIMED_OUT; }
