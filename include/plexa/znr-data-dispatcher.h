#ifndef PLEXA_ZNR_DATA_DISPATCHER_H
#define PLEXA_ZNR_DATA_DISPATCHER_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
class ZNRString;

/// @file
/// Cutting received byte streams into packets.

/// Cuts a received byte stream into packets by one of six framings and hands
/// each complete packet to an overridable handler. Holds no state: the caller
/// keeps the unconsumed tail and offers it again with the next bytes. Any
/// thread, as far as the overriding handlers allow. Failures are logged at
/// warning level.
class ZNR_API ZNRDataDispatcher {
public:
    /// The framing of the stream.
    enum Mode_t {
        MODE_ENTITY = 0,          ///< trans-message frames, bodies to OnEntityDataDispatch
        MODE_COMPAT_ENTITY = 1,   ///< u32 little-endian total length, counting itself
        MODE_ORIGINAL = 2,        ///< no framing: all bytes are one packet
        MODE_TRANS_MESSAGE = 3,   ///< trans-message frames, bodies to OnTransMessageDataDispatch
        MODE_UNIXLINE = 4,        ///< UTF-8 lines ended by LF
        MODE_DOSLINE = 5,         ///< UTF-8 lines ended by CR LF
    };

    /// No state to set up.
    ZNRDataDispatcher();
    /// Nothing to copy.
    ZNRDataDispatcher(ZNRDataDispatcher const& other);
    /// Nothing to copy.
    ZNRDataDispatcher& operator=(ZNRDataDispatcher const& other);
    virtual ~ZNRDataDispatcher();

    /// True when every complete packet was handled; *consumed is then the
    /// number of bytes taken from the front of data. False on a framing or
    /// conversion error, an unknown mode or a handler returning false;
    /// *consumed is not written and the stream is to be treated as broken.
    /// A negative size is taken as no data. Packets are handed over in
    /// place (data is not copied) except inflated bodies and lines.
    virtual bool DispatchData(unsigned char const* data, int size, int* consumed, Mode_t mode);

    /// For a device handler's OnData: dispatches the buffer's bytes from
    /// *offset on and advances *offset by what was consumed. False, with
    /// *offset untouched, on a failed dispatch or an offset past the data.
    bool DispatchData(ZNRByteBuffer const* buffer, int* offset, Mode_t mode);

protected:
    // Each returns true in this class; false stops the dispatch.
    /// An entity body (inflated if it was compressed), valid during the
    /// call.
    virtual bool OnEntityDataDispatch(unsigned char const* data, int size, bool bigendian);
    /// A whole compat packet, its length field included; bigendian is
    /// always false.
    virtual bool OnCompatEntityDataDispatch(unsigned char const* data, int size, bool bigendian);
    /// A trans-message body, as OnEntityDataDispatch.
    virtual bool OnTransMessageDataDispatch(unsigned char const* data, int size, bool bigendian);
    /// All the bytes offered.
    virtual bool OnOriginalDataDispatch(unsigned char const* data, int size);
    /// One line without its LF (a CR before it is kept).
    virtual bool OnUnixlineDataDispatch(ZNRString const& line);
    /// One line without its CR LF.
    virtual bool OnDoslineDataDispatch(ZNRString const& line);

private:
    enum Failure_t {
        FAILURE_NONE = 0,
        FAILURE_HEADER,
        FAILURE_GZIP_BODY,
        FAILURE_COMPRESS_TYPE,
        FAILURE_FRAMING,
        FAILURE_CONVERT,
        FAILURE_HANDLER,
    };

    Failure_t DispatchTransMessages(unsigned char const* data, int size, int* consumed,
                                    Mode_t mode, std::uint64_t* error);
    Failure_t DispatchCompatEntities(unsigned char const* data, int size, int* consumed);
    Failure_t DispatchLines(unsigned char const* data, int size, int* consumed, bool dos);
};

#endif
