#include <plexa/znr-trans-message.h>

#include <plexa/znr-error.h>
#include <plexa/znr-gzip.h>
#include <plexa/znr-logger.h>

#include <atomic>
#include <memory>

// Defined here too, so that the DLL exports them: a Windows program that
// binds one to a reference imports it.
constexpr unsigned short ZNRTransMessage::COMPRESS_FLAG_NONE;
constexpr unsigned short ZNRTransMessage::COMPRESS_FLAG_GZIP;
constexpr unsigned int ZNRTransMessage::HEADER_SIZE;
constexpr unsigned int ZNRTransMessage::MAX_LENGTH;
constexpr unsigned int ZNRTransMessage::DEFAULT_MAX_INFLATE_SIZE;

namespace {

std::atomic<unsigned int> g_default_max_inflate_size{ZNRTransMessage::DEFAULT_MAX_INFLATE_SIZE};

void EncodeLength(unsigned int length, unsigned char* out) {
    out[0] = static_cast<unsigned char>(length & 0xFF);
    out[1] = static_cast<unsigned char>((length >> 8) & 0xFF);
    out[2] = static_cast<unsigned char>((length >> 16) & 0xFF);
}

ZNRTransMessage::ParseResult_t Fail(std::uint64_t code, std::uint64_t* error) {
    if (error != nullptr) *error = code;
    return ZNRTransMessage::PARSE_ERROR;
}

}  // namespace

// Copies of a message refer to one record; the last one deletes it.
struct ZNRTransMessage::SharedHeader {
    Header header;
    std::atomic<unsigned int> refs{1};
};

ZNRTransMessage::ZNRTransMessage()
    : header_(new SharedHeader), frame_(HEADER_SIZE), max_inflate_size_(GetDefaultMaxInflateSize()) {}

ZNRTransMessage::ZNRTransMessage(ZNRTransMessage const& other)
    : header_(other.header_), frame_(other.frame_), max_inflate_size_(other.max_inflate_size_) {
    header_->refs.fetch_add(1, std::memory_order_relaxed);
}

ZNRTransMessage& ZNRTransMessage::operator=(ZNRTransMessage const& other) {
    if (this != &other) {
        other.header_->refs.fetch_add(1, std::memory_order_relaxed);
        Release();
        header_ = other.header_;
        frame_ = other.frame_;
        max_inflate_size_ = other.max_inflate_size_;
    }
    return *this;
}

ZNRTransMessage::~ZNRTransMessage() { Release(); }

