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

/** @file
 *  The process-wide logger, its file writer and the ZNR_LOG macro. */
/// One log line as the writers get it. Every pointer is borrowed and valid
/// only during ZNRLoggerWriterBase::OnWrite.
struct ZNR_API ZNRLoggerEntry {
    /// Seconds since 1970.
    std::int64_t time;
    /// One of the ZNRLogger::LOGL_ bits.
    unsigned char level;
    /// The formatted text, at most 1024 bytes, terminated.
    char const* message;
    /// Source file of the call.
    char const* file;
    /// Source line of the call.
    unsigned int line;
    /// Qualified function name of the call ("ZNRThreadMgr::SetCurrent").
    char const* function;

    /// "[LEVEL, y/m/d h:m:s] message\n" in local time, no zero padding, into
    /// dst (at most n bytes, terminated). Returns what snprintf returns: the
    /// full length, which may pass n - 1.
    int ToDefaultFormatString(char* dst, unsigned int n) const;
    /// "[y/m/d h:m:s] message\n", as ToDefaultFormatString().
    int ToDefaultSysLogFormatString(char* dst, unsigned int n) const;
};

/// Where log lines go. Handed to ZNRLogger::RegisterWriter, the writer is
/// the logger's and ends through Destroy(). The logger calls OnWrite from
/// one thread at a time, under its lock.
class ZNR_API ZNRLoggerWriterBase {
public:
    /// Writes one entry (borrowed, for the call only). Must not log itself:
    /// the logger's message buffer would be overwritten.
    virtual void OnWrite(ZNRLoggerEntry const* entry) = 0;
    /// Sets option id from size bytes at value. May be called at any time,
    /// also while the writer is registered and another thread logs.
    virtual std::uint64_t SetOption(unsigned int id, void const* value, unsigned int size) = 0;
    /// Copies option id into size bytes at value; safe as SetOption().
    virtual std::uint64_t GetOption(unsigned int id, void* value, unsigned int size) = 0;
    /// Ends the writer (a registered one: called by the logger).
    virtual void Destroy() = 0;

protected:
    /// Writers end through Destroy().
    virtual ~ZNRLoggerWriterBase() {}
    /// The lock of the logger this writer is registered with, null before.
    /// The logger calls OnWrite under it, so options that OnWrite reads
    /// change under it too.
    ZNRThreadMutex const* LoggerLock() const { return logger_lock_.load(std::memory_order_acquire); }

private:
    friend class ZNRLogger;
    std::atomic<ZNRThreadMutex const*> logger_lock_{nullptr};
};

/// The process-wide logger (ZNRSingleton<ZNRLogger>): formats each message
/// once and hands it to every registered writer in registration order.
/// Every member is safe from any thread; all serialise on one lock. It never
/// reports failures to its caller.
class ZNR_API ZNRLogger {
public:
    /// Level bit "ALERT".
    static constexpr unsigned char LOGL_ALERT = 0x01;
    /// Level bit "ERROR".
    static constexpr unsigned char LOGL_ERROR = 0x02;
    /// Level bit "WARNING".
    static constexpr unsigned char LOGL_WARNING = 0x04;
    /// Level bit "INFO".
    static constexpr unsigned char LOGL_INFO = 0x08;
    /// Level bit "DEBUG".
    static constexpr unsigned char LOGL_DEBUG = 0x10;
    /// Level bit "FATAL".
    static constexpr unsigned char LOGL_FATAL = 0x20;
    /// Level bit "NOTICE".
    static constexpr unsigned char LOGL_NOTICE = 0x40;

    /// No writers, nothing masked. Hosts use the singleton rather than
    /// making their own.
    ZNRLogger();
    /// Releases the writer list without destroying the writers (call
    /// UnregisterAllWriters() first to end them).
    virtual ~ZNRLogger();

    /// The printed name of one level bit ("WARNING"); "UNKNOWN" for any
    /// other value. A static string.
    static char const* GetLevelName(unsigned int level);

    /// Formats format with the arguments (cut to 1024 bytes) and hands the
    /// entry to every writer, unless level is masked. The strings are
    /// borrowed for the call.
    void Write(std::int64_t time, unsigned char level, char const* file, unsigned int line,
               char const* function, char const* format, ...)
        __attribute__((format(printf, 7, 8)));
    /// Write() with an argument list.
    void VWrite(std::int64_t time, unsigned char level, char const* file, unsigned int line,
                char const* function, char const* format, va_list args)
        __attribute__((format(printf, 7, 0)));

