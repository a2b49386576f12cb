#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

typedef std::vector<unsigned short> Units;

Units UnitsOf(ZNRString const& s) { return Units(s.begin(), s.end()); }

ZNRString Wide(Units const& units, char const* locale_name = "chs") {
    return ZNRString(ZNRStdWString(units.begin(), units.end()), locale_name);
}

}  // namespace

TEST(ZNRStringTest, GbkRoundTripsThroughUtf16) {
    ZNRString zh("\xD6\xD0\xCE\xC4");
    EXPECT_STREQ("chs", zh.GetLocaleName());
    EXPECT_EQ((Units{0x4E2D, 0x6587}), UnitsOf(zh));
    EXPECT_EQ("\xD6\xD0\xCE\xC4", zh.ToStdCStr());
    EXPECT_EQ("x\xD6\xD0" "y", Wide({'x', 0x4E2D, 'y'}).ToStdCStr());
    EXPECT_EQ((Units{0x4E2D, 0x6587}), UnitsOf(ZNRString(std::string("\xD6\xD0\xCE\xC4"), "chs")));

    std::string utf8 = "unchanged";
    ASSERT_TRUE(zh.ToUtf8Str(&utf8));
    EXPECT_EQ("\xE4\xB8\xAD\xE6\x96\x87", utf8);

    ZNRString empty("");
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ("", empty.ToStdCStr());
    ASSERT_TRUE(empty.ToUtf8Str(&utf8));
    EXPECT_EQ("", utf8);
    EXPECT_TRUE(ZNRString(static_cast<char const*>(nullptr)).empty());
    EXPECT_TRUE(ZNRString(static_cast<unsigned short const*>(nullptr)).empty());
}

TEST(ZNRStringTest, Utf8RoundTripKeepsSurrogatePairs) {
    ZNRString s(u"old");
    ASSERT_TRUE(s.NewFromUtf8Str("a\xF0\x9F\x98\x80\xE4\xB8\xAD"));
    EXPECT_EQ((Units{'a', 0xD83D, 0xDE00, 0x4E2D}), UnitsOf(s));
    std::string back;
    ASSERT_TRUE(s.ToUtf8Str(&back));
    EXPECT_EQ("a\xF0\x9F\x98\x80\xE4\xB8\xAD", back);

    ASSERT_TRUE(s.NewFromUtf8Str(""));
    EXPECT_TRUE(s.empty());
}

TEST(ZNRStringTest, MalformedUtf8AndLoneSurrogatesFail) {
    ZNRString s(u"keep");
    EXPECT_FALSE(s.NewFromUtf8Str("ab\xC3\x28"));          // bad continuation
    EXPECT_FALSE(s.NewFromUtf8Str("\xC0\xAF"));            // overlong
    EXPECT_FALSE(s.NewFromUtf8Str("ab\xE4\xB8"));          // cut off
    EXPECT_FALSE(s.NewFromUtf8Str("\xED\xA0\x80"));        // encoded surrogate
    EXPECT_EQ(ZNRString(u"keep"), s);

    std::string out = "untouched";
    EXPECT_FALSE(Wide({'a', 0xD83D}).ToUtf8Str(&out));     // high at the end
    EXPECT_FALSE(Wide({'a', 0xDE00, 'b'}).ToUtf8Str(&out)); // low alone
    EXPECT_FALSE(Wide({0xD83D, 'b'}).ToUtf8Str(&out));      // high, no low
    EXPECT_EQ("untouched", out);
}

