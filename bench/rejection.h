#pragma once

#include "contest.h"

#include <kvutil/stpexception.h>

#include <stdexcept>
#include <string>

// What it costs to be told that an input is of no use: ours against the least that a C++ library
// can do, which is to throw an exception with the same text from one frame to the next.

[[gnu::noinline]] inline void throw_text(const std::string& text)
{
    throw std::runtime_error(text);
}

/// @param reject  throws Rejection
/// @param text    what it is to say
template <class Rejection, class Reject>
void time_rejection(benchmark::State& state, Reject reject, const std::string& text)
{
    try {
        reject();
    } catch (const Rejection& e) {
        require_agreement(state, e.message().message_string().utf8_str() == text);
    }
    for (auto _ : state) {
        try {
            reject();
            state.SkipWithError("accepted");
        } catch (const Rejection& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}

inline void time_throw(benchmark::State& state, const std::string& text)
{
    for (auto _ : state) {
        try {
            throw_text(text);
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
