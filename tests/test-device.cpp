#include <plexa/plexa.h>

#include <gtest/gtest.h>

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

private:
    int* releases_;
    bool self_delete_;
};

}  // namespace

TEST(DeviceHandler, DefaultsAndDataRelease) {
    ZNRDeviceHandler* h = new ZNRDeviceHandler();
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, h->GetDeviceId());
    EXPECT_EQ(nullptr, h->GetDevice());
    EXPECT_EQ(nullptr, h->GetReactor());
    EXPECT_EQ(nullptr, h->GetData());
    // Default callbacks accept everything and consume nothing.
    int offset = 0;
    EXPECT_TRUE(h->OnCreated() && h->OnOpen() && h->OnData(nullptr, &offset) && h->OnData(nullptr, nullptr) &&
                h->OnWriten(-1) && h->OnTimeout(0xFFFFFFFFFFFFFFFFULL));
    EXPECT_EQ(0, offset);
    h->OnError();
    h->OnClose();
    h->Destroy();

    // Released exactly once, even by data that deletes itself on Release.
    int releases = 0;
    h = new ZNRDeviceHandler(new CountingData(&releases, true));
    ASSERT_NE(nullptr, h->GetData());
    h->Destroy();
    EXPECT_EQ(1, releases);

    // The caller takes the data over: the handler does not release it.
    releases = 0;
    auto* data = new CountingData(&releases, false);
    h = new ZNRDeviceHandler(data);
    EXPECT_EQ(data, static_cast<ZNRDeviceHandler const*>(h)->GetData());
    h->ResetData();
    EXPECT_EQ(nullptr, h->GetData());
    h->Destroy();
    EXPECT_EQ(0, releases);
    delete data;
}

TEST(Device, BaseStateAndParamDefaults) {
    // The descriptor device keeps the base's type and state.
    ZNRDevice* d = new ZNRUnknownDevice();
    EXPECT_EQ(ZNRDevice::TYPE_UNKNOWN, d->GetType());
    EXPECT_EQ(0u, d->GetError());
    EXPECT_FALSE(d->IsDisused());
    d->SetError(0x8000000100000004ULL);
    EXPECT_EQ(0x8000000100000004ULL, d->GetError());
    d->ClearError();
    EXPECT_EQ(0u, d->GetError());
    d->Destroy();

    ZNRTcpDeviceParam tcp;
    EXPECT_TRUE(tcp.local_addr == nullptr && tcp.remote_addr == nullptr);
    EXPECT_EQ(10, tcp.backlog);
    EXPECT_EQ(0u, tcp.recv_timeout + tcp.send_timeout);
    EXPECT_FALSE(tcp.non_block || tcp.ipv6);
    ZNRAsyncPipeDeviceParam pipe;
    EXPECT_TRUE(pipe.name.empty());
    EXPECT_FALSE(pipe.is_server);
    EXPECT_EQ(0u, pipe.reserved);
    EXPECT_EQ(512u, pipe.in_buffer_size);
    EXPECT_EQ(512u, pipe.out_buffer_size);
    EXPECT_EQ(1000u, pipe.wait_timeout);
}
