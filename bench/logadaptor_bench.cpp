// The library's own lines through the adaptor's logger against spdlog with the same sink, pattern
// and care: a message that is formatted and logged, and one that is not because logging is off.
// spdlog is compiled into this program, so that its calls are inline; in qmlogger_bench it is the
// packaged library.

#include "log_lines.h"

#include <kvutil/logadaptor.h>
#include <kvutil/stpexception.h>

#include <filesystem>

namespace {

using namespace LogLines;
using Kvl::STPException;
using Kvl::UMessage;

constexpr Kvl::stp_log_level_t AS_ERROR = 2;

const std::string SELECTOR = "vd.file:/src/lib/main.c@/vobs/proj";
const std::string REASON = "unknown provider domain: file";
const char* g_catalogue[] = {"bench 1", "BENCH0001E The selector '%s' is not valid: %s"};
const char* const FMT_FORMAT = "BENCH0001E The selector '{}' is not valid: {}";
const std::string TEXT = "BENCH0001E The selector '" + SELECTOR + "' is not valid: " + REASON;

/// Opens our log, so that the library has its logger.
void open_log()
{
    [[maybe_unused]] static const bool is_open = [] {
        Log::LogAdaptor::initialize("ours", directory().c_str(), "", 0);
        return true;
    }();
}

// ---- A message ----

void message_kvutil(benchmark::State& state)
{
    open_log();
    STPException::g_logging_enabled = true;
    time_lines(state, our_file(), "error", TEXT,
               [] { STPException::log(UMessage(g_catalogue, 1, SELECTOR, REASON), AS_ERROR); });
    STPException::g_logging_enabled = false;
}
BENCHMARK(message_kvutil)
    ->Name("further, locks and log: message of 2 texts, formatted and logged/kvutil")
    ->Iterations(20'000);

void message_spdlog(benchmark::State& state)
{
    time_lines(state, file_of_spdlog(), "error", TEXT,
               [] { logger_of_spdlog().error(fmt::runtime(FMT_FORMAT), SELECTOR, REASON); });
}
BENCHMARK(message_spdlog)
    ->Name("further, locks and log: message of 2 texts, formatted and logged/spdlog")
    ->Iterations(20'000);

// ---- While nothing is logged ----

/// @param log  writes nothing
template <class Log>
void time_nothing(benchmark::State& state, const std::string& file, Log log)
{
    empty(file);
    log();
    require_agreement(state, std::filesystem::file_size(file) == 0);
    for (auto _ : state)
        log();
}

void disabled_kvutil(benchmark::State& state)
{
    open_log();
    const UMessage message(g_catalogue, 1, SELECTOR, REASON);
    time_nothing(state, our_file(), [&] { STPException::log(message, AS_ERROR); });
}
BENCHMARK(disabled_kvutil)->Name("further, locks and log: logging disabled, a message/kvutil");

void disabled_spdlog(benchmark::State& state)
{
    spdlog::logger& logger = logger_of_spdlog();
    logger.set_level(spdlog::level::off);
    time_nothing(state, file_of_spdlog(),
                 [&] { logger.error(fmt::runtime(FMT_FORMAT), SELECTOR, REASON); });
    logger.set_level(spdlog::level::trace);
}
BENCHMARK(disabled_spdlog)
    ->Name("further, locks and log: logging disabled, a message/spdlog in the program");

void level_off_kvutil(benchmark::State& state)
{
    open_log();
    Log::QmLogger& logger = *Log::LogAdaptor::logger_kvl;
    logger.set_threshold(3);
    time_nothing(state, our_file(), [&] { logger.error(TEXT, 0); });
    logger.set_threshold(0);
}
BENCHMARK(level_off_kvutil)->Name("further, locks and log: level off, a text/kvutil");

void level_off_spdlog(benchmark::State& state)
{
    spdlog::logger& logger = logger_of_spdlog();
    logger.set_level(spdlog::level::off);
    time_nothing(state, file_of_spdlog(), [&] { logger.error(TEXT); });
    logger.set_level(spdlog::level::trace);
}
BENCHMARK(level_off_spdlog)
    ->Name("further, locks and log: level off, a text/spdlog in the program");

}  // namespace
