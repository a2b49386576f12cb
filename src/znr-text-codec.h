#ifndef PLEXA_ZNR_TEXT_CODEC_H
#define PLEXA_ZNR_TEXT_CODEC_H

#include <cstddef>
#include <string>

typedef std::basic_string<unsigned short> ZNRStdWString;

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

    // UTF-8 and UTF-16 directly, without the platform's converter but with
    // its refusals: lone surrogates, overlong forms, encoded surrogates,
    // code points above U+10FFFF and cut-off sequences. A byte-order mark
    // is an ordinary character.
    static bool IsUtf8Charset(char const* charset);
    // The UTF-8 bytes of n units, written to out when it is not null.
    // Returns false at a fault; *size then counts the bytes of the units
    // before it.
    static bool Utf16ToUtf8(unsigned short const* units, std::size_t n, char* out, std::size_t* size);
    // The UTF-16 units of size bytes, written to out when it is not null
    // (size units are always enough); faults as above.
    static bool Utf8ToUtf16(char const* bytes, std::size_t size, unsigned short* out, std::size_t* n);
    // Replace *out (untouched on a fault) by the whole text converted.
    static bool Utf16ToUtf8(unsigned short const* units, std::size_t n, std::string* out);
    static bool Utf8ToUtf16(char const* bytes, std::size_t size, ZNRStdWString* out);
};

#endif
