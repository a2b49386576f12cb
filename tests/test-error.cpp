#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
#endif

namespace {

// An operating-system error number and its text as the system gives it.
#ifdef _WIN32
int const kRefused = WSAECONNREFUSED;
char const kRefusedName[] = "WSAECONNREFUSED";

std::u16string SystemText(DWORD number) {
    wchar_t* text = nullptr;
    DWORD const n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, number, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                   reinterpret_cast<wchar_t*>(&text), 1024, nullptr);
    if (n == 0) return u"";
    std::u16string const out(reinterpret_cast<char16_t const*>(text), n);
    LocalFree(text);
    return out;
}
#else
int const kRefused = ECONNREFUSED;
char const kRefusedName[] = "ECONNREFUSED";
#endif

std::string MsgOf(std::uint64_t code, char const* initial = "") {
    ZNRString text(initial);
    ZNRGetErrorMsg(code, &text);
    return text.ToStdCStr();
}

// The README's Errors table as the catalogue renders it.
std::string RenderedTable() {
    std::string table = "| number | name | meaning |\n|---|---|---|\n";
#define ROW(number, name, meaning) \
    table += "| " #number " | `ZNR_ERROR_" #name "` | " meaning " |\n";
    ZNR_ERROR_LIST(ROW)
#undef ROW
    return table;
}

std::string ReadmeTable() {
    std::ifstream readme(PLEXA_README);
    std::string line, table;
    bool in_section = false;
    while (std::getline(readme, line)) {
        if (line.rfind("## ", 0) == 0) in_section = line == "## Errors";
        if (in_section && line.rfind("|", 0) == 0) table += line + "\n";
    }
    return table;
}

} // namespace

TEST(ErrorMsg, TextsOfEveryKind) {
    EXPECT_EQ("No error", MsgOf(0, "previous text"));
    EXPECT_EQ("A user error was occured, domain=1 errnum=19", MsgOf(ZNR_ERROR_PACK_OVER_LIMIT));
    // Domain and number come from their own bits, in that order, unsigned.
    EXPECT_EQ("A user error was occured, domain=7 errnum=4294967295",
              MsgOf(0x80000007FFFFFFFFULL));
    EXPECT_EQ(std::strerror(ENOENT), MsgOf(0x0000000100000000ULL | ENOENT, "previous text"));
#ifndef _WIN32  // there: FormatMessageW's, below
    EXPECT_EQ(std::strerror(ECONNREFUSED), MsgOf(0x4000000100000000ULL | ECONNREFUSED));
#endif
    // Kind 3 is not ours: the text stays as it was.
    EXPECT_EQ("keep me", MsgOf(ZNR_ERROR_FAILED_ID, "keep me"));
}

TEST(ErrorName, CatalogueBoundsGapsAndOtherKinds) {
    struct Case { std::uint64_t code; char const* name; };
    for (Case c : {Case{0, "ZNR_ERROR_NONE"}, {0x8000000100000001ULL, "ZNR_ERROR_INVALID_PARAM"},
                   {0x8000000100000011ULL, "ZNR_ERROR_TIMED_OUT"},
                   {0x8000000100000038ULL, "ZNR_ERROR_UNRESOLVED_HOST"},
                   {0x8000000100000005ULL, "unknown"}, {0x8000000100000039ULL, "unknown"},
                   {0x8000000000000000ULL, "unknown"}, {0x8000000700000011ULL, "unknown"},
                   {ZNRSysError(kRefused), kRefusedName}, {ZNRCrtError(ENOENT), "ENOENT"},
                   {ZNRSysError(100000), "unknown"}, {0xC000000100000011ULL, "unknown"}})
        EXPECT_STREQ(c.name, ZNRGetErrorName(c.code)) << std::hex << c.code;
}

