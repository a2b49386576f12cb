#ifndef PLEXA_ZNR_SOCKET_H
#define PLEXA_ZNR_SOCKET_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>

#include <map>
#include <vector>

struct sockaddr;

// One socket address (IPv4 or IPv6) in binary form with its numeric texts.
class ZNR_API ZNRNetAddrInfo {
public:
    enum Type_t { TYPE_IPV4 = 0, TYPE_IPV6 = 1 };

    // A zero-filled address of the family of type (IPv4 for any other value).
    explicit ZNRNetAddrInfo(Type_t type = TYPE_IPV4);
    ZNRNetAddrInfo(ZNRNetAddrInfo const& other);
    ZNRNetAddrInfo& operator=(ZNRNetAddrInfo const& other);
    virtual ~ZNRNetAddrInfo();

    sockaddr const* GetAddr() const { return addr_; }
    unsigned int GetAddrLen() const { return addr_len_; }
    Type_t GetType() const { return type_; }
    ZNRString const& GetAddrStr() const { return addr_str_; }
    ZNRString const& GetPortStr() const { return port_str_; }

    // Makes this an IPv4 address from texts; the port comes first. A bad
    // port text (not a number up to 65535) gives the bare EINVAL value; an
    // unparsable ip is taken as 255.255.255.255 (see StrAddrToNet).
    std::uint64_t Open(ZNRString const& port, ZNRString const& ip);
    // Recomputes type and texts from the stored address.
    std::uint64_t Open();
    // Takes a copy of len bytes of sa once its texts could be computed.
    std::uint64_t Open(sockaddr const* sa, unsigned int len);
    std::uint64_t Reopen();

    // inet_addr semantics: always 0; a malformed text gives 0xFFFFFFFF.
    static std::uint64_t StrAddrToNet(ZNRString const& text, unsigned int* addr);
    // addr in network byte order.
    static std::uint64_t NetAddrToStr(unsigned int addr, ZNRString* text);
    // The first IPv4 address (network byte order) of each interface of the
    // machine, keyed by interface name; existing entries are overwritten.
    static std::uint64_t GetLocalAddrs(std::map<ZNRString, unsigned int>* out);

private:
    std::uint64_t InnerOpenAddr(sockaddr const* sa, unsigned int len);

    sockaddr* addr_;
    unsigned int addr_len_;
    Type_t type_;
    ZNRString addr_str_;
    ZNRString port_str_;
};

// The addresses that a name lookup yields, each address listed once.
class ZNR_API ZNRHostInfo {
public:
    ZNRHostInfo();
    ZNRHostInfo(ZNRHostInfo const& other);
    ZNRHostInfo& operator=(ZNRHostInfo const& other);
    virtual ~ZNRHostInfo();

    // An empty host asks for the wildcard (passive) addresses; an empty
    // service leaves the ports at 0.
    std::uint64_t Open(ZNRString const& host, ZNRString const& service, bool ipv6);

    ZNRString const& GetHost() const { return host_; }
    ZNRString const& GetService() const { return service_; }
    std::vector<ZNRNetAddrInfo*> const& GetAddrInfos() const { return *addr_infos_; }

private:
    void Clear();
    void CopyAddrs(ZNRHostInfo const& other);

    ZNRString host_;
    ZNRString service_;
    ZNRStlAdapter<std::vector<ZNRNetAddrInfo*>> addr_infos_;
};

// A thin owner of one socket descriptor. Every socket is created
// close-on-exec; sends never raise SIGPIPE.
class ZNR_API ZNRSocket {
public:
    enum Type_t {
        TYPE_TCP_V4 = 0,
        TYPE_TCP_V6 = 1,
        TYPE_UDP_V4 = 2,
        TYPE_UDP_V6 = 3,
        TYPE_NONE = 4,
    };

    ZNRSocket();
    ZNRSocket(ZNRSocket const&) = delete;
    ZNRSocket& operator=(ZNRSocket const&) = delete;
    virtual ~ZNRSocket();

    // Adopts fd. A previously held descriptor is not closed by either Open.
    virtual std::uint64_t Open(Type_t type, int fd);
    virtual std::uint64_t Open(Type_t type);
    virtual std::uint64_t Bind(ZNRNetAddrInfo const* addr);
    virtual std::uint64_t Listen(int backlog);
    // The accepted socket keeps the listener's blocking mode.
    virtual std::uint64_t Accept(ZNRSocket* client, ZNRNetAddrInfo* peer);
    virtual std::uint64_t Connect(ZNRNetAddrInfo const* addr);
    // Transfers: the count; 0 when nothing is available (EAGAIN); -1 with
    // the bare errno value in *err, or library error 4 when the peer ended
    // the stream. err may be null.
    virtual int Recv(unsigned char* buf, int len, std::uint64_t* err);
    virtual int RecvFrom(unsigned char* buf, int len, std::uint64_t* err, ZNRNetAddrInfo* from);
    virtual int Send(unsigned char const* buf, int len, std::uint64_t* err);
    virtual int SendTo(unsigned char const* buf, int len, std::uint64_t* err,
                       ZNRNetAddrInfo const* to);
    virtual std::uint64_t CloseRecv();
    virtual std::uint64_t CloseSend();
    virtual std::uint64_t Close();
    virtual std::uint64_t NonBlock(bool on);
    virtual std::uint64_t ReuseAddress(bool on);
    virtual std::uint64_t GetSendBufferSize(long* size);
    virtual std::uint64_t SetSendBufferSize(long size);
    virtual std::uint64_t GetRecvBufferSize(long* size);
    virtual std::uint64_t SetRecvBufferSize(long size);
    virtual std::uint64_t SetRecvTimeout(unsigned int ms);
    virtual std::uint64_t GetRecvTimeout(unsigned int* ms);
    virtual std::uint64_t SetSendTimeout(unsigned int ms);
    virtual std::uint64_t GetSendTimeout(unsigned int* ms);
    // *err = the pending socket error with 0x40000001 in the high word.
    virtual std::uint64_t GetError(std::uint64_t* err);
    virtual std::uint64_t GetLocalInfo(ZNRNetAddrInfo* addr);

    Type_t GetType() const { return type_; }
    int GetFd() const { return fd_; }

protected:
    // A new close-on-exec socket of type, non-blocking from the start when
    // asked (one system call either way).
    std::uint64_t Create(Type_t type, bool non_blocking);

private:
    Type_t type_;
    int fd_;
};

#endif
