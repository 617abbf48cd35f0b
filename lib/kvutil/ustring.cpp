#include <kvutil/ustring.h>

#include "converter_pool_impl.h"
#include "known_charset_impl.h"
#include "search_impl.h"
#include "storage_impl.h"
#include "units_impl.h"
#include "units_order_impl.h"
#include "used_charset_impl.h"
#include "utf8_impl.h"

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace Kvl {

namespace {

using icu::UnicodeString;

constexpr const char UTF8_NAME[] = "UTF-8";
constexpr const char DEFAULT_NAME[] = "DEFAULT";

template <std::size_t N>
bool is_named(const char* charset, const char (&name)[N])
{
    return charset != nullptr && is_same_name(charset, name);
}

void throw_if_copy_failed(const UnicodeString& copy, const UnicodeString& source)
{
    if (copy.isBogus() && !source.isBogus())
        throw std::bad_alloc();
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

// What a search from `from` on found, as a position in the whole text.
int position(std::size_t found, unsigned int from)
{
    return found == NOT_FOUND ? -1 : static_cast<int>(from + found);
}

int find_view(std::u16string_view text, std::u16string_view wanted, unsigned int from)
{
    return wanted.empty() ? -1 : position(find_text(text.substr(from), wanted), from);
}

}  // namespace

// ---- construction ----

// The base is copied in the body.
// NOLINTNEXTLINE(bugprone-copy-constructor-init)
UString::UString(const UString& o) : icu::UnicodeString()
{
    initialize();
    copy_into_new(*this, o);
    throw_if_copy_failed(*this, o);
}

UString::UString(UString&& o) noexcept : icu::UnicodeString(std::move(o))
{
    initialize();
    o.clear();
    terminate_inline(*this);
}

UString::UString(const unsigned short* zero_terminated) : UString(to_char16(zero_terminated)) {}

UString::UString(const char16_t* zero_terminated)
    : UString(room_t(units_in(zero_terminated)), zero_terminated)
{
}

UString::UString(room_t length, const char16_t* units) : UString(length)
{
    std::char_traits<char16_t>::copy(writable(*this), units, length.units);
    set_length(*this, length.units);
}

UString::UString(room_t room)
{
    initialize();
    make_room_in_new(*this, room.units);
}

// Deliberate: a byte above 0x7F loses its high bit. Meant for ASCII literals.
UString::UString(char c) noexcept : icu::UnicodeString(static_cast<char16_t>(c & 0x7F))
{
    initialize();
}

UString::UString(const char* bytes, const char* charset) : UString()
{
    assign(std::string(bytes == nullptr ? "" : bytes), charset);
}

UString::UString(const std::basic_string<unsigned short>& units)
    : UString(room_t(units.size()), to_char16(units.data()))
{
}

UString::UString(const std::u16string& units) : UString(room_t(units.size()), units.data()) {}

UString::UString(const std::wstring& w) : UString()
{
    if (w.empty())
        return;
    // Deliberate: wide text is converted behind a U+0000, which stays.
    std::size_t length = 1;
    for (const wchar_t c : w)
        length += static_cast<std::uint32_t>(c) <= 0xFFFF     ? 1
                  : static_cast<std::uint32_t>(c) <= 0x10FFFF ? 2
                                                              : 0;
    overwrite(length, [&w](char16_t* to, const char16_t*) {
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
    });
}

UString& UString::operator=(const UString& o)
{
    if (this == &o)
        return *this;
    UString copy(o);
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
    if (length() < capacity() && is_exclusive(*this))
        set_length(self, length());
    else
        self.move_to_capacity(length() < capacity() ? capacity() : capacity() + 1);
    return to_units(getBuffer());
}

UString UString::substr(unsigned int pos, unsigned int n) const
{
    UString result;
    if (pos < length())
        result.replace_all(getBuffer() + pos, std::min(n, length() - pos));
    return result;
}

int UString::find(unsigned short ch, unsigned int start) const noexcept
{
    const unsigned int from = pinned(start, length());
    return position(find_whole_unit(view(*this).substr(from), static_cast<char16_t>(ch)), from);
}

int UString::find(const unsigned short* s, unsigned int start) const noexcept
{
    return find_view(view(*this), needle(s), pinned(start, length()));
}

int UString::find(const UString& s, unsigned int start) const noexcept
{
    return find_view(view(*this), view(s), pinned(start, length()));
}

int UString::find_last(unsigned short ch, unsigned int start) const noexcept
{
    return lastIndexOf(static_cast<char16_t>(ch), signed_position(start));
}

int UString::find_last(const unsigned short* s, unsigned int start) const noexcept
{
    const std::u16string_view text = needle(s);
    return text.empty() || text.size() > length()
               ? -1
               : lastIndexOf(text.data(), static_cast<std::int32_t>(text.size()),
                             signed_position(start));
}

int UString::find_last(const UString& s, unsigned int start) const noexcept
{
    return lastIndexOf(s, signed_position(start));
}

int UString::find_first_of(unsigned short ch, unsigned int start) const noexcept
{
    return find(ch, start);
}

unsigned int UString::find_first_of(const unsigned short* set, unsigned int start) const noexcept
{
    const unsigned int from = pinned(start, length());
    return static_cast<unsigned int>(
        position(find_unit_of(view(*this).substr(from), needle(set)), from));
}

unsigned int UString::find_first_of(const UString& set, unsigned int start) const noexcept
{
    const unsigned int from = pinned(start, length());
    return static_cast<unsigned int>(
        position(find_unit_of(view(*this).substr(from), view(set)), from));
}

int UString::compare(const unsigned short* s) const noexcept
{
    if (isBogus())
        return -1;
    const int order = view(*this).compare(needle(s));
    return (order > 0) - (order < 0);
}

int UString::compare(const UString& s) const noexcept
{
    if (isBogus() || s.isBogus())
        return icu::UnicodeString::compare(s);
    return order_of_units(view(*this), view(s));
}

int UString::compare(unsigned int pos, unsigned int n, const UString& s) const noexcept
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
    if (is_open(*this))
        return *this;
    using traits = std::char_traits<char16_t>;
    const std::size_t from = pinned(pos, length());
    const std::size_t removed = std::min<std::size_t>(n, length() - from);
    const std::size_t tail = length() - from - removed;
    const std::size_t new_length = from + count + tail;
    const char16_t* const old = getBuffer();

    const bool fits = new_length <= capacity() && is_exclusive(*this);
    const bool replaces_all = from == 0 && tail == 0;
    if (fits && (replaces_all || !is_inside(s, old, old + capacity()))) {
        char16_t* const units = writable(*this);
        if (removed != count)
            traits::move(units + from + count, units + from + removed, tail);
        traits::move(units + from, s, count);
        set_length(*this, new_length);
        return *this;
    }

    UnicodeString text = empty_text_of_capacity(fits ? new_length : grown_capacity(new_length));
    char16_t* const units = writable(text);
    traits::copy(units, old, from);
    traits::copy(units + from, s, count);
    traits::copy(units + from + count, old + from + removed, tail);
    set_length(text, new_length);
    return adopt(text);
}

namespace {

template <class Write>
void fill(UString& text, const unit_room_t& room, std::size_t length, Write write)
{
    write(room.begin, room.end);
    set_length(text, room, length);
}

}  // namespace

// Replaces the text by `length` units, which `write` puts where it is told without throwing.
template <class Write>
UString& UString::overwrite(std::size_t length, Write write)
{
    if (is_new(*this))
        fill(*this, make_room_in_new(*this, length), length, write);
    else if (can_overwrite(length))
        fill(*this, unit_room_t(*this), length, write);
    else if (!is_open(*this))
        return adopt(UString(room_t(length)).overwrite(length, write));
    return *this;
}

// Whether there is room for so many units, for which an empty text gives up a smaller one.
bool UString::can_overwrite(std::size_t length)
{
    if (!is_exclusive(*this))
        return false;
    if (empty() && length > capacity())
        make_room_in_empty(*this, length);
    return length <= capacity();
}

UString& UString::replace_all(const char16_t* s, std::size_t count)
{
    return overwrite(count, [s, count](char16_t* to, const char16_t*) {
        std::char_traits<char16_t>::move(to, s, count);
    });
}

void UString::move_to_capacity(std::size_t units)
{
    UnicodeString text = empty_text_of_capacity(units);
    std::char_traits<char16_t>::copy(writable(text), getBuffer(), length());
    set_length(text, length());
    adopt(text);
}

UString& UString::assign(const UString& s)
{
    if (s.isBogus())
        return clear();
    if (this == &s || is_open(*this))
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
    const unsigned int end = length();
    if (end < capacity() && is_exclusive(*this)) {
        writable(*this)[end] = ch;
        set_length(*this, std::size_t{end} + 1);
        return *this;
    }
    const char16_t unit = ch;
    return splice(end, 0, &unit, 1);
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
    return isBogus() ? *this : splice(pos, n, nullptr, 0);
}

UString& UString::clear() noexcept
{
    icu::UnicodeString::remove();
    terminate_inline(*this);
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
    const bool is_editable = !is_open(*this) && !isBogus();
    if (is_editable && n > capacity())
        move_to_capacity(n);
    return *this;
}

UString operator+(const UString& a, const UString& b)
{
    UString sum(a);
    sum.append(b);
    return sum;
}

// ---- UTF-8 ----

namespace {

std::size_t checked_utf16_length_of(const std::string& bytes)
{
    if (bytes.size() > INT_MAX)
        throw std::bad_alloc();
    return utf16_length_of(bytes);
}

}  // namespace

UString::UString(const Utf8String& u) : UString(room_t(checked_utf16_length_of(u)), u) {}

// @param length  0 when the bytes are malformed
UString::UString(room_t length, const Utf8String& u) : UString()
{
    if (length.units == 0)
        return;
    const unit_room_t room = make_room_in_new(*this, length.units);
    utf8_to_utf16(u, length.units, room.begin, room.end);
    set_length(*this, room, length.units);
}

UString& UString::utf8_assign(const Utf8String& u)
{
    return decode_utf8(u, checked_utf16_length_of(u));
}

// @param length  0 when the bytes are malformed
UString& UString::decode_utf8(const std::string& bytes, std::size_t length)
{
    if (length == 0)
        return clear();
    return overwrite(length, [&](char16_t* to, const char16_t* limit) {
        utf8_to_utf16(bytes, length, to, limit);
    });
}

Utf8String UString::utf8_str() const
{
    const std::u16string_view text = view(*this);
    std::array<char, FEW> few;
    if (text.size() < FEW) {
        if (narrow_whole(text, LAST_OF_ASCII, few.data()))
            return Utf8String(few.data(), text.size());
    } else if (text.size() <= SHORT && is_narrow_short(text, LAST_OF_ASCII)) {
        // Made at its size and written in place: a copy would wait for what is only just written.
        Utf8String bytes(text.size(), '\0');
        narrow_short(text, bytes.data());
        return bytes;
    }
    return utf8_of(text);
}

// ---- charsets ----

UString::~UString()
{
    if (charset_ != nullptr)
        give_back_charset(charset_);
    release_counted(*this);
}

namespace {

static_assert(SHORT <= MAX_SHORT_LENGTH);

bool is_short(std::size_t length)
{
    return length >= FEW && length <= SHORT;
}

// What a look-up would find for a string that has used no other charset, if it is asked for
// ISO-8859-1 by the name that most callers give it. No string remembers it: to find it again costs
// as much as to remember.
// @param used  what the string has used last, or null
const known_charset_t* latin1_for(const used_charset_t* used, const char* charset)
{
    if (!is_named(charset, LATIN1_NAME))
        return nullptr;
    const known_charset_t* const latin1 = g_latin1.load(std::memory_order_acquire);
    return used == nullptr || used == latin1 ? latin1 : nullptr;
}

}  // namespace

// The conversions with all their questions. Not inline, so that lines of ISO-8859-1, which go ahead
// of these, save few registers.
struct any_charset_t {
    [[gnu::noinline]] static UString* assign(UString& text, const std::string& bytes,
                                             const char* charset);
    [[gnu::noinline]] static std::string std_str(const UString& text, const char* charset,
                                                 bool& failed);
};

// The charset used last if ICU says that its name is the wanted one, otherwise another in its
// place.
const used_charset_t* UString::charset_for(const char* charset) const
{
    const char* const want = eval_charset(charset);
    if (charset_ != nullptr && (want == nullptr || !charset_->is_for(want)))
        give_back_charset(std::exchange(charset_, nullptr));
    if (charset_ == nullptr && want != nullptr)
        charset_ = take_charset(want);
    return charset_;
}

namespace {

void throw_if_no_memory(UErrorCode status)
{
    if (status == U_MEMORY_ALLOCATION_ERROR)
        throw std::bad_alloc();
}

// The length of the whole text, also of what there was no room for. Any other failure than that of
// memory shows as substitution characters.
std::size_t convert_in(UConverter* converter, std::string_view bytes, const unit_room_t& room)
{
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length =
        ucnv_toUChars(converter, room.begin, static_cast<std::int32_t>(room.end - room.begin),
                      bytes.data(), static_cast<std::int32_t>(bytes.size()), &status);
    throw_if_no_memory(status);
    return static_cast<std::size_t>(length);
}

// Hardly any bytes make more than one unit each, so the first room mostly is enough.
// @param text  empty, with room for as many units as there are bytes
void convert_in(UConverter* converter, std::string_view bytes, UnicodeString& text)
{
    std::size_t length = convert_in(converter, bytes, unit_room_t(text));
    if (length > static_cast<std::size_t>(text.getCapacity())) {
        text = empty_text_of_capacity(length);
        length = convert_in(converter, bytes, unit_room_t(text));
    }
    set_length(text, length);
}

// @param text  empty, with room for as many units as there are bytes
// @return      false when ICU no longer has the charset
bool convert_in(const used_charset_t& charset, std::string_view bytes, UnicodeString& text)
{
    const known_charset_t* const known = charset.known();
    const std::size_t length =
        known == nullptr ? 0 : known->decode_characters(bytes, writable(text));
    if (length != 0) {
        set_length(text, length);
        return true;
    }
    const converter_loan_t converter(charset);
    if (converter.handle() != nullptr)
        convert_in(converter.handle(), bytes, text);
    return converter.handle() != nullptr;
}

}  // namespace

UString* UString::assign(const std::string& bytes, const char* charset)
{
    const known_charset_t* const latin1 = latin1_for(charset_, charset);
    const std::string_view view = bytes;
    if (latin1 == nullptr || !is_new(*this) || !is_short(view.size()))
        return any_charset_t::assign(*this, bytes, charset);
    if (view.size() > INLINE_UNITS)
        widen_short(view, allocate_line(*this, view.size()));
    else
        fill(*this, make_room_in_new(*this, view.size()), view.size(),
             [view](char16_t* to, const char16_t*) { widen_short(view, to); });
    return this;
}

UString* any_charset_t::assign(UString& text, const std::string& bytes, const char* charset)
{
    if (bytes.empty())
        return &text.clear();
    if (is_named(charset, UTF8_NAME))
        return &text.decode_utf8(bytes, checked_utf16_length_of(bytes));
    const used_charset_t* const used = text.charset_for(charset);
    if (used == nullptr)
        return nullptr;
    const known_charset_t* const known = used->known();
    if (known != nullptr && known->can_decode(bytes))
        return &text.overwrite(bytes.size(), [&](char16_t* to, const char16_t* limit) {
            known->decode(bytes, to, limit);
        });
    return text.assign_converted(bytes, *used);
}

// @return  null when ICU no longer has the charset
UString* UString::assign_converted(const std::string& bytes, const used_charset_t& charset)
{
    if (bytes.size() > INT_MAX)
        throw std::bad_alloc();
    UnicodeString text = empty_text_of_capacity(bytes.size());
    if (!convert_in(charset, bytes, text))
        return nullptr;
    return is_open(*this) ? this : &adopt(text);
}

UString& UString::assign(const std::string& bytes, const char* charset, bool& failed)
{
    failed = assign(bytes, charset) == nullptr;
    return *this;
}

namespace {

// @param buffer  room for `size` bytes
// @return        how many bytes the text makes; `status` may tell that they have no room
std::int32_t convert_out(UConverter* converter, std::u16string_view text, char* buffer,
                         std::int64_t size, UErrorCode& status)
{
    status = U_ZERO_ERROR;
    const std::int32_t length =
        ucnv_fromUChars(converter, buffer, static_cast<std::int32_t>(size), text.data(),
                        static_cast<std::int32_t>(text.size()), &status);
    throw_if_no_memory(status);
    return length;
}

// What does not fit, or leaves ICU no room for a terminator, ends where the zeros behind it begin.
std::string converted_into_zeros(UConverter* converter, std::u16string_view text, std::int64_t size,
                                 bool& failed)
{
    std::string bytes(static_cast<std::size_t>(size) + 1, '\0');
    UErrorCode status = U_ZERO_ERROR;
    convert_out(converter, text, bytes.data(), size, status);
    failed = status != U_ZERO_ERROR;
    bytes.resize(std::strlen(bytes.c_str()));
    return bytes;
}

// @param size  decides what ICU reports, so it is this one whatever a buffer could hold
std::string converted_to_size(UConverter* converter, std::u16string_view text, std::int64_t size,
                              bool& failed)
{
    std::array<char, 1024> buffer;
    if (size > static_cast<std::int64_t>(buffer.size()))
        return converted_into_zeros(converter, text, size, failed);
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length = convert_out(converter, text, buffer.data(), size, status);
    if (status != U_ZERO_ERROR)
        return converted_into_zeros(converter, text, size, failed);
    // Deliberate: the first zero byte ends the result.
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(length));
    return std::string(bytes.substr(0, bytes.find('\0')));
}

std::string converted_out(const used_charset_t& charset, std::u16string_view text, bool& failed)
{
    const converter_loan_t loan(charset);
    UConverter* const converter = loan.handle();
    if (converter == nullptr)
        return {};
    const auto length = static_cast<std::int64_t>(text.size());
    const std::int64_t size = std::int64_t{ucnv_getMaxCharSize(converter)} * length + 1;
    if (size > INT_MAX)
        throw std::bad_alloc();
    return converted_to_size(converter, text, size, failed);
}

std::string long_std_str(const used_charset_t& charset, std::u16string_view text, bool& failed)
{
    std::string bytes;
    if (const known_charset_t* const known = charset.known())
        known->encode(text, bytes);
    if (bytes.empty())
        bytes = converted_out(charset, text, failed);
    return bytes;
}

std::string short_std_str(const used_charset_t& charset, std::u16string_view text, bool& failed)
{
    std::array<char, known_charset_t::encoded_room(SHORT)> bytes;
    const known_charset_t* const known = charset.known();
    const std::size_t size = known == nullptr ? 0 : known->encode(text, bytes.data());
    return size == 0 ? converted_out(charset, text, failed) : std::string(bytes.data(), size);
}

// @param text  FEW to SHORT units
std::string short_latin1(const known_charset_t& latin1, std::u16string_view text, bool& failed)
{
    std::string bytes(text.size(), '\0');
    failed = false;
    if (!narrow_whole_short(text, LAST_OF_LATIN1, bytes.data()))
        bytes = converted_out(latin1, text, failed);
    return bytes;
}

}  // namespace

