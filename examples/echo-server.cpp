// echo-server: a TCP server that sends back every byte it receives.
//
// One reactor per core, each on a thread of its own. The first reactor
// owns the listener; every accepted connection is handed round-robin to a
// reactor, which registers it from its own thread (devices belong to the
// thread of their reactor). SIGINT or SIGTERM shuts everything down.
//
//   echo-server 7000            # then: nc 127.0.0.1 7000
#include <plexa/plexa.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;
int const kRecvMax = 64 * 1024;
int const kRecvGrow = 16 * 1024;
int const kSendMax = 4 * 1024 * 1024;  // a peer that never reads is closed here
unsigned int const kNoTimeout = 0xFFFFFFFF;

ZNRReactorMgr* Mgr() { return ZNRSingleton<ZNRReactorMgr>::Instance(); }

std::vector<std::uint64_t> g_reactors;  // filled before any reactor runs
std::atomic<unsigned int> g_next{0};

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

// Registers an accepted connection on the thread of its reactor.
class AdoptTask : public ZNRReactorTask {
public:
    AdoptTask(std::uint64_t reactor, ZNRDevice* client) : reactor_(reactor), client_(client) {}

    bool Run() override {
        std::uint64_t error = 0;
        EchoHandler* const handler = new EchoHandler(reactor_);
        if (Mgr()->RegisterDevice(reactor_, client_, handler, &error, kRecvMax, kRecvGrow, kSendMax,
                                  kNoTimeout) == kNoId) {
            handler->Destroy();
        } else {
            client_ = nullptr;  // the reactor's now
        }
        return false;
    }
    void Cancel() override {}
    // Also runs when the reactor stops before the task did.
    void Destroy() override {
        if (client_ != nullptr) client_->Destroy();
        delete this;
    }

private:
    std::uint64_t reactor_;
    ZNRDevice* client_;
};

// The listener: told of each new connection with OnData(null, null).
class AcceptHandler : public ZNRDeviceHandler {
public:
    bool OnData(ZNRByteBuffer const*, int*) override {
        ZNRAsyncTcpDevice* const client = new ZNRAsyncTcpDevice();
        if (!static_cast<ZNRAsyncTcpDevice*>(GetDevice())->Accept(client)) {
            client->Destroy();
            return true;  // keep listening
        }
        std::uint64_t const reactor = g_reactors[g_next++ % g_reactors.size()];
        AdoptTask* const task = new AdoptTask(reactor, client);
        if (Mgr()->RegisterTask(reactor, task) != 0) task->Destroy();
        return true;
    }
};

// Registers the listener on the first reactor's thread, then accepts.
class ListenTask : public ZNRReactorTask {
public:
    explicit ListenTask(ZNRAsyncTcpDevice* listener) : listener_(listener) {}

    bool Run() override {
        std::uint64_t error = 0;
        AcceptHandler* const handler = new AcceptHandler();
        if (Mgr()->RegisterDevice(g_reactors[0], listener_, handler, &error, kRecvMax, kRecvGrow,
                                  kSendMax, kNoTimeout) == kNoId) {
            std::fprintf(stderr, "echo-server: %s\n", ZNRGetErrorText(error).c_str());
            handler->Destroy();
            kill(getpid(), SIGTERM);
            return false;
        }
        ZNRAsyncTcpDevice* const listener = listener_;
        listener_ = nullptr;  // the reactor's now
        if (!listener->BeginAccept()) {
            std::fprintf(stderr, "echo-server: %s\n", ZNRGetErrorText(listener->GetError()).c_str());
            kill(getpid(), SIGTERM);
        }
        return false;
    }
    void Cancel() override {}
    void Destroy() override {
        if (listener_ != nullptr) listener_->Destroy();
        delete this;
    }

private:
    ZNRAsyncTcpDevice* listener_;
};

int Usage(std::FILE* out, int code) {
    std::fprintf(out, "usage: echo-server [--help] [--reactors N] PORT [ADDRESS]\n"
                      "Echoes TCP connections on the IPv4 ADDRESS:PORT (default address 127.0.0.1;\n"
                      "port 0 picks a free one) with N reactor threads (default: one per core).\n"
                      "Stop it with Ctrl-C.\n");
    return code;
}

// Opens a listening device on address:port; null with a message on failure.
ZNRAsyncTcpDevice* Listen(char const* address, char const* port) {
    ZNRNetAddrInfo local(ZNRNetAddrInfo::TYPE_IPV4);
    std::uint64_t error = local.Open(ZNRString(port), ZNRString(address));
    if (error == 0) {
        ZNRTcpDeviceParam param;
        param.local_addr = &local;
        param.backlog = 128;
        ZNRAsyncTcpDevice* const listener = new ZNRAsyncTcpDevice();
        if (listener->Open(&param)) {
            ZNRNetAddrInfo const* bound = listener->GetBindAddr(&error);
            if (bound != nullptr) {
                std::printf("echo-server: listening on %s:%s\n", bound->GetAddrStr().ToStdCStr().c_str(),
                            bound->GetPortStr().ToStdCStr().c_str());
                std::fflush(stdout);
                return listener;
            }
        } else {
            error = listener->GetError();
        }
        listener->Destroy();
    }
    std::fprintf(stderr, "echo-server: can not listen on %s:%s: %s\n", address, port,
                 ZNRGetErrorText(error).c_str());
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--help") == 0) return Usage(stdout, 0);
    unsigned long reactors = std::max(1u, std::thread::hardware_concurrency());
    if (argc > 2 && std::strcmp(argv[1], "--reactors") == 0) {
        reactors = std::strtoul(argv[2], nullptr, 10);
        if (reactors == 0) return Usage(stderr, 2);
        argc -= 2;
        argv += 2;
    }
    if (argc < 2 || argc > 3) return Usage(stderr, 2);
    char* end = nullptr;
    unsigned long const port = std::strtoul(argv[1], &end, 10);
    if (*end != '\0' || port > 65535) return Usage(stderr, 2);
    char const* const address = argc > 2 ? argv[2] : "127.0.0.1";

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
    if (ZNRAsyncTcpDevice* const listener = Listen(address, argv[1])) {
        ListenTask* const listen = new ListenTask(listener);
        unsigned int const cores = static_cast<unsigned int>(reactors);
        std::uint64_t error = 0;
        for (unsigned int i = 0; i < cores && error == 0; ++i) {
            std::uint64_t const id = Mgr()->New(&error);
            if (id != kNoId) g_reactors.push_back(id);
        }
        for (std::uint64_t id : g_reactors) {
            if (error == 0) error = Mgr()->StartThread(id, ZNRString("echo-" + std::to_string(id)), nullptr);
        }
        if (error == 0) error = Mgr()->RegisterTask(g_reactors[0], listen);
        if (error == 0) {
            std::printf("echo-server: %u reactors, Ctrl-C to stop\n", cores);
            std::fflush(stdout);
            int sig = 0;
            sigwait(&signals, &sig);
            code = 0;
        } else {
            listen->Destroy();
            std::fprintf(stderr, "echo-server: %s\n", ZNRGetErrorText(error).c_str());
        }
    }

    // Stops and joins every reactor thread, then destroys the reactors with
    // their devices and handlers.
    Mgr()->RemoveAll();
    ZNRSingleton<ZNRReactorMgr>::Destroy();
    ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters();
    ZNRSingleton<ZNRLogger>::Destroy();
    ZNRThreadMgr::Destroy();
    return code;
}
