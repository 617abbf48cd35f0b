// What the text type converts and searches with, against ICU. The program is built twice: with the
// instructions of this machine, and without. The former also runs as if on older processors.
#include "latin1_impl.h"
#include "search_impl.h"
#include "storage_impl.h"
#include "two_way_impl.h"
#include "units_order_impl.h"
#include "utf8_impl.h"

#include <gtest/gtest.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Kvl;

constexpr char16_t GUARD = 0xABCD;

#ifdef KVUTIL_HAVE_SIMD
// ---- older processors ----

std::string_view wanted_processor()
{
    const char* const name = std::getenv("KVUTIL_TEST_PROCESSOR");
    return name == nullptr ? "" : name;
}

// Says what the processor has before it is asked: "Ssse3" has no AVX2, and "Sse2" not even SSSE3.
class older_processor_t : public testing::Environment {
public:
    void SetUp() override
    {
        if (wanted_processor().empty())
            return;
        simd::g_avx2 = simd::answer_t::NO;
        if (wanted_processor() == "Sse2")
            simd::g_ssse3 = simd::answer_t::NO;
    }
};

const auto* const g_older_processor = testing::AddGlobalTestEnvironment(new older_processor_t);

TEST(Processor, HasWhatTheTestsSayThatItHas)
{
    if (wanted_processor().empty())
        GTEST_SKIP() << "the tests run on this machine's";
    EXPECT_FALSE(simd::has_avx2());
    EXPECT_TRUE(wanted_processor() == "Ssse3" || !simd::has_ssse3());
}
#endif

// ---- bytes and the units of the same numbers ----

// The lengths at which the ways to convert change, and those where a last step is cut.
constexpr std::size_t LONGEST = 600;

std::string bytes_of_all_values(std::size_t size)
{
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(i * 89);
    return bytes;
}

std::u16string widened_plainly(const std::string& bytes)
{
    std::u16string text;
    for (const char c : bytes)
        text += static_cast<unsigned char>(c);
    return text;
}

TEST(Latin1, WidensEveryLength)
{
    for (std::size_t size = 0; size < LONGEST; ++size)
        for (const std::size_t spare : {0u, 7u, 40u}) {
            // Where the text begins is not what memory gives.
            const std::string bytes = bytes_of_all_values(size);
            const std::size_t start = size % 8;
            std::u16string room(start + size + spare + 1, GUARD);
            char16_t* const to = room.data() + start;
            widen(bytes, to, to + size + spare);
            ASSERT_EQ(room.back(), GUARD) << "written beyond the room";
            ASSERT_EQ(room.substr(start, size), widened_plainly(bytes)) << size;
        }
}

TEST(Latin1, AsciiAtFrontStopsBeforeTheFirstOtherByte)
{
    for (std::size_t size = 0; size < LONGEST; ++size) {
        std::string bytes(size, 'x');
        ASSERT_EQ(ascii_at_front(bytes), size);
        for (const std::size_t at : {std::size_t{0}, size / 3, size / 2, size - 1}) {
            if (at >= size)
                continue;
            bytes[at] = '\x80';
            ASSERT_LE(ascii_at_front(bytes), at) << size;
            bytes[at] = '\x7F';
        }
        ASSERT_EQ(ascii_at_front(bytes), size);
    }
}

TEST(Latin1, WidensAsciiOfEveryLengthAndTellsOfOtherBytes)
{
    for (std::size_t size = 0; size < 300; ++size) {
        std::string bytes(size, 'x');
        std::u16string room(size + 1, GUARD);
        char16_t* const limit = room.data() + size;
        ASSERT_TRUE(widen_if_ascii(bytes, room.data(), limit));
        ASSERT_EQ(room, widened_plainly(bytes) + GUARD);
        for (std::size_t at = 0; at < size; ++at) {
            bytes[at] = '\x80';
            ASSERT_FALSE(widen_if_ascii(bytes, room.data(), limit)) << at << " of " << size;
            ASSERT_EQ(room.back(), GUARD) << "written beyond the room";
            bytes[at] = '\x7F';
        }
    }
}

