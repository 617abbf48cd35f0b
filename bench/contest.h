#pragma once

#include <benchmark/benchmark.h>

/// Ends a benchmark before anything is timed unless the contestant's result is the agreed one.
inline void require_agreement(benchmark::State& state, bool holds)
{
    if (!holds)
        state.SkipWithError("another result than the others have");
}
