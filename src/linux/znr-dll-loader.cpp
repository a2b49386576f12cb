#include "znr-dll-platform.h"

#include <dlfcn.h>

namespace {

// dlerror's text is per thread and read once; a null one still marks a failure.
std::string TakeError() {
    char const* const text = ::dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

}  // namespace

void* ZNRDllOpen(std::string const& path, std::string* error_text) {
    void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) *error_text = TakeError();
    return handle;
}

bool ZNRDllSymbol(void* handle, char const* name, void** symbol, std::string* error_text) {
    ::dlerror();
    *symbol = ::dlsym(handle, name);
    // Null is a valid value: only dlerror tells a missing symbol apart.
    char const* const text = ::dlerror();
    if (text == nullptr) return true;
    *error_text = text;
    return false;
}

bool ZNRDllClose(void* handle, std::string* error_text) {
    if (::dlclose(handle) == 0) return true;
    *error_text = TakeError();
    return false;
}
