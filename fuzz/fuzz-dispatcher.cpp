// DispatchData in every mode, over the whole stream at once and over the
// same stream arriving in pieces through a receive buffer: both must hand
// over the same packets and agree on success.
//
// Input: mode, refusing call (0xFF never), piece count n (mod 8), n piece
// sizes, then the stream.
#include "fuzz-common.h"

namespace {

class Recorder : public ZNRDataDispatcher {
public:
    struct Packet {
        char kind;
        FuzzBytes bytes;
        bool bigendian;
        bool operator==(Packet const& o) const {
            return kind == o.kind && bytes == o.bytes && bigendian == o.bigendian;
        }
    };
    std::vector<Packet> packets;
    int refuse_at = -1;

protected:
    bool OnEntityDataDispatch(unsigned char const* d, int n, bool be) override { return Add('E', d, n, be); }
    bool OnCompatEntityDataDispatch(unsigned char const* d, int n, bool be) override {
        return Add('C', d, n, be);
    }
    bool OnTransMessageDataDispatch(unsigned char const* d, int n, bool be) override {
        return Add('T', d, n, be);
    }
    bool OnOriginalDataDispatch(unsigned char const* d, int n) override { return Add('O', d, n, false); }
    bool OnUnixlineDataDispatch(ZNRString const& line) override { return AddLine('U', line); }
    bool OnDoslineDataDispatch(ZNRString const& line) override { return AddLine('D', line); }

private:
    bool Add(char kind, unsigned char const* d, int n, bool be) {
        FUZZ_CHECK(n >= 0);
        packets.push_back({kind, FuzzBytes(d, d + n), be});
        return static_cast<int>(packets.size()) - 1 != refuse_at;
    }
    bool AddLine(char kind, ZNRString const& line) {
        std::string utf8;
        // A line came from UTF-8, so it goes back to UTF-8.
        FUZZ_CHECK(line.ToUtf8Str(&utf8));
        return Add(kind, reinterpret_cast<unsigned char const*>(utf8.data()),
                   static_cast<int>(utf8.size()), false);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 3) return 0;
    ZNRDataDispatcher::Mode_t const mode = static_cast<ZNRDataDispatcher::Mode_t>(data[0] % 6);
    // Original mode hands over whatever arrived, so only its bytes compare.
    bool const original = mode == ZNRDataDispatcher::MODE_ORIGINAL;
    int const refuse_at = data[1] == 0xFF || original ? -1 : data[1];
    std::size_t const pieces = data[2] % 8;
    if (size < 3 + pieces) return 0;
    std::vector<unsigned int> piece_sizes(data + 3, data + 3 + pieces);
    unsigned char const* stream = data + 3 + pieces;
    unsigned int const length = static_cast<unsigned int>(size - 3 - pieces);

    Recorder whole;
    whole.refuse_at = refuse_at;
    int consumed = -1;
    bool const whole_ok = whole.DispatchData(stream, static_cast<int>(length), &consumed, mode);
    if (whole_ok) FUZZ_CHECK(consumed >= 0 && static_cast<unsigned int>(consumed) <= length);

    // A device's receive buffer: each read appends, the consumed front is cut.
    Recorder split;
    split.refuse_at = refuse_at;
    ZNRByteBuffer buffer(length);
    unsigned int fed = 0, taken = 0;
    bool split_ok = true;
    piece_sizes.push_back(length);  // the rest
    for (unsigned int piece : piece_sizes) {
        unsigned int const n = piece < length - fed ? piece : length - fed;
        buffer.AppendData(stream + fed, n);
        fed += n;
        int offset = 0;
        if (!split.DispatchData(&buffer, &offset, mode)) {
            split_ok = false;
            break;
        }
        FUZZ_CHECK(offset >= 0 && static_cast<unsigned int>(offset) <= buffer.GetDataCount());
        buffer.CutData(static_cast<unsigned int>(offset));
        taken += static_cast<unsigned int>(offset);
    }
    FUZZ_CHECK(whole_ok == split_ok);
    if (original) {
        FUZZ_CHECK(whole.packets.size() == 1);
        FuzzBytes joined;
        for (Recorder::Packet const& p : split.packets)
            joined.insert(joined.end(), p.bytes.begin(), p.bytes.end());
        FUZZ_CHECK(joined == whole.packets[0].bytes);
    } else {
        FUZZ_CHECK(whole.packets == split.packets);
    }
    if (whole_ok) FUZZ_CHECK(static_cast<unsigned int>(consumed) == taken);
    return 0;
}
