#include "znr-fd-io.h"

#include <winsock2.h>
#include <windows.h>

// Error values are Windows error codes where the header says errno. A
// non-blocking write never fails for want of room: it writes what fits,
// possibly nothing, and returns that count.

namespace {

SOCKET AsSocket(ZNRNativeHandle fd) { return reinterpret_cast<SOCKET>(fd); }

// GetFileType says "pipe" for sockets too.
bool IsSocket(ZNRNativeHandle fd) {
    int type = 0;
    int size = sizeof(type);
    return getsockopt(AsSocket(fd), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size) == 0;
}

}  // namespace

int ZNRFdRead(ZNRNativeHandle fd, unsigned char* buf, int len, int* sys_err) {
    DWORD got = 0;
    if (ReadFile(fd, buf, static_cast<DWORD>(len), &got, nullptr)) return static_cast<int>(got);
    DWORD const error = GetLastError();
    // A pipe whose writers are all gone reads as the end of the stream.
    if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) return 0;
    *sys_err = static_cast<int>(error);
    return -1;
}

int ZNRFdWrite(ZNRNativeHandle fd, unsigned char const* buf, int len, int* sys_err) {
    DWORD put = 0;
    if (WriteFile(fd, buf, static_cast<DWORD>(len), &put, nullptr)) return static_cast<int>(put);
    DWORD const error = GetLastError();
    // A pipe whose reader closed says ERROR_NO_DATA, which for reads means
    // "nothing yet": it is reported as the broken pipe it is.
    *sys_err = static_cast<int>(error == ERROR_NO_DATA ? ERROR_BROKEN_PIPE : error);
    return -1;
}

int ZNRFdClose(ZNRNativeHandle fd) {
    if (IsSocket(fd)) return closesocket(AsSocket(fd)) == 0 ? 0 : WSAGetLastError();
    return CloseHandle(fd) ? 0 : static_cast<int>(GetLastError());
}

int ZNRFdPipe(ZNRNativeHandle* read_fd, ZNRNativeHandle* write_fd) {
    SECURITY_ATTRIBUTES inherited = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE read_end = nullptr;
    HANDLE write_end = nullptr;
    if (!CreatePipe(&read_end, &write_end, &inherited, 0)) return static_cast<int>(GetLastError());
    *read_fd = read_end;
    *write_fd = write_end;
    return 0;
}

// Disk files never wait, as on Linux; consoles and other character devices
// have no non-blocking mode.
int ZNRFdSetNonBlocking(ZNRNativeHandle fd) {
    DWORD const type = GetFileType(fd);
    if (type == FILE_TYPE_DISK) return 0;
    if (type == FILE_TYPE_UNKNOWN && GetLastError() != NO_ERROR) return static_cast<int>(GetLastError());
    if (type != FILE_TYPE_PIPE) return ERROR_NOT_SUPPORTED;
    if (IsSocket(fd)) {
        u_long on = 1;
        return ioctlsocket(AsSocket(fd), FIONBIO, &on) == 0 ? 0 : WSAGetLastError();
    }
    // Pipes stay in wait mode: their reads go through the completion port,
    // or look with PeekNamedPipe first, and never wait. PIPE_NOWAIT would
    // fail an overlapped read of an empty pipe with ERROR_NO_DATA at once.
    return 0;
}

bool ZNRFdWouldBlock(int err) {
    return err == ERROR_NO_DATA || err == ERROR_IO_PENDING || err == WSAEWOULDBLOCK;
}
