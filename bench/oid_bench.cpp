// Identifiers as text and as keys against what a caller would use instead: Qt, Poco and libuuid
// where their packages are installed, fmt, and the C library's printf and scanf.

#include <kvutil/oid.h>

#include "rejection.h"

#include <fmt/compile.h>
#include <fmt/format.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <string>
#include <tuple>

#ifdef KVUTIL_BENCH_LIBUUID
#include <uuid.h>
#endif
#ifdef KVUTIL_BENCH_POCO
#include <Poco/UUID.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QString>
#include <QUuid>
#endif

namespace {

using Kvl::Oid;
using Kvl::UString;
using Kvl::Uuid;

const tbs_uuid_s SAMPLE = {0x01234567, 0x89AB, 0xCDEF,
                           0xFE,       0xDC,   {0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
const std::string DOTTED = "01234567.89abcdef.fedc.ba:98:76:54:32:10";
const std::string HYPHENATED = "01234567-89ab-cdef-fedc-ba9876543210";
const std::string COMPACT = "0123456789abcdeffedcba9876543210";

// ---- Text out ----

constexpr bool IN_COMPACT = true;
constexpr bool IN_DOTTED = false;

void write_kvutil(benchmark::State& state, bool compact, const std::string& expected)
{
    const Uuid uuid(SAMPLE);
    require_agreement(state, uuid.std_str(compact) == expected);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.std_str(compact));
}

void write_ustring_kvutil(benchmark::State& state, bool compact, const std::string& expected)
{
    const Uuid uuid(SAMPLE);
    require_agreement(state, uuid.str(compact).utf8_str() == expected);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.str(compact));
}

/// What a text of that length costs.
void write_floor(benchmark::State& state, const std::string& text)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::string(text));
}

void write_ustring_floor(benchmark::State& state, const std::string& text)
{
    const std::u16string units(text.begin(), text.end());
    for (auto _ : state)
        benchmark::DoNotOptimize(UString(units));
}

/// @param format  makes the text of an identifier
template <class Format, class Uuid>
void time_format(benchmark::State& state, const Uuid& uuid, const std::string& expected,
                 Format format)
{
    require_agreement(state, format(uuid) == expected);
    for (auto _ : state)
        benchmark::DoNotOptimize(format(uuid));
}

constexpr int DOTTED_ROOM = 41;

void print_dotted(const tbs_uuid_s& s, char (&text)[DOTTED_ROOM])
{
    std::snprintf(text, sizeof text, "%08x.%04hx%04hx.%02x%02x.%02x:%02x:%02x:%02x:%02x:%02x",
                  s.time_low, s.time_mid, s.time_hi_and_version, s.clock_seq_hi_and_reserved,
                  s.clock_seq_low, s.node[0], s.node[1], s.node[2], s.node[3], s.node[4],
                  s.node[5]);
}

std::string dotted_by_printf(const tbs_uuid_s& s)
{
    char text[DOTTED_ROOM];
    print_dotted(s, text);
    return text;
}

icu::UnicodeString dotted_by_printf_for_icu(const tbs_uuid_s& s)
{
    char text[DOTTED_ROOM];
    print_dotted(s, text);
    return icu::UnicodeString(text, DOTTED_ROOM - 1, US_INV);
}

std::string dotted_by_fmt(const tbs_uuid_s& s)
{
    return fmt::format(FMT_STRING("{:08x}.{:04x}{:04x}.{:02x}{:02x}.{:02x}:{:02x}:{:02x}:{:02x}:"
                                  "{:02x}:{:02x}"),
                       s.time_low, s.time_mid, s.time_hi_and_version, s.clock_seq_hi_and_reserved,
                       s.clock_seq_low, s.node[0], s.node[1], s.node[2], s.node[3], s.node[4],
                       s.node[5]);
}

std::string dotted_by_compiled_fmt(const tbs_uuid_s& s)
{
    return fmt::format(FMT_COMPILE("{:08x}.{:04x}{:04x}.{:02x}{:02x}.{:02x}:{:02x}:{:02x}:{:02x}:"
                                   "{:02x}:{:02x}"),
                       s.time_low, s.time_mid, s.time_hi_and_version, s.clock_seq_hi_and_reserved,
                       s.clock_seq_low, s.node[0], s.node[1], s.node[2], s.node[3], s.node[4],
                       s.node[5]);
}

