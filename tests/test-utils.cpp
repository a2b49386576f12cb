#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Sets TZ for the lifetime of the object.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(char const* tz) {
        char const* old = std::getenv("TZ");
        had_old_ = old != nullptr;
        if (had_old_) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (had_old_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had_old_ = false;
    std::string old_;
};

class FileSystemTest : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/plexa-utils-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        root_ = tmpl;
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + root_ + "'";
        EXPECT_EQ(0, std::system(cmd.c_str()));
    }
    std::string Path(std::string const& rel) const { return root_ + "/" + rel; }
    ZNRString WPath(std::string const& rel) const { return ZNRString(Path(rel).c_str()); }
    void Touch(std::string const& rel) const { std::ofstream(Path(rel)) << "x"; }
    void Dir(std::string const& rel) const { ASSERT_EQ(0, mkdir(Path(rel).c_str(), 0755)); }

    std::string root_;
};

std::vector<std::string> Texts(std::vector<ZNRString> const& v) {
    std::vector<std::string> out;
    for (ZNRString const& s : v) out.push_back(s.ToStdCStr());
    return out;
}

} // namespace

TEST(StrToNumber, Int32BaseAndBounds) {
    int v = 77;
    EXPECT_TRUE(ZNRStrToInt32(ZNRString("0x1F"), &v));
    EXPECT_EQ(31, v);
    EXPECT_TRUE(ZNRStrToInt32(ZNRString("010"), &v));
    EXPECT_EQ(8, v);
    EXPECT_TRUE(ZNRStrToInt32(ZNRString("2147483647"), &v));
    EXPECT_EQ(2147483647, v);
    EXPECT_TRUE(ZNRStrToInt32(ZNRString("-2147483648"), &v));
    EXPECT_EQ(-2147483647 - 1, v);
    EXPECT_TRUE(ZNRStrToInt32(ZNRString(" +42"), &v));
    EXPECT_EQ(42, v);
    v = 77;
    for (char const* bad : {"12abc", "2147483648", "-2147483649", "0x80000000", "", "  ", "42 ",
                            "--1", "+-1", "0x", "99999999999999999999", "08"}) {
        EXPECT_FALSE(ZNRStrToInt32(ZNRString(bad), &v)) << '"' << bad << '"';
    }
    EXPECT_FALSE(ZNRStrToInt32(ZNRString(u"\uFF11\uFF12"), &v));  // full-width digits
    EXPECT_EQ(77, v);
}

TEST(StrToNumber, UnsignedWidthsAndWrapOfNegatives) {
    unsigned int u = 5;
    EXPECT_TRUE(ZNRStrToUInt32(ZNRString("0xFFFFFFFF"), &u));
    EXPECT_EQ(0xFFFFFFFFu, u);
    EXPECT_TRUE(ZNRStrToUInt32(ZNRString("-1"), &u));
    EXPECT_EQ(0xFFFFFFFFu, u);
    EXPECT_TRUE(ZNRStrToUInt32(ZNRString("-4294967295"), &u));
    EXPECT_EQ(1u, u);
    u = 5;
    EXPECT_FALSE(ZNRStrToUInt32(ZNRString("4294967296"), &u));
    EXPECT_FALSE(ZNRStrToUInt32(ZNRString("-4294967296"), &u));
    EXPECT_FALSE(ZNRStrToUInt32(ZNRString(""), &u));
    EXPECT_EQ(5u, u);

    std::uint64_t u64 = 5;
    EXPECT_TRUE(ZNRStrToUInt64(ZNRString("18446744073709551615"), &u64));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, u64);
    EXPECT_TRUE(ZNRStrToUInt64(ZNRString("-1"), &u64));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFULL, u64);
    EXPECT_TRUE(ZNRStrToUInt64(ZNRString("0x100000000"), &u64));
    EXPECT_EQ(0x100000000ULL, u64);
    EXPECT_FALSE(ZNRStrToUInt64(ZNRString("18446744073709551616"), &u64));
    EXPECT_FALSE(ZNRStrToUInt64(ZNRString("1e3"), &u64));
    EXPECT_EQ(0x100000000ULL, u64);

    unsigned short u16 = 5;
    EXPECT_TRUE(ZNRStrToUInt16(ZNRString("65535"), &u16));
    EXPECT_EQ(65535, u16);
    u16 = 5;
    EXPECT_FALSE(ZNRStrToUInt16(ZNRString("65536"), &u16));
    EXPECT_FALSE(ZNRStrToUInt16(ZNRString("-1"), &u16));
    EXPECT_EQ(5, u16);
}

