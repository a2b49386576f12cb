#ifndef PLEXA_ZNR_TRANS_MESSAGE_H
#define PLEXA_ZNR_TRANS_MESSAGE_H

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-export.h>

// The framing envelope of the stream protocols: a 5-byte header (a 16-bit
// little-endian word with the byte-order flag in bit 15, reserved bits
// 14-11 and the compression flag in bits 10-9, then a 24-bit little-endian
// body length) followed by the body, raw-deflated when the flag is 1.
// Library errors: 24 reserved above 15, 25 unknown compression flag,
// 26 length above 0xFFFFFF, 27 no header set, 28 compression failed,
// 29 invalid compressed body (or one inflating past the limit).
class ZNR_API ZNRTransMessage {
public:
    struct Header {
        bool bigendian = false;
        unsigned short reserved = 0;
        unsigned short compress_flag = 0;
        unsigned int length = 0;
    };

    enum ParseResult_t {
        PARSE_NEED_MORE = 0,
        PARSE_ERROR = 1,
        PARSE_OK = 2,
    };

    static constexpr unsigned short COMPRESS_FLAG_NONE = 0;
    static constexpr unsigned short COMPRESS_FLAG_GZIP = 1;
    static constexpr unsigned int HEADER_SIZE = 5;
    static constexpr unsigned int MAX_LENGTH = 0xFFFFFF;
    // The most bytes a compressed body may inflate to, unless changed.
    static constexpr unsigned int DEFAULT_MAX_INFLATE_SIZE = 64u * 1024u * 1024u;

    ZNRTransMessage();
    // Copies share one header record (counted), and copy the frame bytes.
    ZNRTransMessage(ZNRTransMessage const& other);
    ZNRTransMessage& operator=(ZNRTransMessage const& other);
    virtual ~ZNRTransMessage();

    std::uint64_t SetHeader(Header const& header);
    // Takes the header's length bytes from data (compressing them when the
    // header asks for it); *out_length gets the body's size on the wire.
    std::uint64_t SetData(unsigned char const* data, unsigned int* out_length);

    Header const& GetHeader() const;
    ZNRByteBuffer const& GetBytes() const { return frame_; }
    // The frame's first byte once a header is set, else null.
    unsigned char const* GetData() const;

    ParseResult_t ParseHeader(unsigned char const* data, unsigned int size,
                              unsigned int* header_length, std::uint64_t* error);
    // Inflates the header's length bytes of data, appending to out.
    ParseResult_t ParseGzipBody(unsigned char const* data, unsigned int size, ZNRByteBuffer* out,
                                std::uint64_t* error);

    // Bound on the inflated size of one body, for this message.
    void SetMaxInflateSize(unsigned int size) { max_inflate_size_ = size; }
    unsigned int GetMaxInflateSize() const { return max_inflate_size_; }
    // The bound new messages start with (process-wide, so that code that
    // builds a fresh message per frame, like the dispatcher, follows it).
    static void SetDefaultMaxInflateSize(unsigned int size);
    static unsigned int GetDefaultMaxInflateSize();

private:
    struct SharedHeader;

    void Release();

    SharedHeader* header_;
    ZNRByteBuffer frame_;
    unsigned int max_inflate_size_;
};

#endif
