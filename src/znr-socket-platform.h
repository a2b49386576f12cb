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

#endif
