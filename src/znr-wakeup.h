#ifndef PLEXA_SRC_ZNR_WAKEUP_H
#define PLEXA_SRC_ZNR_WAKEUP_H

#include <cstdint>

// A counter descriptor that becomes readable while non-zero: reading takes
// (and clears) the count, adding never blocks.
std::uint64_t ZNRWakeupOpen(int* fd);
std::uint64_t ZNRWakeupAdd(int fd, std::uint64_t count);

#endif
