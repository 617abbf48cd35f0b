#ifndef KVUTIL_SIMD_IMPL_H
#define KVUTIL_SIMD_IMPL_H

// Sixteen bytes or eight units at a time, under short names. Without x86-64, or when
// KVUTIL_PORTABLE is defined, KVUTIL_HAVE_SIMD is not, and callers take one at a time.
#if defined(__x86_64__) && !defined(KVUTIL_PORTABLE)
#define KVUTIL_HAVE_SIMD 1

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <immintrin.h>
// The C library's header is C, of which g++ alone takes the type _Bool in standard C++.
#if !defined(__clang__) && __has_include(<sys/platform/x86.h>)
#define KVUTIL_HAVE_CPU_FEATURES 1
#include <sys/platform/x86.h>
#endif

/// What is marked so may run only where has_ssse3() holds; everything else is in every x86-64.
#define KVUTIL_SSSE3 __attribute__((target("ssse3,popcnt")))
/// Likewise where has_avx2() holds.
#define KVUTIL_AVX2 __attribute__((target("avx2")))

namespace Kvl::simd {

#ifdef KVUTIL_HAVE_CPU_FEATURES
/// The C library has asked the processor when the program started.
inline bool ask_for_ssse3() noexcept
{
    return CPU_FEATURE_ACTIVE(SSSE3) && CPU_FEATURE_ACTIVE(POPCNT);
}
inline bool ask_for_avx2() noexcept
{
    return CPU_FEATURE_ACTIVE(AVX2);
}
#else
inline bool ask_for_ssse3() noexcept
{
    return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt");
}
inline bool ask_for_avx2() noexcept
{
    return __builtin_cpu_supports("avx2");
}
#endif

enum class answer_t : unsigned char { NOT_ASKED, NO, YES };
inline constinit std::atomic<answer_t> g_ssse3{answer_t::NOT_ASKED};
inline constinit std::atomic<answer_t> g_avx2{answer_t::NOT_ASKED};

/// A call, since nobody comes here twice and what calls it should stay small.
[[gnu::cold, gnu::noinline]] inline bool ask_now(std::atomic<answer_t>& answer,
                                                 bool (*ask)() noexcept) noexcept
{
    const bool has = ask();
    answer.store(has ? answer_t::YES : answer_t::NO, std::memory_order_relaxed);
    return has;
}

/// Asks once, and not at load: the compiler's own test does so there, and a virtual machine needs
/// tens of microseconds to answer it.
inline bool ask_once(std::atomic<answer_t>& answer, bool (*ask)() noexcept) noexcept
{
    const answer_t known = answer.load(std::memory_order_relaxed);
    return known == answer_t::NOT_ASKED ? ask_now(answer, ask) : known == answer_t::YES;
}

inline bool has_ssse3() noexcept
{
    return ask_once(g_ssse3, ask_for_ssse3);
}

inline bool has_avx2() noexcept
{
    return ask_once(g_avx2, ask_for_avx2);
}

inline __m128i load(const void* p)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(p));
}

inline void store(void* p, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i*>(p), value);
}

inline __m128i zero()
{
    return _mm_setzero_si128();
}

inline __m128i bytes(int value)
{
    return _mm_set1_epi8(static_cast<char>(value));
}

inline __m128i words(int value)
{
    return _mm_set1_epi16(static_cast<short>(value));
}

/// The high bit of each byte.
inline unsigned int bits(__m128i mask)
{
    return static_cast<unsigned int>(_mm_movemask_epi8(mask));
}

/// One bit for each 16-bit word of all ones.
inline unsigned int word_bits(__m128i mask)
{
    return bits(_mm_packs_epi16(mask, zero()));
}

/// Where the word, masked, is `value`.
inline __m128i equals(__m128i block, int mask, int value)
{
    return _mm_cmpeq_epi16(_mm_and_si128(block, words(mask)), words(value));
}

inline __m128i at_least(__m128i block, int value)
{
    return _mm_cmpeq_epi8(_mm_max_epu8(block, bytes(value)), block);
}

inline __m128i choose(__m128i mask, __m128i yes, __m128i no)
{
    return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}

inline bool is_zero(__m128i value)
{
    return bits(_mm_cmpeq_epi8(value, zero())) == 0xFFFF;
}

template <class Word>
std::uint64_t load_word(const unsigned char* p)
{
    Word word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

/// Fewer than sixteen bytes, with zeros behind them.
inline __m128i load_few(const unsigned char* p, std::size_t n)
{
    const auto from_both_ends = [p, n](auto word) {
        constexpr std::size_t size = sizeof word;
        return load_word<decltype(word)>(p) | load_word<decltype(word)>(p + n - size)
                                                  << 8 * (n - size);
    };
    if (n >= 8) {
        const std::uint64_t high = load_word<std::uint64_t>(p + n - 8);
        return _mm_set_epi64x(n == 8 ? 0 : static_cast<long long>(high >> 8 * (16 - n)),
                              static_cast<long long>(load_word<std::uint64_t>(p)));
    }
    const std::uint64_t low = n >= 4   ? from_both_ends(std::uint32_t{})
                              : n >= 2 ? from_both_ends(std::uint16_t{})
                              : n == 1 ? *p
                                       : 0;
    return _mm_set_epi64x(0, static_cast<long long>(low));
}

}  // namespace Kvl::simd

#endif

#endif
