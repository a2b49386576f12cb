#ifndef PLEXA_ZNR_DEVICE_H
#define PLEXA_ZNR_DEVICE_H

#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

class ZNRByteBuffer;
class ZNRNetAddrInfo;
class ZNRReactor;

// Base of every device's parameter record; Open down-casts it to its own.
class ZNR_API ZNRDeviceParam {
public:
    ZNRDeviceParam() = default;
    ZNRDeviceParam(ZNRDeviceParam const&) = default;
    ZNRDeviceParam& operator=(ZNRDeviceParam const&) = default;
    virtual ~ZNRDeviceParam();
};

// A TCP endpoint: without remote_addr it listens on local_addr. The
// addresses are not owned; Open copies them. Time-outs are milliseconds,
// 0 leaves the socket's default.
class ZNR_API ZNRTcpDeviceParam : public ZNRDeviceParam {
public:
    ZNRTcpDeviceParam() = default;
    ZNRTcpDeviceParam(ZNRTcpDeviceParam const&) = default;
    ZNRTcpDeviceParam& operator=(ZNRTcpDeviceParam const&) = default;

    ZNRNetAddrInfo const* local_addr = nullptr;
    ZNRNetAddrInfo const* remote_addr = nullptr;
    int backlog = 10;
    unsigned int recv_timeout = 0;
    unsigned int send_timeout = 0;
    bool non_block = false;
    bool ipv6 = false;
};

class ZNR_API ZNRUdpDeviceParam : public ZNRDeviceParam {
public:
    ZNRUdpDeviceParam() = default;
    ZNRUdpDeviceParam(ZNRUdpDeviceParam const&) = default;
    ZNRUdpDeviceParam& operator=(ZNRUdpDeviceParam const&) = default;

    ZNRNetAddrInfo const* local_addr = nullptr;
    unsigned int recv_timeout = 0;
    unsigned int send_timeout = 0;
    bool non_block = false;
    bool ipv6 = false;
};

// A descriptor that the device adopts (and later closes).
class ZNR_API ZNRUnknownDeviceParam : public ZNRDeviceParam {
public:
    ZNRUnknownDeviceParam() = default;
    ZNRUnknownDeviceParam(ZNRUnknownDeviceParam const&) = default;
    ZNRUnknownDeviceParam& operator=(ZNRUnknownDeviceParam const&) = default;

    int fd = -1;
};

class ZNR_API ZNRFakeDeviceParam : public ZNRDeviceParam {
public:
    ZNRFakeDeviceParam() = default;
    ZNRFakeDeviceParam(ZNRFakeDeviceParam const&) = default;
    ZNRFakeDeviceParam& operator=(ZNRFakeDeviceParam const&) = default;
};

// A local stream pipe: the server creates name, the client connects to it.
class ZNR_API ZNRAsyncPipeDeviceParam : public ZNRDeviceParam {
public:
    ZNRAsyncPipeDeviceParam() = default;
    ZNRAsyncPipeDeviceParam(ZNRAsyncPipeDeviceParam const&) = default;
    ZNRAsyncPipeDeviceParam& operator=(ZNRAsyncPipeDeviceParam const&) = default;

    ZNRString name;
    bool is_server = false;
    std::uint32_t reserved = 0;
    unsigned int in_buffer_size = 512;
    unsigned int out_buffer_size = 512;
    unsigned int wait_timeout = 1000;
};

// One open communication endpoint. Failures are reported by results (false
// or -1) with the code kept in the device (GetError). Ended with Destroy().
class ZNR_API ZNRDevice {
public:
    enum Type_t {
        TYPE_CLOSED = 0,
        TYPE_TCP_LISTEN = 1,
        TYPE_TCP_ACCEPTED = 2,
        TYPE_TCP_CLIENT = 3,
        TYPE_UDP = 4,
        TYPE_PIPE = 5,
        TYPE_PIPE_SERVER = 7,
        TYPE_PIPE_CLIENT = 8,
        TYPE_FAKE = 9,
        TYPE_UNKNOWN = 10,
    };

    ZNRDevice();
    ZNRDevice(ZNRDevice const&) = delete;
    ZNRDevice& operator=(ZNRDevice const&) = delete;

    virtual void SetError(std::uint64_t err);
    virtual void ClearError();
    virtual std::uint64_t GetError() const;
    virtual Type_t GetType();
    virtual void SetType(Type_t type);
    virtual void SetDisused();
    virtual bool IsDisused();
    virtual bool IsEof() = 0;
    virtual bool IsClosed() = 0;
    virtual bool Open(ZNRDeviceParam* param) = 0;
    // Bytes transferred (0 when nothing can be transferred now) or -1.
    virtual int Read(unsigned char* buf, int len) = 0;
    virtual int Write(unsigned char const* buf, int len) = 0;
    virtual ZNRString const& GetDescInfo() const = 0;
    // The descriptor a reactor watches; -1 when there is none.
    virtual int GetFd() = 0;
    virtual bool CloseRead() = 0;
    virtual bool CloseWrite() = 0;
    virtual bool Close() = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRDevice();

private:
    std::uint64_t error_;
    Type_t type_;
    bool disused_;
};

// Application data attached to a handler. The library only ever calls
// Release(), from the handler's destructor; Release may delete the object.
class ZNR_API ZNRDeviceHandlerData {
public:
    virtual ZNRDeviceHandlerData* Clone() const = 0;
    virtual void Release() = 0;

protected:
    ZNRDeviceHandlerData() = default;
    ZNRDeviceHandlerData(ZNRDeviceHandlerData const&) = default;
    ZNRDeviceHandlerData& operator=(ZNRDeviceHandlerData const&) = default;
    virtual ~ZNRDeviceHandlerData();
};

// Receives the events of one device on its reactor's thread. A false result
// from a callback ends the device.
class ZNR_API ZNRDeviceHandler {
public:
    explicit ZNRDeviceHandler(ZNRDeviceHandlerData* data = nullptr);
    ZNRDeviceHandler(ZNRDeviceHandler const&) = delete;
    ZNRDeviceHandler& operator=(ZNRDeviceHandler const&) = delete;

    virtual bool OnCreated();
    virtual bool OnOpen();
    // buffer holds the bytes not yet consumed; *offset (preset to 0) gets
    // the count consumed from its front. A listener gets (null, null) when
    // a connection is ready to be accepted.
    virtual bool OnData(ZNRByteBuffer const* buffer, int* offset);
    virtual bool OnWriten(int count);
    virtual bool OnTimeout(std::uint64_t timer);
    virtual void OnError();
    virtual void OnClose();
    virtual void Destroy();

    ZNRDevice const* GetDevice() const { return device_; }
    ZNRDevice* GetDevice() { return device_; }
    std::uint64_t GetDeviceId() const { return device_id_; }
    ZNRReactor* GetReactor() { return reactor_; }
    ZNRDeviceHandlerData* GetData() { return data_; }
    ZNRDeviceHandlerData const* GetData() const { return data_; }
    // Gives the data up without releasing it: the caller takes it over.
    void ResetData() { data_ = nullptr; }

    // Filled by the reactor when it registers the device.
    void SetDevice(ZNRDevice* device) { device_ = device; }
    void SetDeviceId(std::uint64_t id) { device_id_ = id; }
    void SetReactor(ZNRReactor* reactor) { reactor_ = reactor; }

protected:
    virtual ~ZNRDeviceHandler();

private:
    ZNRDevice* device_;
    std::uint64_t device_id_;
    ZNRReactor* reactor_;
    ZNRDeviceHandlerData* data_;
};

#endif
