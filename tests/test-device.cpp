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

TEST(DeviceHandler, DataRelease) {
    // Released exactly once, even by data that deletes itself on Release.
    int releases = 0;
    ZNRDeviceHandler* h = new ZNRDeviceHandler(new CountingData(&releases, true));
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
