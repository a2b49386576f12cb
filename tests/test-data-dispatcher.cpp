#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "log-capture.h"

#include <climits>
#include <string>
#include <tuple>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef ZNRDataDispatcher D;

Bytes B(std::string const& s) { return Bytes(s.begin(), s.end()); }

// A frame as it is on the wire: 00, flags, 24-bit little-endian length.
Bytes Frame(Bytes const& body, bool bigendian = false, unsigned char compress = 0) {
    unsigned int const n = static_cast<unsigned int>(body.size());
    Bytes out = {0x00, static_cast<unsigned char>((bigendian ? 0x80 : 0) | (compress << 1)),
                 static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8),
                 static_cast<unsigned char>(n >> 16)};
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
    struct Call { char kind; Bytes bytes; bool bigendian; unsigned char const* where; };
    std::vector<Call> calls;
    int fail_at = -1;  // index of the call that returns false

    // Dispatches the first n bytes of b (all of them by default).
    bool Run(Bytes const& b, Mode_t mode, int* consumed, int n = INT_MIN) {
        return DispatchData(b.data(), n == INT_MIN ? static_cast<int>(b.size()) : n, consumed, mode);
    }
    std::vector<std::string> Bodies() const {
        std::vector<std::string> out;
        for (Call const& c : calls) out.emplace_back(c.bytes.begin(), c.bytes.end());
        return out;
    }

protected:
    bool OnEntityDataDispatch(unsigned char const* d, int n, bool be) override { return Add('E', d, n, be); }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override { return Add('C', d, n, be); }
    bool OnTransMessageDataDispatch(unsigned char const* d, int n, bool be) override { return Add('T', d, n, be); }
    bool OnOriginalDataDispatch(unsigned char const* d, int n) override { return Add('O', d, n, false); }
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
        return Add(kind, reinterpret_cast<unsigned char const*>(utf8.data()), static_cast<int>(utf8.size()), false);
    }
};

// A compressed frame made by the library's own sender.
Bytes CompressedFrame(Bytes const& body) {
    ZNRDataSender sender(false, 1 << 30);
    EXPECT_EQ(0u, sender.CreateByTransMessageProtocol(body.data(), static_cast<int>(body.size()),
                                                      ZNRTransMessage::COMPRESS_FLAG_GZIP));
    return Bytes(sender.GetBuffer()->GetData(), sender.GetBuffer()->GetData() + sender.GetBuffer()->GetDataCount());
}

std::string const kUserError = "A user error was occured, domain=1 errnum=";
std::string const kGzipError = "Parse trans message body error, invalid gzip data, error=\"" + kUserError + "29\"";

int const kUntouched = -77;  // a failed dispatch must not report a count

// One dispatch of a fresh recorder over in[0, size).
struct Case {
    char const* name; Bytes in; D::Mode_t mode; bool ok; int consumed; std::vector<std::string> bodies;
    std::string log = "";  // the single warning expected, if any
    int fail_at = -1, size = INT_MIN;
};

void Check(std::vector<Case> const& cases) {
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        Recorder r;
        r.fail_at = c.fail_at;
        int consumed = kUntouched;
        EXPECT_EQ(c.ok, r.Run(c.in, c.mode, &consumed, c.size));
        EXPECT_EQ(c.consumed, consumed);
        EXPECT_EQ(c.bodies, r.Bodies());
        for (Recorder::Call const& call : r.calls) EXPECT_EQ("ECOTUD"[c.mode], call.kind);
        // Compat and original packets are handed over in place, never big-endian.
        if ((c.mode == D::MODE_COMPAT_ENTITY || c.mode == D::MODE_ORIGINAL) && !r.calls.empty()) {
            EXPECT_EQ(c.in.data(), r.calls[0].where);
            EXPECT_FALSE(r.calls[0].bigendian);
        }
        ASSERT_EQ(c.log.empty() ? 0u : 1u, log.lines().size());
        if (c.log.empty()) continue;
        EXPECT_EQ(std::make_tuple(c.log, ZNRLogger::LOGL_WARNING, std::string("ZNRDataDispatcher::DispatchData")),
                  std::make_tuple(log.lines()[0].message, log.lines()[0].level, log.lines()[0].function));
    }
}

}  // namespace

