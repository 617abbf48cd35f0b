#ifndef KVUTIL_USTRING_H
#define KVUTIL_USTRING_H

#include <kvutil/export.h>

#include <cstddef>
#include <functional>
#include <istream>
#include <map>
#include <new>
#include <string>
#include <unicode/unistr.h>
#include <utility>
#include <vector>

namespace Kvl {

struct any_charset_t;    // private to the library
struct constant_text_t;  // private to the library
struct owned_text_t;     // private to the library
class used_charset_t;    // private to the library

/// A byte string that holds UTF-8 text. The bytes are not checked.
/// @par Thread-safety
/// As std::string.
class KVUTIL_EXPORT Utf8String : public std::string {
public:
    using std::string::string;
    using std::string::operator=;
    Utf8String() = default;
    /// Takes the bytes as they are.
    Utf8String(const std::string& s) : std::string(s) {}
    Utf8String(std::string&& s) noexcept : std::string(std::move(s)) {}
};

/// The library's one text type: UTF-16, counted in 16-bit units, never in characters or bytes.
///
/// Deliberate surprises:
/// - every length and position is in units, so a supplementary character takes two;
/// - bad text never throws: malformed UTF-8 gives an empty text, an unknown charset is told by
///   a null result or by nothing at all (see each conversion);
/// - a position of 2^31 or more reads as 0 and one beyond the end as the end; a count is clamped to
///   the rest of the text;
/// - a null pointer stands for the empty text and, as a charset name, for an unknown charset;
/// - arguments may lie in the text itself, as if copied first;
/// - a string that ICU has set to bogus counts as the empty text. Whatever puts a text into it,
///   and clear(), end that state; what only moves or removes units leaves it. Comparisons alone
///   tell bogus from empty;
/// - a string whose buffer is open for writing ignores edits.
///
/// Every operation that needs memory throws std::bad_alloc when there is none, or when the text
/// would be longer than ICU's strings can be (2^31 - 11 units), and then leaves the text as it was.
/// Only `noexcept` operations and those that say so throw nothing.
/// @par Thread-safety
/// Distinct strings may be used at once. One string may not, and that includes two std_str() on one
/// const string, since they share its converter, and c_str(), which may write a terminator.
/// @see ICU 3.8 icu::UnicodeString
class KVUTIL_EXPORT UString : public icu::UnicodeString {
public:
    /// "Not found", and "up to the end" as a count. All ones, so that it equals the -1 of find().
    static constexpr unsigned int npos = 0xFFFFFFFFu;

    /// The empty text. Never throws.
    UString() noexcept { initialize(); }

    /// A copy of the units. The converter of `o` is not copied.
    UString(const UString& o);

    /// Takes the units and leaves `o` empty and valid. The converter of `o` stays with it.
    UString(UString&& o) noexcept;

    /// @param zero_terminated  UTF-16 text, unchecked; null is the empty text
    UString(const unsigned short* zero_terminated);
    /// @copydoc UString(const unsigned short*)
    UString(const char16_t* zero_terminated);

    /// One unit, of the low seven bits of `c`: the byte 0xE9 becomes 0x69. Deliberate; meant for
    /// ASCII literals. Never throws.
    UString(char c) noexcept;

    /// The bytes decoded, as utf8_assign() does.
    UString(const Utf8String& u);

    /// The bytes decoded, as assign(bytes, charset) does; empty when there is no such charset.
    /// @param bytes    zero-terminated
    /// @param charset  as for assign()
    UString(const char* bytes, const char* charset);

    /// The units in their order, with every U+0000 and every unpaired surrogate.
    UString(const std::basic_string<unsigned short>& units);
    /// @copydoc UString(const std::basic_string<unsigned short>&)
    UString(const std::u16string& units);

    /// 32-bit wide text, behind one U+0000. Deliberate: a wide text that is not empty gives a text
    /// that starts with U+0000. Values beyond 0x10FFFF are dropped; unpaired surrogates stay.
    UString(const std::wstring& w);

    ~UString();

