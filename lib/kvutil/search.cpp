#include "search_impl.h"

#include "simd_impl.h"

#include <bit>
#include <bitset>
#include <string>
#include <unicode/utf16.h>

namespace Kvl {

namespace {

using traits = std::char_traits<char16_t>;

// ICU's rule: a match neither starts nor ends inside a surrogate pair.
bool is_whole(std::u16string_view text, std::size_t pos, std::size_t length)
{
    const std::size_t end = pos + length;
    const bool starts_inside = pos > 0 && U16_IS_TRAIL(text[pos]) && U16_IS_LEAD(text[pos - 1]);
    const bool ends_inside =
        end < text.size() && U16_IS_LEAD(text[end - 1]) && U16_IS_TRAIL(text[end]);
    return !starts_inside && !ends_inside;
}

bool is_match(std::u16string_view text, std::size_t pos, std::u16string_view needle)
{
    return traits::compare(text.data() + pos, needle.data(), needle.size()) == 0 &&
           is_whole(text, pos, needle.size());
}

#ifdef KVUTIL_HAVE_SIMD

using namespace simd;

// Where both the first and the last unit of the needle match, of eight places.
unsigned int candidates(const char16_t* text, std::size_t needle_length, __m128i first,
                        __m128i last)
{
    const __m128i firsts = _mm_cmpeq_epi16(load(text), first);
    const __m128i lasts = _mm_cmpeq_epi16(load(text + needle_length - 1), last);
    return word_bits(_mm_and_si128(firsts, lasts));
}

std::size_t first_match(std::u16string_view text, std::u16string_view needle, std::size_t places)
{
    const __m128i first = words(needle.front());
    const __m128i last = words(needle.back());
    for (std::size_t pos = 0;; pos += 8) {
        // The last eight places overlap; to look twice at a place does no harm.
        const bool is_last = pos + 8 >= places;
        if (is_last)
            pos = places - 8;
        unsigned int set = candidates(text.data() + pos, needle.size(), first, last);
        for (; set != 0; set &= set - 1) {
            const std::size_t at = pos + static_cast<std::size_t>(std::countr_zero(set));
            if (is_match(text, at, needle))
                return at;
        }
        if (is_last)
            return NOT_FOUND;
    }
}

// Whether one of 32 units is the wanted one.
bool is_near(const char16_t* text, __m128i wanted)
{
    const auto matches = [=](int at) { return _mm_cmpeq_epi16(load(text + at), wanted); };
    return bits(_mm_or_si128(_mm_or_si128(matches(0), matches(8)),
                             _mm_or_si128(matches(16), matches(24)))) != 0;
}

#endif

}  // namespace

std::size_t find_unit(std::u16string_view text, char16_t unit) noexcept
{
#ifdef KVUTIL_HAVE_SIMD
    // Until a place is near, look only whether it is.
    std::size_t skipped = 0;
    const __m128i wanted = words(unit);
    while (text.size() - skipped >= 32 && !is_near(text.data() + skipped, wanted))
        skipped += 32;
    // One unit before those that are left may be the other half of a pair.
    const std::size_t from = skipped == 0 ? 0 : skipped - 1;
    const std::size_t found = find_text(text.substr(from), {&unit, 1});
    return found == NOT_FOUND ? NOT_FOUND : from + found;
#else
    return find_text(text, {&unit, 1});
#endif
}

std::size_t find_text(std::u16string_view text, std::u16string_view needle) noexcept
{
    if (needle.size() > text.size())
        return NOT_FOUND;
    const std::size_t places = text.size() - needle.size() + 1;
#ifdef KVUTIL_HAVE_SIMD
    if (places >= 8)
        return first_match(text, needle, places);
#endif
    for (std::size_t pos = 0; pos < places; ++pos)
        if (text[pos] == needle[0] && is_match(text, pos, needle))
            return pos;
    return NOT_FOUND;
}

std::size_t find_unit_of(std::u16string_view text, std::u16string_view set) noexcept
{
    // A table keeps the search linear, however large the set is.
    constexpr std::size_t SMALL_SET = 16;
    if (set.size() <= SMALL_SET)
        return text.find_first_of(set);
    std::bitset<0x10000> wanted;
    for (const char16_t unit : set)
        wanted.set(unit);
    for (std::size_t pos = 0; pos < text.size(); ++pos)
        if (wanted[text[pos]])
            return pos;
    return NOT_FOUND;
}

}  // namespace Kvl
