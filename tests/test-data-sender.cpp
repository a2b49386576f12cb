#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "log-capture.h"

#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

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

template <class... T>
std::uint64_t PushAll(ZNRPack* p, T const&... v) {
    std::uint64_t e = 0;
    ((e = e != 0 ? e : p->Push(v)), ...);
    return e;
}

template <class... T>
std::uint64_t PopAll(ZNRUnpack* u, T*... v) {
    std::uint64_t e = 0;
    ((e = e != 0 ? e : u->Pop(v)), ...);
    return e;
}

// One field of every kind the pack encoding has, nested entity included.
struct Everything : public ZNRMarshallable {
    char c = 0;
    unsigned char uc = 0;
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned int ui = 0;
    std::int64_t ll = 0;
    std::uint64_t ull = 0;
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

Everything Sample() {
    Everything e;
    e.c = -7;
    e.uc = 0xF0;
    e.s = -30000;
    e.us = 0xBEEF;
    e.i = -2000000000;
    e.ui = 0xDEADBEEF;
    e.ll = -1234567890123456789LL;
    e.ull = 0xF00DFACECAFEBABEULL;
    e.text = ZNRString(u"h\u00e9llo \u4e2d\u6587");
    e.bytes = std::string("bin\0ary", 7);
    unsigned char const raw[] = {0x00, 0xFF, 0x10, 0x80};
    e.buffer.ExtendCapacity(4);
    e.buffer.AppendData(raw, 4);
    e.nested.value = 0x01020304;
    return e;
}

void ExpectSame(Everything const& a, Everything const& b) {
    EXPECT_EQ(a.c, b.c);
    EXPECT_EQ(a.uc, b.uc);
    EXPECT_EQ(a.s, b.s);
    EXPECT_EQ(a.us, b.us);
    EXPECT_EQ(a.i, b.i);
    EXPECT_EQ(a.ui, b.ui);
    EXPECT_EQ(a.ll, b.ll);
    EXPECT_EQ(a.ull, b.ull);
    EXPECT_TRUE(a.text == b.text);
    EXPECT_EQ(a.bytes, b.bytes);
    ASSERT_EQ(a.buffer.GetDataCount(), b.buffer.GetDataCount());
    EXPECT_EQ(Bytes(a.buffer.GetData(), a.buffer.GetData() + a.buffer.GetDataCount()),
              Bytes(b.buffer.GetData(), b.buffer.GetData() + b.buffer.GetDataCount()));
    EXPECT_EQ(a.nested.value, b.nested.value);
}

struct Service {
    std::vector<Everything> got;
    std::vector<unsigned short> codes;
    bool OnEverything(Everything const& e, void*) {
        got.push_back(e);
        return true;
    }
    bool OnCompatEverything(Everything const& e, unsigned short res_code, void*) {
        got.push_back(e);
        codes.push_back(res_code);
        return true;
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
        bool handled = false;
        if (!entities.DispatchEntity(d, n, be, &handled, nullptr)) return false;
        unhandled += handled ? 0 : 1;
        return true;
    }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        bool handled = false;
        if (!compat_entities.DispatchCompatEntity(d, n, be, &handled, nullptr)) return false;
        unhandled += handled ? 0 : 1;
        return true;
    }
};

}  // namespace

