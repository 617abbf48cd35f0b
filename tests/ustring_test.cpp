#include <kvutil/utf8string.h>

#include "support/child.h"
#include "support/memory_fault.h"
#include "support/sanitizer.h"
#include "support/text.h"
#include "support/watched_thread.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unicode/uchar.h>
#include <unicode/uclean.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <initializer_list>
#include <iomanip>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

using Kvl::UString;
using Kvl::Utf8String;

constexpr unsigned int npos = UString::npos;

const unsigned short* units(const char16_t* text)
{
    return icu::toOldUCharPtr(text);
}

std::u16string str(const UString& s)
{
    return units_of(s);
}

UString bogus()
{
    UString s;
    s.setToBogus();
    return s;
}

// A long text, so that it does not fit the inline buffer.
const std::string LONG_UTF8(100, 'x');

// ---- what compiles ----

static_assert(std::is_base_of_v<icu::UnicodeString, UString>);
static_assert(std::is_base_of_v<std::string, Utf8String>);
static_assert(sizeof(Utf8String) == sizeof(std::string));
static_assert(sizeof(UString) == sizeof(icu::UnicodeString) + sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<UString>);
static_assert(std::is_nothrow_move_assignable_v<UString>);
static_assert(std::is_nothrow_swappable_v<UString>);
static_assert(std::is_convertible_v<char, UString>);
static_assert(std::is_convertible_v<const char16_t*, UString>);
static_assert(std::is_convertible_v<const unsigned short*, UString>);
static_assert(std::is_convertible_v<Utf8String, UString>);
static_assert(std::is_convertible_v<std::wstring, UString>);
static_assert(!std::is_convertible_v<icu::UnicodeString, UString>);
static_assert(UString::npos == 0xFFFFFFFFu);
static_assert(std::is_same_v<decltype(UString().find('a')), int>);
static_assert(std::is_same_v<decltype(UString().find_last('a')), int>);
static_assert(std::is_same_v<decltype(UString().find_first_of('a')), int>);
static_assert(std::is_same_v<decltype(UString().find_first_of(u"a")), unsigned int>);
static_assert(std::is_same_v<decltype(UString().append('a')), UString&>);
static_assert(std::is_same_v<decltype(UString() += u"a"), UString&>);
static_assert(std::is_same_v<decltype(UString().assign("", "")), UString*>);

