#include "znr-text-codec.h"

#include <cstring>

namespace {

bool EqualNoCase(char const* a, char const* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        char const x = *a >= 'a' && *a <= 'z' ? static_cast<char>(*a - 'a' + 'A') : *a;
        if (x != *b) return false;
    }
    return *a == *b;
}

std::uint64_t Load64(void const* p) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

// Both walks write only when kWrite is set, so that a first walk can size
// (and validate) the output and a second fill it without a scratch copy.
template <bool kWrite>
bool EncodeUtf8(unsigned short const* in, std::size_t n, unsigned char* out, std::size_t* size) {
    std::size_t i = 0, o = 0;
    bool ok = true;
    while (i < n) {
        // Runs of ASCII, four units a test.
        for (; n - i >= 4 && (Load64(in + i) & 0xFF80FF80FF80FF80u) == 0; i += 4, o += 4)
            if (kWrite)
                for (int k = 0; k < 4; ++k) out[o + k] = static_cast<unsigned char>(in[i + k]);
        if (i == n) break;
        unsigned int const u = in[i];
        if (u < 0x80) {
            if (kWrite) out[o] = static_cast<unsigned char>(u);
            ++o;
            ++i;
        } else if (u < 0x800) {
            if (kWrite) {
                out[o] = static_cast<unsigned char>(0xC0 | (u >> 6));
                out[o + 1] = static_cast<unsigned char>(0x80 | (u & 0x3F));
            }
            o += 2;
            ++i;
        } else if (u < 0xD800 || u >= 0xE000) {
            if (kWrite) {
                out[o] = static_cast<unsigned char>(0xE0 | (u >> 12));
                out[o + 1] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
                out[o + 2] = static_cast<unsigned char>(0x80 | (u & 0x3F));
            }
            o += 3;
            ++i;
        } else if (u < 0xDC00 && i + 1 < n && in[i + 1] >= 0xDC00 && in[i + 1] < 0xE000) {
            unsigned int const c = 0x10000 + ((u - 0xD800) << 10) + (in[i + 1] - 0xDC00u);
            if (kWrite) {
                out[o] = static_cast<unsigned char>(0xF0 | (c >> 18));
                out[o + 1] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
                out[o + 2] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
                out[o + 3] = static_cast<unsigned char>(0x80 | (c & 0x3F));
            }
            o += 4;
            i += 2;
        } else {
            ok = false;  // a lone surrogate
            break;
        }
    }
    *size = o;
    return ok;
}

// The well-formed sequences of the Unicode standard (table 3-7): the second
// byte's range shuts out overlong forms, surrogates and code points above
// U+10FFFF.
template <bool kWrite>
bool DecodeUtf8(unsigned char const* in, std::size_t size, unsigned short* out, std::size_t* n) {
    std::size_t i = 0, o = 0;
    bool ok = true;
    while (i < size) {
        // Runs of ASCII, eight bytes a test.
        for (; size - i >= 8 && (Load64(in + i) & 0x8080808080808080u) == 0; i += 8, o += 8)
            if (kWrite)
                for (int k = 0; k < 8; ++k) out[o + k] = in[i + k];
        if (i == size) break;
        unsigned int const b = in[i];
        if (b < 0x80) {
            if (kWrite) out[o] = static_cast<unsigned short>(b);
            ++o;
            ++i;
            continue;
        }
        std::size_t length;
        unsigned int c, low = 0x80, high = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) {
            length = 2;
            c = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3;
            c = b & 0x0F;
            if (b == 0xE0) low = 0xA0;
            if (b == 0xED) high = 0x9F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4;
            c = b & 0x07;
            if (b == 0xF0) low = 0x90;
            if (b == 0xF4) high = 0x8F;
        } else {
            ok = false;
            break;
        }
        if (length > size - i || in[i + 1] < low || in[i + 1] > high) {
            ok = false;
            break;
        }
        c = (c << 6) | (in[i + 1] & 0x3Fu);
        std::size_t k = 2;
        for (; k < length && (in[i + k] & 0xC0) == 0x80; ++k) c = (c << 6) | (in[i + k] & 0x3Fu);
        if (k < length) {
            ok = false;
            break;
        }
        if (c < 0x10000) {
            if (kWrite) out[o] = static_cast<unsigned short>(c);
            ++o;
        } else {
            if (kWrite) {
                out[o] = static_cast<unsigned short>(0xD800 + ((c - 0x10000) >> 10));
                out[o + 1] = static_cast<unsigned short>(0xDC00 + (c & 0x3FF));
            }
            o += 2;
        }
        i += length;
    }
    *n = o;
    return ok;
}

}  // namespace

std::string ZNRTextCodec::CharsetOfLocale(char const* locale_name) {
    if (locale_name == nullptr || locale_name[0] == '\0') return ProcessCharset();
    if (std::strcmp(locale_name, "chs") == 0) return "GBK";
    if (std::strcmp(locale_name, "C") == 0 || std::strcmp(locale_name, "POSIX") == 0) return "ASCII";
    std::string name(locale_name);
    std::string::size_type dot = name.find('.');
    if (dot == std::string::npos) return name;
    std::string codeset = name.substr(dot + 1);
    std::string::size_type at = codeset.find('@');
    if (at != std::string::npos) codeset.erase(at);
    return codeset;
}

// Only the spellings both platforms' converters take for UTF-8.
bool ZNRTextCodec::IsUtf8Charset(char const* charset) {
    return EqualNoCase(charset, "UTF-8") || EqualNoCase(charset, "UTF8");
}

bool ZNRTextCodec::Utf16ToUtf8(unsigned short const* units, std::size_t n, char* out, std::size_t* size) {
    return out != nullptr ? EncodeUtf8<true>(units, n, reinterpret_cast<unsigned char*>(out), size)
                          : EncodeUtf8<false>(units, n, nullptr, size);
}

bool ZNRTextCodec::Utf8ToUtf16(char const* bytes, std::size_t size, unsigned short* out, std::size_t* n) {
    unsigned char const* const in = reinterpret_cast<unsigned char const*>(bytes);
    return out != nullptr ? DecodeUtf8<true>(in, size, out, n) : DecodeUtf8<false>(in, size, nullptr, n);
}

bool ZNRTextCodec::Utf16ToUtf8(unsigned short const* units, std::size_t n, std::string* out) {
    std::size_t size = 0;
    if (!EncodeUtf8<false>(units, n, nullptr, &size)) return false;
    out->resize(size);
    EncodeUtf8<true>(units, n, reinterpret_cast<unsigned char*>(&(*out)[0]), &size);
    return true;
}

bool ZNRTextCodec::Utf8ToUtf16(char const* bytes, std::size_t size, ZNRStdWString* out) {
    unsigned char const* const in = reinterpret_cast<unsigned char const*>(bytes);
    std::size_t n = 0;
    if (!DecodeUtf8<false>(in, size, nullptr, &n)) return false;
    out->resize(n);
    DecodeUtf8<true>(in, size, &(*out)[0], &n);
    return true;
}
