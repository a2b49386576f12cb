#include <plexa/znr-xml-config.h>

#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-utils.h>

#include "znr-text-codec.h"
#include "znr-xml-config-file.h"

#include <tinyxml.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

// Deeper nesting than this is taken for a runaway include chain.
constexpr int kMaxIncludeDepth = 32;

// The depth limit alone still lets 33 small files, each including the next
// twice, make one load read billions of files.
std::atomic<unsigned int> g_max_load_files{10000};

unsigned short const kBlanks[] = {' ', '\t', '\r', '\n', 0};

// Per thread, as loads on different threads are independent.
thread_local ZNRXmlConfig::LoadError t_last_load_error;

// The innermost failure is the reason: an including file just passes it on.
void RecordLoadError(ZNRString const& file, int row, std::string const& description) {
    t_last_load_error.file = file;
    t_last_load_error.row = row;
    t_last_load_error.description = ZNRString(description);
}

// What one Load has read so far, against the limit it started with.
struct LoadBudget {
    unsigned int files;
    unsigned int max_files;
};

// The file being loaded and every file that included it, innermost first.
// Hung on the document as its user data so that the load of an included
// file can look up the chain of files above it.
struct IncludeFrame {
    ZNRXmlConfigFileStat stat;
    int depth;
    IncludeFrame const* up;
    LoadBudget* budget;
};

// The charset of one file's text. Hung on the file's root element as user
// data, which TinyXML copies with the element, so that every merged subtree
// is decoded as its own file declared.
struct FileCharset {
    std::string name;
};

FileCharset* LegacyCharset() {
    static FileCharset charset{ZNRTextCodec::CharsetOfLocale("chs")};
    return &charset;
}

FileCharset* Utf8Charset() {
    static FileCharset charset{ZNRTextCodec::Utf8Charset()};
    return &charset;
}

// Only a declaration that opens the file counts.
bool DeclaresUtf8(TiXmlDocument const& doc) {
    TiXmlNode const* first = doc.FirstChild();
    TiXmlDeclaration const* declaration = first != nullptr ? first->ToDeclaration() : nullptr;
    if (declaration == nullptr) return false;
    std::string encoding = declaration->Encoding();
    for (char& c : encoding) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return encoding == "utf-8";
}

FileCharset const* CharsetOf(TiXmlElement const* element, FileCharset const* inherited) {
    void const* const mark = element->GetUserData();
    return mark != nullptr ? static_cast<FileCharset const*>(mark) : inherited;
}

// False when the bytes are not text in the charset; *out then holds what
// converted before the fault.
bool Decode(char const* bytes, FileCharset const* charset, ZNRString* out) {
    std::string units;
    bool const ok = ZNRTextCodec::Convert(charset->name.c_str(), ZNRTextCodec::Utf16Charset(),
                                          bytes, std::strlen(bytes), &units);
    ZNRStdWString text(units.size() / 2, 0);
    if (!text.empty()) std::memcpy(&text[0], units.data(), text.size() * 2);
    *out = ZNRString(text);
    return ok;
}

// For text that Load has already checked.
ZNRString Text(char const* bytes, FileCharset const* charset) {
    ZNRString out;
    Decode(bytes, charset, &out);
    return out;
}

// Finds the first name, text, attribute or tag that the file's charset
// cannot convert.
class CharsetCheck : public TiXmlVisitor {
public:
    explicit CharsetCheck(FileCharset const* charset) : charset_(charset) {}

    bool VisitEnter(TiXmlElement const& element, TiXmlAttribute const* attr) override {
        if (!Check(element.Value(), element.Row())) return false;
        for (; attr != nullptr; attr = attr->Next()) {
            if (!Check(attr->Name(), attr->Row()) || !Check(attr->Value(), attr->Row())) return false;
        }
        return true;
    }
    bool Visit(TiXmlText const& text) override { return Check(text.Value(), text.Row()); }
    bool Visit(TiXmlUnknown const& tag) override { return Check(tag.Value(), tag.Row()); }

    bool failed_ = false;
    int row_ = 0;

private:
    bool Check(char const* bytes, int row) {
        // An element resumes the walk of its siblings after a child said stop.
        if (failed_) return false;
        ZNRString ignored;
        if (Decode(bytes, charset_, &ignored)) return true;
        failed_ = true;
        row_ = row;
        return false;
    }