TEST(Latin1, BytesAreBetweenTheFirstAndTheLast)
{
    for (std::size_t size = 1; size < 100; ++size)
        for (unsigned int odd = 0; odd < 256; ++odd) {
            std::string bytes(size, 'x');
            bytes[size * 7 % 11 * size / 11] = static_cast<char>(odd);
            ASSERT_EQ(are_between(bytes, u' ', u'~'), odd >= 0x20 && odd <= 0x7E) << odd;
        }
    EXPECT_TRUE(are_between("", u' ', u'~'));
}

// Narrows into exactly the room that is asked for, and looks behind it.
std::string narrowed(const std::u16string& text, char16_t last, narrowed_t& result)
{
    const std::size_t room = std::max<std::size_t>(text.size(), 16);
    std::string bytes(room + 1, '\xAB');
    result = narrow(text, last, bytes.data());
    EXPECT_EQ(bytes.back(), '\xAB') << "written beyond the room";
    return bytes.substr(0, result.units);
}

TEST(Latin1, NarrowsEveryLength)
{
    for (const char16_t last : {LAST_OF_ASCII, LAST_OF_LATIN1})
        for (std::size_t size = 0; size < LONGEST; ++size) {
            const std::u16string text(size, last);
            narrowed_t result{};
            ASSERT_EQ(narrowed(text, last, result), std::string(size, static_cast<char>(last)));
            ASSERT_FALSE(result.has_zero);
        }
    narrowed_t result{};
    const std::string all = bytes_of_all_values(512);
    EXPECT_EQ(narrowed(widened_plainly(all), LAST_OF_LATIN1, result), all);
    EXPECT_TRUE(result.has_zero);
}

TEST(Latin1, NarrowingStopsBeforeTheFirstUnitBeyondTheLast)
{
    for (const char16_t last : {LAST_OF_ASCII, LAST_OF_LATIN1})
        for (std::size_t size = 1; size < LONGEST; ++size)
            for (unsigned int beyond = last + 1u; beyond <= 0xFFFF; beyond = 2 * beyond + 1) {
                std::u16string text(size, u'x');
                const std::size_t at = size * 7 % 11 * size / 11;
                text[at] = static_cast<char16_t>(beyond);
                narrowed_t result{};
                const std::string bytes = narrowed(text, last, result);
                ASSERT_LE(result.units, at) << size << ' ' << beyond;
                ASSERT_EQ(bytes, std::string(result.units, 'x'));
            }
}

TEST(Latin1, NarrowingTellsOfZerosInWhatItNarrows)
{
    for (std::size_t size = 1; size < LONGEST; ++size)
        for (const std::size_t at : {std::size_t{0}, size / 2, size - 1}) {
            std::u16string text(size, u'x');
            text[at] = 0;
            narrowed_t result{};
            narrowed(text, LAST_OF_ASCII, result);
            ASSERT_EQ(result.units, size);
            ASSERT_TRUE(result.has_zero) << size;
        }
}

// ---- the same of a few dozen, which have ways of their own ----

TEST(Latin1, OfAFewDozenWidensIntoTheirRoom)
{
    for (std::size_t size = FEW; size <= SHORT; ++size) {
        const std::string bytes = bytes_of_all_values(size);
        std::u16string room(size + 1, GUARD);
        widen_short(bytes, room.data());
        ASSERT_EQ(room, widened_plainly(bytes) + GUARD) << size;
    }
}

// Narrows in both ways, each into its room.
void expect_narrowed_as_always(const std::u16string& text, char16_t last)
{
    std::string always(text.size(), '\xAB');
    const bool is_narrow = narrow_whole(text, last, always.data());
    std::string room(text.size() + 1, '\xAB');
    ASSERT_EQ(narrow_whole_short(text, last, room.data()), is_narrow);
    ASSERT_EQ(is_narrow_short(text, last), is_narrow);
    ASSERT_EQ(room.back(), '\xAB') << "written beyond the room";
    if (!is_narrow)
        return;
    ASSERT_EQ(room, always + '\xAB');
    std::string second_room(text.size() + 1, '\xAB');
    narrow_short(text, second_room.data());
    ASSERT_EQ(second_room, room);
}

