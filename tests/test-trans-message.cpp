#include <plexa/plexa.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef ZNRTransMessage::Header Header;

Bytes BytesOf(ZNRByteBuffer const& b) { return Bytes(b.GetData(), b.GetData() + b.GetDataCount()); }

// zlib used directly: the peer's view of the wire.
Bytes ZlibDeflate(Bytes const& in, int window_bits) {
    z_stream s{};
    EXPECT_EQ(Z_OK, deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, window_bits, 8, Z_DEFAULT_STRATEGY));
    Bytes out(deflateBound(&s, static_cast<uLong>(in.size())) + 16);
    s.next_in = const_cast<Bytef*>(in.data());
    s.avail_in = static_cast<uInt>(in.size());
    s.next_out = out.data();
    s.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&s, Z_FINISH));
    out.resize(s.total_out);
    deflateEnd(&s);
    return out;
}

bool ZlibInflate(unsigned char const* in, unsigned int size, int window_bits, Bytes* out) {
    z_stream s{};
    if (inflateInit2(&s, window_bits) != Z_OK) return false;
    out->assign(1 << 20, 0);
    s.next_in = const_cast<Bytef*>(in);
    s.avail_in = size;
    s.next_out = out->data();
    s.avail_out = static_cast<uInt>(out->size());
    int const result = inflate(&s, Z_FINISH);
    out->resize(s.total_out);
    bool const ok = result == Z_STREAM_END && s.avail_in == 0;
    inflateEnd(&s);
    return ok;
}

Bytes Text(char const* s) { return Bytes(s, s + std::string(s).size()); }

struct LogLine {
    unsigned char level;
    std::string message;
};

class CaptureWriter : public ZNRLoggerWriterBase {
public:
    explicit CaptureWriter(std::vector<LogLine>* out) : out_(out) {}
    void OnWrite(ZNRLoggerEntry const* e) override { out_->push_back(LogLine{e->level, e->message}); }
    std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
    std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
    void Destroy() override { delete this; }

private:
    std::vector<LogLine>* out_;
};

class TransMessageTest : public ::testing::Test {
protected:
    void SetUp() override { ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new CaptureWriter(&logs_)); }
    void TearDown() override { ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters(); }
    std::vector<LogLine> logs_;
};

}  // namespace

TEST_F(TransMessageTest, HeaderWordAndItsLimits) {
    ZNRTransMessage m;
    EXPECT_EQ(nullptr, m.GetData());
    EXPECT_EQ(0u, m.GetHeader().length);
    EXPECT_EQ(0u, m.SetHeader(Header{true, 0, 0, 3}));
    EXPECT_EQ((Bytes{0x00, 0x80, 0x03, 0x00, 0x00}), BytesOf(m.GetBytes()));
    EXPECT_EQ(m.GetBytes().GetData(), m.GetData());
    EXPECT_EQ(0u, m.SetHeader(Header{false, 15, 1, 0xFFFFFF}));
    EXPECT_EQ((Bytes{0x00, 0x7A, 0xFF, 0xFF, 0xFF}), BytesOf(m.GetBytes()));
    EXPECT_EQ(0u, m.SetHeader(Header{true, 5, 0, 0x123456}));
    EXPECT_EQ((Bytes{0x00, 0xA8, 0x56, 0x34, 0x12}), BytesOf(m.GetBytes()));

    EXPECT_EQ(ZNRUserError(24), m.SetHeader(Header{false, 16, 0, 0}));
    EXPECT_EQ(ZNRUserError(25), m.SetHeader(Header{false, 0, 2, 0}));
    EXPECT_EQ(ZNRUserError(26), m.SetHeader(Header{false, 0, 0, 0x1000000}));
    EXPECT_EQ((Bytes{0x00, 0xA8, 0x56, 0x34, 0x12}), BytesOf(m.GetBytes()));
    EXPECT_EQ(5u, m.GetHeader().reserved);
    EXPECT_EQ(0x123456u, m.GetHeader().length);

    unsigned char const four[] = {0, 0x80, 1, 0};
    unsigned int header_length = 0;
    std::uint64_t error = 0;
    ZNRTransMessage p;
    EXPECT_EQ(ZNRTransMessage::PARSE_NEED_MORE, p.ParseHeader(four, 4, &header_length, &error));
    unsigned char const flag2[] = {0x00, 0x04, 0x00, 0x00, 0x00};
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, p.ParseHeader(flag2, 5, &header_length, &error));
    EXPECT_EQ(ZNRUserError(25), error);
    EXPECT_EQ(0u, header_length);
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, p.ParseHeader(flag2, 5, nullptr, nullptr));

    // Byte 0 and bit 8 are ignored; the frame is re-encoded without them.
    unsigned char const noisy[] = {0xFF, 0xFB, 0x10, 0x20, 0x30, 0xEE};
    error = 0;
    EXPECT_EQ(ZNRTransMessage::PARSE_OK, p.ParseHeader(noisy, sizeof noisy, &header_length, &error));
    EXPECT_EQ(5u, header_length);
    EXPECT_EQ(0u, error);
    EXPECT_TRUE(p.GetHeader().bigendian);
    EXPECT_EQ(15u, p.GetHeader().reserved);
    EXPECT_EQ(1u, p.GetHeader().compress_flag);
    EXPECT_EQ(0x302010u, p.GetHeader().length);
    EXPECT_EQ((Bytes{0x00, 0xFA, 0x10, 0x20, 0x30}), BytesOf(p.GetBytes()));
}

