#ifndef KVUTIL_LATIN1_IMPL_H
#define KVUTIL_LATIN1_IMPL_H

// Between bytes and the units of the same numbers: what ASCII and ISO-8859-1 are in UTF-16, and
// most of what texts hold. Nothing here allocates or throws. All of it is inline, because most
// texts are so short that the calls would cost more than the work.

#include "simd_impl.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Kvl {

constexpr char16_t LAST_OF_ASCII = 0x7F;
constexpr char16_t LAST_OF_LATIN1 = 0xFF;

/// Most texts are not longer, so up to here what they need is done without calls and loops.
constexpr std::size_t SHORT = 64;

/// Fewer are done in one step, from here to SHORT in steps of so many.
constexpr std::size_t FEW = 16;

struct narrowed_t {
    std::size_t units;  ///< all, or fewer when there is a unit beyond the last
    bool has_zero;      ///< whether one of those is U+0000
};

#ifdef KVUTIL_HAVE_SIMD

namespace simd {

// ---- sixteen at a time, the last ones over some of those before ----

inline bool is_ascii(__m128i block)
{
    return bits(block) == 0;
}

inline bool is_ascii_64(const unsigned char* p)
{
    return is_ascii(_mm_or_si128(_mm_or_si128(load(p), load(p + 16)),
                                 _mm_or_si128(load(p + 32), load(p + 48))));
}

inline std::size_t ascii_by_16(const unsigned char* p, std::size_t size)
{
    std::size_t done = 0;
    while (size - done >= 64 && is_ascii_64(p + done))
        done += 64;
    for (; done < size; done += 16)
        if (!is_ascii(load(p + std::min(done, size - 16))))
            return done;
    return size;
}

inline bool are_between(__m128i block, int first, int last)
{
    const __m128i clamped = _mm_min_epu8(_mm_max_epu8(block, bytes(first)), bytes(last));
    return is_zero(_mm_xor_si128(clamped, block));
}

inline void widen_block(__m128i block, char16_t* to)
{
    store(to, _mm_unpacklo_epi8(block, zero()));
    store(to + 8, _mm_unpackhi_epi8(block, zero()));
}

/// @param size  less than 16
inline void widen_few(const unsigned char* p, std::size_t size, char16_t* to, const char16_t* limit)
{
    if (limit - to >= 16)
        return widen_block(load_few(p, size), to);
    std::array<char16_t, 16> units;
    widen_block(load_few(p, size), units.data());
    std::copy_n(units.data(), size, to);
}

/// Sixteen at a time without a loop, some of them twice.
/// @param size  16 to SHORT
/// @param step  (where)
template <class Step>
inline void for_each_16(std::size_t size, Step step)
{
    step(std::size_t{0});
    step(size - 16);
    if (size <= 32)
        return;
    step(std::size_t{16});
    step(size - 32);
}

inline bool is_ascii_short(const unsigned char* p, std::size_t size)
{
    __m128i any = zero();
    for_each_16(size, [&](std::size_t at) { any = _mm_or_si128(any, load(p + at)); });
    return is_ascii(any);
}

inline void widen_short(const unsigned char* p, std::size_t size, char16_t* to)
{
    for_each_16(size, [&](std::size_t at) { widen_block(load(p + at), to + at); });
}

inline void widen_by_16(const unsigned char* p, std::size_t size, char16_t* to)
{
    for (std::size_t done = 0; done < size; done += 16) {
        const std::size_t at = std::min(done, size - 16);
        widen_block(load(p + at), to + at);
    }
}

/// @param text  fewer than 16 units
inline narrowed_t narrow_few(std::u16string_view text, char16_t last, char* to)
{
    const auto* const p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t size = 2 * text.size();
    const __m128i low = size >= 16 ? load(p) : load_few(p, size);
    const __m128i high = size > 16 ? load_few(p + 16, size - 16) : zero();
    if (!is_zero(_mm_and_si128(_mm_or_si128(low, high), words(~last))))
        return {0, false};
    const __m128i packed = _mm_packus_epi16(low, high);
    store(to, packed);
    const unsigned int zeros = bits(_mm_cmpeq_epi8(packed, zero()));
    return {text.size(), (zeros & ((1u << text.size()) - 1)) != 0};
}

inline bool is_narrow_short(std::u16string_view text, char16_t last)
{
    __m128i any = zero();
    __m128i least = words(LAST_OF_LATIN1);
    for_each_16(text.size(), [&](std::size_t at) {
        const __m128i low = load(text.data() + at);
        const __m128i high = load(text.data() + at + 8);
        any = _mm_or_si128(any, _mm_or_si128(low, high));
        least = _mm_min_epi16(least, _mm_min_epi16(low, high));
    });
    const __m128i zeros = _mm_cmpeq_epi16(least, zero());
    return is_zero(_mm_or_si128(_mm_and_si128(any, words(~last)), zeros));
}

inline void narrow_short(std::u16string_view text, char* to)
{
    for_each_16(text.size(), [&](std::size_t at) {
        store(to + at, _mm_packus_epi16(load(text.data() + at), load(text.data() + at + 8)));
    });
}

inline narrowed_t narrow_short(std::u16string_view text, char16_t last, char* to)
{
    __m128i any = zero();
    __m128i least = bytes(0xFF);
    for_each_16(text.size(), [&](std::size_t at) {
        const __m128i low = load(text.data() + at);
        const __m128i high = load(text.data() + at + 8);
        const __m128i packed = _mm_packus_epi16(low, high);
        any = _mm_or_si128(any, _mm_or_si128(low, high));
        least = _mm_min_epu8(least, packed);
        store(to + at, packed);
    });
    if (!is_zero(_mm_and_si128(any, words(~last))))
        return {0, false};
    return {text.size(), bits(_mm_cmpeq_epi8(least, zero())) != 0};
}

inline narrowed_t narrow_by_16(std::u16string_view text, char16_t last, char* to)
{
    const __m128i beyond = words(~last);
    __m128i least = bytes(0xFF);
    std::size_t done = 0;
    while (done < text.size()) {
        const std::size_t at = std::min(done, text.size() - 16);
        const __m128i low = load(text.data() + at);
        const __m128i high = load(text.data() + at + 8);
        if (!is_zero(_mm_and_si128(_mm_or_si128(low, high), beyond)))
            break;
        const __m128i packed = _mm_packus_epi16(low, high);
        least = _mm_min_epu8(least, packed);
        store(to + at, packed);
        done = at + 16;
    }
    return {done, bits(_mm_cmpeq_epi8(least, zero())) != 0};
}

// ---- thirty-two at a time: half the stores, which is what long texts wait for ----

constexpr std::size_t LONG = 256;

KVUTIL_AVX2 inline __m256i load_32(const void* p)
{
    return _mm256_loadu_si256(static_cast<const __m256i*>(p));
}

KVUTIL_AVX2 inline void store_32(void* p, __m256i value)
{
    _mm256_storeu_si256(static_cast<__m256i*>(p), value);
}

KVUTIL_AVX2 inline bool is_ascii_128(const unsigned char* p)
{
    const __m256i any = _mm256_or_si256(_mm256_or_si256(load_32(p), load_32(p + 32)),
                                        _mm256_or_si256(load_32(p + 64), load_32(p + 96)));
    return _mm256_movemask_epi8(any) == 0;
}

/// @return  bytes in whole steps
KVUTIL_AVX2 inline std::size_t ascii_by_128(const unsigned char* p, std::size_t size)
{
    std::size_t done = 0;
    while (size - done >= 128 && is_ascii_128(p + done))
        done += 128;
    return done;
}

KVUTIL_AVX2 inline void widen_32(const unsigned char* p, char16_t* to)
{
    store_32(to, _mm256_cvtepu8_epi16(load(p)));
    store_32(to + 16, _mm256_cvtepu8_epi16(load(p + 16)));
}

KVUTIL_AVX2 inline void widen_by_32(const unsigned char* p, std::size_t size, char16_t* to)
{
    // ICU's buffers begin four bytes behind a boundary. From the next boundary on no store crosses
    // a line of the cache.
    widen_32(p, to);
    const std::size_t to_boundary = (64 - reinterpret_cast<std::uintptr_t>(to) % 64) / 2;
    for (std::size_t done = to_boundary; done + 32 < size; done += 32)
        widen_32(p + done, to + done);
    widen_32(p + size - 32, to + size - 32);
}

/// In one pass, because what is made is seldom thrown away.
/// @param size  at least 32
/// @return      whether all bytes are ASCII
KVUTIL_AVX2 inline bool widen_if_ascii_by_32(const unsigned char* p, std::size_t size, char16_t* to)
{
    __m256i any = load_32(p + size - 32);
    for (std::size_t done = 0; done + 32 < size; done += 32) {
        any = _mm256_or_si256(any, load_32(p + done));
        widen_32(p + done, to + done);
    }
    widen_32(p + size - 32, to + size - 32);
    return _mm256_movemask_epi8(any) == 0;
}

KVUTIL_AVX2 inline narrowed_t narrow_by_32(std::u16string_view text, char16_t last, char* to)
{
    const __m256i beyond = _mm256_set1_epi16(static_cast<short>(~last));
    __m256i least = _mm256_set1_epi8(-1);
    std::size_t done = 0;
    while (done < text.size()) {
        const std::size_t at = std::min(done, text.size() - 32);
        const __m256i low = load_32(text.data() + at);
        const __m256i high = load_32(text.data() + at + 16);
        if (!_mm256_testz_si256(_mm256_or_si256(low, high), beyond))
            break;
        // Packing works in halves of the registers, so that the quarters come out as 0, 2, 1, 3.
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(low, high), 0xD8);
        least = _mm256_min_epu8(least, packed);
        store_32(to + at, packed);
        done = at + 32;
    }
    const __m256i zeros = _mm256_cmpeq_epi8(least, _mm256_setzero_si256());
    return {done, _mm256_movemask_epi8(zeros) != 0};
}

}  // namespace simd

