#include <winsock2.h>
#include <ws2tcpip.h>
#include <mswsock.h>
#include <windows.h>

#include <plexa/znr-async-io.h>
#include <plexa/znr-error.h>

#include "znr-async-perform.h"
#include "znr-completion-engine.h"
#include "znr-win32-engines.h"

#include <cstring>

namespace {

enum Side { kRead = 0, kWrite = 1 };

int const kEntriesPerWait = 64;

SOCKET AsSocket(ZNRNativeHandle h) { return reinterpret_cast<SOCKET>(h); }

bool IsSocket(HANDLE h) {
    int type = 0;
    int len = sizeof(type);
    return ::getsockopt(reinterpret_cast<SOCKET>(h), SOL_SOCKET, SO_TYPE,
                        reinterpret_cast<char*>(&type), &len) == 0;
}

// The extension functions of a socket's provider, fetched once per process.
template <class Fn>
Fn Extension(SOCKET s, GUID guid) {
    Fn fn = nullptr;
    DWORD bytes = 0;
    ::WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &guid, sizeof(guid), &fn, sizeof(fn), &bytes,
               nullptr, nullptr);
    return fn;
}

LPFN_ACCEPTEX AcceptExOf(SOCKET s) {
    static LPFN_ACCEPTEX const fn = Extension<LPFN_ACCEPTEX>(s, WSAID_ACCEPTEX);
    return fn;
}

LPFN_CONNECTEX ConnectExOf(SOCKET s) {
    static LPFN_CONNECTEX const fn = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    return fn;
}

LPFN_GETACCEPTEXSOCKADDRS AcceptExSockaddrsOf(SOCKET s) {
    static LPFN_GETACCEPTEXSOCKADDRS const fn =
        Extension<LPFN_GETACCEPTEXSOCKADDRS>(s, WSAID_GETACCEPTEXSOCKADDRS);
    return fn;
}

} // namespace

// The completion port itself: every operation is an overlapped call whose
// packet the port queues, handed out in batches by
// GetQueuedCompletionStatusEx. A call that finishes at once on a handle
// set to skip the port on success queues nothing and completes here.
class ZNRIocpEngine final : public ZNRCompletionEngine {
public:
    explicit ZNRIocpEngine(HANDLE port) : port_(port) {}
    ~ZNRIocpEngine() override;

    char const* GetName() const override { return "iocp"; }
    std::uint64_t Associate(ZNRNativeHandle handle, std::uint32_t key, ZNRAsyncIO* io) override;
    std::uint64_t Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) override;
    int Cancel(ZNRAsyncIO* io) override;
    void Start(ZNRAsyncIOCB* cb) override;
    void Release(ZNRAsyncIOCB* cb) override;
    std::uint64_t Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle handle) override;
    void Dissociate(ZNRAsyncIOCB* cb) override;

private:
    struct Entry;
    // One overlapped call. The system writes into it until its packet is
    // queued, so one left behind by a dissociated descriptor lives on until
    // then (owner null) instead of going with its entry.
    struct Op {
        OVERLAPPED ov;
        WSABUF buf;
        DWORD flags;
        INT addr_len;
        SOCKET accepted;
        Entry* owner;
    };
    struct Handle;
    struct Entry : ZNRCompletionLink {
        ZNRAsyncIOCB* cb = nullptr;
        Handle* handle = nullptr;
        Op* op = nullptr;
        bool pending = false;
    };
    struct Handle : ZNRCompletionBinding {
        HANDLE h = INVALID_HANDLE_VALUE;
        std::uint32_t key = 0;
        bool socket = false;
        bool skips_port = false;
        Entry side[2];
    };

    static Handle* HandleOf(ZNRAsyncIOCB const* cb) {
        return static_cast<Handle*>(ZNRCompletionBinding::Of(cb));
    }
    static Side SideOf(ZNRAsyncIOCB const* cb) { return cb->IsReadSide() ? kRead : kWrite; }

    std::uint64_t Watch(Handle& h, HANDLE handle);
    DWORD Issue(Handle& h, Entry& e, DWORD* bytes);
    void Finished(Entry& e, DWORD bytes, DWORD err);
    DWORD ResultOf(Handle const& h, Op* op, DWORD* bytes) const;
    void Abandon(Handle& h, Entry& e);
    std::uint64_t Collect(DWORD wait);

    HANDLE const port_;
    ZNRBindingTable<Handle> handles_;
    ZNRCompletionList done_;
    OVERLAPPED_ENTRY entries_[kEntriesPerWait];
};

