// One log line, from the call until it is in the file, against spdlog with the same line and as
// much care (it flushes each line), and against the one system call that nobody can save. And one
// message with two texts and a number, against the C library.

#include <qmlogger/qmlogger.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

const char* const SELECTOR = "vd.file:/src/lib/main.c@/vobs/proj";
const char* const REASON = "unknown provider domain: file";

/// A directory that is there while the program runs.
class directory_t {
public:
    directory_t()
    {
        std::string pattern = (fs::temp_directory_path() / "qmlogger_bench.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        path = pattern;
    }
    ~directory_t() { fs::remove_all(path); }
    directory_t(const directory_t&) = delete;
    directory_t& operator=(const directory_t&) = delete;

    fs::path path;
};

const directory_t& directory()
{
    static const directory_t directory;
    return directory;
}

std::string text_of_size(std::int64_t size)
{
    std::string text;
    while (text.size() < static_cast<size_t>(size))
        text += "PLXSV0671E The selector 'vd.file' is not valid ";
    text.resize(static_cast<size_t>(size));
    return text;
}

Log::QmLogger& qmlogger()
{
    static Log::QmLogger* const logger =
        Log::QmLogManager::initialize("qmlogger", directory().path, "", 0, "")->logger("Kvl");
    return *logger;
}

spdlog::logger& spdlog_logger()
{
    static spdlog::logger logger = [] {
        spdlog::logger made("Kvl", std::make_shared<spdlog::sinks::basic_file_sink_mt>(
                                       (directory().path / "spdlog.log").string()));
        made.set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%Y-%m-%dT%H:%M:%S.%fZ %l %n %P:%t %v", spdlog::pattern_time_type::utc));
        made.flush_on(spdlog::level::trace);
        return made;
    }();
    return logger;
}

std::string last_line_but_its_time(const std::string& file)
{
    std::ifstream in(directory().path / file);
    std::string last;
    for (std::string line; std::getline(in, line);)
        last = line;
    return last.substr(last.find(' '));
}

/// Ends the program when the two do not write the same line.
const bool peers_agree = [] {
    qmlogger().info(text_of_size(60), 0);
    spdlog_logger().info(text_of_size(60));
    if (last_line_but_its_time("qmlogger.log") != last_line_but_its_time("spdlog.log"))
        std::abort();
    return true;
}();

void line_in_qmlogger(benchmark::State& state)
{
    const std::string text = text_of_size(state.range(0));
    for (auto _ : state)
        qmlogger().info(text, 0);
}
BENCHMARK(line_in_qmlogger)->Arg(8)->Arg(60)->Arg(1024)->Arg(65536);
BENCHMARK(line_in_qmlogger)->Arg(60)->Threads(2)->UseRealTime();

void line_in_spdlog(benchmark::State& state)
{
    const std::string text = text_of_size(state.range(0));
    for (auto _ : state)
        spdlog_logger().info(text);
}
BENCHMARK(line_in_spdlog)->Arg(8)->Arg(60)->Arg(1024)->Arg(65536);
BENCHMARK(line_in_spdlog)->Arg(60)->Threads(2)->UseRealTime();

void line_floor_one_write(benchmark::State& state)
{
    const std::string line = text_of_size(state.range(0) + 53) + "\n";
    const int file =
        open((directory().path / "floor.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    for (auto _ : state)
        if (write(file, line.data(), line.size()) < 0)
            std::abort();
    close(file);
}
BENCHMARK(line_floor_one_write)->Arg(8)->Arg(60)->Arg(1024)->Arg(65536);

void line_with_escapes_in_qmlogger(benchmark::State& state)
{
    std::string text = text_of_size(60);
    text[20] = '\n';
    text += "caf\u00E9\u2028";
    for (auto _ : state)
        qmlogger().info(text, 0);
}
BENCHMARK(line_with_escapes_in_qmlogger);

void level_off_in_qmlogger(benchmark::State& state)
{
    const std::string text = text_of_size(60);
    Log::QmLogger& logger = qmlogger();
    logger.set_threshold(2);
    for (auto _ : state)
        logger.info(text, 0);
    logger.set_threshold(0);
}
BENCHMARK(level_off_in_qmlogger);

void level_off_in_spdlog(benchmark::State& state)
{
    const std::string text = text_of_size(60);
    spdlog::logger& logger = spdlog_logger();
    logger.set_level(spdlog::level::err);
    for (auto _ : state)
        logger.info(text);
    logger.set_level(spdlog::level::trace);
}
BENCHMARK(level_off_in_spdlog);

// -- messages -------------------------------------------------------------------------------------

const char* const FORMAT = "PLXSV0671E The selector '%s' is not valid: %s (%d)";

const char* message_by_qmmsg()
{
    cxPrintfArgVal records[3] = {};
    records[0].p = SELECTOR;
    records[1].p = REASON;
    records[2].i = 39;
    return Log::QmMsg::format(FORMAT, records);
}

std::string message_by_snprintf()
{
    char buffer[512];
    snprintf(buffer, sizeof buffer, "PLXSV0671E The selector '%s' is not valid: %s (%d)", SELECTOR,
             REASON, 39);
    return buffer;
}

const bool messages_agree = [] {
    if (message_by_snprintf() != message_by_qmmsg())
        std::abort();
    return true;
}();

void message_in_qmlogger(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(message_by_qmmsg());
}
BENCHMARK(message_in_qmlogger);

void message_in_snprintf(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(message_by_snprintf());
}
BENCHMARK(message_in_snprintf);

void lookup_in_qmlogger(benchmark::State& state)
{
    const char* catalogue[] = {"kvutil 1", FORMAT};
    for (auto _ : state)
        benchmark::DoNotOptimize(Log::QmMsg::format(catalogue, 1, nullptr));
}
BENCHMARK(lookup_in_qmlogger);

}  // namespace
