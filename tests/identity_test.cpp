#include <kvutil/identity.h>

#include "support/all_texts.h"
#include "support/credentials_failure.h"
#include "support/credentials_model.h"
#include "support/memory_fault.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

using Kvl::Identity;
using Kvl::IllegalArgException;
using Kvl::UString;

namespace {

std::string bits_of(const Identity& identity)
{
    return model::record(identity).substr(3);
}

Identity read(const std::string& text)
{
    return Identity::from_str(ustr(text));
}

/// Bits of which no two neighbours, and no two places 256 apart, are alike.
std::string pattern(std::size_t size)
{
    std::string bits(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bits[i] = static_cast<char>(i * 7 + i / 256);
    return bits;
}

void expect_nobody(const Identity& identity)
{
    EXPECT_TRUE(identity.is_nobody());
    EXPECT_EQ(identity.length(), 0);
    EXPECT_EQ(identity.type(), 0);
    EXPECT_EQ(identity, Identity());
    EXPECT_EQ(identity.str(), ustr("0:00"));
}

// ---- construction ----

TEST(Identity, IsNobodyWithoutABlockByDefault)
{
    const Identity identity;
    expect_nobody(identity);
    EXPECT_EQ(identity.bits(), nullptr);
}

TEST(Identity, AdoptsABlock)
{
    auto* const block = new Identity::identity_t[3]{3, 0x01, 0xab};
    const Identity identity(2, block);
    EXPECT_EQ(identity.length(), 2);
    EXPECT_EQ(identity.type(), 3);
    EXPECT_EQ(identity.bits(), block + 1) << "no copy";
    EXPECT_EQ(identity.str(), ustr("2:0301ab"));
    EXPECT_FALSE(identity.is_nobody());
}

TEST(Identity, WithoutABlockIsNobodyWhateverItsLength)
{
    for (const short length : {short{0}, short{5}, short{-1}}) {
        const Identity identity(length, nullptr);
        expect_nobody(identity);
        EXPECT_EQ(identity.bits(), nullptr);
        expect_nobody(Identity(identity));
    }
}

TEST(Identity, AdoptedLengthsBeyondAShortAreNegative)
{
    const std::string bits = pattern(65535);
    const Identity identity = model::identity(9, bits);
    EXPECT_EQ(identity.length(), -1);
    EXPECT_EQ(bits_of(identity), bits);
    EXPECT_EQ(model::identity(9, pattern(32768)).length(), -32768);
    EXPECT_EQ(model::identity(9, pattern(32767)).length(), 32767);
}

TEST(Identity, CopiesBits)
{
    const char bits[] = {'\x01', '\0', '\xff'};
    const Identity identity(3, Identity::type_t(200), bits);
    EXPECT_EQ(identity.length(), 3);
    EXPECT_EQ(identity.type(), 200);
    EXPECT_EQ(identity.str(), ustr("3:c80100ff"));
    EXPECT_NE(static_cast<const void*>(identity.bits()), bits);
}

TEST(Identity, OfTypeZeroAndWithoutBitsHasNoBlock)
{
    for (const short length : {short{0}, short{-1}, short{-32768}}) {
        const Identity identity(length, Identity::TYPE_0, "bits");
        expect_nobody(identity);
        EXPECT_EQ(identity.bits(), nullptr);
    }
}

TEST(Identity, OfAnotherTypeAndWithoutBitsHasABlock)
{
    for (const short length : {short{0}, short{-1}, short{-32768}}) {
        const Identity identity(length, Identity::type_t(1), "bits");
        EXPECT_EQ(identity.length(), 0);
        EXPECT_EQ(identity.type(), 1);
        EXPECT_NE(identity.bits(), nullptr);
        EXPECT_FALSE(identity.is_nobody());
        EXPECT_EQ(identity.str(), ustr("0:01"));
    }
}

TEST(Identity, OfTypeZeroWithBitsIsSomebody)
{
    const Identity identity(1, Identity::TYPE_0, "\0");
    EXPECT_FALSE(identity.is_nobody());
    EXPECT_EQ(identity.str(), ustr("1:0000"));
}

TEST(Identity, WithNullBitsHasNone)
{
    expect_nobody(Identity(4, Identity::TYPE_0, nullptr));
    EXPECT_EQ(Identity(4, Identity::type_t(2), nullptr).str(), ustr("0:02"));
    EXPECT_EQ(Identity(-4, Identity::type_t(2), nullptr).str(), ustr("0:02"));
}

// ---- comparison ----

TEST(Identity, IsEqualWhenLengthTypeAndBitsAre)
{
    // Each is equal to itself and to nothing else in the list.
    std::vector<Identity> different;
    for (const char* text : {"0:00", "0:01", "0:ff", "1:0000", "1:0001", "1:0100", "2:000000",
                             "2:0301ab", "2:0301ac", "2:0401ab", "3:0301ab00"})
        different.push_back(read(text));
    different.push_back(model::identity(3, std::string(32767, 'a')));
    different.push_back(model::identity(3, std::string(32768, 'a')));
    different.push_back(model::identity(3, std::string(32767, 'a') + "b"));
    different.push_back(model::identity(3, std::string(65535, 'a')));
    different.push_back(model::identity(3, std::string(65534, 'a') + "b"));
    different.push_back(model::identity(4, std::string(65535, 'a')));
    for (std::size_t i = 0; i < different.size(); ++i) {
        for (std::size_t j = 0; j < different.size(); ++j) {
            EXPECT_EQ(different[i] == different[j], i == j) << i << ' ' << j;
            EXPECT_EQ(different[i] != different[j], i != j) << i << ' ' << j;
        }
    }
}

TEST(Identity, NobodyIsEqualWithAndWithoutABlock)
{
    const Identity with_block = read("0:00");
    EXPECT_NE(with_block.bits(), nullptr);
    expect_nobody(with_block);
    EXPECT_EQ(Identity(), with_block);
    EXPECT_NE(Identity(), read("0:01"));
    EXPECT_NE(Identity(), read("1:0000"));
}

// ---- copies ----

TEST(Identity, CopiesAreDeep)
{
    const std::string bits = pattern(65535);
    for (const std::size_t size : {0u, 1u, 2u, 32767u, 32768u, 65535u}) {
        Identity original = model::identity(5, bits.substr(0, size));
        const Identity copy(original);
        EXPECT_NE(copy.bits(), original.bits());
        EXPECT_TRUE(copy == original);
        original = Identity();
        EXPECT_EQ(bits_of(copy), bits.substr(0, size));
        EXPECT_EQ(copy.type(), 5);
    }
}

TEST(Identity, CopiedWithoutABlockHasNone)
{
    EXPECT_EQ(Identity(Identity()).bits(), nullptr);
    Identity target = read("2:0301ab");
    target = Identity();
    expect_nobody(target);
    const Identity nobody;
    target = read("2:0301ab");
    target = nobody;
    expect_nobody(target);
    EXPECT_EQ(target.bits(), nullptr);
}

// Over each other in all pairs of lengths, and then once more, when the block may be larger than
// the length says.
TEST(Identity, CanBeAssignedOverEveryOther)
{
    std::vector<Identity> values{Identity()};
    for (const std::size_t size : {0u, 1u, 2u, 3u, 100u, 32767u, 32768u, 65534u, 65535u})
        values.push_back(model::identity(static_cast<unsigned char>(size), pattern(size)));
    for (const Identity& first : values) {
        for (const Identity& second : values) {
            for (const Identity& third : values) {
                Identity target(first);
                Identity& result = target = second;
                EXPECT_EQ(&result, &target);
                ASSERT_TRUE(target == second);
                target = third;
                ASSERT_TRUE(target == third);
                ASSERT_TRUE(Identity(target) == third);
            }
        }
    }
}

TEST(Identity, KeepsABlockThatIsLargeEnough)
{
    Identity target = read("3:01020304");
    const Identity shorter = read("2:0301ab");
    const Identity longer = model::identity(1, pattern(100));
    target = shorter;
    const unsigned long before = allocations_of_this_thread();
    target = shorter;
    EXPECT_EQ(allocations_of_this_thread(), before);
    target = longer;
    EXPECT_EQ(allocations_of_this_thread(), before + 1);
    EXPECT_TRUE(target == longer);
}

TEST(Identity, CanBeAssignedItself)
{
    Identity identity = read("2:0301ab");
    const unsigned char* const bits = identity.bits();
    const Identity& same = identity;
    identity = same;
    EXPECT_EQ(identity.bits(), bits);
    EXPECT_EQ(identity.str(), ustr("2:0301ab"));
    Identity& moved = identity;
    identity = std::move(moved);
    EXPECT_EQ(identity.str(), ustr("2:0301ab"));
    Identity nobody;
    const Identity& same_nobody = nobody;
    nobody = same_nobody;
    expect_nobody(nobody);
}

TEST(Identity, MovedFromIsNobody)
{
    static_assert(std::is_nothrow_move_constructible_v<Identity>);
    static_assert(std::is_nothrow_move_assignable_v<Identity>);
    Identity source = read("2:0301ab");
    const unsigned char* const bits = source.bits();
    Identity target(std::move(source));
    EXPECT_EQ(target.bits(), bits);
    expect_nobody(source);
    Identity assigned = read("0:07");
    assigned = std::move(target);
    EXPECT_EQ(assigned.bits(), bits);
    expect_nobody(target);
    target = assigned;
    EXPECT_EQ(target.str(), ustr("2:0301ab"));
}

// ---- text form ----

TEST(IdentityText, IsWrittenInLowerCaseWithEveryDigit)
{
    std::string text = "255:";
    std::string bits;
    for (int byte = 0; byte < 256; ++byte) {
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
        if (byte > 0)
            bits += static_cast<char>(byte);
    }
    EXPECT_EQ(model::identity(0, bits).str(), ustr(text));
    EXPECT_EQ(bits_of(read(text)), bits);
}

TEST(IdentityText, HasTheTrueLength)
{
    for (const std::size_t size : {9u, 10u, 99u, 100u, 9999u, 10000u, 32767u, 32768u, 65535u}) {
        std::string text = std::to_string(size) + ":0a";
        for (std::size_t i = 0; i < size; ++i)
            text += "f0";
        const Identity identity = model::identity(10, std::string(size, '\xf0'));
        EXPECT_TRUE(identity.str() == ustr(text)) << size;
        EXPECT_TRUE(read(text) == identity) << size;
        EXPECT_EQ(read(text).length(), static_cast<short>(size));
    }
}

TEST(IdentityText, IsReservedAtOnceAndTerminated)
{
    const Identity identity = model::identity(10, pattern(1000));
    const unsigned long before = allocations_of_this_thread();
    const UString text = identity.str();
    EXPECT_EQ(allocations_of_this_thread(), before + 1);
    text.c_str();
    EXPECT_EQ(allocations_of_this_thread(), before + 1);
}

struct leniency_t {
    std::string text;
    std::string canonical;
};
void PrintTo(const leniency_t& row, std::ostream* out)
{
    *out << row.text;
}

class IdentityTextAccepts : public testing::TestWithParam<leniency_t> {};
TEST_P(IdentityTextAccepts, WhatStrtolDoes)
{
    EXPECT_EQ(read(GetParam().text).str(), ustr(GetParam().canonical));
}

using namespace std::string_literals;
INSTANTIATE_TEST_SUITE_P(
    Prefixes, IdentityTextAccepts,
    testing::ValuesIn<leniency_t>({
        {"0:00", "0:00"},
        {"2:0301ab", "2:0301ab"},
        {" 2:0301ab", "2:0301ab"},
        {" \t\n\v\f\r2:0301ab", "2:0301ab"},
        {"+2:0301ab", "2:0301ab"},
        {" +2:0301ab", "2:0301ab"},
        {"2z:0301ab", "2:0301ab"},
        {"2 :0301ab", "2:0301ab"},
        {"2.9:0301ab", "2:0301ab"},
        {"2\xC3\xA4:0301ab", "2:0301ab"},  // not ASCII, so no digit
        {"2\0009:0301ab"s, "2:0301ab"},    // a zero ends the text that strtol sees
        {"000000000000000000000002:0301ab", "2:0301ab"},
        {":07", "0:07"},                 // no digits are 0
        {"abc:07", "0:07"},              //
        {"+:07", "0:07"},                //
        {"-:07", "0:07"},                //
        {"+-2:07", "0:07"},              // one sign only
        {"- 2:07", "0:07"},              // no space behind it
        {"-0:07", "0:07"},               //
        {"0x2:07", "0:07"},              // decimal only
        {"\0002:07"s, "0:07"},           //
        {"\xC2\xA0"s + "2:07", "0:07"},  // a no-break space is no white space here
        {"\xD9\xA2:07", "0:07"},         // nor is the Arabic two a digit
        {"\xE2\x80\x83"
         "2:07",
         "0:07"},  // nor an em space
    }));

// An unpaired surrogate anywhere in the prefix leaves nothing of it in UTF-8.
TEST(IdentityText, LengthWithAnUnpairedSurrogateIsZero)
{
    EXPECT_EQ(Identity::from_str(UString(u"2\xD800:07")).str(), ustr("0:07"));
    EXPECT_EQ(Identity::from_str(UString(u"\xDC00"
                                         u"2:07"))
                  .str(),
              ustr("0:07"));
    EXPECT_EQ(Identity::from_str(UString(u"2\xD83D\xDE00:0301ab")).str(), ustr("2:0301ab"));
}

struct rejection_t {
    std::string text;
    std::string message;
};
void PrintTo(const rejection_t& row, std::ostream* out)
{
    *out << row.text;
}

class IdentityTextRejects : public testing::TestWithParam<rejection_t> {};
TEST_P(IdentityTextRejects, WithTheMessageOfItsFirstFailedCheck)
{
    const auto& [text, message] = GetParam();
    expect_failure<IllegalArgException>([&text = text] { read(text); },
                                        message + " for arg: 'str' with value: '" + text + "'");
}

const std::string NO_COLON = "PLXSV0658E Invalid Identity length format";
const std::string NO_LENGTH = "PLXSV0659E Invalid Identity length string";
const std::string NO_SIZE = "PLXSV0660E Invalid Identity - bad string size";
const std::string NO_HEX = "PLXSV0661E Invalid Identity - hex conversion error";

INSTANTIATE_TEST_SUITE_P(Checks, IdentityTextRejects,
                         testing::ValuesIn<rejection_t>({
                             {"", NO_COLON},
                             {"2", NO_COLON},
                             {"20301ab", NO_COLON},
                             {"-1 70000 xyz", NO_COLON},  // before the length is looked at
                             {"70000:00", NO_LENGTH},
                             {"65536:00", NO_LENGTH},
                             {"-1:", NO_LENGTH},
                             {"-1:zz", NO_LENGTH},  // before the size and the digits
                             {"  -65535:00", NO_LENGTH},
                             {"-65536:00", NO_LENGTH},                     // 0 in the lower 16 bits
                             {"4294967298:0301ab", NO_LENGTH},             // 2 in the lower 32 bits
                             {"-4294967294:0301ab", NO_LENGTH},            // 2 in the lower 32 bits
                             {"18446744073709551618:0301ab", NO_LENGTH},   // 2 in the lower 64 bits
                             {"-18446744073709551614:0301ab", NO_LENGTH},  // 2 in the lower 64 bits
                             {"9223372036854775807:00", NO_LENGTH},
                             {"9223372036854775808:00", NO_LENGTH},
                             {"-9223372036854775809:00", NO_LENGTH},
                             {"2:", NO_SIZE},
                             {"2:0301a", NO_SIZE},
                             {"2:0301abc", NO_SIZE},
                             {"2:0301abcd", NO_SIZE},
                             {"2:0301zzz", NO_SIZE},  // before the digits
                             {"0:", NO_SIZE},
                             {":", NO_SIZE},
                             {"0:0", NO_SIZE},
                             {"0:000", NO_SIZE},
                             {"65535:00", NO_SIZE},
                             {"2:0301ab ", NO_SIZE},
                             {"2:0301AB", NO_HEX},
                             {"2:0301aB", NO_HEX},
                             {"2:0301Ab", NO_HEX},
                             {"2:G301ab", NO_HEX},
                             {"2:0g01ab", NO_HEX},
                             {"2:03 1ab", NO_HEX},
                             {"2:030/ab", NO_HEX},  // what stands before and behind the digits
                             {"2:030:ab", NO_HEX},  //
                             {"2:030`ab", NO_HEX},  //
                             {"2:+301ab", NO_HEX},
                             {"2:0x01ab", NO_HEX},
                             {"2::301ab", NO_HEX},             // the first colon counts
                             {"2:0301a\xC3\xB1", NO_HEX},      // U+00F1
                             {"2:0301a\xC4\xB0", NO_HEX},      // U+0130: '0' in its low byte
                             {"2:0301a\xEF\xBC\x90", NO_HEX},  // a full-width zero
                         }));

TEST(IdentityText, DigitMayNotBeZero)
{
    try {
        Identity::from_str(ustr("2:0301a\0"s));
        FAIL() << "accepted";
    } catch (const IllegalArgException& e) {
        EXPECT_EQ(e.message().index(), 11);
    }
}

TEST(IdentityText, BogusTextHasNoColon)
{
    UString text = ustr("2:0301ab");
    text.setToBogus();
    expect_failure<IllegalArgException>([&] { Identity::from_str(text); },
                                        NO_COLON + " for arg: 'str' with value: ''");
}

// Every text of up to five of these, against the rules.
TEST(IdentityText, IsReadByTheRules)
{
    int read = 0;
    const std::vector<std::u16string> parts = {u"0", u"1", u"2", u":",      u"-",    u"+",
                                               u" ", u"a", u"A", u"\u2003", {u'\0'}, u"\xD800"};
    for_each_text(parts, 5, [&](const UString& text) {
        Identity expected;
        const int message = model::read_text(text, expected);
        try {
            const Identity identity = Identity::from_str(text);
            ASSERT_EQ(message, 0) << testing::PrintToString(text);
            ASSERT_EQ(identity, expected) << testing::PrintToString(text);
            ++read;
        } catch (const IllegalArgException& e) {
            ASSERT_EQ(e.message().index(), message) << testing::PrintToString(text);
        }
    });
    EXPECT_GT(read, 0);
}

TEST(IdentityText, IsTheSameInEveryLocale)
{
    for (const char* locale : {"C", "C.UTF-8", "de_DE.UTF-8", "en_US.ISO-8859-1", "tr_TR"}) {
        if (std::setlocale(LC_ALL, locale) == nullptr)
            continue;  // not installed
        EXPECT_EQ(read("1234x:" + std::string(2470, 'a')).str(),
                  ustr("1234:" + std::string(2470, 'a')));
        EXPECT_EQ(read("\xC2\xA0"
                       "2:07")
                      .str(),
                  ustr("0:07"));
        EXPECT_THROW(read("1.234:00"), IllegalArgException);
    }
    std::setlocale(LC_ALL, "C");
}

// ---- memory and stack ----

TEST(IdentityWithoutMemory, NothingChanges)
{
    const Identity source = model::identity(3, pattern(100));
    Identity target = read("2:0301ab");
    const auto unchanged = [&] { EXPECT_EQ(target.str(), ustr("2:0301ab")); };
    EXPECT_EQ(for_each_memory_fault([&] { Identity(3, Identity::type_t(1), "abc"); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { const Identity copy(source); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { source.str(); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { target = source; }, unchanged), 1);
    EXPECT_TRUE(target == source);
    const UString text = ustr("2:0301ab");
    EXPECT_EQ(for_each_memory_fault([&] { Identity::from_str(text); }, [] {}), 1);
}

TEST(IdentityWithoutMemory, RejectionIsBadAlloc)
{
    const std::string zeros(100, '0');
    for (const std::string& text : {zeros, "-1:" + zeros, "2:" + zeros, "50:X" + zeros + "0"}) {
        const UString bad = ustr(text);
        const auto reject = [&] {
            try {
                Identity::from_str(bad);
            } catch (const IllegalArgException&) {
            }
        };
        EXPECT_GE(for_each_memory_fault(reject, [] {}), 1) << text;
    }
}

TEST(Identity, NeedsLittleStack)
{
    on_small_stack([] {
        const Identity identity = model::identity(3, pattern(65535));
        EXPECT_TRUE(Identity::from_str(identity.str()) == identity);
        EXPECT_THROW(Identity::from_str(ustr(std::string(1 << 20, '9'))), IllegalArgException);
        EXPECT_THROW(Identity::from_str(ustr(std::string(1 << 20, '9') + ":")),
                     IllegalArgException);
    });
}

}  // namespace