TEST(ZNRStringTest, ConversionFailuresReportAndKeepPrefix) {
    testing::internal::CaptureStderr();
    ZNRString cut("A\xD6");
    EXPECT_EQ("Convert locale string to wchar string error, locale name=\"chs\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(ZNRString(u"A"), cut);

    testing::internal::CaptureStderr();
    ZNRString bad_trail("AB\xD6\x20" "C");
    EXPECT_EQ("Convert locale string to wchar string error, locale name=\"chs\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(ZNRString(u"AB"), bad_trail);

    // No GBK form for characters outside the basic plane.
    testing::internal::CaptureStderr();
    std::string narrow = Wide({0x4E2D, 0xD83D, 0xDE00, 'z'}).ToStdCStr();
    EXPECT_EQ("Convert wchar string to locale string error, locale name=\"chs\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("\xD6\xD0", narrow);

    // The message names the locale as the string was given it.
    testing::internal::CaptureStderr();
    ZNRString ascii("ok\xE4", "C");
    ZNRString unknown("x", "no-such-charset");
    EXPECT_EQ("Convert locale string to wchar string error, locale name=\"C\""
              "Convert locale string to wchar string error, locale name=\"no-such-charset\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(ZNRString(u"ok"), ascii);
    EXPECT_TRUE(unknown.empty());
}

TEST(ZNRStringTest, LocaleNamesSelectTheEncoding) {
    // The codeset comes from the name, whether or not the machine has the locale.
    EXPECT_EQ((Units{0x4E2D}), UnitsOf(ZNRString("\xE4\xB8\xAD", "zz_ZZ.UTF-8")));
    EXPECT_EQ((Units{0xE9}), UnitsOf(ZNRString("\xE9", "xx_XX.ISO-8859-1@euro")));
    EXPECT_EQ("\xE4\xB8\xAD", Wide({0x4E2D}, "zz_ZZ.UTF-8").ToStdCStr());
    EXPECT_TRUE(ZNRString("x", "zz_ZZ.UTF-8").GetLocale() == std::locale::classic());

    // The empty name is the process's C locale: plain ASCII here.
    testing::internal::CaptureStderr();
    ZNRString current("ab\xD6\xD0", "");
    EXPECT_EQ("Convert locale string to wchar string error, locale name=\"\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(ZNRString(u"ab"), current);
    EXPECT_STREQ("", ZNRString(u"x", nullptr).GetLocaleName());
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
    EXPECT_EQ((Units{'-', '7', '-', 0x4E2D}), UnitsOf(f));
    f.AppendFromTempl("|%03u", 5u);
    EXPECT_EQ((Units{'-', '7', '-', 0x4E2D, '|', '0', '0', '5'}), UnitsOf(f));
    f.AppendFromTempl("%s", long_arg.c_str());
    EXPECT_EQ(8u + 4096u, f.size());

    // The cut splits a GBK character: the half is dropped and reported.
    std::string split(4095, 'b');
    split += "\xD6\xD0";
    testing::internal::CaptureStderr();
    f.NewFromTempl("%s", split.c_str());
    EXPECT_EQ("Convert locale string to wchar string error, locale name=\"chs\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(4095u, f.size());
    EXPECT_EQ('b', f[4094]);
}

TEST(ZNRStringTest, TrimKeepsAllCharStringOnStartTrim) {
    EXPECT_EQ(ZNRString(u"a"), ZNRString(u"xxaxx").Trim('x', ZNRString::TRIM_BOTH));
    EXPECT_EQ(ZNRString(u"axx"), ZNRString(u"xxaxx").Trim('x', ZNRString::TRIM_LEFT));
    EXPECT_EQ(ZNRString(u"xxa"), ZNRString(u"xxaxx").Trim('x', ZNRString::TRIM_RIGHT));
    EXPECT_EQ(ZNRString(u"xxx"), ZNRString(u"xxx").Trim('x', ZNRString::TRIM_LEFT));
    EXPECT_TRUE(ZNRString(u"xxx").Trim('x', ZNRString::TRIM_RIGHT).empty());
    EXPECT_TRUE(ZNRString(u"xxx").Trim('x', ZNRString::TRIM_BOTH).empty());
    EXPECT_EQ(ZNRString(u"xax"), ZNRString(u"xax").Trim('x', static_cast<ZNRString::TrimType_t>(3)));
    EXPECT_TRUE(ZNRString(u"").Trim('x', ZNRString::TRIM_BOTH).empty());
}

TEST(ZNRStringTest, SplitAppendsOnlyNonEmptyTokens) {
    std::vector<ZNRString> out;
    out.push_back(ZNRString(u"kept"));
    ZNRString(u";a;;b;", "zz_ZZ.UTF-8").Split(ZNRString(u";"), &out);
    ASSERT_EQ(3u, out.size());
    EXPECT_EQ(ZNRString(u"kept"), out[0]);
    EXPECT_EQ(ZNRString(u"a"), out[1]);
    EXPECT_EQ(ZNRString(u"b"), out[2]);
    EXPECT_STREQ("chs", out[2].GetLocaleName());

    out.clear();
    ZNRString(u"k1=v1, k2 =v2").Split(ZNRString(u", ="), &out);
    ASSERT_EQ(4u, out.size());
    EXPECT_EQ(ZNRString(u"v2"), out[3]);

    out.clear();
    ZNRString(u";;;").Split(ZNRString(u";"), &out);
    ZNRString(u"").Split(ZNRString(u";"), &out);
    EXPECT_TRUE(out.empty());
    ZNRString(u"a;b").Split(ZNRString(u""), &out);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(ZNRString(u"a;b"), out[0]);

    // The text ends at an embedded zero unit.
    out.clear();
    Wide({'a', ';', 'b', 0, 'c'}).Split(ZNRString(u";"), &out);
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(ZNRString(u"b"), out[1]);
}

TEST(ZNRStringTest, SubstrAndPointerAssignmentResetLocale) {
    ZNRString s(u"hello", "");
    EXPECT_STREQ("", s.GetLocaleName());
    EXPECT_STREQ("chs", s.substr(1, 3).GetLocaleName());
    EXPECT_EQ(ZNRString(u"ell"), s.substr(1, 3));

    ZNRString copy(s);
    EXPECT_STREQ("", copy.GetLocaleName());
    ZNRString target(u"t", "zz_ZZ.UTF-8");
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
    EXPECT_STREQ("chs", other.GetLocaleName());
    EXPECT_STREQ("zz_ZZ.UTF-8", s.GetLocaleName());
    EXPECT_EQ(ZNRString(u"o"), s);
}

TEST(ZNRStringTest, SelfAssignmentIsReportedAndIgnored) {
    ZNRString s("ab\xD6\xD0");
    ZNRString& alias = s;
    testing::internal::CaptureStderr();
    s = alias;
    EXPECT_EQ("Same string object use operator=, string_context=\"ab\xD6\xD0\"",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ((Units{'a', 'b', 0x4E2D}), UnitsOf(s));
}

TEST(ZNRStringTest, StartsWithAndEndsWithEdges) {
    ZNRString s(u"abcab");
    EXPECT_TRUE(s.StartsWith(ZNRString(u"")));
    EXPECT_TRUE(s.StartsWith(ZNRString(u"abc")));
    EXPECT_FALSE(s.StartsWith(ZNRString(u"bc")));
    EXPECT_FALSE(s.StartsWith(ZNRString(u"abcabc")));
    EXPECT_TRUE(s.EndsWith(ZNRString(u"")));
    EXPECT_TRUE(s.EndsWith(ZNRString(u"ab")));
    EXPECT_FALSE(s.EndsWith(ZNRString(u"abc")));
    EXPECT_FALSE(ZNRString(u"ab").EndsWith(ZNRString(u"xab")));
    EXPECT_TRUE(ZNRString(u"").StartsWith(ZNRString(u"")));
    EXPECT_TRUE(ZNRString(u"").EndsWith(ZNRString(u"")));
}

TEST(ZNRStringTest, CaseFoldingAndComparison) {
    EXPECT_TRUE(ZNRString(u"HeLLo-1").IgnCaseCompare(ZNRString(u"hello-1", "zz_ZZ.UTF-8")));
    EXPECT_FALSE(ZNRString(u"hello").IgnCaseCompare(ZNRString(u"hellO!")));
    ZNRString mixed = Wide({'a', 'B', 0x4E2D, 0xD83D, 0xDE00});
    ZNRString original(mixed);
    EXPECT_EQ((Units{'A', 'B', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(mixed.ToUpper()));
    EXPECT_EQ((Units{'a', 'b', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(mixed.ToLower()));
    EXPECT_TRUE(original.IgnCaseCompare(mixed));
    EXPECT_EQ((Units{'a', 'B', 0x4E2D, 0xD83D, 0xDE00}), UnitsOf(original));

    EXPECT_TRUE(ZNRString(u"ab") < ZNRString(u"b"));
    EXPECT_TRUE(Wide({'z'}) < Wide({0x4E2D}));  // by unit value
    EXPECT_EQ(ZNRString(u"ab"), ZNRString(u"a") + ZNRString(u"b"));
    EXPECT_EQ((Units{'A'}), UnitsOf(ZNRString('A')));
}

TEST(ZNRStringTest, FindReturnsNposOnMiss) {
    ZNRString s(u"abcabc");
    EXPECT_EQ(0xFFFFFFFFu, ZNRString::npos);
    EXPECT_EQ(0xFFFFFFFFu, s.find(ZNRString(u"x")));
    EXPECT_EQ(0xFFFFFFFFu, s.find(static_cast<unsigned short>('a'), 4));
    EXPECT_EQ(0xFFFFFFFFu, s.find(static_cast<unsigned short>('a'), 100));
    EXPECT_EQ(0xFFFFFFFFu, s.rfind(ZNRString(u"cab"), 1));
    EXPECT_EQ(0xFFFFFFFFu, s.find_first_not_of(ZNRString(u"abc")));
    EXPECT_EQ(3u, s.find(ZNRString(u"abc"), 1));
    EXPECT_EQ(2u, s.rfind(ZNRString(u"cab")));
    s.erase(4);
    EXPECT_EQ(ZNRString(u"abca"), s);
    s.replace(1, ZNRString::npos, ZNRString(u"Z"));
    EXPECT_EQ(ZNRString(u"aZ"), s);
}

TEST(ZNRStringTest, IsUtf8ChecksTheNarrowForm) {
    EXPECT_TRUE(ZNRString(u"").IsUTF8());
    EXPECT_TRUE(ZNRString(u"plain").IsUTF8());
    EXPECT_FALSE(Wide({0x4E2D}).IsUTF8());                    // D6 D0 in GBK
    EXPECT_TRUE(Wide({0x4E2D, 'a'}, "zz_ZZ.UTF-8").IsUTF8());
    EXPECT_TRUE(Wide({0xE9, 0xDF}, "zz_ZZ.UTF-8").IsUTF8());  // C3 A9 C3 9F
    EXPECT_FALSE(Wide({0xD83D, 0xDE00}, "zz_ZZ.UTF-8").IsUTF8());  // four bytes
    // Single bytes through Latin-1: a cut-off lead at the end still passes.
    EXPECT_TRUE(Wide({'a', 0xE9}, "ISO-8859-1").IsUTF8());
    EXPECT_TRUE(Wide({'a', 0xC3}, "ISO-8859-1").IsUTF8());
    EXPECT_FALSE(Wide({0xE9, 'A'}, "ISO-8859-1").IsUTF8());
    EXPECT_FALSE(Wide({0xA9}, "ISO-8859-1").IsUTF8());        // continuation first
    EXPECT_TRUE(Wide({0xC3, 0xA9}, "ISO-8859-1").IsUTF8());
}

TEST(ZNRStringTest, ConcurrentConversionsStayIndependent) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            char const* locale_name = (t % 2 == 0) ? "chs" : "zz_ZZ.UTF-8";
            char const* bytes = (t % 2 == 0) ? "\xD6\xD0" "a" : "\xE4\xB8\xAD" "a";
            for (int i = 0; i < 2000; ++i) {
                ZNRString s(bytes, locale_name);
                std::string utf8;
                if (s.size() != 2 || s[0] != 0x4E2D || s.ToStdCStr() != bytes ||
                    !s.ToUtf8Str(&utf8) || utf8 != "\xE4\xB8\xAD" "a") {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), failures);
}
