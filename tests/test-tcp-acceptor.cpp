#include "net-test-util.h"
#include "reactor-test-util.h"

#include <cerrno>

using namespace nettest;
using namespace reactortest;

namespace {

// Journals which reactor took each connection and whether it was on that
// reactor's thread; the handler echoes, so a client knows it was served.
class Acceptor : public ZNRTcpAcceptor {
public:
    explicit Acceptor(Journal* j) : ZNRTcpAcceptor(4096, 512, 4096), j_(j) {}

protected:
    ZNRDeviceHandler* OnCreateHandler(std::uint64_t reactor) override {
        bool const own = ZNRSingleton<ZNRReactorMgr>::Instance()->IsRunInCurrentThread(reactor);
        j_->Add(std::to_string(reactor) + (own ? " on its thread" : " elsewhere"));
        return new Echo(reactor);
    }

private:
    class Echo : public ZNRDeviceHandler {
    public:
        explicit Echo(std::uint64_t reactor) : reactor_(reactor) {}
        bool OnData(ZNRByteBuffer const* b, int* offset) override {
            *offset = static_cast<int>(b->GetDataCount());
            ZNRSingleton<ZNRReactorMgr>::Instance()->SendData(reactor_, GetDeviceId(), b->GetData(), *offset);
            return true;
        }

    private:
        std::uint64_t reactor_;
    };
    Journal* j_;
};

}  // namespace

TEST(TcpAcceptor, SpreadsConnectionsRoundRobinOnTheirReactorsThreads) {
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::vector<std::uint64_t> reactors;
    for (int i = 0; i < 2; ++i) {
        std::uint64_t err = 0;
        reactors.push_back(mgr->New(&err));
        ASSERT_EQ(0u, mgr->StartThread(reactors.back(), ZNRString("acceptor-test"), nullptr));
    }
    Journal journal;
    Acceptor acceptor(&journal);
    ZNRNetAddrInfo bound;
    EXPECT_EQ(ZNRSysError(EINVAL), acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), {}, &bound));
    EXPECT_EQ(ZNRSysError(EINVAL), acceptor.Start(ZNRString("127.0.0.1"), ZNRString("http"), reactors, &bound));
    ASSERT_EQ(0u, acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), reactors, &bound));
    EXPECT_NE("0", Str(bound.GetPortStr()));
    EXPECT_EQ(ZNRSysError(EINVAL), acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), reactors, &bound));
    Acceptor busy(&journal);
    EXPECT_EQ(ZNRSysError(EADDRINUSE), busy.Start(ZNRString("127.0.0.1"), bound.GetPortStr(), reactors, nullptr));

    std::vector<int> clients;
    for (int i = 0; i < 4; ++i) {
        int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, ::connect(fd, bound.GetAddr(), bound.GetAddrLen()));
        ASSERT_EQ(1, ::write(fd, "x", 1));
        char c = 0;
        ASSERT_TRUE(WaitFor(fd));
        ASSERT_EQ(1, ::read(fd, &c, 1));  // served before the next connects
        clients.push_back(fd);
    }
    std::string const first = std::to_string(reactors[0]) + " on its thread";
    std::string const second = std::to_string(reactors[1]) + " on its thread";
    EXPECT_EQ((std::vector<std::string>{first, second, first, second}), journal.Get());
    mgr->RemoveAll();
    for (int fd : clients) ::close(fd);
}
