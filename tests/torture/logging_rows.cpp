#include "rows.h"
#include "texts.h"

#include "support/scratch.h"

#include <filesystem>
#include <kvutil/logadaptor.h>
#include <qmlogger/qmlogger.h>
#include <sys/stat.h>

namespace torture {

using Log::LogAdaptor;
using Log::QmLogger;
using Log::QmLogManager;

namespace {

const scratch_t& directory()
{
    static const scratch_t made;
    return made;
}

QmLogManager& manager()
{
    return *QmLogManager::initialize("rows", directory().path, "", 0, "");
}

/// A name that has not been asked for.
std::string fresh_name()
{
    static int count = 0;
    return NARROW + std::to_string(1000000 + ++count);
}

QmLogger& the_logger()
{
    return *manager().logger(NARROW);
}

}  // namespace

struct new_logger_t {
    QmLogManager& manager;
    const std::string name;
};

static std::string words(const new_logger_t&)
{
    return "logger";
}

/// A log, and where it ended before the line.
struct log_t {
    QmLogger& logger = the_logger();
    const std::string path = directory() / "rows.log";
    const std::uintmax_t size_before = std::filesystem::file_size(path);

    /// Whether something has been written since. Needs no memory.
    bool has_grown() const
    {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 &&
               static_cast<std::uintmax_t>(status.st_size) > size_before;
    }
};

static std::string words(const log_t&)
{
    return "log";
}

/// Without memory a line is lost, which the next one says.
template <class Write>
static row_t& add_line(rows_t& rows, const char* symbol, Write write)
{
    return rows
        .add(
            {symbol}, [] { return std::make_unique<log_t>(); },
            [write](auto& log) {
                write(log->logger);
                return log->has_grown();
            })
        .refuses_with("0");
}

rows_t logging_rows()
{
    rows_t rows("logadaptor.h, qmlogger.h");
    rows.add({"Log::LogAdaptor::initialize(char const*, char const*, char const*, int)",
              "Log::LogAdaptor::get_log_manager()"},
             [] {
                 LogAdaptor::initialize(NARROW.c_str(), directory().path.c_str(), "Kvl=info,*=1",
                                        1);
                 return LogAdaptor::get_log_manager() != nullptr;
             })
        .only_in_new_processes();
    rows.add({"Log::QmLogManager::initialize(std::string const&, std::string const&, std::string "
              "const&, int, std::string const&)"},
             [] {
                 return QmLogManager::initialize("other", directory().path, "a=info,b=error,c", 1,
                                                 "") != nullptr;
             })
        .and_in_new_processes();
    rows.add(
            {"Log::QmLogManager::logger(std::string const&) [virtual]"},
            [] {
                return new_logger_t{manager(), fresh_name()};
            },
            [](new_logger_t& logger) { return logger.manager.logger(logger.name)->name().size(); })
        .grows();
    static const std::string long_text(1000, 'e');
    static const std::string odd_text(1000, '\1');
    add_line(rows, "Log::QmLogger::info(std::string const&, int) [virtual]", [](QmLogger& logger) {
        logger.info(long_text, 7);
    }).needs_none();
    add_line(rows, "Log::QmLogger::warning(std::string const&, int) [virtual]",
             [](QmLogger& logger) { logger.warning(odd_text, 7); });
    add_line(rows, "Log::QmLogger::error(std::string const&, int) [virtual]",
             [](QmLogger& logger) { logger.error(odd_text, 7); });
    rows.add(
            {"Log::QmLogger::info_enabled() const", "Log::QmLogger::warning_enabled() const"},
            [] { return std::make_unique<log_t>(); },
            [](auto& log) {
                return log->logger.QmLogger::info_enabled() +
                       log->logger.QmLogger::warning_enabled();
            })
        .needs_none();
    return rows;
}

}  // namespace torture