TEST(DataSender, TransMessageFramesAndLimits) {
    ZNRDataSender sender;
    unsigned char const abc[] = {'a', 'b', 'c'};
    ASSERT_EQ(0u, sender.CreateByTransMessageProtocol(abc, 3, 0));
    EXPECT_EQ(Bytes({0x00, 0x00, 0x03, 0x00, 0x00, 'a', 'b', 'c'}), Output(sender));

    // Frames are appended one after the other.
    ASSERT_EQ(0u, sender.CreateByTransMessageProtocol(abc, 0, 0));
    EXPECT_EQ(13u, sender.GetBuffer()->GetDataCount());

    EXPECT_EQ(ZNRUserError(25), sender.CreateByTransMessageProtocol(abc, 3, 2));
    EXPECT_EQ(ZNRUserError(26), sender.CreateByTransMessageProtocol(abc, -1, 0));
    EXPECT_EQ(13u, sender.GetBuffer()->GetDataCount());

    // A frame past the limit is dropped and success still reported.
    ZNRDataSender small(false, 8);
    unsigned char const ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(0u, small.CreateByTransMessageProtocol(ten, 5, 0));
    EXPECT_EQ(0u, small.GetBuffer()->GetDataCount());
    EXPECT_EQ(0u, small.CreateByTransMessageProtocol(ten, 3, 0));
    EXPECT_EQ(8u, small.GetBuffer()->GetDataCount());
    EXPECT_EQ(0u, small.CreateByTransMessageProtocol(ten, 0, 0));
    EXPECT_EQ(8u, small.GetBuffer()->GetDataCount());

    // Compressed frames carry a raw deflate body and its own length.
    ZNRDataSender deflating(true);
    std::string const text(2000, 'w');
    ASSERT_EQ(0u, deflating.CreateByTransMessageProtocol(
                      reinterpret_cast<unsigned char const*>(text.data()), 2000, 1));
    Bytes const frame = Output(deflating);
    ASSERT_GT(frame.size(), 5u);
    EXPECT_LT(frame.size(), 100u);
    EXPECT_EQ(0x00, frame[0]);
    EXPECT_EQ(0x82, frame[1]);
    EXPECT_EQ(frame.size() - 5, frame[2] | (frame[3] << 8) | (frame[4] << 16));

    // The copy keeps bytes and byte order under a limit of its own.
    ZNRDataSender copy(deflating);
    EXPECT_EQ(frame, Output(copy));
    EXPECT_TRUE(copy.GetPack()->Bigendian());
    EXPECT_EQ(65535u, copy.GetPack()->GetMaxCapacity());
    ZNRDataSender assigned(false, 100);
    assigned = sender;
    EXPECT_EQ(Output(sender), Output(assigned));
    EXPECT_EQ(100u, assigned.GetPack()->GetMaxCapacity());
}

TEST(DataSender, EntityFramesFollowTheByteOrder) {
    Word word;
    word.value = 0x0A0B0C0D;
    ZNRDataSender little;
    ASSERT_EQ(0u, little.CreateByEntityProtocol(0x00020003, word, 0));
    EXPECT_EQ(Bytes({0x00, 0x00, 0x08, 0x00, 0x00, 0x03, 0x00, 0x02, 0x00, 0x0D, 0x0C, 0x0B, 0x0A}),
              Output(little));

    ZNRDataSender big(true);
    ASSERT_EQ(0u, big.CreateByEntityProtocol(0x00020003, word, 0));
    EXPECT_EQ(Bytes({0x00, 0x80, 0x08, 0x00, 0x00, 0x00, 0x02, 0x00, 0x03, 0x0A, 0x0B, 0x0C, 0x0D}),
              Output(big));

    // The body pack has the output's limit: a too-large entity fails there.
    ZNRDataSender tight(false, 7);
    EXPECT_EQ(ZNRUserError(19), tight.CreateByEntityProtocol(1, word, 0));
    EXPECT_EQ(0u, tight.GetBuffer()->GetDataCount());
    EXPECT_EQ(ZNRUserError(25), little.CreateByEntityProtocol(1, word, 3));
    EXPECT_EQ(13u, little.GetBuffer()->GetDataCount());
}

TEST(DataSender, CompatPacketsCountTheWholeOutput) {
    Empty empty;
    ZNRDataSender sender;
    ASSERT_EQ(0u, sender.CreateByCompatEntityProtocol(0x00000302, empty, 0x0105));
    EXPECT_EQ(Bytes({0x0A, 0x00, 0x00, 0x00, 0x02, 0x03, 0x00, 0x00, 0x05, 0x01}),
              Output(sender));

    Word word;
    word.value = 7;
    ASSERT_EQ(0u, sender.CreateByCompatEntityProtocol(0x00000401, word, 0));
    Bytes const both = Output(sender);
    ASSERT_EQ(24u, both.size());
    EXPECT_EQ(24, both[0]);
    EXPECT_EQ(0, both[10]);  // the second packet keeps its placeholder

    // Rewinding the pack starts a fresh packet.
    sender.GetPack()->Rewind(false);
    ASSERT_EQ(0u, sender.CreateByCompatEntityProtocol(0x00000401, word, 0));
    EXPECT_EQ(Bytes({14, 0, 0, 0, 0x01, 0x04, 0, 0, 0, 0, 7, 0, 0, 0}), Output(sender));

    // A failed packet stays half built.
    ZNRDataSender tight(false, 12);
    EXPECT_EQ(ZNRUserError(19), tight.CreateByCompatEntityProtocol(1, word, 0));
    EXPECT_EQ(Bytes({0, 0, 0, 0, 1, 0, 0, 0, 0, 0}), Output(tight));
}

