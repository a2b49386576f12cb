#include "znr-xml-config-file.h"

#include <sys/stat.h>

void ZNRXmlConfigStatFile(std::string const& path, ZNRXmlConfigFileStat* out) {
    struct stat st;
    out->exists = stat(path.c_str(), &st) == 0;
    out->regular = out->exists && S_ISREG(st.st_mode);
    out->device = out->exists ? static_cast<std::uint64_t>(st.st_dev) : 0;
    out->inode = out->exists ? static_cast<std::uint64_t>(st.st_ino) : 0;
}
