#ifndef PLEXA_SRC_ZNR_XML_CONFIG_FILE_H
#define PLEXA_SRC_ZNR_XML_CONFIG_FILE_H

#include <cstdint>
#include <string>

// What the configuration loader learns of a path before it opens it: a
// file is known by its device and inode, however its path is spelt.
struct ZNRXmlConfigFileStat {
    bool exists;
    bool regular;
    std::uint64_t device;
    std::uint64_t inode;
};

// Fills *out for path (a file-system name); symbolic links are followed.
void ZNRXmlConfigStatFile(std::string const& path, ZNRXmlConfigFileStat* out);

#endif
