#ifndef PLEXA_ZNR_LOGGER_H
#define PLEXA_ZNR_LOGGER_H

#include <plexa/znr-export.h>
#include <plexa/znr-singleton.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-thread-mutex.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <list>
#include <string>

struct ZNR_API ZNRLoggerEntry {
    std::int64_t time;
    unsigned char level;
    char const* message;
    char const* file;
    unsigned int line;
    char const* function;

    // "[LEVEL, y/m/d h:m:s] message\n" in local time, no zero padding.
    int ToDefaultFormatString(char* dst, unsigned int n) const;
    // "[y/m/d h:m:s] message\n".
    int ToDefaultSysLogFormatString(char* dst, unsigned int n) const;
};

class ZNR_API ZNRLoggerWriterBase {
public:
    virtual void OnWrite(ZNRLoggerEntry const* entry) = 0;
    // May be called at any time, also while the writer is registered and
    // another thread logs.
    virtual std::uint64_t SetOption(unsigned int id, void const* value, unsigned int size) = 0;
    virtual std::uint64_t GetOption(unsigned int id, void* value, unsigned int size) = 0;
    virtual void Destroy() = 0;

protected:
    virtual ~ZNRLoggerWriterBase() {}
    // The lock of the logger this writer is registered with, null before.
    // The logger calls OnWrite under it, so options that OnWrite reads
    // change under it too.
    ZNRThreadMutex const* LoggerLock() const { return logger_lock_.load(std::memory_order_acquire); }

private:
    friend class ZNRLogger;
    std::atomic<ZNRThreadMutex const*> logger_lock_{nullptr};
};

class ZNR_API ZNRLogger {
public:
    static constexpr unsigned char LOGL_ALERT = 0x01;
    static constexpr unsigned char LOGL_ERROR = 0x02;
    static constexpr unsigned char LOGL_WARNING = 0x04;
    static constexpr unsigned char LOGL_INFO = 0x08;
    static constexpr unsigned char LOGL_DEBUG = 0x10;
    static constexpr unsigned char LOGL_FATAL = 0x20;
    static constexpr unsigned char LOGL_NOTICE = 0x40;

    ZNRLogger();
    virtual ~ZNRLogger();

    static char const* GetLevelName(unsigned int level);

    void Write(std::int64_t time, unsigned char level, char const* file, unsigned int line,
               char const* function, char const* format, ...)
        __attribute__((format(printf, 7, 8)));
    void VWrite(std::int64_t time, unsigned char level, char const* file, unsigned int line,
                char const* function, char const* format, va_list args)
        __attribute__((format(printf, 7, 0)));

    // Adds levels to (Mask) or removes them from (Unmask) the suppression
    // mask; both return the mask as it was.
    unsigned char Mask(unsigned char levels);
    unsigned char Unmask(unsigned char levels);

    // The logger owns the writer from here on.
    void RegisterWriter(ZNRLoggerWriterBase* writer);
    void UnregisterAllWriters();
    void Dump();

private:
    ZNRStlAdapter<std::list<ZNRLoggerWriterBase*>> writers_;
    unsigned char mask_;
    ZNRThreadMutex lock_;
    char* buffer_;
};

extern template class ZNRSingleton<ZNRLogger>;

// Writes to the numbered set of log files and, when asked, to the console.
class ZNR_API ZNRNormalLoggerWriter : public ZNRLoggerWriterBase {
public:
    enum Option_t {
        OPT_DIRECTORY = 0,
        OPT_MAX_FILE_SIZE = 1,
        OPT_CONSOLE = 2,
        OPT_FILE_NAME = 3,
    };

    ZNRNormalLoggerWriter();

    void OnWrite(ZNRLoggerEntry const* entry) override;
    std::uint64_t SetOption(unsigned int id, void const* value, unsigned int size) override;
    std::uint64_t GetOption(unsigned int id, void* value, unsigned int size) override;
    void Destroy() override;

protected:
    ~ZNRNormalLoggerWriter() override;

private:
    void CheckFile();

    char* directory_;
    std::uint32_t max_file_size_;
    std::uint32_t console_;
    char* file_name_;
    std::FILE* file_;
    ZNRStlAdapter<std::string> full_path_;
    std::uint32_t file_size_;
    std::uint32_t rotation_index_;
    char* line_buffer_;
};

// Carries the time, level and place of one log call and forwards the
// format and arguments to the logger singleton.
class ZNR_API ZNRWin32LoggerHelper {
public:
    ZNRWin32LoggerHelper(std::int64_t time, unsigned char level, char const* file,
                         unsigned int line, char const* function);
    void operator()(char const* format, ...) __attribute__((format(printf, 2, 3)));

private:
    std::int64_t time_;
    unsigned char level_;
    char const* file_;
    unsigned int line_;
    char const* function_;
};

// Seconds since 1970, the time a log entry carries.
ZNR_API std::int64_t ZNRLogTime();

// Cuts a compiler's pretty function text down to the qualified name
// ("void A::B(int)" -> "A::B") into out; returns out.
ZNR_API char const* ZNRQualifiedFunctionName(char const* pretty, char* out, unsigned int size);

#if defined(__FILE_NAME__)
#  define ZNR_SOURCE_FILE __FILE_NAME__
#else
#  define ZNR_SOURCE_FILE __FILE__
#endif

// Names the function once per call site, then logs:
//   ZNR_LOG(ERROR, "Open thread error, error_msg=%s", text);
#define ZNR_LOG(LEVEL, ...)                                                              \
    do {                                                                                 \
        static char znr_log_function_[128];                                              \
        static bool znr_log_named_ =                                                     \
            (ZNRQualifiedFunctionName(__PRETTY_FUNCTION__, znr_log_function_,            \
                                      sizeof znr_log_function_), true);                  \
        (void)znr_log_named_;                                                            \
        ZNRWin32LoggerHelper(ZNRLogTime(), ZNRLogger::LOGL_##LEVEL, ZNR_SOURCE_FILE, __LINE__, \
                             znr_log_function_)(__VA_ARGS__);                            \
    } while (0)

#endif
