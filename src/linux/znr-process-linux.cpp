#include <plexa/znr-error.h>
#include <plexa/znr-process.h>

#include "znr-fd-io.h"
#include "znr-process-start.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

// A descriptor that becomes readable when the child ends; -1 on kernels
// without one.
int OpenPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
    long const fd = ::syscall(SYS_pidfd_open, pid, 0);
    return fd < 0 ? -1 : static_cast<int>(fd);
#else
    (void)pid;
    return -1;
#endif
}

std::vector<char*> Pointers(std::vector<std::string>* texts) {
    std::vector<char*> out;
    for (std::string& t : *texts) out.push_back(&t[0]);
    out.push_back(nullptr);
    return out;
}

// Spawn attributes and file actions, released on every path.
class SpawnSetup {
public:
    SpawnSetup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attr);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
    SpawnSetup(SpawnSetup const&) = delete;
    SpawnSetup& operator=(SpawnSetup const&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
};

// The child's standard streams on the given descriptors, nothing else of
// ours open in it, and signal state as a fresh program expects it: the
// host (or a reactor thread) may block or ignore signals, which a child
// would otherwise inherit.
int Prepare(SpawnSetup* s, int in, int out, int err) {
    int rc = posix_spawn_file_actions_adddup2(&s->actions, in, 0);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&s->actions, out, 1);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&s->actions, err, 2);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // Descriptors opened elsewhere without close-on-exec stay out too.
    if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&s->actions, 3);
#endif
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigfillset(&defaults);
    sigdelset(&defaults, SIGKILL);
    sigdelset(&defaults, SIGSTOP);
    if (rc == 0) rc = posix_spawnattr_setsigmask(&s->attr, &none);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&s->attr, &defaults);
    if (rc == 0) rc = posix_spawnattr_setflags(&s->attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    return rc;
}

std::uint64_t ReadFd(int fd, void* buf, unsigned int size, unsigned int* got) {
    if (got == nullptr || (buf == nullptr && size > 0)) return ZNRSysError(EINVAL);
    *got = 0;
    if (fd < 0) return ZNR_ERROR_NOT_READY;
    int err = 0;
    int const n = ZNRFdRead(fd, static_cast<unsigned char*>(buf), static_cast<int>(std::min<unsigned int>(size, INT_MAX)), &err);
    if (n < 0) return ZNRSysError(err);
    *got = static_cast<unsigned int>(n);
    return 0;
}

}  // namespace

std::uint64_t ZNRProcessWin32::Start(ZNRProcessParam const& param) {
    if (pid_ > 0 && !reaped_) return ZNRSysError(EBUSY);
    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::vector<std::string> parent;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) parent.emplace_back(*e);
    if (!ZNRProcessArgv(param, &argv) || !ZNRProcessEnv(param, parent, &env)) {
        return ZNRSysError(EINVAL);
    }
    ClosePipes();
    ZNRFdRelease(&pidfd_);
    pid_ = 0;
    reaped_ = false;
    exit_code_ = -1;
    exit_signal_ = 0;

    // Every end is close-on-exec: the child gets only its copies on 0-2,
    // and children started by other threads get none.
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    int rc = 0;
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        (!param.error_to_output && ::pipe2(err, O_CLOEXEC) != 0)) {
        rc = errno;
    }
    pid_t pid = 0;
    if (rc == 0) {
        SpawnSetup setup;
        rc = Prepare(&setup, in[0], out[1], param.error_to_output ? out[1] : err[1]);
        std::vector<char*> const args = Pointers(&argv);
        std::vector<char*> const vars = Pointers(&env);
        // glibc reports a failed exec here (and reaps that child) rather
        // than leaving a child that exits with 127.
        bool const search = argv[0].find('/') == std::string::npos;
        if (rc == 0) {
            rc = (search ? posix_spawnp : posix_spawn)(&pid, args[0], &setup.actions, &setup.attr,
                                                       args.data(), vars.data());
        }
    }
    ZNRFdRelease(&in[0]);
    ZNRFdRelease(&out[1]);
    ZNRFdRelease(&err[1]);
    in_fd_ = in[1];
    out_fd_ = out[0];
    err_fd_ = err[0];
    if (rc != 0) {
        ClosePipes();
        return ZNRSysError(rc);
    }
    pid_ = pid;
    pidfd_ = OpenPidFd(pid);
    return AttachOutput(param);
}

