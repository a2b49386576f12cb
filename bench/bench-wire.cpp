#include "../examples/entity-protocol.h"

#include <plexa/plexa.h>

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// A typical entity: ten mixed integers, a 64-character text, 256 bytes.
struct TypicalEntity : public ZNRMarshallable {
    char a = 0;
    unsigned char b = 0;
    short c = 0;
    unsigned short d = 0;
    int e = 0;
    unsigned int f = 0;
    std::int64_t g = 0;
    std::uint64_t h = 0;
    int i = 0;
    unsigned int j = 0;
    ZNRString text;
    ZNRByteBuffer data;

    std::uint64_t Marshal(ZNRPack* p) const override {
        std::uint64_t r = 0;
        if (r == 0) r = p->Push(a);
        if (r == 0) r = p->Push(b);
        if (r == 0) r = p->Push(c);
        if (r == 0) r = p->Push(d);
        if (r == 0) r = p->Push(e);
        if (r == 0) r = p->Push(f);
        if (r == 0) r = p->Push(g);
        if (r == 0) r = p->Push(h);
        if (r == 0) r = p->Push(i);
        if (r == 0) r = p->Push(j);
        if (r == 0) r = p->Push(text);
        if (r == 0) r = p->Push(data);
        return r;
    }
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        std::uint64_t r = 0;
        if (r == 0) r = u->Pop(&a);
        if (r == 0) r = u->Pop(&b);
        if (r == 0) r = u->Pop(&c);
        if (r == 0) r = u->Pop(&d);
        if (r == 0) r = u->Pop(&e);
        if (r == 0) r = u->Pop(&f);
        if (r == 0) r = u->Pop(&g);
        if (r == 0) r = u->Pop(&h);
        if (r == 0) r = u->Pop(&i);
        if (r == 0) r = u->Pop(&j);
        if (r == 0) r = u->Pop(&text);
        if (r == 0) r = u->Pop(&data);
        return r;
    }
};

