#ifndef PLEXA_ZNR_TLS_H
#define PLEXA_ZNR_TLS_H

#include <plexa/znr-export.h>

// One pointer-sized slot per thread. A stored null is a value, not an error.
class ZNR_API ZNRTLS {
public:
    ZNRTLS();
    virtual ~ZNRTLS();
    ZNRTLS(ZNRTLS const&) = delete;
    ZNRTLS& operator=(ZNRTLS const&) = delete;

    std::uint64_t Open();
    std::uint64_t Set(void* value);
    std::uint64_t Get(void** out);

private:
    std::uint32_t key_;
    bool opened_;
};

// Work left for the end of the thread that adds it (ZNRAtThreadExit): when
// that thread ends, its hooks run on it in the order added, each followed
// by Destroy(); hooks added meanwhile run too. A thread that ends the
// process (returning from main, exit) runs none.
class ZNR_API ZNRThreadExitHook {
public:
    ZNRThreadExitHook() = default;
    ZNRThreadExitHook(ZNRThreadExitHook const&) = delete;
    ZNRThreadExitHook& operator=(ZNRThreadExitHook const&) = delete;

    virtual void OnThreadExit() = 0;
    // True once nothing is left to do at the end: such a hook is destroyed
    // early, the next time its thread adds one, so that long-lived threads
    // do not collect them. Runs on the hook's thread.
    virtual bool Expired();
    virtual void Destroy();

protected:
    virtual ~ZNRThreadExitHook();
};

// Hands hook over to the calling thread's end; on error it stays the
// caller's.
ZNR_API std::uint64_t ZNRAtThreadExit(ZNRThreadExitHook* hook);

#endif
