#ifndef PLEXA_SRC_ZNR_FILE_SYSTEM_H
#define PLEXA_SRC_ZNR_FILE_SYSTEM_H

// The platform's file names as the utilities and the logger see them.

// '/' or '\\'.
extern char const kZNRPathSeparator;

// Tests path as the C runtime's access does: mode 0 exists, 2 writable,
// 4 readable, 6 both. Returns 0 or the errno value of the failure.
int ZNRPlatformFileAccess(char const* path, int mode);

#endif
