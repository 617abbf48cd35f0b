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

}  // namespace Log
