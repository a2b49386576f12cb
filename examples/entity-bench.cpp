// entity-bench (installed as plexa-bench): a load client for the echo
// example and for plexa-entity-server.
//
// Opens N connections, keeps one request (pingpong) or D requests
// (pipeline) in flight on each, checks every reply byte for byte, and ends
// with requests/s, MB/s, latency percentiles and errors. The last line is
// for scripts:
//
//   result rps=<float> mbps=<float> p50_us=<float> p99_us=<float> p999_us=<float> errors=<int>
//
// The sockets are driven by plain epoll rather than a reactor, so that the
// same client can measure servers written with other libraries; frames are
// built with the library's own data sender.
//
//   plexa-bench --port 7000 --raw --connections 64
//   plexa-bench --port 7100 --service kv --mode pipeline --depth 16
#include "entity-protocol.h"

#include <plexa/plexa.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

typedef std::chrono::steady_clock Clock;

struct Options {
    std::string host = "127.0.0.1";
    std::string port;
    int connections = 1;
    double duration = 5;
    bool pipeline = false;
    int depth = 16;
    int size = 64;
    bool kv = false;
    bool raw = false;
    int threads = 1;
};

// One request and the exact bytes its reply must be.
struct Exchange {
    std::string request;
    std::string reply;
};

// Each connection cycles through its own exchanges, so that a reply that
// is stale, reordered or meant for another connection does not compare
// equal.
int const kCycle = 16;

// Log-linear histogram of latencies in nanoseconds: 64 steps per power of
// two, under 1.6% apart.
int const kSubBits = 6;
int const kBuckets = 64 << kSubBits;

int BucketOf(std::uint64_t ns) {
    if (ns < (1u << kSubBits)) return static_cast<int>(ns);
    int const msb = 63 - __builtin_clzll(ns);
    int const shift = msb - kSubBits;
    return ((shift + 1) << kSubBits) + static_cast<int>((ns >> shift) & ((1u << kSubBits) - 1));
}

double BucketMid(int bucket) {
    if (bucket < (1 << kSubBits)) return bucket;
    int const shift = (bucket >> kSubBits) - 1;
    double const low = static_cast<double>(((1ULL << kSubBits) + (bucket & ((1 << kSubBits) - 1))) << shift);
    return low + static_cast<double>(1ULL << shift) / 2;
}

// Bytes 0..255 repeated: request n of a raw or echo cycle starts at n.
std::string Pattern(int size, int start) {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    for (int i = 0; i < size; ++i) bytes[i] = static_cast<char>((start * 37 + i) & 0xFF);
    return bytes;
}

// The sender's one frame, or false with a message.
bool TakeFrame(ZNRDataSender const& sender, std::uint64_t error, std::string* out) {
    ZNRByteBuffer const* const buffer = sender.GetBuffer();
    if (error != 0 || buffer->GetDataCount() == 0) {
        std::fprintf(stderr, "plexa-bench: can not build a request frame: %s\n",
                     error != 0 ? ZNRGetErrorText(error).c_str() : "too large");
        return false;
    }
    out->assign(reinterpret_cast<char const*>(buffer->GetData()), buffer->GetDataCount());
    return true;
}

bool Frame(unsigned int uri, ZNRMarshallable const& entity, std::string* out) {
    ZNRDataSender sender(false, 0x1000000);
    std::uint64_t const error =
        sender.CreateByEntityProtocol(uri, const_cast<ZNRMarshallable&>(entity), 0);
    return TakeFrame(sender, error, out);
}

// An echo request: the uri, then the bytes as they are.
bool EchoFrame(std::string const& bytes, std::string* out) {
    unsigned int const uri = entity_protocol::kEchoUri;
    std::string body(4, '\0');
    for (int i = 0; i < 4; ++i) body[i] = static_cast<char>((uri >> (8 * i)) & 0xFF);
    body += bytes;
    ZNRDataSender sender(false, 0x1000000);
    std::uint64_t const error = sender.CreateByTransMessageProtocol(
        reinterpret_cast<unsigned char const*>(body.data()), static_cast<int>(body.size()), 0);
    return TakeFrame(sender, error, out);
}

ZNRByteBuffer Buffer(std::string const& bytes) {
    return ZNRByteBuffer(reinterpret_cast<unsigned char const*>(bytes.data()),
                         static_cast<unsigned int>(bytes.size()));
}