ZNRCompletionEngine* ZNRCreateIocpEngine(std::uint64_t* error) {
    HANDLE const port = ::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    if (port == nullptr) {
        if (error != nullptr) *error = ZNRSysError(static_cast<int>(::GetLastError()));
        return nullptr;
    }
    return new ZNRIocpEngine(port);
}

ZNRIocpEngine::~ZNRIocpEngine() {
    for (std::size_t slot = 0; slot < handles_.Size(); ++slot) {
        Handle& h = *handles_.At(static_cast<std::uint32_t>(slot));
        for (Entry& e : h.side) {
            if (e.cb != nullptr) Abandon(h, e);
            if (e.cb != nullptr) ZNRCompletionBinding::Bind(e.cb, nullptr);
            delete e.op;
            e.op = nullptr;
        }
    }
    ::CloseHandle(port_);
}

// ---------------------------------------------------------------- descriptors

// A handle stays tied to its port for good: watching it again (after a
// detach) finds it there already, which the port reports as a bad parameter.
std::uint64_t ZNRIocpEngine::Watch(Handle& h, HANDLE handle) {
    if (::CreateIoCompletionPort(handle, port_, 0, 0) == nullptr &&
        ::GetLastError() != ERROR_INVALID_PARAMETER) {
        return ZNRSysError(static_cast<int>(::GetLastError()));
    }
    h.h = handle;
    h.socket = IsSocket(handle);
    // Saves a packet, and with it a trip through the port, for every call
    // that finishes at once.
    h.skips_port = ::SetFileCompletionNotificationModes(handle, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) != 0;
    return 0;
}

std::uint64_t ZNRIocpEngine::Associate(ZNRNativeHandle handle, std::uint32_t key, ZNRAsyncIO* io) {
    ZNRAsyncIOCB* const cbs[2] = {io->GetReadIOCB(), io->GetWriteIOCB()};
    if (!ZNRIsHandle(handle)) return ZNRSysError(ERROR_INVALID_HANDLE);
    if (cbs[kRead]->IsBound() || cbs[kWrite]->IsBound()) return ZNRSysError(ERROR_ALREADY_EXISTS);
    Handle& h = *handles_.Acquire(this);
    std::uint64_t const rc = Watch(h, static_cast<HANDLE>(handle));
    if (rc != 0) {
        handles_.Free(&h);
        return rc;
    }
    h.key = key;
    for (Side side : {kRead, kWrite}) {
        Entry& e = h.side[side];
        e.cb = cbs[side];
        e.handle = &h;
        e.pending = false;
        e.cb->fd = handle;
        ZNRCompletionBinding::Bind(e.cb, &h);
    }
    for (Side side : {kRead, kWrite}) {
        ZNRAsyncIOCB* const cb = h.side[side].cb;
        if (cb->status == ZNRAsyncIOCB::STATUS_DONE) done_.Push(&h.side[side]);
        if (cb->status == ZNRAsyncIOCB::STATUS_RUNNING) Start(cb);
    }
    return 0;
}

// What the system still does for the entry is cancelled and waited for:
// its buffer may go as soon as this returns. The packet comes later and
// finds its operation abandoned.
void ZNRIocpEngine::Abandon(Handle& h, Entry& e) {
    if (!e.pending || e.op == nullptr) return;
    ::CancelIoEx(h.h, &e.op->ov);
    while (!HasOverlappedIoCompleted(&e.op->ov)) ::SleepEx(1, FALSE);
    e.op->owner = nullptr;
    e.op = nullptr;
    e.pending = false;
}

void ZNRIocpEngine::Dissociate(ZNRAsyncIOCB* cb) {
    Handle& h = *HandleOf(cb);
    for (Entry& e : h.side) {
        Abandon(h, e);
        if (e.queued) done_.Remove(&e);
        if (e.op != nullptr && e.op->accepted != INVALID_SOCKET) ::closesocket(e.op->accepted);
        ZNRCompletionBinding::Bind(e.cb, nullptr);
        Op* const op = e.op;
        e = Entry{};
        e.op = op;
    }
    h.h = INVALID_HANDLE_VALUE;
    h.key = 0;
    handles_.Free(&h);
}

