#ifndef PLEXA_SRC_ZNR_ERROR_PLATFORM_H
#define PLEXA_SRC_ZNR_ERROR_PLATFORM_H

#include <cstdint>
#include <string>

// Starts whatever the platform's network layer needs; 0 or an error code.
std::uint64_t ZNRPlatformInit();

// The platform's own text for an operating-system error number, in the
// process's narrow encoding.
std::string ZNRPlatformErrorText(int err);

// The C runtime's text for an errno value, in the process's narrow encoding.
std::string ZNRCrtErrorText(int err);

// The platform's symbolic name for an operating-system error number
// ("ECONNREFUSED"); null when it has none.
char const* ZNRPlatformErrorName(int err);

// The C runtime's symbolic name for an errno value; null when it has none.
char const* ZNRCrtErrorName(int err);

// True for an operating-system error code that says the process or the
// system ran out of descriptors or buffers: worth trying again later.
bool ZNRPlatformIsShortage(std::uint64_t code);

// True for the error a non-blocking connect gives while it goes on.
bool ZNRPlatformIsInProgress(std::uint64_t code);

// Stops in an attached debugger; does nothing when none is attached.
void ZNRPlatformDebugBreak();

#endif
