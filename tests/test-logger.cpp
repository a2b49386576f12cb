#include <plexa/plexa.h>

#include "fs-test-util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// errno of a path that goes through a plain file.
#ifdef _WIN32
int const kThroughFile = ENOENT;
#else
int const kThroughFile = ENOTDIR;
#endif

struct Captured {
    int writer;
    std::int64_t time;
    std::string message, file, function;
    // Everything but the file, which depends on how the compiler names it.
    std::string text;
};

class CaptureWriter : public ZNRLoggerWriterBase {
public:
    CaptureWriter(int id, std::vector<Captured>* out) : id_(id), out_(out) {}
    void OnWrite(ZNRLoggerEntry const* e) override {
        std::string const function = e->function ? e->function : "";
        out_->push_back({id_, e->time, e->message, e->file ? e->file : "", function,
                         std::to_string(e->time) + " " + std::to_string(e->level) + " :" + std::to_string(e->line) +
                             " " + function + " " + e->message});
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
        logger_->RegisterWriter(new CaptureWriter(1, &lines_));
    }
    void TearDown() override {
        logger_->UnregisterAllWriters();
        logger_->Unmask(0xFF);
    }
    void Write(unsigned char level, char const* message) { logger_->Write(1, level, "f", 1, "F", "%s", message); }
    std::string Messages() const {
        std::string out;
        for (Captured const& line : lines_) out += line.message + "|";
        return out;
    }

    ZNRLogger* logger_ = ZNRSingleton<ZNRLogger>::Instance();
    std::vector<Captured> lines_;
    fstest::TempDir temp_{"plexa-logger"};
    std::string const dir_ = temp_.path();
};

// dir_/rel in the platform's spelling.
std::string In(std::string const& dir, std::string const& rel) { return dir + fstest::kSep + fstest::Native(rel); }

std::int64_t LocalTime(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm = {};
    tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day;
    tm.tm_hour = hour, tm.tm_min = minute, tm.tm_sec = second, tm.tm_isdst = -1;
    return static_cast<std::int64_t>(std::mktime(&tm));
}

// In text mode: log files end their lines as the platform does.
std::string ReadFile(std::string const& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::uint64_t SetText(ZNRNormalLoggerWriter* w, unsigned int id, std::string const& s) {
    return w->SetOption(id, s.data(), static_cast<unsigned int>(s.size()));
}

ZNRNormalLoggerWriter* NewWriter(std::string const& dir, std::string const& name, std::uint32_t max_size,
                                 std::uint32_t console) {
    ZNRNormalLoggerWriter* w = new ZNRNormalLoggerWriter();
    EXPECT_EQ(0u, SetText(w, 0, dir) | SetText(w, 3, name) | w->SetOption(1, &max_size, sizeof max_size) |
                      w->SetOption(2, &console, sizeof console));
    return w;
}

TEST_F(LoggerTest, MaskingWriterOrderAndMessageCut) {
    EXPECT_EQ(0, logger_->Mask(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_INFO));
    Write(ZNRLogger::LOGL_DEBUG, "debug");
    Write(ZNRLogger::LOGL_INFO, "info");
    Write(ZNRLogger::LOGL_WARNING, "warning");
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_INFO, logger_->Unmask(ZNRLogger::LOGL_INFO));
    logger_->Write(1, ZNRLogger::LOGL_INFO, "f.cpp", 4, "F", "info %d", 2);
    Write(ZNRLogger::LOGL_DEBUG, "debug");
    EXPECT_EQ("warning|info 2|", Messages());
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG, logger_->Mask(ZNRLogger::LOGL_ERROR));
    EXPECT_EQ(ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_ERROR, logger_->Unmask(0xFF));
    lines_.clear();

    // Every writer sees every entry, in registration order; a null writer is skipped.
    logger_->RegisterWriter(new CaptureWriter(2, &lines_));
    logger_->RegisterWriter(nullptr);
    logger_->RegisterWriter(new CaptureWriter(3, &lines_));
    std::string const exact(1024, 'a');
    logger_->Write(1700000000, ZNRLogger::LOGL_ERROR, "src.cpp", 42, "ZNRA::B", "x=%s y=%u", "v", 7u);
    for (char const* fmt : {"%s", "%sbcdef"})  // the second is cut at 1024
        logger_->Write(5, ZNRLogger::LOGL_NOTICE, "n.cpp", 1, "F", fmt, exact.c_str());
    ASSERT_EQ(9u, lines_.size());
    for (int i = 0; i < 9; ++i) EXPECT_EQ(i % 3 + 1, lines_[i].writer);
    EXPECT_EQ("1700000000 2 :42 ZNRA::B x=v y=7", lines_[2].text);
    EXPECT_EQ("src.cpp", lines_[2].file);
    EXPECT_EQ(exact, lines_[3].message);
    EXPECT_EQ(exact, lines_[8].message);

    logger_->UnregisterAllWriters();
    Write(ZNRLogger::LOGL_ERROR, "dropped");
    EXPECT_EQ(9u, lines_.size());
}

