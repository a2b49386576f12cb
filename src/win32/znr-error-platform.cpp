#include "znr-error-platform.h"
#include "znr-text-codec.h"

#include <plexa/znr-error.h>

#include <cerrno>
#include <cstring>

#include <winsock2.h>
#include <windows.h>

namespace {

std::uint64_t StartWinsock() {
    WSADATA data;
    int const rc = WSAStartup(MAKEWORD(2, 2), &data);
    return rc == 0 ? 0 : ZNRSysError(rc);
}

}  // namespace

// Winsock stays started for the life of the process: sockets may outlive any
// point where a WSACleanup could be placed.
std::uint64_t ZNRPlatformInit() {
    static std::uint64_t const result = StartWinsock();
    return result;
}

std::string ZNRPlatformErrorText(int err) {
    wchar_t* text = nullptr;
    DWORD const n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, static_cast<DWORD>(err), 0,
                                   reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    // A number the system has no text for has none here either.
    if (n == 0) return std::string();
    // The caller reads the text in the process's narrow encoding; the
    // system's line break is kept.
    std::string narrow;
    ZNRTextCodec::Convert(ZNRTextCodec::Utf16Charset(), ZNRTextCodec::CharsetOfLocale("").c_str(),
                          text, n * sizeof(wchar_t), &narrow);
    LocalFree(text);
    return narrow;
}

std::string ZNRCrtErrorText(int err) {
    char buffer[256];
    buffer[0] = '\0';
    strerror_s(buffer, sizeof(buffer), err);
    return buffer;
}

#define ZNR_NAME_CASE(value) \
    case value:              \
        return #value;

