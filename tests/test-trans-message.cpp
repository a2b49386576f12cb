#include "log-capture.h"

#include <zlib.h>

#include <random>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef ZNRTransMessage::Header Header;
typedef ZNRTransMessage TM;

Bytes BytesOf(ZNRByteBuffer const& b) { return Bytes(b.GetData(), b.GetData() + b.GetDataCount()); }
Bytes Text(std::string const& s) { return Bytes(s.begin(), s.end()); }

// zlib used directly, the peer's view of the wire: deflates or inflates `in`.
bool Zlib(bool deflating, Bytes const& in, int window_bits, Bytes* out) {
    z_stream s{};
    if ((deflating ? deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, window_bits, 8, Z_DEFAULT_STRATEGY)
                   : inflateInit2(&s, window_bits)) != Z_OK)
        return false;
    out->assign(in.size() + (1 << 20), 0);
    s.next_in = const_cast<Bytef*>(in.data());
    s.avail_in = static_cast<uInt>(in.size());
    s.next_out = out->data();
    s.avail_out = static_cast<uInt>(out->size());
    bool const ok = (deflating ? deflate(&s, Z_FINISH) : inflate(&s, Z_FINISH)) == Z_STREAM_END && s.avail_in == 0;
    out->resize(s.total_out);
    deflating ? deflateEnd(&s) : inflateEnd(&s);
    return ok;
}

Bytes Deflate(Bytes const& in, int window_bits) {
    Bytes out;
    EXPECT_TRUE(Zlib(true, in, window_bits, &out));
    return out;
}

// Feeds m a little-endian compressed-frame header announcing `length` body bytes.
void AnnounceBody(TM* m, size_t length) {
    unsigned char const h[5] = {0, 0x02, static_cast<unsigned char>(length),
                                static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length >> 16)};
    ASSERT_EQ(TM::PARSE_OK, m->ParseHeader(h, 5, nullptr, nullptr));
}

TM::ParseResult_t ParseBody(TM* m, Bytes const& body, ZNRByteBuffer* out, std::uint64_t* error) {
    return m->ParseGzipBody(body.data(), static_cast<unsigned int>(body.size()), out, error);
}

typedef LogCaptureTest TransMessageTest;

}  // namespace

TEST_F(TransMessageTest, HeaderWordAndItsLimits) {
    struct { Header header; Bytes wire; } const good[] = {
        {{false, 15, 1, 0xFFFFFF}, {0x00, 0x7A, 0xFF, 0xFF, 0xFF}},
        {{true, 5, 0, 0x123456}, {0x00, 0xA8, 0x56, 0x34, 0x12}},
    };
    TM m, p;
    for (auto const& row : good) {
        EXPECT_EQ(0u, m.SetHeader(row.header));
        EXPECT_EQ(row.wire, BytesOf(m.GetBytes())) << row.header.length;
    }
    // Each refused header leaves the previous frame untouched.
    EXPECT_EQ(ZNRUserError(24), m.SetHeader(Header{false, 16, 0, 0}));
    EXPECT_EQ(ZNRUserError(25), m.SetHeader(Header{false, 0, 2, 0}));
    EXPECT_EQ(ZNRUserError(26), m.SetHeader(Header{false, 0, 0, 0x1000000}));
    EXPECT_EQ(good[1].wire, BytesOf(m.GetBytes()));
    EXPECT_EQ(0x123456u, m.GetHeader().length);

    unsigned int header_length = 0;
    std::uint64_t error = 0;
    EXPECT_EQ(TM::PARSE_NEED_MORE, p.ParseHeader(Bytes{0, 0x80, 1, 0}.data(), 4, &header_length, &error));
    Bytes const flag2 = {0x00, 0x04, 0x00, 0x00, 0x00};
    EXPECT_EQ(TM::PARSE_ERROR, p.ParseHeader(flag2.data(), 5, &header_length, &error));
    EXPECT_TRUE(error == ZNRUserError(25) && header_length == 0) << std::hex << error << " " << header_length;
    EXPECT_EQ(TM::PARSE_ERROR, p.ParseHeader(flag2.data(), 5, nullptr, nullptr));

    // Byte 0 and bit 8 are ignored; the frame is re-encoded without them.
    error = 0;
    EXPECT_EQ(TM::PARSE_OK, p.ParseHeader(Bytes{0xFF, 0xFB, 0x10, 0x20, 0x30, 0xEE}.data(), 6, &header_length, &error));
    EXPECT_TRUE(header_length == 5 && error == 0) << header_length << " " << error;
    Header const h = p.GetHeader();
    EXPECT_TRUE(h.bigendian && h.reserved == 15 && h.compress_flag == 1 && h.length == 0x302010u);
    EXPECT_EQ((Bytes{0x00, 0xFA, 0x10, 0x20, 0x30}), BytesOf(p.GetBytes()));
}

