// A catalogue message with two texts and a number, rendered to UTF-16, against what a caller would
// use instead for the same text.

#include "contest.h"
#include "entry.h"

#include <kvutil/umessage.h>

#include <fmt/format.h>

#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KVUTIL_BENCH_QT
#include <QString>
#endif

namespace {

using Kvl::UMessage;
using Kvl::UString;

const char* catalogue[] = {"bench 1", "BENCH0001E Unable to open file '%s': %s (%d)."};
constexpr const char* FMT_FORMAT = "BENCH0001E Unable to open file '{}': {} ({}).";
constexpr const char* MISFIT_FMT_FORMAT = "BENCH0001E Unable to open file '{}': {:d} ({}).";

struct arguments_t {
    std::string file, reason = "Permission denied";
    int code = 13;

    explicit arguments_t(std::size_t length) : file("/vobs/project/" + std::string(length, 'f')) {}
};

// ---- The contestants -------------------------------------------------------------------------

UString rendered_by_kvutil(const arguments_t& a)
{
    return UMessage::sprintf(catalogue, 1, a.file, a.reason, a.code);
}

/// What `convert` makes of fmt's bytes, which stand on the stack when they are few.
template <class Convert>
auto rendered_by_fmt(const arguments_t& a, Convert convert)
{
    fmt::memory_buffer bytes;
    fmt::format_to(std::back_inserter(bytes), fmt::runtime(FMT_FORMAT), a.file, a.reason, a.code);
    return convert(bytes.data(), static_cast<int>(bytes.size()));
}

int print(char* to, std::size_t size, const arguments_t& a)
{
    return std::snprintf(to, size, catalogue[1], a.file.c_str(), a.reason.c_str(), a.code);
}

/// What `convert` makes of the C library's bytes, which stand on the stack when they are few.
template <class Convert>
auto rendered_by_snprintf(const arguments_t& a, Convert convert)
{
    char few[1024];
    const int size = print(few, sizeof few, a);
    if (size < static_cast<int>(sizeof few))
        return convert(few, size);
    std::string many(static_cast<std::size_t>(size), '\0');
    print(many.data(), many.size() + 1, a);
    return convert(many.data(), size);
}

icu::UnicodeString by_icu(const char* bytes, int size)
{
    return icu::UnicodeString::fromUTF8(icu::StringPiece(bytes, size));
}

#ifdef KVUTIL_BENCH_QT
QString by_qt(const char* bytes, int size)
{
    return QString::fromUtf8(bytes, size);
}
#endif

// ---- The main row ----------------------------------------------------------------------------

std::u16string_view view_of(const icu::UnicodeString& text)
{
    return {text.getBuffer(), static_cast<std::size_t>(text.length())};
}

#ifdef KVUTIL_BENCH_QT
std::u16string_view view_of(const QString& text)
{
    return {reinterpret_cast<const char16_t*>(text.utf16()), static_cast<std::size_t>(text.size())};
}
#endif

template <class Render>
void time_message(benchmark::State& state, std::size_t length, Render render)
{
    const arguments_t a(length);
    require_agreement(state, view_of(render(a)) == view_of(rendered_by_snprintf(a, by_icu)));
    for (auto _ : state)
        benchmark::DoNotOptimize(render(a));
}

/// A message that exists already, as an exception carries it.
void time_kept_message(benchmark::State& state, std::size_t length)
{
    const arguments_t a(length);
    const UMessage message(catalogue, 1, a.file, a.reason, a.code);
    require_agreement(state, message.message_string() == rendered_by_kvutil(a));
    for (auto _ : state)
        benchmark::DoNotOptimize(message.message_string());
}

/// The least work: the finished bytes are there, one pass makes them an owned text.
void time_floor(benchmark::State& state, std::size_t length)
{
    const std::string bytes = rendered_by_kvutil(arguments_t(length)).utf8_str();
    for (auto _ : state) {
        icu::UnicodeString out(static_cast<int>(bytes.size()), 0, 0);
        char16_t* to = out.getBuffer(static_cast<int>(bytes.size()));
        for (const char c : bytes)
            *to++ = static_cast<unsigned char>(c);
        out.releaseBuffer(static_cast<int>(bytes.size()));
        benchmark::DoNotOptimize(out);
    }
}

/// Everyone who renders from the bare arguments.
void enter_renderers(const std::string& name, std::size_t length)
{
    const auto enter_renderer = [&](const std::string& contestant, auto render) {
        enter(name, contestant, [=](auto& state) { time_message(state, length, render); });
    };
    enter_renderer("fmt, ICU fromUTF8", [](auto& a) { return rendered_by_fmt(a, by_icu); });
    enter_renderer("snprintf, ICU fromUTF8",
                   [](auto& a) { return rendered_by_snprintf(a, by_icu); });
#ifdef KVUTIL_BENCH_QT
    enter_renderer("fmt, Qt fromUtf8", [](auto& a) { return rendered_by_fmt(a, by_qt); });
    enter_renderer("snprintf, Qt fromUtf8", [](auto& a) { return rendered_by_snprintf(a, by_qt); });
#endif
    enter(name, "floor", [=](auto& state) { time_floor(state, length); });
}

void enter_messages(const std::string& row, const std::string& size, std::size_t length)
{
    const std::string at_once = row + ": 2 texts and an int, " + size;
    enter(at_once, "kvutil", [=](auto& state) { time_message(state, length, rendered_by_kvutil); });
    enter_renderers(at_once, length);
    const std::string kept = row + ": the same as an exception carries it, " + size;
    enter(kept, "kvutil", [=](auto& state) { time_kept_message(state, length); });
    enter_renderers(kept, length);
}

const bool messages_are_entered = [] {
    enter_messages("message", "file name of 22 bytes", 8);
    enter_messages("message", "file name of 78 bytes", 64);
    enter_messages("further, messages and exceptions", "file name of 4 KiB", 4082);
    return true;
}();

// ---- Rejected input --------------------------------------------------------------------------

/// A number stands where the format wants a text and a text where it wants a number: ours prints
/// both all the same.
void misfit_kvutil(benchmark::State& state)
{
    const arguments_t a(8);
    require_agreement(state, UMessage::sprintf(catalogue, 1, a.file, a.code, a.reason) ==
                                 UString(Kvl::Utf8String("BENCH0001E Unable to open file '" +
                                                         a.file + "': 13 (Permission denied).")));
    for (auto _ : state)
        benchmark::DoNotOptimize(UMessage::sprintf(catalogue, 1, a.file, a.code, a.reason));
}
BENCHMARK(misfit_kvutil)->Name("rejected input: message whose format does not fit/kvutil");

/// The peer refuses, and is asked once more with a format that fits whatever it is given.
void misfit_fmt(benchmark::State& state)
{
    const arguments_t a(8);
    for (auto _ : state) {
        fmt::memory_buffer bytes;
        try {
            fmt::format_to(std::back_inserter(bytes), fmt::runtime(MISFIT_FMT_FORMAT), a.file,
                           a.reason, a.code);
            state.SkipWithError("accepted");
        } catch (const fmt::format_error&) {
            fmt::format_to(std::back_inserter(bytes), fmt::runtime(FMT_FORMAT), a.file, a.reason,
                           a.code);
        }
        benchmark::DoNotOptimize(by_icu(bytes.data(), static_cast<int>(bytes.size())));
    }
}
BENCHMARK(misfit_fmt)->Name("rejected input: message whose format does not fit/fmt, ICU fromUTF8");

/// Deliberate in ours: the whole text is then empty, so that nobody reads half a message.
arguments_t arguments_with_a_bad_byte()
{
    arguments_t a(8);
    a.file += '\xFF';
    return a;
}

void bad_byte_kvutil(benchmark::State& state)
{
    const arguments_t a = arguments_with_a_bad_byte();
    require_agreement(state, rendered_by_kvutil(a).empty());
    for (auto _ : state)
        benchmark::DoNotOptimize(rendered_by_kvutil(a));
}
BENCHMARK(bad_byte_kvutil)->Name("rejected input: message with a byte that is not UTF-8/kvutil");

#ifdef KVUTIL_BENCH_GLIB
gunichar2* strictly_by_glib(const char* bytes, int size)
{
    return g_utf8_to_utf16(bytes, size, nullptr, nullptr, nullptr);
}

void bad_byte_glib(benchmark::State& state)
{
    const arguments_t a = arguments_with_a_bad_byte();
    require_agreement(state, rendered_by_fmt(a, strictly_by_glib) == nullptr);
    for (auto _ : state)
        benchmark::DoNotOptimize(rendered_by_fmt(a, strictly_by_glib));
}
BENCHMARK(bad_byte_glib)
    ->Name("rejected input: message with a byte that is not UTF-8/fmt, g_utf8_to_utf16");
#endif

// ---- Further ---------------------------------------------------------------------------------

/// What an exception does when it takes a message.
void copy_kvutil(benchmark::State& state)
{
    const arguments_t a(64);
    const UMessage message(catalogue, 1, a.file, a.reason, a.code);
    for (auto _ : state)
        benchmark::DoNotOptimize(UMessage(message));
}
BENCHMARK(copy_kvutil)->Name("further, messages and exceptions: copy of a message/kvutil");

void copy_structure(benchmark::State& state)
{
    const arguments_t a(64);
    for (auto _ : state)
        benchmark::DoNotOptimize(arguments_t(a));
}
BENCHMARK(copy_structure)
    ->Name("further, messages and exceptions: copy of a message/structure of std::string");

void naming_kvutil(benchmark::State& state)
{
    const arguments_t a(64);
    for (auto _ : state)
        benchmark::DoNotOptimize(UMessage(catalogue, 1, a.file, a.reason, a.code));
}
BENCHMARK(naming_kvutil)->Name("further, messages and exceptions: naming a message/kvutil");

void naming_structure(benchmark::State& state)
{
    const arguments_t a(64);
    for (auto _ : state)
        benchmark::DoNotOptimize(arguments_t(a));
}
BENCHMARK(naming_structure)
    ->Name("further, messages and exceptions: naming a message/structure of std::string");

}  // namespace