    /// Adds levels to (Mask) or removes them from (Unmask) the suppression
    /// mask; both return the mask as it was. Mask(LOGL_DEBUG) silences debug lines.
    unsigned char Mask(unsigned char levels);
    /// Removes levels from the suppression mask; returns the mask as it was.
    unsigned char Unmask(unsigned char levels);

    /// The logger owns the writer from here on (a null one is ignored).
    void RegisterWriter(ZNRLoggerWriterBase* writer);
    /// Calls Destroy() on every writer in order and empties the list.
    void UnregisterAllWriters();
    /// Does nothing.
    void Dump();

private:
    ZNRStlAdapter<std::list<ZNRLoggerWriterBase*>> writers_;
    unsigned char mask_;
    ZNRThreadMutex lock_;
    char* buffer_;
};

extern template class ZNR_API ZNRSingleton<ZNRLogger>;

/// Writes to the numbered set of log files and, when asked, to the console.
/// The live file always has the configured name; once it reaches the
/// maximum size it is renamed with the next free suffix .0, .1, ... (up to
/// 100) and a new one is started. Create with new, hand to
/// ZNRLogger::RegisterWriter. Failures go to standard error ("Can not open
/// log file \"%s\", errno=%u", ...) and drop the line for this writer.
class ZNR_API ZNRNormalLoggerWriter : public ZNRLoggerWriterBase {
public:
    /// Option ids of SetOption() and GetOption().
    enum Option_t {
        /// Directory, narrow UTF-8 text of size bytes; default "./". Setting it
        /// creates it and its parents (that result is returned).
        OPT_DIRECTORY = 0,
        /// Maximum file size, a 32-bit unsigned; default 629145600 (600 MiB).
        OPT_MAX_FILE_SIZE = 1,
        /// Console echo, a 32-bit flag; default 0. INFO, DEBUG and NOTICE go to
        /// standard output, the other levels to standard error.
        OPT_CONSOLE = 2,
        /// File name, narrow text of size bytes; default "znr.log".
        OPT_FILE_NAME = 3,
    };

    /// Default options; no file is opened before the first line.
    ZNRNormalLoggerWriter();

    /// Formats the entry with ToDefaultFormatString(), rotates if due, and
    /// appends the line to the file (and the console when asked).
    void OnWrite(ZNRLoggerEntry const* entry) override;
    /// Sets an Option_t; the value is copied. Library error 2 for an unknown
    /// id; EINVAL (errno kind) for a null value, a number whose size is not 4,
    /// or a directory that is not UTF-8; ZNRMakeDir()'s error for a directory
    /// that cannot be made. Directory and file name count only when set
    /// before the first line.
    std::uint64_t SetOption(unsigned int id, void const* value, unsigned int size) override;
    /// Copies at most size bytes of an Option_t into value (text with its
    /// terminator when it fits). Library error 2 for an unknown id; EINVAL
    /// for a null value.
    std::uint64_t GetOption(unsigned int id, void* value, unsigned int size) override;
    /// Deletes the writer.
    void Destroy() override;

protected:
    /// Closes the file.
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

/// Carries the time, level and place of one log call and forwards the
/// format and arguments to the logger singleton. Made and used on one
/// thread, for one call (see ZNR_LOG).
class ZNR_API ZNRWin32LoggerHelper {
public:
    /// Keeps the values; the strings are borrowed and must outlive the call.
    ZNRWin32LoggerHelper(std::int64_t time, unsigned char level, char const* file,
                         unsigned int line, char const* function);
    /// ZNRLogger::VWrite on the singleton with the stored values.
    void operator()(char const* format, ...) __attribute__((format(printf, 2, 3)));

private:
    std::int64_t time_;
    unsigned char level_;
    char const* file_;
    unsigned int line_;
    char const* function_;
};

/// Seconds since 1970, the time a log entry carries. Safe from any thread.
ZNR_API std::int64_t ZNRLogTime();

/// Cuts a compiler's pretty function text down to the qualified name
/// ("void A::B(int)" -> "A::B") into out (size bytes, terminated, cut when
/// short); returns out. Safe from any thread.
ZNR_API char const* ZNRQualifiedFunctionName(char const* pretty, char* out, unsigned int size);

#if defined(__FILE_NAME__)
/// The source file name ZNR_LOG records: the base name where the compiler has one.
#  define ZNR_SOURCE_FILE __FILE_NAME__
#else
/// The source file name ZNR_LOG records: the base name where the compiler has one.
#  define ZNR_SOURCE_FILE __FILE__
#endif

/// Names the function once per call site, then logs:
///   ZNR_LOG(ERROR, "Open thread error, error_msg=%s", text);
/// LEVEL is a ZNRLogger::LOGL_ suffix. Safe from any thread.
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