TEST(StrToNumber, Int16HasOnlyAnUpperBound) {
    short s = 5;
    EXPECT_TRUE(ZNRStrToInt16(ZNRString("32767"), &s));
    EXPECT_EQ(32767, s);
    EXPECT_TRUE(ZNRStrToInt16(ZNRString("-32768"), &s));
    EXPECT_EQ(-32768, s);
    // Below -32768 the value is cut to 16 bits.
    EXPECT_TRUE(ZNRStrToInt16(ZNRString("-40000"), &s));
    EXPECT_EQ(25536, s);
    s = 5;
    EXPECT_FALSE(ZNRStrToInt16(ZNRString("32768"), &s));
    EXPECT_FALSE(ZNRStrToInt16(ZNRString("-2147483649"), &s));
    EXPECT_FALSE(ZNRStrToInt16(ZNRString("0x10000"), &s));
    EXPECT_EQ(5, s);
}

TEST(StrToNumber, BooleanIsExactAndCaseSensitive) {
    bool b = false;
    EXPECT_TRUE(ZNRStrToBoolean(ZNRString("true"), &b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(ZNRStrToBoolean(ZNRString("false"), &b));
    EXPECT_FALSE(b);
    b = true;
    for (char const* bad : {"True", "FALSE", "1", "", "true ", " false", "truex"})
        EXPECT_FALSE(ZNRStrToBoolean(ZNRString(bad), &b)) << '"' << bad << '"';
    EXPECT_TRUE(b);
}

TEST(Time, SysTickEpochAndLocalDate) {
    std::time_t const before = std::time(nullptr);
    std::uint64_t const tick = ZNRGetSysTick();
    std::time_t const after = std::time(nullptr);
    std::int64_t const unix_seconds = static_cast<std::int64_t>(tick / 1000) - 11644473600LL;
    EXPECT_GE(unix_seconds, before);
    EXPECT_LE(unix_seconds, after);
    ZNRSleep(0);
    ZNRSleep(-5);

    ScopedTimeZone tz("CST-8");
    ZNRDate_t d = {};
    std::int64_t const epoch = 0;
    ZNRGetDate(&d, &epoch);
    EXPECT_EQ(1970, d.year);
    EXPECT_EQ(1, d.month);
    EXPECT_EQ(1, d.day);
    EXPECT_EQ(8, d.hour);
    EXPECT_EQ(0, d.minute);
    EXPECT_EQ(0, d.second);
    std::int64_t const leap_day = 951827696;  // 2000-02-29 12:34:56 UTC
    ZNRGetDate(&d, &leap_day);
    EXPECT_EQ(2000, d.year);
    EXPECT_EQ(2, d.month);
    EXPECT_EQ(29, d.day);
    EXPECT_EQ(20, d.hour);
    EXPECT_EQ(34, d.minute);
    EXPECT_EQ(56, d.second);

    ZNRGetDate(&d, nullptr);
    EXPECT_GE(d.year, 2024);
    EXPECT_TRUE(d.month >= 1 && d.month <= 12 && d.day >= 1 && d.day <= 31);
}

TEST(Time, StrptimeLayouts) {
    struct Case {
        char const* text;
        char const* layout;
        ZNRDate_t date;
    };
    Case const good[] = {
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
    for (Case const& c : good) {
        SCOPED_TRACE(c.text);
        ZNRDate_t d = {-1, -1, -1, -1, -1, -1};
        ASSERT_TRUE(ZNRStrptime(ZNRString(c.text), ZNRString(c.layout), &d));
        EXPECT_EQ(c.date.year, d.year);
        EXPECT_EQ(c.date.month, d.month);
        EXPECT_EQ(c.date.day, d.day);
        EXPECT_EQ(c.date.hour, d.hour);
        EXPECT_EQ(c.date.minute, d.minute);
        EXPECT_EQ(c.date.second, d.second);
    }
    char const* const bad[][2] = {
        {"2023-02-29", "YYYY-MM-DD"},          {"1900-02-29", "YYYY-MM-DD"},
        {"2024-04-31", "YYYY-MM-DD"},          {"2024-13-01", "YYYY-MM-DD"},
        {"2024-00-10", "YYYY-MM-DD"},          {"2024-01-00", "YYYY-MM-DD"},
        {"2024-01-01 24:00:00", "YYYY-MM-DD hh:mm:ss"}, {"2024-01-01 23:60", "YYYY-MM-DD hh:mm"},
        {"2024-01-01 23:59:60", "YYYY-MM-DD hh:mm:ss"}, {"2024-1-01", "YYYY-MM-DD"},
        {"2024-01-01 ", "YYYY-MM-DD"},         {"2024/01/01", "YYYY-MM-DD"},
        {"20240101", "YYYY-MM-DD"},            {"2024-01-01", "%Y-%m-%d"},
        {"2024-01-01", "YYYY-DD-MM"},          {"", ""},
        {"0000-01-01", "YYYY-MM-DD"},          {"2024-01-0x", ""},
    };
    ZNRDate_t d = {-1, -1, -1, -1, -1, -1};
    for (auto const& c : bad)
        EXPECT_FALSE(ZNRStrptime(ZNRString(c[0]), ZNRString(c[1]), &d)) << c[0] << " / " << c[1];
    EXPECT_EQ(-1, d.year);
    EXPECT_EQ(-1, d.second);
}

TEST(Time, StrptimeToSecondsInUtcAndLocalTime) {
    std::int64_t t = 7;
    EXPECT_TRUE(ZNRStrptime(ZNRString("1970-01-01 00:00:00"), ZNRString(""), &t, false));
    EXPECT_EQ(0, t);
    EXPECT_TRUE(ZNRStrptime(ZNRString("2000-02-29 12:34:56"), ZNRString(""), &t, false));
    EXPECT_EQ(951827696, t);
    EXPECT_TRUE(ZNRStrptime(ZNRString("1900-01-01"), ZNRString("YYYY-MM-DD"), &t, false));
    EXPECT_EQ(-2208988800LL, t);
    {
        ScopedTimeZone tz("CST-8");
        EXPECT_TRUE(ZNRStrptime(ZNRString("1970-01-01 08:00:00"), ZNRString(""), &t, true));
        EXPECT_EQ(0, t);
        EXPECT_TRUE(ZNRStrptime(ZNRString("202501010759"), ZNRString("YYYYMMDDhhmm"), &t, true));
        EXPECT_EQ(1735689540, t);
    }
    {
        // One second before the epoch is a valid result, not mktime's error.
        ScopedTimeZone tz("UTC0");
        EXPECT_TRUE(ZNRStrptime(ZNRString("1969-12-31 23:59:59"), ZNRString(""), &t, true));
        EXPECT_EQ(-1, t);
    }
    t = 7;
    EXPECT_FALSE(ZNRStrptime(ZNRString("2023-02-29"), ZNRString(""), &t, false));
    EXPECT_FALSE(ZNRStrptime(ZNRString("2023-02-29"), ZNRString(""), &t, true));
    EXPECT_EQ(7, t);
}

TEST(FilePathInfo, SplitsAtLastSlashAndDot) {
    struct Case {
        char const* path;
        char const* directory;
        char const* name;
        char const* extension;
    };
    Case const cases[] = {
        {"/var/log/app.log", "/var/log", "app", "log"},
        {"logs/archive.tar.gz", "logs", "archive.tar", "gz"},
        {"app.log", "", "app", "log"},
        {"/app", "", "app", ""},
        {"dir/name.", "dir", "name", ""},
        {"/a.b/c", "/a.b", "c", ""},
        {"dir/", "dir", "", ""},
        {"plain", "", "plain", ""},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.path);
        ZNRFilePathInfo_t info;
        info.directory = ZNRString("old");
        info.name = ZNRString("old");
        info.extension = ZNRString("old");
        ZNRGetFilePathInfo(ZNRString(c.path), &info);
        EXPECT_EQ(c.directory, info.directory.ToStdCStr());
        EXPECT_EQ(c.name, info.name.ToStdCStr());
        EXPECT_EQ(c.extension, info.extension.ToStdCStr());
    }
    ZNRFilePathInfo_t info;
    info.name = ZNRString("kept");
    ZNRGetFilePathInfo(ZNRString(""), &info);
    EXPECT_EQ("kept", info.name.ToStdCStr());
}

TEST_F(FileSystemTest, TestFileModes) {
    Touch("file");
    bool result = false;
    EXPECT_EQ(0u, ZNRTestFile(Path("file").c_str(), ZNR_TEST_FILE_EXIST, &result));
    EXPECT_TRUE(result);
    EXPECT_EQ(0u, ZNRTestFile(Path("file").c_str(), ZNR_TEST_FILE_READ_WRITE, &result));
    EXPECT_TRUE(result);
    EXPECT_EQ(0u, ZNRTestFile(Path("missing").c_str(), ZNR_TEST_FILE_EXIST, &result));
    EXPECT_FALSE(result);
    // Only "exists" turns a missing file into a result.
    result = true;
    EXPECT_EQ(ZNRCrtError(ENOENT), ZNRTestFile(Path("missing").c_str(), ZNR_TEST_FILE_READABLE, &result));
    EXPECT_EQ(ZNRCrtError(ENOTDIR), ZNRTestFile(Path("file/x").c_str(), ZNR_TEST_FILE_EXIST, &result));
    EXPECT_EQ(ZNRUserError(1),
              ZNRTestFile(Path("file").c_str(), static_cast<ZNRTestFileMode_t>(4), &result));
    EXPECT_TRUE(result);

    ASSERT_EQ(0, chmod(Path("file").c_str(), 0444));
    EXPECT_EQ(0u, ZNRTestFile(Path("file").c_str(), ZNR_TEST_FILE_READABLE, &result));
    EXPECT_TRUE(result);
    if (geteuid() != 0) {  // root may write anything
        EXPECT_EQ(0u, ZNRTestFile(Path("file").c_str(), ZNR_TEST_FILE_WRITABLE, &result));
        EXPECT_FALSE(result);
    }
}

TEST_F(FileSystemTest, IsDirFileAndMakeDir) {
    Touch("file");
    EXPECT_EQ(0u, ZNRIsDirFile(ZNRString(root_.c_str())));
    EXPECT_EQ(ZNRUserError(18), ZNRIsDirFile(WPath("file")));
    EXPECT_EQ(ZNRSysError(ENOENT), ZNRIsDirFile(WPath("missing")));
    EXPECT_EQ(ZNRSysError(ENOTDIR), ZNRIsDirFile(WPath("file/x")));

    EXPECT_EQ(0u, ZNRMakeDir(WPath("a/b//c/"), true));
    EXPECT_EQ(0u, ZNRIsDirFile(WPath("a/b/c")));
    EXPECT_EQ(0u, ZNRMakeDir(WPath("a/b/c"), true));   // already there
    EXPECT_EQ(0u, ZNRMakeDir(WPath("a/b/c"), false));
    EXPECT_EQ(ZNRCrtError(ENOENT), ZNRMakeDir(WPath("x/y"), false));
    EXPECT_EQ(ZNRSysError(ENOENT), ZNRIsDirFile(WPath("x")));
    EXPECT_EQ(0u, ZNRMakeDir(WPath("x"), false));
    EXPECT_EQ(0u, ZNRIsDirFile(WPath("x")));
    EXPECT_EQ(ZNRCrtError(EEXIST), ZNRMakeDir(WPath("file"), false));
    EXPECT_EQ(ZNRCrtError(EEXIST), ZNRMakeDir(WPath("file/sub"), true));
    EXPECT_EQ(ZNRCrtError(ENOENT), ZNRMakeDir(ZNRString(""), true));

    // Relative paths start from the working directory.
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    ASSERT_EQ(0, chdir(root_.c_str()));
    std::uint64_t const relative = ZNRMakeDir(ZNRString("r1/r2"), true);
    ASSERT_EQ(0, chdir(cwd));
    EXPECT_EQ(0u, relative);
    EXPECT_EQ(0u, ZNRIsDirFile(WPath("r1/r2")));
}

TEST_F(FileSystemTest, GetDirFilesInNameOrder) {
    Touch("m");
    Touch("b.txt");
    Touch("a.txt");
    Dir("emptydir");
    Dir("sub");
    Touch("sub/z.xml");
    Touch("sub/c.xml");
    Dir("sub/deeper");
    Touch("sub/deeper/k");
    ASSERT_EQ(0, symlink(Path("sub").c_str(), Path("link-dir").c_str()));
    ASSERT_EQ(0, symlink(Path("m").c_str(), Path("link-file").c_str()));

    std::vector<ZNRString> files;
    EXPECT_EQ(0u, ZNRGetDirFiles(ZNRString(root_.c_str()), &files, false));
    EXPECT_EQ(std::vector<std::string>({Path("a.txt"), Path("b.txt"), Path("link-file"), Path("m")}),
              Texts(files));

    files.assign(1, ZNRString("first"));
    EXPECT_EQ(0u, ZNRGetDirFiles(ZNRString((root_ + "/").c_str()), &files, true));
    EXPECT_EQ(std::vector<std::string>({"first", Path("a.txt"), Path("b.txt"), Path("link-file"),
                                        Path("m"), Path("sub/c.xml"), Path("sub/deeper/k"),
                                        Path("sub/z.xml")}),
              Texts(files));

    files.clear();
    EXPECT_EQ(0u, ZNRGetDirFiles(WPath("emptydir"), &files, true));
    EXPECT_TRUE(files.empty());
    EXPECT_EQ(ZNRSysError(ENOENT), ZNRGetDirFiles(WPath("missing"), &files, true));
    EXPECT_EQ(ZNRSysError(ENOTDIR), ZNRGetDirFiles(WPath("m"), &files, false));
    EXPECT_EQ(ZNRSysError(ENOENT), ZNRGetDirFiles(ZNRString(""), &files, false));
    EXPECT_TRUE(files.empty());
}