void ZNRTransMessage::Release() {
    if (header_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete header_;
    header_ = nullptr;
}

void ZNRTransMessage::SetDefaultMaxInflateSize(unsigned int size) {
    g_default_max_inflate_size.store(size, std::memory_order_relaxed);
}

unsigned int ZNRTransMessage::GetDefaultMaxInflateSize() {
    return g_default_max_inflate_size.load(std::memory_order_relaxed);
}

ZNRTransMessage::Header const& ZNRTransMessage::GetHeader() const { return header_->header; }

unsigned char const* ZNRTransMessage::GetData() const {
    return frame_.GetDataCount() >= HEADER_SIZE ? frame_.GetData() : nullptr;
}

std::uint64_t ZNRTransMessage::SetHeader(Header const& header) {
    if (header.reserved > 15) return ZNR_ERROR_TRANS_RESERVED;
    if (header.compress_flag > COMPRESS_FLAG_GZIP) return ZNR_ERROR_TRANS_COMPRESS_FLAG;
    if (header.length > MAX_LENGTH) return ZNR_ERROR_TRANS_LENGTH;

    unsigned int const word = (header.bigendian ? 0x8000u : 0u) | (header.reserved << 11) |
                              (static_cast<unsigned int>(header.compress_flag) << 9);
    unsigned char bytes[HEADER_SIZE] = {static_cast<unsigned char>(word & 0xFF),
                                        static_cast<unsigned char>(word >> 8), 0, 0, 0};
    EncodeLength(header.length, bytes + 2);
    frame_.ResetDataCount(0);
    if (frame_.GetCapacity() < HEADER_SIZE) frame_.SetCapacity(HEADER_SIZE);
    frame_.AppendData(bytes, HEADER_SIZE);
    header_->header = header;
    return 0;
}

std::uint64_t ZNRTransMessage::SetData(unsigned char const* data, unsigned int* out_length) {
    if (frame_.GetDataCount() < HEADER_SIZE) return ZNR_ERROR_TRANS_NO_HEADER;
    Header& header = header_->header;

    if (header.compress_flag == COMPRESS_FLAG_NONE) {
        frame_.SetCapacity(HEADER_SIZE + header.length);
        frame_.ResetDataCount(HEADER_SIZE);
        frame_.AppendData(data, header.length);
        if (out_length != nullptr) *out_length = header.length;
        return 0;
    }

    ZNRGzip gzip;
    if (!gzip.Open(true)) {
        ZNR_LOG(WARNING, "Can not open gzip stream to compress trans message data");
        return ZNR_ERROR_TRANS_COMPRESS;
    }
    ZNRByteBuffer compressed;
    if (!gzip.Compress(data, static_cast<int>(header.length), &compressed, true)) {
        ZNR_LOG(WARNING, "Can not use gzip to compress trans message data");
        return ZNR_ERROR_TRANS_COMPRESS;
    }
    unsigned int const size = compressed.GetDataCount();
    if (size > MAX_LENGTH) {
        ZNR_LOG(WARNING,
                "Can not set gzip compress data to trans message, compressed data is too large!, "
                "                            before compress=%u compressed=%u",
                header.length, size);
        return ZNR_ERROR_TRANS_COMPRESS;
    }
    frame_.SetCapacity(HEADER_SIZE + size);
    frame_.ResetDataCount(HEADER_SIZE);
    frame_.AppendData(compressed);
    EncodeLength(size, frame_.GetData() + 2);
    header.length = size;
    if (out_length != nullptr) *out_length = size;
    return 0;
}

ZNRTransMessage::ParseResult_t ZNRTransMessage::ParseHeader(unsigned char const* data,
                                                            unsigned int size,
                                                            unsigned int* header_length,
                                                            std::uint64_t* error) {
    if (data == nullptr || size < HEADER_SIZE) return PARSE_NEED_MORE;
    unsigned int const word = data[0] | (static_cast<unsigned int>(data[1]) << 8);
    Header header;
    header.bigendian = (word & 0x8000u) != 0;
    header.reserved = static_cast<unsigned short>((word >> 11) & 0xF);
    header.compress_flag = static_cast<unsigned short>((word >> 9) & 0x3);
    header.length = data[2] | (static_cast<unsigned int>(data[3]) << 8) |
                    (static_cast<unsigned int>(data[4]) << 16);
    std::uint64_t const result = SetHeader(header);
    if (result != 0) {
        if (error != nullptr) *error = result;
        return PARSE_ERROR;
    }
    if (header_length != nullptr) *header_length = HEADER_SIZE;
    return PARSE_OK;
}

namespace {
// Opening a stream pair costs more than inflating a typical body, so each
// thread keeps one raw stream and resets it between bodies.
ZNRGzip* ThreadRawInflater() {
    thread_local std::unique_ptr<ZNRGzip> gzip;
    if (gzip != nullptr && gzip->ResetDecompress()) return gzip.get();
    std::unique_ptr<ZNRGzip> fresh(new ZNRGzip());
    if (!fresh->Open(true)) return nullptr;
    gzip = std::move(fresh);
    return gzip.get();
}
}  // namespace

ZNRTransMessage::ParseResult_t ZNRTransMessage::ParseGzipBody(unsigned char const* data,
                                                              unsigned int size, ZNRByteBuffer* out,
                                                              std::uint64_t* error) {
    if (frame_.GetDataCount() < HEADER_SIZE) return Fail(ZNR_ERROR_TRANS_NO_HEADER, error);
    Header const& header = header_->header;
    if (header.compress_flag != COMPRESS_FLAG_GZIP) return Fail(ZNR_ERROR_TRANS_BODY, error);
    if (size < header.length) return PARSE_NEED_MORE;
    if (out == nullptr || (data == nullptr && header.length > 0)) return Fail(ZNR_ERROR_TRANS_BODY, error);

    ZNRGzip* const gzip = ThreadRawInflater();
    bool finished = false;
    unsigned int const kept = out->GetDataCount();
    if (gzip == nullptr ||
        !gzip->Decompress(data, static_cast<int>(header.length), out, &finished, max_inflate_size_) ||
        !finished) {
        // Partial output of a bad body is not left behind.
        out->ResetDataCount(kept);
        return Fail(ZNR_ERROR_TRANS_BODY, error);
    }
    return PARSE_OK;
}