TEST(DataDispatcher, TransFramesWaitUntilComplete) {
    Bytes const one = Frame(B("abc")), two = Frame(B("defgh"), true);
    Bytes const stream = Concat({one, two, Frame(B("ijklmnop"))});
    Bytes const header_only = {0x00, 0x00, 0x0A, 0x00, 0x00, 'x', 'y'};
    int const two_frames = static_cast<int>(one.size() + two.size());
    Check({
        {"body incomplete", header_only, D::MODE_ENTITY, true, 0, {}},
        {"header incomplete", header_only, D::MODE_ENTITY, true, 0, {}, "", -1, 4},
        {"nothing", header_only, D::MODE_ENTITY, true, 0, {}, "", -1, 0},
        {"negative size", header_only, D::MODE_ENTITY, true, 0, {}, "", -1, -5},
        {"third partial", stream, D::MODE_ENTITY, true, two_frames, {"abc", "defgh"}, "", -1, two_frames + 6},
        // An empty body is a packet of its own.
        {"trans mode", Concat({Frame(Bytes()), Frame(B("z"))}), D::MODE_TRANS_MESSAGE, true, 11, {"", "z"}},
    });
    Recorder r;
    int consumed = -1;
    EXPECT_TRUE(r.DispatchData(nullptr, 0, &consumed, D::MODE_ENTITY));
    EXPECT_EQ(0, consumed);
    ASSERT_TRUE(r.Run(stream, D::MODE_ENTITY, &consumed, two_frames));
    // Uncompressed bodies are handed over where they lie.
    ASSERT_EQ(2u, r.calls.size());
    EXPECT_EQ(std::make_pair(stream.data() + 5, stream.data() + one.size() + 5),
              std::make_pair(r.calls[0].where, r.calls[1].where));
}

TEST(DataDispatcher, FrameSplitAtEveryByte) {
    Bytes const stream = Concat({Frame(B("first")), CompressedFrame(B("second, deflated second, deflated")),
                                 Frame(Bytes(), true), Frame(B("last"), true)});
    std::vector<std::string> const expected = {"first", "second, deflated second, deflated", "", "last"};
    for (std::size_t split = 0; split <= stream.size(); ++split) {
        SCOPED_TRACE(split);
        Recorder r;
        // The receive buffer of a device: unconsumed bytes stay in front.
        ZNRByteBuffer buffer(static_cast<unsigned int>(stream.size()));
        buffer.AppendData(stream.data(), static_cast<unsigned int>(split));
        int offset = 0;
        ASSERT_TRUE(r.DispatchData(&buffer, &offset, D::MODE_ENTITY));
        buffer.CutData(static_cast<unsigned int>(offset));
        buffer.AppendData(stream.data() + split, static_cast<unsigned int>(stream.size() - split));
        offset = 0;
        ASSERT_TRUE(r.DispatchData(&buffer, &offset, D::MODE_ENTITY));
        EXPECT_EQ(buffer.GetDataCount(), static_cast<unsigned int>(offset));
        ASSERT_EQ(expected, r.Bodies());
        for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(i >= 2, r.calls[i].bigendian) << i;
    }

    // The offset form starts at the offset and refuses one past the data.
    Recorder r;
    ZNRByteBuffer twice(static_cast<unsigned int>(stream.size() + 3));
    twice.AppendData(reinterpret_cast<unsigned char const*>("xyz"), 3);
    twice.AppendData(stream.data(), static_cast<unsigned int>(stream.size()));
    int offset = 3;
    ASSERT_TRUE(r.DispatchData(&twice, &offset, D::MODE_ENTITY));
    EXPECT_EQ(static_cast<int>(stream.size() + 3), offset);
    for (int const start : {static_cast<int>(twice.GetDataCount()) + 1, -1}) {
        EXPECT_FALSE(r.DispatchData(&twice, &(offset = start), D::MODE_ENTITY));
        EXPECT_EQ(start, offset);
    }
}

TEST(DataDispatcher, TransFramingErrorsStopTheStream) {
    // A truncated deflate stream of exactly the announced length.
    Bytes const whole = CompressedFrame(Bytes(1000, 'q'));
    Bytes const cut = Frame(Bytes(whole.begin() + 5, whole.end() - 2), false, 1);
    // 64 MiB + 1 inflated bytes are past the body limit.
    Bytes const zeros((64u << 20) + 1, 0);
    ZNRGzip gzip;
    ASSERT_TRUE(gzip.Open(true));
    ZNRByteBuffer big;
    ASSERT_TRUE(gzip.Compress(zeros.data(), static_cast<int>(zeros.size()), &big, true));
    Bytes const three = Concat({Frame(B("a")), Frame(B("b")), Frame(B("c"))});
    Check({
        // compress_flag 2 is refused by the header parser.
        {"bad flag", Concat({Frame(B("ok")), {0x00, 0x04, 0x01, 0x00, 0x00, 'x'}}), D::MODE_ENTITY, false,
         kUntouched, {"ok"}, "Parse trans message header error, error=\"" + kUserError + "25\""},
        {"not deflate", Frame({0xFF, 0xFF, 0xFF, 0xFF}, false, 1), D::MODE_TRANS_MESSAGE, false, kUntouched, {},
         kGzipError},
        {"truncated deflate", cut, D::MODE_ENTITY, false, kUntouched, {}, kGzipError},
        {"inflates too far", Frame(Bytes(big.GetData(), big.GetData() + big.GetDataCount()), false, 1),
         D::MODE_ENTITY, false, kUntouched, {}, kGzipError},
        // A handler refusing the second packet ends the dispatch there, silently.
        {"refused", three, D::MODE_ENTITY, false, kUntouched, {"a", "b"}, "", 1},
        {"mode 6", three, static_cast<D::Mode_t>(6), false, kUntouched, {},
         "Can not dispatch data, mode is not support!"},
    });
}