TEST_F(TransMessageTest, SetDataPlainAndCompressed) {
    ZNRTransMessage none;
    unsigned int out_length = 77;
    EXPECT_EQ(ZNRUserError(27), none.SetData(reinterpret_cast<unsigned char const*>("abc"), &out_length));
    EXPECT_EQ(77u, out_length);

    Bytes const body = Text("abcdef");
    ZNRTransMessage plain;
    ASSERT_EQ(0u, plain.SetHeader(Header{false, 0, 0, 3}));
    EXPECT_EQ(0u, plain.SetData(body.data(), &out_length));
    EXPECT_EQ(3u, out_length);
    EXPECT_EQ((Bytes{0, 0, 3, 0, 0, 'a', 'b', 'c'}), BytesOf(plain.GetBytes()));
    EXPECT_EQ(0u, plain.SetData(body.data() + 3, nullptr));
    EXPECT_EQ((Bytes{0, 0, 3, 0, 0, 'd', 'e', 'f'}), BytesOf(plain.GetBytes()));

    Bytes input(5000);
    for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<unsigned char>("plexa"[i % 5] + i / 1000);
    ZNRTransMessage packed;
    ASSERT_EQ(0u, packed.SetHeader(Header{true, 3, 1, static_cast<unsigned int>(input.size())}));
    EXPECT_EQ(0u, packed.SetData(input.data(), &out_length));
    Bytes const frame = BytesOf(packed.GetBytes());
    ASSERT_EQ(5u + out_length, frame.size());
    EXPECT_LT(out_length, input.size());
    EXPECT_EQ(out_length, packed.GetHeader().length);
    EXPECT_EQ((Bytes{0x00, 0x9A, static_cast<unsigned char>(out_length), static_cast<unsigned char>(out_length >> 8), 0}),
              Bytes(frame.begin(), frame.begin() + 5));
    Bytes inflated;
    EXPECT_TRUE(ZlibInflate(frame.data() + 5, out_length, -15, &inflated));
    EXPECT_EQ(input, inflated);
    // A raw stream has no zlib wrapper to accept.
    EXPECT_FALSE(ZlibInflate(frame.data() + 5, out_length, 15, &inflated));

    // Even an empty body is compressed into a short, non-empty stream.
    ZNRTransMessage empty;
    ASSERT_EQ(0u, empty.SetHeader(Header{false, 0, 1, 0}));
    EXPECT_EQ(0u, empty.SetData(nullptr, &out_length));
    EXPECT_GT(out_length, 0u);
    EXPECT_EQ(out_length, empty.GetBytes().GetData()[2]);
    EXPECT_TRUE(ZlibInflate(empty.GetBytes().GetData() + 5, out_length, -15, &inflated));
    EXPECT_TRUE(inflated.empty());
    EXPECT_TRUE(logs_.empty());
}

