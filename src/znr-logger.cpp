#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-string.h>
#include <plexa/znr-utils.h>

#include "znr-file-system.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>

// Defined here too, so that the DLL exports them: a Windows program that
// binds one to a reference imports it.
constexpr unsigned char ZNRLogger::LOGL_ALERT;
constexpr unsigned char ZNRLogger::LOGL_ERROR;
constexpr unsigned char ZNRLogger::LOGL_WARNING;
constexpr unsigned char ZNRLogger::LOGL_INFO;
constexpr unsigned char ZNRLogger::LOGL_DEBUG;
constexpr unsigned char ZNRLogger::LOGL_FATAL;
constexpr unsigned char ZNRLogger::LOGL_NOTICE;

template class ZNRSingleton<ZNRLogger>;

namespace {

unsigned int const kMessageLimit = 1024;
unsigned int const kLineLimit = 2049;
// The working directory: "./" or ".\".
char const kDefaultDirectory[] = {'.', kZNRPathSeparator, '\0'};
char const kDefaultFileName[] = "znr.log";
unsigned int const kMaxRotationIndex = 100;

char* CopyText(void const* value, unsigned int size) {
    char* text = new char[size + 1];
    if (size > 0) std::memcpy(text, value, size);
    text[size] = '\0';
    return text;
}

// Copies at most size bytes of a terminated text, the terminator included.
std::uint64_t GetTextOption(char const* text, void* value, unsigned int size) {
    std::size_t const n = std::strlen(text) + 1;
    std::memcpy(value, text, size < n ? size : n);
    return 0;
}

std::uint64_t GetNumberOption(std::uint32_t number, void* value, unsigned int size) {
    std::memcpy(value, &number, size < sizeof number ? size : sizeof number);
    return 0;
}

bool IsIdentChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '_' || c == '~';
}

}  // namespace

// ---------------------------------------------------------------------------

ZNRLogger::ZNRLogger() : mask_(0), buffer_(nullptr) {}

ZNRLogger::~ZNRLogger() {
    // Writers left registered outlive the logger and its lock.
    for (ZNRLoggerWriterBase* writer : *writers_)
        writer->logger_lock_.store(nullptr, std::memory_order_release);
    delete[] buffer_;
}

char const* ZNRLogger::GetLevelName(unsigned int level) {
    static char const* const names[65] = {
        "UNKNOWN", "ALERT",   "ERROR",   "UNKNOWN", "WARNING", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "INFO",    "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "DEBUG",   "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "FATAL",   "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN",
        "UNKNOWN", "NOTICE",
    };
    return level <= 64 ? names[level] : "UNKNOWN";
}

void ZNRLogger::Write(std::int64_t time, unsigned char level, char const* file, unsigned int line,
                      char const* function, char const* format, ...) {
    va_list args;
    va_start(args, format);
    VWrite(time, level, file, line, function, format, args);
    va_end(args);
}

void ZNRLogger::VWrite(std::int64_t time, unsigned char level, char const* file, unsigned int line,
                       char const* function, char const* format, va_list args) {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    if (buffer_ == nullptr) buffer_ = new char[kMessageLimit + 1];
    if ((level & mask_) != 0) return;
    buffer_[0] = '\0';
    if (format != nullptr) std::vsnprintf(buffer_, kMessageLimit + 1, format, args);
    ZNRLoggerEntry const entry = {time, level, buffer_, file, line, function};
    for (ZNRLoggerWriterBase* writer : *writers_) writer->OnWrite(&entry);
}

unsigned char ZNRLogger::Mask(unsigned char levels) {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    unsigned char const old = mask_;
    mask_ = static_cast<unsigned char>(mask_ | levels);
    return old;
}

unsigned char ZNRLogger::Unmask(unsigned char levels) {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    unsigned char const old = mask_;
    mask_ = static_cast<unsigned char>(mask_ & ~levels);
    return old;
}

void ZNRLogger::RegisterWriter(ZNRLoggerWriterBase* writer) {
    if (writer == nullptr) return;
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    writer->logger_lock_.store(&lock_, std::memory_order_release);
    writers_->push_back(writer);
}

void ZNRLogger::UnregisterAllWriters() {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    for (ZNRLoggerWriterBase* writer : *writers_) {
        writer->logger_lock_.store(nullptr, std::memory_order_release);
        writer->Destroy();
    }
    writers_->clear();
}

void ZNRLogger::Dump() {}

// ---------------------------------------------------------------------------

int ZNRLoggerEntry::ToDefaultFormatString(char* dst, unsigned int n) const {
    ZNRDate_t date = {};
    ZNRGetDate(&date, &time);
    return std::snprintf(dst, n, "[%s, %d/%d/%d %d:%d:%d] %s\n", ZNRLogger::GetLevelName(level),
                         date.year, date.month, date.day, date.hour, date.minute, date.second,
                         message != nullptr ? message : "");
}

