// Identifiers made anew against what a caller would use instead: Poco, libuuid and APR, where their
// packages are installed.

#include <kvutil/oid.h>
#include <kvutil/tbs_uuid_gen.h>

#include "contest.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <sys/time.h>
#include <thread>

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

namespace {

using Kvl::Uuid;

// A process has 2^18 identifiers for each tenth of a second; who wants more waits. To time the work
// and not the wait, each run begins with a rest, after which there are more than it asks for.
constexpr std::chrono::milliseconds REST{110};
constexpr benchmark::IterationCount SUPPLY = 200'000;

/// @param make  makes one identifier, which differs from the one before
template <class Make>
void generate(benchmark::State& state, Make make)
{
    require_agreement(state, make() != make());
    std::this_thread::sleep_for(REST);
    for (auto _ : state)
        benchmark::DoNotOptimize(make());
}

void generate_kvutil(benchmark::State& state)
{
    generate(state, [] { return Uuid::gen(); });
}

/// Read the clock, take a number that nobody else has, fill 16 bytes.
void generate_floor(benchmark::State& state)
{
    static std::atomic<std::uint32_t> sequence{0};
    generate(state, [] {
        timeval now;
        gettimeofday(&now, nullptr);
        tbs_uuid_s fields{};
        fields.time_low = sequence.fetch_add(1, std::memory_order_relaxed);
        fields.time_mid = static_cast<unsigned short>(now.tv_usec);
        fields.node[0] = static_cast<unsigned char>(now.tv_sec);
        return Uuid(fields);
    });
}

#ifdef KVUTIL_BENCH_POCO
void generate_poco(benchmark::State& state)
{
    Poco::UUIDGenerator& generator = Poco::UUIDGenerator::defaultGenerator();
    generate(state, [&generator] { return generator.create(); });
}
#endif

#ifdef KVUTIL_BENCH_LIBUUID
struct libuuid_t {
    uuid_t bytes;
    bool operator!=(const libuuid_t& o) const { return uuid_compare(bytes, o.bytes) != 0; }
};

void generate_libuuid(benchmark::State& state)
{
    generate(state, [] {
        libuuid_t uuid;
        uuid_generate_time(uuid.bytes);
        return uuid;
    });
}
#endif

#ifdef KVUTIL_BENCH_APR
struct apr_t {
    apr_uuid_t bytes;
    bool operator!=(const apr_t& o) const
    {
        return std::memcmp(&bytes, &o.bytes, sizeof bytes) != 0;
    }
};

void generate_apr(benchmark::State& state)
{
    generate(state, [] {
        apr_t uuid;
        apr_uuid_get(&uuid.bytes);
        return uuid;
    });
}
#endif

#define ONE_THREAD "UUID generation: 1 thread, rested so that none waits/"
#define TWO_THREADS "UUID generation: 2 threads, rested so that none waits/"

BENCHMARK(generate_kvutil)->Name(ONE_THREAD "kvutil")->Iterations(SUPPLY);
BENCHMARK(generate_floor)->Name(ONE_THREAD "floor")->Iterations(SUPPLY);
BENCHMARK(generate_kvutil)
    ->Name(TWO_THREADS "kvutil")
    ->Iterations(SUPPLY / 2)
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(generate_floor)
    ->Name(TWO_THREADS "floor")
    ->Iterations(SUPPLY / 2)
    ->Threads(2)
    ->UseRealTime();
#ifdef KVUTIL_BENCH_POCO
BENCHMARK(generate_poco)->Name(ONE_THREAD "Poco")->Iterations(SUPPLY);
BENCHMARK(generate_poco)
    ->Name(TWO_THREADS "Poco")
    ->Iterations(SUPPLY / 2)
    ->Threads(2)
    ->UseRealTime();
#endif
#ifdef KVUTIL_BENCH_LIBUUID
BENCHMARK(generate_libuuid)->Name(ONE_THREAD "libuuid");
BENCHMARK(generate_libuuid)->Name(TWO_THREADS "libuuid")->Threads(2)->UseRealTime();
#endif
#ifdef KVUTIL_BENCH_APR
BENCHMARK(generate_apr)->Name(ONE_THREAD "APR");
BENCHMARK(generate_apr)->Name(TWO_THREADS "APR")->Threads(2)->UseRealTime();
#endif

}  // namespace
