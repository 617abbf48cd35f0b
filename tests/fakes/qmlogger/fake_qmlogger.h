#ifndef KVUTIL_TESTS_FAKE_QMLOGGER_H
#define KVUTIL_TESTS_FAKE_QMLOGGER_H

#include <qmlogger/qmlogger.h>

#include <functional>
#include <string>

/// What the fake logging library answers. It has the SONAME and the interface of the real one and
/// nothing else, so a library that runs with it needs no more than the interface.
namespace fake_qmlogger {

struct answers_t {
    /// Log::QmMsg::format(catalogue, index, extra); null without an answer.
    std::function<const char*(const char**, int, const char*)> lookup;
    /// Log::QmMsg::format(format, records); null without an answer.
    std::function<const char*(const char*, cxPrintfArgVal*)> fill;
    /// Log::QmLogManager::initialize; null without an answer.
    std::function<Log::QmLogManager*(const std::string& program, const std::string& directory,
                                     const std::string& thresholds, int max_megabytes,
                                     const std::string& reserved)>
        initialize;
};

/// The answers in force; a test sets them and puts them back.
QMLOGGER_EXPORT answers_t& answers();

}  // namespace fake_qmlogger

#endif
