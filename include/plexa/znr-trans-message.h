#ifndef PLEXA_ZNR_TRANS_MESSAGE_H
#define PLEXA_ZNR_TRANS_MESSAGE_H

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-export.h>

/// The framing envelope of the stream protocols: a 5-byte header (a 16-bit
/// little-endian word with the byte-order flag in bit 15, reserved bits
/// 14-11 and the compression flag in bits 10-9, then a 24-bit little-endian
/// body length) followed by the body, raw-deflated when the flag is 1.
/// Library errors: 24 reserved above 15, 25 unknown compression flag,
/// 26 length above 0xFFFFFF, 27 no header set, 28 compression failed,
/// 29 invalid compressed body (or one inflating past the limit).
/// No lock: one thread uses a message at a time (the default inflate bound
/// alone is process-wide and safe from any thread).
class ZNR_API ZNRTransMessage {
public:
    /// The decoded header; all zero by default.
    struct Header {
        /// The body was packed big-endian (ZNRPack's flag).
        bool bigendian = false;
        /// 0-15, carried through unchanged.
        unsigned short reserved = 0;
        /// COMPRESS_FLAG_NONE or COMPRESS_FLAG_GZIP.
        unsigned short compress_flag = 0;
        /// Body bytes on the wire (after compression), at most MAX_LENGTH.
        unsigned int length = 0;
    };

    /// What a parse step found.
    enum ParseResult_t {
        /// Not enough bytes yet; nothing was taken.
        PARSE_NEED_MORE = 0,
        /// Invalid; the reason is in the error out-parameter.
        PARSE_ERROR = 1,
        /// Parsed.
        PARSE_OK = 2,
    };

    /// The body is sent as it is.
    static constexpr unsigned short COMPRESS_FLAG_NONE = 0;
    /// The body is a raw deflate stream.
    static constexpr unsigned short COMPRESS_FLAG_GZIP = 1;
    /// Bytes in the header.
    static constexpr unsigned int HEADER_SIZE = 5;
    /// The largest body length a header can carry.
    static constexpr unsigned int MAX_LENGTH = 0xFFFFFF;
    /// The most bytes a compressed body may inflate to, unless changed.
    static constexpr unsigned int DEFAULT_MAX_INFLATE_SIZE = 64u * 1024u * 1024u;

    /// No header yet; the inflate bound is the current default.
    ZNRTransMessage();
    /// Copies share one header record (counted), and copy the frame bytes.
    ZNRTransMessage(ZNRTransMessage const& other);
    /// Shares other's header record and copies its frame bytes.
    ZNRTransMessage& operator=(ZNRTransMessage const& other);
    /// Drops its share of the header record.
    virtual ~ZNRTransMessage();

    /// Checks header (errors 24, 25, 26; nothing changes then) and starts
    /// the frame with its 5 bytes, dropping any body.
    std::uint64_t SetHeader(Header const& header);
    /// Takes the header's length bytes from data (compressing them when the
    /// header asks for it); *out_length gets the body's size on the wire.
    /// out_length may be null. Error 27 before SetHeader(); error 28 when
    /// compression fails or its output passes MAX_LENGTH (logged at WARNING);
    /// the frame then keeps its previous contents.
    std::uint64_t SetData(unsigned char const* data, unsigned int* out_length);

    /// The header set or parsed last (all zero before).
    Header const& GetHeader() const;
    /// The whole frame, header first; the message's own.
    ZNRByteBuffer const& GetBytes() const { return frame_; }
    /// The frame's first byte once a header is set, else null.
    unsigned char const* GetData() const;

    /// Decodes the first 5 bytes of data as a header and sets it (as
    /// SetHeader()). PARSE_NEED_MORE for fewer than 5 bytes (or null data);
    /// PARSE_ERROR with error 25 in *error for compression flag 2 or 3;
    /// PARSE_OK with 5 in *header_length. Either pointer may be null.
    ParseResult_t ParseHeader(unsigned char const* data, unsigned int size,
                              unsigned int* header_length, std::uint64_t* error);
    /// Inflates the header's length bytes of data, appending to out
    /// (borrowed). PARSE_NEED_MORE while size is below the length;
    /// PARSE_ERROR with error 27 (no header), or 29 (flag not 1, invalid or
    /// unfinished stream, or more than the inflate bound) in *error when
    /// error is not null.
    ParseResult_t ParseGzipBody(unsigned char const* data, unsigned int size, ZNRByteBuffer* out,
                                std::uint64_t* error);

    /// Bound on the inflated size of one body, for this message.
    void SetMaxInflateSize(unsigned int size) { max_inflate_size_ = size; }
    /// This message's bound on the inflated size of one body.
    unsigned int GetMaxInflateSize() const { return max_inflate_size_; }
    /// The bound new messages start with (process-wide, so that code that
    /// builds a fresh message per frame, like the dispatcher, follows it).
    /// Safe from any thread; messages already made keep theirs.
    static void SetDefaultMaxInflateSize(unsigned int size);
    /// The bound new messages start with. Safe from any thread.
    static unsigned int GetDefaultMaxInflateSize();

private:
    struct SharedHeader;

    void Release();

    SharedHeader* header_;
    ZNRByteBuffer frame_;
    unsigned int max_inflate_size_;
};

#endif
