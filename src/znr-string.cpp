#include <plexa/znr-string.h>

#include "znr-text-codec.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>

// Defined here too, so that the DLL exports them: a Windows program that
// binds one to a reference imports it.
constexpr ZNRString::size_type ZNRString::npos;

namespace {

char const kDefaultLocaleName[] = "chs";
std::size_t const kTemplLimit = 4096;

}  // namespace

struct ZNRStringLocale {
    std::string name;
    std::locale locale;
    std::string charset;  // what the name's texts are encoded in
    bool utf8;            // converted without the platform's converter
};

namespace {

// Building a std::locale by name is slow and throws for names the machine
// lacks (always so for "chs"), so each name is resolved once per process.
ZNRStringLocale const& LocaleByName(std::string const& name) {
    static std::mutex mutex;
    static std::map<std::string, std::unique_ptr<ZNRStringLocale>>* cache =
        new std::map<std::string, std::unique_ptr<ZNRStringLocale>>();
    std::lock_guard<std::mutex> guard(mutex);
    auto it = cache->find(name);
    if (it != cache->end()) return *it->second;
    std::string charset = ZNRTextCodec::CharsetOfLocale(name.c_str());
    bool const utf8 = ZNRTextCodec::IsUtf8Charset(charset.c_str());
    std::unique_ptr<ZNRStringLocale> record(
        new ZNRStringLocale{name, std::locale::classic(), std::move(charset), utf8});
    try {
        record->locale = std::locale(name.c_str());
    } catch (...) {
    }
    return *cache->emplace(name, std::move(record)).first->second;
}

std::size_t UnitLength(unsigned short const* s) {
    std::size_t n = 0;
    while (s[n] != 0) ++n;
    return n;
}

// The locale's narrow text as units in *out; a fault is reported and *out
// keeps what came before it. Units past a converted zero are dropped, as
// when the text went through a terminated buffer.
void Widen(ZNRStringLocale const& locale, char const* s, ZNRStdWString* out) {
    std::size_t const length = s == nullptr ? 0 : std::strlen(s);
    bool ok;
    if (locale.utf8) {
        out->resize(length);  // UTF-8 never takes more units than bytes
        std::size_t units = 0;
        ok = ZNRTextCodec::Utf8ToUtf16(s, length, &(*out)[0], &units);
        out->resize(units);
    } else {
        std::string bytes;
        ok = ZNRTextCodec::Convert(locale.charset.c_str(), ZNRTextCodec::Utf16Charset(), s, length, &bytes);
        out->resize(bytes.size() / 2);
        if (!out->empty()) std::memcpy(&(*out)[0], bytes.data(), out->size() * 2);
        std::size_t const zero = out->find(static_cast<unsigned short>(0));
        if (zero != ZNRStdWString::npos) out->erase(zero);
    }
    if (!ok) {
        std::fprintf(stderr, "Convert locale string to wchar string error, locale name=\"%s\"",
                     locale.name.c_str());
    }
}

// Units up to the first zero one as the locale's narrow text in *out
// (empty on entry); faults as Widen.
void Narrow(ZNRStringLocale const& locale, unsigned short const* s, std::string* out) {
    std::size_t const length = s == nullptr ? 0 : UnitLength(s);
    bool ok;
    if (locale.utf8) {
        out->resize(length * 3);  // at most 3 bytes a unit
        std::size_t size = 0;
        ok = ZNRTextCodec::Utf16ToUtf8(s, length, &(*out)[0], &size);
        out->resize(size);
    } else {
        ok = ZNRTextCodec::Convert(ZNRTextCodec::Utf16Charset(), locale.charset.c_str(), s, length * 2, out);
    }
    if (!ok) {
        std::fprintf(stderr, "Convert wchar string to locale string error, locale name=\"%s\"",
                     locale.name.c_str());
    }
}

ZNRStringLocale const& DefaultLocale() {
    static ZNRStringLocale const& locale = LocaleByName(kDefaultLocaleName);
    return locale;
}

ZNRStdWString const& Units(ZNRString const& s) { return s; }

bool In(char c, char const* set) { return c != '\0' && std::strchr(set, c) != nullptr; }

char Ascii(unsigned short unit) { return unit < 0x80 ? static_cast<char>(unit) : '\0'; }

// One conversion of a 16-bit template, as ASCII text for snprintf.
struct TemplConversion {
    std::string text;
    int stars = 0;
    std::string length;
    char conversion = '\0';
};

// Reads the conversion at fmt[0] == '%' and returns the units it spans, or 0
// when it cannot be formatted alone (positional arguments, unknown letters,
// units outside ASCII): such a '%' stays text.
std::size_t ParseTemplConversion(unsigned short const* fmt, TemplConversion* conv) {
    std::size_t i = 1;
    conv->text = "%";
    auto take = [&] { conv->text.push_back(Ascii(fmt[i++])); };
    auto count = [&] {
        if (Ascii(fmt[i]) == '*') {
            take();
            ++conv->stars;
        }
        while (In(Ascii(fmt[i]), "0123456789")) take();
    };
    while (In(Ascii(fmt[i]), "-+ #0'I")) take();
    count();
    if (Ascii(fmt[i]) == '.') {
        take();
        count();
    }
    while (In(Ascii(fmt[i]), "hlLqjzZt")) {
        conv->length.push_back(Ascii(fmt[i]));
        take();
    }
    static char const* const kLengths[] = {"", "hh", "h", "l", "ll", "L", "q", "j", "z", "Z", "t"};
    bool known_length = false;
    for (char const* l : kLengths) known_length = known_length || conv->length == l;
    char const c = Ascii(fmt[i]);
    if (!known_length || !In(c, "diouxXeEfFgGaAcCsSpnm%")) return 0;
    take();
    conv->conversion = c;
    return i;
}

template <class T>
int StoreCount(va_list* args, int count) {
    *va_arg(*args, T*) = static_cast<T>(count);
    return 0;
}

// Formats one conversion alone, taking its arguments from *args in order;
// `count` is what %n stores. Returns what snprintf returns.
int FormatTemplConversion(TemplConversion const& conv, va_list* args, int count, char* out, std::size_t size) {
    int stars[2] = {0, 0};
    for (int k = 0; k < conv.stars; ++k) stars[k] = va_arg(*args, int);
    char const* const format = conv.text.c_str();
    auto emit = [&](auto value) {
        if (conv.stars == 0) return std::snprintf(out, size, format, value);
        if (conv.stars == 1) return std::snprintf(out, size, format, stars[0], value);
        return std::snprintf(out, size, format, stars[0], stars[1], value);
    };
    std::string const& l = conv.length;
    bool const wide = l == "l" || conv.conversion == 'C' || conv.conversion == 'S';
    bool const longest = l == "ll" || l == "q" || l == "L";
    typedef std::make_signed_t<std::size_t> ssize;
    switch (conv.conversion) {
        case 'd': case 'i':
            if (l == "l") return emit(va_arg(*args, long));
            if (longest) return emit(va_arg(*args, long long));
            if (l == "j") return emit(va_arg(*args, std::intmax_t));
            if (l == "z" || l == "Z") return emit(va_arg(*args, ssize));
            if (l == "t") return emit(va_arg(*args, std::ptrdiff_t));
            return emit(va_arg(*args, int));
        case 'o': case 'u': case 'x': case 'X':
            if (l == "l") return emit(va_arg(*args, unsigned long));
            if (longest) return emit(va_arg(*args, unsigned long long));
            if (l == "j") return emit(va_arg(*args, std::uintmax_t));
            if (l == "z" || l == "Z") return emit(va_arg(*args, std::size_t));
            if (l == "t") return emit(va_arg(*args, std::make_unsigned_t<std::ptrdiff_t>));
            return emit(va_arg(*args, unsigned int));
        case 'c': case 'C':
            // wint_t is narrower than int where wchar_t is 16 bits: it comes promoted.
            return wide ? emit(static_cast<std::wint_t>(va_arg(*args, int))) : emit(va_arg(*args, int));
        case 's': case 'S':
            return wide ? emit(va_arg(*args, wchar_t const*)) : emit(va_arg(*args, char const*));
        case 'p':
            return emit(va_arg(*args, void*));
        case 'm':
            return emit(0);  // takes no argument; the extra one is ignored
        case 'n':
            if (l == "hh") return StoreCount<signed char>(args, count);
            if (l == "h") return StoreCount<short>(args, count);
            if (l == "l") return StoreCount<long>(args, count);
            if (longest) return StoreCount<long long>(args, count);
            if (l == "j") return StoreCount<std::intmax_t>(args, count);
            if (l == "z" || l == "Z") return StoreCount<ssize>(args, count);
            if (l == "t") return StoreCount<std::ptrdiff_t>(args, count);
            return StoreCount<int>(args, count);
        default:
            return l == "L" ? emit(va_arg(*args, long double)) : emit(va_arg(*args, double));
    }
}

bool IsHighSurrogate(unsigned short unit) { return unit >= 0xD800 && unit < 0xDC00; }

}  // namespace

