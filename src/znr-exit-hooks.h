#ifndef PLEXA_SRC_ZNR_EXIT_HOOKS_H
#define PLEXA_SRC_ZNR_EXIT_HOOKS_H

#include <plexa/znr-tls.h>

#include <vector>

// A thread's exit hooks, kept by the platform in a slot of the thread's own.
typedef std::vector<ZNRThreadExitHook*> ZNRExitHooks;

// Adds hook, dropping (and destroying) the expired ones; false when out of
// memory, the list then as it was less the expired hooks.
bool ZNRExitHooksAdd(ZNRExitHooks* hooks, ZNRThreadExitHook* hook);
// Runs the hooks in the order they were added and deletes the list. The
// platform has taken it off its slot first: hooks that these hooks add
// start a new list, run in a later round.
void ZNRExitHooksRun(ZNRExitHooks* hooks);

#endif
