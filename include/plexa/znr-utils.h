#ifndef PLEXA_ZNR_UTILS_H
#define PLEXA_ZNR_UTILS_H

#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

#include <vector>

/** @file
 *  Time, text-to-number and file-system helpers. They keep no state: every
 *  function is safe from any thread. */
/// A broken-down date and time: year (four digits), month 1-12, day 1-31,
/// hour 0-23, minute 0-59, second 0-59.
struct ZNRDate_t {
    /// Four digits.
    int year;
    /// 1-12.
    int month;
    /// 1-31.
    int day;
    /// 0-23.
    int hour;
    /// 0-59.
    int minute;
    /// 0-59.
    int second;
};

/// The parts of a path: directory (without the last "/"), name (without
/// extension) and extension (without the dot).
struct ZNRFilePathInfo_t {
    /// Everything before the last "/" (empty without one).
    ZNRString directory;
    /// Between the last "/" and the last "." after it.
    ZNRString name;
    /// After that dot; empty without one, or when the dot ends the path.
    ZNRString extension;
};

/// What ZNRTestFile() checks. A fixed underlying type, so that callers may
/// pass any number (above 3 is an error, not undefined behaviour).
enum ZNRTestFileMode_t : int {
    /// Exists.
    ZNR_TEST_FILE_EXIST = 0,
    /// May be written.
    ZNR_TEST_FILE_WRITABLE = 1,
    /// May be read.
    ZNR_TEST_FILE_READABLE = 2,
    /// May be read and written.
    ZNR_TEST_FILE_READ_WRITE = 3,
};

/// UTC wall-clock milliseconds since 1601-01-01; follows changes of the
/// system clock (not monotonic).
ZNR_API std::uint64_t ZNRGetSysTick();
/// Sleeps the calling thread ms milliseconds (none for 0 or less).
ZNR_API void ZNRSleep(int ms);
/// Local date and time of *time (seconds since 1970), or of now when time is
/// null.
ZNR_API void ZNRGetDate(ZNRDate_t* out, std::int64_t const* time);

/// Parses text laid out as format, which is one of
///   "YYYY-MM-DD hh:mm:ss", "MM/DD/YYYY hh:mm:ss", "YYYY-MM-DD hh:mm",
///   "YYYYMMDDhhmmss", "YYYY-MM-DD", "MM/DD/YYYY", "YYYYMMDD", "YYYYMMDDhhmm"
/// or empty, in which case the first of these layouts that fits is used.
/// Every field has exactly the width of its letters; missing time fields are
/// 0. True only for a valid date of a known layout; *out is left untouched
/// otherwise.
ZNR_API bool ZNRStrptime(ZNRString const& text, ZNRString const& format, ZNRDate_t* out);
/// The same, giving seconds since 1970-01-01 UTC. local_time tells how the
/// text is read: true as local time, false as UTC.
ZNR_API bool ZNRStrptime(ZNRString const& text, ZNRString const& format, std::int64_t* out,
                         bool local_time);

/// Text-to-number conversions in base 0 (0x... hexadecimal, 0... octal,
/// otherwise decimal), with leading white space and a sign allowed. True
/// and the value stored only when the whole text is one number within range;
/// otherwise false and *out untouched. An empty text is not a number.
/// As with 32-bit C conversions, a negative text given to an unsigned
/// conversion wraps ("-1" is 0xFFFFFFFF for ZNRStrToUInt32).
ZNR_API bool ZNRStrToInt32(ZNRString const& text, int* out);
/// As ZNRStrToInt32, for an unsigned 32-bit value.
ZNR_API bool ZNRStrToUInt32(ZNRString const& text, unsigned int* out);
/// As ZNRStrToInt32, for an unsigned 64-bit value.
ZNR_API bool ZNRStrToUInt64(ZNRString const& text, std::uint64_t* out);
/// ZNRStrToInt32 with an upper bound of 32767 only: a value below -32768 is
/// stored cut to 16 bits.
ZNR_API bool ZNRStrToInt16(ZNRString const& text, short* out);
/// ZNRStrToUInt32 with an upper bound of 65535.
ZNR_API bool ZNRStrToUInt16(ZNRString const& text, unsigned short* out);
/// Exactly "true" or "false" (case matters); anything else is false with
/// *out untouched.
ZNR_API bool ZNRStrToBoolean(ZNRString const& text, bool* out);

/// *result tells whether path exists (mode 0) or grants the access asked
/// for. A missing file (mode 0) or a denied access (modes 1-3) is a result,
/// not an error; other failures return the errno code, a mode above 3
/// library error 1.
ZNR_API std::uint64_t ZNRTestFile(char const* path, ZNRTestFileMode_t mode, bool* result);
/// 0 for a directory, library error 18 for anything else that exists, an
/// operating-system code when path cannot be examined.
ZNR_API std::uint64_t ZNRIsDirFile(ZNRString const& path);
/// Splits path at its last "/" and at the last "." after it. An empty path
/// leaves *out unchanged; otherwise all three fields are set.
ZNR_API void ZNRGetFilePathInfo(ZNRString const& path, ZNRFilePathInfo_t* out);
/// Creates path; with recursive also every missing parent. An existing
/// directory is success. Errors are errno codes.
ZNR_API std::uint64_t ZNRMakeDir(ZNRString const& path, bool recursive);
/// Appends to *out the full paths ("dir/name") of the files in dir, in name
/// order, descending into subdirectories in place when recursive is true.
/// Symbolic links to directories are not followed. Returns 0 or an
/// operating-system code.
ZNR_API std::uint64_t ZNRGetDirFiles(ZNRString const& dir, std::vector<ZNRString>* out,
                                     bool recursive);

#endif