TEST_F(TransMessageTest, SetDataPlainAndCompressed) {
    TM none, plain, packed, empty;
    unsigned int out_length = 77;
    EXPECT_EQ(ZNRUserError(27), none.SetData(Text("abc").data(), &out_length));
    EXPECT_EQ(77u, out_length);  // untouched

    // A plain body copies `length` bytes and replaces the previous body.
    Bytes const body = Text("abcdef");
    ASSERT_EQ(0u, plain.SetHeader(Header{false, 0, 0, 3}));
    EXPECT_EQ(0u, plain.SetData(body.data(), &out_length));
    EXPECT_EQ(3u, out_length);
    EXPECT_EQ(0u, plain.SetData(body.data() + 3, nullptr));
    EXPECT_EQ((Bytes{0, 0, 3, 0, 0, 'd', 'e', 'f'}), BytesOf(plain.GetBytes()));

    // A compressed body is raw deflate; the header length becomes its size.
    Bytes input(5000), inflated;
    for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<unsigned char>("plexa"[i % 5] + i / 1000);
    ASSERT_EQ(0u, packed.SetHeader(Header{true, 3, 1, static_cast<unsigned int>(input.size())}));
    EXPECT_EQ(0u, packed.SetData(input.data(), &out_length));
    Bytes const frame = BytesOf(packed.GetBytes());
    ASSERT_EQ(5u + out_length, frame.size());
    EXPECT_LT(out_length, input.size());
    EXPECT_EQ((Bytes{0x00, 0x9A, static_cast<unsigned char>(out_length), static_cast<unsigned char>(out_length >> 8), 0}),
              Bytes(frame.begin(), frame.begin() + 5));
    EXPECT_TRUE(Zlib(false, Bytes(frame.begin() + 5, frame.end()), -15, &inflated));
    EXPECT_EQ(input, inflated);

    // Even an empty body is compressed into a short, non-empty stream.
    ASSERT_EQ(0u, empty.SetHeader(Header{false, 0, 1, 0}));
    EXPECT_EQ(0u, empty.SetData(nullptr, &out_length));
    Bytes const empty_frame = BytesOf(empty.GetBytes());
    EXPECT_EQ(out_length, empty_frame[2]);
    EXPECT_TRUE(out_length > 0 && Zlib(false, Bytes(empty_frame.begin() + 5, empty_frame.end()), -15, &inflated));
    EXPECT_TRUE(inflated.empty());
    EXPECT_TRUE(logs_.empty());
}

// Incompressible input at the length limit deflates past it.
TEST_F(TransMessageTest, CompressedBodyPastTheLengthLimitIsRefused) {
    std::mt19937 random(11);
    Bytes input(0xFFFFFF);
    for (unsigned char& b : input) b = static_cast<unsigned char>(random());
    TM m;
    ASSERT_EQ(0u, m.SetHeader(Header{false, 0, 1, 0xFFFFFF}));
    unsigned int out_length = 5;
    EXPECT_EQ(ZNRUserError(28), m.SetData(input.data(), &out_length));
    EXPECT_EQ(5u, out_length);  // untouched, and so is the frame
    EXPECT_EQ((Bytes{0x00, 0x02, 0xFF, 0xFF, 0xFF}), BytesOf(m.GetBytes()));
    ASSERT_EQ(1u, logs_.size());
    EXPECT_EQ(ZNRLogger::LOGL_WARNING, logs_[0].level);
    std::string const prefix =
        "Can not set gzip compress data to trans message, compressed data is too large!,"
        "                             before compress=16777215 compressed=";
    EXPECT_EQ(prefix, logs_[0].message.substr(0, prefix.size()));
    EXPECT_GT(std::stoul(logs_[0].message.substr(prefix.size())), 0xFFFFFFul);
}

