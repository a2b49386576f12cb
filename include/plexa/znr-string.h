#ifndef PLEXA_ZNR_STRING_H
#define PLEXA_ZNR_STRING_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <cstdarg>
#include <locale>
#include <string>
#include <vector>

/// Storage of ZNRString: 16-bit code units.
typedef std::basic_string<unsigned short> ZNRStdWString;

struct ZNRStringLocale;

/// The library's text: UTF-16 code units with a per-string locale whose
/// multi-byte encoding is used for narrow text. The locale name "chs" (the
/// default) is GBK; the empty name is the process's current C locale encoding.
///
/// Not safe for concurrent modification; distinct strings are independent.
/// Narrow conversions that fail report on standard error ("Convert locale
/// string to wchar string error, locale name=\"%s\"" and the reverse) and keep
/// what was converted; only ToUtf8Str() and NewFromUtf8Str() return false.
///
/// The standard-string members mean what std::basic_string's do, with
/// unsigned int positions and npos for none; a position past the end
/// throws std::out_of_range as there.
class ZNR_API ZNRString {
public:
    /// Positions and sizes.
    typedef unsigned int size_type;
    /// One UTF-16 code unit.
    typedef unsigned short value_type;
    /// Forwarded from the standard string.
    typedef ZNRStdWString::iterator iterator;
    /// Forwarded from the standard string.
    typedef ZNRStdWString::const_iterator const_iterator;
    /// Forwarded from the standard string.
    typedef ZNRStdWString::reverse_iterator reverse_iterator;
    /// Forwarded from the standard string.
    typedef ZNRStdWString::const_reverse_iterator const_reverse_iterator;

    /// No position: what a failed find returns; as a count, "to the end".
    static constexpr size_type npos = 0xFFFFFFFFu;

    /// Which end Trim() works on.
    enum TrimType_t { TRIM_LEFT = 0, TRIM_RIGHT = 1, TRIM_BOTH = 2 };
    /** @var ZNRString::TRIM_LEFT
     *  The start.
     *  @var ZNRString::TRIM_RIGHT
     *  The end.
     *  @var ZNRString::TRIM_BOTH
     *  Both ends. */

    /// Empty, locale "chs".
    ZNRString();
    /// A copy of the terminated units s (null: empty) with the named locale
    /// (null: the empty name).
    ZNRString(unsigned short const* s, char const* locale_name = "chs");
    /// As the unsigned short form, from a u"..." literal.
    ZNRString(char16_t const* s, char const* locale_name = "chs");
    /// A copy of s with the named locale.
    ZNRString(ZNRStdWString const& s, char const* locale_name = "chs");
    /// The one unit ch with the named locale.
    ZNRString(unsigned short ch, char const* locale_name = "chs");
    /// The narrow text s (null: empty) converted from the named locale's
    /// encoding.
    ZNRString(char const* s, char const* locale_name = "chs");
    /// The narrow text s converted from the named locale's encoding.
    ZNRString(std::string const& s, char const* locale_name = "chs");
    /// The byte ch widened by the named locale (kept as is when it cannot be).
    ZNRString(char ch, char const* locale_name = "chs");
    /// A copy of the units and the locale.
    ZNRString(ZNRString const& other);
    /// Frees the units and the locale.
    virtual ~ZNRString();

    /// Copies units and locale. Self-assignment changes nothing and writes
    /// "Same string object use operator=, string_context=\"%s\"" to standard error.
    ZNRString& operator=(ZNRString const& other);
    /// Both reset the locale to "chs". A null s empties the string.
    ZNRString& operator=(unsigned short const* s);
    /// Replaces the content by ch; resets the locale to "chs".
    ZNRString& operator=(unsigned short ch);