TEST_F(LoggerTest, MacroNamesFileLineAndQualifiedFunction) {
    std::int64_t const before = ZNRLogTime();
    unsigned int const line = __LINE__ + 1;
    ZNR_LOG(NOTICE, "value=%d text=%s", 5, "abc");
    ZNRWin32LoggerHelper(9, ZNRLogger::LOGL_FATAL, "h.cpp", 3, "H::I")("helper %u", 1u);
    ASSERT_EQ(2u, lines_.size());
    Captured const& c = lines_[0];
    EXPECT_EQ(std::to_string(c.time) + " 64 :" + std::to_string(line) + " " + c.function + " value=5 text=abc", c.text);
    EXPECT_TRUE(c.time >= before && c.time <= ZNRLogTime());
    EXPECT_NE(std::string::npos, c.file.find("test-logger.cpp"));
    // GCC and Clang spell the anonymous namespace differently.
    std::string const body = "::LoggerTest_MacroNamesFileLineAndQualifiedFunction_Test::TestBody";
    ASSERT_GT(c.function.size(), body.size());
    EXPECT_EQ(body, c.function.substr(c.function.size() - body.size()));
    EXPECT_EQ("9 32 :3 H::I helper 1", lines_[1].text);
}

TEST(LoggerFormatTest, LevelNamesLineFormatsAndFunctionNames) {
    char const* const names[] = {"ALERT", "ERROR", "WARNING", "INFO", "DEBUG", "FATAL", "NOTICE"};
    for (unsigned int i = 0; i < 7; ++i) EXPECT_STREQ(names[i], ZNRLogger::GetLevelName(1u << i));
    for (unsigned int level : {0u, 3u, 6u, 63u, 65u, 0x80u, 0xFFu, 1000u})
        EXPECT_STREQ("UNKNOWN", ZNRLogger::GetLevelName(level)) << level;

    // Local time without zero padding; a short destination is cut and terminated, the full length returned.
    ZNRLoggerEntry entry = {LocalTime(2024, 3, 5, 7, 8, 9), 0x80, "two words", "f", 1, "F"};
    char buffer[64];
    EXPECT_EQ(36, entry.ToDefaultFormatString(buffer, sizeof buffer));
    EXPECT_STREQ("[UNKNOWN, 2024/3/5 7:8:9] two words\n", buffer);
    EXPECT_EQ(27, entry.ToDefaultSysLogFormatString(buffer, sizeof buffer));
    EXPECT_STREQ("[2024/3/5 7:8:9] two words\n", buffer);
    entry = {LocalTime(2024, 12, 31, 23, 59, 58), ZNRLogger::LOGL_WARNING, "tail", "f", 1, "F"};
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(36, entry.ToDefaultFormatString(buffer, 10));
    EXPECT_STREQ("[WARNING,", buffer);
    EXPECT_EQ(27, entry.ToDefaultSysLogFormatString(buffer, 4));
    EXPECT_STREQ("[20", buffer);

    struct Row { char const* pretty; char const* name; } const rows[] = {
        {"void ZNRThreadMgr::SetCurrent(ZNRThread*)", "ZNRThreadMgr::SetCurrent"},
        {"static T* ZNRSingleton<T>::Instance() [with T = X]", "ZNRSingleton<T>::Instance"},
        {"static T *ZNRSingleton<ZNRLogger>::Instance() [T = ZNRLogger]", "ZNRSingleton<ZNRLogger>::Instance"},
        {"ZNRMessageQueue::ZNRMessageQueue()", "ZNRMessageQueue::ZNRMessageQueue"},
        {"std::map<int, int> ZNRReactorMgr_T<A, B, C>::New(std::vector<int, std::allocator<int> >*) const",
         "ZNRReactorMgr_T<A, B, C>::New"},
        {"bool ZNRA::operator()(int) const", "ZNRA::operator()"},
        {"ZNRA::operator bool() const", "ZNRA::operator bool"},
        {"bool ZNRA::operator<(const ZNRA&) const", "ZNRA::operator<"},
        {"int (anonymous namespace)::Helper(int)", "(anonymous namespace)::Helper"},
        {"int {anonymous}::Helper(int)", "{anonymous}::Helper"},
        {"ZNRA::Run()::<lambda(int)>", "ZNRA::Run"}, {"ZNRInit", "ZNRInit"}, {"", ""}, {nullptr, ""}};
    for (Row const& row : rows)
        EXPECT_STREQ(row.name, ZNRQualifiedFunctionName(row.pretty, buffer, sizeof buffer)) << row.name;
    // Never more than size - 1 characters, always terminated; size 0 writes nothing.
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_STREQ("ZNRThre", ZNRQualifiedFunctionName(rows[0].pretty, buffer, 8));
    EXPECT_STREQ("", ZNRQualifiedFunctionName("void f()", buffer, 1));
    buffer[0] = '#';
    ZNRQualifiedFunctionName("void f()", buffer, 0);
    EXPECT_EQ('#', buffer[0]);
}

