#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"
#include "znr-completion-engine.h"
#include "znr-linux-engines.h"
#include "znr-loop-tuning.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <sys/epoll.h>
#include <unistd.h>
#include <vector>

namespace {

int const kEventsPerPoll = 64;

enum Side { kRead = 0, kWrite = 1 };

} // namespace

// Each descriptor is registered once, edge-triggered for both directions;
// what an edge said is remembered per side (ready), so an operation on a
// side known to be ready runs its system call at once and one on a side
// that is not waits for the next edge, with no epoll_ctl per operation.
class ZNREpollEngine final : public ZNRCompletionEngine {
public:
    explicit ZNREpollEngine(int epfd) : epfd_(epfd) {}
    ~ZNREpollEngine() override;

    char const* GetName() const override { return "epoll"; }

    std::uint64_t Associate(ZNRNativeHandle fd, std::uint32_t key, ZNRAsyncIO* io) override;
    std::uint64_t Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) override;
    int Cancel(ZNRAsyncIO* io) override;
    void Start(ZNRAsyncIOCB* cb) override;
    void Release(ZNRAsyncIOCB* cb) override;
    bool LendsReceives() const override { return true; }
    std::uint64_t Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle fd) override;
    void Dissociate(ZNRAsyncIOCB* cb) override;

private:
    struct Handle;
    // One side of a watched descriptor, and its place in the ready list.
    struct Entry : ZNRCompletionLink {
        ZNRAsyncIOCB* cb = nullptr;
        Handle* handle = nullptr;
        bool ready = false;
        // The memory a finished receive lent out, back with its release.
        unsigned char* lent = nullptr;
    };
    struct Handle : ZNRCompletionBinding {
        int fd = -1;
        std::uint32_t key = 0;
        Entry side[2];
        // The peer has closed or the descriptor failed: no edge will come
        // again, so a short transfer must not make a side wait for one.
        bool hung_up = false;
        // Urgent data was signalled: a stream read stops short at its mark
        // with more behind it, so reads go on until one would block.
        bool urgent = false;
    };

    static Handle* HandleOf(ZNRAsyncIOCB const* cb) {
        return static_cast<Handle*>(ZNRCompletionBinding::Of(cb));
    }
    static Side SideOf(ZNRAsyncIOCB const* cb) { return cb->IsReadSide() ? kRead : kWrite; }
    std::uint64_t Watch(int fd, std::uint32_t slot, std::uint32_t generation, int op);
    std::uint64_t Poll(int timeout_ms);
    void Ready(Handle& handle, Side side);
    void Perform(Handle& handle, Side side);
    ZNRPerformResult PerformLent(ZNRAsyncIOCB* cb, Entry& entry);
    void GiveBack(Entry& entry);

    int const epfd_;
    ZNRBindingTable<Handle> handles_;
    ZNRCompletionList done_;
    unsigned int handed_since_poll_ = 0;
    epoll_event events_[kEventsPerPoll];
    // Receive memory, taken when data is there: a waiting connection
    // holds none.
    ZNRLendChunks chunks_;
};

ZNRCompletionEngine* ZNRCreateEpollEngine(std::uint64_t* error) {
    int const epfd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        if (error != nullptr) *error = ZNRSysError(errno);
        return nullptr;
    }
    return new ZNREpollEngine(epfd);
}

ZNREpollEngine::~ZNREpollEngine() {
    // Control blocks may outlive the engine: they must not call back.
    for (std::size_t slot = 0; slot < handles_.Size(); ++slot) {
        for (Entry& entry : handles_.At(static_cast<std::uint32_t>(slot))->side) {
            if (entry.cb != nullptr) ZNRCompletionBinding::Bind(entry.cb, nullptr);
            chunks_.Give(entry.lent);
        }
    }
    ::close(epfd_);
}

std::uint64_t ZNREpollEngine::Watch(int fd, std::uint32_t slot, std::uint32_t generation,
                                    int op) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLPRI | EPOLLET;
    ev.data.u64 = slot | static_cast<std::uint64_t>(generation) << 32;
    if (::epoll_ctl(epfd_, op, fd, &ev) != 0) return ZNRSysError(errno);
    return 0;
}

