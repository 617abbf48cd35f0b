#include <kvutil/critsec.h>
#include <kvutil/davtime.h>

#include "davtime_impl.h"
#include "ustring_impl.h"
#include "utf8_impl.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

namespace Kvl {

constexpr const char* const DavTime::MONTHNAMES[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr const char* const DavTime::DAYNAMES[7] = {"Sun", "Mon", "Tue", "Wed",
                                                    "Thu", "Fri", "Sat"};

namespace {

// ---- The calendar: plain arithmetic in 64 bits, the same in every time zone ----

constexpr std::int64_t MINUTE_SECONDS = 60;
constexpr std::int64_t HOUR_SECONDS = 60 * MINUTE_SECONDS;
constexpr std::int64_t DAY_SECONDS = 24 * HOUR_SECONDS;

/// The fields of a time in UTC. As read, a year has up to four characters, the others two; as
/// broken down, none but the year is out of its range.
struct fields_t {
    std::int64_t year = 0;
    int month = 0;  ///< 1 = January
    int day = 0;    ///< 1 = the first
    int hour = 0;
    int minute = 0;
    int second = 0;
    int weekday = 0;  ///< 0 = Sunday; of no account when it is read
};

constexpr std::int64_t floor_div(std::int64_t a, std::int64_t b)
{
    return a / b - (a % b < 0 ? 1 : 0);
}

constexpr std::int64_t floor_mod(std::int64_t a, std::int64_t b)
{
    return a % b + (a % b < 0 ? b : 0);
}

// Years are counted from March, so that the leap day is the last of a year. Then the months'
// lengths repeat every five, 153 days, and a year's first day depends on the years before it alone.
constexpr unsigned DAYS_OF_4_YEARS = 1'461;
constexpr unsigned DAYS_OF_100_YEARS = 36'524;
constexpr unsigned DAYS_OF_400_YEARS = 146'097;
constexpr unsigned FROM_YEAR_0_MARCH_TO_1970 = 719'468;
constexpr unsigned WEDNESDAY = 3;  // the first of March of the year 0
static_assert(DAYS_OF_400_YEARS % 7 == 0);

/// @param month  0 = March
/// @return       the number of days of the year before that month
constexpr unsigned days_before_month(unsigned month)
{
    return (153 * month + 2) / 5;
}

constexpr unsigned days_before_year(unsigned year)
{
    return 365 * year + year / 4 - year / 100 + year / 400;
}

/// @param f  as read
/// @return   days from 1970-01-01 to the first day of the month
constexpr std::int64_t first_day_of_month(const fields_t& f)
{
    // The calendar repeats every 400 years; three times that and no year that is read is negative.
    constexpr int base_year = 3 * 400;
    constexpr std::int64_t base_day = FROM_YEAR_0_MARCH_TO_1970 + 3 * DAYS_OF_400_YEARS;
    const auto months =
        static_cast<unsigned>(12 * (static_cast<int>(f.year) + base_year) + f.month - 3);
    return std::int64_t{days_before_year(months / 12)} + days_before_month(months % 12) - base_day;
}

/// @param f  as read
constexpr std::int64_t seconds_of(const fields_t& f)
{
    return (first_day_of_month(f) + f.day - 1) * DAY_SECONDS + f.hour * HOUR_SECONDS +
           f.minute * MINUTE_SECONDS + f.second;
}

/// @param day  days since 1970-01-01
constexpr void set_date(fields_t& f, std::int64_t day)
{
    const std::int64_t from_march = day + FROM_YEAR_0_MARCH_TO_1970;
    const std::int64_t era = floor_div(from_march, DAYS_OF_400_YEARS);
    const auto day_of_era = static_cast<unsigned>(floor_mod(from_march, DAYS_OF_400_YEARS));
    // Without the leap days that have passed, every year has 365 days.
    const unsigned leap_days = day_of_era / (DAYS_OF_4_YEARS - 1) - day_of_era / DAYS_OF_100_YEARS +
                               day_of_era / (DAYS_OF_400_YEARS - 1);
    const unsigned year = (day_of_era - leap_days) / 365;
    const unsigned day_of_year = day_of_era - days_before_year(year);
    const unsigned month = (5 * day_of_year + 2) / 153;
    f.day = static_cast<int>(day_of_year - days_before_month(month) + 1);
    f.month = static_cast<int>(month < 10 ? month + 3 : month - 9);
    f.year = era * 400 + year + (month < 10 ? 0 : 1);
    f.weekday = static_cast<int>((day_of_era + WEDNESDAY) % 7);
}

constexpr fields_t broken_down(std::int64_t seconds)
{
    const auto second_of_day = static_cast<int>(floor_mod(seconds, DAY_SECONDS));
    fields_t f;
    set_date(f, floor_div(seconds, DAY_SECONDS));
    f.hour = second_of_day / 3600;
    f.minute = second_of_day / 60 % 60;
    f.second = second_of_day % 60;
    return f;
}

// ---- Names ----

/// Three letters as one number.
template <class Unit>
constexpr std::uint64_t packed(const Unit* letters)
{
    return static_cast<std::uint64_t>(letters[0]) << 32 |
           static_cast<std::uint64_t>(letters[1]) << 16 | static_cast<std::uint64_t>(letters[2]);
}

/// The last two letters alone tell the months' names apart, by their sum.
template <class Unit>
constexpr std::size_t month_slot(const Unit* letters)
{
    return static_cast<std::size_t>(letters[1] + letters[2]) % 32;
}

struct month_t {
    std::uint64_t name = 0;
    int number = 0;  ///< 1 = January
};

constexpr auto MONTHS = [] {
    std::array<month_t, 32> months{};
    for (int i = 0; i < 12; ++i) {
        const char* const name = DavTime::MONTHNAMES[i];
        months[month_slot(name)] = {packed(name), i + 1};
    }
    return months;
}();
static_assert(std::ranges::count(MONTHS, 0, &month_t::number) == 32 - 12, "a slot for each");

/// @return  1 = January; 0 when three units are no month's name
int month_named(const char16_t* letters)
{
    const month_t& month = MONTHS[month_slot(letters)];
    return month.name == packed(letters) ? month.number : 0;
}

constexpr bool is_digit(char16_t unit)
{
    return unit >= u'0' && unit <= u'9';
}

// ---- Reading exactly what to_string() writes, which is what nearly all texts are ----

constexpr std::u16string_view ISO8601_SHAPE = u"####-##-##T##:##:##Z";
constexpr std::u16string_view RFC1123_SHAPE = u"AAA, ## AAA #### ##:##:## GMT";

constexpr bool is_ascii_letter(char16_t unit)
{
    return (unit | 0x20) >= u'a' && (unit | 0x20) <= u'z';
}

/// @tparam shape  "#" stands for any digit, "A" for any ASCII letter
template <char16_t shape>
bool matches(char16_t unit)
{
    return shape == u'#' ? is_digit(unit) : shape == u'A' ? is_ascii_letter(unit) : unit == shape;
}

// Every unit is looked at, without a branch: a text that differs is rare.
template <const std::u16string_view& shape, std::size_t... i>
bool all_match(const char16_t* text, std::index_sequence<i...>)
{
    return ((matches<shape[i]>(text[i]) ? 1u : 0u) & ...) != 0;
}

template <const std::u16string_view& shape>
bool has_shape(std::u16string_view text)
{
    return text.size() == shape.size() &&
           all_match<shape>(text.data(), std::make_index_sequence<shape.size()>());
}

int two_digits(const char16_t* at)
{
    return (at[0] - u'0') * 10 + (at[1] - u'0');
}

int four_digits(const char16_t* at)
{
    return two_digits(at) * 100 + two_digits(at + 2);
}

/// @param text  of ISO8601_SHAPE
fields_t read_iso8601(const char16_t* text)
{
    return {four_digits(text),     two_digits(text + 5),  two_digits(text + 8),
            two_digits(text + 11), two_digits(text + 14), two_digits(text + 17)};
}

/// @param text  of RFC1123_SHAPE
/// @return      month 0 when no month has that name
fields_t read_rfc1123(const char16_t* text)
{
    return {four_digits(text + 12), month_named(text + 8), two_digits(text + 5),
            two_digits(text + 17),  two_digits(text + 20), two_digits(text + 23)};
}

std::int64_t seconds_if_month_is_known(const fields_t& f)
{
    return f.month == 0 ? 0 : seconds_of(f);
}

// ---- Reading any text as sscanf() does ----

/// The text's bytes in UTF-8, one after the other, up to the first that is zero. Those that are not
/// ASCII are all alike, because no conversion asks which they are.
class utf8_bytes_t {
public:
    /// @param text  where a surrogate is unpaired, some number of bytes stands for it
    explicit utf8_bytes_t(std::u16string_view text) : text_(text) {}

    /// @return  U+0000 at the end, a unit above U+007F for a byte that is not ASCII
    char16_t peek() const { return text_.empty() ? u'\0' : text_.front(); }

    char16_t take()
    {
        const char16_t byte = peek();
        if (byte == 0 || (byte >= 0x80 && ++taken_of_unit_ != size_bytes(byte)))
            return byte;
        text_.remove_prefix(1);
        taken_of_unit_ = 0;
        return byte;
    }

private:
    // A half of a surrogate pair has half of the pair's four bytes.
    static int size_bytes(char16_t unit)
    {
        const bool is_surrogate = (unit & 0xF800) == 0xD800;
        return unit < 0x80 ? 1 : unit < 0x800 || is_surrogate ? 2 : 3;
    }

    std::u16string_view text_;
    int taken_of_unit_ = 0;
};

/// The conversions of sscanf() that the two formats use; each says whether it succeeded. A blank in
/// a format matches white space only, which the conversion that follows it skips anyway.
class scanner_t {
public:
    explicit scanner_t(const utf8_bytes_t& bytes) : bytes_(bytes) {}

    /// "%<width>d"
    bool number(int width, int& result)
    {
        skip_white_space();
        const bool is_negative = bytes_.peek() == u'-';
        if (is_negative || bytes_.peek() == u'+') {
            bytes_.take();
            --width;
        }
        if (!is_digit(bytes_.peek()))
            return false;
        result = 0;
        for (; width > 0 && is_digit(bytes_.peek()); --width)
            result = result * 10 + (bytes_.take() - u'0');
        result = is_negative ? -result : result;
        return true;
    }

    bool number(int width, std::int64_t& result)
    {
        int narrow = 0;
        const bool found = number(width, narrow);
        result = narrow;
        return found;
    }

    /// "%3s"; of a shorter word, the rest of `letters` is zero.
    bool word(char16_t (&letters)[3])
    {
        skip_white_space();
        for (char16_t& letter : letters)
            letter = is_white_space(bytes_.peek()) ? u'\0' : bytes_.take();
        return letters[0] != 0;
    }

    bool literal(char16_t ascii) { return bytes_.take() == ascii; }

private:
    /// As in the "C" locale, whatever the program's is.
    static bool is_white_space(char16_t byte)
    {
        return byte == u' ' || (byte >= u'\t' && byte <= u'\r');
    }

    void skip_white_space()
    {
        while (is_white_space(bytes_.peek()))
            bytes_.take();
    }

    utf8_bytes_t bytes_;
};

/// "%2d:%2d:%2d"
bool scan_time_of_day(scanner_t& in, fields_t& f)
{
    return in.number(2, f.hour) && in.literal(u':') && in.number(2, f.minute) && in.literal(u':') &&
           in.number(2, f.second);
}

/// "%4d-%2d-%2dT%2d:%2d:%2dZ". Deliberate: nobody counts on what follows the last conversion, so
/// the "Z" may be missing.
bool scan_iso8601(scanner_t in, fields_t& f)
{
    return in.number(4, f.year) && in.literal(u'-') && in.number(2, f.month) && in.literal(u'-') &&
           in.number(2, f.day) && in.literal(u'T') && scan_time_of_day(in, f);
}

/// "%3s, %2d %3s %4d %2d:%2d:%2d GMT". Deliberate: the name of the day is not looked at.
bool scan_rfc1123(scanner_t in, fields_t& f)
{
    char16_t day_name[3];
    char16_t month_name[3];
    if (!in.word(day_name) || !in.literal(u',') || !in.number(2, f.day) || !in.word(month_name))
        return false;
    f.month = month_named(month_name);
    return f.month != 0 && in.number(4, f.year) && scan_time_of_day(in, f);
}

/// @return  the fourth byte; U+0000 when there are fewer
char16_t fourth_byte(utf8_bytes_t bytes)
{
    for (int i = 0; i < 3; ++i)
        bytes.take();
    return bytes.peek();
}

bool scan(std::u16string_view text, fields_t& f)
{
    const utf8_bytes_t bytes(text);
    return fourth_byte(bytes) == u',' ? scan_rfc1123(scanner_t(bytes), f)
                                      : scan_iso8601(scanner_t(bytes), f);
}

/// Converted to UTF-8, a text with an unpaired surrogate is empty.
bool is_convertible(std::u16string_view text)
{
    return utf8_size_of(text).has_value();
}

std::int64_t scanned(std::u16string_view text)
{
    fields_t f;
    return scan(text, f) && is_convertible(text) ? seconds_of(f) : 0;
}

// ---- Writing a year of four digits, which is what nearly all times have ----

// A form's shape is copied and its places are filled, where the text is to live. Unit by unit, as
// below, it takes twice as long.

template <std::size_t count>
using units_t = std::array<char16_t, count>;

constexpr auto DIGIT_PAIRS = [] {
    std::array<units_t<2>, 100> pairs{};
    for (std::size_t i = 0; i < pairs.size(); ++i)
        pairs[i] = {static_cast<char16_t>(u'0' + i / 10), static_cast<char16_t>(u'0' + i % 10)};
    return pairs;
}();

/// "Sun," to "Sat,", and "Jan " to "Dec ".
template <std::size_t count>
constexpr auto names_before(char16_t mark, const char* const (&names)[count])
{
    std::array<units_t<4>, count> result{};
    for (std::size_t i = 0; i < count; ++i) {
        std::copy_n(names[i], 3, result[i].begin());
        result[i][3] = mark;
    }
    return result;
}

constexpr auto DAYS_BEFORE_COMMA = names_before(u',', DavTime::DAYNAMES);
constexpr auto MONTHS_BEFORE_BLANK = names_before(u' ', DavTime::MONTHNAMES);

template <std::size_t count>
void put(char16_t* at, const units_t<count>& units)
{
    std::memcpy(at, units.data(), sizeof units);
}

/// @param number  0..99
void put_two_digits(char16_t* at, int number)
{
    put(at, DIGIT_PAIRS[static_cast<std::size_t>(number)]);
}

/// @param number  0..9999
void put_four_digits(char16_t* at, int number)
{
    put_two_digits(at, number / 100);
    put_two_digits(at + 2, number % 100);
}

void put_time_of_day(char16_t* at, const fields_t& f)
{
    put_two_digits(at, f.hour);
    put_two_digits(at + 3, f.minute);
    put_two_digits(at + 6, f.second);
}

bool has_four_digits(std::int64_t year)
{
    return year >= 1000 && year <= 9999;
}

/// @tparam shape  of the text
/// @param fill_places  (char16_t* text)
template <const std::u16string_view& shape, class Fill>
UString filled(Fill fill_places)
{
    return owned_text_t::make(shape.size(), [fill_places](char16_t* text) {
        std::memcpy(text, shape.data(), shape.size() * sizeof(char16_t));
        fill_places(text);
    });
}

UString filled_iso8601(const fields_t& f)
{
    return filled<ISO8601_SHAPE>([&f](char16_t* text) {
        put_four_digits(text, static_cast<int>(f.year));
        put_two_digits(text + 5, f.month);
        put_two_digits(text + 8, f.day);
        put_time_of_day(text + 11, f);
    });
}

UString filled_rfc1123(const fields_t& f)
{
    return filled<RFC1123_SHAPE>([&f](char16_t* text) {
        put(text, DAYS_BEFORE_COMMA[static_cast<std::size_t>(f.weekday)]);
        put_two_digits(text + 5, f.day);
        put(text + 8, MONTHS_BEFORE_BLANK[static_cast<std::size_t>(f.month - 1)]);
        put_four_digits(text + 12, static_cast<int>(f.year));
        put_time_of_day(text + 17, f);
    });
}

// ---- Writing any year ----

/// A text under construction. The longest has a year of eleven characters instead of four.
class text_t {
public:
    text_t& character(char c)
    {
        *end_++ = static_cast<unsigned char>(c);
        return *this;
    }

    text_t& text(const char* ascii)
    {
        while (*ascii != '\0')
            character(*ascii++);
        return *this;
    }

    /// @param number  0..99
    text_t& two_digits(int number)
    {
        return character(digit(number / 10)).character(digit(number % 10));
    }

    /// @param least_width  of the number with its sign, zeros between the two
    text_t& number(std::int64_t number, int least_width)
    {
        char reversed[20];
        int size = 0;
        for (std::int64_t rest = number < 0 ? -number : number; rest != 0 || size == 0; rest /= 10)
            reversed[size++] = digit(static_cast<int>(rest % 10));
        if (number < 0) {
            character('-');
            --least_width;
        }
        for (; size < least_width; --least_width)
            character('0');
        while (size > 0)
            character(reversed[--size]);
        return *this;
    }

    text_t& time_of_day(const fields_t& f)
    {
        return two_digits(f.hour).character(':').two_digits(f.minute).character(':').two_digits(
            f.second);
    }

    UString finished() const { return owned_text_t::make({units_, end_}); }

private:
    static char digit(int number) { return static_cast<char>('0' + number); }

    char16_t units_[RFC1123_SHAPE.size() + 8];
    char16_t* end_ = units_;
};

/// "%Y-%m-%dT%H:%M:%SZ"
UString written_as_iso8601(const fields_t& f)
{
    text_t out;
    out.number(f.year, 1).character('-').two_digits(f.month).character('-').two_digits(f.day);
    return out.character('T').time_of_day(f).character('Z').finished();
}

/// "%s, %02d %s %04d %02d:%02d:%02d GMT"
UString written_as_rfc1123(const fields_t& f)
{
    text_t out;
    out.text(DavTime::DAYNAMES[f.weekday]).text(", ").two_digits(f.day).character(' ');
    out.text(DavTime::MONTHNAMES[f.month - 1]).character(' ').number(f.year, 4).character(' ');
    return out.time_of_day(f).text(" GMT").finished();
}

bool fits_tm_year(std::int64_t year)
{
    return year - 1900 >= INT_MIN && year - 1900 <= INT_MAX;
}

// ---- The time zone ----

long time_of_day(const std::tm& t)
{
    return t.tm_hour * HOUR_SECONDS + t.tm_min * MINUTE_SECONDS + t.tm_sec;
}

// Deliberate: the days of the week tell which of the two is ahead, by one day or not at all.
long offset_between(const std::tm& utc, const std::tm& local)
{
    const int days = (utc.tm_wday - local.tm_wday + 7) % 7;
    const long correction = days == 1 ? -DAY_SECONDS : days == 6 ? DAY_SECONDS : 0;
    return time_of_day(local) - time_of_day(utc) + correction;
}

}  // namespace

void DavTime::parse(const UString& text) noexcept
{
    const std::u16string_view units = view_of(text);
    if (has_shape<ISO8601_SHAPE>(units))
        seconds_ = seconds_of(read_iso8601(units.data()));
    else if (has_shape<RFC1123_SHAPE>(units))
        seconds_ = seconds_if_month_is_known(read_rfc1123(units.data()));
    else
        seconds_ = scanned(units);
}

UString DavTime::to_string(Format f) const
{
    const fields_t fields = broken_down(seconds_);
    if (!fits_tm_year(fields.year))
        return {};
    switch (f) {
    case ISO8601:
        return has_four_digits(fields.year) ? filled_iso8601(fields) : written_as_iso8601(fields);
    case RFC1123:
        return has_four_digits(fields.year) ? filled_rfc1123(fields) : written_as_rfc1123(fields);
    default:
        return {};
    }
}

long DavTime::get_tz_offset(long t)
{
    const std::time_t instant = t;
    std::tm utc{};
    std::tm local{};
    const CriticalSection section(DavTimeImpl::clib_lock);
    // localtime_r() alone need not notice that TZ has changed. The forms that write into the
    // caller's record leave the shared one alone, which a host program may be reading.
    tzset();
    if (gmtime_r(&instant, &utc) == nullptr || localtime_r(&instant, &local) == nullptr)
        return 0;
    return offset_between(utc, local);
}

}  // namespace Kvl
