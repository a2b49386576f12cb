#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Captured {
    int writer;
    std::int64_t time;
    unsigned char level;
    std::string message;
    std::string file;
    unsigned int line;
    std::string function;
};

class CaptureWriter : public ZNRLoggerWriterBase {
public:
    CaptureWriter(int id, std::vector<Captured>* out) : id_(id), out_(out) {}
    void OnWrite(ZNRLoggerEntry const* e) override {
        out_->push_back(Captured{id_, e->time, e->level, e->message, e->file ? e->file : "", e->line,
                                 e->function ? e->function : ""});
    }
    std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
    std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
    void Destroy() override { delete this; }

private:
    int id_;
    std::vector<Captured>* out_;
};

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        logger_ = ZNRSingleton<ZNRLogger>::Instance();
        logger_->RegisterWriter(new CaptureWriter(1, &lines_));
        char pattern[] = "/tmp/plexa-logger-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override {
        logger_->UnregisterAllWriters();
        logger_->Unmask(0xFF);
        std::string const command = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(0, std::system(command.c_str()));
    }

    ZNRLogger* logger_ = nullptr;
    std::vector<Captured> lines_;
    std::string dir_;
};

std::int64_t LocalTime(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    return static_cast<std::int64_t>(std::mktime(&tm));
}

std::string ReadFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Exists(std::string const& path) { return access(path.c_str(), F_OK) == 0; }

std::string Format(ZNRLoggerEntry const& entry, bool syslog = false) {
    char buffer[256];
    if (syslog)
        entry.ToDefaultSysLogFormatString(buffer, sizeof buffer);
    else
        entry.ToDefaultFormatString(buffer, sizeof buffer);
    return buffer;
}

ZNRNormalLoggerWriter* NewWriter(std::string const& dir, std::string const& name,
                                 std::uint32_t max_size, std::uint32_t console) {
    ZNRNormalLoggerWriter* writer = new ZNRNormalLoggerWriter();
    EXPECT_EQ(0u, writer->SetOption(0, dir.data(), static_cast<unsigned int>(dir.size())));
    EXPECT_EQ(0u, writer->SetOption(3, name.data(), static_cast<unsigned int>(name.size())));
    EXPECT_EQ(0u, writer->SetOption(1, &max_size, sizeof max_size));
    EXPECT_EQ(0u, writer->SetOption(2, &console, sizeof console));
    return writer;
}

TEST_F(LoggerTest, MaskingWriterOrderAndMessageCut) {
    EXPECT_EQ(0, logger_->Mask(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_INFO));
    logger_->Write(1, ZNRLogger::LOGL_DEBUG, "f.cpp", 1, "F", "debug");
    logger_->Write(1, ZNRLogger::LOGL_INFO, "f.cpp", 2, "F", "info");
    logger_->Write(1, ZNRLogger::LOGL_WARNING, "f.cpp", 3, "F", "warning");
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_INFO, logger_->Unmask(ZNRLogger::LOGL_INFO));
    logger_->Write(1, ZNRLogger::LOGL_INFO, "f.cpp", 4, "F", "info %d", 2);
    logger_->Write(1, ZNRLogger::LOGL_DEBUG, "f.cpp", 5, "F", "debug");
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("warning", lines_[0].message);
    EXPECT_EQ("info 2", lines_[1].message);
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG, logger_->Mask(ZNRLogger::LOGL_ERROR));
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_ERROR, logger_->Unmask(0xFF));
    lines_.clear();

    // Every writer sees every entry, in registration order.
    logger_->RegisterWriter(new CaptureWriter(2, &lines_));
    logger_->RegisterWriter(nullptr);
    logger_->RegisterWriter(new CaptureWriter(3, &lines_));
    std::string const exact(1024, 'a');
    logger_->Write(1700000000, ZNRLogger::LOGL_ERROR, "src.cpp", 42, "ZNRA::B", "x=%s y=%u", "v", 7u);
    logger_->Write(5, ZNRLogger::LOGL_NOTICE, "n.cpp", 1, "F", "%s", exact.c_str());
    logger_->Write(5, ZNRLogger::LOGL_NOTICE, "n.cpp", 1, "F", "%sbcdef", exact.c_str());
    ASSERT_EQ(9u, lines_.size());
    for (int i = 0; i < 9; ++i) EXPECT_EQ(i % 3 + 1, lines_[i].writer);
    EXPECT_EQ(1700000000, lines_[2].time);
    EXPECT_EQ(ZNRLogger::LOGL_ERROR, lines_[2].level);
    EXPECT_EQ("x=v y=7", lines_[2].message);
    EXPECT_EQ("src.cpp", lines_[2].file);
    EXPECT_EQ(42u, lines_[2].line);
    EXPECT_EQ("ZNRA::B", lines_[2].function);
    EXPECT_EQ(exact, lines_[3].message);
    EXPECT_EQ(exact, lines_[8].message);  // cut at 1024 characters

    logger_->UnregisterAllWriters();
    logger_->Write(5, ZNRLogger::LOGL_ERROR, "n.cpp", 1, "F", "dropped");
    EXPECT_EQ(9u, lines_.size());
}

