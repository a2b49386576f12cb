#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include "log-capture.h"

#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

struct ProxyCall {
    int id;
    Bytes body;
    unsigned char const* where;
    unsigned short res_code;
    bool bigendian;
    void* context;
};

// Records calls and its own end; answers with a fixed result.
class Probe : public ZNREntityTargetProxyBase, public ZNRCompatEntityTargetProxyBase {
public:
    Probe(int id, bool result, std::vector<ProxyCall>* calls, std::vector<int>* ended)
        : id_(id), result_(result), calls_(calls), ended_(ended) {}

    bool Dispatch(unsigned char const* body, int length, bool bigendian, void* context) override {
        calls_->push_back({id_, Bytes(body, body + length), body, 0, bigendian, context});
        return result_;
    }
    bool Dispatch(unsigned char const* body, int length, unsigned short res_code, bool bigendian,
                  void* context) override {
        calls_->push_back({id_, Bytes(body, body + length), body, res_code, bigendian, context});
        return result_;
    }
    void Destroy() override {
        ended_->push_back(id_);
        delete this;
    }

private:
    ~Probe() override {}

    int id_;
    bool result_;
    std::vector<ProxyCall>* calls_;
    std::vector<int>* ended_;
};

std::string UserErrorText(unsigned int number) {
    return "A user error was occured, domain=1 errnum=" + std::to_string(number);
}

struct Point : public ZNRMarshallable {
    int x = 0;
    unsigned short y = 0;
    std::uint64_t Marshal(ZNRPack* pack) const override {
        std::uint64_t e = pack->Push(x);
        return e != 0 ? e : pack->Push(y);
    }
    std::uint64_t Unmarshal(ZNRUnpack* unpack) override {
        std::uint64_t e = unpack->Pop(&x);
        return e != 0 ? e : unpack->Pop(&y);
    }
};

struct PointService {
    std::vector<std::string> seen;
    bool answer = true;
    bool OnPoint(Point const& p, void* context) {
        seen.push_back(std::to_string(p.x) + "," + std::to_string(p.y) + "@" +
                       static_cast<char const*>(context));
        return answer;
    }
    bool OnCompatPoint(Point const& p, unsigned short res_code, void* context) {
        seen.push_back(std::to_string(p.x) + "," + std::to_string(p.y) + "#" +
                       std::to_string(res_code) + "@" + static_cast<char const*>(context));
        return answer;
    }
};

}  // namespace

TEST(EntityMap, DispatchFoundNotFoundAndShort) {
    LogCapture log;
    std::vector<ProxyCall> calls;
    std::vector<int> ended;
    ZNREntityMap map;
    ASSERT_TRUE(map.AddEntityMap(0x00010002, new Probe(1, true, &calls, &ended)));
    ASSERT_TRUE(map.AddEntityMap(0x00010003, new Probe(2, false, &calls, &ended)));

    Bytes const short_data = {0x02, 0x00, 0x01};
    bool handled = true;
    EXPECT_FALSE(map.DispatchEntity(short_data.data(), 3, false, &handled, nullptr));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Get entity uri error, may be invalid entity data?, error=\"" + UserErrorText(22) +
                  "\"",
              log.lines()[0].message);
    EXPECT_EQ(ZNRLogger::LOGL_WARNING, log.lines()[0].level);
    EXPECT_EQ("ZNREntityMap::DispatchEntity", log.lines()[0].function);
    EXPECT_FALSE(map.DispatchEntity(short_data.data(), -4, false, &handled, nullptr));

    log.clear();
    Bytes const unknown = {0x03, 0x00, 0x02, 0x00, 'z'};
    EXPECT_TRUE(map.DispatchEntity(unknown.data(), 5, false, &handled, nullptr));
    EXPECT_TRUE(handled);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Can not find entity map, service id=2 command id=3", log.lines()[0].message);

    // The uri is little-endian whatever the packet's byte order.
    int context = 0;
    Bytes const exact = {0x02, 0x00, 0x01, 0x00};
    handled = false;
    EXPECT_TRUE(map.DispatchEntity(exact.data(), 4, true, &handled, &context));
    EXPECT_TRUE(handled);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].id);
    EXPECT_TRUE(calls[0].body.empty());
    EXPECT_TRUE(calls[0].bigendian);
    EXPECT_EQ(&context, calls[0].context);

    Bytes const refused = {0x03, 0x00, 0x01, 0x00, 'a', 'b'};
    EXPECT_TRUE(map.DispatchEntity(refused.data(), 6, false, &handled, nullptr));
    EXPECT_FALSE(handled);
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(Bytes({'a', 'b'}), calls[1].body);
    EXPECT_EQ(refused.data() + 4, calls[1].where);
    EXPECT_TRUE(map.DispatchEntity(refused.data(), 6, false, nullptr, nullptr));
    EXPECT_EQ(3u, calls.size());

    unsigned int uri = 0;
    EXPECT_EQ(0u, map.PeekUri(refused.data(), 6, true, &uri));
    EXPECT_EQ(0x00010003u, uri);
    EXPECT_EQ(ZNRUserError(22), map.PeekUri(refused.data(), 3, false, &uri));
    EXPECT_EQ(1u, log.lines().size());
}

