// Times in the two forms of the DAV protocol, read and written, against what a caller would use
// instead: APR's HTTP dates and glib's ISO 8601, where their packages are installed, and the C
// library. The peers' texts are bytes; ours are 16-bit units.

#include <kvutil/davtime.h>

#include "contest.h"

#include <unicode/unistr.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>

#ifdef KVUTIL_BENCH_APR
#include <apr_date.h>
#include <apr_time.h>
#endif
#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif

namespace {

using Kvl::DavTime;
using Kvl::UString;

constexpr std::time_t INSTANT = 784111777;
constexpr char RFC1123[] = "Sun, 06 Nov 1994 08:49:37 GMT";
constexpr char ISO8601[] = "1994-11-06T08:49:37Z";
constexpr char RFC1123_FORMAT[] = "%a, %d %b %Y %H:%M:%S GMT";
constexpr char ISO8601_FORMAT[] = "%Y-%m-%dT%H:%M:%SZ";

// One that is no whole number of hours away.
void leave_utc()
{
    setenv("TZ", "America/St_Johns", 1);
    tzset();
}

// ---- Reading ----

/// @param parse  makes seconds of a text
template <class Text, class Parse>
void time_parsing(benchmark::State& state, const Text& text, std::time_t expected, Parse parse)
{
    leave_utc();
    require_agreement(state, parse(text) == expected);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(parse(text));
    }
}

void parse_kvutil(benchmark::State& state, const char* text, std::time_t expected)
{
    time_parsing(state, UString(Kvl::Utf8String(text)), expected, [](const UString& stamp) {
        DavTime time;
        time.parse(stamp);
        return time.value();
    });
}

/// Where the fields of a form stand. A month's name is known without looking.
struct places_t {
    unsigned int year;
    unsigned int month;
    unsigned int day;
    unsigned int time_of_day;
};
constexpr unsigned int NOT_LOOKED_AT = 99;
constexpr places_t RFC1123_PLACES = {12, NOT_LOOKED_AT, 5, 17};
constexpr places_t ISO8601_PLACES = {0, 5, 8, 11};

/// Digits at their places in a text that nobody checks.
template <const places_t& at>
void parse_floor(benchmark::State& state, const char* text)
{
    const std::string stamp(text);
    const std::u16string wide(stamp.begin(), stamp.end());
    time_parsing(state, wide, INSTANT, [](const std::u16string& units) {
        const auto two = [&units](unsigned int place) {
            return (units[place] - u'0') * 10 + units[place + 1] - u'0';
        };
        const std::chrono::year year(two(at.year) * 100 + two(at.year + 2));
        const int month = at.month == NOT_LOOKED_AT ? 11 : two(at.month);
        const std::chrono::sys_days date = year / month / two(at.day);
        return std::chrono::sys_seconds(date).time_since_epoch().count() +
               two(at.time_of_day) * 3600 + two(at.time_of_day + 3) * 60 + two(at.time_of_day + 6);
    });
}

void parse_rfc1123_floor(benchmark::State& state)
{
    parse_floor<RFC1123_PLACES>(state, RFC1123);
}

void parse_iso8601_floor(benchmark::State& state)
{
    parse_floor<ISO8601_PLACES>(state, ISO8601);
}

// The straightforward way, in UTC.
void parse_libc(benchmark::State& state, const char* text, const char* format, std::time_t expected)
{
    time_parsing(state, std::string(text), expected, [format](const std::string& stamp) {
        std::tm t{};
        return strptime(stamp.c_str(), format, &t) == nullptr ? 0 : timegm(&t);
    });
}

#ifdef KVUTIL_BENCH_APR
std::time_t parsed_by_apr(const std::string& stamp)
{
    return static_cast<std::time_t>(apr_time_sec(apr_date_parse_http(stamp.c_str())));
}

void parse_apr(benchmark::State& state, const char* text, std::time_t expected)
{
    time_parsing(state, std::string(text), expected, parsed_by_apr);
}
#endif

#ifdef KVUTIL_BENCH_GLIB
// glib would rather have callers use the slower one below.
G_GNUC_BEGIN_IGNORE_DEPRECATIONS
std::time_t parsed_by_glib(const std::string& stamp)
{
    GTimeVal time{};
    return g_time_val_from_iso8601(stamp.c_str(), &time) ? time.tv_sec : 0;
}
G_GNUC_END_IGNORE_DEPRECATIONS