    FileCharset const* charset_;
};

// File names on Linux are UTF-8.
std::string FsPath(ZNRString const& path) {
    std::string out;
    if (!path.ToUtf8Str(&out)) out = path.ToStdCStr();
    return out;
}

bool HasExtension(ZNRString const& file, ZNRString const& ext) {
    ZNRString name = file;
    ZNRString suffix = ZNRString(".") + ext;
    return name.ToLower().EndsWith(suffix.ToLower());
}

bool IsInChain(IncludeFrame const* frame, ZNRXmlConfigFileStat const& stat) {
    for (; frame != nullptr; frame = frame->up) {
        if (frame->stat.exists && frame->stat.device == stat.device &&
            frame->stat.inode == stat.inode) {
            return true;
        }
    }
    return false;
}

void FillNodeInfo(TiXmlElement const* element, FileCharset const* charset,
                  ZNRXmlConfig::NodeInfo* info) {
    info->name = Text(element->Value(), charset);
    TiXmlNode const* first = element->FirstChild();
    if (first != nullptr && first->ToText() != nullptr) info->value = Text(first->Value(), charset);
    for (TiXmlAttribute const* a = element->FirstAttribute(); a != nullptr; a = a->Next()) {
        (*info->attrs)[Text(a->Name(), charset)] = Text(a->Value(), charset);
    }
    info->line = element->Row();
    for (TiXmlElement const* c = element->FirstChildElement(); c != nullptr;
         c = c->NextSiblingElement()) {
        std::unique_ptr<ZNRXmlConfig::NodeInfo> child(new ZNRXmlConfig::NodeInfo());
        FillNodeInfo(c, CharsetOf(c, charset), child.get());
        info->children->push_back(child.get());
        child.release();
    }
}

// Splits at every "/"; false when any component is empty.
bool SplitPath(ZNRString const& path, std::vector<ZNRString>* parts) {
    unsigned short const slash = '/';
    ZNRString::size_type begin = 0;
    for (;;) {
        ZNRString::size_type end = path.find(slash, begin);
        if (end == ZNRString::npos) end = path.size();
        if (end == begin) return false;
        parts->push_back(path.substr(begin, end - begin));
        if (end == path.size()) return true;
        begin = end + 1;
    }
}

} // namespace

// Collects the include tags of one document during a walk.
class __ZNRXmlConfigVisitor : public TiXmlVisitor {
public:
    // One "<#command argument>" tag. argument is lower-cased with the rest
    // of the tag; written keeps the argument as it stands in the file.
    struct Dictate {
        int line;
        ZNRString command;
        ZNRString argument;
        ZNRString written;
    };

    __ZNRXmlConfigVisitor(ZNRString const& file, FileCharset const* charset)
        : file_(file), error_(false), charset_(charset) {}

    bool Visit(TiXmlUnknown const& unknown) override;

    ZNRStlAdapter<std::vector<Dictate>> dictates_;
    ZNRString file_;
    bool error_;
    FileCharset const* charset_;
};

bool __ZNRXmlConfigVisitor::Visit(TiXmlUnknown const& unknown) {
    // An element resumes the walk of its siblings after a child said stop,
    // so later tags are refused here to report only the first bad one.
    if (error_) return false;
    ZNRString const text = Text(unknown.Value(), charset_);
    ZNRString lower = text;
    lower.ToLower();
    ZNRString::size_type const blank = lower.find_first_of(kBlanks);
    ZNRString const command = lower.substr(0, blank);
    ZNRString::size_type const first =
        blank == ZNRString::npos ? ZNRString::npos : lower.find_first_not_of(kBlanks, blank);
    if (command == ZNRString("#include") && first != ZNRString::npos) {
        ZNRString::size_type const last = lower.find_last_not_of(kBlanks);
        Dictate dictate;
        dictate.line = unknown.Row();
        dictate.command = command;
        dictate.argument = lower.substr(first, last - first + 1);
        dictate.written = text.substr(first, last - first + 1);
        dictates_->push_back(dictate);
        return true;
    }
    ZNR_LOG(ERROR, "Invalid config tag, file=\"%s\" row=%d tag=\"%s\"", file_.ToStdCStr().c_str(),
            unknown.Row(), unknown.Value());
    RecordLoadError(file_, unknown.Row(), std::string("invalid tag <") + unknown.Value() + ">");
    error_ = true;
    return false;
}

