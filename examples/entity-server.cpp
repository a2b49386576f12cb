// plexa-entity-server: the library's own protocol over TCP, with an echo
// service and an in-memory key-value service (see entity-protocol.h).
//
// Same shape as echo-server: one reactor per core, the first owns the
// listener, accepted connections are handed round-robin to the reactors.
// Each connection gets a ZNREntityDeviceHandler, which cuts the frames and
// routes the entities; the services answer with ZNRReplySender. SIGINT or
// SIGTERM ends it with exit code 0.
//
//   plexa-entity-server --port 7000
#include "entity-services.h"

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

using namespace entity_services;

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;

char const kDefaultConfig[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<entity-server>\n"
    "  <address>127.0.0.1</address>\n"
    "  <port>0</port>\n"
    "  <reactors>0</reactors>\n"  // 0: one per core
    "  <log>\n"
    "    <directory>./logs</directory>\n"
    "    <file>plexa-entity-server.log</file>\n"
    "    <max-size>10485760</max-size>\n"
    "  </log>\n"
    "</entity-server>\n";

ZNRReactorMgr* Mgr() { return ZNRSingleton<ZNRReactorMgr>::Instance(); }

std::atomic<bool> g_failed{false};
ZNREntityMap g_services;  // copied into every connection's handler
KvService g_kv;

void Fail(std::uint64_t error) {
    std::fprintf(stderr, "plexa-entity-server: %s\n", ZNRGetErrorText(error).c_str());
    g_failed = true;
    kill(getpid(), SIGTERM);
}

// The services' acceptor; a listener that fails ends the server.
class ServerAcceptor : public EntityAcceptor {
public:
    ServerAcceptor() : EntityAcceptor(&g_services) {}

protected:
    void OnListenFailed(std::uint64_t error) override { Fail(error); }
};

int Usage(std::FILE* out, int code) {
    std::fprintf(out,
                 "usage: plexa-entity-server [--config FILE] [--port N] [--help]\n"
                 "Serves echo (uri 0x00010001) and key-value (service 2) entities over TCP.\n"
                 "  --config FILE  XML configuration (default: 127.0.0.1, a free port,\n"
                 "                 one reactor per core, logs under ./logs)\n"
                 "  --port N       listen on port N, whatever the configuration says\n"
                 "Stop it with Ctrl-C.\n");
    return code;
}

std::string Text(ZNRXmlConfig const& config, char const* path, char const* fallback) {
    ZNRString value;
    if (!config.Get(ZNRString(std::string("entity-server/") + path), &value, nullptr)) return fallback;
    return value.ToStdCStr();
}

int Number(ZNRXmlConfig const& config, char const* path, int fallback) {
    int value = fallback;
    return config.GetInt(ZNRString(std::string("entity-server/") + path), &value) ? value : fallback;
}

// The embedded default goes through a file, since the reader loads files.
bool LoadConfig(ZNRXmlConfig* config, char const* file) {
    if (file != nullptr) return config->Load(ZNRString(file), ZNRString("xml"));
    char path[] = "/tmp/plexa-entity-server-XXXXXX.xml";
    int const fd = mkstemps(path, 4);
    if (fd < 0) return false;
    bool const written = write(fd, kDefaultConfig, sizeof kDefaultConfig - 1) ==
                         static_cast<ssize_t>(sizeof kDefaultConfig - 1);
    close(fd);
    bool const loaded = written && config->Load(ZNRString(path), ZNRString("xml"));
    unlink(path);
    return loaded;
}

void StartLog(ZNRXmlConfig const& config) {
    std::string const directory = Text(config, "log/directory", "./logs");
    std::string const file = Text(config, "log/file", "plexa-entity-server.log");
    std::uint32_t const max_size = static_cast<std::uint32_t>(Number(config, "log/max-size", 10485760));
    std::uint32_t const console = static_cast<std::uint32_t>(Number(config, "log/console", 0));
    ZNRNormalLoggerWriter* const writer = new ZNRNormalLoggerWriter();
    writer->SetOption(ZNRNormalLoggerWriter::OPT_DIRECTORY, directory.c_str(),
                      static_cast<unsigned int>(directory.size()));
    writer->SetOption(ZNRNormalLoggerWriter::OPT_FILE_NAME, file.c_str(), static_cast<unsigned int>(file.size()));
    writer->SetOption(ZNRNormalLoggerWriter::OPT_MAX_FILE_SIZE, &max_size, sizeof max_size);
    writer->SetOption(ZNRNormalLoggerWriter::OPT_CONSOLE, &console, sizeof console);
    ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(writer);
}

}  // namespace

int main(int argc, char** argv) {
    char const* config_file = nullptr;
    char const* port_option = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) return Usage(stdout, 0);
        if (i + 1 < argc && std::strcmp(argv[i], "--config") == 0) {
            config_file = argv[++i];
        } else if (i + 1 < argc && std::strcmp(argv[i], "--port") == 0) {
            port_option = argv[++i];
        } else {
            return Usage(stderr, 2);
        }
    }
    if (port_option != nullptr) {
        char* end = nullptr;
        unsigned long const port = std::strtoul(port_option, &end, 10);
        if (*port_option == '\0' || *end != '\0' || port > 65535) return Usage(stderr, 2);
    }

    ZNRInit();
    ZNRXmlConfig config;
    if (!LoadConfig(&config, config_file)) {
        std::fprintf(stderr, "plexa-entity-server: can not read the configuration %s\n",
                     config_file != nullptr ? config_file : "(built in)");
        return 1;
    }
    StartLog(config);
    std::string const address = Text(config, "address", "127.0.0.1");
    std::string const port = port_option != nullptr ? port_option : Text(config, "port", "0");
    int reactors = Number(config, "reactors", 0);
    if (reactors <= 0) reactors = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));

    AddServices(&g_services, &g_kv);

    // Blocked here, so in every thread started later: main takes them with sigwait.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    int code = 1;
    std::vector<std::uint64_t> ids;
    std::uint64_t error = 0;
    for (int i = 0; i < reactors && error == 0; ++i) {
        std::uint64_t const id = Mgr()->New(&error);
        if (id != kNoId) ids.push_back(id);
    }
    for (std::uint64_t id : ids) {
        if (error == 0) error = Mgr()->StartThread(id, ZNRString("entity-" + std::to_string(id)), nullptr);
    }
    ZNRNetAddrInfo bound;
    ServerAcceptor acceptor;
    if (error == 0) error = acceptor.Start(ZNRString(address), ZNRString(port), ids, &bound);
    if (error == 0) {
        // The socket listens already: a client may connect from now on.
        std::printf("plexa-entity-server: listening on %s:%s\n", bound.GetAddrStr().ToStdCStr().c_str(),
                    bound.GetPortStr().ToStdCStr().c_str());
        std::fflush(stdout);
        int sig = 0;
        sigwait(&signals, &sig);
        code = g_failed ? 1 : 0;
    } else {
        std::fprintf(stderr, "plexa-entity-server: can not listen on %s:%s: %s\n", address.c_str(),
                     port.c_str(), ZNRGetErrorText(error).c_str());
    }

    StopServer(&g_services);
    return code;
}
