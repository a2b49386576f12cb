#ifndef PLEXA_ZNR_STRING_H
#define PLEXA_ZNR_STRING_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <cstdarg>
#include <locale>
#include <string>
#include <vector>

typedef std::basic_string<unsigned short> ZNRStdWString;

// The library's text: UTF-16 code units with a per-string locale whose
// multi-byte encoding is used for narrow text. The locale name "chs" (the
// default) is GBK; the empty name is the process's current C locale encoding.
class ZNR_API ZNRString {
public:
    typedef unsigned int size_type;
    typedef unsigned short value_type;
    typedef ZNRStdWString::iterator iterator;
    typedef ZNRStdWString::const_iterator const_iterator;
    typedef ZNRStdWString::reverse_iterator reverse_iterator;
    typedef ZNRStdWString::const_reverse_iterator const_reverse_iterator;

    static constexpr size_type npos = 0xFFFFFFFFu;

    enum TrimType_t { TRIM_LEFT = 0, TRIM_RIGHT = 1, TRIM_BOTH = 2 };

    ZNRString();
    ZNRString(unsigned short const* s, char const* locale_name = "chs");
    ZNRString(char16_t const* s, char const* locale_name = "chs");
    ZNRString(ZNRStdWString const& s, char const* locale_name = "chs");
    ZNRString(unsigned short ch, char const* locale_name = "chs");
    ZNRString(char const* s, char const* locale_name = "chs");
    ZNRString(std::string const& s, char const* locale_name = "chs");
    ZNRString(char ch, char const* locale_name = "chs");
    ZNRString(ZNRString const& other);
    virtual ~ZNRString();

    ZNRString& operator=(ZNRString const& other);
    // Both reset the locale to "chs".
    ZNRString& operator=(unsigned short const* s);
    ZNRString& operator=(unsigned short ch);

    // Standard string members, forwarded.
    size_type size() const { return Pos(str_->size()); }
    size_type length() const { return Pos(str_->length()); }
    size_type max_size() const { return 0xFFFFFFFEu; }
    void resize(size_type n) { str_->resize(n); }
    void resize(size_type n, unsigned short ch) { str_->resize(n, ch); }
    size_type capacity() const { return Pos(str_->capacity()); }
    void reserve(size_type n = 0) { str_->reserve(n); }
    void clear() { str_->clear(); }
    bool empty() const { return str_->empty(); }
    unsigned short& operator[](size_type i) { return (*str_)[i]; }
    unsigned short const& operator[](size_type i) const { return (*str_)[i]; }
    unsigned short& at(size_type i) { return str_->at(i); }
    unsigned short const& at(size_type i) const { return str_->at(i); }

    ZNRString& operator+=(ZNRString const& s) { str_->append(*s.str_); return *this; }
    ZNRString& operator+=(unsigned short const* s) { str_->append(s); return *this; }
    ZNRString& operator+=(unsigned short ch) { str_->push_back(ch); return *this; }

    ZNRString& append(ZNRString const& s) { str_->append(*s.str_); return *this; }
    ZNRString& append(ZNRString const& s, size_type pos, size_type n) { str_->append(*s.str_, pos, Std(n)); return *this; }
    ZNRString& append(unsigned short const* s, size_type n) { str_->append(s, n); return *this; }
    ZNRString& append(unsigned short const* s) { str_->append(s); return *this; }
    ZNRString& append(size_type n, unsigned short ch) { str_->append(n, ch); return *this; }
    void push_back(unsigned short ch) { str_->push_back(ch); }

    ZNRString& assign(ZNRString const& s) { str_->assign(*s.str_); return *this; }
    ZNRString& assign(ZNRString const& s, size_type pos, size_type n) { str_->assign(*s.str_, pos, Std(n)); return *this; }
    ZNRString& assign(unsigned short const* s, size_type n) { str_->assign(s, n); return *this; }
    ZNRString& assign(unsigned short const* s) { str_->assign(s); return *this; }
    ZNRString& assign(size_type n, unsigned short ch) { str_->assign(n, ch); return *this; }

