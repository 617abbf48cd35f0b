// Starting and stopping a measured operation.
//
// While measurement is off: our two calls, each a load and a branch, against two probes in the
// code, each a nop whose operands stand where a tracer finds them. In one case the operation
// between them is a call that does nothing, in the other it is nothing at all. The floor is the
// same without either.
//
// While it is on, with a run-time that does nothing: ours, against the same record of operations
// within each other, written by hand for each thread. The floor is the run-time's two functions
// alone, as who hands correlators around by other means calls them.

#include "contest.h"

#include <kvutil/arm.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#ifdef KVUTIL_BENCH_SDT
#include <sys/sdt.h>
#endif

namespace {

using Kvl::ArmApplication;
using Kvl::ArmRuntimeLoader;
typedef Kvl::ArmPerThreadOperationStack Stack;

const Kvl::OperationRegistrar g_operation(u"operation");

/// Opens the run-time by its path, so that the library finds it by its name, and turns measurement
/// on for the benchmarks that follow. Ends the program when that fails.
bool turn_on()
{
    void* const runtime = dlopen(STUB_ARM4, RTLD_NOW);
    if (runtime == nullptr ||
        ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"bench", nullptr) != 0) {
        std::fprintf(stderr, "no run-time %s\n", STUB_ARM4);
        std::exit(EXIT_FAILURE);
    }
    return true;
}

void set_level(Kvl::arm_level_t level)
{
    [[maybe_unused]] static const bool was_turned_on = turn_on();
    __atomic_store_n(&ArmApplication::g_level, level, __ATOMIC_RELEASE);
}

// ---- Off ----

[[gnu::noinline]] void do_nothing()
{
    asm volatile("");
}

/// @param measured  the operation that is given to it, with something at its beginning and its end
template <class Measured>
void time_off(benchmark::State& state, Measured measured)
{
    set_level(Kvl::ARM_LEVEL_OFF);
    for (auto _ : state)
        measured();
}

template <class Operation>
void by_kvutil(Operation operation)
{
    Stack::start_transaction(g_operation.tran_id(), nullptr, true);
    operation();
    Stack::stop_transaction(ARM_STATUS_GOOD, nullptr);
}

void off_kvutil(benchmark::State& state)
{
    time_off(state, [] { by_kvutil(do_nothing); });
}
BENCHMARK(off_kvutil)->Name("measurement: off, around a call/kvutil");

void off_alone_kvutil(benchmark::State& state)
{
    time_off(state, [] { by_kvutil([] {}); });
}
BENCHMARK(off_alone_kvutil)->Name("measurement: off/kvutil");

#ifdef KVUTIL_BENCH_SDT
template <class Operation>
void by_probes(Operation operation)
{
    STAP_PROBE2(kvutil_bench, start, &g_operation.tran_id(), true);
    operation();
    STAP_PROBE1(kvutil_bench, stop, ARM_STATUS_GOOD);
}

void off_sdt(benchmark::State& state)
{
    time_off(state, [] { by_probes(do_nothing); });
}
BENCHMARK(off_sdt)->Name("measurement: off, around a call/sdt probes");

void off_alone_sdt(benchmark::State& state)
{
    time_off(state, [] { by_probes([] {}); });
}
BENCHMARK(off_alone_sdt)->Name("measurement: off/sdt probes");
#endif

void off_floor(benchmark::State& state)
{
    time_off(state, do_nothing);
}
BENCHMARK(off_floor)->Name("measurement: off, around a call/floor");

void off_alone_floor(benchmark::State& state)
{
    time_off(state, [] {});
}
BENCHMARK(off_alone_floor)->Name("measurement: off/floor");

// ---- On ----

/// What a caller would write instead of our stack: for each thread the operations that it has
/// begun, the outermost a child of what the caller was sent.
class hand_written_stack_t {
public:
    static hand_written_stack_t& of_this_thread()
    {
        thread_local hand_written_stack_t stack;
        return stack;
    }

