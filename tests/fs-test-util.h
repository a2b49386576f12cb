#ifndef PLEXA_TESTS_FS_TEST_UTIL_H
#define PLEXA_TESTS_FS_TEST_UTIL_H

// Temporary directories, paths and the environment, the same way on every
// platform.

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace fstest {

#ifdef _WIN32
char const kSep = '\\';
#else
char const kSep = '/';
#endif

// rel with its "/" turned into the platform's separator.
inline std::string Native(std::string rel) {
    for (char& c : rel)
        if (c == '/') c = kSep;
    return rel;
}

// A fresh directory under the system's temporary one, removed with all it
// holds (read-only files too) when the object goes.
class TempDir {
public:
    explicit TempDir(std::string const& prefix) {
        namespace fs = std::filesystem;
        std::random_device random;
        fs::path const base = fs::temp_directory_path();
        for (;;) {
            fs::path const candidate = base / (prefix + "-" + std::to_string(random()));
            std::error_code error;
            if (fs::create_directory(candidate, error)) {
                path_ = candidate.string();
                return;
            }
            if (error) std::abort();
        }
    }
    ~TempDir() {
        namespace fs = std::filesystem;
        std::error_code error;
        for (fs::recursive_directory_iterator it(path_, error), end; !error && it != end; it.increment(error))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, error);
        fs::remove_all(path_, error);
    }
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const { return path_; }
    // rel ("a/b") under the directory, in the platform's spelling.
    std::string Path(std::string const& rel) const { return path_ + kSep + Native(rel); }

private:
    std::string path_;
};

inline void SetEnv(char const* name, char const* value) {
#ifdef _WIN32
    _putenv_s(name, value);
#else
    setenv(name, value, 1);
#endif
}

inline std::string CurrentDir() { return std::filesystem::current_path().string(); }

// Runs f with dir as the working directory and returns what it gave.
template <class F>
auto InDir(std::string const& dir, F f) {
    std::string const before = CurrentDir();
    std::filesystem::current_path(dir);
    auto const result = f();
    std::filesystem::current_path(before);
    return result;
}

}  // namespace fstest

#endif
