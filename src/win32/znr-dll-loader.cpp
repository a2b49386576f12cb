#include "znr-dll-platform.h"
#include "znr-error-platform.h"
#include "znr-win32-wide.h"

#include <windows.h>

namespace {

// The system's text for error, on one line as dlerror gives it, naming what
// failed.
std::string ErrorText(DWORD error, std::string const& what) {
    std::string text = ZNRPlatformErrorText(static_cast<int>(error));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return what + ": " + text;
}

}  // namespace

// path is UTF-8. LoadLibrary takes only backslashes as separators.
void* ZNRDllOpen(std::string const& path, std::string* error_text) {
    std::wstring wide;
    if (!ZNRWin32Widen(path, CP_UTF8, &wide)) {
        *error_text = path + ": not valid UTF-8";
        return nullptr;
    }
    for (wchar_t& c : wide)
        if (c == L'/') c = L'\\';
    // No "cannot find" message box for a missing dependency or media.
    DWORD old_mode = 0;
    SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_mode);
    HMODULE const module = LoadLibraryW(wide.c_str());
    if (module == nullptr) *error_text = ErrorText(GetLastError(), path);
    SetThreadErrorMode(old_mode, nullptr);
    return module;
}

// Exports cannot be null, so a null result always means a missing symbol.
bool ZNRDllSymbol(void* handle, char const* name, void** symbol, std::string* error_text) {
    FARPROC const proc = GetProcAddress(static_cast<HMODULE>(handle), name);
    if (proc == nullptr) {
        DWORD const error = GetLastError();
        *error_text = ErrorText(error, name);
        return false;
    }
    *symbol = reinterpret_cast<void*>(proc);
    return true;
}

bool ZNRDllClose(void* handle, std::string* error_text) {
    if (FreeLibrary(static_cast<HMODULE>(handle))) return true;
    DWORD const error = GetLastError();
    *error_text = ErrorText(error, "FreeLibrary");
    return false;
}
