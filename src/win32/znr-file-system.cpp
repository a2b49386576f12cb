#include <plexa/znr-error.h>
#include <plexa/znr-utils.h>

#include "../znr-file-system.h"

#include <algorithm>
#include <cerrno>
#include <io.h>
#include <string>
#include <vector>

#include <windows.h>

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

// The library's strings are already UTF-16, the system's own form; a NUL
// unit would cut the name short.
bool ToWidePath(ZNRString const& path, std::wstring* out) {
    ZNRStdWString const& units = path;
    if (std::find(units.begin(), units.end(), 0) != units.end()) return false;
    out->assign(units.begin(), units.end());
    return true;
}

// A link to a directory also says "directory", whatever it points to.
bool IsDirectory(std::wstring const& path) {
    DWORD const attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Creates one level; an existing directory counts as created. The C
// runtime's call, not CreateDirectory, because these errors are errno codes.
std::uint64_t MakeOneDir(std::wstring const& path) {
    if (_wmkdir(path.c_str()) == 0) return 0;
    int const err = errno;
    return err == EEXIST && IsDirectory(path) ? 0 : ZNRCrtError(err);
}

// Length of the part that names a root and is never created: "\", "C:",
// "C:\", "\\server\share\" (which also covers "\\?\C:\").
std::size_t RootLength(std::wstring const& p) {
    if (p.size() >= 2 && p[1] == L':') return p.size() > 2 && IsSeparator(p[2]) ? 3 : 2;
    if (p.size() >= 2 && IsSeparator(p[0]) && IsSeparator(p[1])) {
        std::size_t const server_end = p.find_first_of(L"\\/", 2);
        if (server_end == std::wstring::npos) return p.size();
        std::size_t const share_end = p.find_first_of(L"\\/", server_end + 1);
        return share_end == std::wstring::npos ? p.size() : share_end + 1;
    }
    return !p.empty() && IsSeparator(p[0]) ? 1 : 0;
}

// Names are appended to a directory after a separator, except to a bare
// separator or drive ("C:" names the drive's current directory).
bool NeedsSeparator(std::wstring const& dir) {
    return !IsSeparator(dir.back()) && dir.back() != L':';
}

struct Entry {
    std::wstring name;
    bool directory;
    bool link;
};

// Entries of the directory whose names follow base, in name order, without
// "." and "..".
std::uint64_t ListEntries(std::wstring const& base, std::vector<Entry>* entries) {
    WIN32_FIND_DATAW found;
    HANDLE const find = FindFirstFileW((base + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) {
        DWORD const error = GetLastError();
        // An empty drive root has not even "." and "..".
        return error == ERROR_FILE_NOT_FOUND ? 0 : ZNRSysError(static_cast<int>(error));
    }
    do {
        std::wstring const name = found.cFileName;
        if (name == L"." || name == L"..") continue;
        bool const reparse = (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
        entries->push_back(Entry{name, (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
                                 reparse && (found.dwReserved0 == IO_REPARSE_TAG_SYMLINK ||
                                             found.dwReserved0 == IO_REPARSE_TAG_MOUNT_POINT)});
    } while (FindNextFileW(find, &found));
    DWORD const error = GetLastError();
    FindClose(find);
    if (error != ERROR_NO_MORE_FILES) return ZNRSysError(static_cast<int>(error));
    std::sort(entries->begin(), entries->end(),
              [](Entry const& a, Entry const& b) { return a.name < b.name; });
    return 0;
}

std::uint64_t CollectFiles(std::wstring const& base, ZNRString const& prefix,
                           std::vector<ZNRString>* out, bool recursive) {
    std::vector<Entry> entries;
    std::uint64_t error = ListEntries(base, &entries);
    if (error != 0) return error;
    for (Entry const& entry : entries) {
        ZNRString const full = prefix + ZNRString(ZNRStdWString(entry.name.begin(), entry.name.end()));
        if (!entry.directory) {
            out->push_back(full);
            continue;
        }
        // Links and junctions to directories are not followed.
        if (!recursive || entry.link) continue;
        error = CollectFiles(base + entry.name + L"\\", full + ZNRString("\\"), out, recursive);
        if (error != 0) return error;
    }
    return 0;
}

} // namespace

char const kZNRPathSeparator = '\\';

// The narrow path is in the ANSI code page, as the C runtime reads it.
int ZNRPlatformFileAccess(char const* path, int mode) { return _access(path, mode) == 0 ? 0 : errno; }

std::uint64_t ZNRIsDirFile(ZNRString const& path) {
    std::wstring p;
    if (!ToWidePath(path, &p)) return ZNRSysError(ERROR_INVALID_NAME);
    DWORD const attributes = GetFileAttributesW(p.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return ZNRSysError(static_cast<int>(GetLastError()));
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? 0 : ZNR_ERROR_NOT_DIRECTORY;
}

std::uint64_t ZNRMakeDir(ZNRString const& path, bool recursive) {
    std::wstring p;
    if (!ToWidePath(path, &p)) return ZNRCrtError(EINVAL);
    if (p.empty()) return ZNRCrtError(ENOENT);
    if (!recursive) return MakeOneDir(p);
    // Tests and creates each prefix that ends a part in turn; empty parts
    // add nothing.
    for (std::size_t begin = RootLength(p); begin < p.size();) {
        std::size_t end = p.find_first_of(L"\\/", begin);
        if (end == std::wstring::npos) end = p.size();
        if (end > begin) {
            std::wstring const prefix = p.substr(0, end);
            if (!IsDirectory(prefix)) {
                std::uint64_t const error = MakeOneDir(prefix);
                if (error != 0) return error;
            }
        }
        begin = end + 1;
    }
    return 0;
}

std::uint64_t ZNRGetDirFiles(ZNRString const& dir, std::vector<ZNRString>* out, bool recursive) {
    if (out == nullptr) return ZNRSysError(ERROR_INVALID_PARAMETER);
    std::wstring base;
    if (!ToWidePath(dir, &base)) return ZNRSysError(ERROR_INVALID_NAME);
    if (base.empty()) return ZNRSysError(ERROR_PATH_NOT_FOUND);
    ZNRString prefix = dir;
    if (NeedsSeparator(base)) {
        base += L'\\';
        prefix += static_cast<unsigned short>('\\');
    }
    return CollectFiles(base, prefix, out, recursive);
}
