#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "log-capture.h"

#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes B(std::string const& s) { return Bytes(s.begin(), s.end()); }

// A frame as it is on the wire: 00, flags, 24-bit little-endian length.
Bytes Frame(Bytes const& body, bool bigendian = false, unsigned char compress = 0) {
    Bytes out = {0x00, static_cast<unsigned char>((bigendian ? 0x80 : 0) | (compress << 1)),
                 static_cast<unsigned char>(body.size()),
                 static_cast<unsigned char>(body.size() >> 8),
                 static_cast<unsigned char>(body.size() >> 16)};
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes Concat(std::vector<Bytes> const& parts) {
    Bytes out;
    for (Bytes const& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

class Recorder : public ZNRDataDispatcher {
public:
    struct Call {
        char kind;  // E entity, C compat, T trans, O original, U unix line, D dos line
        Bytes bytes;
        bool bigendian;
        unsigned char const* where;
    };

    std::vector<Call> calls;
    int fail_at = -1;  // index of the call that returns false

protected:
    bool OnEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        return Add('E', d, n, be);
    }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        return Add('C', d, n, be);
    }
    bool OnTransMessageDataDispatch(unsigned char const* d, int n, bool be) override {
        return Add('T', d, n, be);
    }
    bool OnOriginalDataDispatch(unsigned char const* d, int n) override {
        return Add('O', d, n, false);
    }
    bool OnUnixlineDataDispatch(ZNRString const& line) override { return AddLine('U', line); }
    bool OnDoslineDataDispatch(ZNRString const& line) override { return AddLine('D', line); }

private:
    bool Add(char kind, unsigned char const* d, int n, bool be) {
        calls.push_back({kind, Bytes(d, d + n), be, d});
        return static_cast<int>(calls.size()) - 1 != fail_at;
    }
    bool AddLine(char kind, ZNRString const& line) {
        std::string utf8;
        EXPECT_TRUE(line.ToUtf8Str(&utf8));
        return Add(kind, reinterpret_cast<unsigned char const*>(utf8.data()),
                   static_cast<int>(utf8.size()), false);
    }
};

// A compressed frame made by the library's own sender.
Bytes CompressedFrame(Bytes const& body) {
    ZNRDataSender sender(false, 1 << 30);
    EXPECT_EQ(0u, sender.CreateByTransMessageProtocol(body.data(), static_cast<int>(body.size()),
                                                      ZNRTransMessage::COMPRESS_FLAG_GZIP));
    ZNRByteBuffer const* out = sender.GetBuffer();
    return Bytes(out->GetData(), out->GetData() + out->GetDataCount());
}

std::string UserErrorText(unsigned int number) {
    return "A user error was occured, domain=1 errnum=" + std::to_string(number);
}

}  // namespace

