#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "log-capture.h"

#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

struct ProxyCall {
    int id; Bytes body; unsigned char const* where; unsigned short res_code; bool bigendian; void* context;
};
std::vector<ProxyCall> calls;
std::vector<int> ended;

// Records calls and its own end; answers with a fixed result.
class Probe : public ZNREntityTargetProxyBase, public ZNRCompatEntityTargetProxyBase {
public:
    Probe(int id, bool result = true) : id_(id), result_(result) {}
    bool Dispatch(unsigned char const* b, int n, bool be, void* c) override { return Dispatch(b, n, 0, be, c); }
    bool Dispatch(unsigned char const* body, int n, unsigned short res_code, bool be, void* context) override {
        calls.push_back({id_, Bytes(body, body + n), body, res_code, be, context});
        return result_;
    }
    void Destroy() override { ended.push_back(id_), delete this; }

private:
    ~Probe() override {}
    int id_;
    bool result_;
};

std::string const kTooShort = "error=\"A user error was occured, domain=1 errnum=22\"";

struct Point : public ZNRMarshallable {
    int x = 0;
    unsigned short y = 0;
    std::uint64_t Marshal(ZNRPack* p) const override { std::uint64_t e = p->Push(x); return e ? e : p->Push(y); }
    std::uint64_t Unmarshal(ZNRUnpack* u) override { std::uint64_t e = u->Pop(&x); return e ? e : u->Pop(&y); }
};

struct PointService {
    std::vector<std::string> seen;
    bool answer = true;
    bool OnPoint(Point const& p, void* context) { return OnCompatPoint(p, 0, context); }
    bool OnCompatPoint(Point const& p, unsigned short res_code, void* context) {
        seen.push_back(std::to_string(p.x) + "," + std::to_string(p.y) + "#" + std::to_string(res_code) + "@" +
                       static_cast<char const*>(context));
        return answer;
    }
};

class EntityMapTest : public ::testing::Test {
protected:
    void SetUp() override { calls.clear(), ended.clear(); }
    LogCapture log;
};

}  // namespace

TEST_F(EntityMapTest, DispatchFoundNotFoundAndShort) {
    ZNREntityMap map;
    ZNRCompatEntityMap compat;
    ASSERT_TRUE(map.AddEntityMap(0x00010002, new Probe(1)) && map.AddEntityMap(0x00010003, new Probe(2, false)) &&
                compat.AddCompatEntityMap(0x00000503, new Probe(3)));
    EXPECT_FALSE(compat.AddCompatEntityMap(0x00000503, nullptr));

    // Entity: 16-bit command then service, little-endian whatever the packet's order.
    Bytes const e_short = {0x02, 0x00, 0x01}, e_unknown = {0x03, 0x00, 0x02, 0x00, 'z'},
                e_exact = {0x02, 0x00, 0x01, 0x00}, e_refused = {0x03, 0x00, 0x01, 0x00, 'a', 'b'};
    // Compat: length 14, uri 0x503 (service 3, command 5), res code 0x0102, body.
    Bytes const c_packet = {14, 0, 0, 0, 0x03, 0x05, 0, 0, 0x02, 0x01, 'b', 'o', 'd', 'y'},
                c_unknown = {10, 0, 0, 0, 0x02, 0x03, 0, 0, 0, 0};
    struct Row {
        char const* name; Bytes const& in; int size; bool be, ok, handled; std::string log;
        int id = 0; std::string body = ""; unsigned short res_code = 0;  // the proxy called, if any
    };
    std::string const no_uri = "Get entity uri error, may be invalid entity data?, " + kTooShort;
    auto no_header = [](std::string const& what) {
        return "Get compat entity header " + what + " error, may be invalid header?, " + kTooShort;
    };
    for (Row const& r : std::vector<Row>{
             {"entity short", e_short, 3, false, false, true, no_uri},
             {"entity negative", e_short, -4, false, false, true, no_uri},
             {"entity unknown", e_unknown, 5, false, true, true, "Can not find entity map, service id=2 command id=3"},
             {"entity found", e_exact, 4, true, true, true, "", 1},
             {"entity refused", e_refused, 6, false, true, false, "", 2, "ab"},
             {"compat no length", c_packet, 3, false, false, true, no_header("length")},
             {"compat no uri", c_packet, 7, false, false, true, no_header("uri")},
             {"compat no res code", c_packet, 9, false, false, true, no_header("res code")},
             {"compat unknown", c_unknown, 10, false, true, true,
              "Can not find compat entity map, service id=2 command id=3"},
             // The length field is not checked against the size.
             {"compat found", c_packet, 12, true, true, true, "", 3, "bo", 0x0102},
         }) {
        SCOPED_TRACE(r.name);
        calls.clear();
        int context = 0;
        bool handled = r.id ? !r.handled : r.handled;  // only a found proxy sets it
        bool const is_compat = r.name[0] == 'c';
        EXPECT_EQ(r.ok, is_compat ? compat.DispatchCompatEntity(r.in.data(), r.size, r.be, &handled, &context)
                                  : map.DispatchEntity(r.in.data(), r.size, r.be, &handled, &context));
        EXPECT_EQ(r.handled, handled);
        ASSERT_EQ(r.log.empty() ? 0u : 1u, log.lines().size());
        if (!r.log.empty()) {
            EXPECT_EQ(r.log, log.lines()[0].message);
            EXPECT_EQ(ZNRLogger::LOGL_WARNING, log.lines()[0].level);
            EXPECT_EQ(is_compat ? "ZNRCompatEntityMap::DispatchCompatEntity" : "ZNREntityMap::DispatchEntity",
                      log.lines()[0].function);
        }
        log.clear();
        ASSERT_EQ(r.id ? 1u : 0u, calls.size());
        if (!r.id) continue;
        EXPECT_EQ(r.id, calls[0].id);
        EXPECT_EQ(r.body, std::string(calls[0].body.begin(), calls[0].body.end()));
        EXPECT_EQ(r.in.data() + (is_compat ? 10 : 4), calls[0].where);  // bodies are handed over in place
        EXPECT_EQ(r.res_code, calls[0].res_code);
        EXPECT_EQ(r.be, calls[0].bigendian);
        EXPECT_EQ(&context, calls[0].context);
    }
    EXPECT_TRUE(map.DispatchEntity(e_refused.data(), 6, false, nullptr, nullptr));
    EXPECT_EQ(2u, calls.size());

    // Peeking is silent; a failed peek keeps the last uri.
    unsigned int uri = 0, compat_uri = 0;
    std::uint64_t const short_data = ZNRUserError(22);
    EXPECT_EQ((std::vector<std::uint64_t>{0, short_data, 0, short_data, short_data}),
              (std::vector<std::uint64_t>{map.PeekUri(e_refused.data(), 6, true, &uri),
                                          map.PeekUri(e_refused.data(), 3, false, &uri),
                                          compat.PeekUri(c_packet.data(), 8, false, &compat_uri),
                                          compat.PeekUri(c_packet.data(), 7, false, &compat_uri),
                                          compat.PeekUri(c_packet.data(), 2, false, &compat_uri)}));
    EXPECT_EQ(std::make_pair(0x00010003u, 0x503u), std::make_pair(uri, compat_uri));
    EXPECT_TRUE(log.lines().empty());

    compat.RemoveCompatEntityMap(0x503);
    EXPECT_EQ(std::vector<int>({3}), ended);
}

