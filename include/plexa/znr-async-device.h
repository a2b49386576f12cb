#ifndef PLEXA_ZNR_ASYNC_DEVICE_H
#define PLEXA_ZNR_ASYNC_DEVICE_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-blocking-device.h>
#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-export.h>

class ZNRAsyncSocket;

/// @file
/// The devices a reactor drives: each starts an operation on its read or
/// write control block and returns at once; the operation completes
/// through the engine that watches GetFd(). All calls belong to the thread
/// that owns the device (the reactor's loop thread once registered).

/// TCP over a non-blocking socket. Its control blocks are its socket's.
/// A listener starts accepting with BeginAccept; once an accept completed,
/// Accept(client) hands the new connection to a client device. Read and
/// Write start a transfer and return 0, or -1 with the error kept (EBUSY
/// while the side runs one, EBADF when not open). Owning thread only.
class ZNR_API ZNRAsyncTcpDevice : public ZNRTcpDevice, public ZNRAsyncIOWin32 {
public:
    /// Closed, like ZNRTcpDevice.
    ZNRAsyncTcpDevice();

    /// As ZNRTcpDevice::Open, over a non-blocking socket.
    bool Open(ZNRDeviceParam* param) override;
    /// Hands the connection of the accept that completed to client, a
    /// closed ZNRAsyncTcpDevice that stays the caller's (register it with
    /// a reactor). Time-outs are not applied. False with the error stored
    /// on this device: EINVAL for a client of another kind or a listener
    /// not open, EAGAIN when no accept has completed.
    bool Accept(ZNRDevice* client) override;
    /// Closes the socket and drops a prepared accept socket.
    bool Close() override;
    void Destroy() override;
    /// The socket's read control block (the device's own while closed).
    ZNRAsyncIOCB* GetReadIOCB() override;
    /// The socket's write control block (the device's own while closed).
    ZNRAsyncIOCB* GetWriteIOCB() override;

    /// Starts accepting the next connection on a listener; it completes on
    /// the read side as OP_ACCEPT. False with the error stored (EBADF when
    /// not open, EBUSY while an accept is pending). Once registered, call
    /// it on the reactor's loop thread; the reactor starts every later
    /// accept itself.
    virtual bool BeginAccept();

protected:
    ~ZNRAsyncTcpDevice() override;
    /// A ZNRAsyncSocket.
    ZNRSocket* OnCreateSocket() override;

private:
    ZNRAsyncSocket* async_socket_;
    ZNRAsyncSocket* accept_socket_;
    ZNRByteBuffer accept_buffer_;
};

/// UDP over a non-blocking socket. Read starts receiving one datagram
/// (keeping the blocking device's result: -1, with 0 in GetError() once
/// started); after its completion UpdateLastRecvPeerAddr makes the sender
/// readable through GetLastRecvPeerAddr(). Owning thread only.
class ZNR_API ZNRAsyncUdpDevice : public ZNRUdpDevice, public ZNRAsyncIOWin32 {
public:
    /// Closed, like ZNRUdpDevice.
    ZNRAsyncUdpDevice() = default;

    /// As ZNRUdpDevice::Open, over a non-blocking socket.
    bool Open(ZNRDeviceParam* param) override;
    /// Starts receiving one datagram into buf; GetError() then holds 0, or
    /// -1 when the receive could not start.
    int Read(unsigned char* buf, int len) override;
    bool Close() override;
    void Destroy() override;
    /// The socket's read control block (the device's own while closed).
    ZNRAsyncIOCB* GetReadIOCB() override;
    /// The socket's write control block (the device's own while closed).
    ZNRAsyncIOCB* GetWriteIOCB() override;

    /// After a receive completed, refreshes the texts of the sender's
    /// address; false with the error stored (EINVAL before any Read).
    virtual bool UpdateLastRecvPeerAddr();

protected:
    ~ZNRAsyncUdpDevice() override;
    /// A ZNRAsyncSocket.
    ZNRSocket* OnCreateSocket() override;

private:
    ZNRAsyncSocket* async_socket_ = nullptr;
};

/// Any pollable descriptor (pipes, terminals, eventfds), switched to
/// non-blocking mode by Open. Read and Write start a transfer and return 0,
/// or -1 with the error kept (EBUSY while the side runs one, EBADF when
/// not open, EINVAL for a bad buffer); the control blocks' operation codes
/// are left as they were, as hosts of this device expect. Owning thread
/// only.
class ZNR_API ZNRAsyncUnknownDevice : public ZNRUnknownDevice, public ZNRAsyncIOWin32 {
public:
    /// Closed, like ZNRUnknownDevice.
    ZNRAsyncUnknownDevice() = default;

    /// Adopts the descriptor and makes it non-blocking; on failure the
    /// descriptor is closed and its errno stored.
    bool Open(ZNRDeviceParam* param) override;
    /// Starts a read into buf.
    int Read(unsigned char* buf, int len) override;
    /// Starts a write of buf.
    int Write(unsigned char const* buf, int len) override;
    /// Takes the descriptor out of its engine (what was under way is
    /// forgotten), then closes it.
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRAsyncUnknownDevice() override;
};

#endif