    int start(const arm_id& tran_id)
    {
        if (!is_on())
            return ArmApplication::UNAVAILABLE;
        if (depth_ == operations_.size())
            operations_.push_back(std::make_unique<operation_t>());
        operation_t& begun = *operations_[depth_];
        begun.correlator.opaque[0] = begun.correlator.opaque[1] = 0;
        const arm_correlator& parent = depth_ > 0 ? operations_[depth_ - 1]->correlator : base_;
        const int code = ArmRuntimeLoader::g_fnc_arm_start_transaction(
            ArmApplication::g_app_handle, &tran_id, &parent, 7, nullptr, &begun.handle,
            &begun.correlator);
        depth_ += code >= 0 ? 1 : 0;
        return code;
    }

    int stop(int status)
    {
        if (!is_on() || depth_ == 0)
            return ArmApplication::UNAVAILABLE;
        return ArmRuntimeLoader::g_fnc_arm_stop_transaction(operations_[--depth_]->handle, status,
                                                            0, nullptr);
    }

private:
    struct operation_t {
        arm_tran_start_handle_t handle = 0;
        arm_correlator correlator{};
    };

    static bool is_on()
    {
        return __atomic_load_n(&ArmApplication::g_level, __ATOMIC_ACQUIRE) != Kvl::ARM_LEVEL_OFF;
    }

    arm_correlator base_{};
    std::vector<std::unique_ptr<operation_t>> operations_;
    std::size_t depth_ = 0;
};

struct in_kvutil {
    static int start() { return Stack::start_transaction(g_operation.tran_id(), nullptr, true); }
    static int stop() { return Stack::stop_transaction(ARM_STATUS_GOOD, nullptr); }
};

struct by_hand {
    [[gnu::noinline]] static int start()
    {
        return hand_written_stack_t::of_this_thread().start(g_operation.tran_id());
    }
    [[gnu::noinline]] static int stop()
    {
        return hand_written_stack_t::of_this_thread().stop(ARM_STATUS_GOOD);
    }
};

/// @param around  how many operations are around the one that is timed
template <class Family>
void on(benchmark::State& state, int around)
{
    set_level(Kvl::ARM_LEVEL_ON);
    Stack::get_base_correlator();
    require_agreement(state, Family::stop() == ArmApplication::UNAVAILABLE);
    for (int i = 0; i < around; ++i)
        require_agreement(state, Family::start() == 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Family::start());
        benchmark::DoNotOptimize(Family::stop());
    }
    for (int i = 0; i < around; ++i)
        require_agreement(state, Family::stop() == 0);
    require_agreement(state, Family::stop() == ArmApplication::UNAVAILABLE);
}

void on_kvutil(benchmark::State& state, int around)
{
    on<in_kvutil>(state, around);
}

void on_by_hand(benchmark::State& state, int around)
{
    on<by_hand>(state, around);
}

void on_floor(benchmark::State& state, int)
{
    set_level(Kvl::ARM_LEVEL_ON);
    arm_tran_start_handle_t handle = 0;
    arm_correlator_t parent{};
    arm_correlator_t correlator{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(ArmRuntimeLoader::g_fnc_arm_start_transaction(
            1, &g_operation.tran_id(), &parent, 7, nullptr, &handle, &correlator));
        benchmark::DoNotOptimize(
            ArmRuntimeLoader::g_fnc_arm_stop_transaction(handle, ARM_STATUS_GOOD, 0, nullptr));
    }
}

#define KVUTIL_CONTESTANT(function, contestant)                                                    \
    BENCHMARK_CAPTURE(function, outermost, 0)->Name("measurement: on/" contestant);                \
    BENCHMARK_CAPTURE(function, nested, 10)                                                        \
        ->Name("further, measurement: on, within 10 others/" contestant);                          \
    BENCHMARK_CAPTURE(function, deep, 100'000)                                                     \
        ->Name("further, measurement: on, within 100 000 others/" contestant);                     \
    BENCHMARK_CAPTURE(function, two_threads, 0)                                                    \
        ->Name("further, measurement: on, 2 threads/" contestant)                                  \
        ->Threads(2)                                                                               \
        ->UseRealTime()

KVUTIL_CONTESTANT(on_kvutil, "kvutil");
KVUTIL_CONTESTANT(on_by_hand, "the same by hand");
KVUTIL_CONTESTANT(on_floor, "floor");

}  // namespace
