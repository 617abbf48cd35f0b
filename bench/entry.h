#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

/// Enters a benchmark whose name is put together, because the same timing serves several cases.
/// @param time  called with the benchmark's state
inline benchmark::internal::Benchmark* enter(const std::string& name, const std::string& contestant,
                                             const std::function<void(benchmark::State&)>& time)
{
    return benchmark::RegisterBenchmark((name + '/' + contestant).c_str(), time);
}