char const* ZNRPlatformErrorName(int err) {
    switch (err) {
        ZNR_NAME_CASE(ERROR_INVALID_FUNCTION)
        ZNR_NAME_CASE(ERROR_FILE_NOT_FOUND)
        ZNR_NAME_CASE(ERROR_PATH_NOT_FOUND)
        ZNR_NAME_CASE(ERROR_TOO_MANY_OPEN_FILES)
        ZNR_NAME_CASE(ERROR_ACCESS_DENIED)
        ZNR_NAME_CASE(ERROR_INVALID_HANDLE)
        ZNR_NAME_CASE(ERROR_NOT_ENOUGH_MEMORY)
        ZNR_NAME_CASE(ERROR_INVALID_DATA)
        ZNR_NAME_CASE(ERROR_OUTOFMEMORY)
        ZNR_NAME_CASE(ERROR_NOT_SUPPORTED)
        ZNR_NAME_CASE(ERROR_FILE_EXISTS)
        ZNR_NAME_CASE(ERROR_INVALID_PARAMETER)
        ZNR_NAME_CASE(ERROR_BROKEN_PIPE)
        ZNR_NAME_CASE(ERROR_INSUFFICIENT_BUFFER)
        ZNR_NAME_CASE(ERROR_INVALID_NAME)
        ZNR_NAME_CASE(ERROR_MOD_NOT_FOUND)
        ZNR_NAME_CASE(ERROR_PROC_NOT_FOUND)
        ZNR_NAME_CASE(ERROR_DIR_NOT_EMPTY)
        ZNR_NAME_CASE(ERROR_BUSY)
        ZNR_NAME_CASE(ERROR_ALREADY_EXISTS)
        ZNR_NAME_CASE(ERROR_BAD_PIPE)
        ZNR_NAME_CASE(ERROR_PIPE_BUSY)
        ZNR_NAME_CASE(ERROR_NO_DATA)
        ZNR_NAME_CASE(ERROR_PIPE_NOT_CONNECTED)
        ZNR_NAME_CASE(ERROR_MORE_DATA)
        ZNR_NAME_CASE(ERROR_NO_MORE_ITEMS)
        ZNR_NAME_CASE(ERROR_DIRECTORY)
        ZNR_NAME_CASE(ERROR_NOT_OWNER)
        ZNR_NAME_CASE(ERROR_OPERATION_ABORTED)
        ZNR_NAME_CASE(ERROR_IO_INCOMPLETE)
        ZNR_NAME_CASE(ERROR_IO_PENDING)
        ZNR_NAME_CASE(ERROR_NO_UNICODE_TRANSLATION)
        ZNR_NAME_CASE(ERROR_POSSIBLE_DEADLOCK)
        ZNR_NAME_CASE(ERROR_NO_SYSTEM_RESOURCES)
        ZNR_NAME_CASE(ERROR_TIMEOUT)
        ZNR_NAME_CASE(ERROR_CONNECTION_REFUSED)
        ZNR_NAME_CASE(ERROR_CONNECTION_ABORTED)
        ZNR_NAME_CASE(ERROR_NETNAME_DELETED)
        ZNR_NAME_CASE(ERROR_NOT_FOUND)
        ZNR_NAME_CASE(WSAEINTR)
        ZNR_NAME_CASE(WSAEBADF)
        ZNR_NAME_CASE(WSAEACCES)
        ZNR_NAME_CASE(WSAEFAULT)
        ZNR_NAME_CASE(WSAEINVAL)
        ZNR_NAME_CASE(WSAEMFILE)
        ZNR_NAME_CASE(WSAEWOULDBLOCK)
        ZNR_NAME_CASE(WSAEINPROGRESS)
        ZNR_NAME_CASE(WSAEALREADY)
        ZNR_NAME_CASE(WSAENOTSOCK)
        ZNR_NAME_CASE(WSAEDESTADDRREQ)
        ZNR_NAME_CASE(WSAEMSGSIZE)
        ZNR_NAME_CASE(WSAEPROTOTYPE)
        ZNR_NAME_CASE(WSAENOPROTOOPT)
        ZNR_NAME_CASE(WSAEPROTONOSUPPORT)
        ZNR_NAME_CASE(WSAESOCKTNOSUPPORT)
        ZNR_NAME_CASE(WSAEOPNOTSUPP)
        ZNR_NAME_CASE(WSAEPFNOSUPPORT)
        ZNR_NAME_CASE(WSAEAFNOSUPPORT)
        ZNR_NAME_CASE(WSAEADDRINUSE)
        ZNR_NAME_CASE(WSAEADDRNOTAVAIL)
        ZNR_NAME_CASE(WSAENETDOWN)
        ZNR_NAME_CASE(WSAENETUNREACH)
        ZNR_NAME_CASE(WSAENETRESET)
        ZNR_NAME_CASE(WSAECONNABORTED)
        ZNR_NAME_CASE(WSAECONNRESET)
        ZNR_NAME_CASE(WSAENOBUFS)
        ZNR_NAME_CASE(WSAEISCONN)
        ZNR_NAME_CASE(WSAENOTCONN)
        ZNR_NAME_CASE(WSAESHUTDOWN)
        ZNR_NAME_CASE(WSAETIMEDOUT)
        ZNR_NAME_CASE(WSAECONNREFUSED)
        ZNR_NAME_CASE(WSAEHOSTDOWN)
        ZNR_NAME_CASE(WSAEHOSTUNREACH)
        ZNR_NAME_CASE(WSASYSNOTREADY)
        ZNR_NAME_CASE(WSAVERNOTSUPPORTED)
        ZNR_NAME_CASE(WSANOTINITIALISED)
        ZNR_NAME_CASE(WSAHOST_NOT_FOUND)
        ZNR_NAME_CASE(WSATRY_AGAIN)
        ZNR_NAME_CASE(WSANO_RECOVERY)
        ZNR_NAME_CASE(WSANO_DATA)
    default:
        return nullptr;
    }
}

