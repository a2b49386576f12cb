#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

typedef std::vector<unsigned short> Units;

Units UnitsOf(ZNRString const& s) { return Units(s.begin(), s.end()); }

ZNRString Wide(Units const& units, char const* locale_name = "chs") {
    return ZNRString(ZNRStdWString(units.begin(), units.end()), locale_name);
}

// What f printed to stderr.
template <class F>
std::string Stderr(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

std::string ToWideError(std::string const& locale_name) {
    return "Convert locale string to wchar string error, locale name=\"" + locale_name + "\"";
}

}  // namespace

TEST(ZNRStringTest, NarrowConversionsKeepThePrefixAndReportFailures) {
    // Narrow bytes to units: a failure keeps what came before and names the
    // locale as given. The codeset comes from the name, whether or not the
    // machine has the locale; the empty name is the process's C locale.
    struct { char const *bytes, *locale_name; Units units; char const* error; } const to_wide[] = {
        {"\xD6\xD0\xCE\xC4", "chs", {0x4E2D, 0x6587}, nullptr}, {"", "chs", {}, nullptr},
        {"A\xD6", "chs", {'A'}, "chs"}, {"AB\xD6\x20" "C", "chs", {'A', 'B'}, "chs"},
        {"ok\xE4", "C", {'o', 'k'}, "C"}, {"x", "no-such-charset", {}, "no-such-charset"},
        {"\xE4\xB8\xAD", "zz_ZZ.UTF-8", {0x4E2D}, nullptr}, {"\xE9", "xx_XX.ISO-8859-1@euro", {0xE9}, nullptr},
#ifndef _WIN32  // there: the ANSI code page, below
        {"ab\xD6\xD0", "", {'a', 'b'}, ""},
#endif
    };
    for (auto const& c : to_wide) {
        ZNRString s;
        EXPECT_EQ(c.error ? ToWideError(c.error) : "", Stderr([&] { s = ZNRString(c.bytes, c.locale_name); }))
            << c.bytes;
        EXPECT_EQ(c.units, UnitsOf(s)) << c.bytes;
    }
    EXPECT_EQ((Units{0x4E2D, 0x6587}), UnitsOf(ZNRString(std::string("\xD6\xD0\xCE\xC4"), "chs")));
    EXPECT_TRUE(ZNRString(static_cast<char const*>(nullptr)).empty());
    EXPECT_TRUE(ZNRString(static_cast<unsigned short const*>(nullptr)).empty());
    EXPECT_TRUE(ZNRString("x", "zz_ZZ.UTF-8").GetLocale() == std::locale::classic());
    EXPECT_STREQ("", ZNRString(u"x", nullptr).GetLocaleName());

    // Units to narrow bytes; GBK has no form outside the basic plane.
    struct { Units units; char const *locale_name, *bytes; bool error; } const to_narrow[] = {
        {{0x4E2D, 0x6587}, "chs", "\xD6\xD0\xCE\xC4", false}, {{'x', 0x4E2D, 'y'}, "chs", "x\xD6\xD0" "y", false},
        {{}, "chs", "", false}, {{0x4E2D}, "zz_ZZ.UTF-8", "\xE4\xB8\xAD", false},
        {{0x4E2D, 0xD83D, 0xDE00, 'z'}, "chs", "\xD6\xD0", true},
    };
    for (auto const& c : to_narrow) {
        std::string bytes;
        EXPECT_EQ(c.error ? "Convert wchar string to locale string error, locale name=\"chs\"" : "",
                  Stderr([&] { bytes = Wide(c.units, c.locale_name).ToStdCStr(); }))
            << c.bytes;
        EXPECT_EQ(c.bytes, bytes);
    }
}

