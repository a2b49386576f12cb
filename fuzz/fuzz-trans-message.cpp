// ZNRTransMessage header and body parsing, compressed bodies above all:
// what parses is built again through SetHeader/SetData and must parse back
// to the same body. The same bytes also go through ZNRGzip with the gzip
// wrapper, in one call and in two.
//
// Input: one frame (5-byte header, body).
#include "fuzz-common.h"

namespace {

unsigned int const kMaxInflate = 1u << 20;

FuzzBytes Inflate(bool raw, unsigned char const* data, unsigned int size, unsigned int cut,
                  bool* ok, bool* finished) {
    ZNRGzip gzip;
    FUZZ_CHECK(gzip.Open(raw));
    ZNRByteBuffer out;
    *finished = false;
    *ok = gzip.Decompress(data, static_cast<int>(cut), &out, finished, kMaxInflate);
    if (*ok && !*finished)
        *ok = gzip.Decompress(data + cut, static_cast<int>(size - cut), &out, finished, kMaxInflate);
    // The bound holds per call.
    if (*ok) FUZZ_CHECK(out.GetDataCount() <= 2 * kMaxInflate);
    return BufferBytes(&out);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Bounded well below the default so that a run stays fast.
    ZNRTransMessage::SetDefaultMaxInflateSize(kMaxInflate);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    unsigned int const n = static_cast<unsigned int>(size);
    ZNRTransMessage message;
    unsigned int header_length = 0;
    std::uint64_t error = 0;
    ZNRTransMessage::ParseResult_t const result = message.ParseHeader(data, n, &header_length, &error);
    if (n < ZNRTransMessage::HEADER_SIZE) {
        FUZZ_CHECK(result == ZNRTransMessage::PARSE_NEED_MORE);
        return 0;
    }
    if (result != ZNRTransMessage::PARSE_OK) {
        FUZZ_CHECK(result == ZNRTransMessage::PARSE_ERROR && error == ZNRUserError(25));
        FUZZ_CHECK(message.GetData() == nullptr);
        return 0;
    }
    FUZZ_CHECK(header_length == 5);
    // The header word keeps bits 15-9 only.
    ZNRByteBuffer const& frame = message.GetBytes();
    FUZZ_CHECK(frame.GetDataCount() == 5 && frame.GetData()[0] == 0 &&
               frame.GetData()[1] == (data[1] & 0xFE) && frame.GetData()[2] == data[2] &&
               frame.GetData()[3] == data[3] && frame.GetData()[4] == data[4]);

    ZNRTransMessage::Header const header = message.GetHeader();
    unsigned char const* body = data + 5;
    unsigned int const body_size = n - 5;
    ZNRByteBuffer inflated;
    error = 0;
    ZNRTransMessage::ParseResult_t const body_result =
        message.ParseGzipBody(body, body_size, &inflated, &error);
    if (header.compress_flag == 0) {
        FUZZ_CHECK(body_result == ZNRTransMessage::PARSE_ERROR && error == ZNRUserError(29));
        return 0;
    }
    if (body_size < header.length) {
        FUZZ_CHECK(body_result == ZNRTransMessage::PARSE_NEED_MORE);
        return 0;
    }
    bool ok = false, finished = false;
    unsigned int const cut = header.length / 2;
    FuzzBytes const raw = Inflate(true, body, header.length, cut, &ok, &finished);
    if (body_result != ZNRTransMessage::PARSE_OK) {
        FUZZ_CHECK(body_result == ZNRTransMessage::PARSE_ERROR && error == ZNRUserError(29));
        FUZZ_CHECK(inflated.GetDataCount() == 0);
        // The split inflate may still finish where the whole one stopped
        // at the limit; it never finishes a body the whole one refused.
        return 0;
    }
    // Inflating in two calls gives the same bytes.
    FUZZ_CHECK(ok && finished && raw == BufferBytes(&inflated));
    Inflate(false, body, header.length, cut, &ok, &finished);

    // Built again, compressed and plain, it parses back to the same body.
    for (unsigned short flag : {0, 1}) {
        ZNRTransMessage out;
        ZNRTransMessage::Header h = header;
        h.compress_flag = flag;
        h.length = inflated.GetDataCount();
        if (h.length > ZNRTransMessage::MAX_LENGTH) continue;
        FUZZ_CHECK(out.SetHeader(h) == 0);
        unsigned int wire = 0;
        if (out.SetData(inflated.GetData(), &wire) != 0) continue;
        ZNRByteBuffer const& bytes = out.GetBytes();
        FUZZ_CHECK(bytes.GetDataCount() == 5 + wire);
        ZNRTransMessage back;
        FUZZ_CHECK(back.ParseHeader(bytes.GetData(), bytes.GetDataCount(), nullptr, nullptr) ==
                   ZNRTransMessage::PARSE_OK);
        FUZZ_CHECK(back.GetHeader().length == wire && back.GetHeader().compress_flag == flag &&
                   back.GetHeader().bigendian == header.bigendian);
        if (flag == 0) {
            FUZZ_CHECK(FuzzBytes(bytes.GetData() + 5, bytes.GetData() + 5 + wire) == raw);
            continue;
        }
        ZNRByteBuffer again;
        FUZZ_CHECK(back.ParseGzipBody(bytes.GetData() + 5, wire, &again, nullptr) ==
                   ZNRTransMessage::PARSE_OK);
        FUZZ_CHECK(BufferBytes(&again) == raw);
    }
    return 0;
}
