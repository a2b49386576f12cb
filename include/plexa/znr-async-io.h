#ifndef PLEXA_ZNR_ASYNC_IO_H
#define PLEXA_ZNR_ASYNC_IO_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRCompletionEngine;
class ZNRSocket;

// The request record of one asynchronous operation on one side (read or
// write) of a descriptor: what was started, and once done, its result.
// Owned by its device and reused for every operation of that side, so
// starting an operation allocates nothing. Used on the thread that owns
// the device.
class ZNR_API ZNRAsyncIOCB {
public:
    // The codes a reactor reads to tell completions apart.
    enum Operation_t { OP_ACCEPT = 0, OP_READ = 1, OP_WRITE = 2, OP_CONNECT = 3, OP_NONE = 4 };
    // The system call that carries the operation out.
    enum Method_t {
        METHOD_NONE,
        METHOD_RECV,
        METHOD_RECVFROM,
        METHOD_READ,
        METHOD_SEND,
        METHOD_SENDTO,
        METHOD_WRITE,
        METHOD_ACCEPT,        // a new connection adopted by accept_into
        METHOD_LOCAL_ACCEPT,  // the new connection replaces the listening descriptor
        METHOD_CONNECT,
    };
    enum Status_t { STATUS_IDLE, STATUS_PENDING, STATUS_DONE };

    ZNRAsyncIOCB();
    ZNRAsyncIOCB(ZNRAsyncIOCB const&) = delete;
    ZNRAsyncIOCB& operator=(ZNRAsyncIOCB const&) = delete;
    virtual ~ZNRAsyncIOCB();

    bool IsReadSide() const { return read_side; }

    // Starts the operation described by the request fields: at once when
    // the descriptor is known to be ready, else when it becomes ready. The
    // result arrives through the engine that watches the descriptor, or
    // through CheckIOStatus when none does. A side runs one operation at a
    // time: a second start before the first was reset gives EBUSY. A
    // pending operation reads its request fields only when it runs, so
    // its owner may point it at another buffer until then.
    std::uint64_t Begin(int op, Method_t how, unsigned char* data, int size);
    // Marks the operation done; the engine, if any, queues its completion.
    void Complete(int bytes, std::uint64_t err);
    // Puts new_fd in the place of the descriptor, which is closed: a local
    // listener's instance becomes the connection it accepted.
    std::uint64_t SwitchFd(int new_fd);
    // Forgets a finished operation (its queued completion included). A
    // pending one cannot be forgotten: EBUSY.
    std::uint64_t Reset();
    // Waits up to timeout_ms (negative: without limit) for the operation
    // to finish; library error 17 when it has not, at once for a side
    // that has nothing started.
    std::uint64_t Check(int timeout_ms, int* bytes);

    int operation;  // Operation_t of what was last started

    // The request. addr is a sockaddr buffer: the sender of a datagram,
    // the destination of one, or the peer of an accepted connection;
    // addr_len is its capacity, then the length the system gave.
    int fd;
    Method_t method;
    unsigned char* buf;
    int len;
    void* addr;
    unsigned int addr_len;
    ZNRSocket* accept_into;
    int accept_type;  // ZNRSocket::Type_t of the accepted connection

    // The result.
    Status_t status;
    int transferred;
    std::uint64_t error;

    // Links kept by the pair and the engine that watches the descriptor.
    bool read_side;
    ZNRAsyncIOCB* peer;
    ZNRCompletionEngine* engine;
    std::uint32_t slot;
    ZNRAsyncIOCB* queue_prev;
    ZNRAsyncIOCB* queue_next;
    bool queued;
};

// A device's asynchronous side: one control block per direction.
class ZNR_API ZNRAsyncIO {
public:
    virtual ZNRAsyncIOCB* GetReadIOCB() = 0;
    virtual ZNRAsyncIOCB* GetWriteIOCB() = 0;
    virtual std::uint64_t ResetReadIOStatus() = 0;
    virtual std::uint64_t ResetWriteIOStatus() = 0;
    // Waits for the side's operation to finish (negative timeout: without
    // limit): 0, library error 17 when it did not finish in time, or the
    // operation's own error. *transferred (when given) gets its count.
    virtual std::uint64_t CheckReadIOStatus(int timeout_ms, int* transferred) = 0;
    virtual std::uint64_t CheckWriteIOStatus(int timeout_ms, int* transferred) = 0;
    virtual ~ZNRAsyncIO();
};

// The platform's completion-based I/O: the two control blocks of one
// descriptor. The name is the one host code and the reactor know it by.
// Destroying it, or calling Detach, takes the descriptor out of the
// engine that watches it and drops completions still queued for it.
class ZNR_API ZNRAsyncIOWin32 : public ZNRAsyncIO {
public:
    ZNRAsyncIOWin32();
    ZNRAsyncIOWin32(ZNRAsyncIOWin32 const&) = delete;
    ZNRAsyncIOWin32& operator=(ZNRAsyncIOWin32 const&) = delete;
    ~ZNRAsyncIOWin32() override;

    ZNRAsyncIOCB* GetReadIOCB() override { return &read_iocb_; }
    ZNRAsyncIOCB* GetWriteIOCB() override { return &write_iocb_; }
    std::uint64_t ResetReadIOStatus() override;
    std::uint64_t ResetWriteIOStatus() override;
    std::uint64_t CheckReadIOStatus(int timeout_ms, int* transferred) override;
    std::uint64_t CheckWriteIOStatus(int timeout_ms, int* transferred) override;

    // The descriptor both sides run on (-1: none).
    void SetIOFd(int fd);
    void Detach();

private:
    ZNRAsyncIOCB read_iocb_;
    ZNRAsyncIOCB write_iocb_;
};

#endif
