#ifndef PLEXA_ZNR_BLOCKING_DEVICE_H
#define PLEXA_ZNR_BLOCKING_DEVICE_H

#include <plexa/znr-device.h>
#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

class ZNRNetAddrInfo;
class ZNRSocket;

/// @file
/// Devices over blocking (or plainly non-blocking) descriptors: TCP, UDP,
/// any adopted descriptor, an in-process fake, and an anonymous pipe pair.

/// A listening TCP endpoint (Open without a remote address), a client
/// (Open, then Connect) or an accepted connection (filled by a listener's
/// Accept). Closed and at end of stream until opened. Owning thread only.
///
/// Transfers return the count, 0 when nothing can be transferred now (a
/// non-blocking socket), or -1 with the error stored: library error 4 when
/// the peer ended the stream, the bare errno value (high word 0) for a
/// failed system call, EBADF when the device is not open.
class ZNR_API ZNRTcpDevice : public ZNRDevice {
public:
    ZNRTcpDevice();

    /// eof follows the stored code: set for library error 4, else cleared.
    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    /// An accepted connection's is made when first asked for.
    ZNRString const& GetDescInfo() const override;
    ZNRNativeHandle GetFd() override;
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

    /// Connects a client to its remote address: true when connected or
    /// when the connection is in progress (EINPROGRESS); false with the
    /// error stored (EBADF when not open).
    virtual bool Connect();
    /// Takes the next pending connection into client (a closed or reusable
    /// ZNRTcpDevice other than this one, closed first), applying the
    /// listener's time-outs. A failure is stored on this device (EINVAL for
    /// a client of another kind, EBADF when not open) and client is left
    /// closed; client stays the caller's either way.
    virtual bool Accept(ZNRDevice* client);
    /// The device's socket, owned by the device; null when closed.
    virtual ZNRSocket* GetSocket();
    /// The bound address, asked from the system when none was given or when
    /// its port was 0. Owned by the device, valid until Close. Null with
    /// *err set on failure (EBADF when not open).
    virtual ZNRNetAddrInfo const* GetBindAddr(std::uint64_t* err);
    /// The peer (a client's remote address or an accepted connection's
    /// peer), owned by the device; null for a listener or a closed device.
    virtual ZNRNetAddrInfo const* GetRemoteAddr() const;

protected:
    ~ZNRTcpDevice() override;
    /// Makes the socket Open and Accept use; the device owns it.
    virtual ZNRSocket* OnCreateSocket();
    /// Opens this device as the connection to remote_addr_ just accepted.
    void MarkAccepted();

    // Open to the asynchronous devices built on this one.
    /// The socket, owned; null when closed.
    ZNRSocket* socket_;
    /// Not open.
    bool closed_;
    /// At end of stream.
    bool eof_;
    /// Copy of the bound address, owned; null when none.
    ZNRNetAddrInfo* local_addr_;
    /// Copy of the peer's address, owned; null when none.
    ZNRNetAddrInfo* remote_addr_;
    /// The description; an accepted connection's is made on first use.
    mutable ZNRString desc_;
    /// Receive time-out (ms) for the connections a listener accepts.
    unsigned int recv_timeout_;
    /// Send time-out (ms) for the connections a listener accepts.
    unsigned int send_timeout_;
};

/// A UDP endpoint. Read receives one datagram and, as hosts of this device
/// rely on, always returns -1 and leaves the datagram's length (or -1) in
/// GetError(); the sender is then GetLastRecvPeerAddr(). Write sends to the
/// address given by SetNextSendPeerAddr: the count, 0 when the socket
/// would block, or -1 with the error stored (library error 6 without a
/// destination, the bare errno value, EBADF when not open). Owning thread
/// only.
class ZNR_API ZNRUdpDevice : public ZNRDevice {
public:
    ZNRUdpDevice();

    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    ZNRNativeHandle GetFd() override;
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

    /// The sender of the last datagram, owned by the device; null before
    /// the first Read or SetNextSendPeerAddr, and after Close.
    virtual ZNRNetAddrInfo const* GetLastRecvPeerAddr() const;
    /// Copies addr (which stays the caller's) as the destination of the
    /// following writes; null forgets it.
    virtual void SetNextSendPeerAddr(ZNRNetAddrInfo const* addr);
    /// The destination of writes, owned by the device; null when none.
    virtual ZNRNetAddrInfo const* GetLastSendPeerAddr() const;
    /// As ZNRTcpDevice::GetBindAddr.
    virtual ZNRNetAddrInfo const* GetBindAddr(std::uint64_t* err);

protected:
    ~ZNRUdpDevice() override;
    /// Makes the socket Open uses; the device owns it.
    virtual ZNRSocket* OnCreateSocket();

