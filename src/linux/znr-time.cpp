#include <plexa/znr-utils.h>

#include "../znr-time.h"

#include <cerrno>
#include <ctime>

namespace {
// Milliseconds between 1601-01-01 and 1970-01-01.
std::uint64_t const kEpochOffsetMs = 11644473600000ULL;
} // namespace

std::uint64_t ZNRGetSysTick() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000ULL +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000000ULL + kEpochOffsetMs;
}

void ZNRSleep(int ms) {
    if (ms <= 0) return;
    timespec left;
    left.tv_sec = ms / 1000;
    left.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

bool ZNRPlatformLocalTime(std::int64_t const* time, tm* out) {
    time_t const t = time != nullptr ? static_cast<time_t>(*time) : ::time(nullptr);
    return localtime_r(&t, out) != nullptr;
}
