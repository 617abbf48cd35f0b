// What is learned of charsets, without memory, by two threads at once, and given back.
#include "converter_pool_impl.h"
#include "known_charset_impl.h"
#include "learned_pages_impl.h"

#include "support/memory_fault.h"

#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

namespace {

using namespace Kvl;
using page_t = learned_pages_t::page_t;

constexpr int MISSES_BEFORE_LEARNING = 64;
constexpr const char* ANY_CHARSET = "Shift_JIS";

page_t page_of(std::uint16_t value)
{
    page_t page;
    page.fill(value);
    return page;
}

page_t learn_number(UConverter*, unsigned int number) noexcept
{
    return page_of(static_cast<std::uint16_t>(number));
}

// Looks a page up as often as it is not worth learning.
void miss(const learned_pages_t& pages, unsigned int number)
{
    for (int i = 0; i < MISSES_BEFORE_LEARNING; ++i)
        ASSERT_EQ(pages.look_up(number, 0), 0u) << i;
}

TEST(LearnedPages, AreLearnedOneByOneWhenTheyAreWorthIt)
{
    const learned_pages_t pages(ANY_CHARSET, learn_number);
    for (const unsigned int number : {1u, 7u, 255u}) {
        miss(pages, number);
        EXPECT_EQ(pages.look_up(number, 0), number);
        EXPECT_EQ(pages.look_up(number, 255), number);
    }
}

TEST(LearnedPages, OfACharsetThatThereIsNotAreNotLearned)
{
    const learned_pages_t pages("no such charset", learn_number);
    miss(pages, 1);
    EXPECT_EQ(pages.look_up(1, 0), 0u);
}

TEST(LearnedPages, WithoutMemoryAreLearnedLater)
{
    int faults = 0;
    for (bool struck = true; struck;) {
        // By a name of its own, of which there is no converter yet.
        const std::string charset = "UTF-8,version=" + std::to_string(faults);
        const learned_pages_t pages(charset.c_str(), learn_number);
        miss(pages, 1);
        {
            const memory_fault fault(static_cast<unsigned long>(faults) + 1);
            const unsigned int known = pages.look_up(1, 0);
            struck = fault.struck();
            EXPECT_EQ(known, struck ? 0u : 1u);
        }
        faults += struck;
        EXPECT_EQ(pages.look_up(1, 0), 1u);
    }
    EXPECT_GE(faults, 2) << "the converter and the page";
}

// For what is learned later, so that it leaves no more behind.
void leave_idle_converters(int number)
{
    const auto* const converter = take_converter(ANY_CHARSET);
    if (number > 1)
        leave_idle_converters(number - 1);
    give_back_converter(converter);
}

const learned_pages_t* g_also_learned_by_another = nullptr;

// Before it has learned the page, another thread has.
page_t learn_second(UConverter*, unsigned int number) noexcept
{
    const learned_pages_t* const pages = std::exchange(g_also_learned_by_another, nullptr);
    if (pages == nullptr)
        return page_of(1);
    EXPECT_EQ(pages->look_up(number, 0), 1u);
    return page_of(2);
}

TEST(LearnedPages, LearnedByTwoAtOnceStayWhatTheyWereFirst)
{
    leave_idle_converters(2);
    const long blocks = live_blocks_of_this_thread();
    {
        const learned_pages_t pages(ANY_CHARSET, learn_second);
        miss(pages, 3);
        g_also_learned_by_another = &pages;
        EXPECT_EQ(pages.look_up(3, 0), 1u) << "what the other thread may have used already";
        EXPECT_EQ(pages.look_up(3, 0), 1u);
    }
    EXPECT_EQ(live_blocks_of_this_thread(), blocks);
}

struct closing_t {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};

std::unique_ptr<UConverter, closing_t> open_converter(const char* name)
{
    UErrorCode status = U_ZERO_ERROR;
    return std::unique_ptr<UConverter, closing_t>(ucnv_open(name, &status));
}

TEST(KnownCharset, GivesBackWhatItHasLearned)
{
    const auto converter = open_converter(ANY_CHARSET);
    ASSERT_NE(converter, nullptr);
    leave_idle_converters(1);
    const long blocks = live_blocks_of_this_thread();
    {
        const known_charset_t known(ANY_CHARSET, "ibm-943_P15A-2003", converter.get());
        const std::string bytes = "\x82\xA0";  // U+3042
        char16_t unit = 0;
        std::size_t units = 0;
        for (int i = 0; i <= MISSES_BEFORE_LEARNING; ++i)
            units = known.decode_characters(bytes, &unit);
        EXPECT_EQ(units, 1u);
        EXPECT_EQ(unit, u'\u3042');
    }
    EXPECT_EQ(live_blocks_of_this_thread(), blocks);
}

TEST(KnownCharset, KnowsTextsThatNeedNoConverter)
{
    struct texts_t {
        const char* charset;
        std::string known, unknown;
    };
    const std::string none;
    for (const auto& [charset, known_text, unknown_text] :
         std::initializer_list<texts_t>{{"ISO-8859-1", std::string("all\0\x7F\x80\xFF", 7), none},
                                        {"windows-1252", std::string("all\0\x80\xE9", 6), none},
                                        {"US-ASCII", "all\x80", none},
                                        {"KOI8-R", "all\xC1", none},
                                        {"Shift_JIS", "a line", "\x82\xA0"},
                                        {"EUC-JP", std::string("a\0\x1B line", 8), "\xA4\xA2"},
                                        {"ISO-2022-JP", "a line ~", "\x1B$B$\"\x1B(B"},
                                        {"UTF-7", none, "+MEI-"},
                                        {"UTF-16LE", none, "a "}}) {
        SCOPED_TRACE(charset);
        const auto converter = open_converter(charset);
        ASSERT_NE(converter, nullptr);
        const known_charset_t known(charset, charset, converter.get());
        EXPECT_EQ(known.is_latin1(), charset == std::string("ISO-8859-1"));
        EXPECT_TRUE(known_text.empty() || known.can_decode(known_text));
        EXPECT_FALSE(!unknown_text.empty() && known.can_decode(unknown_text));
    }
}

TEST(KnownCharset, KnowsBytesOfUnitsOtherThanTheirNumbers)
{
    struct bytes_t {
        const char* charset;
        std::u16string text;
        std::string bytes;
    };
    for (const auto& [charset, text, bytes] :
         std::initializer_list<bytes_t>{{"windows-1252", u"a\u20AC\u0153", "a\x80\x9C"},
                                        {"windows-1252", u"a\u0430", ""},
                                        {"KOI8-R", u"\u0430b",
                                         "\xC1"
                                         "b"}}) {
        const auto converter = open_converter(charset);
        ASSERT_NE(converter, nullptr);
        std::string known;
        known_charset_t(charset, charset, converter.get()).encode(text, known);
        EXPECT_EQ(known, bytes) << charset;
    }
}

TEST(KnownCharset, HasANameThatThereIsRoomFor)
{
    EXPECT_FALSE(known_charset_t::can_be_known(""));
    EXPECT_TRUE(known_charset_t::can_be_known("UTF-8"));
    EXPECT_TRUE(
        known_charset_t::can_be_known(std::string(UCNV_MAX_CONVERTER_NAME_LENGTH - 1, 'x')));
    EXPECT_FALSE(known_charset_t::can_be_known(std::string(UCNV_MAX_CONVERTER_NAME_LENGTH, 'x')));
}

}  // namespace
