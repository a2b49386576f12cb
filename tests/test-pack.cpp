#include "log-capture.h"

#include <initializer_list>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef std::vector<std::uint64_t> Errors;  // a braced list evaluates in order

Bytes BytesOf(ZNRByteBuffer const& b) { return Bytes(b.GetData(), b.GetData() + b.GetDataCount()); }
Bytes BytesOf(ZNRPack const& pack) { return BytesOf(*pack.GetBuffer()); }
std::uint64_t FirstError(std::initializer_list<std::uint64_t> errors) {
    for (std::uint64_t const e : errors)
        if (e != 0) return e;
    return 0;
}
ZNRUnpack UnpackOf(Bytes const& b) { return ZNRUnpack(b.data(), static_cast<unsigned int>(b.size()), false, true); }

struct Point : ZNRMarshallable {
    explicit Point(int x_ = 0, std::string name_ = "") : x(x_), name(name_) {}
    int x;
    std::string name;
    std::uint64_t Marshal(ZNRPack* p) const override { return FirstError({p->Push(x), p->Push(name)}); }
    std::uint64_t Unmarshal(ZNRUnpack* u) override { return FirstError({u->Pop(&x), u->Pop(&name)}); }
};

typedef LogCaptureTest PackTest;

}  // namespace

TEST_F(PackTest, FixedWidthValuesInBothByteOrders) {
    ZNRPack little(0, 64, false), big(4, 64, true);
    EXPECT_EQ(0u, FirstError({little.Push('A'), little.Push(static_cast<short>(-2)), little.Push(1u),
                              little.Push(std::int64_t{0x0102030405060708})}));
    EXPECT_EQ((Bytes{'A', 0xFE, 0xFF, 1, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1}), BytesOf(little));
    EXPECT_EQ(15u, little.GetBuffer()->GetCapacity());  // grown to exactly the bytes held
    EXPECT_EQ(0u, FirstError({big.Push(1u), big.Push(static_cast<unsigned short>(0xABCD)),
                              big.Push(std::uint64_t{0x0102030405060708})}));
    EXPECT_EQ((Bytes{0, 0, 0, 1, 0xAB, 0xCD, 1, 2, 3, 4, 5, 6, 7, 8}), BytesOf(big));

    // The unpack reads little-endian whatever its own flag says.
    Bytes const wire = {1, 0, 0, 0, 0, 0, 0, 1};
    ZNRUnpack unpack(wire.data(), 8, true, false);
    unsigned int first = 0, second = 0;
    EXPECT_EQ(0u, FirstError({unpack.Pop(&first), unpack.Pop(&second)}));
    EXPECT_EQ(std::make_pair(1u, 0x01000000u), std::make_pair(first, second));
}

// Callers see the capacity grow to exactly what the pushes need; the block
// under it doubles, up to the limit. A new block has a new address.
TEST_F(PackTest, PushesTakeLogarithmicallyManyBlocks) {
    ZNRPack pack(0, 1u << 20, false), small(0, 10, false);
    unsigned char const* block = nullptr;
    int blocks = 0;
    for (int k = 0; k < 100000; ++k) {
        ASSERT_EQ(0u, pack.Push(k));
        ASSERT_EQ(4u * (k + 1), pack.GetBuffer()->GetCapacity());
        blocks += pack.GetBuffer()->GetData() != block;
        block = pack.GetBuffer()->GetData();
    }
    EXPECT_LE(blocks, 20);  // 18: 4 bytes doubled up to 2^19
    EXPECT_EQ((Bytes{0x9F, 0x86, 0x01, 0}), Bytes(block + 399996, block + 400000));
    for (int k = 0; k < 10; ++k) ASSERT_EQ(0u, small.Push('s'));
    EXPECT_EQ(10u, small.GetBuffer()->GetBlockSize());
}