void write_dotted_printf(benchmark::State& state)
{
    time_format(state, SAMPLE, DOTTED, dotted_by_printf);
}

void write_dotted_ustring_printf(benchmark::State& state)
{
    require_agreement(state, dotted_by_printf_for_icu(SAMPLE) == UString(Kvl::Utf8String(DOTTED)));
    for (auto _ : state)
        benchmark::DoNotOptimize(dotted_by_printf_for_icu(SAMPLE));
}

void write_dotted_fmt(benchmark::State& state)
{
    time_format(state, SAMPLE, DOTTED, dotted_by_fmt);
}

void write_dotted_compiled_fmt(benchmark::State& state)
{
    time_format(state, SAMPLE, DOTTED, dotted_by_compiled_fmt);
}

#ifdef KVUTIL_BENCH_POCO
void write_poco(benchmark::State& state)
{
    time_format(state, Poco::UUID(HYPHENATED), HYPHENATED,
                [](const Poco::UUID& uuid) { return uuid.toString(); });
}
#endif
#ifdef KVUTIL_BENCH_LIBUUID
struct libuuid_t {
    uuid_t bytes;
};

void write_libuuid(benchmark::State& state)
{
    libuuid_t uuid;
    require_agreement(state, uuid_parse(HYPHENATED.c_str(), uuid.bytes) == 0);
    time_format(state, uuid, HYPHENATED, [](const libuuid_t& id) {
        char text[UUID_STR_LEN];
        uuid_unparse_lower(id.bytes, text);
        return std::string(text, sizeof text - 1);
    });
}
#endif
#ifdef KVUTIL_BENCH_QT
void write_qt(benchmark::State& state)
{
    const QUuid uuid(QByteArray::fromStdString(HYPHENATED));
    require_agreement(state, uuid.toByteArray(QUuid::Id128).toStdString() == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.toByteArray(QUuid::Id128));
}

void write_qstring_qt(benchmark::State& state)
{
    const QUuid uuid(QByteArray::fromStdString(HYPHENATED));
    require_agreement(state, uuid.toString(QUuid::Id128).toStdString() == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.toString(QUuid::Id128));
}
#endif

// Poco and libuuid know the hyphenated form alone, which is four characters longer.
#define OUT_OF "UUID text out: "
BENCHMARK_CAPTURE(write_kvutil, , IN_COMPACT, COMPACT)->Name(OUT_OF "compact/kvutil");
BENCHMARK_CAPTURE(write_kvutil, , IN_DOTTED, DOTTED)->Name(OUT_OF "dotted/kvutil");
BENCHMARK_CAPTURE(write_floor, , COMPACT)->Name(OUT_OF "compact/floor");
BENCHMARK_CAPTURE(write_floor, , DOTTED)->Name(OUT_OF "dotted/floor");
BENCHMARK_CAPTURE(write_ustring_kvutil, , IN_COMPACT, COMPACT)
    ->Name(OUT_OF "compact, UTF-16/kvutil");
BENCHMARK_CAPTURE(write_ustring_kvutil, , IN_DOTTED, DOTTED)->Name(OUT_OF "dotted, UTF-16/kvutil");
BENCHMARK_CAPTURE(write_ustring_floor, , COMPACT)->Name(OUT_OF "compact, UTF-16/floor");
BENCHMARK_CAPTURE(write_ustring_floor, , DOTTED)->Name(OUT_OF "dotted, UTF-16/floor");
BENCHMARK(write_dotted_printf)->Name(OUT_OF "dotted/printf");
BENCHMARK(write_dotted_ustring_printf)->Name(OUT_OF "dotted, UTF-16/printf and ICU");
BENCHMARK(write_dotted_fmt)->Name(OUT_OF "dotted/fmt");
BENCHMARK(write_dotted_compiled_fmt)->Name(OUT_OF "dotted/fmt, format compiled");
#ifdef KVUTIL_BENCH_POCO
BENCHMARK(write_poco)->Name(OUT_OF "compact/Poco, hyphenated");
#endif
#ifdef KVUTIL_BENCH_LIBUUID
BENCHMARK(write_libuuid)->Name(OUT_OF "compact/libuuid, hyphenated");
#endif
#ifdef KVUTIL_BENCH_QT
BENCHMARK(write_qt)->Name(OUT_OF "compact/Qt");
BENCHMARK(write_qstring_qt)->Name(OUT_OF "compact, UTF-16/Qt");
#endif

