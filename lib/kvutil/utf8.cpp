#include "utf8_impl.h"

#include "latin1_impl.h"
#include "simd_impl.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace Kvl {

namespace {

using byte_t = unsigned char;

const byte_t* to_bytes(const void* p)
{
    return static_cast<const byte_t*>(p);
}

bool is_continuation(byte_t byte)
{
    return (byte & 0xC0) == 0x80;
}

bool is_surrogate(char32_t c)
{
    return (c & 0xFFFFF800) == 0xD800;
}

bool is_lead_surrogate(char16_t unit)
{
    return (unit & 0xFC00) == 0xD800;
}

bool is_trail_surrogate(char16_t unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

// ---- one character at a time ----

// The bytes of the well-formed sequence that starts at `p`; 0 when there is none.
// Unicode 5.0, table 3-7: only the second byte's range depends on the first.
std::size_t sequence_length(const byte_t* p, const byte_t* end)
{
    const byte_t first = *p;
    if (first < 0x80)
        return 1;
    const std::size_t length = first < 0xC2   ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length == 0 || length > static_cast<std::size_t>(end - p))
        return 0;
    const byte_t lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const byte_t highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (p[1] < lowest || p[1] > highest)
        return 0;
    return std::all_of(p + 2, p + length, is_continuation) ? length : 0;
}

std::size_t measure_by_character(const byte_t* p, const byte_t* end)
{
    std::size_t units = 0;
    while (p < end) {
        const std::size_t length = sequence_length(p, end);
        if (length == 0)
            return 0;
        units += length == 4 ? 2 : 1;
        p += length;
    }
    return units;
}

char16_t* decode_by_character(const byte_t* p, const byte_t* end, char16_t* to)
{
    while (p < end) {
        if (*p < 0x80) {
            *to++ = *p++;
        } else if (*p < 0xE0) {
            *to++ = static_cast<char16_t>((p[0] & 0x1F) << 6 | (p[1] & 0x3F));
            p += 2;
        } else if (*p < 0xF0) {
            *to++ = static_cast<char16_t>((p[0] & 0x0F) << 12 | (p[1] & 0x3F) << 6 | (p[2] & 0x3F));
            p += 3;
        } else {
            const int c =
                (p[0] & 0x07) << 18 | (p[1] & 0x3F) << 12 | (p[2] & 0x3F) << 6 | (p[3] & 0x3F);
            *to++ = static_cast<char16_t>(0xD7C0 + (c >> 10));
            *to++ = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
            p += 4;
        }
    }
    return to;
}

// The character that starts at `p`; a surrogate when that is unpaired.
char32_t character_at(const char16_t* p, const char16_t* end)
{
    const bool is_pair = is_lead_surrogate(p[0]) && end - p > 1 && is_trail_surrogate(p[1]);
    return is_pair ? static_cast<char32_t>(((p[0] - 0xD7C0) << 10) | (p[1] & 0x3FF)) : p[0];
}

std::optional<std::size_t> measure_by_character(const char16_t* p, const char16_t* end)
{
    std::size_t size = 0;
    while (p < end) {
        const char32_t c = character_at(p, end);
        if (is_surrogate(c))
            return std::nullopt;
        size += c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        p += c < 0x10000 ? 1 : 2;
    }
    return size;
}

char* put_continuation(char32_t bits, char* to)
{
    *to = static_cast<char>(0x80 | (bits & 0x3F));
    return to + 1;
}

char* put_character(char32_t c, char* to)
{
    if (c < 0x80) {
        *to++ = static_cast<char>(c);
    } else if (c < 0x800) {
        *to++ = static_cast<char>(0xC0 | c >> 6);
        to = put_continuation(c, to);
    } else if (c < 0x10000) {
        *to++ = static_cast<char>(0xE0 | c >> 12);
        to = put_continuation(c >> 6, to);
        to = put_continuation(c, to);
    } else {
        *to++ = static_cast<char>(0xF0 | c >> 18);
        to = put_continuation(c >> 12, to);
        to = put_continuation(c >> 6, to);
        to = put_continuation(c, to);
    }
    return to;
}

char* encode_by_character(const char16_t* p, const char16_t* end, char* to)
{
    while (p < end) {
        const char32_t c = character_at(p, end);
        if (is_surrogate(c))
            return nullptr;
        to = put_character(c, to);
        p += c < 0x10000 ? 1 : 2;
    }
    return to;
}

#ifdef KVUTIL_HAVE_SIMD

using namespace simd;

// ---- sixteen bytes at a time ----

// Whatever is wrong with UTF-8 shows in two neighbouring bytes, and there in three half bytes, or
// is a continuation that is missing or too many. Each row is one kind of error: the high and the
// low half of the first byte and the high half of the second one, as sets of half bytes.
struct error_kind_t {
    unsigned int first_high;
    unsigned int first_low;
    unsigned int second_high;
};

constexpr unsigned int ANY = 0xFFFF;

constexpr unsigned int range(int from, int to)
{
    unsigned int set = 0;
    for (int half = from; half <= to; ++half)
        set |= 1u << half;
    return set;
}

constexpr std::array<error_kind_t, 8> ERROR_KINDS = {{
    {range(0xC, 0xF), ANY, range(0x0, 0x7) | range(0xC, 0xF)},  // a lead without continuation
    {range(0x0, 0x7), ANY, range(0x8, 0xB)},                    // a continuation without lead
    {range(0xC, 0xC), range(0x0, 0x1), range(0x8, 0xB)},        // C0, C1: two bytes for ASCII
    {range(0xE, 0xE), range(0x0, 0x0), range(0x8, 0x9)},        // E0 80: three for two
    {range(0xE, 0xE), range(0xD, 0xD), range(0xA, 0xB)},        // ED A0: a surrogate
    {range(0xF, 0xF), range(0x4, 0xF), range(0x9, 0xB)},        // F4 90, F5: beyond 10FFFF
    {range(0xF, 0xF), range(0x0, 0x0) | range(0x5, 0xF),
     range(0x8, 0x8)},  // F0 80: four for three; F5
    {range(0x8, 0xB), ANY,
     range(0x8, 0xB)},  // two continuations: right after a lead of three or four
}};
constexpr char TWO_CONTINUATIONS = '\x80';  // the bit of the last row

using half_byte_table_t = std::array<byte_t, 16>;

constexpr half_byte_table_t errors_by(unsigned int error_kind_t::*half)
{
    half_byte_table_t table{};
    for (std::size_t value = 0; value < table.size(); ++value)
        for (std::size_t kind = 0; kind < ERROR_KINDS.size(); ++kind)
            if (ERROR_KINDS[kind].*half >> value & 1)
                table[value] = static_cast<byte_t>(table[value] | 1u << kind);
    return table;
}

alignas(16) constexpr half_byte_table_t BY_FIRST_HIGH = errors_by(&error_kind_t::first_high);
alignas(16) constexpr half_byte_table_t BY_FIRST_LOW = errors_by(&error_kind_t::first_low);
alignas(16) constexpr half_byte_table_t BY_SECOND_HIGH = errors_by(&error_kind_t::second_high);

// For each set of eight units, the shuffle that moves the units of the set together.
using shuffle_t = std::array<byte_t, 16>;

constexpr std::array<shuffle_t, 256> make_compactions()
{
    std::array<shuffle_t, 256> shuffles{};
    for (std::size_t set = 0; set < shuffles.size(); ++set) {
        std::size_t to = 0;
        for (std::size_t unit = 0; unit < 8; ++unit)
            if (set >> unit & 1) {
                shuffles[set][to++] = static_cast<byte_t>(2 * unit);
                shuffles[set][to++] = static_cast<byte_t>(2 * unit + 1);
            }
    }
    return shuffles;
}

alignas(16) constexpr std::array<shuffle_t, 256> COMPACTIONS = make_compactions();

// All ones where the byte is a continuation: as signed numbers these are the least ones.
inline __m128i continuations(__m128i block)
{
    return _mm_cmplt_epi8(block, bytes(0xC0));
}

KVUTIL_SSSE3 inline __m128i look_up(const half_byte_table_t& table, __m128i half_bytes)
{
    return _mm_shuffle_epi8(load(table.data()), half_bytes);
}

KVUTIL_SSSE3 inline __m128i high_halves(__m128i block)
{
    return _mm_and_si128(_mm_srli_epi16(block, 4), bytes(0x0F));
}

// Non-zero where a byte is wrong in its place behind the bytes before it.
KVUTIL_SSSE3 inline __m128i errors_in(__m128i block, __m128i previous)
{
    const __m128i one_before = _mm_alignr_epi8(block, previous, 15);
    const __m128i two_before = _mm_alignr_epi8(block, previous, 14);
    const __m128i three_before = _mm_alignr_epi8(block, previous, 13);
    const __m128i pairs =
        _mm_and_si128(_mm_and_si128(look_up(BY_FIRST_HIGH, high_halves(one_before)),
                                    look_up(BY_FIRST_LOW, _mm_and_si128(one_before, bytes(0x0F)))),
                      look_up(BY_SECOND_HIGH, high_halves(block)));
    const __m128i must_be_second_continuation =
        _mm_or_si128(at_least(two_before, 0xE0), at_least(three_before, 0xF0));
    return _mm_xor_si128(pairs,
                         _mm_and_si128(must_be_second_continuation, bytes(TWO_CONTINUATIONS)));
}

// One for each character, and one more for each that takes two units.
KVUTIL_SSSE3 inline std::size_t units_begun_in(__m128i block)
{
    const int units = 16 - __builtin_popcount(bits(continuations(block))) +
                      __builtin_popcount(bits(at_least(block, 0xF0)));
    return static_cast<std::size_t>(units);
}

// The last bytes of a text, with zeros behind them.
// @param count  0..16
KVUTIL_SSSE3 inline __m128i load_last(const byte_t* begin, const byte_t* end, std::size_t count)
{
    if (end - begin < 16)
        return load_few(end - count, count);
    // Moves the wanted bytes of the last sixteen down, as a shuffle by a window of this.
    alignas(16) static constexpr std::array<signed char, 32> DOWN = {
        0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15,
        -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    return _mm_shuffle_epi8(load(end - 16), load(DOWN.data() + 16 - count));
}

KVUTIL_SSSE3 std::size_t measure_by_block(const byte_t* begin, const byte_t* end)
{
    const byte_t* p = begin;
    std::size_t units = 0;
    __m128i previous = zero();
    for (; end - p >= 16; p += 16) {
        const __m128i block = load(p);
        if (bits(_mm_or_si128(block, previous)) == 0) {
            units += 16;
        } else {
            if (!is_zero(errors_in(block, previous)))
                return 0;
            units += units_begun_in(block);
        }
        previous = block;
    }
    // Zeros behind the rest show a sequence that is cut off. There may be no rest at all.
    const auto rest = static_cast<std::size_t>(end - p);
    const __m128i block = load_last(begin, end, rest);
    if (!is_zero(errors_in(block, previous)))
        return 0;
    return units + units_begun_in(block) - (16 - rest);
}

// For each byte the unit that its character makes if the character ends there, low and high bytes
// apart. A character takes its last byte's six bits, six of the byte before and four of the one
// before that.
struct split_units_t {
    __m128i low;
    __m128i high;
};

KVUTIL_SSSE3 inline split_units_t units_ending_in(__m128i block, __m128i previous)
{
    const __m128i one_before = _mm_alignr_epi8(block, previous, 15);
    const __m128i two_before = _mm_alignr_epi8(block, previous, 14);
    const __m128i is_multi = continuations(block);
    const __m128i is_three = continuations(one_before);
    const __m128i low_of_second = _mm_and_si128(_mm_slli_epi16(one_before, 6), bytes(0xC0));
    const __m128i high_of_second = _mm_and_si128(_mm_srli_epi16(one_before, 2), bytes(0x0F));
    const __m128i third = _mm_and_si128(_mm_slli_epi16(two_before, 4), bytes(0xF0));
    const __m128i low = _mm_or_si128(_mm_andnot_si128(_mm_and_si128(is_multi, bytes(0xC0)), block),
                                     _mm_and_si128(is_multi, low_of_second));
    const __m128i high =
        _mm_and_si128(is_multi, _mm_or_si128(high_of_second, _mm_and_si128(is_three, third)));
    return {low, high};
}

// Puts both surrogates of the four-byte characters in: the trail where the character ends, the
// lead one byte before, which then ends a unit too.
KVUTIL_SSSE3 inline void add_surrogates(__m128i block, __m128i previous, split_units_t& units,
                                        unsigned int& ends)
{
    const __m128i one_before = _mm_alignr_epi8(block, previous, 15);
    const __m128i two_before = _mm_alignr_epi8(block, previous, 14);
    const __m128i three_before = _mm_alignr_epi8(block, previous, 13);
    const __m128i is_trail = at_least(three_before, 0xF0);
    const __m128i is_lead = at_least(two_before, 0xF0);
    // Bits 8 and 9 of the character end the trail's high byte.
    const __m128i trail_high =
        _mm_or_si128(bytes(0xDC), _mm_and_si128(_mm_srli_epi16(one_before, 2), bytes(0x03)));
    // Bits 10 to 20 less 0x40, which leaves ten; the borrow of the low byte goes into the high one.
    const __m128i low = _mm_or_si128(_mm_and_si128(_mm_slli_epi16(one_before, 2), bytes(0xFC)),
                                     _mm_and_si128(_mm_srli_epi16(block, 4), bytes(0x03)));
    const __m128i has_no_borrow = at_least(low, 0x40);
    const __m128i lead_low = _mm_sub_epi8(low, bytes(0x40));
    const __m128i lead_high = _mm_sub_epi8(
        _mm_add_epi8(bytes(0xD7), _mm_and_si128(two_before, bytes(0x07))), has_no_borrow);
    units.low = choose(is_lead, lead_low, units.low);
    units.high = choose(is_lead, lead_high, choose(is_trail, trail_high, units.high));
    ends |= bits(is_lead);
}

// Writes the eight units of which `set` are wanted; returns the end of the wanted ones.
KVUTIL_SSSE3 inline char16_t* store_compact(__m128i units, unsigned int set, char16_t* to)
{
    store(to, _mm_shuffle_epi8(units, load(COMPACTIONS[set].data())));
    return to + __builtin_popcount(set);
}

// Needs room for 16 units, however few there are.
// @param ends  which bytes end a character
KVUTIL_SSSE3 inline char16_t* decode_block(__m128i block, __m128i previous, unsigned int ends,
                                           char16_t* to)
{
    split_units_t units = units_ending_in(block, previous);
    if (bits(at_least(_mm_max_epu8(block, previous), 0xF0)) != 0)
        add_surrogates(block, previous, units, ends);
    to = store_compact(_mm_unpacklo_epi8(units.low, units.high), ends & 0xFF, to);
    return store_compact(_mm_unpackhi_epi8(units.low, units.high), ends >> 8, to);
}

// Which bytes of a block end a character: those that no continuation follows.
// @param next  the same block one byte on
inline unsigned int ends_before(__m128i next)
{
    return ~bits(continuations(next)) & 0xFFFF;
}

KVUTIL_SSSE3 void decode_by_block(const byte_t* begin, const byte_t* end, char16_t* to,
                                  const char16_t* limit)
{
    __m128i previous = zero();
    const byte_t* p = begin;
    for (; end - p > 16 && limit - to >= 16; p += 16) {
        const __m128i block = load(p);
        if (bits(block) == 0) {
            widen_block(block, to);
            to += 16;
        } else {
            to = decode_block(block, previous, ends_before(load(p + 1)), to);
        }
        previous = block;
    }
    // Where 16 units have no room, they get it here, and only those of the text are copied.
    while (p < end) {
        const auto rest = static_cast<std::size_t>(end - p);
        const bool is_last = rest <= 16;
        const __m128i block = is_last ? load_last(begin, end, rest) : load(p);
        const __m128i next = is_last ? _mm_srli_si128(block, 1) : load(p + 1);
        std::array<char16_t, 16> units;
        const char16_t* units_end = decode_block(block, previous, ends_before(next), units.data());
        if (is_last)
            units_end -= 16 - rest;
        to = std::copy(std::as_const(units).data(), units_end, to);
        previous = block;
        p += is_last ? rest : 16;
    }
}

// ---- eight units at a time ----

KVUTIL_SSSE3 inline std::size_t count(unsigned int set)
{
    return static_cast<std::size_t>(__builtin_popcount(set));
}

KVUTIL_SSSE3 std::optional<std::size_t> measure_by_block(const char16_t* p, const char16_t* end)
{
    std::size_t size = 0;
    unsigned int lead_before = 0;
    for (; end - p >= 8; p += 8) {
        const __m128i block = load(p);
        const unsigned int one_byte = word_bits(equals(block, 0xFF80, 0));
        const unsigned int up_to_two = word_bits(equals(block, 0xF800, 0));
        const unsigned int surrogates = word_bits(equals(block, 0xF800, 0xD800));
        const unsigned int leads = word_bits(equals(block, 0xFC00, 0xD800));
        // Every trail behind a lead, and nothing else there.
        const unsigned int behind_leads = leads << 1 | lead_before;
        if ((behind_leads & 0xFF) != (surrogates & ~leads))
            return std::nullopt;
        lead_before = behind_leads >> 8;
        size += 3 * 8 - count(one_byte) - count(up_to_two) - count(surrogates);
    }
    // A lead that waits for its trail is measured again with the rest, as a whole.
    p -= lead_before;
    size -= 2 * lead_before;
    const std::optional<std::size_t> rest = measure_by_character(p, end);
    return rest ? std::optional(size + *rest) : std::nullopt;
}

// For each set of units of two and of three bytes, the shuffle that moves their bytes together out
// of lanes of first, middle and last byte.
constexpr std::array<shuffle_t, 256> make_byte_compactions()
{
    std::array<shuffle_t, 256> shuffles{};
    for (std::size_t set = 0; set < shuffles.size(); ++set) {
        std::size_t to = 0;
        for (std::size_t unit = 0; unit < 4; ++unit) {
            const bool has_middle = set >> unit & 1;
            const bool has_first = set >> (unit + 4) & 1;
            for (std::size_t byte = has_first ? 0 : has_middle ? 1 : 2; byte < 3; ++byte)
                shuffles[set][to++] = static_cast<byte_t>(4 * unit + byte);
        }
    }
    return shuffles;
}

alignas(16) constexpr std::array<shuffle_t, 256> BYTE_COMPACTIONS = make_byte_compactions();

// Four units that are no surrogates, each in a lane of 32 bits. Needs room for 16 bytes.
KVUTIL_SSSE3 inline char* encode_lanes(__m128i units, char* to)
{
    const auto lanes = [](int value) { return _mm_set1_epi32(value); };
    const __m128i has_middle = _mm_cmpgt_epi32(units, lanes(0x7F));
    const __m128i has_first = _mm_cmpgt_epi32(units, lanes(0x7FF));
    const __m128i six_bits = lanes(0x3F);
    // A last byte that is alone keeps its seventh bit, which no other has.
    const __m128i last = _mm_or_si128(
        _mm_and_si128(units, _mm_or_si128(six_bits, _mm_andnot_si128(has_middle, lanes(0x40)))),
        _mm_and_si128(has_middle, lanes(0x80)));
    const __m128i middle =
        _mm_or_si128(_mm_and_si128(_mm_srli_epi32(units, 6), six_bits),
                     _mm_or_si128(lanes(0x80), _mm_andnot_si128(has_first, lanes(0x40))));
    const __m128i first = _mm_or_si128(_mm_srli_epi32(units, 12), lanes(0xE0));
    const __m128i all =
        _mm_or_si128(first, _mm_or_si128(_mm_slli_epi32(middle, 8), _mm_slli_epi32(last, 16)));
    const auto set = static_cast<unsigned int>(_mm_movemask_ps(_mm_castsi128_ps(has_middle)) |
                                               _mm_movemask_ps(_mm_castsi128_ps(has_first)) << 4);
    store(to, _mm_shuffle_epi8(all, load(BYTE_COMPACTIONS[set].data())));
    return to + 4 + __builtin_popcount(set);
}

// Eight units that are no surrogates, or fewer with zeros behind them.
KVUTIL_SSSE3 inline char* encode_block(__m128i block, std::size_t count, char* to)
{
    if (bits(equals(block, 0xFF80, 0)) == 0xFFFF) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(block, block));
        return to + count;
    }
    to = encode_lanes(_mm_unpacklo_epi16(block, zero()), to);
    to = encode_lanes(_mm_unpackhi_epi16(block, zero()), to);
    return to - (8 - count);
}

