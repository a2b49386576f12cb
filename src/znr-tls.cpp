#include "znr-exit-hooks.h"

#include <algorithm>
#include <memory>
#include <new>

ZNRThreadExitHook::~ZNRThreadExitHook() {}

bool ZNRThreadExitHook::Expired() { return false; }

void ZNRThreadExitHook::Destroy() { delete this; }

bool ZNRExitHooksAdd(ZNRExitHooks* hooks, ZNRThreadExitHook* hook) {
    hooks->erase(std::remove_if(hooks->begin(), hooks->end(),
                                [](ZNRThreadExitHook* old) {
                                    if (!old->Expired()) return false;
                                    old->Destroy();
                                    return true;
                                }),
                 hooks->end());
    try {
        hooks->push_back(hook);
    } catch (std::bad_alloc const&) {
        return false;
    }
    return true;
}

void ZNRExitHooksRun(ZNRExitHooks* hooks) {
    std::unique_ptr<ZNRExitHooks> owned(hooks);
    for (ZNRThreadExitHook* hook : *owned) {
        hook->OnThreadExit();
        hook->Destroy();
    }
}
