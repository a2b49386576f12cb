#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef std::vector<std::uint64_t> Errors;  // a braced list evaluates in order

Bytes Output(ZNRDataSender const& sender) {
    ZNRByteBuffer const* b = sender.GetBuffer();
    return Bytes(b->GetData(), b->GetData() + b->GetDataCount());
}

struct Empty : public ZNRMarshallable {
    std::uint64_t Marshal(ZNRPack*) const override { return 0; }
    std::uint64_t Unmarshal(ZNRUnpack*) override { return 0; }
};

struct Word : public ZNRMarshallable {
    unsigned int value = 0;
    std::uint64_t Marshal(ZNRPack* pack) const override { return pack->Push(value); }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override { return unpack->Pop(&value); }
};

// The first error of a sequence of pushes or pops.
template <class... T>
std::uint64_t PushAll(ZNRPack* p, T const&... v) { std::uint64_t e = 0; return ((e = e ? e : p->Push(v)), ...); }
template <class... T>
std::uint64_t PopAll(ZNRUnpack* u, T*... v) { std::uint64_t e = 0; return ((e = e ? e : u->Pop(v)), ...); }

// One field of every kind the pack encoding has, nested entity included.
struct Everything : public ZNRMarshallable {
    char c = 0; unsigned char uc = 0; short s = 0; unsigned short us = 0;
    int i = 0; unsigned int ui = 0; std::int64_t ll = 0; std::uint64_t ull = 0;
    ZNRString text;
    std::string bytes;
    ZNRByteBuffer buffer;
    Word nested;

    std::uint64_t Marshal(ZNRPack* p) const override {
        return PushAll(p, c, uc, s, us, i, ui, ll, ull, text, bytes, buffer, nested);
    }
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        return PopAll(u, &c, &uc, &s, &us, &i, &ui, &ll, &ull, &text, &bytes, &buffer, &nested);
    }
};

// Extreme values in every field; the receiving side starts from zeros.
Everything Sample() {
    Everything e;
    e.c = -7, e.uc = 0xF0, e.s = -30000, e.us = 0xBEEF, e.i = -2000000000, e.ui = 0xDEADBEEF;
    e.ll = -1234567890123456789LL, e.ull = 0xF00DFACECAFEBABEULL;
    e.text = ZNRString(u"h\u00e9llo \u4e2d\u6587");
    e.bytes = std::string("bin\0ary", 7);
    unsigned char const raw[] = {0x00, 0xFF, 0x10, 0x80};
    e.buffer.ExtendCapacity(4);
    e.buffer.AppendData(raw, 4);
    e.nested.value = 0x01020304;
    return e;
}

// Every field in comparable form.
auto Fields(Everything const& e) {
    std::string text;
    EXPECT_TRUE(e.text.ToUtf8Str(&text));
    return std::make_tuple(int(e.c), int(e.uc), e.s, e.us, e.i, e.ui, e.ll, e.ull, text, e.bytes,
                           Bytes(e.buffer.GetData(), e.buffer.GetData() + e.buffer.GetDataCount()), e.nested.value);
}

struct Service {
    std::vector<Everything> got;
    std::vector<unsigned short> codes;
    bool OnEverything(Everything const& e, void*) { return got.push_back(e), true; }
    bool OnCompatEverything(Everything const& e, unsigned short res_code, void*) {
        return got.push_back(e), codes.push_back(res_code), true;
    }
};

// What a host's device handler does: forward dispatched bodies to its maps.
class Router : public ZNRDataDispatcher {
public:
    ZNREntityMap entities;
    ZNRCompatEntityMap compat_entities;
    int unhandled = 0;

protected:
    bool OnEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        return Note(entities.DispatchEntity(d, n, be, &(handled_ = false), nullptr));
    }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        return Note(compat_entities.DispatchCompatEntity(d, n, be, &(handled_ = false), nullptr));
    }

private:
    bool Note(bool ok) { return unhandled += ok && !handled_, ok; }
    bool handled_ = false;
};

unsigned char const kData[10] = {'a', 'b', 'c', 4, 5, 6, 7, 8, 9, 10};

}  // namespace

