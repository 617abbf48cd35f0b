#ifndef KVUTIL_XMLTAG_HASH_IMPL_H
#define KVUTIL_XMLTAG_HASH_IMPL_H

#include "units_order_impl.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Kvl {
namespace XmlTagImpl {

/// What a hash depends on beside the name. Names come from the wire: with a key that is random in
/// each process nobody outside can choose names that collide.
struct hash_key_t {
    std::uint64_t start;
    std::uint64_t secret;
};

/// Both halves of the 128-bit product: every bit of the result depends on every bit of the input.
constexpr std::uint64_t fold_multiply(std::uint64_t a, std::uint64_t b)
{
    __extension__ typedef unsigned __int128 product_t;
    const product_t product = static_cast<product_t>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

/// 2^64 divided by the golden ratio: spreads small numbers over the word.
constexpr std::uint64_t ODD = 0x9E3779B97F4A7C15u;

/// Up to three units as one word.
constexpr std::uint64_t few_units(std::u16string_view text)
{
    std::uint64_t word = 0;
    for (const char16_t unit : text)
        word = word << 16 | unit;
    return word;
}

/// The hash of more than 16 units: eight after eight, at last those at the end.
constexpr std::uint64_t hash_of_long(const hash_key_t& key, std::u16string_view name)
{
    const auto eight = [&](std::size_t from, std::uint64_t hash) {
        const char16_t* const text = name.data() + from;
        return fold_multiply(four_units(text) ^ key.secret, four_units(text + 4) ^ hash);
    };
    std::uint64_t hash = key.start ^ name.size() * ODD;
    for (std::size_t i = 0; i + 8 < name.size(); i += 8)
        hash = eight(i, hash);
    return eight(name.size() - 8, hash);
}

/// The hash of a name, over every unit. Words may overlap instead of a loop per unit: branches that
/// depend on the length cost more than the arithmetic.
constexpr std::uint64_t hash_of(const hash_key_t& key, std::u16string_view name)
{
    const std::size_t length = name.size();
    if (length > 16)
        return hash_of_long(key, name);
    const std::uint64_t start = key.start ^ length * ODD;
    if (length < 4)
        return fold_multiply(few_units(name) ^ key.secret, start ^ ODD);
    const char16_t* const text = name.data();
    const std::size_t last = length - 4;
    const std::size_t step = (last + 2) / 3;  // at most 4; a minimum would become a branch
    return fold_multiply(four_units(text) ^ key.secret, four_units(text + step) ^ start) ^
           fold_multiply(four_units(text + last - step) ^ key.secret ^ ODD,
                         four_units(text + last) ^ start);
}

/// What differs between two blocks of eight units.
typedef std::uint64_t eight_units_t __attribute__((vector_size(16)));
inline eight_units_t differ_8(const char16_t* a, const char16_t* b)
{
    eight_units_t block_a;
    eight_units_t block_b;
    std::memcpy(&block_a, a, sizeof block_a);
    std::memcpy(&block_b, b, sizeof block_b);
    return block_a ^ block_b;
}

/// Whether two texts of equal length are the same. Names are short: comparing in line costs less
/// than a call. From eight to 32 units the blocks overlap, so that no branch depends on a length
/// that the processor cannot foresee.
inline bool equal_units(const char16_t* a, const char16_t* b, std::size_t length)
{
    const auto is_zero = [](eight_units_t block) { return (block[0] | block[1]) == 0; };
    if (length < 4)
        return few_units({a, length}) == few_units({b, length});
    if (length < 8)
        return ((four_units(a) ^ four_units(b)) |
                (four_units(a + length - 4) ^ four_units(b + length - 4))) == 0;
    for (; length > 32; length -= 8, a += 8, b += 8)
        if (!is_zero(differ_8(a, b)))
            return false;
    const std::size_t last = length - 8;
    const std::size_t step = (last + 2) / 3;  // at most 8; a minimum would become a branch
    return is_zero(differ_8(a, b) | differ_8(a + step, b + step) |
                   differ_8(a + last - step, b + last - step) | differ_8(a + last, b + last));
}

inline bool equal_units(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && equal_units(a.data(), b.data(), a.size());
}

/// The same for a text that has just been hashed: whether it is longer than 16 units has been seen
/// there already, so here a branch on it is foreseen, and two blocks are enough for most names.
inline bool equal_hashed_units(std::u16string_view a, std::u16string_view b)
{
    const std::size_t length = b.size();
    if (a.size() != length || length < 8 || length > 16)
        return equal_units(a, b);
    const eight_units_t differ =
        differ_8(a.data(), b.data()) | differ_8(a.data() + length - 8, b.data() + length - 8);
    return (differ[0] | differ[1]) == 0;
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