std::string UString::std_str(const char* charset, bool& failed) const
{
    const known_charset_t* const latin1 = latin1_for(charset_, charset);
    const std::u16string_view text = view(*this);
    if (latin1 == nullptr || !is_short(text.size()))
        return any_charset_t::std_str(*this, charset, failed);
    return short_latin1(*latin1, text, failed);
}

std::string any_charset_t::std_str(const UString& text, const char* charset, bool& failed)
{
    failed = false;
    if (text.empty())
        return {};
    if (is_named(charset, UTF8_NAME))
        return text.utf8_str();
    // Deliberate: an unknown charset gives an empty result and no failure.
    const used_charset_t* const used = text.charset_for(charset);
    if (used == nullptr)
        return {};
    const std::u16string_view units = view(text);
    return units.size() <= SHORT ? short_std_str(*used, units, failed)
                                 : long_std_str(*used, units, failed);
}

namespace {

// Never destroyed: other threads may still convert while the process ends.
constinit std::atomic<const std::string*> default_charset_name{nullptr};

}  // namespace

const char* UString::default_charset()
{
    if (const std::string* const known = default_charset_name.load(std::memory_order_acquire))
        return known->c_str();
    const char* const name = default_converter_name();
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
    return is_named(name, DEFAULT_NAME) ? default_charset() : name;
}