KVUTIL_SSSE3 char* encode_by_block(const char16_t* p, const char16_t* end, char* to, bool& has_zero)
{
    const narrowed_t ascii = narrow({p, end}, LAST_OF_ASCII, to);
    has_zero = ascii.has_zero;
    p += ascii.units;
    to += ascii.units;
    while (p < end) {
        const auto count = std::min<std::size_t>(static_cast<std::size_t>(end - p), 8);
        const __m128i block = count == 8 ? load(p) : load_few(to_bytes(p), 2 * count);
        const unsigned int zeros = word_bits(_mm_cmpeq_epi16(block, zero()));
        has_zero |= (zeros & ((1u << count) - 1)) != 0;
        if (bits(equals(block, 0xF800, 0xD800)) == 0) {
            to = encode_block(block, count, to);
            p += count;
        } else {
            // A pair that the end of the block cuts stays whole.
            const bool cuts_pair = count == 8 && end - p > 8 && is_lead_surrogate(p[7]);
            const char16_t* const stop = p + count - cuts_pair;
            to = encode_by_character(p, stop, to);
            if (to == nullptr)
                return nullptr;
            p = stop;
        }
    }
    return to;
}

#endif

// @return  0 when the bytes are malformed
std::size_t measure(std::string_view bytes)
{
    const byte_t* const begin = to_bytes(bytes.data());
    const byte_t* const end = begin + bytes.size();
#ifdef KVUTIL_HAVE_SIMD
    if (has_ssse3())
        return measure_by_block(begin, end);
#endif
    return measure_by_character(begin, end);
}

}  // namespace

