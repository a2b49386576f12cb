#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"
#include "znr-completion-engine.h"
#include "znr-linux-engines.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <liburing.h>
#include <memory>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

enum Side { kRead = 0, kWrite = 1 };

// What a request the kernel reports on was for: the top byte of its user
// data. The rest names the descriptor's slot and generation.
enum Kind : std::uint8_t {
    kNone = 0,  // also a cancel's own report, which needs nothing
    kTransferRead,
    kTransferWrite,
    kPollRead,  // readiness, for what the engine carries out itself
    kPollWrite,
    kReceive,  // multishot receive into the buffer ring
    kAccept,   // multishot accept
};

unsigned const kSubmissionEntries = 1024;
// Roomy, so that a burst of multishot reports rarely spills into the
// kernel's overflow list.
unsigned const kCompletionEntries = 8192;
int const kReapBatch = 64;

// Receive memory is the engine's, shared by its connections and filled
// only when data arrives: an idle connection holds none.
unsigned const kBufferCount = 64;  // a power of two, as the ring needs
unsigned const kBufferSize = 16384;
unsigned short const kBufferGroup = 0;
// A connection whose reader lags stops receiving after this many filled
// buffers, so that it cannot take the ring from the others; its socket's
// own buffer then pushes back on the peer, as it does with epoll.
int const kHeldBuffersMax = 8;
// Likewise for connections a listener has accepted but nobody took.
std::size_t const kHeldAcceptsMax = 64;

std::uint32_t const kGenerationMask = 0xFFFFFF;

Kind TransferKind(Side side) { return side == kRead ? kTransferRead : kTransferWrite; }
Kind PollKind(Side side) { return side == kRead ? kPollRead : kPollWrite; }

} // namespace

// Operations run in the kernel from their start to their completion, with
// the control block's buffer in its hands; a stream socket's receive and a
// listener's accept stay armed (multishot) and fill engine-owned buffers
// or a queue of connections that the next read or accept takes from.
// Requests are queued as they start and submitted with the next wait, so
// one system call per loop turn serves them all.
class ZNRUringEngine final : public ZNRCompletionEngine {
public:
    ZNRUringEngine() = default;
    ~ZNRUringEngine() override;

    std::uint64_t Init();

    char const* GetName() const override { return "io_uring"; }
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
    struct Entry : ZNRCompletionLink {
        ZNRAsyncIOCB* cb = nullptr;
        Handle* handle = nullptr;
        // The request of the side's operation the kernel holds, if any.
        Kind inflight = kNone;
        // A datagram's header: read by the kernel until the completion.
        // Made for the first datagram: stream sockets never need one.
        struct Header {
            msghdr msg{};
            iovec iov{};
        };
        std::unique_ptr<Header> header;
        // The ring buffer a finished receive lent out, or the chunk it
        // gathered several into; back with its release.
        int lent = -1;
        unsigned char* gathered = nullptr;
    };
    struct Handle : ZNRCompletionBinding {
        int fd = -1;
        std::uint32_t key = 0;
        Entry side[2];
        int socket_type = -1;  // asked once; 0: not a socket
        Kind stream = kNone;   // the multishot request armed, if any
        bool stream_stopping = false;
        bool starved = false;  // its receive ran out of ring buffers
        bool closing = false;
        bool received = false;  // data came in the reap under way
        // Filled buffers not read yet, oldest first, linked by buffer id.
        int held_head = -1;
        int held_tail = -1;
        int held_count = 0;
        unsigned int held_offset = 0;
        // What the stream ended with, handed out after the held data.
        std::uint64_t read_error = 0;
        bool read_eof = false;
        std::vector<int> accepted;
    };

    static Handle* HandleOf(ZNRAsyncIOCB const* cb) {
        return static_cast<Handle*>(ZNRCompletionBinding::Of(cb));
    }
    static Side SideOf(ZNRAsyncIOCB const* cb) { return cb->IsReadSide() ? kRead : kWrite; }
    static std::uint64_t UserData(Handle const& h, Kind kind) {
        return static_cast<std::uint64_t>(kind) << 56 |
               static_cast<std::uint64_t>(h.generation & kGenerationMask) << 32 | h.slot;
    }

