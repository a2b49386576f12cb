#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

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
    EXPECT_EQ(std::strerror(ECONNREFUSED), MsgOf(0x4000000100000000ULL | ECONNREFUSED));
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
                   {ZNRSysError(ECONNREFUSED), "ECONNREFUSED"}, {ZNRCrtError(ENOENT), "ENOENT"},
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
    std::error_code const refused = ZNRMakeErrorCode(ZNRSysError(ECONNREFUSED));
    EXPECT_EQ(std::error_code(ECONNREFUSED, std::system_category()), refused);
    EXPECT_EQ(std::errc::connection_refused, refused);
    EXPECT_EQ(std::error_code(ENOENT, std::generic_category()), ZNRMakeErrorCode(ZNRCrtError(ENOENT)));
    // Codes the library never builds pass for none of its errors.
    EXPECT_EQ(std::error_code(-1, plexa), ZNRMakeErrorCode(0xC000000100000011ULL));
    EXPECT_EQ(std::error_code(-1, plexa), ZNRMakeErrorCode(0x8000000700000011ULL));
}

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
    EXPECT_DEATH(ZNR_ASSERT(2 < 1), "Assert failed, .*test-error\\.cpp\\([0-9]+\\):.* @ 2 < 1");
    EXPECT_DEATH(ZNRBreak(), "");
}