TEST(DataSender, TransMessageFramesAndLimits) {
    ZNRDataSender sender;
    ASSERT_EQ(0u, sender.CreateByTransMessageProtocol(kData, 3, 0));
    EXPECT_EQ(Bytes({0x00, 0x00, 0x03, 0x00, 0x00, 'a', 'b', 'c'}), Output(sender));
    // Frames are appended; failures leave the output alone.
    EXPECT_EQ((Errors{0, ZNRUserError(25), ZNRUserError(26)}),
              (Errors{sender.CreateByTransMessageProtocol(kData, 0, 0),
                      sender.CreateByTransMessageProtocol(kData, 3, 2),
                      sender.CreateByTransMessageProtocol(kData, -1, 0)}));
    EXPECT_EQ(13u, sender.GetBuffer()->GetDataCount());

    // A frame past the limit is dropped and success still reported.
    ZNRDataSender small(false, 8);
    for (auto const& step : std::vector<std::pair<int, unsigned int>>{{5, 0}, {3, 8}, {0, 8}}) {
        EXPECT_EQ(0u, small.CreateByTransMessageProtocol(kData, step.first, 0)) << step.first;
        EXPECT_EQ(step.second, small.GetBuffer()->GetDataCount()) << step.first;
    }

    // Compressed frames carry a raw deflate body and its own length.
    ZNRDataSender deflating(true);
    std::string const text(2000, 'w');
    ASSERT_EQ(0u, deflating.CreateByTransMessageProtocol(reinterpret_cast<unsigned char const*>(text.data()), 2000, 1));
    Bytes const frame = Output(deflating);
    ASSERT_GT(frame.size(), 5u);
    EXPECT_LT(frame.size(), 100u);
    EXPECT_EQ(Bytes({0x00, 0x82}), Bytes(frame.begin(), frame.begin() + 2));
    EXPECT_EQ(frame.size() - 5, frame[2] | (frame[3] << 8) | (frame[4] << 16));

    // The copy keeps bytes and byte order under a limit of its own.
    ZNRDataSender copy(deflating);
    EXPECT_EQ(frame, Output(copy));
    EXPECT_TRUE(copy.GetPack()->Bigendian() && copy.GetPack()->GetMaxCapacity() == 65535u);
    ZNRDataSender assigned(false, 100);
    assigned = sender;
    EXPECT_EQ(Output(sender), Output(assigned));
    EXPECT_EQ(100u, assigned.GetPack()->GetMaxCapacity());
}

TEST(DataSender, EntityAndCompatFrames) {
    Word word;
    word.value = 0x0A0B0C0D;
    ZNRDataSender little, big(true);
    ASSERT_EQ(0u, little.CreateByEntityProtocol(0x00020003, word, 0));
    EXPECT_EQ(Bytes({0x00, 0x00, 0x08, 0x00, 0x00, 0x03, 0x00, 0x02, 0x00, 0x0D, 0x0C, 0x0B, 0x0A}), Output(little));
    ASSERT_EQ(0u, big.CreateByEntityProtocol(0x00020003, word, 0));
    EXPECT_EQ(Bytes({0x00, 0x80, 0x08, 0x00, 0x00, 0x00, 0x02, 0x00, 0x03, 0x0A, 0x0B, 0x0C, 0x0D}), Output(big));

    // The body pack has the output's limit: a too-large entity fails there.
    ZNRDataSender tight(false, 7);
    EXPECT_EQ(std::make_pair(ZNRUserError(19), ZNRUserError(25)),
              std::make_pair(tight.CreateByEntityProtocol(1, word, 0), little.CreateByEntityProtocol(1, word, 3)));
    EXPECT_EQ(std::make_pair(0u, 13u),
              std::make_pair(tight.GetBuffer()->GetDataCount(), little.GetBuffer()->GetDataCount()));

    // Compat packets count the whole output in their length field.
    ZNRDataSender compat;
    Empty empty;
    ASSERT_EQ(0u, compat.CreateByCompatEntityProtocol(0x00000302, empty, 0x0105));
    EXPECT_EQ(Bytes({0x0A, 0x00, 0x00, 0x00, 0x02, 0x03, 0x00, 0x00, 0x05, 0x01}), Output(compat));
    word.value = 7;
    ASSERT_EQ(0u, compat.CreateByCompatEntityProtocol(0x00000401, word, 0));
    Bytes const both = Output(compat);
    ASSERT_EQ(24u, both.size());
    EXPECT_EQ(24, both[0]);
    EXPECT_EQ(0, both[10]);  // the second packet keeps its placeholder
    // Rewinding the pack starts a fresh packet.
    compat.GetPack()->Rewind(false);
    ASSERT_EQ(0u, compat.CreateByCompatEntityProtocol(0x00000401, word, 0));
    EXPECT_EQ(Bytes({14, 0, 0, 0, 0x01, 0x04, 0, 0, 0, 0, 7, 0, 0, 0}), Output(compat));
    // A failed packet stays half built.
    ZNRDataSender tight_compat(false, 12);
    EXPECT_EQ(ZNRUserError(19), tight_compat.CreateByCompatEntityProtocol(1, word, 0));
    EXPECT_EQ(Bytes({0, 0, 0, 0, 1, 0, 0, 0, 0, 0}), Output(tight_compat));
}

