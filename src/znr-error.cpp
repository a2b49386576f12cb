#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-error-platform.h"

#include <cstdio>
#include <cstdlib>

namespace {

struct ErrorEntry {
    std::uint32_t number;
    char const* name;
    char const* meaning;
};

#define ZNR_ERROR_ENTRY(number, name, meaning) {number, "ZNR_ERROR_" #name, meaning},
constexpr ErrorEntry kErrors[] = {ZNR_ERROR_LIST(ZNR_ERROR_ENTRY)};
#undef ZNR_ERROR_ENTRY

char const kUnknownName[] = "unknown";

ErrorEntry const* FindError(std::uint32_t number) {
    for (ErrorEntry const& entry : kErrors)
        if (entry.number == number) return &entry;
    return nullptr;
}

// Only codes the library builds (domain 1) carry its numbers.
bool IsLibraryCode(std::uint64_t code) {
    return ZNRErrorKind(code) == 2 && ZNRErrorDomain(code) == 1;
}

class ZNRErrorCategoryImpl : public std::error_category {
public:
    char const* name() const noexcept override { return "plexa"; }
    std::string message(int number) const override {
        ErrorEntry const* entry = number < 0 ? nullptr : FindError(static_cast<std::uint32_t>(number));
        return entry != nullptr ? entry->meaning : "unknown error";
    }
};

} // namespace

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

char const* ZNRGetErrorName(std::uint64_t code) {
    if (code == ZNR_ERROR_NONE) return "ZNR_ERROR_NONE";
    char const* name = nullptr;
    int const number = static_cast<int>(ZNRErrorNumber(code));
    switch (ZNRErrorKind(code)) {
    case 0:
        name = ZNRCrtErrorName(number);
        break;
    case 1:
        name = ZNRPlatformErrorName(number);
        break;
    case 2:
        if (ErrorEntry const* entry = IsLibraryCode(code) ? FindError(ZNRErrorNumber(code)) : nullptr)
            name = entry->name;
        break;
    default:
        break;
    }
    return name != nullptr ? name : kUnknownName;
}

std::error_category const& ZNRErrorCategory() {
    static ZNRErrorCategoryImpl const category;
    return category;
}

