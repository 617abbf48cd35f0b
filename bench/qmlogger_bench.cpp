// One log line, from the call until the system has it, against spdlog with the same sink, pattern
// and care. The floor is the one system call that nobody can save. And a message with two texts and
// a number against what prints into a buffer that is kept, as ours is.

#include "log_lines.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace {

using namespace LogLines;

std::string text_of_size(std::size_t size)
{
    std::string text;
    while (text.size() < size)
        text += "PLXSV0671E The selector 'vd.file' is not valid ";
    text.resize(size);
    return text;
}

// ---- Lines ----

void line_kvutil(benchmark::State& state, std::size_t size)
{
    const std::string text = text_of_size(size);
    Log::QmLogger& logger = our_logger();
    time_lines(state, our_file(), "info", text, [&] { logger.info(text, 0); });
}

void line_spdlog(benchmark::State& state, std::size_t size)
{
    const std::string text = text_of_size(size);
    spdlog::logger& logger = logger_of_spdlog();
    time_lines(state, file_of_spdlog(), "info", text, [&] { logger.info(text); });
}

void line_floor(benchmark::State& state, std::size_t size)
{
    constexpr std::size_t BEFORE_TEXT = 52;
    const std::string line = text_of_size(BEFORE_TEXT + size) + "\n";
    const std::string path = directory() + "/floor.log";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0600);
    for (auto _ : state)
        if (write(file, line.data(), line.size()) < 0)
            state.SkipWithError("nothing was written");
    close(file);
    empty(path);
}

