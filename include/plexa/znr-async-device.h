#ifndef PLEXA_ZNR_ASYNC_DEVICE_H
#define PLEXA_ZNR_ASYNC_DEVICE_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-blocking-device.h>
#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-export.h>

class ZNRAsyncSocket;

// The devices a reactor drives: each starts an operation on its read or
// write control block and returns at once; the operation completes
// through the engine that watches GetFd(). All calls belong to the thread
// that owns the device (the reactor's loop thread once registered).

// TCP over a non-blocking socket. Its control blocks are its socket's.
// A listener starts accepting with BeginAccept; once an accept completed,
// Accept(client) hands the new connection to a client device.
class ZNR_API ZNRAsyncTcpDevice : public ZNRTcpDevice, public ZNRAsyncIOWin32 {
public:
    ZNRAsyncTcpDevice();

    bool Open(ZNRDeviceParam* param) override;
    bool Accept(ZNRDevice* client) override;
    bool Close() override;
    void Destroy() override;
    ZNRAsyncIOCB* GetReadIOCB() override;
    ZNRAsyncIOCB* GetWriteIOCB() override;

    virtual bool BeginAccept();

protected:
    ~ZNRAsyncTcpDevice() override;
    ZNRSocket* OnCreateSocket() override;

private:
    ZNRAsyncSocket* async_socket_;
    ZNRAsyncSocket* accept_socket_;
    ZNRByteBuffer accept_buffer_;
};

// UDP over a non-blocking socket. Read starts receiving one datagram
// (keeping the blocking device's result: -1, with 0 in GetError() once
// started); after its completion UpdateLastRecvPeerAddr makes the sender
// readable through GetLastRecvPeerAddr().
class ZNR_API ZNRAsyncUdpDevice : public ZNRUdpDevice, public ZNRAsyncIOWin32 {
public:
    ZNRAsyncUdpDevice() = default;

    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    bool Close() override;
    void Destroy() override;
    ZNRAsyncIOCB* GetReadIOCB() override;
    ZNRAsyncIOCB* GetWriteIOCB() override;

    virtual bool UpdateLastRecvPeerAddr();

protected:
    ~ZNRAsyncUdpDevice() override;
    ZNRSocket* OnCreateSocket() override;

private:
    ZNRAsyncSocket* async_socket_ = nullptr;
};

// Any pollable descriptor (pipes, terminals, eventfds), switched to
// non-blocking mode by Open. Read and Write start a transfer and return 0,
// or -1 with the error kept; the control blocks' operation codes are left
// as they were, as hosts of this device expect.
class ZNR_API ZNRAsyncUnknownDevice : public ZNRUnknownDevice, public ZNRAsyncIOWin32 {
public:
    ZNRAsyncUnknownDevice() = default;

    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRAsyncUnknownDevice() override;
};

#endif
