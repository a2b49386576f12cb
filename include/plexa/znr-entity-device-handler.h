#ifndef PLEXA_ZNR_ENTITY_DEVICE_HANDLER_H
#define PLEXA_ZNR_ENTITY_DEVICE_HANDLER_H

#include <plexa/znr-data-dispatcher.h>
#include <plexa/znr-device.h>
#include <plexa/znr-entity-map.h>
#include <plexa/znr-export.h>

#include <cstdint>

class ZNREntityDeviceHandler;

/// @file
/// A device handler that dispatches entity frames to an entity map.

/// The dispatch context an entity target gets from ZNREntityDeviceHandler:
/// where the entity came from and how its frame was made, so that the
/// target can answer in kind (see ZNRReplySender). Valid during the call.
struct ZNREntityRequest {
    /// The handler that dispatched the entity; not owned.
    ZNREntityDeviceHandler* handler;
    /// The reactor the device runs on.
    std::uint64_t reactor_id;
    /// The device the entity came from.
    std::uint64_t device_id;
    unsigned short compress_flag;  ///< of the request's frame
    /// The body's byte order.
    bool bigendian;
};

/// A connection handler for the entity protocol: cuts trans-message frames
/// from the received bytes, inflates compressed bodies and hands each entity
/// body to its own copy of an entity map, with a ZNREntityRequest as the
/// context. Unconsumed bytes wait for more data. A frame that does not
/// parse, a body without a uri, an unknown uri or a target that returns
/// false ends the device with an error logged.
///
/// Loop thread only, like every handler. The copy of the map shares the
/// targets of the original, so targets reached from several reactors must
/// be safe to call from several threads.
class ZNR_API ZNREntityDeviceHandler : public ZNRDeviceHandler {
public:
    /// Copies map (its targets are shared, not copied); reactor_id is the
    /// reactor the device will be registered with. Takes data over.
    ZNREntityDeviceHandler(ZNREntityMap const& map, std::uint64_t reactor_id,
                           ZNRDeviceHandlerData* data = nullptr);

    /// Dispatches every whole frame and consumes it; false, with "Dispatch
    /// entity data error, close device, ..." logged, ends the device.
    bool OnData(ZNRByteBuffer const* buffer, int* offset) override;

    /// The reactor id given to the constructor.
    std::uint64_t GetReactorId() const { return reactor_id_; }

protected:
    ~ZNREntityDeviceHandler() override;

private:
    class Dispatcher : public ZNRDataDispatcher {
    public:
        explicit Dispatcher(ZNREntityDeviceHandler* owner) : owner_(owner) {}

    protected:
        bool OnEntityDataDispatch(unsigned char const* data, int size, bool bigendian) override;

    private:
        ZNREntityDeviceHandler* owner_;
    };

    bool OnEntity(unsigned char const* data, int size, bool bigendian);

    ZNREntityMap map_;
    std::uint64_t reactor_id_;
    Dispatcher dispatcher_;
    unsigned char const* frame_;  // header of the frame being dispatched
};

#endif
