#ifndef PLEXA_ZNR_TLS_H
#define PLEXA_ZNR_TLS_H

#include <plexa/znr-export.h>

/** @file
 *  Thread-local slots and work left for a thread's end. */
/// One pointer-sized slot per thread. A stored null is a value, not an error.
/// Open once, before sharing; then Set and Get are safe from any thread,
/// each touching only its caller's value. Values are never freed by the slot.
class ZNR_API ZNRTLS {
public:
    /// Not open yet.
    ZNRTLS();
    /// Frees the system slot if open; values still stored are not released.
    virtual ~ZNRTLS();
    ZNRTLS(ZNRTLS const&) = delete;
    ZNRTLS& operator=(ZNRTLS const&) = delete;

    /// Allocates the system slot (every thread's value null). Returns 0, or
    /// the system error (EAGAIN when the process has no slot left).
    std::uint64_t Open();
    /// Stores value for the calling thread; the slot does not own it.
    /// EINVAL before Open(); ENOMEM from the system.
    std::uint64_t Set(void* value);
    /// The calling thread's value into *out (null if it never Set one).
    /// EINVAL before Open(), *out untouched.
    std::uint64_t Get(void** out);

private:
    std::uint32_t key_;
    bool opened_;
};

/// Work left for the end of the thread that adds it (ZNRAtThreadExit): when
/// that thread ends, its hooks run on it in the order added, each followed
/// by Destroy(); hooks added meanwhile run too. A thread that ends the
/// process (returning from main, exit) runs none.
class ZNR_API ZNRThreadExitHook {
public:
    ZNRThreadExitHook() = default;
    ZNRThreadExitHook(ZNRThreadExitHook const&) = delete;
    ZNRThreadExitHook& operator=(ZNRThreadExitHook const&) = delete;

    /// The work, on the ending thread; Destroy() follows at once.
    virtual void OnThreadExit() = 0;
    /// True once nothing is left to do at the end: such a hook is destroyed
    /// early, the next time its thread adds one, so that long-lived threads
    /// do not collect them. Runs on the hook's thread. The base says false.
    virtual bool Expired();
    /// Ends the hook; the base deletes it. Called once, on the hook's thread.
    virtual void Destroy();

protected:
    /// Hooks end through Destroy().
    virtual ~ZNRThreadExitHook();
};

/// Hands hook over to the calling thread's end; on error it stays the
/// caller's. Returns 0, or a system error: ENOMEM, or the error of the
/// system's thread-key calls (EAGAIN when the process has none left).
/// Also destroys, on this thread, earlier hooks that say Expired().
ZNR_API std::uint64_t ZNRAtThreadExit(ZNRThreadExitHook* hook);

#endif
