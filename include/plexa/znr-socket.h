#ifndef PLEXA_ZNR_SOCKET_H
#define PLEXA_ZNR_SOCKET_H

#include <plexa/znr-export.h>
#include <plexa/znr-native-handle.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>

#include <map>
#include <vector>

struct sockaddr;

/// @file
/// Socket addresses, name lookups and the thin socket object under every
/// network device.

/// One socket address (IPv4 or IPv6) in binary form with its numeric texts.
/// A plain value without a lock: one thread at a time. Failures are system
/// errors (errno; resolver failures are given the nearest errno, ENXIO for
/// an unknown host or service) unless stated.
class ZNR_API ZNRNetAddrInfo {
public:
    /// The address family.
    enum Type_t { TYPE_IPV4 = 0, TYPE_IPV6 = 1 };
    /// @var ZNRNetAddrInfo::TYPE_IPV4
    /// IPv4, a 16-byte sockaddr_in.
    /// @var ZNRNetAddrInfo::TYPE_IPV6
    /// IPv6, a 28-byte sockaddr_in6.

    /// A zero-filled address of the family of type (IPv4 for any other value).
    explicit ZNRNetAddrInfo(Type_t type = TYPE_IPV4);
    /// A deep copy: the binary address and both texts.
    ZNRNetAddrInfo(ZNRNetAddrInfo const& other);
    /// A deep copy: the binary address and both texts.
    ZNRNetAddrInfo& operator=(ZNRNetAddrInfo const& other);
    virtual ~ZNRNetAddrInfo();

    /// The binary address, owned by this object; valid until it is opened
    /// again, assigned or destroyed.
    sockaddr const* GetAddr() const { return addr_; }
    /// The length of GetAddr(): 16 for IPv4, 28 for IPv6.
    unsigned int GetAddrLen() const { return addr_len_; }
    /// The address family.
    Type_t GetType() const { return type_; }
    /// The numeric host text, e.g. 192.168.0.1; empty until opened.
    ZNRString const& GetAddrStr() const { return addr_str_; }
    /// The numeric port text, e.g. 80; empty until opened.
    ZNRString const& GetPortStr() const { return port_str_; }

    /// Makes this an IPv4 address from texts; the port comes first. A bad
    /// port text (not a number up to 65535) gives the bare EINVAL value; an
    /// unparsable ip is taken as 255.255.255.255 (see StrAddrToNet).
    std::uint64_t Open(ZNRString const& port, ZNRString const& ip);
    /// Recomputes type and texts from the stored address: EINVAL without
    /// one, EAFNOSUPPORT for a family other than IPv4 and IPv6.
    std::uint64_t Open();
    /// Takes a copy of len bytes of sa (which stays the caller's) once its
    /// texts could be computed; on failure nothing changes. Errors as Open().
    std::uint64_t Open(sockaddr const* sa, unsigned int len);
    /// Same as Open(): refreshes the texts after the system wrote the
    /// binary address in place.
    std::uint64_t Reopen();

    /// inet_addr semantics: always 0; a malformed text gives 0xFFFFFFFF.
    static std::uint64_t StrAddrToNet(ZNRString const& text, unsigned int* addr);
    /// The dotted text of addr, given in network byte order.
    static std::uint64_t NetAddrToStr(unsigned int addr, ZNRString* text);
    /// The first IPv4 address (network byte order) of each interface of the
    /// machine, keyed by interface name; existing entries are overwritten.
    /// EINVAL for a null map.
    static std::uint64_t GetLocalAddrs(std::map<ZNRString, unsigned int>* out);

private:
    std::uint64_t InnerOpenAddr(sockaddr const* sa, unsigned int len);

    sockaddr* addr_;
    unsigned int addr_len_;
    Type_t type_;
    ZNRString addr_str_;
    ZNRString port_str_;
};

/// The addresses that a name lookup yields, each address listed once.
/// A plain value without a lock: one thread at a time.
class ZNR_API ZNRHostInfo {
public:
    /// No lookup yet: empty texts and list.
    ZNRHostInfo();
    /// A deep copy: texts and addresses.
    ZNRHostInfo(ZNRHostInfo const& other);
    /// A deep copy: texts and addresses.
    ZNRHostInfo& operator=(ZNRHostInfo const& other);
    virtual ~ZNRHostInfo();

    /// Looks host and service up (blocking), replacing the previous list.
    /// An empty host asks for the wildcard (passive) addresses; an empty
    /// service leaves the ports at 0. Failures are the resolver's, given
    /// the nearest errno (ENXIO: no such host or service).
    std::uint64_t Open(ZNRString const& host, ZNRString const& service, bool ipv6);

    /// The host text of the last successful Open.
    ZNRString const& GetHost() const { return host_; }
    /// The service text of the last successful Open.
    ZNRString const& GetService() const { return service_; }
    /// The addresses found, owned by this object; valid until the next
    /// Open, assignment or destruction.
    std::vector<ZNRNetAddrInfo*> const& GetAddrInfos() const { return *addr_infos_; }

private:
    void Clear();
    void CopyAddrs(ZNRHostInfo const& other);
    // Adds an address the resolver gave, unless the list has it already.
    std::uint64_t AddResolved(sockaddr const* sa, unsigned int len, bool ipv6);