// The cycle of exchanges of connection conn.
bool BuildExchanges(Options const& opt, int conn, std::vector<Exchange>* out) {
    using namespace entity_protocol;
    out->resize(kCycle);
    for (int n = 0; n < kCycle; ++n) {
        Exchange& ex = (*out)[n];
        if (opt.raw) {
            ex.request = Pattern(opt.size, conn + n);
            ex.reply = ex.request;
        } else if (!opt.kv) {
            if (!EchoFrame(Pattern(opt.size, conn + n), &ex.request)) return false;
            ex.reply = ex.request;
        } else {
            // put then get of the same key; keys are the connection's own.
            std::string const key = "bench-" + std::to_string(conn) + "-" + std::to_string(n / 2);
            std::string const value = Pattern(opt.size, conn + n / 2);
            KvReply reply;
            if (n % 2 == 0) {
                KvPutRequest put;
                put.key = key;
                put.value = Buffer(value);
                if (!Frame(kKvPutUri, put, &ex.request) || !Frame(kKvPutUri, reply, &ex.reply)) return false;
            } else {
                KvKeyRequest get;
                get.key = key;
                reply.value = Buffer(value);
                if (!Frame(kKvGetUri, get, &ex.request) || !Frame(kKvGetUri, reply, &ex.reply)) return false;
            }
        }
    }
    return true;
}

struct Connection {
    int fd = -1;
    int index = 0;
    std::vector<Exchange> exchanges;
    std::uint64_t sent = 0;      // requests written (or queued in out)
    std::uint64_t received = 0;  // replies complete
    std::size_t reply_offset = 0;
    std::vector<Clock::time_point> stamps;  // ring of send times, one per slot
    std::string out;                        // bytes the socket did not take yet
    bool want_write = false;
    bool dead = false;
};

