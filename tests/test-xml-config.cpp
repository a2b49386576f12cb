#include "fs-test-util.h"
#include "log-capture.h"

#include <cctype>
#include <fstream>
#include <string>
#include <vector>

namespace {

// Echoes the attribute name back as its value, so GetAttrInt sees any text.
class AttrConfig : public ZNRXmlConfig {
public:
    bool GetAttr(ZNRString const&, ZNRString const& name, ZNRString* value) const override {
        *value = name;
        return !(name == ZNRString("missing"));
    }
};

std::string Include(std::string const& path) { return "<#include " + path + ">"; }

// How the loader names an included file: by its lower-cased path first,
// which on Windows names the same file.
std::string Included(std::string path) {
#ifdef _WIN32
    for (char& c : path) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
#endif
    return path;
}

using fstest::kSep;

class XmlConfigTest : public LogCaptureTest {
protected:
    std::vector<std::string> Errors() const { return Messages(ZNRLogger::LOGL_ERROR); }

    // Writes dir_/rel, creating its directories, and returns the full path.
    std::string Write(std::string const& rel, std::string const& text) {
        std::string const path = temp_.Path(rel);
        EXPECT_EQ(0u, ZNRMakeDir(ZNRString(path.substr(0, path.rfind(kSep))), true));
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    bool Load(std::string const& path, char const* ext = "xml") {
        return config_.Load(ZNRString(path), ZNRString(ext));
    }
    // The values of the nodes at path, joined by ",".
    std::string Values(char const* path) const {
        std::vector<ZNRXmlConfig::NodeInfo> nodes;
        if (!config_.GetNodes(ZNRString(path), &nodes)) return "<fail>";
        std::string out;
        for (auto const& n : nodes) out += (out.empty() ? "" : ",") + n.value.ToStdCStr();
        return out;
    }

    // dir_/rel, spelt for the platform.
    std::string Path(std::string const& rel) const { return temp_.Path(rel); }

    ZNRXmlConfig config_;
    fstest::TempDir temp_{"plexa-xml"};
    std::string const dir_ = temp_.path();
};

TEST_F(XmlConfigTest, QueriesValuesAttributesAndTrees) {
    ASSERT_TRUE(Load(Write("m.xml", "<s name=\"a\">\n<db host=\"h\"><u>x</u>tail</db>\n"
                                    "<i>1</i><i k=\"v\">2</i>\n<n>-42</n><h>0x1F</h><o>010</o>"
                                    "<bad>12abc</bad><e></e><big>2147483648</big></s>")));
    ZNRString value(u"old");
    std::map<ZNRString, ZNRString> attrs{{ZNRString("stale"), ZNRString()}};
    ASSERT_TRUE(config_.Get(ZNRString("s/db"), &value, &attrs));
    EXPECT_EQ("", value.ToStdCStr());  // the first child is an element
    EXPECT_EQ((std::map<ZNRString, ZNRString>{{ZNRString("host"), ZNRString("h")}}), attrs);
    EXPECT_EQ("1,2", Values("s/i"));
    EXPECT_EQ("", Values("t/i"));  // another root name selects nothing
    EXPECT_EQ("", Values("s/i/none"));

    std::vector<ZNRXmlConfig::NodeInfo> nodes;
    ASSERT_TRUE(config_.GetNodes(ZNRString("s"), &nodes));
    ZNRXmlConfig::NodeInfo tree = nodes.at(0);
    nodes.clear();  // the copy owns its children
    EXPECT_EQ(1, tree.line);
    ASSERT_EQ(9u, tree.children->size());
    EXPECT_EQ(3, (*tree.children)[2]->line);
    EXPECT_EQ("v", (*(*tree.children)[2]->attrs)[ZNRString("k")].ToStdCStr());
    tree = *(*tree.children)[0];  // a node's own descendant
    EXPECT_EQ("db", tree.name.ToStdCStr());
    EXPECT_EQ("x", (*tree.children).at(0)->value.ToStdCStr());

    int v = 7;
    for (auto row : {std::make_pair("s/n", -42), std::make_pair("s/h", 31), std::make_pair("s/o", 8)})
        EXPECT_TRUE(config_.GetInt(ZNRString(row.first), &v) && v == row.second) << row.first;
    EXPECT_TRUE(Errors().empty());
    // Failed reads leave the outputs alone and log why.
    for (char const* bad : {"s/bad", "s/e", "s/big", "s/i"}) EXPECT_FALSE(config_.GetInt(ZNRString(bad), &v)) << bad;
    for (char const* bad : {"s/none", "", "/s", "s/", "s//i"})
        EXPECT_FALSE(config_.Get(ZNRString(bad), &value, nullptr)) << bad;
    EXPECT_EQ(8, v);
    EXPECT_EQ("", value.ToStdCStr());
    std::vector<std::string> const expected = {
        "Invalid config node value, node path=\"s/bad\"",
        "Invalid config node value, node path=\"s/e\"",
        "Invalid config node value, node path=\"s/big\"",
        "Get config node error, node redefined, node path=\"s/i\"",
        "Get config node error, path not exist, node path=\"s/none\"",
        "Get config node error, invalid node path, node path=\"\"",
        "Get config node error, invalid node path, node path=\"/s\"",
        "Get config node error, invalid node path, node path=\"s/\"",
        "Get config node error, invalid node path, node path=\"s//i\"",
    };
    EXPECT_EQ(expected, Errors());

    // Attributes go through the hook, which the base class refuses.
    logs_.clear();
    EXPECT_FALSE(config_.GetAttr(ZNRString("s/db"), ZNRString("host"), &value));
    EXPECT_FALSE(config_.GetAttrInt(ZNRString("s/db"), ZNRString("host"), &v));
    AttrConfig derived;
    EXPECT_TRUE(derived.GetAttrInt(ZNRString("r/p"), ZNRString("0x10"), &v));
    EXPECT_FALSE(derived.GetAttrInt(ZNRString("r/p"), ZNRString("missing"), &v));
    EXPECT_FALSE(derived.GetAttrInt(ZNRString("r/p"), ZNRString("ten"), &v));
    EXPECT_EQ(16, v);
    ZNRXmlConfig copy(config_);  // copies no document
    EXPECT_FALSE(copy.Get(ZNRString("s/n"), nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{"Invalid config node attribute value node path=\"r/p\" attr name=\"ten\"",
                                        "Get config node error, config not loaded, node path=\"s/n\""}),
              Errors());
}

TEST_F(XmlConfigTest, NestedIncludesLandUnderTheIncludingRoot) {
    std::string const b = Write("inc/b.xml", "<b><deep>1</deep></b>");
    std::string const a = Write("inc/a.xml", "<a>\n" + Include(b) + "\n<x>5</x>\n</a>");
    std::string const m = Write("m.xml", "<s><f>0</f>" + Include(a) + "<l>9</l></s>");
    ASSERT_TRUE(Load(m));
    std::vector<ZNRXmlConfig::NodeInfo> nodes;
    ASSERT_TRUE(config_.GetNodes(ZNRString("s/a/x"), &nodes));
    ASSERT_EQ(1u, nodes.size());
    EXPECT_EQ(3, nodes[0].line);  // counted in its own file
    EXPECT_EQ("0,9", Values("s/f") + "," + Values("s/l"));
    // a.xml was copied before its own include ran, so b stays out.
    EXPECT_EQ("", Values("s/a/b"));
    EXPECT_TRUE(Errors().empty());

    // A broken file two levels down fails the load; earlier merges stay.
    Write("inc/b.xml", "<b><deep>1</b>");
    EXPECT_FALSE(Load(m));
    EXPECT_EQ(std::vector<std::string>{"Can not load config file, file=\"" + Included(b) +
                                       "\" line=1 error desc=\"Error reading end tag.\""},
              Errors());
    EXPECT_EQ("5", Values("s/a/x"));
}

TEST_F(XmlConfigTest, IncludePathsDirectoriesAndCase) {
    for (char const* name :
         {"b.xml", "a.xml", "a.txt", "xml", "c.xmlx", "sub/c.XML", "sub/d/d.xml", "z.xml"})
        Write(std::string("conf/") + name, "<i>" + std::string(name) + "</i>");
    ASSERT_TRUE(Load(Write("m.xml", "<s>" + Include(Path("conf")) + "</s>")));
    EXPECT_EQ("a.xml,b.xml,sub/c.XML,sub/d/d.xml,z.xml", Values("s/i"));
    // The extension filter follows the load; a trailing slash is accepted.
    ASSERT_TRUE(Load(Write("m.txt", "<s>" + Include(Path("conf/")) + "</s>"), "txt"));
    EXPECT_EQ("a.txt", Values("s/i"));

    // Directives in any case; relative paths try lower case first.
    Write("conf/extra.xml", "<extra>1</extra>");
    Write("Upper/Mixed.xml", "<mixed>2</mixed>");
    Write("m.xml", "<r>\n<#INCLUDE   " + fstest::Native("Conf/Extra.XML") + "  >\n<#Include " +
                       fstest::Native("Upper/Mixed.xml") + ">\n</r>");
    ASSERT_TRUE(fstest::InDir(dir_, [this] { return Load("m.xml"); }));
    EXPECT_EQ("1|2", Values("r/extra") + "|" + Values("r/mixed"));
    EXPECT_TRUE(Errors().empty());
}

TEST_F(XmlConfigTest, BadInputFailsWithTheReason) {
    std::string const empty = Write("empty.xml", "<r>\n\n  <#include>\n</r>");
    std::string const define = Write("define.xml", "<r>\n<a>\n<#Define X>\n</a>\n<#bad>\n</r>");
    std::string const blank = Write("blank.xml", "<#include   >\n<r/>");
    std::string const text = Write("text.xml", "just words");
    std::string const open = Write("open.xml", "<r>\n<a>\n</r>");
    std::string const bare = Write("bare.xml", "<!-- no root -->");
    // Bytes the file's charset cannot convert, in a path, a name, a value,
    // an attribute; "\xd6\xd0" is GBK but not UTF-8.
    Write("conf/x.xml", "<x/>");
    std::string const path = Write("path.xml", "<r>\n" + Include(Path("conf\xff/no.xml")) + "</r>");
    std::string const name = Write("name.xml", "<r\xff/>");
    std::string const value = Write("value.xml", "<r>\n\n<v>a\xff</v></r>");
    std::string const attr = Write("attr.xml", "<r>\n<v k=\"\x81\">1</v></r>");
    std::string const utf8 = Write("utf8.xml", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r>\xd6\xd0</r>");
    std::string const good = Write("good.xml", "<good>1</good>");
    std::string const m =
        Write("m.xml", "<r>\n" + Include(good) + "\n" + Include(Path("none.xml")) + "</r>");
    std::string const missing = Path("missing.xml");
    std::string const nested = Write("nested.xml", "<r>\n" + Include(open) + "</r>");
    // What a host tells its user: the file at fault, its row, the reason.
    auto const reason = [this] {
        ZNRXmlConfig::LoadError const e = ZNRXmlConfig::GetLastLoadError();
        std::string file = e.file.ToStdCStr();
        file = file.rfind(dir_, 0) == 0 || file.rfind(Included(dir_), 0) == 0 ? file.substr(dir_.size()) : file;
        for (char& c : file) c = c == kSep ? '/' : c;
        return file + ":" +
               std::to_string(e.row) + ": " + e.description.ToStdCStr();
    };
    std::vector<std::string> reasons;
    for (std::string const& f :
         {empty, define, blank, missing, text, open, bare, dir_, path, name, value, attr, utf8, nested, m}) {
        EXPECT_FALSE(Load(f)) << f;
        reasons.push_back(reason());
    }
    ZNRString no_such;
    ZNRGetErrorMsg(ZNRSysError(ENOENT), &no_such);
    EXPECT_EQ((std::vector<std::string>{
                  "/empty.xml:3: invalid tag <#include>", "/define.xml:3: invalid tag <#Define X>",
                  "/blank.xml:1: invalid tag <#include   >", "/missing.xml:0: Failed to open file",
                  "/text.xml:0: Error document empty.", "/open.xml:3: Error reading end tag.",
                  "/bare.xml:0: no root element", ":0: not a regular file",
                  "/path.xml:2: text not convertible from GBK", "/name.xml:1: text not convertible from GBK",
                  "/value.xml:3: text not convertible from GBK", "/attr.xml:2: text not convertible from GBK",
                  "/utf8.xml:2: text not convertible from UTF-8", "/open.xml:3: Error reading end tag.",
                  "/m.xml:3: can not include " + Path("none.xml") + ": " + no_such.ToStdCStr()}),
              reasons);
    std::string const load = "Can not load config file, ";
    std::vector<std::string> const expected = {
        "Invalid config tag, file=\"" + empty + "\" row=3 tag=\"#include\"",
        // The first bad tag only.
        "Invalid config tag, file=\"" + define + "\" row=3 tag=\"#Define X\"",
        "Invalid config tag, file=\"" + blank + "\" row=1 tag=\"#include   \"",
        load + "file=\"" + missing + "\" line=0 error desc=\"Failed to open file\"",
        load + "file=\"" + text + "\" line=0 error desc=\"Error document empty.\"",
        load + "file=\"" + open + "\" line=3 error desc=\"Error reading end tag.\"",
        load + "root element not exist, file=\"" + bare + "\"",
        load + "not a regular file, file=\"" + dir_ + "\"",
        load + "text not convertible, file=\"" + path + "\" row=2 charset=\"GBK\"",
        load + "text not convertible, file=\"" + name + "\" row=1 charset=\"GBK\"",
        load + "text not convertible, file=\"" + value + "\" row=3 charset=\"GBK\"",
        load + "text not convertible, file=\"" + attr + "\" row=2 charset=\"GBK\"",
        load + "text not convertible, file=\"" + utf8 + "\" row=2 charset=\"UTF-8\"",
        load + "file=\"" + Included(open) + "\" line=3 error desc=\"Error reading end tag.\"",
        load + "execute dictate error,                               file=\"" + m +
            "\" line=3 error desc=\"" + no_such.ToStdCStr() + "\"",
    };
    EXPECT_EQ(expected, Errors());
    EXPECT_EQ("1", Values("r/good"));  // merged before the failure
    ASSERT_TRUE(Load(good));
    EXPECT_EQ(":0: ", reason());  // a load that succeeds clears it
}

TEST_F(XmlConfigTest, IncludeCyclesAndDepthAreBounded) {
    std::string const self = Path("self.xml"), a = Path("a.xml");
    std::string const b = Write("b.xml", "<b>\n\n" + Include(Path("./a.xml")) + "</b>");
    Write("self.xml", "<r>\n" + Include(self) + "\n</r>");
    Write("a.xml", "<a>" + Include(b) + "</a>");
    std::string const in_dir = Write("loop/m.xml", "<m>" + Include(Path("loop")) + "</m>");
    for (std::string const& f : {self, a, in_dir}) EXPECT_FALSE(Load(f)) << f;
    std::string const leaf = Write("leaf.xml", "<leaf>x</leaf>");
    ASSERT_TRUE(Load(Write("twice.xml", "<t>" + Include(leaf) + Include(leaf) + "</t>")));
    EXPECT_EQ("x,x", Values("t/leaf"));  // side by side is no cycle

    // A chain of distinct files: 32 nested levels load, a 33rd is refused.
    auto chain = [&](int files) {
        for (int i = 0; i < files; ++i) {
            std::string const next = Path("chain/" + std::to_string(i + 1) + ".xml");
            Write("chain/" + std::to_string(i) + ".xml",
                  "<n>" + (i + 1 < files ? Include(next) : "") + "</n>");
        }
        return Path("chain/0.xml");
    };
    EXPECT_TRUE(Load(chain(33)) && !Load(chain(34)));

    // Each file includes the next twice: three files make 1 + 2 + 4 reads.
    std::string const twice1 = Path("twice/1.xml"), twice2 = Path("twice/2.xml");
    Write("twice/2.xml", "<c/>");
    Write("twice/1.xml", "<b>\n" + Include(twice2) + "\n" + Include(twice2) + "</b>");
    std::string const top = Write("twice/0.xml", "<a>" + Include(twice1) + Include(twice1) + "</a>");
    EXPECT_EQ(10000u, ZNRXmlConfig::GetMaxLoadFiles());
    ZNRXmlConfig::SetMaxLoadFiles(7);
    EXPECT_TRUE(Load(top));
    ZNRXmlConfig::SetMaxLoadFiles(6);
    EXPECT_FALSE(Load(top));
    ZNRXmlConfig::SetMaxLoadFiles(10000);
    std::string const load = "Can not load config file, ";
    std::vector<std::string> const expected = {
        load + "include cycle, file=\"" + self + "\" line=2 include=\"" + Included(self) + "\"",
        load + "include cycle, file=\"" + Included(b) + "\" line=3 include=\"" + Included(Path("./a.xml")) + "\"",
        load + "include cycle, file=\"" + in_dir + "\" line=1 include=\"" + Included(in_dir) + "\"",
        load + "include depth limit reached, file=\"" + Included(Path("chain/32.xml")) + "\" line=1 limit=32",
        load + "file count limit reached, file=\"" + Included(twice1) + "\" line=3 include=\"" + Included(twice2) +
            "\" limit=6",
    };
    EXPECT_EQ(expected, Errors());
}

TEST_F(XmlConfigTest, LegacyBytesDumpAndReload) {
    // "\xd6\xd0" is one GBK character, passed through by the parser.
    std::string const inc = Write("inc.xml", "<inc v=\"\xd6\xd0\">\xd6\xd0</inc>");
    ASSERT_TRUE(Load(Write("m.xml", "<r>" + Include(inc) + "</r>")));
    ZNRString value;
    std::map<ZNRString, ZNRString> attrs;
    ASSERT_TRUE(config_.Get(ZNRString("r/inc"), &value, &attrs));
    EXPECT_TRUE(value == ZNRString(u"\u4e2d") && attrs[ZNRString("v")] == value);
    testing::internal::CaptureStdout();
    config_.Dump();
    EXPECT_EQ("<r>\n    <#include " + inc + ">\n    <inc v=\"\xd6\xd0\">\xd6\xd0</inc>\n</r>\n",
              testing::internal::GetCapturedStdout());
    ASSERT_TRUE(Load(Write("o.xml", "<o>1</o>")));  // replaces the tree
    EXPECT_EQ("|1", Values("r/inc") + "|" + Values("o"));

    // A file declared UTF-8 is decoded as UTF-8, references included; any
    // other declaration, or none, keeps GBK. Each file follows its own.
    auto text = [&](char16_t const* path) {
        ZNRString out(u"<fail>");
        config_.Get(ZNRString(path), &out, &attrs);
        return out;
    };
    std::string const u = Write("u.xml", "<?xml version=\"1.0\" encoding=\"Utf-8\"?>\n<u k=\"\xc3\xa9\">"
                                         "caf\xc3\xa9-01&#x4e2d;<\xe4\xb8\xad>1</\xe4\xb8\xad></u>");
    ASSERT_TRUE(Load(Write("g.xml", "<?xml version=\"1.0\" encoding=\"GBK\"?>\n<g>\xd6\xd0" +
                                        Include(u) + "</g>")));
    EXPECT_TRUE(text(u"g") == value);
    EXPECT_TRUE(text(u"g/u") == ZNRString(u"caf\u00e9-01\u4e2d") &&
                attrs[ZNRString("k")] == ZNRString(u"\u00e9"));
    EXPECT_TRUE(text(u"g/u/\u4e2d") == ZNRString("1"));
    ASSERT_TRUE(Load(Write("t.xml", "<?xml version=\"1.0\" encoding=\"UTF-8\"?><t>\xe4\xb8\xad" +
                                        Include(inc) + "</t>")));
    EXPECT_TRUE(text(u"t") == value && text(u"t/inc") == value);
}

} // namespace