TEST_F(LoggerTest, WriterOptionsDefaultsAndUnknownIds) {
    ZNRNormalLoggerWriter* writer = new ZNRNormalLoggerWriter();
    char text[260];
    std::memset(text, '#', sizeof text);
    std::uint32_t size = 1, console = 1;
    EXPECT_EQ(0u, writer->GetOption(0, text, 3));  // exactly fits "./" and its terminator
    EXPECT_EQ(std::string(".") + fstest::kSep, text);
    EXPECT_EQ(0u, writer->GetOption(3, text, 8) | writer->GetOption(1, &size, 4) | writer->GetOption(2, &console, 4));
    EXPECT_STREQ("znr.log", text);
    EXPECT_EQ(629145600u, size);
    EXPECT_EQ(0u, console);
    std::uint64_t const unknown = 0x8000000100000002ULL;
    EXPECT_EQ(unknown, writer->SetOption(4, &size, 4));
    EXPECT_EQ(unknown, writer->GetOption(4, &size, 4));
    EXPECT_EQ(unknown, writer->SetOption(0xFFFFFFFFu, &size, 4));

    // Values are copied and terminated; the directory is created with its parents.
    std::string const dir = In(dir_, "a/b");
    EXPECT_EQ(0u, SetText(writer, 0, dir));
    EXPECT_TRUE(std::filesystem::is_directory(dir));
    EXPECT_EQ(0u, writer->GetOption(0, text, sizeof text));
    EXPECT_EQ(dir, text);
    EXPECT_EQ(0u, writer->SetOption(3, "svc.logXXXX", 7));
    EXPECT_EQ(0u, writer->GetOption(3, text, sizeof text));
    EXPECT_STREQ("svc.log", text);
    writer->Destroy();
}

TEST_F(LoggerTest, WriterAppendsLinesAndRotatesToNumberedFiles) {
    std::string const live = In(dir_, "r.log");
    { std::ofstream(live + ".2") << "old\n"; }  // taken before the writer starts: rotation skips it
    ZNRNormalLoggerWriter* writer = NewWriter(dir_, "r.log", 116, 0);
    std::int64_t const t = LocalTime(2024, 3, 5, 7, 8, 9);
    std::vector<std::string> expected;
    for (int i = 0; i < 7; ++i) {
        std::string const message = "message number " + std::to_string(i) + " with some padding";
        ZNRLoggerEntry entry = {t, ZNRLogger::LOGL_INFO, message.c_str(), "f", 1, "F"};
        expected.push_back("[INFO, 2024/3/5 7:8:9] " + message + "\n");
        ASSERT_EQ(58u, expected.back().size());
        writer->OnWrite(&entry);
    }
    // Two lines (116 bytes) exactly fill a file; the third write moves it away.
    EXPECT_EQ(expected[0] + expected[1], ReadFile(live + ".0"));
    EXPECT_EQ(expected[2] + expected[3], ReadFile(live + ".1"));
    EXPECT_EQ("old\n", ReadFile(live + ".2"));
    EXPECT_EQ(expected[4] + expected[5], ReadFile(live + ".3"));
    EXPECT_EQ(expected[6], ReadFile(live));
    EXPECT_FALSE(std::filesystem::exists(live + ".4"));

    // The path was built once: a later directory or name is ignored.
    std::string const other = In(dir_, "other"), late = "[ERROR, 2024/3/5 7:8:9] late\n";
    EXPECT_EQ(0u, SetText(writer, 0, other) | writer->SetOption(3, "x.log", 5));
    ZNRLoggerEntry entry = {t, ZNRLogger::LOGL_ERROR, "late", "f", 1, "F"};
    writer->OnWrite(&entry);
    EXPECT_EQ(expected[6] + late, ReadFile(live));
    EXPECT_FALSE(std::filesystem::exists(In(other, "x.log")));
    writer->Destroy();

    // A new writer counts the live file's size: it appends once, past the maximum, then rotates
    // to the next free index.
    writer = NewWriter(dir_, "r.log", 100, 0);
    for (int i = 0; i < 2; ++i) writer->OnWrite(&entry);
    EXPECT_EQ(expected[6] + late + late, ReadFile(live + ".4"));
    EXPECT_EQ(late, ReadFile(live));
    writer->Destroy();
}

