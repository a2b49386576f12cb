#ifndef PLEXA_ZNR_ASYNC_PIPE_DEVICE_H
#define PLEXA_ZNR_ASYNC_PIPE_DEVICE_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-device.h>
#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

/// @file
/// The local named pipe device.

/// A local named pipe, named as given. On Linux it is a stream socket of
/// the local domain. A name that starts with `\\.\pipe\` lives in the
/// abstract namespace and leaves nothing on disk; any other name is a
/// file-system path, created by the first server and removed by the last.
///
/// A server listens from Open on, so a client may connect before
/// BeginAccept; each server device takes one client, and several server
/// devices may serve one name at once, as several pipe instances do. The
/// accept completes on the read side (operation 0) and the connection then
/// replaces the listening instance under the same descriptor watch.
/// A client that finds no server waits up to the parameter's wait timeout
/// (0xFFFFFFFF: without limit). Linux leaves the buffer sizes to the system.
///
/// On Windows it is a named pipe, the name a full pipe path: each server
/// device is an instance that everyone may connect to, with the
/// parameter's buffer sizes; a client waits only while every instance of
/// an existing pipe is busy (a name nobody serves fails at once).
/// All calls belong to the thread that owns the device.
class ZNR_API ZNRAsyncPipeDevice : public ZNRDevice, public ZNRAsyncIOWin32 {
public:
    /// Closed, TYPE_PIPE.
    ZNRAsyncPipeDevice();

    /// eof also for the low words 38 and 109 (end of file, broken pipe),
    /// whatever the high word, and for EPIPE and ECONNRESET.
    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    /// Creates (server) or connects to (client) the pipe named in a
    /// ZNRAsyncPipeDeviceParam. False with the error stored: EINVAL for
    /// another record or an empty name, the system error (errno) of the
    /// listen or connect otherwise.
    bool Open(ZNRDeviceParam* param) override;
    /// Start a transfer: 0, or -1 with the error kept (EBUSY while the
    /// side runs one, EBADF when not open).
    int Read(unsigned char* buf, int len) override;
    /// @copydoc Read
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    ZNRNativeHandle GetFd() override { return GetReadIOCB()->fd; }
    /// Not supported: library error 37.
    bool CloseRead() override;
    /// Not supported: library error 37.
    bool CloseWrite() override;
    /// Closes the descriptor (a server gives its name up) and sets the
    /// type back to TYPE_PIPE; true every time.
    bool Close() override;
    void Destroy() override;

    /// Starts waiting for a server's client; it completes on the read side
    /// as OP_ACCEPT. False with the error stored: EINVAL unless this is an
    /// open server, EBUSY while a wait is pending; on Windows 535
    /// (ERROR_PIPE_CONNECTED) when the client connected first, whose accept
    /// completes all the same. Once registered, call it on the reactor's
    /// loop thread.
    virtual bool BeginAccept();

    /// The pipe's name as given to Open.
    ZNRString const& GetName() const { return name_; }

protected:
    ~ZNRAsyncPipeDevice() override;

private:
    bool eof_;
    bool closed_;
    ZNRString desc_;
    bool is_server_;
    ZNRString name_;
};

#endif