    io_uring_sqe* NextSqe();
    io_uring_sqe* Request(Handle& h, Kind kind);
    void CancelRequest(std::uint64_t user_data);
    void Submit(Handle& h, Side side);
    void Transfer(Handle& h, Side side);
    void PerformOrPoll(Handle& h, Side side);
    void ArmPoll(Handle& h, Side side);
    void Fail(Entry& e, int err);
    void Finish(Entry& e) { done_.Push(&e); }
    int SocketType(Handle& h);

    void Deliver(Handle& h);
    void DeliverAccept(Handle& h);
    void ArmStream(Handle& h, Kind kind);
    void StopStream(Handle& h);
    void ForgetStream(Handle& h);
    int TakeHeld(Handle& h, unsigned int max, unsigned char** at, unsigned int* took);
    int CopyHeld(Handle& h, unsigned char* dst, int len);
    int LendHeld(Handle& h, Entry& e);
    void GiveBack(Entry& e);
    void Hold(Handle& h, unsigned int bid, int len);
    void Recycle(unsigned int bid);

    std::uint64_t Enter(int wait_ms);
    void ReapAll();
    void Reap(io_uring_cqe const* cqe);
    void OnReceived(Handle& h, int res, unsigned int flags);
    void OnAccepted(Handle& h, int res, unsigned int flags);
    // The side's request is back from the kernel: its entry, while its
    // operation still waits for it.
    Entry* Landed(Handle& h, Side side);
    void OnTransferred(Handle& h, Side side, int res);
    void OnPolled(Handle& h, Side side, int res);
    void RearmStarved();

    io_uring ring_{};
    bool ring_made_ = false;
    io_uring_buf_ring* buffer_ring_ = nullptr;
    unsigned char* buffers_ = nullptr;
    int next_held_[kBufferCount];
    unsigned int held_length_[kBufferCount];
    int free_buffers_ = 0;
    ZNRLendChunks chunks_;
    ZNRBindingTable<Handle> handles_;
    ZNRCompletionList done_;
    std::vector<Handle*> starved_;
    std::vector<Handle*> received_;
};

ZNRCompletionEngine* ZNRCreateUringEngine(std::uint64_t* error) {
    std::unique_ptr<ZNRUringEngine> engine(new ZNRUringEngine());
    std::uint64_t const rc = engine->Init();
    if (rc != 0) {
        if (error != nullptr) *error = rc;
        return nullptr;
    }
    return engine.release();
}

