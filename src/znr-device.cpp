#include <plexa/znr-device.h>

ZNRDeviceParam::~ZNRDeviceParam() {}

ZNRDevice::ZNRDevice() : error_(0), type_(TYPE_UNKNOWN), disused_(false) {}

ZNRDevice::~ZNRDevice() {}

void ZNRDevice::SetError(std::uint64_t err) { error_ = err; }

void ZNRDevice::ClearError() { error_ = 0; }

std::uint64_t ZNRDevice::GetError() const { return error_; }

ZNRDevice::Type_t ZNRDevice::GetType() { return type_; }

void ZNRDevice::SetType(Type_t type) { type_ = type; }

void ZNRDevice::SetDisused() { disused_ = true; }

bool ZNRDevice::IsDisused() { return disused_; }

ZNRDeviceHandlerData::~ZNRDeviceHandlerData() {}

ZNRDeviceHandler::ZNRDeviceHandler(ZNRDeviceHandlerData* data)
    : device_(nullptr), device_id_(0xFFFFFFFFFFFFFFFFULL), reactor_(nullptr), data_(data) {}

ZNRDeviceHandler::~ZNRDeviceHandler() {
    // Release may delete the data itself, so it is not touched afterwards.
    ZNRDeviceHandlerData* data = data_;
    data_ = nullptr;
    if (data != nullptr) data->Release();
}

bool ZNRDeviceHandler::OnCreated() { return true; }

bool ZNRDeviceHandler::OnOpen() { return true; }

bool ZNRDeviceHandler::OnData(ZNRByteBuffer const*, int*) { return true; }

bool ZNRDeviceHandler::OnWriten(int) { return true; }

bool ZNRDeviceHandler::OnTimeout(std::uint64_t) { return true; }

void ZNRDeviceHandler::OnError() {}

void ZNRDeviceHandler::OnClose() {}

void ZNRDeviceHandler::Destroy() { delete this; }