std::uint64_t ZNRIocpEngine::Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle handle) {
    return Watch(*HandleOf(cb), static_cast<HANDLE>(handle));
}

void ZNRIocpEngine::Release(ZNRAsyncIOCB* cb) {
    Entry& e = HandleOf(cb)->side[SideOf(cb)];
    if (e.queued) done_.Remove(&e);
}

int ZNRIocpEngine::Cancel(ZNRAsyncIO* io) {
    Handle* const h = HandleOf(io->GetReadIOCB());
    if (h == nullptr) return 0;
    int count = 0;
    for (Entry& e : h->side) {
        // Cancelled or already done, its packet is on its way (995 when
        // the cancel took).
        if (e.pending) {
            ::CancelIoEx(h->h, &e.op->ov);
            ++count;
        }
        if (e.queued) ++count;
    }
    return count;
}

// ---------------------------------------------------------------- operations

void ZNRIocpEngine::Start(ZNRAsyncIOCB* cb) {
    // A connection already in the backlog is taken at once, so that a
    // listener takes its backlog in bursts: AcceptEx need not finish at
    // once for one (under Wine it never does). Its completion is queued as
    // any other: a first accept has nobody else to hand it out.
    Handle& h = *HandleOf(cb);
    Entry& e = h.side[SideOf(cb)];
    if (cb->method == ZNRAsyncIOCB::METHOD_ACCEPT && ZNRAsyncWaitReady(cb, 0) &&
        ZNRAsyncPerform(cb, true) == ZNR_PERFORM_DONE) {
        done_.Push(&e);
        return;
    }
    if (e.op == nullptr) e.op = new Op();
    std::memset(&e.op->ov, 0, sizeof(e.op->ov));
    e.op->accepted = INVALID_SOCKET;
    e.op->owner = &e;
    DWORD bytes = 0;
    DWORD const err = Issue(h, e, &bytes);
    if (err == ERROR_IO_PENDING || (err == 0 && !h.skips_port)) {
        e.pending = true;
        return;
    }
    // 535: the pipe's client came before the accept, which is done at once
    // and queues no packet.
    Finished(e, bytes, err == ERROR_PIPE_CONNECTED ? 0 : err);
}