std::uint64_t ZNRUringEngine::Init() {
    io_uring_params params{};
    params.flags = IORING_SETUP_CQSIZE | IORING_SETUP_SUBMIT_ALL | IORING_SETUP_COOP_TASKRUN |
                   IORING_SETUP_TASKRUN_FLAG;
    params.cq_entries = kCompletionEntries;
    int rc = io_uring_queue_init_params(kSubmissionEntries, &ring_, &params);
    if (rc == -EINVAL) {
        // Kernels before 5.19 know only the plain flags.
        params = io_uring_params{};
        params.flags = IORING_SETUP_CQSIZE;
        params.cq_entries = kCompletionEntries;
        rc = io_uring_queue_init_params(kSubmissionEntries, &ring_, &params);
    }
    if (rc < 0) return ZNRSysError(-rc);
    ring_made_ = true;
    if ((params.features & IORING_FEAT_NODROP) == 0 || (params.features & IORING_FEAT_EXT_ARG) == 0) {
        return ZNR_ERROR_NOT_SUPPORTED;
    }
    io_uring_probe* const probe = io_uring_get_probe_ring(&ring_);
    if (probe == nullptr) return ZNR_ERROR_NOT_SUPPORTED;
    // SEND_ZC came with multishot receive (6.0): its presence vouches for it.
    int const needed[] = {IORING_OP_RECV,      IORING_OP_SEND,
                          IORING_OP_RECVMSG,   IORING_OP_SENDMSG,      IORING_OP_ACCEPT,
                          IORING_OP_POLL_ADD,  IORING_OP_ASYNC_CANCEL, IORING_OP_SEND_ZC};
    bool const all = std::all_of(std::begin(needed), std::end(needed),
                                 [probe](int op) { return io_uring_opcode_supported(probe, op) != 0; });
    io_uring_free_probe(probe);
    if (!all) return ZNR_ERROR_NOT_SUPPORTED;

    std::size_t const ring_bytes = kBufferCount * sizeof(io_uring_buf);
    void* const ring_mem = ::mmap(nullptr, ring_bytes, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (ring_mem == MAP_FAILED) return ZNRSysError(errno);
    buffer_ring_ = static_cast<io_uring_buf_ring*>(ring_mem);
    // Pages of the area are touched only as data arrives.
    void* const area = ::mmap(nullptr, static_cast<std::size_t>(kBufferCount) * kBufferSize,
                              PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) return ZNRSysError(errno);
    buffers_ = static_cast<unsigned char*>(area);
    io_uring_buf_reg reg{};
    reg.ring_addr = reinterpret_cast<std::uint64_t>(buffer_ring_);
    reg.ring_entries = kBufferCount;
    reg.bgid = kBufferGroup;
    rc = io_uring_register_buf_ring(&ring_, &reg, 0);
    if (rc < 0) return ZNRSysError(-rc);
    io_uring_buf_ring_init(buffer_ring_);
    for (unsigned int bid = 0; bid < kBufferCount; ++bid) Recycle(bid);
    return 0;
}

ZNRUringEngine::~ZNRUringEngine() {
    for (std::size_t slot = 0; slot < handles_.Size(); ++slot) {
        Handle& h = *handles_.At(static_cast<std::uint32_t>(slot));
        for (Entry& e : h.side) {
            if (e.cb != nullptr) ZNRCompletionBinding::Bind(e.cb, nullptr);
            chunks_.Give(e.gathered);
        }
        for (int fd : h.accepted) ::close(fd);
    }
    if (ring_made_) {
        // The kernel lets go of every buffer before the memory goes.
        io_uring_submit(&ring_);
        io_uring_sync_cancel_reg reg{};
        reg.flags = IORING_ASYNC_CANCEL_ANY | IORING_ASYNC_CANCEL_ALL;
        reg.timeout.tv_sec = -1;
        reg.timeout.tv_nsec = -1;
        io_uring_register_sync_cancel(&ring_, &reg);
        io_uring_queue_exit(&ring_);
    }
    if (buffers_ != nullptr) ::munmap(buffers_, static_cast<std::size_t>(kBufferCount) * kBufferSize);
    if (buffer_ring_ != nullptr) ::munmap(buffer_ring_, kBufferCount * sizeof(io_uring_buf));
}

// ---------------------------------------------------------------- descriptors

std::uint64_t ZNRUringEngine::Associate(ZNRNativeHandle fd, std::uint32_t key, ZNRAsyncIO* io) {
    ZNRAsyncIOCB* const cbs[2] = {io->GetReadIOCB(), io->GetWriteIOCB()};
    if (fd < 0) return ZNRSysError(EBADF);
    if (cbs[kRead]->IsBound() || cbs[kWrite]->IsBound()) return ZNRSysError(EEXIST);
    Handle& h = *handles_.Acquire(this);
    h.fd = fd;
    h.key = key;
    for (Side side : {kRead, kWrite}) {
        Entry& e = h.side[side];
        e = Entry{};
        e.cb = cbs[side];
        e.handle = &h;
        e.cb->fd = fd;
        ZNRCompletionBinding::Bind(e.cb, &h);
    }
    // What was started before runs on here; what finished is handed out.
    for (Side side : {kRead, kWrite}) {
        ZNRAsyncIOCB* const cb = h.side[side].cb;
        if (cb->status == ZNRAsyncIOCB::STATUS_DONE) Finish(h.side[side]);
        if (cb->status == ZNRAsyncIOCB::STATUS_RUNNING) Submit(h, side);
    }
    return 0;
}

void ZNRUringEngine::Dissociate(ZNRAsyncIOCB* cb) {
    Handle& h = *HandleOf(cb);
    bool submitted = false;
    for (Entry& e : h.side) {
        if (e.inflight != kNone) {
            // The control block and its buffer may go right after this:
            // the kernel must be done with them first.
            if (!submitted) io_uring_submit(&ring_);
            submitted = true;
            io_uring_sync_cancel_reg reg{};
            reg.addr = UserData(h, e.inflight);
            reg.timeout.tv_sec = -1;
            reg.timeout.tv_nsec = -1;
            io_uring_register_sync_cancel(&ring_, &reg);
        }
        if (e.queued) done_.Remove(&e);
        GiveBack(e);
        ZNRCompletionBinding::Bind(e.cb, nullptr);
        e = Entry{};
    }
    ForgetStream(h);
    h.fd = -1;
    h.key = 0;
    h.socket_type = -1;
    h.closing = false;
    handles_.Free(&h);
}

std::uint64_t ZNRUringEngine::Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle fd) {
    Handle& h = *HandleOf(cb);
    ForgetStream(h);
    h.fd = fd;
    h.socket_type = -1;
    return 0;
}

