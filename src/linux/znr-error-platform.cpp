#include <plexa/znr-error.h>

#include "znr-error-platform.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

// strerror_r comes in two flavours depending on the feature macros.
[[maybe_unused]] char const* PickText(char const* gnu_result, char const*) { return gnu_result; }
[[maybe_unused]] char const* PickText(int xsi_result, char const* buffer) {
    return xsi_result == 0 ? buffer : "";
}

bool DebuggerAttached() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 10, "TracerPid:") != 0) continue;
        char const* p = line.c_str() + 10;
        while (*p == ' ' || *p == '\t') ++p;
        return *p != '\0' && *p != '0';
    }
    return false;
}

} // namespace

std::uint64_t ZNRPlatformInit() { return 0; }

std::string ZNRPlatformErrorText(int err) { return ZNRCrtErrorText(err); }

std::string ZNRCrtErrorText(int err) {
    char buffer[256];
    buffer[0] = '\0';
    return PickText(strerror_r(err, buffer, sizeof(buffer)), buffer);
}

char const* ZNRPlatformErrorName(int err) { return ZNRCrtErrorName(err); }

char const* ZNRCrtErrorName(int err) { return strerrorname_np(err); }

bool ZNRPlatformIsInProgress(std::uint64_t code) { return code == ZNRSysError(EINPROGRESS); }

bool ZNRPlatformIsShortage(std::uint64_t code) {
    if ((code >> 32) != 0x40000001u) return false;
    int const err = static_cast<int>(code & 0xFFFFFFFFu);
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

void ZNRPlatformDebugBreak() {
    if (DebuggerAttached()) std::raise(SIGTRAP);
}