struct Worker {
    std::vector<Connection*> connections;
    std::vector<std::uint64_t> histogram = std::vector<std::uint64_t>(kBuckets, 0);
    // Written by the worker only, read by the progress display.
    std::atomic<std::uint64_t> done{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> errors{0};
    int epoll = -1;
};

std::atomic<bool> g_stop{false};

void Bump(std::atomic<std::uint64_t>& counter, std::uint64_t n) {
    counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

void Fail(Worker* w, Connection* c, char const* what) {
    if (c->dead) return;
    c->dead = true;
    Bump(w->errors, 1);
    std::fprintf(stderr, "plexa-bench: connection %d: %s\n", c->index, what);
    epoll_ctl(w->epoll, EPOLL_CTL_DEL, c->fd, nullptr);
}

void Watch(Worker* w, Connection* c, bool write) {
    if (c->want_write == write) return;
    c->want_write = write;
    epoll_event ev{};
    ev.events = write ? EPOLLIN | EPOLLOUT : EPOLLIN;
    ev.data.ptr = c;
    epoll_ctl(w->epoll, EPOLL_CTL_MOD, c->fd, &ev);
}

// Writes what is queued; the rest waits for EPOLLOUT.
void Flush(Worker* w, Connection* c) {
    std::size_t off = 0;
    while (off < c->out.size()) {
        ssize_t const n = send(c->fd, c->out.data() + off, c->out.size() - off, MSG_NOSIGNAL);
        if (n > 0) {
            off += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        Fail(w, c, std::strerror(errno));
        return;
    }
    Bump(w->bytes, off);
    c->out.erase(0, off);
    Watch(w, c, !c->out.empty());
}

// Fills the free slots of the connection's window and writes them at once.
void Refill(Worker* w, Connection* c, std::size_t depth) {
    if (g_stop.load(std::memory_order_relaxed)) return;
    Clock::time_point const now = Clock::now();
    while (c->sent - c->received < depth) {
        c->out += c->exchanges[c->sent % kCycle].request;
        c->stamps[c->sent % depth] = now;
        ++c->sent;
    }
    Flush(w, c);
}

// Compares what arrived with the replies expected, in order.
void Consume(Worker* w, Connection* c, char const* data, std::size_t size, std::size_t depth) {
    std::uint64_t completed = 0;
    Clock::time_point now;
    while (size > 0) {
        if (c->received == c->sent) {
            Fail(w, c, "reply bytes with no request outstanding");
            return;
        }
        std::string const& expected = c->exchanges[c->received % kCycle].reply;
        std::size_t const n = std::min(size, expected.size() - c->reply_offset);
        if (std::memcmp(expected.data() + c->reply_offset, data, n) != 0) {
            char what[128];
            std::snprintf(what, sizeof what, "reply %llu differs from what was expected",
                          static_cast<unsigned long long>(c->received));
            Fail(w, c, what);
            return;
        }
        c->reply_offset += n;
        data += n;
        size -= n;
        if (c->reply_offset == expected.size()) {
            if (completed == 0) now = Clock::now();
            std::uint64_t const ns = static_cast<std::uint64_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - c->stamps[c->received % depth])
                    .count());
            ++w->histogram[BucketOf(ns)];
            c->reply_offset = 0;
            ++c->received;
            ++completed;
        }
    }
    Bump(w->done, completed);
}

void Run(Worker* w, std::size_t depth) {
    for (Connection* c : w->connections) Refill(w, c, depth);
    std::vector<char> buffer(256 * 1024);
    epoll_event events[64];
    while (!g_stop.load(std::memory_order_relaxed)) {
        int const count = epoll_wait(w->epoll, events, 64, 20);
        for (int i = 0; i < count; ++i) {
            Connection* const c = static_cast<Connection*>(events[i].data.ptr);
            if (c->dead) continue;
            if (events[i].events & EPOLLOUT) Flush(w, c);
            if (c->dead || !(events[i].events & (EPOLLIN | EPOLLERR | EPOLLHUP))) continue;
            std::uint64_t got = 0;
            for (;;) {
                ssize_t const n = recv(c->fd, buffer.data(), buffer.size(), 0);
                if (n > 0) {
                    got += static_cast<std::uint64_t>(n);
                    Consume(w, c, buffer.data(), static_cast<std::size_t>(n), depth);
                    if (c->dead || static_cast<std::size_t>(n) < buffer.size()) break;
                    continue;
                }
                if (n < 0 && errno == EINTR) continue;
                if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
                if (!g_stop.load(std::memory_order_relaxed)) {
                    Fail(w, c, n == 0 ? "closed by the server" : std::strerror(errno));
                }
                c->dead = true;
                break;
            }
            Bump(w->bytes, got);
            if (!c->dead && c->out.empty()) Refill(w, c, depth);
        }
    }
}

int Connect(Options const& opt, std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int const rc = getaddrinfo(opt.host.c_str(), opt.port.c_str(), &hints, &list);
    if (rc != 0) {
        *error = gai_strerror(rc);
        return -1;
    }
    int fd = -1;
    for (addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) continue;
        if (connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            *error = std::strerror(errno);
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(list);
    if (fd < 0) return -1;
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    int const flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    return fd;
}

int Usage(std::FILE* out, int code) {
    std::fprintf(out,
                 "usage: plexa-bench --port N [options]\n"
                 "Loads an echo or entity server and checks every reply byte for byte.\n"
                 "  --host ADDR          server address (default 127.0.0.1)\n"
                 "  --port N             server port (required)\n"
                 "  --connections N      connections (default 1)\n"
                 "  --duration SECONDS   length of the run (default 5)\n"
                 "  --mode MODE          pingpong or pipeline (default pingpong)\n"
                 "  --depth D            requests in flight per connection in pipeline mode (default 16)\n"
                 "  --size BYTES         request body, key-value value or raw payload size (default 64)\n"
                 "  --service NAME       echo or kv (default echo)\n"
                 "  --raw                no framing: plain bytes that an echo server sends back\n"
                 "  --threads N          client threads (default 1)\n"
                 "  --help               this text\n"
                 "The last line is: result rps= mbps= p50_us= p99_us= p999_us= errors=\n"
                 "Options take their value as --name VALUE or --name=VALUE.\n"
                 "Exit status 0 when there were no errors, 1 otherwise, 2 for bad options.\n");
    return code;
}

// Bad options: the reason, then a hint.
int Refuse(std::string const& reason) {
    std::fprintf(stderr, "plexa-bench: %s\nTry 'plexa-bench --help'.\n", reason.c_str());
    return 2;
}

enum OptionId { HELP, RAW, HOST, PORT, CONNECTIONS, DURATION, MODE, DEPTH, SIZE, SERVICE, THREADS };

// 0 when parsed, -1 after --help, else the exit code.
int ParseOptions(int argc, char** argv, Options* opt) {
    ZNRGetopt getopt;
    getopt.AddOption(HELP, 'h', "help", ZNRGetopt::ARGUMENT_NONE);
    getopt.AddOption(RAW, 0, "raw", ZNRGetopt::ARGUMENT_NONE);
    struct {
        OptionId id;
        char const* name;
    } const valued[] = {{HOST, "host"},         {PORT, "port"}, {CONNECTIONS, "connections"},
                        {DURATION, "duration"}, {MODE, "mode"}, {DEPTH, "depth"},
                        {SIZE, "size"},         {SERVICE, "service"}, {THREADS, "threads"}};
    for (auto const& v : valued) getopt.AddOption(v.id, 0, v.name, ZNRGetopt::ARGUMENT_REQUIRED);
    if (getopt.Parse(argc, argv) != 0) return Refuse(getopt.GetErrorText());
    if (getopt.IsSet(HELP)) return Usage(stdout, -1);
    if (getopt.GetOperandCount() != 0)
        return Refuse(std::string("unexpected argument '") + getopt.GetOperand(0) + "'");
    long long port = 0;
    long long connections = opt->connections;
    long long depth = opt->depth;
    long long size = opt->size;
    long long threads = opt->threads;
    if (getopt.GetNumber(PORT, 1, 65535, &port) != 0 ||
        getopt.GetNumber(CONNECTIONS, 1, 100000, &connections) != 0 ||
        getopt.GetNumber(DEPTH, 1, 1 << 20, &depth) != 0 || getopt.GetNumber(SIZE, 1, 8 << 20, &size) != 0 ||
        getopt.GetNumber(THREADS, 1, 1024, &threads) != 0) {
        return Refuse(getopt.GetErrorText());
    }
    if (port == 0) return Refuse("--port is required");
    opt->port = std::to_string(port);
    opt->connections = static_cast<int>(connections);
    opt->depth = static_cast<int>(depth);
    opt->size = static_cast<int>(size);
    opt->threads = static_cast<int>(threads);
    opt->raw = getopt.IsSet(RAW);
    if (char const* host = getopt.GetArgument(HOST)) opt->host = host;
    if (char const* duration = getopt.GetArgument(DURATION)) {
        char* end = nullptr;
        opt->duration = std::strtod(duration, &end);
        if (end == duration || *end != '\0' || !(opt->duration > 0 && opt->duration < 1e6))
            return Refuse(std::string("bad value for '--duration': '") + duration + "' (expected seconds, above 0)");
    }
    if (char const* mode = getopt.GetArgument(MODE)) {
        if (std::strcmp(mode, "pingpong") != 0 && std::strcmp(mode, "pipeline") != 0)
            return Refuse(std::string("bad value for '--mode': '") + mode + "' (expected pingpong or pipeline)");
        opt->pipeline = std::strcmp(mode, "pipeline") == 0;
    }
    if (char const* service = getopt.GetArgument(SERVICE)) {
        if (std::strcmp(service, "echo") != 0 && std::strcmp(service, "kv") != 0)
            return Refuse(std::string("bad value for '--service': '") + service + "' (expected echo or kv)");
        opt->kv = std::strcmp(service, "kv") == 0;
    }
    if (opt->raw && opt->kv) return Refuse("--raw has no key-value service");
    opt->threads = std::min(opt->threads, opt->connections);
    return 0;
}

std::uint64_t Sum(std::vector<std::unique_ptr<Worker>> const& workers,
                  std::atomic<std::uint64_t> Worker::*field) {
    std::uint64_t total = 0;
    for (auto const& w : workers) total += ((*w).*field).load(std::memory_order_relaxed);
    return total;
}

void Progress(bool tty, double elapsed, double total, double rate, double mbps, std::uint64_t errors) {
    if (tty) {
        int const width = 30;
        int const filled = std::min(width, static_cast<int>(width * elapsed / total));
        std::printf("\r[%s%s] %5.1f/%.1fs %12.0f req/s %9.2f MB/s errors %llu ",
                    std::string(filled, '#').c_str(), std::string(width - filled, ' ').c_str(),
                    elapsed, total, rate, mbps, static_cast<unsigned long long>(errors));
    } else {
        std::printf("%6.1fs %12.0f req/s %9.2f MB/s errors %llu\n", elapsed, rate, mbps,
                    static_cast<unsigned long long>(errors));
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    int const parsed = ParseOptions(argc, argv, &opt);
    if (parsed != 0) return parsed < 0 ? 0 : parsed;
    ZNRInit();
    std::signal(SIGPIPE, SIG_IGN);

    std::size_t const depth = opt.pipeline ? static_cast<std::size_t>(opt.depth) : 1;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int t = 0; t < opt.threads; ++t) {
        workers.emplace_back(new Worker());
        workers.back()->epoll = epoll_create1(EPOLL_CLOEXEC);
    }
    std::vector<std::unique_ptr<Connection>> connections;
    std::uint64_t setup_errors = 0;
    for (int i = 0; i < opt.connections; ++i) {
        std::unique_ptr<Connection> c(new Connection());
        c->index = i;
        c->stamps.resize(depth);
        if (!BuildExchanges(opt, i, &c->exchanges)) return 1;
        std::string error;
        c->fd = Connect(opt, &error);
        if (c->fd < 0) {
            std::fprintf(stderr, "plexa-bench: can not connect to %s:%s: %s\n", opt.host.c_str(),
                         opt.port.c_str(), error.c_str());
            ++setup_errors;
            continue;
        }
        Worker* const w = workers[i % opt.threads].get();
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = c.get();
        epoll_ctl(w->epoll, EPOLL_CTL_ADD, c->fd, &ev);
        w->connections.push_back(c.get());
        connections.push_back(std::move(c));
    }

    bool const tty = isatty(STDOUT_FILENO) != 0;
    Clock::time_point const start = Clock::now();
    Clock::time_point const deadline =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(opt.duration));
    std::vector<std::thread> threads;
    for (auto& w : workers) threads.emplace_back(Run, w.get(), depth);

    auto const tick = std::chrono::milliseconds(tty ? 200 : 1000);
    Clock::time_point last = start;
    std::uint64_t last_done = 0;
    std::uint64_t last_bytes = 0;
    while (!connections.empty()) {
        Clock::time_point const next = std::min(last + tick, deadline);
        std::this_thread::sleep_until(next);
        Clock::time_point const now = Clock::now();
        if (now >= deadline) break;
        std::uint64_t const done = Sum(workers, &Worker::done);
        std::uint64_t const bytes = Sum(workers, &Worker::bytes);
        double const span = std::chrono::duration<double>(now - last).count();
        Progress(tty, std::chrono::duration<double>(now - start).count(), opt.duration,
                 (done - last_done) / span, (bytes - last_bytes) / span / 1e6,
                 Sum(workers, &Worker::errors) + setup_errors);
        last = now;
        last_done = done;
        last_bytes = bytes;
    }
    g_stop.store(true);
    double const elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    for (std::thread& t : threads) t.join();
    if (tty) std::printf("\n");

    std::vector<std::uint64_t> histogram(kBuckets, 0);
    for (auto const& w : workers) {
        for (int b = 0; b < kBuckets; ++b) histogram[b] += w->histogram[b];
        close(w->epoll);
    }
    for (auto const& c : connections) close(c->fd);
    std::uint64_t const done = Sum(workers, &Worker::done);
    std::uint64_t const bytes = Sum(workers, &Worker::bytes);
    std::uint64_t const errors = Sum(workers, &Worker::errors) + setup_errors;
    auto percentile = [&](double q) {
        if (done == 0) return 0.0;
        std::uint64_t const rank = static_cast<std::uint64_t>(std::ceil(q * static_cast<double>(done)));
        std::uint64_t seen = 0;
        for (int b = 0; b < kBuckets; ++b) {
            seen += histogram[b];
            if (seen >= std::max<std::uint64_t>(rank, 1)) return BucketMid(b) / 1000;
        }
        return BucketMid(kBuckets - 1) / 1000;
    };
    double const rps = done / elapsed;
    double const mbps = bytes / elapsed / 1e6;
    double const p50 = percentile(0.50);
    double const p99 = percentile(0.99);
    double const p999 = percentile(0.999);

    char const* const kind = opt.raw ? "raw" : opt.kv ? "kv" : "echo";
    std::printf("\nplexa-bench: %s %s, %s:%s, %d connection%s, %d thread%s, %d-byte %s, %.2f s\n", kind,
                opt.pipeline ? ("pipeline depth " + std::to_string(opt.depth)).c_str() : "pingpong",
                opt.host.c_str(), opt.port.c_str(), opt.connections, opt.connections == 1 ? "" : "s",
                opt.threads, opt.threads == 1 ? "" : "s", opt.size,
                opt.raw ? "payloads" : opt.kv ? "values" : "bodies", elapsed);
    std::printf("  %-16s %14llu\n", "requests", static_cast<unsigned long long>(done));
    std::printf("  %-16s %14.1f\n", "requests/s", rps);
    std::printf("  %-16s %14.2f   (both directions)\n", "MB/s", mbps);
    std::printf("  %-16s %14.1f us\n", "latency p50", p50);
    std::printf("  %-16s %14.1f us\n", "latency p99", p99);
    std::printf("  %-16s %14.1f us\n", "latency p99.9", p999);
    std::printf("  %-16s %14llu\n", "errors", static_cast<unsigned long long>(errors));
    std::printf("result rps=%.1f mbps=%.3f p50_us=%.1f p99_us=%.1f p999_us=%.1f errors=%llu\n", rps, mbps,
                p50, p99, p999, static_cast<unsigned long long>(errors));
    std::fflush(stdout);
    return errors == 0 ? 0 : 1;
}