TEST(Utf8StringAssignment, TakesWhatAStringTakes)
{
    Utf8String bytes("old");
    EXPECT_EQ(bytes = 'c', "c");
    EXPECT_EQ(bytes = std::string_view("view"), "view");
    EXPECT_EQ(bytes = "text", "text");
    EXPECT_EQ(bytes = std::string("string"), "string");
    EXPECT_EQ(bytes = Utf8String("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ((bytes = {'a', 'b'}), "ab");
    EXPECT_EQ((bytes = {}), "");
}

TEST(UStringArguments, AreTakenInEverySpelling)
{
    const UString hay("abcabc");
    const unsigned short* const s = units(u"bc");
    EXPECT_EQ(hay.find('b'), 1);
    EXPECT_EQ(hay.find(u'b'), 1);
    EXPECT_EQ(hay.find(static_cast<unsigned short>(0x62)), 1);
    EXPECT_EQ(hay.find(u"bc"), 1);
    EXPECT_EQ(hay.find(s), 1);
    EXPECT_EQ(hay.find(UString("bc")), 1);
    EXPECT_EQ(hay.find(Utf8String("bc")), 1);
    EXPECT_EQ(hay.find_last(u"bc"), 4);
    EXPECT_EQ(hay.find_first_of(u"cb"), 1u);
    EXPECT_EQ(hay.compare(u"abcabc"), 0);
    EXPECT_EQ(hay.compare(s), -1);
    EXPECT_EQ(str(UString().append('x').append(u'y').append(u"z").append(s)), u"xyzbc");
    EXPECT_EQ(str(UString().insert(0, 'x').insert(0, u'y').insert(0, u"z").insert(0, s)), u"bczyx");
    EXPECT_EQ(str(UString("ab").replace(0, 1, u"zz").replace(0, 1, s)), u"bczb");
    EXPECT_EQ(str(UString().assign(u"zz").assign(s)), u"bc");
    UString sum;
    sum += 'a';
    sum += u'b';
    sum += u"c";
    sum += UString("d");
    EXPECT_EQ(str(sum + u"e" + UString('f')), u"abcdef");
    sum = u"x";
    sum = 'y';
    EXPECT_EQ(str(sum), u"y");
}

TEST(UStringArguments, PassWhereIcuTakesItsOwnString)
{
    const UString s("abc");
    icu::UnicodeString plain(u"xyz");
    plain.append(s);
    EXPECT_EQ(plain, icu::UnicodeString(u"xyzabc"));
    EXPECT_TRUE(s == icu::UnicodeString(u"abc"));
    EXPECT_TRUE(s != plain);
    EXPECT_TRUE(s == u"abc");
    EXPECT_TRUE(u"abc" == s);
}

// ---- construction ----

TEST(UStringConstruction, TakesEveryKindOfText)
{
    EXPECT_EQ(str(UString()), u"");
    EXPECT_EQ(str(UString(units(u"a\xD800z"))), u"a\xD800z");
    EXPECT_EQ(str(UString(u"a\xD800z")), u"a\xD800z");
    EXPECT_EQ(str(UString(Utf8String("a\xC3\xA9"))), u"a\u00E9");
    EXPECT_EQ(str(UString("a\xE9", "ISO-8859-1")), u"a\u00E9");
    const std::basic_string<unsigned short> raw{0x61, 0, 0xDC00, 0xD800};
    EXPECT_EQ(str(UString(raw)), (std::u16string{0x61, 0, 0xDC00, 0xD800}));
    EXPECT_EQ(str(UString(std::u16string(u"a\0b", 3))), (std::u16string(u"a\0b", 3)));
}

TEST(UStringConstruction, FromOneCharKeepsItsLowSevenBits)
{
    EXPECT_EQ(str(UString('\xE9')), u"\x69");
    EXPECT_EQ(str(UString('A')), u"A");
    EXPECT_EQ(str(UString('\0')), std::u16string(1, u'\0'));
    for (int c = 0; c < 256; ++c)
        EXPECT_EQ(UString(static_cast<char>(c))[0], c & 0x7F);
}

TEST(UStringConstruction, FromAnUnknownCharsetIsEmpty)
{
    EXPECT_EQ(str(UString("abc", "no-such-charset")), u"");
    EXPECT_EQ(str(UString("abc", static_cast<const char*>(nullptr))), u"");
    EXPECT_EQ(str(UString("", "no-such-charset")), u"");
}

TEST(UStringConstruction, FromNullIsEmpty)
{
    EXPECT_EQ(str(UString(static_cast<const unsigned short*>(nullptr))), u"");
    EXPECT_EQ(str(UString(static_cast<const char16_t*>(nullptr))), u"");
    EXPECT_EQ(str(UString(static_cast<const char*>(nullptr), "UTF-8")), u"");
}

TEST(UStringConstruction, FromWideTextStartsWithZero)
{
    const char16_t zero = 0;
    const auto behind_zero = [&](const std::u16string& text) { return zero + text; };
    EXPECT_EQ(str(UString(std::wstring())), u"");
    EXPECT_EQ(str(UString(std::wstring(L"A"))), behind_zero(u"A"));
    EXPECT_EQ(UString(std::wstring(L"A")).length(), 2u);
    EXPECT_EQ(str(UString(std::wstring(1, L'\x1F600'))), behind_zero(u"\U0001F600"));
    EXPECT_EQ(UString(std::wstring(1, L'\x1F600'))[1], 0xD83D);
    EXPECT_EQ(UString(std::wstring(1, L'\x1F600'))[2], 0xDE00);
    EXPECT_EQ(str(UString(std::wstring(1, L'\xFFFF'))), behind_zero(u"\xFFFF"));
    EXPECT_EQ(str(UString(std::wstring(1, L'\x10000'))), behind_zero(u"\U00010000"));
    EXPECT_EQ(str(UString(std::wstring(1, L'\x10FFFF'))), behind_zero(u"\U0010FFFF"));
    EXPECT_EQ(str(UString(std::wstring(1, L'\xD800'))), behind_zero(u"\xD800"));
    EXPECT_EQ(str(UString(std::wstring(1, L'\0'))), behind_zero(std::u16string(1, u'\0')));
    EXPECT_EQ(str(UString(std::wstring(L"a\x110000z"))), behind_zero(u"az"));
    EXPECT_EQ(str(UString(std::wstring(1, static_cast<wchar_t>(0xFFFFFFFF)))), behind_zero(u""));
    EXPECT_EQ(str(UString(std::wstring(200, L'\x1F600'))).size(), 401u);
}

TEST(UStringConstruction, CopiesAndMovesLeaveValidStrings)
{
    for (const char* const text : {"", "short", LONG_UTF8.c_str()}) {
        UString original = ustr(text);
        const UString copy(original);
        EXPECT_EQ(copy, ustr(text));
        UString moved(std::move(original));
        EXPECT_EQ(moved, ustr(text));
        EXPECT_TRUE(original.empty());
        EXPECT_FALSE(original.isBogus());
        EXPECT_EQ(original.append('x'), UString('x'));
        UString target("old");
        target = std::move(moved);
        EXPECT_EQ(target, ustr(text));
        EXPECT_TRUE(moved.empty());
        EXPECT_FALSE(moved.isBogus());
        UString& same = target;
        target = std::move(same);
        target = same;
        EXPECT_EQ(target, ustr(text));
        UString other("other");
        swap(target, other);
        EXPECT_EQ(other, ustr(text));
        EXPECT_EQ(target, ustr("other"));
        EXPECT_EQ(target.c_str()[5], 0);
    }
}

TEST(UStringConstruction, OnTheHeapThrowsWhereTheIcuBaseReturnsNull)
{
    const int faults = for_each_memory_fault([] { delete new UString(); }, [] {});
    EXPECT_EQ(faults, 1);
    EXPECT_EQ(for_each_memory_fault([] { delete[] new UString[3]; }, [] {}), 1);
    const memory_fault fault(1);
    EXPECT_EQ(new (std::nothrow) UString(), nullptr);
    alignas(UString) unsigned char place[sizeof(UString)];
    UString* const placed = new (place) UString("placed");
    EXPECT_EQ(*placed, UString("placed"));
    placed->~UString();
}

// ---- observers ----

TEST(UStringObservers, CountUnits)
{
    const UString s(u"a\U0001F600");
    EXPECT_EQ(s.length(), 3u);
    EXPECT_FALSE(s.empty());
    EXPECT_TRUE(UString().empty());
    EXPECT_GE(s.capacity(), 3u);
    EXPECT_EQ(s[0], 0x61);
    EXPECT_EQ(s[1], 0xD83D);
    EXPECT_EQ(s[2], 0xDE00);
}

TEST(UStringObservers, OutOfRangeUnitIsAllOnes)
{
    const UString s("abc");
    for (const unsigned int pos : {3u, 4u, 0x7FFFFFFFu, 0x80000000u, npos})
        EXPECT_EQ(s[pos], 0xFFFF) << pos;
    EXPECT_EQ(UString()[0], 0xFFFF);
    EXPECT_EQ(bogus()[0], 0xFFFF);
}

TEST(UStringObservers, SubstringsAreClamped)
{
    const UString s("abcdef");
    EXPECT_EQ(str(s.substr(2, npos)), u"cdef");
    EXPECT_EQ(str(s.substr(2)), u"cdef");
    EXPECT_EQ(str(s.substr(6, 1)), u"");
    EXPECT_EQ(str(s.substr(7, 1)), u"");
    EXPECT_EQ(str(s.substr(0x80000000u, 1)), u"");
    EXPECT_EQ(str(s.substr(npos, npos)), u"");
    EXPECT_EQ(str(s.substr(2, 3)), u"cde");
    EXPECT_EQ(str(s.substr(2, 4)), u"cdef");
    EXPECT_EQ(str(s.substr(2, 5)), u"cdef");
    EXPECT_EQ(str(s.substr(2, 0x80000000u)), u"cdef");
    EXPECT_EQ(str(s.substr(2, 0)), u"");
    EXPECT_EQ(str(s.substr()), u"abcdef");
    EXPECT_EQ(str(bogus().substr(0, 1)), u"");
    EXPECT_FALSE(bogus().substr(0, 1).isBogus());
}

// ---- c_str ----

TEST(UStringTerminated, AtEveryLengthAndAfterEveryEdit)
{
    for (unsigned int length = 0; length < 80; ++length) {
        const UString s(std::u16string(length, u'x'));
        const unsigned short* const text = s.c_str();
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text[length], 0) << length;
        EXPECT_EQ(s.length(), length);
        EXPECT_EQ(s.c_str(), text);
        const UString copy(s);
        EXPECT_EQ(copy.c_str()[length], 0) << length;
        UString shorter(s);
        shorter.erase(length / 2);
        EXPECT_EQ(shorter.c_str()[length / 2], 0) << length;
        EXPECT_EQ(s.c_str()[length], 0) << length;
    }
}

TEST(UStringTerminated, NullWhenBogusOrOpen)
{
    EXPECT_EQ(bogus().c_str(), nullptr);
    UString s("abc");
    ASSERT_NE(s.getBuffer(10), nullptr);
    EXPECT_EQ(s.c_str(), nullptr);
    s.releaseBuffer(3);
    EXPECT_NE(s.c_str(), nullptr);
}

TEST(UStringTerminated, LeavesSharersAndForeignTextAlone)
{
    char16_t storage[] = u"abcdef";
    UString alias;
    alias.setTo(false, storage, 3);
    EXPECT_EQ(alias.c_str()[3], 0);
    EXPECT_EQ(std::u16string(storage), u"abcdef");

    UString whole = ustr(LONG_UTF8);
    const icu::UnicodeString sharer(whole);
    whole.truncate(50);
    EXPECT_EQ(whole.c_str()[50], 0);
    EXPECT_EQ(sharer.length(), 100);
    EXPECT_EQ(sharer[50], u'x');
}

TEST(UStringTerminated, ReadsOnlyWhenTheTerminatorIsThere)
{
    static const char16_t text[] = u"constant text";
    UString s;
    s.setTo(true, text, 13);
    const unsigned long before = allocations_of_this_thread();
    EXPECT_EQ(s.c_str(), units(text));
    EXPECT_EQ(allocations_of_this_thread(), before);
}

TEST(UStringTerminated, KeepsTheTextWhenThereIsNoMemory)
{
    UString s(std::u16string(27, u'x'));
    ASSERT_EQ(s.length(), s.capacity()) << "the terminator has no room";
    const int faults = for_each_memory_fault([&] { s.c_str(); },
                                             [&] { EXPECT_EQ(str(s), std::u16string(27, u'x')); });
    EXPECT_EQ(faults, 1);
    EXPECT_EQ(s.c_str()[27], 0);
}

// ---- searching ----

TEST(UStringFind, FirstUnitAtOrAfterStart)
{
    const UString s("abcabc");
    EXPECT_EQ(s.find('a', 0), 0);
    EXPECT_EQ(s.find('a', 1), 3);
    EXPECT_EQ(s.find('a', 3), 3);
    EXPECT_EQ(s.find('a', 4), -1);
    EXPECT_EQ(s.find('a', npos), 0) << "the whole text";
    EXPECT_EQ(s.find('a', 0x80000000u), 0);
    EXPECT_EQ(s.find('a', 0x7FFFFFFFu), -1);
    EXPECT_EQ(s.find('a', 99), -1);
    EXPECT_EQ(s.find('a', 6), -1);
    EXPECT_EQ(s.find('z'), -1);
    EXPECT_EQ(static_cast<unsigned int>(s.find('z')), npos);
    EXPECT_EQ(s.find_first_of('a', 1), 3);
    EXPECT_EQ(s.find_first_of('z', 1), -1);
    EXPECT_EQ(UString().find('a'), -1);
    EXPECT_EQ(bogus().find('a'), -1);
}

TEST(UStringFind, FirstTextAtOrAfterStart)
{
    const UString s("abcabc");
    for (const unsigned int all : {0u, 0x80000000u, npos}) {
        EXPECT_EQ(s.find(u"bc", all), 1);
        EXPECT_EQ(s.find(units(u"bc"), all), 1);
        EXPECT_EQ(s.find(UString("bc"), all), 1);
    }
    EXPECT_EQ(s.find(units(u"bc"), 2), 4);
    EXPECT_EQ(s.find(units(u"bc"), 5), -1);
    EXPECT_EQ(s.find(units(u"bc"), 99), -1);
    EXPECT_EQ(s.find(units(u"abcabcd")), -1);
    EXPECT_EQ(s.find(units(u"abcabc")), 0);
    EXPECT_EQ(s.find(UString("abcabcd")), -1);
}

TEST(UStringFind, NothingForAnEmptyNullOrBogusNeedle)
{
    const UString s("abcabc");
    const auto* const null = static_cast<const unsigned short*>(nullptr);
    for (const unsigned int start : {0u, 3u, 6u, 99u, npos}) {
        EXPECT_EQ(s.find(UString(), start), -1);
        EXPECT_EQ(s.find(bogus(), start), -1);
        EXPECT_EQ(s.find(units(u""), start), -1);
        EXPECT_EQ(s.find(null, start), -1);
        EXPECT_EQ(s.find_last(UString(), start), -1);
        EXPECT_EQ(s.find_last(bogus(), start), -1);
        EXPECT_EQ(s.find_last(units(u""), start), -1);
        EXPECT_EQ(s.find_last(null, start), -1);
        EXPECT_EQ(s.find_first_of(UString(), start), npos);
        EXPECT_EQ(s.find_first_of(bogus(), start), npos);
        EXPECT_EQ(s.find_first_of(units(u""), start), npos);
        EXPECT_EQ(s.find_first_of(null, start), npos);
    }
    EXPECT_EQ(UString().find(UString()), -1);
    EXPECT_EQ(bogus().find(UString("a")), -1);
    EXPECT_EQ(bogus().find_last(UString("a")), -1);
    EXPECT_EQ(bogus().find_first_of(UString("a")), npos);
}

TEST(UStringFindLast, StartIsTheLowerEnd)
{
    const UString s("abcabc");
    EXPECT_EQ(s.find_last('a', 3), 3);
    EXPECT_EQ(s.find_last('a', 4), -1);
    EXPECT_EQ(s.find_last('a'), 3);
    EXPECT_EQ(s.find_last('a', npos), 3);
    EXPECT_EQ(s.find_last('a', 0x80000000u), 3);
    EXPECT_EQ(s.find_last('c'), 5);
    EXPECT_EQ(s.find_last('a', 6), -1);
    EXPECT_EQ(s.find_last('a', 99), -1);
    EXPECT_EQ(s.find_last('z'), -1);
    EXPECT_EQ(s.find_last(units(u"bc")), 4);
    EXPECT_EQ(s.find_last(units(u"bc"), 4), 4);
    EXPECT_EQ(s.find_last(units(u"bc"), 5), -1) << "only a part lies in the range";
    EXPECT_EQ(s.find_last(UString("bc"), 4), 4);
    EXPECT_EQ(s.find_last(UString("bc"), 5), -1);
    EXPECT_EQ(s.find_last(UString("bc"), npos), 4);
    EXPECT_EQ(s.find_last(UString("abc"), 1), 3);
    EXPECT_EQ(s.find_last(units(u"abcabcd")), -1);
}

TEST(UStringFindFirstOf, SmallestPositionOfAnyOfTheSet)
{
    const UString s("abcabc");
    EXPECT_EQ(s.find_first_of(units(u"cb"), 0), 1u);
    EXPECT_EQ(s.find_first_of(units(u"cb"), 2), 2u);
    EXPECT_EQ(s.find_first_of(units(u"a"), 1), 3u);
    EXPECT_EQ(s.find_first_of(units(u"a"), 4), npos);
    EXPECT_EQ(s.find_first_of(units(u"a"), 99), npos);
    EXPECT_EQ(s.find_first_of(units(u"a"), npos), 0u);
    EXPECT_EQ(s.find_first_of(UString("zc"), 0x80000000u), 2u);
    EXPECT_EQ(s.find_first_of(UString("xyz")), npos);
    EXPECT_EQ(s.find_first_of(UString(u"\0c\xFFFF")), npos) << "zero-terminated there";
    EXPECT_EQ(s.find_first_of(UString(std::u16string(u"\0c", 2))), 2u);
    EXPECT_EQ(s.find_first_of(UString(u"qwertyuiopzxvnm,./;lkjhgfds\xFFFF"
                                      u"c")),
              2u);
}

TEST(UStringSurrogates, AreFoundAsPairsButTheSetFormsLookUnitByUnit)
{
    const UString s(u"a\U0001F600z");
    EXPECT_EQ(s.find(static_cast<unsigned short>(0xD83D)), -1);
    EXPECT_EQ(s.find(static_cast<unsigned short>(0xDE00)), -1);
    EXPECT_EQ(s.find_last(static_cast<unsigned short>(0xDE00)), -1);
    EXPECT_EQ(s.find_first_of(static_cast<unsigned short>(0xDE00)), -1);
    EXPECT_EQ(s.find(units(u"\xDE00z")), -1);
    EXPECT_EQ(s.find(units(u"a\xD83D")), -1);
    EXPECT_EQ(s.find_last(units(u"a\xD83D")), -1);
    EXPECT_EQ(s.find(units(u"\U0001F600")), 1);
    EXPECT_EQ(s.find_first_of(units(u"\xDE00")), 2u);
    EXPECT_EQ(s.find_first_of(UString(u"\xD83D")), 1u);
    EXPECT_EQ(s.find(static_cast<unsigned short>(0xDE00), 2), 2) << "the range cuts the pair";
    const UString lone(u"a\xDE00\xD83Dz");
    EXPECT_EQ(lone.find(static_cast<unsigned short>(0xDE00)), 1);
    EXPECT_EQ(lone.find(static_cast<unsigned short>(0xD83D)), 2);
}

// All texts of up to seven units over an alphabet with both halves of a pair, against ICU.
TEST(UStringFind, AgreesWithIcuEverywhere)
{
    const std::u16string alphabet = u"ab\xD83D\xDE00";
    const std::vector<std::u16string> needles = {u"a",
                                                 u"b",
                                                 u"\xD83D",
                                                 u"\xDE00",
                                                 u"ab",
                                                 u"aa",
                                                 u"\xDE00"
                                                 u"a",
                                                 u"a\xD83D",
                                                 u"\U0001F600",
                                                 u"\xDE00\xD83D",
                                                 u"aba",
                                                 u"b\xD83D\xDE00"};
    for (unsigned int text = 0; text < 1u << 14; ++text) {
        std::u16string hay;
        for (unsigned int i = 0; i < 7; ++i)
            hay += alphabet[text >> (2 * i) & 3];
        // Behind padding, so that both the wide and the narrow steps of a search meet it.
        const unsigned int padding = text % 23;
        const UString s(std::u16string(padding, u'-') + hay + std::u16string(text % 5, u'-'));
        const icu::UnicodeString& plain = s;
        for (const std::u16string& needle : needles) {
            const icu::UnicodeString plain_needle(needle.data(), static_cast<int>(needle.size()));
            for (const unsigned int start : {0u, padding + text % 7}) {
                const int from = static_cast<int>(start);
                ASSERT_EQ(s.find(UString(needle), start), plain.indexOf(plain_needle, from));
                ASSERT_EQ(s.find(units(needle.c_str()), start), plain.indexOf(plain_needle, from));
                ASSERT_EQ(s.find_last(UString(needle), start),
                          plain.lastIndexOf(plain_needle, from));
                if (needle.size() == 1) {
                    ASSERT_EQ(s.find(needle[0], start), plain.indexOf(needle[0], from));
                    ASSERT_EQ(s.find_last(needle[0], start), plain.lastIndexOf(needle[0], from));
                }
            }
        }
    }
}

// ---- comparison ----

TEST(UStringCompare, IsNumericInUnits)
{
    const UString s("abc");
    EXPECT_EQ(s.compare(UString("abc")), 0);
    EXPECT_EQ(s.compare(UString("abd")), -1);
    EXPECT_EQ(s.compare(UString("abb")), 1);
    EXPECT_EQ(s.compare(UString("ab")), 1);
    EXPECT_EQ(s.compare(UString("abcd")), -1);
    EXPECT_EQ(s.compare(UString()), 1);
    EXPECT_EQ(UString().compare(UString()), 0);
    EXPECT_EQ(s.compare(units(u"abd")), -1);
    EXPECT_EQ(s.compare(units(u"abc")), 0);
    EXPECT_EQ(s.compare(units(u"abb")), 1);
    EXPECT_EQ(s.compare(units(u"")), 1);
    EXPECT_EQ(s.compare(static_cast<const unsigned short*>(nullptr)), 1);
    EXPECT_EQ(UString().compare(static_cast<const unsigned short*>(nullptr)), 0);
    // In code points the supplementary character would be the greater one.
    EXPECT_EQ(UString(u"\U00010000").compare(UString(u"\uE000")), -1);
    EXPECT_EQ(UString(u"\U00010000").compare(units(u"\uE000")), -1);
    EXPECT_EQ(UString(u"\u0100").compare(UString(u"\u00FF")), 1) << "not byte by byte";
    EXPECT_EQ(UString(u"\uFFFF").compare(units(u"a")), 1);
    EXPECT_EQ(UString(std::u16string(u"a\0b", 3)).compare(units(u"a")), 1);
}

// Long enough for whole blocks and what is left of them, different in any one unit or in length.
TEST(UStringCompare, IsIcusOrderWhereverTextsDiffer)
{
    const char16_t units[] = {u'\0', u'a', u'b', 0x0100, 0x6100, 0xD800, 0xDC00, 0xE000, 0xFFFF};
    for (unsigned int length = 0; length < 14; ++length)
        for (unsigned int at = 0; at <= length; ++at)
            for (const char16_t a : units)
                for (const char16_t b : units) {
                    std::u16string first(length, u'x');
                    std::u16string second = first;
                    first.insert(at, 1, a);
                    second.insert(at, 1, b);
                    if (length % 3 == 0)
                        second.append(length % 2 + 1, u'y');
                    const UString x(first);
                    const UString y(second);
                    const icu::UnicodeString& base = x;
                    ASSERT_EQ(x.compare(y), static_cast<int>(base.compare(y)));
                }
}

TEST(UStringCompare, OfARangeIsClamped)
{
    const UString s("abcabc");
    EXPECT_EQ(s.compare(3, 3, UString("abc")), 0);
    EXPECT_EQ(s.compare(3, npos, UString("abc")), 0);
    EXPECT_EQ(s.compare(3, 99, UString("abc")), 0);
    EXPECT_EQ(s.compare(3, 0x80000000u, UString("abc")), 0);
    EXPECT_EQ(s.compare(3, 2, UString("abc")), -1);
    EXPECT_EQ(s.compare(6, 1, UString()), 0);
    EXPECT_EQ(s.compare(99, 1, UString()), 0);
    EXPECT_EQ(s.compare(99, 1, UString("a")), -1);
    EXPECT_EQ(s.compare(0x80000000u, 3, UString("abc")), 0) << "read as 0";
    EXPECT_EQ(s.compare(npos, 3, UString("abc")), 0) << "read as 0";
    EXPECT_EQ(s.compare(1, 0, UString()), 0);
}

TEST(UStringCompare, PutsBogusFirst)
{
    const UString s;
    EXPECT_EQ(s.compare(bogus()), 1);
    EXPECT_EQ(bogus().compare(bogus()), 0);
    EXPECT_EQ(bogus().compare(s), -1);
    EXPECT_EQ(s.compare(0, 0, bogus()), 1);
    EXPECT_EQ(bogus().compare(0, 0, bogus()), 0);
    EXPECT_EQ(bogus().compare(units(u"")), -1);
    EXPECT_TRUE(bogus() == bogus());
    EXPECT_TRUE(bogus() != s);
    EXPECT_TRUE(s != bogus());
    EXPECT_TRUE(bogus() < s);
}

TEST(UStringCompare, DrivesTheOperatorsAndHash)
{
    const std::vector<UString> rising = {bogus(),           UString(),    UString("a"),
                                         UString("ab"),     UString("b"), ustr(LONG_UTF8),
                                         UString(u"\uFFFF")};
    for (std::size_t i = 0; i < rising.size(); ++i)
        for (std::size_t j = 0; j < rising.size(); ++j) {
            const UString a(rising[i]);
            const UString& b = rising[j];
            EXPECT_EQ(a == b, i == j);
            EXPECT_EQ(a != b, i != j);
            EXPECT_EQ(a < b, i < j);
            EXPECT_EQ(a > b, i > j);
            EXPECT_EQ(a <= b, i <= j);
            EXPECT_EQ(a >= b, i >= j);
            if (i == j) {
                EXPECT_EQ(std::hash<UString>()(a), std::hash<UString>()(b));
            }
        }
    std::map<UString, int> ordered;
    std::unordered_map<UString, int> hashed;
    ordered[UString("b")] = 1;
    EXPECT_EQ(ordered.at(UString("b")), 1);
    hashed[UString("b")] = 1;
    EXPECT_EQ(hashed.at(UString("b")), 1);
}

// ---- editing ----

TEST(UStringAssign, ReplacesTheWholeText)
{
    UString s("old text");
    EXPECT_EQ(&s.assign(UString("new")), &s);
    EXPECT_EQ(str(s), u"new");
    EXPECT_EQ(str(s.assign(units(u"abcdef"), 3)), u"abc");
    EXPECT_EQ(str(s.assign(units(u"abcdef"), 0)), u"abcdef") << "zero-terminated";
    EXPECT_EQ(str(s.assign(u"xyz", 0)), u"xyz");
    EXPECT_EQ(str(s.assign(std::u16string(u"a\0b", 3).c_str(), 3)), std::u16string(u"a\0b", 3));
    EXPECT_EQ(str(s.assign(s)), std::u16string(u"a\0b", 3));
    EXPECT_EQ(str(s.assign(static_cast<const unsigned short*>(nullptr), 0)), u"");
    EXPECT_EQ(str(s.assign(static_cast<const unsigned short*>(nullptr), 5)), u"");
    EXPECT_EQ(str(s.assign(ustr(LONG_UTF8))), std::u16string(100, u'x'));
    EXPECT_EQ(str(s.assign(UString())), u"");
}

TEST(UStringBogus, EndsWithATextAndWithClearing)
{
    EXPECT_EQ(str(bogus().assign(UString("abc"))), u"abc");
    EXPECT_EQ(str(bogus().assign(ustr(LONG_UTF8))), std::u16string(100, u'x'));
    EXPECT_EQ(str(bogus().assign(units(u"abc"), 2)), u"ab");
    EXPECT_EQ(str(bogus().assign(units(u""))), u"");
    EXPECT_EQ(str(bogus().utf8_assign(Utf8String("abc"))), u"abc");
    EXPECT_EQ(str(*bogus().assign("abc", "ISO-8859-1")), u"abc");
    using edit_t = std::function<void(UString&)>;
    for (const edit_t& edit : std::vector<edit_t>{
             [](UString& s) { s.assign(UString()); }, [](UString& s) { s.assign(bogus()); },
             [](UString& s) { s.assign(s); }, [](UString& s) { s.assign(units(u"")); },
             [](UString& s) { s.utf8_assign(Utf8String()); },
             [](UString& s) { s.utf8_assign(Utf8String("\xC3\x28")); },
             [](UString& s) { s.assign("", "no-such-charset"); }, [](UString& s) { s.clear(); },
             [](UString& s) { s.erase(); }, [](UString& s) { s.erase(0, 0x7FFFFFFF); },
             [](UString& s) { s.erase(0x80000000u, npos); }, [](UString& s) { s = UString(); }}) {
        UString s = bogus();
        edit(s);
        EXPECT_FALSE(s.isBogus());
        EXPECT_TRUE(s.empty());
    }
    for (const edit_t& edit : std::vector<edit_t>{
             [](UString& s) { s.set_at(0, 'x'); }, [](UString& s) { s.erase(0, 5); },
             [](UString& s) { s.erase(1, npos); }, [](UString& s) { s.trim(); },
             [](UString& s) { s.reserve(100); },
             [](UString& s) { s.assign("x", "no-such-charset"); }}) {
        UString s = bogus();
        edit(s);
        EXPECT_TRUE(s.isBogus());
    }
    EXPECT_TRUE(UString(bogus()).isBogus());
    UString s("abc");
    EXPECT_TRUE((s = bogus()).isBogus());
    EXPECT_EQ(bogus().length(), 0u);
    EXPECT_TRUE(bogus().empty());
    bool failed = true;
    EXPECT_EQ(bogus().utf8_str(), "");
    EXPECT_EQ(bogus().std_str("ISO-8859-1", failed), "");
    EXPECT_FALSE(failed);
}

TEST(UStringBogus, CountsAsEmptyInAnEdit)
{
    EXPECT_EQ(str(UString("abc").assign(bogus())), u"");
    EXPECT_EQ(str(UString("abc").append(bogus())), u"abc");
    EXPECT_EQ(str(UString("abc").insert(1, bogus())), u"abc");
    EXPECT_EQ(str(UString("abc").replace(1, 1, bogus())), u"ac");
    EXPECT_EQ(str(UString("abc") + bogus()), u"abc");
    EXPECT_FALSE((UString("abc") + bogus()).isBogus());
}

TEST(UStringBogus, IsTheEmptyTextToWhatAddsToIt)
{
    using edit_t = std::function<void(UString&)>;
    for (const edit_t& add : std::vector<edit_t>{
             [](UString& s) { s.append('x'); }, [](UString& s) { s.append(units(u"x")); },
             [](UString& s) { s.append(ustr("x")); }, [](UString& s) { s += ustr("x"); },
             [](UString& s) { s += static_cast<unsigned short>('x'); },
             [](UString& s) { s.insert(0, 'x'); }, [](UString& s) { s.insert(7, 'x'); },
             [](UString& s) { s.insert(0, units(u"x")); },
             [](UString& s) { s.insert(0, ustr("x")); },
             [](UString& s) { s.replace(0, 1, units(u"x")); },
             [](UString& s) { s.replace(3, npos, ustr("x")); },
             [](UString& s) { s = s + ustr("x"); }}) {
        UString s = bogus();
        add(s);
        EXPECT_EQ(str(s), u"x");
        EXPECT_FALSE(s.isBogus());
    }
    for (const edit_t& add : std::vector<edit_t>{
             [](UString& s) { s.append(UString()); }, [](UString& s) { s.append(bogus()); },
             [](UString& s) { s.append(s); }, [](UString& s) { s += bogus(); },
             [](UString& s) { s.insert(0, units(u"")); }, [](UString& s) { s.insert(0, bogus()); },
             [](UString& s) { s.replace(0, 5, bogus()); },
             [](UString& s) { s = bogus() + bogus(); }}) {
        UString s = bogus();
        add(s);
        EXPECT_TRUE(s.empty());
        EXPECT_FALSE(s.isBogus());
    }
}

TEST(UStringBogus, StaysSoWhenThereIsNoMemory)
{
    UString s = bogus();
    const UString text = ustr(LONG_UTF8);
    const auto unchanged = [&] { EXPECT_TRUE(s.isBogus()); };
    EXPECT_EQ(for_each_memory_fault([&] { s.append(text); }, unchanged), 1);
    EXPECT_EQ(str(s), str(text));
}

TEST(UStringBogus, ShowsOnlyInComparisons)
{
    const UString s = bogus();
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.length(), 0u);
    EXPECT_EQ(s[0], 0xFFFF);
    EXPECT_EQ(s.find(units(u"a")), -1);
    EXPECT_EQ(s.find_last('a'), -1);
    EXPECT_EQ(s.find_last(units(u"a")), -1);
    EXPECT_EQ(s.find_first_of('a'), -1);
    EXPECT_EQ(s.find_first_of(units(u"a")), npos);
    EXPECT_FALSE(s.substr().isBogus());
    EXPECT_FALSE(s == UString());
    EXPECT_FALSE(UString() == s);
    EXPECT_EQ(std::hash<UString>()(s), std::hash<UString>()(bogus()));
}