// Starts the overlapped call for the entry's request: 0 when it finished
// at once, ERROR_IO_PENDING when its packet will come, else the error.
DWORD ZNRIocpEngine::Issue(Handle& h, Entry& e, DWORD* bytes) {
    ZNRAsyncIOCB* const cb = e.cb;
    Op* const op = e.op;
    SOCKET const s = AsSocket(cb->fd);
    op->buf.buf = reinterpret_cast<char*>(cb->buf);
    op->buf.len = static_cast<ULONG>(cb->len);
    op->flags = 0;
    int rc = 0;
    ZNRAsyncIOCB::Method_t method = cb->method;
    // A pipe or a file reads and writes as a file: Winsock's calls take
    // sockets only. A socket goes through Winsock even when read as a file:
    // ReadFile and WriteFile on one fail under layered providers, and
    // under Wine a write waiting for room is never resumed.
    if (!h.socket && (method == ZNRAsyncIOCB::METHOD_RECV || method == ZNRAsyncIOCB::METHOD_SEND)) {
        method = method == ZNRAsyncIOCB::METHOD_RECV ? ZNRAsyncIOCB::METHOD_READ : ZNRAsyncIOCB::METHOD_WRITE;
    } else if (h.socket && (method == ZNRAsyncIOCB::METHOD_READ || method == ZNRAsyncIOCB::METHOD_WRITE)) {
        method = method == ZNRAsyncIOCB::METHOD_READ ? ZNRAsyncIOCB::METHOD_RECV : ZNRAsyncIOCB::METHOD_SEND;
    }
    switch (method) {
    case ZNRAsyncIOCB::METHOD_RECV:
        rc = ::WSARecv(s, &op->buf, 1, bytes, &op->flags, &op->ov, nullptr);
        break;
    case ZNRAsyncIOCB::METHOD_RECVFROM:
        op->addr_len = static_cast<INT>(cb->addr_len);
        rc = ::WSARecvFrom(s, &op->buf, 1, bytes, &op->flags, static_cast<sockaddr*>(cb->addr),
                           &op->addr_len, &op->ov, nullptr);
        break;
    case ZNRAsyncIOCB::METHOD_SEND:
        rc = ::WSASend(s, &op->buf, 1, bytes, 0, &op->ov, nullptr);
        break;
    case ZNRAsyncIOCB::METHOD_SENDTO:
        rc = ::WSASendTo(s, &op->buf, 1, bytes, 0, static_cast<sockaddr const*>(cb->addr),
                         static_cast<int>(cb->addr_len), &op->ov, nullptr);
        break;
    case ZNRAsyncIOCB::METHOD_READ:
        return ::ReadFile(h.h, cb->buf, static_cast<DWORD>(cb->len), bytes, &op->ov) ? 0 : ::GetLastError();
    case ZNRAsyncIOCB::METHOD_WRITE:
        return ::WriteFile(h.h, cb->buf, static_cast<DWORD>(cb->len), bytes, &op->ov) ? 0 : ::GetLastError();
    case ZNRAsyncIOCB::METHOD_ACCEPT: {
        // AcceptEx fills cb->addr with both addresses, in two slots of
        // cb->addr_len bytes, each 16 bytes larger than the address itself.
        WSAPROTOCOL_INFOW info{};
        int len = sizeof(info);
        if (::getsockopt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &len) != 0) {
            return static_cast<DWORD>(::WSAGetLastError());
        }
        op->accepted = ::WSASocketW(info.iAddressFamily, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                    WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
        if (op->accepted == INVALID_SOCKET) return static_cast<DWORD>(::WSAGetLastError());
        DWORD const slot = cb->addr_len;
        if (AcceptExOf(s)(s, op->accepted, cb->addr, 0, slot, slot, bytes, &op->ov)) return 0;
        return static_cast<DWORD>(::WSAGetLastError());
    }
    case ZNRAsyncIOCB::METHOD_LOCAL_ACCEPT:
        return ::ConnectNamedPipe(h.h, &op->ov) ? 0 : ::GetLastError();
    case ZNRAsyncIOCB::METHOD_CONNECT: {
        // ConnectEx wants a bound socket.
        sockaddr_storage any{};
        any.ss_family = static_cast<sockaddr const*>(cb->addr)->sa_family;
        int const any_len = any.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (::bind(s, reinterpret_cast<sockaddr*>(&any), any_len) != 0 &&
            ::WSAGetLastError() != WSAEINVAL) {
            return static_cast<DWORD>(::WSAGetLastError());
        }
        if (ConnectExOf(s)(s, static_cast<sockaddr const*>(cb->addr), static_cast<int>(cb->addr_len),
                           nullptr, 0, nullptr, &op->ov)) {
            return 0;
        }
        return static_cast<DWORD>(::WSAGetLastError());
    }
    case ZNRAsyncIOCB::METHOD_NONE:
        return ERROR_INVALID_PARAMETER;
    }
    if (rc == 0) return 0;
    DWORD const err = static_cast<DWORD>(::WSAGetLastError());
    return err == WSA_IO_PENDING ? ERROR_IO_PENDING : err;
}

