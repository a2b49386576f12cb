#ifndef PLEXA_SRC_WIN32_ZNR_WIN32_ENGINES_H
#define PLEXA_SRC_WIN32_ZNR_WIN32_ENGINES_H

#include <cstdint>

class ZNRCompletionEngine;

// The completion port; null with *error set when the system refuses one.
ZNRCompletionEngine* ZNRCreateIocpEngine(std::uint64_t* error);

#endif