TEST(DataDispatcher, CompatAndOriginalPackets) {
    Bytes const data = {0x08, 0x00, 0x00, 0x00, 'A', 'B', 'C', 'D', 0x05, 0x00};
    std::string const first(data.begin(), data.begin() + 8), all(data.begin(), data.end());
    Check({
        {"one and a part", data, D::MODE_COMPAT_ENTITY, true, 8, {first}},
        {"length incomplete", data, D::MODE_COMPAT_ENTITY, true, 0, {}, "", -1, 3},
        // Exactly 4 bytes left still hold a whole (header-only) packet.
        {"4 bytes left", Concat({Bytes(data.begin(), data.begin() + 8), {0x04, 0x00, 0x00, 0x00}}),
         D::MODE_COMPAT_ENTITY, true, 12, {first, std::string("\x04\x00\x00\x00", 4)}},
        // A length below the header size still advances by itself; the next
        // length is then read from inside the old one (00 00 01 00).
        {"length 3", {0x03, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00}, D::MODE_COMPAT_ENTITY, true, 3,
         {std::string("\x03\x00\x00", 3)}},
        // Length 0 reaches the handler once, then breaks instead of spinning.
        {"length 0", {0x00, 0x00, 0x00, 0x00, 0x09}, D::MODE_COMPAT_ENTITY, false, kUntouched, {""}},
        {"length 2^31", {0x00, 0x00, 0x00, 0x80, 1, 2, 3, 4}, D::MODE_COMPAT_ENTITY, false, kUntouched, {}},
        {"length 2^31-1", {0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3, 4}, D::MODE_COMPAT_ENTITY, true, 0, {}},
        {"compat refused", data, D::MODE_COMPAT_ENTITY, false, kUntouched, {first}, "", 0},
        // Original mode takes everything as one packet.
        {"original", data, D::MODE_ORIGINAL, true, 10, {all}},
        {"original refused", data, D::MODE_ORIGINAL, false, kUntouched, {all}, "", 0},
    });
}

TEST(DataDispatcher, LineModes) {
    D::Mode_t const U = D::MODE_UNIXLINE, W = D::MODE_DOSLINE;
    std::string const bad_utf8 = "Dispatch unixline error, can not convert unixline(utf8) to locale string";
    Check({
        {"mixed, unix", B("ab\r\ncd\nef"), U, true, 7, {"ab\r", "cd"}},
        {"mixed, dos", B("ab\r\ncd\nef"), W, true, 4, {"ab"}},
        {"empty unix lines", B("\n\n"), U, true, 2, {"", ""}},
        {"empty dos line", B("\r\n"), W, true, 2, {""}},
        {"CR at the end", B("ab\r"), W, true, 0, {}},
        {"leading CR", B("\rx\r\n"), W, true, 4, {"\rx"}},
        {"lone LF", B("a\nb\r\n"), W, true, 5, {"a\nb"}},
        {"CR CR LF", B("\r\r\n\n"), W, true, 3, {"\r"}},
        {"no end", B("no end"), U, true, 0, {}},
        {"NUL cuts the line", B(std::string("a\0b\nc\n", 6)), U, true, 6, {"a", "c"}},
        {"utf8", B("\xE4\xB8\xAD\xE6\x96\x87\n"), U, true, 7, {"\xE4\xB8\xAD\xE6\x96\x87"}},
        {"size 0", B("\n"), W, true, 0, {}, "", -1, 0},
        {"size -1", B("\n"), U, true, 0, {}, "", -1, -1},
        {"bad utf8, unix", B("ok\n\xFF\xFE\nlater\n"), U, false, kUntouched, {"ok"}, bad_utf8},
        {"bad utf8, dos", B("\xC3\r\n"), W, false, kUntouched, {},
         "Dispatch dosline data error, can not convert dosline(utf8) to locale string"},
        {"refused", B("one\r\ntwo\r\n"), W, false, kUntouched, {"one"}, "", 0},
    });
}
