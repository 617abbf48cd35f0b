#ifndef KVUTIL_UNIT_BLOCK_IMPL_H
#define KVUTIL_UNIT_BLOCK_IMPL_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// As in simd_impl.h, whoever defines KVUTIL_PORTABLE gets what other machines run.
#if defined(__SSE2__) && !defined(KVUTIL_PORTABLE)
#define KVUTIL_HAVE_UNIT_BLOCKS 1
#include <emmintrin.h>
#endif

namespace Kvl {

#ifdef KVUTIL_HAVE_UNIT_BLOCKS
/// Eight units, looked at together.
class unit_block_t {
public:
    static constexpr std::size_t SIZE = 8;

    explicit unit_block_t(const char16_t* units)
        : units_(_mm_loadu_si128(reinterpret_cast<const __m128i*>(units)))
    {
    }

    void store(char16_t* out) const { _mm_storeu_si128(reinterpret_cast<__m128i*>(out), units_); }

    /// @return the place of the first unit that is one of `wanted`; SIZE when there is none
    template <class... Units>
    std::size_t find(Units... wanted) const
    {
        const unsigned int bytes = bytes_that_are(wanted...);
        return bytes == 0 ? SIZE : static_cast<std::size_t>(std::countr_zero(bytes)) / 2;
    }

    /// @return how many units are one of `wanted`
    template <class... Units>
    std::size_t count(Units... wanted) const
    {
        return static_cast<std::size_t>(std::popcount(bytes_that_are(wanted...))) / 2;
    }

private:
    /// Two bits for each unit.
    template <class... Units>
    unsigned int bytes_that_are(Units... wanted) const
    {
        const __m128i matches =
            (_mm_cmpeq_epi16(units_, _mm_set1_epi16(static_cast<short>(wanted))) | ...);
        return static_cast<unsigned int>(_mm_movemask_epi8(matches));
    }

    __m128i units_;
};
#else
/// One unit where the processor has no instructions for more.
class unit_block_t {
public:
    static constexpr std::size_t SIZE = 1;

    explicit unit_block_t(const char16_t* units) : unit_(*units) {}

    void store(char16_t* out) const { *out = unit_; }

    template <class... Units>
    std::size_t find(Units... wanted) const
    {
        return ((unit_ == wanted) || ...) ? 0 : SIZE;
    }

    template <class... Units>
    std::size_t count(Units... wanted) const
    {
        return ((unit_ == wanted) || ...) ? 1 : 0;
    }

private:
    char16_t unit_;
};
#endif

/// Copies `count` units, the last word of them over some of those before.
/// @param count  as many units as make one word, or two at most
template <class Word>
void copy_by_word(const char16_t* in, std::size_t count, char16_t* out)
{
    constexpr std::size_t SIZE = sizeof(Word) / sizeof(char16_t);
    std::memcpy(out, in, sizeof(Word));
    std::memcpy(out + count - SIZE, in + count - SIZE, sizeof(Word));
}

/// What std::copy() does, without its call of memmove() for the few units of most pieces.
/// @return where the copy ends
inline char16_t* copy_units(std::u16string_view text, char16_t* out)
{
    const std::size_t count = text.size();
    if (count > 16)
        return std::copy(text.begin(), text.end(), out);
    if (count >= 8) {
        copy_by_word<std::array<std::uint64_t, 2>>(text.data(), count, out);
    } else if (count >= 4) {
        copy_by_word<std::uint64_t>(text.data(), count, out);
    } else if (count != 0) {
        out[0] = text[0];
        out[count / 2] = text[count / 2];
        out[count - 1] = text[count - 1];
    }
    return out + count;
}

/// @return where `unit` stands first at or after `from`; npos when it does not
inline std::size_t find_unit(std::u16string_view text, char16_t unit, std::size_t from = 0)
{
    std::size_t at = from;
    for (; at + unit_block_t::SIZE <= text.size(); at += unit_block_t::SIZE) {
        const std::size_t place = unit_block_t(text.data() + at).find(unit);
        if (place != unit_block_t::SIZE)
            return at + place;
    }
    for (; at < text.size(); ++at)
        if (text[at] == unit)
            return at;
    return std::u16string_view::npos;
}

/// @return how many units of a text are one of `wanted`
template <class... Units>
std::size_t count_units(std::u16string_view text, Units... wanted)
{
    std::size_t result = 0;
    std::size_t at = 0;
    for (; at + unit_block_t::SIZE <= text.size(); at += unit_block_t::SIZE)
        result += unit_block_t(text.data() + at).count(wanted...);
    for (; at < text.size(); ++at)
        result += static_cast<std::size_t>(((text[at] == wanted) || ...));
    return result;
}

/// Copies the units of [in, end) in front of the first that is one of `stops`, or all. May write,
/// but not past end - in units, behind what it copies.
/// @param in   moved to where the copying ended
/// @return     where the copy ends
template <class... Units>
char16_t* copy_until(const char16_t*& in, const char16_t* end, char16_t* out, Units... stops)
{
    while (static_cast<std::size_t>(end - in) >= unit_block_t::SIZE) {
        const unit_block_t block(in);
        block.store(out);
        const std::size_t copied = block.find(stops...);
        in += copied;
        out += copied;
        if (copied != unit_block_t::SIZE)
            return out;
    }
    while (in != end && ((*in != stops) && ...))
        *out++ = *in++;
    return out;
}

}  // namespace Kvl

#endif
