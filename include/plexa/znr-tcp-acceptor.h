#ifndef PLEXA_ZNR_TCP_ACCEPTOR_H
#define PLEXA_ZNR_TCP_ACCEPTOR_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <atomic>
#include <cstdint>
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

    /// Listens on the IPv4 ip:port (port 0 picks a free one; *bound, when
    /// given, gets the address) and queues the listener on reactors[0],
    /// ids of the process-wide manager. Clients may connect once it
    /// returns. Once, from any thread. EINVAL for an empty list, a second
    /// call or a bad port text; the listener's system error; the
    /// manager's error when the task cannot be queued (library error 30
    /// for an unknown reactor).
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

#endif
