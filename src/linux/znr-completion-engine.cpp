#include <plexa/znr-error.h>

#include "znr-completion-engine.h"
#include "znr-linux-engines.h"

#include <cerrno>

ZNREngineMaker const kZNREngines[] = {
    {"io_uring", ZNRCreateUringEngine},
    {"epoll", ZNRCreateEpollEngine},
};
int const kZNREngineCount = sizeof(kZNREngines) / sizeof(kZNREngines[0]);
std::uint64_t const kZNRNoSuchEngine = ZNRSysError(EINVAL);
