#include <plexa/plexa.h>

#include "fs-test-util.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace {

// Each test binary is its own process and every test that reads local
// time sets TZ first, so it is not restored.
void SetTimeZone(char const* tz) {
    fstest::SetEnv("TZ", tz);
    tzset();
}

std::array<int, 6> Fields(ZNRDate_t const& d) { return {d.year, d.month, d.day, d.hour, d.minute, d.second}; }
typedef std::vector<std::uint64_t> Errors;  // a braced list evaluates in order

// Good rows must store their value; bad rows must fail and leave the output alone.
template <class T, class F>
void ExpectParses(F parse, std::initializer_list<std::pair<char const*, T>> good,
                  std::initializer_list<char const*> bad) {
    for (auto const& [text, want] : good) {
        T v = want == T() ? T(1) : T();
        EXPECT_TRUE(parse(ZNRString(text), &v)) << '"' << text << '"';
        EXPECT_EQ(want, v) << '"' << text << '"';
    }
    for (char const* text : bad) {
        T v = T(5);
        EXPECT_FALSE(parse(ZNRString(text), &v)) << '"' << text << '"';
        EXPECT_EQ(T(5), v) << '"' << text << '"';
    }
}

// What the system says of a path that does not exist, and of one that goes
// through a plain file.
#ifdef _WIN32
int const kNoSuchFile = ERROR_FILE_NOT_FOUND;
int const kThroughFile = ERROR_PATH_NOT_FOUND;
#else
int const kNoSuchFile = ENOENT;
int const kThroughFile = ENOTDIR;
#endif

class FileSystemTest : public testing::Test {
protected:
    std::string Path(std::string const& rel) const { return dir_.Path(rel); }
    ZNRString WPath(std::string const& rel) const { return ZNRString(Path(rel).c_str()); }
    void Touch(std::string const& rel) const { std::ofstream(Path(rel)) << "x"; }

    fstest::TempDir dir_{"plexa-utils"};
    std::string const root_ = dir_.path();
};

} // namespace

TEST(StrToNumber, BasesBoundsAndRejects) {
    ExpectParses<int>(ZNRStrToInt32,
                      {{"0x1F", 31}, {"010", 8}, {"2147483647", 2147483647},
                       {"-2147483648", -2147483647 - 1}, {" +42", 42}},
                      {"12abc", "2147483648", "-2147483649", "0x80000000", "", "  ", "42 ", "--1",
                       "+-1", "0x", "99999999999999999999", "08"});
    int v = 77;
    EXPECT_FALSE(ZNRStrToInt32(ZNRString(u"\uFF11\uFF12"), &v) || v != 77);  // full-width digits
    // Negative texts wrap in unsigned conversions.
    ExpectParses<unsigned int>(ZNRStrToUInt32,
                               {{"0xFFFFFFFF", 0xFFFFFFFFu}, {"-1", 0xFFFFFFFFu}, {"-4294967295", 1u}},
                               {"4294967296", "-4294967296", ""});
    ExpectParses<std::uint64_t>(ZNRStrToUInt64,
                                {{"18446744073709551615", ~0ULL}, {"-1", ~0ULL},
                                 {"0x100000000", 0x100000000ULL}},
                                {"18446744073709551616", "1e3"});
    ExpectParses<unsigned short>(ZNRStrToUInt16, {{"65535", 65535}}, {"65536", "-1"});
    // Int16 has only an upper bound: below -32768 the value is cut to 16 bits.
    ExpectParses<short>(ZNRStrToInt16, {{"32767", 32767}, {"-32768", -32768}, {"-40000", 25536}},
                        {"32768", "-2147483649", "0x10000"});
    ExpectParses<bool>(ZNRStrToBoolean, {{"true", true}, {"false", false}},
                       {"True", "FALSE", "1", "", "true ", " false", "truex"});
}

TEST(Time, SysTickEpochAndLocalDate) {
    std::time_t const before = std::time(nullptr);
    std::int64_t const unix_seconds = static_cast<std::int64_t>(ZNRGetSysTick() / 1000) - 11644473600LL;
    EXPECT_GE(unix_seconds, before);
    EXPECT_LE(unix_seconds, std::time(nullptr));
    ZNRSleep(0);
    ZNRSleep(-5);

    SetTimeZone("CST-8");
    ZNRDate_t d = {};
    std::int64_t const epoch = 0, leap_day = 951827696;  // 2000-02-29 12:34:56 UTC
    ZNRGetDate(&d, &epoch);
    EXPECT_EQ((std::array<int, 6>{1970, 1, 1, 8, 0, 0}), Fields(d));
    ZNRGetDate(&d, &leap_day);
    EXPECT_EQ((std::array<int, 6>{2000, 2, 29, 20, 34, 56}), Fields(d));
    ZNRGetDate(&d, nullptr);
    EXPECT_TRUE(d.year >= 2024 && d.month >= 1 && d.month <= 12 && d.day >= 1 && d.day <= 31);
}

