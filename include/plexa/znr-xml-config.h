#ifndef PLEXA_ZNR_XML_CONFIG_H
#define PLEXA_ZNR_XML_CONFIG_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>

#include <map>
#include <vector>

class TiXmlDocument;
class TiXmlNode;

/// A configuration read from XML files into one tree and queried by
/// slash-separated element paths ("server/db/port").
///
/// A file may pull in other files with a `<#include path>` tag anywhere among
/// its elements. The whole tag text is lower-cased; the lower-cased path is
/// tried first and, when nothing exists there, the path as written. A
/// relative path is relative to the working directory. A directory is
/// searched recursively, in name order, for files ending in "." + ext (the
/// extension is compared without regard to case). The root element of an
/// included file is appended under the root element of the including file.
/// Include cycles, nesting deeper than 32 levels and reading more files than
/// GetMaxLoadFiles() make Load fail.
///
/// Text is decoded per file: as UTF-8 when the file's XML declaration says
/// encoding="UTF-8" (in any case), else as GBK (the locale "chs"), with or
/// without a declaration. An included file follows its own declaration.
/// Element names, text, attributes and include tags that the file's charset
/// cannot convert fail the load, with the file and row in the log, rather
/// than being cut. Results carry the locale "chs"; ToUtf8Str gives UTF-8.
///
/// Failures return false and log the reason at error level. Queries may run
/// concurrently with each other, not with Load.
class ZNR_API ZNRXmlConfig {
public:
    /// One element: its tag name, the text of its first child when that child
    /// is text, its attributes, its line in its file (from 1) and its child
    /// elements (owned).
    struct ZNR_API NodeInfo {
        /// The element's tag name.
        ZNRString name;
        /// The text of its first child when that child is text, else empty.
        ZNRString value;
        /// Attribute name to value.
        ZNRStlAdapter<std::map<ZNRString, ZNRString>> attrs;
        /// Its line in its file, from 1.
        int line;
        /// Its child elements, owned by this record and deleted with it.
        ZNRStlAdapter<std::vector<NodeInfo*>> children;

        /// Empty, line 0, no children.
        NodeInfo();
        /// A deep copy: the children are copied too.
        NodeInfo(NodeInfo const& other);
        /// Deletes its children, then copies other deeply.
        NodeInfo& operator=(NodeInfo const& other);
        /// Deletes the children.
        ~NodeInfo();
    };

    /// Empty: queries fail until a Load.
    ZNRXmlConfig();
    /// Both copy nothing of the document: the copy starts empty.
    ZNRXmlConfig(ZNRXmlConfig const& other);
    /// Copies nothing of the document; the target keeps its own.
    ZNRXmlConfig& operator=(ZNRXmlConfig const& other);
    /// Frees the document.
    virtual ~ZNRXmlConfig();

    /// Replaces the configuration with file and everything it includes. A
    /// failed load keeps what was merged before the failure. ext is the
    /// extension (no dot) that files found through a directory include must
    /// have. False, with the reason logged ("Can not load config file, ...",
    /// "Invalid config tag, ..."), on any failure.
    virtual bool Load(ZNRString const& file, ZNRString const& ext);
    /// Appends the elements the path selects, in document order. True with
    /// nothing appended when the first component is not the root's name;
    /// false for a path without components or before a Load.
    virtual bool GetNodes(ZNRString const& path, std::vector<NodeInfo>* nodes) const;
    /// The value and attributes of the single element at path; each output
    /// may be null. False when no element or several match (logged: "Get
    /// config node error, path not exist, ..." / "... node redefined, ...").
    virtual bool Get(ZNRString const& path, ZNRString* value,
                     std::map<ZNRString, ZNRString>* attrs) const;
    /// Get, then the value as a decimal, 0x hexadecimal or 0 octal number;
    /// false, logged as "Invalid config node value, ...", when it is not one.
    virtual bool GetInt(ZNRString const& path, int* value) const;
    /// A hook for derived classes: the base returns false.
    virtual bool GetAttr(ZNRString const& path, ZNRString const& name, ZNRString* value) const;
    /// GetAttr, then the text as a number like GetInt. With the base
    /// GetAttr() it always returns false.
    virtual bool GetAttrInt(ZNRString const& path, ZNRString const& name, int* value) const;
    /// Prints the whole tree, includes merged, to standard output; each
    /// file's text as its bytes stand.
    virtual void Dump();

    /// The most files one Load may read, the named file included (that one is
    /// always read); default 10000. Process-wide, safe from any thread, taken
    /// up by the next Load.
    static void SetMaxLoadFiles(unsigned int max_files);
    /// The current bound of SetMaxLoadFiles(). Safe from any thread.
    static unsigned int GetMaxLoadFiles();

    /// Why a Load failed, for a host to tell its user: the file at fault
    /// (an included one when the fault is there), the row in it counted
    /// from 1 (0 when the fault has no row: a file that can not be opened,
    /// is empty, is no regular file or has no root element) and a short
    /// description (the parser's own for malformed XML, such as "Error
    /// reading end tag.").
    struct LoadError {
        ZNRString file;         ///< the file at fault; empty when nothing failed
        int row = 0;            ///< from 1; 0 when the fault has no row
        ZNRString description;  ///< what is wrong there
    };
    /// The reason the calling thread's last Load failed, by value; empty
    /// (no file, row 0) after a Load that succeeded or before any. Any
    /// thread: each sees its own loads. Gives no errors.
    static LoadError GetLastLoadError();

private:
    bool InnerLoad(TiXmlDocument* parent, TiXmlDocument* doc, ZNRString const& file,
                   ZNRString const& ext);
    bool InnerGetNodes(TiXmlNode* node, std::vector<ZNRString> const& path,
                       std::vector<NodeInfo>* nodes) const;

    TiXmlDocument* document_;
};

#endif
