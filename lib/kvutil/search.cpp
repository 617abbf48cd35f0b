#include "search_impl.h"

#include "simd_impl.h"
#include "two_way_impl.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstring>
#include <unicode/utf16.h>

namespace Kvl {

namespace {

// ICU's rule: a match neither starts nor ends inside a surrogate pair. Where one ends the next may
// start, so a search that goes on behind a match need not forget what was before.
bool is_whole(std::u16string_view text, std::size_t pos, std::size_t length)
{
    const std::size_t end = pos + length;
    const bool starts_inside = pos > 0 && U16_IS_TRAIL(text[pos]) && U16_IS_LEAD(text[pos - 1]);
    const bool ends_inside =
        end < text.size() && U16_IS_LEAD(text[end - 1]) && U16_IS_TRAIL(text[end]);
    return !starts_inside && !ends_inside;
}

bool are_equal_words(const char16_t* a, const char16_t* b)
{
    std::uint64_t word_of_a = 0;
    std::uint64_t word_of_b = 0;
    std::memcpy(&word_of_a, a, sizeof word_of_a);
    std::memcpy(&word_of_b, b, sizeof word_of_b);
    return word_of_a == word_of_b;
}

constexpr std::size_t FEW = 32;

// What memcmp() tells; the few units of most needles cost less than its call.
bool are_equal(const char16_t* a, const char16_t* b, std::size_t count)
{
    constexpr std::size_t WORD = 4;
    if (count > FEW)
        return std::memcmp(a, b, count * sizeof(char16_t)) == 0;
    if (count < WORD)
        return std::equal(a, a + count, b);
    for (std::size_t at = 0; at < count; at += WORD) {
        const std::size_t place = std::min(at, count - WORD);
        if (!are_equal_words(a + place, b + place))
            return false;
    }
    return true;
}

bool is_match(std::u16string_view text, std::size_t pos, std::u16string_view needle)
{
    return are_equal(text.data() + pos, needle.data(), needle.size()) &&
           is_whole(text, pos, needle.size());
}

// Comparing at every likely place is the fastest way through most texts. But where nearly all of a
// long needle stands nearly everywhere, its time grows with the needle too. So where comparing in
// vain took more than a few units, it is counted, as if the needle's last unit had made the
// difference.
class Patience {
public:
    Patience(std::u16string_view text, std::u16string_view needle) : text_(text), needle_(needle) {}

    /// @return whether the comparison in vain at a place was one too many
    bool ends_at(std::size_t place)
    {
        if (needle_.size() <= FEW || !are_equal(text_.data() + place, needle_.data(), FEW))
            return false;
        compared_ += needle_.size();
        return compared_ > (place + PLACES_AHEAD) * UNITS_OF_PLACE;
    }

private:
    static constexpr std::size_t UNITS_OF_PLACE = 32;  // no more than every place may cost anyway
    static constexpr std::size_t PLACES_AHEAD = 1024;

    std::u16string_view text_;
    std::u16string_view needle_;
    std::size_t compared_ = 0;
};

// Like scan_by_unit(), from a place on that is behind the last match.
template <class Found>
void scan_two_ways(std::u16string_view text, std::u16string_view needle, std::size_t from,
                   Found found)
{
    TwoWay search(text, needle, from);
    for (std::size_t at = search.next(); at != NOT_FOUND; at = search.next()) {
        if (!is_whole(text, at, needle.size()))
            continue;
        if (!found(at))
            return;
        search.go_to(at + needle.size());
    }
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

// Like scan_by_unit().
template <class Found>
void scan_by_block(std::u16string_view text, std::u16string_view needle, std::size_t places,
                   Found found)
{
    const __m128i first = words(needle.front());
    const __m128i last = words(needle.back());
    Patience patience(text, needle);
    std::size_t begin = 0;
    for (std::size_t pos = 0;; pos += 8) {
        // The last eight places overlap; to look twice at a place does no harm.
        const bool is_last = pos + 8 >= places;
        if (is_last)
            pos = places - 8;
        unsigned int set = candidates(text.data() + pos, needle.size(), first, last);
        for (; set != 0; set &= set - 1) {
            const std::size_t at = pos + static_cast<std::size_t>(std::countr_zero(set));
            if (at < begin)
                continue;
            if (!is_match(text, at, needle)) {
                if (patience.ends_at(at))
                    return scan_two_ways(text, needle, at + 1, found);
                continue;
            }
            if (!found(at))
                return;
            begin = at + needle.size();
        }
        if (is_last)
            return;
    }
}

// Whether one of 32 units is the wanted one.
bool is_near(const char16_t* text, __m128i wanted)
{
    const auto matches = [=](int at) { return _mm_cmpeq_epi16(load(text + at), wanted); };
    return bits(_mm_or_si128(_mm_or_si128(matches(0), matches(8)),
                             _mm_or_si128(matches(16), matches(24)))) != 0;
}

// What find() of the view does.
std::size_t find_by_block(std::u16string_view text, char16_t unit)
{
    const __m128i wanted = words(unit);
    std::size_t pos = 0;
    // Until a place is near, look only whether it is.
    while (text.size() - pos >= 32 && !is_near(text.data() + pos, wanted))
        pos += 32;
    for (;; pos += 8) {
        const bool is_last = pos + 8 >= text.size();
        if (is_last)
            pos = text.size() - 8;
        const unsigned int set = bits(_mm_cmpeq_epi16(load(text.data() + pos), wanted));
        if (set != 0)
            return pos + static_cast<std::size_t>(std::countr_zero(set)) / 2;
        if (is_last)
            return NOT_FOUND;
    }
}

#endif

// Calls `found` with the place of each match, left to right and without overlap, until it gives
// false.
// @param places  how many places there are where the needle, which is not empty, has room
template <class Found>
void scan_by_unit(std::u16string_view text, std::u16string_view needle, std::size_t places,
                  Found found)
{
    Patience patience(text, needle);
    std::size_t begin = 0;
    for (std::size_t at = 0; at < places; ++at) {
        if (at < begin || text[at] != needle[0])
            continue;
        if (!is_match(text, at, needle)) {
            if (patience.ends_at(at))
                return scan_two_ways(text, needle, at + 1, found);
            continue;
        }
        if (!found(at))
            return;
        begin = at + needle.size();
    }
}

template <class Found>
void scan(std::u16string_view text, std::u16string_view needle, Found found)
{
    if (needle.size() > text.size())
        return;
    const std::size_t places = text.size() - needle.size() + 1;
#ifdef KVUTIL_HAVE_SIMD
    if (places >= 8)
        return scan_by_block(text, needle, places, found);
#endif
    scan_by_unit(text, needle, places, found);
}

}  // namespace

std::size_t find_whole_unit(std::u16string_view text, char16_t unit) noexcept
{
    if (U16_IS_SURROGATE(unit))  // which may be half of a pair
        return find_text(text, {&unit, 1});
#ifdef KVUTIL_HAVE_SIMD
    if (text.size() >= 8)
        return find_by_block(text, unit);
#endif
    return text.find(unit);
}

std::size_t find_text(std::u16string_view text, std::u16string_view needle) noexcept
{
    std::size_t result = NOT_FOUND;
    scan(text, needle, [&result](std::size_t at) {
        result = at;
        return false;
    });
    return result;
}

std::size_t find_matches(std::u16string_view text, std::u16string_view needle,
                         std::span<std::uint32_t> places) noexcept
{
    std::size_t count = 0;
    scan(text, needle, [&count, places](std::size_t at) {
        places[count++] = static_cast<std::uint32_t>(at);
        return count < places.size();
    });
    return count;
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
