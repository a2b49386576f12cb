#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"
#include "znr-completion-engine.h"

#include <cerrno>
#include <chrono>
#include <sys/epoll.h>
#include <unistd.h>
#include <vector>

namespace {

// Completions handed out before readiness is polled again, so that
// operations that keep finishing at once cannot starve other descriptors.
unsigned int const kTurnsPerPoll = 64;
int const kEventsPerPoll = 64;

enum Side { kRead = 0, kWrite = 1 };

} // namespace

// Each descriptor is registered once, edge-triggered for both directions;
// what an edge said is remembered per side (ready), so an operation on a
// side known to be ready runs its system call at once and one on a side
// that is not waits for the next edge, with no epoll_ctl per operation.
// Finished operations wait in a list threaded through their control
// blocks, so queueing allocates nothing and a descriptor that goes away
// takes its queued completions with it.
class ZNREpollEngine final : public ZNRCompletionEngine {
public:
    explicit ZNREpollEngine(int epfd) : epfd_(epfd) {}
    ~ZNREpollEngine() override;

    std::uint64_t Associate(int fd, std::uint32_t key, ZNRAsyncIO* io) override;
    std::uint64_t Wait(int timeout_ms, ZNRCompletion* out) override;
    void Start(ZNRAsyncIOCB* cb) override;
    void Enqueue(ZNRAsyncIOCB* cb) override;
    void Dequeue(ZNRAsyncIOCB* cb) override;
    std::uint64_t Rebind(ZNRAsyncIOCB* cb, int fd) override;
    void Dissociate(ZNRAsyncIOCB* cb) override;

private:
    struct Handle {
        int fd = -1;
        std::uint32_t key = 0;
        // Changes whenever the slot's descriptor does, so that an event
        // fetched for an earlier one is recognised and dropped.
        std::uint32_t generation = 0;
        ZNRAsyncIOCB* cb[2] = {nullptr, nullptr};
        bool ready[2] = {false, false};
        // The peer has closed or the descriptor failed: no edge will come
        // again, so a short transfer must not make a side wait for one.
        bool hung_up = false;
        // Urgent data was signalled: a stream read stops short at its mark
        // with more behind it, so reads go on until one would block.
        bool urgent = false;
    };

    std::uint64_t Watch(int fd, std::uint32_t slot, std::uint32_t generation, int op);
    std::uint64_t Poll(int timeout_ms);
    void Ready(std::uint32_t slot, Side side);
    void Perform(Handle& handle, Side side);

    int const epfd_;
    std::vector<Handle> handles_;
    std::vector<std::uint32_t> free_slots_;
    ZNRAsyncIOCB* head_ = nullptr;
    ZNRAsyncIOCB* tail_ = nullptr;
    unsigned int turns_since_poll_ = 0;
    epoll_event events_[kEventsPerPoll];
};

ZNRCompletionEngine* ZNRCompletionEngine::Create(std::uint64_t* error) {
    int const epfd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        if (error != nullptr) *error = ZNRSysError(errno);
        return nullptr;
    }
    return new ZNREpollEngine(epfd);
}