std::time_t parsed_by_glib_date_time(const std::string& stamp)
{
    GDateTime* const time = g_date_time_new_from_iso8601(stamp.c_str(), nullptr);
    if (time == nullptr)
        return 0;
    const std::time_t seconds = g_date_time_to_unix(time);
    g_date_time_unref(time);
    return seconds;
}

void parse_glib(benchmark::State& state, const char* text, std::time_t expected)
{
    time_parsing(state, std::string(text), expected, parsed_by_glib);
}

void parse_glib_date_time(benchmark::State& state, const char* text, std::time_t expected)
{
    time_parsing(state, std::string(text), expected, parsed_by_glib_date_time);
}
#endif

#define PARSE "date parse: "
#define LENIENT "further, identifiers and dates: date parse, "
#define REJECTED "rejected input: "
constexpr char RFC1123_SHORT[] = "Sun, 6 Nov 1994 8:49:37 GMT";
constexpr char ISO8601_SHORT[] = "1994-11-6T8:49:37Z";
constexpr char RFC1123_BAD[] = "Sun, 06 nov 1994 08:49:37 GMT";
constexpr char ISO8601_BAD[] = "1994-11-06 08:49:37Z";

BENCHMARK_CAPTURE(parse_kvutil, , RFC1123, INSTANT)->Name(PARSE "RFC 1123/kvutil");
BENCHMARK_CAPTURE(parse_kvutil, , ISO8601, INSTANT)->Name(PARSE "ISO 8601/kvutil");
BENCHMARK(parse_rfc1123_floor)->Name(PARSE "RFC 1123/floor");
BENCHMARK(parse_iso8601_floor)->Name(PARSE "ISO 8601/floor");
BENCHMARK_CAPTURE(parse_libc, , RFC1123, RFC1123_FORMAT, INSTANT)->Name(PARSE "RFC 1123/strptime");
BENCHMARK_CAPTURE(parse_libc, , ISO8601, ISO8601_FORMAT, INSTANT)->Name(PARSE "ISO 8601/strptime");
BENCHMARK_CAPTURE(parse_kvutil, , RFC1123_SHORT, INSTANT)
    ->Name(LENIENT "RFC 1123, fields short/kvutil");
BENCHMARK_CAPTURE(parse_libc, , RFC1123_SHORT, RFC1123_FORMAT, INSTANT)
    ->Name(LENIENT "RFC 1123, fields short/strptime");
BENCHMARK_CAPTURE(parse_kvutil, , ISO8601_SHORT, INSTANT)
    ->Name(LENIENT "ISO 8601, fields short/kvutil");
BENCHMARK_CAPTURE(parse_libc, , ISO8601_SHORT, ISO8601_FORMAT, INSTANT)
    ->Name(LENIENT "ISO 8601, fields short/strptime");
// Nobody throws here: the result is 0.
BENCHMARK_CAPTURE(parse_kvutil, , RFC1123_BAD, 0)->Name(REJECTED "RFC 1123 date/kvutil");
BENCHMARK_CAPTURE(parse_kvutil, , ISO8601_BAD, 0)->Name(REJECTED "ISO 8601 date/kvutil");
BENCHMARK_CAPTURE(parse_libc, , ISO8601_BAD, ISO8601_FORMAT, 0)
    ->Name(REJECTED "ISO 8601 date/strptime");
#ifdef KVUTIL_BENCH_APR
BENCHMARK_CAPTURE(parse_apr, , RFC1123, INSTANT)->Name(PARSE "RFC 1123/APR");
BENCHMARK_CAPTURE(parse_apr, , RFC1123_BAD, 0)->Name(REJECTED "RFC 1123 date/APR");
#endif
#ifdef KVUTIL_BENCH_GLIB
BENCHMARK_CAPTURE(parse_glib, , ISO8601, INSTANT)->Name(PARSE "ISO 8601/glib GTimeVal");
BENCHMARK_CAPTURE(parse_glib, , ISO8601_BAD, 0)->Name(REJECTED "ISO 8601 date/glib GTimeVal");
BENCHMARK_CAPTURE(parse_glib_date_time, , ISO8601, INSTANT)->Name(PARSE "ISO 8601/glib GDateTime");
#endif

// ---- Writing ----

void format_kvutil(benchmark::State& state, DavTime::Format form, const char* expected)
{
    const DavTime time(INSTANT);
    require_agreement(state, time.to_string(form).utf8_str() == expected);
    for (auto _ : state)
        benchmark::DoNotOptimize(time.to_string(form));
}

