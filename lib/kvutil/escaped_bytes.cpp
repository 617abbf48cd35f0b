#include "escaped_bytes_impl.h"

#include "given_at_once_impl.h"

#include <algorithm>
#include <array>

namespace Kvl {

namespace {

using page_t = learned_pages_t::page_t;

constexpr unsigned int NOTHING = 0;
constexpr std::string_view TO_DOUBLE = "\x1B$B";
constexpr std::string_view TO_ASCII = "\x1B(B";

// Control characters change back to ASCII, some of them, so they are the converter's.
constexpr char16_t FIRST_PRINTING = 0x20;
constexpr char16_t LAST_PRINTING = 0x7E;

bool is_printing(unsigned int c)
{
    return c >= FIRST_PRINTING && c <= LAST_PRINTING;
}

// ---- learning ----

page_t learn_units(UConverter* converter, unsigned int first_byte) noexcept
{
    page_t page{};
    if (!is_printing(first_byte))
        return page;
    for (unsigned int second = FIRST_PRINTING; second <= LAST_PRINTING; ++second) {
        const std::array<char, 5> bytes = {TO_DOUBLE[0], TO_DOUBLE[1], TO_DOUBLE[2],
                                           static_cast<char>(first_byte),
                                           static_cast<char>(second)};
        page[second] = units_given_t(converter, {bytes.data(), bytes.size()}).unit();
    }
    return page;
}

// The two bytes behind an escape sequence that belongs to them, as a number.
std::uint16_t escaped_pair(std::string_view bytes)
{
    const std::size_t at = TO_DOUBLE.size();
    if (bytes.size() != at + 2 || !bytes.starts_with(TO_DOUBLE))
        return NOTHING;
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

page_t learn_bytes(UConverter* converter, unsigned int high_byte) noexcept
{
    page_t page{};
    for (std::size_t low = 0; low < page.size(); ++low) {
        const auto unit = static_cast<char16_t>(high_byte << 8 | low);
        page[low] = escaped_pair(bytes_given_t(converter, {&unit, 1}).bytes());
    }
    return page;
}

// Whether the unit is its own byte, to which the charset changes back.
bool is_ascii(UConverter* converter, char16_t unit) noexcept
{
    constexpr char16_t OTHER = u'\u3042';  // its bytes are 24 22
    const std::array<char16_t, 2> text = {OTHER, unit};
    const std::array<char, 9> bytes = {
        '\x1B', '$', 'B', '$', '"', '\x1B', '(', 'B', static_cast<char>(unit)};
    const std::string_view all(bytes.data(), bytes.size());
    return units_given_t(converter, all.substr(8)).unit() == unit &&
           bytes_given_t(converter, {&unit, 1}).bytes() == all.substr(8) &&
           bytes_given_t(converter, {text.data(), text.size()}).bytes() == all;
}

}  // namespace

bool escaped_bytes_t::can_serve(UConverter* converter) noexcept
{
    if (ucnv_getType(converter) != UCNV_ISO_2022)
        return false;
    for (char16_t unit = FIRST_PRINTING; unit <= LAST_PRINTING; ++unit)
        if (!is_ascii(converter, unit))
            return false;
    return true;
}

escaped_bytes_t::escaped_bytes_t(const char* charset, const UConverter* converter) noexcept
    : characters_t(TO_DOUBLE.size() + 2 + TO_ASCII.size()),
      icu_room_(static_cast<std::size_t>(ucnv_getMaxCharSize(converter))),
      units_(charset, learn_units), bytes_(charset, learn_bytes)
{
}

// ---- converting ----

namespace {

std::string_view printing_at_front(std::string_view bytes)
{
    std::size_t size = 0;
    while (size < bytes.size() && is_printing(static_cast<unsigned char>(bytes[size])))
        ++size;
    return bytes.substr(0, size);
}

bool remove_prefix(std::string_view& bytes, std::string_view prefix)
{
    const bool has_it = bytes.starts_with(prefix);
    bytes.remove_prefix(has_it ? prefix.size() : 0);
    return has_it;
}

char* put(std::string_view bytes, char* to)
{
    return std::copy(bytes.begin(), bytes.end(), to);
}

}  // namespace

// Takes the pairs at the front.
// @return  behind the last unit; null when only the converter knows
char16_t* escaped_bytes_t::decode_pairs(std::string_view& bytes, char16_t* to) const noexcept
{
    while (bytes.size() > 1 && bytes[0] != TO_ASCII[0]) {
        const unsigned int unit = units_.look_up(static_cast<unsigned char>(bytes[0]),
                                                 static_cast<unsigned char>(bytes[1]));
        if (unit == NOTHING)
            return nullptr;
        *to++ = static_cast<char16_t>(unit);
        bytes.remove_prefix(2);
    }
    return to;
}

// An escape sequence behind another, with no character between them, is the converter's.
std::size_t escaped_bytes_t::decode(std::string_view bytes, char16_t* to) const noexcept
{
    const char16_t* const begin = to;
    do {
        const std::string_view ascii = printing_at_front(bytes);
        const bool is_missing = ascii.empty() && to != begin;
        to = std::copy(ascii.begin(), ascii.end(), to);
        bytes.remove_prefix(ascii.size());
        if (bytes.empty())
            break;
        const char16_t* const before = to;
        to = !is_missing && remove_prefix(bytes, TO_DOUBLE) ? decode_pairs(bytes, to) : nullptr;
        if (to == nullptr || to == before)
            return 0;
        if (!bytes.empty() && !remove_prefix(bytes, TO_ASCII))
            return 0;
    } while (!bytes.empty());
    return static_cast<std::size_t>(to - begin);
}

std::size_t escaped_bytes_t::encode(std::u16string_view text, char* to) const noexcept
{
    const char* const begin = to;
    bool is_double = false;
    for (const char16_t unit : text) {
        const bool was_double = is_double;
        is_double = !is_printing(unit);
        if (is_double != was_double)
            to = put(is_double ? TO_DOUBLE : TO_ASCII, to);
        const unsigned int bytes = is_double ? bytes_.look_up(unit >> 8, unit & 0xFF) : unit;
        if (bytes == NOTHING)
            return 0;
        *to = static_cast<char>(bytes >> 8);
        to += is_double;
        *to++ = static_cast<char>(bytes);
    }
    if (is_double)
        to = put(TO_ASCII, to);
    // What ICU has no room for is a failure, which is the converter's.
    const auto size = static_cast<std::size_t>(to - begin);
    return size <= icu_room_ * text.size() ? size : 0;
}

}  // namespace Kvl