TEST(UStringOpen, IgnoresEdits)
{
    UString s("abc");
    char16_t* const buffer = s.getBuffer(200);
    ASSERT_NE(buffer, nullptr);
    s.append('x').insert(0, u"x").erase(1, 1).trim().reserve(1000).assign(UString("x"));
    s.assign(ustr(std::string(300, 'y')));
    EXPECT_TRUE(s.empty());
    s.releaseBuffer(3);
    EXPECT_EQ(str(s), u"abc");
}

TEST(UStringOpen, IgnoresConvertedBytes)
{
    UString s("abc");
    ASSERT_NE(s.getBuffer(200), nullptr);
    s.utf8_assign(Utf8String("x"));
    EXPECT_EQ(s.assign(std::string("x"), "ISO-8859-1"), &s);
    EXPECT_EQ(s.assign(std::string("\x82\xA0"), "Shift_JIS"), &s);
    EXPECT_TRUE(s.empty());
    s.releaseBuffer(3);
    EXPECT_EQ(str(s), u"abc");
}

TEST(UStringEdits, AddAndReplace)
{
    EXPECT_EQ(str(UString("abc").append('d').append(units(u"ef")).append(UString("gh"))),
              u"abcdefgh");
    EXPECT_EQ(str(UString("abc").insert(1, 'x')), u"axbc");
    EXPECT_EQ(str(UString("abc").insert(3, units(u"xy"))), u"abcxy");
    EXPECT_EQ(str(UString("abc").insert(0, UString("xy"))), u"xyabc");
    EXPECT_EQ(str(UString("abc").replace(1, 1, units(u"xyz"))), u"axyzc");
    EXPECT_EQ(str(UString("abc").replace(0, 3, UString())), u"");
    EXPECT_EQ(str(UString("abc").replace(1, npos, UString("x"))), u"ax");
    EXPECT_EQ(str(UString("abc").append(static_cast<const unsigned short*>(nullptr))), u"abc");
    EXPECT_EQ(str(UString("abc").insert(1, static_cast<const unsigned short*>(nullptr))), u"abc");
    EXPECT_EQ(str(UString("abc").replace(1, 1, static_cast<const unsigned short*>(nullptr))),
              u"ac");
}

TEST(UStringEdits, PinPositionsAndClampCounts)
{
    EXPECT_EQ(str(UString("abc").insert(99, 'x')), u"abcx");
    EXPECT_EQ(str(UString("abc").insert(0x80000000u, 'x')), u"xabc");
    EXPECT_EQ(str(UString("abc").insert(npos, UString("x"))), u"xabc");
    EXPECT_EQ(str(UString("abc").insert(0x7FFFFFFFu, units(u"x"))), u"abcx");
    EXPECT_EQ(str(UString("abc").replace(99, 1, UString("x"))), u"abcx");
    EXPECT_EQ(str(UString("abc").replace(npos, 1, UString("x"))), u"xbc");
    EXPECT_EQ(str(UString("abc").replace(1, 0x80000000u, UString("x"))), u"ax");
    EXPECT_EQ(str(UString("abc").replace(1, 99, units(u"x"))), u"ax");
}

TEST(UStringSetAt, FollowsIcuOutOfRange)
{
    EXPECT_EQ(str(UString("abc").set_at(1, 'x')), u"axc");
    EXPECT_EQ(str(UString("abc").set_at(3, 'x')), u"abx");
    EXPECT_EQ(str(UString("abc").set_at(0x7FFFFFFF, 'x')), u"abx");
    EXPECT_EQ(str(UString("abc").set_at(0x80000000u, 'x')), u"xbc");
    EXPECT_EQ(str(UString("abc").set_at(npos, 'x')), u"xbc");
    EXPECT_EQ(str(UString().set_at(0, 'x')), u"");
}

TEST(UStringErase, RemovesARangeOrTheRest)
{
    EXPECT_EQ(str(UString("abcdef").erase(2, npos)), u"ab");
    EXPECT_EQ(str(UString("abcdef").erase(0, npos)), u"");
    EXPECT_EQ(str(UString("abcdef").erase()), u"");
    EXPECT_EQ(str(UString("abcdef").erase(npos)), u"");
    EXPECT_EQ(str(UString("abcdef").erase(0, 0x7FFFFFFF)), u"");
    EXPECT_EQ(str(UString("abcdef").erase(0, 0x80000000u)), u"");
    EXPECT_EQ(str(UString("abcdef").erase(1, 2)), u"adef");
    EXPECT_EQ(str(UString("abcdef").erase(1, 0)), u"abcdef");
    EXPECT_EQ(str(UString("abcdef").erase(6, 1)), u"abcdef");
    EXPECT_EQ(str(UString("abcdef").erase(99, npos)), u"abcdef");
    EXPECT_EQ(str(UString("abcdef").erase(5, 99)), u"abcde");
    EXPECT_EQ(str(UString("abcdef").erase(0x80000000u, 2)), u"cdef");
}

TEST(UStringClear, TerminatesWhatWasBogus)
{
    UString s(u"text");
    s.setToBogus();
    s.clear();
    EXPECT_EQ(s.getBuffer()[0], 0);
}

TEST(UStringClear, KeepsTheBuffer)
{
    UString s = ustr(LONG_UTF8);
    const unsigned int capacity = s.capacity();
    EXPECT_EQ(&s.clear(), &s);
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.capacity(), capacity);
    EXPECT_EQ(s.c_str()[0], 0);
}