// The UTF-8 forms iconv takes and refuses. Refused bytes leave a string as
// it was; through a UTF-8 locale they keep what came before the fault.
TEST(ZNRStringTest, Utf8ConversionsTakeAndRefuseWhatIconvDoes) {
    // Both ways: the ends of each sequence length and of the surrogates, a
    // byte-order mark as a character, a zero, a run of ASCII past a word.
    struct { std::string bytes; Units units; } const both[] = {
        {"", {}}, {std::string("a\0b", 3), {'a', 0, 'b'}}, {"\x7F\xC2\x80\xDF\xBF", {0x7F, 0x80, 0x7FF}},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", {0x800, 0xD7FF, 0xE000}},
        {"\xEF\xBB\xBF\xEF\xBF\xBF", {0xFEFF, 0xFFFF}},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {0xD800, 0xDC00, 0xDBFF, 0xDFFF}},
        {"0123456789\xC3\xA9", {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 0xE9}},
    };
    for (auto const& c : both) {
        ZNRString s(u"old");
        std::string utf8;
        EXPECT_TRUE(s.NewFromUtf8Str(c.bytes)) << c.bytes;
        EXPECT_EQ(c.units, UnitsOf(s)) << c.bytes;
        EXPECT_TRUE(Wide(c.units).ToUtf8Str(&utf8) && utf8 == c.bytes) << c.bytes;
    }

    // Bad continuations, overlong forms, encoded surrogates, code points
    // past U+10FFFF, five- and six-byte forms, cut-off sequences; `kept`
    // ASCII bytes come before the fault.
    struct { std::string bytes; std::size_t kept; } const bad_bytes[] = {
        {"\x80", 0}, {"ab\xC3\x28", 2}, {"\xC0\x80", 0}, {"\xC1\xBF", 0}, {"\xE0\x9F\xBF", 0},
        {"\xF0\x8F\xBF\xBF", 0}, {"\xED\xA0\x80", 0}, {"\xED\xBF\xBF", 0}, {"\xF4\x90\x80\x80", 0},
        {"\xF5\x80\x80\x80", 0}, {"\xF8\x88\x80\x80\x80", 0}, {"\xFC\x84\x80\x80\x80\x80", 0},
        {"\xFE", 0}, {"\xFF", 0}, {"abcdefghi\xC2", 9}, {"ab\xE4\xB8", 2}, {"\xF0\x9F\x98", 0},
        {"\xE4\xB8\x41", 0}, {"0123456789abcdef\xF0\x9F\x98\x41", 16},
    };
    for (auto const& c : bad_bytes) {
        ZNRString s(u"keep");
        EXPECT_FALSE(s.NewFromUtf8Str(c.bytes)) << c.bytes;
        EXPECT_EQ(ZNRString(u"keep"), s);
        EXPECT_EQ(ToWideError("zz_ZZ.UTF-8"), Stderr([&] { s = ZNRString(c.bytes, "zz_ZZ.UTF-8"); }));
        EXPECT_EQ(ZNRString(c.bytes.substr(0, c.kept)), s) << c.bytes;
    }

    // Lone surrogates: high at the end, low alone, high before a high.
    struct { Units units; char const* kept; } const bad_units[] = {
        {{'a', 0xD83D}, "a"}, {{'a', 0xDE00, 'b'}, "a"}, {{0xD83D, 'b'}, ""}, {{0xD800, 0xD800, 0xDC00}, ""},
        {{'0', '1', '2', '3', '4', '5', '6', '7', 0xDC00}, "01234567"},
    };
    for (auto const& c : bad_units) {
        std::string out = "untouched", narrow;
        EXPECT_FALSE(Wide(c.units).ToUtf8Str(&out)) << c.kept;
        EXPECT_EQ("untouched", out);
        EXPECT_EQ("Convert wchar string to locale string error, locale name=\"zz_ZZ.UTF-8\"",
                  Stderr([&] { narrow = Wide(c.units, "zz_ZZ.UTF-8").ToStdCStr(); }));
        EXPECT_EQ(c.kept, narrow);
    }
}

TEST(ZNRStringTest, FormattingIsCutAt4096Bytes) {
    std::string long_arg(5000, 'a');
    ZNRString s("", "zz_ZZ.UTF-8");
    s.NewFromTempl("%s", long_arg.c_str());
    EXPECT_EQ(4096u, s.size());
    EXPECT_STREQ("zz_ZZ.UTF-8", s.GetLocaleName());

    static unsigned short const wide_fmt[] = {'%', 'd', '-', '%', 's', 0};
    ZNRString f;
    f.NewFromTempl(wide_fmt, -7, "\xD6\xD0");
    f.AppendFromTempl("|%03u", 5u);
    EXPECT_EQ((Units{'-', '7', '-', 0x4E2D, '|', '0', '0', '5'}), UnitsOf(f));
    f.AppendFromTempl("%s", long_arg.c_str());
    EXPECT_EQ(8u + 4096u, f.size());

    // The cut splits a GBK character: the half is dropped and reported.
    std::string split = std::string(4095, 'b') + "\xD6\xD0";
    EXPECT_EQ(ToWideError("chs"), Stderr([&] { f.NewFromTempl("%s", split.c_str()); }));
    EXPECT_EQ(4095u, f.size());
    EXPECT_EQ('b', f[4094]);
}

