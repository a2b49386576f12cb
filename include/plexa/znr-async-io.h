#ifndef PLEXA_ZNR_ASYNC_IO_H
#define PLEXA_ZNR_ASYNC_IO_H

#include <plexa/znr-export.h>
#include <plexa/znr-native-handle.h>

#include <cstdint>
#include <memory>

class ZNRSocket;
struct ZNRCompletionBinding;

/// @file
/// The control blocks of asynchronous operations and the two-sided
/// interface that asynchronous devices and the reactor share.


/// The request record of one asynchronous operation on one side (read or
/// write) of a descriptor: what was started, and once done, its result.
/// Owned by its device and reused for every operation of that side, so
/// starting an operation allocates nothing. Used on the thread that owns
/// the device.
class ZNR_API ZNRAsyncIOCB {
public:
    /// The codes a reactor reads to tell completions apart.
    enum Operation_t { OP_ACCEPT = 0, OP_READ = 1, OP_WRITE = 2, OP_CONNECT = 3, OP_NONE = 4 };
    /// @var ZNRAsyncIOCB::OP_ACCEPT
    /// Accept (also a pipe server's wait for its client).
    /// @var ZNRAsyncIOCB::OP_READ
    /// Read or receive.
    /// @var ZNRAsyncIOCB::OP_WRITE
    /// Write or send.
    /// @var ZNRAsyncIOCB::OP_CONNECT
    /// Connect.
    /// @var ZNRAsyncIOCB::OP_NONE
    /// Nothing started yet.

    /// The system call that carries the operation out.
    enum Method_t {
        METHOD_NONE,          ///< nothing
        METHOD_RECV,          ///< recv on a socket
        METHOD_RECVFROM,      ///< recvfrom, the sender into addr
        METHOD_READ,          ///< read on any descriptor
        METHOD_SEND,          ///< send on a socket
        METHOD_SENDTO,        ///< sendto, to addr
        METHOD_WRITE,         ///< write on any descriptor
        METHOD_ACCEPT,        ///< a new connection adopted by accept_into
        METHOD_LOCAL_ACCEPT,  ///< the new connection replaces the listening descriptor
        METHOD_CONNECT,       ///< completion of a connect under way
    };
    /// Where the operation stands (not "pending": windows.h takes
    /// STATUS_PENDING for a macro).
    enum Status_t { STATUS_IDLE, STATUS_RUNNING, STATUS_DONE };
    /// @var ZNRAsyncIOCB::STATUS_IDLE
    /// Nothing started, or reset.
    /// @var ZNRAsyncIOCB::STATUS_RUNNING
    /// Started, not finished.
    /// @var ZNRAsyncIOCB::STATUS_DONE
    /// Finished: transferred and error hold the result.

    /// Idle, OP_NONE, no descriptor.
    ZNRAsyncIOCB();
    ZNRAsyncIOCB(ZNRAsyncIOCB const&) = delete;
    ZNRAsyncIOCB& operator=(ZNRAsyncIOCB const&) = delete;
    /// Takes the block out of the engine that watches it.
    virtual ~ZNRAsyncIOCB();

    /// Whether this is the read side of its pair.
    bool IsReadSide() const { return read_side_; }
    /// Whether an engine watches the side's descriptor.
    bool IsBound() const { return binding_ != nullptr; }

    /// Starts the operation described by the request fields. The result
    /// arrives through the engine that watches the descriptor, or through
    /// Check when none does. A side runs one operation at a time: a second
    /// start before the first was reset gives EBUSY; no descriptor gives
    /// EBADF, a negative size or a null buffer EINVAL. From here until its
    /// completion is handed out the operation holds data and the request
    /// fields: they must stay alive and unchanged.
    std::uint64_t Begin(int op, Method_t how, unsigned char* data, int size);
    /// Marks the operation done with its result.
    void Complete(int bytes, std::uint64_t err);
    /// Puts new_fd in the place of the descriptor, which is closed: a local
    /// listener's instance becomes the connection it accepted. On failure
    /// (the engine's error) new_fd is closed and the old one kept.
    std::uint64_t SwitchFd(ZNRNativeHandle new_fd);
    /// Forgets a finished operation (a completion not handed out yet
    /// included). A pending one cannot be forgotten: EBUSY.
    std::uint64_t Reset();
    /// Waits up to timeout_ms (negative: without limit) for the operation
    /// to finish; library error 17 when it has not, at once for a side
    /// that has nothing started. Once finished: the operation's own error
    /// (0 for success), its count in *bytes when bytes is not null.
    std::uint64_t Check(int timeout_ms, int* bytes);