char const* ZNRCrtErrorName(int err) {
    switch (err) {
        ZNR_NAME_CASE(EPERM)
        ZNR_NAME_CASE(ENOENT)
        ZNR_NAME_CASE(ESRCH)
        ZNR_NAME_CASE(EINTR)
        ZNR_NAME_CASE(EIO)
        ZNR_NAME_CASE(ENXIO)
        ZNR_NAME_CASE(E2BIG)
        ZNR_NAME_CASE(ENOEXEC)
        ZNR_NAME_CASE(EBADF)
        ZNR_NAME_CASE(ECHILD)
        ZNR_NAME_CASE(EAGAIN)
        ZNR_NAME_CASE(ENOMEM)
        ZNR_NAME_CASE(EACCES)
        ZNR_NAME_CASE(EFAULT)
        ZNR_NAME_CASE(EBUSY)
        ZNR_NAME_CASE(EEXIST)
        ZNR_NAME_CASE(EXDEV)
        ZNR_NAME_CASE(ENODEV)
        ZNR_NAME_CASE(ENOTDIR)
        ZNR_NAME_CASE(EISDIR)
        ZNR_NAME_CASE(EINVAL)
        ZNR_NAME_CASE(ENFILE)
        ZNR_NAME_CASE(EMFILE)
        ZNR_NAME_CASE(ENOTTY)
        ZNR_NAME_CASE(EFBIG)
        ZNR_NAME_CASE(ENOSPC)
        ZNR_NAME_CASE(ESPIPE)
        ZNR_NAME_CASE(EROFS)
        ZNR_NAME_CASE(EMLINK)
        ZNR_NAME_CASE(EPIPE)
        ZNR_NAME_CASE(EDOM)
        ZNR_NAME_CASE(ERANGE)
        ZNR_NAME_CASE(EDEADLK)
        ZNR_NAME_CASE(ENAMETOOLONG)
        ZNR_NAME_CASE(ENOLCK)
        ZNR_NAME_CASE(ENOSYS)
        ZNR_NAME_CASE(ENOTEMPTY)
        ZNR_NAME_CASE(EILSEQ)
        ZNR_NAME_CASE(EADDRINUSE)
        ZNR_NAME_CASE(EADDRNOTAVAIL)
        ZNR_NAME_CASE(EAFNOSUPPORT)
        ZNR_NAME_CASE(EALREADY)
        ZNR_NAME_CASE(ECANCELED)
        ZNR_NAME_CASE(ECONNABORTED)
        ZNR_NAME_CASE(ECONNREFUSED)
        ZNR_NAME_CASE(ECONNRESET)
        ZNR_NAME_CASE(EDESTADDRREQ)
        ZNR_NAME_CASE(EHOSTUNREACH)
        ZNR_NAME_CASE(EINPROGRESS)
        ZNR_NAME_CASE(EISCONN)
        ZNR_NAME_CASE(ELOOP)
        ZNR_NAME_CASE(EMSGSIZE)
        ZNR_NAME_CASE(ENETDOWN)
        ZNR_NAME_CASE(ENETRESET)
        ZNR_NAME_CASE(ENETUNREACH)
        ZNR_NAME_CASE(ENOBUFS)
        ZNR_NAME_CASE(ENOPROTOOPT)
        ZNR_NAME_CASE(ENOTCONN)
        ZNR_NAME_CASE(ENOTSOCK)
        ZNR_NAME_CASE(EOPNOTSUPP)
        ZNR_NAME_CASE(EPROTONOSUPPORT)
        ZNR_NAME_CASE(EPROTOTYPE)
        ZNR_NAME_CASE(ETIMEDOUT)
        ZNR_NAME_CASE(EWOULDBLOCK)
    default:
        return nullptr;
    }
}

#undef ZNR_NAME_CASE

// Winsock's non-blocking connect says WSAEWOULDBLOCK; the socket layer
// reports it as WSAEINPROGRESS, the name portable code asks about.
bool ZNRPlatformIsInProgress(std::uint64_t code) { return code == ZNRSysError(WSAEINPROGRESS); }

bool ZNRPlatformIsShortage(std::uint64_t code) {
    if ((code >> 32) != (ZNR_ERROR_KIND_SYS >> 32)) return false;
    switch (static_cast<DWORD>(code & 0xFFFFFFFFu)) {
    case ERROR_TOO_MANY_OPEN_FILES:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
    case ERROR_NO_SYSTEM_RESOURCES:
    case WSAEMFILE:
    case WSAENOBUFS:
        return true;
    default:
        return false;
    }
}

void ZNRPlatformDebugBreak() {
    if (IsDebuggerPresent()) DebugBreak();
}
