#ifndef PLEXA_SRC_ZNR_RANDOM_H
#define PLEXA_SRC_ZNR_RANDOM_H

#include <cstddef>
#include <cstdint>

// Fills buffer with size bytes from the system's cryptographic random
// source. Returns 0 or an operating-system error code.
std::uint64_t ZNRRandomBytes(void* buffer, std::size_t size);

#endif
