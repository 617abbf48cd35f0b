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

/// The hash of a name within a scope (a namespace's number), the same at compile time and at run
/// time.
constexpr std::uint64_t hash_of(const hash_key_t& key, std::uint32_t scope,
                                std::u16string_view name)
{
    constexpr std::uint64_t ODD = 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
    const char16_t* text = name.data();
    std::size_t left = name.size();
    std::uint64_t hash = key.start ^ (std::uint64_t{scope} << 32 ^ left) * ODD;
    for (; left > 8; left -= 8, text += 8)
        hash = fold_multiply(four_units(text) ^ key.secret, four_units(text + 4) ^ hash);
    if (left >= 4)  // the last words may overlap
        return fold_multiply(four_units(text) ^ key.secret, four_units(text + left - 4) ^ hash);
    std::uint64_t last = 0;
    for (; left > 0; --left)
        last = last << 16 | *text++;
    return fold_multiply(last ^ key.secret, hash ^ ODD);
}

/// Whether two texts of equal length are the same. Names are short: comparing in line costs less
/// than a call.
inline bool equal_units(const char16_t* a, const char16_t* b, std::size_t length)
{
    if (length < 4) {
        for (std::size_t i = 0; i < length; ++i)
            if (a[i] != b[i])
                return false;
        return true;
    }
    for (std::size_t i = 0; i + 4 < length; i += 4)
        if (four_units(a + i) != four_units(b + i))
            return false;
    return four_units(a + length - 4) == four_units(b + length - 4);
}

inline bool equal_units(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && equal_units(a.data(), b.data(), a.size());
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
