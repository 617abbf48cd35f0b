#ifndef QMLOGGER_PLAIN_TEXT_IMPL_H
#define QMLOGGER_PLAIN_TEXT_IMPL_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__SSE2__) && !defined(KVUTIL_PORTABLE)
#define QMLOGGER_HAVE_BLOCKS 1
#include <emmintrin.h>
#endif

namespace Log::LineImpl {

/// Whether a byte is an ASCII character that stands in a line as it is.
constexpr bool is_plain(unsigned byte)
{
    return byte >= 0x20 && byte < 0x7F && byte != '\\';
}

#ifdef QMLOGGER_HAVE_BLOCKS
/// Sixteen bytes are looked at together: a long text costs a twentieth of byte after byte.
constexpr std::size_t BLOCK_SIZE = 16;

/// All ones for each byte of a block that is plain.
inline __m128i plain_bytes(const char* p)
{
    const auto each = [](int byte) { return _mm_set1_epi8(static_cast<char>(byte)); };
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    // As signed numbers, those of 0x20 to 0x7E are moved to the least ones.
    const __m128i moved = _mm_add_epi8(bytes, each(0x80 - 0x20));
    const __m128i in_range = _mm_cmplt_epi8(moved, each(0x80 + 0x7F - 0x20));
    return _mm_andnot_si128(_mm_cmpeq_epi8(bytes, each('\\')), in_range);
}

/// Whether all bytes of a number of blocks are plain.
template <std::size_t BLOCKS>
bool are_plain_blocks(const char* p)
{
    __m128i plain = plain_bytes(p);
    for (std::size_t i = 1; i < BLOCKS; ++i)
        plain = _mm_and_si128(plain, plain_bytes(p + i * BLOCK_SIZE));
    return _mm_movemask_epi8(plain) == 0xFFFF;
}
#else
/// Eight bytes are looked at together, by arithmetic that treats each alone.
constexpr std::size_t BLOCK_SIZE = 8;

constexpr std::uint64_t in_each_byte(std::uint64_t byte)
{
    return byte * 0x0101010101010101;
}

/// Whether some byte of eight is zero. (There may be false alarms beside one that is.)
constexpr std::uint64_t zero_bytes(std::uint64_t bytes)
{
    return (bytes - in_each_byte(0x01)) & ~bytes & in_each_byte(0x80);
}

inline bool is_plain_block(const char* p)
{
    std::uint64_t bytes;
    std::memcpy(&bytes, p, sizeof bytes);
    const std::uint64_t below_blank = (bytes - in_each_byte(0x20)) & ~bytes;
    return ((bytes | below_blank) & in_each_byte(0x80)) == 0 &&
           zero_bytes(bytes ^ in_each_byte('\\')) == 0 &&
           zero_bytes(bytes ^ in_each_byte(0x7F)) == 0;
}

/// Whether all bytes of a number of blocks are plain.
template <std::size_t BLOCKS>
bool are_plain_blocks(const char* p)
{
    std::size_t i = 0;
    while (i < BLOCKS && is_plain_block(p + i * BLOCK_SIZE))
        ++i;
    return i == BLOCKS;
}
#endif

/// @return  how many bytes at the beginning of a text are plain
inline std::size_t count_plain(std::string_view text)
{
    std::size_t count = 0;
    while (text.size() - count >= 4 * BLOCK_SIZE && are_plain_blocks<4>(text.data() + count))
        count += 4 * BLOCK_SIZE;
    while (text.size() - count >= BLOCK_SIZE && are_plain_blocks<1>(text.data() + count))
        count += BLOCK_SIZE;
    while (count < text.size() && is_plain(static_cast<unsigned char>(text[count])))
        ++count;
    return count;
}

}  // namespace Log::LineImpl

#endif