    /// A copy of the units, the bogus state included. Neither converter is touched.
    UString& operator=(const UString& o);
    /// Takes the units and leaves `o` empty and valid. Neither converter is touched.
    UString& operator=(UString&& o) noexcept;

    /// append(), under the name that the ICU base has too.
    UString& operator+=(const UString& s);
    /// @copydoc operator+=(const UString&)
    UString& operator+=(unsigned short ch);

    /// Never throws.
    bool empty() const noexcept { return isEmpty() != 0; }

    /// @return the number of units. Never throws.
    unsigned int length() const noexcept
    {
        return static_cast<unsigned int>(icu::UnicodeString::length());
    }

    /// @return the number of units that fit without reallocation. Never throws.
    unsigned int capacity() const noexcept { return static_cast<unsigned int>(getCapacity()); }

    /// @return the unit at `pos`, or 0xFFFF when `pos` is not in the text. Never throws.
    unsigned short operator[](unsigned int pos) const noexcept
    {
        return charAt(static_cast<int>(pos));
    }

    /// The units with a U+0000 behind them, which is not part of the text. May write it, and move
    /// the text to do so; earlier pointers are then invalid.
    /// @return valid until the text changes; null when the string is bogus or its buffer open
    const unsigned short* c_str() const;

    /// @param pos  first unit; not in the text gives the empty text
    /// @param n    number of units, clamped to the rest
    UString substr(unsigned int pos = 0, unsigned int n = npos) const;

    /// The first `ch` at or after `start`. One half of a surrogate pair is not found inside the
    /// pair, as in ICU; this holds for all searches but those for a set. Never throws.
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find(unsigned short ch, unsigned int start = 0) const noexcept;
    /// The first occurrence of zero-terminated `s` at or after `start`. Never throws.
    /// @param s      null and empty are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find(const unsigned short* s, unsigned int start = 0) const noexcept;
    /// The first occurrence of `s` at or after `start`, in time that is linear in both lengths.
    /// Never throws.
    /// @param s      empty and bogus are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find(const UString& s, unsigned int start = 0) const noexcept;

    /// The last `ch` in [start, length). Deliberate: unlike std::string::rfind(), `start` is the
    /// lower end of what is searched. Never throws.
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find_last(unsigned short ch, unsigned int start = 0) const noexcept;
    /// The last occurrence of zero-terminated `s` wholly in [start, length). Never throws.
    /// @param s      null and empty are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find_last(const unsigned short* s, unsigned int start = 0) const noexcept;
    /// The last occurrence of `s` wholly in [start, length). Never throws. A long `s` that nearly
    /// matches at many places costs as much as both lengths multiplied.
    /// @param s      empty and bogus are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or -1
    int find_last(const UString& s, unsigned int start = 0) const noexcept;

    /// find(ch, start). Never throws.
    /// @return  its position, or -1
    int find_first_of(unsigned short ch, unsigned int start = 0) const noexcept;
    /// The first unit at or after `start` that is in the zero-terminated `set`, looking unit by
    /// unit. Never throws.
    /// @param set    null and empty are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or npos
    unsigned int find_first_of(const unsigned short* set, unsigned int start = 0) const noexcept;
    /// The first unit at or after `start` that is in `set`, looking unit by unit. Never throws.
    /// @param set    empty and bogus are not found
    /// @param start  2^31 and more, npos included, mean 0
    /// @return       its position, or npos
    unsigned int find_first_of(const UString& set, unsigned int start = 0) const noexcept;

    /// The whole text against zero-terminated `s`, in the numeric order of units. Never throws.
    /// @return  -1, 0 or 1; -1 when this string is bogus
    int compare(const unsigned short* s) const noexcept;
    /// The whole text against `s`, in the numeric order of units. A bogus string is less than any
    /// other and equal to a bogus one. Never throws.
    /// @return  -1, 0 or 1
    int compare(const UString& s) const noexcept;
    /// The units [pos, pos+n) against the whole of `s`, likewise. Never throws.
    /// @return  -1, 0 or 1
    int compare(unsigned int pos, unsigned int n, const UString& s) const noexcept;

