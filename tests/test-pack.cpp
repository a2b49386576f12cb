#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes BytesOf(ZNRPack const& pack) {
    ZNRByteBuffer const* b = pack.GetBuffer();
    return Bytes(b->GetData(), b->GetData() + b->GetDataCount());
}

struct LogLine {
    unsigned char level;
    std::string message;
    std::string function;
};

class CaptureWriter : public ZNRLoggerWriterBase {
public:
    explicit CaptureWriter(std::vector<LogLine>* out) : out_(out) {}
    void OnWrite(ZNRLoggerEntry const* e) override {
        out_->push_back(LogLine{e->level, e->message, e->function ? e->function : ""});
    }
    std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
    std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
    void Destroy() override { delete this; }

private:
    std::vector<LogLine>* out_;
};

class PackTest : public ::testing::Test {
protected:
    void SetUp() override { ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new CaptureWriter(&logs_)); }
    void TearDown() override { ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters(); }
    std::vector<LogLine> logs_;
};

struct Point : ZNRMarshallable {
    int x = 0;
    std::string name;
    std::uint64_t Marshal(ZNRPack* pack) const override {
        std::uint64_t const error = pack->Push(x);
        return error != 0 ? error : pack->Push(name);
    }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override {
        std::uint64_t const error = unpack->Pop(&x);
        return error != 0 ? error : unpack->Pop(&name);
    }
};

}  // namespace

TEST_F(PackTest, FixedWidthValuesInBothByteOrders) {
    ZNRPack little(0, 64, false);
    EXPECT_EQ(0u, little.Push('A'));
    EXPECT_EQ(0u, little.Push(static_cast<short>(-2)));
    EXPECT_EQ(0u, little.Push(1u));
    EXPECT_EQ(0u, little.Push(std::int64_t{0x0102030405060708}));
    EXPECT_EQ((Bytes{'A', 0xFE, 0xFF, 1, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1}), BytesOf(little));
    // Each push grows the buffer to exactly the bytes held.
    EXPECT_EQ(15u, little.GetBuffer()->GetCapacity());

    ZNRPack big(4, 64, true);
    EXPECT_TRUE(big.Bigendian());
    EXPECT_EQ(0u, big.Push(1u));
    EXPECT_EQ(0u, big.Push(static_cast<unsigned short>(0xABCD)));
    EXPECT_EQ(0u, big.Push(std::uint64_t{0x0102030405060708}));
    EXPECT_EQ((Bytes{0, 0, 0, 1, 0xAB, 0xCD, 1, 2, 3, 4, 5, 6, 7, 8}), BytesOf(big));

    // The unpack reads little-endian whatever its own flag says.
    unsigned char const wire[] = {1, 0, 0, 0, 0, 0, 0, 1};
    ZNRUnpack unpack(wire, sizeof wire, true, false);
    EXPECT_TRUE(unpack.bigendian());
    unsigned int first = 0, second = 0;
    EXPECT_EQ(0u, unpack.Pop(&first));
    EXPECT_EQ(0u, unpack.Pop(&second));
    EXPECT_EQ(1u, first);
    EXPECT_EQ(0x01000000u, second);
}

TEST_F(PackTest, MaxSizeIsEnforcedPerFieldKind) {
    ZNRPack ints(0, 8, false);
    EXPECT_EQ(0u, ints.Push(1));
    EXPECT_EQ(0u, ints.Push(2));
    EXPECT_EQ(ZNRUserError(19), ints.Push(3));
    EXPECT_EQ(ZNRUserError(19), ints.Push('x'));
    EXPECT_EQ(8u, ints.GetBuffer()->GetDataCount());

    // The count fits, the text does not: the count stays as the last bytes.
    ZNRPack text(0, 7, false);
    EXPECT_EQ(0u, text.Push('z'));
    EXPECT_EQ(ZNRUserError(19), text.Push(ZNRString("abc")));
    EXPECT_EQ((Bytes{'z', 4, 0, 0, 0}), BytesOf(text));

    ZNRPack strings(0, 0x20000, false);
    EXPECT_EQ(ZNRUserError(21), strings.Push(std::string(65536, 'a')));
    EXPECT_EQ(0u, strings.GetBuffer()->GetDataCount());
    EXPECT_EQ(0u, strings.Push(std::string(65535, 'a')));
    EXPECT_EQ(65537u, strings.GetBuffer()->GetDataCount());
    EXPECT_EQ(0xFF, strings.GetBuffer()->GetData()[0]);
    EXPECT_EQ(0xFF, strings.GetBuffer()->GetData()[1]);

    ZNRPack small(0, 5, false);
    EXPECT_EQ(ZNRUserError(19), small.Push(std::string("abcd")));
    unsigned char const raw[] = {9, 8, 7};
    EXPECT_EQ(0u, small.Concatenate(raw, 3));
    EXPECT_EQ(ZNRUserError(19), small.Concatenate(raw, 1));
    EXPECT_EQ(ZNRUserError(19), small.Push(ZNRByteBuffer(raw, 3)));
    EXPECT_EQ((Bytes{4, 0, 9, 8, 7}), BytesOf(small));
}

