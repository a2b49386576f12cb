#include <plexa/znr-async-device.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-reactor-mgr.h>
#include <plexa/znr-socket.h>
#include <plexa/znr-tcp-acceptor.h>

#include <cerrno>
#include <utility>

namespace {

std::uint64_t const kNoId = ZNR_ERROR_FAILED_ID;

ZNRReactorMgr* Mgr() { return ZNRSingleton<ZNRReactorMgr>::Instance(); }

// The listener is IPv4, so names resolve to IPv4 only. Resolving rather
// than parsing keeps a text that is neither a name nor an address from
// becoming 255.255.255.255.
std::uint64_t ResolveListenAddr(ZNRString const& ip, ZNRString const& port, ZNRNetAddrInfo* out) {
    std::uint64_t error = out->Open(port, ip);
    if (error != 0) return ZNRSysError(static_cast<int>(error));  // a bad port text
    ZNRHostInfo host;
    // An empty text would ask the resolver for the wildcard address.
    error = ip.empty() ? ZNR_ERROR_UNRESOLVED_HOST : host.Open(ip, ZNRString(), false);
    if (error == 0 && host.GetAddrInfos().empty()) error = ZNRSysError(ENXIO);
    if (error != 0) {
        ZNR_LOG(ERROR, "Can not resolve tcp listen address, address=\"%s\" error=\"%s\"",
                ip.ToStdCStr().c_str(), ZNRGetErrorText(error).c_str());
        return ZNR_ERROR_UNRESOLVED_HOST;
    }
    return out->Open(port, host.GetAddrInfos()[0]->GetAddrStr());
}

} // namespace

// Registers an accepted connection on the thread of its reactor.
class ZNRTcpAcceptorAdoptTask : public ZNRReactorTask {
public:
    ZNRTcpAcceptorAdoptTask(ZNRTcpAcceptor* acceptor, std::uint64_t reactor, ZNRDevice* client)
        : acceptor_(acceptor), reactor_(reactor), client_(client) {}

    bool Run() override {
        ZNRDeviceHandler* const handler = acceptor_->OnCreateHandler(reactor_);
        if (handler == nullptr) return false;  // refused: Destroy closes the connection
        std::uint64_t error = 0;
        if (Mgr()->RegisterDevice(reactor_, client_, handler, &error, acceptor_->recv_buff_max_size_,
                                  acceptor_->recv_buff_grow_size_, acceptor_->send_buff_max_size_,
                                  acceptor_->timeout_) == kNoId) {
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
    ZNRTcpAcceptor* acceptor_;
    std::uint64_t reactor_;
    ZNRDevice* client_;
};

// The listener's handler: told of each new connection with OnData(null, null).
class ZNRTcpAcceptorHandler : public ZNRDeviceHandler {
public:
    explicit ZNRTcpAcceptorHandler(ZNRTcpAcceptor* acceptor) : acceptor_(acceptor) {}

    bool OnData(ZNRByteBuffer const*, int*) override {
        auto* const client = new ZNRAsyncTcpDevice();
        if (!static_cast<ZNRAsyncTcpDevice*>(GetDevice())->Accept(client)) {
            client->Destroy();
            return true;  // keep listening
        }
        std::uint64_t const reactor = acceptor_->NextReactor();
        auto* const task = new ZNRTcpAcceptorAdoptTask(acceptor_, reactor, client);
        if (Mgr()->RegisterTask(reactor, task) != 0) task->Destroy();
        return true;
    }

private:
    ZNRTcpAcceptor* acceptor_;
};

// Registers the listener on the first reactor's thread, then accepts.
class ZNRTcpAcceptorListenTask : public ZNRReactorTask {
public:
    ZNRTcpAcceptorListenTask(ZNRTcpAcceptor* acceptor, ZNRAsyncTcpDevice* listener)
        : acceptor_(acceptor), listener_(listener) {}

    bool Run() override {
        auto* const handler = new ZNRTcpAcceptorHandler(acceptor_);
        std::uint64_t error = 0;
        int const grow = acceptor_->recv_buff_grow_size_;
        if (Mgr()->RegisterDevice((*acceptor_->reactors_)[0], listener_, handler, &error, grow, grow,
                                  grow, 0xFFFFFFFFu) == kNoId) {
            handler->Destroy();
            acceptor_->OnListenFailed(error);
            return false;
        }
        ZNRAsyncTcpDevice* const listener = listener_;
        listener_ = nullptr;  // the reactor's now
        if (!listener->BeginAccept()) acceptor_->OnListenFailed(listener->GetError());
        return false;
    }
    void Cancel() override {}
    void Destroy() override {
        if (listener_ != nullptr) listener_->Destroy();
        delete this;
    }

private:
    ZNRTcpAcceptor* acceptor_;
    ZNRAsyncTcpDevice* listener_;
};

ZNRTcpAcceptor::ZNRTcpAcceptor(int recv_buff_max_size, int recv_buff_grow_size,
                               int send_buff_max_size, unsigned int timeout)
    : recv_buff_max_size_(recv_buff_max_size), recv_buff_grow_size_(recv_buff_grow_size),
      send_buff_max_size_(send_buff_max_size), timeout_(timeout), next_(0) {}

ZNRTcpAcceptor::~ZNRTcpAcceptor() = default;

std::uint64_t ZNRTcpAcceptor::NextReactor() {
    return (*reactors_)[next_.fetch_add(1, std::memory_order_relaxed) % reactors_->size()];
}

std::uint64_t ZNRTcpAcceptor::Start(ZNRString const& ip, ZNRString const& port,
                                    std::vector<std::uint64_t> const& reactors,
                                    ZNRNetAddrInfo* bound) {
    if (reactors.empty() || !reactors_->empty()) return ZNRSysError(EINVAL);
    ZNRNetAddrInfo local(ZNRNetAddrInfo::TYPE_IPV4);
    std::uint64_t error = ResolveListenAddr(ip, port, &local);
    if (error != 0) return error;
    ZNRTcpDeviceParam param;
    param.local_addr = &local;
    param.backlog = 128;  // room for a burst of connections
    auto* const listener = new ZNRAsyncTcpDevice();
    if (!listener->Open(&param)) {
        error = listener->GetError();
        listener->Destroy();
        return error;
    }
    ZNRNetAddrInfo const* const address = listener->GetBindAddr(&error);
    if (address == nullptr) {
        listener->Destroy();
        return error;
    }
    if (bound != nullptr) *bound = *address;
    *reactors_ = reactors;
    auto* const task = new ZNRTcpAcceptorListenTask(this, listener);
    error = Mgr()->RegisterTask(reactors[0], task);
    if (error != 0) {
        task->Destroy();
        reactors_->clear();
    }
    return error;
}

void ZNRTcpAcceptor::OnListenFailed(std::uint64_t error) {
    ZNR_LOG(ERROR, "Can not start accepting tcp connections, error=\"%s\"",
            ZNRGetErrorText(error).c_str());
}

ZNRTcpFactoryAcceptor::ZNRTcpFactoryAcceptor(HandlerFactory factory, int recv_buff_max_size,
                                             int recv_buff_grow_size, int send_buff_max_size,
                                             unsigned int timeout)
    : ZNRTcpAcceptor(recv_buff_max_size, recv_buff_grow_size, send_buff_max_size, timeout),
      factory_(std::move(factory)) {}

ZNRTcpFactoryAcceptor::~ZNRTcpFactoryAcceptor() = default;

ZNRDeviceHandler* ZNRTcpFactoryAcceptor::OnCreateHandler(std::uint64_t reactor) {
    return factory_(reactor);
}