TEST(Latin1, OfAFewDozenNarrowsAsAlways)
{
    for (const char16_t last : {LAST_OF_ASCII, LAST_OF_LATIN1})
        for (std::size_t size = FEW; size <= SHORT; ++size)
            for (std::size_t at = 0; at < size; ++at)
                for (const unsigned int unit :
                     {0u, 1u, 0x7Fu, 0x80u, 0xFFu, 0x100u, 0x7FFFu, 0x8000u, 0xFFFFu}) {
                    std::u16string text = widened_plainly(std::string(size, 'x'));
                    text[at] = static_cast<char16_t>(unit);
                    expect_narrowed_as_always(text, last);
                }
}

// ---- UTF-8 in ----

// What ICU makes of the bytes; nothing when it reports an error.
std::optional<std::u16string> decoded_by_icu(const std::string& bytes)
{
    std::u16string text(bytes.size() + 1, u'\0');
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int>(text.size()), &length, bytes.data(),
                  static_cast<int>(bytes.size()), &status);
    if (status != U_ZERO_ERROR)
        return std::nullopt;
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Decodes into exactly the room that is measured, or with some more, and looks behind it.
std::optional<std::u16string> decoded(const std::string& bytes, std::size_t spare)
{
    const std::size_t length = utf16_length_of(bytes);
    if (length == 0)
        return std::nullopt;
    std::u16string text(length + spare + 1, GUARD);
    utf8_to_utf16(bytes, length, text.data(), text.data() + length + spare);
    EXPECT_EQ(text.back(), GUARD) << "written beyond the room";
    text.resize(length);
    return text;
}

// Texts of one kind meet both amounts of room, one after the other.
bool agrees_with_icu(const std::string& bytes)
{
    static bool has_spare_room = false;
    has_spare_room = !has_spare_room;
    return decoded(bytes, has_spare_room ? 40 : 0) == decoded_by_icu(bytes);
}

char byte(unsigned int value)
{
    return static_cast<char>(value);
}

TEST(Utf8In, NothingHasNoLength)
{
    EXPECT_EQ(utf16_length_of(""), 0u);
}

TEST(Utf8In, EverySequenceOfThreeBytes)
{
    for (unsigned int a = 0; a < 256; ++a) {
        ASSERT_TRUE(agrees_with_icu({byte(a)})) << a;
        for (unsigned int b = 0; b < 256; ++b) {
            ASSERT_TRUE(agrees_with_icu({byte(a), byte(b)})) << a << ' ' << b;
            // Where the first byte alone decides, some of the last ones stand for all.
            const bool leads = a >= 0xC2 && a <= 0xF4;
            for (unsigned int c = 0; c < 256; c += leads ? 1 : 0x3F)
                if (!agrees_with_icu({byte(a), byte(b), byte(c)}))
                    FAIL() << a << ' ' << b << ' ' << c;
        }
    }
}

// The same in the middle of a text, behind a step of sixteen bytes and across it.
TEST(Utf8In, SequencesAcrossSteps)
{
    const std::string edges = "\x01\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE"
                              "\xEF\xF0\xF1\xF3\xF4\xF5\xFF";
    for (const std::size_t before : {13u, 14u, 15u, 16u, 29u, 63u})
        for (const char a : edges)
            for (const char b : edges)
                for (const char c : edges) {
                    const std::string bytes =
                        std::string(before, 'a') + a + b + c + std::string(before % 7 * 5, 'z');
                    if (!agrees_with_icu(bytes))
                        FAIL() << testing::PrintToString(bytes);
                }
}

