#ifndef PLEXA_SRC_ZNR_REACTOR_IOCP_DEVICE_H
#define PLEXA_SRC_ZNR_REACTOR_IOCP_DEVICE_H

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-mem-allocator.h>
#include <plexa/znr-string.h>
#include <plexa/znr-timer.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

class ZNRAsyncIO;
class ZNRDevice;
class ZNRDeviceHandler;
class ZNRReactorIOCP;

// Gives a receive buffer the memory an engine lent for a receive as its
// block, without a copy, and never frees it: the engine takes it back
// when the read is released. Anything else comes from the heap.
class ZNRLentBlock final : public ZNRMemAllocator {
public:
    // The next Alloc hands out block.
    void Offer(unsigned char* block) { offered_ = block; }
    bool Holds(void const* p) const { return p != nullptr && p == lent_; }
    void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line) override;
    std::uint64_t Free(void* p) override;

private:
    unsigned char* offered_ = nullptr;
    unsigned char* lent_ = nullptr;
};

// Buffers waiting to be written, oldest first; empty, it holds no memory.
class ZNRSendQueue {
public:
    ZNRSendQueue() = default;
    ZNRSendQueue(ZNRSendQueue const&) = delete;
    ZNRSendQueue& operator=(ZNRSendQueue const&) = delete;
    ~ZNRSendQueue();

    bool empty() const { return head_ == items_.size(); }
    ZNRByteBuffer* front() const { return items_[head_]; }
    void push_back(ZNRByteBuffer* buffer) { items_.push_back(buffer); }
    void pop_front();

private:
    std::vector<ZNRByteBuffer*> items_;
    std::size_t head_ = 0;
};

// A device as its reactor drives it: owns the ZNRDevice (and, in the
// subclasses with one, its handler), the receive buffer and the send
// queue; posts reads and writes and turns their completions into handler
// calls. Everything here runs on the reactor's loop thread.
class ZNRReactorIOCPDeviceBase {
public:
    // handler: none for the wake-up channel's own devices.
    ZNRReactorIOCPDeviceBase(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device,
                             ZNRDeviceHandler* handler = nullptr);
    ZNRReactorIOCPDeviceBase(ZNRReactorIOCPDeviceBase const&) = delete;
    ZNRReactorIOCPDeviceBase& operator=(ZNRReactorIOCPDeviceBase const&) = delete;

    virtual std::uint64_t CloseWrite();
    // Posts one read of up to the grow size at the end of the buffer.
    virtual std::uint64_t Recv();
    virtual bool Send(unsigned char const* data, int size, std::uint64_t* error);
    // Takes the buffer, whatever the result.
    virtual bool Send(ZNRByteBuffer* buffer, std::uint64_t* error);
    virtual ZNRAsyncIO* GetAsyncIO();
    virtual void Destroy();
    // False: the reactor deletes the device.
    virtual bool OnRecvEvent(int bytes, std::uint64_t* error);
    virtual bool OnSendEvent(int bytes, std::uint64_t* error);
    virtual void OnErrorEvent(std::uint64_t const& error);
    // A failed read the device will try again by itself: it stays, and
    // its handler hears nothing.
    virtual bool RetryLater(std::uint64_t error);
    virtual bool OnTimeoutEvent(std::uint64_t now);