TEST_F(LoggerTest, WriterEchoesToTheConsoleAndReportsUnopenableFiles) {
    logger_->UnregisterAllWriters();
    logger_->RegisterWriter(NewWriter(dir_, "c.log", 1000000, 1));
    // Info, debug and notice go to stdout, the rest to stderr.
    for (unsigned char level = 1; level != 0x80; level <<= 1) {
        std::string const line = std::string("[") + ZNRLogger::GetLevelName(level) + ", 2023/11/1 0:0:0] m\n";
        bool const to_stdout = (level & (ZNRLogger::LOGL_INFO | ZNRLogger::LOGL_DEBUG | ZNRLogger::LOGL_NOTICE)) != 0;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        logger_->Write(LocalTime(2023, 11, 1, 0, 0, 0), level, "f", 1, "F", "%s", "m");
        std::string const out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(to_stdout ? "" : line, testing::internal::GetCapturedStderr()) << int(level);
        EXPECT_EQ(to_stdout ? line : "", out) << int(level);
    }
    logger_->UnregisterAllWriters();
    std::string const file = ReadFile(In(dir_, "c.log"));
    EXPECT_EQ(7, std::count(file.begin(), file.end(), '\n'));
    EXPECT_EQ(0u, file.find("[ALERT, 2023/11/1 0:0:0] m\n"));

    // A plain file where a directory should be: every write reports again.
    { std::ofstream(In(dir_, "plain")) << "x"; }
    std::string const dir = In(dir_, "plain/sub");
    ZNRNormalLoggerWriter* writer = new ZNRNormalLoggerWriter();
    EXPECT_NE(0u, SetText(writer, 0, dir));
    ZNRLoggerEntry entry = {1, ZNRLogger::LOGL_ERROR, "lost", "f", 1, "F"};
    testing::internal::CaptureStderr();
    for (int i = 0; i < 2; ++i) writer->OnWrite(&entry);
    std::string const once = "Can not open log file \"" + In(dir, "znr.log") + "\", errno=" +
                             std::to_string(kThroughFile) + "\nCan not write log to file, file is not opened, may be "
                             "privious was opened failed!\n";
    EXPECT_EQ(once + once, testing::internal::GetCapturedStderr());
    writer->Destroy();
}

TEST_F(LoggerTest, RegisteredWriterTakesOptionsWhileAnotherThreadLogs) {
    ZNRNormalLoggerWriter* writer = NewWriter(dir_, "s.log", 1000000, 0);
    logger_->RegisterWriter(writer);
    std::atomic<bool> done{false};
    std::thread logging([&] {
        for (int i = 0; i < 300; ++i) Write(ZNRLogger::LOGL_INFO, "line");
        done = true;
    });
    for (std::uint32_t size = 1000000; !done; size ^= 1) {
        char name[8];
        EXPECT_EQ(0u, writer->SetOption(1, &size, sizeof size) | SetText(writer, 3, "s.log") |
                          writer->GetOption(3, name, sizeof name));
    }
    logging.join();
    std::string const file = ReadFile(In(dir_, "s.log"));
    EXPECT_EQ(300, std::count(file.begin(), file.end(), '\n'));
}

TEST_F(LoggerTest, ConcurrentWritersSeeWholeMessages) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < 200; ++i)
                logger_->Write(i, ZNRLogger::LOGL_INFO, "f", 1, "F", "thread=%d index=%d", t, i);
        });
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
