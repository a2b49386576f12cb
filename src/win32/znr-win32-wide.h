#ifndef PLEXA_SRC_WIN32_ZNR_WIN32_WIDE_H
#define PLEXA_SRC_WIN32_ZNR_WIN32_WIDE_H

#include <string>

#include <windows.h>

// Narrow text in code_page as the wide form Win32 calls take; false, with
// *out empty, when the text is not valid in that code page.
inline bool ZNRWin32Widen(std::string const& text, UINT code_page, std::wstring* out) {
    out->clear();
    if (text.empty()) return true;
    int const n = MultiByteToWideChar(code_page, MB_ERR_INVALID_CHARS, text.data(),
                                      static_cast<int>(text.size()), nullptr, 0);
    if (n <= 0) return false;
    out->resize(static_cast<std::size_t>(n));
    MultiByteToWideChar(code_page, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                        &(*out)[0], n);
    return true;
}

#endif
