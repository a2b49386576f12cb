#ifndef PLEXA_SRC_ZNR_COMPLETION_ENGINE_H
#define PLEXA_SRC_ZNR_COMPLETION_ENGINE_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRAsyncIO;
class ZNRAsyncIOCB;

// One finished operation, as a reactor's wait hands it out.
struct ZNRCompletion {
    std::uint32_t key;
    int bytes;
    ZNRAsyncIOCB* iocb;
    bool failed;
    std::uint64_t error;
};

// Turns operations started on control blocks into completions delivered
// one at a time through Wait, the way a completion port does. A reactor
// owns one and drives it from its loop thread; the control blocks of the
// descriptors it watches call back into it from that same thread.
class ZNR_API ZNRCompletionEngine {
public:
    // The platform's engine; null with *error set when it cannot be made.
    static ZNRCompletionEngine* Create(std::uint64_t* error);

    ZNRCompletionEngine() = default;
    ZNRCompletionEngine(ZNRCompletionEngine const&) = delete;
    ZNRCompletionEngine& operator=(ZNRCompletionEngine const&) = delete;
    virtual ~ZNRCompletionEngine() = default;

    // Watches fd for both directions under key; io's control blocks run
    // their operations through this engine until they are detached. An
    // operation already finished is queued now, one still pending runs
    // when fd is ready.
    virtual std::uint64_t Associate(int fd, std::uint32_t key, ZNRAsyncIO* io) = 0;
    // One completion in *out: 0. Nothing within timeout_ms (negative:
    // without limit): library error 17. Else the system's error.
    virtual std::uint64_t Wait(int timeout_ms, ZNRCompletion* out) = 0;

    // For the control blocks bound to this engine.
    virtual void Start(ZNRAsyncIOCB* cb) = 0;
    virtual void Enqueue(ZNRAsyncIOCB* cb) = 0;
    virtual void Dequeue(ZNRAsyncIOCB* cb) = 0;
    // The connection accepted on a listening descriptor takes its place.
    virtual std::uint64_t Rebind(ZNRAsyncIOCB* cb, int fd) = 0;
    virtual void Dissociate(ZNRAsyncIOCB* cb) = 0;
};

#endif
