#ifndef PLEXA_ZNR_ERROR_H
#define PLEXA_ZNR_ERROR_H

#include <plexa/znr-export.h>

#include <string>

class ZNRString;

// Error codes: bits 63-62 kind (0 errno, 1 operating system, 2 library,
// 3 foreign), bits 61-32 domain (always 1 here), bits 31-0 the number.
enum : std::uint64_t {
    ZNR_ERROR_NONE = 0,
    ZNR_ERROR_KIND_CRT = 0x0000000100000000ULL,
    ZNR_ERROR_KIND_SYS = 0x4000000100000000ULL,
    ZNR_ERROR_KIND_USER = 0x8000000100000000ULL,
    ZNR_ERROR_FAILED_ID = 0xFFFFFFFFFFFFFFFFULL,
};

// errno value with domain 1, as the file helpers report it.
constexpr std::uint64_t ZNRCrtError(int err) {
    return ZNR_ERROR_KIND_CRT | static_cast<std::uint32_t>(err);
}
// Operating-system error: on Linux an errno value.
constexpr std::uint64_t ZNRSysError(int err) {
    return ZNR_ERROR_KIND_SYS | static_cast<std::uint32_t>(err);
}
// The library's own error numbers.
constexpr std::uint64_t ZNRUserError(std::uint32_t num) {
    return ZNR_ERROR_KIND_USER | num;
}
constexpr unsigned int ZNRErrorKind(std::uint64_t code) {
    return static_cast<unsigned int>(code >> 62);
}
constexpr std::uint32_t ZNRErrorDomain(std::uint64_t code) {
    return static_cast<std::uint32_t>((code >> 32) & 0x3FFFFFFFu);
}
constexpr std::uint32_t ZNRErrorNumber(std::uint64_t code) {
    return static_cast<std::uint32_t>(code);
}

// Starts what the network layer needs. Nothing on Linux: returns 0.
ZNR_API std::uint64_t ZNRInit();

// Replaces *out with the text of code ("No error" for 0; unchanged for kind 3).
ZNR_API void ZNRGetErrorMsg(std::uint64_t const& code, ZNRString* out);

// The same text in the narrow "chs" encoding, for log lines.
ZNR_API std::string ZNRGetErrorText(std::uint64_t code);

// Writes "Assert failed, ..." to standard error, breaks into an attached
// debugger and aborts when condition is false.
ZNR_API void ZNRAssert(bool condition, char const* condition_text, char const* file,
                       int line, char const* function);
// Writes the same line and returns.
ZNR_API void ZNRLogAssert(char const* condition_text, char const* file, int line,
                          char const* function);
ZNR_API void ZNRBreak();
ZNR_API void ZNRBackTrace();

#define ZNR_ASSERT(cond) ZNRAssert(static_cast<bool>(cond), #cond, __FILE__, __LINE__, __func__)

#endif