// ---- Text in ----

void read_kvutil(benchmark::State& state, const std::string& text)
{
    require_agreement(state, Uuid::from_string(text) == Uuid(SAMPLE));
    for (auto _ : state)
        benchmark::DoNotOptimize(Uuid::from_string(text));
}

void read_ustring_kvutil(benchmark::State& state, const std::string& text)
{
    const UString units{Kvl::Utf8String(text)};
    require_agreement(state, Oid::from_string(units) == Oid(SAMPLE));
    for (auto _ : state)
        benchmark::DoNotOptimize(Oid::from_string(units));
}

/// @param read  (text, result): whether the text has the form
template <class Result, class Read>
void time_reading(benchmark::State& state, const std::string& text, Read read)
{
    Result result{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(read(text, result));
        benchmark::DoNotOptimize(result);
    }
}

bool read_by_scanf(const std::string& text, tbs_uuid_s& s)
{
    unsigned short v[8] = {};
    const int count =
        std::sscanf(text.c_str(), "%08x.%04hx%04hx.%02hx%02hx.%02hx:%02hx:%02hx:%02hx:%02hx:%02hx",
                    &s.time_low, &s.time_mid, &s.time_hi_and_version, &v[0], &v[1], &v[2], &v[3],
                    &v[4], &v[5], &v[6], &v[7]);
    s.clock_seq_hi_and_reserved = static_cast<unsigned char>(v[0]);
    s.clock_seq_low = static_cast<unsigned char>(v[1]);
    for (int i = 0; i < 6; ++i)
        s.node[i] = static_cast<unsigned char>(v[i + 2]);
    return count == 11;
}

void read_scanf(benchmark::State& state, const std::string& text)
{
    tbs_uuid_s s;
    require_agreement(state, read_by_scanf(text, s) && Uuid(s) == Uuid(SAMPLE));
    time_reading<tbs_uuid_s>(state, text, read_by_scanf);
}

#ifdef KVUTIL_BENCH_POCO
bool read_by_poco(const std::string& text, Poco::UUID& uuid)
{
    return uuid.tryParse(text);
}

void read_poco(benchmark::State& state, const std::string& text)
{
    Poco::UUID uuid;
    require_agreement(state, read_by_poco(text, uuid) && uuid.toString() == HYPHENATED);
    time_reading<Poco::UUID>(state, text, read_by_poco);
}
#endif
#ifdef KVUTIL_BENCH_LIBUUID
bool read_by_libuuid(const std::string& text, libuuid_t& uuid)
{
    return uuid_parse(text.c_str(), uuid.bytes) == 0;
}

