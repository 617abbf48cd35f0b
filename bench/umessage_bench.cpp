// A catalogue message with two texts and a number, rendered to UTF-16, against what a caller would
// use instead for the same text.

#include <kvutil/umessage.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using Kvl::UMessage;
using Kvl::UString;

const char* catalogue[] = {"bench 1", "BENCH0001E Unable to open file '%s': %s (%d)."};
constexpr const char* FMT_FORMAT = "BENCH0001E Unable to open file '{}': {} ({}).";

struct arguments_t {
    std::string file, reason;
    int code = 13;

    explicit arguments_t(std::int64_t length)
        : file("/vobs/project/" + std::string(static_cast<std::size_t>(length), 'f')),
          reason("Permission denied")
    {
    }
};

UString rendered_by_kvutil(const arguments_t& a)
{
    return UMessage::sprintf(catalogue, 1, a.file, a.reason, a.code);
}

icu::UnicodeString rendered_by_fmt(const arguments_t& a)
{
    return icu::UnicodeString::fromUTF8(
        fmt::format(fmt::runtime(FMT_FORMAT), a.file, a.reason, a.code));
}

icu::UnicodeString rendered_by_snprintf(const arguments_t& a)
{
    char text[1024];
    std::string long_text;
    const auto size = static_cast<std::size_t>(
        std::snprintf(text, sizeof text, catalogue[1], a.file.c_str(), a.reason.c_str(), a.code));
    if (size < sizeof text)
        return icu::UnicodeString::fromUTF8(icu::StringPiece(text, static_cast<int>(size)));
    long_text.resize(size);
    std::snprintf(long_text.data(), size + 1, catalogue[1], a.file.c_str(), a.reason.c_str(),
                  a.code);
    return icu::UnicodeString::fromUTF8(long_text);
}

void require_agreement(const arguments_t& a)
{
    const UString ours = rendered_by_kvutil(a);
    if (ours.icu::UnicodeString::operator==(rendered_by_fmt(a)) &&
        ours.icu::UnicodeString::operator==(rendered_by_snprintf(a)))
        return;
    std::fputs("the peers disagree\n", stderr);
    std::abort();
}

// A message that exists already, as an exception carries it.
void message_in_kvutil(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    require_agreement(a);
    const UMessage message(catalogue, 1, a.file, a.reason, a.code);
    for (auto _ : state)
        benchmark::DoNotOptimize(message.message_string());
}

// The same, with the argument copies that the interface makes.
void message_made_and_rendered_in_kvutil(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(rendered_by_kvutil(a));
}

void message_in_fmt(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(rendered_by_fmt(a));
}

void message_in_snprintf(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(rendered_by_snprintf(a));
}

// The least work: the finished bytes are there, one pass makes them an owned text.
void message_floor(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    const std::string text = rendered_by_kvutil(a).utf8_str();
    for (auto _ : state) {
        icu::UnicodeString out(static_cast<int>(text.size()), 0, 0);
        char16_t* to = out.getBuffer(static_cast<int>(text.size()));
        for (const char c : text)
            *to++ = static_cast<unsigned char>(c);
        out.releaseBuffer(static_cast<int>(text.size()));
        benchmark::DoNotOptimize(out);
    }
}

// A format that does not fit its arguments is rewritten first.
void misfit_in_kvutil(benchmark::State& state)
{
    const arguments_t a(state.range(0));
    const UMessage message(catalogue, 1, a.file, a.code, a.reason);
    for (auto _ : state)
        benchmark::DoNotOptimize(message.message_string());
}

BENCHMARK(message_in_kvutil)->Arg(8)->Arg(64)->Arg(4096);
BENCHMARK(message_made_and_rendered_in_kvutil)->Arg(8)->Arg(64)->Arg(4096);
BENCHMARK(message_in_fmt)->Arg(8)->Arg(64)->Arg(4096);
BENCHMARK(message_in_snprintf)->Arg(8)->Arg(64)->Arg(4096);
BENCHMARK(message_floor)->Arg(8)->Arg(64)->Arg(4096);
BENCHMARK(misfit_in_kvutil)->Arg(8)->Arg(64)->Arg(4096);

}  // namespace
