#include <plexa/znr-error.h>
#include <plexa/znr-utils.h>

#include "znr-file-system.h"
#include "znr-time.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

// The text as narrow ASCII; false when it holds anything else (no number
// or date layout uses other characters).
bool ToAscii(ZNRString const& text, std::string* out) {
    out->clear();
    out->reserve(text.size());
    for (ZNRString::size_type i = 0; i < text.size(); ++i) {
        unsigned short ch = text[i];
        if (ch == 0 || ch > 0x7F) return false;
        out->push_back(static_cast<char>(ch));
    }
    return true;
}

bool IsDigit(char ch) { return ch >= '0' && ch <= '9'; }

// Splits off leading white space and one sign, as the C conversions do,
// and insists that a digit follows, so that the conversion below cannot
// accept a second sign.
char const* SkipSign(char const* p, bool* negative) {
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    *negative = false;
    if (*p == '+' || *p == '-') {
        *negative = *p == '-';
        ++p;
    }
    return IsDigit(*p) ? p : nullptr;
}

// Magnitude of a base-0 number that must make up the whole of p.
bool ParseMagnitude(char const* p, unsigned long long* value) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(p, &end, 0);
    if (errno != 0 || end == p || *end != '\0') return false;
    *value = v;
    return true;
}

bool ParseSigned32(ZNRString const& text, long long* value) {
    std::string s;
    bool negative = false;
    char const* p = nullptr;
    unsigned long long magnitude = 0;
    if (!ToAscii(text, &s) || (p = SkipSign(s.c_str(), &negative)) == nullptr ||
        !ParseMagnitude(p, &magnitude))
        return false;
    unsigned long long const limit = negative ? 0x80000000ULL : 0x7FFFFFFFULL;
    if (magnitude > limit) return false;
    *value = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    return true;
}

// Unsigned conversions negate a negative text within their own width.
bool ParseUnsigned(ZNRString const& text, unsigned long long max, unsigned long long* value) {
    std::string s;
    bool negative = false;
    char const* p = nullptr;
    unsigned long long magnitude = 0;
    if (!ToAscii(text, &s) || (p = SkipSign(s.c_str(), &negative)) == nullptr ||
        !ParseMagnitude(p, &magnitude) || magnitude > max)
        return false;
    *value = negative ? (0 - magnitude) & max : magnitude;
    return true;
}

char const* const kDateLayouts[] = {
    "YYYY-MM-DD hh:mm:ss", "MM/DD/YYYY hh:mm:ss", "YYYY-MM-DD hh:mm", "YYYYMMDDhhmmss",
    "YYYY-MM-DD",          "MM/DD/YYYY",          "YYYYMMDD",         "YYYYMMDDhhmm",
};

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
    static int const kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads text against one layout: each run of a field letter takes exactly
// that many digits, every other character must appear as it stands.
bool ParseLayout(std::string const& text, char const* layout, ZNRDate_t* date) {
    ZNRDate_t d = {0, 0, 0, 0, 0, 0};
    std::size_t t = 0;
    for (char const* l = layout; *l != '\0';) {
        int* field = nullptr;
        switch (*l) {
        case 'Y': field = &d.year; break;
        case 'M': field = &d.month; break;
        case 'D': field = &d.day; break;
        case 'h': field = &d.hour; break;
        case 'm': field = &d.minute; break;
        case 's': field = &d.second; break;
        default: break;
        }
        if (field == nullptr) {
            if (t >= text.size() || text[t] != *l) return false;
            ++t;
            ++l;
            continue;
        }
        char const letter = *l;
        int value = 0;
        for (; *l == letter; ++l, ++t) {
            if (t >= text.size() || !IsDigit(text[t])) return false;
            value = value * 10 + (text[t] - '0');
        }
        *field = value;
    }
    if (t != text.size()) return false;
    if (d.year < 1 || d.month < 1 || d.month > 12 || d.day < 1 ||
        d.day > DaysInMonth(d.year, d.month) || d.hour > 23 || d.minute > 59 || d.second > 59)
        return false;
    *date = d;
    return true;
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    std::int64_t const era = (y >= 0 ? y : y - 399) / 400;
    unsigned const yoe = static_cast<unsigned>(y - era * 400);
    unsigned const doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    unsigned const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

} // namespace

bool ZNRStrToInt32(ZNRString const& text, int* out) {
    long long value = 0;
    if (!ParseSigned32(text, &value)) return false;
    if (out != nullptr) *out = static_cast<int>(value);
    return true;
}

bool ZNRStrToUInt32(ZNRString const& text, unsigned int* out) {
    unsigned long long value = 0;
    if (!ParseUnsigned(text, 0xFFFFFFFFULL, &value)) return false;
    if (out != nullptr) *out = static_cast<unsigned int>(value);
    return true;
}

