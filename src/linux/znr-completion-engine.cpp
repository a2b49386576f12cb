#include <plexa/znr-error.h>

#include "znr-completion-engine.h"
#include "znr-linux-engines.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

// io_uring where the kernel allows it; containers often forbid it
// (seccomp, kernel.io_uring_disabled), and then epoll serves silently.
ZNRCompletionEngine* ZNRCompletionEngine::Create(char const* name, std::uint64_t* error,
                                                 std::string* choice) {
    char const* source = "the host";
    if (name == nullptr || *name == '\0') {
        name = std::getenv("PLEXA_ENGINE");
        source = "PLEXA_ENGINE";
    }
    std::uint64_t rc = 0;
    ZNRCompletionEngine* engine = nullptr;
    std::string why;
    if (name == nullptr || *name == '\0') {
        engine = ZNRCreateUringEngine(&rc);
        why = "the best the system offers";
        if (engine == nullptr) {
            why = "io_uring is unavailable, error=\"" + ZNRGetErrorText(rc) + "\"";
            rc = 0;
            engine = ZNRCreateEpollEngine(&rc);
        }
    } else {
        if (std::strcmp(name, "io_uring") == 0) {
            engine = ZNRCreateUringEngine(&rc);
            why = name;
        } else if (std::strcmp(name, "epoll") == 0) {
            engine = ZNRCreateEpollEngine(&rc);
            why = name;
        } else {
            rc = ZNRSysError(EINVAL);
            why = std::string("unknown engine \"") + name + "\"";
        }
        why = engine != nullptr ? std::string("chosen by ") + source : why + " chosen by " + source;
    }
    if (error != nullptr) *error = rc;
    if (choice != nullptr) *choice = why;
    return engine;
}
