#include "znr-text-codec.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <locale.h>
#include <string>

#include <windows.h>

namespace {

// Code page 1200 is UTF-16LE, which the converters take as their wide side
// rather than as a code page.
UINT const kWide = 1200;
UINT const kAscii = 20127;

struct NamedCodePage {
    char const* name;
    UINT code_page;
};

// Charset names as locale names spell them, compared by their letters and
// digits only ("ISO-8859-1", "iso88591" and "ISO_8859-1" are one).
NamedCodePage const kNames[] = {
    {"utf8", CP_UTF8},        {"gbk", 936},           {"gb2312", 936},        {"euccn", 936},
    {"gb18030", 54936},       {"big5", 950},          {"sjis", 932},          {"shiftjis", 932},
    {"eucjp", 20932},         {"iso2022jp", 50220},   {"euckr", 51949},       {"koi8r", 20866},
    {"koi8u", 21866},         {"tis620", 874},        {"iso88591", 28591},    {"latin1", 28591},
    {"iso88592", 28592},      {"iso88593", 28593},    {"iso88594", 28594},    {"iso88595", 28595},
    {"iso88596", 28596},      {"iso88597", 28597},    {"iso88598", 28598},    {"iso88599", 28599},
    {"iso885913", 28603},     {"iso885915", 28605},   {"ascii", kAscii},      {"usascii", kAscii},
    {"ansix341968", kAscii},  {"utf16le", kWide},
};

std::string Folded(char const* name) {
    std::string folded;
    for (; *name != '\0'; ++name) {
        unsigned char const c = static_cast<unsigned char>(*name);
        if (std::isalnum(c)) folded.push_back(static_cast<char>(std::tolower(c)));
    }
    return folded;
}

bool StartsWithNoCase(char const* text, char const* prefix) {
    return _strnicmp(text, prefix, std::strlen(prefix)) == 0;
}

// A charset name, "CPnnn", "windows-nnn" or a bare code page number; 0 for
// a name it does not know or a code page the system lacks.
UINT CodePageOf(char const* name) {
    std::string const folded = Folded(name);
    for (NamedCodePage const& entry : kNames)
        if (folded == entry.name)
            return entry.code_page == kWide || IsValidCodePage(entry.code_page) ? entry.code_page : 0;
    if (StartsWithNoCase(name, "CP")) name += 2;
    else if (StartsWithNoCase(name, "windows-")) name += 8;
    if (*name < '1' || *name > '9') return 0;
    char* end = nullptr;
    unsigned long const number = std::strtoul(name, &end, 10);
    return *end == '\0' && number <= 65535 && IsValidCodePage(static_cast<UINT>(number))
               ? static_cast<UINT>(number)
               : 0;
}

// The ISO-2022 pages, UTF-7 and the ISCII ones take no flags: their faults
// go unseen.
bool TakesFlags(UINT code_page) {
    return !(code_page >= 50220 && code_page <= 50229) && !(code_page >= 57002 && code_page <= 57011) &&
           code_page != 65000 && code_page != 42;
}

// Bytes of the character that starts with lead; 0 when no character does.
std::size_t CharLength(UINT code_page, unsigned char lead) {
    if (code_page == kAscii) return lead < 0x80 ? 1 : 0;
    if (code_page != CP_UTF8) return IsDBCSLeadByteEx(code_page, lead) ? 2 : 1;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

// Appends the units of size bytes when all of them are valid text.
bool DecodeRun(UINT code_page, char const* bytes, std::size_t size, std::wstring* wide) {
    DWORD const flags = TakesFlags(code_page) ? MB_ERR_INVALID_CHARS : 0;
    int const n = MultiByteToWideChar(code_page, flags, bytes, static_cast<int>(size), nullptr, 0);
    if (n <= 0) return false;
    std::size_t const at = wide->size();
    wide->resize(at + static_cast<std::size_t>(n));
    MultiByteToWideChar(code_page, flags, bytes, static_cast<int>(size), &(*wide)[at], n);
    return true;
}

// Appends the bytes of count units when every character maps. Without
// WC_NO_BEST_FIT_CHARS a legacy code page would silently substitute look-alikes.
bool EncodeRun(UINT code_page, wchar_t const* units, std::size_t count, std::string* out) {
    bool const utf8 = code_page == CP_UTF8;
    bool const flagged = TakesFlags(code_page);
    DWORD const flags = utf8 ? WC_ERR_INVALID_CHARS : flagged ? WC_NO_BEST_FIT_CHARS : 0;
    BOOL used_default = FALSE;
    BOOL* const used = utf8 || !flagged ? nullptr : &used_default;
    int const n = WideCharToMultiByte(code_page, flags, units, static_cast<int>(count), nullptr, 0,
                                      nullptr, used);
    if (n <= 0 || used_default) return false;
    std::size_t const at = out->size();
    out->resize(at + static_cast<std::size_t>(n));
    WideCharToMultiByte(code_page, flags, units, static_cast<int>(count), &(*out)[at], n, nullptr, used);
    return true;
}

// The Win32 converters take all or nothing; on a fault the text is taken
// again one character at a time, to keep what came before it as iconv does.
bool Decode(UINT code_page, char const* bytes, std::size_t size, std::wstring* wide) {
    // The ASCII code page is not known to refuse high bytes: they are checked here.
    bool const whole = code_page != kAscii ||
                       std::none_of(bytes, bytes + size, [](char c) { return (c & 0x80) != 0; });
    if (size == 0 || (whole && DecodeRun(code_page, bytes, size, wide))) return true;
    for (std::size_t pos = 0; pos < size;) {
        std::size_t const length = CharLength(code_page, static_cast<unsigned char>(bytes[pos]));
        if (length == 0 || length > size - pos || !DecodeRun(code_page, bytes + pos, length, wide))
            return false;
        pos += length;
    }
    return true;
}

bool Encode(UINT code_page, std::wstring const& wide, std::string* out) {
    if (wide.empty() || EncodeRun(code_page, wide.data(), wide.size(), out)) return true;
    for (std::size_t pos = 0; pos < wide.size();) {
        std::size_t const length =
            IS_HIGH_SURROGATE(wide[pos]) && pos + 1 < wide.size() && IS_LOW_SURROGATE(wide[pos + 1]) ? 2 : 1;
        if (!EncodeRun(code_page, wide.data() + pos, length, out)) return false;
        pos += length;
    }
    return true;
}

}  // namespace

// The C runtime locale's code page; the "C" locale has none (0): the
// process's narrow text is then in the ANSI code page.
std::string ZNRTextCodec::ProcessCharset() {
    UINT const code_page = ___lc_codepage_func();
    return "CP" + std::to_string(code_page != 0 ? code_page : GetACP());
}

char const* ZNRTextCodec::Utf16Charset() { return "UTF-16LE"; }

bool ZNRTextCodec::Convert(char const* from, char const* to, void const* in,
                           std::size_t in_size, std::string* out) {
    UINT const from_page = CodePageOf(from);
    UINT const to_page = CodePageOf(to);
    if (from_page == 0 || to_page == 0 || in_size > INT_MAX) return false;
    char const* bytes = static_cast<char const*>(in);
    std::wstring wide;
    bool ok;
    if (from_page == kWide) {
        wide.resize(in_size / sizeof(wchar_t));
        if (!wide.empty()) std::memcpy(&wide[0], bytes, wide.size() * sizeof(wchar_t));
        ok = in_size % sizeof(wchar_t) == 0;
    } else {
        ok = Decode(from_page, bytes, in_size, &wide);
    }
    if (to_page != kWide) return Encode(to_page, wide, out) && ok;
    out->append(reinterpret_cast<char const*>(wide.data()), wide.size() * sizeof(wchar_t));
    return ok;
}