TEST(Utf8In, SequencesOfFourBytes)
{
    const std::string others = "\x7F\x80\x81\x8F\x90\x9F\xA0\xAF\xB0\xBF\xC0\xFF";
    for (unsigned int a = 0xE0; a < 256; ++a)
        for (unsigned int b = 0x7F; b <= 0xC0; ++b)
            for (const char c : others)
                for (const char d : others)
                    if (!agrees_with_icu(std::string(a % 16, 'a') + byte(a) + byte(b) + c + d))
                        FAIL() << a << ' ' << b << ' ' << int{c} << ' ' << int{d};
}

TEST(Utf8In, SupplementaryCharactersInEveryPlaceOfAStep)
{
    for (char32_t c = 0x10000; c <= 0x10FFFF; c += c < 0x10800 || c > 0x10F800 ? 1 : 61) {
        icu::UnicodeString text(static_cast<int>(c % 17), static_cast<UChar32>(u'a'),
                                static_cast<int>(c % 17));
        text.append(static_cast<UChar32>(c)).append(u'\u00E9').append(static_cast<UChar32>(c));
        std::string bytes;
        text.toUTF8String(bytes);
        if (!agrees_with_icu(bytes))
            FAIL() << static_cast<std::uint32_t>(c);
    }
}

TEST(Utf8In, EveryLengthOfAsciiAndOfOthers)
{
    for (std::size_t length = 1; length < 300; ++length)
        for (const char* const character : {"x", "\xC3\xA9", "\xE4\xB8\xAD", "\xF0\x9F\x98\x80"}) {
            std::string bytes(length % 5, '-');
            for (std::size_t i = 0; i < length; ++i)
                bytes += character;
            ASSERT_TRUE(agrees_with_icu(bytes)) << length;
            ASSERT_TRUE(agrees_with_icu(bytes.substr(0, bytes.size() - 1))) << length;
            ASSERT_TRUE(agrees_with_icu(bytes + "\x80")) << length;
            ASSERT_TRUE(agrees_with_icu(bytes + "\xE4\xB8")) << length;
        }
}

// ---- UTF-8 out ----

std::optional<std::string> encoded_by_icu(const std::u16string& text)
{
    std::string bytes(3 * text.size() + 1, '\0');
    std::int32_t size = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8(bytes.data(), static_cast<int>(bytes.size()), &size, text.data(),
                static_cast<int>(text.size()), &status);
    if (status != U_ZERO_ERROR)
        return std::nullopt;
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
}

std::optional<std::string> encoded(const std::u16string& text)
{
    std::string bytes(utf8_room_for(text.size()) + 1, '\xAB');
    bool has_zero = true;
    const char* const end = utf16_to_utf8(text, bytes.data(), has_zero);
    EXPECT_EQ(bytes.back(), '\xAB') << "written beyond the room";
    const std::optional<std::size_t> size = utf8_size_of(text);
    if (end == nullptr) {
        EXPECT_FALSE(size.has_value());
        return std::nullopt;
    }
    EXPECT_EQ(has_zero, text.find(u'\0') != std::u16string::npos);
    bytes.resize(static_cast<std::size_t>(end - bytes.data()));
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

TEST(Utf8Out, EveryUnitAlone)
{
    for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
        const std::u16string text(1, static_cast<char16_t>(unit));
        ASSERT_EQ(encoded(text), encoded_by_icu(text)) << unit;
        const std::u16string among = std::u16string(unit % 40, u'-') + text + u"0123456789";
        ASSERT_EQ(encoded(among), encoded_by_icu(among)) << unit;
    }
    EXPECT_EQ(encoded(u""), "");
}

TEST(Utf8Out, EdgesInEveryPlaceOfAStep)
{
    std::u16string edges = u"\x01\x7F\x80\x7FF\x800\xD7FF\xD800\xDBFF\xDC00\xDFFF\xE000\xFFFF";
    edges += u'\0';
    for (unsigned int before = 0; before < 40; ++before)
        for (const char16_t a : edges)
            for (const char16_t b : edges)
                for (const char16_t c : edges) {
                    std::u16string text = std::u16string(before, u'-') + a + b + c;
                    ASSERT_EQ(encoded(text), encoded_by_icu(text));
                    text.append(before % 11, u'\u00E9');
                    ASSERT_EQ(encoded(text), encoded_by_icu(text));
                }
}

