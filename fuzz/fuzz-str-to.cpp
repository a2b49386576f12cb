// The ZNRStrTo* parsers against a reference built on the C library's
// strtoull (for ASCII text), and ZNRStrptime: a date it accepts is a valid
// one, and the seconds form gives the same date back in UTC.
//
// Input: layout choice (0-7 the known layouts, 8 empty, else the input's
// first line is the layout), then the text, UTF-8 or else 16-bit units.
#include "fuzz-common.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

namespace {

char const* const kLayouts[] = {"YYYY-MM-DD hh:mm:ss", "MM/DD/YYYY hh:mm:ss", "YYYY-MM-DD hh:mm",
                                "YYYYMMDDhhmmss",      "YYYY-MM-DD",          "MM/DD/YYYY",
                                "YYYYMMDD",            "YYYYMMDDhhmm",        ""};

// Sign and magnitude as 32-bit-long C conversions read them; false when
// the text is not exactly one number or the magnitude overflows.
bool Reference(std::string const& s, bool* negative, unsigned long long* magnitude) {
    std::size_t k = 0;
    while (k < s.size() && std::strchr(" \t\n\v\f\r", s[k]) != nullptr && s[k] != '\0') ++k;
    *negative = false;
    if (k < s.size() && (s[k] == '+' || s[k] == '-')) *negative = s[k++] == '-';
    if (k >= s.size() || s[k] < '0' || s[k] > '9') return false;
    char const* begin = s.c_str() + k;
    char* end = nullptr;
    errno = 0;
    *magnitude = std::strtoull(begin, &end, 0);
    return errno == 0 && end == s.c_str() + s.size();
}

bool IsAscii(ZNRString const& t) {
    for (unsigned short unit : static_cast<ZNRStdWString const&>(t))
        if (unit == 0 || unit > 0x7F) return false;
    return true;
}

void CheckNumbers(ZNRString const& t) {
    int i32 = 77;
    unsigned int u32 = 77;
    std::uint64_t u64 = 77;
    short i16 = 77;
    unsigned short u16 = 77;
    bool boolean = true;
    bool const ok32 = ZNRStrToInt32(t, &i32), oku32 = ZNRStrToUInt32(t, &u32);
    bool const ok64 = ZNRStrToUInt64(t, &u64), ok16 = ZNRStrToInt16(t, &i16);
    bool const oku16 = ZNRStrToUInt16(t, &u16), okb = ZNRStrToBoolean(t, &boolean);
    if (!ok32) FUZZ_CHECK(i32 == 77);
    if (!oku32) FUZZ_CHECK(u32 == 77);
    if (!ok64) FUZZ_CHECK(u64 == 77);
    if (!ok16) FUZZ_CHECK(i16 == 77);
    if (!oku16) FUZZ_CHECK(u16 == 77);
    if (!okb) FUZZ_CHECK(boolean);
    std::string const s = t.ToStdCStr();
    FUZZ_CHECK(okb == (s == "true" || s == "false") || !IsAscii(t));
    if (!IsAscii(t)) return;

    bool negative = false;
    unsigned long long m = 0;
    bool const ref = Reference(s, &negative, &m);
    bool const ref32 = ref && m <= (negative ? 0x80000000ull : 0x7FFFFFFFull);
    FUZZ_CHECK(ok32 == ref32);
    if (ok32) FUZZ_CHECK(i32 == static_cast<int>(negative ? 0u - m : m));
    bool const refu32 = ref && m <= 0xFFFFFFFFull;
    FUZZ_CHECK(oku32 == refu32);
    if (oku32) FUZZ_CHECK(u32 == static_cast<unsigned int>(negative ? 0u - m : m));
    FUZZ_CHECK(ok64 == ref);
    if (ok64) FUZZ_CHECK(u64 == (negative ? 0ull - m : m));
    FUZZ_CHECK(ok16 == (ref32 && i32 <= 32767));
    if (ok16) FUZZ_CHECK(i16 == static_cast<short>(i32));
    FUZZ_CHECK(oku16 == (refu32 && u32 <= 65535));
    if (oku16) FUZZ_CHECK(u16 == u32);
}

int DaysIn(int year, int month) {
    static int const days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

void CheckDate(ZNRString const& text, ZNRString const& layout) {
    ZNRDate_t d = {-1, -1, -1, -1, -1, -1};
    bool const ok = ZNRStrptime(text, layout, &d);
    std::int64_t seconds = -77;
    FUZZ_CHECK(ZNRStrptime(text, layout, &seconds, false) == ok);
    std::int64_t local = -77;
    FUZZ_CHECK(ZNRStrptime(text, layout, &local, true) == ok);
    if (!ok) {
        FUZZ_CHECK(d.year == -1 && d.second == -1 && seconds == -77 && local == -77);
        return;
    }
    FUZZ_CHECK(d.year >= 1 && d.year <= 9999 && d.month >= 1 && d.month <= 12);
    FUZZ_CHECK(d.day >= 1 && d.day <= DaysIn(d.year, d.month));
    FUZZ_CHECK(d.hour >= 0 && d.hour <= 23 && d.minute >= 0 && d.minute <= 59 &&
               d.second >= 0 && d.second <= 59);
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm tm = {};
    FUZZ_CHECK(gmtime_r(&t, &tm) != nullptr);
    FUZZ_CHECK(tm.tm_year + 1900 == d.year && tm.tm_mon + 1 == d.month && tm.tm_mday == d.day &&
               tm.tm_hour == d.hour && tm.tm_min == d.minute && tm.tm_sec == d.second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 1) return 0;
    std::string text(reinterpret_cast<char const*>(data + 1), size - 1);
    std::string layout;
    if (data[0] <= 8) {
        layout = kLayouts[data[0]];
    } else {
        std::size_t const line = text.find('\n');
        layout = text.substr(0, line);
        text = line == std::string::npos ? "" : text.substr(line + 1);
    }
    ZNRString t;
    if (!t.NewFromUtf8Str(text)) {
        ZNRStdWString units(text.size() / 2, 0);
        if (!units.empty()) std::memcpy(&units[0], text.data(), units.size() * 2);
        t = ZNRString(units);
    }
    CheckNumbers(t);
    CheckDate(t, ZNRString(layout.c_str()));
    return 0;
}
