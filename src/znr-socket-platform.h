#ifndef PLEXA_SRC_ZNR_SOCKET_PLATFORM_H
#define PLEXA_SRC_ZNR_SOCKET_PLATFORM_H

// The system's socket address layouts (sockaddr_in, AF_INET, htons), which
// portable code fills and copies.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
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

// Socket-level options (SO_*): 0 or the system's error.
std::uint64_t ZNRSocketSetInt(ZNRNativeHandle fd, int name, int value);
std::uint64_t ZNRSocketGetInt(ZNRNativeHandle fd, int name, long* out);
// Time-outs in milliseconds, whatever form the system keeps them in.
std::uint64_t ZNRSocketSetTime(ZNRNativeHandle fd, int name, unsigned int ms);
std::uint64_t ZNRSocketGetTime(ZNRNativeHandle fd, int name, unsigned int* ms);

#endif
