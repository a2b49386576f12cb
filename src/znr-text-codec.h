#ifndef PLEXA_ZNR_TEXT_CODEC_H
#define PLEXA_ZNR_TEXT_CODEC_H

#include <cstddef>
#include <string>

// Conversion of bytes between character sets, for the string family.
// Charset names are those of the platform's converter ("GBK", "UTF-8", ...).
class ZNRTextCodec {
public:
    // The charset behind a locale name: "chs" is GBK, an empty or null name
    // is the process's current C locale encoding, "lang_TERRITORY.codeset"
    // gives its codeset, "C"/"POSIX" ASCII; anything else is taken as a
    // charset name itself.
    static std::string CharsetOfLocale(char const* locale_name);
    // The process's current C locale encoding.
    static std::string ProcessCharset();
    // 16-bit units in host byte order.
    static char const* Utf16Charset();
    static char const* Utf8Charset() { return "UTF-8"; }

    // Converts in_size bytes of `from` text to `to` text appended to *out.
    // Returns true when the whole input converted; otherwise *out holds what
    // converted before the fault (malformed, unmappable or cut-off input, or
    // an unknown charset).
    static bool Convert(char const* from, char const* to, void const* in,
                        std::size_t in_size, std::string* out);
};

#endif