    // Standard string members, forwarded.
    /// Code units held.
    size_type size() const { return Pos(str_->size()); }
    /// Code units held.
    size_type length() const { return Pos(str_->length()); }
    /// Largest size: npos - 1.
    size_type max_size() const { return 0xFFFFFFFEu; }
    /// Cuts or pads with zero units.
    void resize(size_type n) { str_->resize(n); }
    /// Cuts or pads with ch.
    void resize(size_type n, unsigned short ch) { str_->resize(n, ch); }
    /// Units held without reallocating.
    size_type capacity() const { return Pos(str_->capacity()); }
    /// Reserves room for n units.
    void reserve(size_type n = 0) { str_->reserve(n); }
    /// Empties the string; the locale stays.
    void clear() { str_->clear(); }
    /// True when no unit is held.
    bool empty() const { return str_->empty(); }
    /// Unit i, unchecked.
    unsigned short& operator[](size_type i) { return (*str_)[i]; }
    /// Unit i, unchecked.
    unsigned short const& operator[](size_type i) const { return (*str_)[i]; }
    /// Unit i; std::out_of_range past the end.
    unsigned short& at(size_type i) { return str_->at(i); }
    /// Unit i; std::out_of_range past the end.
    unsigned short const& at(size_type i) const { return str_->at(i); }

    /// Appends s's units (the locale stays).
    ZNRString& operator+=(ZNRString const& s) { str_->append(*s.str_); return *this; }
    /// Appends the terminated units s.
    ZNRString& operator+=(unsigned short const* s) { str_->append(s); return *this; }
    /// Appends ch.
    ZNRString& operator+=(unsigned short ch) { str_->push_back(ch); return *this; }

    /// Appends s's units.
    ZNRString& append(ZNRString const& s) { str_->append(*s.str_); return *this; }
    /// Appends up to n units of s from pos.
    ZNRString& append(ZNRString const& s, size_type pos, size_type n) { str_->append(*s.str_, pos, Std(n)); return *this; }
    /// Appends n units from s.
    ZNRString& append(unsigned short const* s, size_type n) { str_->append(s, n); return *this; }
    /// Appends the terminated units s.
    ZNRString& append(unsigned short const* s) { str_->append(s); return *this; }
    /// Appends n copies of ch.
    ZNRString& append(size_type n, unsigned short ch) { str_->append(n, ch); return *this; }
    /// Appends ch.
    void push_back(unsigned short ch) { str_->push_back(ch); }

    /// Replaces the units by s's (the locale stays).
    ZNRString& assign(ZNRString const& s) { str_->assign(*s.str_); return *this; }
    /// Replaces the units by up to n of s's from pos.
    ZNRString& assign(ZNRString const& s, size_type pos, size_type n) { str_->assign(*s.str_, pos, Std(n)); return *this; }
    /// Replaces the units by n from s.
    ZNRString& assign(unsigned short const* s, size_type n) { str_->assign(s, n); return *this; }
    /// Replaces the units by the terminated s.
    ZNRString& assign(unsigned short const* s) { str_->assign(s); return *this; }
    /// Replaces the units by n copies of ch.
    ZNRString& assign(size_type n, unsigned short ch) { str_->assign(n, ch); return *this; }

    /// Inserts s at pos.
    ZNRString& insert(size_type pos, ZNRString const& s) { str_->insert(pos, *s.str_); return *this; }
    /// Inserts up to n units of s from pos2 at pos.
    ZNRString& insert(size_type pos, ZNRString const& s, size_type pos2, size_type n) { str_->insert(pos, *s.str_, pos2, Std(n)); return *this; }
    /// Inserts n units from s at pos.
    ZNRString& insert(size_type pos, unsigned short const* s, size_type n) { str_->insert(pos, s, n); return *this; }
    /// Inserts the terminated s at pos.
    ZNRString& insert(size_type pos, unsigned short const* s) { str_->insert(pos, s); return *this; }
    /// Inserts n copies of ch at pos.
    ZNRString& insert(size_type pos, size_type n, unsigned short ch) { str_->insert(pos, n, ch); return *this; }
    /// Inserts ch before p; returns its position.
    iterator insert(iterator p, unsigned short ch) { return str_->insert(p, ch); }
    /// Inserts n copies of ch before p.
    void insert(iterator p, size_type n, unsigned short ch) { str_->insert(p, n, ch); }

    /// Erases up to n units from pos.
    ZNRString& erase(size_type pos = 0, size_type n = npos) { str_->erase(pos, Std(n)); return *this; }
    /// Erases the unit at p; returns the next position.
    iterator erase(iterator p) { return str_->erase(p); }
    /// Erases [first, last); returns the next position.
    iterator erase(iterator first, iterator last) { return str_->erase(first, last); }

