#include <plexa/znr-error.h>

#include "znr-wakeup.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

// One eventfd; its write end is a duplicate, so that each end has one owner.
std::uint64_t ZNRWakeupOpen(int* read_end, int* write_end) {
    int const e = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (e < 0) return ZNRSysError(errno);
    int const d = ::fcntl(e, F_DUPFD_CLOEXEC, 0);
    if (d < 0) {
        int const err = errno;
        ::close(e);
        return ZNRSysError(err);
    }
    *read_end = e;
    *write_end = d;
    return 0;
}

std::uint64_t ZNRWakeupAdd(int fd, std::uint64_t count) {
    ssize_t n;
    do {
        n = ::write(fd, &count, sizeof count);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof count) ? 0 : ZNRSysError(n < 0 ? errno : EIO);
}