TEST_F(EntityMapTest, RegistrationOwnsAndEndsProxies) {
    {
        ZNREntityMap map;
        for (int id : {3, 1, 2}) ASSERT_TRUE(map.AddEntityMap(10u * id, new Probe(id)));
        // A refused proxy stays the caller's.
        Probe* duplicate = new Probe(9);
        EXPECT_FALSE(map.AddEntityMap(20, duplicate));
        EXPECT_TRUE(ended.empty());
        static_cast<ZNREntityTargetProxyBase*>(duplicate)->Destroy();
        ended.clear();

        map.RemoveEntityMap(20);
        EXPECT_EQ(std::vector<int>({2}), ended);
        EXPECT_TRUE(map.AddEntityMap(20, new Probe(4)));  // the uri is free again

        // Copies share the proxies; only the last holder ends them.
        {
            ZNREntityMap copy(map);
            ZNREntityMap assigned;
            ASSERT_TRUE(assigned.AddEntityMap(99, new Probe(99)));
            assigned = copy;
            EXPECT_EQ(std::vector<int>({2, 99}), ended);
            Bytes const d = {30, 0, 0, 0};
            EXPECT_TRUE(assigned.DispatchEntity(d.data(), 4, false, nullptr, nullptr));
            ASSERT_EQ(1u, calls.size());
            EXPECT_EQ(3, calls[0].id);
        }
        EXPECT_EQ(std::vector<int>({2, 99}), ended);
        map.RemoveAllEntityMap();
        EXPECT_EQ(std::vector<int>({2, 99, 1, 4, 3}), ended);  // key order: 10, 20, 30
        ended.clear();
        ASSERT_TRUE(map.AddEntityMap(5, new Probe(5)));
    }
    EXPECT_EQ(std::vector<int>({5}), ended);
}

TEST(EntityMap, TypedTargetsUnpackAndCall) {
    PointService service;
    char context[] = "ctx";
    ZNREntityMap map;
    ZNRCompatEntityMap compat;
    unsigned int const uri = ZNRMakeEntityUri(7, 1), compat_uri = ZNRMakeCompatEntityUri(2, 3);
    EXPECT_EQ(std::make_pair(0x00070001u, 0x302u), std::make_pair(uri, compat_uri));
    // A uri takes one target.
    for (bool first : {true, false}) {
        EXPECT_EQ(first, map.AddEntityTarget(uri, &service, &PointService::OnPoint));
        EXPECT_EQ(first, compat.AddCompatEntityTarget(compat_uri, &service, &PointService::OnCompatPoint));
    }

    Bytes const good = {0x01, 0x00, 0x07, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0x34, 0x12, 0xEE};
    Bytes const packet = {16, 0, 0, 0, 0x02, 0x03, 0, 0, 0x09, 0x00, 5, 0, 0, 0, 6, 0};
    // A body too short for the entity is not handled and the target is not called.
    struct Row { bool compat; int size; bool answer, handled; std::string seen; };
    for (Row const& r : std::vector<Row>{{false, 11, true, true, "-2,4660#0@ctx"},
                                         {false, 9, true, false, ""},
                                         {false, 10, false, false, "-2,4660#0@ctx"},
                                         {true, 16, true, true, "5,6#9@ctx"},
                                         {true, 15, true, false, ""}}) {
        SCOPED_TRACE(std::to_string(r.compat) + " " + std::to_string(r.size));
        service.seen.clear();
        service.answer = r.answer;
        bool handled = !r.handled;
        EXPECT_TRUE(r.compat ? compat.DispatchCompatEntity(packet.data(), r.size, false, &handled, context)
                             : map.DispatchEntity(good.data(), r.size, false, &handled, context));
        EXPECT_EQ(r.handled, handled);
        EXPECT_EQ(r.seen.empty() ? std::vector<std::string>() : std::vector<std::string>{r.seen}, service.seen);
    }
}
