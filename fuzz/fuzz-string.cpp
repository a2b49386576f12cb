// ZNRString conversions (UTF-8, the locale's multi-byte text with GBK first
// among them, UTF-16 units) and the members built on them, then both
// template forms with the input as the template.
//
// UTF-8 and UTF-16 must be taken, refused and cut exactly as glibc's iconv
// does, which the library's own transcoder replaces.
//
// Input: locale choice, then text used as UTF-8, as multi-byte text and as
// 16-bit units.
#include "fuzz-common.h"

#include <cstring>
#include <cwchar>

#include <iconv.h>

namespace {

char const* const kLocales[] = {"chs", "", "C", "zz_ZZ.UTF-8", "xx_XX.ISO-8859-1",
                                "ja_JP.ISO-2022-JP", "GB18030", "UTF-16"};

// Every template argument points here: a valid narrow and wide string,
// with room for what %n stores.
wchar_t g_arg[8] = {L'a', L'b', 0, 0, 0, 0, 0, 0};

#define FUZZ_ARGS8 g_arg, g_arg, g_arg, g_arg, g_arg, g_arg, g_arg, g_arg
#define FUZZ_ARGS FUZZ_ARGS8, FUZZ_ARGS8, FUZZ_ARGS8, FUZZ_ARGS8, FUZZ_ARGS8, FUZZ_ARGS8

// A template is the programmer's text, so the fuzzer keeps to what a
// programmer could write for these arguments: widths below 1000, no '*',
// no positional arguments, at most eight conversions.
template <class Char>
std::basic_string<Char> Template(std::basic_string<Char> in, bool positional) {
    int digits = 0, percents = 0;
    for (Char& ch : in) {
        if (ch >= '0' && ch <= '9' && ++digits > 3) ch = '_';
        if (!(ch >= '0' && ch <= '9')) digits = 0;
        if (ch == '*' || (ch == '$' && !positional)) ch = '_';
        if (ch == '%' && ++percents > 8) ch = '_';
    }
    return in;
}

bool HasZero(std::string const& s) { return s.find('\0') != std::string::npos; }

// iconv's output for size bytes, and whether it took them all.
bool Iconv(char const* from, char const* to, void const* in, std::size_t size, std::string* out) {
    iconv_t const cd = iconv_open(to, from);
    FUZZ_CHECK(cd != reinterpret_cast<iconv_t>(-1));
    std::string bytes(static_cast<char const*>(in), size);
    out->assign(size * 2 + 4, '\0');
    char *in_ptr = &bytes[0], *out_ptr = &(*out)[0];
    std::size_t in_left = size, out_left = out->size();
    bool const ok = iconv(cd, &in_ptr, &in_left, &out_ptr, &out_left) != static_cast<std::size_t>(-1);
    out->resize(out->size() - out_left);
    iconv_close(cd);
    return ok;
}

std::string BytesOf(ZNRStdWString const& units) {
    return std::string(reinterpret_cast<char const*>(units.data()), units.size() * 2);
}

void CheckAffixes(ZNRString const& w) {
    for (ZNRString::size_type k : {0u, w.size() / 2, w.size()}) {
        FUZZ_CHECK(w.StartsWith(w.substr(0, k)));
        FUZZ_CHECK(w.EndsWith(w.substr(k)));
    }
}

void CheckTrimAndSplit(ZNRString const& w, unsigned short ch) {
    ZNRString both(w), right(w);
    both.Trim(ch, ZNRString::TRIM_BOTH);
    right.Trim(ch, ZNRString::TRIM_RIGHT);
    FUZZ_CHECK(right.empty() || right[right.size() - 1] != ch);
    // Both ends: an all-ch string survives the start but not the end.
    FUZZ_CHECK(both.empty() || (both[0] != ch && both[both.size() - 1] != ch));
    ZNRString left(w);
    left.Trim(ch, ZNRString::TRIM_LEFT);
    FUZZ_CHECK(left.empty() || left[0] != ch || left.find_first_not_of(ch) == ZNRString::npos);

    // Separators are a C string: no zero unit among them.
    ZNRStdWString separators(1, ch != 0 ? ch : 'x');
    if (!w.empty() && w[0] != 0) separators.push_back(w[0]);
    std::vector<ZNRString> tokens(1, ZNRString("kept"));
    w.Split(ZNRString(separators), &tokens);
    FUZZ_CHECK(tokens[0] == ZNRString("kept"));
    for (std::size_t k = 1; k < tokens.size(); ++k) {
        FUZZ_CHECK(!tokens[k].empty());
        FUZZ_CHECK(tokens[k].find_first_of(ZNRString(separators)) == ZNRString::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 1) return 0;
    char const* const locale = kLocales[data[0] & 7];
    std::string const text(reinterpret_cast<char const*>(data + 1), size - 1);

    // UTF-8 in and out again; a failure keeps the old content.
    ZNRString u(u"old", locale);
    std::string utf8, reference;
    bool const iconv_ok = Iconv("UTF-8", "UTF-16LE", text.data(), text.size(), &reference);
    if (u.NewFromUtf8Str(text)) {
        FUZZ_CHECK(iconv_ok && BytesOf(u) == reference);
        FUZZ_CHECK(u.ToUtf8Str(&utf8));
        if (!HasZero(text)) FUZZ_CHECK(utf8 == text);
    } else {
        FUZZ_CHECK(!iconv_ok);
        FUZZ_CHECK(u == ZNRString(u"old"));
    }
    u.IsUTF8();
    // A UTF-8 locale keeps what came before a fault, as iconv does.
    Iconv("UTF-8", "UTF-16LE", text.c_str(), std::strlen(text.c_str()), &reference);
    FUZZ_CHECK(BytesOf(ZNRString(text.c_str(), "zz_ZZ.UTF-8")) == reference);

    // Multi-byte text of the locale: what it gives converts back to itself.
    ZNRString narrow(text.c_str(), locale);
    ZNRString again(narrow.ToStdCStr(), locale);
    if (std::strcmp(locale, "chs") == 0 || std::strcmp(locale, "zz_ZZ.UTF-8") == 0)
        FUZZ_CHECK(again == narrow);
    ZNRString(text.empty() ? 'x' : text[0], locale);
    narrow.IsUTF8();

    // 16-bit units.
    ZNRStdWString units((size - 1) / 2, 0);
    if (!units.empty()) std::memcpy(&units[0], data + 1, units.size() * 2);
    ZNRString w(units, locale);
    bool const encodes = Iconv("UTF-16LE", "UTF-8", units.data(), units.size() * 2, &reference);
    utf8 = "untouched";
    FUZZ_CHECK(w.ToUtf8Str(&utf8) == encodes);
    FUZZ_CHECK(utf8 == (encodes ? reference : "untouched"));
    if (encodes) {
        ZNRString back(u"", locale);
        FUZZ_CHECK(back.NewFromUtf8Str(utf8));
        if (units.find(static_cast<unsigned short>(0)) == ZNRStdWString::npos) FUZZ_CHECK(back == w);
    }
    w.ToStdCStr();
    w.IsUTF8();
    ZNRString lower(w), upper(w);
    lower.ToLower();
    upper.ToUpper();
    FUZZ_CHECK(lower.size() == w.size() && upper.size() == w.size());
    w.IgnCaseCompare(upper);
    CheckAffixes(w);
    CheckTrimAndSplit(w, units.empty() ? 'x' : units.back());

    // Templates. A narrow result has at most one unit per byte.
    ZNRString formatted(u"", locale);
    std::string const narrow_templ = Template(std::string(text.c_str()), false);
    formatted.NewFromTempl(narrow_templ.c_str(), 1.5, -2.0, 1e300, 0.0, 3.25, -0.5, 7.0, 8.0, FUZZ_ARGS);
    if (std::strcmp(locale, "chs") == 0 || std::strcmp(locale, "zz_ZZ.UTF-8") == 0)
        FUZZ_CHECK(formatted.size() <= 4096);
    ZNRStdWString const wide_templ = Template(ZNRStdWString(units.c_str()), true);
    formatted.AppendFromTempl(wide_templ.c_str(), 1.5, -2.0, 1e300, 0.0, 3.25, -0.5, 7.0, 8.0, FUZZ_ARGS);
    ZNRString fresh(u"", locale);
    fresh.NewFromTempl(wide_templ.c_str(), 1.5, -2.0, 1e300, 0.0, 3.25, -0.5, 7.0, 8.0, FUZZ_ARGS);
    // The cut counts the narrow form (stateless charsets: pieces add up).
    if (std::strcmp(locale, "chs") == 0 || std::strcmp(locale, "zz_ZZ.UTF-8") == 0)
        FUZZ_CHECK(fresh.ToStdCStr().size() <= 4096);
    std::wmemset(g_arg + 2, 0, 6);
    g_arg[0] = L'a', g_arg[1] = L'b';
    return 0;
}

// ASan's printf check reads past a template that ends inside a conversion
// ("%-"), which vsnprintf itself stops at; the library forwards narrow
// templates as they are, so the check is off here.
extern "C" char const* __asan_default_options() { return "check_printf=0"; }
