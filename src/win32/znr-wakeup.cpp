#include <plexa/znr-error.h>
#include <plexa/znr-id-allocator.h>
#include <plexa/znr-string.h>

#include "znr-wakeup.h"

#include <windows.h>

#include <string>

namespace {

DWORD const kBufferSize = 64 * 1024;

std::uint64_t LastError() { return ZNRSysError(static_cast<int>(GetLastError())); }

// A name no other pipe has: \\.\pipe\ and a fresh UUID.
std::uint64_t UniquePath(std::string* path) {
    ZNRIdAllocator ids;
    ZNRString uuid;
    std::uint64_t const rc = ids.AllocUUID(&uuid);
    if (rc == 0) *path = "\\\\.\\pipe\\" + uuid.ToStdCStr();
    return rc;
}

} // namespace

std::uint64_t ZNRWakeupOpen(ZNRNativeHandle* fd, ZNRNativeHandle* write_fd) {
    std::string path;
    std::uint64_t const rc = UniquePath(&path);
    if (rc != 0) return rc;
    // Duplex although only read: Wine refuses to tie an inbound-only
    // server end to a completion port (access denied).
    HANDLE const read_end = CreateNamedPipeA(
        path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 0, kBufferSize, 0, nullptr);
    if (read_end == INVALID_HANDLE_VALUE) return LastError();
    // Opening the one instance connects it: no ConnectNamedPipe needed,
    // and nobody else can connect any more.
    // Changing the mode takes the right to write its attributes.
    HANDLE const write_end = CreateFileA(path.c_str(), GENERIC_WRITE | FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING,
                                         SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr);
    // Adding never blocks: a full pipe takes the message or nothing.
    DWORD mode = PIPE_NOWAIT;
    if (write_end == INVALID_HANDLE_VALUE ||
        !SetNamedPipeHandleState(write_end, &mode, nullptr, nullptr)) {
        std::uint64_t const err = LastError();
        if (write_end != INVALID_HANDLE_VALUE) CloseHandle(write_end);
        CloseHandle(read_end);
        return err;
    }
    *fd = read_end;
    *write_fd = write_end;
    return 0;
}

std::uint64_t ZNRWakeupAdd(ZNRNativeHandle write_fd, std::uint64_t count) {
    DWORD written = 0;
    if (!WriteFile(write_fd, &count, sizeof count, &written, nullptr)) return LastError();
    // Nothing written means the pipe is full: wake-ups are pending already,
    // as with a non-zero counter.
    return 0;
}