ZNRString::ZNRString() : locale_(&DefaultLocale()) {}

ZNRString::ZNRString(unsigned short const* s, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    if (s != nullptr) str_->assign(s);
}

ZNRString::ZNRString(char16_t const* s, char const* locale_name)
    : ZNRString(reinterpret_cast<unsigned short const*>(s), locale_name) {}

ZNRString::ZNRString(ZNRStdWString const& s, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    str_->assign(s);
}

ZNRString::ZNRString(unsigned short ch, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    str_->assign(1, ch);
}

ZNRString::ZNRString(char const* s, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    if (s != nullptr) Widen(*locale_, s, &*str_);
}

ZNRString::ZNRString(std::string const& s, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    Widen(*locale_, s.c_str(), &*str_);
}

ZNRString::ZNRString(char ch, char const* locale_name) : locale_(nullptr) {
    SetLocale(locale_name);
    wchar_t wide = std::use_facet<std::ctype<wchar_t>>(locale_->locale).widen(ch);
    // A byte the locale cannot widen on its own keeps its value.
    if (static_cast<unsigned long>(wide) > 0xFFFFu) wide = static_cast<unsigned char>(ch);
    str_->assign(1, static_cast<unsigned short>(wide));
}

ZNRString::ZNRString(ZNRString const& other)
    : str_(other.str_), locale_(other.locale_) {}