    int operation;  ///< Operation_t of what was last started

    // The request.
    /// The descriptor the side runs on; -1: none. Not owned.
    ZNRNativeHandle fd;
    /// How the operation is carried out.
    Method_t method;
    /// The bytes to transfer; not owned.
    unsigned char* buf;
    /// How many bytes buf holds or takes.
    int len;
    /// A sockaddr buffer, not owned: the sender of a datagram, the
    /// destination of one, or the peer of an accepted connection.
    void* addr;
    /// The capacity of addr, then the length the system gave.
    unsigned int addr_len;
    /// The socket an accept fills; not owned.
    ZNRSocket* accept_into;
    int accept_type;  ///< ZNRSocket::Type_t of the accepted connection

    // The result.
    /// Where the operation stands.
    Status_t status;
    /// Bytes transferred, once done.
    int transferred;
    /// The operation's error (a system error), once done.
    std::uint64_t error;

private:
    friend class ZNRAsyncIOWin32;
    friend struct ZNRCompletionBinding;

    // Begin once the request is known to be sound.
    void Run(int op, Method_t how, unsigned char* data, int size);

    bool read_side_;
    ZNRAsyncIOCB* peer_;
    // The engine's record of the descriptor while one watches it; opaque here.
    ZNRCompletionBinding* binding_;
};

/// A device's asynchronous side: one control block per direction. Owning
/// thread only (the reactor's loop thread once the device is registered).
class ZNR_API ZNRAsyncIO {
public:
    /// The read side's control block, owned by the device.
    virtual ZNRAsyncIOCB* GetReadIOCB() = 0;
    /// The write side's control block, owned by the device.
    virtual ZNRAsyncIOCB* GetWriteIOCB() = 0;
    /// Readies the read side for a new operation; EBUSY while one is
    /// pending.
    virtual std::uint64_t ResetReadIOStatus() = 0;
    /// Readies the write side, like ResetReadIOStatus.
    virtual std::uint64_t ResetWriteIOStatus() = 0;
    /// Waits for the side's operation to finish (negative timeout: without
    /// limit): 0, library error 17 when it did not finish in time, or the
    /// operation's own error. *transferred (when given) gets its count.
    virtual std::uint64_t CheckReadIOStatus(int timeout_ms, int* transferred) = 0;
    /// @copydoc CheckReadIOStatus
    virtual std::uint64_t CheckWriteIOStatus(int timeout_ms, int* transferred) = 0;
    virtual ~ZNRAsyncIO();
};

/// The platform's completion-based I/O: the two control blocks of one
/// descriptor. The name is the one host code and the reactor know it by.
/// Destroying it, or calling Detach, takes the descriptor out of the
/// engine that watches it and drops completions still queued for it; a
/// reactor cancels what is under way first and waits for the aborted
/// completions.
class ZNR_API ZNRAsyncIOWin32 : public ZNRAsyncIO {
public:
    /// Two idle control blocks without a descriptor.
    ZNRAsyncIOWin32();
    ZNRAsyncIOWin32(ZNRAsyncIOWin32 const&) = delete;
    ZNRAsyncIOWin32& operator=(ZNRAsyncIOWin32 const&) = delete;
    ~ZNRAsyncIOWin32() override;

    ZNRAsyncIOCB* GetReadIOCB() override;
    ZNRAsyncIOCB* GetWriteIOCB() override;
    std::uint64_t ResetReadIOStatus() override;
    std::uint64_t ResetWriteIOStatus() override;
    std::uint64_t CheckReadIOStatus(int timeout_ms, int* transferred) override;
    std::uint64_t CheckWriteIOStatus(int timeout_ms, int* transferred) override;

    /// The descriptor both sides run on (-1: none); not taken over.
    void SetIOFd(ZNRNativeHandle fd);
    /// Takes the descriptor out of its engine and leaves both sides idle
    /// without a descriptor; what was under way is forgotten.
    void Detach();

private:
    struct Pair;
    Pair* Blocks();

    // Made on first use: a device that runs on its socket's never needs
    // its own.
    std::unique_ptr<Pair> pair_;
};

#endif
