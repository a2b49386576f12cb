#include "log-capture.h"
#include "reactor-test-util.h"
#include "net-test-util.h"

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

using namespace nettest;

using namespace reactortest;

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;
unsigned int const kEcho = ZNRMakeEntityUri(1, 1);
unsigned int const kEmptyThenEcho = ZNRMakeEntityUri(1, 2);
unsigned int const kRefuse = ZNRMakeEntityUri(1, 3);
unsigned int const kClose = ZNRMakeEntityUri(1, 4);

// Opaque bytes as an entity.
struct Raw : public ZNRMarshallable {
    std::string bytes;
    std::uint64_t Marshal(ZNRPack* pack) const override {
        return pack->Concatenate(U(bytes), static_cast<unsigned int>(bytes.size()));
    }
    std::uint64_t Unmarshal(ZNRUnpack*) override { return 0; }
};

std::string Entity(unsigned int uri, std::string const& body, unsigned short compress = 0) {
    Raw raw;
    raw.bytes = body;
    ZNRDataSender sender;
    EXPECT_EQ(0u, sender.CreateByEntityProtocol(uri, raw, compress));
    return Bytes(sender.GetBuffer()->GetData(), static_cast<int>(sender.GetBuffer()->GetDataCount()));
}

class Proxy : public ZNREntityTargetProxyBase {
public:
    typedef std::function<bool(std::string const&, ZNREntityRequest const&)> Fn;
    explicit Proxy(Fn fn) : fn_(std::move(fn)) {}
    bool Dispatch(unsigned char const* body, int length, bool, void* context) override {
        return fn_(Bytes(body, length), *static_cast<ZNREntityRequest*>(context));
    }
    void Destroy() override { delete this; }

private:
    Fn fn_;
};

// Accepts connections and gives each an entity handler over map.
class Acceptor : public ZNRDeviceHandler {
public:
    Acceptor(ZNREntityMap const* map, std::uint64_t reactor) : map_(map), reactor_(reactor) {}
    bool OnData(ZNRByteBuffer const*, int*) override {
        auto* conn = new ZNRAsyncTcpDevice();
        EXPECT_TRUE(static_cast<ZNRAsyncTcpDevice*>(GetDevice())->Accept(conn));
        std::uint64_t e = 0;
        EXPECT_NE(kNoId, GetReactor()->RegisterDevice(conn, new ZNREntityDeviceHandler(*map_, reactor_), &e,
                                                      1 << 20, 4096, 1 << 20, 0xFFFFFFFF));
        return true;
    }

private:
    ZNREntityMap const* map_;
    std::uint64_t reactor_;
};

class EntityDeviceHandler : public ::testing::Test {
protected:
    void SetUp() override {
        auto echo = [this](std::string const& body, ZNREntityRequest const& req) {
            Raw raw;
            raw.bytes = body;
            EXPECT_EQ(0u, ZNRReplySender(req, &mgr_).SendEntity(kEcho, raw, req.compress_flag));
            return true;
        };
        map_.AddEntityMap(kEcho, new Proxy(echo));
        map_.AddEntityMap(kEmptyThenEcho, new Proxy([this, echo](std::string const& b, ZNREntityRequest const& r) {
            ZNRDataSender empty;
            EXPECT_EQ(0u, ZNRReplySender(r, &mgr_).Send(&empty));  // must not close
            return echo(b, r);
        }));
        map_.AddEntityMap(kRefuse, new Proxy([](std::string const&, ZNREntityRequest const&) { return false; }));
        map_.AddEntityMap(kClose, new Proxy([this](std::string const&, ZNREntityRequest const& r) {
            EXPECT_EQ(0u, ZNRReplySender(r, &mgr_).Close());
            return true;
        }));

        std::uint64_t error = 0;
        reactor_ = mgr_.New(&error);
        ASSERT_NE(kNoId, reactor_);
        ASSERT_EQ(0u, mgr_.StartThread(reactor_, ZNRString("entity-test"), nullptr));
        ZNRNetAddrInfo const local = V4("127.0.0.1", "0");
        ZNRTcpDeviceParam param;
        param.local_addr = &local;
        auto* listener = new ZNRAsyncTcpDevice();
        ASSERT_TRUE(listener->Open(&param));
        port_ = Str(listener->GetBindAddr(&error)->GetPortStr());
        std::promise<void> done;
        ASSERT_EQ(0u, mgr_.RegisterTask(reactor_, new Task([&] {
            std::uint64_t e = 0;
            EXPECT_NE(kNoId, mgr_.RegisterDevice(reactor_, listener, new Acceptor(&map_, reactor_), &e, 4096,
                                                 4096, 4096, 0xFFFFFFFF));
            EXPECT_TRUE(listener->BeginAccept());
            done.set_value();
        })));
        ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(5)));
    }
    void TearDown() override { mgr_.RemoveAll(); }

    RawSocket Connect() { return ConnectTo(port_); }

    ZNRReactorMgr mgr_;
    ZNREntityMap map_;
    std::uint64_t reactor_ = kNoId;
    std::string port_;
};

