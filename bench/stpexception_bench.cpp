// Failures: thrown, caught and nested, against what a caller would throw instead.

#include "contest.h"
#include "entry.h"

#include <kvutil/kvutil_msg.h>
#include <kvutil/stpexception.h>

#include <cstddef>
#include <exception>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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

std::string text_of(const STPException& e)
{
    return e.message().message_string().utf8_str();
}

std::string text_of(const std::exception& e)
{
    return e.what();
}

// ---- Throw and catch -------------------------------------------------------------------------

[[gnu::noinline]] void fail_in_place_kvutil()
{
    throw StateException(UMessage(kvutil, 21, selector, detail));
}

[[gnu::noinline]] void fail_by_raise_kvutil()
{
    StateException::raise(UMessage(kvutil, 21, selector, detail));
}

/// The least: the finished text and no data.
[[gnu::noinline]] void fail_with_text()
{
    throw std::runtime_error(whole_text);
}

template <class E>
bool throws_text(void (*fails)(), const std::string& text)
{
    try {
        fails();
    } catch (const E& e) {
        return text_of(e) == text;
    }
    return false;
}

template <class E>
void time_failure(benchmark::State& state, void (*fails)())
{
    for (auto _ : state) {
        try {
            fails();
        } catch (const E& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}

template <class E>
void failure(benchmark::State& state, void (*fails)())
{
    require_agreement(state, throws_text<E>(fails, whole_text));
    time_failure<E>(state, fails);
}

const bool failures_are_entered = [] {
    const auto enter_pair = [](const std::string& name, void (*fails)()) {
        enter(name, "kvutil", [=](auto& state) { failure<StateException>(state, fails); });
        enter(name, "floor",
              [](auto& state) { failure<std::runtime_error>(state, fail_with_text); });
    };
    enter_pair("throw and catch: 2 texts, thrown in place", fail_in_place_kvutil);
    enter_pair("throw and catch: 2 texts, by raise()", fail_by_raise_kvutil);
    return true;
}();

#ifdef KVUTIL_HAVE_BOOST
typedef boost::error_info<struct selector_tag_t, std::string> selector_info_t;
typedef boost::error_info<struct detail_tag_t, std::string> detail_info_t;
typedef boost::error_info<struct reason_tag_t, int> reason_info_t;

struct state_error : virtual std::exception, virtual boost::exception {};

[[gnu::noinline]] void fail_in_place_boost()
{
    throw state_error() << selector_info_t("vd.file:/src/lib/main.c@/vobs/proj")
                        << detail_info_t("unknown provider domain: file") << reason_info_t(39);
}

[[gnu::noinline]] void fail_by_throw_exception_boost()
{
    boost::throw_exception(state_error()
                           << selector_info_t("vd.file:/src/lib/main.c@/vobs/proj")
                           << detail_info_t("unknown provider domain: file") << reason_info_t(39));
}

bool carries_both_texts(void (*fails)())
{
    try {
        fails();
    } catch (const state_error& e) {
        return "PLXSV0671E The selector '" + *boost::get_error_info<selector_info_t>(e) +
                   "' is not valid: " + *boost::get_error_info<detail_info_t>(e) ==
               whole_text;
    }
    return false;
}

void failure_boost(benchmark::State& state, void (*fails)())
{
    require_agreement(state, carries_both_texts(fails));
    time_failure<state_error>(state, fails);
}
BENCHMARK_CAPTURE(failure_boost, in_place, fail_in_place_boost)
    ->Name("throw and catch: 2 texts, thrown in place/boost::exception");
BENCHMARK_CAPTURE(failure_boost, by_throw_exception, fail_by_throw_exception_boost)
    ->Name("throw and catch: 2 texts, by raise()/boost::throw_exception");
#endif

// ---- A nested cause --------------------------------------------------------------------------

[[gnu::noinline]] void fail_nested_kvutil()
{
    try {
        fail_in_place_kvutil();
    } catch (const StateException& e) {
        STPException::raise(Kvl::STP_REASON_40, UMessage(kvutil, 19, u"/tmp/x"), nullptr, &e, 7);
    }
}

[[gnu::noinline]] void fail_nested_std()
{
    try {
        fail_with_text();
    } catch (const std::runtime_error&) {
        std::throw_with_nested(std::runtime_error(outer_text));
    }
}

/// The least: two throws, the first one forgotten.
[[gnu::noinline]] void fail_twice()
{
    try {
        fail_with_text();
    } catch (const std::runtime_error& e) {
        benchmark::DoNotOptimize(&e);
    }
    throw std::runtime_error(outer_text);
}

/// Gives `look` what caused `e`.
template <class Look>
void look_at_cause(const STPException& e, Look look)
{
    for (const STPException* cause : e.causes())
        look(*cause);
}

template <class Look>
void look_at_cause(const std::exception& e, Look look)
{
    try {
        std::rethrow_if_nested(e);
    } catch (const std::exception& cause) {
        look(cause);
    }
}

template <class E>
bool throws_both_texts(void (*fails)())
{
    std::string cause_text;
    try {
        fails();
    } catch (const E& e) {
        look_at_cause(e, [&](const auto& cause) { cause_text = text_of(cause); });
        return text_of(e) == outer_text && cause_text == whole_text;
    }
    return false;
}

template <class E>
void nested(benchmark::State& state, void (*fails)())
{
    require_agreement(state, throws_both_texts<E>(fails));
    for (auto _ : state) {
        try {
            fails();
        } catch (const E& e) {
            look_at_cause(e, [](const auto& cause) { benchmark::DoNotOptimize(&cause); });
        }
    }
}

const bool nested_are_entered = [] {
    const std::string name = "nested cause: 1 cause, looked at";
    enter(name, "kvutil", [](auto& state) { nested<STPException>(state, fail_nested_kvutil); });
    enter(name, "std::throw_with_nested",
          [](auto& state) { nested<std::exception>(state, fail_nested_std); });
    enter(name, "floor", [](auto& state) { time_failure<std::exception>(state, fail_twice); });
    return true;
}();

#ifdef KVUTIL_HAVE_BOOST
[[gnu::noinline]] void fail_nested_boost()
{
    try {
        fail_in_place_boost();
    } catch (const state_error&) {
        throw state_error() << detail_info_t("/tmp/x") << reason_info_t(40)
                            << boost::errinfo_nested_exception(boost::current_exception());
    }
}

bool has_boost_cause()
{
    try {
        fail_nested_boost();
    } catch (const state_error& e) {
        return boost::get_error_info<boost::errinfo_nested_exception>(e) != nullptr;
    }
    return false;
}

void nested_boost(benchmark::State& state)
{
    require_agreement(state, has_boost_cause());
    for (auto _ : state) {
        try {
            fail_nested_boost();
        } catch (const state_error& e) {
            benchmark::DoNotOptimize(boost::get_error_info<boost::errinfo_nested_exception>(e));
        }
    }
}
BENCHMARK(nested_boost)->Name("nested cause: 1 cause, looked at/boost::errinfo_nested_exception");
#endif

// ---- Further ---------------------------------------------------------------------------------

/// An exception below which `length` causes stand, each the cause of the one above it.
STPException chain_of(std::size_t length)
{
    STPException first{StateException(UMessage(kvutil, 21, selector, detail))};
    for (; length > 0; --length) {
        std::vector<STPException*> causes;
        auto* const cause = new StateException(UMessage(kvutil, 21, selector, detail));
        const_cast<std::vector<STPException*>&>(first.causes()).swap(causes);
        const_cast<std::vector<STPException*>&>(cause->causes()).swap(causes);
        const_cast<std::vector<STPException*>&>(first.causes()).push_back(cause);
    }
    return first;
}

// The time per cause must not rise with the depth.
void chain_copy_kvutil(benchmark::State& state, std::size_t length)
{
    const STPException first = chain_of(length);
    for (auto _ : state)
        benchmark::DoNotOptimize(STPException(first));
    state.counters["ns per cause"] = benchmark::Counter(
        static_cast<double>(length) * 1e-9,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

/// What holds the same data without being an exception.
void chain_copy_list(benchmark::State& state, std::size_t length)
{
    const std::list<std::pair<std::string, std::string>> texts(
        length, {"vd.file:/src/lib/main.c@/vobs/proj", "unknown provider domain: file"});
    for (auto _ : state)
        benchmark::DoNotOptimize(std::list<std::pair<std::string, std::string>>(texts));
}

const bool chains_are_entered = [] {
    for (const std::size_t length : {100U, 10'000U, 1'000'000U}) {
        const std::string name = "further, messages and exceptions: copy of a chain of " +
                                 std::to_string(length) + " causes";
        enter(name, "kvutil", [=](auto& state) { chain_copy_kvutil(state, length); });
        enter(name, "std::list of 2 texts", [=](auto& state) { chain_copy_list(state, length); });
    }
    return true;
}();

}  // namespace
