#include <kvutil/kvutil_msg.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <exception>
#include <stdexcept>
#include <string>

#if __has_include(<boost/exception/all.hpp>)
#include <boost/exception/all.hpp>
#define KVUTIL_HAVE_BOOST 1
#else
#pragma message("boost/exception/all.hpp is missing: that peer is left out")
#endif

using Kvl::StateException;
using Kvl::STPException;
using Kvl::UMessage;
using Kvl::UString;

namespace {

const UString selector(u"vd.file:/src/lib/main.c@/vobs/proj");
const UString detail(u"unknown provider domain: file");
const char* const whole_text =
    "PLXSV0671E The selector 'vd.file:/src/lib/main.c@/vobs/proj' is not valid: "
    "unknown provider domain: file";
const char* const outer_text = "PLXSV0669E Error converting '/tmp/x' to default character set.";

UMessage outer_message()
{
    return UMessage(kvutil, 19, u"/tmp/x");
}

[[gnu::noinline]] void fail_in_kvutil()
{
    throw StateException(UMessage(kvutil, 21, selector, detail));
}

[[gnu::noinline]] void fail_by_raise_in_kvutil()
{
    StateException::raise(UMessage(kvutil, 21, selector, detail));
}

[[gnu::noinline]] void fail_in_std()
{
    throw std::runtime_error(whole_text);
}

[[gnu::noinline]] void fail_nested_in_kvutil()
{
    try {
        fail_in_kvutil();
    } catch (const StateException& e) {
        STPException::raise(Kvl::STP_REASON_40, outer_message(), nullptr, &e, 7);
    }
}

[[gnu::noinline]] void fail_nested_in_std()
{
    try {
        fail_in_std();
    } catch (const std::runtime_error&) {
        std::throw_with_nested(std::runtime_error(outer_text));
    }
}

std::string text_of(const STPException& e)
{
    return e.message().message_string().utf8_str();
}

void look_at_cause_in_kvutil(const STPException& e)
{
    for (const STPException* cause : e.causes())
        benchmark::DoNotOptimize(cause->message().index());
}

void look_at_cause_in_std(const std::exception& e)
{
    try {
        std::rethrow_if_nested(e);
    } catch (const std::exception& cause) {
        benchmark::DoNotOptimize(cause.what());
    }
}

/// What a caller can read out of each is the same.
bool peers_agree()
{
    try {
        fail_in_kvutil();
    } catch (const StateException& e) {
        if (text_of(e) != whole_text)
            return false;
    }
    try {
        fail_nested_in_kvutil();
    } catch (const STPException& e) {
        return text_of(e) == outer_text && text_of(*e.causes().at(0)) == whole_text;
    }
    return false;
}

/// Times `fails` together with its handler, which gives what it caught to `look`.
template <class E, class Operation, class Look>
void time_failure(benchmark::State& state, Operation fails, Look look)
{
    if (!peers_agree())
        state.SkipWithError("the peers do not carry the same texts");
    for (auto _ : state) {
        try {
            fails();
        } catch (const E& e) {
            look(e);
        }
    }
}

template <class E>
void look_at_class(const E& e)
{
    benchmark::DoNotOptimize(&e);
}

void failure_in_kvutil(benchmark::State& state)
{
    time_failure<StateException>(state, fail_in_kvutil, look_at_class<StateException>);
}
BENCHMARK(failure_in_kvutil);

void failure_by_raise_in_kvutil(benchmark::State& state)
{
    time_failure<StateException>(state, fail_by_raise_in_kvutil, look_at_class<StateException>);
}
BENCHMARK(failure_by_raise_in_kvutil);

void failure_in_std(benchmark::State& state)
{
    time_failure<std::runtime_error>(state, fail_in_std, look_at_class<std::runtime_error>);
}
BENCHMARK(failure_in_std);

void nested_failure_in_kvutil(benchmark::State& state)
{
    time_failure<STPException>(state, fail_nested_in_kvutil, look_at_cause_in_kvutil);
}
BENCHMARK(nested_failure_in_kvutil);

void nested_failure_in_std(benchmark::State& state)
{
    time_failure<std::exception>(state, fail_nested_in_std, look_at_cause_in_std);
}
BENCHMARK(nested_failure_in_std);

#ifdef KVUTIL_HAVE_BOOST
typedef boost::error_info<struct selector_tag_t, std::string> selector_info_t;
typedef boost::error_info<struct detail_tag_t, std::string> detail_info_t;
typedef boost::error_info<struct reason_tag_t, int> reason_info_t;

struct state_error : virtual std::exception, virtual boost::exception {};

[[gnu::noinline]] void fail_in_boost()
{
    throw state_error() << selector_info_t("vd.file:/src/lib/main.c@/vobs/proj")
                        << detail_info_t("unknown provider domain: file") << reason_info_t(39);
}

void failure_in_boost(benchmark::State& state)
{
    time_failure<state_error>(state, fail_in_boost, look_at_class<state_error>);
}
BENCHMARK(failure_in_boost);
#endif

/// Depth in causes of the copied chain; the time per cause must not rise with it.
void copy_of_a_deep_chain(benchmark::State& state)
{
    STPException first{StateException{UMessage()}};
    for (auto length = state.range(0); length > 1; --length) {
        auto* const cause = new STPException(std::move(first));
        first = StateException{UMessage()};
        const_cast<std::vector<STPException*>&>(first.causes()).push_back(cause);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(STPException(first));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(copy_of_a_deep_chain)->RangeMultiplier(100)->Range(1, 1000000);

}  // namespace