TEST_F(EntityDeviceHandler, FramesAcrossReadsAndBadFramesClose) {
    std::string const a = Entity(kEcho, "abc");
    std::string const z = Entity(kEcho, std::string(300, 'z') + "tail", 1);
    std::string const e = Entity(kEmptyThenEcho, "x");
    std::string const bad_flag = std::string("\x00\x04\x01\x00\x00x", 6);
    std::string const bad_gzip = std::string("\x00\x02\x03\x00\x00xyz", 8);
    std::string const short_body = std::string("\x00\x00\x02\x00\x00\x01\x00", 7);
    struct Case {
        char const* name;
        std::vector<std::string> writes;  // each written on its own, paced
        std::string reply;
        bool closes;
    } const cases[] = {
        {"whole", {a}, a, false},
        {"compressed answered compressed", {z}, z, false},
        {"empty reply sends nothing", {e}, Entity(kEcho, "x"), false},
        {"split in header", {a.substr(0, 3), a.substr(3)}, a, false},
        {"split in body", {z.substr(0, 9), z.substr(9)}, z, false},
        {"two in one read", {a + z}, a + z, false},
        {"one and a half", {a + z.substr(0, 4), z.substr(4)}, a + z, false},
        {"bad flag after a good frame", {a + bad_flag}, a, true},
        {"bad deflate data", {bad_gzip}, "", true},
        {"body shorter than a uri", {short_body}, "", true},
        {"unknown uri", {Entity(ZNRMakeEntityUri(9, 9), "q")}, "", true},
        {"target refuses", {Entity(kRefuse, "q")}, "", true},
    };
    int closes = 0;
    {
        LogCapture capture;
        for (Case const& c : cases) {
            SCOPED_TRACE(c.name);
            RawSocket const fd = Connect();
            for (std::string const& w : c.writes) {
                ASSERT_EQ(static_cast<long long>(w.size()), SendRaw(fd, w.data(), w.size()));
                std::this_thread::sleep_for(std::chrono::milliseconds(20));  // pacing, so reads split
            }
            EXPECT_EQ(c.reply, ReadUpTo(fd, c.reply.size()));
            if (c.closes) {
                EXPECT_EQ("", ReadUpTo(fd, 1));  // end of stream
                ++closes;
            } else {
                // Still served after the case.
                ASSERT_EQ(static_cast<long long>(a.size()), SendRaw(fd, a.data(), a.size()));
                EXPECT_EQ(a, ReadUpTo(fd, a.size()));
            }
            CloseRaw(fd);
        }
        // A target's own close request ends the device without an error.
        RawSocket const fd = Connect();
        std::string const c = Entity(kClose, "");
        ASSERT_EQ(static_cast<long long>(c.size()), SendRaw(fd, c.data(), c.size()));
        EXPECT_EQ("", ReadUpTo(fd, 1));
        CloseRaw(fd);
        mgr_.RemoveAll();  // joins the loop: the log is ours to read
        std::vector<std::string> const errors = capture.Messages(ZNRLogger::LOGL_ERROR);
        ASSERT_EQ(static_cast<size_t>(closes), errors.size());
        for (std::string const& line : errors)
            EXPECT_EQ(0u, line.find("Dispatch entity data error, close device, device id=")) << line;
        std::vector<std::string> const warnings = capture.Messages(ZNRLogger::LOGL_WARNING);
        EXPECT_EQ(1, std::count(warnings.begin(), warnings.end(), "Entity not handled, service id=9 command id=9"));
        EXPECT_EQ(1, std::count(warnings.begin(), warnings.end(), "Entity not handled, service id=1 command id=3"));
    }
}

}  // namespace