TEST(Time, StrptimeLayouts) {
    struct { char const *text, *layout; std::array<int, 6> date; } const good[] = {
        {"2024-02-29 23:59:58", "YYYY-MM-DD hh:mm:ss", {2024, 2, 29, 23, 59, 58}},
        {"12/31/1999 01:02:03", "MM/DD/YYYY hh:mm:ss", {1999, 12, 31, 1, 2, 3}},
        {"2023-06-07 08:09", "YYYY-MM-DD hh:mm", {2023, 6, 7, 8, 9, 0}},
        {"20230607080910", "YYYYMMDDhhmmss", {2023, 6, 7, 8, 9, 10}},
        {"2000-02-29", "YYYY-MM-DD", {2000, 2, 29, 0, 0, 0}},
        {"01/02/2024", "MM/DD/YYYY", {2024, 1, 2, 0, 0, 0}},
        {"20240102", "YYYYMMDD", {2024, 1, 2, 0, 0, 0}},
        {"202401020304", "YYYYMMDDhhmm", {2024, 1, 2, 3, 4, 0}},
        // An empty format takes the first layout that fits.
        {"01/02/2024 03:04:05", "", {2024, 1, 2, 3, 4, 5}},
        {"202401020304", "", {2024, 1, 2, 3, 4, 0}},
    };
    for (auto const& c : good) {
        ZNRDate_t d = {-1, -1, -1, -1, -1, -1};
        EXPECT_TRUE(ZNRStrptime(ZNRString(c.text), ZNRString(c.layout), &d)) << c.text;
        EXPECT_EQ(c.date, Fields(d)) << c.text;
    }
    char const* const bad[][2] = {
        {"2023-02-29", "YYYY-MM-DD"}, {"1900-02-29", "YYYY-MM-DD"}, {"2024-04-31", "YYYY-MM-DD"},
        {"2024-13-01", "YYYY-MM-DD"}, {"2024-00-10", "YYYY-MM-DD"}, {"2024-01-00", "YYYY-MM-DD"},
        {"2024-01-01 24:00:00", "YYYY-MM-DD hh:mm:ss"}, {"2024-01-01 23:60", "YYYY-MM-DD hh:mm"},
        {"2024-01-01 23:59:60", "YYYY-MM-DD hh:mm:ss"}, {"2024-1-01", "YYYY-MM-DD"},
        {"2024-01-01 ", "YYYY-MM-DD"}, {"2024/01/01", "YYYY-MM-DD"}, {"20240101", "YYYY-MM-DD"},
        {"2024-01-01", "%Y-%m-%d"}, {"2024-01-01", "YYYY-DD-MM"}, {"", ""},
        {"0000-01-01", "YYYY-MM-DD"}, {"2024-01-0x", ""},
    };
    ZNRDate_t d = {-1, -1, -1, -1, -1, -1};
    for (auto const& c : bad)
        EXPECT_FALSE(ZNRStrptime(ZNRString(c[0]), ZNRString(c[1]), &d)) << c[0] << " / " << c[1];
    EXPECT_EQ((std::array<int, 6>{-1, -1, -1, -1, -1, -1}), Fields(d));
}

TEST(Time, StrptimeToSecondsInUtcAndLocalTime) {
    struct { char const *text, *layout, *tz; bool local; std::int64_t want; } const cases[] = {
        // UTC reading ignores TZ.
        {"1970-01-01 00:00:00", "", "CST-8", false, 0},
        {"2000-02-29 12:34:56", "", "CST-8", false, 951827696},
        {"1900-01-01", "YYYY-MM-DD", "CST-8", false, -2208988800LL},
        {"1970-01-01 08:00:00", "", "CST-8", true, 0},
        {"202501010759", "YYYYMMDDhhmm", "CST-8", true, 1735689540},
#ifdef __linux__
        // One second before the epoch is a valid result, not mktime's error
        // (Windows' C runtime has no local time before 1970).
        {"1969-12-31 23:59:59", "", "UTC0", true, -1},
#endif
    };
    for (auto const& c : cases) {
        SetTimeZone(c.tz);
        std::int64_t t = 7;
        EXPECT_TRUE(ZNRStrptime(ZNRString(c.text), ZNRString(c.layout), &t, c.local)) << c.text;
        EXPECT_EQ(c.want, t) << c.text;
    }
    std::int64_t t = 7;
    for (bool local : {false, true}) EXPECT_FALSE(ZNRStrptime(ZNRString("2023-02-29"), ZNRString(""), &t, local));
    EXPECT_EQ(7, t);
}