// A multishot request still armed goes, and what it gathered with it;
// reports still on their way for the descriptor find a new generation and
// are dropped.
void ZNRUringEngine::ForgetStream(Handle& h) {
    if (h.stream != kNone) CancelRequest(UserData(h, h.stream));
    h.stream = kNone;
    h.stream_stopping = false;
    while (h.held_head >= 0) {
        unsigned int const bid = static_cast<unsigned int>(h.held_head);
        h.held_head = next_held_[bid];
        Recycle(bid);
    }
    h.held_tail = -1;
    h.held_count = 0;
    h.held_offset = 0;
    h.read_error = 0;
    h.read_eof = false;
    for (int fd : h.accepted) ::close(fd);
    h.accepted.clear();
    if (h.starved) starved_.erase(std::find(starved_.begin(), starved_.end(), &h));
    h.starved = false;
    ++h.generation;
}

void ZNRUringEngine::Start(ZNRAsyncIOCB* cb) { Submit(*HandleOf(cb), SideOf(cb)); }

void ZNRUringEngine::Release(ZNRAsyncIOCB* cb) {
    Entry& e = HandleOf(cb)->side[SideOf(cb)];
    if (e.queued) done_.Remove(&e);
    GiveBack(e);
}

void ZNRUringEngine::GiveBack(Entry& e) {
    chunks_.Give(e.gathered);
    e.gathered = nullptr;
    if (e.lent < 0) return;
    Recycle(static_cast<unsigned int>(e.lent));
    e.lent = -1;
}

int ZNRUringEngine::Cancel(ZNRAsyncIO* io) {
    Handle* const h = HandleOf(io->GetReadIOCB());
    if (h == nullptr) return 0;
    h->closing = true;
    int count = 0;
    for (Entry& e : h->side) {
        if (e.cb->status == ZNRAsyncIOCB::STATUS_RUNNING) {
            if (e.inflight != kNone) {
                // Its completion comes from the kernel, aborted or not.
                CancelRequest(UserData(*h, e.inflight));
                ++count;
            } else {
                Fail(e, ECANCELED);
            }
        }
        if (e.queued) ++count;
    }
    if (h->stream != kNone && !h->stream_stopping) StopStream(*h);
    return count;
}

// ---------------------------------------------------------------- requests

io_uring_sqe* ZNRUringEngine::NextSqe() {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    if (sqe == nullptr) {
        io_uring_submit(&ring_);
        sqe = io_uring_get_sqe(&ring_);
    }
    return sqe;
}

io_uring_sqe* ZNRUringEngine::Request(Handle& h, Kind kind) {
    io_uring_sqe* const sqe = NextSqe();
    if (sqe != nullptr) io_uring_sqe_set_data64(sqe, UserData(h, kind));
    return sqe;
}

void ZNRUringEngine::CancelRequest(std::uint64_t user_data) {
    io_uring_sqe* const sqe = NextSqe();
    if (sqe == nullptr) return;
    io_uring_prep_cancel64(sqe, user_data, 0);
    io_uring_sqe_set_data64(sqe, kNone);
    sqe->flags |= IOSQE_CQE_SKIP_SUCCESS;
}

void ZNRUringEngine::Fail(Entry& e, int err) {
    e.cb->Complete(0, ZNRSysError(err));
    Finish(e);
}

