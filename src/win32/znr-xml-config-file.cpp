#include "znr-xml-config-file.h"
#include "znr-win32-wide.h"

// The file is opened rather than looked up by name (GetFileAttributesEx):
// only an open handle follows symbolic links and gives the volume serial
// number and file index that stand for device and inode.
void ZNRXmlConfigStatFile(std::string const& path, ZNRXmlConfigFileStat* out) {
    *out = ZNRXmlConfigFileStat{false, false, 0, 0};
    // path is UTF-8, as the loader spells file-system names.
    std::wstring wide;
    if (!ZNRWin32Widen(path, CP_UTF8, &wide) || wide.empty()) return;
    // No access rights asked: the identity is readable even when the data is
    // not; backup semantics lets a directory open too.
    HANDLE const file = CreateFileW(wide.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    BY_HANDLE_FILE_INFORMATION info;
    if (GetFileInformationByHandle(file, &info)) {
        out->exists = true;
        out->regular = (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0;
        out->device = info.dwVolumeSerialNumber;
        out->inode = (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    }
    CloseHandle(file);
}
