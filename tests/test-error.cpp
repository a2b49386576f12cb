#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

std::string MsgOf(std::uint64_t code, char const* initial = "") {
    ZNRString text(initial);
    ZNRGetErrorMsg(code, &text);
    return text.ToStdCStr();
}

} // namespace

TEST(ErrorMsg, TextsOfEveryKind) {
    EXPECT_EQ("No error", MsgOf(0, "previous text"));
    EXPECT_EQ("A user error was occured, domain=1 errnum=19", MsgOf(ZNRUserError(19)));
    // Domain and number come from their own bits, in that order, unsigned.
    EXPECT_EQ("A user error was occured, domain=7 errnum=4294967295",
              MsgOf(0x80000007FFFFFFFFULL));
    EXPECT_EQ("No such file or directory", MsgOf(ZNRCrtError(ENOENT), "previous text"));
    EXPECT_EQ("Permission denied", MsgOf(ZNRSysError(EACCES)));
    EXPECT_EQ("Connection refused", MsgOf(0x4000000100000000ULL | ECONNREFUSED));
    // Kind 3 is not ours: the text stays as it was.
    EXPECT_EQ("keep me", MsgOf(0xC000000100000005ULL, "keep me"));
    EXPECT_EQ("keep me", MsgOf(ZNR_ERROR_FAILED_ID, "keep me"));
    EXPECT_EQ("", MsgOf(ZNR_ERROR_FAILED_ID));
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
