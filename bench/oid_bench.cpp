// Identifiers against what a caller would use instead: libuuid, Poco, APR and Qt where their
// packages are installed, and the C library's printf and scanf.

#include <kvutil/oid.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#ifdef KVUTIL_BENCH_LIBUUID
#include <uuid.h>
#endif
#ifdef KVUTIL_BENCH_POCO
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>
#endif
#ifdef KVUTIL_BENCH_APR
#include <apr_uuid.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QString>
#include <QUuid>
#endif

namespace {

using Kvl::Oid;
using Kvl::UString;
using Kvl::Uuid;

// ---- Generation ----

// More than 2.5 million a second are not to be had: the time of what goes beyond is waiting, not
// work, and is not counted.
constexpr benchmark::IterationCount WITHOUT_WAITING = 200'000;

void generate_kvutil(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(Uuid::gen());
}
BENCHMARK(generate_kvutil)->Iterations(WITHOUT_WAITING)->Repetitions(7)->ReportAggregatesOnly();
BENCHMARK(generate_kvutil)
    ->Name("generate_kvutil_2_threads")
    ->Iterations(WITHOUT_WAITING / 2)
    ->Threads(2)
    ->Repetitions(7)
    ->ReportAggregatesOnly();

#ifdef KVUTIL_BENCH_LIBUUID
void generate_libuuid(benchmark::State& state)
{
    uuid_t uuid;
    for (auto _ : state) {
        uuid_generate_time(uuid);
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(generate_libuuid);
#endif
#ifdef KVUTIL_BENCH_POCO
void generate_poco(benchmark::State& state)
{
    Poco::UUIDGenerator& generator = Poco::UUIDGenerator::defaultGenerator();
    for (auto _ : state)
        benchmark::DoNotOptimize(generator.create());
}
BENCHMARK(generate_poco);
#endif
#ifdef KVUTIL_BENCH_APR
void generate_apr(benchmark::State& state)
{
    apr_uuid_t uuid;
    for (auto _ : state) {
        apr_uuid_get(&uuid);
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(generate_apr);
#endif

// ---- Text out ----

const tbs_uuid_s SAMPLE = {0x01234567, 0x89AB, 0xCDEF,
                           0xFE,       0xDC,   {0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
const std::string DOTTED = "01234567.89abcdef.fedc.ba:98:76:54:32:10";
const std::string HYPHENATED = "01234567-89ab-cdef-fedc-ba9876543210";
const std::string COMPACT = "0123456789abcdeffedcba9876543210";

void require(benchmark::State& state, bool holds)
{
    if (!holds)
        state.SkipWithError("another result");
}

void compact_out_kvutil(benchmark::State& state)
{
    const Uuid uuid(SAMPLE);
    require(state, uuid.std_str(true) == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.std_str(true));
}
BENCHMARK(compact_out_kvutil);

void dotted_out_kvutil(benchmark::State& state)
{
    const Uuid uuid(SAMPLE);
    require(state, uuid.std_str(false) == DOTTED);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.std_str(false));
}
BENCHMARK(dotted_out_kvutil);

void dotted_out_as_ustring_kvutil(benchmark::State& state)
{
    const Uuid uuid(SAMPLE);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.str(false));
}
BENCHMARK(dotted_out_as_ustring_kvutil);

std::string dotted_by_printf(const tbs_uuid_s& s)
{
    char text[41];
    std::snprintf(text, sizeof text, "%08x.%04hx%04hx.%02x%02x.%02x:%02x:%02x:%02x:%02x:%02x",
                  s.time_low, s.time_mid, s.time_hi_and_version, s.clock_seq_hi_and_reserved,
                  s.clock_seq_low, s.node[0], s.node[1], s.node[2], s.node[3], s.node[4],
                  s.node[5]);
    return text;
}

void dotted_out_printf(benchmark::State& state)
{
    require(state, dotted_by_printf(SAMPLE) == DOTTED);
    for (auto _ : state)
        benchmark::DoNotOptimize(dotted_by_printf(SAMPLE));
}
BENCHMARK(dotted_out_printf);

#ifdef KVUTIL_BENCH_POCO
void hyphenated_out_poco(benchmark::State& state)
{
    const Poco::UUID uuid(HYPHENATED);
    require(state, uuid.toString() == HYPHENATED);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.toString());
}
BENCHMARK(hyphenated_out_poco);
#endif
#ifdef KVUTIL_BENCH_LIBUUID
void hyphenated_out_libuuid(benchmark::State& state)
{
    uuid_t uuid;
    require(state, uuid_parse(HYPHENATED.c_str(), uuid) == 0);
    for (auto _ : state) {
        char text[37];
        uuid_unparse_lower(uuid, text);
        benchmark::DoNotOptimize(std::string(text, 36));
    }
}
BENCHMARK(hyphenated_out_libuuid);
#endif
#ifdef KVUTIL_BENCH_QT
void compact_out_qt(benchmark::State& state)
{
    const QUuid uuid(QString::fromStdString("{" + HYPHENATED + "}"));
    require(state, uuid.toByteArray(QUuid::Id128).toStdString() == COMPACT);
    for (auto _ : state)
        benchmark::DoNotOptimize(uuid.toByteArray(QUuid::Id128));
}
BENCHMARK(compact_out_qt);
#endif

// ---- Text in ----

void read_kvutil(benchmark::State& state, const std::string& text)
{
    require(state, Uuid::from_string(text) == Uuid(SAMPLE));
    for (auto _ : state)
        benchmark::DoNotOptimize(Uuid::from_string(text));
}
BENCHMARK_CAPTURE(read_kvutil, compact, COMPACT);
BENCHMARK_CAPTURE(read_kvutil, dotted, DOTTED);
BENCHMARK_CAPTURE(read_kvutil, hyphenated, HYPHENATED);
// Not as we write it, so read as scanf() does.
BENCHMARK_CAPTURE(read_kvutil, dotted_behind_a_blank, " " + DOTTED);

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

void read_scanf_dotted(benchmark::State& state)
{
    tbs_uuid_s s;
    require(state, read_by_scanf(DOTTED, s) && Uuid(s) == Uuid(SAMPLE));
    for (auto _ : state) {
        benchmark::DoNotOptimize(read_by_scanf(DOTTED, s));
        benchmark::DoNotOptimize(s);
    }
}
BENCHMARK(read_scanf_dotted);

#ifdef KVUTIL_BENCH_POCO
void read_poco(benchmark::State& state, const std::string& text)
{
    Poco::UUID uuid;
    require(state, uuid.tryParse(text) && uuid.toString() == HYPHENATED);
    for (auto _ : state) {
        benchmark::DoNotOptimize(uuid.tryParse(text));
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK_CAPTURE(read_poco, compact, COMPACT);
BENCHMARK_CAPTURE(read_poco, hyphenated, HYPHENATED);
#endif
#ifdef KVUTIL_BENCH_LIBUUID
void read_libuuid_hyphenated(benchmark::State& state)
{
    uuid_t uuid;
    for (auto _ : state) {
        benchmark::DoNotOptimize(uuid_parse(HYPHENATED.c_str(), uuid));
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(read_libuuid_hyphenated);
#endif
#ifdef KVUTIL_BENCH_QT
void read_qt_hyphenated(benchmark::State& state)
{
    const QByteArray text = QByteArray::fromStdString(HYPHENATED);
    require(state, QUuid::fromRfc4122(QByteArray::fromHex(COMPACT.c_str())) == QUuid(text));
    for (auto _ : state)
        benchmark::DoNotOptimize(QUuid(text));
}
BENCHMARK(read_qt_hyphenated);
#endif

void read_rejected_kvutil(benchmark::State& state)
{
    const std::string text = "01234567.89abcdef.fedc.ba:98:76:54:32:xy";
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(Uuid::from_string(text));
            state.SkipWithError("accepted");
        } catch (const Kvl::IllegalArgException& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(read_rejected_kvutil);

// A rejection is a throw and its two texts.
void read_rejected_runtime_error(benchmark::State& state)
{
    for (auto _ : state) {
        try {
            throw std::runtime_error("Invalid format: '01234567.89abcdef.fedc.ba:98:76:54:32:xy', "
                                     "'01234567.89abcdef.fedc.ba:98:76:54:32:xy'");
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(read_rejected_runtime_error);

// ---- Keys ----

void compare_kvutil(benchmark::State& state)
{
    Oid one = Oid::gen();
    Oid other = Oid::gen();
    for (auto _ : state) {
        benchmark::DoNotOptimize(one);
        benchmark::DoNotOptimize(other);
        benchmark::DoNotOptimize(one < other);
        benchmark::DoNotOptimize(one == other);
        benchmark::DoNotOptimize(one.hash());
    }
}
BENCHMARK(compare_kvutil);

}  // namespace
