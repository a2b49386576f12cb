#ifndef PLEXA_ZNR_TCP_ACCEPTOR_H
#define PLEXA_ZNR_TCP_ACCEPTOR_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

class ZNRDeviceHandler;
class ZNRNetAddrInfo;
class ZNRString;

/// @file
/// A TCP acceptor that spreads connections over several reactors.

/// Accepts TCP connections on the first of a set of the manager's reactors
/// and hands each, round-robin, to one of them, which registers it from its
/// own thread (devices belong to the thread of their reactor) with a
/// handler from OnCreateHandler. It must outlive those reactors: remove
/// them (RemoveAll) before destroying it.
class ZNR_API ZNRTcpAcceptor {
public:
    /// What every accepted connection is registered with (sizes as
    /// ZNRReactor::RegisterDevice, timeout in ms).
    ZNRTcpAcceptor(int recv_buff_max_size, int recv_buff_grow_size, int send_buff_max_size,
                   unsigned int timeout = 0xFFFFFFFF);
    ZNRTcpAcceptor(ZNRTcpAcceptor const&) = delete;
    ZNRTcpAcceptor& operator=(ZNRTcpAcceptor const&) = delete;
    /// Stops nothing: the reactors must be gone first.
    virtual ~ZNRTcpAcceptor();

    /// Listens on ip:port and queues the listener on reactors[0]; clients
    /// may connect once it returns. Once per acceptor, from any thread.
    /// ip is an IPv4 address or a host name, resolved to its first IPv4
    /// address ("localhost" works); port 0 picks a free port. *bound, when
    /// given (the caller's), gets the address listened on.
    /// Errors: library error 56 (logged with the text) for an ip that is
    /// empty or does not resolve; EINVAL for a port text that is no number
    /// up to 65535, no reactors, or a second Start; the socket's error when
    /// it can not bind or listen; the manager's when reactors[0] is gone.
    std::uint64_t Start(ZNRString const& ip, ZNRString const& port,
                        std::vector<std::uint64_t> const& reactors, ZNRNetAddrInfo* bound);

protected:
    /// The handler of a new connection, on the thread of the reactor that
    /// takes it; the reactor owns it once registered (destroyed at once if
    /// the registration fails).
    virtual ZNRDeviceHandler* OnCreateHandler(std::uint64_t reactor) = 0;
    /// The listener could not be registered or could not start accepting;
    /// on the first reactor's thread. Logged by default as "Can not start
    /// accepting tcp connections, error=\"%s\"".
    virtual void OnListenFailed(std::uint64_t error);

private:
    friend class ZNRTcpAcceptorListenTask;
    friend class ZNRTcpAcceptorHandler;
    friend class ZNRTcpAcceptorAdoptTask;

    std::uint64_t NextReactor();

    int recv_buff_max_size_;
    int recv_buff_grow_size_;
    int send_buff_max_size_;
    unsigned int timeout_;
    ZNRStlAdapter<std::vector<std::uint64_t>> reactors_;
    std::atomic<unsigned int> next_;
};

/// An acceptor whose connections get the handlers that a callable makes,
/// for hosts that need no subclass of their own.
class ZNR_API ZNRTcpFactoryAcceptor : public ZNRTcpAcceptor {
public:
    /// Makes one connection's handler (the reactor's from then on), or null
    /// to close the connection; runs on the thread of the reactor that takes
    /// the connection, whose id it gets.
    typedef std::function<ZNRDeviceHandler*(std::uint64_t reactor)> HandlerFactory;

    /// Takes factory; the sizes and timeout are ZNRTcpAcceptor's. Any thread.
    ZNRTcpFactoryAcceptor(HandlerFactory factory, int recv_buff_max_size, int recv_buff_grow_size,
                          int send_buff_max_size, unsigned int timeout = 0xFFFFFFFF);
    /// As ZNRTcpAcceptor's: after the reactors it serves are gone.
    ~ZNRTcpFactoryAcceptor() override;

protected:
    /// The factory's handler; on the thread of the reactor taking the connection.
    ZNRDeviceHandler* OnCreateHandler(std::uint64_t reactor) override;

private:
    HandlerFactory factory_;
};

#endif
