#ifndef PLEXA_ZNR_DEVICE_H
#define PLEXA_ZNR_DEVICE_H

/// @file
/// The device and handler model shared by every transport, and the
/// parameter records devices are opened from.

#include <plexa/znr-export.h>
#include <plexa/znr-native-handle.h>
#include <plexa/znr-string.h>

class ZNRByteBuffer;
class ZNRNetAddrInfo;
class ZNRReactor;

/// Base of every device's parameter record; Open down-casts it to its own
/// and gives EINVAL for a record of another kind. Open copies what it
/// keeps, so the record may go as soon as Open returns.
class ZNR_API ZNRDeviceParam {
public:
    ZNRDeviceParam() = default;
    /// Member-wise copy.
    ZNRDeviceParam(ZNRDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRDeviceParam& operator=(ZNRDeviceParam const&) = default;
    virtual ~ZNRDeviceParam();
};

/// A TCP endpoint: without remote_addr it listens on local_addr. The
/// addresses are not owned; Open copies them. Time-outs are milliseconds,
/// 0 leaves the socket's default.
class ZNR_API ZNRTcpDeviceParam : public ZNRDeviceParam {
public:
    ZNRTcpDeviceParam() = default;
    /// Member-wise copy.
    ZNRTcpDeviceParam(ZNRTcpDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRTcpDeviceParam& operator=(ZNRTcpDeviceParam const&) = default;

    /// Address to bind (a listener's listen address); null: none.
    ZNRNetAddrInfo const* local_addr = nullptr;
    /// Peer to connect to; null makes the device a listener.
    ZNRNetAddrInfo const* remote_addr = nullptr;
    /// Listen backlog.
    int backlog = 10;
    /// Receive time-out of a client and of the connections a blocking
    /// listener accepts.
    unsigned int recv_timeout = 0;
    /// Send time-out, applied like recv_timeout.
    unsigned int send_timeout = 0;
    /// Puts the socket in non-blocking mode.
    bool non_block = false;
    /// An IPv6 socket instead of IPv4.
    bool ipv6 = false;
};

/// A UDP endpoint. The address is not owned; Open copies it. Time-outs
/// are milliseconds, 0 leaves the socket's default.
class ZNR_API ZNRUdpDeviceParam : public ZNRDeviceParam {
public:
    ZNRUdpDeviceParam() = default;
    /// Member-wise copy.
    ZNRUdpDeviceParam(ZNRUdpDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRUdpDeviceParam& operator=(ZNRUdpDeviceParam const&) = default;

    /// Address to bind; null: none.
    ZNRNetAddrInfo const* local_addr = nullptr;
    /// Receive time-out.
    unsigned int recv_timeout = 0;
    /// Send time-out.
    unsigned int send_timeout = 0;
    /// Puts the socket in non-blocking mode.
    bool non_block = false;
    /// An IPv6 socket instead of IPv4.
    bool ipv6 = false;
};

/// A descriptor that the device adopts (and later closes).
class ZNR_API ZNRUnknownDeviceParam : public ZNRDeviceParam {
public:
    ZNRUnknownDeviceParam() = default;
    /// Member-wise copy.
    ZNRUnknownDeviceParam(ZNRUnknownDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRUnknownDeviceParam& operator=(ZNRUnknownDeviceParam const&) = default;

    /// The descriptor handed over; the device owns it from a successful Open.
    ZNRNativeHandle fd = ZNRNoHandle();
};

/// The parameter record of ZNRFakeDevice: nothing to set.
class ZNR_API ZNRFakeDeviceParam : public ZNRDeviceParam {
public:
    ZNRFakeDeviceParam() = default;
    /// Member-wise copy.
    ZNRFakeDeviceParam(ZNRFakeDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRFakeDeviceParam& operator=(ZNRFakeDeviceParam const&) = default;
};

/// A local stream pipe: the server creates name, the client connects to it.
class ZNR_API ZNRAsyncPipeDeviceParam : public ZNRDeviceParam {
public:
    ZNRAsyncPipeDeviceParam() = default;
    /// Member-wise copy.
    ZNRAsyncPipeDeviceParam(ZNRAsyncPipeDeviceParam const&) = default;
    /// Member-wise assignment.
    ZNRAsyncPipeDeviceParam& operator=(ZNRAsyncPipeDeviceParam const&) = default;

