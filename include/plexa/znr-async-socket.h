#ifndef PLEXA_ZNR_ASYNC_SOCKET_H
#define PLEXA_ZNR_ASYNC_SOCKET_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-export.h>
#include <plexa/znr-socket.h>

class ZNRByteBuffer;

// A non-blocking socket whose transfers are started on its control blocks
// and finish later: through the engine that watches it, or through
// Check...IOStatus. A started transfer returns 0; its byte count comes
// with its completion only. Buffers and addresses given to a transfer
// must stay alive until it completes. Used on the thread that owns it.
class ZNR_API ZNRAsyncSocket : public ZNRSocket, public ZNRAsyncIOWin32 {
public:
    ZNRAsyncSocket() = default;
    ~ZNRAsyncSocket() override;

    // Adopts fd, which must already be non-blocking.
    std::uint64_t Open(Type_t type, int fd) override;
    std::uint64_t Open(Type_t type) override;
    // Starts connecting: 0 when under way (or already connected); the
    // write side then completes as a connect (3) with the outcome.
    std::uint64_t Connect(ZNRNetAddrInfo const* addr) override;
    int Recv(unsigned char* buf, int len, std::uint64_t* err) override;
    // The sender is written into from's address buffer; Reopen() on it
    // after the completion refreshes its texts.
    int RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from) override;
    int Send(unsigned char const* buf, int len, std::uint64_t* err) override;
    int SendTo(unsigned char const* buf, int len, std::uint64_t* err,
               ZNRNetAddrInfo const* to) override;
    std::uint64_t Close() override;

    // Starts accepting the next connection into client (its descriptor,
    // if any, is closed first); the peer's address is kept in buffer,
    // whose capacity is raised to 64 bytes (112 for IPv6).
    virtual std::uint64_t Accept2(ZNRSocket* client, ZNRByteBuffer& buffer);
    // The peer recorded by the accept that completed.
    virtual std::uint64_t GetRemoteAddrFromAccept2Buffer(ZNRByteBuffer& buffer,
                                                         ZNRNetAddrInfo* addr);
};

#endif
