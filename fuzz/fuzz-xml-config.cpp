// ZNRXmlConfig loading a file that includes others. The input is cut at
// zero bytes into the files main.xml, a.xml, b.xml, sub/c.xml, sub/d.txt
// and sub/deep/e.xml of a private directory, which is the working
// directory while main.xml loads, so that includes name them relatively
// ("<#include a.xml>", "<#include sub>"). The tree is then queried.
#include "fuzz-common.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

namespace {

char const* const kFiles[] = {"main.xml", "a.xml", "b.xml", "sub/c.xml", "sub/d.txt", "sub/deep/e.xml"};

std::string g_dir;

void RemoveDir() { std::filesystem::remove_all(g_dir); }

unsigned int CountNodes(ZNRXmlConfig::NodeInfo const& node, int depth) {
    FUZZ_CHECK(depth < 1000 && node.line >= 0);
    unsigned int n = 1;
    for (ZNRXmlConfig::NodeInfo const* child : *node.children) n += CountNodes(*child, depth + 1);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char pattern[] = "/tmp/plexa-fuzz-xml-XXXXXX";
    FUZZ_CHECK(mkdtemp(pattern) != nullptr);
    g_dir = pattern;
    std::filesystem::create_directories(g_dir + "/sub/deep");
    std::atexit(RemoveDir);
    // Each run stays short; the limit itself is still reached.
    ZNRXmlConfig::SetMaxLoadFiles(64);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    std::size_t start = 0;
    for (char const* name : kFiles) {
        std::size_t end = start < input.size() ? input.find('\0', start) : input.size();
        if (end == std::string::npos) end = input.size();
        std::ofstream(g_dir + "/" + name, std::ios::binary | std::ios::trunc)
            << (start < end ? input.substr(start, end - start) : std::string());
        start = end + 1;
    }

    // Loaded twice into one config: the second load replaces the tree and
    // sees the same one, nothing of the first load outlives it.
    unsigned int counts[2] = {0, 0};
    bool loaded[2] = {false, false};
    ZNRXmlConfig config;
    for (int k = 0; k < 2; ++k) {
        int const home = open(".", O_RDONLY | O_DIRECTORY);
        FUZZ_CHECK(home >= 0 && chdir(g_dir.c_str()) == 0);
        loaded[k] = config.Load(ZNRString("main.xml"), ZNRString("xml"));
        FUZZ_CHECK(fchdir(home) == 0);
        close(home);
        std::vector<ZNRXmlConfig::NodeInfo> nodes;
        if (config.GetNodes(ZNRString("r"), &nodes)) {
            for (ZNRXmlConfig::NodeInfo const& node : nodes) counts[k] += CountNodes(node, 0);
        }
    }
    FUZZ_CHECK(loaded[0] == loaded[1] && counts[0] == counts[1]);

    ZNRString value;
    std::map<ZNRString, ZNRString> attrs;
    config.Get(ZNRString("r/a"), &value, &attrs);
    int number = 0;
    config.GetInt(ZNRString("r/n"), &number);
    std::vector<ZNRXmlConfig::NodeInfo> nodes;
    config.GetNodes(ZNRString("r/a/c"), &nodes);
    FUZZ_CHECK(!config.GetAttrInt(ZNRString("r"), ZNRString("n"), &number));
    if (loaded[1]) config.Dump();
    return 0;
}