TEST(FilePathInfo, SplitsAtLastSlashAndDot) {
    char const* const cases[][4] = {
        {"/var/log/app.log", "/var/log", "app", "log"},
        {"logs/archive.tar.gz", "logs", "archive.tar", "gz"},
        {"app.log", "", "app", "log"},  {"/app", "", "app", ""},
        {"dir/name.", "dir", "name", ""}, {"/a.b/c", "/a.b", "c", ""},
        {"dir/", "dir", "", ""},        {"plain", "", "plain", ""},
    };
    for (auto const& c : cases) {
        ZNRFilePathInfo_t info{ZNRString("old"), ZNRString("old"), ZNRString("old")};
        ZNRGetFilePathInfo(ZNRString(fstest::Native(c[0])), &info);
        EXPECT_EQ(fstest::Native(c[1]), info.directory.ToStdCStr()) << c[0];
        EXPECT_EQ(c[2], info.name.ToStdCStr()) << c[0];
        EXPECT_EQ(c[3], info.extension.ToStdCStr()) << c[0];
    }
    ZNRFilePathInfo_t info{ZNRString("kept"), ZNRString("kept"), ZNRString("kept")};
    ZNRGetFilePathInfo(ZNRString(""), &info);
    EXPECT_EQ("kept", info.name.ToStdCStr());
}

#ifdef _WIN32
TEST(FilePathInfo, WindowsSplitsAtBackslashesOnly) {
    char const* const cases[][4] = {
        {"c:\\logs\\app.log", "c:\\logs", "app", "log"}, {"c:\\app", "c:", "app", ""},
        {"\\\\server\\share\\a.b.c", "\\\\server\\share", "a.b", "c"},
        {"logs/app.log", "", "logs/app", "log"}, {"a.d/b", "", "a", "d/b"},
    };
    for (auto const& c : cases) {
        ZNRFilePathInfo_t info;
        ZNRGetFilePathInfo(ZNRString(c[0]), &info);
        EXPECT_EQ(std::string(c[1]) + "|" + c[2] + "|" + c[3],
                  info.directory.ToStdCStr() + "|" + info.name.ToStdCStr() + "|" + info.extension.ToStdCStr())
            << c[0];
    }
}
#endif

