#ifndef KVUTIL_XMLTAG_HASH_IMPL_H
#define KVUTIL_XMLTAG_HASH_IMPL_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Kvl {
namespace XmlTagImpl {

/// What a hash depends on beside the name. Names come from the wire: with a key that is random in
/// each process nobody outside can choose names that collide.
struct hash_key_t {
    std::uint64_t start;
    std::uint64_t secret;
};

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

/// The hash of a name within a scope (a namespace's number), over every unit. Words may overlap
/// instead of a loop per unit: branches that depend on the length cost more than the arithmetic.
constexpr std::uint64_t hash_of(const hash_key_t& key, std::uint32_t scope,
                                std::u16string_view name)
{
    const char16_t* text = name.data();
    std::size_t left = name.size();
    std::uint64_t hash = key.start ^ (std::uint64_t{scope} << 32 ^ left) * ODD;
    if (left < 4)
        return fold_multiply(few_units(name) ^ key.secret, hash ^ ODD);
    for (; left > 16; left -= 8, text += 8)
        hash = fold_multiply(four_units(text) ^ key.secret, four_units(text + 4) ^ hash);
    if (left > 8) {
        hash = fold_multiply(four_units(text) ^ key.secret, four_units(text + 4) ^ hash);
        text += left - 8;
        left = 8;
    }
    return fold_multiply(four_units(text) ^ key.secret, four_units(text + left - 4) ^ hash);
}

/// Whether two texts of equal length are the same. Names are short: comparing in line costs less
/// than a call.
inline bool equal_units(const char16_t* a, const char16_t* b, std::size_t length)
{
    const auto differ = [=](std::size_t at) { return four_units(a + at) ^ four_units(b + at); };
    if (length < 4)
        return few_units({a, length}) == few_units({b, length});
    if (length <= 8)
        return (differ(0) | differ(length - 4)) == 0;
    for (std::size_t i = 0; i + 8 < length; i += 8)
        if ((differ(i) | differ(i + 4)) != 0)
            return false;
    return (differ(length - 8) | differ(length - 4)) == 0;
}

inline bool equal_units(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && equal_units(a.data(), b.data(), a.size());
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