// ---- streams ----

namespace {

// While one lives, the stream lets out what is thrown while it is read, bad_alloc for one.
// Otherwise it would turn that into a bad state and a word into its beginning.
template <class Char>
class outspoken_t {
public:
    explicit outspoken_t(std::basic_istream<Char>& is) : is_(is), asked_for_(is.exceptions())
    {
        if (is_.good())
            is_.exceptions(asked_for_ | std::ios_base::badbit);
    }
    ~outspoken_t()
    {
        quietly([this] { is_.exceptions(asked_for_); });
    }
    outspoken_t(const outspoken_t&) = delete;
    outspoken_t& operator=(const outspoken_t&) = delete;

    void set_bad() const noexcept
    {
        quietly([this] { is_.setstate(std::ios_base::badbit); });
    }

    /// Whether the stream would have kept to itself what is being thrown.
    bool is_swallowed() const { return is_.bad() && (asked_for_ & std::ios_base::badbit) == 0; }

private:
    // A stream throws when it gets a state for which its owner asked to be told, but something else
    // is being thrown already. It has the state by then, also when there is no memory for what it
    // throws.
    template <class Change>
    static void quietly(Change change) noexcept
    {
        try {
            change();
        } catch (const std::ios_base::failure&) {
            return;
        } catch (const std::bad_alloc&) {
            return;
        }
    }

    std::basic_istream<Char>& is_;
    const std::ios_base::iostate asked_for_;
};

// Hands a word over once it is whole.
// @param take  (word, whether there was one at all)
template <class Char, class Take>
std::basic_istream<Char>& read_word(std::basic_istream<Char>& is, Take take)
{
    const outspoken_t<Char> outspoken(is);
    try {
        std::basic_string<Char> word;
        const bool can_read{typename std::basic_istream<Char>::sentry(is)};
        if (can_read)
            is >> word;
        take(std::move(word), can_read);
    } catch (const std::bad_alloc&) {
        outspoken.set_bad();
        throw;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (!outspoken.is_swallowed())
            throw;
    }
    return is;
}

}  // namespace

std::istream& operator>>(std::istream& is, Utf8String& s)
{
    return read_word(is, [&s](std::string&& word, bool can_read) {
        if (can_read)
            s = std::move(word);
    });
}

std::istream& operator>>(std::istream& is, UString& s)
{
    return read_word(is,
                     [&s](std::string&& word, bool) { s = UString(Utf8String(std::move(word))); });
}

std::wistream& operator>>(std::wistream& is, UString& s)
{
    return read_word(is, [&s](std::wstring&& word, bool) { s = UString(word); });
}

}  // namespace Kvl
