#include <plexa/znr-error.h>

#include "znr-wakeup.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

std::uint64_t ZNRWakeupOpen(int* fd) {
    int const e = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (e < 0) return ZNRSysError(errno);
    *fd = e;
    return 0;
}

std::uint64_t ZNRWakeupAdd(int fd, std::uint64_t count) {
    ssize_t n;
    do {
        n = ::write(fd, &count, sizeof count);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof count) ? 0 : ZNRSysError(n < 0 ? errno : EIO);
}
