#include "double_bytes_impl.h"

#include "given_at_once_impl.h"

#include <array>

namespace Kvl {

namespace {

using page_t = learned_pages_t::page_t;

constexpr unsigned int NOTHING = 0;

// ---- learning ----

page_t learn_single_units(UConverter* converter) noexcept
{
    page_t page{};
    for (std::size_t byte = 0; byte < page.size(); ++byte) {
        const char bytes = static_cast<char>(byte);
        page[byte] = units_given_t(converter, {&bytes, 1}).unit();
    }
    return page;
}

page_t learn_units(UConverter* converter, unsigned int first_byte) noexcept
{
    page_t page{};
    std::array<char, 2> bytes = {static_cast<char>(first_byte)};
    if (!units_given_t(converter, {bytes.data(), 1}).is_waiting())
        return page;
    for (std::size_t second = 0; second < page.size(); ++second) {
        bytes[1] = static_cast<char>(second);
        page[second] = units_given_t(converter, {bytes.data(), bytes.size()}).unit();
    }
    return page;
}

// None is zero: that ends a result.
std::uint16_t one_or_two(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > 2 || bytes.find('\0') != bytes.npos)
        return NOTHING;
    unsigned int number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<unsigned char>(byte);
    return static_cast<std::uint16_t>(number);
}

page_t learn_bytes(UConverter* converter, unsigned int high_byte) noexcept
{
    page_t page{};
    for (std::size_t low = 0; low < page.size(); ++low) {
        const auto unit = static_cast<char16_t>(high_byte << 8 | low);
        page[low] = one_or_two(bytes_given_t(converter, {&unit, 1}).bytes());
    }
    return page;
}

}  // namespace

bool double_bytes_t::can_serve(const UConverter* converter) noexcept
{
    const UConverterType type = ucnv_getType(converter);
    return type == UCNV_MBCS || type == UCNV_DBCS;
}

double_bytes_t::double_bytes_t(const char* charset, UConverter* converter) noexcept
    : characters_t(2), single_units_(learn_single_units(converter)), units_(charset, learn_units),
      bytes_(charset, learn_bytes)
{
}

// ---- converting ----

std::size_t double_bytes_t::decode(std::string_view bytes, char16_t* to) const noexcept
{
    const char16_t* const begin = to;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (const unsigned char* const end = p + bytes.size(); p < end; ++p) {
        unsigned int unit = single_units_[*p];
        if (unit == NOTHING && end - p > 1) {
            unit = units_.look_up(p[0], p[1]);
            ++p;
        }
        if (unit == NOTHING)
            return 0;
        *to++ = static_cast<char16_t>(unit);
    }
    return static_cast<std::size_t>(to - begin);
}

std::size_t double_bytes_t::encode(std::u16string_view text, char* to) const noexcept
{
    const char* const begin = to;
    for (const char16_t unit : text) {
        const unsigned int bytes = bytes_.look_up(unit >> 8, unit & 0xFF);
        if (bytes == NOTHING)
            return 0;
        // One byte is written over the first of two.
        *to = static_cast<char>(bytes >> 8);
        to += bytes > 0xFF;
        *to++ = static_cast<char>(bytes);
    }
    return static_cast<std::size_t>(to - begin);
}

}  // namespace Kvl
