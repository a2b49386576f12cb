#include <plexa/znr-error.h>

#include "znr-local-socket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

char const kPipePrefix[] = "\\\\.\\pipe\\";
int const kBacklog = 128;

bool IsAbstract(std::string const& name) {
    return name.compare(0, sizeof(kPipePrefix) - 1, kPipePrefix) == 0;
}

// The address of name: the abstract namespace keeps the whole name after
// a leading zero byte.
std::uint64_t AddressOf(std::string const& name, sockaddr_un* addr, socklen_t* len) {
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    bool const abstract = IsAbstract(name);
    std::size_t const room = sizeof(addr->sun_path) - 1;
    if (name.size() > room || name.find('\0') != std::string::npos) {
        return ZNRSysError(ENAMETOOLONG);
    }
    std::memcpy(addr->sun_path + (abstract ? 1 : 0), name.data(), name.size());
    *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
    return 0;
}

int NewSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

int ConnectOnce(sockaddr_un const& addr, socklen_t len, int* fd) {
    int const s = NewSocket();
    if (s < 0) return errno;
    int rc;
    do {
        rc = ::connect(s, reinterpret_cast<sockaddr const*>(&addr), len);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        int const err = errno;
        ::close(s);
        return err;
    }
    *fd = s;
    return 0;
}

// One listening socket per name serves every server instance of it; each
// instance watches a duplicate, so that each can be watched on its own.
struct Listener {
    int fd;
    unsigned int instances;
};

std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}

std::map<std::string, Listener>& Registry() {
    static auto* listeners = new std::map<std::string, Listener>();
    return *listeners;
}

std::uint64_t NewListener(std::string const& name, int* fd) {
    sockaddr_un addr;
    socklen_t len = 0;
    std::uint64_t const rc = AddressOf(name, &addr, &len);
    if (rc != 0) return rc;
    int const s = NewSocket();
    if (s < 0) return ZNRSysError(errno);
    int err = 0;
    if (::bind(s, reinterpret_cast<sockaddr const*>(&addr), len) != 0) {
        err = errno;
        // A file left by a server that died is taken over; a live one is not.
        int probe = -1;
        if (err == EADDRINUSE && !IsAbstract(name) && ConnectOnce(addr, len, &probe) == ECONNREFUSED &&
            ::unlink(name.c_str()) == 0) {
            err = ::bind(s, reinterpret_cast<sockaddr const*>(&addr), len) == 0 ? 0 : errno;
        }
        if (probe >= 0) ::close(probe);
    }
    if (err == 0 && ::listen(s, kBacklog) != 0) err = errno;
    if (err != 0) {
        ::close(s);
        return ZNRSysError(err);
    }
    *fd = s;
    return 0;
}

} // namespace

std::uint64_t ZNRLocalListen(std::string const& name, unsigned int, unsigned int, int* fd) {
    std::lock_guard<std::mutex> guard(RegistryLock());
    auto it = Registry().find(name);
    if (it == Registry().end()) {
        int listen_fd = -1;
        std::uint64_t const rc = NewListener(name, &listen_fd);
        if (rc != 0) return rc;
        it = Registry().emplace(name, Listener{listen_fd, 0}).first;
    }
    int const instance = ::fcntl(it->second.fd, F_DUPFD_CLOEXEC, 0);
    if (instance < 0) {
        std::uint64_t const rc = ZNRSysError(errno);
        if (it->second.instances == 0) {
            ::close(it->second.fd);
            if (!IsAbstract(name)) ::unlink(name.c_str());
            Registry().erase(it);
        }
        return rc;
    }
    ++it->second.instances;
    *fd = instance;
    return 0;
}

void ZNRLocalRelease(std::string const& name, int) {
    std::lock_guard<std::mutex> guard(RegistryLock());
    auto const it = Registry().find(name);
    if (it == Registry().end() || --it->second.instances > 0) return;
    ::close(it->second.fd);
    if (!IsAbstract(name)) ::unlink(name.c_str());
    Registry().erase(it);
}

std::uint64_t ZNRLocalConnect(std::string const& name, unsigned int wait_ms, int* fd) {
    sockaddr_un addr;
    socklen_t len = 0;
    std::uint64_t const rc = AddressOf(name, &addr, &len);
    if (rc != 0) return rc;
    using Clock = std::chrono::steady_clock;
    Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    std::chrono::milliseconds pause(1);
    for (;;) {
        int const err = ConnectOnce(addr, len, fd);
        if (err == 0) return 0;
        // No server yet, or every instance busy with a full backlog.
        bool const waitable = err == ENOENT || err == ECONNREFUSED || err == EAGAIN;
        if (!waitable || (wait_ms != 0xFFFFFFFFu && Clock::now() >= deadline)) {
            return ZNRSysError(err);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

// A local socket's accept takes a client whenever it came.
std::uint64_t ZNRLocalConnectedFirst(int) { return 0; }