void read_libuuid(benchmark::State& state)
{
    libuuid_t uuid;
    require_agreement(state, read_by_libuuid(HYPHENATED, uuid) && uuid.bytes[0] == 0x01 &&
                                 uuid.bytes[15] == 0x10);
    time_reading<libuuid_t>(state, HYPHENATED, read_by_libuuid);
}
#endif
#ifdef KVUTIL_BENCH_QT
void read_qt(benchmark::State& state)
{
    const QByteArray text = QByteArray::fromStdString(HYPHENATED);
    require_agreement(state, QUuid(text).toByteArray(QUuid::Id128).toStdString() == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(QUuid(text));
}

void read_qstring_qt(benchmark::State& state)
{
    const QString text = QString::fromStdString(HYPHENATED);
    require_agreement(state, QUuid(text).toByteArray(QUuid::Id128).toStdString() == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(QUuid(text));
}
#endif

#define IN_OF "UUID text in: "
BENCHMARK_CAPTURE(read_kvutil, , COMPACT)->Name(IN_OF "compact/kvutil");
BENCHMARK_CAPTURE(read_kvutil, , DOTTED)->Name(IN_OF "dotted/kvutil");
BENCHMARK_CAPTURE(read_kvutil, , HYPHENATED)->Name(IN_OF "hyphenated/kvutil");
BENCHMARK_CAPTURE(read_ustring_kvutil, , HYPHENATED)->Name(IN_OF "hyphenated, UTF-16/kvutil");
// Not as we write it, so read by the rules one by one.
BENCHMARK_CAPTURE(read_kvutil, , " " + DOTTED)->Name(IN_OF "dotted, behind a blank/kvutil");
BENCHMARK_CAPTURE(read_scanf, , DOTTED)->Name(IN_OF "dotted/scanf");
BENCHMARK_CAPTURE(read_scanf, , " " + DOTTED)->Name(IN_OF "dotted, behind a blank/scanf");
#ifdef KVUTIL_BENCH_POCO
BENCHMARK_CAPTURE(read_poco, , COMPACT)->Name(IN_OF "compact/Poco");
BENCHMARK_CAPTURE(read_poco, , HYPHENATED)->Name(IN_OF "hyphenated/Poco");
#endif
#ifdef KVUTIL_BENCH_LIBUUID
BENCHMARK(read_libuuid)->Name(IN_OF "hyphenated/libuuid");
#endif
#ifdef KVUTIL_BENCH_QT
BENCHMARK(read_qt)->Name(IN_OF "hyphenated/Qt");
BENCHMARK(read_qstring_qt)->Name(IN_OF "hyphenated, UTF-16/Qt");
#endif

// ---- Rejected ----

const std::string BAD_TEXT = "01234567.89abcdef.fedc.ba:98:76:54:32:xy";
const std::string MESSAGE =
    "PLXSV0657E Invalid Oid/Uuid format for arg: '" + BAD_TEXT + "' with value: '" + BAD_TEXT + "'";

void reject_kvutil(benchmark::State& state)
{
    time_rejection<Kvl::IllegalArgException>(
        state, [] { benchmark::DoNotOptimize(Uuid::from_string(BAD_TEXT)); }, MESSAGE);
}
BENCHMARK(reject_kvutil)->Name("rejected input: UUID text/kvutil");

void reject_std(benchmark::State& state)
{
    time_throw(state, MESSAGE);
}
BENCHMARK(reject_std)->Name("rejected input: UUID text/throw of runtime_error");

// ---- Keys ----

/// What an ordered or a hashed container asks of its keys.
template <class Key, class Hash>
void time_key(benchmark::State& state, Key one, Key other, Hash hash)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(one);
        benchmark::DoNotOptimize(other);
        benchmark::DoNotOptimize(one < other);
        benchmark::DoNotOptimize(one == other);
        benchmark::DoNotOptimize(hash(one));
    }
}

#define KEY "further, identifiers and dates: identifier compared and hashed/"

void key_kvutil(benchmark::State& state)
{
    time_key(state, Oid::from_string(COMPACT), Oid::gen(), std::hash<Oid>());
}
BENCHMARK(key_kvutil)->Name(KEY "kvutil");

/// The same four words, as C++ compares them by itself.
void key_floor(benchmark::State& state)
{
    using words_t = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>;
    time_key(state, words_t(1, 2, 3, 4), words_t(5, 6, 7, 8), [](const words_t& w) {
        return std::get<0>(w) ^ std::get<1>(w) ^ std::get<2>(w) ^ std::get<3>(w);
    });
}
BENCHMARK(key_floor)->Name(KEY "floor");

#ifdef KVUTIL_BENCH_QT
void key_qt(benchmark::State& state)
{
    time_key(state, QUuid(QByteArray::fromStdString(HYPHENATED)), QUuid::createUuid(),
             [](const QUuid& uuid) { return qHash(uuid); });
}
BENCHMARK(key_qt)->Name(KEY "Qt");
#endif

}  // namespace
