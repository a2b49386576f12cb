#ifndef PLEXA_SRC_ZNR_DLL_PLATFORM_H
#define PLEXA_SRC_ZNR_DLL_PLATFORM_H

#include <string>

// The platform's dynamic loader. A failure gives null (false) and the
// loader's text in *error_text.
void* ZNRDllOpen(std::string const& path, std::string* error_text);
// *symbol may be null on success: a symbol can have that value.
bool ZNRDllSymbol(void* handle, char const* name, void** symbol, std::string* error_text);
bool ZNRDllClose(void* handle, std::string* error_text);

#endif