TEST(DataDispatcher, TransFramesWaitUntilComplete) {
    Bytes const header_only = {0x00, 0x00, 0x0A, 0x00, 0x00, 'x', 'y'};
    Recorder r;
    int consumed = -1;
    EXPECT_TRUE(r.DispatchData(header_only.data(), 7, &consumed, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(0, consumed);
    consumed = -1;
    EXPECT_TRUE(r.DispatchData(header_only.data(), 4, &consumed, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(0, consumed);
    EXPECT_TRUE(r.calls.empty());

    Bytes const one = Frame(B("abc"));
    Bytes const two = Frame(B("defgh"), true);
    Bytes const three = Frame(B("ijklmnop"));
    Bytes stream = Concat({one, two, three});
    stream.resize(one.size() + two.size() + 6);
    consumed = -1;
    ASSERT_TRUE(r.DispatchData(stream.data(), static_cast<int>(stream.size()), &consumed,
                               ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(one.size() + two.size()), consumed);
    ASSERT_EQ(2u, r.calls.size());
    EXPECT_EQ(B("abc"), r.calls[0].bytes);
    EXPECT_FALSE(r.calls[0].bigendian);
    EXPECT_EQ(B("defgh"), r.calls[1].bytes);
    EXPECT_TRUE(r.calls[1].bigendian);
    // Uncompressed bodies are handed over where they lie.
    EXPECT_EQ(stream.data() + 5, r.calls[0].where);
    EXPECT_EQ(stream.data() + one.size() + 5, r.calls[1].where);

    // An empty body is a packet of its own; trans mode uses its own handler.
    Recorder t;
    Bytes const empties = Concat({Frame(Bytes()), Frame(B("z"))});
    ASSERT_TRUE(t.DispatchData(empties.data(), static_cast<int>(empties.size()), &consumed,
                               ZNRDataDispatcher::MODE_TRANS_MESSAGE));
    EXPECT_EQ(static_cast<int>(empties.size()), consumed);
    ASSERT_EQ(2u, t.calls.size());
    EXPECT_EQ('T', t.calls[0].kind);
    EXPECT_TRUE(t.calls[0].bytes.empty());
    EXPECT_EQ(B("z"), t.calls[1].bytes);

    // Nothing at all, or a negative size, is no data.
    consumed = -1;
    EXPECT_TRUE(t.DispatchData(nullptr, 0, &consumed, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(0, consumed);
    consumed = -1;
    EXPECT_TRUE(t.DispatchData(stream.data(), -5, &consumed, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(0, consumed);
}

TEST(DataDispatcher, FrameSplitAtEveryByte) {
    Bytes const stream =
        Concat({Frame(B("first")), CompressedFrame(B("second, deflated second, deflated")),
                Frame(Bytes(), true), Frame(B("last"), true)});
    std::vector<Bytes> const expected = {B("first"), B("second, deflated second, deflated"),
                                         Bytes(), B("last")};
    for (std::size_t split = 0; split <= stream.size(); ++split) {
        Recorder r;
        // The receive buffer of a device: unconsumed bytes stay in front.
        ZNRByteBuffer buffer(static_cast<unsigned int>(stream.size()));
        buffer.AppendData(stream.data(), static_cast<unsigned int>(split));
        int offset = 0;
        ASSERT_TRUE(r.DispatchData(&buffer, &offset, ZNRDataDispatcher::MODE_ENTITY)) << split;
        buffer.CutData(static_cast<unsigned int>(offset));
        buffer.AppendData(stream.data() + split, static_cast<unsigned int>(stream.size() - split));
        offset = 0;
        ASSERT_TRUE(r.DispatchData(&buffer, &offset, ZNRDataDispatcher::MODE_ENTITY)) << split;
        EXPECT_EQ(buffer.GetDataCount(), static_cast<unsigned int>(offset)) << split;
        ASSERT_EQ(expected.size(), r.calls.size()) << split;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(expected[i], r.calls[i].bytes) << split << " " << i;
            EXPECT_EQ(i >= 2, r.calls[i].bigendian) << split << " " << i;
        }
    }

    // One byte per read: every packet arrives exactly once, in order.
    Recorder r;
    ZNRByteBuffer buffer(static_cast<unsigned int>(stream.size()));
    for (unsigned char byte : stream) {
        buffer.AppendData(&byte, 1);
        int offset = 0;
        ASSERT_TRUE(r.DispatchData(&buffer, &offset, ZNRDataDispatcher::MODE_ENTITY));
        buffer.CutData(static_cast<unsigned int>(offset));
    }
    EXPECT_EQ(0u, buffer.GetDataCount());
    ASSERT_EQ(expected.size(), r.calls.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(expected[i], r.calls[i].bytes);

    // The offset form starts at the offset and refuses one past the data.
    Recorder s;
    ZNRByteBuffer twice(static_cast<unsigned int>(stream.size() + 3));
    twice.AppendData(reinterpret_cast<unsigned char const*>("xyz"), 3);
    twice.AppendData(stream.data(), static_cast<unsigned int>(stream.size()));
    int offset = 3;
    ASSERT_TRUE(s.DispatchData(&twice, &offset, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(stream.size() + 3), offset);
    offset = static_cast<int>(twice.GetDataCount()) + 1;
    EXPECT_FALSE(s.DispatchData(&twice, &offset, ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(twice.GetDataCount()) + 1, offset);
    offset = -1;
    EXPECT_FALSE(s.DispatchData(&twice, &offset, ZNRDataDispatcher::MODE_ENTITY));
}

TEST(DataDispatcher, TransFramingErrorsStopTheStream) {
    LogCapture log;
    Recorder r;
    int consumed = 77;

    // compress_flag 2 is refused by the header parser.
    Bytes const bad_flag = Concat({Frame(B("ok")), {0x00, 0x04, 0x01, 0x00, 0x00, 'x'}});
    EXPECT_FALSE(r.DispatchData(bad_flag.data(), static_cast<int>(bad_flag.size()), &consumed,
                                ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(77, consumed);
    EXPECT_EQ(1u, r.calls.size());
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Parse trans message header error, error=\"" + UserErrorText(25) + "\"",
              log.lines()[0].message);
    EXPECT_EQ(ZNRLogger::LOGL_WARNING, log.lines()[0].level);
    EXPECT_EQ("ZNRDataDispatcher::DispatchData", log.lines()[0].function);

    // A "compressed" body that is no deflate stream.
    log.clear();
    Bytes const garbage = Frame({0xFF, 0xFF, 0xFF, 0xFF}, false, 1);
    EXPECT_FALSE(r.DispatchData(garbage.data(), static_cast<int>(garbage.size()), &consumed,
                                ZNRDataDispatcher::MODE_TRANS_MESSAGE));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Parse trans message body error, invalid gzip data, error=\"" + UserErrorText(29) +
                  "\"",
              log.lines()[0].message);

    // A truncated deflate stream of exactly the announced length.
    log.clear();
    Bytes deflated = CompressedFrame(Bytes(1000, 'q'));
    deflated.resize(deflated.size() - 2);
    deflated[2] = static_cast<unsigned char>(deflated.size() - 5);
    deflated[3] = static_cast<unsigned char>((deflated.size() - 5) >> 8);
    EXPECT_FALSE(r.DispatchData(deflated.data(), static_cast<int>(deflated.size()), &consumed,
                                ZNRDataDispatcher::MODE_ENTITY));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_NE(std::string::npos, log.lines()[0].message.find("errnum=29"));

    // A handler refusing the second packet ends the dispatch there.
    log.clear();
    Recorder refuse;
    refuse.fail_at = 1;
    Bytes const three = Concat({Frame(B("a")), Frame(B("b")), Frame(B("c"))});
    EXPECT_FALSE(refuse.DispatchData(three.data(), static_cast<int>(three.size()), &consumed,
                                     ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(77, consumed);
    EXPECT_EQ(2u, refuse.calls.size());
    EXPECT_TRUE(log.lines().empty());

    // Modes outside the six.
    EXPECT_FALSE(r.DispatchData(three.data(), static_cast<int>(three.size()), &consumed,
                                static_cast<ZNRDataDispatcher::Mode_t>(6)));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Can not dispatch data, mode is not support!", log.lines()[0].message);
    EXPECT_EQ(77, consumed);
}

TEST(DataDispatcher, InflatedBodyPastTheLimitIsAParseError) {
    // 64 MiB + 1 zero bytes deflate to far less than a frame can carry.
    Bytes const zeros((64u << 20) + 1, 0);
    ZNRGzip gzip;
    ASSERT_TRUE(gzip.Open(true));
    ZNRByteBuffer deflated;
    ASSERT_TRUE(gzip.Compress(zeros.data(), static_cast<int>(zeros.size()), &deflated, true));
    Bytes const frame =
        Frame(Bytes(deflated.GetData(), deflated.GetData() + deflated.GetDataCount()), false, 1);

    LogCapture log;
    Recorder r;
    int consumed = 5;
    EXPECT_FALSE(r.DispatchData(frame.data(), static_cast<int>(frame.size()), &consumed,
                                ZNRDataDispatcher::MODE_ENTITY));
    EXPECT_EQ(5, consumed);
    EXPECT_TRUE(r.calls.empty());
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Parse trans message body error, invalid gzip data, error=\"" + UserErrorText(29) +
                  "\"",
              log.lines()[0].message);
}

TEST(DataDispatcher, CompatPacketsAreCutByTheirLength) {
    Bytes const data = {0x08, 0x00, 0x00, 0x00, 'A', 'B', 'C', 'D', 0x05, 0x00};
    Recorder r;
    int consumed = -1;
    ASSERT_TRUE(r.DispatchData(data.data(), static_cast<int>(data.size()), &consumed,
                               ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(8, consumed);
    ASSERT_EQ(1u, r.calls.size());
    EXPECT_EQ('C', r.calls[0].kind);
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 8), r.calls[0].bytes);
    EXPECT_EQ(data.data(), r.calls[0].where);
    EXPECT_FALSE(r.calls[0].bigendian);

    consumed = -1;
    EXPECT_TRUE(r.DispatchData(data.data(), 3, &consumed, ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(0, consumed);
    EXPECT_EQ(1u, r.calls.size());

    // A length below the header size still advances by itself; the next
    // length is then read from inside the old one (00 00 01 00).
    Recorder small;
    Bytes const tiny = {0x03, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00};
    ASSERT_TRUE(small.DispatchData(tiny.data(), static_cast<int>(tiny.size()), &consumed,
                                   ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(3, consumed);
    ASSERT_EQ(1u, small.calls.size());
    EXPECT_EQ(Bytes({0x03, 0x00, 0x00}), small.calls[0].bytes);

    // Length 0 reaches the handler once and then breaks the stream instead
    // of spinning on the same bytes.
    Recorder zero;
    Bytes const nothing = {0x00, 0x00, 0x00, 0x00, 0x09};
    consumed = 42;
    EXPECT_FALSE(zero.DispatchData(nothing.data(), 5, &consumed,
                                   ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(42, consumed);
    ASSERT_EQ(1u, zero.calls.size());
    EXPECT_TRUE(zero.calls[0].bytes.empty());

    // A length no int-sized stream can hold.
    Recorder huge;
    Bytes const hostile = {0x00, 0x00, 0x00, 0x80, 1, 2, 3, 4};
    EXPECT_FALSE(huge.DispatchData(hostile.data(), 8, &consumed,
                                   ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_TRUE(huge.calls.empty());
    Bytes const large = {0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3, 4};
    EXPECT_TRUE(huge.DispatchData(large.data(), 8, &consumed,
                                  ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(0, consumed);

    Recorder refuse;
    refuse.fail_at = 0;
    consumed = 42;
    EXPECT_FALSE(refuse.DispatchData(data.data(), static_cast<int>(data.size()), &consumed,
                                     ZNRDataDispatcher::MODE_COMPAT_ENTITY));
    EXPECT_EQ(42, consumed);

    // Original mode takes everything in place, as one packet.
    Recorder raw;
    ASSERT_TRUE(raw.DispatchData(data.data(), 10, &consumed, ZNRDataDispatcher::MODE_ORIGINAL));
    EXPECT_EQ(10, consumed);
    ASSERT_EQ(1u, raw.calls.size());
    EXPECT_EQ(data.data(), raw.calls[0].where);
    raw.fail_at = 1;
    EXPECT_FALSE(raw.DispatchData(data.data(), 10, &consumed, ZNRDataDispatcher::MODE_ORIGINAL));
}

TEST(DataDispatcher, LineModesAtTheEdges) {
    Bytes const data = B("ab\r\ncd\nef");
    Recorder unix_lines;
    int consumed = -1;
    ASSERT_TRUE(unix_lines.DispatchData(data.data(), static_cast<int>(data.size()), &consumed,
                                        ZNRDataDispatcher::MODE_UNIXLINE));
    EXPECT_EQ(7, consumed);
    ASSERT_EQ(2u, unix_lines.calls.size());
    EXPECT_EQ('U', unix_lines.calls[0].kind);
    EXPECT_EQ(B("ab\r"), unix_lines.calls[0].bytes);
    EXPECT_EQ(B("cd"), unix_lines.calls[1].bytes);

    Recorder dos;
    ASSERT_TRUE(dos.DispatchData(data.data(), static_cast<int>(data.size()), &consumed,
                                 ZNRDataDispatcher::MODE_DOSLINE));
    EXPECT_EQ(4, consumed);
    ASSERT_EQ(1u, dos.calls.size());
    EXPECT_EQ('D', dos.calls[0].kind);
    EXPECT_EQ(B("ab"), dos.calls[0].bytes);

    struct Case {
        std::string in;
        ZNRDataDispatcher::Mode_t mode;
        std::vector<std::string> lines;
        int consumed;
    };
    std::vector<Case> const cases = {
        {"\n\n", ZNRDataDispatcher::MODE_UNIXLINE, {"", ""}, 2},
        {"\r\n", ZNRDataDispatcher::MODE_DOSLINE, {""}, 2},
        {"ab\r", ZNRDataDispatcher::MODE_DOSLINE, {}, 0},      // CR at the very end
        {"\rx\r\n", ZNRDataDispatcher::MODE_DOSLINE, {"\rx"}, 4},
        {"a\nb\r\n", ZNRDataDispatcher::MODE_DOSLINE, {"a\nb"}, 5},  // lone LF
        {"\r\r\n\n", ZNRDataDispatcher::MODE_DOSLINE, {"\r"}, 3},
        {"no end", ZNRDataDispatcher::MODE_UNIXLINE, {}, 0},
        {std::string("a\0b\nc\n", 6), ZNRDataDispatcher::MODE_UNIXLINE, {"a", "c"}, 6},
        {"\xE4\xB8\xAD\xE6\x96\x87\n", ZNRDataDispatcher::MODE_UNIXLINE, {"\xE4\xB8\xAD\xE6\x96\x87"}, 7},
    };
    for (Case const& c : cases) {
        Recorder r;
        consumed = -1;
        ASSERT_TRUE(r.DispatchData(reinterpret_cast<unsigned char const*>(c.in.data()),
                                   static_cast<int>(c.in.size()), &consumed, c.mode))
            << c.in;
        EXPECT_EQ(c.consumed, consumed) << c.in;
        ASSERT_EQ(c.lines.size(), r.calls.size()) << c.in;
        for (std::size_t i = 0; i < c.lines.size(); ++i) EXPECT_EQ(B(c.lines[i]), r.calls[i].bytes);
    }

    consumed = -1;
    EXPECT_TRUE(dos.DispatchData(data.data(), 0, &consumed, ZNRDataDispatcher::MODE_DOSLINE));
    EXPECT_EQ(0, consumed);
    consumed = -1;
    EXPECT_TRUE(dos.DispatchData(data.data(), -1, &consumed, ZNRDataDispatcher::MODE_UNIXLINE));
    EXPECT_EQ(0, consumed);
}

TEST(DataDispatcher, LineConversionAndHandlerFailures) {
    LogCapture log;
    Bytes const bad = B("ok\n\xFF\xFE\nlater\n");
    Recorder unix_lines;
    int consumed = 9;
    EXPECT_FALSE(unix_lines.DispatchData(bad.data(), static_cast<int>(bad.size()), &consumed,
                                         ZNRDataDispatcher::MODE_UNIXLINE));
    EXPECT_EQ(9, consumed);
    EXPECT_EQ(1u, unix_lines.calls.size());
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Dispatch unixline error, can not convert unixline(utf8) to locale string",
              log.lines()[0].message);
    EXPECT_EQ("ZNRDataDispatcher::DispatchData", log.lines()[0].function);

    log.clear();
    Bytes const bad_dos = B("\xC3\r\n");
    Recorder dos;
    EXPECT_FALSE(dos.DispatchData(bad_dos.data(), static_cast<int>(bad_dos.size()), &consumed,
                                  ZNRDataDispatcher::MODE_DOSLINE));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Dispatch dosline data error, can not convert dosline(utf8) to locale string",
              log.lines()[0].message);

    log.clear();
    Recorder refuse;
    refuse.fail_at = 0;
    Bytes const lines = B("one\r\ntwo\r\n");
    EXPECT_FALSE(refuse.DispatchData(lines.data(), static_cast<int>(lines.size()), &consumed,
                                     ZNRDataDispatcher::MODE_DOSLINE));
    EXPECT_EQ(1u, refuse.calls.size());
    EXPECT_EQ(9, consumed);
    EXPECT_TRUE(log.lines().empty());
}