    /// The pipe's full name, used as given by server and client; empty:
    /// Open fails with EINVAL.
    ZNRString name;
    /// True: create the pipe; false: connect to an existing one.
    bool is_server = false;
    /// Not read.
    std::uint32_t reserved = 0;
    /// A server's inbound buffer on Windows; elsewhere the system sizes it.
    unsigned int in_buffer_size = 512;
    /// A server's outbound buffer on Windows; elsewhere the system sizes it.
    unsigned int out_buffer_size = 512;
    /// How long a client waits for a server, in ms (0xFFFFFFFF: without limit).
    unsigned int wait_timeout = 1000;
};

/// One open communication endpoint. Failures are reported by results (false
/// or -1) with the code kept in the device (GetError); nothing throws.
/// No lock: a device is used by one thread at a time, the reactor's loop
/// thread once it is registered. Ended with Destroy(); a registered device
/// is the reactor's, which destroys it after its handler.
class ZNR_API ZNRDevice {
public:
    /// The kind of a device; each device sets its own in its constructor,
    /// Open and Accept, and the reactor picks its completion handling by it.
    enum Type_t {
        TYPE_CLOSED = 0,         ///< a closed TCP device
        TYPE_TCP_LISTEN = 1,     ///< TCP opened without a remote address
        TYPE_TCP_ACCEPTED = 2,   ///< a connection filled by a listener's Accept
        TYPE_TCP_CLIENT = 3,     ///< TCP opened with a remote address
        TYPE_UDP = 4,            ///< a UDP device
        TYPE_PIPE = 5,           ///< a pipe device not open
        TYPE_PIPE_SERVER = 7,    ///< a pipe server, waiting for its client
        TYPE_PIPE_CLIENT = 8,    ///< a connected pipe client
        TYPE_FAKE = 9,           ///< an in-process device without a descriptor
        TYPE_UNKNOWN = 10,       ///< a device over an adopted descriptor
    };

    /// No error, TYPE_UNKNOWN, not disused.
    ZNRDevice();
    ZNRDevice(ZNRDevice const&) = delete;
    ZNRDevice& operator=(ZNRDevice const&) = delete;

    /// Stores err as the last error; devices derive their end-of-stream
    /// state from it (see IsEof).
    virtual void SetError(std::uint64_t err);
    /// Stores 0.
    virtual void ClearError();
    /// The last error stored, 0 when none.
    virtual std::uint64_t GetError() const;
    /// The device's kind.
    virtual Type_t GetType();
    /// Sets the device's kind; devices do it themselves.
    virtual void SetType(Type_t type);
    /// Marks the device as no longer in use. Never cleared, not even by
    /// Close; the library does not act on it.
    virtual void SetDisused();
    /// Whether SetDisused was called.
    virtual bool IsDisused();
    /// True once the peer has ended the stream (library error 4 stored),
    /// and while the device is not open; never for the fake device.
    virtual bool IsEof() = 0;
    /// True while the device is not open; never for the fake device.
    virtual bool IsClosed() = 0;
    /// Opens the device from its parameter record, which stays the
    /// caller's. An open device is closed first. False on failure, with the
    /// error stored and the device closed.
    virtual bool Open(ZNRDeviceParam* param) = 0;
    /// Bytes transferred (0 when nothing can be transferred now) or -1 with
    /// the error stored. Asynchronous devices start the transfer and return
    /// 0; its count comes with the completion, and buf must stay alive
    /// until then.
    virtual int Read(unsigned char* buf, int len) = 0;
    /// Like Read, in the other direction.
    virtual int Write(unsigned char const* buf, int len) = 0;
    /// The one-line description that every log line about the device
    /// quotes; empty once closed.
    virtual ZNRString const& GetDescInfo() const = 0;
    /// The descriptor a reactor watches; -1 when there is none.
    virtual ZNRNativeHandle GetFd() = 0;
    /// Shuts the receiving direction; false with the error stored (library
    /// error 37 where the device does not support it).
    virtual bool CloseRead() = 0;
    /// Shuts the sending direction; like CloseRead.
    virtual bool CloseWrite() = 0;
    /// Releases the descriptor and the addresses; may be called any number
    /// of times.
    virtual bool Close() = 0;
    /// Deletes the device (closing it). Not for a registered device: the
    /// reactor destroys those.
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRDevice();

private:
    std::uint64_t error_;
    Type_t type_;
    bool disused_;
};

/// Application data attached to a handler. The library only ever calls
/// Release(), from the handler's destructor; Release may delete the object.
class ZNR_API ZNRDeviceHandlerData {
public:
    /// A copy of the data, for the application's own use.
    virtual ZNRDeviceHandlerData* Clone() const = 0;
    /// Gives the data up; called once by the destructor of the handler
    /// that holds it, on that handler's thread.
    virtual void Release() = 0;

protected:
    ZNRDeviceHandlerData() = default;
    /// Member-wise copy.
    ZNRDeviceHandlerData(ZNRDeviceHandlerData const&) = default;
    /// Member-wise assignment.
    ZNRDeviceHandlerData& operator=(ZNRDeviceHandlerData const&) = default;
    virtual ~ZNRDeviceHandlerData();
};

/// Receives the events of one device on its reactor's loop thread; the
/// order of the calls, what each may do and how a device ends are in
/// @ref handler_life. A false result from a callback ends the device.
/// Registered with its device, the handler is the reactor's, which calls
/// Destroy() after the last callback; a failed registration leaves it
/// with the caller.
class ZNR_API ZNRDeviceHandler {
public:
    /// Takes data over (null: none); the destructor releases it.
    explicit ZNRDeviceHandler(ZNRDeviceHandlerData* data = nullptr);
    ZNRDeviceHandler(ZNRDeviceHandler const&) = delete;
    ZNRDeviceHandler& operator=(ZNRDeviceHandler const&) = delete;

