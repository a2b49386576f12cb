#include <plexa/znr-entity-device-handler.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-string.h>
#include <plexa/znr-trans-message.h>

ZNREntityDeviceHandler::ZNREntityDeviceHandler(ZNREntityMap const& map, std::uint64_t reactor_id,
                                               ZNRDeviceHandlerData* data)
    : ZNRDeviceHandler(data), map_(map), reactor_id_(reactor_id), dispatcher_(this), frame_(nullptr) {}

ZNREntityDeviceHandler::~ZNREntityDeviceHandler() {}

bool ZNREntityDeviceHandler::OnData(ZNRByteBuffer const* buffer, int* offset) {
    if (buffer == nullptr || offset == nullptr) return true;
    frame_ = buffer->GetData() + *offset;
    if (dispatcher_.DispatchData(buffer, offset, ZNRDataDispatcher::MODE_ENTITY)) return true;
    ZNRDevice const* const device = GetDevice();
    ZNR_LOG(ERROR, "Dispatch entity data error, close device, device id=%llu desc_info=\"%s\"",
            static_cast<unsigned long long>(GetDeviceId()),
            device != nullptr ? device->GetDescInfo().ToStdCStr().c_str() : "");
    return false;
}

bool ZNREntityDeviceHandler::Dispatcher::OnEntityDataDispatch(unsigned char const* data, int size,
                                                              bool bigendian) {
    return owner_->OnEntity(data, size, bigendian);
}

bool ZNREntityDeviceHandler::OnEntity(unsigned char const* data, int size, bool bigendian) {
    // The dispatcher hands over bodies only (inflated ones from a buffer of
    // its own), so the compression flag is read from the frame in the
    // received bytes; frames come in order and were checked by then.
    ZNREntityRequest request;
    request.handler = this;
    request.reactor_id = reactor_id_;
    request.device_id = GetDeviceId();
    request.compress_flag = static_cast<unsigned short>((frame_[1] >> 1) & 0x3);
    request.bigendian = bigendian;
    unsigned int const wire_length = static_cast<unsigned int>(frame_[2]) |
                                     (static_cast<unsigned int>(frame_[3]) << 8) |
                                     (static_cast<unsigned int>(frame_[4]) << 16);
    frame_ += ZNRTransMessage::HEADER_SIZE + wire_length;

    bool handled = false;
    if (!map_.DispatchEntity(data, size, bigendian, &handled, &request)) return false;
    if (!handled) {
        unsigned int uri = 0;
        map_.PeekUri(data, size, bigendian, &uri);
        ZNR_LOG(WARNING, "Entity not handled, service id=%u command id=%u", uri >> 16, uri & 0xFFFF);
    }
    return handled;
}
