#ifndef PLEXA_SRC_ZNR_TIME_H
#define PLEXA_SRC_ZNR_TIME_H

#include <cstdint>
#include <ctime>

// The local time of *time (seconds since 1970), or of now when time is
// null; false when the system cannot tell it.
bool ZNRPlatformLocalTime(std::int64_t const* time, std::tm* out);

#endif
