#include "znr-text-codec.h"

#include <cstring>

std::string ZNRTextCodec::CharsetOfLocale(char const* locale_name) {
    if (locale_name == nullptr || locale_name[0] == '\0') return ProcessCharset();
    if (std::strcmp(locale_name, "chs") == 0) return "GBK";
    if (std::strcmp(locale_name, "C") == 0 || std::strcmp(locale_name, "POSIX") == 0) return "ASCII";
    std::string name(locale_name);
    std::string::size_type dot = name.find('.');
    if (dot == std::string::npos) return name;
    std::string codeset = name.substr(dot + 1);
    std::string::size_type at = codeset.find('@');
    if (at != std::string::npos) codeset.erase(at);
    return codeset;
}
