#ifndef PLEXA_TESTS_LOG_CAPTURE_H
#define PLEXA_TESTS_LOG_CAPTURE_H

#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

struct LogLine {
    unsigned char level;
    std::string message;
    std::string function;
};

// Records every line the library logs while it is alive; it replaces any
// writer registered before it.
class LogCapture {
public:
    LogCapture() {
        ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters();
        ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new Writer(&lines_));
    }
    ~LogCapture() { ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters(); }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    std::vector<LogLine>& lines() { return lines_; }
    std::vector<LogLine> const& lines() const { return lines_; }
    void clear() { lines_.clear(); }
    std::vector<std::string> Messages(unsigned char level) const {
        std::vector<std::string> out;
        for (LogLine const& l : lines_)
            if (l.level == level) out.push_back(l.message);
        return out;
    }

private:
    class Writer : public ZNRLoggerWriterBase {
    public:
        explicit Writer(std::vector<LogLine>* out) : out_(out) {}
        void OnWrite(ZNRLoggerEntry const* e) override {
            out_->push_back(LogLine{e->level, e->message, e->function ? e->function : ""});
        }
        std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
        std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
        void Destroy() override { delete this; }

    private:
        std::vector<LogLine>* out_;
    };

    std::vector<LogLine> lines_;
};

// Fixture form: logs_ holds the lines of the running test.
class LogCaptureTest : public ::testing::Test {
protected:
    std::vector<std::string> Messages(unsigned char level) const { return capture_.Messages(level); }

    LogCapture capture_;
    std::vector<LogLine>& logs_ = capture_.lines();
};

#endif