std::uint64_t ZNREpollEngine::Associate(ZNRNativeHandle fd, std::uint32_t key, ZNRAsyncIO* io) {
    ZNRAsyncIOCB* const read_cb = io->GetReadIOCB();
    ZNRAsyncIOCB* const write_cb = io->GetWriteIOCB();
    if (fd < 0) return ZNRSysError(EBADF);
    if (read_cb->IsBound() || write_cb->IsBound()) return ZNRSysError(EEXIST);
    Handle& handle = *handles_.Acquire(this);
    std::uint64_t const rc = Watch(fd, handle.slot, handle.generation, EPOLL_CTL_ADD);
    if (rc != 0) {
        handles_.Free(&handle);
        return rc;
    }
    handle.fd = fd;
    handle.key = key;
    handle.hung_up = handle.urgent = false;
    ZNRAsyncIOCB* const cbs[2] = {read_cb, write_cb};
    for (Side side : {kRead, kWrite}) {
        Entry& entry = handle.side[side];
        entry = Entry{};
        entry.cb = cbs[side];
        entry.handle = &handle;
        // Readiness is learnt from the first edge, which registration reports.
        entry.cb->fd = fd;
        ZNRCompletionBinding::Bind(entry.cb, &handle);
        if (entry.cb->status == ZNRAsyncIOCB::STATUS_DONE) done_.Push(&entry);
    }
    return 0;
}

void ZNREpollEngine::Dissociate(ZNRAsyncIOCB* cb) {
    Handle& handle = *HandleOf(cb);
    // Closing the descriptor alone would leave it registered while a
    // duplicate of it lives on.
    ::epoll_ctl(epfd_, EPOLL_CTL_DEL, handle.fd, nullptr);
    for (Entry& entry : handle.side) {
        if (entry.queued) done_.Remove(&entry);
        GiveBack(entry);
        ZNRCompletionBinding::Bind(entry.cb, nullptr);
        entry = Entry{};
    }
    handle.fd = -1;
    handle.key = 0;
    handles_.Free(&handle);
}

std::uint64_t ZNREpollEngine::Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle fd) {
    Handle& handle = *HandleOf(cb);
    // The new descriptor is added before the old one goes, so that a
    // failure leaves the handle naming the descriptor still watched.
    std::uint32_t const generation = handle.generation + 1;
    std::uint64_t const rc = Watch(fd, handle.slot, generation, EPOLL_CTL_ADD);
    if (rc != 0) return rc;
    ::epoll_ctl(epfd_, EPOLL_CTL_DEL, handle.fd, nullptr);
    handle.fd = fd;
    handle.generation = generation;
    handle.side[kRead].ready = handle.side[kWrite].ready = false;
    handle.hung_up = handle.urgent = false;
    return 0;
}

void ZNREpollEngine::Start(ZNRAsyncIOCB* cb) {
    Handle& handle = *HandleOf(cb);
    Side const side = SideOf(cb);
    if (handle.side[side].ready) Perform(handle, side);
}

void ZNREpollEngine::Release(ZNRAsyncIOCB* cb) {
    Entry& entry = HandleOf(cb)->side[SideOf(cb)];
    if (entry.queued) done_.Remove(&entry);
    GiveBack(entry);
}

void ZNREpollEngine::GiveBack(Entry& entry) {
    chunks_.Give(entry.lent);
    entry.lent = nullptr;
}

// A receive without a buffer reads into lent memory; what it does not keep
// (nothing came, the end, an error) goes straight back.
ZNRPerformResult ZNREpollEngine::PerformLent(ZNRAsyncIOCB* cb, Entry& entry) {
    unsigned char* const chunk = chunks_.Take();
    int const wanted = cb->len;
    cb->buf = chunk;
    cb->len = std::min(wanted, ZNRLendChunks::kSize);
    ZNRPerformResult const result = ZNRAsyncPerform(cb, true);
    if (result != ZNR_PERFORM_AGAIN && cb->transferred > 0) {
        entry.lent = chunk;
        return result;
    }
    cb->buf = nullptr;
    cb->len = wanted;
    chunks_.Give(chunk);
    return result;
}

