#include <plexa/znr-utils.h>

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

void ZNRGetDate(ZNRDate_t* out, std::int64_t const* time) {
    if (out == nullptr) return;
    time_t const t = time != nullptr ? static_cast<time_t>(*time) : ::time(nullptr);
    tm local;
    if (localtime_r(&t, &local) == nullptr) return;
    out->year = local.tm_year + 1900;
    out->month = local.tm_mon + 1;
    out->day = local.tm_mday;
    out->hour = local.tm_hour;
    out->minute = local.tm_min;
    out->second = local.tm_sec;
}