TEST_F(PackTest, MaxSizeIsEnforcedPerFieldKind) {
    ZNRPack ints(0, 8, false), text(0, 7, false), strings(0, 0x20000, false), small(0, 5, false);
    EXPECT_EQ((Errors{0, 0, ZNRUserError(19), ZNRUserError(19)}),
              (Errors{ints.Push(1), ints.Push(2), ints.Push(3), ints.Push('x')}));
    EXPECT_EQ(8u, ints.GetBuffer()->GetDataCount());

    // A lone surrogate has no UTF-8 form: nothing is appended. The count
    // fits, the text does not: the count stays as the last bytes.
    EXPECT_EQ((Errors{0, ZNRUserError(21), ZNRUserError(19)}),
              (Errors{text.Push('z'), text.Push(ZNRString(ZNRStdWString(1, 0xDC00))), text.Push(ZNRString("abc"))}));
    EXPECT_EQ((Bytes{'z', 4, 0, 0, 0}), BytesOf(text));

    // A narrow string's count is 16 bits wide.
    EXPECT_EQ(ZNRUserError(21), strings.Push(std::string(65536, 'a')));
    EXPECT_EQ(0u, strings.GetBuffer()->GetDataCount());
    EXPECT_EQ(0u, strings.Push(std::string(65535, 'a')));
    EXPECT_EQ(65537u, strings.GetBuffer()->GetDataCount());
    EXPECT_EQ((Bytes{0xFF, 0xFF, 'a'}), Bytes(strings.GetBuffer()->GetData(), strings.GetBuffer()->GetData() + 3));

    unsigned char const raw[] = {9, 8, 7};
    EXPECT_EQ((Errors{ZNRUserError(19), 0, ZNRUserError(19), ZNRUserError(19)}),
              (Errors{small.Push(std::string("abcd")), small.Concatenate(raw, 3), small.Concatenate(raw, 1),
                      small.Push(ZNRByteBuffer(raw, 3))}));
    EXPECT_EQ((Bytes{4, 0, 9, 8, 7}), BytesOf(small));
}

TEST_F(PackTest, TextAndByteFieldsRoundTrip) {
    ZNRPack pack(0, 256, false);
    unsigned char const raw[] = {0, 0xFF};
    EXPECT_EQ(0u, FirstError({pack.Push(ZNRString()), pack.Push(ZNRString(u"a\u00e9")), pack.Push(std::string("hi")),
                              pack.Push(ZNRByteBuffer(raw, 2))}));
    Bytes const wire = BytesOf(pack);
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0, 4, 0, 0, 0, 'a', 0xC3, 0xA9, 0, 2, 0, 'h', 'i', 2, 0, 0, 0, 0, 0xFF}), wire);
    EXPECT_EQ(wire.size(), pack.GetBuffer()->GetCapacity());  // exactly what the fields need

    ZNRUnpack unpack = UnpackOf(wire);
    ZNRString empty("x"), text;
    std::string narrow;
    ZNRByteBuffer bytes(reinterpret_cast<unsigned char const*>("old contents"), 12);
    EXPECT_EQ(0u, FirstError({unpack.Pop(&empty), unpack.Pop(&text), unpack.Pop(&narrow), unpack.Pop(&bytes)}));
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(text == ZNRString(u"a\u00e9"));
    EXPECT_EQ("hi", narrow);
    EXPECT_EQ((Bytes{0, 0xFF}), BytesOf(bytes));  // replaced, not appended
    EXPECT_EQ(wire.size(), unpack.GetPosition());
    char end = 0;
    EXPECT_EQ(ZNRUserError(22), unpack.Pop(&end));
}

TEST_F(PackTest, ReplaceRewindAndCopies) {
    ZNRPack pack(0, 64, false), assigned(0, 100, true);
    unsigned char const one = 1;
    EXPECT_EQ((Errors{ZNRUserError(20), ZNRUserError(20), 0}),
              (Errors{pack.Replace(0, &one, 1), pack.Replace(5, &one, 3), pack.Replace(0, &one, 0)}));
    // Six bytes: a word at 2 reaches the end, one at 4 (size - 2) does not fit.
    EXPECT_EQ((Errors{0, 0, ZNRUserError(20), ZNRUserError(20), 0, 0}),
              (Errors{pack.Push(0), pack.Push(static_cast<short>(0)), pack.Replace(4, 7u), pack.Replace(6, one),
                      pack.Replace(2, 0x11223344u), pack.Replace(5, 'q')}));
    EXPECT_EQ((Bytes{0, 0, 0x44, 0x33, 0x22, 'q'}), BytesOf(pack));

    ZNRPack copy(pack);
    EXPECT_EQ(BytesOf(pack), BytesOf(copy));
    EXPECT_EQ(ZNRUserError(19), copy.Push('x'));  // a copy has no room of its own
    assigned = pack;  // takes the bytes and byte order, keeps its own limit
    EXPECT_FALSE(assigned.Bigendian());
    EXPECT_EQ(0u, assigned.Concatenate(assigned));
    EXPECT_EQ(12u, assigned.GetBuffer()->GetDataCount());

    // Rewinding empties the pack, keeps its memory and sets the byte order.
    pack.Rewind(true);
    EXPECT_EQ(std::make_pair(0u, 6u),
              std::make_pair(pack.GetBuffer()->GetDataCount(), pack.GetBuffer()->GetCapacity()));
    EXPECT_EQ((Errors{ZNRUserError(20), 0, 0}),
              (Errors{pack.Replace(0, 0x0102), pack.Push(static_cast<unsigned short>(0x0102)),
                      pack.Replace(0, static_cast<unsigned short>(0x0A0B))}));
    EXPECT_EQ((Bytes{0x0A, 0x0B}), BytesOf(pack));
}

