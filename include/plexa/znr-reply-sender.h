#ifndef PLEXA_ZNR_REPLY_SENDER_H
#define PLEXA_ZNR_REPLY_SENDER_H

#include <plexa/znr-export.h>
#include <plexa/znr-reactor-mgr.h>

#include <cstdint>

class ZNRDataSender;
class ZNRMarshallable;
struct ZNREntityRequest;

/// @file
/// Sending replies to one device through a reactor manager.

/// Sends what a ZNRDataSender built to one device through a reactor
/// manager's SendData. Any thread: from another thread than the device's
/// loop the manager copies the bytes across. Errors are SendData's
/// (library error 30 for an unknown reactor, 8 past the device's send
/// maximum, 38 for an unknown device on its loop thread).
class ZNR_API ZNRReplySender {
public:
    /// A null manager is the process-wide one; mgr is not owned and must
    /// outlive the sender.
    ZNRReplySender(std::uint64_t reactor_id, std::uint64_t device_id, ZNRReactorMgr* mgr = nullptr);
    /// Answers the device a request came from.
    explicit ZNRReplySender(ZNREntityRequest const& request, ZNRReactorMgr* mgr = nullptr);

    /// Sends the sender's bytes (copied: sender stays the caller's), then
    /// rewinds it (byte order kept) for the next reply. An empty sender
    /// sends nothing and returns 0, since a send of no bytes would close
    /// the device. On error the bytes stay.
    std::uint64_t Send(ZNRDataSender* sender);
    /// Builds one entity frame, little-endian, and sends it; the builder's
    /// error (a frame too large for the format, a compression failure) or
    /// Send's.
    std::uint64_t SendEntity(unsigned int uri, ZNRMarshallable& entity, unsigned short compress_flag);
    /// Asks the reactor to close the device (a send of no bytes).
    std::uint64_t Close();

private:
    ZNRReactorMgr* mgr_;
    std::uint64_t reactor_id_;
    std::uint64_t device_id_;
};

#endif
