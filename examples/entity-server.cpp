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
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace entity_services;

namespace {

std::uint64_t const kNoId = 0xFFFFFFFFFFFFFFFFULL;
char const kRoot[] = "entity-server";

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
                 "  --config FILE  XML configuration, every element optional:\n"
                 "                   <entity-server>\n"
                 "                     <address>127.0.0.1</address>  IPv4 address or host name\n"
                 "                     <port>0</port>                0 picks a free port\n"
                 "                     <reactors>0</reactors>        0: one per core\n"
                 "                     <log><directory>./logs</directory><file>plexa-entity-server.log</file>\n"
                 "                          <max-size>10485760</max-size><console>0</console></log>\n"
                 "                   </entity-server>\n"
                 "  --port N       listen on port N (0..65535), whatever the configuration says\n"
                 "Options take their value as --name VALUE or --name=VALUE. Stop it with Ctrl-C.\n");
    return code;
}

// Bad input: the reason (for the command line, with a hint), and nothing started.
int Refuse(std::string const& reason, bool hint = true) {
    std::fprintf(stderr, "plexa-entity-server: %s\n%s", reason.c_str(),
                 hint ? "Try 'plexa-entity-server --help'.\n" : "");
    return 2;
}

struct Settings {
    std::string address = "127.0.0.1";
    int port = 0;
    int reactors = 0;  // one per core
    std::string log_directory = "./logs";
    std::string log_file = "plexa-entity-server.log";
    int log_max_size = 10485760;
    int log_console = 0;
};

// One element the configuration may hold: its path below the root, and
// where its value goes (a text, or a number within bounds).
struct Element {
    char const* path;
    std::string Settings::*text;
    int Settings::*number;
    int low;
    int high;
};

Element const kElements[] = {
    {"address", &Settings::address, nullptr, 0, 0},
    {"port", nullptr, &Settings::port, 0, 65535},
    {"reactors", nullptr, &Settings::reactors, 0, 1024},
    {"log", nullptr, nullptr, 0, 0},
    {"log/directory", &Settings::log_directory, nullptr, 0, 0},
    {"log/file", &Settings::log_file, nullptr, 0, 0},
    {"log/max-size", nullptr, &Settings::log_max_size, 1, 0x7FFFFFFF},
    {"log/console", nullptr, &Settings::log_console, 0, 1},
};

// The reader's messages would go to a log that is not set up yet, so the
// reasons are worked out here, each naming the file and, where there is
// one, the line.
class ConfigReader {
public:
    ConfigReader(char const* file, Settings* settings) : file_(file), settings_(settings) {}

    // Empty when the file was read; else why not.
    std::string Read() {
        struct stat st;
        if (stat(file_, &st) != 0) return Where(0) + std::strerror(errno);
        if (S_ISDIR(st.st_mode)) return Where(0) + "is a directory, not a configuration file";
        if (st.st_size == 0) return Where(0) + "is empty";
        ZNRXmlConfig config;
        if (!config.Load(ZNRString(file_), ZNRString("xml"))) {
            ZNRXmlConfig::LoadError const e = ZNRXmlConfig::GetLastLoadError();
            return e.file.ToStdCStr() + ":" + std::to_string(e.row) + ": " + e.description.ToStdCStr();
        }
        std::vector<ZNRXmlConfig::NodeInfo> roots;
        config.GetNodes(ZNRString(kRoot), &roots);
        if (roots.empty()) return Where(0) + "the root element is not <" + kRoot + ">";
        return Walk(roots[0], "");
    }

private:
    std::string Where(int line) const {
        return std::string(file_) + (line > 0 ? ":" + std::to_string(line) : "") + ": ";
    }

    std::string Walk(ZNRXmlConfig::NodeInfo const& node, std::string const& prefix) {
        std::set<std::string> seen;
        for (ZNRXmlConfig::NodeInfo const* child : *node.children) {
            std::string const path = prefix + child->name.ToStdCStr();
            Element const* element = nullptr;
            for (Element const& e : kElements) {
                if (path == e.path) element = &e;
            }
            if (element == nullptr) return Where(child->line) + "unknown element <" + path + ">";
            if (!seen.insert(path).second) return Where(child->line) + "<" + path + "> given twice";
            std::string const value = child->value.ToStdCStr();
            if (element->text != nullptr) {
                if (value.empty()) return Where(child->line) + "<" + path + "> is empty";
                settings_->*element->text = value;
            } else if (element->number != nullptr) {
                char* end = nullptr;
                errno = 0;
                long const number = std::strtol(value.c_str(), &end, 10);
                if (value.empty() || value[0] < '0' || value[0] > '9' || *end != '\0' || errno != 0 ||
                    number < element->low || number > element->high) {
                    return Where(child->line) + "bad value for <" + path + ">: '" + value + "' (expected " +
                           std::to_string(element->low) + ".." + std::to_string(element->high) + ")";
                }
                settings_->*element->number = static_cast<int>(number);
            }
            std::string const inner = Walk(*child, path + "/");
            if (!inner.empty()) return inner;
        }
        return "";
    }

    char const* file_;
    Settings* settings_;
};

void StartLog(Settings const& settings) {
    std::uint32_t const max_size = static_cast<std::uint32_t>(settings.log_max_size);
    std::uint32_t const console = static_cast<std::uint32_t>(settings.log_console);
    std::string const& directory = settings.log_directory;
    std::string const& file = settings.log_file;
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
    ZNRGetopt opt;
    opt.AddOption('h', 'h', "help", ZNRGetopt::ARGUMENT_NONE);
    opt.AddOption('c', 0, "config", ZNRGetopt::ARGUMENT_REQUIRED);
    opt.AddOption('p', 0, "port", ZNRGetopt::ARGUMENT_REQUIRED);
    if (opt.Parse(argc, argv) != 0) return Refuse(opt.GetErrorText());
    if (opt.IsSet('h')) return Usage(stdout, 0);
    if (opt.GetOperandCount() != 0)
        return Refuse(std::string("unexpected argument '") + opt.GetOperand(0) + "'");
    long long port_option = -1;
    if (opt.GetNumber('p', 0, 65535, &port_option) != 0) return Refuse(opt.GetErrorText());

    ZNRInit();
    Settings settings;
    if (opt.IsSet('c')) {
        std::string const reason = ConfigReader(opt.GetArgument('c'), &settings).Read();
        if (!reason.empty()) return Refuse(reason, false);
    }
    if (port_option >= 0) settings.port = static_cast<int>(port_option);
    // Checked here too, so that a bad address is told before anything starts.
    ZNRHostInfo resolved;
    if (resolved.Open(ZNRString(settings.address), ZNRString(), false) != 0 || settings.address.empty())
        return Refuse("<address> '" + settings.address + "' is neither a host name nor an IPv4 address",
                      false);
    StartLog(settings);
    std::string const address = settings.address;
    std::string const port = std::to_string(settings.port);
    int reactors = settings.reactors;
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
