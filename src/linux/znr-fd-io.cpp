#include "znr-fd-io.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

int ZNRFdRead(int fd, unsigned char* buf, int len, int* sys_err) {
    ssize_t n;
    do {
        n = ::read(fd, buf, static_cast<size_t>(len));
    } while (n < 0 && errno == EINTR);
    if (n < 0) *sys_err = errno;
    return static_cast<int>(n);
}

int ZNRFdWrite(int fd, unsigned char const* buf, int len, int* sys_err) {
    // SIGPIPE is blocked on this thread for the call; one raised by it is
    // taken back before the old mask returns, unless one was already pending.
    sigset_t pipe_set;
    sigset_t old_set;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_set, &old_set);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    bool const was_pending = sigismember(&pending, SIGPIPE) == 1;
    ssize_t n;
    do {
        n = ::write(fd, buf, static_cast<size_t>(len));
    } while (n < 0 && errno == EINTR);
    int const saved = errno;
    if (n < 0 && saved == EPIPE && !was_pending) {
        timespec const zero = {0, 0};
        while (sigtimedwait(&pipe_set, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old_set, nullptr);
    if (n < 0) *sys_err = saved;
    return static_cast<int>(n);
}

int ZNRFdClose(int fd) {
    if (::close(fd) != 0) return errno;
    return 0;
}

int ZNRFdPipe(int* read_fd, int* write_fd) {
    int fds[2];
    if (::pipe(fds) != 0) return errno;
    *read_fd = fds[0];
    *write_fd = fds[1];
    return 0;
}

int ZNRFdSetNonBlocking(int fd) {
    int const flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return errno;
    if ((flags & O_NONBLOCK) != 0) return 0;
    if (::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return errno;
    return 0;
}

bool ZNRFdWouldBlock(int err) { return err == EAGAIN || err == EWOULDBLOCK; }
