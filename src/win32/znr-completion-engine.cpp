#include <plexa/znr-error.h>

#include "znr-completion-engine.h"
#include "znr-win32-engines.h"

#include <cstdlib>
#include <cstring>
#include <windows.h>

// Windows has one engine, the completion port; naming it is allowed so that
// hosts and PLEXA_ENGINE can say so on every platform.
ZNRCompletionEngine* ZNRCompletionEngine::Create(char const* name, std::uint64_t* error,
                                                 std::string* choice) {
    char const* source = "the host";
    if (name == nullptr || *name == '\0') {
        name = std::getenv("PLEXA_ENGINE");
        source = "PLEXA_ENGINE";
    }
    bool const automatic = name == nullptr || *name == '\0';
    std::uint64_t rc = 0;
    ZNRCompletionEngine* engine = nullptr;
    std::string why = automatic ? "the best the system offers" : std::string("chosen by ") + source;
    if (automatic || std::strcmp(name, "iocp") == 0) {
        engine = ZNRCreateIocpEngine(&rc);
        if (engine == nullptr && !automatic) why = std::string("iocp chosen by ") + source;
    } else {
        rc = ZNRSysError(ERROR_INVALID_PARAMETER);
        why = std::string("unknown engine \"") + name + "\" chosen by " + source;
    }
    if (error != nullptr) *error = rc;
    if (choice != nullptr) *choice = why;
    return engine;
}