#define KVUTIL_LINE(function, contestant)                                                          \
    BENCHMARK_CAPTURE(function, short, 8)                                                          \
        ->Name("log line: 8 bytes/" contestant)                                                    \
        ->Iterations(20'000);                                                                      \
    BENCHMARK_CAPTURE(function, usual, 60)                                                         \
        ->Name("log line: 60 bytes/" contestant)                                                   \
        ->Iterations(20'000);                                                                      \
    BENCHMARK_CAPTURE(function, long, 1024)                                                        \
        ->Name("log line: 1 KiB/" contestant)                                                      \
        ->Iterations(10'000);                                                                      \
    BENCHMARK_CAPTURE(function, huge, 65536)->Name("log line: 64 KiB/" contestant)->Iterations(500)

#define KVUTIL_LINE_OF_TWO_THREADS(function, contestant)                                           \
    BENCHMARK_CAPTURE(function, usual, 60)                                                         \
        ->Name("log line: 60 bytes, 2 threads/" contestant)                                        \
        ->Iterations(20'000)                                                                       \
        ->Threads(2)                                                                               \
        ->UseRealTime()

KVUTIL_LINE(line_kvutil, "kvutil");
KVUTIL_LINE(line_spdlog, "spdlog");
KVUTIL_LINE(line_floor, "floor");
KVUTIL_LINE_OF_TWO_THREADS(line_kvutil, "kvutil");
KVUTIL_LINE_OF_TWO_THREADS(line_spdlog, "spdlog");

/// spdlog writes such a text as it stands, in two lines, so it is no contestant.
void line_with_escapes_kvutil(benchmark::State& state)
{
    std::string text = text_of_size(60);
    text[20] = '\n';
    const std::string escaped = text.substr(0, 20) + "\\n" + text.substr(21);
    time_lines(state, our_file(), "info", escaped, [&] { our_logger().info(text, 0); });
}
BENCHMARK(line_with_escapes_kvutil)
    ->Name("further, locks and log: line of 60 bytes with an escape/kvutil")
    ->Iterations(20'000);

// ---- A level that is off ----

/// Times `log`, which writes nothing.
template <class Write>
void time_no_lines(benchmark::State& state, const std::string& file, Write write)
{
    empty(file);
    write();
    require_agreement(state, std::filesystem::file_size(file) == 0);
    for (auto _ : state)
        write();
}

void level_off_kvutil(benchmark::State& state)
{
    const std::string text = text_of_size(60);
    Log::QmLogger& logger = our_logger();
    logger.set_threshold(2);
    time_no_lines(state, our_file(), [&] { logger.info(text, 0); });
    logger.set_threshold(0);
}
BENCHMARK(level_off_kvutil)->Name("log line: level off/kvutil");

void level_off_spdlog(benchmark::State& state)
{
    const std::string text = text_of_size(60);
    spdlog::logger& logger = logger_of_spdlog();
    logger.set_level(spdlog::level::err);
    time_no_lines(state, file_of_spdlog(), [&] { logger.info(text); });
    logger.set_level(spdlog::level::trace);
}
BENCHMARK(level_off_spdlog)->Name("log line: level off/spdlog");

std::atomic<int> g_threshold = 2;

/// A look at a number, in the place of the call.
void level_off_floor(benchmark::State& state)
{
    for (auto _ : state)
        if (g_threshold.load(std::memory_order_relaxed) <= 0)
            state.SkipWithError("not off");
}
BENCHMARK(level_off_floor)->Name("log line: level off/floor");

/// Whoever would gather a text for nothing asks first.
void asked_first_kvutil(benchmark::State& state)
{
    Log::QmLogger& logger = our_logger();
    logger.set_threshold(2);
    for (auto _ : state)
        if (logger.info_enabled())
            state.SkipWithError("not off");
    logger.set_threshold(0);
}
BENCHMARK(asked_first_kvutil)->Name("further, locks and log: level off, asked first/kvutil");

void asked_first_spdlog(benchmark::State& state)
{
    spdlog::logger& logger = logger_of_spdlog();
    logger.set_level(spdlog::level::err);
    for (auto _ : state)
        if (logger.should_log(spdlog::level::info))
            state.SkipWithError("not off");
    logger.set_level(spdlog::level::trace);
}
BENCHMARK(asked_first_spdlog)->Name("further, locks and log: level off, asked first/spdlog");

// ---- Messages ----

const char* const SELECTOR = "vd.file:/src/lib/main.c@/vobs/proj";
const char* const REASON = "unknown provider domain: file";
const char* const EXPECTED = "PLXSV0671E The selector 'vd.file:/src/lib/main.c@/vobs/proj' is not "
                             "valid: unknown provider domain: file (39)";

/// @param format  makes the text, which is good until it is called again
template <class Format>
void time_message(benchmark::State& state, Format format)
{
    require_agreement(state, std::strcmp(format(), EXPECTED) == 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(format());
}

const char* message_kvutil()
{
    cxPrintfArgVal records[3] = {};
    records[0].p = SELECTOR;
    records[1].p = REASON;
    records[2].i = 39;
    return Log::QmMsg::format("PLXSV0671E The selector '%s' is not valid: %s (%d)", records);
}

const char* message_snprintf()
{
    thread_local char buffer[512];
    snprintf(buffer, sizeof buffer, "PLXSV0671E The selector '%s' is not valid: %s (%d)", SELECTOR,
             REASON, 39);
    return buffer;
}

const char* message_fmt()
{
    thread_local fmt::memory_buffer buffer;
    buffer.clear();
    fmt::format_to(std::back_inserter(buffer),
                   fmt::runtime("PLXSV0671E The selector '{}' is not valid: {} ({})"), SELECTOR,
                   REASON, 39);
    buffer.push_back('\0');
    return buffer.data();
}

#define MESSAGE "further, locks and log: message of 2 texts and a number, in a kept buffer"
BENCHMARK_CAPTURE(time_message, kvutil, message_kvutil)->Name(MESSAGE "/kvutil");
BENCHMARK_CAPTURE(time_message, snprintf, message_snprintf)->Name(MESSAGE "/snprintf");
BENCHMARK_CAPTURE(time_message, fmt, message_fmt)->Name(MESSAGE "/fmt run-time format");

void lookup_kvutil(benchmark::State& state)
{
    const char* catalogue[] = {"kvutil 1", EXPECTED};
    require_agreement(state, Log::QmMsg::format(catalogue, 1, nullptr) == EXPECTED);
    for (auto _ : state)
        benchmark::DoNotOptimize(Log::QmMsg::format(catalogue, 1, nullptr));
}
BENCHMARK(lookup_kvutil)->Name("further, locks and log: text of a message of a catalogue/kvutil");

}  // namespace