TEST_F(TransMessageTest, ParseGzipBodyResultsAndErrors) {
    Bytes const input = Text("hello hello hello, raw deflate body");
    Bytes const body = Deflate(input, -15);
    std::uint64_t error = 0;
    ZNRByteBuffer out(Text(">>").data(), 2);
    TM unset, plain, m;
    EXPECT_EQ(TM::PARSE_ERROR, ParseBody(&unset, body, &out, &error));
    EXPECT_EQ(ZNRUserError(27), error);
    ASSERT_EQ(0u, plain.SetHeader(Header{false, 0, 0, static_cast<unsigned int>(body.size())}));
    EXPECT_EQ(TM::PARSE_ERROR, ParseBody(&plain, body, &out, &error));
    EXPECT_EQ(ZNRUserError(29), error);

    AnnounceBody(&m, body.size());
    error = 0;
    EXPECT_EQ(TM::PARSE_NEED_MORE, ParseBody(&m, Bytes(body.begin(), body.end() - 1), &out, &error));
    EXPECT_EQ(0u, error);
    EXPECT_EQ(TM::PARSE_OK, ParseBody(&m, body, &out, &error));
    Bytes const expected = Text(">>" + std::string(input.begin(), input.end()));  // appended
    EXPECT_EQ(expected, BytesOf(out));

    // A stream cut short within exactly `length` bytes, and a zlib-wrapped
    // stream, are both invalid bodies; the output keeps what it had.
    for (Bytes const& bad : {Bytes(body.begin(), body.end() - 3), Deflate(input, 15)}) {
        AnnounceBody(&m, bad.size());
        error = 0;
        EXPECT_EQ(TM::PARSE_ERROR, ParseBody(&m, bad, &out, &error));
        EXPECT_EQ(ZNRUserError(29), error);
        EXPECT_EQ(expected, BytesOf(out));
    }
}

TEST_F(TransMessageTest, InflatedSizeIsBounded) {
    Bytes const zeros(1 << 20, 0);
    Bytes const bomb = Deflate(zeros, -15);
    TM m, later;
    AnnounceBody(&m, bomb.size());
    // Exactly at the limit is fine; under it fails without growing past it.
    for (unsigned int const limit : {4096u, (1u << 20) - 1, 1u << 20}) {
        ZNRByteBuffer out;
        std::uint64_t error = 0;
        m.SetMaxInflateSize(limit);
        bool const fits = limit == zeros.size();
        EXPECT_EQ(fits ? TM::PARSE_OK : TM::PARSE_ERROR, ParseBody(&m, bomb, &out, &error)) << limit;
        EXPECT_EQ(fits ? 0 : ZNRUserError(29), error);
        EXPECT_EQ(fits ? zeros : Bytes(), BytesOf(out));
        EXPECT_LE(out.GetCapacity(), limit);
    }
    // The process-wide default reaches messages built afterwards.
    TM::SetDefaultMaxInflateSize(100);
    TM limited;
    TM::SetDefaultMaxInflateSize(TM::DEFAULT_MAX_INFLATE_SIZE);
    ZNRByteBuffer out;
    for (TM* t : {&limited, &later}) AnnounceBody(t, bomb.size());
    EXPECT_EQ(TM::PARSE_ERROR, ParseBody(&limited, bomb, &out, nullptr));
    EXPECT_EQ(TM::PARSE_OK, ParseBody(&later, bomb, &out, nullptr));
}

