#ifndef PLEXA_ZNR_DATA_SENDER_H
#define PLEXA_ZNR_DATA_SENDER_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
class ZNRMarshallable;
class ZNRPack;
class ZNRString;

// Builds outgoing packets in the protocols the data dispatcher reads and
// appends each to one output buffer; sending it is the caller's business.
// A packet that would take the output past its limit is dropped without
// an error: callers that care compare the buffer size before and after.
class ZNR_API ZNRDataSender {
public:
    ZNRDataSender(bool bigendian = false, int max_size = 819200);
    // The copy is for reading and sending: its limit is 65,535 bytes.
    ZNRDataSender(ZNRDataSender const& other);
    // Copies the bytes and the byte order; the limit stays this sender's.
    ZNRDataSender& operator=(ZNRDataSender const& other);
    virtual ~ZNRDataSender();

    // A trans message frame whose body is the u32 uri and the entity.
    virtual std::uint64_t CreateByEntityProtocol(unsigned int uri, ZNRMarshallable& entity,
                                                 unsigned short compress_flag);
    // A compat packet: its length field is patched with the size of the
    // whole output, so it must be the only packet in this sender's buffer.
    virtual std::uint64_t CreateByCompatEntityProtocol(unsigned int uri, ZNRMarshallable& entity,
                                                       unsigned short res_code);
    virtual std::uint64_t CreateByTransMessageProtocol(unsigned char const* data, int length,
                                                       unsigned short compress_flag);
    // The line in UTF-8 followed by CR LF (dos) or LF (unix).
    virtual std::uint64_t CreateByDoslineProtocol(ZNRString const& line);
    virtual std::uint64_t CreateByUnixlineProtocol(ZNRString const& line);

    ZNRByteBuffer const* GetBuffer() const;
    // The output pack itself, for Rewind between packets.
    ZNRPack* GetPack() const { return pack_; }

private:
    std::uint64_t CreateByLineProtocol(ZNRString const& line, bool dos);

    ZNRPack* pack_;
};

#endif