#endif

/// @return how many of the first bytes are ASCII; fewer where others follow soon
inline std::size_t ascii_at_front(std::string_view bytes) noexcept
{
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
#ifdef KVUTIL_HAVE_SIMD
    if (size < 16)
        return simd::is_ascii(simd::load_few(p, size)) ? size : 0;
    if (size <= SHORT)
        return simd::is_ascii_short(p, size) ? size : 0;
    if (size < simd::LONG || !simd::has_avx2())
        return simd::ascii_by_16(p, size);
    const std::size_t done = simd::ascii_by_128(p, size);
    const bool is_at_end = size - done < 128;
    return is_at_end ? size - 128 + simd::ascii_by_16(p + size - 128, 128) : done;
#else
    const auto is_other = [](unsigned char byte) { return byte > LAST_OF_ASCII; };
    return static_cast<std::size_t>(std::find_if(p, p + size, is_other) - p);
#endif
}

/// Whether all bytes are in [first, last].
inline bool are_between(std::string_view bytes, char16_t first, char16_t last) noexcept
{
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t done = 0;
#ifdef KVUTIL_HAVE_SIMD
    for (; bytes.size() - done >= 16; done += 16)
        if (!simd::are_between(simd::load(p + done), first, last))
            return false;
#endif
    return std::all_of(p + done, p + bytes.size(),
                       [=](unsigned char byte) { return byte >= first && byte <= last; });
}