    /// Replaces the text; a bogus `s` gives the empty text.
    UString& assign(const UString& s);
    /// Replaces the text by the first `n` units of `s`.
    /// @param s  at least `n` units, or zero-terminated when `n` is 0
    /// @param n  0 means all of the zero-terminated `s`, so that no explicit empty prefix can be
    ///           assigned. Deliberate
    UString& assign(const unsigned short* s, unsigned int n = 0);
    /// @copydoc assign(const unsigned short*,unsigned int)
    UString& assign(const char16_t* s, unsigned int n = 0);
    /// Replaces the text by `bytes`, decoded. Undecodable bytes become the charset's substitution
    /// character, except in "UTF-8", where they give the empty text.
    /// @param bytes    in `charset`; empty bytes clear the text, whatever the charset
    /// @param charset  a name known to ICU; exactly "UTF-8" is utf8_assign(), exactly "DEFAULT" is
    ///                 default_charset()
    /// @return         this string, or null when there is no such charset; the text is then
    ///                 unchanged
    UString* assign(const std::string& bytes, const char* charset);
    /// The same, with the failure in a flag instead.
    /// @param bytes    as above
    /// @param charset  as above
    /// @param failed   set to whether there is no such charset
    UString& assign(const std::string& bytes, const char* charset, bool& failed);

    /// Adds at the end. A pointer is to a zero-terminated text.
    UString& append(unsigned short ch);
    UString& append(const unsigned short* s);
    UString& append(const UString& s);

    /// Adds before `pos`.
    UString& insert(unsigned int pos, unsigned short ch);
    /// Adds zero-terminated `s` before `pos`.
    UString& insert(unsigned int pos, const unsigned short* s);
    /// Adds before `pos`.
    UString& insert(unsigned int pos, const UString& s);

    /// Replaces the units [pos, pos+n) by zero-terminated `s`.
    UString& replace(unsigned int pos, unsigned int n, const unsigned short* s);
    /// Replaces the units [pos, pos+n) by `s`.
    UString& replace(unsigned int pos, unsigned int n, const UString& s);

    /// Overwrites one unit; a position beyond the end means the last unit. Nothing happens to the
    /// empty text.
    UString& set_at(unsigned int pos, unsigned short ch);

    /// Removes the units [pos, pos+n). From position 0, a count of npos or 0x7FFFFFFF is clear().
    UString& erase(unsigned int pos = 0, unsigned int n = npos);

    /// Empties the text and keeps its buffer; a bogus string becomes valid. Never throws.
    UString& clear() noexcept;

    /// Removes white space at both ends.
    /// @see ICU u_isWhitespace
    UString& trim();

    /// Makes the capacity at least `n` units; never less than the length.
    UString& reserve(unsigned int n);

    /// Replaces the text by the bytes decoded; malformed UTF-8 gives the empty text.
    /// @see Unicode 5.0, table 3-7
    UString& utf8_assign(const Utf8String& u);

    /// The text in UTF-8. Deliberate: a U+0000 in the text ends the result there.
    /// @return  empty when the text has an unpaired surrogate anywhere
    Utf8String utf8_str() const;

    /// The text in `charset`. Characters that it does not have become its substitution bytes, which
    /// is no failure. Deliberate: an unknown charset is no failure either, and the first zero byte
    /// ends the result.
    /// @param charset  as for assign()
    /// @param failed   set to whether the converter reported an error or a warning
    /// @return         the bytes, or what was converted until the failure; empty when there is no
    ///                 such charset
    std::string std_str(const char* charset, bool& failed) const;

    /// The name of the platform's default charset, asked for once.
    /// @return  valid for ever; empty when ICU has none, which is then asked again
    static const char* default_charset();

    /// @return  default_charset() for exactly "DEFAULT", otherwise `name`
    static const char* eval_charset(const char* name);

    /// Exchanges the texts. Neither converter is touched.
    void swap(UString& o) noexcept;