int ZNRLoggerEntry::ToDefaultSysLogFormatString(char* dst, unsigned int n) const {
    ZNRDate_t date = {};
    ZNRGetDate(&date, &time);
    return std::snprintf(dst, n, "[%d/%d/%d %d:%d:%d] %s\n", date.year, date.month, date.day,
                         date.hour, date.minute, date.second, message != nullptr ? message : "");
}

// ---------------------------------------------------------------------------

ZNRNormalLoggerWriter::ZNRNormalLoggerWriter()
    : directory_(nullptr),
      max_file_size_(629145600),
      console_(0),
      file_name_(nullptr),
      file_(nullptr),
      file_size_(0),
      rotation_index_(0),
      line_buffer_(nullptr) {}

ZNRNormalLoggerWriter::~ZNRNormalLoggerWriter() {
    if (file_ != nullptr) std::fclose(file_);
    delete[] directory_;
    delete[] file_name_;
    delete[] line_buffer_;
}

void ZNRNormalLoggerWriter::Destroy() { delete this; }

std::uint64_t ZNRNormalLoggerWriter::SetOption(unsigned int id, void const* value, unsigned int size) {
    if (id > OPT_FILE_NAME) return ZNR_ERROR_UNKNOWN_OPTION_ID;
    if (value == nullptr) return ZNRCrtError(EINVAL);
    std::optional<ZNRGuardSpinLock> guard;
    if (ZNRThreadMutex const* lock = LoggerLock()) guard.emplace(lock, __FILE__, __LINE__);
    switch (id) {
    case OPT_DIRECTORY: {
        delete[] directory_;
        directory_ = CopyText(value, size);
        // File names on this system are UTF-8.
        ZNRString path;
        if (!path.NewFromUtf8Str(directory_)) return ZNRCrtError(EINVAL);
        return ZNRMakeDir(path, true);
    }
    case OPT_MAX_FILE_SIZE:
        if (size != sizeof max_file_size_) return ZNRCrtError(EINVAL);
        std::memcpy(&max_file_size_, value, size);
        return 0;
    case OPT_CONSOLE:
        if (size != sizeof console_) return ZNRCrtError(EINVAL);
        std::memcpy(&console_, value, size);
        return 0;
    default:
        delete[] file_name_;
        file_name_ = CopyText(value, size);
        return 0;
    }
}

std::uint64_t ZNRNormalLoggerWriter::GetOption(unsigned int id, void* value, unsigned int size) {
    if (id > OPT_FILE_NAME) return ZNR_ERROR_UNKNOWN_OPTION_ID;
    if (value == nullptr) return ZNRCrtError(EINVAL);
    std::optional<ZNRGuardSpinLock> guard;
    if (ZNRThreadMutex const* lock = LoggerLock()) guard.emplace(lock, __FILE__, __LINE__);
    switch (id) {
    case OPT_DIRECTORY:
        return GetTextOption(directory_ != nullptr ? directory_ : kDefaultDirectory, value, size);
    case OPT_MAX_FILE_SIZE:
        return GetNumberOption(max_file_size_, value, size);
    case OPT_CONSOLE:
        return GetNumberOption(console_, value, size);
    default:
        return GetTextOption(file_name_ != nullptr ? file_name_ : kDefaultFileName, value, size);
    }
}

void ZNRNormalLoggerWriter::CheckFile() {
    std::string& path = *full_path_;
    if (path.empty()) {
        if (directory_ != nullptr) {
            path = directory_;
            path += kZNRPathSeparator;
        } else {
            path = kDefaultDirectory;
        }
        path += file_name_ != nullptr ? file_name_ : kDefaultFileName;
    }

    if (file_ != nullptr && file_size_ >= max_file_size_) {
        if (std::fclose(file_) != 0)
            std::fprintf(stderr, "Can not close log file, errno=%u\n", static_cast<unsigned int>(errno));
        file_ = nullptr;
        file_size_ = 0;
        // Older content moves to the first free numbered name; the live file
        // keeps the configured one.
        for (; rotation_index_ <= kMaxRotationIndex; ++rotation_index_) {
            std::string const rotated = path + "." + std::to_string(rotation_index_);
            bool exists = false;
            std::uint64_t const error = ZNRTestFile(rotated.c_str(), ZNR_TEST_FILE_EXIST, &exists);
            if (error != 0) {
                std::fprintf(stderr, "Rename log file \"%s\" error, errno=%u\n", rotated.c_str(),
                             static_cast<unsigned int>(ZNRErrorNumber(error)));
                break;
            }
            if (exists) continue;
            if (std::rename(path.c_str(), rotated.c_str()) != 0)
                std::fprintf(stderr, "Rename log file \"%s\" to \"%s\" error, errno=%u\n",
                             path.c_str(), rotated.c_str(), static_cast<unsigned int>(errno));
            break;
        }
    }

    if (file_ == nullptr) {
        file_ = std::fopen(path.c_str(), "a+");
        if (file_ == nullptr) {
            std::fprintf(stderr, "Can not open log file \"%s\", errno=%u\n", path.c_str(),
                         static_cast<unsigned int>(errno));
            return;
        }
        std::fseek(file_, 0, SEEK_END);
        long const size = std::ftell(file_);
        file_size_ = size > 0 ? static_cast<std::uint32_t>(size) : 0;
    }
}

