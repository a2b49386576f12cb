#include <plexa/znr-reply-sender.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-data-sender.h>
#include <plexa/znr-entity-device-handler.h>
#include <plexa/znr-pack.h>
#include <plexa/znr-trans-message.h>

ZNRReplySender::ZNRReplySender(std::uint64_t reactor_id, std::uint64_t device_id, ZNRReactorMgr* mgr)
    : mgr_(mgr != nullptr ? mgr : ZNRSingleton<ZNRReactorMgr>::Instance()),
      reactor_id_(reactor_id),
      device_id_(device_id) {}

ZNRReplySender::ZNRReplySender(ZNREntityRequest const& request, ZNRReactorMgr* mgr)
    : ZNRReplySender(request.reactor_id, request.device_id, mgr) {}

std::uint64_t ZNRReplySender::Send(ZNRDataSender* sender) {
    ZNRByteBuffer const* const bytes = sender->GetBuffer();
    if (bytes->GetDataCount() == 0) return 0;
    std::uint64_t const error = mgr_->SendData(reactor_id_, device_id_, bytes->GetData(),
                                               static_cast<int>(bytes->GetDataCount()));
    if (error == 0) sender->GetPack()->Rewind(sender->GetPack()->Bigendian());
    return error;
}

std::uint64_t ZNRReplySender::SendEntity(unsigned int uri, ZNRMarshallable& entity,
                                         unsigned short compress_flag) {
    // Room for the largest frame, so that a reply too big for the frame
    // fails with an error instead of being dropped by the sender.
    ZNRDataSender sender(false, static_cast<int>(ZNRTransMessage::MAX_LENGTH + ZNRTransMessage::HEADER_SIZE));
    std::uint64_t const error = sender.CreateByEntityProtocol(uri, entity, compress_flag);
    return error != 0 ? error : Send(&sender);
}

std::uint64_t ZNRReplySender::Close() { return mgr_->SendData(reactor_id_, device_id_, nullptr, 0); }
