#include <kvutil/ustring.h>

#include "converter_pool_impl.h"
#include "units_impl.h"

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <atomic>
#include <bitset>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

namespace Kvl {

namespace {

using icu::UnicodeString;

// ICU's own limit, of which it makes no constant.
constexpr std::int64_t MAX_CAPACITY = INT_MAX - 10;
constexpr const char UTF8_NAME[] = "UTF-8";
constexpr const char DEFAULT_NAME[] = "DEFAULT";

// Whether the units may be written where they are. ICU decides that for itself and asks nobody: a
// write to a shared or read-only buffer allocates first, and when that fails the text is lost.
// To keep the text we must know beforehand, and ICU has no public way to ask. An explicit
// instantiation may name a private member; should ICU rename it, this does not compile.
struct is_buffer_writable_t {
    friend constexpr auto member_named_by(is_buffer_writable_t);
};
template <class Name, auto Member>
struct private_member_t {
    friend constexpr auto member_named_by(Name) { return Member; }
};
template struct private_member_t<is_buffer_writable_t, &UnicodeString::isBufferWritable>;

bool is_exclusive(const UnicodeString& text)
{
    return (text.*member_named_by(is_buffer_writable_t()))() != 0;
}

// A bogus string, or one whose buffer the caller has opened, ignores every edit, as in ICU.
bool is_editable(const UnicodeString& text)
{
    return text.getBuffer() != nullptr;
}

UnicodeString empty_text_of_capacity(std::int64_t units)
{
    if (units > MAX_CAPACITY)
        throw std::bad_alloc();
    UnicodeString text(static_cast<std::int32_t>(units), 0, 0);
    if (text.isBogus())
        throw std::bad_alloc();
    return text;
}

// Room to spare, so that appending unit by unit stays linear.
std::int64_t grown_capacity(std::int64_t units)
{
    return units > MAX_CAPACITY ? units : std::min(units + units / 4 + 128, MAX_CAPACITY);
}

void throw_if_copy_failed(const UnicodeString& copy, const UnicodeString& source)
{
    if (copy.isBogus() && !source.isBogus())
        throw std::bad_alloc();
}

bool is_inside(const void* place, const void* begin, const void* end)
{
    return std::less_equal<>()(begin, place) && std::less<>()(place, end);
}

// ICU copies and moves the inline units without what stands behind them. Terminating them here
// spares c_str() a write.
void terminate_inline(UnicodeString& text)
{
    const char16_t* const units = text.getBuffer();
    if (is_inside(units, &text, &text + 1) && text.length() < text.getCapacity())
        const_cast<char16_t*>(units)[text.length()] = 0;
}

// The caller knows that the buffer may be written.
void set_length(UnicodeString& text, std::int64_t length)
{
    char16_t* const units = text.getBuffer(-1);
    if (length < text.getCapacity())
        units[length] = 0;
    text.releaseBuffer(static_cast<std::int32_t>(length));
}

unsigned int pinned(unsigned int pos, unsigned int length)
{
    return pos > INT_MAX ? 0 : std::min(pos, length);
}

std::size_t units_in(const char16_t* zero_terminated)
{
    return zero_terminated == nullptr ? 0 : std::char_traits<char16_t>::length(zero_terminated);
}

// Searches take ICU's 32-bit lengths; a needle that does not fit them is nowhere.
std::u16string_view needle(const unsigned short* zero_terminated)
{
    const char16_t* const text = to_char16(zero_terminated);
    return {text, units_in(text)};
}

std::u16string_view view(const UString& s)
{
    return {s.getBuffer(), s.length()};
}

std::int32_t signed_position(unsigned int start)
{
    return static_cast<std::int32_t>(start);
}

}  // namespace

// ---- construction ----

UString::UString()
{
    initialize();
}

UString::UString(const UString& o) : icu::UnicodeString(o)
{
    initialize();
    throw_if_copy_failed(*this, o);
    terminate_inline(*this);
}

UString::UString(UString&& o) noexcept : icu::UnicodeString(std::move(o))
{
    initialize();
    o.clear();
    terminate_inline(*this);
}

UString::UString(const unsigned short* zero_terminated) : UString(to_char16(zero_terminated)) {}

UString::UString(const char16_t* zero_terminated) : UString()
{
    replace_all(zero_terminated, units_in(zero_terminated));
}

// Deliberate: a byte above 0x7F loses its high bit. Meant for ASCII literals.
UString::UString(char c) : UString()
{
    append(static_cast<unsigned short>(c & 0x7F));
}

UString::UString(const Utf8String& u) : UString()
{
    utf8_assign(u);
}

UString::UString(const char* bytes, const char* charset) : UString()
{
    assign(std::string(bytes == nullptr ? "" : bytes), charset);
}

UString::UString(const std::basic_string<unsigned short>& units) : UString()
{
    replace_all(to_char16(units.data()), units.size());
}

UString::UString(const std::u16string& units) : UString()
{
    replace_all(units.data(), units.size());
}

UString::UString(const std::wstring& w) : UString()
{
    if (w.empty())
        return;
    // Deliberate: wide text is converted behind a U+0000, which stays.
    std::int64_t length = 1;
    for (const wchar_t c : w)
        length += static_cast<std::uint32_t>(c) <= 0xFFFF     ? 1
                  : static_cast<std::uint32_t>(c) <= 0x10FFFF ? 2
                                                              : 0;
    UnicodeString text = empty_text_of_capacity(length);
    char16_t* to = text.getBuffer(-1);
    *to++ = 0;
    for (const wchar_t wide : w) {
        const auto c = static_cast<std::uint32_t>(wide);
        if (c <= 0xFFFF) {
            *to++ = static_cast<char16_t>(c);
        } else if (c <= 0x10FFFF) {
            *to++ = U16_LEAD(c);
            *to++ = U16_TRAIL(c);
        }
    }
    text.releaseBuffer(static_cast<std::int32_t>(length));
    adopt(text);
}

UString::UString(alias_t, const char16_t* text, int length_units) noexcept
    : icu::UnicodeString(true, text, length_units)
{
    initialize();
}

UString& UString::operator=(const UString& o)
{
    if (this == &o)
        return *this;
    UnicodeString copy(o);
    throw_if_copy_failed(copy, o);
    return adopt(copy);
}

UString& UString::operator=(UString&& o) noexcept
{
    if (this == &o)
        return *this;
    adopt(o);
    o.clear();
    return *this;
}

void UString::swap(UString& o) noexcept
{
    icu::UnicodeString::swap(o);
    terminate_inline(*this);
    terminate_inline(o);
}

UString& UString::adopt(icu::UnicodeString& text) noexcept
{
    icu::UnicodeString::operator=(std::move(text));
    terminate_inline(*this);
    return *this;
}

// ---- observers ----

const unsigned short* UString::c_str() const
{
    const char16_t* const units = getBuffer();
    if (units == nullptr)
        return nullptr;
    if (length() < capacity() && units[length()] == 0)
        return to_units(units);
    // The terminator lies outside the text, so to write it does not change the value.
    UString& self = const_cast<UString&>(*this);
    if (length() < capacity() && is_exclusive(*this)) {
        set_length(self, length());
    } else {
        UnicodeString copy =
            empty_text_of_capacity(std::int64_t{capacity()} + (length() < capacity() ? 0 : 1));
        std::copy_n(units, length(), copy.getBuffer(-1));
        copy.releaseBuffer(static_cast<std::int32_t>(length()));
        set_length(copy, length());
        self.adopt(copy);
    }
    return to_units(getBuffer());
}

UString UString::substr(unsigned int pos, unsigned int n) const
{
    UString result;
    if (pos < length())
        result.replace_all(getBuffer() + pos, std::min(n, length() - pos));
    return result;
}

int UString::find(unsigned short ch, unsigned int start) const
{
    return indexOf(static_cast<char16_t>(ch), signed_position(start));
}

int UString::find(const unsigned short* s, unsigned int start) const
{
    const std::u16string_view text = needle(s);
    return text.empty() || text.size() > length()
               ? -1
               : indexOf(text.data(), static_cast<std::int32_t>(text.size()),
                         signed_position(start));
}

int UString::find(const UString& s, unsigned int start) const
{
    return indexOf(s, signed_position(start));
}

int UString::find_last(unsigned short ch, unsigned int start) const
{
    return lastIndexOf(static_cast<char16_t>(ch), signed_position(start));
}

int UString::find_last(const unsigned short* s, unsigned int start) const
{
    const std::u16string_view text = needle(s);
    return text.empty() || text.size() > length()
               ? -1
               : lastIndexOf(text.data(), static_cast<std::int32_t>(text.size()),
                             signed_position(start));
}

int UString::find_last(const UString& s, unsigned int start) const
{
    return lastIndexOf(s, signed_position(start));
}

int UString::find_first_of(unsigned short ch, unsigned int start) const
{
    return find(ch, start);
}

namespace {

unsigned int find_unit_of(std::u16string_view set, std::u16string_view text, unsigned int start)
{
    // A table of all units keeps the search linear whatever the size of the set.
    if (set.empty())
        return UString::npos;
    std::bitset<0x10000> wanted;
    for (const char16_t unit : set)
        wanted.set(unit);
    for (std::size_t pos = start; pos < text.size(); ++pos)
        if (wanted[text[pos]])
            return static_cast<unsigned int>(pos);
    return UString::npos;
}

}  // namespace

unsigned int UString::find_first_of(const unsigned short* set, unsigned int start) const
{
    return find_unit_of(needle(set), view(*this), pinned(start, length()));
}

unsigned int UString::find_first_of(const UString& set, unsigned int start) const
{
    return find_unit_of(view(set), view(*this), pinned(start, length()));
}

int UString::compare(const unsigned short* s) const
{
    if (isBogus())
        return -1;
    const int order = view(*this).compare(needle(s));
    return (order > 0) - (order < 0);
}

int UString::compare(const UString& s) const
{
    return icu::UnicodeString::compare(s);
}

int UString::compare(unsigned int pos, unsigned int n, const UString& s) const
{
    const unsigned int from = pinned(pos, length());
    const unsigned int count = std::min(n, length() - from);
    return icu::UnicodeString::compare(static_cast<std::int32_t>(from),
                                       static_cast<std::int32_t>(count), s);
}

// ---- editing ----

// Replaces `n` units from `pos` by `count` units of `s`, which may lie in this very text. Every
// edit comes here: either it needs no memory, or a new text is complete before the old one goes.
UString& UString::splice(unsigned int pos, unsigned int n, const char16_t* s, std::size_t count)
{
    if (!is_editable(*this))
        return *this;
    if (count > static_cast<std::size_t>(MAX_CAPACITY))
        throw std::bad_alloc();
    using traits = std::char_traits<char16_t>;
    const std::size_t from = pinned(pos, length());
    const std::size_t removed = std::min<std::size_t>(n, length() - from);
    const std::size_t tail = length() - from - removed;
    const auto new_length = static_cast<std::int64_t>(from + count + tail);
    const char16_t* const old = getBuffer();

    const bool fits = new_length <= getCapacity() && is_exclusive(*this);
    const bool replaces_all = from == 0 && tail == 0;
    if (fits && (replaces_all || !is_inside(s, old, old + capacity()))) {
        char16_t* const units = const_cast<char16_t*>(old);
        if (removed != count)
            traits::move(units + from + count, units + from + removed, tail);
        traits::move(units + from, s, count);
        set_length(*this, new_length);
        return *this;
    }

    UnicodeString text = empty_text_of_capacity(fits ? new_length : grown_capacity(new_length));
    char16_t* const units = text.getBuffer(-1);
    traits::copy(units, old, from);
    traits::copy(units + from, s, count);
    traits::copy(units + from + count, old + from + removed, tail);
    text.releaseBuffer(static_cast<std::int32_t>(new_length));
    set_length(text, new_length);
    return adopt(text);
}

UString& UString::replace_all(const char16_t* s, std::size_t count)
{
    if (!isBogus())
        return splice(0, npos, s, count);
    UString text;
    text.splice(0, 0, s, count);
    return adopt(text);
}

UString& UString::assign(const UString& s)
{
    const bool is_open = !isBogus() && !is_editable(*this);
    if (s.isBogus())
        return clear();
    if (this == &s || is_open)
        return *this;
    // What does not fit is shared with `s`, which costs nothing.
    return s.length() <= capacity() ? replace_all(s.getBuffer(), s.length()) : *this = s;
}

UString& UString::assign(const unsigned short* s, unsigned int n)
{
    return assign(to_char16(s), n);
}

// Deliberate: n == 0 means zero-terminated, so no explicit empty prefix can be assigned.
UString& UString::assign(const char16_t* s, unsigned int n)
{
    return replace_all(s, s == nullptr ? 0 : n == 0 ? units_in(s) : n);
}

UString& UString::append(unsigned short ch)
{
    const char16_t unit = ch;
    return splice(length(), 0, &unit, 1);
}

UString& UString::append(const unsigned short* s)
{
    return splice(length(), 0, to_char16(s), units_in(to_char16(s)));
}

UString& UString::append(const UString& s)
{
    return splice(length(), 0, s.getBuffer(), s.length());
}

UString& UString::operator+=(const UString& s)
{
    return append(s);
}

UString& UString::operator+=(unsigned short ch)
{
    return append(ch);
}

UString& UString::insert(unsigned int pos, unsigned short ch)
{
    const char16_t unit = ch;
    return splice(pos, 0, &unit, 1);
}

UString& UString::insert(unsigned int pos, const unsigned short* s)
{
    return splice(pos, 0, to_char16(s), units_in(to_char16(s)));
}

UString& UString::insert(unsigned int pos, const UString& s)
{
    return splice(pos, 0, s.getBuffer(), s.length());
}

UString& UString::replace(unsigned int pos, unsigned int n, const unsigned short* s)
{
    return splice(pos, n, to_char16(s), units_in(to_char16(s)));
}

UString& UString::replace(unsigned int pos, unsigned int n, const UString& s)
{
    return splice(pos, n, s.getBuffer(), s.length());
}

UString& UString::set_at(unsigned int pos, unsigned short ch)
{
    if (empty())
        return *this;
    const char16_t unit = ch;
    return splice(std::min(pinned(pos, length()), length() - 1), 1, &unit, 1);
}

UString& UString::erase(unsigned int pos, unsigned int n)
{
    // ICU's rule, and the one way in which a bogus string is erased.
    if (static_cast<std::int32_t>(pos) <= 0 && (n == npos || n == INT_MAX))
        return clear();
    return splice(pos, n, nullptr, 0);
}

UString& UString::clear()
{
    icu::UnicodeString::remove();
    return *this;
}

namespace {

// White space lies in the Basic Multilingual Plane, so to look unit by unit is to look character by
// character.
bool is_trimmed(char16_t unit)
{
    return unit == u' ' || u_isWhitespace(unit) != 0;
}

}  // namespace

UString& UString::trim()
{
    const std::u16string_view text = view(*this);
    std::size_t end = text.size();
    while (end > 0 && is_trimmed(text[end - 1]))
        --end;
    std::size_t begin = 0;
    while (begin < end && is_trimmed(text[begin]))
        ++begin;
    if (begin == 0 && end == text.size())
        return *this;
    return replace_all(text.data() + begin, end - begin);
}

UString& UString::reserve(unsigned int n)
{
    if (!is_editable(*this) || n <= capacity())
        return *this;
    UnicodeString text = empty_text_of_capacity(n);
    std::char_traits<char16_t>::copy(text.getBuffer(-1), getBuffer(), length());
    text.releaseBuffer(icu::UnicodeString::length());
    set_length(text, length());
    return adopt(text);
}

UString operator+(const UString& a, const UString& b)
{
    UString sum(a);
    sum.append(b);
    return sum;
}

// ---- UTF-8 ----

UString& UString::utf8_assign(const Utf8String& u)
{
    if (u.empty())
        return clear();
    if (u.size() > INT_MAX)
        throw std::bad_alloc();
    const auto size = static_cast<std::int32_t>(u.size());
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(nullptr, 0, &length, u.data(), size, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR)
        return clear();
    status = U_ZERO_ERROR;
    UnicodeString text = empty_text_of_capacity(std::int64_t{length} + 1);
    u_strFromUTF8(text.getBuffer(-1), length + 1, nullptr, u.data(), size, &status);
    text.releaseBuffer(length);
    return adopt(text);
}

Utf8String UString::utf8_str() const
{
    Utf8String result;
    if (empty())
        return result;
    std::int32_t size = 0;
    UErrorCode status = U_ZERO_ERROR;
    const auto units = icu::UnicodeString::length();
    u_strToUTF8(nullptr, 0, &size, getBuffer(), units, &status);
    if (status == U_INDEX_OUTOFBOUNDS_ERROR)
        throw std::bad_alloc();
    if (status != U_BUFFER_OVERFLOW_ERROR)
        return result;
    status = U_ZERO_ERROR;
    result.resize(static_cast<std::size_t>(size));
    u_strToUTF8(result.data(), size, nullptr, getBuffer(), units, &status);
    // Deliberate: a U+0000 ends the bytes.
    result.resize(std::strlen(result.c_str()));
    return result;
}

// ---- charsets ----

UString::~UString()
{
    if (converter_ != nullptr)
        give_back_converter(converter_);
}

// The cached converter if ICU says that it is one for the charset, otherwise another in its place.
const charset_converter_t* UString::converter_for(const char* charset) const
{
    const char* const want = eval_charset(charset);
    if (converter_ != nullptr) {
        UErrorCode status = U_ZERO_ERROR;
        const char* const name = ucnv_getName(converter_->handle, &status);
        if (U_FAILURE(status) || want == nullptr || ucnv_compareNames(name, want) != 0)
            give_back_converter(std::exchange(converter_, nullptr));
    }
    if (converter_ == nullptr && want != nullptr)
        converter_ = take_converter(want);
    return converter_;
}

UString* UString::assign(const std::string& bytes, const char* charset)
{
    if (bytes.empty())
        return &clear();
    if (charset != nullptr && std::strcmp(charset, UTF8_NAME) == 0)
        return &utf8_assign(Utf8String(bytes));
    const charset_converter_t* const converter = converter_for(charset);
    if (converter == nullptr)
        return nullptr;
    if (bytes.size() > INT_MAX)
        throw std::bad_alloc();
    const auto size = static_cast<std::int32_t>(bytes.size());
    UErrorCode status = U_ZERO_ERROR;
    UnicodeString text = empty_text_of_capacity(2 * std::int64_t{size});
    std::int32_t length = ucnv_toUChars(converter->handle, text.getBuffer(-1), text.getCapacity(),
                                        bytes.data(), size, &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        status = U_ZERO_ERROR;
        text.releaseBuffer(0);
        text = empty_text_of_capacity(length);
        length = ucnv_toUChars(converter->handle, text.getBuffer(-1), text.getCapacity(),
                               bytes.data(), size, &status);
    }
    text.releaseBuffer(length);
    if (status == U_MEMORY_ALLOCATION_ERROR)
        throw std::bad_alloc();
    adopt(text);
    return this;
}

UString& UString::assign(const std::string& bytes, const char* charset, bool& failed)
{
    failed = assign(bytes, charset) == nullptr;
    return *this;
}

std::string UString::std_str(const char* charset, bool& failed) const
{
    failed = false;
    if (empty())
        return {};
    if (charset != nullptr && std::strcmp(charset, UTF8_NAME) == 0)
        return utf8_str();
    // Deliberate: an unknown charset gives an empty result and no failure.
    const charset_converter_t* const converter = converter_for(charset);
    if (converter == nullptr)
        return {};
    const std::int64_t size = std::int64_t{ucnv_getMaxCharSize(converter->handle)} * length() + 1;
    if (size > INT_MAX)
        throw std::bad_alloc();
    // One byte more than ICU is told of, since some converters leave no terminator.
    std::string buffer(static_cast<std::size_t>(size) + 1, '\0');
    UErrorCode status = U_ZERO_ERROR;
    ucnv_fromUChars(converter->handle, buffer.data(), static_cast<std::int32_t>(size), getBuffer(),
                    icu::UnicodeString::length(), &status);
    if (status == U_MEMORY_ALLOCATION_ERROR)
        throw std::bad_alloc();
    failed = status != U_ZERO_ERROR;
    return buffer.c_str();
}

namespace {

// Never destroyed: other threads may still convert while the process ends.
constinit std::atomic<const std::string*> default_charset_name{nullptr};

}  // namespace

const char* UString::default_charset()
{
    if (const std::string* const known = default_charset_name.load(std::memory_order_acquire))
        return known->c_str();
    const char* const name = ucnv_getDefaultName();
    if (name == nullptr || *name == '\0')
        return "";
    auto mine = std::make_unique<const std::string>(name);
    const std::string* current = nullptr;
    if (default_charset_name.compare_exchange_strong(current, mine.get()))
        current = mine.release();
    return current->c_str();
}

const char* UString::eval_charset(const char* name)
{
    return name != nullptr && std::strcmp(name, DEFAULT_NAME) == 0 ? default_charset() : name;
}

// ---- streams ----

std::istream& operator>>(std::istream& is, Utf8String& s)
{
    return is >> static_cast<std::string&>(s);
}

std::istream& operator>>(std::istream& is, UString& s)
{
    Utf8String word;
    is >> word;
    s = UString(word);
    return is;
}

std::wistream& operator>>(std::wistream& is, UString& s)
{
    std::wstring word;
    is >> word;
    s = UString(word);
    return is;
}

}  // namespace Kvl
