#include <qmlogger/qmlogger.h>

namespace Log {

QmLogger::~QmLogger() = default;

bool QmLogger::info_enabled() const
{
    return threshold() <= 0;
}

bool QmLogger::warning_enabled() const
{
    return threshold() <= 1;
}

QmLogManager::~QmLogManager() = default;

// TEMPORARY until the log file exists: no log can be opened.
QmLogManager* QmLogManager::initialize(const std::string&, const std::string&, const std::string&,
                                       int, const std::string&)
{
    return nullptr;
}

}  // namespace Log
