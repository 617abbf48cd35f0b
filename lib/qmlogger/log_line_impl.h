#ifndef QMLOGGER_LOG_LINE_IMPL_H
#define QMLOGGER_LOG_LINE_IMPL_H

#include <array>
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

/// What is written in one go, one piece behind the other. A piece may be empty.
typedef std::array<std::string_view, 3> pieces_t;

/// A line as docs/log-format.md describes it, its end included. A long text that stands in the line
/// as it is, is not copied.
/// @param memory  holds what is not in `line`
pieces_t pieces_of(const line_t& line, spdlog::memory_buf_t& memory);

/// A logger's name as it stands in a line: one word.
std::string escaped_name(std::string_view name);

}  // namespace Log::LineImpl

#endif
