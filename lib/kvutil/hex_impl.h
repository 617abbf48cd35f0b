#ifndef KVUTIL_HEX_IMPL_H
#define KVUTIL_HEX_IMPL_H

#include "simd_impl.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace Kvl {

// Bytes as lower-case hexadecimal digits, in bytes or in UTF-16, the high nibble first, and back.

namespace hex {

inline constexpr char DIGITS[] = "0123456789abcdef";

template <class Unit>
consteval auto digit_pairs()
{
    std::array<std::array<Unit, 2>, 256> pairs{};
    for (std::size_t byte = 0; byte < pairs.size(); ++byte)
        pairs[byte] = {static_cast<Unit>(DIGITS[byte >> 4]), static_cast<Unit>(DIGITS[byte & 15])};
    return pairs;
}

/// The two digits of each byte. Hidden in so many words: g++ exports variables that are templates.
template <class Unit>
[[gnu::visibility("hidden")]] inline constexpr auto DIGIT_PAIRS = digit_pairs<Unit>();

/// Prints one byte.
template <class Unit>
void print_byte(unsigned char byte, Unit* to)
{
    std::memcpy(to, DIGIT_PAIRS<Unit>[byte].data(), 2 * sizeof(Unit));
}

inline constexpr unsigned char NO_DIGIT = 0xFF;

// Deliberate: no capitals. What is printed has none either.
constexpr std::array<unsigned char, 256> digit_values()
{
    std::array<unsigned char, 256> values{};
    values.fill(NO_DIGIT);
    for (unsigned char value = 0; value < 16; ++value)
        values[static_cast<unsigned char>(DIGITS[value])] = value;
    return values;
}

inline constexpr std::array<unsigned char, 256> DIGIT_VALUES = digit_values();

inline unsigned int digit_value(char16_t unit)
{
    return unit < DIGIT_VALUES.size() ? DIGIT_VALUES[unit] : NO_DIGIT;
}

/// How many bytes are taken at once.
inline constexpr std::size_t BLOCK = 8;

#ifdef KVUTIL_HAVE_SIMD
/// The digits of eight bytes.
inline __m128i digits_of_block(const unsigned char* bytes)
{
    const __m128i block = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes));
    const __m128i high = _mm_and_si128(_mm_srli_epi16(block, 4), simd::bytes(15));
    const __m128i low = _mm_and_si128(block, simd::bytes(15));
    const __m128i values = _mm_unpacklo_epi8(high, low);
    const __m128i is_letter = _mm_cmpgt_epi8(values, simd::bytes(9));
    return _mm_add_epi8(_mm_add_epi8(values, simd::bytes('0')),
                        _mm_and_si128(is_letter, simd::bytes('a' - '0' - 10)));
}

inline void print_block(const unsigned char* bytes, char* to)
{
    simd::store(to, digits_of_block(bytes));
}

inline void print_block(const unsigned char* bytes, char16_t* to)
{
    const __m128i digits = digits_of_block(bytes);
    simd::store(to, _mm_unpacklo_epi8(digits, simd::zero()));
    simd::store(to + BLOCK, _mm_unpackhi_epi8(digits, simd::zero()));
}

/// In which places the byte is at most `limit`, unsigned.
inline __m128i at_most(__m128i values, int limit)
{
    return _mm_cmpeq_epi8(_mm_min_epu8(values, simd::bytes(limit)), values);
}

/// Reads sixteen digits.
inline bool read_block(const char16_t* digits, unsigned char* to)
{
    // What is no byte becomes 0 or 255, which are no digits either.
    const __m128i block = _mm_packus_epi16(simd::load(digits), simd::load(digits + BLOCK));
    const __m128i numbers = _mm_sub_epi8(block, simd::bytes('0'));
    const __m128i letters = _mm_sub_epi8(block, simd::bytes('a'));
    const __m128i is_number = at_most(numbers, 9);
    const __m128i is_letter = at_most(letters, 5);
    if (simd::bits(_mm_or_si128(is_number, is_letter)) != 0xFFFF)
        return false;
    const __m128i values =
        _mm_or_si128(_mm_and_si128(is_number, numbers),
                     _mm_and_si128(is_letter, _mm_add_epi8(letters, simd::bytes(10))));
    // In each word the high nibble is the lower byte.
    const __m128i pairs = _mm_or_si128(_mm_slli_epi16(values, 4), _mm_srli_epi16(values, 8));
    const __m128i bytes = _mm_and_si128(pairs, simd::words(0xFF));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(bytes, bytes));
    return true;
}
#else
template <class Unit>
void print_block(const unsigned char* bytes, Unit* to)
{
    for (std::size_t i = 0; i < BLOCK; ++i)
        print_byte(bytes[i], to + 2 * i);
}

template <class Unit>
bool read_block(const Unit* digits, unsigned char* to)
{
    unsigned int all = 0;
    for (std::size_t i = 0; i < BLOCK; ++i) {
        const unsigned int high = digit_value(digits[2 * i]);
        const unsigned int low = digit_value(digits[2 * i + 1]);
        all |= high | low;
        to[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return all <= 15;
}
#endif

}  // namespace hex

/// @param to  room for two units a byte
template <class Unit>
void print_hex(const unsigned char* bytes, std::size_t size, Unit* to)
{
    std::size_t i = 0;
    for (; size - i >= hex::BLOCK; i += hex::BLOCK)
        hex::print_block(bytes + i, to + 2 * i);
    for (; i < size; ++i)
        hex::print_byte(bytes[i], to + 2 * i);
}

/// @param digits  two for each byte
/// @param to      room for the bytes
/// @return        whether all of them are digits; otherwise the bytes are of no use
inline bool read_hex(std::u16string_view digits, unsigned char* to)
{
    const std::size_t size = digits.size() / 2;
    std::size_t i = 0;
    for (; size - i >= hex::BLOCK; i += hex::BLOCK) {
        if (!hex::read_block(digits.data() + 2 * i, to + i))
            return false;
    }
    for (; i < size; ++i) {
        const unsigned int high = hex::digit_value(digits[2 * i]);
        const unsigned int low = hex::digit_value(digits[2 * i + 1]);
        if ((high | low) > 15)
            return false;
        to[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

}  // namespace Kvl

#endif