TEST(Utf8Out, RandomTexts)
{
    std::mt19937 random(1);
    for (int round = 0; round < 20'000; ++round) {
        std::u16string text;
        const auto limit = static_cast<unsigned int>(1) << (1 + random() % 16);
        for (std::size_t length = random() % 100; length > 0; --length)
            text += static_cast<char16_t>(random() % limit);
        ASSERT_EQ(encoded(text), encoded_by_icu(text));
    }
}

// ---- searching ----

std::size_t wanted_position(int found)
{
    return found < 0 ? NOT_FOUND : static_cast<std::size_t>(found);
}

icu::UnicodeString plain(const std::u16string& text)
{
    return icu::UnicodeString(text.data(), static_cast<int>(text.size()));
}

TEST(Storage, KnowsWhatFitsIntoATextObject)
{
    EXPECT_EQ(static_cast<std::size_t>(icu::UnicodeString().getCapacity()), INLINE_UNITS);
}

// ICU goes on with the memory: it writes a terminator, shares it and frees it.
TEST(Storage, AllocatesAsIcuDoes)
{
    for (std::int32_t units = INLINE_UNITS + 1; units < 3000; ++units) {
        icu::UnicodeString text;
        const unit_room_t room = make_room_in_new(text, static_cast<std::size_t>(units));
        ASSERT_EQ(text.getCapacity(), icu::UnicodeString(units, 0, 0).getCapacity()) << units;
        ASSERT_EQ(room.end - room.begin, text.getCapacity());
        std::fill(room.begin, room.end, u'x');
        set_length(text, room, static_cast<std::size_t>(text.getCapacity()));
        ASSERT_EQ(text.getTerminatedBuffer()[text.length()], 0);
        const icu::UnicodeString shared(text);
        ASSERT_EQ(shared.getBuffer(), text.getBuffer());
    }
}

TEST(Storage, AllocatesALineOfKnownLength)
{
    for (std::size_t units = INLINE_UNITS + 1; units <= MAX_SHORT_LENGTH; ++units) {
        icu::UnicodeString text;
        char16_t* const line = allocate_line(text, units);
        std::fill_n(line, units, u'x');
        const icu::UnicodeString wanted = plain(std::u16string(units, u'x'));
        ASSERT_EQ(text, wanted) << units;
        ASSERT_EQ(text.getBuffer()[units], 0);
        text.append(u'y');
        ASSERT_EQ(text.length(), static_cast<std::int32_t>(units + 1));
    }
}

/// A text made, shared and destroyed by us or by ICU.
class counted_text_t {
public:
    explicit counted_text_t(bool is_ours) : is_ours_(is_ours), text_(u"a text beyond the object, ")
    {
        text_.append(u"which is in memory of its own");
    }
    counted_text_t(const counted_text_t& from, bool is_ours) : is_ours_(is_ours)
    {
        if (is_ours)
            copy_into_new(text_, from.text_);
        else
            text_ = from.text_;
    }
    counted_text_t(const counted_text_t&) = delete;
    counted_text_t& operator=(const counted_text_t&) = delete;
    ~counted_text_t()
    {
        if (is_ours_)
            release_counted(text_);
    }
    bool is_whole() const
    {
        return text_ == u"a text beyond the object, which is in memory of its own";
    }
    bool is_alone() const { return is_exclusive(text_); }

private:
    const bool is_ours_;
    icu::UnicodeString text_;
};