TEST(UStringTrim, RemovesWhiteSpaceAtBothEnds)
{
    EXPECT_EQ(str(UString("  a b  ").trim()), u"a b");
    EXPECT_EQ(str(UString("   ").trim()), u"");
    EXPECT_EQ(str(UString().trim()), u"");
    EXPECT_EQ(str(UString("ab").trim()), u"ab");
    EXPECT_EQ(str(UString(u"\t\n\u3000\u2028x\u00A0\u2003 ").trim()), u"x\u00A0")
        << "a no-break space is not white space to ICU";
    EXPECT_EQ(str(UString(u" \xD83D ").trim()), u"\xD83D");
    EXPECT_EQ(str(UString(u" \U0001F600 ").trim()), u"\U0001F600");
    UString spaces(std::u16string(100, u' ') + u"x" + std::u16string(100, u' '));
    EXPECT_EQ(str(spaces.trim()), u"x");
}

TEST(UStringTrim, AgreesWithIcuOnEveryUnit)
{
    for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
        const std::u16string text{static_cast<char16_t>(unit), u'x', static_cast<char16_t>(unit)};
        UString s(text);
        icu::UnicodeString plain(text.data(), 3);
        ASSERT_EQ(static_cast<const icu::UnicodeString&>(s.trim()), plain.trim()) << unit;
    }
    for (UChar32 c = 0x10000; c <= 0x10FFFF; ++c)
        ASSERT_FALSE(u_isWhitespace(c)) << "trim() looks at units";
}

TEST(UStringReserve, OnlyGrows)
{
    UString s("abc");
    EXPECT_EQ(&s.reserve(1000), &s);
    EXPECT_GE(s.capacity(), 1000u);
    EXPECT_EQ(str(s), u"abc");
    const unsigned int capacity = s.capacity();
    s.reserve(0);
    EXPECT_EQ(s.capacity(), capacity);
    const unsigned long before = allocations_of_this_thread();
    for (int i = 0; i < 997; ++i)
        s.append('x');
    EXPECT_EQ(allocations_of_this_thread(), before) << "no reallocation within the capacity";
    s.assign(UString("y")).append(u"z");
    EXPECT_EQ(s.capacity(), capacity);
}

TEST(UStringEdits, TakeArgumentsFromTheTextItself)
{
    UString s("abc");
    EXPECT_EQ(str(s.append(s)), u"abcabc");
    EXPECT_EQ(str(s.insert(1, s.c_str() + 4)), u"abcbcabc");
    EXPECT_EQ(str(s.replace(0, 2, s.c_str() + 5)), u"abccbcabc");
    EXPECT_EQ(str(s.insert(2, s)), u"ababccbcabcccbcabc");
    EXPECT_EQ(str(s.replace(0, npos, s)), u"ababccbcabcccbcabc");
    EXPECT_EQ(str(s.replace(1, 16, s)), u"aababccbcabcccbcabcc");
    EXPECT_EQ(str(s.assign(s.c_str() + 1, 2)), u"ab");
    EXPECT_EQ(str(s.assign(s.c_str() + 1)), u"b");
    EXPECT_EQ(str(s += s), u"bb");
    EXPECT_EQ(str(s.append(s[0])), u"bbb");
    UString wide = ustr(LONG_UTF8);
    wide.reserve(1000);
    wide.set_at(99, 'y');
    EXPECT_EQ(str(wide.append(wide)),
              std::u16string(99, u'x') + u"y" + std::u16string(99, u'x') + u"y");
    EXPECT_EQ(str(wide.assign(wide.c_str() + 99, 2)), u"yx");
    EXPECT_EQ(str(wide.replace(0, 0, wide.c_str() + 1)), u"xyx");
    EXPECT_EQ(wide.find(wide), 0);
    EXPECT_EQ(wide.find_first_of(wide), 0u);
    EXPECT_EQ(wide.compare(wide.c_str()), 0);
}

// Random edits on texts in every kind of storage give what ICU gives, and leave sharers alone.
TEST(UStringEdits, AgreeWithIcuInEveryKindOfStorage)
{
    std::mt19937 random(20080704);
    const auto below = [&](unsigned int n) { return static_cast<unsigned int>(random() % n); };
    static const char16_t constant[] = u"0123456789abcdefghijklmnopqrstuvwxyz";
    for (int round = 0; round < 2000; ++round) {
        UString s(std::u16string(below(60), u'a'));
        switch (below(4)) {
        case 0:
            s.setTo(true, constant, 36);
            break;
        case 1:
            s.reserve(below(100));
            break;
        default:
            break;
        }
        const icu::UnicodeString sharer(s);
        const std::u16string shared = str(s);
        icu::UnicodeString plain(shared.data(), static_cast<int>(shared.size()));
        for (int step = 0; step < 6; ++step) {
            const unsigned int pos = below(70);
            const unsigned int n = below(70);
            const std::u16string piece(below(40), static_cast<char16_t>(u'A' + step));
            const auto at = static_cast<int>(pos);
            const auto count = static_cast<int>(n);
            const icu::UnicodeString plain_piece(piece.data(), static_cast<int>(piece.size()));
            switch (below(6)) {
            case 0:
                s.append(UString(piece));
                plain.append(plain_piece);
                break;
            case 1:
                s.insert(pos, UString(piece));
                plain.insert(at, plain_piece);
                break;
            case 2:
                s.replace(pos, n, units(piece.c_str()));
                plain.replace(at, count, plain_piece);
                break;
            case 3:
                s.erase(pos, n);
                plain.remove(at, count);
                break;
            case 4:
                s.set_at(pos, 'z');
                plain.setCharAt(at, u'z');
                break;
            case 5:
                s.c_str();
                break;
            }
            ASSERT_EQ(static_cast<const icu::UnicodeString&>(s), plain);
        }
        ASSERT_EQ(s.c_str()[s.length()], 0);
        ASSERT_EQ(sharer, icu::UnicodeString(shared.data(), static_cast<int>(shared.size())));
    }
}

TEST(UStringAppend, IsLinear)
{
    UString s;
    const unsigned long before = allocations_of_this_thread();
    for (int i = 0; i < 1'000'000; ++i)
        s.append('x');
    EXPECT_LT(allocations_of_this_thread() - before, 100u);
    EXPECT_EQ(s.length(), 1'000'000u);
}

// ---- UTF-8 ----

TEST(UStringUtf8, RoundTrips)
{
    const std::string text = "a\xC3\xA9\xE3\x81\x82\xF0\x9F\x98\x80";
    EXPECT_EQ(str(UString().utf8_assign(Utf8String(text))), u"a\u00E9\u3042\U0001F600");
    EXPECT_EQ(UString(u"a\u00E9\u3042\U0001F600").utf8_str(), text);
    bool failed = true;
    EXPECT_EQ(UString(u"a\u00E9\u3042\U0001F600").std_str("UTF-8", failed), text);
    EXPECT_FALSE(failed);
    UString s;
    EXPECT_EQ(s.assign(text, "UTF-8"), &s);
    EXPECT_EQ(s.utf8_str(), text);
}

TEST(UStringUtf8, KeepsZerosOnTheWayIn)
{
    EXPECT_EQ(str(UString(Utf8String(std::string("a\0b", 3)))), std::u16string(u"a\0b", 3));
}

TEST(UStringUtf8, MalformedGivesTheEmptyText)
{
    for (const char* const bytes :
         {"\xC3\x28", "\x80", "\xC3", "abc\xC3", "\xE3\x81", "\xF0\x9F\x98", "\xC0\x80", "\xC1\xBF",
          "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
          "\xF5\x80\x80\x80", "\xFE", "\xFF", "abcdefghijklmnopqrstuvwxyz012345\xFF"}) {
        UString s = ustr(LONG_UTF8);
        EXPECT_EQ(&s.utf8_assign(Utf8String(bytes)), &s);
        EXPECT_EQ(str(s), u"") << bytes;
        EXPECT_FALSE(s.isBogus());
        s = UString("old");
        EXPECT_EQ(s.assign(bytes, "UTF-8"), &s);
        EXPECT_EQ(str(s), u"") << bytes;
    }
    UString s("old");
    EXPECT_EQ(str(s.utf8_assign(Utf8String())), u"");
}

TEST(UStringUtf8, ZeroEndsTheBytesOnTheWayOut)
{
    EXPECT_EQ(UString(std::u16string(u"ab\0cd", 5)).utf8_str(), "ab");
    EXPECT_EQ(UString(std::u16string(u"\0cd", 3)).utf8_str(), "");
    bool failed = true;
    EXPECT_EQ(UString(std::u16string(u"ab\0cd", 5)).std_str("UTF-8", failed), "ab");
    EXPECT_FALSE(failed);
}

TEST(UStringUtf8, AnUnpairedSurrogateAnywhereEmptiesTheBytes)
{
    for (const std::u16string& text :
         {std::u16string(u"\xD800"), std::u16string(u"\xDC00"), std::u16string(u"ab\xD800"),
          std::u16string(u"ab\xD800z"), std::u16string(u"ab\xDC00z"),
          std::u16string(u"\xDC00\xD800"), std::u16string(u"\xD800\xD800\xDC00"),
          std::u16string(u"ab\0cd\xD800", 6), std::u16string(60, u'x') + u"\xDBFF"}) {
        bool failed = true;
        EXPECT_EQ(UString(text).utf8_str(), "");
        EXPECT_EQ(UString(text).std_str("UTF-8", failed), "");
        EXPECT_FALSE(failed);
    }
    EXPECT_EQ(UString().utf8_str(), "");
}

// What ICU makes of the bytes; the empty text when it reports an error.
std::u16string decoded_by_icu(const std::string& bytes)
{
    std::u16string text(bytes.size() + 1, u'\0');
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int>(text.size()), &length, bytes.data(),
                  static_cast<int>(bytes.size()), &status);
    return status == U_ZERO_ERROR ? text.substr(0, static_cast<std::size_t>(length))
                                  : std::u16string();
}

std::string encoded_by_icu(const std::u16string& text)
{
    std::string bytes(3 * text.size() + 1, '\0');
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8(bytes.data(), static_cast<int>(bytes.size()), nullptr, text.data(),
                static_cast<int>(text.size()), &status);
    return status == U_ZERO_ERROR ? bytes.c_str() : "";
}

std::string random_bytes(std::mt19937& random, bool well_formed)
{
    static const std::vector<std::string> pieces = {
        "a",
        "0123456789abcdef",
        "\xC3\xA9",
        "\xDF\xBF",
        "\xE3\x81\x82",
        "\xEF\xBF\xBF",
        "\xE0\xA0\x80",
        "\xED\x9F\xBF",
        "\xEE\x80\x80",
        "\xF0\x90\x80\x80",
        "\xF4\x8F\xBF\xBF",
        "\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87",
        "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\xD0\x9F\xD1\x80\xD0\xB8"};
    std::string bytes;
    for (unsigned int n = static_cast<unsigned int>(random() % 40); n > 0; --n)
        bytes += pieces[random() % (random() % 3 == 0 ? pieces.size() : 4)];
    if (!well_formed && !bytes.empty()) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 4) {
        case 0:
            bytes[at] = static_cast<char>(random());
            break;
        case 1:
            bytes.erase(at, 1);
            break;
        case 2:
            bytes.insert(at, 1, static_cast<char>(random()));
            break;
        case 3:
            bytes.resize(at);
            break;
        }
    }
    return bytes;
}

TEST(UStringUtf8, DecodesLongTextsAsIcuDoes)
{
    std::mt19937 random(8);
    UString s;
    for (int round = 0; round < 10'000; ++round) {
        const Utf8String bytes = random_bytes(random, round % 4 == 0);
        ASSERT_EQ(str(s.utf8_assign(bytes)), decoded_by_icu(bytes))
            << testing::PrintToString(bytes);
        ASSERT_EQ(str(UString(bytes)), decoded_by_icu(bytes)) << testing::PrintToString(bytes);
    }
}

TEST(UStringUtf8, EncodesLongTextsAsIcuDoes)
{
    std::mt19937 random(16);
    for (int round = 0; round < 5'000; ++round) {
        std::u16string text = decoded_by_icu(random_bytes(random, true));
        ASSERT_EQ(UString(text).utf8_str(), encoded_by_icu(text));
        if (text.empty())
            continue;
        text[random() % text.size()] = static_cast<char16_t>(random());
        ASSERT_EQ(UString(text).utf8_str(), encoded_by_icu(text));
    }
}

// Texts are encoded piece by piece; whatever a piece's end cuts, the bytes are the same.
TEST(UStringUtf8, EncodesTextsOfSeveralPiecesAsIcuDoes)
{
    for (const std::u16string& odd :
         {std::u16string(u"x"), std::u16string(u"\u00E9"), std::u16string(u"\uFFFF"),
          std::u16string(u"\U0001F600"), std::u16string(u"\xD800"), std::u16string(u"\xDC00"),
          std::u16string(1, u'\0'), std::u16string(u"\0\xD800", 2)})
        for (std::size_t at = 1000; at < 1050; ++at)
            for (const char16_t rest : {u'x', u'\u3042'}) {
                const std::u16string text =
                    std::u16string(at, u'x') + odd + std::u16string(3000, rest);
                ASSERT_EQ(UString(text).utf8_str(), encoded_by_icu(text)) << at;
            }
    EXPECT_EQ(UString(std::u16string(5000, u'x') + u'\0' + std::u16string(5000, u'x') + u"\xD800")
                  .utf8_str(),
              "");
}

TEST(UStringUtf8, EncodesPairAfterPairOverTheEndsOfPieces)
{
    std::u16string text;
    std::string bytes;
    for (int i = 0; i < 3000; ++i) {
        text += u"\U0001F600";
        bytes += "\xF0\x9F\x98\x80";
    }
    EXPECT_EQ(UString(text).utf8_str(), bytes);
    EXPECT_EQ(UString(u"\u00E9" + text).utf8_str(), "\xC3\xA9" + bytes);
}

