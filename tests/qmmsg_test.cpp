#include <qmlogger/qmlogger.h>

#include "support/memory_fault.h"
#include "support/small_stack.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Log::QmMsg;

cxPrintfArgVal integer(long long i)
{
    cxPrintfArgVal record{};
    record.i = i;
    return record;
}

cxPrintfArgVal floating(long double d)
{
    cxPrintfArgVal record{};
    record.d = d;
    return record;
}

cxPrintfArgVal text(const char* p)
{
    cxPrintfArgVal record{};
    record.p = p;
    return record;
}

std::string filled(const char* format, std::vector<cxPrintfArgVal> records = {})
{
    const char* const result = QmMsg::format(format, records.empty() ? nullptr : records.data());
    return result == nullptr ? "null" : result;
}

/// What the C library prints, for the conversions on which it and the formatter agree.
template <class... Args>
std::string printed(const std::string& format, Args... args)
{
    const int size = snprintf(nullptr, 0, format.c_str(), args...);
    std::string result(static_cast<size_t>(size) + 1, '\0');
    snprintf(result.data(), result.size(), format.c_str(), args...);
    result.pop_back();
    return result;
}

// -- catalogue lookup -----------------------------------------------------------------------------

const char* lookup(std::vector<const char*> catalogue, int index)
{
    return QmMsg::format(catalogue.data(), index, nullptr);
}

