#pragma once

#include "contest.h"
#include "memory_directory.h"

#include <qmlogger/qmlogger.h>

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

/// Two logs of the same lines: ours, and spdlog's with as much care, which is to hand each line to
/// the system before the call returns.
namespace LogLines {

/// Lines are written to memory: what a disk adds varies more than all the rest.
inline const std::string& directory()
{
    static const memory_directory_t made;
    return made.path;
}

inline std::string our_file()
{
    return directory() + "/ours.log";
}

inline std::string file_of_spdlog()
{
    return directory() + "/spdlog.log";
}

inline Log::QmLogger& our_logger()
{
    static Log::QmLogger* const logger =
        Log::QmLogManager::initialize("ours", directory(), "", 0, "")->logger("Kvl");
    return *logger;
}

inline spdlog::logger& logger_of_spdlog()
{
    static spdlog::logger logger = [] {
        spdlog::logger made("Kvl",
                            std::make_shared<spdlog::sinks::basic_file_sink_mt>(file_of_spdlog()));
        made.set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%Y-%m-%dT%H:%M:%S.%fZ %l %n %P:%t %v", spdlog::pattern_time_type::utc));
        made.flush_on(spdlog::level::trace);
        return made;
    }();
    return logger;
}

inline void empty(const std::string& file)
{
    std::ofstream(file, std::ios::trunc).close();
}

/// Whether the file's only line is what the other log has for that text; only the time differs.
inline bool has_the_line(const std::string& file, const std::string& level, const std::string& text)
{
    std::ifstream in(file);
    std::string time, found_level, logger, ids, rest;
    in >> time >> found_level >> logger >> ids;
    std::getline(in.ignore(), rest, '\0');
    const std::string self = std::to_string(getpid()) + ":" + std::to_string(gettid());
    return time.size() == 27 && found_level == level && logger == "Kvl" && ids == self &&
           rest == text + "\n";
}

/// Times `log`, which writes one line, once it is seen to write the right one. The file would grow
/// by gigabytes, so it begins and ends empty, and a contest has a fixed number of lines.
template <class Write>
void time_lines(benchmark::State& state, const std::string& file, const std::string& level,
                const std::string& text, Write write)
{
    if (state.threads() == 1) {
        empty(file);
        write();
        require_agreement(state, has_the_line(file, level, text));
    }
    for (auto _ : state)
        write();
    if (state.thread_index() == 0)
        empty(file);
}

}  // namespace LogLines