// ---- charsets ----

TEST(UStringCharset, ConvertsBothWays)
{
    UString s;
    EXPECT_EQ(s.assign("\x83\x5C\x41", "Shift_JIS"), &s);
    EXPECT_EQ(str(s), u"\u30BDA");
    bool failed = true;
    EXPECT_EQ(s.std_str("Shift_JIS", failed), "\x83\x5C\x41");
    EXPECT_FALSE(failed);
    EXPECT_EQ(s.std_str("utf-8", failed), "\xE3\x82\xBD"
                                          "A")
        << "through a converter";
    EXPECT_EQ(s.std_str("EUC-JP", failed), "\xA5\xBD"
                                           "A");
    EXPECT_FALSE(failed);
}

TEST(UStringCharset, UndecodableBytesAreSubstituted)
{
    UString s;
    EXPECT_EQ(s.assign("a\xFFz", "US-ASCII"), &s);
    EXPECT_EQ(str(s), u"a\uFFFDz");
    // Through a converter, unlike the exact name "UTF-8".
    EXPECT_EQ(s.assign("a\xFFz", "utf-8"), &s);
    EXPECT_EQ(str(s), u"a\uFFFDz");
}

TEST(UStringCharset, CharactersOutsideItAreSubstitutedWithoutFailure)
{
    bool failed = true;
    EXPECT_EQ(UString(u"a\u3042z").std_str("ISO-8859-1", failed), "a\x1Az");
    EXPECT_FALSE(failed);
}

