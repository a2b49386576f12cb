#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-error-platform.h"

#include <cstdio>
#include <cstdlib>

extern "C" char const* ZNRGetVersion() { return PLEXA_VERSION_STRING; }

std::uint64_t ZNRInit() { return ZNRPlatformInit(); }

void ZNRGetErrorMsg(std::uint64_t const& code, ZNRString* out) {
    if (out == nullptr) return;
    if (code == ZNR_ERROR_NONE) {
        *out = ZNRString("No error");
        return;
    }
    int const number = static_cast<int>(ZNRErrorNumber(code));
    switch (ZNRErrorKind(code)) {
    case 0:
        *out = ZNRString(ZNRCrtErrorText(number).c_str(), "chs");
        break;
    case 1:
        // The system's text is in the process's own narrow encoding.
        *out = ZNRString(ZNRPlatformErrorText(number).c_str(), "");
        break;
    case 2:
        out->NewFromTempl("A user error was occured, domain=%u errnum=%u",
                          static_cast<unsigned int>(ZNRErrorDomain(code)),
                          static_cast<unsigned int>(ZNRErrorNumber(code)));
        break;
    default:
        // Codes of foreign origin carry no text of ours.
        break;
    }
}

void ZNRLogAssert(char const* condition_text, char const* file, int line,
                  char const* function) {
    std::fprintf(stderr, "Assert failed, %s(%d):%s @ %s\n", file ? file : "", line,
                 function ? function : "", condition_text ? condition_text : "");
    std::fflush(stderr);
}

void ZNRAssert(bool condition, char const* condition_text, char const* file, int line,
               char const* function) {
    if (condition) return;
    ZNRLogAssert(condition_text, file, line, function);
    ZNRBreak();
}

void ZNRBreak() {
    ZNRPlatformDebugBreak();
    std::abort();
}

void ZNRBackTrace() { ZNRPlatformDebugBreak(); }

std::string ZNRGetErrorText(std::uint64_t code) {
    ZNRString text;
    ZNRGetErrorMsg(code, &text);
    return text.ToStdCStr();
}