TEST_F(PackTest, TextAndByteFieldsRoundTrip) {
    ZNRPack pack(0, 256, false);
    EXPECT_EQ(0u, pack.Push(ZNRString()));
    EXPECT_EQ(0u, pack.Push(ZNRString(u"a\u00e9")));
    EXPECT_EQ(0u, pack.Push(std::string("hi")));
    unsigned char const raw[] = {0, 0xFF};
    EXPECT_EQ(0u, pack.Push(ZNRByteBuffer(raw, 2)));
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0, 4, 0, 0, 0, 'a', 0xC3, 0xA9, 0, 2, 0, 'h', 'i', 2, 0, 0, 0, 0, 0xFF}),
              BytesOf(pack));

    ZNRUnpack unpack(pack.GetBuffer()->GetData(), pack.GetBuffer()->GetDataCount(), false, true);
    ZNRString empty("x"), text;
    std::string narrow;
    ZNRByteBuffer bytes(reinterpret_cast<unsigned char const*>("old contents"), 12);
    EXPECT_EQ(0u, unpack.Pop(&empty));
    EXPECT_EQ(0u, unpack.Pop(&text));
    EXPECT_EQ(0u, unpack.Pop(&narrow));
    EXPECT_EQ(0u, unpack.Pop(&bytes));
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(text == ZNRString(u"a\u00e9"));
    EXPECT_EQ("hi", narrow);
    EXPECT_EQ((Bytes{0, 0xFF}), Bytes(bytes.GetData(), bytes.GetData() + bytes.GetDataCount()));
    EXPECT_EQ(pack.GetBuffer()->GetDataCount(), unpack.GetPosition());
    char end = 0;
    EXPECT_EQ(ZNRUserError(22), unpack.Pop(&end));
}

TEST_F(PackTest, ReplaceRewindAndCopies) {
    ZNRPack pack(0, 64, false);
    unsigned char const one = 1;
    EXPECT_EQ(ZNRUserError(20), pack.Replace(0, &one, 1));
    EXPECT_EQ(ZNRUserError(20), pack.Replace(5, &one, 3));
    EXPECT_EQ(0u, pack.Replace(0, &one, 0));

    EXPECT_EQ(0u, pack.Push(0));
    EXPECT_EQ(0u, pack.Push(static_cast<short>(0)));
    EXPECT_EQ(ZNRUserError(20), pack.Replace(4, 7u));  // size - 2
    EXPECT_EQ(ZNRUserError(20), pack.Replace(6, one));
    EXPECT_EQ(0u, pack.Replace(2, 0x11223344u));
    EXPECT_EQ(0u, pack.Replace(5, 'q'));
    EXPECT_EQ((Bytes{0, 0, 0x44, 0x33, 0x22, 'q'}), BytesOf(pack));

    ZNRPack copy(pack);
    EXPECT_EQ(BytesOf(pack), BytesOf(copy));
    EXPECT_EQ(ZNRUserError(19), copy.Push('x'));  // a copy has no room of its own
    ZNRPack assigned(0, 100, true);
    assigned = pack;
    EXPECT_EQ(100u, assigned.GetMaxCapacity());
    EXPECT_FALSE(assigned.Bigendian());
    EXPECT_EQ(0u, assigned.Concatenate(assigned));
    EXPECT_EQ(12u, assigned.GetBuffer()->GetDataCount());

    pack.Rewind(true);
    EXPECT_EQ(0u, pack.GetBuffer()->GetDataCount());
    EXPECT_EQ(6u, pack.GetBuffer()->GetCapacity());
    EXPECT_EQ(ZNRUserError(20), pack.Replace(0, 0x0102));
    EXPECT_TRUE(pack.Bigendian());
    EXPECT_EQ(0u, pack.Push(static_cast<unsigned short>(0x0102)));
    EXPECT_EQ(0u, pack.Replace(0, static_cast<unsigned short>(0x0A0B)));
    EXPECT_EQ((Bytes{0x0A, 0x0B}), BytesOf(pack));
}

