#ifndef PLEXA_SRC_ZNR_LOCAL_SOCKET_H
#define PLEXA_SRC_ZNR_LOCAL_SOCKET_H

#include <plexa/znr-native-handle.h>

#include <cstdint>
#include <string>

// Local stream sockets named like pipes (UTF-8 names). Descriptors are
// non-blocking and close-on-exec.

// A new listening instance of name, with buffers of in_size and out_size
// bytes where the system takes sizes; each one is given back with
// ZNRLocalRelease before its descriptor is closed.
std::uint64_t ZNRLocalListen(std::string const& name, unsigned int in_size, unsigned int out_size,
                             ZNRNativeHandle* fd);
void ZNRLocalRelease(std::string const& name, ZNRNativeHandle fd);
// Connects to name, waiting up to wait_ms (0xFFFFFFFF: without limit)
// while no server instance is free for it. Windows waits only for a pipe
// that exists: a name nobody serves fails at once.
std::uint64_t ZNRLocalConnect(std::string const& name, unsigned int wait_ms, ZNRNativeHandle* fd);
// The error a listening instance's caller is told of when a client is
// connected to it before its accept begins (the accept then completes at
// once all the same); 0 otherwise, and always where nobody is told.
std::uint64_t ZNRLocalConnectedFirst(ZNRNativeHandle fd);

#endif