// Incompressible input at the length limit deflates past it.
TEST_F(TransMessageTest, CompressedBodyPastTheLengthLimitIsRefused) {
    std::mt19937 random(11);
    Bytes input(0xFFFFFF);
    for (unsigned char& b : input) b = static_cast<unsigned char>(random());
    ZNRTransMessage m;
    ASSERT_EQ(0u, m.SetHeader(Header{false, 0, 1, 0xFFFFFF}));
    unsigned int out_length = 5;
    EXPECT_EQ(ZNRUserError(28), m.SetData(input.data(), &out_length));
    EXPECT_EQ(5u, out_length);
    EXPECT_EQ((Bytes{0x00, 0x02, 0xFF, 0xFF, 0xFF}), BytesOf(m.GetBytes()));
    EXPECT_EQ(0xFFFFFFu, m.GetHeader().length);
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
    Bytes const body = ZlibDeflate(input, -15);
    unsigned int const length = static_cast<unsigned int>(body.size());
    unsigned char header[5] = {0x00, 0x02, static_cast<unsigned char>(length), 0, 0};
    std::uint64_t error = 0;
    ZNRByteBuffer out(reinterpret_cast<unsigned char const*>(">>"), 2);

    ZNRTransMessage unset;
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, unset.ParseGzipBody(body.data(), length, &out, &error));
    EXPECT_EQ(ZNRUserError(27), error);

    ZNRTransMessage plain;
    ASSERT_EQ(0u, plain.SetHeader(Header{false, 0, 0, length}));
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, plain.ParseGzipBody(body.data(), length, &out, &error));
    EXPECT_EQ(ZNRUserError(29), error);

    ZNRTransMessage m;
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, m.ParseHeader(header, 5, nullptr, nullptr));
    error = 0;
    EXPECT_EQ(ZNRTransMessage::PARSE_NEED_MORE, m.ParseGzipBody(body.data(), length - 1, &out, &error));
    EXPECT_EQ(0u, error);
    EXPECT_EQ(ZNRTransMessage::PARSE_OK, m.ParseGzipBody(body.data(), length, &out, &error));
    Bytes expected = Text(">>");
    expected.insert(expected.end(), input.begin(), input.end());
    EXPECT_EQ(expected, BytesOf(out));

    // A stream cut short within exactly `length` bytes, and a zlib-wrapped
    // stream, are both invalid bodies; the output keeps what it had.
    Bytes const cut(body.begin(), body.end() - 3);
    header[2] = static_cast<unsigned char>(cut.size());
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, m.ParseHeader(header, 5, nullptr, nullptr));
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, m.ParseGzipBody(cut.data(), static_cast<unsigned int>(cut.size()), &out, &error));
    EXPECT_EQ(ZNRUserError(29), error);
    Bytes const wrapped = ZlibDeflate(input, 15);
    header[2] = static_cast<unsigned char>(wrapped.size());
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, m.ParseHeader(header, 5, nullptr, nullptr));
    error = 0;
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, m.ParseGzipBody(wrapped.data(), static_cast<unsigned int>(wrapped.size()), &out, &error));
    EXPECT_EQ(ZNRUserError(29), error);
    EXPECT_EQ(expected, BytesOf(out));

    // Our own compressed frame parses back through the same path.
    ZNRTransMessage sent;
    ASSERT_EQ(0u, sent.SetHeader(Header{false, 0, 1, static_cast<unsigned int>(input.size())}));
    ASSERT_EQ(0u, sent.SetData(input.data(), nullptr));
    ZNRTransMessage received;
    ZNRByteBuffer back;
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, received.ParseHeader(sent.GetData(), sent.GetBytes().GetDataCount(), nullptr, nullptr));
    EXPECT_EQ(ZNRTransMessage::PARSE_OK, received.ParseGzipBody(sent.GetData() + 5, received.GetHeader().length, &back, nullptr));
    EXPECT_EQ(input, BytesOf(back));
}