void ZNRNormalLoggerWriter::OnWrite(ZNRLoggerEntry const* entry) {
    if (entry == nullptr) return;
    if (line_buffer_ == nullptr) line_buffer_ = new char[kLineLimit + 1];
    CheckFile();
    if (file_ == nullptr) {
        std::fputs("Can not write log to file, file is not opened, may be privious was opened failed!\n",
                   stderr);
        return;
    }
    line_buffer_[0] = '\0';
    entry->ToDefaultFormatString(line_buffer_, kLineLimit);
    line_buffer_[kLineLimit] = '\0';
    std::size_t const length = std::strlen(line_buffer_);

    if (console_ != 0) {
        bool const to_stdout = entry->level == ZNRLogger::LOGL_INFO ||
                               entry->level == ZNRLogger::LOGL_DEBUG ||
                               entry->level == ZNRLogger::LOGL_NOTICE;
        std::FILE* console = to_stdout ? stdout : stderr;
        if (std::fputs(line_buffer_, console) == EOF || std::fflush(console) != 0) {
            std::fprintf(stderr, "Can not write log to console, errno=%u\n",
                         static_cast<unsigned int>(errno));
            return;
        }
    }

    if (std::fwrite(line_buffer_, 1, length, file_) != length || std::fflush(file_) != 0) {
        std::fprintf(stderr, "Can not write log to file, errno=%u\n", static_cast<unsigned int>(errno));
        return;
    }
    file_size_ += static_cast<std::uint32_t>(length);
}

// ---------------------------------------------------------------------------

ZNRWin32LoggerHelper::ZNRWin32LoggerHelper(std::int64_t time, unsigned char level, char const* file,
                                           unsigned int line, char const* function)
    : time_(time), level_(level), file_(file), line_(line), function_(function) {}

void ZNRWin32LoggerHelper::operator()(char const* format, ...) {
    va_list args;
    va_start(args, format);
    ZNRSingleton<ZNRLogger>::Instance()->VWrite(time_, level_, file_, line_, function_, format, args);
    va_end(args);
}

std::int64_t ZNRLogTime() { return static_cast<std::int64_t>(std::time(nullptr)); }

// Finds the qualified name in a GCC/Clang pretty function text: the word
// that stands right before the parameter list, with spaces inside template
// arguments and parentheses of the return type or of "(anonymous namespace)"
// skipped.
char const* ZNRQualifiedFunctionName(char const* pretty, char* out, unsigned int size) {
    if (out == nullptr || size == 0) return out;
    out[0] = '\0';
    if (pretty == nullptr) return out;

    std::size_t const length = std::strlen(pretty);
    std::size_t start = 0;
    std::size_t end = length;
    int angle = 0;
    for (std::size_t i = 0; i < length; ++i) {
        char const c = pretty[i];
        if (c == 'o' && std::strncmp(pretty + i, "operator", 8) == 0 &&
            (i == 0 || !IsIdentChar(pretty[i - 1])) && !IsIdentChar(pretty[i + 8])) {
            // The operator's own symbol may hold '<', '>' or "()".
            std::size_t j = i + 8;
            if (std::strncmp(pretty + j, "()", 2) == 0) j += 2;
            while (j < length && pretty[j] != '(') ++j;
            end = j;
            break;
        }
        if (c == '<') {
            ++angle;
        } else if (c == '>') {
            if (angle > 0) --angle;
        } else if (angle == 0 && c == ' ') {
            start = i + 1;
        } else if (angle == 0 && c == '(') {
            if (i > start && IsIdentChar(pretty[i - 1])) {
                end = i;
                break;
            }
            // A group that is not a parameter list: skip to its end.
            int depth = 0;
            std::size_t j = i;
            for (; j < length; ++j) {
                if (pretty[j] == '(') ++depth;
                if (pretty[j] == ')' && --depth == 0) break;
            }
            i = j;
        } else if (angle == 0 && c == '[') {
            break;
        }
    }
    if (end > length) end = length;
    // Clang binds the pointer or reference to the name: "T *A::f()".
    while (start < end && (pretty[start] == '*' || pretty[start] == '&')) ++start;
    std::size_t n = end > start ? end - start : 0;
    if (n > size - 1) n = size - 1;
    std::memcpy(out, pretty + start, n);
    out[n] = '\0';
    return out;
}
