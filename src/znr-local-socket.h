#ifndef PLEXA_SRC_ZNR_LOCAL_SOCKET_H
#define PLEXA_SRC_ZNR_LOCAL_SOCKET_H

#include <plexa/znr-native-handle.h>

#include <cstdint>
#include <string>

// Local stream sockets named like pipes (UTF-8 names). Descriptors are
// non-blocking and close-on-exec.

// A new listening instance of name (shared with the other instances of
// the process); each one is given back with ZNRLocalRelease.
std::uint64_t ZNRLocalListen(std::string const& name, ZNRNativeHandle* fd);
void ZNRLocalRelease(std::string const& name);
// Connects to name, waiting up to wait_ms (0xFFFFFFFF: without limit)
// while no server listens there.
std::uint64_t ZNRLocalConnect(std::string const& name, unsigned int wait_ms, ZNRNativeHandle* fd);

#endif