    /// Replaces up to n units at pos by s.
    ZNRString& replace(size_type pos, size_type n, ZNRString const& s) { str_->replace(pos, Std(n), *s.str_); return *this; }
    /// Replaces up to n units at pos by up to n2 of s's from pos2.
    ZNRString& replace(size_type pos, size_type n, ZNRString const& s, size_type pos2, size_type n2) { str_->replace(pos, Std(n), *s.str_, pos2, Std(n2)); return *this; }
    /// Replaces up to n units at pos by n2 units from s.
    ZNRString& replace(size_type pos, size_type n, unsigned short const* s, size_type n2) { str_->replace(pos, Std(n), s, n2); return *this; }
    /// Replaces up to n units at pos by the terminated s.
    ZNRString& replace(size_type pos, size_type n, unsigned short const* s) { str_->replace(pos, Std(n), s); return *this; }
    /// Replaces up to n units at pos by n2 copies of ch.
    ZNRString& replace(size_type pos, size_type n, size_type n2, unsigned short ch) { str_->replace(pos, Std(n), n2, ch); return *this; }
    /// Replaces [i1, i2) by s.
    ZNRString& replace(iterator i1, iterator i2, ZNRString const& s) { str_->replace(i1, i2, *s.str_); return *this; }
    /// Replaces [i1, i2) by n units from s.
    ZNRString& replace(iterator i1, iterator i2, unsigned short const* s, size_type n) { str_->replace(i1, i2, s, n); return *this; }
    /// Replaces [i1, i2) by the terminated s.
    ZNRString& replace(iterator i1, iterator i2, unsigned short const* s) { str_->replace(i1, i2, s); return *this; }
    /// Replaces [i1, i2) by n copies of ch.
    ZNRString& replace(iterator i1, iterator i2, size_type n, unsigned short ch) { str_->replace(i1, i2, n, ch); return *this; }

    /// Exchanges units and locales with other.
    void swap(ZNRString& other);
    /// The terminated units; the string's own, valid until it next changes.
    unsigned short const* c_str() const { return str_->c_str(); }
    /// The units; the string's own, valid until it next changes.
    unsigned short const* data() const { return str_->data(); }

