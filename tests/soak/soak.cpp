// soak: the entity server of examples/entity-services.h on two reactors,
// loaded over loopback by well-behaved pipelining clients (every reply
// checked byte for byte) while other threads inject faults: peers that
// vanish, reset, half-close, never read or send garbage, oversized frames
// and a decompression bomb; cross-thread SendData storms at a closing
// device; a third reactor created and removed under traffic.
//
//   soak [SECONDS]        default 30; figures as "soak: key=value" lines
//   soak --idle N         N idle connections on one reactor: heap per
//                         connection and a live client's round trip
//
// Exits non-zero on any failure; a watchdog aborts after SECONDS + 60.
#include "entity-services.h"

#include <plexa/plexa.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

using namespace entity_services;

namespace {

typedef std::chrono::steady_clock Clock;

// Smaller than the example server's, so that the limits are reached quickly.
int const kRecvMaxSoak = 1024 * 1024 + 64;
int const kSendMaxSoak = 4 * 1024 * 1024;
int const kGoodThreads = 4;
int const kDepth = 8;  // requests in flight per good connection

ZNRReactorMgr* Mgr() { return ZNRSingleton<ZNRReactorMgr>::Instance(); }

std::atomic<bool> g_stop{false};
std::atomic<int> g_failures{0};
unsigned short g_port = 0;

void Failure(char const* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::fprintf(stderr, "soak: FAIL %s\n", text);
    ++g_failures;
}

// ------------------------------------------------------------ server side

// Counts the log lines the checks look for.
std::atomic<std::uint64_t> g_log_overflow{0};
std::atomic<std::uint64_t> g_log_dispatch{0};
std::atomic<std::uint64_t> g_log_recv_overflow{0};

class CountingWriter : public ZNRLoggerWriterBase {
public:
    void OnWrite(ZNRLoggerEntry const* e) override {
        char const* const m = e->message != nullptr ? e->message : "";
        if (std::strstr(m, "Can not send data to iocp device, send buffer is overflow") != nullptr) ++g_log_overflow;
        if (std::strstr(m, "Dispatch entity data error, close device") != nullptr) ++g_log_dispatch;
        if (std::strstr(m, "recv buffer is overflow") != nullptr) ++g_log_recv_overflow;
    }
    std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
    std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
    void Destroy() override { delete this; }
};

ZNREntityMap g_services;
KvService g_kv;

// A connection that opens with this tag is the target of a storm.
char const kStormTag[8] = {'S', 'O', 'A', 'K', 'S', 'T', 'R', 'M'};
struct StormTarget {
    std::mutex lock;
    std::condition_variable ready;
    std::uint64_t reactor = 0;
    std::uint64_t device = 0;
    bool set = false;
} g_storm;

// The services' handler, which also hands a tagged connection to the storm.
class SoakHandler : public ZNREntityDeviceHandler {
public:
    SoakHandler(std::uint64_t reactor) : ZNREntityDeviceHandler(g_services, reactor) {}
    bool OnData(ZNRByteBuffer const* buffer, int* offset) override {
        if (!checked_ && buffer != nullptr && buffer->GetDataCount() >= sizeof kStormTag) {
            checked_ = true;
            if (std::memcmp(buffer->GetData(), kStormTag, sizeof kStormTag) == 0) {
                std::lock_guard<std::mutex> guard(g_storm.lock);
                g_storm.reactor = GetReactorId();
                g_storm.device = GetDeviceId();
                g_storm.set = true;
                g_storm.ready.notify_all();
                *offset = static_cast<int>(buffer->GetDataCount());
                return true;
            }
        }
        return ZNREntityDeviceHandler::OnData(buffer, offset);
    }

private:
    bool checked_ = false;
};

std::atomic<std::uint64_t> g_accepted{0};

class SoakAcceptor : public EntityAcceptor {
public:
    SoakAcceptor(int recv_grow = kRecvGrow) : EntityAcceptor(&g_services, kRecvMaxSoak, recv_grow, kSendMaxSoak) {}

protected:
    ZNRDeviceHandler* OnCreateHandler(std::uint64_t reactor) override {
        ++g_accepted;
        return new SoakHandler(reactor);
    }
    void OnListenFailed(std::uint64_t error) override { Failure("listen: %s", ZNRGetErrorText(error).c_str()); }
};

// ------------------------------------------------------------ frames

std::string Frame(unsigned int uri, ZNRMarshallable const& entity, unsigned short compress) {
    ZNRDataSender sender(false, 0x1000000 + 16);
    sender.CreateByEntityProtocol(uri, const_cast<ZNRMarshallable&>(entity), compress);
    ZNRByteBuffer const* const b = sender.GetBuffer();
    return std::string(reinterpret_cast<char const*>(b->GetData()), b->GetDataCount());
}

std::string Pattern(std::size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>((seed * 131 + i * 7 + (i >> 8)) & 0xFF);
    return s;
}

std::string Echo(std::string const& bytes, unsigned short compress = 0) {
    RawBody raw;
    raw.data = reinterpret_cast<unsigned char const*>(bytes.data());
    raw.size = static_cast<int>(bytes.size());
    return Frame(kEchoUri, raw, compress);
}

ZNRByteBuffer Buffer(std::string const& s) {
    return ZNRByteBuffer(reinterpret_cast<unsigned char const*>(s.data()), static_cast<unsigned int>(s.size()));
}

std::string KvAnswer(unsigned int uri, unsigned int status, std::string const& value, unsigned short compress) {
    KvReply reply;
    reply.status = status;
    reply.value = Buffer(value);
    return Frame(uri, reply, compress);
}

// ------------------------------------------------------------ good clients

// A slot keeps its key-value model across reconnections: keys are its own.
struct Slot {
    int index = 0;
    int fd = -1;
    bool connecting = false;
    std::uint64_t budget = 0;  // requests left on this connection
    std::string out;
    std::deque<std::string> expected;
    std::size_t matched = 0;  // bytes of expected.front() already seen
    std::map<std::string, std::string> model;
    Clock::time_point progress;
    std::mt19937 rng;
};

std::atomic<std::uint64_t> g_connections{0};
std::atomic<std::uint64_t> g_verified{0};

int Socket(bool nonblock) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (nonblock ? SOCK_NONBLOCK : 0), 0);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

