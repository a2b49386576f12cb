#ifndef PLEXA_SRC_ZNR_FD_IO_H
#define PLEXA_SRC_ZNR_FD_IO_H

#include <plexa/znr-native-handle.h>

// Plain descriptor calls for the devices that work on any descriptor.
// Interrupted calls are repeated. Failures return -1 (or the errno value
// for ZNRFdClose/ZNRFdPipe) with *sys_err set to errno (on Windows, its error code).

int ZNRFdRead(ZNRNativeHandle fd, unsigned char* buf, int len, int* sys_err);
// Never raises SIGPIPE: a write to a pipe without reader fails with EPIPE.
int ZNRFdWrite(ZNRNativeHandle fd, unsigned char const* buf, int len, int* sys_err);
// 0 or errno. The descriptor is released in either case.
int ZNRFdClose(ZNRNativeHandle fd);
// Closes *fd when it names one, and leaves it naming none.
inline void ZNRFdRelease(ZNRNativeHandle* fd) {
    if (!ZNRIsHandle(*fd)) return;
    ZNRFdClose(*fd);
    *fd = ZNRNoHandle();
}
// An anonymous pipe whose ends are inherited by child processes; 0 or errno.
int ZNRFdPipe(ZNRNativeHandle* read_fd, ZNRNativeHandle* write_fd);
// 0 or errno.
int ZNRFdSetNonBlocking(ZNRNativeHandle fd);
// True when errno value err means "nothing available now".
bool ZNRFdWouldBlock(int err);

#endif