ZNRString::~ZNRString() = default;

ZNRString& ZNRString::operator=(ZNRString const& other) {
    if (this == &other) {
        std::fprintf(stderr, "Same string object use operator=, string_context=\"%s\"",
                     ToStdCStr().c_str());
        return *this;
    }
    locale_ = other.locale_;
    str_->assign(*other.str_);
    return *this;
}

ZNRString& ZNRString::operator=(unsigned short const* s) {
    SetLocale(kDefaultLocaleName);
    if (s == nullptr) {
        str_->clear();
    } else {
        str_->assign(s);
    }
    return *this;
}

ZNRString& ZNRString::operator=(unsigned short ch) {
    SetLocale(kDefaultLocaleName);
    str_->assign(1, ch);
    return *this;
}

void ZNRString::swap(ZNRString& other) {
    str_->swap(*other.str_);
    std::swap(locale_, other.locale_);
}

ZNRString ZNRString::substr(size_type pos, size_type n) const {
    return ZNRString(str_->substr(pos, Std(n)), kDefaultLocaleName);
}

ZNRString& ZNRString::ToLower() {
    std::ctype<wchar_t> const& ctype = std::use_facet<std::ctype<wchar_t>>(locale_->locale);
    for (unsigned short& unit : *str_) unit = static_cast<unsigned short>(ctype.tolower(static_cast<wchar_t>(unit)));
    return *this;
}

ZNRString& ZNRString::ToUpper() {
    std::ctype<wchar_t> const& ctype = std::use_facet<std::ctype<wchar_t>>(locale_->locale);
    for (unsigned short& unit : *str_) unit = static_cast<unsigned short>(ctype.toupper(static_cast<wchar_t>(unit)));
    return *this;
}

bool ZNRString::IgnCaseCompare(ZNRString const& other) const {
    ZNRString a(*this);
    ZNRString b(other);
    return Units(a.ToLower()) == Units(b.ToLower());
}

bool ZNRString::StartsWith(ZNRString const& prefix) const {
    return str_->compare(0, prefix.str_->size(), *prefix.str_) == 0;
}

bool ZNRString::EndsWith(ZNRString const& suffix) const {
    if (suffix.str_->size() > str_->size()) return false;
    return str_->compare(str_->size() - suffix.str_->size(), suffix.str_->size(), *suffix.str_) == 0;
}