bool ZNRStrToUInt64(ZNRString const& text, std::uint64_t* out) {
    unsigned long long value = 0;
    if (!ParseUnsigned(text, ULLONG_MAX, &value)) return false;
    if (out != nullptr) *out = value;
    return true;
}

bool ZNRStrToInt16(ZNRString const& text, short* out) {
    int value = 0;
    if (!ZNRStrToInt32(text, &value) || value > 32767) return false;
    // No lower bound: smaller values are cut to 16 bits, as callers expect.
    if (out != nullptr) *out = static_cast<short>(static_cast<unsigned short>(value));
    return true;
}

bool ZNRStrToUInt16(ZNRString const& text, unsigned short* out) {
    unsigned int value = 0;
    if (!ZNRStrToUInt32(text, &value) || value > 65535) return false;
    if (out != nullptr) *out = static_cast<unsigned short>(value);
    return true;
}

bool ZNRStrToBoolean(ZNRString const& text, bool* out) {
    std::string s;
    if (!ToAscii(text, &s) || (s != "true" && s != "false")) return false;
    if (out != nullptr) *out = s == "true";
    return true;
}

bool ZNRStrptime(ZNRString const& text, ZNRString const& format, ZNRDate_t* out) {
    std::string t;
    std::string f;
    if (!ToAscii(text, &t) || !ToAscii(format, &f)) return false;
    for (char const* layout : kDateLayouts) {
        if (!f.empty() && f != layout) continue;
        ZNRDate_t date;
        if (ParseLayout(t, layout, &date)) {
            if (out != nullptr) *out = date;
            return true;
        }
        if (!f.empty()) return false;
    }
    return false;
}

bool ZNRStrptime(ZNRString const& text, ZNRString const& format, std::int64_t* out,
                 bool local_time) {
    ZNRDate_t d;
    if (!ZNRStrptime(text, format, &d)) return false;
    std::int64_t seconds = 0;
    if (local_time) {
        std::tm tm = {};
        tm.tm_year = d.year - 1900;
        tm.tm_mon = d.month - 1;
        tm.tm_mday = d.day;
        tm.tm_hour = d.hour;
        tm.tm_min = d.minute;
        tm.tm_sec = d.second;
        tm.tm_isdst = -1;
        tm.tm_wday = -1;  // mktime sets it on success, so -1 stays a valid time
        std::time_t t = std::mktime(&tm);
        if (t == static_cast<std::time_t>(-1) && tm.tm_wday == -1) return false;
        seconds = static_cast<std::int64_t>(t);
    } else {
        seconds = DaysFromCivil(d.year, static_cast<unsigned>(d.month),
                                static_cast<unsigned>(d.day)) * 86400 +
                  d.hour * 3600 + d.minute * 60 + d.second;
    }
    if (out != nullptr) *out = seconds;
    return true;
}

void ZNRGetDate(ZNRDate_t* out, std::int64_t const* time) {
    std::tm local;
    if (out == nullptr || !ZNRPlatformLocalTime(time, &local)) return;
    out->year = local.tm_year + 1900;
    out->month = local.tm_mon + 1;
    out->day = local.tm_mday;
    out->hour = local.tm_hour;
    out->minute = local.tm_min;
    out->second = local.tm_sec;
}

std::uint64_t ZNRTestFile(char const* path, ZNRTestFileMode_t mode, bool* result) {
    static int const kAccessModes[] = {0, 2, 4, 6};
    if (static_cast<unsigned int>(mode) > 3) return ZNR_ERROR_INVALID_PARAM;
    if (path == nullptr) return ZNRCrtError(EINVAL);
    int const err = ZNRPlatformFileAccess(path, kAccessModes[mode]);
    if (err != 0 && err != (mode == ZNR_TEST_FILE_EXIST ? ENOENT : EACCES)) return ZNRCrtError(err);
    if (result != nullptr) *result = err == 0;
    return 0;
}

void ZNRGetFilePathInfo(ZNRString const& path, ZNRFilePathInfo_t* out) {
    if (out == nullptr || path.empty()) return;
    ZNRString::size_type const slash = path.rfind(static_cast<unsigned short>(kZNRPathSeparator));
    ZNRString::size_type const name_begin = slash == ZNRString::npos ? 0 : slash + 1;
    ZNRString::size_type dot = path.rfind(static_cast<unsigned short>('.'));
    if (dot != ZNRString::npos && dot < name_begin) dot = ZNRString::npos;
    ZNRString::size_type const name_end = dot == ZNRString::npos ? path.size() : dot;
    out->directory = slash == ZNRString::npos ? ZNRString() : path.substr(0, slash);
    out->name = path.substr(name_begin, name_end - name_begin);
    out->extension = dot == ZNRString::npos ? ZNRString() : path.substr(dot + 1);
}