    ZNRString& insert(size_type pos, ZNRString const& s) { str_->insert(pos, *s.str_); return *this; }
    ZNRString& insert(size_type pos, ZNRString const& s, size_type pos2, size_type n) { str_->insert(pos, *s.str_, pos2, Std(n)); return *this; }
    ZNRString& insert(size_type pos, unsigned short const* s, size_type n) { str_->insert(pos, s, n); return *this; }
    ZNRString& insert(size_type pos, unsigned short const* s) { str_->insert(pos, s); return *this; }
    ZNRString& insert(size_type pos, size_type n, unsigned short ch) { str_->insert(pos, n, ch); return *this; }
    iterator insert(iterator p, unsigned short ch) { return str_->insert(p, ch); }
    void insert(iterator p, size_type n, unsigned short ch) { str_->insert(p, n, ch); }

    ZNRString& erase(size_type pos = 0, size_type n = npos) { str_->erase(pos, Std(n)); return *this; }
    iterator erase(iterator p) { return str_->erase(p); }
    iterator erase(iterator first, iterator last) { return str_->erase(first, last); }

    ZNRString& replace(size_type pos, size_type n, ZNRString const& s) { str_->replace(pos, Std(n), *s.str_); return *this; }
    ZNRString& replace(size_type pos, size_type n, ZNRString const& s, size_type pos2, size_type n2) { str_->replace(pos, Std(n), *s.str_, pos2, Std(n2)); return *this; }
    ZNRString& replace(size_type pos, size_type n, unsigned short const* s, size_type n2) { str_->replace(pos, Std(n), s, n2); return *this; }
    ZNRString& replace(size_type pos, size_type n, unsigned short const* s) { str_->replace(pos, Std(n), s); return *this; }
    ZNRString& replace(size_type pos, size_type n, size_type n2, unsigned short ch) { str_->replace(pos, Std(n), n2, ch); return *this; }
    ZNRString& replace(iterator i1, iterator i2, ZNRString const& s) { str_->replace(i1, i2, *s.str_); return *this; }
    ZNRString& replace(iterator i1, iterator i2, unsigned short const* s, size_type n) { str_->replace(i1, i2, s, n); return *this; }
    ZNRString& replace(iterator i1, iterator i2, unsigned short const* s) { str_->replace(i1, i2, s); return *this; }
    ZNRString& replace(iterator i1, iterator i2, size_type n, unsigned short ch) { str_->replace(i1, i2, n, ch); return *this; }

    void swap(ZNRString& other);
    unsigned short const* c_str() const { return str_->c_str(); }
    unsigned short const* data() const { return str_->data(); }

