#include <plexa/znr-utils.h>

#include "../znr-time.h"

#include <ctime>

#include <windows.h>

std::uint64_t ZNRGetSysTick() {
    FILETIME now;
    GetSystemTimePreciseAsFileTime(&now);
    // FILETIME counts 100 ns intervals since 1601-01-01 UTC.
    ULARGE_INTEGER ticks;
    ticks.LowPart = now.dwLowDateTime;
    ticks.HighPart = now.dwHighDateTime;
    return ticks.QuadPart / 10000ULL;
}

void ZNRSleep(int ms) {
    if (ms <= 0) return;
    Sleep(static_cast<DWORD>(ms));
}

bool ZNRPlatformLocalTime(std::int64_t const* time, tm* out) {
    __time64_t const t = time != nullptr ? static_cast<__time64_t>(*time) : _time64(nullptr);
    return _localtime64_s(out, &t) == 0;
}
