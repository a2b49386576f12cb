#include <plexa/znr-error.h>

#include "znr-completion-engine.h"
#include "znr-win32-engines.h"

#include <windows.h>

// One engine, the completion port; naming it is allowed so that hosts and
// PLEXA_ENGINE can say so on every platform.
ZNREngineMaker const kZNREngines[] = {
    {"iocp", ZNRCreateIocpEngine},
};
int const kZNREngineCount = sizeof(kZNREngines) / sizeof(kZNREngines[0]);
std::uint64_t const kZNRNoSuchEngine = ZNRSysError(ERROR_INVALID_PARAMETER);
