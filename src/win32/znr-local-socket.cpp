#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-local-socket.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>

// Local stream sockets are named pipes. Each listening instance is a pipe
// instance in the listening state, overlapped for the completion port and
// not inherited. To accept, the engine calls ConnectNamedPipe on it with
// an OVERLAPPED: ERROR_PIPE_CONNECTED means a client came first (done at
// once), ERROR_IO_PENDING completes through the port, and ERROR_NO_DATA
// means a client came and went (DisconnectNamedPipe, then try again). The
// instance handle itself becomes the connection: nothing to switch to.

namespace {

char const kPipePrefix[] = "\\\\.\\pipe\\";
DWORD const kBufferSize = 64 * 1024;

// The pipe path of name: a full pipe path stays as it is, anything else
// (a Linux-style file path too) goes under \\.\pipe\.
bool PathOf(std::string const& name, std::wstring* path) {
    bool const full = name.compare(0, sizeof(kPipePrefix) - 1, kPipePrefix) == 0;
    ZNRString text;
    if (name.find('\0') != std::string::npos ||
        !text.NewFromUtf8Str(full ? name : kPipePrefix + name)) {
        return false;
    }
    ZNRStdWString const units = text.ToStdWStr();
    path->assign(units.begin(), units.end());
    return true;
}

// Listening instances of each name in this process: the first one is
// created as the first instance of the pipe, so that a name another
// process serves is refused as on Linux.
std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}

std::map<std::string, unsigned int>& Registry() {
    static auto* instances = new std::map<std::string, unsigned int>();
    return *instances;
}

} // namespace

std::uint64_t ZNRLocalListen(std::string const& name, ZNRNativeHandle* fd) {
    std::wstring path;
    if (!PathOf(name, &path)) return ZNRSysError(ERROR_INVALID_NAME);
    std::lock_guard<std::mutex> guard(RegistryLock());
    unsigned int& count = Registry()[name];
    DWORD const first = count == 0 ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
    HANDLE const h = CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first,
                                      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                                      PIPE_UNLIMITED_INSTANCES, kBufferSize, kBufferSize, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        std::uint64_t const rc = ZNRSysError(static_cast<int>(GetLastError()));
        if (count == 0) Registry().erase(name);
        return rc;
    }
    ++count;
    *fd = h;
    return 0;
}

void ZNRLocalRelease(std::string const& name) {
    std::lock_guard<std::mutex> guard(RegistryLock());
    auto const it = Registry().find(name);
    if (it != Registry().end() && --it->second == 0) Registry().erase(it);
}

std::uint64_t ZNRLocalConnect(std::string const& name, unsigned int wait_ms, ZNRNativeHandle* fd) {
    std::wstring path;
    if (!PathOf(name, &path)) return ZNRSysError(ERROR_INVALID_NAME);
    using Clock = std::chrono::steady_clock;
    bool const forever = wait_ms == 0xFFFFFFFFu;
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    auto left_ms = [&] {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        return static_cast<DWORD>(std::max<long long>(left.count(), 0));
    };
    DWORD pause = 1;
    // The server may learn who connects, as a local socket's peer may, but
    // not act as the client.
    DWORD const flags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    for (;;) {
        HANDLE const h = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                     OPEN_EXISTING, flags, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            *fd = h;
            return 0;
        }
        DWORD const err = GetLastError();
        // No server yet, or every instance taken.
        if (err != ERROR_FILE_NOT_FOUND && err != ERROR_PIPE_BUSY) {
            return ZNRSysError(static_cast<int>(err));
        }
        DWORD const left = forever ? INFINITE : left_ms();
        if (left == 0) {
            // As on Linux, a name nobody listens on refuses the connection.
            return ZNRSysError(static_cast<int>(err == ERROR_FILE_NOT_FOUND ? ERROR_CONNECTION_REFUSED
                                                                           : err));
        }
        // WaitNamedPipeW sleeps until an instance frees; with none at all it
        // returns at once, so that case polls. Its 0 means a default wait.
        if (err == ERROR_PIPE_BUSY && WaitNamedPipeW(path.c_str(), left)) continue;
        Sleep(forever ? pause : std::min(pause, left_ms()));
        pause = std::min<DWORD>(pause * 2, 50);
    }
}
