#ifndef QMLOGGER_LOG_SINK_IMPL_H
#define QMLOGGER_LOG_SINK_IMPL_H

#include "log_file_impl.h"

#include <cstdint>
#include <memory>
#include <spdlog/sinks/sink.h>
#include <string>

namespace Log::SinkImpl {

/// Where the lines of all loggers go: the process's one log file. A line is in the file when log()
/// returns, so nothing is lost with a crash and a fork() finds nothing to be written twice.
///
/// log() lets nothing escape: a line that cannot be written is counted, and the first one that can
/// be written again is preceded by a line that says how many are missing.
class log_sink : public spdlog::sinks::sink {
public:
    /// Lines go to `file` from now on.
    void use(std::unique_ptr<FileImpl::log_file> file) noexcept;

    void log(const spdlog::details::log_msg& message) noexcept override;

    /// Counts a line that did not get here. @param error  as errno
    void count_lost(int error) noexcept;

    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

private:
    void write(const spdlog::details::log_msg& message);
    int report_lost(std::chrono::system_clock::time_point now);
    void count_lost_locked(int error) noexcept;

    std::unique_ptr<FileImpl::log_file> file_;
    std::uint64_t lost_lines_ = 0;
    int lost_error_ = 0;
};

}  // namespace Log::SinkImpl

#endif
