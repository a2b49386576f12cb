#ifndef PLEXA_SRC_ZNR_WAKEUP_H
#define PLEXA_SRC_ZNR_WAKEUP_H

#include <plexa/znr-native-handle.h>

#include <cstdint>

// A channel that becomes readable at its read end once something was added
// at its write end; adding never blocks. The read end is read through the
// reactor's engine; the write end is the caller's, closed with ZNRFdClose.
std::uint64_t ZNRWakeupOpen(ZNRNativeHandle* read_end, ZNRNativeHandle* write_end);
std::uint64_t ZNRWakeupAdd(ZNRNativeHandle write_end, std::uint64_t count);

#endif