TEST(EntityMap, RegistrationOwnsAndEndsProxies) {
    std::vector<ProxyCall> calls;
    std::vector<int> ended;
    {
        ZNREntityMap map;
        Probe* duplicate = new Probe(9, true, &calls, &ended);
        ASSERT_TRUE(map.AddEntityMap(30, new Probe(3, true, &calls, &ended)));
        ASSERT_TRUE(map.AddEntityMap(10, new Probe(1, true, &calls, &ended)));
        ASSERT_TRUE(map.AddEntityMap(20, new Probe(2, true, &calls, &ended)));
        EXPECT_FALSE(map.AddEntityMap(20, duplicate));
        EXPECT_TRUE(ended.empty());
        static_cast<ZNREntityTargetProxyBase*>(duplicate)->Destroy();
        ended.clear();

        map.RemoveEntityMap(20);
        EXPECT_EQ(std::vector<int>({2}), ended);
        // The uri is free again.
        EXPECT_TRUE(map.AddEntityMap(20, new Probe(4, true, &calls, &ended)));

        // Copies share the proxies; only the last holder ends them.
        {
            ZNREntityMap copy(map);
            ZNREntityMap assigned;
            ASSERT_TRUE(assigned.AddEntityMap(99, new Probe(99, true, &calls, &ended)));
            assigned = copy;
            EXPECT_EQ(std::vector<int>({2, 99}), ended);
            Bytes const d = {30, 0, 0, 0};
            EXPECT_TRUE(assigned.DispatchEntity(d.data(), 4, false, nullptr, nullptr));
            ASSERT_EQ(1u, calls.size());
            EXPECT_EQ(3, calls[0].id);
        }
        EXPECT_EQ(std::vector<int>({2, 99}), ended);
        map.RemoveAllEntityMap();
        // Key order: 10, 20, 30.
        EXPECT_EQ(std::vector<int>({2, 99, 1, 4, 3}), ended);
        ended.clear();
        ASSERT_TRUE(map.AddEntityMap(5, new Probe(5, true, &calls, &ended)));
    }
    EXPECT_EQ(std::vector<int>({5}), ended);
}

TEST(EntityMap, TypedTargetsUnpackAndCall) {
    PointService service;
    ZNREntityMap map;
    unsigned int const uri = ZNRMakeEntityUri(7, 1);
    EXPECT_EQ(0x00070001u, uri);
    ASSERT_TRUE(map.AddEntityTarget(uri, &service, &PointService::OnPoint));
    EXPECT_FALSE(map.AddEntityTarget(uri, &service, &PointService::OnPoint));

    char context[] = "ctx";
    Bytes const good = {0x01, 0x00, 0x07, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0x34, 0x12, 0xEE};
    bool handled = false;
    EXPECT_TRUE(map.DispatchEntity(good.data(), static_cast<int>(good.size()), false, &handled,
                                   context));
    EXPECT_TRUE(handled);
    ASSERT_EQ(1u, service.seen.size());
    EXPECT_EQ("-2,4660@ctx", service.seen[0]);

    // A body too short for the entity is not handled and the target is not called.
    handled = true;
    EXPECT_TRUE(map.DispatchEntity(good.data(), 9, false, &handled, context));
    EXPECT_FALSE(handled);
    EXPECT_EQ(1u, service.seen.size());

    service.answer = false;
    handled = true;
    EXPECT_TRUE(map.DispatchEntity(good.data(), 10, false, &handled, context));
    EXPECT_FALSE(handled);
    EXPECT_EQ(2u, service.seen.size());
}

