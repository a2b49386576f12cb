#ifndef PLEXA_SRC_ZNR_WAKEUP_H
#define PLEXA_SRC_ZNR_WAKEUP_H

#include <plexa/znr-native-handle.h>

#include <cstdint>

// A counter descriptor that becomes readable while non-zero: reading takes
// (and clears) the count, adding never blocks.
std::uint64_t ZNRWakeupOpen(ZNRNativeHandle* fd);
std::uint64_t ZNRWakeupAdd(ZNRNativeHandle fd, std::uint64_t count);

#endif