std::uint64_t ZNRProcessWin32::WriteInput(void const* data, unsigned int size) {
    if (data == nullptr && size > 0) return ZNRSysError(EINVAL);
    if (in_fd_ < 0) return ZNR_ERROR_NOT_READY;
    auto const* p = static_cast<unsigned char const*>(data);
    while (size > 0) {
        int err = 0;
        int const n = ZNRFdWrite(in_fd_, p, static_cast<int>(std::min<unsigned int>(size, INT_MAX)), &err);
        if (n < 0) return ZNRSysError(err);
        p += n;
        size -= static_cast<unsigned int>(n);
    }
    return 0;
}

std::uint64_t ZNRProcessWin32::CloseInput() {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    if (in_fd_ < 0) return 0;
    int const rc = ZNRFdClose(in_fd_);
    in_fd_ = -1;
    return rc == 0 ? 0 : ZNRSysError(rc);
}

std::uint64_t ZNRProcessWin32::ReadOutput(void* buf, unsigned int size, unsigned int* got) {
    return ReadFd(out_fd_, buf, size, got);
}

std::uint64_t ZNRProcessWin32::ReadErrorOutput(void* buf, unsigned int size, unsigned int* got) {
    return ReadFd(err_fd_, buf, size, got);
}

std::uint64_t ZNRProcessWin32::Reap(bool block) {
    int status = 0;
    pid_t r;
    do {
        r = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == 0) return ZNR_ERROR_TIMED_OUT;
    // Even a failure (the host reaps children itself) ends the wait for good.
    reaped_ = true;
    ZNRFdRelease(&pidfd_);
    if (r < 0) return ZNRSysError(errno);
    if (WIFEXITED(status)) exit_code_ = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) exit_signal_ = WTERMSIG(status);
    return 0;
}

std::uint64_t ZNRProcessWin32::Wait(int timeout_ms) {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    if (reaped_) return 0;
    typedef std::chrono::steady_clock Clock;
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    auto left_ms = [&] {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        return static_cast<int>(std::max<long long>(left.count(), 0));
    };
    if (pidfd_ >= 0) {
        for (;;) {
            pollfd p = {pidfd_, POLLIN, 0};
            int const n = ::poll(&p, 1, timeout_ms < 0 ? -1 : left_ms());
            if (n > 0) return Reap(true);
            if (n == 0) return ZNR_ERROR_TIMED_OUT;
            if (errno != EINTR) return ZNRSysError(errno);
        }
    }
    // No descriptor to sleep on: look again after pauses that grow to a
    // bound, so a long wait costs few wake-ups and a short one stays short.
    std::chrono::milliseconds pause(1);
    for (;;) {
        std::uint64_t const r = Reap(false);
        if (r != ZNR_ERROR_TIMED_OUT) return r;
        if (timeout_ms >= 0 && left_ms() == 0) return ZNR_ERROR_TIMED_OUT;
        std::chrono::milliseconds const step =
            timeout_ms < 0 ? pause : std::min(pause, std::chrono::milliseconds(left_ms()));
        std::this_thread::sleep_for(step);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

std::uint64_t ZNRProcessWin32::Kill() {
    if (pid_ <= 0) return ZNR_ERROR_NOT_READY;
    // Until reaped the number stays this child's, so it cannot hit another.
    if (reaped_) return 0;
    if (::kill(pid_, SIGKILL) != 0 && errno != ESRCH) return ZNRSysError(errno);
    return 0;
}

bool ZNRProcessWin32::IsRunning() { return pid_ > 0 && !reaped_ && Reap(false) == ZNR_ERROR_TIMED_OUT; }
