#ifndef KVUTIL_UNITS_ORDER_IMPL_H
#define KVUTIL_UNITS_ORDER_IMPL_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Kvl {

/// Four units as one word, the first in the lowest bits.
constexpr std::uint64_t four_units(const char16_t* text)
{
    if (!std::is_constant_evaluated() && std::endian::native == std::endian::little) {
        std::uint64_t word = 0;
        std::memcpy(&word, text, sizeof word);
        return word;
    }
    return std::uint64_t{text[0]} | std::uint64_t{text[1]} << 16 | std::uint64_t{text[2]} << 32 |
           std::uint64_t{text[3]} << 48;
}

/// The order of two different words of four units: of the first units that differ.
constexpr int order_of_words(std::uint64_t a, std::uint64_t b)
{
    const int shift = std::countr_zero(a ^ b) / 16 * 16;
    return (a >> shift & 0xFFFF) < (b >> shift & 0xFFFF) ? -1 : 1;
}

/// -1, 0 or 1: the order of two texts by units, not by characters. Names that are sorted together
/// begin alike, so four units at a time are compared until they differ; the last four may overlap
/// with what was compared.
constexpr int order_of_units(std::u16string_view a, std::u16string_view b)
{
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; common >= 4 && i < common; i += 4) {
        const std::size_t at = std::min(i, common - 4);
        const std::uint64_t word_a = four_units(a.data() + at);
        const std::uint64_t word_b = four_units(b.data() + at);
        if (word_a != word_b)
            return order_of_words(word_a, word_b);
    }
    for (std::size_t i = 0; common < 4 && i < common; ++i)
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
    return (a.size() > b.size()) - (a.size() < b.size());
}

}  // namespace Kvl

#endif