TEST_F(LoggerTest, MacroNamesFileLineAndQualifiedFunction) {
    std::int64_t const before = ZNRLogTime();
    unsigned int const line = __LINE__ + 1;
    ZNR_LOG(NOTICE, "value=%d text=%s", 5, "abc");
    ZNRWin32LoggerHelper(9, ZNRLogger::LOGL_FATAL, "h.cpp", 3, "H::I")("helper %u", 1u);
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ(ZNRLogger::LOGL_NOTICE, lines_[0].level);
    EXPECT_EQ("value=5 text=abc", lines_[0].message);
    EXPECT_NE(std::string::npos, lines_[0].file.find("test-logger.cpp"));
    EXPECT_EQ(line, lines_[0].line);
    // GCC and Clang spell the anonymous namespace differently.
    std::string const body = "::LoggerTest_MacroNamesFileLineAndQualifiedFunction_Test::TestBody";
    ASSERT_GT(lines_[0].function.size(), body.size());
    EXPECT_EQ(body, lines_[0].function.substr(lines_[0].function.size() - body.size()));
    EXPECT_GE(lines_[0].time, before);
    EXPECT_LE(lines_[0].time, ZNRLogTime());
    EXPECT_EQ(9, lines_[1].time);
    EXPECT_EQ("helper 1", lines_[1].message);
    EXPECT_EQ("H::I", lines_[1].function);
}