TEST_F(TransMessageTest, CopiesShareTheHeaderAndDieInAnyOrder) {
    TM* first = new TM;
    ASSERT_EQ(0u, first->SetHeader(Header{false, 0, 0, 2}));
    ASSERT_EQ(0u, first->SetData(Text("xy").data(), nullptr));
    TM* second = new TM(*first);
    TM third;
    third = *second;
    EXPECT_EQ(BytesOf(first->GetBytes()), BytesOf(third.GetBytes()));
    // The header is shared; each copy keeps its own frame bytes.
    ASSERT_EQ(0u, second->SetHeader(Header{true, 1, 0, 9}));
    EXPECT_EQ(9u, first->GetHeader().length);
    EXPECT_TRUE(third.GetHeader().bigendian);
    EXPECT_EQ((Bytes{0, 0, 2, 0, 0, 'x', 'y'}), BytesOf(first->GetBytes()));
    delete first;
    TM& alias = third;
    third = alias;
    delete second;
    EXPECT_EQ(1u, third.GetHeader().reserved);
}

TEST_F(TransMessageTest, GzipStreams) {
    ZNRGzip closed, gzip;
    ZNRByteBuffer out, back, again;
    bool finished = true;
    Bytes const input = Text("streamed in two pieces, streamed in two pieces");
    EXPECT_FALSE(closed.Compress(input.data(), 1, &out, true));
    EXPECT_FALSE(closed.Decompress(input.data(), 1, &out, &finished));
    EXPECT_FALSE(closed.ResetCompress());

    // The gzip wrapper, fed in two pieces, as zlib itself reads it.
    ASSERT_TRUE(gzip.Open(false));
    EXPECT_TRUE(gzip.Compress(input.data(), 10, &out, false));
    EXPECT_TRUE(gzip.Compress(input.data() + 10, static_cast<int>(input.size()) - 10, &out, true));
    EXPECT_EQ(input.size(), gzip.GetCompressTotalInputLen());
    EXPECT_EQ(out.GetDataCount(), gzip.GetCompressTotalOutputLen());
    Bytes inflated;
    EXPECT_TRUE(Zlib(false, BytesOf(out), 31, &inflated));
    EXPECT_EQ(input, inflated);

    int const size = static_cast<int>(out.GetDataCount());
    EXPECT_TRUE(gzip.Decompress(out.GetData(), 7, &back, &finished) && !finished);
    EXPECT_TRUE(gzip.Decompress(out.GetData() + 7, size - 7, &back, &finished) && finished);
    EXPECT_EQ(input, BytesOf(back));

    // A reset clears both a finished and a failed stream for the next message.
    EXPECT_TRUE(gzip.ResetDecompress());
    EXPECT_EQ(0u, gzip.GetDecompressTotalInputLen());
    EXPECT_FALSE(gzip.Decompress(Bytes(4, 0xFF).data(), 4, &back, &finished));
    EXPECT_TRUE(gzip.ResetDecompress());
    EXPECT_TRUE(gzip.Decompress(out.GetData(), size, &again, &finished) && finished);
    EXPECT_EQ(input, BytesOf(again));

    // A piece that is empty, or ends just as the output space fills (cut 8
    // of these 9 bytes), leaves the stream waiting for the next piece.
    Bytes const text = Text(std::string(61, 'a') + "xyz"), raw = Deflate(text, -15);
    ASSERT_EQ(9u, raw.size());
    for (unsigned int cut = 0; cut <= raw.size(); ++cut) {
        ZNRGzip pieces;
        ZNRByteBuffer whole;
        finished = true;
        ASSERT_TRUE(pieces.Open(true));
        EXPECT_TRUE(pieces.Decompress(raw.data(), static_cast<int>(cut), &whole, &finished)) << cut;
        EXPECT_EQ(cut == raw.size(), finished) << cut;
        EXPECT_TRUE(pieces.Decompress(raw.data() + cut, static_cast<int>(raw.size() - cut), &whole, &finished) &&
                    finished) << cut;
        EXPECT_EQ(text, BytesOf(whole)) << cut;
    }
}