int ZNRUringEngine::SocketType(Handle& h) {
    if (h.socket_type < 0) {
        int type = 0;
        socklen_t len = sizeof(type);
        if (::getsockopt(h.fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0) type = 0;
        h.socket_type = type;
    }
    return h.socket_type;
}

void ZNRUringEngine::Submit(Handle& h, Side side) {
    // A new operation after a cancel runs as any other.
    h.closing = false;
    switch (h.side[side].cb->method) {
    case ZNRAsyncIOCB::METHOD_RECV:
        if (SocketType(h) == SOCK_STREAM) {
            Deliver(h);
        } else {
            Transfer(h, side);
        }
        return;
    case ZNRAsyncIOCB::METHOD_ACCEPT:
        DeliverAccept(h);
        return;
    case ZNRAsyncIOCB::METHOD_RECVFROM:
    case ZNRAsyncIOCB::METHOD_SEND:
    case ZNRAsyncIOCB::METHOD_SENDTO:
    case ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT:
        Transfer(h, side);
        return;
    case ZNRAsyncIOCB::METHOD_CONNECT:
    case ZNRAsyncIOCB::METHOD_READ:
        // Any descriptor, read on readiness as epoll does: a FIFO that has
        // never had a writer waits for one instead of reading as ended.
        ArmPoll(h, side);
        return;
    case ZNRAsyncIOCB::METHOD_WRITE:
        // A write the kernel runs for a pipe without reader raises SIGPIPE
        // on this thread, where nothing can hold it back: this one is
        // carried out here, on readiness.
        PerformOrPoll(h, side);
        return;
    case ZNRAsyncIOCB::METHOD_NONE:
        break;
    }
    Fail(h.side[side], EINVAL);
}

void ZNRUringEngine::Transfer(Handle& h, Side side) {
    Entry& e = h.side[side];
    ZNRAsyncIOCB* const cb = e.cb;
    io_uring_sqe* const sqe = Request(h, TransferKind(side));
    if (sqe == nullptr) {
        Fail(e, EAGAIN);
        return;
    }
    unsigned const len = static_cast<unsigned>(cb->len);
    switch (cb->method) {
    case ZNRAsyncIOCB::METHOD_RECV:
        io_uring_prep_recv(sqe, h.fd, cb->buf, len, 0);
        break;
    case ZNRAsyncIOCB::METHOD_SEND:
        io_uring_prep_send(sqe, h.fd, cb->buf, len, MSG_NOSIGNAL);
        break;
    case ZNRAsyncIOCB::METHOD_RECVFROM:
    case ZNRAsyncIOCB::METHOD_SENDTO:
        if (!e.header) e.header.reset(new Entry::Header());
        e.header->iov = iovec{cb->buf, len};
        e.header->msg = msghdr{};
        e.header->msg.msg_name = cb->addr;
        e.header->msg.msg_namelen = cb->addr_len;
        e.header->msg.msg_iov = &e.header->iov;
        e.header->msg.msg_iovlen = 1;
        if (side == kRead) {
            io_uring_prep_recvmsg(sqe, h.fd, &e.header->msg, 0);
        } else {
            io_uring_prep_sendmsg(sqe, h.fd, &e.header->msg, MSG_NOSIGNAL);
        }
        break;
    default:  // METHOD_LOCAL_ACCEPT
        io_uring_prep_accept(sqe, h.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        break;
    }
    e.inflight = TransferKind(side);
}

void ZNRUringEngine::PerformOrPoll(Handle& h, Side side) {
    if (ZNRAsyncPerform(h.side[side].cb, true) == ZNR_PERFORM_AGAIN) {
        ArmPoll(h, side);
    } else {
        Finish(h.side[side]);
    }
}

void ZNRUringEngine::ArmPoll(Handle& h, Side side) {
    io_uring_sqe* const sqe = Request(h, PollKind(side));
    if (sqe == nullptr) {
        Fail(h.side[side], EAGAIN);
        return;
    }
    io_uring_prep_poll_add(sqe, h.fd, side == kRead ? POLLIN : POLLOUT);
    h.side[side].inflight = PollKind(side);
}

// ---------------------------------------------------------------- streams

void ZNRUringEngine::Deliver(Handle& h) {
    Entry& e = h.side[kRead];
    ZNRAsyncIOCB* const cb = e.cb;
    if (cb == nullptr || cb->status != ZNRAsyncIOCB::STATUS_RUNNING) return;
    if (h.held_head >= 0) {
        cb->Complete(cb->buf != nullptr ? CopyHeld(h, cb->buf, cb->len) : LendHeld(h, e), 0);
        Finish(e);
    } else if (h.read_error != 0) {
        cb->Complete(0, h.read_error);
        // As recv(2) after a reset: the error once, then the end.
        h.read_error = 0;
        h.read_eof = true;
        Finish(e);
    } else if (h.read_eof || cb->len == 0) {
        cb->Complete(0, 0);
        Finish(e);
    } else if (h.stream == kNone && !h.starved && !h.closing) {
        ArmStream(h, kReceive);
    }
}

void ZNRUringEngine::DeliverAccept(Handle& h) {
    Entry& e = h.side[kRead];
    ZNRAsyncIOCB* const cb = e.cb;
    if (cb == nullptr || cb->status != ZNRAsyncIOCB::STATUS_RUNNING) return;
    if (!h.accepted.empty()) {
        int const fd = h.accepted.front();
        h.accepted.erase(h.accepted.begin());
        ZNRAsyncAdopt(cb, fd, false);
        Finish(e);
    } else if (h.read_error != 0) {
        cb->Complete(0, h.read_error);
        h.read_error = 0;
        Finish(e);
    } else if (h.stream == kNone && !h.closing) {
        ArmStream(h, kAccept);
    }
}

void ZNRUringEngine::ArmStream(Handle& h, Kind kind) {
    io_uring_sqe* const sqe = Request(h, kind);
    if (sqe == nullptr) {
        Fail(h.side[kRead], EAGAIN);
        return;
    }
    if (kind == kReceive) {
        io_uring_prep_recv_multishot(sqe, h.fd, nullptr, 0, 0);
        sqe->flags |= IOSQE_BUFFER_SELECT;
        sqe->buf_group = kBufferGroup;
    } else {
        io_uring_prep_multishot_accept(sqe, h.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    }
    h.stream = kind;
    h.stream_stopping = false;
}

// Its last report (cancelled) ends it; a read started later arms it again.
void ZNRUringEngine::StopStream(Handle& h) {
    CancelRequest(UserData(h, h.stream));
    h.stream_stopping = true;
}

// Up to max of the oldest held bytes, in place, their count in *took; the
// ring buffer they used up, if any, leaves the held list and is returned.
int ZNRUringEngine::TakeHeld(Handle& h, unsigned int max, unsigned char** at, unsigned int* took) {
    unsigned int const bid = static_cast<unsigned int>(h.held_head);
    *took = std::min(held_length_[bid] - h.held_offset, max);
    *at = buffers_ + static_cast<std::size_t>(bid) * kBufferSize + h.held_offset;
    h.held_offset += *took;
    if (h.held_offset < held_length_[bid]) return -1;
    h.held_head = next_held_[bid];
    if (h.held_head < 0) h.held_tail = -1;
    h.held_offset = 0;
    --h.held_count;
    return static_cast<int>(bid);
}

int ZNRUringEngine::CopyHeld(Handle& h, unsigned char* dst, int len) {
    int n = 0;
    while (h.held_head >= 0 && n < len) {
        unsigned char* at = nullptr;
        unsigned int took = 0;
        int const used_up = TakeHeld(h, static_cast<unsigned int>(len - n), &at, &took);
        std::memcpy(dst + n, at, took);
        n += static_cast<int>(took);
        if (used_up >= 0) Recycle(static_cast<unsigned int>(used_up));
    }
    return n;
}

// The read's buffer becomes the ring buffer's, which goes back to the
// kernel once the read is released. A backlog beyond one ring buffer is
// gathered into one chunk, so that a reader takes as much at once as it
// asked for, as it would from its socket.
int ZNRUringEngine::LendHeld(Handle& h, Entry& e) {
    unsigned int const first = held_length_[h.held_head] - h.held_offset;
    if (h.held_count > 1 && first < static_cast<unsigned int>(e.cb->len)) {
        e.gathered = chunks_.Take();
        e.cb->buf = e.gathered;
        return CopyHeld(h, e.gathered, std::min(e.cb->len, ZNRLendChunks::kSize));
    }
    unsigned int took = 0;
    e.lent = TakeHeld(h, static_cast<unsigned int>(e.cb->len), &e.cb->buf, &took);
    return static_cast<int>(took);
}

void ZNRUringEngine::Hold(Handle& h, unsigned int bid, int len) {
    held_length_[bid] = static_cast<unsigned int>(len);
    next_held_[bid] = -1;
    if (h.held_tail >= 0) {
        next_held_[h.held_tail] = static_cast<int>(bid);
    } else {
        h.held_head = static_cast<int>(bid);
    }
    h.held_tail = static_cast<int>(bid);
    ++h.held_count;
}

void ZNRUringEngine::Recycle(unsigned int bid) {
    io_uring_buf_ring_add(buffer_ring_, buffers_ + static_cast<std::size_t>(bid) * kBufferSize,
                          kBufferSize, static_cast<unsigned short>(bid),
                          io_uring_buf_ring_mask(kBufferCount), 0);
    io_uring_buf_ring_advance(buffer_ring_, 1);
    ++free_buffers_;
}

// ---------------------------------------------------------------- waiting

std::uint64_t ZNRUringEngine::Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point deadline;
    if (timeout_ms > 0) deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        RearmStarved();
        ReapAll();
        // Requests queued since the last wait go in now even when there is
        // something to hand out: a busy loop must not hold back its sends.
        if (done_.Empty() || io_uring_sq_ready(&ring_) > 0) {
            int wait_ms = done_.Empty() ? timeout_ms : 0;
            if (wait_ms > 0) {
                // Rounded up: a remainder under a millisecond must be slept.
                auto const left =
                    std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
                wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
            }
            std::uint64_t const rc = Enter(wait_ms);
            if (rc != 0) return rc;
            ReapAll();
        }
        if (!done_.Empty()) {
            int n = 0;
            while (!done_.Empty() && n < max) {
                auto* const e = static_cast<Entry*>(done_.Front());
                done_.Remove(e);
                ZNRAsyncIOCB* const cb = e->cb;
                out[n++] = ZNRCompletion{e->handle->key, cb->transferred, cb, cb->error != 0,
                                         cb->error};
            }
            *count = n;
            return 0;
        }
        if (timeout_ms == 0 || (timeout_ms > 0 && Clock::now() >= deadline)) {
            *count = 0;
            return ZNR_ERROR_TIMED_OUT;
        }
    }
}

// Submits what was queued, then waits up to wait_ms (negative: without
// limit) for a completion; 0 only submits.
std::uint64_t ZNRUringEngine::Enter(int wait_ms) {
    int rc;
    if (wait_ms == 0) {
        rc = io_uring_submit(&ring_);
    } else {
        __kernel_timespec ts{wait_ms / 1000, static_cast<long long>(wait_ms % 1000) * 1000000};
        io_uring_cqe* cqe = nullptr;
        rc = io_uring_submit_and_wait_timeout(&ring_, &cqe, 1, wait_ms > 0 ? &ts : nullptr,
                                              nullptr);
    }
    // Time-outs and signals end a wait early; a full overflow list is
    // emptied by the reaping that follows.
    if (rc >= 0 || rc == -ETIME || rc == -EINTR || rc == -EBUSY || rc == -EAGAIN) return 0;
    return ZNRSysError(-rc);
}

// Receives are handed to their reads once everything there is has been
// reaped, so that chunks that came together make one completion.
void ZNRUringEngine::ReapAll() {
    io_uring_cqe* cqes[kReapBatch];
    for (;;) {
        unsigned const n = io_uring_peek_batch_cqe(&ring_, cqes, kReapBatch);
        if (n == 0) break;
        for (unsigned i = 0; i < n; ++i) Reap(cqes[i]);
        io_uring_cq_advance(&ring_, n);
    }
    for (Handle* h : received_) {
        h->received = false;
        Deliver(*h);
        bool const reading = h->side[kRead].cb->status == ZNRAsyncIOCB::STATUS_RUNNING;
        if (h->stream != kNone && !h->stream_stopping && !reading && h->held_count >= kHeldBuffersMax) {
            StopStream(*h);
        }
    }
    received_.clear();
}

void ZNRUringEngine::Reap(io_uring_cqe const* cqe) {
    std::uint64_t const data = cqe->user_data;
    auto const kind = static_cast<Kind>(data >> 56);
    if (kind == kNone) return;
    Handle* const h = handles_.Find(static_cast<std::uint32_t>(data),
                                    static_cast<std::uint32_t>(data >> 32) & kGenerationMask,
                                    kGenerationMask);
    if (h == nullptr) {
        // For a descriptor that went: give back what it still took.
        if ((cqe->flags & IORING_CQE_F_BUFFER) != 0) {
            --free_buffers_;
            Recycle(cqe->flags >> IORING_CQE_BUFFER_SHIFT);
        }
        if (kind == kAccept && cqe->res >= 0) ::close(cqe->res);
        return;
    }
    switch (kind) {
    case kReceive:
        OnReceived(*h, cqe->res, cqe->flags);
        break;
    case kAccept:
        OnAccepted(*h, cqe->res, cqe->flags);
        break;
    case kTransferRead:
    case kTransferWrite:
        OnTransferred(*h, kind == kTransferRead ? kRead : kWrite, cqe->res);
        break;
    case kPollRead:
    case kPollWrite:
        OnPolled(*h, kind == kPollRead ? kRead : kWrite, cqe->res);
        break;
    case kNone:
        break;
    }
}

void ZNRUringEngine::OnReceived(Handle& h, int res, unsigned int flags) {
    if ((flags & IORING_CQE_F_MORE) == 0) h.stream = kNone;
    if ((flags & IORING_CQE_F_BUFFER) != 0) {
        --free_buffers_;
        unsigned int const bid = flags >> IORING_CQE_BUFFER_SHIFT;
        if (res > 0) {
            Hold(h, bid, res);
        } else {
            Recycle(bid);
        }
    }
    if (res == 0) {
        h.read_eof = true;
    } else if (res == -ENOBUFS) {
        if (!h.starved) starved_.push_back(&h);
        h.starved = true;
    } else if (res < 0 && res != -ECANCELED && res != -EAGAIN && res != -EINTR) {
        h.read_error = ZNRSysError(-res);
    }
    if (!h.received) received_.push_back(&h);
    h.received = true;
}

void ZNRUringEngine::OnAccepted(Handle& h, int res, unsigned int flags) {
    if ((flags & IORING_CQE_F_MORE) == 0) h.stream = kNone;
    if (res >= 0) {
        h.accepted.push_back(res);
    } else if (res != -ECANCELED && res != -ECONNABORTED && res != -EPROTO && res != -EINTR &&
               res != -EAGAIN) {
        // A connection that died in the backlog is not the listener's failure.
        h.read_error = ZNRSysError(-res);
    }
    DeliverAccept(h);
    bool const accepting = h.side[kRead].cb->status == ZNRAsyncIOCB::STATUS_RUNNING;
    if (h.stream != kNone && !h.stream_stopping && !accepting &&
        h.accepted.size() >= kHeldAcceptsMax) {
        StopStream(h);
    }
}

ZNRUringEngine::Entry* ZNRUringEngine::Landed(Handle& h, Side side) {
    Entry& e = h.side[side];
    e.inflight = kNone;
    return e.cb->status == ZNRAsyncIOCB::STATUS_RUNNING ? &e : nullptr;
}

void ZNRUringEngine::OnTransferred(Handle& h, Side side, int res) {
    Entry* const landed = Landed(h, side);
    if (landed == nullptr) return;
    Entry& e = *landed;
    ZNRAsyncIOCB* const cb = e.cb;
    bool const retry = res == -EINTR || (cb->method == ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT &&
                                         (res == -ECONNABORTED || res == -EPROTO));
    if (!h.closing && retry) {
        Transfer(h, side);
    } else if (!h.closing && res == -EAGAIN) {
        // A descriptor set non-blocking that the kernel cannot wait on by itself.
        ArmPoll(h, side);
    } else if (res < 0) {
        Fail(e, -res);
    } else if (cb->method == ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT) {
        ZNRAsyncAdopt(cb, res, true);
        Finish(e);
    } else {
        if (cb->method == ZNRAsyncIOCB::METHOD_RECVFROM) cb->addr_len = e.header->msg.msg_namelen;
        cb->Complete(res, 0);
        Finish(e);
    }
}

void ZNRUringEngine::OnPolled(Handle& h, Side side, int res) {
    Entry* const landed = Landed(h, side);
    if (landed == nullptr) return;
    Entry& e = *landed;
    ZNRAsyncIOCB* const cb = e.cb;
    if (res < 0) {
        Fail(e, -res);
    } else if (h.closing) {
        Fail(e, ECANCELED);
    } else if (cb->method == ZNRAsyncIOCB::METHOD_CONNECT || cb->method == ZNRAsyncIOCB::METHOD_READ ||
               cb->method == ZNRAsyncIOCB::METHOD_WRITE) {
        PerformOrPoll(h, side);
    } else {
        Transfer(h, side);
    }
}

void ZNRUringEngine::RearmStarved() {
    if (starved_.empty() || free_buffers_ == 0) return;
    std::vector<Handle*> starved;
    starved.swap(starved_);
    for (Handle* h : starved) {
        h->starved = false;
        Deliver(*h);
    }
}
