#include "log_sink_impl.h"

#include "fork_lock_impl.h"
#include "log_line_impl.h"
#include "uncancelled_impl.h"

#include <cerrno>
#include <cstring>
#include <mutex>

namespace Log::SinkImpl {
namespace {

using ForkImpl::g_file_lock;
using LineImpl::line_t;
using spdlog::details::log_msg;

std::string_view level_word(spdlog::level::level_enum level)
{
    switch (level) {
    case spdlog::level::info:
        return "info";
    case spdlog::level::warn:
        return "warning";
    default:
        return "error";
    }
}

std::string_view view(spdlog::string_view_t text)
{
    return {text.data(), text.size()};
}

/// The number that a logger was given travels where spdlog keeps the line of the source.
line_t line_of(const log_msg& message)
{
    return {message.time, level_word(message.level), view(message.logger_name), message.source.line,
            view(message.payload)};
}

}  // namespace

void log_sink::use(std::unique_ptr<FileImpl::log_file> file) noexcept
{
    const std::lock_guard guard(g_file_lock);
    file_.swap(file);
}

void log_sink::log(const log_msg& message) noexcept
{
    const uncancelled_t uncancelled;
    const int errno_of_caller = errno;
    try {
        write(message);
    } catch (...) {  // no memory for a long line
        count_lost(ENOMEM);
    }
    errno = errno_of_caller;
}

void log_sink::count_lost(int error) noexcept
{
    const std::lock_guard guard(g_file_lock);
    count_lost_locked(error);
}

void log_sink::count_lost_locked(int error) noexcept
{
    ++lost_lines_;
    lost_error_ = error;
}

void log_sink::write(const log_msg& message)
{
    spdlog::memory_buf_t memory;
    const LineImpl::pieces_t line = LineImpl::pieces_of(line_of(message), memory);
    const std::lock_guard guard(g_file_lock);
    int error = lost_lines_ == 0 ? 0 : report_lost(message.time);
    if (error == 0)
        error = file_->append(line, message.time);
    if (error != 0)
        count_lost_locked(error);
}

int log_sink::report_lost(std::chrono::system_clock::time_point now)
{
    const char* const name = strerrorname_np(lost_error_);
    const std::string text = std::to_string(lost_lines_) + " lines lost: " +
                             (name != nullptr ? name : std::to_string(lost_error_));
    spdlog::memory_buf_t memory;
    const line_t line = {now, level_word(spdlog::level::warn), "QmLogger", 0, text};
    const int error = file_->append(LineImpl::pieces_of(line, memory), now);
    if (error == 0)
        lost_lines_ = 0;
    return error;
}

}  // namespace Log::SinkImpl
