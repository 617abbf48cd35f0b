#ifndef QMLOGGER_QMLOGGER_H
#define QMLOGGER_QMLOGGER_H

#include <string>
union cxPrintfArgVal {
    long long i;
    long double d;
    const void* p;
};  // one argument record; carries no kind; 16 bytes on x86-64
namespace Log {
using ::cxPrintfArgVal;
class QmMsg {
public:
    static const char* format(const char** catalogue, int index,
                              const char* extra);  // format text, or null; owned by the library
    static const char*
    format(const char* format,
           cxPrintfArgVal* args);  // finished text, valid until this thread's next call
};
class QmLogger {  // operations in slot order, the destructor counted as one
public:
    virtual ~QmLogger();                          // 1st
    virtual const std::string& name() const = 0;  // 2nd
    virtual int threshold() const = 0;            // 3rd  lowest level that is written
    virtual void set_threshold(int level) = 0;    // 4th
    virtual void info(const std::string& utf8_text, int code) = 0;     // 5th  level 0
    virtual bool info_enabled() const;                                 // 6th
    virtual void warning(const std::string& utf8_text, int code) = 0;  // 7th  level 1
    virtual bool warning_enabled() const;                              // 8th
    virtual void error(const std::string& utf8_text, int code) = 0;    // 9th  level 2
};
class QmLogManager {
public:
    static QmLogManager* initialize(const std::string& program, const std::string& directory,
                                    const std::string& thresholds, int max_megabytes,
                                    const std::string& reserved);
    virtual ~QmLogManager();   // 1st
    virtual void flush() = 0;  // 2nd
    virtual QmLogger*
    logger(const std::string& name) = 0;  // 3rd  created on first use, lives as long as the process
};
}  // namespace Log

#endif
