// Starting and stopping a measured operation: while measurement is off, against a test of a flag,
// which is what a probe in the code comes down to; while it is on, with a run-time that does
// nothing, against the two bare calls.

#include <kvutil/arm.h>

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

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

void operation_off_in_kvutil(benchmark::State& state)
{
    set_level(Kvl::ARM_LEVEL_OFF);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Stack::start_transaction(g_operation.tran_id(), nullptr, true));
        benchmark::DoNotOptimize(Stack::stop_transaction(ARM_STATUS_GOOD, nullptr));
    }
}
BENCHMARK(operation_off_in_kvutil);

int g_flag = 0;

void operation_off_as_flags(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(__atomic_load_n(&g_flag, __ATOMIC_RELAXED) != 0 ? 1 : -21000);
        benchmark::DoNotOptimize(__atomic_load_n(&g_flag, __ATOMIC_RELAXED) != 0 ? 1 : -21000);
    }
}
BENCHMARK(operation_off_as_flags);

/// @param state  its argument is how many operations are around the one that is timed
void operation_on_in_kvutil(benchmark::State& state)
{
    set_level(Kvl::ARM_LEVEL_ON);
    Stack::get_base_correlator();
    for (auto depth = state.range(0); depth > 0; --depth)
        Stack::start_transaction(g_operation.tran_id(), nullptr, true);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Stack::start_transaction(g_operation.tran_id(), nullptr, true));
        benchmark::DoNotOptimize(Stack::stop_transaction(ARM_STATUS_GOOD, nullptr));
    }
    while (Stack::doing_local_operation())
        Stack::stop_transaction(ARM_STATUS_GOOD, nullptr);
}
BENCHMARK(operation_on_in_kvutil)->Arg(0)->Arg(10)->Arg(100'000)->Threads(1)->Threads(2);

void operation_on_as_calls(benchmark::State& state)
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
BENCHMARK(operation_on_as_calls);

}  // namespace
