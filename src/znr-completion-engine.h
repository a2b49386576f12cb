#ifndef PLEXA_SRC_ZNR_COMPLETION_ENGINE_H
#define PLEXA_SRC_ZNR_COMPLETION_ENGINE_H

#include <plexa/znr-async-io.h>
#include <plexa/znr-export.h>

#include <cstdint>

class ZNRCompletionEngine;

// One finished operation, as a reactor's wait hands it out. An operation
// cancelled before it finished is failed with the system error ECANCELED.
struct ZNRCompletion {
    std::uint32_t key;
    int bytes;
    ZNRAsyncIOCB* iocb;
    bool failed;
    std::uint64_t error;
};

// An engine's record of one watched descriptor; each engine derives its
// own from it. Control blocks hold it opaquely and reach their engine
// through it.
struct ZNRCompletionBinding {
    ZNRCompletionEngine* engine = nullptr;

    static ZNRCompletionBinding* Of(ZNRAsyncIOCB const* cb) { return cb->binding_; }
    static void Bind(ZNRAsyncIOCB* cb, ZNRCompletionBinding* binding) { cb->binding_ = binding; }
};

// Turns operations started on control blocks into completions handed out
// in batches through Wait, the way a completion port or io_uring does. An
// operation holds its buffer from its start until its completion has been
// handed out; stopping one is itself an operation that completes. A
// reactor owns one engine and drives it from its loop thread; the control
// blocks of the descriptors it watches call into it from that same thread.
class ZNR_API ZNRCompletionEngine {
public:
    // The platform's engine; null with *error set when it cannot be made.
    static ZNRCompletionEngine* Create(std::uint64_t* error);

    ZNRCompletionEngine() = default;
    ZNRCompletionEngine(ZNRCompletionEngine const&) = delete;
    ZNRCompletionEngine& operator=(ZNRCompletionEngine const&) = delete;
    virtual ~ZNRCompletionEngine() = default;

    // Watches handle under key; io's control blocks run their operations
    // through this engine until they are dissociated. An operation started
    // before completes through it too.
    virtual std::uint64_t Associate(ZNRNativeHandle handle, std::uint32_t key, ZNRAsyncIO* io) = 0;
    // Up to max completions, in the order they finished, into out, their
    // number in *count: 0. Nothing within timeout_ms (negative: without
    // limit; 0: only what is there): library error 17. Else the system's
    // error.
    virtual std::uint64_t Wait(int timeout_ms, ZNRCompletion* out, int max, int* count) = 0;
    // Aborts what is under way on io's descriptor: every pending operation
    // completes, failed with ECANCELED. Gives how many completions for io
    // later waits will still hand out (aborted ones and ones that had
    // finished before); their buffers stay the engine's until then.
    virtual int Cancel(ZNRAsyncIO* io) = 0;

    // For the control blocks bound to this engine.
    virtual void Start(ZNRAsyncIOCB* cb) = 0;
    // The owner is done with a finished operation: a completion of it not
    // handed out yet is dropped.
    virtual void Release(ZNRAsyncIOCB* cb) = 0;
    // The connection accepted on a listening descriptor takes its place.
    virtual std::uint64_t Rebind(ZNRAsyncIOCB* cb, ZNRNativeHandle handle) = 0;
    virtual void Dissociate(ZNRAsyncIOCB* cb) = 0;
};

#endif
