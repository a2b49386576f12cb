#ifndef PLEXA_ZNR_DLL_LOADER_H
#define PLEXA_ZNR_DLL_LOADER_H

#include <plexa/znr-export.h>
#include <plexa/znr-string.h>

#include <cstdint>

/// One shared library loaded by path. A failure of the system's loader is
/// library error 52, with the loader's own text kept in GetErrorText();
/// calls that need a loaded library give library error 11 without one.
/// One object belongs to one thread at a time.
class ZNR_API ZNRDllLoader {
public:
    /// Nothing loaded.
    ZNRDllLoader();
    /// Unloads the library.
    ~ZNRDllLoader();
    ZNRDllLoader(ZNRDllLoader const&) = delete;
    ZNRDllLoader& operator=(ZNRDllLoader const&) = delete;

    /// Loads path with every symbol resolved now, kept out of the global
    /// namespace. A second Load without Unload gives EBUSY; an empty path
    /// EINVAL (system errors); a path that is not valid text or a loader
    /// failure library error 52.
    std::uint64_t Load(ZNRString const& path);
    /// The address of symbol name in *symbol (which may be null for a
    /// symbol whose value is null). EINVAL for a null name or symbol;
    /// library error 11 when nothing is loaded, 52 when the symbol is missing.
    std::uint64_t GetSymbol(char const* name, void** symbol);
    /// Drops the library (it leaves the process once nothing else holds
    /// it); 0 when none is loaded. Symbols taken from it are dead after.
    /// Library error 52 when the loader refuses; the object is unloaded anyway.
    std::uint64_t Unload();

    /// True between a successful Load() and Unload().
    bool IsLoaded() const { return handle_ != nullptr; }
    /// The loaded path; empty when nothing is loaded.
    ZNRString const& GetPath() const { return path_; }
    /// The loader's text of the last failure; empty after a success.
    ZNRString const& GetErrorText() const { return error_text_; }

private:
    std::uint64_t Failed(std::string const& text);

    void* handle_;
    ZNRString path_;
    ZNRString error_text_;
};

#endif