// Nothing is in the system's hands between edges, so aborting is only
// finishing what waits for one.
int ZNREpollEngine::Cancel(ZNRAsyncIO* io) {
    Handle* const handle = HandleOf(io->GetReadIOCB());
    if (handle == nullptr) return 0;
    int count = 0;
    for (Entry& entry : handle->side) {
        if (entry.cb->status == ZNRAsyncIOCB::STATUS_RUNNING) {
            entry.cb->Complete(0, ZNRSysError(ECANCELED));
            done_.Push(&entry);
        }
        if (entry.queued) ++count;
    }
    return count;
}

void ZNREpollEngine::Perform(Handle& handle, Side side) {
    Entry& entry = handle.side[side];
    ZNRAsyncIOCB* const cb = entry.cb;
    ZNRPerformResult const result = cb->buf == nullptr && cb->method == ZNRAsyncIOCB::METHOD_RECV
                                        ? PerformLent(cb, entry)
                                        : ZNRAsyncPerform(cb, true);
    if (result == ZNR_PERFORM_AGAIN) {
        entry.ready = false;
        // Emptied: any urgent mark has been read past.
        if (side == kRead) handle.urgent = false;
        return;
    }
    done_.Push(&entry);
    // No edge comes after the peer's close, and a read stopped at an urgent
    // mark has more behind it: then a short transfer proves nothing.
    bool const short_means_empty = !handle.hung_up && !(side == kRead && handle.urgent);
    if (result == ZNR_PERFORM_DRAINED && short_means_empty) entry.ready = false;
}

std::uint64_t ZNREpollEngine::Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point deadline;
    if (timeout_ms > 0) deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (!done_.Empty() && handed_since_poll_ < kCompletionsPerPoll) {
            int n = 0;
            while (!done_.Empty() && n < max && handed_since_poll_ < kCompletionsPerPoll) {
                auto* const entry = static_cast<Entry*>(done_.Front());
                done_.Remove(entry);
                ++handed_since_poll_;
                ZNRAsyncIOCB* const cb = entry->cb;
                out[n++] = ZNRCompletion{entry->handle->key, cb->transferred, cb, cb->error != 0,
                                         cb->error};
            }
            *count = n;
            return 0;
        }
        int wait_ms = timeout_ms;
        if (!done_.Empty()) {
            wait_ms = 0;
        } else if (timeout_ms > 0) {
            // Rounded up: a remainder under a millisecond must be slept,
            // not polled for with a zero wait.
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        std::uint64_t const rc = Poll(wait_ms);
        if (rc != 0) return rc;
        handed_since_poll_ = 0;
        if (done_.Empty() && wait_ms >= 0 && (timeout_ms == 0 || Clock::now() >= deadline)) {
            *count = 0;
            return ZNR_ERROR_TIMED_OUT;
        }
    }
}

std::uint64_t ZNREpollEngine::Poll(int timeout_ms) {
    int const n = ::epoll_wait(epfd_, events_, kEventsPerPoll, timeout_ms);
    if (n < 0) return errno == EINTR ? 0 : ZNRSysError(errno);
    for (int i = 0; i < n; ++i) {
        std::uint64_t const data = events_[i].data.u64;
        Handle& handle = *handles_.At(static_cast<std::uint32_t>(data));
        std::uint32_t const generation = static_cast<std::uint32_t>(data >> 32);
        std::uint32_t const events = events_[i].events;
        if (handle.generation != generation) continue;
        if ((events & (EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) handle.hung_up = true;
        if ((events & EPOLLPRI) != 0) handle.urgent = true;
        if ((events & (EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) {
            Ready(handle, kRead);
        }
        // A read may have replaced the descriptor: the rest of the event was its predecessor's.
        if (handle.generation != generation) continue;
        if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) Ready(handle, kWrite);
    }
    return 0;
}

void ZNREpollEngine::Ready(Handle& handle, Side side) {
    Entry& entry = handle.side[side];
    entry.ready = true;
    if (entry.cb != nullptr && entry.cb->status == ZNRAsyncIOCB::STATUS_RUNNING) {
        Perform(handle, side);
    }
}
