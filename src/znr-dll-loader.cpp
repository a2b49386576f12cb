#include <plexa/znr-dll-loader.h>

#include <plexa/znr-error.h>

#include "znr-dll-platform.h"

#include <cerrno>

ZNRDllLoader::ZNRDllLoader() : handle_(nullptr) {}

ZNRDllLoader::~ZNRDllLoader() { Unload(); }

std::uint64_t ZNRDllLoader::Failed(std::string const& text) {
    // The loader speaks the process's own narrow encoding.
    error_text_ = ZNRString(text.c_str(), "");
    return ZNR_ERROR_LOAD_FAILED;
}

std::uint64_t ZNRDllLoader::Load(ZNRString const& path) {
    if (handle_ != nullptr) return ZNRSysError(EBUSY);
    // The loader would take an empty name for the program itself.
    if (path.empty()) return ZNRSysError(EINVAL);
    std::string file;
    if (!path.ToUtf8Str(&file)) return Failed("path is not valid text");
    std::string text;
    handle_ = ZNRDllOpen(file, &text);
    if (handle_ == nullptr) return Failed(text);
    path_ = path;
    error_text_.clear();
    return 0;
}

std::uint64_t ZNRDllLoader::GetSymbol(char const* name, void** symbol) {
    if (name == nullptr || symbol == nullptr) return ZNRSysError(EINVAL);
    if (handle_ == nullptr) return ZNR_ERROR_NOT_READY;
    std::string text;
    if (!ZNRDllSymbol(handle_, name, symbol, &text)) return Failed(text);
    error_text_.clear();
    return 0;
}

std::uint64_t ZNRDllLoader::Unload() {
    if (handle_ == nullptr) return 0;
    void* const handle = handle_;
    // Forgotten even when the loader refuses: the handle is not usable again.
    handle_ = nullptr;
    path_.clear();
    std::string text;
    if (!ZNRDllClose(handle, &text)) return Failed(text);
    error_text_.clear();
    return 0;
}