/// What a text of that length costs.
void format_floor(benchmark::State& state, const char* text)
{
    const std::string stamp(text);
    const std::u16string units(stamp.begin(), stamp.end());
    for (auto _ : state)
        benchmark::DoNotOptimize(UString(units));
}

/// @param format  writes the text into an array of characters
template <class Format>
void time_formatting(benchmark::State& state, const char* expected, Format format)
{
    char text[32];
    format(text);
    require_agreement(state, std::string(text) == expected);
    for (auto _ : state) {
        format(text);
        benchmark::DoNotOptimize(text);
    }
}

/// The same with the text in UTF-16 and on its own, as ours is.
template <class Format>
void time_formatting_owned(benchmark::State& state, const char* expected, Format format)
{
    const auto make = [&format] {
        char text[32];
        format(text);
        return icu::UnicodeString(text, -1, US_INV);
    };
    require_agreement(state, make() == icu::UnicodeString(expected, -1, US_INV));
    for (auto _ : state)
        benchmark::DoNotOptimize(make());
}

void format_strftime(benchmark::State& state, const char* expected, const char* format)
{
    time_formatting(state, expected, [format](char(&text)[32]) {
        std::tm t{};
        std::strftime(text, sizeof text, format, gmtime_r(&INSTANT, &t));
    });
}

#ifdef KVUTIL_BENCH_APR
void write_by_apr(char (&text)[32])
{
    apr_rfc822_date(text, apr_time_from_sec(INSTANT));
}

void format_apr(benchmark::State& state)
{
    time_formatting(state, RFC1123, write_by_apr);
}

void format_apr_owned(benchmark::State& state)
{
    time_formatting_owned(state, RFC1123, write_by_apr);
}
#endif

#ifdef KVUTIL_BENCH_GLIB
void format_glib(benchmark::State& state)
{
    GDateTime* const time = g_date_time_new_from_unix_utc(INSTANT);
    for (auto _ : state) {
        gchar* const text = g_date_time_format_iso8601(time);
        benchmark::DoNotOptimize(text);
        g_free(text);
    }
    g_date_time_unref(time);
}
#endif

#define FORMAT "date format: "
BENCHMARK_CAPTURE(format_kvutil, , DavTime::RFC1123, RFC1123)->Name(FORMAT "RFC 1123/kvutil");
BENCHMARK_CAPTURE(format_kvutil, , DavTime::ISO8601, ISO8601)->Name(FORMAT "ISO 8601/kvutil");
BENCHMARK_CAPTURE(format_floor, , RFC1123)->Name(FORMAT "RFC 1123/floor");
BENCHMARK_CAPTURE(format_floor, , ISO8601)->Name(FORMAT "ISO 8601/floor");
// A peer's text lies in the caller's array. Who wants it in UTF-16, as we give it, pays for that
// too, but nobody has to want it: so the array counts.
BENCHMARK_CAPTURE(format_strftime, , RFC1123, RFC1123_FORMAT)->Name(FORMAT "RFC 1123/strftime");
BENCHMARK_CAPTURE(format_strftime, , ISO8601, ISO8601_FORMAT)->Name(FORMAT "ISO 8601/strftime");
#ifdef KVUTIL_BENCH_APR
BENCHMARK(format_apr)->Name(FORMAT "RFC 1123/APR");
BENCHMARK(format_apr_owned)->Name(FORMAT "RFC 1123/APR and ICU");
#endif
#ifdef KVUTIL_BENCH_GLIB
BENCHMARK(format_glib)->Name(FORMAT "ISO 8601/glib");
#endif

// ---- The zone ----

#define OFFSET "further, identifiers and dates: offset of the zone/"

void offset_kvutil(benchmark::State& state)
{
    leave_utc();
    for (auto _ : state)
        benchmark::DoNotOptimize(DavTime::get_tz_offset(INSTANT));
}
BENCHMARK(offset_kvutil)->Name(OFFSET "kvutil");

// As ours, it heeds a change of TZ.
void offset_localtime(benchmark::State& state)
{
    leave_utc();
    const auto offset = [] {
        std::tm t{};
        tzset();
        return localtime_r(&INSTANT, &t)->tm_gmtoff;
    };
    require_agreement(state, offset() == DavTime::get_tz_offset(INSTANT));
    for (auto _ : state)
        benchmark::DoNotOptimize(offset());
}
BENCHMARK(offset_localtime)->Name(OFFSET "localtime_r");

}  // namespace