// Three that share one memory, each of them ours or ICU's, destroyed in every order.
TEST(Storage, IsSharedWithIcuAndFreedByTheLast)
{
    std::array<std::size_t, 3> order = {0, 1, 2};
    do {
        for (unsigned int ours = 0; ours < 8; ++ours) {
            std::array<std::unique_ptr<counted_text_t>, 3> texts;
            texts[0] = std::make_unique<counted_text_t>((ours & 1) != 0);
            texts[1] = std::make_unique<counted_text_t>(*texts[0], (ours & 2) != 0);
            texts[2] = std::make_unique<counted_text_t>(*texts[1], (ours & 4) != 0);
            texts[order[0]].reset();
            EXPECT_TRUE(texts[order[1]]->is_whole() && !texts[order[1]]->is_alone());
            texts[order[1]].reset();
            EXPECT_TRUE(texts[order[2]]->is_whole() && texts[order[2]]->is_alone());
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

// All texts of up to seven units over an alphabet with both halves of a pair.
TEST(Search, AgreesWithIcu)
{
    const std::u16string alphabet = u"ab\xD83D\xDE00";
    const std::vector<std::u16string> needles = {u"a",
                                                 u"b",
                                                 u"\xD83D",
                                                 u"\xDE00",
                                                 u"ab",
                                                 u"aa",
                                                 u"ba",
                                                 u"\xDE00"
                                                 u"a",
                                                 u"a\xD83D",
                                                 u"\xD83D\xDE00",
                                                 u"aba",
                                                 u"\xDE00\xD83D",
                                                 u"aab\xD83D\xDE00",
                                                 u"b\U0001F600b"};
    for (unsigned int letters = 0; letters < 1u << 14; ++letters) {
        std::u16string text(letters % 67, u'-');
        for (unsigned int i = 0; i < 7; ++i)
            text += alphabet[letters >> (2 * i) & 3];
        text.append(letters % 5, u'-');
        const icu::UnicodeString hay = plain(text);
        for (const std::u16string& needle : needles) {
            ASSERT_EQ(find_text(text, needle), wanted_position(hay.indexOf(plain(needle))));
            if (needle.size() == 1) {
                ASSERT_EQ(find_whole_unit(text, needle[0]),
                          wanted_position(hay.indexOf(needle[0])));
            }
        }
    }
}

std::vector<std::uint32_t> matches_by_icu(const std::u16string& text, const std::u16string& needle)
{
    const icu::UnicodeString hay = plain(text);
    const icu::UnicodeString wanted = plain(needle);
    std::vector<std::uint32_t> places;
    for (int at = hay.indexOf(wanted, 0); at >= 0; at = hay.indexOf(wanted, at + wanted.length()))
        places.push_back(static_cast<std::uint32_t>(at));
    return places;
}

std::vector<std::uint32_t> matches(const std::u16string& text, const std::u16string& needle)
{
    std::vector<std::uint32_t> places(text.size() + 1);
    places.resize(find_matches(text, needle, places));
    return places;
}

// Texts in which so much of the needle stands so often that it is searched the other way after a
// few hundred places. Some of their places cut a pair, and some are matches.
TEST(Search, AgreesWithIcuWhereMuchOfTheNeedleStandsNearlyEverywhere)
{
    const std::u16string alphabet = u"ab\xD83D\xDE00";
    std::minstd_rand random(3);
    const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random()) % n; };
    for (int round = 0; round < 1'000; ++round) {
        std::u16string word;
        for (std::size_t length = 1 + below(4); length > 0; --length)
            word += alphabet[below(alphabet.size())];
        std::u16string text;
        while (text.size() < 3'000)
            text += word;
        std::u16string needle = text.substr(below(word.size()), 33 + below(500));
        if (round % 3 != 0)
            needle[below(needle.size())] = alphabet[below(alphabet.size())];
        for (std::size_t flaws = below(4); flaws > 0; --flaws)
            text[below(text.size())] = alphabet[below(alphabet.size())];
        text.insert(below(text.size()), needle);
        text.insert(text.size() - below(700), needle);
        ASSERT_EQ(matches(text, needle), matches_by_icu(text, needle));
    }
}

// Wherever the search is changed, no place is left out.
TEST(Search, FindsTheNeedleBehindAnyNumberOfPlacesThatNearlyMatch)
{
    const std::u16string needle = std::u16string(150, u'a') + u'b' + std::u16string(150, u'a');
    for (std::size_t place = 0; place < 2'000; ++place) {
        const std::u16string text = std::u16string(place, u'a') + needle + u"bbbbbbbb";
        ASSERT_EQ(find_text(text, needle), place);
    }
}

// One place after the other, this would take minutes.
TEST(Search, TakesNoLongerForTheLengthOfTheNeedle)
{
    constexpr std::size_t LENGTH = std::size_t{8} << 20;
    const std::u16string same(LENGTH, u'a');
    const std::u16string half = same.substr(LENGTH / 2);
    const std::u16string quarter = half.substr(LENGTH / 4);
    std::u16string pairs;
    while (pairs.size() < LENGTH)
        pairs += u"\U0001F600";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(find_text(same, quarter + u"b" + quarter), NOT_FOUND);
    EXPECT_EQ(find_text(same + u"b" + half, quarter + u"b" + quarter), LENGTH - LENGTH / 4);
    EXPECT_EQ(find_text(pairs, std::u16string_view(pairs).substr(1, LENGTH / 2)), NOT_FOUND);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

/// Where the needle stands, over the place before too or only behind it.
std::vector<std::size_t> places_two_ways(const std::u16string& text, const std::u16string& needle,
                                         std::size_t from, bool may_overlap)
{
    std::vector<std::size_t> places;
    TwoWay search(text, needle, from);
    for (auto at = search.next(); at != NOT_FOUND; at = search.next()) {
        places.push_back(at);
        if (!may_overlap)
            search.go_to(at + needle.size());
    }
    return places;
}

// All texts of up to ten and all needles of up to six units of two.
TEST(TwoWay, FindsEveryPlaceOfEveryNeedle)
{
    const auto letters = [](unsigned int bits) {
        std::u16string text;
        for (; bits > 1; bits >>= 1)
            text += static_cast<char16_t>(u'a' + (bits & 1));
        return text;
    };
    for (unsigned int hay = 1; hay < 1u << 11; ++hay)
        for (unsigned int wanted = 2; wanted < 1u << 7; ++wanted)
            for (const bool may_overlap : {false, true}) {
                const std::u16string text = letters(hay);
                const std::u16string needle = letters(wanted);
                const std::size_t from = std::min<std::size_t>(hay % 3, text.size());
                std::vector<std::size_t> expected;
                for (auto at = text.find(needle, from); at != NOT_FOUND;) {
                    expected.push_back(at);
                    at = text.find(needle, at + (may_overlap ? 1 : needle.size()));
                }
                ASSERT_EQ(places_two_ways(text, needle, from, may_overlap), expected);
            }
}

TEST(Search, OfASetAgreesWithTheStandardLibrary)
{
    std::mt19937 random(2);
    for (int round = 0; round < 2'000; ++round) {
        std::u16string text;
        std::u16string set;
        const unsigned int alphabet = round % 2 == 0 ? 200 : 0x10000;
        for (std::size_t length = random() % 60; length > 0; --length)
            text += static_cast<char16_t>(random() % alphabet);
        for (std::size_t length = random() % 40; length > 0; --length)
            set += static_cast<char16_t>(random() % alphabet);
        ASSERT_EQ(find_unit_of(text, set), text.find_first_of(set));
    }
}

// Every two texts of up to nine units from two, of which one is the greater by its low byte only.
TEST(Order, AgreesWithTheStandardLibrary)
{
    std::vector<std::u16string> texts = {u""};
    for (std::size_t i = 0; texts.back().size() < 9; ++i)
        for (const char16_t unit : {u'\x100', u'\xFF'})
            texts.push_back(texts[i] + unit);
    for (const std::u16string_view a : texts)
        for (const std::u16string_view b : texts) {
            const int expected = a.compare(b);
            if (order_of_units(a, b) != (expected > 0) - (expected < 0))
                ADD_FAILURE() << a.size() << " and " << b.size() << " units";
        }
}

}  // namespace
