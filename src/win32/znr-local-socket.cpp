#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-local-socket.h"

#include <windows.h>
#include <sddl.h>

// Local stream sockets are named pipes, the name used as given. Each
// listening instance is a pipe instance of its own, overlapped for the
// completion port and not inherited. To accept, the engine calls
// ConnectNamedPipe on it; the instance handle itself becomes the
// connection.

namespace {

std::uint64_t LastError() { return ZNRSysError(static_cast<int>(::GetLastError())); }

bool PathOf(std::string const& name, std::wstring* path) {
    ZNRString text;
    if (name.find('\0') != std::string::npos || !text.NewFromUtf8Str(name)) return false;
    ZNRStdWString const units = text.ToStdWStr();
    path->assign(units.begin(), units.end());
    return true;
}

} // namespace

std::uint64_t ZNRLocalListen(std::string const& name, unsigned int in_size, unsigned int out_size,
                             ZNRNativeHandle* fd) {
    std::wstring path;
    if (!PathOf(name, &path)) return ZNRSysError(ERROR_INVALID_NAME);
    // Everyone may use the pipe: clients of other accounts and services too.
    // A system that cannot read an object ACE without object types (Wine)
    // gets the plain ACE, which grants the same.
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(OA;OICI;GA;;;WD)", SDDL_REVISION_1,
                                                                &sd, nullptr) &&
        !::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;OICI;GA;;;WD)", SDDL_REVISION_1,
                                                                &sd, nullptr)) {
        return LastError();
    }
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    HANDLE const h = ::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0,
                                        PIPE_UNLIMITED_INSTANCES, out_size, in_size, 0xFFFFFFFF, &sa);
    std::uint64_t const rc = h == INVALID_HANDLE_VALUE ? LastError() : 0;
    ::LocalFree(sd);
    if (rc == 0) *fd = h;
    return rc;
}

void ZNRLocalRelease(std::string const&, ZNRNativeHandle fd) { ::DisconnectNamedPipe(fd); }

std::uint64_t ZNRLocalConnect(std::string const& name, unsigned int wait_ms, ZNRNativeHandle* fd) {
    std::wstring path;
    if (!PathOf(name, &path)) return ZNRSysError(ERROR_INVALID_NAME);
    if (!::WaitNamedPipeW(path.c_str(), wait_ms)) return LastError();
    HANDLE const h = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_OVERLAPPED, nullptr);
    if (h == INVALID_HANDLE_VALUE) return LastError();
    *fd = h;
    return 0;
}

// Only a connected instance can be peeked at.
std::uint64_t ZNRLocalConnectedFirst(ZNRNativeHandle fd) {
    DWORD avail = 0;
    return ::PeekNamedPipe(fd, nullptr, 0, nullptr, &avail, nullptr) ? ZNRSysError(ERROR_PIPE_CONNECTED) : 0;
}