ZNRString& ZNRString::Trim(unsigned short ch, TrimType_t type) {
    if (type != TRIM_LEFT && type != TRIM_RIGHT && type != TRIM_BOTH) return *this;
    if (type == TRIM_LEFT || type == TRIM_BOTH) {
        std::size_t run = str_->find_first_not_of(ch);
        // An all-ch string keeps its start: the trailing trim alone empties it.
        if (run != ZNRStdWString::npos) str_->erase(0, run);
    }
    if (type == TRIM_RIGHT || type == TRIM_BOTH) {
        std::size_t last = str_->find_last_not_of(ch);
        str_->erase(last == ZNRStdWString::npos ? 0 : last + 1);
    }
    return *this;
}

void ZNRString::Split(ZNRString const& separators, std::vector<ZNRString>* out) const {
    // Tokenised like the C runtime's wcstok over a terminated copy: the text
    // ends at its first zero unit and a zero unit never separates.
    ZNRStdWString const& text = *str_;
    ZNRStdWString delims = *separators.str_;
    std::size_t zero = delims.find(static_cast<unsigned short>(0));
    if (zero != ZNRStdWString::npos) delims.erase(zero);
    std::size_t end = text.find(static_cast<unsigned short>(0));
    if (end == ZNRStdWString::npos) end = text.size();
    std::size_t pos = 0;
    while (pos < end) {
        std::size_t start = text.find_first_not_of(delims, pos);
        if (start == ZNRStdWString::npos || start >= end) break;
        std::size_t stop = text.find_first_of(delims, start);
        if (stop == ZNRStdWString::npos || stop > end) stop = end;
        out->push_back(ZNRString(text.substr(start, stop - start), kDefaultLocaleName));
        pos = stop;
    }
}

std::string ZNRString::ToStdCStr() const {
    std::string narrow;
    Narrow(*locale_, str_->c_str(), &narrow);
    narrow.resize(std::strlen(narrow.c_str()));  // as read back from a terminated buffer
    return narrow;
}

bool ZNRString::ToUtf8Str(std::string* out) const {
    return ZNRTextCodec::Utf16ToUtf8(str_->data(), str_->size(), out);
}

bool ZNRString::NewFromUtf8Str(std::string const& in) {
    return ZNRTextCodec::Utf8ToUtf16(in.data(), in.size(), &*str_);
}

bool ZNRString::IsUTF8() const {
    std::unique_ptr<char[]> narrow(WCSToMBS(str_->c_str()));
    unsigned char const* p = reinterpret_cast<unsigned char const*>(narrow.get());
    while (*p != 0) {
        int follow;
        if (*p < 0x80) {
            follow = 0;
        } else if (*p < 0xC0) {
            return false;
        } else if (*p < 0xE0) {
            follow = 1;
        } else if (*p < 0xF0) {
            follow = 2;
        } else {
            return false;
        }
        ++p;
        // A sequence cut off by the end of the text still counts as valid.
        for (; follow > 0 && *p != 0; --follow, ++p) {
            if ((*p & 0xC0) != 0x80) return false;
        }
    }
    return true;
}

ZNRString& ZNRString::NewFromTempl(unsigned short const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    VNewFromTempl(fmt, args);
    va_end(args);
    return *this;
}

ZNRString& ZNRString::NewFromTempl(char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    VNewFromTempl(fmt, args);
    va_end(args);
    return *this;
}

