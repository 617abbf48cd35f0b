#include <qmlogger/qmlogger.h>

#include "fork_lock_impl.h"
#include "log_line_impl.h"
#include "log_sink_impl.h"
#include "thresholds_impl.h"
#include "uncancelled_impl.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <spdlog/logger.h>
#include <string>
#include <vector>

namespace Log {
namespace {

using FileImpl::log_file;
using ForkImpl::g_manager_lock;
using SinkImpl::log_sink;
using ThresholdsImpl::thresholds_t;

constexpr std::uint64_t BYTES_PER_MEGABYTE = 1024 * 1024;

class file_logger final : public QmLogger {
public:
    file_logger(const std::string& name, int threshold, const std::shared_ptr<log_sink>& sink)
        : name_(name), threshold_(threshold), logger_(LineImpl::escaped_name(name), sink)
    {
        logger_.set_level(spdlog::level::trace);  // the threshold is looked at here
        // spdlog would print to the terminal.
        logger_.set_error_handler([sink](const std::string&) { sink->count_lost(EIO); });
    }

    const std::string& name() const override { return name_; }
    int threshold() const override { return threshold_.load(std::memory_order_relaxed); }
    void set_threshold(int level) override { threshold_.store(level, std::memory_order_relaxed); }

    void info(const std::string& utf8_text, int code) override
    {
        if (threshold() <= 0)
            write(spdlog::level::info, utf8_text, code);
    }
    void warning(const std::string& utf8_text, int code) override
    {
        if (threshold() <= 1)
            write(spdlog::level::warn, utf8_text, code);
    }
    void error(const std::string& utf8_text, int code) override
    {
        if (threshold() <= 2)
            write(spdlog::level::err, utf8_text, code);
    }

private:
    void write(spdlog::level::level_enum level, const std::string& utf8_text, int code)
    {
        logger_.log(spdlog::source_loc{nullptr, code, nullptr}, level,
                    spdlog::string_view_t(utf8_text));
    }

    const std::string name_;
    std::atomic<int> threshold_;
    spdlog::logger logger_;
};

class file_log_manager final : public QmLogManager {
public:
    void flush() override {}  // every line is written at once
    QmLogger* logger(const std::string& name) override;

    /// Moves every logger to a file and to its threshold. The caller holds the manager's lock.
    void use(std::unique_ptr<log_file> file, thresholds_t&& thresholds) noexcept;

    /// A warning about the log itself, whatever the thresholds are.
    void warn(const std::string& text);

private:
    const std::shared_ptr<log_sink> sink_ = std::make_shared<log_sink>();
    spdlog::logger own_logger_{"QmLogger", sink_};
    thresholds_t thresholds_;
    std::map<std::string, std::unique_ptr<file_logger>, std::less<>> loggers_;
};

QmLogger* file_log_manager::logger(const std::string& name)
{
    const std::lock_guard guard(g_manager_lock);
    const auto found = loggers_.find(name);
    if (found != loggers_.end())
        return found->second.get();
    auto made = std::make_unique<file_logger>(name, thresholds_.of(name), sink_);
    return loggers_.emplace(name, std::move(made)).first->second.get();
}

void file_log_manager::use(std::unique_ptr<log_file> file, thresholds_t&& thresholds) noexcept
{
    sink_->use(std::move(file));
    thresholds_ = std::move(thresholds);
    for (auto& [name, logger] : loggers_)
        logger->set_threshold(thresholds_.of(name));
}

void file_log_manager::warn(const std::string& text)
{
    own_logger_.log(spdlog::level::warn, spdlog::string_view_t(text));
}

/// There is one manager. Neither it nor its loggers are ever destroyed, because any of them may be
/// used while the process ends.
alignas(file_log_manager) constinit std::byte g_manager_storage[sizeof(file_log_manager)];
constinit file_log_manager* g_manager = nullptr;

file_log_manager& the_manager()
{
    if (g_manager == nullptr)
        g_manager = ::new (static_cast<void*>(g_manager_storage)) file_log_manager;
    return *g_manager;
}

std::unique_ptr<log_file> open_file(const std::string& program, const std::string& directory,
                                    int max_megabytes)
{
    const auto megabytes = static_cast<std::uint64_t>(std::max(max_megabytes, 0));
    auto file = log_file::open(program, directory, megabytes * BYTES_PER_MEGABYTE);
    return file ? std::make_unique<log_file>(std::move(*file)) : nullptr;
}

std::vector<std::string> complaints_about(const thresholds_t& thresholds)
{
    std::vector<std::string> complaints;
    for (const std::string& entry : thresholds.ignored())
        complaints.push_back("threshold \"" + entry + "\" is not understood and ignored");
    return complaints;
}

}  // namespace

// What can fail comes first.
QmLogManager* QmLogManager::initialize(const std::string& program, const std::string& directory,
                                       const std::string& thresholds, int max_megabytes,
                                       const std::string&)
{
    // Files are closed on the way, which is where a cancelled thread would end.
    const uncancelled_t uncancelled;
    const std::lock_guard guard(g_manager_lock);
    thresholds_t parsed(thresholds);
    const auto complaints = complaints_about(parsed);
    auto file = open_file(program, directory, max_megabytes);
    if (file == nullptr)
        return nullptr;
    file_log_manager& manager = the_manager();
    manager.use(std::move(file), std::move(parsed));
    for (const std::string& complaint : complaints)
        manager.warn(complaint);
    return &manager;
}

}  // namespace Log