ZNRXmlConfig::NodeInfo::NodeInfo() : line(0) {}

ZNRXmlConfig::NodeInfo::NodeInfo(NodeInfo const& other)
    : name(other.name), value(other.value), attrs(other.attrs), line(other.line) {
    children->reserve(other.children->size());
    for (NodeInfo const* child : *other.children) children->push_back(new NodeInfo(*child));
}

ZNRXmlConfig::NodeInfo& ZNRXmlConfig::NodeInfo::operator=(NodeInfo const& other) {
    if (this == &other) return *this;
    // Copies first: other may be one of our own descendants.
    std::vector<NodeInfo*> copies;
    copies.reserve(other.children->size());
    for (NodeInfo const* child : *other.children) copies.push_back(new NodeInfo(*child));
    name = other.name;
    value = other.value;
    *attrs = *other.attrs;
    line = other.line;
    children->swap(copies);
    for (NodeInfo* old : copies) delete old;
    return *this;
}

ZNRXmlConfig::NodeInfo::~NodeInfo() {
    for (NodeInfo* child : *children) delete child;
}

ZNRXmlConfig::ZNRXmlConfig() : document_(nullptr) {}

ZNRXmlConfig::ZNRXmlConfig(ZNRXmlConfig const&) : document_(nullptr) {}

ZNRXmlConfig& ZNRXmlConfig::operator=(ZNRXmlConfig const&) { return *this; }

ZNRXmlConfig::~ZNRXmlConfig() { delete document_; }

bool ZNRXmlConfig::Load(ZNRString const& file, ZNRString const& ext) {
    t_last_load_error = LoadError();
    if (document_ == nullptr) document_ = new TiXmlDocument();
    return InnerLoad(nullptr, document_, file, ext);
}

