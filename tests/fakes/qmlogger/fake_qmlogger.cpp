#include "fake_qmlogger.h"

namespace fake_qmlogger {

answers_t& answers()
{
    static answers_t answers;
    return answers;
}

}  // namespace fake_qmlogger

namespace Log {

using fake_qmlogger::answers;

const char* QmMsg::format(const char** catalogue, int index, const char* extra)
{
    return answers().lookup ? answers().lookup(catalogue, index, extra) : nullptr;
}

const char* QmMsg::format(const char* format, cxPrintfArgVal* args)
{
    return answers().fill ? answers().fill(format, args) : nullptr;
}

QmLogger::~QmLogger() = default;

bool QmLogger::info_enabled() const
{
    return threshold() <= 0;
}

bool QmLogger::warning_enabled() const
{
    return threshold() <= 1;
}

QmLogManager* QmLogManager::initialize(const std::string& program, const std::string& directory,
                                       const std::string& thresholds, int max_megabytes,
                                       const std::string& reserved)
{
    if (!answers().initialize)
        return nullptr;
    return answers().initialize(program, directory, thresholds, max_megabytes, reserved);
}

QmLogManager::~QmLogManager() = default;

}  // namespace Log
