#ifndef PLEXA_ZNR_ASYNC_SOCKET_H
#define PLEXA_ZNR_ASYNC_SOCKET_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-export.h>
#include <plexa/znr-socket.h>

class ZNRByteBuffer;

/// @file
/// The socket whose transfers complete asynchronously.

/// A non-blocking socket whose transfers are started on its control blocks
/// and finish later: through the engine that watches it, or through
/// Check...IOStatus. A started transfer returns 0; its byte count comes
/// with its completion only. Buffers and addresses given to a transfer
/// must stay alive until it completes. Used on the thread that owns it.
///
/// A transfer that cannot start returns -1 with a system error in *err
/// (high word 0x40000001, unlike ZNRSocket's bare values): EBUSY while the
/// side runs an operation, EBADF without a descriptor, EINVAL for a bad
/// buffer. Failures of the system call itself come with the completion.
class ZNR_API ZNRAsyncSocket : public ZNRSocket, public ZNRAsyncIOWin32 {
public:
    /// TYPE_NONE, no descriptor.
    ZNRAsyncSocket() = default;
    /// Takes the descriptor out of its engine, then closes it.
    ~ZNRAsyncSocket() override;

    /// Adopts fd, which must already be non-blocking.
    std::uint64_t Open(Type_t type, ZNRNativeHandle fd) override;
    /// Creates a non-blocking socket of type.
    std::uint64_t Open(Type_t type) override;
    /// Starts connecting: 0 when under way (or already connected); the
    /// write side then completes as a connect (3) with the outcome. A
    /// refused start gives the system error at once. On Windows ConnectEx
    /// starts it, as soon as the socket's reactor watches it; addr must
    /// stay alive until the connect completes.
    std::uint64_t Connect(ZNRNetAddrInfo const* addr) override;
    /// Starts a receive into buf.
    int Recv(unsigned char* buf, int len, std::uint64_t* err) override;
    /// The sender is written into from's address buffer; Reopen() on it
    /// after the completion refreshes its texts. EINVAL for a null from.
    int RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from) override;
    /// Starts a send of buf.
    int Send(unsigned char const* buf, int len, std::uint64_t* err) override;
    /// Starts a send of buf to to; EDESTADDRREQ for a null to.
    int SendTo(unsigned char const* buf, int len, std::uint64_t* err,
               ZNRNetAddrInfo const* to) override;
    /// Takes the descriptor out of its engine (what was under way is
    /// forgotten), then closes it.
    std::uint64_t Close() override;

    /// Starts accepting the next connection into client (its descriptor,
    /// if any, is closed first; client stays the caller's); the peer's
    /// address is kept in buffer, whose capacity is raised to 64 bytes
    /// (112 for IPv6). EINVAL for a null client, library error 3 unless
    /// this is a TCP socket.
    virtual std::uint64_t Accept2(ZNRSocket* client, ZNRByteBuffer& buffer);
    /// The peer recorded by the accept that completed, into addr; EINVAL
    /// when buffer is not the one given to Accept2.
    virtual std::uint64_t GetRemoteAddrFromAccept2Buffer(ZNRByteBuffer& buffer,
                                                         ZNRNetAddrInfo* addr);
};

#endif