TypicalEntity MakeTypicalEntity() {
    TypicalEntity t;
    t.a = 'x';
    t.b = 200;
    t.c = -1234;
    t.d = 54321;
    t.e = -123456789;
    t.f = 3000000000u;
    t.g = -9000000000LL;
    t.h = 18000000000000000000ULL;
    t.i = 42;
    t.j = 7;
    t.text = ZNRString(std::string(64, 'T'));
    std::vector<unsigned char> bytes(256);
    for (std::size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<unsigned char>(k);
    t.data.ExtendCapacity(256);
    t.data.AppendData(bytes.data(), 256);
    return t;
}

// Packs in into a reused pack and reads it back into out, as a server does
// once per request.
template <class Entity>
void RoundTrip(benchmark::State& state, ZNRPack* pack, Entity const& in, Entity* out) {
    pack->Rewind(false);
    if (pack->Push(in) != 0) state.SkipWithError("pack failed");
    ZNRByteBuffer const* bytes = pack->GetBuffer();
    ZNRUnpack unpack(bytes->GetData(), bytes->GetDataCount(), false, false);
    if (unpack.Pop(out) != 0) state.SkipWithError("unpack failed");
}

template <class Entity>
void PackUnpack(benchmark::State& state, Entity const& in) {
    ZNRPack pack(512, 1 << 20, false);
    for (auto _ : state) {
        Entity out;
        RoundTrip(state, &pack, in, &out);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["entity_bytes"] = static_cast<double>(pack.GetBuffer()->GetDataCount());
}

void BM_PackUnpackTypicalEntity(benchmark::State& state) { PackUnpack(state, MakeTypicalEntity()); }
BENCHMARK(BM_PackUnpackTypicalEntity);

// Eight text fields from 6 to 120 characters: a name, an address, a
// message, Chinese and Latin mixed.
struct TextEntity : public ZNRMarshallable {
    unsigned int id = 0;
    ZNRString texts[8];

    std::uint64_t Marshal(ZNRPack* p) const override {
        std::uint64_t r = p->Push(id);
        for (ZNRString const& t : texts)
            if (r == 0) r = p->Push(t);
        return r;
    }
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        std::uint64_t r = u->Pop(&id);
        for (ZNRString& t : texts)
            if (r == 0) r = u->Pop(&t);
        return r;
    }
};

// The fields of a text-heavy entity as GBK bytes.
std::vector<std::string> GbkTexts() {
    std::string const zhong = "\xD6\xD0", wen = "\xCE\xC4";  // U+4E2D U+6587
    std::vector<std::string> texts;
    for (std::size_t k = 0; k < 8; ++k) {
        std::string t = "user-" + std::to_string(k) + ":";
        while (t.size() < 6 + k * 16) t += (k % 2 == 0) ? zhong + "address " + wen : "latin text ";
        texts.push_back(t);
    }
    return texts;
}

void BM_PackUnpackTextEntityUtf8(benchmark::State& state) {
    TextEntity in;
    in.id = 77;
    std::vector<std::string> const gbk = GbkTexts();
    for (std::size_t k = 0; k < 8; ++k) in.texts[k] = ZNRString(gbk[k], "chs");
    PackUnpack(state, in);
}
BENCHMARK(BM_PackUnpackTextEntityUtf8);

// The host's side of GBK text: fields are made from GBK bytes before the
// pack and turned back into GBK bytes after the unpack.
void BM_PackUnpackTextEntityGbk(benchmark::State& state) {
    std::vector<std::string> const gbk = GbkTexts();
    ZNRPack pack(512, 1 << 20, false);
    std::size_t bytes_out = 0;
    for (auto _ : state) {
        TextEntity in;
        for (std::size_t k = 0; k < 8; ++k) in.texts[k] = ZNRString(gbk[k], "chs");
        TextEntity out;
        RoundTrip(state, &pack, in, &out);
        for (ZNRString const& t : out.texts) bytes_out += t.ToStdCStr().size();
    }
    benchmark::DoNotOptimize(bytes_out);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PackUnpackTextEntityGbk);

// Sixty numbers of every width and no text.
struct NumberEntity : public ZNRMarshallable {
    unsigned char flags[12] = {};
    short small[12] = {};
    int ints[12] = {};
    unsigned int ids[12] = {};
    std::int64_t stamps[12] = {};

    template <class Pack, class T, std::size_t N>
    static std::uint64_t PushAll(Pack* p, T const (&values)[N], std::uint64_t r) {
        for (T const& v : values)
            if (r == 0) r = p->Push(v);
        return r;
    }
    template <class Unpack, class T, std::size_t N>
    static std::uint64_t PopAll(Unpack* u, T (&values)[N], std::uint64_t r) {
        for (T& v : values)
            if (r == 0) r = u->Pop(&v);
        return r;
    }
    std::uint64_t Marshal(ZNRPack* p) const override {
        return PushAll(p, stamps, PushAll(p, ids, PushAll(p, ints, PushAll(p, small, PushAll(p, flags, 0)))));
    }
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        return PopAll(u, stamps, PopAll(u, ids, PopAll(u, ints, PopAll(u, small, PopAll(u, flags, 0)))));
    }
};

void BM_PackUnpackNumberEntity(benchmark::State& state) {
    NumberEntity in;
    for (int k = 0; k < 12; ++k) {
        in.flags[k] = static_cast<unsigned char>(k * 17);
        in.small[k] = static_cast<short>(-300 * k);
        in.ints[k] = -70000 * k;
        in.ids[k] = 4000000000u - static_cast<unsigned int>(k);
        in.stamps[k] = -(std::int64_t{1} << 40) * k;
    }
    PackUnpack(state, in);
}
BENCHMARK(BM_PackUnpackNumberEntity);

// The entity server's key-value work for one put and one get, without the
// network: the dispatcher's body goes through the entity map, the target
// unmarshals the request and packs its reply into a frame as the server's
// reply sender does.
class KvTarget {
public:
    bool Put(entity_protocol::KvPutRequest const& request, void*) {
        value_.assign(reinterpret_cast<char const*>(request.value.GetData()), request.value.GetDataCount());
        entity_protocol::KvReply reply;
        return Answer(entity_protocol::kKvPutUri, &reply);
    }
    bool Get(entity_protocol::KvKeyRequest const&, void*) {
        entity_protocol::KvReply reply;
        reply.value.SetCapacity(static_cast<unsigned int>(value_.size()));
        reply.value.AppendData(reinterpret_cast<unsigned char const*>(value_.data()),
                               static_cast<unsigned int>(value_.size()));
        return Answer(entity_protocol::kKvGetUri, &reply);
    }
    std::size_t reply_bytes = 0;

private:
    bool Answer(unsigned int uri, entity_protocol::KvReply* reply) {
        ZNRDataSender sender(false, static_cast<int>(ZNRTransMessage::MAX_LENGTH + ZNRTransMessage::HEADER_SIZE));
        if (sender.CreateByEntityProtocol(uri, *reply, 0) != 0) return false;
        reply_bytes += sender.GetBuffer()->GetDataCount();
        return true;
    }
    std::string value_;
};