TEST(LoggerFormatTest, LevelNamesAndLineFormats) {
    EXPECT_STREQ("ALERT", ZNRLogger::GetLevelName(0x01));
    EXPECT_STREQ("ERROR", ZNRLogger::GetLevelName(0x02));
    EXPECT_STREQ("WARNING", ZNRLogger::GetLevelName(0x04));
    EXPECT_STREQ("INFO", ZNRLogger::GetLevelName(0x08));
    EXPECT_STREQ("DEBUG", ZNRLogger::GetLevelName(0x10));
    EXPECT_STREQ("FATAL", ZNRLogger::GetLevelName(0x20));
    EXPECT_STREQ("NOTICE", ZNRLogger::GetLevelName(0x40));
    for (unsigned int level : {0u, 3u, 6u, 63u, 65u, 0x80u, 0xFFu, 1000u})
        EXPECT_STREQ("UNKNOWN", ZNRLogger::GetLevelName(level)) << level;

    ZNRLoggerEntry entry = {LocalTime(2024, 3, 5, 7, 8, 9), ZNRLogger::LOGL_WARNING, "x", "f", 1, "F"};
    EXPECT_EQ("[WARNING, 2024/3/5 7:8:9] x\n", Format(entry));
    EXPECT_EQ("[2024/3/5 7:8:9] x\n", Format(entry, true));

    // Any fixed instant, against the C library's own local time.
    entry = {1700000000, 0x80, "two words", "f", 1, "F"};
    time_t const t = 1700000000;
    std::tm tm;
    ASSERT_NE(nullptr, localtime_r(&t, &tm));
    char expected[128];
    std::snprintf(expected, sizeof expected, "[UNKNOWN, %d/%d/%d %d:%d:%d] two words\n", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    EXPECT_EQ(expected, Format(entry));

    // A short destination is cut and terminated; the full length is returned.
    entry = {LocalTime(2024, 12, 31, 23, 59, 58), ZNRLogger::LOGL_INFO, "tail", "f", 1, "F"};
    char small[10];
    std::memset(small, '#', sizeof small);
    EXPECT_EQ(33, entry.ToDefaultFormatString(small, sizeof small));
    EXPECT_STREQ("[INFO, 20", small);
    EXPECT_EQ(27, entry.ToDefaultSysLogFormatString(small, 4));
    EXPECT_STREQ("[20", small);
}

TEST(LoggerFormatTest, QualifiedFunctionNames) {
    char out[128];
    auto name = [&out](char const* pretty) { return std::string(ZNRQualifiedFunctionName(pretty, out, sizeof out)); };
    EXPECT_EQ("ZNRThreadMgr::SetCurrent", name("void ZNRThreadMgr::SetCurrent(ZNRThread*)"));
    EXPECT_EQ("ZNRSingleton<T>::Instance", name("static T* ZNRSingleton<T>::Instance() [with T = X]"));
    EXPECT_EQ("ZNRSingleton<ZNRLogger>::Instance",
              name("static T *ZNRSingleton<ZNRLogger>::Instance() [T = ZNRLogger]"));
    EXPECT_EQ("ZNRMessageQueue::ZNRMessageQueue", name("ZNRMessageQueue::ZNRMessageQueue()"));
    EXPECT_EQ("ZNRReactorMgr_T<A, B, C>::New",
              name("std::map<int, int> ZNRReactorMgr_T<A, B, C>::New(std::vector<int, std::allocator<int> >*) const"));
    EXPECT_EQ("ZNRA::operator()", name("bool ZNRA::operator()(int) const"));
    EXPECT_EQ("ZNRA::operator<", name("bool ZNRA::operator<(const ZNRA&) const"));
    EXPECT_EQ("ZNRA::operator bool", name("ZNRA::operator bool() const"));
    EXPECT_EQ("(anonymous namespace)::Helper", name("int (anonymous namespace)::Helper(int)"));
    EXPECT_EQ("{anonymous}::Helper", name("int {anonymous}::Helper(int)"));
    EXPECT_EQ("ZNRA::Run", name("ZNRA::Run()::<lambda(int)>"));
    EXPECT_EQ("ZNRInit", name("ZNRInit"));
    EXPECT_EQ("", name(""));
    EXPECT_EQ("", name(nullptr));

    // Never more than size - 1 characters, always terminated.
    char tiny[8];
    std::memset(tiny, '#', sizeof tiny);
    EXPECT_STREQ("ZNRThre", ZNRQualifiedFunctionName("void ZNRThreadMgr::SetCurrent(ZNRThread*)", tiny, 8));
    char one[1] = {'#'};
    EXPECT_STREQ("", ZNRQualifiedFunctionName("void f()", one, 1));
    char untouched[2] = {'#', '#'};
    ZNRQualifiedFunctionName("void f()", untouched, 0);
    EXPECT_EQ('#', untouched[0]);
}

TEST_F(LoggerTest, WriterOptionsDefaultsAndUnknownIds) {
    ZNRNormalLoggerWriter* writer = new ZNRNormalLoggerWriter();
    char text[32];
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(0u, writer->GetOption(0, text, 3));
    EXPECT_STREQ("./", text);
    EXPECT_EQ(0u, writer->GetOption(3, text, 8));
    EXPECT_STREQ("znr.log", text);
    std::uint32_t number = 1;
    EXPECT_EQ(0u, writer->GetOption(1, &number, sizeof number));
    EXPECT_EQ(629145600u, number);
    EXPECT_EQ(0u, writer->GetOption(2, &number, sizeof number));
    EXPECT_EQ(0u, number);

    std::uint64_t const unknown = 0x8000000100000002ULL;
    EXPECT_EQ(unknown, writer->SetOption(4, &number, sizeof number));
    EXPECT_EQ(unknown, writer->GetOption(4, &number, sizeof number));
    EXPECT_EQ(unknown, writer->SetOption(0xFFFFFFFFu, &number, sizeof number));

    // Set values are copied and terminated; the directory is created with
    // its parents.
    std::string const dir = dir_ + "/a/b";
    EXPECT_EQ(0u, writer->SetOption(0, dir.data(), static_cast<unsigned int>(dir.size())));
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    char dir_copy[64] = {};
    EXPECT_EQ(0u, writer->GetOption(0, dir_copy, sizeof dir_copy));
    EXPECT_EQ(dir, dir_copy);
    EXPECT_EQ(0u, writer->SetOption(3, "svc.logXXXX", 7));
    EXPECT_EQ(0u, writer->GetOption(3, text, sizeof text));
    EXPECT_STREQ("svc.log", text);
    number = 1234;
    EXPECT_EQ(0u, writer->SetOption(1, &number, sizeof number));
    number = 1;
    EXPECT_EQ(0u, writer->SetOption(2, &number, sizeof number));
    EXPECT_EQ(0u, writer->GetOption(1, &number, sizeof number));
    EXPECT_EQ(1234u, number);
    EXPECT_EQ(0u, writer->GetOption(2, &number, sizeof number));
    EXPECT_EQ(1u, number);
    writer->Destroy();
}

TEST_F(LoggerTest, WriterAppendsLinesAndRotatesToNumberedFiles) {
    std::string const live = dir_ + "/r.log";
    // Index 2 is taken before the writer starts: rotation skips it.
    { std::ofstream(live + ".2") << "old\n"; }
    ZNRNormalLoggerWriter* writer = NewWriter(dir_, "r.log", 100, 0);

    std::int64_t const t = LocalTime(2024, 3, 5, 7, 8, 9);
    std::vector<std::string> expected;
    for (int i = 0; i < 7; ++i) {
        std::string const message = "message number " + std::to_string(i) + " with some padding";
        ZNRLoggerEntry entry = {t, ZNRLogger::LOGL_INFO, message.c_str(), "f", 1, "F"};
        expected.push_back("[INFO, 2024/3/5 7:8:9] " + message + "\n");
        ASSERT_EQ(58u, expected.back().size());
        writer->OnWrite(&entry);
    }
    // Two lines (116 bytes) fill a file; the third write moves it away.
    EXPECT_EQ(expected[0] + expected[1], ReadFile(live + ".0"));
    EXPECT_EQ(expected[2] + expected[3], ReadFile(live + ".1"));
    EXPECT_EQ("old\n", ReadFile(live + ".2"));
    EXPECT_EQ(expected[4] + expected[5], ReadFile(live + ".3"));
    EXPECT_EQ(expected[6], ReadFile(live));
    EXPECT_FALSE(Exists(live + ".4"));

    // The path was built once: a later directory or name is ignored.
    std::string const other = dir_ + "/other";
    EXPECT_EQ(0u, writer->SetOption(0, other.data(), static_cast<unsigned int>(other.size())));
    EXPECT_EQ(0u, writer->SetOption(3, "x.log", 5));
    ZNRLoggerEntry entry = {t, ZNRLogger::LOGL_ERROR, "late", "f", 1, "F"};
    writer->OnWrite(&entry);
    EXPECT_EQ(expected[6] + "[ERROR, 2024/3/5 7:8:9] late\n", ReadFile(live));
    EXPECT_FALSE(Exists(other + "/x.log"));
    writer->Destroy();

    // A second writer takes the existing live file's size into account:
    // it appends once, then rotates to the next free index.
    writer = NewWriter(dir_, "r.log", 100, 0);
    writer->OnWrite(&entry);
    EXPECT_EQ(expected[6] + "[ERROR, 2024/3/5 7:8:9] late\n[ERROR, 2024/3/5 7:8:9] late\n", ReadFile(live));
    writer->OnWrite(&entry);
    EXPECT_EQ(expected[6] + "[ERROR, 2024/3/5 7:8:9] late\n[ERROR, 2024/3/5 7:8:9] late\n",
              ReadFile(live + ".4"));
    EXPECT_EQ("[ERROR, 2024/3/5 7:8:9] late\n", ReadFile(live));
    writer->Destroy();
}

TEST_F(LoggerTest, WriterThroughTheLoggerEchoesToTheConsole) {
    logger_->UnregisterAllWriters();
    logger_->RegisterWriter(NewWriter(dir_, "c.log", 1000000, 1));
    std::int64_t const t = LocalTime(2023, 11, 1, 0, 0, 0);

    for (unsigned char level : {ZNRLogger::LOGL_INFO, ZNRLogger::LOGL_DEBUG, ZNRLogger::LOGL_NOTICE,
                                ZNRLogger::LOGL_ERROR, ZNRLogger::LOGL_WARNING, ZNRLogger::LOGL_ALERT,
                                ZNRLogger::LOGL_FATAL}) {
        std::string const line = std::string("[") + ZNRLogger::GetLevelName(level) + ", 2023/11/1 0:0:0] m\n";
        bool const to_stdout = level == ZNRLogger::LOGL_INFO || level == ZNRLogger::LOGL_DEBUG ||
                               level == ZNRLogger::LOGL_NOTICE;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        logger_->Write(t, level, "f", 1, "F", "%s", "m");
        std::string const out = testing::internal::GetCapturedStdout();
        std::string const err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(to_stdout ? line : "", out) << int(level);
        EXPECT_EQ(to_stdout ? "" : line, err) << int(level);
    }
    logger_->UnregisterAllWriters();
    std::string const file = ReadFile(dir_ + "/c.log");
    EXPECT_EQ(7, std::count(file.begin(), file.end(), '\n'));
    EXPECT_EQ(0u, file.find("[INFO, 2023/11/1 0:0:0] m\n"));
}

TEST_F(LoggerTest, UnopenableFileReportsOnStandardError) {
    // A plain file where a directory should be.
    std::string const blocker = dir_ + "/plain";
    { std::ofstream(blocker) << "x"; }
    std::string const dir = blocker + "/sub";
    ZNRNormalLoggerWriter* writer = new ZNRNormalLoggerWriter();
    EXPECT_NE(0u, writer->SetOption(0, dir.data(), static_cast<unsigned int>(dir.size())));

    ZNRLoggerEntry entry = {1, ZNRLogger::LOGL_ERROR, "lost", "f", 1, "F"};
    testing::internal::CaptureStderr();
    writer->OnWrite(&entry);
    writer->OnWrite(&entry);
    std::string const once = "Can not open log file \"" + dir +
                             "/znr.log\", errno=20\nCan not write log to file, file is not opened, may be "
                             "privious was opened failed!\n";
    EXPECT_EQ(once + once, testing::internal::GetCapturedStderr());
    writer->Destroy();
}

TEST_F(LoggerTest, ConcurrentWritersSeeWholeMessages) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 200; ++i)
                logger_->Write(i, ZNRLogger::LOGL_INFO, "f", 1, "F", "thread=%d index=%d", t, i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(800u, lines_.size());
    std::vector<int> next(4, 0);
    for (Captured const& line : lines_) {
        int t = -1, i = -1;
        ASSERT_EQ(2, std::sscanf(line.message.c_str(), "thread=%d index=%d", &t, &i)) << line.message;
        ASSERT_TRUE(t >= 0 && t < 4);
        EXPECT_EQ(next[t]++, i);
        EXPECT_EQ(i, line.time);
    }
}

}  // namespace
