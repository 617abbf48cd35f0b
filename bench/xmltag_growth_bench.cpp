// Look-ups among 1,000 to 1,000,000 tags of one namespace, in a program of their own because so
// many tags stay. A table of the same names shows what the caches account for.

#include "tag_names.h"

#include <benchmark/benchmark.h>

namespace {

template <std::size_t count>
void by_name_in_kvutil(benchmark::State& state)
{
    const registered_t& tags = run_time(count);
    state.counters["bytes per tag"] = tags.bytes_per_tag;
    state.counters["registration, ns per tag"] = tags.nanoseconds_per_tag;
    by_name<kvutil_t>(state, tags.names);
}

template <std::size_t count>
void by_id_in_kvutil(benchmark::State& state)
{
    by_number(state, ids_of(run_time(count).names),
              [](XmlTag::Id id) { return XmlTag::lookup(id); });
}

#ifdef KVUTIL_BENCH_ABSL
template <std::size_t count>
void by_name_in_absl(benchmark::State& state)
{
    by_name<map_t<absl_map_t>>(state, run_time(count).names);
}
#define KVUTIL_GROWTH_OF_PEER(count)                                                               \
    BENCHMARK_TEMPLATE(by_name_in_absl, count)                                                     \
        ->Name("growth, tags: by name, " #count " tags/absl flat_hash_map");
#else
#define KVUTIL_GROWTH_OF_PEER(count)
#endif

#define KVUTIL_GROWTH(count)                                                                       \
    BENCHMARK_TEMPLATE(by_name_in_kvutil, count)                                                   \
        ->Name("growth, tags: by name, " #count " tags/kvutil");                                   \
    KVUTIL_GROWTH_OF_PEER(count)                                                                   \
    BENCHMARK_TEMPLATE(by_id_in_kvutil, count)->Name("growth, tags: by id, " #count " tags/kvutil")
KVUTIL_GROWTH(1000);
KVUTIL_GROWTH(10000);
KVUTIL_GROWTH(100000);
KVUTIL_GROWTH(1000000);

}  // namespace