// In ISO-2022-JP U+6230 U+6248 is "Y%n=" and U+30F3 "%s": only the template's
// own conversions may reach the formatter.
TEST(ZNRStringTest, WideTemplateConversionsAreFoundBeforeCharsetConversion) {
    auto u = [](char16_t const* s) { return reinterpret_cast<unsigned short const*>(s); };
    struct { char const* locale_name; char16_t const *templ, *out; } const rows[] = {
        {"ISO-2022-JP", u"\u6230\u6248\u30F3", u"\u6230\u6248\u30F3"},
        {"ISO-2022-JP", u"\u6230%d\u6248%s\u30F3|%*d%%%.1f", u"\u623042\u6248ab\u30F3|    7%1.5"},
        {"chs", u"<%d\u4E2D%-4s|%*d%%%.1f>", u"<42\u4E2Dab  |    7%1.5>"},
        {"zz_ZZ.UTF-8", u"%d%y %1$d\u00E9", u"42%y %1$d\u00E9"},  // unknown and positional stay text
    };
    for (auto const& row : rows) {
#ifdef _WIN32
        // Wine has no ISO-2022-JP (code page 50220); Windows always has.
        if (std::strcmp(row.locale_name, "ISO-2022-JP") == 0 && !IsValidCodePage(50220)) continue;
#endif
        ZNRString s("old", row.locale_name);
        s.NewFromTempl(u(row.templ), 42, "ab", 5, 7, 1.5);
        EXPECT_EQ(ZNRString(row.out), s) << row.locale_name << " " << s.ToStdCStr();
        s.AppendFromTempl(u(row.templ), 42, "ab", 5, 7, 1.5);
        EXPECT_EQ(ZNRString(row.out) + ZNRString(row.out), s);
    }
    ZNRString s;
    int count = -1;
    s.NewFromTempl(u(u"\u4E2D%n!"), &count);
    EXPECT_EQ(2, count);  // narrow bytes so far
    // A cut inside text keeps whole characters.
    s.NewFromTempl(u(u"%s\u4E2D\u6587"), std::string(4093, 'b').c_str());
    EXPECT_EQ(4094u, s.size());
    EXPECT_EQ(0x4E2D, s[4093]);
}

TEST(ZNRStringTest, TrimSplitAndAffixes) {
    struct { char16_t const* in; int type; char16_t const* out; } const trims[] = {
        {u"xxaxx", ZNRString::TRIM_BOTH, u"a"}, {u"xxaxx", ZNRString::TRIM_LEFT, u"axx"},
        {u"xxaxx", ZNRString::TRIM_RIGHT, u"xxa"},
        // A left trim keeps a string made only of the character.
        {u"xxx", ZNRString::TRIM_LEFT, u"xxx"}, {u"xxx", ZNRString::TRIM_RIGHT, u""},
        {u"xxx", ZNRString::TRIM_BOTH, u""}, {u"xax", 3, u"xax"}, {u"", ZNRString::TRIM_BOTH, u""},
    };
    for (auto const& t : trims)
        EXPECT_EQ(ZNRString(t.out), ZNRString(t.in).Trim('x', static_cast<ZNRString::TrimType_t>(t.type)))
            << ZNRString(t.in).ToStdCStr() << " type " << t.type;

    // Split appends only non-empty tokens, in the default locale.
    using V = std::vector<ZNRString>;
    auto split = [](ZNRString const& s, char16_t const* sep, V out = {}) {
        s.Split(ZNRString(sep), &out);
        return out;
    };
    V out = split(ZNRString(u";a;;b;", "zz_ZZ.UTF-8"), u";", {ZNRString(u"kept")});
    EXPECT_EQ((V{ZNRString(u"kept"), ZNRString(u"a"), ZNRString(u"b")}), out);
    EXPECT_STREQ("chs", out.back().GetLocaleName());
    EXPECT_EQ((V{ZNRString(u"k1"), ZNRString(u"v1"), ZNRString(u"k2"), ZNRString(u"v2")}),
              split(ZNRString(u"k1=v1, k2 =v2"), u", ="));
    EXPECT_EQ(V{}, split(ZNRString(u";;;"), u";"));
    EXPECT_EQ(V{}, split(ZNRString(u""), u";"));
    EXPECT_EQ(V{ZNRString(u"a;b")}, split(ZNRString(u"a;b"), u""));
    // The text ends at an embedded zero unit.
    EXPECT_EQ((V{ZNRString(u"a"), ZNRString(u"b")}), split(Wide({'a', ';', 'b', 0, 'c'}), u";"));

    struct { char16_t const *s, *affix; bool starts, ends; } const affixes[] = {
        {u"abcab", u"", true, true},    {u"abcab", u"abc", true, false}, {u"abcab", u"bc", false, false},
        {u"abcab", u"abcabc", false, false}, {u"abcab", u"ab", true, true}, {u"ab", u"xab", false, false},
        {u"", u"", true, true},
    };
    for (auto const& a : affixes) {
        EXPECT_EQ(a.starts, ZNRString(a.s).StartsWith(ZNRString(a.affix))) << ZNRString(a.affix).ToStdCStr();
        EXPECT_EQ(a.ends, ZNRString(a.s).EndsWith(ZNRString(a.affix))) << ZNRString(a.affix).ToStdCStr();
    }
}