TEST_F(PackTest, PopFailuresKeepTheDocumentedPosition) {
    unsigned char const three[] = {1, 2, 3};
    ZNRUnpack unpack(three, 3, false, false);
    int value = 99;
    EXPECT_EQ(ZNRUserError(22), unpack.Pop(&value));
    EXPECT_EQ(0u, unpack.GetPosition());
    EXPECT_EQ(99, value);
    short half = 0;
    EXPECT_EQ(0u, unpack.Pop(&half));
    EXPECT_EQ(0x0201, half);

    // Text count beyond the data: the count stays consumed, nothing logged.
    unsigned char const long_count[] = {9, 0, 0, 0, 'a', 0};
    ZNRUnpack text(long_count, sizeof long_count, false, false);
    ZNRString s;
    EXPECT_EQ(ZNRUserError(22), text.Pop(&s));
    EXPECT_EQ(4u, text.GetPosition());
    EXPECT_EQ(ZNRUserError(22), text.Pop(&s));
    ASSERT_EQ(1u, logs_.size());
    EXPECT_EQ("Unpack string size error", logs_[0].message);
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG, logs_[0].level);
    EXPECT_EQ("ZNRUnpack::Pop", logs_[0].function);

    unsigned char const no_tail[] = {2, 0, 0, 0, 'a', 'b'};
    ZNRUnpack tail(no_tail, sizeof no_tail, false, false);
    EXPECT_EQ(ZNRUserError(23), tail.Pop(&s));
    EXPECT_EQ("Unpack string error, can not find string tail!, size=2", logs_.back().message);

    unsigned char const bad_utf8[] = {3, 0, 0, 0, 0xC3, 0x28, 0};
    ZNRUnpack invalid(bad_utf8, sizeof bad_utf8, false, false);
    EXPECT_EQ(ZNRUserError(23), invalid.Pop(&s));
    EXPECT_EQ("Unpack string error, can not convert utf8 string to locale!", logs_.back().message);

    // A count of 0 passes the tail test on the count's own last byte and
    // yields the text up to the next zero without advancing.
    unsigned char const zero_count[] = {0, 0, 0, 0, 'o', 'k', 0, 'x'};
    ZNRUnpack quirk(zero_count, sizeof zero_count, false, false);
    EXPECT_EQ(0u, quirk.Pop(&s));
    EXPECT_TRUE(s == ZNRString("ok"));
    EXPECT_EQ(4u, quirk.GetPosition());
    unsigned char const zero_count_no_zero[] = {0, 0, 0, 0, 'o', 'k'};
    ZNRUnpack unbounded(zero_count_no_zero, sizeof zero_count_no_zero, false, false);
    EXPECT_EQ(0u, unbounded.Pop(&s));
    EXPECT_TRUE(s == ZNRString("ok"));

    unsigned char const short_string[] = {5, 0, 'a'};
    ZNRUnpack narrow(short_string, sizeof short_string, false, false);
    std::string n;
    EXPECT_EQ(ZNRUserError(22), narrow.Pop(&n));
    EXPECT_EQ(2u, narrow.GetPosition());
    ZNRByteBuffer buffer;
    EXPECT_EQ(ZNRUserError(22), narrow.Pop(&buffer));
    EXPECT_EQ(2u, narrow.GetPosition());
}

TEST_F(PackTest, MarshallableAndUnpackCopies) {
    Point point;
    point.x = -7;
    point.name = "pt";
    EXPECT_EQ(-1, point.GetPackedSize());
    ZNRPack pack(0, 64, false);
    EXPECT_EQ(0u, pack.Push(static_cast<ZNRMarshallable const&>(point)));
    EXPECT_EQ((Bytes{0xF9, 0xFF, 0xFF, 0xFF, 2, 0, 'p', 't'}), BytesOf(pack));

    // A copy of a borrowing unpack owns its bytes and keeps the position.
    Bytes wire = BytesOf(pack);
    ZNRUnpack* borrowing = new ZNRUnpack(wire.data(), static_cast<unsigned int>(wire.size()), true, false);
    int x = 0;
    EXPECT_EQ(0u, borrowing->Pop(&x));
    ZNRUnpack copy(*borrowing);
    delete borrowing;
    wire.assign(wire.size(), 0xEE);
    EXPECT_TRUE(copy.bigendian());
    std::string name;
    EXPECT_EQ(0u, copy.Pop(&name));
    EXPECT_EQ("pt", name);

    ZNRUnpack assigned(nullptr, 0, false, false);
    assigned = ZNRUnpack(pack.GetBuffer()->GetData(), pack.GetBuffer()->GetDataCount(), false, true);
    Point back;
    EXPECT_EQ(0u, assigned.Pop(static_cast<ZNRMarshallable*>(&back)));
    EXPECT_EQ(-7, back.x);
    EXPECT_EQ("pt", back.name);
    EXPECT_EQ(ZNRUserError(22), assigned.Pop(static_cast<ZNRMarshallable*>(&back)));
}

// Hostile bytes: every pop gives 0, 22 or 23 and never leaves the data.
TEST_F(PackTest, RandomBytesNeverBreakTheUnpack) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 4000; ++round) {
        Bytes data(random() % 48);
        for (unsigned char& b : data) b = static_cast<unsigned char>(random() % 4 == 0 ? 0 : random());
        if (data.size() >= 4 && random() % 2 == 0) data[0] = static_cast<unsigned char>(random() % 16);
        // Exact-size heap copy, so that ASan sees any read past the end.
        ZNRUnpack unpack(data.empty() ? nullptr : data.data(), static_cast<unsigned int>(data.size()),
                         false, true);
        for (int step = 0; step < 8; ++step) {
            std::uint64_t error = 0;
            ZNRString s;
            std::string n;
            ZNRByteBuffer b;
            std::uint64_t v = 0;
            switch (random() % 4) {
                case 0: error = unpack.Pop(&s); break;
                case 1: error = unpack.Pop(&n); break;
                case 2: error = unpack.Pop(&b); break;
                default: error = unpack.Pop(&v); break;
            }
            EXPECT_TRUE(error == 0 || error == ZNRUserError(22) || error == ZNRUserError(23));
            ASSERT_LE(unpack.GetPosition(), unpack.GetSize());
        }
    }
    logs_.clear();
}