sockaddr_in Server(unsigned short port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// One request for the slot, with the reply it must get.
void NextRequest(Slot* s) {
    // Few compressed: each costs a deflate stream of some 256 KiB.
    unsigned short const compress = s->rng() % 16 == 0 ? 1 : 0;
    std::string const key = "k" + std::to_string(s->index) + "-" + std::to_string(s->rng() % 8);
    switch (s->rng() % 4) {
    case 0:
    case 1: {
        // The echo of a frame is the same frame, compressed or not.
        s->expected.push_back(Echo(Pattern(s->rng() % 3000, s->rng()), compress));
        s->out += s->expected.back();
        break;
    }
    case 2: {
        KvPutRequest put;
        put.key = key;
        std::string const value = Pattern(s->rng() % 500, s->rng());
        put.value = Buffer(value);
        s->model[key] = value;
        s->out += Frame(kKvPutUri, put, compress);
        s->expected.push_back(KvAnswer(kKvPutUri, STATUS_OK, "", compress));
        break;
    }
    default: {
        KvKeyRequest get;
        get.key = key;
        bool const del = s->rng() % 3 == 0;
        auto const found = s->model.find(key);
        unsigned int const status = found == s->model.end() ? STATUS_NOT_FOUND : STATUS_OK;
        unsigned int const uri = del ? kKvDeleteUri : kKvGetUri;
        std::string const value = found != s->model.end() && !del ? found->second : "";
        if (del && found != s->model.end()) s->model.erase(found);
        s->out += Frame(uri, get, compress);
        s->expected.push_back(KvAnswer(uri, status, value, compress));
        break;
    }
    }
}

class GoodClients {
public:
    GoodClients(int first, int count) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        for (int i = 0; i < count; ++i) {
            slots_.emplace_back(new Slot());
            slots_.back()->index = first + i;
            slots_.back()->rng.seed(first + i);
        }
    }
    ~GoodClients() { close(epoll_); }

    void Run() {
        for (auto& s : slots_) Connect(s.get());
        std::vector<char> buffer(64 * 1024);
        epoll_event events[64];
        Clock::time_point drain_deadline{};
        for (;;) {
            bool const stopping = g_stop.load();
            if (stopping && drain_deadline == Clock::time_point{}) drain_deadline = Clock::now() + std::chrono::seconds(30);
            int open = 0;
            for (auto& s : slots_) open += s->fd >= 0;
            if (open == 0) break;
            Clock::time_point const now = Clock::now();
            if (stopping && now > drain_deadline) {
                for (auto& s : slots_)
                    if (s->fd >= 0) Drop(s.get(), "replies missing when the run ended");
                break;
            }
            for (auto& s : slots_) {
                if (stopping && s->fd >= 0 && !s->connecting && s->expected.empty()) {
                    close(s->fd);  // answered in full, nothing more to ask
                    s->fd = -1;
                }
                if (s->fd >= 0 && !s->expected.empty() && now - s->progress > std::chrono::seconds(30)) {
                    Drop(s.get(), "no reply for 30 s: the server stopped serving");
                }
            }
            int const n = epoll_wait(epoll_, events, 64, 100);
            for (int i = 0; i < n; ++i) {
                Slot* const s = static_cast<Slot*>(events[i].data.ptr);
                if (s->fd < 0) continue;
                if (s->connecting) {
                    int err = 0;
                    socklen_t len = sizeof err;
                    getsockopt(s->fd, SOL_SOCKET, SO_ERROR, &err, &len);
                    if (err != 0) {
                        Drop(s, std::strerror(err));
                        continue;
                    }
                    s->connecting = false;
                    ++g_connections;
                    Fill(s);
                }
                if (s->fd >= 0 && (events[i].events & EPOLLOUT)) Flush(s);
                if (s->fd >= 0 && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) Read(s, &buffer);
            }
        }
    }

private:
    void Connect(Slot* s) {
        s->fd = Socket(true);
        sockaddr_in const a = Server(g_port);
        if (connect(s->fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0 && errno != EINPROGRESS) {
            Drop(s, std::strerror(errno));
            return;
        }
        s->connecting = true;
        s->budget = 50 + s->rng() % 1000;
        s->progress = Clock::now();
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLOUT;
        ev.data.ptr = s;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, s->fd, &ev);
    }

    void Drop(Slot* s, char const* why) {
        Failure("good client %d: %s", s->index, why);
        close(s->fd);
        s->fd = -1;
    }

    void Fill(Slot* s) {
        while (!g_stop.load() && s->budget > 0 && s->expected.size() < kDepth) {
            NextRequest(s);
            --s->budget;
        }
        Flush(s);
    }

    void Flush(Slot* s) {
        while (!s->out.empty()) {
            ssize_t const n = send(s->fd, s->out.data(), s->out.size(), MSG_NOSIGNAL);
            if (n > 0) {
                s->out.erase(0, static_cast<std::size_t>(n));
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                break;
            } else {
                Drop(s, std::strerror(errno));
                return;
            }
        }
        epoll_event ev{};
        ev.events = s->out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
        ev.data.ptr = s;
        epoll_ctl(epoll_, EPOLL_CTL_MOD, s->fd, &ev);
    }

    void Read(Slot* s, std::vector<char>* buffer) {
        for (;;) {
            ssize_t const n = recv(s->fd, buffer->data(), buffer->size(), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
            if (n <= 0) {
                Drop(s, n == 0 ? "server closed the connection" : std::strerror(errno));
                return;
            }
            if (!Check(s, buffer->data(), static_cast<std::size_t>(n))) return;
        }
        if (s->expected.empty() && (s->budget == 0 || g_stop.load())) {
            close(s->fd);  // all answered: a clean end, then a new connection
            s->fd = -1;
            if (!g_stop.load()) Connect(s);
            return;
        }
        Fill(s);
    }

    bool Check(Slot* s, char const* data, std::size_t size) {
        s->progress = Clock::now();
        while (size > 0) {
            if (s->expected.empty()) {
                Drop(s, "reply bytes with no request outstanding");
                return false;
            }
            std::string const& want = s->expected.front();
            std::size_t const n = std::min(size, want.size() - s->matched);
            if (std::memcmp(want.data() + s->matched, data, n) != 0) {
                Drop(s, "reply differs from what was expected (lost, reordered or corrupt)");
                return false;
            }
            s->matched += n;
            data += n;
            size -= n;
            if (s->matched == want.size()) {
                s->expected.pop_front();
                s->matched = 0;
                ++g_verified;
            }
        }
        return true;
    }

    int epoll_;
    std::vector<std::unique_ptr<Slot>> slots_;
};

// ------------------------------------------------------------ faults

// A blocking client with a receive timeout, so that no fault can hang.
int Dial(unsigned short port = g_port) {
    int const fd = Socket(false);
    timeval tv{20, 0};  // long, for a loaded machine under the sanitizers
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in const a = Server(port);
    if (connect(fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0) {
        Failure("connect: %s", std::strerror(errno));
        close(fd);
        return -1;
    }
    ++g_connections;
    return fd;
}

bool SendAll(int fd, std::string const& data) {
    std::size_t off = 0;
    while (off < data.size()) {
        ssize_t const n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        off += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads until the server ends the connection; false on the timeout.
bool ReadToEnd(int fd, std::string* got) {
    char buffer[64 * 1024];
    for (;;) {
        ssize_t const n = recv(fd, buffer, sizeof buffer, 0);
        if (n > 0) {
            got->append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n == 0 || errno == ECONNRESET;
    }
}

// Sends bytes the server must refuse: no reply, and the connection ends.
bool Refused(char const* kind, std::string const& bytes) {
    int const fd = Dial();
    if (fd < 0) return false;
    SendAll(fd, bytes);  // the server may close before it has all of it
    std::string got;
    bool const ended = ReadToEnd(fd, &got);
    close(fd);
    if (!ended) Failure("%s: the server kept the connection for 20 s", kind);
    if (!got.empty()) Failure("%s: %zu reply bytes to a bad frame", kind, got.size());
    return ended && got.empty();
}

std::string Header(unsigned char flags, unsigned int length) {
    std::string h(5, '\0');
    h[1] = static_cast<char>(flags);
    for (int i = 0; i < 3; ++i) h[2 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
    return h;
}

bool Vanish() {
    int const fd = Dial();
    if (fd >= 0) close(fd);
    return fd >= 0;
}

bool MidFrame() {
    int const fd = Dial();
    if (fd < 0) return false;
    std::string const frame = Echo(Pattern(2000, 7));
    SendAll(fd, frame.substr(0, frame.size() / 2));
    close(fd);
    return true;
}

bool Reset() {
    int const fd = Dial();
    if (fd < 0) return false;
    for (int i = 0; i < 4; ++i) SendAll(fd, Echo(Pattern(100000, i)));
    linger const hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(fd);
    return true;
}

// The requests before the half-close are all answered, then the server closes.
bool HalfClose() {
    int const fd = Dial();
    if (fd < 0) return false;
    std::string want;
    for (std::size_t size : {10u, 300000u, 20u, 900000u, 5u}) {
        std::string const frame = Echo(Pattern(size, static_cast<unsigned>(size)));
        SendAll(fd, frame);
        want += frame;
    }
    shutdown(fd, SHUT_WR);
    std::string got;
    bool const ended = ReadToEnd(fd, &got);
    close(fd);
    if (!ended) Failure("halfclose: no end of stream within 20 s");
    if (got != want) Failure("halfclose: %zu of %zu reply bytes, or wrong ones", got.size(), want.size());
    return ended && got == want;
}

// Sends without reading until the server's send queue overflows and closes.
bool NoRead() {
    int const fd = Dial();
    if (fd < 0) return false;
    std::string const frame = Echo(Pattern(60000, 3));
    std::size_t sent = 0;
    while (sent < 512u * 1024 * 1024) {
        if (!SendAll(fd, frame)) break;  // EPIPE, ECONNRESET, or the timeout
        sent += frame.size();
    }
    pollfd p{fd, POLLIN, 0};
    bool const ended = poll(&p, 1, 20000) == 1 && (p.revents & (POLLHUP | POLLERR)) != 0;
    close(fd);
    if (!ended) Failure("noread: the server kept a peer that never reads (%zu bytes sent)", sent);
    return ended;
}

bool BadHeader() { return Refused("badheader", "\xff\xff" + Pattern(200, 1)); }

bool UnknownUri() {
    std::string body = "\x77\x77\x77\x77" + Pattern(40, 2);
    return Refused("unknownuri", Header(0, static_cast<unsigned>(body.size())) + body);
}

bool BadDeflate() {
    std::string const body = Pattern(300, 5);
    return Refused("baddeflate", Header(0x02, static_cast<unsigned>(body.size())) + body);
}

// A length the receive limit can not hold: the buffer overflows, the server closes.
bool Oversize() { return Refused("oversize", Header(0, 0xFFFFFF) + std::string(2 * 1024 * 1024, 'x')); }

// An echo request of zeros that inflates past the default inflate limit.
bool Bomb() {
    static std::string const frame = [] {
        std::string body(4 + ZNRTransMessage::DEFAULT_MAX_INFLATE_SIZE + (1 << 20), '\0');
        for (int i = 0; i < 4; ++i) body[i] = static_cast<char>((kEchoUri >> (8 * i)) & 0xFF);
        ZNRGzip gzip;
        ZNRByteBuffer out;
        gzip.Open(true);
        gzip.Compress(reinterpret_cast<unsigned char const*>(body.data()), static_cast<int>(body.size()), &out, true);
        return Header(0x02, out.GetDataCount()) +
               std::string(reinterpret_cast<char const*>(out.GetData()), out.GetDataCount());
    }();
    return Refused("bomb", frame);
}

// Two threads SendData records at a device while one of them closes it;
// the client must get whole records, each thread's in order without a
// gap, and then the end of the stream.
bool Storm() {
    int const fd = Dial();
    if (fd < 0) return false;
    std::unique_lock<std::mutex> lock(g_storm.lock);
    g_storm.set = false;
    SendAll(fd, std::string(kStormTag, sizeof kStormTag));
    if (!g_storm.ready.wait_for(lock, std::chrono::seconds(10), [] { return g_storm.set; })) {
        close(fd);
        Failure("storm: the tagged connection never reached its handler");
        return false;
    }
    std::uint64_t const reactor = g_storm.reactor, device = g_storm.device;
    lock.unlock();
    auto blast = [reactor, device](unsigned char who, bool closer) {
        for (unsigned seq = 0; seq < 3000; ++seq) {
            std::string record(1, static_cast<char>(who));
            record.append(reinterpret_cast<char const*>(&seq), 4);
            record += Pattern(5 + seq % 200, seq * 2 + who);
            Mgr()->SendData(reactor, device, reinterpret_cast<unsigned char const*>(record.data()),
                            static_cast<int>(record.size()));
            if (closer && seq == 1000) Mgr()->SendData(reactor, device, nullptr, 0);
        }
    };
    std::thread a(blast, 1, true), b(blast, 2, false);
    std::string got;
    bool const ended = ReadToEnd(fd, &got);
    a.join();
    b.join();
    close(fd);
    if (!ended) Failure("storm: no end of stream after the close");
    unsigned next[3] = {0, 0, 0};
    std::size_t off = 0;
    while (off + 5 <= got.size()) {
        unsigned char const who = static_cast<unsigned char>(got[off]);
        unsigned seq = 0;
        std::memcpy(&seq, got.data() + off + 1, 4);
        std::string const body = Pattern(5 + seq % 200, seq * 2 + who);
        if ((who != 1 && who != 2) || seq != next[who]) {
            Failure("storm: record %u of sender %u where %u was due", seq, who, who <= 2 ? next[who] : 0);
            return false;
        }
        std::size_t const n = std::min(body.size(), got.size() - off - 5);
        if (got.compare(off + 5, n, body, 0, n) != 0) {
            Failure("storm: record %u of sender %u torn", seq, who);
            return false;
        }
        ++next[who];
        off += 5 + body.size();
    }
    return ended;
}

// Each kind, with the log line the server must write for each run of it.
struct FaultKind {
    char const* name;
    bool (*run)();
    std::atomic<std::uint64_t>* logged;
    std::atomic<std::uint64_t> count;
};

FaultKind g_faults[] = {
    {"vanish", Vanish, nullptr, {0}},
    {"midframe", MidFrame, nullptr, {0}},
    {"reset", Reset, nullptr, {0}},
    {"halfclose", HalfClose, nullptr, {0}},
    {"noread", NoRead, &g_log_overflow, {0}},
    {"badheader", BadHeader, &g_log_dispatch, {0}},
    {"unknownuri", UnknownUri, &g_log_dispatch, {0}},
    {"baddeflate", BadDeflate, &g_log_dispatch, {0}},
    {"oversize", Oversize, &g_log_recv_overflow, {0}},
    {"bomb", Bomb, &g_log_dispatch, {0}},
    {"storm", Storm, nullptr, {0}},
};
int const kFaultKinds = sizeof g_faults / sizeof g_faults[0];

std::mutex g_bomb_lock;  // one bomb at a time keeps the peak memory down

void FaultLoop(int first) {
    for (int i = first; !g_stop.load(); ++i) {
        FaultKind& kind = g_faults[i % kFaultKinds];
        if (kind.run == Bomb || kind.run == Storm) {
            std::lock_guard<std::mutex> guard(g_bomb_lock);
            kind.run();
        } else {
            kind.run();
        }
        ++kind.count;
    }
}

// A reactor of its own, with a listener, answers clients and is removed
// while requests are in flight; its clients must see whole replies in
// order and then the end.
std::atomic<std::uint64_t> g_removed{0};

void ChurnLoop() {
    while (!g_stop.load()) {
        std::uint64_t error = 0;
        std::uint64_t const id = Mgr()->New(&error);
        if (error == 0) error = Mgr()->StartThread(id, ZNRString("soak-churn"), nullptr);
        std::unique_ptr<SoakAcceptor> acceptor(new SoakAcceptor());
        ZNRNetAddrInfo bound;
        if (error == 0) error = acceptor->Start(ZNRString("127.0.0.1"), ZNRString("0"), {id}, &bound);
        if (error != 0) {
            Failure("churn reactor: %s", ZNRGetErrorText(error).c_str());
            Mgr()->Remove(id);
            return;
        }
        unsigned short const port = static_cast<unsigned short>(std::atoi(bound.GetPortStr().ToStdCStr().c_str()));
        std::vector<int> fds;
        std::string want;
        for (int i = 0; i < 4; ++i) want += Echo(Pattern(1000 + i, i));
        for (int c = 0; c < 8; ++c) {
            int const fd = Dial(port);
            if (fd < 0) break;
            fds.push_back(fd);
            SendAll(fd, want);
            std::string got(want.size(), '\0');
            if (recv(fd, &got[0], got.size(), MSG_WAITALL) != static_cast<ssize_t>(got.size()) || got != want) {
                Failure("churn reactor: a reply missing or wrong before the remove");
            }
            g_verified += 4;
            SendAll(fd, want);  // in flight when the reactor goes
        }
        Mgr()->Remove(id);
        acceptor.reset();
        for (int fd : fds) {
            std::string got;
            if (!ReadToEnd(fd, &got)) Failure("churn reactor: a connection outlived its removed reactor");
            if (want.compare(0, got.size(), got) != 0) {
                size_t k = 0; while (k < got.size() && got[k] == want[k]) ++k;
                Failure("churn reactor: wrong bytes before the end got=%zu want=%zu first_diff=%zu", got.size(), want.size(), k);
            }
            close(fd);
        }
        ++g_removed;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// ------------------------------------------------------------ figures

std::string Status(char const* key) {
    std::FILE* const f = std::fopen("/proc/self/status", "r");
    char line[256];
    std::string value = "?";
    while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, key, std::strlen(key)) == 0) {
            value = std::to_string(std::strtoull(line + std::strlen(key) + 1, nullptr, 10));
        }
    }
    if (f != nullptr) std::fclose(f);
    return value;
}

std::vector<std::uint64_t> StartServer(int reactors, SoakAcceptor* acceptor) {
    std::vector<std::uint64_t> ids;
    std::uint64_t error = 0;
    for (int i = 0; i < reactors && error == 0; ++i) {
        std::uint64_t const id = Mgr()->New(&error);
        if (error == 0) error = Mgr()->StartThread(id, ZNRString("soak-" + std::to_string(i)), nullptr);
        ids.push_back(id);
    }
    ZNRNetAddrInfo bound;
    if (error == 0) error = acceptor->Start(ZNRString("127.0.0.1"), ZNRString("0"), ids, &bound);
    if (error != 0) {
        Failure("server: %s", ZNRGetErrorText(error).c_str());
        return {};
    }
    g_port = static_cast<unsigned short>(std::atoi(bound.GetPortStr().ToStdCStr().c_str()));
    return ids;
}

void Soak(int seconds, int clients) {
    SoakAcceptor acceptor;
    if (StartServer(2, &acceptor).empty()) {
        Mgr()->RemoveAll();  // before the acceptor goes
        return;
    }
    std::vector<std::unique_ptr<GoodClients>> groups;
    std::vector<std::thread> threads;
    for (int t = 0; t < kGoodThreads; ++t) {
        int const first = clients * t / kGoodThreads;
        groups.emplace_back(new GoodClients(first, clients * (t + 1) / kGoodThreads - first));
        threads.emplace_back(&GoodClients::Run, groups.back().get());
    }
    threads.emplace_back(FaultLoop, 0);
    threads.emplace_back(FaultLoop, kFaultKinds / 2);
    threads.emplace_back(ChurnLoop);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    g_stop = true;
    for (std::thread& t : threads) t.join();
    Mgr()->RemoveAll();

    for (std::atomic<std::uint64_t>* log : {&g_log_overflow, &g_log_dispatch, &g_log_recv_overflow}) {
        std::uint64_t due = 0;
        for (FaultKind const& k : g_faults) due += k.logged == log ? k.count.load() : 0;
        if (log->load() < due) {
            Failure("%llu server log lines for %llu faults that each must log one",
                    static_cast<unsigned long long>(log->load()), static_cast<unsigned long long>(due));
        }
    }
    if (g_verified == 0) Failure("no request was answered");
    std::printf("soak: seconds=%d connections=%llu requests_verified=%llu\n", seconds,
                static_cast<unsigned long long>(g_connections.load()),
                static_cast<unsigned long long>(g_verified.load()));
    std::string faults = "soak: faults";
    for (FaultKind const& k : g_faults) faults += std::string(" ") + k.name + "=" + std::to_string(k.count.load());
    std::printf("%s reactor_removes=%llu\n", faults.c_str(), static_cast<unsigned long long>(g_removed.load()));
    std::printf("soak: logged send_overflow=%llu bad_frame=%llu recv_overflow=%llu\n",
                static_cast<unsigned long long>(g_log_overflow.load()),
                static_cast<unsigned long long>(g_log_dispatch.load()),
                static_cast<unsigned long long>(g_log_recv_overflow.load()));
}

// ------------------------------------------------------------ idle

long long const kIdleHeapMax = 2048;

void Idle(int count, int grow) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlim_t const need = static_cast<rlim_t>(count) + 64;
    if (limit.rlim_max < need) {
        std::printf("soak: idle skipped, %d connections need %llu descriptors, the hard limit is %llu\n", count,
                    static_cast<unsigned long long>(need), static_cast<unsigned long long>(limit.rlim_max));
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    SoakAcceptor acceptor(grow);
    if (StartServer(1, &acceptor).empty()) {
        Mgr()->RemoveAll();
        return;
    }
    std::string const ping = Echo(Pattern(64, 9));
    auto round_trip = [&ping](double* us) {
        int const fd = Dial();
        if (fd < 0) return false;
        Clock::time_point const start = Clock::now();
        std::string got(ping.size(), '\0');
        timeval tv{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        bool const ok = SendAll(fd, ping) && recv(fd, &got[0], got.size(), MSG_WAITALL) == static_cast<ssize_t>(got.size()) && got == ping;
        *us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        close(fd);
        return ok;
    };
    double us = 0;
    round_trip(&us);  // the reactor's own allocations before the baseline
    std::uint64_t const accepted = g_accepted;
    std::size_t const before = mallinfo2().uordblks;
    // The client ends live in a child, so that each process needs count
    // descriptors; it uses system calls only. It connects in batches that
    // the listener's backlog holds (a full one drops connects for a
    // second), waits for a byte between them and holds them until told.
    int ready[2], hold[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(hold, O_CLOEXEC) != 0) {
        Failure("idle: pipe: %s", std::strerror(errno));
        Mgr()->RemoveAll();
        return;
    }
    pid_t const child = fork();
    if (child == 0) {
        close(ready[0]);
        close(hold[1]);
        sockaddr_in const a = Server(g_port);
        int opened = 0;
        char c = 0;
        for (bool failed = false; !failed && opened < count;) {
            for (int end = std::min(count, opened + 100); opened < end; ++opened) {
                int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                failed = fd < 0 || connect(fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0;
                if (failed) break;
            }
            int const report = failed ? -opened - 1 : opened;
            if (write(ready[1], &report, sizeof report) != sizeof report || read(hold[0], &c, 1) != 1) break;
        }
        _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    int opened = 0;
    for (int report = 0; child > 0 && opened < count;) {
        if (read(ready[0], &report, sizeof report) != sizeof report) break;
        opened = report < 0 ? -report - 1 : report;
        for (int i = 0; i < 10000 && g_accepted - accepted < static_cast<std::uint64_t>(opened); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (report < 0 || opened == count || write(hold[1], "", 1) != 1) break;
    }
    if (opened < count) Failure("idle: %d of %d connections opened", opened, count);
    // Adopted in order on the one reactor: an answer means all are registered.
    bool const answered = round_trip(&us);
    std::size_t const after = mallinfo2().uordblks;
    close(hold[1]);
    close(ready[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    if (!answered) Failure("idle: no echo from the reactor within 1 s under %d idle connections", opened);
    long long const per_conn = (static_cast<long long>(after) - static_cast<long long>(before)) / std::max(opened, 1);
    std::printf("soak: idle_connections=%d recv_grow=%d idle_heap_bytes_per_conn=%lld live_rtt_us=%.0f\n", opened,
                grow, per_conn, us);
    // Receive memory comes with data: a waiting connection costs its objects only.
    if (per_conn > kIdleHeapMax) Failure("idle: %lld heap bytes per idle connection, the budget is %lld", per_conn, kIdleHeapMax);
    Mgr()->RemoveAll();
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 30, idle = 0, grow = kRecvGrow, clients = 500;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--idle") == 0 && i + 1 < argc) {
            idle = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--grow") == 0 && i + 1 < argc) {
            grow = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--clients") == 0 && i + 1 < argc) {
            clients = std::atoi(argv[++i]);
        } else if (argv[i][0] != '-' && std::atoi(argv[i]) > 0) {
            seconds = std::atoi(argv[i]);
        } else {
            std::fprintf(stderr, "usage: soak [SECONDS] [--clients N] | --idle N [--grow BYTES]\n");
            return 2;
        }
    }
    // Nothing may hang: a run past its time plus a minute is a failure.
    std::thread([limit = (idle > 0 ? 120 : seconds + 60)] {
        std::this_thread::sleep_for(std::chrono::seconds(limit));
        std::fprintf(stderr, "soak: FAIL hang, still running after %d s\n", limit);
        std::abort();
    }).detach();

    ZNRInit();
    ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new CountingWriter());
    AddServices(&g_services, &g_kv);
    if (idle > 0) {
        Idle(idle, grow);
    } else {
        Soak(seconds, clients);
    }
    StopServer(&g_services);
    std::printf("soak: peak_rss_kib=%s failures=%d\n", Status("VmHWM:").c_str(), g_failures.load());
    return g_failures == 0 ? 0 : 1;
}