    // Open to the asynchronous devices built on this one.
    /// The socket, owned; null when closed.
    ZNRSocket* socket_;
    /// Not open.
    bool closed_;
    /// At end of stream.
    bool eof_;
    /// Copy of the bound address, owned; null when none.
    ZNRNetAddrInfo* local_addr_;
    /// Sender of the last datagram, owned.
    ZNRNetAddrInfo* last_recv_peer_;
    /// Destination of writes, owned.
    ZNRNetAddrInfo* last_send_peer_;
    /// The description.
    ZNRString desc_;
};

/// Adopts any descriptor (and closes it on Close). Transfers return the
/// count, 0 when the descriptor would block, or -1 with the error stored:
/// library error 4 when a read finds the end of the data, EINVAL for a bad
/// buffer, the system error (errno) otherwise. Owning thread only.
class ZNR_API ZNRUnknownDevice : public ZNRDevice {
public:
    ZNRUnknownDevice();

    /// Sets eof for library error 4 and never clears it.
    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    ZNRNativeHandle GetFd() override { return fd_; }
    /// Not supported: library error 37.
    bool CloseRead() override;
    /// Not supported: library error 37.
    bool CloseWrite() override;
    /// Closes the descriptor; false with its errno stored, the descriptor
    /// forgotten all the same.
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRUnknownDevice() override;

    // Open to the asynchronous devices built on this one.
    /// Not open.
    bool closed_;
    /// At end of data.
    bool eof_;
    /// The adopted descriptor, owned; -1 when closed.
    ZNRNativeHandle fd_;
    /// The description, "Unknown device".
    ZNRString desc_;
};

/// An in-process endpoint without a descriptor: reads fill the buffer with
/// zero bytes, writes are discarded (both report len); it is never closed
/// nor at its end. Registered with a reactor, what is sent to it goes
/// straight to its own handler's OnData.
class ZNR_API ZNRFakeDevice : public ZNRDevice {
public:
    ZNRFakeDevice();

    bool IsEof() override { return false; }
    bool IsClosed() override { return false; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    ZNRNativeHandle GetFd() override { return ZNRNoHandle(); }
    /// Not supported: library error 37.
    bool CloseRead() override;
    /// Not supported: library error 37.
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRFakeDevice() override;

private:
    ZNRString desc_;
};

/// An anonymous pipe pair whose ends child processes inherit. Not a device.
/// Owning thread only.
class ZNR_API ZNRPipe {
public:
    /// No descriptors yet: Open makes them.
    ZNRPipe();
    /// Adopts both descriptors.
    ZNRPipe(ZNRNativeHandle read_fd, ZNRNativeHandle write_fd);
    ZNRPipe(ZNRPipe const&) = delete;
    ZNRPipe& operator=(ZNRPipe const&) = delete;
    /// Closes the ends still open.
    virtual ~ZNRPipe();

    /// Creates the pair; a system error (errno) on failure. Descriptors
    /// held before are not closed.
    std::uint64_t Open();
    /// Closes the read end: EBADF when it is not open, else close's errno.
    std::uint64_t CloseRead();
    /// Closes the write end, like CloseRead.
    std::uint64_t CloseWrite();
    /// The count, or -1 with *err = the bare errno value (EINVAL for a bad
    /// buffer); a read at the end of the data gives -1 with library error
    /// 4. Writes never raise SIGPIPE. err may be null.
    int Read(unsigned char* buf, int len, std::uint64_t* err);
    /// @copydoc Read
    int Write(unsigned char const* buf, int len, std::uint64_t* err);
    /// The read end, still owned by the pipe; -1 when closed.
    ZNRNativeHandle GetReadFd() const { return read_fd_; }
    /// The write end, still owned by the pipe; -1 when closed.
    ZNRNativeHandle GetWriteFd() const { return write_fd_; }

private:
    ZNRNativeHandle read_fd_;
    ZNRNativeHandle write_fd_;
};

#endif