/// Makes a unit of each byte.
/// @param to     room for as many units
/// @param limit  end of the room; what lies between the text and the limit may be overwritten
inline void widen(std::string_view bytes, char16_t* to,
                  [[maybe_unused]] const char16_t* limit) noexcept
{
    const auto* const p = reinterpret_cast<const unsigned char*>(bytes.data());
#ifdef KVUTIL_HAVE_SIMD
    if (bytes.size() < 16)
        return simd::widen_few(p, bytes.size(), to, limit);
    if (bytes.size() <= SHORT)
        return simd::widen_short(p, bytes.size(), to);
    if (!simd::has_avx2())
        return simd::widen_by_16(p, bytes.size(), to);
    simd::widen_by_32(p, bytes.size(), to);
#else
    std::copy(p, p + bytes.size(), to);
#endif
}

/// widen() for FEW to SHORT bytes.
inline void widen_short(std::string_view bytes, char16_t* to) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    simd::widen_short(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), to);
#else
    widen(bytes, to, to + bytes.size());
#endif
}

/// widen() for ASCII alone.
/// @return  whether all bytes are; if not, anything may stand in the room
inline bool widen_if_ascii(std::string_view bytes, char16_t* to, const char16_t* limit) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    if (bytes.size() >= 32 && simd::has_avx2())
        return simd::widen_if_ascii_by_32(reinterpret_cast<const unsigned char*>(bytes.data()),
                                          bytes.size(), to);
#endif
    if (ascii_at_front(bytes) != bytes.size())
        return false;
    widen(bytes, to, limit);
    return true;
}

/// Makes a byte of each unit, as long as none is beyond `last`.
/// @param last  LAST_OF_ASCII or LAST_OF_LATIN1
/// @param to    room for text.size() bytes, and at least for 16
inline narrowed_t narrow(std::u16string_view text, char16_t last, char* to) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    if (text.size() < 16)
        return simd::narrow_few(text, last, to);
    if (text.size() <= SHORT)
        return simd::narrow_short(text, last, to);
    if (!simd::has_avx2())
        return simd::narrow_by_16(text, last, to);
    return simd::narrow_by_32(text, last, to);
#else
    narrowed_t done{0, false};
    for (; done.units < text.size() && text[done.units] <= last; ++done.units) {
        done.has_zero |= text[done.units] == 0;
        to[done.units] = static_cast<char>(text[done.units]);
    }
    return done;
#endif
}

/// narrow()
/// @return  whether it made a byte of every unit, and none of zero
inline bool narrow_whole(std::u16string_view text, char16_t last, char* to) noexcept
{
    const narrowed_t narrowed = narrow(text, last, to);
    return narrowed.units == text.size() && !narrowed.has_zero;
}

/// The same.
/// @param text  FEW to SHORT units
/// @param to    room for so many bytes
inline bool narrow_whole_short(std::u16string_view text, char16_t last, char* to) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    const narrowed_t narrowed = simd::narrow_short(text, last, to);
    return narrowed.units != 0 && !narrowed.has_zero;
#else
    return narrow_whole(text, last, to);
#endif
}

/// Whether narrow_whole() would do it.
/// @param text  FEW to SHORT units
inline bool is_narrow_short(std::u16string_view text, char16_t last) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    return simd::is_narrow_short(text, last);
#else
    const auto is_narrow = [=](char16_t unit) { return unit != 0 && unit <= last; };
    return std::all_of(text.begin(), text.end(), is_narrow);
#endif
}

/// Makes a byte of each unit.
/// @param text  FEW to SHORT units, of which is_narrow_short() holds
/// @param to    room for so many bytes
inline void narrow_short(std::u16string_view text, char* to) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    simd::narrow_short(text, to);
#else
    for (const char16_t unit : text)
        *to++ = static_cast<char>(unit);
#endif
}

}  // namespace Kvl

#endif