    ZNRString host_;
    ZNRString service_;
    ZNRStlAdapter<std::vector<ZNRNetAddrInfo*>> addr_infos_;
};

/// A thin owner of one socket descriptor. Every socket is created
/// close-on-exec; sends never raise SIGPIPE. No lock: the owning thread
/// only. Operations returning a code give 0 or a system error (errno)
/// unless stated; library error 3 is a socket type above TYPE_UDP_V6.
class ZNR_API ZNRSocket {
public:
    /// Family and protocol of the socket.
    enum Type_t {
        TYPE_TCP_V4 = 0,  ///< TCP over IPv4
        TYPE_TCP_V6 = 1,  ///< TCP over IPv6
        TYPE_UDP_V4 = 2,  ///< UDP over IPv4
        TYPE_UDP_V6 = 3,  ///< UDP over IPv6
        TYPE_NONE = 4,    ///< never opened
    };

    /// TYPE_NONE, no descriptor.
    ZNRSocket();
    ZNRSocket(ZNRSocket const&) = delete;
    ZNRSocket& operator=(ZNRSocket const&) = delete;
    /// Closes the descriptor, if any, ignoring a failure.
    virtual ~ZNRSocket();

    /// Adopts fd. A previously held descriptor is not closed by either Open.
    virtual std::uint64_t Open(Type_t type, ZNRNativeHandle fd);
    /// Creates a blocking socket of type.
    virtual std::uint64_t Open(Type_t type);
    /// Binds to addr (not taken); EINVAL for a null address.
    virtual std::uint64_t Bind(ZNRNetAddrInfo const* addr);
    /// Starts listening.
    virtual std::uint64_t Listen(int backlog);
    /// Accepts one connection into client (whose previous descriptor is not
    /// closed), the peer into peer when given (library error 3 unless this
    /// is a TCP socket). The accepted socket keeps the listener's blocking
    /// mode. EINVAL for a null client.
    virtual std::uint64_t Accept(ZNRSocket* client, ZNRNetAddrInfo* peer);
    /// Connects to addr (not taken); a non-blocking socket gives
    /// EINPROGRESS while the connection is under way.
    virtual std::uint64_t Connect(ZNRNetAddrInfo const* addr);
    /// Transfers: the count; 0 when nothing is available (EAGAIN); -1 with
    /// the bare errno value in *err (EINVAL for a bad buffer), or library
    /// error 4 when the peer ended the stream. err may be null.
    virtual int Recv(unsigned char* buf, int len, std::uint64_t* err);
    /// Like Recv; the sender goes into from when given (library error 3
    /// for a socket never opened).
    virtual int RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from);
    /// Like Recv, in the other direction.
    virtual int Send(unsigned char const* buf, int len, std::uint64_t* err);
    /// Like Send, to to (null: the connected peer).
    virtual int SendTo(unsigned char const* buf, int len, std::uint64_t* err,
                       ZNRNetAddrInfo const* to);
    /// Shuts the receiving direction.
    virtual std::uint64_t CloseRecv();
    /// Shuts the sending direction.
    virtual std::uint64_t CloseSend();
    /// Closes the descriptor, which is forgotten even when close fails;
    /// EBADF when there is none.
    virtual std::uint64_t Close();
    /// Switches non-blocking mode.
    virtual std::uint64_t NonBlock(bool on);
    /// Switches SO_REUSEADDR.
    virtual std::uint64_t ReuseAddress(bool on);
    /// SO_SNDBUF, in bytes.
    virtual std::uint64_t GetSendBufferSize(long* size);
    /// @copydoc GetSendBufferSize
    virtual std::uint64_t SetSendBufferSize(long size);
    /// SO_RCVBUF, in bytes.
    virtual std::uint64_t GetRecvBufferSize(long* size);
    /// @copydoc GetRecvBufferSize
    virtual std::uint64_t SetRecvBufferSize(long size);
    /// SO_RCVTIMEO, in milliseconds.
    virtual std::uint64_t SetRecvTimeout(unsigned int ms);
    /// @copydoc SetRecvTimeout
    virtual std::uint64_t GetRecvTimeout(unsigned int* ms);
    /// SO_SNDTIMEO, in milliseconds.
    virtual std::uint64_t SetSendTimeout(unsigned int ms);
    /// @copydoc SetSendTimeout
    virtual std::uint64_t GetSendTimeout(unsigned int* ms);
    /// *err = the pending socket error with 0x40000001 in the high word.
    virtual std::uint64_t GetError(std::uint64_t* err);
    /// The bound address into addr; library error 3 for a socket never
    /// opened, EINVAL for a null addr.
    virtual std::uint64_t GetLocalInfo(ZNRNetAddrInfo* addr);

    /// The type given to Open.
    Type_t GetType() const { return type_; }
    /// The descriptor, still owned by the socket; -1 when none.
    ZNRNativeHandle GetFd() const { return fd_; }

protected:
    /// A new close-on-exec socket of type, non-blocking from the start when
    /// asked (one system call either way).
    std::uint64_t Create(Type_t type, bool non_blocking);

private:
    Type_t type_;
    ZNRNativeHandle fd_;
};

#endif