    // Closing: the reactor has taken it out of its table; its I/O stops and
    // its handler hears no more. At the end of the turn the handler is
    // released; the device goes once its cancelled operations are in.
    void BeginClose();
    // OnClose (while the loop runs) and Destroy for the handler; the
    // timeout check ends with it.
    void ReleaseHandler();
    bool IsClosing() const { return closing_; }
    std::uint32_t GetId() const { return id_; }
    int GetType() const;
    ZNRDevice* GetDevice() const { return device_; }
    void SetRecvBuffGrowSize(int size);
    // The maximum counts on top of one grow step, never below it.
    void SetRecvBuffMaxSize(int size);
    void SetSendBuffMaxSize(int size) { send_buff_max_size_ = size; }
    int GetSendBuffMaxSize() const { return send_buff_max_size_; }
    int GetQueuedSendBytes() const { return queued_send_bytes_.load(std::memory_order_relaxed); }
    std::atomic<int> const* GetQueuedSendBytesCounter() const { return &queued_send_bytes_; }
    ZNRString const& GetDescInfo() const;
    void SetTimeout(unsigned int timeout);
    // The device timer has ended: nothing of it is left to remove.
    void ClearTimer() { timer_ = nullptr; }
    ZNRReactorIOCP* GetReactor() const { return reactor_; }

protected:
    virtual ~ZNRReactorIOCPDeviceBase();
    // Posts a write of the oldest queued buffer.
    std::uint64_t PostSend();
    void AddQueued(int bytes) {
        queued_send_bytes_.store(GetQueuedSendBytes() + bytes, std::memory_order_relaxed);
    }
    // Drops what a write gave from the front of the queue.
    void Written(int bytes);
    void ShrinkRecvBuffer();
    // Whether reads may start without a buffer: a stream connection whose
    // engine lends receive memory.
    bool Lends() const;
    // A completed read that borrowed the engine's memory: it becomes the
    // receive buffer's block until the tail left is moved by KeepTail.
    void TakeLent();
    // Before the next read gives the lent memory back: what the handler
    // left goes to a block of the device's own; nothing left, no block.
    std::uint64_t KeepTail();
    // The bytes in a buffer of their own, the spare one when it fits.
    ZNRByteBuffer* Copy(unsigned char const* data, int size);
    // Takes a buffer that has been written.
    void Recycle(ZNRByteBuffer* buffer);
    // The reactor's timers, under its lock; DropTimer removes and destroys.
    void AddTimer(ZNRTimer* timer);
    void DropTimer(ZNRTimer* timer);

    ZNRReactorIOCP* reactor_;
    std::uint32_t id_;
    ZNRDevice* device_;
    ZNRDeviceHandler* handler_;
    ZNRAsyncIO* io_;
    ZNRTimer* timer_;
    int recv_buff_grow_size_;
    int recv_buff_max_size_;
    int send_buff_max_size_;
    ZNRLentBlock lender_;
    ZNRByteBuffer recv_buffer_;
    ZNRByteBuffer* spare_;
    // The front one is being written and belongs to its write until the
    // completion.
    ZNRSendQueue send_queue_;
    // Read by other threads' sends (under the reactor's loop-event lock),
    // written only here.
    std::atomic<int> queued_send_bytes_;
    // A write is posted; or the connection is not up yet, so sends queue.
    bool sending_;
    bool connecting_;
    // The read under way borrows the engine's memory.
    bool lending_;
    bool closing_;
    // The peer has ended its stream while sends were under way.
    bool ended_;
};

// Stream and datagram devices with a handler: the full receive and send paths.
class ZNRReactorIOCPNormalDevice : public ZNRReactorIOCPDeviceBase {
public:
    ZNRReactorIOCPNormalDevice(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device,
                               ZNRDeviceHandler* handler);

    bool Send(ZNRByteBuffer* buffer, std::uint64_t* error) override;
    void Destroy() override;
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
    bool OnSendEvent(int bytes, std::uint64_t* error) override;
    void OnErrorEvent(std::uint64_t const& error) override;
    bool OnTimeoutEvent(std::uint64_t now) override;

protected:
    ~ZNRReactorIOCPNormalDevice() override;
    // Records err on the device, tells the handler, and gives false.
    bool Fail(std::uint64_t err, std::uint64_t* error);
    // Hands the buffer to OnData and posts the next read.
    bool Deliver(std::uint64_t* error);
    // The peer's orderly close, heard once nothing is left to send.
    bool End(std::uint64_t* error);
    // The connection is up: reads start and queued sends go out.
    bool Connected(std::uint64_t* error);
};

// A listener: a completed accept is offered to the handler as
// OnData(null, null), then the next accept is started.
// A listener out of descriptors leaves its pending connections in the
// backlog and tries again on a timer, so it neither spins nor ends; it logs
// once when that starts and once when it accepts again.
class ZNRReactorIOCPTcpServerDevice : public ZNRReactorIOCPNormalDevice {
public:
    using ZNRReactorIOCPNormalDevice::ZNRReactorIOCPNormalDevice;
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
    bool RetryLater(std::uint64_t error) override;
    // From the retry timer, which ends with it; false: the device ends.
    bool RetryAccept();

protected:
    ~ZNRReactorIOCPTcpServerDevice() override;

private:
    void ArmRetry();

    ZNRTimer* retry_timer_ = nullptr;
    bool starved_ = false;
};