    size_type find(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find(*s.str_, pos)); }
    size_type find(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find(s, pos, n)); }
    size_type find(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find(s, pos)); }
    size_type find(unsigned short ch, size_type pos = 0) const { return Pos(str_->find(ch, pos)); }
    size_type rfind(ZNRString const& s, size_type pos = npos) const { return Pos(str_->rfind(*s.str_, Std(pos))); }
    size_type rfind(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->rfind(s, Std(pos), n)); }
    size_type rfind(unsigned short const* s, size_type pos = npos) const { return Pos(str_->rfind(s, Std(pos))); }
    size_type rfind(unsigned short ch, size_type pos = npos) const { return Pos(str_->rfind(ch, Std(pos))); }
    size_type find_first_of(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find_first_of(*s.str_, pos)); }
    size_type find_first_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_first_of(s, pos, n)); }
    size_type find_first_of(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find_first_of(s, pos)); }
    size_type find_first_of(unsigned short ch, size_type pos = 0) const { return Pos(str_->find_first_of(ch, pos)); }
    size_type find_last_of(ZNRString const& s, size_type pos = npos) const { return Pos(str_->find_last_of(*s.str_, Std(pos))); }
    size_type find_last_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_last_of(s, Std(pos), n)); }
    size_type find_last_of(unsigned short const* s, size_type pos = npos) const { return Pos(str_->find_last_of(s, Std(pos))); }
    size_type find_last_of(unsigned short ch, size_type pos = npos) const { return Pos(str_->find_last_of(ch, Std(pos))); }
    size_type find_first_not_of(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find_first_not_of(*s.str_, pos)); }
    size_type find_first_not_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_first_not_of(s, pos, n)); }
    size_type find_first_not_of(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find_first_not_of(s, pos)); }
    size_type find_first_not_of(unsigned short ch, size_type pos = 0) const { return Pos(str_->find_first_not_of(ch, pos)); }
    size_type find_last_not_of(ZNRString const& s, size_type pos = npos) const { return Pos(str_->find_last_not_of(*s.str_, Std(pos))); }
    size_type find_last_not_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_last_not_of(s, Std(pos), n)); }
    size_type find_last_not_of(unsigned short const* s, size_type pos = npos) const { return Pos(str_->find_last_not_of(s, Std(pos))); }
    size_type find_last_not_of(unsigned short ch, size_type pos = npos) const { return Pos(str_->find_last_not_of(ch, Std(pos))); }

    int compare(ZNRString const& s) const { return str_->compare(*s.str_); }
    int compare(size_type pos, size_type n, ZNRString const& s) const { return str_->compare(pos, Std(n), *s.str_); }
    int compare(size_type pos, size_type n, ZNRString const& s, size_type pos2, size_type n2) const { return str_->compare(pos, Std(n), *s.str_, pos2, Std(n2)); }
    int compare(unsigned short const* s) const { return str_->compare(s); }
    int compare(size_type pos, size_type n, unsigned short const* s) const { return str_->compare(pos, Std(n), s); }
    int compare(size_type pos, size_type n, unsigned short const* s, size_type n2) const { return str_->compare(pos, Std(n), s, n2); }

    iterator begin() { return str_->begin(); }
    const_iterator begin() const { return str_->begin(); }
    iterator end() { return str_->end(); }
    const_iterator end() const { return str_->end(); }
    reverse_iterator rbegin() { return str_->rbegin(); }
    const_reverse_iterator rbegin() const { return str_->rbegin(); }
    reverse_iterator rend() { return str_->rend(); }
    const_reverse_iterator rend() const { return str_->rend(); }

    operator ZNRStdWString&() { return *str_; }
    operator ZNRStdWString const&() const { return *str_; }

    // The new string always has the locale "chs".
    ZNRString substr(size_type pos = 0, size_type n = npos) const;

    // The library's own members.
    std::locale const& GetLocale() const { return *locale_; }
    char const* GetLocaleName() const { return locale_name_->c_str(); }
    ZNRString& ToLower();
    ZNRString& ToUpper();
    bool IgnCaseCompare(ZNRString const& other) const;
    bool StartsWith(ZNRString const& prefix) const;
    bool EndsWith(ZNRString const& suffix) const;
    // Type 0 keeps an all-ch string whole; types 1 and 2 empty it.
    ZNRString& Trim(unsigned short ch, TrimType_t type);
    // Appends the non-empty tokens to *out; never clears it.
    void Split(ZNRString const& separators, std::vector<ZNRString>* out) const;
    ZNRStdWString ToStdWStr() const { return *str_; }
    std::string ToStdCStr() const;
    bool ToUtf8Str(std::string* out) const;
    bool NewFromUtf8Str(std::string const& in);
    bool IsUTF8() const;
    // printf-style formatting of narrow arguments (%s takes a char string);
    // the result is cut at 4096 bytes of its narrow form. A 16-bit template
    // is split into text and conversions in its own units, so only its own
    // '%' characters convert, whatever the charset; its text is copied as it
    // stands. There a positional conversion (%1$d) or an unknown one stays text.
    ZNRString& NewFromTempl(unsigned short const* fmt, ...);
    ZNRString& NewFromTempl(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
    ZNRString& VNewFromTempl(unsigned short const* fmt, va_list args);
    ZNRString& VNewFromTempl(char const* fmt, va_list args) __attribute__((format(printf, 2, 0)));
    ZNRString& AppendFromTempl(unsigned short const* fmt, ...);
    ZNRString& AppendFromTempl(char const* fmt, ...) __attribute__((format(printf, 2, 3)));

protected:
    // Both return new[] buffers the caller deletes; failures are reported on
    // standard error and the buffer holds what was converted.
    unsigned short* MBSToWCS(char const* s) const;
    char* WCSToMBS(unsigned short const* s) const;

private:
    static std::size_t Std(size_type n) { return n == npos ? ZNRStdWString::npos : n; }
    static size_type Pos(std::size_t n) { return n == ZNRStdWString::npos ? npos : static_cast<size_type>(n); }
    void SetLocale(char const* name);
    template <class Char>
    ZNRString& VAppendFromTempl(Char const* fmt, va_list args);

    ZNRStlAdapter<ZNRStdWString> str_;
    std::locale* locale_;
    ZNRStlAdapter<std::string> locale_name_;
};

ZNR_API bool operator==(ZNRString const& a, ZNRString const& b);
ZNR_API bool operator!=(ZNRString const& a, ZNRString const& b);
ZNR_API bool operator<(ZNRString const& a, ZNRString const& b);
ZNR_API ZNRString operator+(ZNRString const& a, ZNRString const& b);

#endif