TEST(UStringCharset, UnknownOnTheWayInLeavesTheTextAndGivesNull)
{
    UString s("text");
    for (const char* const name :
         {"no-such-charset", "", "default", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(s.assign("bytes", name), nullptr);
        EXPECT_EQ(str(s), u"text");
        bool failed = false;
        EXPECT_EQ(&s.assign("bytes", name, failed), &s);
        EXPECT_TRUE(failed);
        EXPECT_EQ(str(s), u"text");
    }
    bool failed = true;
    EXPECT_EQ(str(s.assign("bytes", "ISO-8859-1", failed)), u"bytes");
    EXPECT_FALSE(failed);
}

TEST(UStringCharset, EmptyBytesClearTheTextWhateverTheCharset)
{
    for (const char* const name :
         {"no-such-charset", "UTF-8", "ISO-8859-1", static_cast<const char*>(nullptr)}) {
        UString s("text");
        EXPECT_EQ(s.assign("", name), &s);
        EXPECT_EQ(str(s), u"");
        bool failed = true;
        s = UString("text");
        EXPECT_EQ(str(s.assign("", name, failed)), u"");
        EXPECT_FALSE(failed);
    }
}

TEST(UStringCharset, UnknownOnTheWayOutIsEmptyWithoutFailure)
{
    for (const char* const name :
         {"no-such-charset", "", "default", static_cast<const char*>(nullptr)}) {
        bool failed = true;
        EXPECT_EQ(UString("text").std_str(name, failed), "");
        EXPECT_FALSE(failed);
    }
    bool failed = true;
    EXPECT_EQ(UString().std_str("no-such-charset", failed), "");
    EXPECT_FALSE(failed);
}

TEST(UStringCharset, AnUnknownNameInBetweenChangesNothing)
{
    const UString s(u"\u00E9");
    bool failed = true;
    EXPECT_EQ(s.std_str("ISO-8859-1", failed), "\xE9");
    EXPECT_EQ(s.std_str("no-such-charset", failed), "");
    EXPECT_EQ(s.std_str(nullptr, failed), "");
    EXPECT_EQ(s.std_str("ISO-8859-1", failed), "\xE9");
    EXPECT_FALSE(failed);
}

TEST(UStringCharset, DefaultIsThePlatformsThroughAConverter)
{
    const UString s(u"a\u00E9");
    bool failed = true;
    bool failed_by_name = true;
    EXPECT_EQ(s.std_str("DEFAULT", failed), s.std_str(UString::default_charset(), failed_by_name));
    EXPECT_EQ(failed, failed_by_name);
    EXPECT_STREQ(UString::default_charset(), ucnv_getDefaultName());
    EXPECT_EQ(UString::default_charset(), UString::default_charset()) << "asked for once";
    EXPECT_EQ(UString::eval_charset("DEFAULT"), UString::default_charset());
    const char* const name = "Default";
    EXPECT_EQ(UString::eval_charset(name), name);
    EXPECT_EQ(UString::eval_charset(nullptr), nullptr);
    // A lone surrogate is an error of the built-in UTF-8 path and a substitution of a converter.
    EXPECT_NE(UString(u"a\xD800").std_str("DEFAULT", failed), "");
    EXPECT_FALSE(failed);
    UString t;
    EXPECT_EQ(t.assign("abc", "DEFAULT"), &t);
    EXPECT_EQ(str(t), u"abc");
}

TEST(UStringCharset, ZeroBytesEndTheResult)
{
    bool failed = true;
    EXPECT_EQ(UString(std::u16string(u"ab\0cd", 5)).std_str("ISO-8859-1", failed), "ab");
    EXPECT_FALSE(failed);
    EXPECT_EQ(UString(u"ab").std_str("UTF-16BE", failed), "");
    EXPECT_FALSE(failed);
}

// The size ICU is told is the largest character's times the length, plus one. A byte order mark or
// a shift sequence does not fit that.
TEST(UStringCharset, AFullBufferFailsAndIsNotReadBeyond)
{
    bool failed = false;
    EXPECT_EQ(UString(u"A").std_str("UTF-16", failed), "\xFF\xFE"
                                                       "A")
        << "of FF FE 41 00, 3 bytes fit";
    EXPECT_TRUE(failed);
    EXPECT_EQ(UString(u"\u3042").std_str("UTF-16", failed), "\xFF\xFE\x42");
    EXPECT_TRUE(failed);
    // Five bytes of five: no room for a terminator, a warning.
    EXPECT_EQ(UString(u"\u00E9").std_str("UTF-7", failed), "+AOk-");
    EXPECT_TRUE(failed);
    EXPECT_EQ(UString(u"\u00E9\u00E9").std_str("UTF-7", failed), "+AOkA6Q-");
    EXPECT_FALSE(failed);
    // Escape sequence, two bytes, escape sequence: eight bytes of seven.
    EXPECT_EQ(UString(u"\u3042").std_str("ISO-2022-JP", failed), "\x1B$B$\"\x1B(");
    EXPECT_TRUE(failed);
}

TEST(UStringCharset, FailureIsTheConversionsAlone)
{
    // Opening this one gives a warning, since the alias is ambiguous.
    UErrorCode status = U_ZERO_ERROR;
    ucnv_close(ucnv_open("windows-1252", &status));
    ASSERT_NE(status, U_ZERO_ERROR);
    bool failed = true;
    EXPECT_EQ(UString(u"\u20AC").std_str("windows-1252", failed), "\x80");
    EXPECT_FALSE(failed);
}

// ICU drops the locale from this converter's name, and by the name alone is decided whether the
// cached one serves: so which of the two converts shows whether there was a cached one.
constexpr const char* KOREAN_FIRST = "LMBCS-1,locale=ko";
constexpr const char* BY_NAME = "LMBCS-1";
constexpr const char* FROM_KOREAN = "\x11\xF1\xE9";
constexpr const char* FROM_FRESH = "\x10\x92\x86";

std::string converted(const UString& s, const char* charset)
{
    bool failed = true;
    std::string bytes = s.std_str(charset, failed);
    EXPECT_FALSE(failed);
    return bytes;
}

TEST(UStringConverter, IsKeptWhileItsNameFits)
{
    const UString s(u"\u4E2D");
    EXPECT_EQ(converted(s, BY_NAME), FROM_FRESH);
    EXPECT_EQ(converted(s, KOREAN_FIRST), FROM_KOREAN) << "the names compare unequal";
    EXPECT_EQ(converted(s, BY_NAME), FROM_KOREAN) << "the cached one's name is just this";
    EXPECT_EQ(converted(s, "lmbcs_1"), FROM_KOREAN) << "names are compared loosely";
    EXPECT_EQ(converted(s, "ISO-8859-1"), "\x1A");
    EXPECT_EQ(converted(s, BY_NAME), FROM_FRESH) << "replaced in between";
    EXPECT_EQ(converted(s, KOREAN_FIRST), FROM_KOREAN);
    converted(s, "no-such-charset");
    EXPECT_EQ(converted(s, BY_NAME), FROM_FRESH) << "closed in between";
    EXPECT_EQ(converted(s, KOREAN_FIRST), FROM_KOREAN);
    converted(s, "UTF-8");
    EXPECT_EQ(converted(s, BY_NAME), FROM_KOREAN) << "the built-in path does not touch it";
}

TEST(UStringConverter, IsNeverHandedOn)
{
    UString s(u"\u4E2D");
    const auto has_korean = [](const UString& t) { return converted(t, BY_NAME) == FROM_KOREAN; };
    converted(s, KOREAN_FIRST);
    EXPECT_FALSE(has_korean(UString(s))) << "copy";
    UString target(u"\u4E2D");
    target = s;
    EXPECT_FALSE(has_korean(target)) << "copy assignment";
    target.assign(s);
    EXPECT_FALSE(has_korean(target)) << "assign";
    swap(target, s);
    EXPECT_FALSE(has_korean(target)) << "swap";
    EXPECT_TRUE(has_korean(s)) << "swap leaves it in place";
    target = std::move(s);
    EXPECT_FALSE(has_korean(target)) << "move assignment";
    s = target;
    EXPECT_TRUE(has_korean(s)) << "a target keeps its own, a moved-from string too";
    const UString moved(std::move(s));
    EXPECT_FALSE(has_korean(moved)) << "move construction";
    EXPECT_FALSE(has_korean(UString(u"\u4E2D"))) << "a fresh string";
}

TEST(UStringConverter, OfTheCharsetInIsTheOneOfTheCharsetOut)
{
    UString s;
    s.assign(FROM_KOREAN, KOREAN_FIRST);
    EXPECT_EQ(str(s), u"\u4E2D");
    EXPECT_EQ(converted(s, BY_NAME), FROM_KOREAN);
    const UString constructed(FROM_KOREAN, KOREAN_FIRST);
    EXPECT_EQ(converted(constructed, BY_NAME), FROM_KOREAN);
}

TEST(UStringConverter, ThatIsIdleIsReusedByTheNextString)
{
    const auto convert = [] { return converted(UString(u"\u00E9"), "ISO-8859-1"); };
    EXPECT_EQ(convert(), "\xE9");
    const unsigned long before = allocations_of_this_thread();
    for (int i = 0; i < 100; ++i)
        convert();
    EXPECT_EQ(allocations_of_this_thread(), before);
}

// Every charset of ICU, through more of them than are kept idle: a reused converter gives what a
// fresh one gives, and texts come out as ICU alone converts them.
TEST(UStringConverter, ReusedGivesWhatAFreshOneGives)
{
    const std::u16string text = u"aZ\u00E9\u0416\u3042\u4E2D\uAC00\u20AC\U0001F600z";
    for (int round = 0; round < 2; ++round)
        for (int i = 0; i < ucnv_countAvailable(); ++i) {
            // The exact name "UTF-8" does not go through a converter.
            const std::string exact = ucnv_getAvailableName(i);
            const char* const name = exact == "UTF-8" ? "utf8" : exact.c_str();
            UErrorCode status = U_ZERO_ERROR;
            UConverter* const fresh = ucnv_open(name, &status);
            if (fresh == nullptr)
                continue;
            const int size = ucnv_getMaxCharSize(fresh) * static_cast<int>(text.size()) + 1;
            std::string bytes(static_cast<std::size_t>(size) + 1, '\0');
            status = U_ZERO_ERROR;
            ucnv_fromUChars(fresh, bytes.data(), size, text.data(), static_cast<int>(text.size()),
                            &status);
            bool failed = false;
            EXPECT_EQ(UString(text).std_str(name, failed), bytes.c_str()) << name;
            EXPECT_EQ(failed, status != U_ZERO_ERROR) << name;

            const std::string input =
                "ab\x1B$B\x0E\x83\x5C\xC3\xA9\xFF\xE3\x81 \x8E\xA1\x7E{!{\x0F";
            std::u16string decoded(100, u'\0');
            status = U_ZERO_ERROR;
            decoded.resize(
                static_cast<std::size_t>(ucnv_toUChars(fresh, decoded.data(), 100, input.data(),
                                                       static_cast<int>(input.size()), &status)));
            UString s;
            EXPECT_EQ(s.assign(input, name), &s);
            EXPECT_EQ(str(s), decoded) << name;
            ucnv_close(fresh);
        }
}

// This one starts each text in the character set in which its converter ended the last.
TEST(UStringConverter, ThatIcuCannotResetConvertsOneTextOnly)
{
    constexpr const char* COMPOUND_TEXT = "x11-compound-text";
    const std::string cyrillic = "\x1B-L\xD0";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(converted(UString(u"\u0430"), COMPOUND_TEXT), cyrillic) << "another string's";
    const UString s(u"\u0430");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(converted(s, COMPOUND_TEXT), cyrillic) << "its own";
    UString decoded(cyrillic.c_str(), COMPOUND_TEXT);
    EXPECT_EQ(str(decoded), u"\u0430");
    decoded.assign(std::string("\xE9"), COMPOUND_TEXT);
    EXPECT_EQ(str(decoded), u"\u00E9") << "of Latin-1, in which every text starts";
    EXPECT_EQ(str(UString("\xE9", COMPOUND_TEXT)), u"\u00E9");
}

// A charset that has converted once is known: what its converter makes of each byte by itself then
// converts most texts. They must come out as the converter makes them, whatever stands side by
// side.
class known_charset {
public:
    explicit known_charset(const char* name) : name_(name), converter_(ucnv_open(name, &status_)) {}
    ~known_charset() { ucnv_close(converter_); }
    known_charset(const known_charset&) = delete;
    known_charset& operator=(const known_charset&) = delete;

    bool is_open() const { return converter_ != nullptr; }
    bool is_single_byte() const { return ucnv_getMaxCharSize(converter_) == 1; }

    std::u16string decoded(const std::string& bytes)
    {
        std::u16string text(2 * bytes.size() + 16, u'\0');
        status_ = U_ZERO_ERROR;
        text.resize(static_cast<std::size_t>(
            ucnv_toUChars(converter_, text.data(), static_cast<int>(text.size()), bytes.data(),
                          static_cast<int>(bytes.size()), &status_)));
        return text;
    }

    // Up to the first zero byte.
    std::string encoded(const std::u16string& text)
    {
        const auto room = static_cast<std::size_t>(ucnv_getMaxCharSize(converter_)) * text.size();
        std::string bytes(room + 2, '\0');
        status_ = U_ZERO_ERROR;
        ucnv_fromUChars(converter_, bytes.data(), static_cast<int>(room + 1), text.data(),
                        static_cast<int>(text.size()), &status_);
        return bytes.c_str();
    }

    // A fresh string each time, since one that has a converter goes on with it.
    bool decodes_alike(const std::string& bytes)
    {
        UString s;
        s.assign(bytes, name_);
        return str(s) == decoded(bytes);
    }

    bool encodes_alike(const std::u16string& text)
    {
        bool failed = false;
        const std::string bytes = UString(text).std_str(name_, failed);
        return bytes == encoded(text) && failed == (status_ != U_ZERO_ERROR);
    }

private:
    const char* name_;
    UErrorCode status_ = U_ZERO_ERROR;
    UConverter* converter_;
};

// Every pair of bytes from `first` on, side by side.
std::string pairs_of_bytes(unsigned int first, unsigned int last)
{
    std::string bytes;
    for (unsigned int a = first; a <= last; ++a)
        for (unsigned int b = first; b <= last; ++b)
            bytes.append({static_cast<char>(a), static_cast<char>(b)});
    return bytes;
}

TEST(UStringKnownCharset, ConvertsAsItsConverterDoes)
{
    for (int i = 0; i < ucnv_countAvailable(); i += ONE_IN) {
        const char* const name = ucnv_getAvailableName(i);
        known_charset charset(name);
        if (!charset.is_open() || std::string(name) == "UTF-8")
            continue;
        EXPECT_TRUE(charset.decodes_alike("a")) << "learns it: " << name;
        for (const auto& [first, last] : {std::pair(0u, 0x7Fu), {0x20u, 0x7Eu}, {0x1Fu, 0x7Fu}}) {
            const std::string bytes = pairs_of_bytes(first, last);
            EXPECT_TRUE(charset.decodes_alike(bytes)) << name << ' ' << first;
            EXPECT_TRUE(charset.encodes_alike(std::u16string(bytes.begin(), bytes.end())))
                << name << ' ' << first;
        }
        for (unsigned int byte = 0; byte < 256; ++byte) {
            EXPECT_TRUE(charset.decodes_alike({static_cast<char>(byte)})) << name << ' ' << byte;
            EXPECT_TRUE(charset.encodes_alike({static_cast<char16_t>(byte), u'a'}))
                << name << ' ' << byte;
        }
    }
}

TEST(UStringKnownCharset, OfSingleBytesConvertsEveryPairOfThem)
{
    const std::string bytes = pairs_of_bytes(0, 255);
    for (int i = 0; i < ucnv_countAvailable(); i += ONE_IN) {
        const char* const name = ucnv_getAvailableName(i);
        known_charset charset(name);
        if (!charset.is_open() || !charset.is_single_byte())
            continue;
        EXPECT_TRUE(charset.decodes_alike("a")) << "learns it: " << name;
        EXPECT_TRUE(charset.decodes_alike(bytes)) << name;
        // Without zeros, which end the result.
        std::u16string text = charset.decoded(pairs_of_bytes(1, 255));
        text.erase(std::remove(text.begin(), text.end(), u'\0'), text.end());
        EXPECT_TRUE(charset.encodes_alike(text)) << name;
    }
}

TEST(UStringKnownCharset, ConvertsEveryUnitAsItsConverterDoes)
{
    for (const char* const name : {"ISO-8859-1", "windows-1252", "IBM437", "IBM037", "Shift_JIS"}) {
        known_charset charset(name);
        EXPECT_TRUE(charset.encodes_alike(u"a")) << "learns it: " << name;
        for (unsigned int unit = 0; unit <= 0xFFFF; ++unit)
            ASSERT_TRUE(charset.encodes_alike({static_cast<char16_t>(unit), u'z'}))
                << name << ' ' << unit;
    }
}

// Names that begin, end or are compared like the one that has a way of its own.
constexpr const char* NAMES_LIKE_LATIN1[] = {
    "ISO-8859-1",  "ISO-8859-",   "ISO-8859-2", "ISO-8859-15",     "ISO-8859-1 ",
    "iso-8859-1",  "ISO_8859-1",  "ISO8859-1",  "ISO-8859-1,",     "ISO-8859-1,swaplfnl",
    "ISO-8859-1x", "xISO-8859-1", "I",          "ISO-2022-JP",     "IBM437",
    "latin1",      "US-ASCII",    "",           "no-such-charset",
};

TEST(UStringKnownCharset, IsNoneOfALikeName)
{
    const std::string bytes = "a line of which \xA4 is not the same in all of them \xE9";
    for (int round = 0; round < 2; ++round)
        for (const char* const name : NAMES_LIKE_LATIN1) {
            known_charset charset(name);
            if (charset.is_open()) {
                EXPECT_TRUE(charset.decodes_alike(bytes)) << name;
                EXPECT_TRUE(charset.encodes_alike(charset.decoded(bytes))) << name;
            } else {
                EXPECT_EQ(UString().assign(bytes, name), nullptr) << name;
                EXPECT_EQ(converted(UString(u"a line without a charset"), name), "") << name;
            }
        }
}

TEST(UStringKnownCharset, ConvertsWhatAnotherStringWould)
{
    for (const char* const first : NAMES_LIKE_LATIN1)
        for (const std::size_t size : {1u, 15u, 16u, 27u, 28u, 64u, 65u}) {
            const std::string bytes(size, '\xE9');
            UString used(u"a text that does not fit into the object itself");
            used.assign("a line before", first);
            EXPECT_EQ(used.assign(bytes, "ISO-8859-1"), &used) << first;
            EXPECT_EQ(str(used), std::u16string(size, u'\xE9')) << first << ' ' << size;
            EXPECT_EQ(converted(used, "ISO-8859-1"), bytes) << first << ' ' << size;
            EXPECT_EQ(converted(used, "ISO-8859-1"), bytes) << "once more";
        }
}

TEST(UStringKnownCharset, EncodesAnyUnitInAnyPlaceAsItsConverterDoes)
{
    known_charset charset("ISO-8859-1");
    for (std::size_t size = 1; size <= 66; ++size)
        for (std::size_t at = 0; at < size; ++at)
            for (const char16_t unit : {u'\0', u'\x80', u'\xFF', u'\x100', u'\xD800', u'\xFFFF'}) {
                std::u16string text(size, u'x');
                text[at] = unit;
                ASSERT_TRUE(charset.encodes_alike(text)) << size << ' ' << at << ' ' << int{unit};
            }
}

TEST(UStringKnownCharset, ConvertsEveryLength)
{
    for (const char* const name : {"ISO-8859-1", "windows-1252", "Shift_JIS", "ISO-2022-JP"}) {
        known_charset charset(name);
        for (std::size_t size = 1; size < 1200; size += size < 70 ? 1 : 61) {
            const std::string bytes(size, 'x');
            ASSERT_TRUE(charset.decodes_alike(bytes)) << name << ' ' << size;
            ASSERT_TRUE(charset.decodes_alike(bytes + "\xE9")) << name << ' ' << size;
            const std::u16string text(size, u'x');
            ASSERT_TRUE(charset.encodes_alike(text)) << name << ' ' << size;
            ASSERT_TRUE(charset.encodes_alike(text + u"\u00E9")) << name << ' ' << size;
            ASSERT_TRUE(charset.encodes_alike(text + u"\u3042")) << name << ' ' << size;
        }
    }
}

// A string that has a converter goes on as if each conversion had one.
// Longer names are not remembered.
TEST(UStringKnownCharset, MayHaveAnyOtherName)
{
    const std::string name = "ISO-8859-1,locale=" + std::string(50, 'x');
    for (int i = 0; i < 2; ++i) {
        UString s;
        ASSERT_EQ(s.assign(std::string("\xE9"), name.c_str()), &s);
        EXPECT_EQ(str(s), u"\u00E9");
        EXPECT_EQ(converted(s, name.c_str()), "\xE9");
    }
}

TEST(UStringKnownCharset, DoesNotHideWhichConverterAStringHas)
{
    const UString s(u"plain");
    const UString chinese(u"\u4E2D");
    EXPECT_EQ(converted(chinese, KOREAN_FIRST), FROM_KOREAN);
    EXPECT_EQ(converted(s, "ISO-8859-1"), "plain");
    EXPECT_EQ(converted(chinese, BY_NAME), FROM_KOREAN);
    EXPECT_EQ(converted(chinese, "ISO-8859-1"), "\x1A");
    EXPECT_EQ(converted(chinese, BY_NAME), FROM_FRESH) << "replaced in between";
}

// The rule by which a string keeps a converter holds where none was needed: what ICU does not open
// is understood while it compares equal to the name of what the string has.
TEST(UStringKnownCharset, IsKeptWhileItsNameFits)
{
    for (const auto& [name, only_fits] :
         {std::pair("ISO-8859-1", "iso,8859 1"), {"Shift_JIS", "ibm,943_P15A-2003"}}) {
        EXPECT_EQ(converted(UString(u"plain"), only_fits), "") << "fresh";
        for (int round = 0; round < 2; ++round) {
            const UString s(u"plain");
            EXPECT_EQ(converted(s, name), "plain");
            EXPECT_EQ(converted(s, only_fits), "plain") << "kept";
            EXPECT_EQ(converted(s, "windows-1252"), "plain");
            EXPECT_EQ(converted(s, only_fits), "") << "replaced in between";
            UString t;
            EXPECT_EQ(t.assign("plain", name), &t);
            EXPECT_EQ(t.assign("still plain", only_fits), &t);
            EXPECT_EQ(str(t), u"still plain");
            EXPECT_EQ(t.assign("plain", "no-such-charset"), nullptr);
            EXPECT_EQ(t.assign("plain", only_fits), nullptr) << "let go in between";
        }
    }
}

// ---- charsets of two bytes a character ----

UConverterType type_of(const char* name)
{
    UErrorCode status = U_ZERO_ERROR;
    UConverter* const converter = ucnv_open(name, &status);
    if (converter == nullptr)
        return UCNV_UNSUPPORTED_CONVERTER;
    const UConverterType type = ucnv_getType(converter);
    ucnv_close(converter);
    return type;
}

std::vector<const char*> charsets_of(std::initializer_list<UConverterType> types)
{
    std::vector<const char*> names;
    int found = 0;
    for (int i = 0; i < ucnv_countAvailable(); ++i) {
        const char* const name = ucnv_getAvailableName(i);
        if (std::find(types.begin(), types.end(), type_of(name)) != types.end() &&
            found++ % ONE_IN == 0)
            names.push_back(name);
    }
    return names;
}

std::vector<const char*> double_byte_charsets()
{
    return charsets_of({UCNV_MBCS, UCNV_DBCS});
}

std::string two_bytes(unsigned int number)
{
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

// More often than the library converts a character before it learns what the character is.
void convert_often(const char* name)
{
    bool failed = false;
    for (int i = 0; i < 100; ++i)
        for (unsigned int page = 0; page <= 0xFF; ++page) {
            UString().assign(two_bytes(page << 8 | 0xA1), name);
            UString().assign("\x1B$B" + two_bytes(page << 8 | 0x24), name);
            UString(std::u16string(1, static_cast<char16_t>(page << 8 | 0x42)))
                .std_str(name, failed);
        }
}

TEST(UStringDoubleByteCharset, ConvertsEveryPairOfBytesAndEveryUnitAsItsConverterDoes)
{
    for (const char* const name : double_byte_charsets()) {
        known_charset charset(name);
        convert_often(name);
        for (unsigned int number = 0; number <= 0xFFFF; ++number) {
            ASSERT_TRUE(charset.decodes_alike(two_bytes(number))) << name << ' ' << number;
            ASSERT_TRUE(charset.encodes_alike({static_cast<char16_t>(number), u'z'}))
                << name << ' ' << number;
        }
    }
}

// What the bytes of a character are may depend on the next one: there are letters that have one
// code together with an accent.
TEST(UStringDoubleByteCharset, ConvertsLettersWithAccentsAsItsConverterDoes)
{
    const char* const name = "ibm-16684";
    known_charset charset(name);
    convert_often(name);
    ASSERT_EQ(charset.encoded(u"\u00E6\u0300").size(), 2u) << "bytes";
    for (const char16_t accent : {u'\u0300', u'\u0301', u'\u309A'})
        for (unsigned int unit = 1; unit <= 0xFFFF; ++unit)
            ASSERT_TRUE(charset.encodes_alike({static_cast<char16_t>(unit), accent})) << unit;
}

TEST(UStringDoubleByteCharset, ConvertsTextsAsItsConverterDoes)
{
    std::minstd_rand random(5);
    for (const char* const name : double_byte_charsets()) {
        known_charset charset(name);
        convert_often(name);
        for (int i = 0; i < 500; ++i) {
            std::string bytes;
            for (std::size_t length = random() % 90; bytes.size() <= length;)
                bytes += random() % 4 == 0
                             ? "a"
                             : two_bytes(static_cast<unsigned int>(random() & 0xFFFF) | 0x8080);
            ASSERT_TRUE(charset.decodes_alike(bytes)) << name;
            // Also such as have no substitutes in them.
            std::u16string text = charset.decoded(bytes);
            if (i % 2 != 0)
                text.erase(std::remove(text.begin(), text.end(), u'\uFFFD'), text.end());
            ASSERT_TRUE(text.empty() || charset.encodes_alike(text)) << name;
            ASSERT_TRUE(text.empty() || charset.decodes_alike(charset.encoded(text))) << name;
        }
    }
}

TEST(UStringEscapedCharset, ConvertsEveryPairOfBytesAndEveryUnitAsItsConverterDoes)
{
    for (const char* const name : charsets_of({UCNV_ISO_2022})) {
        known_charset charset(name);
        convert_often(name);
        for (unsigned int number = 0; number <= 0xFFFF; ++number) {
            const std::string bytes = "a\x1B$B$\"" + two_bytes(number) + "\x1B(Bz";
            ASSERT_TRUE(charset.decodes_alike(bytes)) << name << ' ' << number;
            const auto unit = static_cast<char16_t>(number);
            ASSERT_TRUE(charset.encodes_alike({unit})) << name << ' ' << number;
            ASSERT_TRUE(charset.encodes_alike({unit, u'\u3042', unit, u'a', unit}))
                << name << ' ' << number;
        }
    }
}

template <class Text, std::size_t N>
Text random_text(std::minstd_rand& random, const std::array<Text, N>& pieces)
{
    Text text;
    for (std::size_t length = 1 + random() % 12; length > 0; --length)
        text += pieces[random() % N];
    return text;
}

TEST(UStringEscapedCharset, ConvertsTextsAsItsConverterDoes)
{
    const std::array<std::string, 18> bytes = {"\x1B$B",
                                               "\x1B(B",
                                               "\x1B(J",
                                               "\x1B$@",
                                               "\x1B",
                                               "$\"",
                                               "0!",
                                               "\n",
                                               "\x0E",
                                               "a",
                                               "~",
                                               "abc",
                                               "\x1B$B$\"\x1B(B",
                                               "\x1B$B$\"\x1B(B",
                                               "\x1B$B0!\x1B(Bab",
                                               "\x1B$B0!\x1B(Bab",
                                               "\x1B$B\x1B(B",
                                               "\x1B$B$\"0!$\"\x1B(B"};
    const std::array<std::u16string, 12> units = {u"\u3042", u"\u3042", u"\u4E2D", u"\uFF0D",
                                                  u"a",      u"a",      u"~",      u"\u00A5",
                                                  u"\uFF71", u"\n",     u"\u00E9", u"\U0001F600"};
    std::minstd_rand random(6);
    for (const char* const name : charsets_of({UCNV_ISO_2022})) {
        known_charset charset(name);
        convert_often(name);
        for (int i = 0; i < 5000; ++i) {
            const std::string in = random_text(random, bytes);
            ASSERT_TRUE(charset.decodes_alike(in)) << name << ' ' << testing::PrintToString(in);
            ASSERT_TRUE(charset.encodes_alike(random_text(random, units))) << name;
        }
    }
}

// The room that ICU is given for them has none for escape sequences.
TEST(UStringEscapedCharset, ConvertsLongTextsAsItsConverterDoes)
{
    known_charset charset("ISO-2022-JP");
    convert_often("ISO-2022-JP");
    std::u16string text;
    for (int i = 0; i < 300; ++i) {
        text += i % 7 < 4 ? u'\u3042' : u'a';
        ASSERT_TRUE(charset.encodes_alike(text)) << i;
        ASSERT_TRUE(charset.decodes_alike(charset.encoded(text))) << i;
    }
}

TEST(UStringDoubleByteCharset, IsLearnedByThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 300; ++i) {
                UString s;
                s.assign("\xB0\xA1\xB0\xA2", "EUC-KR");
                EXPECT_EQ(str(s), u"\uAC00\uAC01");
                EXPECT_EQ(converted(s, "EUC-KR"), "\xB0\xA1\xB0\xA2");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(UStringConverter, PoolServesThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            const std::array<const char*, 4> names = {"ISO-8859-1", "windows-1252", "EUC-JP",
                                                      "ISO-8859-15"};
            for (int i = 0; i < 2000; ++i) {
                const char* const name = names[static_cast<std::size_t>((i + t) % 4)];
                bool failed = false;
                EXPECT_EQ(UString("plain").std_str(name, failed), "plain");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(UStringConverter, PoolWorksInAForkedChild)
{
    EXPECT_EQ(converted(UString("plain"), "ISO-8859-1"), "plain");
    const pid_t child = fork();
    if (child == 0)
        _exit(converted(UString("plain"), "ISO-8859-1") == "plain" ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

/// The opening of a converter that stops at one of ICU's allocations until another thread forks,
/// and goes on when that thread waits for the opening, or for its child.
struct stopped_opening_t {
    watched_t forking;
    std::promise<void> is_reached;
    int allocations_before;
};

thread_local stopped_opening_t* opening_of_this_thread = nullptr;

void* allocate_for_icu(const void*, std::size_t size)
{
    stopped_opening_t* const opening = opening_of_this_thread;
    if (opening != nullptr && opening->allocations_before-- == 0) {
        opening->is_reached.set_value();
        EXPECT_TRUE(opening->forking.falls_asleep());
    }
    return std::malloc(size);
}

void stop_at_allocations_of_icu()
{
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(
        nullptr, allocate_for_icu,
        [](const void*, void* memory, std::size_t size) { return std::realloc(memory, size); },
        [](const void*, void* memory) { std::free(memory); }, &status);
    ASSERT_TRUE(U_SUCCESS(status));
}

void expect_to_convert_in_child(const char* charset)
{
    in_child(
        [charset] {
            alarm(20);
            EXPECT_EQ(converted(UString("plain"), charset), "plain");
        },
        _exit);
}

// ICU has a lock of its own around its charsets, taken at some of these moments.
TEST(UStringConverter, OpensInTheChildWhatAnotherThreadWasOpening)
{
    if (IS_SANITIZED)
        GTEST_SKIP() << "the sanitizers' heaps stay locked in the child";
    constexpr const char* NEVER_OPENED_BEFORE = "windows-936-2000";
    for (int n = 0; n < 3; ++n)
        in_child([n] {
            stop_at_allocations_of_icu();
            stopped_opening_t opening{.forking = {}, .is_reached = {}, .allocations_before = n};
            std::thread opener([&opening] {
                opening_of_this_thread = &opening;
                EXPECT_EQ(converted(UString("plain"), NEVER_OPENED_BEFORE), "plain");
                opening_of_this_thread = nullptr;
                if (opening.allocations_before >= 0)
                    opening.is_reached.set_value();  // there were fewer
            });
            opening.is_reached.get_future().wait();
            opening.forking.watch_me();
            expect_to_convert_in_child(NEVER_OPENED_BEFORE);
            opener.join();
        });
}

TEST(UStringCharset, LongTextsConvertWhole)
{
    const std::string bytes(100'000, '\xE9');
    UString s;
    s.assign(bytes, "ISO-8859-1");
    EXPECT_EQ(str(s), std::u16string(100'000, u'\u00E9'));
    EXPECT_EQ(converted(s, "ISO-8859-1"), bytes);
    EXPECT_EQ(converted(s, "UTF-7").size(), 266'669u) << "8 bytes for 3 units, shifted once";
}

// ---- streams ----

TEST(UStringStream, ReadsWords)
{
    std::istringstream in("  caf\xC3\xA9\tbar\n");
    UString s("old");
    in >> s;
    EXPECT_EQ(str(s), u"caf\u00E9");
    Utf8String bytes;
    in >> bytes;
    EXPECT_EQ(bytes, "bar");
    in >> s;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(str(s), u"") << "assigned also when there is no word";
}

TEST(UStringStream, MalformedWordIsEmpty)
{
    std::istringstream in("\xC3( next");
    UString s("old");
    in >> s;
    EXPECT_EQ(str(s), u"");
    in >> s;
    EXPECT_EQ(str(s), u"next");
}

TEST(UStringStream, ReadsWideWordsBehindZero)
{
    std::wistringstream in(L" A\x1F600 B");
    UString s;
    in >> s;
    EXPECT_EQ(str(s), char16_t(0) + std::u16string(u"A\U0001F600"));
    in >> s;
    EXPECT_EQ(str(s), char16_t(0) + std::u16string(u"B"));
    in >> s;
    EXPECT_EQ(str(s), u"");
}

TEST(UStringStream, LeavesBytesAloneWhenThereIsNoWord)
{
    std::istringstream in("  ");
    Utf8String bytes("old");
    in >> bytes;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(bytes, "old");
    EXPECT_TRUE((in >> bytes).fail()) << "nor from a stream that has failed";
    EXPECT_EQ(bytes, "old");
}

TEST(UStringStream, KeepsWidthAndWhiteSpaceFlag)
{
    std::istringstream in(" abcdef");
    Utf8String bytes("old");
    in >> std::noskipws >> bytes;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(bytes, "") << "as in the standard library, a word of no bytes";
    in.clear();
    in >> std::skipws >> std::setw(4) >> bytes;
    EXPECT_EQ(bytes, "abcd");
    EXPECT_EQ(in.width(), 0);
    in >> bytes;
    EXPECT_EQ(bytes, "ef");
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.fail());
}

TEST(UStringStream, ThrowsTheFailuresThatItsOwnerAskedFor)
{
    std::istringstream in("one");
    in.exceptions(std::ios_base::failbit);
    UString s;
    in >> s;
    EXPECT_EQ(str(s), u"one");
    EXPECT_EQ(in.exceptions(), std::ios_base::failbit);
    EXPECT_THROW(in >> s, std::ios_base::failure);
    EXPECT_EQ(str(s), u"one");
    EXPECT_EQ(in.exceptions(), std::ios_base::failbit);
    EXPECT_TRUE(in.fail());
}

// Ends in the middle of a word with an exception of its own.
class broken_source : public std::streambuf {
public:
    broken_source() { setg(text_, text_, text_ + sizeof text_); }

private:
    int_type underflow() override { throw std::logic_error("broken"); }
    char text_[3] = {'a', 'b', 'c'};
};

TEST(UStringStream, KeepsToItselfThatItsSourceBroke)
{
    broken_source source;
    std::istream in(&source);
    UString s("old");
    EXPECT_NO_THROW(in >> s);
    EXPECT_TRUE(in.bad());
    EXPECT_EQ(str(s), u"old") << "abc is no word";
    EXPECT_EQ(in.exceptions(), std::ios_base::goodbit);
}

TEST(UStringStream, TellsThatItsSourceBrokeWhereAskedTo)
{
    broken_source source;
    std::istream in(&source);
    in.exceptions(std::ios_base::badbit);
    Utf8String bytes("old");
    EXPECT_THROW(in >> bytes, std::logic_error);
    EXPECT_EQ(bytes, "old");
}

// Ends its thread in the middle of a word.
class last_source : public std::streambuf {
public:
    last_source() { setg(text_, text_, text_ + sizeof text_); }

private:
    int_type underflow() override { pthread_exit(nullptr); }
    char text_[3] = {'a', 'b', 'c'};
};

TEST(UStringStream, LetsItsThreadEnd)
{
    last_source source;
    std::istream in(&source);
    UString s("old");
    std::thread([&] {
        in >> s;
        ADD_FAILURE() << "the thread goes on";
    }).join();
    EXPECT_EQ(str(s), u"old");
    EXPECT_TRUE(in.bad());
    EXPECT_EQ(in.exceptions(), std::ios_base::goodbit);
}

// A word that arrives in pieces, each time from its beginning.
template <class Char>
class word_in_pieces : public std::basic_streambuf<Char> {
public:
    explicit word_in_pieces(std::size_t length) : word_(length, Char('x')) {}
    void begin()
    {
        next_ = 0;
        this->setg(nullptr, nullptr, nullptr);
    }

private:
    using traits = std::char_traits<Char>;
    typename traits::int_type underflow() override
    {
        const std::size_t count = std::min<std::size_t>(100, word_.size() - next_);
        if (count == 0)
            return traits::eof();
        Char* const piece = word_.data() + next_;
        next_ += count;
        this->setg(piece, piece, piece + count);
        return traits::to_int_type(*piece);
    }

    std::basic_string<Char> word_;
    std::size_t next_ = 0;
};

template <class Char, class Text>
void expect_whole_word_only(const Text& old, const Text& whole)
{
    word_in_pieces<Char> source(1000);
    std::basic_istream<Char> in(&source);
    Text text = old;
    const auto read = [&] {
        source.begin();
        in.clear();
        in >> text;
    };
    const int faults = for_each_memory_fault(read, [&] {
        EXPECT_TRUE(text == old);
        EXPECT_TRUE(in.bad());
        EXPECT_EQ(in.exceptions(), std::ios_base::goodbit);
    });
    EXPECT_GE(faults, 3) << "-1: did not throw";
    EXPECT_TRUE(text == whole);
    EXPECT_FALSE(in.bad());
}

TEST(UStringStream, ExhaustedMemoryThrowsAndStoresNoPartOfAWord)
{
    const std::string word(1000, 'x');
    expect_whole_word_only<char>(Utf8String("old"), Utf8String(word));
    expect_whole_word_only<char>(UString("old"), ustr(word));
    expect_whole_word_only<wchar_t>(UString("old"), UString(std::wstring(1000, L'x')));
}

// Neither is there any for what the stream would throw.
TEST(UStringStream, MemoryExhaustedForGoodThrowsToo)
{
    for (const unsigned long nth : {1ul, 2ul}) {
        std::istringstream in(std::string(1000, 'x'));
        UString s("old");
        {
            const memory_fault fault(nth, true);
            EXPECT_THROW(in >> s, std::bad_alloc);
        }
        EXPECT_EQ(str(s), u"old");
        EXPECT_TRUE(in.bad());
        EXPECT_EQ(in.exceptions(), std::ios_base::goodbit);
    }
}

TEST(UStringStream, ExhaustedMemoryThrowsItselfWhateverTheStreamIsToThrow)
{
    std::istringstream in(std::string(1000, 'x'));
    in.exceptions(std::ios_base::badbit | std::ios_base::failbit | std::ios_base::eofbit);
    UString s("old");
    const memory_fault fault(2);
    EXPECT_THROW(in >> s, std::bad_alloc);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(str(s), u"old");
}

// ---- what never throws ----

bool observers_never_throw(const UString& s)
{
    return noexcept(s.empty())&& noexcept(s.length())&& noexcept(s.capacity())&& noexcept(
        s[0])&& noexcept(std::hash<UString>()(s));
}

bool searches_never_throw(const UString& s, const unsigned short* p)
{
    return noexcept(s.find('a'))&& noexcept(s.find(p))&& noexcept(s.find(s))&& noexcept(s.find_last('a'))&& noexcept(
        s.find_last(
            p))&& noexcept(s
                               .find_last(
                                   s))&& noexcept(s
                                                      .find_first_of(
                                                          'a'))&& noexcept(s
                                                                               .find_first_of(
                                                                                   p))&& noexcept(s
                                                                                                      .find_first_of(
                                                                                                          s));
}

bool comparisons_never_throw(const UString& s, const unsigned short* p)
{
    return noexcept(s.compare(p))&& noexcept(s.compare(s))&& noexcept(s.compare(
        0, 1,
        s))&& noexcept(s ==
                       s)&& noexcept(s !=
                                     s)&& noexcept(s <
                                                   s)&& noexcept(s >
                                                                 s)&& noexcept(s <=
                                                                               s)&& noexcept(s >=
                                                                                             s);
}

TEST(UStringNoexcept, IsWhatReadsOnly)
{
    const UString s("abc");
    EXPECT_TRUE(observers_never_throw(s));
    EXPECT_TRUE(searches_never_throw(s, units(u"b")));
    EXPECT_TRUE(comparisons_never_throw(s, units(u"b")));
    EXPECT_FALSE(noexcept(s.c_str()) || noexcept(s.substr()) || noexcept(s.utf8_str()));
    EXPECT_TRUE(std::is_nothrow_default_constructible_v<UString>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<UString>);
}

TEST(UStringConstruction, IsNotAmbiguousForNulls)
{
    EXPECT_TRUE(UString(nullptr, nullptr).empty());
    EXPECT_TRUE(UString(nullptr, 0).empty());
    EXPECT_TRUE(UString(0, nullptr).empty());
    static_assert(!std::is_constructible_v<UString, const char16_t*, std::size_t>);
}

// ---- memory ----

using edit_t = std::function<void(UString&)>;

struct named_edit_t {
    const char* name;
    edit_t edit;
};

const std::vector<named_edit_t> EDITS = {
    {"append unit", [](UString& s) { s.append('y'); }},
    {"append units",
     [](UString& s) { s.append(units(u"0123456789012345678901234567890123456789")); }},
    {"append self", [](UString& s) { s.append(s); }},
    {"insert unit", [](UString& s) { s.insert(3, 'y'); }},
    {"insert own units", [](UString& s) { s.insert(3, s.c_str() + 2); }},
    {"replace", [](UString& s) { s.replace(1, 2, units(u"yyyyyyyy")); }},
    {"replace by self", [](UString& s) { s.replace(1, 2, s); }},
    {"set_at", [](UString& s) { s.set_at(5, 'y'); }},
    {"erase", [](UString& s) { s.erase(1, 3); }},
    {"trim", [](UString& s) { s.trim(); }},
    {"reserve", [](UString& s) { s.reserve(5000); }},
    {"c_str", [](UString& s) { s.c_str(); }},
    {"assign own units", [](UString& s) { s.assign(s.c_str() + 1, 3); }},
    {"assign units", [](UString& s) { s.assign(std::u16string(400, u'y').c_str()); }},
    {"utf8_assign", [](UString& s) { s.utf8_assign(Utf8String(std::string(3000, 'y'))); }},
    {"utf8_assign wide",
     [](UString& s) { s.utf8_assign(Utf8String(std::string(900, 'y') + "\xC3\xA9")); }},
};

// A text in each kind of storage in which ICU would have to allocate, or not.
std::vector<std::pair<const char*, std::function<void(UString&)>>> storages()
{
    static const char16_t constant[] = u" 23456789 123456789 123456789 123456789 123456789 ";
    static icu::UnicodeString sharer;
    return {
        {"full",
         [](UString& s) {
             s.assign(u" 23456789 123456789 123456789 123456789 ");
             while (s.length() < s.capacity())
                 s.append(' ');
         }},
        {"inline and full", [](UString& s) { s.assign(u" 23456789 123456789 1234567"); }},
        {"shared",
         [](UString& s) {
             s.assign(std::u16string(100, u' ').c_str());
             s.truncate(60);
             sharer = s;
         }},
        {"constant", [](UString& s) { s.setTo(true, constant, 50); }},
        {"constant without terminator", [](UString& s) { s.setTo(false, constant, 45); }},
    };
}

// As ICU copies, whose copies we do not ask for: the same units in the same storage.
void expect_copied_as_by_icu(const UString& s, const std::string& what)
{
    const icu::UnicodeString by_icu(s);
    const UString copy(s);
    EXPECT_EQ(str(copy), str(s)) << what;
    EXPECT_EQ(copy.isBogus(), by_icu.isBogus()) << what;
    EXPECT_EQ(copy.getCapacity(), by_icu.getCapacity()) << what;
    EXPECT_EQ(copy.getBuffer() == s.getBuffer(), by_icu.getBuffer() == s.getBuffer()) << what;
    EXPECT_TRUE(copy.isBogus() || copy.c_str()[copy.length()] == 0) << what;
}

TEST(UStringConstruction, CopiesEveryStorageAsIcuDoes)
{
    auto rows = storages();
    static char16_t writable[] = u"text of the caller, which is longer than an object";
    rows.insert(rows.end(),
                {{"empty", [](UString&) {}},
                 {"inline", [](UString& s) { s.assign(u"text"); }},
                 {"inline by ICU", [](UString& s) { s.setTo(u'x').append(u'y'); }},
                 {"alone", [](UString& s) { s.assign(std::u16string(100, u' ').c_str()); }},
                 {"very long", [](UString& s) { s.assign(std::u16string(5000, u' ').c_str()); }},
                 {"empty with a buffer",
                  [](UString& s) {
                      s.assign(std::u16string(100, u' ').c_str());
                      s.clear();
                  }},
                 {"shortened", [](UString& s) { s.assign(std::u16string(100, u' ').c_str(), 3); }},
                 {"short constant", [](UString& s) { s.setTo(false, u"constant", 4); }},
                 {"of the caller", [](UString& s) { s.setTo(writable, 10, 40); }},
                 {"bogus", [](UString& s) { s.setToBogus(); }}});
    for (const auto& [storage, put] : rows) {
        UString s;
        put(s);
        expect_copied_as_by_icu(s, storage);
    }
}

// A reader of the terminator, c_str() among them, reads nothing that was never written.
TEST(UStringConstruction, TerminatesACopyOfAConstant)
{
    const std::u16string units(52, u'x');
    UString constant;
    constant.setTo(false, units.data(), 50);
    // Memory of the same size comes again with what it held.
    {
        const UString leaves_its_units(units);
    }
    const UString copy(constant);
    {
        const UString leaves_its_units(units);
    }
    UString assigned;
    assigned = constant;
    EXPECT_EQ(copy.getBuffer()[50], 0);
    EXPECT_EQ(assigned.getBuffer()[50], 0);
}

TEST(UStringConstruction, OfACopyLeavesTheOriginalAlone)
{
    for (const std::size_t length : {3u, 27u, 28u, 60u, 1500u}) {
        const std::u16string text(length, u'x');
        const UString original(text);
        {
            UString copy(original);
            copy.set_at(0, 'y');
            UString second(original);
            const UString third(second);
            second.append('z');
            EXPECT_EQ(str(third), text);
        }
        EXPECT_EQ(str(original), text);
    }
}

TEST(UStringConstruction, CopiesOneTextInManyThreads)
{
    const std::u16string text(60, u'x');
    const UString original(text);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                const UString first(original);
                UString second(first);
                second.set_at(0, 'y');
                EXPECT_EQ(str(first), text);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(str(original), text);
    EXPECT_EQ(UString(original).getBuffer(), original.getBuffer());
}

TEST(UStringMemory, ExhaustedInAnEditLeavesTheTextAsItWas)
{
    int struck = 0;
    for (const auto& [storage, put] : storages())
        for (const named_edit_t& row : EDITS) {
            UString s;
            put(s);
            const std::u16string before = str(s);
            const int faults = for_each_memory_fault([&] { row.edit(s); },
                                                     [&] {
                                                         EXPECT_EQ(str(s), before);
                                                         EXPECT_FALSE(s.isBogus());
                                                     });
            EXPECT_GE(faults, 0) << row.name << " on " << storage << " did not throw";
            struck += faults;
        }
    EXPECT_GT(struck, 60) << "the edits do allocate";
}

TEST(UStringMemory, ExhaustedInAConstructorThrows)
{
    const std::u16string text(100, u'x');
    const std::wstring wide(100, L'x');
    const std::basic_string<unsigned short> raw(100, 'x');
    const Utf8String utf8(LONG_UTF8);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(text); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(text.c_str()); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(units(text.c_str())); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(raw); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(wide); }, [] {}), 1);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(utf8); }, [] {}), 1);
}

TEST(UStringMemory, ExhaustedInACopyThrowsAndLeavesTheTarget)
{
    UString source;
    source.setTo(true, u"a text that does not fit into the object itself", 47);
    EXPECT_EQ(for_each_memory_fault([&] { UString s(source); }, [] {}), 1);
    UString target("target");
    const auto unchanged = [&] { EXPECT_EQ(str(target), u"target"); };
    EXPECT_EQ(for_each_memory_fault([&] { target = source; }, unchanged), 1);
    EXPECT_EQ(target, source);
    target = UString("target");
    EXPECT_EQ(for_each_memory_fault([&] { target.assign(source); }, unchanged), 1);
    EXPECT_EQ(for_each_memory_fault([&] { source.substr(1); }, [] {}), 1);
    EXPECT_GE(for_each_memory_fault([&] { source + source; }, [] {}), 1);
    source.setToBogus();
    target = source;
    EXPECT_TRUE(target.isBogus()) << "a bogus source is no lack of memory";
}

// ICU does without some of the memory that it asks for when it loads a charset, so a run either
// throws or gives the whole result.
// @return  how many runs threw
int runs_that_threw(const std::function<void()>& convert, const std::function<void(bool)>& check)
{
    int thrown = 0;
    for (unsigned long nth = 1;; ++nth) {
        bool threw = false;
        bool struck = false;
        {
            const memory_fault fault(nth);
            try {
                convert();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            struck = fault.struck();
        }
        check(threw);
        if (!struck)
            return thrown;
        thrown += threw;
    }
}

TEST(UStringMemory, ExhaustedInAConversionOutThrows)
{
    const UString s(std::u16string(3000, u'x'));
    EXPECT_EQ(for_each_memory_fault([&] { s.utf8_str(); }, [] {}), 1);
    UString::default_charset();
    for (const char* const name : {"ISO-8859-1", "Shift_JIS", "ISO-2022-JP", "DEFAULT", "Big5"}) {
        bool failed = true;
        std::string bytes;
        const int thrown = runs_that_threw([&] { bytes = s.std_str(name, failed); },
                                           [&](bool threw) {
                                               EXPECT_EQ(failed, false);
                                               EXPECT_EQ(bytes.size(), threw ? 0u : 3000u) << name;
                                               bytes.clear();
                                           });
        EXPECT_GE(thrown, 1) << name;
    }
}

TEST(UStringMemory, ExhaustedInOpeningAConverterIsNoUnknownCharset)
{
    const std::string bytes(300, 'x');
    for (const char* const name :
         {"ISO-8859-7", "ibm-1390", "ISO-2022-KR", "LMBCS-2", "ISO-2022-CN", "GB18030"}) {
        UString s("text");
        const UString* result = nullptr;
        const int thrown = runs_that_threw([&] { result = s.assign(bytes, name); },
                                           [&](bool threw) {
                                               EXPECT_EQ(s.length(), threw ? 4u : 300u) << name;
                                               EXPECT_EQ(result, threw ? nullptr : &s) << name;
                                               s = UString("text");
                                               result = nullptr;
                                           });
        EXPECT_GE(thrown, 2) << name;
    }
}

// What a charset's characters are is learned where there is memory for it, and needed by nobody.
TEST(UStringMemory, ExhaustedInLearningACharacterChangesNothing)
{
    const UString s(u"\u4E2D");
    EXPECT_EQ(converted(s, "EUC-TW"), "\xC4\xE3");
    int struck = 0;
    for (int i = 0; i < 300; ++i) {
        const memory_fault fault(1);
        const std::string bytes = converted(s, "EUC-TW");
        struck += fault.struck();
        ASSERT_EQ(bytes, "\xC4\xE3");
    }
    EXPECT_GE(struck, 1);
}

TEST(UStringMemory, BeyondIcusLengthsIsExhausted)
{
    UString s("abc");
    for (const unsigned int n : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x7FFFFFF6u}) {
        EXPECT_THROW(s.reserve(n), std::bad_alloc) << n;
        EXPECT_EQ(str(s), u"abc");
    }
    EXPECT_THROW(s.assign(units(u"abc"), 0xFFFFFFFFu), std::bad_alloc);
    EXPECT_THROW(s.assign(u"abc", 0x7FFFFFF6u), std::bad_alloc);
    EXPECT_EQ(str(s), u"abc");
}

}  // namespace
