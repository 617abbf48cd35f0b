// Holding a lock for a block against the recursive mutexes that a caller would use instead. The
// floor is a flag with its owner and depth; who waits for it tries again and again.
//
// The process has further threads, as a server has. The C library's mutexes cost less where there
// are none, which critsec_lock_bench compares.

#include "recursive_locks.h"

#include <chrono>
#include <future>

namespace {

using namespace RecursiveLocks;

const bool there_is_another_thread = [] {
    std::thread([] {
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(1));
    }).detach();
    return true;
}();

/// Whether two threads lose no count, each of them holding the lock twice.
template <class Family>
bool excludes_and_nests()
{
    constexpr int EACH = 10'000;
    typename Family::lock_t lock;
    int counter = 0;
    const auto count = [&] {
        for (int i = 0; i < EACH; ++i) {
            const typename Family::guard_t outer(lock);
            const typename Family::guard_t inner(lock);
            ++counter;
        }
    };
    auto other = std::async(std::launch::async, count);
    count();
    other.get();
    return counter == 2 * EACH;
}

template <class Family>
void uncontended(benchmark::State& state)
{
    require_agreement(state, there_is_another_thread && excludes_and_nests<Family>());
    one_section<Family>(state);
}

template <class Family>
void nested(benchmark::State& state)
{
    require_agreement(state, there_is_another_thread && excludes_and_nests<Family>());
    nested_section<Family>(state);
}

/// What threads do between two sections. A function, so that it is the same code for every lock: a
/// loop that is compiled for each may happen to lie better for one than for another.
[[gnu::noinline]] std::uint32_t do_something_else(std::uint32_t number)
{
    for (int i = 0; i < 100; ++i)
        benchmark::DoNotOptimize(number = number * 1664525 + 1013904223);
    return number;
}

/// Both threads count under one lock and have something else to do in between. What they count has
/// a line of the cache of its own: some locks would otherwise share one with it, others not.
template <class Family>
void two_threads(benchmark::State& state)
{
    alignas(128) static typename Family::lock_t lock;
    alignas(128) static int counter = 0;
    std::uint32_t number = 1;
    for (auto _ : state) {
        {
            const typename Family::guard_t section(lock);
            benchmark::DoNotOptimize(++counter);
        }
        number = do_something_else(number);
    }
}

#define ROW "lock and unlock: "
#define KVUTIL_CONTESTANT(family, name)                                                            \
    BENCHMARK_TEMPLATE(uncontended, family)->Name(ROW "uncontended/" name);                        \
    BENCHMARK_TEMPLATE(nested, family)                                                             \
        ->Name("further, locks and log: lock and unlock, nested/" name);                           \
    BENCHMARK_TEMPLATE(two_threads, family)                                                        \
        ->Name(ROW "contended, 2 threads/" name)                                                   \
        ->Threads(2)                                                                               \
        ->UseRealTime()

KVUTIL_CONTESTANT(in_kvutil, "kvutil");
KVUTIL_CONTESTANT(in_pthread, "pthread recursive mutex");
KVUTIL_CONTESTANT(in_std, "std::recursive_mutex");
#ifdef KVUTIL_BENCH_QT
KVUTIL_CONTESTANT(in_qt, "Qt QRecursiveMutex");
#endif
KVUTIL_CONTESTANT(in_floor, "floor");

}  // namespace
