#include <plexa/znr-utils.h>

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

void ZNRGetDate(ZNRDate_t* out, std::int64_t const* time) {
    if (out == nullptr) return;
    __time64_t const t = time != nullptr ? static_cast<__time64_t>(*time) : _time64(nullptr);
    tm local;
    if (_localtime64_s(&local, &t) != 0) return;
    out->year = local.tm_year + 1900;
    out->month = local.tm_mon + 1;
    out->day = local.tm_mday;
    out->hour = local.tm_hour;
    out->minute = local.tm_min;
    out->second = local.tm_sec;
}