ZNRString& ZNRString::VNewFromTempl(unsigned short const* fmt, va_list args) {
    if (fmt == nullptr) {
        str_->clear();
        return *this;
    }
    // The template is split in its own units: in a stateful charset such as
    // ISO-2022-JP plain characters convert to bytes that include '%'. Only
    // the conversions go to snprintf; text is copied as it stands, and its
    // narrow form still counts toward the cut.
    std::string const charset = locale_->charset;
    ZNRStdWString out;
    std::size_t room = kTemplLimit;
    auto narrow_size = [&](unsigned short const* units, std::size_t n) {
        std::string bytes;
        ZNRTextCodec::Convert(ZNRTextCodec::Utf16Charset(), charset.c_str(), units, n * 2, &bytes);
        return bytes.size();
    };
    // Each returns false once the cut is reached.
    auto append_text = [&](unsigned short const* units, std::size_t n) {
        if (n == 0) return true;
        std::size_t const size = narrow_size(units, n);
        if (size <= room) {
            out.append(units, n);
            room -= size;
            return true;
        }
        std::size_t fits = 0, over = n;
        while (over - fits > 1) {
            std::size_t const mid = fits + (over - fits) / 2;
            if (narrow_size(units, mid) <= room) {
                fits = mid;
            } else {
                over = mid;
            }
        }
        if (fits > 0 && IsHighSurrogate(units[fits - 1])) --fits;
        out.append(units, fits);
        return false;
    };
    std::unique_ptr<char[]> piece(new char[kTemplLimit + 1]());
    auto append_piece = [&](int formatted) {
        if (formatted < 0) return false;
        // Output after a zero byte was lost when the whole result was one C string.
        std::size_t const size = std::strlen(piece.get());
        std::size_t const kept = size < room ? size : room;
        piece[kept] = '\0';
        std::unique_ptr<unsigned short[]> units(MBSToWCS(piece.get()));
        out.append(units.get());
        room -= kept;
        return kept == static_cast<std::size_t>(formatted);
    };

    va_list rest;
    va_copy(rest, args);
    std::size_t const length = UnitLength(fmt);
    std::size_t text = 0, pos = 0;
    bool more = true;
    while (more && pos < length) {
        TemplConversion conv;
        std::size_t const span = fmt[pos] == '%' ? ParseTemplConversion(fmt + pos, &conv) : 0;
        if (span == 0) {
            ++pos;
            continue;
        }
        more = append_text(fmt + text, pos - text);
        pos += span;
        text = pos;
        if (!more) break;
        if (conv.conversion == '%') {
            text = pos - 1;  // the last '%' is text
            continue;
        }
        int const count = static_cast<int>(kTemplLimit - room);
        piece[0] = '\0';
        more = append_piece(FormatTemplConversion(conv, &rest, count, piece.get(), kTemplLimit + 1));
    }
    if (more) append_text(fmt + text, length - text);
    va_end(rest);
    str_->assign(out);
    return *this;
}

ZNRString& ZNRString::VNewFromTempl(char const* fmt, va_list args) {
    if (fmt == nullptr) {
        str_->clear();
        return *this;
    }
    // One byte more than the limit, all zero, so a cut result stays terminated.
    std::unique_ptr<char[]> buffer(new char[kTemplLimit + 1]());
    std::vsnprintf(buffer.get(), kTemplLimit + 1, fmt, args);
    std::unique_ptr<unsigned short[]> units(MBSToWCS(buffer.get()));
    str_->assign(units.get());
    return *this;
}

// Formats into a string of this locale, then appends it.
template <class Char>
ZNRString& ZNRString::VAppendFromTempl(Char const* fmt, va_list args) {
    ZNRString part(static_cast<unsigned short const*>(nullptr), locale_->name.c_str());
    part.VNewFromTempl(fmt, args);
    str_->append(*part.str_);
    return *this;
}

ZNRString& ZNRString::AppendFromTempl(unsigned short const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    VAppendFromTempl(fmt, args);
    va_end(args);
    return *this;
}

ZNRString& ZNRString::AppendFromTempl(char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    VAppendFromTempl(fmt, args);
    va_end(args);
    return *this;
}

unsigned short* ZNRString::MBSToWCS(char const* s) const {
    ZNRStdWString units;
    Widen(*locale_, s, &units);
    std::size_t const length = s == nullptr ? 0 : std::strlen(s);
    unsigned short* wide = new unsigned short[(units.size() > length ? units.size() : length) + 1]();
    if (!units.empty()) std::memcpy(wide, units.data(), units.size() * 2);
    return wide;
}

char* ZNRString::WCSToMBS(unsigned short const* s) const {
    std::string bytes;
    Narrow(*locale_, s, &bytes);
    std::size_t size = (s == nullptr ? 0 : UnitLength(s)) * 5 + 5;
    if (bytes.size() >= size) size = bytes.size() + 1;
    char* narrow = new char[size]();
    if (!bytes.empty()) std::memcpy(narrow, bytes.data(), bytes.size());
    return narrow;
}

void ZNRString::SetLocale(char const* name) {
    locale_ = &LocaleByName(name == nullptr ? "" : name);
}

std::locale const& ZNRString::GetLocale() const { return locale_->locale; }

char const* ZNRString::GetLocaleName() const { return locale_->name.c_str(); }

bool operator==(ZNRString const& a, ZNRString const& b) { return Units(a) == Units(b); }

bool operator!=(ZNRString const& a, ZNRString const& b) { return !(a == b); }

bool operator<(ZNRString const& a, ZNRString const& b) { return Units(a) < Units(b); }

ZNRString operator+(ZNRString const& a, ZNRString const& b) {
    ZNRString sum(a);
    sum += b;
    return sum;
}
