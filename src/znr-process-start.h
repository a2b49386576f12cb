#ifndef PLEXA_SRC_ZNR_PROCESS_START_H
#define PLEXA_SRC_ZNR_PROCESS_START_H

#include <plexa/znr-native-handle.h>

#include <cstdint>
#include <string>
#include <vector>

class ZNRProcessParam;

// What every platform's start shares.

// The program followed by its arguments, in UTF-8; false when one of them
// is not valid text.
bool ZNRProcessArgv(ZNRProcessParam const& param, std::vector<std::string>* argv);
// The child's "NAME=value" entries: parent's (unless the parameter says
// otherwise) with the parameter's own replacing those of the same name.
bool ZNRProcessEnv(ZNRProcessParam const& param, std::vector<std::string> const& parent,
                   std::vector<std::string>* env);
// Hands each output descriptor that has a handler to the parameter's
// reactor as an unknown device and sets it to -1. Fails with the
// manager's error (the handlers then stay the caller's), after which a
// descriptor may already be closed (-1).
std::uint64_t ZNRProcessAttachOutput(ZNRProcessParam const& param, ZNRNativeHandle* out_fd,
                                     ZNRNativeHandle* err_fd);

#endif