TEST_F(FileSystemTest, TestFileModes) {
    Touch("file");
    using R = std::pair<std::uint64_t, bool>;
    auto test = [&](char const* rel, int mode, bool result = false) {
        std::uint64_t rc = ZNRTestFile(Path(rel).c_str(), static_cast<ZNRTestFileMode_t>(mode), &result);
        return R(rc, result);
    };
    EXPECT_EQ(R(0, true), test("file", ZNR_TEST_FILE_EXIST));
    EXPECT_EQ(R(0, true), test("file", ZNR_TEST_FILE_READ_WRITE));
    EXPECT_EQ(R(0, false), test("missing", ZNR_TEST_FILE_EXIST, true));
    // Only "exists" turns a missing file into a result; errors leave it alone.
    EXPECT_EQ(R(ZNRCrtError(ENOENT), true), test("missing", ZNR_TEST_FILE_READABLE, true));
#ifdef _WIN32
    EXPECT_EQ(R(0, false), test("file/x", ZNR_TEST_FILE_EXIST, true));  // no ENOTDIR here
#else
    EXPECT_EQ(R(ZNRCrtError(ENOTDIR), true), test("file/x", ZNR_TEST_FILE_EXIST, true));
#endif
    EXPECT_EQ(R(ZNRUserError(1), true), test("file", 4, true));
    namespace fs = std::filesystem;
    fs::permissions(Path("file"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    EXPECT_EQ(R(0, true), test("file", ZNR_TEST_FILE_READABLE));
#ifdef __linux__
    if (geteuid() == 0) return;  // root may write anything
#endif
    EXPECT_EQ(R(0, false), test("file", ZNR_TEST_FILE_WRITABLE, true));
}

TEST_F(FileSystemTest, IsDirFileAndMakeDir) {
    Touch("file");
    // Run in order: 'd' tests for a directory, 'm' makes one with its parents, 'n' without;
    // no path is the root, an empty one stays empty.
    struct { char op; char const* rel; std::uint64_t want; } const steps[] = {
        {'d', nullptr, 0}, {'d', "file", ZNRUserError(18)}, {'d', "file/x", ZNRSysError(kThroughFile)},
        {'m', "a/b//c/", 0}, {'d', "a/b/c", 0}, {'m', "a/b/c", 0}, {'n', "a/b/c", 0},  // already there
        {'n', "x/y", ZNRCrtError(ENOENT)}, {'d', "x", ZNRSysError(kNoSuchFile)},  // no parent made either
        {'n', "x", 0}, {'d', "x", 0}, {'n', "file", ZNRCrtError(EEXIST)}, {'m', "file/sub", ZNRCrtError(EEXIST)},
        {'m', "", ZNRCrtError(ENOENT)},
    };
    for (auto const& c : steps) {
        ZNRString const path = c.rel == nullptr ? ZNRString(root_.c_str()) : *c.rel ? WPath(c.rel) : ZNRString("");
        EXPECT_EQ(c.want, c.op == 'd' ? ZNRIsDirFile(path) : ZNRMakeDir(path, c.op == 'm'))
            << c.op << ' ' << (c.rel ? c.rel : "root");
    }

    // Relative paths start from the working directory.
    std::uint64_t const relative =
        fstest::InDir(root_, [] { return ZNRMakeDir(ZNRString(fstest::Native("r1/r2")), true); });
    EXPECT_EQ(0u, relative);
    EXPECT_EQ(0u, ZNRIsDirFile(WPath("r1/r2")));
}

TEST_F(FileSystemTest, GetDirFilesInNameOrder) {
    for (char const* d : {"emptydir", "sub", "sub/deeper"}) ASSERT_TRUE(std::filesystem::create_directory(Path(d)));
    for (char const* f : {"m", "b.txt", "a.txt", "sub/z.xml", "sub/c.xml", "sub/deeper/k"}) Touch(f);
    std::vector<ZNRString> top = {WPath("a.txt"), WPath("b.txt"), WPath("m")};
#ifdef __linux__
    // Making links takes a privilege on Windows.
    ASSERT_EQ(0, symlink(Path("sub").c_str(), Path("link-dir").c_str()));
    ASSERT_EQ(0, symlink(Path("m").c_str(), Path("link-file").c_str()));
    top.insert(top.begin() + 2, WPath("link-file"));
#endif

    std::vector<ZNRString> files;
    EXPECT_EQ(0u, ZNRGetDirFiles(ZNRString(root_.c_str()), &files, false));
    EXPECT_EQ(top, files);
    // Appends after what is there; a trailing separator is not doubled.
    files.assign(1, ZNRString("first"));
    EXPECT_EQ(0u, ZNRGetDirFiles(ZNRString((root_ + fstest::kSep).c_str()), &files, true));
    top.insert(top.begin(), ZNRString("first"));
    for (char const* f : {"sub/c.xml", "sub/deeper/k", "sub/z.xml"}) top.push_back(WPath(f));
    EXPECT_EQ(top, files);

    files.clear();
#ifdef _WIN32
    // The listing's own error, as the system gives it.
    auto listing_error = [](std::string const& dir) {
        WIN32_FIND_DATAA found;
        HANDLE const find = FindFirstFileA((dir + "\\*").c_str(), &found);
        EXPECT_EQ(INVALID_HANDLE_VALUE, find);
        return ZNRSysError(static_cast<int>(GetLastError()));
    };
    Errors const expected = {0, listing_error(Path("missing")), listing_error(Path("m")),
                             ZNRSysError(ERROR_PATH_NOT_FOUND)};
#else
    Errors const expected = {0, ZNRSysError(ENOENT), ZNRSysError(ENOTDIR), ZNRSysError(ENOENT)};
#endif
    EXPECT_EQ(expected,
              (Errors{ZNRGetDirFiles(WPath("emptydir"), &files, true), ZNRGetDirFiles(WPath("missing"), &files, true),
                      ZNRGetDirFiles(WPath("m"), &files, false), ZNRGetDirFiles(ZNRString(""), &files, false)}));
    EXPECT_TRUE(files.empty());
}