bool ZNRXmlConfig::InnerLoad(TiXmlDocument* parent, TiXmlDocument* doc, ZNRString const& file,
                             ZNRString const& ext) {
    std::string const fs_path = FsPath(file);
    IncludeFrame frame;
    ZNRXmlConfigStatFile(fs_path, &frame.stat);
    // Opening a directory or a pipe would make the parser read without end.
    if (frame.stat.exists && !frame.stat.regular) {
        ZNR_LOG(ERROR, "Can not load config file, not a regular file, file=\"%s\"",
                file.ToStdCStr().c_str());
        RecordLoadError(file, 0, "not a regular file");
        return false;
    }
    // A file read as legacy text that declares UTF-8 is read again as UTF-8,
    // so that its character references become UTF-8 too.
    bool utf8 = false;
    if (!doc->LoadFile(fs_path.c_str(), TIXML_ENCODING_LEGACY) ||
        ((utf8 = DeclaresUtf8(*doc)) && !doc->LoadFile(fs_path.c_str(), TIXML_ENCODING_UTF8))) {
        ZNR_LOG(ERROR, "Can not load config file, file=\"%s\" line=%d error desc=\"%s\"",
                file.ToStdCStr().c_str(), doc->ErrorRow(), doc->ErrorDesc());
        RecordLoadError(file, doc->ErrorRow(), doc->ErrorDesc());
        return false;
    }
    TiXmlElement* root = doc->RootElement();
    if (root == nullptr) {
        ZNR_LOG(ERROR, "Can not load config file, root element not exist, file=\"%s\"",
                file.ToStdCStr().c_str());
        RecordLoadError(file, 0, "no root element");
        return false;
    }
    FileCharset* const charset = utf8 ? Utf8Charset() : LegacyCharset();
    root->SetUserData(charset);
    // Cutting the text at a bad byte would let a broken include path name
    // its parent directory.
    CharsetCheck check(charset);
    doc->Accept(&check);
    if (check.failed_) {
        ZNR_LOG(ERROR,
                "Can not load config file, text not convertible, file=\"%s\" row=%d "
                "charset=\"%s\"",
                file.ToStdCStr().c_str(), check.row_, charset->name.c_str());
        RecordLoadError(file, check.row_, "text not convertible from " + charset->name);
        return false;
    }
    // Before this file's own includes run, so theirs stay in this document.
    if (parent != nullptr) parent->RootElement()->InsertEndChild(*root);

    __ZNRXmlConfigVisitor visitor(file, charset);
    doc->Accept(&visitor);
    if (visitor.error_) return false;

    frame.up = parent != nullptr ? static_cast<IncludeFrame const*>(parent->GetUserData())
                                 : nullptr;
    frame.depth = frame.up != nullptr ? frame.up->depth + 1 : 0;
    LoadBudget budget{1, g_max_load_files.load()};
    frame.budget = frame.up != nullptr ? frame.up->budget : &budget;

    auto include = [&](__ZNRXmlConfigVisitor::Dictate const& dictate) {
        ZNRString path = dictate.argument;
        std::uint64_t code = ZNRIsDirFile(path);
        // Names are case-sensitive here: fall back to the path as written.
        if (code != 0 && code != ZNR_ERROR_NOT_DIRECTORY && dictate.written != dictate.argument) {
            path = dictate.written;
            code = ZNRIsDirFile(path);
        }
        std::vector<ZNRString> files;
        if (code == 0) {
            code = ZNRGetDirFiles(path, &files, true);
        } else if (code == ZNR_ERROR_NOT_DIRECTORY) {
            code = 0;
            files.push_back(path);
        }
        if (code != 0) {
            ZNR_LOG(ERROR,
                    "Can not load config file, execute dictate error,                               "
                    "file=\"%s\" line=%d error desc=\"%s\"",
                    file.ToStdCStr().c_str(), dictate.line, ZNRGetErrorText(code).c_str());
            RecordLoadError(file, dictate.line,
                            "can not include " + path.ToStdCStr() + ": " + ZNRGetErrorText(code));
            return false;
        }
        for (ZNRString const& name : files) {
            if (!HasExtension(name, ext)) continue;
            if (frame.depth + 1 > kMaxIncludeDepth) {
                ZNR_LOG(ERROR,
                        "Can not load config file, include depth limit reached, file=\"%s\" "
                        "line=%d limit=%d",
                        file.ToStdCStr().c_str(), dictate.line, kMaxIncludeDepth);
                RecordLoadError(file, dictate.line,
                                "include depth limit reached: " + std::to_string(kMaxIncludeDepth));
                return false;
            }
            ZNRXmlConfigFileStat stat;
            ZNRXmlConfigStatFile(FsPath(name), &stat);
            if (stat.exists && IsInChain(&frame, stat)) {
                ZNR_LOG(ERROR,
                        "Can not load config file, include cycle, file=\"%s\" line=%d "
                        "include=\"%s\"",
                        file.ToStdCStr().c_str(), dictate.line, name.ToStdCStr().c_str());
                RecordLoadError(file, dictate.line, "include cycle through " + name.ToStdCStr());
                return false;
            }
            if (frame.budget->files >= frame.budget->max_files) {
                ZNR_LOG(ERROR,
                        "Can not load config file, file count limit reached, file=\"%s\" line=%d "
                        "include=\"%s\" limit=%u",
                        file.ToStdCStr().c_str(), dictate.line, name.ToStdCStr().c_str(),
                        frame.budget->max_files);
                RecordLoadError(file, dictate.line,
                                "file count limit reached: " + std::to_string(frame.budget->max_files));
                return false;
            }
            ++frame.budget->files;
            TiXmlDocument included;
            if (!InnerLoad(doc, &included, name, ext)) return false;
        }
        return true;
    };

    doc->SetUserData(&frame);
    bool ok = true;
    for (__ZNRXmlConfigVisitor::Dictate const& dictate : *visitor.dictates_) {
        ok = include(dictate);
        if (!ok) break;
    }
    doc->SetUserData(nullptr);
    return ok;
}

