#ifndef PLEXA_SRC_ZNR_SOCKET_PLATFORM_H
#define PLEXA_SRC_ZNR_SOCKET_PLATFORM_H

// The system's socket address layouts (sockaddr_in, AF_INET, htons), which
// portable code fills and copies.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
typedef int ZNRSockLen;
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
typedef socklen_t ZNRSockLen;
#endif

#include <plexa/znr-native-handle.h>

#include <cstdint>

// What each ZNRSocket type is made of, and the size of its address; null
// for a value that names none of them.
struct ZNRSocketKind {
    int family;
    int type;
    int protocol;
    unsigned int addr_len;
};
ZNRSocketKind const* ZNRSocketKindOf(int type);
bool ZNRSocketIsTcp(int type);

// *err = code where err is given.
void ZNRStoreError(std::uint64_t* err, std::uint64_t code);
// A transfer's buffer it refuses (negative length, or none for bytes):
// true with *err = EINVAL.
bool ZNRSocketBadLength(unsigned char const* buf, int len, std::uint64_t* err);

// The system's codes for a bad argument and for an address family it does
// not take, as ZNRSysError values are made of.
extern int const kZNRSocketInvalid;
extern int const kZNRSocketNoFamily;
// The last socket call's error, and a resolver call's (rc: its result).
std::uint64_t ZNRSocketLastError();
std::uint64_t ZNRResolverError(int rc);

// The system calls under ZNRSocket, each restarted where a signal cut it
// short. A new socket of kind, kept from child processes.
std::uint64_t ZNRSocketMake(ZNRSocketKind const& kind, bool non_blocking, ZNRNativeHandle* fd);
// What every socket of type gets, best effort.
void ZNRSocketTune(ZNRNativeHandle fd, int type);
void ZNRSocketCloseHandle(ZNRNativeHandle fd);
// The next connection on listener, in the listener's blocking mode; its
// peer into sa (len: its room, then its size) where sa is given.
std::uint64_t ZNRSocketAcceptOne(ZNRNativeHandle listener, sockaddr* sa, ZNRSockLen* len, ZNRNativeHandle* fd);
// Bytes moved; 0: none now, on a non-blocking socket; -1: *err is set
// (the end of the stream included). sa: the sender, or the destination.
int ZNRSocketRecvOne(ZNRNativeHandle fd, unsigned char* buf, int len, sockaddr* sa, ZNRSockLen* sa_len,
                     std::uint64_t* err);
int ZNRSocketSendOne(ZNRNativeHandle fd, unsigned char const* buf, int len, sockaddr const* sa,
                     ZNRSockLen sa_len, std::uint64_t* err);
// A send without a destination: to the connected peer, else EDESTADDRREQ.
int ZNRSocketSendToPeer(ZNRNativeHandle fd, unsigned char const* buf, int len, std::uint64_t* err);
std::uint64_t ZNRSocketLocalName(ZNRNativeHandle fd, sockaddr* sa, ZNRSockLen* len);

// Socket-level options (SO_*): 0 or the system's error.
std::uint64_t ZNRSocketSetInt(ZNRNativeHandle fd, int name, int value);
std::uint64_t ZNRSocketGetInt(ZNRNativeHandle fd, int name, long* out);
// Time-outs in milliseconds, whatever form the system keeps them in.
std::uint64_t ZNRSocketSetTime(ZNRNativeHandle fd, int name, unsigned int ms);
std::uint64_t ZNRSocketGetTime(ZNRNativeHandle fd, int name, unsigned int* ms);

#endif
