#ifndef PLEXA_SRC_LINUX_ZNR_LINUX_ENGINES_H
#define PLEXA_SRC_LINUX_ZNR_LINUX_ENGINES_H

#include <cstdint>

class ZNRCompletionEngine;

// Linux's two engines; null with *error set when the system refuses one.
ZNRCompletionEngine* ZNRCreateEpollEngine(std::uint64_t* error);
ZNRCompletionEngine* ZNRCreateUringEngine(std::uint64_t* error);

#endif