TEST(CatalogueLookup, ReturnsTheEntriesFromOneToTheCountOfTheHeader)
{
    const char* catalogue[] = {"sample 2", "first", "second", "beyond the count"};
    EXPECT_EQ(QmMsg::format(catalogue, 1, nullptr), catalogue[1]);
    EXPECT_EQ(QmMsg::format(catalogue, 2, nullptr), catalogue[2]);
    for (const int index :
         {0, 3, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
        EXPECT_EQ(QmMsg::format(catalogue, index, nullptr), nullptr) << index;
}

TEST(CatalogueLookup, IgnoresTheThirdArgument)
{
    EXPECT_STREQ(QmMsg::format(std::vector<const char*>{"sample 1", "first"}.data(), 1, "extra"),
                 "first");
}

TEST(CatalogueLookup, FindsNothingWithoutCatalogueHeaderOrText)
{
    EXPECT_EQ(QmMsg::format(static_cast<const char**>(nullptr), 1, nullptr), nullptr);
    EXPECT_EQ(lookup({nullptr, "text"}, 1), nullptr);
    EXPECT_EQ(lookup({"sample 1", nullptr}, 1), nullptr);
}

TEST(CatalogueLookup, FindsNothingBehindAHeaderOfAnotherForm)
{
    for (const char* header :
         {"", " ", "sample", "sample ", " 1", "sample  1", "sample 1 ", "sample +1", "sample -1",
          "sample 0x1", "sample 1a", "sample\t1", "a sample 1", "sample 0", "sample 10000",
          "sample 99999999999999999999", "sample 4294967297", "1"})
        EXPECT_EQ(lookup({header, "text"}, 1), nullptr) << header;
}

TEST(CatalogueLookup, AcceptsCountsUpToFourNines)
{
    std::vector<const char*> catalogue(10'000, "text");
    catalogue[0] = "sample 9999";
    catalogue[9999] = "last";
    EXPECT_STREQ(lookup(catalogue, 9999), "last");
    catalogue[0] = "sample 0000000000000009999";
    EXPECT_STREQ(lookup(catalogue, 9999), "last");
}

TEST(CatalogueLookup, ReadsTheHeaderThatStandsThereNow)
{
    char header[32] = "reused 1";
    for (int round = 0; round < 3; ++round) {
        std::strcpy(header, "reused 1");
        EXPECT_STREQ(lookup({header, "one", "two"}, 1), "one");
        EXPECT_EQ(lookup({header, "one", "two"}, 2), nullptr);
        std::strcpy(header, "reused 2");
        EXPECT_STREQ(lookup({header, "one", "two"}, 2), "two");
        std::strcpy(header, "reused x");
        EXPECT_EQ(lookup({header, "one", "two"}, 1), nullptr);
        std::strcpy(header, "reused 0");
        EXPECT_EQ(lookup({header, "one", "two"}, 1), nullptr);
    }
}

TEST(CatalogueLookup, ReadsTheTextsThatStandThereNow)
{
    const char* catalogue[] = {"changing 2", "one", "two"};
    EXPECT_EQ(QmMsg::format(catalogue, 2, nullptr), catalogue[2]);
    catalogue[2] = "another";
    EXPECT_STREQ(QmMsg::format(catalogue, 2, nullptr), "another");
    catalogue[0] = nullptr;
    EXPECT_EQ(QmMsg::format(catalogue, 2, nullptr), nullptr);
}

TEST(CatalogueLookup, IsTheSameForMoreCataloguesThanAreRemembered)
{
    std::vector<std::string> headers;
    for (int count = 1; count <= 200; ++count)
        headers.push_back("many " + std::to_string(count));
    const std::vector<const char*> texts(200, "text");
    for (int round = 0; round < 2; ++round) {
        for (int count = 1; count <= 200; ++count) {
            std::vector<const char*> catalogue = {
                headers[static_cast<std::size_t>(count - 1)].c_str()};
            catalogue.insert(catalogue.end(), texts.begin(), texts.end());
            EXPECT_STREQ(lookup(catalogue, count), "text");
            EXPECT_EQ(lookup(catalogue, count + 1), nullptr);
            EXPECT_EQ(lookup(catalogue, 0), nullptr);
        }
    }
}

TEST(CatalogueLookup, LeavesErrnoAlone)
{
    errno = 4711;
    lookup({"never-seen-before 1", "text"}, 1);
    EXPECT_EQ(errno, 4711);
}

// -- translations ---------------------------------------------------------------------------------

/// A directory with message catalogues of the C library; NLSPATH names it.
class translations_t {
public:
    translations_t()
    {
        std::string pattern = (fs::temp_directory_path() / "qmmsg_test.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no directory");
        directory_ = pattern;
        setenv("NLSPATH", (pattern + "/%N.cat").c_str(), 1);
    }
    ~translations_t()
    {
        unsetenv("NLSPATH");
        fs::remove_all(directory_);
    }
    translations_t(const translations_t&) = delete;
    translations_t& operator=(const translations_t&) = delete;

    void add(const std::string& name, const std::string& source) const
    {
        const auto source_file = (directory_ / (name + ".msg")).string();
        std::ofstream(source_file) << source;
        const std::string command =
            "gencat '" + (directory_ / (name + ".cat")).string() + "' '" + source_file + "'";
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error("gencat failed");
    }

private:
    fs::path directory_;
};

TEST(CatalogueTranslation, TakesThePlaceOfTheText)
{
    const translations_t translations;
    translations.add("translated", "$set 1\n1 eins\n3 drei: %s\n$set 2\n2 other set\n");
    const char* catalogue[] = {"translated 3", "one", "two", "three: %s"};
    EXPECT_STREQ(QmMsg::format(catalogue, 1, nullptr), "eins");
    EXPECT_EQ(QmMsg::format(catalogue, 2, nullptr), catalogue[2]) << "not in the translation";
    EXPECT_STREQ(QmMsg::format(catalogue, 3, nullptr), "drei: %s");
    EXPECT_EQ(QmMsg::format(catalogue, 4, nullptr), nullptr) << "beyond the count";
}

TEST(CatalogueTranslation, IsLookedForOnce)
{
    const translations_t translations;
    const char* catalogue[] = {"too-late 1", "one"};
    EXPECT_STREQ(QmMsg::format(catalogue, 1, nullptr), "one");
    translations.add("too-late", "$set 1\n1 eins\n");
    EXPECT_STREQ(QmMsg::format(catalogue, 1, nullptr), "one");
}

TEST(CatalogueTranslation, IsFoundByNameWhateverTheArray)
{
    const translations_t translations;
    translations.add("shared-name", "$set 1\n1 eins\n");
    for (const char* text : {"one", "another"})
        EXPECT_STREQ(lookup({"shared-name 1", text}, 1), "eins");
}

TEST(CatalogueTranslation, IsThatOfTheHeaderThatStandsThereNow)
{
    const translations_t translations;
    translations.add("reused-translated", "$set 1\n1 eins\n");
    char header[32];
    for (int round = 0; round < 3; ++round) {
        std::strcpy(header, "reused-translated 1");
        EXPECT_STREQ(lookup({header, "one"}, 1), "eins");
        std::strcpy(header, "reused-plain 1");
        EXPECT_STREQ(lookup({header, "one"}, 1), "one");
    }
}

TEST(CatalogueTranslation, IsNoFileThatTheHeaderNames)
{
    const translations_t translations;
    translations.add("by-path", "$set 1\n1 eins\n");
    const std::string path = std::string(getenv("NLSPATH"));
    const std::string header = path.substr(0, path.size() - 6) + "by-path.cat 1";
    EXPECT_STREQ(lookup({header.c_str(), "one"}, 1), "one");
}

TEST(CatalogueTranslation, IsNotLookedForBeyondTheLimitsOfNamesAndNumber)
{
    const translations_t translations;
    const std::string longest(63, 'x');
    translations.add(longest, "$set 1\n1 eins\n");
    translations.add(longest + "x", "$set 1\n1 eins\n");
    EXPECT_STREQ(lookup({(longest + " 1").c_str(), "one"}, 1), "eins");
    EXPECT_STREQ(lookup({(longest + "x 1").c_str(), "one"}, 1), "one");
    const pid_t pid = fork();  // what follows fills the table
    if (pid == 0) {
        for (int i = 0; i < 100; ++i)
            lookup({("filler" + std::to_string(i) + " 1").c_str(), "one"}, 1);
        translations.add("beyond", "$set 1\n1 eins\n");
        const bool is_plain = std::strcmp(lookup({"beyond 1", "one"}, 1), "one") == 0;
        const bool is_kept = std::strcmp(lookup({(longest + " 1").c_str(), "one"}, 1), "eins") == 0;
        std::exit(is_plain && is_kept ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(CatalogueTranslation, IsLookedForByManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 20; ++i) {
                const std::string header = "threads" + std::to_string(i) + " 1";
                EXPECT_STREQ(lookup({header.c_str(), "one"}, 1), "one");
            }
        });
    for (auto& thread : threads)
        thread.join();
}

// -- filling --------------------------------------------------------------------------------------

TEST(MessageFormat, NullFormatGivesNull)
{
    EXPECT_EQ(QmMsg::format(static_cast<const char*>(nullptr), nullptr), nullptr);
}

TEST(MessageFormat, PlainTextIsCopied)
{
    EXPECT_EQ(filled(""), "");
    EXPECT_EQ(filled("no conversion"), "no conversion");
    EXPECT_EQ(filled("100%%"), "100%");
    EXPECT_EQ(filled("%%s"), "%s");
}

TEST(MessageFormat, TextBetweenConversionsMayHaveAnyLength)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string between =
            std::string("(abcdefghijklmnopqrstuvwxyz0123456789[]>)", length);
        const std::string format = "%s" + between + "%d" + between + "%s" + between;
        EXPECT_EQ(filled(format.c_str(), {text(between.c_str()), integer(-7), text("")}),
                  between + between + "-7" + between + between);
    }
}

TEST(MessageFormat, ConversionsReadTheRecordsInTheirOrder)
{
    EXPECT_EQ(filled("PLXSV0653E Internal error: %s(), at line: %s in file: '%s'",
                     {text("lookup"), text("12"), text("x.cpp")}),
              "PLXSV0653E Internal error: lookup(), at line: 12 in file: 'x.cpp'");
    EXPECT_EQ(filled("%d%%%s|%c|%.1f", {integer(1), text("two"), integer('3'), floating(4)}),
              "1%two|3|4.0");
}

TEST(MessageFormat, IntegersAgreeWithTheCLibrary)
{
    const long long values[] = {0,
                                1,
                                -1,
                                7,
                                8,
                                42,
                                -42,
                                255,
                                123456789,
                                2147483647,
                                4294967296,
                                std::numeric_limits<long long>::max(),
                                std::numeric_limits<long long>::min()};
    for (const std::string flags :
         {"", "-", "+", " ", "#", "0", "-0", "+0", " 0", "#0", "-#", "+ "})
        for (const std::string width : {"", "1", "5", "24", "70"})
            for (const std::string precision : {"", ".", ".0", ".1", ".5", ".30"})
                for (const char letter : std::string("diuxXo"))
                    for (const long long value : values) {
                        if (std::strchr("uxXo", letter) != nullptr && value < 0 &&
                            value >= std::numeric_limits<int>::min())
                            continue;
                        const std::string field = "%" + flags + width + precision;
                        EXPECT_EQ(filled((field + letter).c_str(), {integer(value)}),
                                  printed(field + "ll" + letter, value))
                            << field << letter << ' ' << value;
                    }
}

TEST(MessageFormat, SignedIntegersPrintAllSixtyFourBits)
{
    EXPECT_EQ(filled("%d", {integer(-9223372036854775807LL - 1)}), "-9223372036854775808");
    EXPECT_EQ(filled("%i", {integer(9223372036854775807LL)}), "9223372036854775807");
    EXPECT_EQ(filled("%d", {integer(0)}), "0");
}

TEST(MessageFormat, UnsignedIntegersAreOf32BitsWhenTheyLookLikeAWidenedNegativeOne)
{
    EXPECT_EQ(filled("%u %x %X %o", {integer(-1), integer(-1), integer(-2), integer(-1)}),
              "4294967295 ffffffff FFFFFFFE 37777777777");
    EXPECT_EQ(filled("%x", {integer(-2147483648LL)}), "80000000");
    EXPECT_EQ(filled("%x", {integer(-2147483649LL)}), "ffffffff7fffffff");
    EXPECT_EQ(filled("%x", {integer(4294967296LL)}), "100000000");
    // Deliberate: the length does not say more about the argument than the value does.
    EXPECT_EQ(filled("%lx %llu", {integer(-1), integer(-1)}), "ffffffff 4294967295");
}

TEST(MessageFormat, LengthsHAndHhNarrowTheOthersDoNot)
{
    EXPECT_EQ(filled("%hd %hhd", {integer(0x18000), integer(0x1FF)}), "-32768 -1");
    EXPECT_EQ(
        filled("%hu %hhu %hx %hhX", {integer(-1), integer(-1), integer(0x12345), integer(0xABC)}),
        "65535 255 2345 BC");
    for (const char* length : {"l", "ll", "j", "z", "t", "q", "L"})
        EXPECT_EQ(filled(("%" + std::string(length) + "d").c_str(), {integer(1LL << 40)}),
                  "1099511627776")
            << length;
}

TEST(MessageFormat, CharactersAreTheLowByte)
{
    EXPECT_EQ(filled("%c%c", {integer('A'), integer(0x141)}), "AA");
    EXPECT_EQ(filled("[%3c|%-3c]", {integer('a'), integer('b')}), "[  a|b  ]");
    EXPECT_EQ(filled("%c", {integer(-1)}), "\xFF");
}

TEST(MessageFormat, FloatingValuesAgreeWithTheCLibrary)
{
    const long double values[] = {0.0L,
                                  -0.0L,
                                  1.5L,
                                  -2.25L,
                                  1e-5L,
                                  123456789.0L,
                                  1e30L,
                                  5e-324L,
                                  std::numeric_limits<long double>::infinity(),
                                  -std::numeric_limits<long double>::infinity()};
    for (const std::string flags : {"", "-", "+", " ", "#", "0", "+0"})
        for (const std::string width : {"", "1", "30"})
            for (const std::string precision : {"", ".", ".0", ".3", ".40"})
                for (const char letter : std::string("eEfFgGaA"))
                    for (const long double value : values) {
                        const std::string field = "%" + flags + width + precision;
                        EXPECT_EQ(filled((field + letter).c_str(), {floating(value)}),
                                  printed(field + "L" + letter, value))
                            << field << letter << ' ' << value;
                    }
}

TEST(MessageFormat, TheLargestFloatingValueIsPrintedInFull)
{
    const long double largest = std::numeric_limits<long double>::max();
    EXPECT_EQ(filled("%.20f|%d", {floating(largest), integer(1)}), printed("%.20Lf|1", largest));
}

TEST(MessageFormat, FloatingRecordsThatAreNoNumberPrintAsNan)
{
    cxPrintfArgVal record{};
    const unsigned char bits[10] = {1, 2, 3, 4, 5, 6, 7, 0x08, 0xFF, 0x3F};  // no integer bit
    std::memcpy(&record, bits, sizeof bits);
    EXPECT_EQ(filled("%f", {record}), "nan");
    EXPECT_EQ(filled("%La", {record}), "nan");
}

TEST(MessageFormat, TextsAreCutAndPadded)
{
    EXPECT_EQ(filled("[%s|%5s|%-5s|%.2s|%5.1s|%.s]", {text("abc"), text("abc"), text("abc"),
                                                      text("abc"), text("abc"), text("abc")}),
              "[abc|  abc|abc  |ab|    a|]");
    EXPECT_EQ(filled("[%.9s]", {text("abc")}), "[abc]");
    EXPECT_EQ(filled("[%05s]", {text("abc")}), "[  abc]");
}

TEST(MessageFormat, TheTextOfAPrecisionNeedsNoTerminator)
{
    const std::vector<char> exact{'a', 'b', 'c'};
    EXPECT_EQ(filled("%.3s", {text(exact.data())}), "abc");
}

TEST(MessageFormat, AnEmptyPlaceOfAPointerIsNull)
{
    EXPECT_EQ(filled("%s", {text(nullptr)}), "(null)");
    EXPECT_EQ(filled("[%8s|%.3s]", {text(nullptr), text(nullptr)}), "[  (null)|(nu]");
}

TEST(MessageFormat, APrecisionNeverCutsAUtf8Character)
{
    const char* const characters = "a\u00E9\u20AC\U0001F600";  // of 1, 2, 3 and 4 bytes
    const size_t kept[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};
    for (size_t precision = 0; precision < std::size(kept); ++precision)
        EXPECT_EQ(filled(("%." + std::to_string(precision) + "s").c_str(), {text(characters)}),
                  std::string(characters, kept[precision]))
            << precision;
    EXPECT_EQ(filled("%.2s", {text("\x80\x80\x80")}), "\x80\x80") << "no character to cut";
}

TEST(MessageFormat, StarsReadRecords)
{
    EXPECT_EQ(filled("[%*d]", {integer(5), integer(42)}), "[   42]");
    EXPECT_EQ(filled("[%*d]", {integer(-5), integer(42)}), "[42   ]");
    EXPECT_EQ(filled("[%.*d]", {integer(4), integer(42)}), "[0042]");
    EXPECT_EQ(filled("[%.*d]", {integer(-4), integer(42)}), "[42]");
    EXPECT_EQ(filled("[%*.*s]", {integer(5), integer(2), text("abc")}), "[   ab]");
    EXPECT_EQ(filled("[%2$*1$d]", {integer(5), integer(42)}), "[   42]");
    EXPECT_EQ(filled("[%3$.*2$s%1$s]", {text("x"), integer(1), text("abc")}), "[ax]");
}

TEST(MessageFormat, NumberedRecordsAreReadByNumberAndDoNotCount)
{
    EXPECT_EQ(filled("%2$s %1$s", {text("a"), text("b")}), "b a");
    EXPECT_EQ(filled("%1$s %1$s", {text("a")}), "a a");
    EXPECT_EQ(filled("%2$s %s %s", {text("a"), text("b")}), "b a b");
    EXPECT_EQ(filled("%0010$d", {integer(0), integer(0), integer(0), integer(0), integer(0),
                                 integer(0), integer(0), integer(0), integer(0), integer(10)}),
              "10");
    std::vector<cxPrintfArgVal> many(4096, integer(0));
    many.back() = integer(4096);
    EXPECT_EQ(filled("%4096$d", many), "4096");
}

TEST(MessageFormat, WhatBeginsNoConversionIsText)
{
    for (const char* format : {"%",      "%n",   "%p",    "%y",      "%C",
                               "%S",     "%m",   "%I",    "%5",      "%5.",
                               "%-",     "%l",   "%lll",  "%lln",    "%1$",
                               "%1$n",   "%0$d", "%00$s", "%4097$d", "%99999999999$d",
                               "%1$2$d", "%$d",  "%*0$d", "%.*0$d",  "%.-5d",
                               "%*5d",   "%hll", "%k",    "%\x80",   "%5%",
                               "%é"})
        EXPECT_EQ(filled(format, {integer(1), integer(1)}), format) << format;
}

TEST(MessageFormat, TextThatBeginsNoConversionReadsNoRecord)
{
    EXPECT_EQ(filled("%n%d", {integer(1)}), "%n1");
    EXPECT_EQ(filled("%*y%d", {integer(1)}), "%*y1");
    EXPECT_EQ(filled("%5%d", {integer(1)}), "%51");
    EXPECT_EQ(filled("%l%%%d", {integer(1)}), "%l%1");
}

TEST(MessageFormat, WidthsAndPrecisionsAreCapped)
{
    const std::string most(65'535, ' ');
    for (const char* format : {"%65535s", "%65536s", "%99999999999s", "%18446744073709551617s"})
        EXPECT_EQ(filled(format, {text("")}), most) << format;
    EXPECT_EQ(filled("%*s", {integer(std::numeric_limits<long long>::max()), text("")}), most);
    EXPECT_EQ(filled("%*s", {integer(std::numeric_limits<long long>::min()), text("")}), most);
    EXPECT_EQ(filled("%.99999999999d", {integer(1)}), std::string(65'534, '0') + "1");
    EXPECT_EQ(filled("%.*d", {integer(std::numeric_limits<long long>::max()), integer(1)}),
              std::string(65'534, '0') + "1");
    EXPECT_EQ(filled("%.99999999999f", {floating(0)}), "0." + std::string(65'535, '0'));
}

TEST(MessageFormat, WithoutRecordsEveryRecordIsZero)
{
    EXPECT_EQ(filled("%s %d %x %.1f %2$s [%*d]"), "(null) 0 0 0.0 (null) [0]");
}

TEST(MessageFormat, TextsAreNeverShortened)
{
    const std::string large(1'000'000, 'x');
    EXPECT_EQ(filled("<%s>", {text(large.c_str())}), "<" + large + ">");
    EXPECT_EQ(filled((large + "%d").c_str(), {integer(1)}), large + "1");
    EXPECT_EQ(filled("%s", {text("small again")}), "small again");
}

TEST(MessageFormat, APreviousResultMayBeFormatAndArgument)
{
    const char* result = QmMsg::format("%%s and %%s", nullptr);
    cxPrintfArgVal records[] = {text("a"), text("b")};
    result = QmMsg::format(result, records);
    EXPECT_STREQ(result, "a and b");
    for (int i = 0; i < 12; ++i) {  // past every growth of the buffers
        cxPrintfArgVal twice[] = {text(result), text(result)};
        result = QmMsg::format("%s%s", twice);
    }
    EXPECT_EQ(std::strlen(result), 7u << 12);
}

TEST(MessageFormat, AResultIsValidUntilTheNextCallOfItsThread)
{
    const char* const result = QmMsg::format("mine", nullptr);
    std::thread([] { filled("another thread's"); }).join();
    EXPECT_STREQ(result, "mine");
}

TEST(MessageFormat, ResultsSurviveTheDestructorsOfAThread)
{
    struct formats_when_destroyed_t {
        ~formats_when_destroyed_t() { *result = filled("%s", {text("late")}); }
        std::string* result;
    };
    std::string result;
    std::thread([&] {
        thread_local formats_when_destroyed_t late{&result};
        EXPECT_EQ(late.result, &result);
        filled("early");
    }).join();
    EXPECT_EQ(result, "late");
}

TEST(MessageFormat, NeedsLittleStack)
{
    const std::string percents(1 << 20, '%');
    const std::string texts = [] {
        std::string format;
        for (int i = 0; i < 10'000; ++i)
            format += "%1$s";
        return format;
    }();
    std::string half, most, digits;
    on_small_stack([&] {
        half = filled(percents.c_str());
        filled(texts.c_str(), {text("text")});
        most = filled("%65535.65535f", {floating(std::numeric_limits<long double>::max())});
        digits = filled("%.65535Lf%.65535Le%.65535La%.65535Lg",
                        std::vector<cxPrintfArgVal>(
                            4, floating(std::numeric_limits<long double>::denorm_min())));
    });
    EXPECT_EQ(half, std::string(1 << 19, '%'));
    EXPECT_EQ(most.size(), 4933u + 1 + 65'535);  // the digits of the largest value, and zeros
    EXPECT_EQ(digits.substr(0, 4), "0.00");
}

constexpr const char* PIECES_OF_FORMATS[] = {
    "%", "%%", "%5", "%1$", "%s", "%.*", "%99999999999999999"};

std::string format_of(const char* piece, std::size_t size)
{
    std::string format;
    while (format.size() < size)
        format += piece;
    return format;
}

// To look through the whole format for each of its conversions would take many minutes.
TEST(MessageFormat, MayHaveAFormatOfMegabytes)
{
    for (const char* const piece : PIECES_OF_FORMATS)
        EXPECT_NE(QmMsg::format(format_of(piece, 1 << 21).c_str(), nullptr), nullptr) << piece;
}

TEST(MessageFormat, AsksForMemoryInProportionToTheFormat)
{
    // In a thread of its own, which has no buffers yet.
    const auto bytes_for = [](const char* piece, std::size_t size) {
        const std::string format = format_of(piece, size);
        const auto fill = [&] { QmMsg::format(format.c_str(), nullptr); };
        unsigned long bytes = 0;
        std::thread([&] { bytes = bytes_asked_for(fill); }).join();
        return bytes;
    };
    for (const char* const piece : PIECES_OF_FORMATS) {
        EXPECT_GT(bytes_for(piece, 1 << 16), 0u) << piece;
        EXPECT_LT(bytes_for(piece, 1 << 17), 3 * bytes_for(piece, 1 << 16)) << piece;
    }
}

TEST(MessageFormat, ThrowsBadAllocAndKeepsThePreviousResult)
{
    std::thread([] {  // a thread without buffers yet
        const std::string large(100'000, 'x');
        const char* const previous = QmMsg::format("previous", nullptr);
        cxPrintfArgVal records[] = {text(large.c_str()), floating(1)};
        const char* result = nullptr;
        const int faults =
            for_each_memory_fault([&] { result = QmMsg::format("%s%.3000f", records); },
                                  [&] { EXPECT_STREQ(previous, "previous"); });
        EXPECT_GT(faults, 1);
        EXPECT_EQ(std::strlen(result), large.size() + 3002);
    })
        .join();
}

TEST(MessageFormat, KeepsNoMoreThanAModestBufferPerThread)
{
    const std::string large(1'000'000, 'x');
    for (int i = 0; i < 2; ++i)
        filled("%s", {text(large.c_str())});
    const auto before = allocations_of_this_thread();
    QmMsg::format("x", nullptr);
    QmMsg::format("x", nullptr);
    EXPECT_EQ(allocations_of_this_thread() - before, 2u) << "large buffers were given up";
    QmMsg::format("x", nullptr);
    QmMsg::format("x", nullptr);
    EXPECT_EQ(allocations_of_this_thread() - before, 2u) << "small ones are kept";
}

/// A locale that writes numbers as "1.234,5", made for the test, while it lives.
class comma_locale {
public:
    comma_locale()
    {
        std::string pattern = (fs::temp_directory_path() / "qmmsg_test.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no directory");
        directory_ = pattern;
        std::ofstream(directory_ / "source") << "LC_NUMERIC\n"
                                                "decimal_point \",\"\n"
                                                "thousands_sep \".\"\n"
                                                "grouping 3;3\n"
                                                "END LC_NUMERIC\n";
        const std::string command = "localedef --no-archive -c -i '" + pattern + "/source' -f " +
                                    "ANSI_X3.4-1968 '" + pattern + "/comma' 2>/dev/null";
        setenv("LOCPATH", pattern.c_str(), 1);
        is_set = std::system(command.c_str()) != -1 && setlocale(LC_ALL, "comma") != nullptr;
    }
    ~comma_locale()
    {
        setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
        fs::remove_all(directory_);
    }
    comma_locale(const comma_locale&) = delete;
    comma_locale& operator=(const comma_locale&) = delete;

    bool is_set = false;

private:
    fs::path directory_;
};

TEST(MessageFormat, LocaleChangesTheDecimalPointOnly)
{
    const comma_locale locale;
    if (!locale.is_set)
        GTEST_SKIP() << "no locale can be made here";
    ASSERT_EQ(printed("%'d %.1f", 1234567, 0.5), "1.234.567 0,5") << "the C library follows it";
    EXPECT_EQ(filled("%'d %'u %'.3f %s",
                     {integer(1234567), integer(1234567), floating(1234567), text("\u00C4")}),
              "1234567 1234567 1234567,000 \u00C4");
}

}  // namespace