    /// Throws std::bad_alloc; that of the ICU base returns null.
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void* operator new[](std::size_t size) { return ::operator new[](size); }
    static void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept
    {
        return ::operator new(size, tag);
    }
    static void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept
    {
        return ::operator new[](size, tag);
    }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void* operator new[](std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }
    static void operator delete[](void* memory) noexcept { ::operator delete[](memory); }
    static void operator delete(void* memory, const std::nothrow_t& tag) noexcept
    {
        ::operator delete(memory, tag);
    }
    static void operator delete[](void* memory, const std::nothrow_t& tag) noexcept
    {
        ::operator delete[](memory, tag);
    }
    static void operator delete(void*, void*) noexcept {}
    static void operator delete[](void*, void*) noexcept {}

protected:
    /// Sets the converter cache to null without closing it: every constructor calls it once the
    /// base is built.
    void initialize() noexcept { charset_ = nullptr; }

private:
    friend struct any_charset_t;
    friend struct constant_text_t;
    friend struct owned_text_t;
    // Their constructors are explicit, so that no caller's arguments turn into one of them.
    struct alias_t {
        explicit alias_t() = default;
    };
    struct room_t {
        explicit room_t(std::size_t length) : units(length) {}
        std::size_t units;
    };

    inline UString(alias_t, const char16_t* text, int length_units) noexcept;  // the library's own
    explicit UString(room_t room);
    UString(room_t length, const char16_t* units);
    UString(room_t length, const Utf8String& u);
    UString& splice(unsigned int pos, unsigned int n, const char16_t* s, std::size_t count);
    UString& replace_all(const char16_t* s, std::size_t count);
    UString& adopt(icu::UnicodeString& text) noexcept;
    void move_to_capacity(std::size_t units);
    template <class Write>
    UString& overwrite(std::size_t length, Write write);
    bool can_overwrite(std::size_t length);
    UString& decode_utf8(const std::string& bytes, std::size_t length);
    const used_charset_t* charset_for(const char* charset) const;
    UString* assign_converted(const std::string& bytes, const used_charset_t& charset);

    // What converted last, or null. A cache: no copy, move or swap hands it on.
    mutable const used_charset_t* charset_;
};

/// Comparison by UString::compare(). None throws. Texts of different lengths are not compared to
/// know that they differ.
inline bool operator==(const UString& a, const UString& b) noexcept
{
    return a.length() == b.length() && a.compare(b) == 0;
}
inline bool operator!=(const UString& a, const UString& b) noexcept
{
    return !(a == b);
}
inline bool operator<(const UString& a, const UString& b) noexcept
{
    return a.compare(b) < 0;
}
inline bool operator>(const UString& a, const UString& b) noexcept
{
    return a.compare(b) > 0;
}
inline bool operator<=(const UString& a, const UString& b) noexcept
{
    return a.compare(b) <= 0;
}
inline bool operator>=(const UString& a, const UString& b) noexcept
{
    return a.compare(b) >= 0;
}

/// The units of `a`, then those of `b`.
/// @throws std::bad_alloc there is no memory, or the sum is too long
KVUTIL_EXPORT UString operator+(const UString& a, const UString& b);

inline void swap(UString& a, UString& b) noexcept
{
    a.swap(b);
}

/// Reads one word of bytes, delimited by white space. Without a word, `s` stays as it was.
/// @throws std::bad_alloc there is no memory for the whole word. Deliberate: a stream that is not
///                        asked to throw does so all the same. It is then bad(), and `s` as it was
KVUTIL_EXPORT std::istream& operator>>(std::istream& is, Utf8String& s);

/// Reads one word of bytes and takes it as UTF-8. Assigns also when there is no word: the empty
/// text.
/// @throws std::bad_alloc as above
KVUTIL_EXPORT std::istream& operator>>(std::istream& is, UString& s);

/// Reads one wide word. Deliberate: it stands behind a U+0000, as UString(const std::wstring&)
/// makes it. Assigns also when there is no word: the empty text.
/// @throws std::bad_alloc as above
KVUTIL_EXPORT std::wistream& operator>>(std::wistream& is, UString& s);

}  // namespace Kvl

namespace std {
/// Equal texts have equal values.
template <>
struct hash<Kvl::UString> {
    /// Never throws.
    size_t operator()(const Kvl::UString& s) const noexcept
    {
        return static_cast<size_t>(s.hashCode());
    }
};
}  // namespace std

#endif