TEST(ZNRStringTest, LocaleFollowsCopiesButNotSubstrOrPointerAssignment) {
    ZNRString s(u"hello", "");
    EXPECT_STREQ("chs", s.substr(1, 3).GetLocaleName());
    EXPECT_EQ(ZNRString(u"ell"), s.substr(1, 3));
    ZNRString copy(s), target(u"t", "zz_ZZ.UTF-8");
    target = copy;
    EXPECT_STREQ("", target.GetLocaleName());

    static unsigned short const text[] = {'n', 'e', 'w', 0};
    s = text;
    EXPECT_STREQ("chs", s.GetLocaleName());
    EXPECT_EQ(ZNRString(u"new"), s);
    // Narrow text now goes through GBK.
    EXPECT_EQ("\xD6\xD0", (s = static_cast<unsigned short>(0x4E2D)).ToStdCStr());
    ZNRString other(u"o", "zz_ZZ.UTF-8");
    other.swap(s);
    EXPECT_EQ("chs|zz_ZZ.UTF-8", std::string(other.GetLocaleName()) + "|" + s.GetLocaleName());
    EXPECT_EQ(ZNRString(u"o"), s);

    ZNRString self("ab\xD6\xD0");
    ZNRString& alias = self;
    EXPECT_EQ("Same string object use operator=, string_context=\"ab\xD6\xD0\"",
              Stderr([&] { self = alias; }));
    EXPECT_EQ((Units{'a', 'b', 0x4E2D}), UnitsOf(self));
}

