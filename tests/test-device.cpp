#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <string>

namespace {

// Counts releases; deletes itself on Release when asked to, as some hosts do.
class CountingData : public ZNRDeviceHandlerData {
public:
    CountingData(int* releases, bool self_delete) : releases_(releases), self_delete_(self_delete) {}
    ZNRDeviceHandlerData* Clone() const override { return new CountingData(*this); }
    void Release() override {
        ++*releases_;
        if (self_delete_) delete this;
    }
    ~CountingData() override {}

private:
    int* releases_;
    bool self_delete_;
};

class PlainHandler : public ZNRDeviceHandler {
public:
    using ZNRDeviceHandler::ZNRDeviceHandler;
};

// The smallest concrete device, to reach the base's own state.
class BareDevice : public ZNRDevice {
public:
    bool IsEof() override { return false; }
    bool IsClosed() override { return false; }
    bool Open(ZNRDeviceParam*) override { return true; }
    int Read(unsigned char*, int) override { return 0; }
    int Write(unsigned char const*, int) override { return 0; }
    ZNRString const& GetDescInfo() const override { return desc_; }
    int GetFd() override { return -1; }
    bool CloseRead() override { return false; }
    bool CloseWrite() override { return false; }
    bool Close() override { return true; }
    void Destroy() override { delete this; }

private:
    ZNRString desc_;
};

}  // namespace

TEST(DeviceHandler, DefaultsAndRegistrationFields) {
    ZNRDeviceHandler* h = new PlainHandler();
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, h->GetDeviceId());
    EXPECT_EQ(nullptr, h->GetDevice());
    EXPECT_EQ(nullptr, h->GetReactor());
    EXPECT_EQ(nullptr, h->GetData());

    // Default callbacks accept everything and consume nothing.
    EXPECT_TRUE(h->OnCreated());
    EXPECT_TRUE(h->OnOpen());
    int offset = 0;
    EXPECT_TRUE(h->OnData(nullptr, &offset));
    EXPECT_EQ(0, offset);
    EXPECT_TRUE(h->OnData(nullptr, nullptr));
    EXPECT_TRUE(h->OnWriten(-1));
    EXPECT_TRUE(h->OnTimeout(0xFFFFFFFFFFFFFFFFULL));
    h->OnError();
    h->OnClose();

    ZNRDevice* device = new BareDevice();
    h->SetDevice(device);
    h->SetDeviceId(7);
    EXPECT_EQ(device, h->GetDevice());
    EXPECT_EQ(device, static_cast<ZNRDeviceHandler const*>(h)->GetDevice());
    EXPECT_EQ(7u, h->GetDeviceId());
    device->Destroy();
    h->Destroy();
}

TEST(DeviceHandler, DataIsReleasedOnceUnlessTakenOver) {
    int releases = 0;
    ZNRDeviceHandler* h = new PlainHandler(new CountingData(&releases, true));
    ASSERT_NE(nullptr, h->GetData());
    h->Destroy();
    EXPECT_EQ(1, releases);

    // The caller takes the data over: the handler does not release it.
    releases = 0;
    auto* data = new CountingData(&releases, false);
    h = new PlainHandler(data);
    EXPECT_EQ(data, static_cast<ZNRDeviceHandler const*>(h)->GetData());
    h->ResetData();
    EXPECT_EQ(nullptr, h->GetData());
    h->Destroy();
    EXPECT_EQ(0, releases);

    delete data;
}

TEST(Device, BaseState) {
    ZNRDevice* d = new BareDevice();
    EXPECT_EQ(ZNRDevice::TYPE_UNKNOWN, d->GetType());
    EXPECT_EQ(0u, d->GetError());
    EXPECT_FALSE(d->IsDisused());
    d->SetError(0x8000000100000004ULL);
    EXPECT_EQ(0x8000000100000004ULL, d->GetError());
    d->ClearError();
    EXPECT_EQ(0u, d->GetError());
    d->SetDisused();
    d->SetType(ZNRDevice::TYPE_TCP_CLIENT);
    d->Close();
    EXPECT_TRUE(d->IsDisused());
    EXPECT_EQ(ZNRDevice::TYPE_TCP_CLIENT, d->GetType());
    d->Destroy();
}

TEST(DeviceParam, DefaultsCopiesAndDownCasts) {
    ZNRTcpDeviceParam tcp;
    EXPECT_EQ(nullptr, tcp.local_addr);
    EXPECT_EQ(nullptr, tcp.remote_addr);
    EXPECT_EQ(10, tcp.backlog);
    EXPECT_EQ(0u, tcp.recv_timeout);
    EXPECT_EQ(0u, tcp.send_timeout);
    EXPECT_FALSE(tcp.non_block);
    EXPECT_FALSE(tcp.ipv6);

    ZNRAsyncPipeDeviceParam pipe;
    EXPECT_TRUE(pipe.name.empty());
    EXPECT_FALSE(pipe.is_server);
    EXPECT_EQ(0u, pipe.reserved);
    EXPECT_EQ(512u, pipe.in_buffer_size);
    EXPECT_EQ(512u, pipe.out_buffer_size);
    EXPECT_EQ(1000u, pipe.wait_timeout);

    // Copies are member-wise and independent.
    ZNRNetAddrInfo addr;
    tcp.remote_addr = &addr;
    tcp.backlog = 3;
    tcp.ipv6 = true;
    ZNRTcpDeviceParam copy(tcp);
    tcp.backlog = 4;
    pipe.name = ZNRString("/tmp/plexa-pipe");
    ZNRAsyncPipeDeviceParam pipe_copy;
    pipe_copy = pipe;
    pipe.name = ZNRString("other");
    EXPECT_EQ("/tmp/plexa-pipe", pipe_copy.name.ToStdCStr());
    EXPECT_EQ(&addr, copy.remote_addr);
    EXPECT_EQ(3, copy.backlog);
    EXPECT_TRUE(copy.ipv6);

    // Every Open receives the base record and finds its own by down-cast.
    ZNRUnknownDeviceParam unknown;
    unknown.fd = 12;
    ZNRDeviceParam* base = &unknown;
    EXPECT_EQ(nullptr, dynamic_cast<ZNRTcpDeviceParam*>(base));
    ASSERT_NE(nullptr, dynamic_cast<ZNRUnknownDeviceParam*>(base));
    EXPECT_EQ(12, dynamic_cast<ZNRUnknownDeviceParam*>(base)->fd);
}