TEST_F(TransMessageTest, InflatedSizeIsBounded) {
    EXPECT_EQ(67108864u, ZNRTransMessage::DEFAULT_MAX_INFLATE_SIZE);
    ZNRTransMessage fresh;
    EXPECT_EQ(67108864u, fresh.GetMaxInflateSize());

    Bytes const zeros(1 << 20, 0);
    Bytes const bomb = ZlibDeflate(zeros, -15);
    unsigned char const header[5] = {0x00, 0x02, static_cast<unsigned char>(bomb.size()),
                                     static_cast<unsigned char>(bomb.size() >> 8), 0};
    ZNRTransMessage m;
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, m.ParseHeader(header, 5, nullptr, nullptr));
    std::uint64_t error = 0;
    m.SetMaxInflateSize(4096);
    ZNRByteBuffer out;
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, m.ParseGzipBody(bomb.data(), static_cast<unsigned int>(bomb.size()), &out, &error));
    EXPECT_EQ(ZNRUserError(29), error);
    EXPECT_EQ(0u, out.GetDataCount());
    EXPECT_LE(out.GetCapacity(), 4096u);

    // Exactly at the limit is fine; one byte under it is not.
    m.SetMaxInflateSize(1 << 20);
    EXPECT_EQ(ZNRTransMessage::PARSE_OK, m.ParseGzipBody(bomb.data(), static_cast<unsigned int>(bomb.size()), &out, &error));
    EXPECT_EQ(zeros, BytesOf(out));
    ZNRByteBuffer again;
    m.SetMaxInflateSize((1 << 20) - 1);
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, m.ParseGzipBody(bomb.data(), static_cast<unsigned int>(bomb.size()), &again, &error));

    // The process-wide default reaches messages built afterwards.
    ZNRTransMessage::SetDefaultMaxInflateSize(100);
    ZNRTransMessage later;
    ZNRTransMessage::SetDefaultMaxInflateSize(ZNRTransMessage::DEFAULT_MAX_INFLATE_SIZE);
    EXPECT_EQ(100u, later.GetMaxInflateSize());
    ASSERT_EQ(ZNRTransMessage::PARSE_OK, later.ParseHeader(header, 5, nullptr, nullptr));
    EXPECT_EQ(ZNRTransMessage::PARSE_ERROR, later.ParseGzipBody(bomb.data(), static_cast<unsigned int>(bomb.size()), &again, &error));
}

TEST_F(TransMessageTest, CopiesShareTheHeaderAndDieInAnyOrder) {
    ZNRTransMessage* first = new ZNRTransMessage;
    ASSERT_EQ(0u, first->SetHeader(Header{false, 0, 0, 2}));
    ASSERT_EQ(0u, first->SetData(reinterpret_cast<unsigned char const*>("xy"), nullptr));
    ZNRTransMessage* second = new ZNRTransMessage(*first);
    ZNRTransMessage third;
    third = *second;
    EXPECT_EQ(BytesOf(first->GetBytes()), BytesOf(third.GetBytes()));
    ASSERT_EQ(0u, second->SetHeader(Header{true, 1, 0, 9}));
    EXPECT_EQ(9u, first->GetHeader().length);
    EXPECT_TRUE(third.GetHeader().bigendian);
    EXPECT_EQ((Bytes{0, 0, 2, 0, 0, 'x', 'y'}), BytesOf(first->GetBytes()));
    delete first;
    ZNRTransMessage& alias = third;
    third = alias;
    delete second;
    EXPECT_EQ(1u, third.GetHeader().reserved);
}