TEST_F(PackTest, PopFailuresKeepTheDocumentedPosition) {
    ZNRUnpack ints = UnpackOf({1, 2, 3});
    int value = 99;
    short half = 0;
    EXPECT_EQ(ZNRUserError(22), ints.Pop(&value));
    EXPECT_EQ(std::make_pair(0u, 99), std::make_pair(ints.GetPosition(), value));
    EXPECT_EQ(0u, ints.Pop(&half));
    EXPECT_EQ(0x0201, half);

    // Wide text. A count past the data stays consumed, unlogged; a cut count
    // is logged. A count of 0 passes the tail test on the count's own last
    // byte and yields the text up to the next zero without advancing.
    struct { Bytes wire; std::uint64_t error; unsigned int position; std::string log; } const rows[] = {
        {{9, 0, 0, 0, 'a', 0}, ZNRUserError(22), 4, ""},
        {{'a', 0}, ZNRUserError(22), 0, "Unpack string size error"},
        {{2, 0, 0, 0, 'a', 'b'}, ZNRUserError(23), 4, "Unpack string error, can not find string tail!, size=2"},
        {{3, 0, 0, 0, 0xC3, 0x28, 0}, ZNRUserError(23), 4, "Unpack string error, can not convert utf8 string to locale!"},
        {{0, 0, 0, 0, 'o', 'k', 0, 'x'}, 0, 4, ""},
        {{0, 0, 0, 0, 'o', 'k'}, 0, 4, ""},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.wire));
        logs_.clear();
        ZNRUnpack unpack = UnpackOf(row.wire);
        ZNRString s("keep");
        EXPECT_EQ(row.error, unpack.Pop(&s));
        EXPECT_EQ(row.position, unpack.GetPosition());
        EXPECT_EQ(ZNRString(row.error != 0 ? "keep" : "ok"), s);
        ASSERT_EQ(row.log.empty() ? 0u : 1u, logs_.size());
        if (row.log.empty()) continue;
        EXPECT_EQ(row.log, logs_[0].message);
        EXPECT_EQ("ZNRUnpack::Pop", logs_[0].function);
        EXPECT_EQ(ZNRLogger::LOGL_DEBUG, logs_[0].level);
    }

    ZNRUnpack narrow = UnpackOf({5, 0, 'a'});
    std::string n;
    ZNRByteBuffer buffer;
    // Narrow strings and buffers: a count past the data stays consumed.
    EXPECT_EQ((Errors{ZNRUserError(22), 2, ZNRUserError(22), 2}),
              (Errors{narrow.Pop(&n), narrow.GetPosition(), narrow.Pop(&buffer), narrow.GetPosition()}));
}

TEST_F(PackTest, MarshallableAndUnpackCopies) {
    Point point(-7, "pt"), back;
    EXPECT_EQ(-1, point.GetPackedSize());
    ZNRPack pack(0, 64, false);
    EXPECT_EQ(0u, pack.Push(static_cast<ZNRMarshallable const&>(point)));
    Bytes wire = BytesOf(pack);
    EXPECT_EQ((Bytes{0xF9, 0xFF, 0xFF, 0xFF, 2, 0, 'p', 't'}), wire);

    // A copy of a borrowing unpack owns its bytes and keeps the position.
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
    assigned = UnpackOf(BytesOf(pack));
    EXPECT_EQ(0u, assigned.Pop(static_cast<ZNRMarshallable*>(&back)));
    EXPECT_TRUE(back.x == -7 && back.name == "pt");
    EXPECT_EQ(ZNRUserError(22), assigned.Pop(static_cast<ZNRMarshallable*>(&back)));
}