// The request's own finishing steps, then its completion is queued.
void ZNRIocpEngine::Finished(Entry& e, DWORD bytes, DWORD err) {
    ZNRAsyncIOCB* const cb = e.cb;
    Op* const op = e.op;
    e.pending = false;
    if (err != 0) {
        if (op->accepted != INVALID_SOCKET) ::closesocket(op->accepted);
        op->accepted = INVALID_SOCKET;
        cb->Complete(0, ZNRSysError(static_cast<int>(err)));
    } else if (cb->method == ZNRAsyncIOCB::METHOD_ACCEPT) {
        SOCKET const listener = AsSocket(cb->fd);
        ::setsockopt(op->accepted, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT,
                     reinterpret_cast<char const*>(&listener), sizeof(listener));
        // The peer's address goes first in the buffer, as portable code reads it.
        DWORD const slot = cb->addr_len;
        sockaddr* local = nullptr;
        sockaddr* remote = nullptr;
        int local_len = 0;
        int remote_len = 0;
        AcceptExSockaddrsOf(listener)(cb->addr, 0, slot, slot, &local, &local_len, &remote, &remote_len);
        std::memmove(cb->addr, remote, static_cast<std::size_t>(remote_len));
        cb->addr_len = static_cast<unsigned int>(remote_len);
        SOCKET const accepted = op->accepted;
        op->accepted = INVALID_SOCKET;
        ZNRAsyncAdopt(cb, reinterpret_cast<ZNRNativeHandle>(accepted), true);
    } else if (cb->method == ZNRAsyncIOCB::METHOD_CONNECT) {
        ::setsockopt(AsSocket(cb->fd), SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
        cb->Complete(0, 0);
    } else {
        if (cb->method == ZNRAsyncIOCB::METHOD_RECVFROM) cb->addr_len = static_cast<unsigned int>(op->addr_len);
        cb->Complete(static_cast<int>(bytes), 0);
    }
    done_.Push(&e);
}

// The system's error for a finished call (0 on success), its count in *bytes.
DWORD ZNRIocpEngine::ResultOf(Handle const& h, Op* op, DWORD* bytes) const {
    if (h.socket) {
        DWORD flags = 0;
        if (::WSAGetOverlappedResult(AsSocket(reinterpret_cast<ZNRNativeHandle>(h.h)), &op->ov, bytes,
                                     FALSE, &flags)) {
            return 0;
        }
        return static_cast<DWORD>(::WSAGetLastError());
    }
    if (::GetOverlappedResult(h.h, &op->ov, bytes, FALSE)) return 0;
    DWORD const err = ::GetLastError();
    // A pipe whose writer left reads as ended, as a socket does.
    return err == ERROR_BROKEN_PIPE || err == ERROR_HANDLE_EOF ? 0 : err;
}

// ---------------------------------------------------------------- waiting

std::uint64_t ZNRIocpEngine::Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) {
    DWORD const start = ::GetTickCount();
    for (;;) {
        // Calls that finish at once must not keep the port's packets
        // waiting behind them: what the port holds queues up after them.
        if (!done_.Empty()) {
            std::uint64_t const rc = Collect(0);
            if (rc != 0 && rc != ZNR_ERROR_TIMED_OUT) return rc;
        }
        if (!done_.Empty()) {
            int n = 0;
            while (!done_.Empty() && n < max) {
                auto* const e = static_cast<Entry*>(done_.Front());
                done_.Remove(e);
                ZNRAsyncIOCB* const cb = e->cb;
                out[n++] = ZNRCompletion{e->handle->key, cb->transferred, cb, cb->error != 0, cb->error};
            }
            *count = n;
            return 0;
        }
        DWORD wait = INFINITE;
        if (timeout_ms >= 0) {
            DWORD const spent = ::GetTickCount() - start;
            wait = spent >= static_cast<DWORD>(timeout_ms) ? 0 : static_cast<DWORD>(timeout_ms) - spent;
        }
        std::uint64_t const rc = Collect(wait);
        if (rc != 0) {
            *count = 0;
            return rc;
        }
    }
}

// The port's packets within wait ms into the finished list: 0, library
// error 17 when none came, else the system's error.
std::uint64_t ZNRIocpEngine::Collect(DWORD wait) {
    ULONG got = 0;
    if (!::GetQueuedCompletionStatusEx(port_, entries_, kEntriesPerWait, &got, wait, FALSE)) {
        DWORD const err = ::GetLastError();
        return err == WAIT_TIMEOUT ? ZNR_ERROR_TIMED_OUT : ZNRSysError(static_cast<int>(err));
    }
    for (ULONG i = 0; i < got; ++i) {
        auto* const op = reinterpret_cast<Op*>(entries_[i].lpOverlapped);
        if (op == nullptr) continue;
        if (op->owner == nullptr) {
            // Left behind by a descriptor that went.
            if (op->accepted != INVALID_SOCKET) ::closesocket(op->accepted);
            delete op;
            continue;
        }
        Entry& e = *op->owner;
        DWORD bytes = 0;
        DWORD const err = ResultOf(*e.handle, op, &bytes);
        Finished(e, bytes, err);
    }
    return 0;
}