std::vector<unsigned char> Body(unsigned int uri, ZNRMarshallable const& entity) {
    ZNRPack pack(0, 1 << 20, false);
    pack.Push(uri);
    pack.Push(entity);
    ZNRByteBuffer const* b = pack.GetBuffer();
    return std::vector<unsigned char>(b->GetData(), b->GetData() + b->GetDataCount());
}

void BM_EntityServerKvRequest(benchmark::State& state) {
    using namespace entity_protocol;
    KvPutRequest put;
    put.key = "bench-7-12";
    std::vector<unsigned char> value(64);
    for (std::size_t k = 0; k < value.size(); ++k) value[k] = static_cast<unsigned char>(k * 37);
    put.value.SetCapacity(64);
    put.value.AppendData(value.data(), 64);
    KvKeyRequest get;
    get.key = put.key;
    std::vector<unsigned char> const bodies[2] = {Body(kKvPutUri, put), Body(kKvGetUri, get)};
    KvTarget target;
    ZNREntityMap map;
    map.AddEntityTarget(kKvPutUri, &target, &KvTarget::Put);
    map.AddEntityTarget(kKvGetUri, &target, &KvTarget::Get);
    std::size_t n = 0;
    for (auto _ : state) {
        std::vector<unsigned char> const& body = bodies[n++ & 1];
        bool handled = false;
        if (!map.DispatchEntity(body.data(), static_cast<int>(body.size()), false, &handled, nullptr) || !handled)
            state.SkipWithError("request failed");
    }
    benchmark::DoNotOptimize(target.reply_bytes);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EntityServerKvRequest);

// 100k int pushes into a pack that starts empty: growth must not copy the
// whole buffer on every push.
void BM_Pack100kIntPushes(benchmark::State& state) {
    for (auto _ : state) {
        ZNRPack pack(0, 1u << 20, false);
        for (int k = 0; k < 100000; ++k) {
            if (pack.Push(k) != 0) state.SkipWithError("push failed");
        }
        benchmark::DoNotOptimize(pack.GetBuffer()->GetData());
    }
    state.SetItemsProcessed(state.iterations() * 100000);
}
BENCHMARK(BM_Pack100kIntPushes)->Unit(benchmark::kMillisecond);

class CountingDispatcher : public ZNRDataDispatcher {
public:
    std::uint64_t bodies = 0;
    std::uint64_t checksum = 0;

protected:
    bool OnEntityDataDispatch(unsigned char const* data, int size, bool) override {
        ++bodies;
        checksum += data[0] + static_cast<unsigned int>(size);
        return true;
    }
};

// 1 MiB of 64-byte uncompressed entity frames.
std::vector<unsigned char> MakeEntityStream() {
    std::vector<unsigned char> stream;
    unsigned int const body = 64 - 5;
    while (stream.size() + 64 <= (1u << 20)) {
        unsigned char const header[5] = {0x00, 0x00, static_cast<unsigned char>(body), 0x00, 0x00};
        stream.insert(stream.end(), header, header + 5);
        unsigned char const uri[4] = {0x02, 0x00, 0x01, 0x00};
        stream.insert(stream.end(), uri, uri + 4);
        stream.insert(stream.end(), body - 4, static_cast<unsigned char>(stream.size()));
    }
    return stream;
}

void BM_DispatchEntityFrames(benchmark::State& state) {
    std::vector<unsigned char> const stream = MakeEntityStream();
    CountingDispatcher dispatcher;
    for (auto _ : state) {
        int consumed = 0;
        if (!dispatcher.DispatchData(stream.data(), static_cast<int>(stream.size()), &consumed,
                                     ZNRDataDispatcher::MODE_ENTITY) ||
            consumed != static_cast<int>(stream.size())) {
            state.SkipWithError("dispatch failed");
        }
    }
    benchmark::DoNotOptimize(dispatcher.checksum);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(dispatcher.bodies));
}
BENCHMARK(BM_DispatchEntityFrames);

