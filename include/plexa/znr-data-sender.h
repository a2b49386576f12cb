#ifndef PLEXA_ZNR_DATA_SENDER_H
#define PLEXA_ZNR_DATA_SENDER_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
class ZNRMarshallable;
class ZNRPack;
class ZNRString;

/// @file
/// Building outgoing packets in the protocols the dispatcher reads.

/// Builds outgoing packets in the protocols the data dispatcher reads and
/// appends each to one output buffer; sending it is the caller's business.
/// A packet that would take the output past its limit is dropped without
/// an error: callers that care compare the buffer size before and after.
/// No lock: one thread builds with a sender at a time. Nothing is logged.
class ZNR_API ZNRDataSender {
public:
    /// An empty output in the given byte order, limited to max_size bytes.
    ZNRDataSender(bool bigendian = false, int max_size = 819200);
    /// The copy is for reading and sending: its limit is 65,535 bytes.
    ZNRDataSender(ZNRDataSender const& other);
    /// Copies the bytes and the byte order; the limit stays this sender's.
    ZNRDataSender& operator=(ZNRDataSender const& other);
    virtual ~ZNRDataSender();

    /// A trans message frame whose body is the u32 uri and the entity.
    /// The entity's Marshal error, or the frame's (library error 26 for a
    /// body past 0xFFFFFF bytes, 28 when compression fails).
    virtual std::uint64_t CreateByEntityProtocol(unsigned int uri, ZNRMarshallable& entity,
                                                 unsigned short compress_flag);
    /// A compat packet: its length field is patched with the size of the
    /// whole output, so it must be the only packet in this sender's buffer.
    /// The entity's Marshal error leaves what was written so far.
    virtual std::uint64_t CreateByCompatEntityProtocol(unsigned int uri, ZNRMarshallable& entity,
                                                       unsigned short res_code);
    /// A trans message frame around length bytes of data (copied),
    /// deflated when compress_flag is 1. Library error 25 for another
    /// flag than 0 or 1, 26 past 0xFFFFFF bytes, 28 when compression fails.
    virtual std::uint64_t CreateByTransMessageProtocol(unsigned char const* data, int length,
                                                       unsigned short compress_flag);
    /// The line in UTF-8 followed by CR LF (dos) or LF (unix); library
    /// error 33 when the line cannot be converted.
    virtual std::uint64_t CreateByDoslineProtocol(ZNRString const& line);
    /// @copydoc CreateByDoslineProtocol
    virtual std::uint64_t CreateByUnixlineProtocol(ZNRString const& line);

    /// The accumulated output, owned by the sender.
    ZNRByteBuffer const* GetBuffer() const;
    /// The output pack itself, for Rewind between packets; owned by the
    /// sender.
    ZNRPack* GetPack() const { return pack_; }

private:
    std::uint64_t CreateByLineProtocol(ZNRString const& line, bool dos);

    ZNRPack* pack_;
};

#endif