ZNREpollEngine::~ZNREpollEngine() {
    // Control blocks may outlive the engine: they must not call back.
    for (Handle& handle : handles_) {
        for (ZNRAsyncIOCB* cb : handle.cb) {
            if (cb == nullptr) continue;
            cb->engine = nullptr;
            cb->queued = false;
            cb->queue_prev = cb->queue_next = nullptr;
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

std::uint64_t ZNREpollEngine::Associate(int fd, std::uint32_t key, ZNRAsyncIO* io) {
    ZNRAsyncIOCB* const read_cb = io->GetReadIOCB();
    ZNRAsyncIOCB* const write_cb = io->GetWriteIOCB();
    if (fd < 0) return ZNRSysError(EBADF);
    if (read_cb->engine != nullptr || write_cb->engine != nullptr) return ZNRSysError(EEXIST);
    std::uint32_t slot;
    if (free_slots_.empty()) {
        slot = static_cast<std::uint32_t>(handles_.size());
        handles_.emplace_back();
    } else {
        slot = free_slots_.back();
        free_slots_.pop_back();
    }
    Handle& handle = handles_[slot];
    std::uint64_t const rc = Watch(fd, slot, handle.generation, EPOLL_CTL_ADD);
    if (rc != 0) {
        free_slots_.push_back(slot);
        return rc;
    }
    handle.fd = fd;
    handle.key = key;
    handle.cb[kRead] = read_cb;
    handle.cb[kWrite] = write_cb;
    // Readiness is learnt from the first edge, which registration reports.
    handle.ready[kRead] = handle.ready[kWrite] = false;
    handle.hung_up = handle.urgent = false;
    for (ZNRAsyncIOCB* cb : handle.cb) {
        cb->fd = fd;
        cb->engine = this;
        cb->slot = slot;
        if (cb->status == ZNRAsyncIOCB::STATUS_DONE) Enqueue(cb);
    }
    return 0;
}

void ZNREpollEngine::Dissociate(ZNRAsyncIOCB* cb) {
    std::uint32_t const slot = cb->slot;
    Handle& handle = handles_[slot];
    // Closing the descriptor alone would leave it registered while a
    // duplicate of it lives on.
    ::epoll_ctl(epfd_, EPOLL_CTL_DEL, handle.fd, nullptr);
    for (ZNRAsyncIOCB* bound : handle.cb) {
        if (bound->queued) Dequeue(bound);
        bound->engine = nullptr;
    }
    std::uint32_t const generation = handle.generation + 1;
    handle = Handle{};
    handle.generation = generation;
    free_slots_.push_back(slot);
}

std::uint64_t ZNREpollEngine::Rebind(ZNRAsyncIOCB* cb, int fd) {
    std::uint32_t const slot = cb->slot;
    Handle& handle = handles_[slot];
    // The new descriptor is added before the old one goes, so that a
    // failure leaves the handle naming the descriptor still watched.
    std::uint32_t const generation = handle.generation + 1;
    std::uint64_t const rc = Watch(fd, slot, generation, EPOLL_CTL_ADD);
    if (rc != 0) return rc;
    ::epoll_ctl(epfd_, EPOLL_CTL_DEL, handle.fd, nullptr);
    handle.fd = fd;
    handle.generation = generation;
    handle.ready[kRead] = handle.ready[kWrite] = false;
    handle.hung_up = handle.urgent = false;
    return 0;
}

void ZNREpollEngine::Start(ZNRAsyncIOCB* cb) {
    Handle& handle = handles_[cb->slot];
    Side const side = cb->read_side ? kRead : kWrite;
    if (handle.ready[side]) Perform(handle, side);
}

void ZNREpollEngine::Perform(Handle& handle, Side side) {
    ZNRPerformResult const result = ZNRAsyncPerform(handle.cb[side], true);
    if (result == ZNR_PERFORM_AGAIN) {
        handle.ready[side] = false;
        // Emptied: any urgent mark has been read past.
        if (side == kRead) handle.urgent = false;
        return;
    }
    // No edge comes after the peer's close, and a read stopped at an urgent
    // mark has more behind it: then a short transfer proves nothing.
    bool const short_means_empty = !handle.hung_up && !(side == kRead && handle.urgent);
    if (result == ZNR_PERFORM_DRAINED && short_means_empty) handle.ready[side] = false;
}

void ZNREpollEngine::Enqueue(ZNRAsyncIOCB* cb) {
    cb->queue_prev = tail_;
    cb->queue_next = nullptr;
    if (tail_ != nullptr) {
        tail_->queue_next = cb;
    } else {
        head_ = cb;
    }
    tail_ = cb;
    cb->queued = true;
}

void ZNREpollEngine::Dequeue(ZNRAsyncIOCB* cb) {
    if (cb->queue_prev != nullptr) {
        cb->queue_prev->queue_next = cb->queue_next;
    } else {
        head_ = cb->queue_next;
    }
    if (cb->queue_next != nullptr) {
        cb->queue_next->queue_prev = cb->queue_prev;
    } else {
        tail_ = cb->queue_prev;
    }
    cb->queue_prev = cb->queue_next = nullptr;
    cb->queued = false;
}

std::uint64_t ZNREpollEngine::Wait(int timeout_ms, ZNRCompletion* out) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point deadline;
    if (timeout_ms > 0) deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (head_ != nullptr && turns_since_poll_ < kTurnsPerPoll) {
            ZNRAsyncIOCB* const cb = head_;
            Dequeue(cb);
            ++turns_since_poll_;
            out->key = handles_[cb->slot].key;
            out->bytes = cb->transferred;
            out->iocb = cb;
            out->failed = cb->error != 0;
            out->error = cb->error;
            return 0;
        }
        int wait_ms = timeout_ms;
        if (head_ != nullptr) {
            wait_ms = 0;
        } else if (timeout_ms > 0) {
            // Rounded up: a remainder under a millisecond must be slept,
            // not polled for with a zero wait.
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        std::uint64_t const rc = Poll(wait_ms);
        if (rc != 0) return rc;
        turns_since_poll_ = 0;
        if (head_ == nullptr && wait_ms >= 0 && (timeout_ms == 0 || Clock::now() >= deadline)) {
            return ZNR_ERROR_TIMED_OUT;
        }
    }
}

std::uint64_t ZNREpollEngine::Poll(int timeout_ms) {
    int const n = ::epoll_wait(epfd_, events_, kEventsPerPoll, timeout_ms);
    if (n < 0) return errno == EINTR ? 0 : ZNRSysError(errno);
    for (int i = 0; i < n; ++i) {
        std::uint64_t const data = events_[i].data.u64;
        std::uint32_t const slot = static_cast<std::uint32_t>(data);
        std::uint32_t const generation = static_cast<std::uint32_t>(data >> 32);
        std::uint32_t const events = events_[i].events;
        if (handles_[slot].generation != generation) continue;
        if ((events & (EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) handles_[slot].hung_up = true;
        if ((events & EPOLLPRI) != 0) handles_[slot].urgent = true;
        if ((events & (EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) {
            Ready(slot, kRead);
        }
        // A read may have replaced the descriptor: the rest of the event was its predecessor's.
        if (handles_[slot].generation != generation) continue;
        if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) Ready(slot, kWrite);
    }
    return 0;
}

void ZNREpollEngine::Ready(std::uint32_t slot, Side side) {
    Handle& handle = handles_[slot];
    handle.ready[side] = true;
    ZNRAsyncIOCB* const cb = handle.cb[side];
    if (cb != nullptr && cb->status == ZNRAsyncIOCB::STATUS_PENDING) Perform(handle, side);
}
