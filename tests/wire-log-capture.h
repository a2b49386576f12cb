#ifndef PLEXA_TESTS_WIRE_LOG_CAPTURE_H
#define PLEXA_TESTS_WIRE_LOG_CAPTURE_H

#include <plexa/znr-logger.h>

#include <string>
#include <vector>

// Collects what the library logs while an instance is alive.
class WireLogCapture {
public:
    struct Line {
        unsigned char level;
        std::string message;
        std::string function;
    };

    WireLogCapture() {
        ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters();
        ZNRSingleton<ZNRLogger>::Instance()->RegisterWriter(new Writer(&lines_));
    }
    ~WireLogCapture() { ZNRSingleton<ZNRLogger>::Instance()->UnregisterAllWriters(); }

    std::vector<Line> const& lines() const { return lines_; }
    void clear() { lines_.clear(); }

private:
    class Writer : public ZNRLoggerWriterBase {
    public:
        explicit Writer(std::vector<Line>* lines) : lines_(lines) {}
        void OnWrite(ZNRLoggerEntry const* entry) override {
            lines_->push_back({entry->level, entry->message, entry->function});
        }
        std::uint64_t SetOption(unsigned int, void const*, unsigned int) override { return 0; }
        std::uint64_t GetOption(unsigned int, void*, unsigned int) override { return 0; }
        void Destroy() override { delete this; }

    private:
        std::vector<Line>* lines_;
    };

    std::vector<Line> lines_;
};

#endif