TEST(ErrorCode, CategoriesMessagesAndRoundTrip) {
    std::error_category const& plexa = ZNRErrorCategory();
    EXPECT_STREQ("plexa", plexa.name());
    EXPECT_EQ("a wait for an operation that timed out", plexa.message(17));
    EXPECT_EQ("unknown error", plexa.message(5));
    EXPECT_EQ("unknown error", plexa.message(-1));

    EXPECT_FALSE(ZNRMakeErrorCode(0));
    std::error_code const timed_out = ZNRMakeErrorCode(ZNR_ERROR_TIMED_OUT);
    EXPECT_EQ(&plexa, &timed_out.category());
    EXPECT_EQ(ZNR_ERROR_TIMED_OUT, ZNRUserError(static_cast<std::uint32_t>(timed_out.value())));
    std::error_code const refused = ZNRMakeErrorCode(ZNRSysError(kRefused));
    EXPECT_EQ(std::error_code(kRefused, std::system_category()), refused);
#if !defined(_WIN32) || !defined(__GLIBCXX__) || _GLIBCXX_RELEASE >= 13
    // libstdc++ maps Windows errors to std::errc only from GCC 13 on.
    EXPECT_EQ(std::errc::connection_refused, refused);
#endif
    EXPECT_EQ(std::error_code(ENOENT, std::generic_category()), ZNRMakeErrorCode(ZNRCrtError(ENOENT)));
    // Codes the library never builds pass for none of its errors.
    EXPECT_EQ(std::error_code(-1, plexa), ZNRMakeErrorCode(0xC000000100000011ULL));
    EXPECT_EQ(std::error_code(-1, plexa), ZNRMakeErrorCode(0x8000000700000011ULL));
}

#ifdef _WIN32
TEST(ErrorMsg, WindowsSystemTextsComeWithTheirLineBreak) {
    for (DWORD number : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_FILE_NOT_FOUND}, DWORD{ERROR_IO_PENDING},
                         DWORD{WSAECONNREFUSED}}) {
        std::u16string const expected = SystemText(number);
        ASSERT_GT(expected.size(), 2u) << number;
        EXPECT_EQ(u"\r\n", expected.substr(expected.size() - 2)) << number;
        ZNRString text("previous text");
        ZNRGetErrorMsg(ZNRSysError(static_cast<int>(number)), &text);
        EXPECT_EQ(ZNRString(reinterpret_cast<unsigned short const*>(expected.c_str())), text) << number;
    }
    // A number the system has no text for: none, not the previous text.
    ASSERT_EQ(u"", SystemText(0x2FFFFFFF));
    EXPECT_EQ("", MsgOf(ZNRSysError(0x2FFFFFFF), "previous text"));
}
#endif

TEST(ErrorCatalogue, ReadmeTableMatches) {
    EXPECT_EQ(RenderedTable(), ReadmeTable())
        << "README.md's \"## Errors\" table is out of date; paste this there:\n" << RenderedTable();
}

TEST(Assert, LogAssertPrintsAndReturnsTrueAssertIsSilent) {
    testing::internal::CaptureStderr();
    ZNRLogAssert("x > 0", "src/a.cpp", 42, "Worker::Run");
    EXPECT_EQ("Assert failed, src/a.cpp(42):Worker::Run @ x > 0\n",
              testing::internal::GetCapturedStderr());

    testing::internal::CaptureStderr();
    ZNRAssert(true, "always", "b.cpp", 1, "f");
    ZNR_ASSERT(1 + 1 == 2);
    ZNRBackTrace();  // no debugger attached: returns
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(AssertDeathTest, FalseConditionPrintsThenAborts) {
    EXPECT_DEATH(ZNRAssert(false, "ptr != nullptr", "c.cpp", 7, "Pool::Free"),
                 "Assert failed, c\\.cpp\\(7\\):Pool::Free @ ptr != nullptr");
    // Spelt for both regular expression flavours gtest has (POSIX, and its own on Windows).
    std::string const line = std::to_string(__LINE__ + 1);
    EXPECT_DEATH(ZNR_ASSERT(2 < 1), "Assert failed, .*test-error\\.cpp\\(" + line + "\\):.* @ 2 < 1");
    EXPECT_DEATH(ZNRBreak(), "");
}