TEST(CompatEntityMap, HeaderErrorsAndDispatch) {
    LogCapture log;
    std::vector<ProxyCall> calls;
    std::vector<int> ended;
    ZNRCompatEntityMap map;
    ASSERT_TRUE(map.AddCompatEntityMap(0x00000503, new Probe(1, true, &calls, &ended)));
    EXPECT_FALSE(map.AddCompatEntityMap(0x00000503, nullptr));

    // length 14, uri 0x503 (service 3, command 5), res code 0x0102, body.
    Bytes const packet = {14, 0, 0, 0, 0x03, 0x05, 0, 0, 0x02, 0x01, 'b', 'o', 'd', 'y'};
    struct Short {
        int size;
        std::string what;
    };
    for (Short const& s : std::vector<Short>{{3, "length"}, {7, "uri"}, {9, "res code"}}) {
        log.clear();
        bool handled = true;
        EXPECT_FALSE(map.DispatchCompatEntity(packet.data(), s.size, false, &handled, nullptr));
        EXPECT_TRUE(handled);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_EQ("Get compat entity header " + s.what +
                      " error, may be invalid header?, error=\"" + UserErrorText(22) + "\"",
                  log.lines()[0].message);
        EXPECT_EQ("ZNRCompatEntityMap::DispatchCompatEntity", log.lines()[0].function);
    }
    EXPECT_TRUE(calls.empty());

    log.clear();
    Bytes const unknown = {10, 0, 0, 0, 0x02, 0x03, 0, 0, 0, 0};
    bool handled = true;
    EXPECT_TRUE(map.DispatchCompatEntity(unknown.data(), 10, false, &handled, nullptr));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("Can not find compat entity map, service id=2 command id=3", log.lines()[0].message);

    // The length field is not checked against the size.
    int context = 0;
    handled = false;
    EXPECT_TRUE(map.DispatchCompatEntity(packet.data(), 12, true, &handled, &context));
    EXPECT_TRUE(handled);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(Bytes({'b', 'o'}), calls[0].body);
    EXPECT_EQ(packet.data() + 10, calls[0].where);
    EXPECT_EQ(0x0102, calls[0].res_code);
    EXPECT_TRUE(calls[0].bigendian);
    EXPECT_EQ(&context, calls[0].context);

    unsigned int uri = 0;
    EXPECT_EQ(0u, map.PeekUri(packet.data(), 8, false, &uri));
    EXPECT_EQ(0x503u, uri);
    EXPECT_EQ(ZNRUserError(22), map.PeekUri(packet.data(), 7, false, &uri));
    EXPECT_EQ(ZNRUserError(22), map.PeekUri(packet.data(), 2, false, &uri));

    map.RemoveCompatEntityMap(0x503);
    EXPECT_EQ(std::vector<int>({1}), ended);
}

TEST(CompatEntityMap, TypedTargetsGetTheResultCode) {
    PointService service;
    ZNRCompatEntityMap map;
    unsigned int const uri = ZNRMakeCompatEntityUri(2, 3);
    EXPECT_EQ(0x302u, uri);
    ASSERT_TRUE(map.AddCompatEntityTarget(uri, &service, &PointService::OnCompatPoint));
    EXPECT_FALSE(map.AddCompatEntityTarget(uri, &service, &PointService::OnCompatPoint));
    char context[] = "c";
    Bytes const packet = {16, 0, 0, 0, 0x02, 0x03, 0, 0, 0x09, 0x00, 5, 0, 0, 0, 6, 0};
    bool handled = false;
    EXPECT_TRUE(map.DispatchCompatEntity(packet.data(), 16, false, &handled, context));
    EXPECT_TRUE(handled);
    ASSERT_EQ(1u, service.seen.size());
    EXPECT_EQ("5,6#9@c", service.seen[0]);
    handled = true;
    EXPECT_TRUE(map.DispatchCompatEntity(packet.data(), 15, false, &handled, context));
    EXPECT_FALSE(handled);
    EXPECT_EQ(1u, service.seen.size());
}