// A client whose connect completes on the write side with OnWriten(0).
class ZNRReactorIOCPTcpClientDevice : public ZNRReactorIOCPNormalDevice {
public:
    ZNRReactorIOCPTcpClientDevice(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device,
                                  ZNRDeviceHandler* handler);
    bool OnSendEvent(int bytes, std::uint64_t* error) override;
};

// Each datagram reaches OnData with its sender readable from the device.
class ZNRReactorIOCPUdpDevice : public ZNRReactorIOCPNormalDevice {
public:
    using ZNRReactorIOCPNormalDevice::ZNRReactorIOCPNormalDevice;
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
};

// A pipe server: the client connecting is announced with OnOpen.
class ZNRReactorIOCPPipeAcceptClientDevice : public ZNRReactorIOCPNormalDevice {
public:
    ZNRReactorIOCPPipeAcceptClientDevice(ZNRReactorIOCP* reactor, std::uint32_t id,
                                         ZNRDevice* device, ZNRDeviceHandler* handler);
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
};

// No descriptor: what is sent is handed to its own handler at once.
class ZNRReactorIOCPFakeDevice : public ZNRReactorIOCPDeviceBase {
public:
    ZNRReactorIOCPFakeDevice(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device,
                             ZNRDeviceHandler* handler);

    std::uint64_t CloseWrite() override;
    std::uint64_t Recv() override;
    bool Send(ZNRByteBuffer* buffer, std::uint64_t* error) override;
    ZNRAsyncIO* GetAsyncIO() override { return nullptr; }
    void Destroy() override;
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
    bool OnSendEvent(int bytes, std::uint64_t* error) override;
    void OnErrorEvent(std::uint64_t const& error) override;
    bool OnTimeoutEvent(std::uint64_t now) override;

protected:
    ~ZNRReactorIOCPFakeDevice() override;
};

// The read end of the wake-up channel: an eventfd counter, which a
// writer can add to at any time without blocking (a byte per event in a
// pipe or socket would block once its buffer filled). A read clears it and
// lets the reactor drain its queue.
class ZNRReactorIOCPLoopEventReadDevice : public ZNRReactorIOCPDeviceBase {
public:
    ZNRReactorIOCPLoopEventReadDevice(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRDevice* device);

    std::uint64_t Recv() override;
    bool Send(ZNRByteBuffer* buffer, std::uint64_t* error) override;
    bool OnRecvEvent(int bytes, std::uint64_t* error) override;
    void OnErrorEvent(std::uint64_t const& error) override;

private:
    std::uint64_t count_;
};

// The write end: adds to the counter; never blocks.
class ZNRReactorIOCPLoopEventWriteDevice : public ZNRReactorIOCPDeviceBase {
public:
    ZNRReactorIOCPLoopEventWriteDevice(ZNRReactorIOCP* reactor, std::uint32_t id, ZNRNativeHandle fd);

    std::uint64_t Recv() override;
    bool Send(ZNRByteBuffer* buffer, std::uint64_t* error) override;
    std::uint64_t Signal(std::uint64_t count);

protected:
    ~ZNRReactorIOCPLoopEventWriteDevice() override;

private:
    ZNRNativeHandle fd_;  // owned
};

// Runs one more accept of a listener that ran out of descriptors.
class ZNRReactorIOCPAcceptRetryTimer : public ZNRTimer {
public:
    static unsigned int const kRetryMs = 20;

    explicit ZNRReactorIOCPAcceptRetryTimer(ZNRReactorIOCPTcpServerDevice* device)
        : ZNRTimer(kRetryMs, ZNRTimer::REPEAT_FOREVER, nullptr), device_(device) {}

    bool OnExpires(std::uint64_t) override;
    void OnReset() override {}
    void OnClose() override {}
    void Destroy() override { delete this; }

private:
    ZNRReactorIOCPTcpServerDevice* device_;
};

// The repeating timeout check of one device.
class ZNRReactorIOCPDeviceTimer : public ZNRTimer {
public:
    ZNRReactorIOCPDeviceTimer(unsigned int period, ZNRReactorIOCPDeviceBase* device);

    bool OnExpires(std::uint64_t now) override;
    void OnReset() override {}
    void OnClose() override {}
    void Destroy() override { delete this; }

private:
    ZNRReactorIOCPDeviceBase* device_;
};

#endif