TEST(DataSender, LineProtocols) {
    ZNRDataSender sender, tight(false, 3);
    ASSERT_EQ(Errors(3), (Errors{sender.CreateByDoslineProtocol(ZNRString(u"ab")),
                                 sender.CreateByUnixlineProtocol(ZNRString(u"\u4e2d")),
                                 sender.CreateByUnixlineProtocol(ZNRString())}));
    EXPECT_EQ(Bytes({'a', 'b', '\r', '\n', 0xE4, 0xB8, 0xAD, '\n', '\n'}), Output(sender));
    EXPECT_EQ(0u, tight.CreateByDoslineProtocol(ZNRString(u"ab")));  // dropped past the limit
    EXPECT_EQ(0u, tight.GetBuffer()->GetDataCount());

    // A lone surrogate has no UTF-8 form.
    unsigned short const broken[] = {'x', 0xD800, 0};
    EXPECT_EQ(std::make_pair(ZNRUserError(33), ZNRUserError(33)),
              std::make_pair(sender.CreateByUnixlineProtocol(ZNRString(broken)),
                             sender.CreateByDoslineProtocol(ZNRString(broken))));
    EXPECT_EQ(9u, sender.GetBuffer()->GetDataCount());
}

TEST(DataSender, RoundTripThroughDispatcherAndMaps) {
    Everything sample = Sample();
    Service service;
    Router router;
    unsigned int const uri = ZNRMakeEntityUri(1, 2), compat_uri = ZNRMakeCompatEntityUri(1, 2);
    ASSERT_TRUE(router.entities.AddEntityTarget(uri, &service, &Service::OnEverything));
    ASSERT_TRUE(router.compat_entities.AddCompatEntityTarget(compat_uri, &service, &Service::OnCompatEverything));

    // Plain and compressed entity frames.
    ZNRDataSender sender;
    ASSERT_EQ(Errors(2),
              (Errors{sender.CreateByEntityProtocol(uri, sample, 0), sender.CreateByEntityProtocol(uri, sample, 1)}));
    Bytes const frames = Output(sender);
    int consumed = 0;
    ASSERT_TRUE(router.DispatchData(frames.data(), static_cast<int>(frames.size()), &consumed,
                                    ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(frames.size()), consumed);

    // Compat packets are cut by their length: one and a part.
    ZNRDataSender compat;
    ASSERT_EQ(0u, compat.CreateByCompatEntityProtocol(compat_uri, sample, 404));
    Bytes twice = Output(compat);
    twice.insert(twice.end(), twice.begin(), twice.end());
    ASSERT_TRUE(router.DispatchData(twice.data(), static_cast<int>(twice.size()) - 1, &consumed,
                                    ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(static_cast<int>(twice.size() / 2), consumed);
    ASSERT_EQ(3u, service.got.size());
    for (Everything const& got : service.got) EXPECT_EQ(Fields(sample), Fields(got));
    EXPECT_EQ(std::vector<unsigned short>({404}), service.codes);
    EXPECT_EQ(0, router.unhandled);
}
