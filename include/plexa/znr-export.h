#ifndef PLEXA_ZNR_EXPORT_H
#define PLEXA_ZNR_EXPORT_H

/// @file
/// The export marker and the library's version.

/// @def ZNR_API
/// Everything the library exports carries ZNR_API; all else stays hidden.
#if defined(_WIN32)
#  if defined(PLEXA_BUILDING)
#    define ZNR_API __declspec(dllexport)
#  else
#    define ZNR_API __declspec(dllimport)
#  endif
#else
#  define ZNR_API __attribute__((visibility("default")))
#endif

#include <cstdint>

/// Version of the library the program runs against, "major.minor.patch".
/// Any thread; a static text, never freed.
extern "C" ZNR_API char const* ZNRGetVersion();

#endif