TEST(ZNRStringTest, CaseFindAndComparison) {
    EXPECT_TRUE(ZNRString(u"HeLLo-1").IgnCaseCompare(ZNRString(u"hello-1", "zz_ZZ.UTF-8")));
    EXPECT_FALSE(ZNRString(u"hello").IgnCaseCompare(ZNRString(u"hellO!")));
    ZNRString mixed = Wide({'a', 'B', 0x4E2D, 0xD83D, 0xDE00}), original(mixed);
    EXPECT_EQ((Units{'A', 'B', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(mixed.ToUpper()));
    EXPECT_EQ((Units{'a', 'b', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(mixed.ToLower()));
    EXPECT_TRUE(original.IgnCaseCompare(mixed));
    EXPECT_EQ((Units{'a', 'B', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(original));
    EXPECT_TRUE(Wide({'z'}) < Wide({0x4E2D}));  // by unit value
    EXPECT_EQ(ZNRString(u"ab"), ZNRString(u"a") + ZNRString(u"b"));
    EXPECT_EQ((Units{'A'}), UnitsOf(ZNRString('A')));

    // Misses give the 32-bit npos, not the standard one.
    ZNRString s(u"abcabc");
    for (auto miss : {s.find(ZNRString(u"x")), s.find(static_cast<unsigned short>('a'), 4),
                      s.find(static_cast<unsigned short>('a'), 100), s.rfind(ZNRString(u"cab"), 1),
                      s.find_first_not_of(ZNRString(u"abc"))})
        EXPECT_EQ(0xFFFFFFFFu, miss);
    EXPECT_EQ(3u, s.find(ZNRString(u"abc"), 1));
    EXPECT_EQ(2u, s.rfind(ZNRString(u"cab")));
    EXPECT_EQ(ZNRString(u"abca"), s.erase(4));
    EXPECT_EQ(ZNRString(u"aZ"), s.replace(1, ZNRString::npos, ZNRString(u"Z")));
}

TEST(ZNRStringTest, IsUtf8ChecksTheNarrowForm) {
    struct { Units units; char const* locale_name; bool utf8; } const cases[] = {
        {{}, "chs", true}, {{'p', 'l'}, "chs", true}, {{0x4E2D}, "chs", false},  // D6 D0 in GBK
        {{0x4E2D, 'a'}, "zz_ZZ.UTF-8", true}, {{0xE9, 0xDF}, "zz_ZZ.UTF-8", true},  // C3 A9 C3 9F
        {{0xD83D, 0xDE00}, "zz_ZZ.UTF-8", false},  // four bytes
        // Single bytes through Latin-1: a cut-off lead at the end still passes.
        {{'a', 0xE9}, "ISO-8859-1", true}, {{'a', 0xC3}, "ISO-8859-1", true},
        {{0xE9, 'A'}, "ISO-8859-1", false}, {{0xA9}, "ISO-8859-1", false},  // continuation first
        {{0xC3, 0xA9}, "ISO-8859-1", true},
    };
    for (auto const& c : cases)
        EXPECT_EQ(c.utf8, Wide(c.units, c.locale_name).IsUTF8())
            << c.locale_name << " " << testing::PrintToString(c.units);
}

TEST(ZNRStringTest, ConcurrentConversionsStayIndependent) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &failures] {
            char const* locale_name = (t % 2 == 0) ? "chs" : "zz_ZZ.UTF-8";
            char const* bytes = (t % 2 == 0) ? "\xD6\xD0" "a" : "\xE4\xB8\xAD" "a";
            for (int i = 0; i < 2000; ++i) {
                ZNRString s(bytes, locale_name);
                std::string utf8;
                failures[t] += s.size() != 2 || s[0] != 0x4E2D || s.ToStdCStr() != bytes ||
                               !s.ToUtf8Str(&utf8) || utf8 != "\xE4\xB8\xAD" "a";
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), failures);
}

#ifdef _WIN32
namespace {

// The system's own reading of bytes in a code page; empty when it refuses them.
Units SystemUnits(UINT code_page, std::string const& bytes) {
    int const n = MultiByteToWideChar(code_page, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()),
                                      nullptr, 0);
    std::wstring wide(n > 0 ? n : 0, L'\0');
    if (n > 0) MultiByteToWideChar(code_page, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()), &wide[0], n);
    return Units(wide.begin(), wide.end());
}

std::string SystemUtf8(Units const& units) {
    std::wstring const wide(units.begin(), units.end());
    int const n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string utf8(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &utf8[0], n, nullptr, nullptr);
    return utf8;
}

}  // namespace

TEST(ZNRStringTest, WindowsCodePage936BothWaysAndTheAnsiDefault) {
    // GBK text the system reads: "chs" gives its units, the same bytes back,
    // and the system's UTF-8. 0x80 is the euro sign, 0x81 0x40 the first
    // two-byte character, 0xA1 0xA1 the ideographic space.
    for (std::string const bytes : {"\xD6\xD0\xCE\xC4", "a\x80z", "\x81\x40\xFE\x4F", "x\xA1\xA1y"}) {
        Units const units = SystemUnits(936, bytes);
        ASSERT_FALSE(units.empty()) << bytes;
        ZNRString s;
        std::string back, utf8;
        EXPECT_EQ("", Stderr([&] { s = ZNRString(bytes, "chs"); back = s.ToStdCStr(); }));
        EXPECT_EQ(units, UnitsOf(s));
        EXPECT_EQ(bytes, back);
        EXPECT_TRUE(s.ToUtf8Str(&utf8));
        EXPECT_EQ(SystemUtf8(units), utf8);
    }
    // Bytes the system refuses: a cut-off lead, a bad trail byte. What came
    // before stays.
    struct { char const* bytes; Units kept; } const bad[] = {
        {"ab\x81", {'a', 'b'}}, {"\xD6\xD0\x81\x7F", {0x4E2D}}, {"\xD6\xD0\x81\x20z", {0x4E2D}},
    };
    for (auto const& c : bad) {
        EXPECT_TRUE(SystemUnits(936, c.bytes).empty()) << c.bytes;
        ZNRString s;
        EXPECT_EQ(ToWideError("chs"), Stderr([&] { s = ZNRString(c.bytes, "chs"); }));
        EXPECT_EQ(c.kept, UnitsOf(s)) << c.bytes;
    }
    // Units GBK has no bytes for go no further, with no look-alike put in
    // their place: Thai ko kai, A with grave.
    for (Units const& units : {Units{'x', 0x0E01, 'y'}, Units{'x', 0x00C0, 'y'}}) {
        std::string bytes;
        EXPECT_EQ("Convert wchar string to locale string error, locale name=\"chs\"",
                  Stderr([&] { bytes = Wide(units).ToStdCStr(); }));
        EXPECT_EQ("x", bytes);
    }

    // The empty name is the user's default: the ANSI code page.
    std::string const ansi = "ab\xD6\xD0";
    EXPECT_EQ(SystemUnits(CP_ACP, ansi), UnitsOf(ZNRString(ansi, "")));
}
#endif