// 16 KiB of English-like text.
std::string MakeText() {
    static char const* const words[] = {"the ",    "reactor ", "frame ",  "body ",   "sends ",
                                        "packet ", "service ", "of ",     "a ",      "command ",
                                        "queue ",  "thread ",  "device ", "handler ", "reads ",
                                        "timer ",  "writes ",  "and ",    "network ", "\n"};
    std::string text;
    std::uint32_t seed = 12345;
    while (text.size() < 16384) {
        seed = seed * 1103515245u + 12345u;
        text += words[(seed >> 16) % 20];
    }
    text.resize(16384);
    return text;
}

void BM_TransMessageCompress(benchmark::State& state) {
    std::string const text = MakeText();
    std::size_t out = 0;
    for (auto _ : state) {
        ZNRTransMessage message;
        ZNRTransMessage::Header header;
        header.compress_flag = ZNRTransMessage::COMPRESS_FLAG_GZIP;
        header.length = static_cast<unsigned int>(text.size());
        unsigned int length = 0;
        if (message.SetHeader(header) != 0 ||
            message.SetData(reinterpret_cast<unsigned char const*>(text.data()), &length) != 0) {
            state.SkipWithError("compress failed");
        }
        out = length;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["compressed"] = static_cast<double>(out);
}
BENCHMARK(BM_TransMessageCompress);

// zlib on its own with the library's settings (raw deflate, level -1,
// memory level 9), one stream per body as the library does.
void BM_ZlibCompress(benchmark::State& state) {
    std::string const text = MakeText();
    std::vector<unsigned char> out(deflateBound(nullptr, text.size()) + 64);
    std::size_t size = 0;
    for (auto _ : state) {
        z_stream z;
        std::memset(&z, 0, sizeof z);
        if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) !=
            Z_OK) {
            state.SkipWithError("deflateInit2 failed");
        }
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        z.avail_in = static_cast<uInt>(text.size());
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        if (deflate(&z, Z_FINISH) != Z_STREAM_END) state.SkipWithError("deflate failed");
        size = z.total_out;
        deflateEnd(&z);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["compressed"] = static_cast<double>(size);
}
BENCHMARK(BM_ZlibCompress);

std::vector<unsigned char> MakeCompressedFrame() {
    std::string const text = MakeText();
    ZNRDataSender sender(false, 1 << 20);
    sender.CreateByTransMessageProtocol(reinterpret_cast<unsigned char const*>(text.data()),
                                        static_cast<int>(text.size()), 1);
    ZNRByteBuffer const* b = sender.GetBuffer();
    return std::vector<unsigned char>(b->GetData(), b->GetData() + b->GetDataCount());
}

void BM_TransMessageDecompress(benchmark::State& state) {
    std::vector<unsigned char> const frame = MakeCompressedFrame();
    for (auto _ : state) {
        ZNRTransMessage message;
        unsigned int header_length = 0;
        std::uint64_t error = 0;
        ZNRByteBuffer out;
        if (message.ParseHeader(frame.data(), static_cast<unsigned int>(frame.size()),
                                &header_length, &error) != ZNRTransMessage::PARSE_OK ||
            message.ParseGzipBody(frame.data() + header_length,
                                  static_cast<unsigned int>(frame.size() - header_length), &out,
                                  &error) != ZNRTransMessage::PARSE_OK ||
            out.GetDataCount() != 16384) {
            state.SkipWithError("decompress failed");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 16384));
}
BENCHMARK(BM_TransMessageDecompress);

void BM_ZlibDecompress(benchmark::State& state) {
    std::vector<unsigned char> const frame = MakeCompressedFrame();
    std::vector<unsigned char> out(16384 * 2);
    for (auto _ : state) {
        z_stream z;
        std::memset(&z, 0, sizeof z);
        if (inflateInit2(&z, -15) != Z_OK) state.SkipWithError("inflateInit2 failed");
        z.next_in = const_cast<Bytef*>(frame.data() + 5);
        z.avail_in = static_cast<uInt>(frame.size() - 5);
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        if (inflate(&z, Z_NO_FLUSH) != Z_STREAM_END || z.total_out != 16384) {
            state.SkipWithError("inflate failed");
        }
        inflateEnd(&z);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 16384));
}
BENCHMARK(BM_ZlibDecompress);

}  // namespace

BENCHMARK_MAIN();