    /// First call, during registration, once the device id is set.
    /// Default: true.
    virtual bool OnCreated();
    /// An accepted connection (or a pipe server's client) is ready.
    /// Default: true.
    virtual bool OnOpen();
    /// buffer holds the bytes not yet consumed; *offset (preset to 0) gets
    /// the count consumed from its front, from 0 to the buffer's size; any
    /// other value ends the device with library error 48. A listener gets
    /// (null, null) when a connection is ready to be accepted. The buffer
    /// is the reactor's, valid during the call. Default: true, nothing
    /// consumed.
    virtual bool OnData(ZNRByteBuffer const* buffer, int* offset);
    /// count bytes were written; 0 announces a connection made as a
    /// client. Default: true.
    virtual bool OnWriten(int count);
    /// The device's timeout period has passed; timer is the current tick.
    /// Default: true.
    virtual bool OnTimeout(std::uint64_t timer);
    /// The device holds an error (GetDevice()->GetError()); the device ends
    /// after this call. Default: nothing.
    virtual void OnError();
    /// The device is ending while its reactor runs; the last callback but
    /// Destroy. Default: nothing.
    virtual void OnClose();
    /// Deletes the handler; called by the reactor after the last callback.
    virtual void Destroy();

    /// The device this handler serves; null until registered. Owned by
    /// the reactor, alive as long as the handler.
    ZNRDevice const* GetDevice() const { return device_; }
    /// @copydoc GetDevice() const
    ZNRDevice* GetDevice() { return device_; }
    /// The device's id in its reactor; all ones until registered.
    std::uint64_t GetDeviceId() const { return device_id_; }
    /// The reactor driving the device (not owned); null until registered.
    ZNRReactor* GetReactor() { return reactor_; }
    /// The attached data, still owned by the handler; null when none.
    ZNRDeviceHandlerData* GetData() { return data_; }
    /// @copydoc GetData()
    ZNRDeviceHandlerData const* GetData() const { return data_; }
    /// Gives the data up without releasing it: the caller takes it over.
    void ResetData() { data_ = nullptr; }

    /// Filled by the reactor when it registers the device, before
    /// OnCreated; not for host code.
    void SetDevice(ZNRDevice* device) { device_ = device; }
    /// @copydoc SetDevice
    void SetDeviceId(std::uint64_t id) { device_id_ = id; }
    /// @copydoc SetDevice
    void SetReactor(ZNRReactor* reactor) { reactor_ = reactor; }

protected:
    /// Releases the data, if any.
    virtual ~ZNRDeviceHandler();

private:
    ZNRDevice* device_;
    std::uint64_t device_id_;
    ZNRReactor* reactor_;
    ZNRDeviceHandlerData* data_;
};

#endif