    /// First position of s from pos, or npos.
    size_type find(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find(*s.str_, pos)); }
    /// First position of the n units of s from pos, or npos.
    size_type find(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find(s, pos, n)); }
    /// First position of the terminated s from pos, or npos.
    size_type find(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find(s, pos)); }
    /// First position of ch from pos, or npos.
    size_type find(unsigned short ch, size_type pos = 0) const { return Pos(str_->find(ch, pos)); }
    /// Last position of s at or before pos, or npos.
    size_type rfind(ZNRString const& s, size_type pos = npos) const { return Pos(str_->rfind(*s.str_, Std(pos))); }
    /// Last position of the n units of s at or before pos, or npos.
    size_type rfind(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->rfind(s, Std(pos), n)); }
    /// Last position of the terminated s at or before pos, or npos.
    size_type rfind(unsigned short const* s, size_type pos = npos) const { return Pos(str_->rfind(s, Std(pos))); }
    /// Last position of ch at or before pos, or npos.
    size_type rfind(unsigned short ch, size_type pos = npos) const { return Pos(str_->rfind(ch, Std(pos))); }
    /// First unit from pos found in s, or npos.
    size_type find_first_of(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find_first_of(*s.str_, pos)); }
    /// First unit from pos found in the n units of s, or npos.
    size_type find_first_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_first_of(s, pos, n)); }
    /// First unit from pos found in the terminated s, or npos.
    size_type find_first_of(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find_first_of(s, pos)); }
    /// First ch from pos, or npos.
    size_type find_first_of(unsigned short ch, size_type pos = 0) const { return Pos(str_->find_first_of(ch, pos)); }
    /// Last unit at or before pos found in s, or npos.
    size_type find_last_of(ZNRString const& s, size_type pos = npos) const { return Pos(str_->find_last_of(*s.str_, Std(pos))); }
    /// Last unit at or before pos found in the n units of s, or npos.
    size_type find_last_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_last_of(s, Std(pos), n)); }
    /// Last unit at or before pos found in the terminated s, or npos.
    size_type find_last_of(unsigned short const* s, size_type pos = npos) const { return Pos(str_->find_last_of(s, Std(pos))); }
    /// Last ch at or before pos, or npos.
    size_type find_last_of(unsigned short ch, size_type pos = npos) const { return Pos(str_->find_last_of(ch, Std(pos))); }
    /// First unit from pos not in s, or npos.
    size_type find_first_not_of(ZNRString const& s, size_type pos = 0) const { return Pos(str_->find_first_not_of(*s.str_, pos)); }
    /// First unit from pos not in the n units of s, or npos.
    size_type find_first_not_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_first_not_of(s, pos, n)); }
    /// First unit from pos not in the terminated s, or npos.
    size_type find_first_not_of(unsigned short const* s, size_type pos = 0) const { return Pos(str_->find_first_not_of(s, pos)); }
    /// First unit from pos other than ch, or npos.
    size_type find_first_not_of(unsigned short ch, size_type pos = 0) const { return Pos(str_->find_first_not_of(ch, pos)); }
    /// Last unit at or before pos not in s, or npos.
    size_type find_last_not_of(ZNRString const& s, size_type pos = npos) const { return Pos(str_->find_last_not_of(*s.str_, Std(pos))); }
    /// Last unit at or before pos not in the n units of s, or npos.
    size_type find_last_not_of(unsigned short const* s, size_type pos, size_type n) const { return Pos(str_->find_last_not_of(s, Std(pos), n)); }
    /// Last unit at or before pos not in the terminated s, or npos.
    size_type find_last_not_of(unsigned short const* s, size_type pos = npos) const { return Pos(str_->find_last_not_of(s, Std(pos))); }
    /// Last unit at or before pos other than ch, or npos.
    size_type find_last_not_of(unsigned short ch, size_type pos = npos) const { return Pos(str_->find_last_not_of(ch, Std(pos))); }

    /// Compares units with s: negative, 0 or positive.
    int compare(ZNRString const& s) const { return str_->compare(*s.str_); }
    /// Compares up to n units at pos with s.
    int compare(size_type pos, size_type n, ZNRString const& s) const { return str_->compare(pos, Std(n), *s.str_); }
    /// Compares up to n units at pos with up to n2 of s's from pos2.
    int compare(size_type pos, size_type n, ZNRString const& s, size_type pos2, size_type n2) const { return str_->compare(pos, Std(n), *s.str_, pos2, Std(n2)); }
    /// Compares units with the terminated s.
    int compare(unsigned short const* s) const { return str_->compare(s); }
    /// Compares up to n units at pos with the terminated s.
    int compare(size_type pos, size_type n, unsigned short const* s) const { return str_->compare(pos, Std(n), s); }
    /// Compares up to n units at pos with n2 units of s.
    int compare(size_type pos, size_type n, unsigned short const* s, size_type n2) const { return str_->compare(pos, Std(n), s, n2); }

    /// Iterator to the first unit.
    iterator begin() { return str_->begin(); }
    /// Iterator to the first unit.
    const_iterator begin() const { return str_->begin(); }
    /// Iterator past the last unit.
    iterator end() { return str_->end(); }
    /// Iterator past the last unit.
    const_iterator end() const { return str_->end(); }
    /// Reverse iterator to the last unit.
    reverse_iterator rbegin() { return str_->rbegin(); }
    /// Reverse iterator to the last unit.
    const_reverse_iterator rbegin() const { return str_->rbegin(); }
    /// Reverse iterator before the first unit.
    reverse_iterator rend() { return str_->rend(); }
    /// Reverse iterator before the first unit.
    const_reverse_iterator rend() const { return str_->rend(); }

    /// The standard string itself, owned by this string.
    operator ZNRStdWString&() { return *str_; }
    /// The standard string itself, owned by this string.
    operator ZNRStdWString const&() const { return *str_; }

    /// Up to n units from pos; the new string always has the locale "chs".
    /// std::out_of_range when pos passes the end.
    ZNRString substr(size_type pos = 0, size_type n = npos) const;

    // The library's own members.
    /// The string's locale, valid for the process's life.
    std::locale const& GetLocale() const;
    /// The locale's name as given ("chs" by default; "" the process's).
    char const* GetLocaleName() const;
    /// Lowers every unit in place with the locale's rules; returns *this.
    ZNRString& ToLower();
    /// Raises every unit in place with the locale's rules; returns *this.
    ZNRString& ToUpper();
    /// True when both strings are equal once lowered, each by its own locale.
    bool IgnCaseCompare(ZNRString const& other) const;
    /// True when the string starts with prefix (always for an empty one).
    bool StartsWith(ZNRString const& prefix) const;
    /// True when the string ends with suffix (always for an empty one).
    bool EndsWith(ZNRString const& suffix) const;
    /// Removes the run of ch at the start, the end or both; returns *this.
    /// Type 0 keeps an all-ch string whole; types 1 and 2 empty it.
    ZNRString& Trim(unsigned short ch, TrimType_t type);
    /// Appends the non-empty tokens to *out; never clears it. Every unit of
    /// separators separates; each token has the locale "chs".
    void Split(ZNRString const& separators, std::vector<ZNRString>* out) const;
    /// A copy of the units.
    ZNRStdWString ToStdWStr() const { return *str_; }
    /// The text in the locale's multi-byte encoding (failures: see the class).
    std::string ToStdCStr() const;
    /// The text as UTF-8 into *out; false (out untouched) when it holds a lone
    /// surrogate.
    bool ToUtf8Str(std::string* out) const;
    /// Replaces the content by the UTF-8 text in; false, content kept, when in
    /// is not valid UTF-8.
    bool NewFromUtf8Str(std::string const& in);
    /// True when the narrow (locale) form is well-formed UTF-8 of at most three
    /// bytes a character (a sequence cut off at the end counts as valid).
    bool IsUTF8() const;
    /// Replaces the content by fmt formatted with the arguments, printf-style:
    /// narrow arguments (%s takes a char string);
    /// the result is cut at 4096 bytes of its narrow form. A 16-bit template
    /// is split into text and conversions in its own units, so only its own
    /// '%' characters convert, whatever the charset; its text is copied as it
    /// stands. There a positional conversion (%1$d) or an unknown one stays text.
    ZNRString& NewFromTempl(unsigned short const* fmt, ...);
    /// As the 16-bit form, with a narrow template in the locale's encoding.
    ZNRString& NewFromTempl(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
    /// NewFromTempl() with an argument list.
    ZNRString& VNewFromTempl(unsigned short const* fmt, va_list args);
    /// NewFromTempl() with an argument list.
    ZNRString& VNewFromTempl(char const* fmt, va_list args) __attribute__((format(printf, 2, 0)));
    /// Appends fmt formatted with the arguments (as NewFromTempl()).
    ZNRString& AppendFromTempl(unsigned short const* fmt, ...);
    /// Appends fmt formatted with the arguments (as NewFromTempl()).
    ZNRString& AppendFromTempl(char const* fmt, ...) __attribute__((format(printf, 2, 3)));

protected:
    /// Both return new[] buffers the caller deletes; failures are reported on
    /// standard error and the buffer holds what was converted.
    unsigned short* MBSToWCS(char const* s) const;
    /// Units to the locale's multi-byte encoding; see MBSToWCS().
    char* WCSToMBS(unsigned short const* s) const;

private:
    static std::size_t Std(size_type n) { return n == npos ? ZNRStdWString::npos : n; }
    static size_type Pos(std::size_t n) { return n == ZNRStdWString::npos ? npos : static_cast<size_type>(n); }
    void SetLocale(char const* name);
    template <class Char>
    ZNRString& VAppendFromTempl(Char const* fmt, va_list args);

    ZNRStlAdapter<ZNRStdWString> str_;
    // Shared by every string of that locale name, never freed: a string
    // allocates nothing for its locale.
    ZNRStringLocale const* locale_;
};

/// Same units (locales are not compared).
ZNR_API bool operator==(ZNRString const& a, ZNRString const& b);
/// Different units.
ZNR_API bool operator!=(ZNRString const& a, ZNRString const& b);
/// Orders by code units, so that strings can key maps.
ZNR_API bool operator<(ZNRString const& a, ZNRString const& b);
/// The units of a then b, with a's locale.
ZNR_API ZNRString operator+(ZNRString const& a, ZNRString const& b);

#endif
