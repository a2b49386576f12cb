#ifndef PLEXA_ZNR_DATA_DISPATCHER_H
#define PLEXA_ZNR_DATA_DISPATCHER_H

#include <plexa/znr-export.h>

class ZNRByteBuffer;
class ZNRString;

// Cuts a received byte stream into packets by one of six framings and hands
// each complete packet to an overridable handler. Holds no state: the caller
// keeps the unconsumed tail and offers it again with the next bytes.
class ZNR_API ZNRDataDispatcher {
public:
    enum Mode_t {
        MODE_ENTITY = 0,
        MODE_COMPAT_ENTITY = 1,
        MODE_ORIGINAL = 2,
        MODE_TRANS_MESSAGE = 3,
        MODE_UNIXLINE = 4,
        MODE_DOSLINE = 5,
    };

    ZNRDataDispatcher();
    ZNRDataDispatcher(ZNRDataDispatcher const& other);
    ZNRDataDispatcher& operator=(ZNRDataDispatcher const& other);
    virtual ~ZNRDataDispatcher();

    // True when every complete packet was handled; *consumed is then the
    // number of bytes taken from the front of data. False on a framing or
    // conversion error, an unknown mode or a handler returning false;
    // *consumed is not written and the stream is to be treated as broken.
    // A negative size is taken as no data.
    virtual bool DispatchData(unsigned char const* data, int size, int* consumed, Mode_t mode);

    // For a device handler's OnData: dispatches the buffer's bytes from
    // *offset on and advances *offset by what was consumed. False, with
    // *offset untouched, on a failed dispatch or an offset past the data.
    bool DispatchData(ZNRByteBuffer const* buffer, int* offset, Mode_t mode);

protected:
    // Each returns true in this class; false stops the dispatch.
    virtual bool OnEntityDataDispatch(unsigned char const* data, int size, bool bigendian);
    virtual bool OnCompatEntityDataDispatch(unsigned char const* data, int size, bool bigendian);
    virtual bool OnTransMessageDataDispatch(unsigned char const* data, int size, bool bigendian);
    virtual bool OnOriginalDataDispatch(unsigned char const* data, int size);
    virtual bool OnUnixlineDataDispatch(ZNRString const& line);
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
