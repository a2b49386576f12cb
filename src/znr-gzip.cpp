#include <plexa/znr-gzip.h>

#include <plexa/znr-byte-buffer.h>

#include <zlib.h>

#include <algorithm>

namespace {

constexpr int kRawWindowBits = -15;
constexpr int kGzipWindowBits = 31;
constexpr int kMemLevel = 9;
// Growth when the input alone would suggest none (an empty input still
// produces a few bytes of stream).
constexpr unsigned int kMinGrowth = 64;
constexpr std::uint64_t kUnbounded = ~std::uint64_t{0};

unsigned int Total(z_stream const* stream, bool input) {
    if (stream == nullptr) return 0;
    return static_cast<unsigned int>(input ? stream->total_in : stream->total_out);
}

// Grows out by `wanted` bytes (at least kMinGrowth), never beyond `room`
// and never past the 32-bit capacity.
bool Grow(ZNRByteBuffer* out, std::uint64_t wanted, std::uint64_t room) {
    std::uint64_t const headroom = 0xFFFFFFFFull - out->GetCapacity();
    std::uint64_t const n = std::min({std::max<std::uint64_t>(wanted, kMinGrowth), room, headroom});
    if (n == 0) return false;
    out->ExtendCapacity(static_cast<unsigned int>(n));
    return out->GetData() != nullptr;
}

}  // namespace

ZNRGzip::ZNRGzip() : deflate_(nullptr), inflate_(nullptr) {}

ZNRGzip::~ZNRGzip() { Close(); }

void ZNRGzip::Close() {
    if (deflate_ != nullptr) {
        deflateEnd(deflate_);
        delete deflate_;
        deflate_ = nullptr;
    }
    if (inflate_ != nullptr) {
        inflateEnd(inflate_);
        delete inflate_;
        inflate_ = nullptr;
    }
}

bool ZNRGzip::Open(bool raw_deflate) {
    Close();
    int const window_bits = raw_deflate ? kRawWindowBits : kGzipWindowBits;
    // Value-initialised: null zalloc/zfree/opaque select zlib's own memory functions.
    z_stream* deflater = new z_stream();
    z_stream* inflater = new z_stream();
    if (deflateInit2(deflater, Z_DEFAULT_COMPRESSION, Z_DEFLATED, window_bits, kMemLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        delete deflater;
        delete inflater;
        return false;
    }
    if (inflateInit2(inflater, window_bits) != Z_OK) {
        deflateEnd(deflater);
        delete deflater;
        delete inflater;
        return false;
    }
    deflate_ = deflater;
    inflate_ = inflater;
    return true;
}

bool ZNRGzip::Compress(unsigned char const* in, int size, ZNRByteBuffer* out, bool finish) {
    if (deflate_ == nullptr || out == nullptr || size < 0) return false;
    unsigned int const n = static_cast<unsigned int>(size);
    deflate_->next_in = const_cast<Bytef*>(in);
    deflate_->avail_in = n;
    if (!Grow(out, n, kUnbounded)) return false;

    int result = Z_OK;
    do {
        if (out->GetFreeCapacity() == 0 && !Grow(out, n, kUnbounded)) return false;
        deflate_->next_out = out->GetData() + out->GetDataCount();
        deflate_->avail_out = out->GetFreeCapacity();
        result = deflate(deflate_, finish ? Z_FINISH : Z_NO_FLUSH);
        if (result == Z_STREAM_ERROR) return false;
        out->ResetDataCount(out->GetCapacity() - deflate_->avail_out);
    } while (deflate_->avail_out == 0);

    if (deflate_->avail_in != 0) return false;
    return !finish || result == Z_STREAM_END;
}

bool ZNRGzip::Decompress(unsigned char const* in, int size, ZNRByteBuffer* out, bool* finished,
                         unsigned int max_output) {
    if (inflate_ == nullptr || out == nullptr || finished == nullptr || size < 0) return false;
    unsigned int const n = static_cast<unsigned int>(size);
    inflate_->next_in = const_cast<Bytef*>(in);
    inflate_->avail_in = n;
    // Output may reach `limit` bytes in the buffer, never more.
    std::uint64_t const limit =
        std::min<std::uint64_t>(std::uint64_t{out->GetDataCount()} + max_output, 0xFFFFFFFFull);
    if (n > 0 && limit > out->GetCapacity()) Grow(out, 4ull * n, limit - out->GetCapacity());

    for (;;) {
        std::uint64_t const room = limit - out->GetDataCount();
        if (room == 0) {
            // Full to the limit: anything more the stream yields is too much.
            unsigned char probe = 0;
            inflate_->next_out = &probe;
            inflate_->avail_out = 1;
            int const result = inflate(inflate_, Z_NO_FLUSH);
            if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
            if (inflate_->avail_out == 0) return false;
            *finished = result == Z_STREAM_END;
            return true;
        }
        if (out->GetFreeCapacity() == 0 && !Grow(out, out->GetCapacity(), room)) return false;
        unsigned int const offered =
            static_cast<unsigned int>(std::min<std::uint64_t>(out->GetFreeCapacity(), room));
        inflate_->next_out = out->GetData() + out->GetDataCount();
        inflate_->avail_out = offered;
        int const result = inflate(inflate_, Z_NO_FLUSH);
        // No progress with the input all taken is no fault: the piece ended
        // just as the output space did (or was empty), and the stream waits
        // for the next one.
        bool const starved = result == Z_BUF_ERROR && inflate_->avail_in == 0;
        if (result != Z_OK && result != Z_STREAM_END && !starved) return false;
        out->ResetDataCount(out->GetDataCount() + (offered - inflate_->avail_out));
        if (result == Z_STREAM_END || inflate_->avail_out > 0 || starved) {
            *finished = result == Z_STREAM_END;
            return true;
        }
    }
}

bool ZNRGzip::ResetCompress() { return deflate_ != nullptr && deflateReset(deflate_) == Z_OK; }

bool ZNRGzip::ResetDecompress() { return inflate_ != nullptr && inflateReset(inflate_) == Z_OK; }

unsigned int ZNRGzip::GetCompressTotalInputLen() const { return Total(deflate_, true); }
unsigned int ZNRGzip::GetCompressTotalOutputLen() const { return Total(deflate_, false); }
unsigned int ZNRGzip::GetDecompressTotalInputLen() const { return Total(inflate_, true); }
unsigned int ZNRGzip::GetDecompressTotalOutputLen() const { return Total(inflate_, false); }