TEST_F(TransMessageTest, GzipStreams) {
    ZNRGzip closed;
    ZNRByteBuffer out;
    bool finished = true;
    EXPECT_FALSE(closed.Compress(reinterpret_cast<unsigned char const*>("a"), 1, &out, true));
    EXPECT_FALSE(closed.Decompress(reinterpret_cast<unsigned char const*>("a"), 1, &out, &finished));
    EXPECT_FALSE(closed.ResetCompress());
    EXPECT_EQ(0u, closed.GetCompressTotalInputLen());

    // The gzip wrapper, fed in two pieces, as zlib itself reads it.
    Bytes const input = Text("streamed in two pieces, streamed in two pieces");
    ZNRGzip gzip;
    ASSERT_TRUE(gzip.Open(false));
    EXPECT_TRUE(gzip.Compress(input.data(), 10, &out, false));
    EXPECT_TRUE(gzip.Compress(input.data() + 10, static_cast<int>(input.size()) - 10, &out, true));
    EXPECT_EQ(input.size(), gzip.GetCompressTotalInputLen());
    EXPECT_EQ(out.GetDataCount(), gzip.GetCompressTotalOutputLen());
    EXPECT_EQ((Bytes{0x1F, 0x8B}), Bytes(out.GetData(), out.GetData() + 2));
    Bytes inflated;
    EXPECT_TRUE(ZlibInflate(out.GetData(), out.GetDataCount(), 31, &inflated));
    EXPECT_EQ(input, inflated);

    ZNRByteBuffer back;
    EXPECT_TRUE(gzip.Decompress(out.GetData(), 7, &back, &finished));
    EXPECT_FALSE(finished);
    EXPECT_TRUE(gzip.Decompress(out.GetData() + 7, static_cast<int>(out.GetDataCount()) - 7, &back, &finished));
    EXPECT_TRUE(finished);
    EXPECT_EQ(input, BytesOf(back));

    // After a reset the same inflate stream serves a new message.
    EXPECT_TRUE(gzip.ResetDecompress());
    EXPECT_EQ(0u, gzip.GetDecompressTotalInputLen());
    unsigned char const garbage[] = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_FALSE(gzip.Decompress(garbage, 4, &back, &finished));
    EXPECT_TRUE(gzip.ResetDecompress());
    ZNRByteBuffer again;
    EXPECT_TRUE(gzip.Decompress(out.GetData(), static_cast<int>(out.GetDataCount()), &again, &finished));
    EXPECT_TRUE(finished);
    EXPECT_EQ(input, BytesOf(again));
}

// Hostile frames: only the documented results, no reads past the input.
TEST_F(TransMessageTest, RandomFramesGiveDocumentedResults) {
    std::mt19937 random(7);
    Bytes const valid = ZlibDeflate(Text("a body that is valid raw deflate, repeated, repeated"), -15);
    for (int round = 0; round < 3000; ++round) {
        Bytes data;
        if (round % 2 == 0) {
            data.resize(random() % 40);
            for (unsigned char& b : data) b = static_cast<unsigned char>(random());
        } else {
            data = valid;
            data.resize(random() % (valid.size() + 1));
            if (!data.empty() && random() % 2 == 0) data[random() % data.size()] ^= static_cast<unsigned char>(1 + random() % 255);
        }
        unsigned int const length = static_cast<unsigned int>(data.size());
        unsigned char const header[5] = {static_cast<unsigned char>(random()),
                                         static_cast<unsigned char>(random() % 2 == 0 ? 0x02 : random()),
                                         static_cast<unsigned char>(length), 0, 0};
        ZNRTransMessage m;
        std::uint64_t error = 0;
        ZNRTransMessage::ParseResult_t const parsed = m.ParseHeader(header, 5, nullptr, &error);
        ASSERT_TRUE(parsed == ZNRTransMessage::PARSE_OK || error == ZNRUserError(25));
        // Exact-size heap copy, so that ASan sees any read past the end.
        unsigned char* exact = new unsigned char[length + 1];
        std::copy(data.begin(), data.end(), exact);
        ZNRByteBuffer out;
        error = 0;
        ZNRTransMessage::ParseResult_t const result = m.ParseGzipBody(exact, length, &out, &error);
        delete[] exact;
        if (result == ZNRTransMessage::PARSE_ERROR) {
            EXPECT_TRUE(error == ZNRUserError(29) || error == ZNRUserError(27));
            EXPECT_EQ(0u, out.GetDataCount());
        } else {
            EXPECT_EQ(ZNRTransMessage::PARSE_OK, result);
        }
    }
}
