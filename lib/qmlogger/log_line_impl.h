#ifndef QMLOGGER_LOG_LINE_IMPL_H
#define QMLOGGER_LOG_LINE_IMPL_H

#include <chrono>
#include <spdlog/common.h>
#include <string_view>

namespace Log::LineImpl {

/// What a line says; process and thread are the caller's.
struct line_t {
    std::chrono::system_clock::time_point time;
    std::string_view level;
    std::string_view escaped_logger;
    int code = 0;
    std::string_view text;
};

/// Appends a line as docs/log-format.md describes it, its end included.
void append_line(spdlog::memory_buf_t& out, const line_t& line);

/// A logger's name as it stands in a line: one word.
std::string escaped_name(std::string_view name);

}  // namespace Log::LineImpl

#endif
