// The exception that is described by a text alone.

#include "contest.h"

#include <kvutil/exception.h>

#include <stdexcept>
#include <string>

#if __has_include(<boost/exception/all.hpp>)
#include <boost/exception/all.hpp>
#define KVUTIL_HAVE_BOOST 1
#else
#pragma message("boost/exception/all.hpp is missing: that peer is left out")
#endif

namespace {

using Kvl::Exception;
using Kvl::UString;

const UString text(u"the file /vobs/proj/src/lib/main.c was not found");
const UString added(u", while its project was checked");
const std::string narrow_text = text.utf8_str();
const std::string narrow_added = added.utf8_str();

std::string text_of(const Exception& e)
{
    return e.msg().utf8_str();
}

std::string text_of(const std::runtime_error& e)
{
    return e.what();
}

/// Times `fail`, which is to throw an Error that says `expected`.
template <class Error, class Fail>
void time_failure(benchmark::State& state, Fail fail, const std::string& expected)
{
    try {
        fail();
    } catch (const Error& e) {
        require_agreement(state, text_of(e) == expected);
    }
    for (auto _ : state) {
        try {
            fail();
        } catch (const Error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}

// ---- Throw and catch -------------------------------------------------------------------------

[[gnu::noinline]] void fail_kvutil()
{
    Exception::raise(text);
}

[[gnu::noinline]] void fail_std()
{
    throw std::runtime_error(narrow_text);
}

void failure_kvutil(benchmark::State& state)
{
    time_failure<Exception>(state, fail_kvutil, narrow_text);
}
BENCHMARK(failure_kvutil)
    ->Name("further, messages and exceptions: throw and catch an Exception/kvutil");

void failure_std(benchmark::State& state)
{
    time_failure<std::runtime_error>(state, fail_std, narrow_text);
}
BENCHMARK(failure_std)
    ->Name("further, messages and exceptions: throw and catch an Exception/runtime_error");

// ---- Detail added on the way -----------------------------------------------------------------

[[gnu::noinline]] void fail_with_detail_kvutil()
{
    try {
        fail_kvutil();
    } catch (Exception& e) {
        e.add(added);
        throw;
    }
}

void detail_kvutil(benchmark::State& state)
{
    time_failure<Exception>(state, fail_with_detail_kvutil, narrow_text + narrow_added);
}
BENCHMARK(detail_kvutil)->Name("further, messages and exceptions: detail added on the way/kvutil");

#ifdef KVUTIL_HAVE_BOOST
typedef boost::error_info<struct text_tag_t, std::string> text_info_t;
typedef boost::error_info<struct added_tag_t, std::string> added_info_t;

struct text_error : virtual std::exception, virtual boost::exception {};

std::string text_of(const text_error& e)
{
    return *boost::get_error_info<text_info_t>(e) + *boost::get_error_info<added_info_t>(e);
}

[[gnu::noinline]] void fail_with_detail_boost()
{
    try {
        throw text_error() << text_info_t(narrow_text);
    } catch (text_error& e) {
        e << added_info_t(narrow_added);
        throw;
    }
}

void detail_boost(benchmark::State& state)
{
    time_failure<text_error>(state, fail_with_detail_boost, narrow_text + narrow_added);
}
BENCHMARK(detail_boost)
    ->Name("further, messages and exceptions: detail added on the way/boost::exception");
#endif

}  // namespace