std::size_t measured_utf16_length_of(std::string_view bytes) noexcept
{
    const std::size_t ascii = ascii_at_front(bytes);
    if (ascii == bytes.size())
        return ascii;
    const std::size_t others = measure(bytes.substr(ascii));
    return others == 0 ? 0 : ascii + others;
}

void any_utf8_to_utf16(std::string_view bytes, std::size_t length, char16_t* to,
                       const char16_t* limit) noexcept
{
    const bool is_all_ascii = length == bytes.size();
    if (is_all_ascii)
        return widen(bytes, to, limit);
    const byte_t* const begin = to_bytes(bytes.data());
    const byte_t* const end = begin + bytes.size();
#ifdef KVUTIL_HAVE_SIMD
    if (has_ssse3())
        return decode_by_block(begin, end, to, limit);
#endif
    decode_by_character(begin, end, to);
}

std::optional<std::size_t> utf8_size_of(std::u16string_view text) noexcept
{
    const char16_t* const end = text.data() + text.size();
#ifdef KVUTIL_HAVE_SIMD
    if (has_ssse3())
        return measure_by_block(text.data(), end);
#endif
    return measure_by_character(text.data(), end);
}

char* utf16_to_utf8(std::u16string_view text, char* to, bool& has_zero) noexcept
{
    const char16_t* const end = text.data() + text.size();
#ifdef KVUTIL_HAVE_SIMD
    if (has_ssse3())
        return encode_by_block(text.data(), end, to, has_zero);
#endif
    has_zero = text.find(u'\0') != std::u16string_view::npos;
    return encode_by_character(text.data(), end, to);
}

}  // namespace Kvl
