#include <plexa/znr-error.h>
#include <plexa/znr-utils.h>

#include "../znr-file-system.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// File names on Linux are UTF-8.
bool ToFsPath(ZNRString const& path, std::string* out) {
    return path.ToUtf8Str(out) && out->find('\0') == std::string::npos;
}

bool IsDirectory(std::string const& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates one level; an existing directory counts as created.
std::uint64_t MakeOneDir(std::string const& path) {
    if (mkdir(path.c_str(), 0777) == 0) return 0;
    int const err = errno;
    return err == EEXIST && IsDirectory(path) ? 0 : ZNRCrtError(err);
}

// Entry names of dir in byte order, without "." and "..".
std::uint64_t ListNames(std::string const& dir, std::vector<std::string>* names) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return ZNRSysError(errno);
    errno = 0;
    while (dirent* entry = readdir(d)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names->push_back(name);
        errno = 0;
    }
    int const err = errno;
    closedir(d);
    if (err != 0) return ZNRSysError(err);
    std::sort(names->begin(), names->end());
    return 0;
}

std::uint64_t CollectFiles(std::string const& dir, ZNRString const& prefix,
                           std::vector<ZNRString>* out, bool recursive) {
    std::vector<std::string> names;
    std::uint64_t error = ListNames(dir, &names);
    if (error != 0) return error;
    for (std::string const& name : names) {
        std::string const path = dir == "/" ? dir + name : dir + "/" + name;
        ZNRString wide_name;
        // A name that is not UTF-8 cannot be given back as a path.
        if (!wide_name.NewFromUtf8Str(name)) continue;
        ZNRString const full = prefix + wide_name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            if (errno == ENOENT) continue;  // removed since it was listed
            return ZNRSysError(errno);
        }
        if (S_ISDIR(st.st_mode)) {
            if (!recursive) continue;
            error = CollectFiles(path, full + ZNRString("/"), out, recursive);
            if (error != 0) return error;
            continue;
        }
        if (S_ISLNK(st.st_mode) && IsDirectory(path)) continue;
        out->push_back(full);
    }
    return 0;
}

} // namespace

char const kZNRPathSeparator = '/';

int ZNRPlatformFileAccess(char const* path, int mode) { return access(path, mode) == 0 ? 0 : errno; }

std::uint64_t ZNRIsDirFile(ZNRString const& path) {
    std::string p;
    if (!ToFsPath(path, &p)) return ZNRSysError(EINVAL);
    struct stat st;
    if (stat(p.c_str(), &st) != 0) return ZNRSysError(errno);
    return S_ISDIR(st.st_mode) ? 0 : ZNR_ERROR_NOT_DIRECTORY;
}

std::uint64_t ZNRMakeDir(ZNRString const& path, bool recursive) {
    std::string p;
    if (!ToFsPath(path, &p)) return ZNRCrtError(EINVAL);
    if (p.empty()) return ZNRCrtError(ENOENT);
    if (!recursive) return MakeOneDir(p);
    // Tests and creates each prefix in turn; empty parts ("//", a leading or
    // trailing "/") add nothing.
    std::string prefix = p[0] == '/' ? "/" : "";
    std::size_t begin = 0;
    while (begin <= p.size()) {
        std::size_t end = p.find('/', begin);
        if (end == std::string::npos) end = p.size();
        if (end > begin) {
            if (!prefix.empty() && prefix.back() != '/') prefix += '/';
            prefix.append(p, begin, end - begin);
            if (!IsDirectory(prefix)) {
                std::uint64_t error = MakeOneDir(prefix);
                if (error != 0) return error;
            }
        }
        begin = end + 1;
    }
    return 0;
}

std::uint64_t ZNRGetDirFiles(ZNRString const& dir, std::vector<ZNRString>* out, bool recursive) {
    if (out == nullptr) return ZNRSysError(EINVAL);
    std::string d;
    if (!ToFsPath(dir, &d)) return ZNRSysError(EINVAL);
    if (d.empty()) return ZNRSysError(ENOENT);
    ZNRString prefix = dir;
    if (d.back() != '/') prefix += static_cast<unsigned short>('/');
    while (d.size() > 1 && d.back() == '/') d.pop_back();
    return CollectFiles(d, prefix, out, recursive);
}
