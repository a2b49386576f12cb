// echo-server: a TCP server that sends back every byte it receives.
//
// One reactor per core, each on a thread of its own, owned by a reactor
// group. The first reactor owns the listener; every accepted connection is
// handed round-robin to a reactor, which registers it from its own thread
// (devices belong to the thread of their reactor) with the handler the
// acceptor's factory makes. SIGINT or SIGTERM shuts everything down.
//
//   echo-server 7000            # then: nc 127.0.0.1 7000
#include <plexa/plexa.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace {

int const kRecvMax = 256 * 1024;
int const kRecvGrow = 64 * 1024;  // as much per read as the peers in bench/peers
int const kSendMax = 4 * 1024 * 1024;  // a peer that never reads is closed here

ZNRReactorMgr* Mgr() { return ZNRSingleton<ZNRReactorMgr>::Instance(); }


// Library log lines go to standard error.
class ConsoleLog : public ZNRLoggerWriterBase {
public:
    void OnWrite(ZNRLoggerEntry const* entry) override {
        char line[2048];
        entry->ToDefaultFormatString(line, sizeof line);
        std::fputs(line, stderr);
    }
    std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
    std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
    void Destroy() override { delete this; }
};

// One connection: whatever arrives is sent straight back.
class EchoHandler : public ZNRDeviceHandler {
public:
    explicit EchoHandler(std::uint64_t reactor) : reactor_(reactor) {}

    bool OnData(ZNRByteBuffer const* buffer, int* offset) override {
        int const size = static_cast<int>(buffer->GetDataCount());
        *offset = size;  // all of it consumed
        // A send that fails (the peer reads too slowly) closes the device.
        Mgr()->SendData(reactor_, GetDeviceId(), buffer->GetData(), size);
        return true;
    }

private:
    std::uint64_t reactor_;
};

// Hands each accepted connection an echo handler on its reactor; a
// listener that fails ends the server.
class EchoAcceptor : public ZNRTcpFactoryAcceptor {
public:
    EchoAcceptor()
        : ZNRTcpFactoryAcceptor([](std::uint64_t reactor) { return new EchoHandler(reactor); }, kRecvMax,
                                kRecvGrow, kSendMax) {}

protected:
    void OnListenFailed(std::uint64_t error) override {
        std::fprintf(stderr, "echo-server: %s\n", ZNRGetErrorText(error).c_str());
        kill(getpid(), SIGTERM);
    }
};

int Usage(std::FILE* out, int code) {
    std::fprintf(out, "usage: echo-server [--help] [--reactors N] PORT [ADDRESS]\n"
                      "Echoes TCP connections on ADDRESS:PORT (an IPv4 address or host name, default\n"
                      "127.0.0.1; port 0 picks a free one) with N reactor threads (1..1024, default:\n"
                      "one per core); --reactors=N works too. Stop it with Ctrl-C.\n");
    return code;
}

// Bad input: the reason and a hint, before anything starts.
int Refuse(std::string const& reason) {
    std::fprintf(stderr, "echo-server: %s\nTry 'echo-server --help'.\n", reason.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    ZNRGetopt opt;
    opt.AddOption('h', 'h', "help", ZNRGetopt::ARGUMENT_NONE);
    opt.AddOption('r', 0, "reactors", ZNRGetopt::ARGUMENT_REQUIRED);
    if (opt.Parse(argc, argv) != 0) return Refuse(opt.GetErrorText());
    if (opt.IsSet('h')) return Usage(stdout, 0);
    long long reactor_count = std::max(1u, std::thread::hardware_concurrency());
    if (opt.GetNumber('r', 1, 1024, &reactor_count) != 0) return Refuse(opt.GetErrorText());
    if (opt.GetOperandCount() == 0) return Refuse("PORT is required");
    if (opt.GetOperandCount() > 2) return Refuse(std::string("unexpected argument '") + opt.GetOperand(2) + "'");
    std::string const port = opt.GetOperand(0);
    unsigned short port_number = 0;
    if (port.find_first_not_of("0123456789") != std::string::npos ||
        !ZNRStrToUInt16(ZNRString(port), &port_number))
        return Refuse("bad PORT '" + port + "' (expected 0..65535)");
    char const* const address = opt.GetOperandCount() > 1 ? opt.GetOperand(1) : "127.0.0.1";
    ZNRHostInfo resolved;
    if (*address == '\0' || resolved.Open(ZNRString(address), ZNRString(), false) != 0)
        return Refuse(std::string("ADDRESS '") + address + "' is neither a host name nor an IPv4 address");

    ZNRInit();
    ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new ConsoleLog());

    // Blocked here, so in every thread started later: main takes them with sigwait.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    // A shell starts background jobs with SIGINT ignored; sigwait needs it.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    int code = 1;
    {
        EchoAcceptor acceptor;
        // Declared after the acceptor, so its reactors end first.
        ZNRReactorGroup reactors;
        ZNRNetAddrInfo bound;
        std::uint64_t error = reactors.Start(static_cast<unsigned int>(reactor_count), ZNRString("echo"));
        if (error == 0) error = acceptor.Start(ZNRString(address), ZNRString(port), reactors.GetIds(), &bound);
        if (error == 0) {
            std::printf("echo-server: listening on %s:%s\n", bound.GetAddrStr().ToStdCStr().c_str(),
                        bound.GetPortStr().ToStdCStr().c_str());
            std::printf("echo-server: %lld reactors, Ctrl-C to stop\n", reactor_count);
            std::fflush(stdout);
            int sig = 0;
            sigwait(&signals, &sig);
            code = 0;
        } else {
            std::fprintf(stderr, "echo-server: can not listen on %s:%s: %s\n", address, port.c_str(),
                         ZNRGetErrorText(error).c_str());
        }
    }

    ZNRSingleton<ZNRReactorMgr>::Destroy();
    ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters();
    ZNRSingleton<ZNRLogger>::Destroy();
    ZNRThreadMgr::Destroy();
    return code;
}
