// Times in the two forms of the DAV protocol, read and written, against what a caller would use
// instead: APR's HTTP dates and glib's ISO 8601, where their packages are installed, and the C
// library. The peers' texts are bytes; ours are 16-bit units.

#include <kvutil/davtime.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

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

void set_zone(const char* name)
{
    setenv("TZ", name, 1);
    tzset();
}

// ---- Reading ----

void parse_kvutil(benchmark::State& state, const char16_t* text, std::time_t expected)
{
    set_zone("America/St_Johns");
    const UString stamp(text);
    DavTime time;
    time.parse(stamp);
    if (time.value() != expected)
        state.SkipWithError("not the same instant");
    for (auto _ : state) {
        time.parse(stamp);
        benchmark::DoNotOptimize(time);
    }
}
BENCHMARK_CAPTURE(parse_kvutil, rfc1123, u"Sun, 06 Nov 1994 08:49:37 GMT", INSTANT);
BENCHMARK_CAPTURE(parse_kvutil, iso8601, u"1994-11-06T08:49:37Z", INSTANT);
BENCHMARK_CAPTURE(parse_kvutil, rfc1123_lenient, u"Sun, 6 Nov 1994 8:49:37", INSTANT);
BENCHMARK_CAPTURE(parse_kvutil, iso8601_lenient, u"1994-11-6T8:49:37", INSTANT);
BENCHMARK_CAPTURE(parse_kvutil, refused, u"Sun, 06 nov 1994 08:49:37 GMT", 0);

// The straightforward way, which goes through the time zone.
void parse_libc(benchmark::State& state, const char* text, const char* format)
{
    for (auto _ : state) {
        std::tm t{};
        if (strptime(text, format, &t) == nullptr || timegm(&t) != INSTANT)
            state.SkipWithError("not the same instant");
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK_CAPTURE(parse_libc, rfc1123, RFC1123, "%a, %d %b %Y %H:%M:%S GMT");
BENCHMARK_CAPTURE(parse_libc, iso8601, ISO8601, "%Y-%m-%dT%H:%M:%SZ");

#ifdef KVUTIL_BENCH_APR
void parse_apr_rfc1123(benchmark::State& state)
{
    if (apr_time_sec(apr_date_parse_http(RFC1123)) != INSTANT)
        state.SkipWithError("not the same instant");
    for (auto _ : state)
        benchmark::DoNotOptimize(apr_date_parse_http(RFC1123));
}
BENCHMARK(parse_apr_rfc1123);
#endif

#ifdef KVUTIL_BENCH_GLIB
// glib would rather have callers use the slower one below.
G_GNUC_BEGIN_IGNORE_DEPRECATIONS
void parse_glib_iso8601(benchmark::State& state)
{
    GTimeVal time{};
    if (!g_time_val_from_iso8601(ISO8601, &time) || time.tv_sec != INSTANT)
        state.SkipWithError("not the same instant");
    for (auto _ : state)
        benchmark::DoNotOptimize(g_time_val_from_iso8601(ISO8601, &time));
}
G_GNUC_END_IGNORE_DEPRECATIONS
BENCHMARK(parse_glib_iso8601);

void parse_glib_date_time_iso8601(benchmark::State& state)
{
    for (auto _ : state) {
        GDateTime* const time = g_date_time_new_from_iso8601(ISO8601, nullptr);
        benchmark::DoNotOptimize(time);
        g_date_time_unref(time);
    }
}
BENCHMARK(parse_glib_date_time_iso8601);
#endif

// ---- Writing ----

void format_kvutil(benchmark::State& state, DavTime::Format form, const char* expected)
{
    const DavTime time(INSTANT);
    if (time.to_string(form).utf8_str() != expected)
        state.SkipWithError("not the same text");
    for (auto _ : state)
        benchmark::DoNotOptimize(time.to_string(form));
}
BENCHMARK_CAPTURE(format_kvutil, rfc1123, DavTime::RFC1123, RFC1123);
BENCHMARK_CAPTURE(format_kvutil, iso8601, DavTime::ISO8601, ISO8601);

void format_libc(benchmark::State& state, const char* format, std::string_view expected)
{
    char text[30];
    for (auto _ : state) {
        std::tm t{};
        std::size_t size = std::strftime(text, sizeof text, format, gmtime_r(&INSTANT, &t));
        benchmark::DoNotOptimize(size);
        benchmark::ClobberMemory();
    }
    if (text != expected)
        state.SkipWithError("not the same text");
}
BENCHMARK_CAPTURE(format_libc, rfc1123, "%a, %d %b %Y %H:%M:%S GMT", RFC1123);
BENCHMARK_CAPTURE(format_libc, iso8601, "%Y-%m-%dT%H:%M:%SZ", ISO8601);

#ifdef KVUTIL_BENCH_APR
void format_apr_rfc1123(benchmark::State& state)
{
    char text[APR_RFC822_DATE_LEN];
    for (auto _ : state) {
        benchmark::DoNotOptimize(apr_rfc822_date(text, apr_time_from_sec(INSTANT)));
        benchmark::ClobberMemory();
    }
    if (text != std::string_view(RFC1123))
        state.SkipWithError("not the same text");
}
BENCHMARK(format_apr_rfc1123);
#endif

#ifdef KVUTIL_BENCH_GLIB
void format_glib_iso8601(benchmark::State& state)
{
    GDateTime* const time = g_date_time_new_from_unix_utc(INSTANT);
    for (auto _ : state) {
        gchar* const text = g_date_time_format_iso8601(time);
        benchmark::DoNotOptimize(text);
        g_free(text);
    }
    g_date_time_unref(time);
}
BENCHMARK(format_glib_iso8601);
#endif

// ---- The zone ----

void offset_kvutil(benchmark::State& state)
{
    set_zone("America/St_Johns");
    for (auto _ : state)
        benchmark::DoNotOptimize(DavTime::get_tz_offset(INSTANT));
}
BENCHMARK(offset_kvutil);

void offset_localtime(benchmark::State& state)
{
    set_zone("America/St_Johns");
    for (auto _ : state) {
        std::tm t{};
        benchmark::DoNotOptimize(localtime_r(&INSTANT, &t)->tm_gmtoff);
    }
}
BENCHMARK(offset_localtime);

}  // namespace
