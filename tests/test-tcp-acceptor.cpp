#include "net-test-util.h"
#include "reactor-test-util.h"

#include <cerrno>

#if defined(__linux__)
#include <sys/resource.h>
#endif

#include "log-capture.h"

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
#if !defined(_WIN32)  // there listeners that reuse addresses share a port
    Acceptor busy(&journal);
    EXPECT_EQ(ZNRSysError(EADDRINUSE), busy.Start(ZNRString("127.0.0.1"), bound.GetPortStr(), reactors, nullptr));
#endif

    std::vector<RawSocket> clients;
    for (int i = 0; i < 4; ++i) {
        RawSocket const fd = ConnectTo(Str(bound.GetPortStr()));
        ASSERT_EQ(1, SendRaw(fd, "x", 1));
        ASSERT_EQ("x", ReadUpTo(fd, 1));  // served before the next connects
        clients.push_back(fd);
    }
    std::string const first = std::to_string(reactors[0]) + " on its thread";
    std::string const second = std::to_string(reactors[1]) + " on its thread";
    EXPECT_EQ((std::vector<std::string>{first, second, first, second}), journal.Get());
    mgr->RemoveAll();
    for (RawSocket fd : clients) CloseRaw(fd);
}

// Names resolve to IPv4; a text that is neither a name nor an IPv4
// address is refused, logged with the text, and leaves the acceptor as it
// was, rather than listening on 255.255.255.255.
TEST(TcpAcceptor, ResolvesNamesAndRefusesWhatDoesNotResolve) {
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::vector<std::uint64_t> reactors{mgr->New(&err)};
    ASSERT_EQ(0u, mgr->StartThread(reactors[0], ZNRString("acceptor-test"), nullptr));
    Journal journal;
    Acceptor acceptor(&journal);
    ZNRNetAddrInfo bound;
    for (char const* text : {"", "::1", "garbage.invalid", "not an address", "127.0.0.1.5"}) {
        LogCapture log;
        EXPECT_EQ(ZNRUserError(56), acceptor.Start(ZNRString(text), ZNRString("0"), reactors, &bound)) << text;
        std::vector<std::string> const errors = log.Messages(ZNRLogger::LOGL_ERROR);
        ASSERT_EQ(1u, errors.size()) << text;
        std::string const head = "Can not resolve tcp listen address, address=\"" + std::string(text) + "\" error=\"";
        EXPECT_EQ(head, errors[0].substr(0, head.size()));
    }

    ASSERT_EQ(0u, acceptor.Start(ZNRString("localhost"), ZNRString("0"), reactors, &bound));
    EXPECT_EQ("127.0.0.1", Str(bound.GetAddrStr()));
    RawSocket const fd = ConnectTo(Str(bound.GetPortStr()));
    ASSERT_EQ(1, SendRaw(fd, "x", 1));
    EXPECT_EQ("x", ReadUpTo(fd, 1));
    mgr->RemoveAll();
    CloseRaw(fd);
}

#if defined(__linux__)

// Out of descriptors, the listener keeps the connection in the backlog and
// tries again on a timer: it stays, logs once for the whole episode, and
// serves the connection as soon as descriptors are free.
TEST(TcpAcceptor, ListenerOutOfDescriptorsWaitsAndServesAgain) {
#ifdef __SANITIZE_ADDRESS__
    // UBSan's vptr check probes memory through a pipe the first time it
    // meets a type: with no descriptor left it reports sound objects.
    GTEST_SKIP() << "needs descriptors the sanitizers take";
#endif
    ZNRReactorMgr* const mgr = ZNRSingleton<ZNRReactorMgr>::Instance();
    std::uint64_t err = 0;
    std::vector<std::uint64_t> reactors{mgr->New(&err)};
    ASSERT_EQ(0u, mgr->StartThread(reactors[0], ZNRString("acceptor-test"), nullptr));
    LogCapture log;
    Journal journal;
    Acceptor acceptor(&journal);
    ZNRNetAddrInfo bound;
    // Lowered before the listener starts: io_uring reads the limit when an
    // accept is queued, not when it runs.
    rlimit const saved = [] { rlimit r{}; ::getrlimit(RLIMIT_NOFILE, &r); return r; }();
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &low));
    ASSERT_EQ(0u, acceptor.Start(ZNRString("127.0.0.1"), ZNRString("0"), reactors, &bound));
    int const client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<int> hogs;
    for (int fd; (fd = ::dup(client)) >= 0;) hogs.push_back(fd);
    ASSERT_EQ(EMFILE, errno);
    ASSERT_EQ(0, ::connect(client, bound.GetAddr(), bound.GetAddrLen()));
    ASSERT_EQ(1, ::write(client, "x", 1));
    pollfd p{client, POLLIN, 0};
    EXPECT_EQ(0, ::poll(&p, 1, 150));  // several retries, nothing served

    for (int fd : hogs) ::close(fd);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &saved));
    char c = 0;
    ASSERT_TRUE(WaitFor(client));
    EXPECT_EQ(1, ::read(client, &c, 1));
    mgr->RemoveAll();
    ::close(client);
    std::string const desc = "desc_info=\"tcp listen , listen ip=127.0.0.1 listen port=0\"";
    EXPECT_EQ((std::vector<std::string>{"Can not accept tcp client, out of resources, retry every 20ms, "
                                        "error=\"Too many open files\" " + desc}),
              log.Messages(ZNRLogger::LOGL_WARNING));
    std::vector<std::string> const info = log.Messages(ZNRLogger::LOGL_INFO);
    EXPECT_EQ(1, std::count(info.begin(), info.end(), "Tcp server device accepts clients again, " + desc));
}
#endif