bool ZNRXmlConfig::GetNodes(ZNRString const& path, std::vector<NodeInfo>* nodes) const {
    std::vector<ZNRString> parts;
    if (!SplitPath(path, &parts)) {
        ZNR_LOG(ERROR, "Get config node error, invalid node path, node path=\"%s\"",
                path.ToStdCStr().c_str());
        return false;
    }
    TiXmlElement* root = document_ != nullptr ? document_->RootElement() : nullptr;
    if (root == nullptr) {
        ZNR_LOG(ERROR, "Get config node error, config not loaded, node path=\"%s\"",
                path.ToStdCStr().c_str());
        return false;
    }
    if (nodes == nullptr) return false;
    return InnerGetNodes(root, parts, nodes);
}

bool ZNRXmlConfig::InnerGetNodes(TiXmlNode* node, std::vector<ZNRString> const& path,
                                 std::vector<NodeInfo>* nodes) const {
    // Names compare as text: merged files may each have their own charset.
    typedef std::pair<TiXmlElement const*, FileCharset const*> Selected;
    TiXmlElement const* root = node->ToElement();
    FileCharset const* const charset = CharsetOf(root, LegacyCharset());
    if (path.empty() || Text(root->Value(), charset) != path[0]) return true;
    std::vector<Selected> selected(1, Selected(root, charset));
    for (std::size_t i = 1; i < path.size() && !selected.empty(); ++i) {
        std::vector<Selected> next;
        for (Selected const& parent : selected) {
            for (TiXmlElement const* c = parent.first->FirstChildElement(); c != nullptr;
                 c = c->NextSiblingElement()) {
                FileCharset const* const child_charset = CharsetOf(c, parent.second);
                if (Text(c->Value(), child_charset) == path[i]) next.emplace_back(c, child_charset);
            }
        }
        selected.swap(next);
    }
    for (Selected const& element : selected) {
        nodes->emplace_back();
        FillNodeInfo(element.first, element.second, &nodes->back());
    }
    return true;
}

bool ZNRXmlConfig::Get(ZNRString const& path, ZNRString* value,
                       std::map<ZNRString, ZNRString>* attrs) const {
    std::vector<NodeInfo> nodes;
    if (!GetNodes(path, &nodes)) return false;
    if (nodes.empty()) {
        ZNR_LOG(ERROR, "Get config node error, path not exist, node path=\"%s\"",
                path.ToStdCStr().c_str());
        return false;
    }
    if (nodes.size() > 1) {
        ZNR_LOG(ERROR, "Get config node error, node redefined, node path=\"%s\"",
                path.ToStdCStr().c_str());
        return false;
    }
    if (value != nullptr) *value = nodes[0].value;
    if (attrs != nullptr) *attrs = *nodes[0].attrs;
    return true;
}

bool ZNRXmlConfig::GetInt(ZNRString const& path, int* value) const {
    ZNRString text;
    if (!Get(path, &text, nullptr)) return false;
    if (!ZNRStrToInt32(text, value)) {
        ZNR_LOG(ERROR, "Invalid config node value, node path=\"%s\"", path.ToStdCStr().c_str());
        return false;
    }
    return true;
}

bool ZNRXmlConfig::GetAttr(ZNRString const&, ZNRString const&, ZNRString*) const { return false; }

bool ZNRXmlConfig::GetAttrInt(ZNRString const& path, ZNRString const& name, int* value) const {
    ZNRString text;
    if (!GetAttr(path, name, &text)) return false;
    if (!ZNRStrToInt32(text, value)) {
        ZNR_LOG(ERROR, "Invalid config node attribute value node path=\"%s\" attr name=\"%s\"",
                path.ToStdCStr().c_str(), name.ToStdCStr().c_str());
        return false;
    }
    return true;
}

void ZNRXmlConfig::SetMaxLoadFiles(unsigned int max_files) { g_max_load_files.store(max_files); }

unsigned int ZNRXmlConfig::GetMaxLoadFiles() { return g_max_load_files.load(); }

ZNRXmlConfig::LoadError ZNRXmlConfig::GetLastLoadError() { return t_last_load_error; }

void ZNRXmlConfig::Dump() {
    if (document_ == nullptr) return;
    TiXmlPrinter printer;
    document_->Accept(&printer);
    std::fputs(printer.CStr(), stdout);
    std::fflush(stdout);
}
