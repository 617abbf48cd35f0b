#include <kvutil/oid.h>
#include <kvutil/stpexception.h>
#include <kvutil/uuid.h>

#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/oid_literal.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gtest/gtest.h>
#include <uuid.h>

#include <array>
#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

namespace {

using Kvl::IllegalArgException;
using Kvl::Oid;
using Kvl::UString;
using Kvl::Utf8String;
using Kvl::Uuid;
using namespace std::string_literals;

// Every byte is another one, so that none can stand in for its neighbour.
const tbs_uuid_s SAMPLE = {0x01234567, 0x89AB, 0xCDEF,
                           0xFE,       0xDC,   {0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
const char DOTTED[] = "01234567.89abcdef.fedc.ba:98:76:54:32:10";
const char HYPHENATED[] = "01234567-89ab-cdef-fedc-ba9876543210";
const char COMPACT[] = "0123456789abcdeffedcba9876543210";

using bytes_t = std::array<unsigned char, 16>;

template <class Record>
bytes_t bytes_of(const Record& record)
{
    static_assert(sizeof record == 16);
    bytes_t bytes;
    std::memcpy(bytes.data(), &record, bytes.size());
    return bytes;
}

tbs_uuid_s record_of(const bytes_t& bytes)
{
    tbs_uuid_s record;
    std::memcpy(&record, bytes.data(), bytes.size());
    return record;
}

// ---- Layout and conversions ----

static_assert(std::is_standard_layout_v<tbs_uuid_s> && std::is_trivial_v<tbs_uuid_s>);
static_assert(std::is_trivially_copyable_v<Uuid> && std::is_trivially_copyable_v<Oid>);
static_assert(sizeof(Uuid) == 16 && sizeof(Oid) == 16 && sizeof(Oid::bits) == 16);
static_assert(offsetof(tbs_uuid_s, time_low) == 0 && offsetof(tbs_uuid_s, time_mid) == 4 &&
              offsetof(tbs_uuid_s, time_hi_and_version) == 6 &&
              offsetof(tbs_uuid_s, clock_seq_hi_and_reserved) == 8 &&
              offsetof(tbs_uuid_s, clock_seq_low) == 9 && offsetof(tbs_uuid_s, node) == 10);
static_assert(offsetof(tbs_oid_s, time_low) == 0 && offsetof(tbs_oid_s, time_mid) == 4 &&
              offsetof(tbs_oid_s, time_hi_and_version) == 6 &&
              offsetof(tbs_oid_s, clock_seq_hi_and_reserved) == 8 &&
              offsetof(tbs_oid_s, clock_seq_low) == 9 && offsetof(tbs_oid_s, node) == 10);
static_assert(std::is_nothrow_constructible_v<Uuid, tbs_oid_s> &&
              std::is_nothrow_constructible_v<Uuid, Oid> &&
              std::is_nothrow_constructible_v<Oid, Uuid>&& noexcept(Oid() < Oid()) && noexcept(
                  Oid() == Oid()) && noexcept(Oid().hash()) && noexcept(Oid().uuid()));
static_assert(!std::is_convertible_v<Oid, Uuid>, "a Uuid from an Oid is asked for");
static_assert(std::is_convertible_v<Uuid, Oid> && std::is_constructible_v<Uuid, Oid>);

TEST(UuidLayout, IsThatOfTheRecordInHostOrder)
{
    const bytes_t expected = {0x67, 0x45, 0x23, 0x01, 0xAB, 0x89, 0xEF, 0xCD,
                              0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
    EXPECT_EQ(bytes_of(SAMPLE), expected);
    EXPECT_EQ(bytes_of(Uuid(SAMPLE)), expected);
    EXPECT_EQ(bytes_of(Oid(SAMPLE)), expected);
    EXPECT_EQ(bytes_of(Oid(SAMPLE).words()), expected);
}

TEST(OidWords, AreMadeOfTheFields)
{
    const Oid oid{Uuid(SAMPLE)};
    const Oid::bits& words = oid.words();
    EXPECT_EQ(words.w0, 0x01234567u);
    EXPECT_EQ(words.w1, 0xCDEF89ABu);
    EXPECT_EQ(words.w2, 0x98BADCFEu);
    EXPECT_EQ(words.w3, 0x10325476u);
}

TEST(OidWords, AreHandedOutByReference)
{
    const Oid oid(SAMPLE);
    EXPECT_EQ(&oid.words(), &oid.words());
}

TEST(OidConversions, KeepAllSixteenBytes)
{
    std::mt19937 random(1);
    for (int i = 0; i < 1000; ++i) {
        bytes_t bytes;
        for (unsigned char& byte : bytes)
            byte = static_cast<unsigned char>(random());
        const tbs_uuid_s uuid_record = record_of(bytes);
        const Uuid uuid(uuid_record);
        const tbs_oid_s oid_record = uuid;
        EXPECT_EQ(bytes_of(static_cast<tbs_uuid_s>(uuid)), bytes);
        EXPECT_EQ(bytes_of(oid_record), bytes);
        EXPECT_EQ(Uuid(oid_record), uuid);
        const Oid oid(uuid);
        EXPECT_EQ(oid.uuid(), uuid);
        EXPECT_EQ(Uuid(oid), uuid);
        EXPECT_EQ(Oid(oid_record), oid);
        EXPECT_EQ(Oid(uuid_record), oid);
        EXPECT_EQ(Oid(oid.words()), oid);
        EXPECT_EQ(bytes_of(static_cast<tbs_uuid_s>(oid)), bytes);
        EXPECT_EQ(bytes_of(static_cast<tbs_oid_s>(oid)), bytes);
        Oid assigned;
        Oid& result = assigned = oid.words();
        EXPECT_EQ(&result, &assigned);
        EXPECT_EQ(assigned, oid);
    }
}

TEST(OidNil, IsTheDefaultAndNothingElse)
{
    EXPECT_TRUE(Uuid().is_nil());
    EXPECT_TRUE(Oid().is_nil());
    EXPECT_EQ(bytes_of(Uuid()), bytes_t{});
    EXPECT_EQ(Oid(Uuid()), Oid());
    for (std::size_t i = 0; i < 16; ++i) {
        bytes_t bytes{};
        bytes[i] = 0x10;
        EXPECT_FALSE(Uuid(record_of(bytes)).is_nil()) << "byte " << i;
        EXPECT_FALSE(Oid(record_of(bytes)).is_nil()) << "byte " << i;
    }
}

// ---- Comparison ----

TEST(OidEquality, NeedsEveryByte)
{
    EXPECT_TRUE(Uuid(SAMPLE) == Uuid(SAMPLE));
    EXPECT_FALSE(Uuid(SAMPLE) != Uuid(SAMPLE));
    EXPECT_TRUE(Oid(SAMPLE) == Oid(SAMPLE));
    EXPECT_FALSE(Oid(SAMPLE) != Oid(SAMPLE));
    for (std::size_t i = 0; i < 16; ++i) {
        bytes_t bytes = bytes_of(SAMPLE);
        bytes[i] ^= 1;
        const tbs_uuid_s other = record_of(bytes);
        EXPECT_FALSE(Uuid(SAMPLE) == Uuid(other)) << "byte " << i;
        EXPECT_TRUE(Uuid(SAMPLE) != Uuid(other)) << "byte " << i;
        EXPECT_FALSE(Oid(SAMPLE) == Oid(other)) << "byte " << i;
        EXPECT_TRUE(Oid(SAMPLE) != Oid(other)) << "byte " << i;
    }
}

void expect_less(const Oid& smaller, const Oid& greater)
{
    EXPECT_TRUE(smaller < greater) << smaller.std_str(false) << ' ' << greater.std_str(false);
    EXPECT_FALSE(greater < smaller) << smaller.std_str(false) << ' ' << greater.std_str(false);
}

TEST(OidOrder, ComparesUnsignedWordsTheFirstOneFirst)
{
    expect_less(Oid::bits{1, 9, 9, 9}, Oid::bits{2, 0, 0, 0});
    expect_less(Oid::bits{1, 1, 9, 9}, Oid::bits{1, 2, 0, 0});
    expect_less(Oid::bits{1, 1, 1, 9}, Oid::bits{1, 1, 2, 0});
    expect_less(Oid::bits{1, 1, 1, 1}, Oid::bits{1, 1, 1, 2});
    expect_less(Oid::bits{0x7FFFFFFF, 0, 0, 0}, Oid::bits{0x80000000, 0, 0, 0});
    expect_less(Oid::bits{0, 0x7FFFFFFF, 0, 0}, Oid::bits{0, 0x80000000, 0, 0});
    expect_less(Oid::bits{0, 0, 0x7FFFFFFF, 0}, Oid::bits{0, 0, 0x80000000, 0});
    expect_less(Oid::bits{0, 0, 0, 0x7FFFFFFF}, Oid::bits{0, 0, 0, 0x80000000});
    EXPECT_FALSE(Oid(SAMPLE) < Oid(SAMPLE));
}

TEST(OidOrder, PutsTheHighTimeBeforeTheMiddleTime)
{
    const tbs_uuid_s base = {5, 7, 7, 0, 0, {}};
    tbs_uuid_s mid_greater = base;
    mid_greater.time_mid = 8;
    expect_less(base, mid_greater);
    tbs_uuid_s high_greater = base;
    high_greater.time_hi_and_version = 8;
    high_greater.time_mid = 6;
    expect_less(base, high_greater);
    expect_less(mid_greater, high_greater);
}

// In each of the last two words the byte at the highest address counts most.
TEST(OidOrder, ComparesTheLastBytesFromTheRight)
{
    for (const std::size_t word : {8u, 12u})
        for (std::size_t i = 0; i < 3; ++i) {
            bytes_t smaller{};
            bytes_t greater{};
            smaller[word + i] = 0xFF;
            greater[word + i + 1] = 1;
            expect_less(record_of(smaller), record_of(greater));
        }
}

// "00000000.00000001..." comes before "00000000.00010000..." as a text, but not as a key.
TEST(OidOrder, IsNotThatOfTheTexts)
{
    const Oid one = Oid::from_string("00000000.00000001.0000.00:00:00:00:00:00");
    const Oid other = Oid::from_string("00000000.00010000.0000.00:00:00:00:00:00");
    ASSERT_LT(one.std_str(false), other.std_str(false));
    expect_less(other, one);
}

TEST(OidHash, IsTheExclusiveOrOfTheWords)
{
    EXPECT_EQ(Oid().hash(), 0u);
    EXPECT_EQ(Oid(SAMPLE).hash(), 0x01234567u ^ 0xCDEF89ABu ^ 0x98BADCFEu ^ 0x10325476u);
    EXPECT_EQ(Oid(Oid::bits{1, 2, 4, 8}).hash(), 15u);
    EXPECT_EQ(std::hash<Oid>()(Oid(SAMPLE)), Oid(SAMPLE).hash());
}

TEST(Oid, IsAKey)
{
    const std::set<Oid> ordered = {Oid(SAMPLE), Oid(), Oid(SAMPLE)};
    const std::unordered_set<Oid> hashed(ordered.begin(), ordered.end());
    EXPECT_EQ(ordered.size(), 2u);
    EXPECT_EQ(hashed.count(Oid(SAMPLE)), 1u);
}

// ---- Text out ----

TEST(OidText, IsDottedOrCompact)
{
    EXPECT_EQ(Uuid(SAMPLE).std_str(false), DOTTED);
    EXPECT_EQ(Uuid(SAMPLE).std_str(true), COMPACT);
    EXPECT_EQ(Uuid(SAMPLE).str(false), ustr(DOTTED));
    EXPECT_EQ(Uuid(SAMPLE).str(true), ustr(COMPACT));
    EXPECT_EQ(Oid(SAMPLE).std_str(false), DOTTED);
    EXPECT_EQ(Oid(SAMPLE).std_str(true), COMPACT);
    EXPECT_EQ(Oid(SAMPLE).str(false), ustr(DOTTED));
    EXPECT_EQ(Oid(SAMPLE).str(true), ustr(COMPACT));
}

TEST(OidText, OfNilIsAllZeros)
{
    EXPECT_EQ(Uuid().std_str(true), std::string(32, '0'));
    EXPECT_EQ(Uuid().std_str(false), "00000000.00000000.0000.00:00:00:00:00:00");
}

TEST(OidText, HasEveryByteAtEveryPlaceAsPrintfWritesIt)
{
    for (std::size_t place = 0; place < 16; ++place)
        for (unsigned int value = 0; value < 256; ++value) {
            bytes_t bytes{};
            bytes[place] = static_cast<unsigned char>(value);
            const tbs_uuid_s record = record_of(bytes);
            EXPECT_EQ(Uuid(record).std_str(false), literal::uuid_text(record, false));
            EXPECT_EQ(Uuid(record).std_str(true), literal::uuid_text(record, true));
        }
}

TEST(OidText, HyphenatedIsReadAsLibuuidWritesIt)
{
    std::mt19937 random(2);
    for (int i = 0; i < 1000; ++i) {
        uuid_t standard;
        for (unsigned char& byte : standard)
            byte = static_cast<unsigned char>(random());
        char text[37];
        uuid_unparse_lower(standard, text);
        const Uuid uuid = Uuid::from_string(text);
        uuid_unparse_upper(standard, text);
        EXPECT_EQ(Uuid::from_string(text), uuid);
        // Without separators, both write the bytes in the same order.
        std::string digits(text);
        std::erase(digits, '-');
        EXPECT_EQ(Uuid::from_string(digits), uuid);
    }
}

TEST(OidText, ComesBackInEveryForm)
{
    EXPECT_EQ(Uuid::from_string(DOTTED), Uuid(SAMPLE));
    EXPECT_EQ(Uuid::from_string(HYPHENATED), Uuid(SAMPLE));
    EXPECT_EQ(Uuid::from_string(COMPACT), Uuid(SAMPLE));
    EXPECT_EQ(Oid::from_string(std::string(DOTTED)), Oid(SAMPLE));
    EXPECT_EQ(Oid::from_string(ustr(DOTTED)), Oid(SAMPLE));
    EXPECT_EQ(Oid::from_string(ustr(HYPHENATED)), Oid(SAMPLE));
    EXPECT_EQ(Oid::from_string(ustr(COMPACT)), Oid(SAMPLE));
    EXPECT_EQ(Uuid::from_string("01234567.89ABCDEF.FEDC.BA:98:76:54:32:10"), Uuid(SAMPLE));
}

// ---- Text in, against sscanf() ----

std::optional<tbs_uuid_s> parsed(const std::string& text)
{
    try {
        return Uuid::from_string(text);
    } catch (const IllegalArgException&) {
        return std::nullopt;
    }
}

/// @return  whether the text is accepted
bool agrees_with_sscanf(const std::string& text)
{
    const auto expected = literal::scan_uuid(text);
    const auto actual = parsed(text);
    EXPECT_EQ(actual.has_value(), expected.has_value()) << testing::PrintToString(text);
    if (actual && expected) {
        EXPECT_EQ(bytes_of(*actual), bytes_of(*expected)) << testing::PrintToString(text);
    }
    return expected.has_value();
}

/// Texts that are nearly one of the forms, the same ones in every run.
class near_misses_t {
public:
    std::string next()
    {
        std::string text = chance(2) ? loose_form() : strict_form();
        for (unsigned int edits = random_() % 4; edits > 0; --edits)
            edit(text);
        return text;
    }

private:
    bool chance(unsigned int one_in) { return random_() % one_in == 0; }

    char any_of(const std::string& characters) { return characters[random_() % characters.size()]; }

    std::string digits(std::size_t count)
    {
        std::string result;
        while (result.size() < count)
            result += any_of("0123456789abcdefABCDEF00");
        return result;
    }

    std::string blanks()
    {
        std::string result;
        do
            result += any_of(" \t\n\v\f\r");
        while (chance(4));
        return result;
    }

    std::string loose_field(std::size_t width)
    {
        std::string field;
        if (chance(6))
            field += blanks();
        if (chance(5))
            field += any_of("+-");
        if (chance(5))
            field += chance(2) ? "0x" : "0X";
        field += digits(chance(3) ? random_() % (width + 2) : width);
        return field;
    }

    std::string loose_form()
    {
        static const std::size_t WIDTHS[] = {8, 4, 4, 2, 2, 2, 2, 2, 2, 2, 2};
        static const std::string SEPARATORS[] = {". . .:::::", "--- -     ", "          "};
        const std::string& separators = SEPARATORS[random_() % 3];
        std::string text;
        for (std::size_t i = 0; i < 11; ++i) {
            if (i > 0 && separators[i - 1] != ' ')
                text += separators[i - 1];
            text += chance(3) ? loose_field(WIDTHS[i]) : digits(WIDTHS[i]);
        }
        return text;
    }

    std::string strict_form()
    {
        static const std::string FORMS[] = {DOTTED, HYPHENATED, COMPACT};
        std::string text = FORMS[random_() % 3];
        for (char& c : text)
            if (c != '.' && c != '-' && c != ':')
                c = digits(1)[0];
        return text;
    }

    void edit(std::string& text)
    {
        static const std::string CHARACTERS = "0123fFxX+-.:gG_ \t\n\v\f\r\0\x7F\x80\xA0\xFF"s;
        const std::size_t at = random_() % (text.size() + 1);
        switch (random_() % 6) {
        case 0:
            text.insert(at, 1, any_of(CHARACTERS));
            break;
        case 1:
            text.insert(at, "0x");
            break;
        case 2:
            text.erase(at, 1);
            break;
        case 3:
            text.replace(at, 1, 1, any_of(CHARACTERS));
            break;
        case 4:
            text += any_of(CHARACTERS);
            break;
        default:
            text.resize(chance(4) ? at : text.size());
            break;
        }
    }

    std::mt19937 random_{20261121};
};

TEST(OidTextIn, IsAsLenientAsSscanf)
{
    near_misses_t near_misses;
    int accepted = 0;
    constexpr int COUNT = 200'000 / ONE_IN;
    for (int i = 0; i < COUNT && !HasFailure(); ++i)
        accepted += agrees_with_sscanf(near_misses.next()) ? 1 : 0;
    EXPECT_GT(accepted, COUNT / 10);
    EXPECT_LT(accepted, COUNT * 9 / 10);
}

std::optional<tbs_uuid_s> parsed(const UString& text)
{
    try {
        return Oid::from_string(text);
    } catch (const IllegalArgException&) {
        return std::nullopt;
    }
}

// A text in UTF-16 is read without its conversion to UTF-8 where it has a form and nothing else.
TEST(OidTextIn, InUtf16IsWhatItIsInUtf8)
{
    near_misses_t near_misses;
    std::mt19937 random(7);
    const std::u16string others = u"\u0100\u0200\u3030\U0001D7D8"s + char16_t{0xDC30};
    int accepted = 0;
    constexpr int COUNT = 100'000 / ONE_IN;
    for (int i = 0; i < COUNT && !HasFailure(); ++i) {
        const std::string bytes = near_misses.next();
        std::u16string units(bytes.begin(), bytes.end());
        if (!units.empty() && random() % 4 == 0)  // the low byte of some is a digit's
            units[random() % units.size()] += others[random() % others.size()];
        const UString text(units);
        const auto expected = parsed(text.utf8_str());
        const auto actual = parsed(text);
        ASSERT_EQ(actual.has_value(), expected.has_value()) << testing::PrintToString(text);
        if (expected) {
            ASSERT_EQ(bytes_of(*actual), bytes_of(*expected)) << testing::PrintToString(text);
            ++accepted;
        }
    }
    EXPECT_GT(accepted, COUNT / 10);
    EXPECT_LT(accepted, COUNT * 9 / 10);
}

TEST(OidTextIn, InUtf16IsNothingWithAnUnpairedSurrogateBehindIt)
{
    for (const char* const form : {DOTTED, HYPHENATED, COMPACT}) {
        UString text = ustr(form);
        EXPECT_TRUE(parsed(text));
        text.append(static_cast<unsigned short>(0xD800));
        EXPECT_FALSE(parsed(text)) << form;
    }
}

// Every text of up to five characters from those that matter, as the start of a form and as its
// end.
TEST(OidTextIn, AgreesWithSscanfOnEveryShortField)
{
    const std::string characters = "0xf+- .\0"s;
    for (int length = 0; length <= 5; ++length)
        for (int number = 0; number < 1 << 3 * length && !HasFailure(); ++number) {
            std::string field;
            for (int i = 0; i < length; ++i)
                field += characters[static_cast<std::size_t>(number >> 3 * i & 7)];
            agrees_with_sscanf(field + std::string(DOTTED + 8));
            agrees_with_sscanf(std::string(HYPHENATED).substr(0, 34) + field);
        }
}

struct lenient_t {
    std::string text;
    std::string dotted;
};

TEST(OidTextIn, AcceptsMoreThanItWrites)
{
    const lenient_t ROWS[] = {
        // Text after the last field.
        {std::string(DOTTED) + "xyz", DOTTED},
        {std::string(HYPHENATED) + "}", DOTTED},
        {std::string(COMPACT) + "0", DOTTED},
        // Short fields.
        {"1.2 3.4 5.6:7:8:9:a:b", "00000001.00020003.0405.06:07:08:09:0a:0b"},
        {"1-2-3-4 5-6 7 8 9 a b", "00000001.00020003.0405.06:07:08:09:0a:0b"},
        {"1 2 3 4 5 6 7 8 9 a b", "00000001.00020003.0405.06:07:08:09:0a:0b"},
        // "0x" counts for the width; alone it is 0.
        {"0x1.0x02 0X3.4 5.6:7:8:9:a:b", "00000001.00020003.0405.06:07:08:09:0a:0b"},
        {"0x.2 3.4 5.6:7:8:9:a:b", "00000000.00020003.0405.06:07:08:09:0a:0b"},
        // A sign counts for the width; a negative number counts from the top.
        {"-1.-2 +3.-4-5.6:7:8:9:a:-b", "ffffffff.fffe0003.fcfb.06:07:08:09:0a:f5"},
        // Every blank of the C locale.
        {" \t\n\v\f\r1. 2 3.\v4\f5.\n6:\r7:8:9:a:b", "00000001.00020003.0405.06:07:08:09:0a:0b"},
        // Two digits short, the hyphenated form is a compact one with signs.
        {"01234567-89ab-cdef-fedc-ba98765432", "01234567.f766000b.f4de.0f:f1:ed:0c:f5:a9"},
        // A zero byte ends the text.
        {std::string(DOTTED) + std::string(1, '\0') + "xyz", DOTTED},
    };
    for (const lenient_t& row : ROWS) {
        EXPECT_TRUE(agrees_with_sscanf(row.text));
        EXPECT_EQ(Uuid::from_string(row.text).std_str(false), row.dotted);
    }
}

TEST(OidTextIn, TakesTheFirstFormThatFits)
{
    // As hyphenated it lacks separators; as compact, the second field is -2.
    EXPECT_EQ(Uuid::from_string("00000001-002000304050607080900a0b").std_str(true),
              "00000001fffe000304050607080900a0");
    EXPECT_TRUE(agrees_with_sscanf("00000001-002000304050607080900a0b"));
}

/// A locale of ISO-8859-1 in which 0xA0 is a blank, made for the test, while it lives.
class locale_with_blank_t {
public:
    locale_with_blank_t()
    {
        std::string dir = (std::filesystem::temp_directory_path() / "oid_test.XXXXXX").string();
        if (mkdtemp(dir.data()) == nullptr)
            throw std::runtime_error("no directory");
        dir_ = dir;
        std::ofstream(dir_ / "source") << "LC_CTYPE\n"
                                          "upper <U0041>..<U005A>\n"
                                          "lower <U0061>..<U007A>\n"
                                          "space <U0009>..<U000D>;<U0020>;<U00A0>\n"
                                          "END LC_CTYPE\n";
        const std::string command = "localedef --no-archive -c -i '" + dir +
                                    "/source' -f ISO-8859-1 '" + dir + "/blank' 2>/dev/null";
        setenv("LOCPATH", dir.c_str(), 1);
        is_set = std::system(command.c_str()) != -1 && std::setlocale(LC_ALL, "blank") != nullptr;
    }
    ~locale_with_blank_t()
    {
        std::setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
        std::filesystem::remove_all(dir_);
    }
    locale_with_blank_t(const locale_with_blank_t&) = delete;
    locale_with_blank_t& operator=(const locale_with_blank_t&) = delete;

    bool is_set = false;

private:
    std::filesystem::path dir_;
};

TEST(OidTextIn, TakesOneMegabyteOfBlanks)
{
    const std::string blanks(1 << 20, ' ');
    EXPECT_EQ(Uuid::from_string(blanks + DOTTED), Uuid(SAMPLE));
    EXPECT_FALSE(parsed(blanks));
}

TEST(OidTextIn, IsTheSameInEveryLocale)
{
    const locale_with_blank_t locale;
    if (!locale.is_set)
        GTEST_SKIP() << "localedef or the locale sources are not installed";
    ASSERT_TRUE(literal::scan_uuid("\xA0" + std::string(DOTTED)));
    EXPECT_FALSE(parsed("\xA0" + std::string(DOTTED)));
    EXPECT_EQ(Uuid(SAMPLE).std_str(false), DOTTED);
}

// ---- Rejection ----

const std::string REJECTED[] = {
    "xyz",
    "",
    " ",
    "01234567",
    "01234567.89abcdef.fedc.ba:98:76:54:32",
    "01234567.89abcdef.fedc.ba:98:76:54:32:",
    "01234567.89abcdef.fedc.ba:98:76:54:32:x",
    "01234567.89abcdef.fedc.ba:98:76:54 :32:10",  // blanks are skipped before fields only
    "0123456789abcdeffedcba98765432",
    "{01234567-89ab-cdef-fedc-ba9876543210}",
    "01234567.89abcdef.fedc.ba:98:76:54:32:-",  // a sign alone is no number
};

TEST(OidTextIn, RejectsWhatHasNoneOfTheForms)
{
    for (const std::string& text : REJECTED) {
        EXPECT_FALSE(agrees_with_sscanf(text));
        try {
            Uuid::from_string(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const IllegalArgException& e) {
            EXPECT_EQ(e.stp_reason_code(), 39);
            EXPECT_EQ(e.resource(), nullptr);
            EXPECT_TRUE(e.causes().empty());
            EXPECT_EQ(rendered(e), "PLXSV0657E Invalid Oid/Uuid format for arg: '" + text +
                                       "' with value: '" + text + "'");
        }
    }
}

TEST(OidTextIn, RejectsThroughEveryOperation)
{
    const std::string expected =
        "PLXSV0657E Invalid Oid/Uuid format for arg: 'zä😀' with value: 'zä😀'";
    const auto expect_rejection = [&](auto operation) {
        try {
            operation();
            ADD_FAILURE() << "accepted";
        } catch (const IllegalArgException& e) {
            EXPECT_EQ(rendered(e), expected);
        }
    };
    expect_rejection([] { Uuid::from_string("zä😀"); });
    expect_rejection([] { Oid::from_string(std::string("zä😀")); });
    expect_rejection([] { Oid::from_string(ustr("zä😀")); });
}

// A message with a narrow argument that is not UTF-8 has no text, and the first one is the bytes.
TEST(OidTextIn, ShowsNothingOfMalformedBytes)
{
    try {
        Uuid::from_string("z\xFF");
        FAIL() << "accepted";
    } catch (const IllegalArgException& e) {
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(rendered(e), "");
    }
}

TEST(OidTextIn, ShowsAnEmptyTextForUnpairedSurrogates)
{
    try {
        Oid::from_string(UString(std::u16string(1, u'\xD800') + u"0"));
        FAIL() << "accepted";
    } catch (const IllegalArgException& e) {
        EXPECT_EQ(rendered(e), "PLXSV0657E Invalid Oid/Uuid format for arg: '' with value: ''");
    }
}

// ---- Wide streams ----

TEST(OidStream, WritesTheDottedForm)
{
    std::wostringstream os;
    os << Oid(SAMPLE) << L' ' << Oid();
    EXPECT_EQ(os.str(), L"01234567.89abcdef.fedc.ba:98:76:54:32:10 "
                        L"00000000.00000000.0000.00:00:00:00:00:00");
}

TEST(OidStream, WritesOneField)
{
    std::wostringstream os;
    os << std::setw(42) << std::setfill(L'_') << Oid(SAMPLE);
    EXPECT_EQ(os.str(), L"__01234567.89abcdef.fedc.ba:98:76:54:32:10");
}

TEST(OidStream, ReadsWordAfterWord)
{
    std::wistringstream is(L"  01234567.89abcdef.fedc.ba:98:76:54:32:10\n"
                           L"01234567-89ab-cdef-fedc-ba9876543210\t"
                           L"0123456789abcdeffedcba9876543210rest x");
    for (int i = 0; i < 3; ++i) {
        Oid oid;
        EXPECT_TRUE(is >> oid);
        EXPECT_EQ(oid, Oid(SAMPLE));
    }
    EXPECT_EQ(is.get(), L' ');
}

// Reading the last word meets the end of the input, which is no failure.
TEST(OidStream, ReadsAWordThatEndsWithTheInput)
{
    std::wistringstream is(L"01234567.89abcdef.fedc.ba:98:76:54:32:10");
    Oid oid;
    is >> oid;
    EXPECT_TRUE(is.eof());
    EXPECT_FALSE(is.fail());
    EXPECT_EQ(oid, Oid(SAMPLE));
    is >> oid;
    EXPECT_TRUE(is.fail());
    EXPECT_EQ(oid, Oid(SAMPLE));
}

TEST(OidStream, SetsFailbitAndKeepsTheValueForAnotherText)
{
    for (const std::wstring text : {L"xyz", L"xyz 1", L"\x110000", L"\xD800", L"", L" "}) {
        std::wistringstream is(text);
        Oid oid(SAMPLE);
        is >> oid;
        EXPECT_TRUE(is.fail());
        EXPECT_FALSE(is.bad());
        EXPECT_EQ(oid, Oid(SAMPLE));
    }
}

TEST(OidStream, ThrowsWhatTheStreamIsToldToThrow)
{
    std::wistringstream is(L"xyz");
    is.exceptions(std::ios_base::failbit);
    Oid oid(SAMPLE);
    EXPECT_THROW(is >> oid, std::ios_base::failure);
    EXPECT_EQ(oid, Oid(SAMPLE));
}

TEST(OidStream, ReadsWhatItWrites)
{
    std::wstringstream stream;
    const Oid written = Oid::gen();
    Oid read;
    stream << written;
    stream >> read;
    EXPECT_EQ(read, written);
}

// ---- Without memory, with little stack ----

TEST(OidWithoutMemory, ThrowsBadAlloc)
{
    const Uuid uuid(SAMPLE);
    const auto nothing_to_see = [] {};
    EXPECT_GE(for_each_memory_fault([&] { uuid.std_str(false); }, nothing_to_see), 1);
    EXPECT_GE(for_each_memory_fault([&] { uuid.std_str(true); }, nothing_to_see), 1);
    EXPECT_GE(for_each_memory_fault([&] { uuid.str(false); }, nothing_to_see), 1);
    const std::string rejected(100, 'z');
    EXPECT_GE(for_each_memory_fault(
                  [&] {
                      try {
                          Uuid::from_string(rejected);
                      } catch (const IllegalArgException&) {
                      }
                  },
                  nothing_to_see),
              1);
    const UString text = ustr(std::string(60, ' ') + DOTTED);
    EXPECT_GE(for_each_memory_fault([&] { Oid::from_string(text); }, nothing_to_see), 1);
}

TEST(OidWithoutMemory, StreamInputKeepsTheValue)
{
    for (unsigned long nth = 1;; ++nth) {
        std::wistringstream is(L"00000000.00000000.0000.00:00:00:00:00:01");
        Oid oid(SAMPLE);
        bool struck = false;
        {
            const memory_fault fault(nth);
            try {
                is >> oid;
            } catch (const std::bad_alloc&) {
            }
            struck = fault.struck();
        }
        if (!struck) {
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_EQ(oid, Oid(SAMPLE));
    }
}

TEST(OidText, NeedsLittleStack)
{
    on_small_stack([] {
        EXPECT_EQ(Uuid::from_string(Uuid(SAMPLE).std_str(false)), Uuid(SAMPLE));
        EXPECT_FALSE(parsed(std::string(1 << 20, ' ') + std::string(1 << 20, 'z')));
    });
}

}  // namespace
