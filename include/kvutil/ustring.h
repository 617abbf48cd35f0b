#ifndef KVUTIL_USTRING_H
#define KVUTIL_USTRING_H

#include <cstddef>
#include <functional>
#include <istream>
#include <kvutil/export.h>
#include <map>
#include <new>
#include <string>
#include <unicode/unistr.h>
#include <vector>
namespace Kvl {
class KVUTIL_EXPORT Utf8String : public std::string {
public:
    using std::string::string;
    Utf8String() = default;
    Utf8String(const std::string& s) : std::string(s) {}
    Utf8String(std::string&& s) noexcept : std::string(std::move(s)) {}
};
class KVUTIL_EXPORT UString : public icu::UnicodeString {
public:
    static constexpr unsigned int npos = 0xFFFFFFFFu;  // constexpr: no ODR definition needed
    UString();
    UString(const UString& o);
    UString(UString&& o) noexcept;  // leaves o empty and valid
    UString(const unsigned short* zero_terminated);
    UString(const char16_t* zero_terminated);  // so that u"..." works; same meaning
    UString(char c);                           // c & 0x7F; implicit, as tabled
    UString(const Utf8String& u);
    UString(const char* bytes, const char* charset);
    UString(const std::basic_string<unsigned short>& units);
    UString(const std::u16string& units);  // same meaning
    UString(const std::wstring& w);        // keeps the leading U+0000
    ~UString();
    UString& operator=(const UString& o);  // never touches the converter pointers
    UString& operator=(UString&& o) noexcept;
    UString& operator+=(const UString& s);  // hides the base's, which return UnicodeString&
    UString& operator+=(unsigned short ch);
    bool empty() const { return isEmpty() != 0; }
    unsigned int length() const { return static_cast<unsigned int>(icu::UnicodeString::length()); }
    unsigned int capacity() const { return static_cast<unsigned int>(getCapacity()); }
    unsigned short operator[](unsigned int pos) const { return charAt(static_cast<int>(pos)); }
    const unsigned short* c_str() const;
    UString substr(unsigned int pos = 0, unsigned int n = npos) const;
    int find(unsigned short ch, unsigned int start = 0) const;                            // -1
    int find(const unsigned short* s, unsigned int start = 0) const;                      // -1
    int find(const UString& s, unsigned int start = 0) const;                             // -1
    int find_last(unsigned short ch, unsigned int start = 0) const;                       // -1
    int find_last(const unsigned short* s, unsigned int start = 0) const;                 // -1
    int find_last(const UString& s, unsigned int start = 0) const;                        // -1
    int find_first_of(unsigned short ch, unsigned int start = 0) const;                   // -1
    unsigned int find_first_of(const unsigned short* set, unsigned int start = 0) const;  // npos
    unsigned int find_first_of(const UString& set, unsigned int start = 0) const;         // npos
    int compare(const unsigned short* s) const;
    int compare(const UString& s) const;
    int compare(unsigned int pos, unsigned int n, const UString& s) const;
    UString& assign(const UString& s);
    UString& assign(const unsigned short* s, unsigned int n = 0);
    UString& assign(const char16_t* s, unsigned int n = 0);
    UString* assign(const std::string& bytes, const char* charset);  // null = no converter
    UString& assign(const std::string& bytes, const char* charset,
                    bool& failed);  // failed = no converter
    UString& append(unsigned short ch);
    UString& append(const unsigned short* s);
    UString& append(const UString& s);
    UString& insert(unsigned int pos, unsigned short ch);
    UString& insert(unsigned int pos, const unsigned short* s);
    UString& insert(unsigned int pos, const UString& s);
    UString& replace(unsigned int pos, unsigned int n, const unsigned short* s);
    UString& replace(unsigned int pos, unsigned int n, const UString& s);
    UString& set_at(unsigned int pos, unsigned short ch);
    UString& erase(unsigned int pos = 0, unsigned int n = npos);
    UString& clear();
    UString& trim();
    UString& reserve(unsigned int n);
    UString& utf8_assign(const Utf8String& u);
    Utf8String utf8_str() const;
    std::string std_str(const char* charset, bool& failed) const;
    static const char* default_charset();
    static const char* eval_charset(const char* name);
    void swap(UString& o) noexcept;

    /// Allocation throws std::bad_alloc; that of the ICU base returns null.
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
    void initialize() noexcept { converter_ = nullptr; }  // sets the converter cache to null

private:
    friend struct constant_text_t;
    struct converter_t;
    struct alias_t {};

    UString(alias_t, const char16_t* text, int length_units) noexcept;
    UString& splice(unsigned int pos, unsigned int n, const char16_t* s, std::size_t count);
    UString& replace_all(const char16_t* s, std::size_t count);
    UString& adopt(icu::UnicodeString& text) noexcept;
    const converter_t* open_converter(const char* want) const;

    mutable converter_t* converter_;
};
inline bool operator==(const UString& a, const UString& b)
{
    return a.compare(b) == 0;
}
inline bool operator!=(const UString& a, const UString& b)
{
    return a.compare(b) != 0;
}
inline bool operator<(const UString& a, const UString& b)
{
    return a.compare(b) < 0;
}
inline bool operator>(const UString& a, const UString& b)
{
    return a.compare(b) > 0;
}
inline bool operator<=(const UString& a, const UString& b)
{
    return a.compare(b) <= 0;
}
inline bool operator>=(const UString& a, const UString& b)
{
    return a.compare(b) >= 0;
}
KVUTIL_EXPORT UString operator+(const UString& a, const UString& b);
inline void swap(UString& a, UString& b) noexcept
{
    a.swap(b);
}
KVUTIL_EXPORT std::istream& operator>>(std::istream& is, Utf8String& s);
KVUTIL_EXPORT std::istream& operator>>(std::istream& is, UString& s);
KVUTIL_EXPORT std::wistream& operator>>(std::wistream& is, UString& s);
}  // namespace Kvl
namespace std {
template <>
struct hash<Kvl::UString> {
    size_t operator()(const Kvl::UString& s) const { return static_cast<size_t>(s.hashCode()); }
};
}  // namespace std

#endif