TEST(DataSender, LineProtocols) {
    ZNRDataSender sender;
    ASSERT_EQ(0u, sender.CreateByDoslineProtocol(ZNRString(u"ab")));
    ASSERT_EQ(0u, sender.CreateByUnixlineProtocol(ZNRString(u"\u4e2d")));
    ASSERT_EQ(0u, sender.CreateByUnixlineProtocol(ZNRString()));
    EXPECT_EQ(Bytes({'a', 'b', '\r', '\n', 0xE4, 0xB8, 0xAD, '\n', '\n'}), Output(sender));

    ZNRDataSender tight(false, 3);
    EXPECT_EQ(0u, tight.CreateByDoslineProtocol(ZNRString(u"ab")));
    EXPECT_EQ(0u, tight.GetBuffer()->GetDataCount());

    // A lone surrogate has no UTF-8 form.
    unsigned short const broken[] = {'x', 0xD800, 0};
    EXPECT_EQ(ZNRUserError(33), sender.CreateByUnixlineProtocol(ZNRString(broken)));
    EXPECT_EQ(ZNRUserError(33), sender.CreateByDoslineProtocol(ZNRString(broken)));
    EXPECT_EQ(9u, sender.GetBuffer()->GetDataCount());
}

TEST(DataSender, RoundTripThroughDispatcherAndMaps) {
    Everything sample = Sample();
    Service service;
    Router router;
    ASSERT_TRUE(router.entities.AddEntityTarget(ZNRMakeEntityUri(1, 2), &service,
                                                &Service::OnEverything));
    ASSERT_TRUE(router.compat_entities.AddCompatEntityTarget(ZNRMakeCompatEntityUri(1, 2), &service,
                                                             &Service::OnCompatEverything));

    ZNRDataSender sender;
    ASSERT_EQ(0u, sender.CreateByEntityProtocol(ZNRMakeEntityUri(1, 2),
                                                sample, 0));
    ASSERT_EQ(0u, sender.CreateByEntityProtocol(ZNRMakeEntityUri(1, 2),
                                                sample, 1));
    ZNRByteBuffer const* out = sender.GetBuffer();
    int consumed = 0;
    ASSERT_TRUE(router.DispatchData(out->GetData(), static_cast<int>(out->GetDataCount()),
                                    &consumed, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(out->GetDataCount()), consumed);
    ASSERT_EQ(2u, service.got.size());
    ExpectSame(sample, service.got[0]);
    ExpectSame(sample, service.got[1]);

    ZNRDataSender compat;
    ASSERT_EQ(0u, compat.CreateByCompatEntityProtocol(ZNRMakeCompatEntityUri(1, 2),
                                                      sample, 404));
    Bytes twice = Output(compat);
    twice.insert(twice.end(), twice.begin(), twice.end());
    ASSERT_TRUE(router.DispatchData(twice.data(), static_cast<int>(twice.size()) - 1, &consumed,
                                    ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(static_cast<int>(twice.size() / 2), consumed);
    ASSERT_EQ(3u, service.got.size());
    ExpectSame(sample, service.got[2]);
    EXPECT_EQ(std::vector<unsigned short>({404}), service.codes);
    EXPECT_EQ(0, router.unhandled);

    // Entity headers are read little-endian whatever the sender's order:
    // a big-endian sender's uri 0x00010002 arrives as 0x02000100.
    LogCapture log;
    Word word;
    ZNRDataSender big(true);
    ASSERT_EQ(0u, big.CreateByEntityProtocol(ZNRMakeEntityUri(1, 2), word, 0));
    ASSERT_TRUE(router.DispatchData(big.GetBuffer()->GetData(),
                                    static_cast<int>(big.GetBuffer()->GetDataCount()), &consumed,
                                    ZNRDataDispatcher::MODE_ENTITY));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Can not find entity map, service id=512 command id=256", log.lines()[0].message);
    EXPECT_EQ(3u, service.got.size());
}
