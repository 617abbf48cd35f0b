#include <kvutil/davtime.h>

#include "support/child.h"
#include "support/davtime_literal.h"
#include "support/memory_fault.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kvl::DavTime;
using Kvl::UString;

static_assert(DavTime::ISO8601 == 0 && DavTime::RFC1123 == 1);
static_assert(
    std::is_same_v<std::underlying_type_t<DavTime::Format>, int>,
    "every int is a value of it, so that one that names no form is no undefined behaviour");
static_assert(sizeof(DavTime) == sizeof(std::time_t), "one field");
static_assert(sizeof(std::time_t) == 8);
static_assert(std::is_nothrow_default_constructible_v<DavTime>);
static_assert(!std::is_convertible_v<std::time_t, DavTime>, "no number becomes a time unasked");

/// The process's time zone while one lives.
class time_zone {
public:
    explicit time_zone(const std::string& name)
    {
        if (const char* const former = std::getenv("TZ"))
            former_ = former;
        setenv("TZ", name.c_str(), 1);
        tzset();
    }
    ~time_zone()
    {
        former_ ? setenv("TZ", former_->c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    time_zone(const time_zone&) = delete;
    time_zone& operator=(const time_zone&) = delete;

private:
    std::optional<std::string> former_;
};

/// What `text` is read as, on top of a value that a failure must replace.
std::time_t parsed(const UString& text)
{
    DavTime time(1);
    time.parse(text);
    return time.value();
}

std::time_t parsed(const std::string& utf8)
{
    return parsed(ustr(utf8));
}

std::string printed(std::time_t t, DavTime::Format f)
{
    return DavTime(t).to_string(f).utf8_str();
}

constexpr std::time_t DAY = 86400;
constexpr std::time_t YEAR_1900 = -2208988800;
constexpr std::time_t YEAR_2200 = 7258118400;
constexpr std::time_t NOVEMBER_1994 = 784111777;  // 1994-11-06T08:49:37Z

TEST(DavTime, NamesMonthsAndDays)
{
    const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    for (int i = 0; i < 12; ++i)
        EXPECT_STREQ(DavTime::MONTHNAMES[i], months[i]);
    for (int i = 0; i < 7; ++i)
        EXPECT_STREQ(DavTime::DAYNAMES[i], days[i]);
}

TEST(DavTime, IsTheEpochByDefault)
{
    EXPECT_EQ(DavTime().value(), 0);
    EXPECT_EQ(printed(0, DavTime::ISO8601), "1970-01-01T00:00:00Z");
    EXPECT_EQ(printed(0, DavTime::RFC1123), "Thu, 01 Jan 1970 00:00:00 GMT");
}

TEST(DavTime, KeepsEveryValue)
{
    for (const std::time_t t : {std::numeric_limits<std::time_t>::min(), std::time_t{-1},
                                NOVEMBER_1994, std::numeric_limits<std::time_t>::max()})
        EXPECT_EQ(DavTime(t).value(), t);
}

// ---- every zone ----

class DavTimeInZone : public testing::TestWithParam<const char*> {
    const time_zone zone_{GetParam()};
};

TEST_P(DavTimeInZone, ReadsBothFormsOfOneInstantAlike)
{
    EXPECT_EQ(parsed("1994-11-06T08:49:37Z"), 784111777);
    EXPECT_EQ(parsed("Sun, 06 Nov 1994 08:49:37 GMT"), 784111777);
    EXPECT_EQ(parsed("1994-11-06T08:49:37"), 784111777) << "without the final Z";
}

// Where the conversion through local time would leave the range of 32 bits in some zone.
TEST_P(DavTimeInZone, ReadsTheEndsOfThe32BitRange)
{
    EXPECT_EQ(parsed("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(parsed("1970-01-01T00:00:01Z"), 1);
    EXPECT_EQ(parsed("1969-12-31T23:59:59Z"), -1);
    EXPECT_EQ(parsed("1970-12-31T23:59:59Z"), 365 * DAY - 1);
    EXPECT_EQ(parsed("1971-01-01T00:00:00Z"), 365 * DAY);
    EXPECT_EQ(parsed("1901-12-13T20:45:52Z"), INT32_MIN);
    EXPECT_EQ(parsed("1901-12-13T20:45:51Z"), INT32_MIN - 1L);
    EXPECT_EQ(parsed("2037-12-31T23:59:59Z"), 2145916799);
    EXPECT_EQ(parsed("2038-01-01T00:00:00Z"), 2145916800);
    EXPECT_EQ(parsed("Tue, 19 Jan 2038 03:14:07 GMT"), INT32_MAX);
    EXPECT_EQ(parsed("Tue, 19 Jan 2038 03:14:08 GMT"), INT32_MAX + 1L);
    EXPECT_EQ(parsed("2200-01-01T00:00:00Z"), YEAR_2200);
}

/// The days between 1900 and 2200 that the next test looks at, half hour by half hour: one in 127,
/// which is a prime, and those on which a zone skipped a day or an hour.
std::vector<std::time_t> sampled_days()
{
    std::vector<std::time_t> days;
    for (std::time_t day = YEAR_1900; day < YEAR_2200; day += 127 * DAY)
        days.push_back(day);
    for (const std::time_t skipped : {1325203200L,   // 2011-12-30, which Apia skipped
                                      1268524800L,   // 2010-03-14, New York
                                      1286020800L})  // 2010-10-02, Lord Howe: half an hour
        for (int around = -2; around <= 2; ++around)
            days.push_back(skipped + around * DAY);
    return days;
}

TEST_P(DavTimeInZone, ReadsAndWritesAsUtcArithmeticDoes)
{
    for (const std::time_t day : sampled_days()) {
        for (std::time_t t = day; t < day + DAY; t += 1800) {
            const std::string iso = literal::iso8601_text(t);
            const std::string rfc = literal::rfc1123_text(t);
            ASSERT_EQ(printed(t, DavTime::ISO8601), iso) << t;
            ASSERT_EQ(printed(t, DavTime::RFC1123), rfc) << t;
            ASSERT_EQ(parsed(iso), t);
            ASSERT_EQ(parsed(rfc), t);
        }
    }
}

long true_offset(std::time_t t)
{
    std::tm local{};
    localtime_r(&t, &local);
    return local.tm_gmtoff;
}

TEST_P(DavTimeInZone, KnowsItsOffset)
{
    for (const std::time_t day : sampled_days())
        for (std::time_t t = day; t < day + DAY; t += 1800)
            ASSERT_EQ(DavTime::get_tz_offset(t), true_offset(t)) << t;
}

TEST_P(DavTimeInZone, KnowsItsOffsetAtEveryChangeOfIt)
{
    for (std::time_t t = 946684800; t < 1893456000; t += 1800) {  // 2000 to 2030
        if (true_offset(t) == true_offset(t - 1))
            continue;
        for (const std::time_t near : {t - 1800, t - 1, t, t + 1, t + 1800, t + 3600})
            ASSERT_EQ(DavTime::get_tz_offset(near), true_offset(near)) << near;
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, DavTimeInZone,
                         testing::Values("UTC",
                                         "Asia/Kathmandu",       // +05:45
                                         "America/St_Johns",     // -03:30, summer time at 00:01
                                         "Pacific/Kiritimati",   // +14, skipped 1995-01-01
                                         "Pacific/Apia",         // skipped 2011-12-30
                                         "Australia/Lord_Howe",  // half an hour of summer time
                                         "Europe/Dublin",        // negative winter time
                                         "America/New_York"));

// ---- the offset ----

TEST(DavTimeOffset, IsPositiveEastOfGreenwich)
{
    struct row_t {
        const char* zone;
        long offset_seconds;
    };
    for (const row_t& row :
         {row_t{"UTC0", 0}, row_t{"EST5", -18000}, row_t{"NPT-5:45", 20700},
          row_t{"NST3:30", -12600}, row_t{"XXX-14", 50400}, row_t{"XXX12", -43200},
          row_t{"XXX-0:00:01", 1}, row_t{"XXX0:00:01", -1}, row_t{"XXX24", -86400},
          row_t{"XXX-24", 86400}}) {
        const time_zone zone(row.zone);
        for (std::time_t t = -40 * DAY; t < 40 * DAY; t += 1799)
            ASSERT_EQ(DavTime::get_tz_offset(t), row.offset_seconds) << row.zone << ' ' << t;
    }
}

// More than a day away, local time can be two days of the week away, for which nothing is added.
TEST(DavTimeOffset, IsTheDifferenceOfTheTimesOfDayTwoDaysAway)
{
    const time_zone east("XXX-24:30");
    EXPECT_EQ(DavTime::get_tz_offset(0), 24 * 3600 + 1800);  // Thu 00:00 and Fri 00:30
    EXPECT_EQ(DavTime::get_tz_offset(23 * 3600 + 1800), -23 * 3600 - 1800);  // Thu 23:30, Sat 00:00
    const time_zone west("XXX24:30");
    EXPECT_EQ(DavTime::get_tz_offset(0), 23 * 3600 + 1800);      // Thu 00:00 and Tue 23:30
    EXPECT_EQ(DavTime::get_tz_offset(3600), -24 * 3600 - 1800);  // Thu 01:00 and Wed 00:30
}

TEST(DavTimeOffset, FollowsChangesOfTheZone)
{
    const time_zone kathmandu("Asia/Kathmandu");
    EXPECT_EQ(DavTime::get_tz_offset(NOVEMBER_1994), 20700);
    setenv("TZ", "America/New_York", 1);  // without tzset()
    EXPECT_EQ(DavTime::get_tz_offset(NOVEMBER_1994), -18000);
    setenv("TZ", "UTC", 1);
    EXPECT_EQ(DavTime::get_tz_offset(NOVEMBER_1994), 0);
}

TEST(DavTimeOffset, IsZeroWhereTheCLibraryHasNoYear)
{
    const time_zone zone("Asia/Kathmandu");
    EXPECT_EQ(DavTime::get_tz_offset(LONG_MAX), 0);
    EXPECT_EQ(DavTime::get_tz_offset(LONG_MIN), 0);
}

// The year of UTC is the last that the C library has, and that of the zone is the next one.
TEST(DavTimeOffset, IsZeroWhereOnlyTheZoneHasNoYear)
{
    const time_zone zone("Pacific/Kiritimati");
    std::tm last{};
    last.tm_year = INT_MAX;
    last.tm_mon = 11;
    last.tm_mday = 31;
    last.tm_hour = 23;
    const std::time_t t = timegm(&last);
    ASSERT_NE(t, -1);
    EXPECT_EQ(DavTime::get_tz_offset(t), 0);
    EXPECT_EQ(DavTime::get_tz_offset(t - 86'400), 50'400);
}

TEST(DavTimeOffset, LeavesTheSharedRecordAlone)
{
    const time_zone zone("Asia/Kathmandu");
    const std::time_t t = NOVEMBER_1994;
    const std::tm* const shared = std::gmtime(&t);
    DavTime::get_tz_offset(0);
    EXPECT_EQ(shared->tm_year, 94);
    EXPECT_EQ(shared->tm_hour, 8);
}

TEST(DavTimeOffset, CanBeAskedInTheChildOfAFork)
{
    const time_zone zone("Asia/Kathmandu");
    std::atomic<bool> done{false};
    std::atomic<int> asked{0};
    std::thread asking([&] {
        for (; !done; ++asked)
            DavTime::get_tz_offset(NOVEMBER_1994);
    });
    for (int i = 0; i < 20; ++i) {
        while (asked < i * 100)  // it is at work
            std::this_thread::yield();
        in_child([] { EXPECT_EQ(DavTime::get_tz_offset(NOVEMBER_1994), 20700); }, _exit);
    }
    done = true;
    asking.join();
}

// ---- reading: what is refused ----

TEST(DavTimeParse, GivesZeroForAnyOtherText)
{
    for (const std::string& text : std::vector<std::string>{
             "",
             "199",  // three bytes
             "é1",   // three bytes of two characters
             "Sun",
             "1994",
             "Sun,",
             "no time at all",
             "Sun, 06 nov 1994 08:49:37 GMT",  // the month's case matters
             "Sun, 06 NOV 1994 08:49:37 GMT",
             "Sun, 06 No 1994 08:49:37 GMT",  // a shorter name
             "Sun, 06 November 1994 08:49:37 GMT",
             "Sun, 06 N\u00f6v 1994 08:49:37 GMT",
             "Sun 06 Nov 1994 08:49:37 GMT",    // no comma, so it should be ISO 8601
             "Sund, 06 Nov 1994 08:49:37 GMT",  // the fifth byte
             "Sunday, 06-Nov-94 08:49:37 GMT",
             "Sun Nov  6 08:49:37 1994",
             "Sun, 06 Nov 1994 08:49 GMT",     // six of seven
             "Sun, 06-Nov-1994 08:49:37 GMT",  // "-No" is the month's three bytes
             "1994-11-06",                     // three of six
             "1994-11-06T08:49",
             "1994-11-06T08:49:",
             "1994-11-06t08:49:37Z",
             "1994-11-06 08:49:37Z",
             "1994-11-06T08:49:-",
             "1994-11-06T08:49:+Z",
             "1994-11-06T+ 8:49:37Z",  // no blank behind a sign
             "1994-11-06T 8 :49:37Z",  // no blank before a literal
             "1994 -11-06T08:49:37Z",
             "19941106T084937Z",
             "1994/11/06 08.49.37X",           // only the digits are where they belong
             "Sun;_06_Nov_1994_08.49.37_BST",  // and the letters
             "01994-11-06T08:49:37Z",          // the fifth digit is no "-"
             "1994-011-06T08:49:37Z",
             "\u00a01994-11-06T08:49:37Z",  // a space, but not of the "C" locale
             "1994\u201311\u201306T08:49:37Z",
             "\uff11\uff19\uff19\uff14-11-06T08:49:37Z",
         })
        EXPECT_EQ(parsed(text), 0) << text;
}

TEST(DavTimeParse, GivesZeroForBogusAndMalformedTexts)
{
    UString bogus(u"1994-11-06T08:49:37Z");
    bogus.setToBogus();
    EXPECT_EQ(parsed(bogus), 0);
    const char16_t high = 0xD800;
    const char16_t low = 0xDC00;
    const std::u16string stamp = u"1994-11-06T08:49:37Z";
    EXPECT_EQ(parsed(UString(stamp + high)), 0);
    EXPECT_EQ(parsed(UString(stamp + low)), 0);
    EXPECT_EQ(parsed(UString(stamp + low + high)), 0);
    EXPECT_EQ(parsed(UString(stamp + u'\0' + high)), 0) << "it is no UTF-16 behind the end either";
    EXPECT_EQ(parsed(UString(stamp + high + low)), 784111777);
}

TEST(DavTimeParse, EndsAtTheFirstZero)
{
    const std::u16string zero(1, u'\0');
    EXPECT_EQ(parsed(UString(u"1994-11-06T08:49:37" + zero + u"9Z")), 784111777);
    EXPECT_EQ(parsed(UString(u"1994-11-06T08:49:3" + zero + u"7Z")), 784111743);
    EXPECT_EQ(parsed(UString(u"1994-11-06T08:49:" + zero + u"37Z")), 0);
    EXPECT_EQ(parsed(UString(u"1994" + zero + u"11-06T08:49:37Z")), 0);
    EXPECT_EQ(parsed(UString(u"Su" + zero + u", 06 Nov 1994 08:49:37 GMT")), 0);
    EXPECT_EQ(parsed(UString(zero + u"994-11-06T08:49:37Z")), 0);
}

// ---- reading: what is accepted all the same ----

struct lenient_t {
    std::string text, strict;
};

TEST(DavTimeParse, IsAsLenientAsScanf)
{
    for (const lenient_t& row : std::vector<lenient_t>{
             {"1994-11-06T08:49:37Zulu", "1994-11-06T08:49:37Z"},
             {"1994-11-06T08:49:37+01:00", "1994-11-06T08:49:37Z"},  // an offset is not read
             {"1994-11-06T08:49:37.999Z", "1994-11-06T08:49:37Z"},
             {"1994-11-06T08:49:370", "1994-11-06T08:49:37Z"},
             {"1994-11-06T08:49:7", "1994-11-06T08:49:07Z"},
             {"1994-1-6T8:9:7Z", "1994-01-06T08:09:07Z"},
             {" 1994-11-06T08:49:37Z", "1994-11-06T08:49:37Z"},
             {"\t\n\v\f\r 1994- 11- 06T 08: 49: 37Z", "1994-11-06T08:49:37Z"},
             {"+994-+1-+6T+8:+9:+7Z", "0994-01-06T08:09:07Z"},  // a sign is part of the width
             {"94-11-06T08:49:37Z", "0094-11-06T08:49:37Z"},
             {"94 -11-06T08:49:37Z", ""},
             {"Sun,06Nov199408:49:37", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"Sun,\t6\nNov\r1994\v8:49:37 MEZ", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"xyz, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"\u20ac, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"\u00e9a, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {" Su,, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {" Su, 06 Nov 1994 08:49:37 GMT", ""},  // "Su," is the word, and no comma follows
             {"   ,\u00e9, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"\U0001f600, 06 Nov 1994 08:49:37 GMT", ""},  // the comma is the fifth byte
             {"Sun, +6 Nov 1994 8: 49: 37", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {"Sun, 006Nov 1994 08:49:37 GMT", ""},  // "6No" is the month
         })
        EXPECT_EQ(parsed(row.text), row.strict.empty() ? 0 : parsed(row.strict)) << row.text;
}

// As mktime() and timegm(): a field out of its range counts on into the next.
TEST(DavTimeParse, CountsFieldsOutOfRangeOn)
{
    for (const lenient_t& row : std::vector<lenient_t>{
             {"1994-00-06T08:49:37Z", "1993-12-06T08:49:37Z"},
             {"1994-13-06T08:49:37Z", "1995-01-06T08:49:37Z"},
             {"1994--9-06T08:49:37Z", "1993-03-06T08:49:37Z"},
             {"1994-99-06T08:49:37Z", "2002-03-06T08:49:37Z"},
             {"1994-02-30T08:49:37Z", "1994-03-02T08:49:37Z"},
             {"2000-02-30T08:49:37Z", "2000-03-01T08:49:37Z"},
             {"1900-02-29T08:49:37Z", "1900-03-01T08:49:37Z"},
             {"1994-11-00T08:49:37Z", "1994-10-31T08:49:37Z"},
             {"1994-11--9T08:49:37Z", "1994-10-22T08:49:37Z"},
             {"1994-11-99T08:49:37Z", "1995-02-07T08:49:37Z"},
             {"1994-11-06T24:00:00Z", "1994-11-07T00:00:00Z"},
             {"1994-11-06T99:99:99Z", "1994-11-10T04:40:39Z"},
             {"1994-11-06T-1:-1:-1Z", "1994-11-05T22:58:59Z"},
             {"1990-12-31T23:59:60Z", "1991-01-01T00:00:00Z"},
             {"Sun, 99 Nov 1994 99:99:99 GMT", "1995-02-11T04:40:39Z"},
             {"Sun, -9 Nov 1994 -9:-9:-9 GMT", "1994-10-21T14:50:51Z"},
         })
        EXPECT_EQ(parsed(row.text), parsed(row.strict)) << row.text;
}

// 146,097 days have passed every 400 years, and the years 0 and below count on as any others.
TEST(DavTimeParse, ReadsYearsBeforeTheFirst)
{
    EXPECT_EQ(parsed("0001-01-01T00:00:00Z"), -719162 * DAY);
    EXPECT_EQ(parsed("0000-01-01T00:00:00Z"), -719528 * DAY);
    EXPECT_EQ(parsed("0000-02-29T00:00:00Z"), -719469 * DAY);
    EXPECT_EQ(parsed("-400-02-29T00:00:00Z"), (-719469 - 146097) * DAY);
    EXPECT_EQ(parsed("-999-01-01T00:00:00Z"), literal::parse_davtime(ustr("-999-01-01T00:00:00Z")));
    EXPECT_EQ(parsed("9999-12-31T23:59:59Z"), 253402300799);
    EXPECT_EQ(parsed("Sat, 01 Jan -5 00:00:00 GMT"), parsed("-5-01-01T00:00:00Z"));
}

/// Texts that are times in one of the forms, more or less.
class almost_times {
public:
    UString next()
    {
        std::u16string text = stamp();
        for (unsigned edits = below(5); edits > 0; --edits)
            edit(text);
        return UString(text);
    }

private:
    unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }

    std::u16string stamp()
    {
        const std::time_t t =
            static_cast<std::time_t>(random_() % 400'000'000'000) - 90'000'000'000;
        return units_of(ustr(below(2) == 0 ? literal::iso8601_text(t) : literal::rfc1123_text(t)));
    }

    void edit(std::u16string& text)
    {
        static const std::u16string units =
            std::u16string(u" \t\n\v\f\r+-+-0123456789::,,TZNovGM") +
            u"\u00a0\u0085\u00e9\u20ac\uff11\U0001f600" + u'\0' + static_cast<char16_t>(0xD800);
        const std::size_t at = text.empty() ? 0 : below(static_cast<unsigned>(text.size()));
        const std::size_t length = text.empty() ? 0 : below(3);
        const std::u16string put(below(3), units[below(static_cast<unsigned>(units.size()))]);
        text.replace(at, length, put);
    }

    std::mt19937_64 random_{20261121};
};

TEST(DavTimeParse, AgreesWithScanfOnManyTexts)
{
    almost_times texts;
    int read = 0;
    int refused = 0;
    constexpr int COUNT = 150'000 / ONE_IN;
    for (int i = 0; i < COUNT; ++i) {
        const UString text = texts.next();
        const std::optional<std::time_t> expected = literal::parse_davtime(text);
        ASSERT_EQ(parsed(text), expected.value_or(0)) << testing::PrintToString(text);
        ++(expected ? read : refused);
    }
    EXPECT_GT(read, COUNT / 5);
    EXPECT_GT(refused, COUNT / 5);
}

TEST(DavTimeParse, AllocatesNothing)
{
    const UString texts[] = {ustr("1994-11-06T08:49:37Z"), ustr("Sun, 06 Nov 1994 08:49:37 GMT"),
                             ustr(std::string(1000, ' ') + "1994-11-06T08:49:37Z"),
                             ustr(std::string(1000, 'x'))};
    const unsigned long before = allocations_of_this_thread();
    for (const UString& text : texts)
        parsed(text);
    EXPECT_EQ(allocations_of_this_thread(), before);
}

TEST(DavTimeParse, ReadsLongTexts)
{
    const std::string blanks(1 << 20, ' ');
    on_small_stack([&] {
        EXPECT_EQ(parsed(blanks + "1994-" + blanks + "11-06T08:49:37Z" + blanks), 784111777);
        EXPECT_EQ(parsed(blanks), 0);
        EXPECT_EQ(parsed(std::string(1 << 20, '1')), 0);
    });
}

// ---- writing ----

TEST(DavTimeToString, WritesOtherValuesOfFormatAsNothing)
{
    for (const int f : {-1, 2, 3, INT_MAX, INT_MIN})
        EXPECT_TRUE(DavTime(NOVEMBER_1994).to_string(static_cast<DavTime::Format>(f)).empty()) << f;
}

// The width of a year is that of "%Y" and of "%04d".
TEST(DavTimeToString, WritesEveryYear)
{
    struct row_t {
        std::time_t t;
        std::string iso8601, rfc1123;
    };
    for (const row_t& row : std::vector<row_t>{
             {-1, "1969-12-31T23:59:59Z", "Wed, 31 Dec 1969 23:59:59 GMT"},
             {NOVEMBER_1994, "1994-11-06T08:49:37Z", "Sun, 06 Nov 1994 08:49:37 GMT"},
             {951782400, "2000-02-29T00:00:00Z", "Tue, 29 Feb 2000 00:00:00 GMT"},
             {253402300799, "9999-12-31T23:59:59Z", "Fri, 31 Dec 9999 23:59:59 GMT"},
             {253402300800, "10000-01-01T00:00:00Z", "Sat, 01 Jan 10000 00:00:00 GMT"},
             {-719162 * DAY, "1-01-01T00:00:00Z", "Mon, 01 Jan 0001 00:00:00 GMT"},
             {-719528 * DAY, "0-01-01T00:00:00Z", "Sat, 01 Jan 0000 00:00:00 GMT"},
             {-719528 * DAY - 1, "-1-12-31T23:59:59Z", "Fri, 31 Dec -001 23:59:59 GMT"},
         }) {
        EXPECT_EQ(printed(row.t, DavTime::ISO8601), row.iso8601);
        EXPECT_EQ(printed(row.t, DavTime::RFC1123), row.rfc1123);
    }
}

// The record of the C library counts years from 1900 in an int.
TEST(DavTimeToString, WritesNothingOnlyForYearsThatOverflow)
{
    const std::time_t last = 67768036191676799;
    const std::time_t first = -67768040609740800;
    std::tm record{};
    for (const std::time_t t : {last, first})
        ASSERT_NE(gmtime_r(&t, &record), nullptr);
    EXPECT_EQ(printed(last, DavTime::ISO8601), "2147485547-12-31T23:59:59Z");
    EXPECT_EQ(printed(first, DavTime::ISO8601), "-2147481748-01-01T00:00:00Z");
    EXPECT_EQ(printed(last, DavTime::RFC1123).substr(4), " 31 Dec 2147485547 23:59:59 GMT");
    EXPECT_EQ(printed(first, DavTime::RFC1123).substr(4), " 01 Jan -2147481748 00:00:00 GMT");
    for (const std::time_t t : {last + 1, first - 1, std::numeric_limits<std::time_t>::max(),
                                std::numeric_limits<std::time_t>::min()}) {
        ASSERT_EQ(gmtime_r(&t, &record), nullptr);
        EXPECT_EQ(printed(t, DavTime::ISO8601), "");
        EXPECT_EQ(printed(t, DavTime::RFC1123), "");
    }
}

TEST(DavTimeToString, AgreesWithTheCLibraryOnManyInstants)
{
    std::mt19937_64 random(7);
    for (int i = 0; i < 60'000; ++i) {
        // As many far away as near: a random number of bits. An int holds the years of 54 bits.
        const std::time_t t = static_cast<std::time_t>(random()) >> (9 + random() % 40);
        ASSERT_EQ(printed(t, DavTime::ISO8601), literal::iso8601_text(t)) << t;
        ASSERT_EQ(printed(t, DavTime::RFC1123), literal::rfc1123_text(t)) << t;
    }
}

// The years of four digits are written in another way than all others. They begin and end within
// these spans, and the calendar repeats after 400 years.
TEST(DavTimeToString, AgreesWithTheCLibraryOnEveryDay)
{
    constexpr std::time_t to_year_998 = -355'015;
    constexpr std::time_t to_year_9600 = 2'786'800;
    constexpr std::time_t days_of_400_years = 146'097;
    for (const std::time_t first : {to_year_998, to_year_9600}) {
        for (std::time_t day = first; day < first + days_of_400_years + 4 * 366; day += ONE_IN) {
            const std::time_t t = day * DAY + (day * 4'711 % DAY + DAY) % DAY;
            ASSERT_EQ(printed(t, DavTime::ISO8601), literal::iso8601_text(t)) << t;
            ASSERT_EQ(printed(t, DavTime::RFC1123), literal::rfc1123_text(t)) << t;
        }
    }
}

TEST(DavTimeToString, AgreesWithTheCLibraryOnEverySecondOfADay)
{
    for (std::time_t t = NOVEMBER_1994; t < NOVEMBER_1994 + DAY; t += ONE_IN) {
        ASSERT_EQ(printed(t, DavTime::ISO8601), literal::iso8601_text(t)) << t;
        ASSERT_EQ(printed(t, DavTime::RFC1123), literal::rfc1123_text(t)) << t;
    }
}

TEST(DavTimeToString, IsReadBack)
{
    const std::time_t first = parsed("-999-01-01T00:00:00Z");
    for (std::time_t t = first; t < 253402300800; t += 7'654'321) {  // the end of 9999
        ASSERT_EQ(parsed(DavTime(t).to_string(DavTime::ISO8601)), t);
        ASSERT_EQ(parsed(DavTime(t).to_string(DavTime::RFC1123)), t);
    }
}

TEST(DavTimeToString, ThrowsWithoutMemory)
{
    const DavTime time(NOVEMBER_1994);
    EXPECT_GE(for_each_memory_fault([&] { time.to_string(DavTime::RFC1123); },
                                    [&] { EXPECT_EQ(time.value(), NOVEMBER_1994); }),
              1);
    EXPECT_GE(for_each_memory_fault([&] { time.to_string(DavTime::ISO8601); }, [] {}), 0);
}

TEST(DavTime, NeedsLittleStack)
{
    on_small_stack([] {
        EXPECT_EQ(parsed("Sun, 06 Nov 1994 08:49:37 GMT"), NOVEMBER_1994);
        EXPECT_EQ(printed(NOVEMBER_1994, DavTime::RFC1123), "Sun, 06 Nov 1994 08:49:37 GMT");
        const time_zone zone("America/St_Johns");
        EXPECT_EQ(DavTime::get_tz_offset(NOVEMBER_1994), -12600);
    });
}

TEST(DavTime, IsUsedByManyThreads)
{
    const time_zone zone("America/St_Johns");
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n)
        threads.emplace_back([&failures, n] {
            for (std::time_t t = n; t < 4'000'000'000; t += 4'000'037) {
                failures += DavTime::get_tz_offset(t) != true_offset(t);
                failures += parsed(DavTime(t).to_string(DavTime::RFC1123)) != t;
                failures += parsed(DavTime(t).to_string(DavTime::ISO8601)) != t;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
