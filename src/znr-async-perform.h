#ifndef PLEXA_SRC_ZNR_ASYNC_PERFORM_H
#define PLEXA_SRC_ZNR_ASYNC_PERFORM_H

#include <plexa/znr-native-handle.h>

#include <cstdint>

class ZNRAsyncIOCB;
class ZNRAsyncSocket;
class ZNRNetAddrInfo;

// The platform side of a control block: the one system call that carries
// out its request, without blocking.
enum ZNRPerformResult {
    ZNR_PERFORM_AGAIN,    // not ready: nothing was transferred
    ZNR_PERFORM_DONE,     // finished; the descriptor may have more
    ZNR_PERFORM_DRAINED,  // finished and nothing more is ready now
};

// known_ready: the descriptor was just reported ready for cb's side, so
// that a connect need not be probed before its result is read.
ZNRPerformResult ZNRAsyncPerform(ZNRAsyncIOCB* cb, bool known_ready);

// Starts connecting socket to addr: its write side then completes as a
// connect with the outcome. A refusal the system gives at once is returned.
std::uint64_t ZNRAsyncConnect(ZNRAsyncSocket* socket, ZNRNetAddrInfo const* addr);

// Finishes an accept that gave fd: the connection takes the listening
// descriptor's place or fills the control block's socket. peer_known: the
// accept itself wrote the peer's address into cb->addr.
void ZNRAsyncAdopt(ZNRAsyncIOCB* cb, ZNRNativeHandle fd, bool peer_known);

// Waits up to timeout_ms (negative: without limit) until cb's descriptor
// is ready for its side. True when ready; false on time-out.
bool ZNRAsyncWaitReady(ZNRAsyncIOCB const* cb, int timeout_ms);

#endif
