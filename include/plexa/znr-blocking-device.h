#ifndef PLEXA_ZNR_BLOCKING_DEVICE_H
#define PLEXA_ZNR_BLOCKING_DEVICE_H

#include <plexa/znr-device.h>
#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

class ZNRNetAddrInfo;
class ZNRSocket;

// A listening TCP endpoint (Open without a remote address), a client
// (Open, then Connect) or an accepted connection (filled by a listener's
// Accept). Closed and at end of stream until opened.
class ZNR_API ZNRTcpDevice : public ZNRDevice {
public:
    ZNRTcpDevice();

    // eof follows the stored code: set for library error 4, else cleared.
    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    int GetFd() override;
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

    // True when connected or when the connection is in progress.
    virtual bool Connect();
    // Takes the next pending connection into client (a ZNRTcpDevice); a
    // failure is stored on this device.
    virtual bool Accept(ZNRDevice* client);
    virtual ZNRSocket* GetSocket();
    // The bound address, asked from the system when none was given or when
    // its port was 0. Null with *err set on failure.
    virtual ZNRNetAddrInfo const* GetBindAddr(std::uint64_t* err);
    virtual ZNRNetAddrInfo const* GetRemoteAddr() const;

protected:
    ~ZNRTcpDevice() override;
    virtual ZNRSocket* OnCreateSocket();
    // Opens this device as the connection to remote_addr_ just accepted.
    void MarkAccepted();

    // Open to the asynchronous devices built on this one.
    ZNRSocket* socket_;
    bool closed_;
    bool eof_;
    ZNRNetAddrInfo* local_addr_;
    ZNRNetAddrInfo* remote_addr_;
    ZNRString desc_;
    unsigned int recv_timeout_;
    unsigned int send_timeout_;
};

// A UDP endpoint. Read receives one datagram and, as hosts of this device
// rely on, always returns -1 and leaves the datagram's length (or -1) in
// GetError(); the sender is then GetLastRecvPeerAddr(). Write sends to the
// address given by SetNextSendPeerAddr.
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
    int GetFd() override;
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

    virtual ZNRNetAddrInfo const* GetLastRecvPeerAddr() const;
    // Copies addr as the destination of the following writes; null forgets it.
    virtual void SetNextSendPeerAddr(ZNRNetAddrInfo const* addr);
    virtual ZNRNetAddrInfo const* GetLastSendPeerAddr() const;
    virtual ZNRNetAddrInfo const* GetBindAddr(std::uint64_t* err);

protected:
    ~ZNRUdpDevice() override;
    virtual ZNRSocket* OnCreateSocket();

    // Open to the asynchronous devices built on this one.
    ZNRSocket* socket_;
    bool closed_;
    bool eof_;
    ZNRNetAddrInfo* local_addr_;
    ZNRNetAddrInfo* last_recv_peer_;
    ZNRNetAddrInfo* last_send_peer_;
    ZNRString desc_;
};

// Adopts any descriptor (and closes it on Close). A read that finds the end
// of the data stores library error 4 and returns -1.
class ZNR_API ZNRUnknownDevice : public ZNRDevice {
public:
    ZNRUnknownDevice();

    // Sets eof for library error 4 and never clears it.
    void SetError(std::uint64_t err) override;
    bool IsEof() override { return eof_; }
    bool IsClosed() override { return closed_; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    int GetFd() override { return fd_; }
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRUnknownDevice() override;

    // Open to the asynchronous devices built on this one.
    bool closed_;
    bool eof_;
    int fd_;
    ZNRString desc_;
};

// An in-process endpoint without a descriptor: reads give zero bytes,
// writes are discarded; it is never closed nor at its end.
class ZNR_API ZNRFakeDevice : public ZNRDevice {
public:
    ZNRFakeDevice();

    bool IsEof() override { return false; }
    bool IsClosed() override { return false; }
    bool Open(ZNRDeviceParam* param) override;
    int Read(unsigned char* buf, int len) override;
    int Write(unsigned char const* buf, int len) override;
    ZNRString const& GetDescInfo() const override { return desc_; }
    int GetFd() override { return -1; }
    bool CloseRead() override;
    bool CloseWrite() override;
    bool Close() override;
    void Destroy() override;

protected:
    ~ZNRFakeDevice() override;

private:
    ZNRString desc_;
};

// An anonymous pipe pair whose ends child processes inherit. Not a device.
class ZNR_API ZNRPipe {
public:
    ZNRPipe();
    // Adopts both descriptors.
    ZNRPipe(int read_fd, int write_fd);
    ZNRPipe(ZNRPipe const&) = delete;
    ZNRPipe& operator=(ZNRPipe const&) = delete;
    virtual ~ZNRPipe();

    // Descriptors held before are not closed.
    std::uint64_t Open();
    std::uint64_t CloseRead();
    std::uint64_t CloseWrite();
    // The count, or -1 with *err = the bare errno value; a read at the end
    // of the data gives -1 with library error 4. Writes never raise SIGPIPE.
    int Read(unsigned char* buf, int len, std::uint64_t* err);
    int Write(unsigned char const* buf, int len, std::uint64_t* err);
    int GetReadFd() const { return read_fd_; }
    int GetWriteFd() const { return write_fd_; }

private:
    int read_fd_;
    int write_fd_;
};

#endif
