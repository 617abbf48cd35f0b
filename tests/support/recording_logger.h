#ifndef KVUTIL_TESTS_SUPPORT_RECORDING_LOGGER_H
#define KVUTIL_TESTS_SUPPORT_RECORDING_LOGGER_H

#include <kvutil/logadaptor.h>
#include <kvutil/stpexception.h>
#include <qmlogger/qmlogger.h>

#include <string>
#include <vector>

/// One call of a logger: which of its three operations, and both arguments.
struct log_line_t {
    std::string operation, text;
    int code;

    bool operator==(const log_line_t& o) const
    {
        return operation == o.operation && text == o.text && code == o.code;
    }
};

inline void PrintTo(const log_line_t& line, std::ostream* out)
{
    *out << line.operation << "(\"" << line.text << "\", " << line.code << ')';
}

/// Stands in for the library's logger while it lives, with logging enabled, and keeps every line.
class recording_logger : public Log::QmLogger {
public:
    recording_logger()
    {
        Log::LogAdaptor::logger_kvl = this;
        Kvl::STPException::g_logging_enabled = true;
    }

    ~recording_logger() override
    {
        Log::LogAdaptor::logger_kvl = former_logger_;
        Kvl::STPException::g_logging_enabled = was_enabled_;
    }

    recording_logger(const recording_logger&) = delete;
    recording_logger& operator=(const recording_logger&) = delete;

    const std::string& name() const override { return name_; }
    int threshold() const override { return 0; }
    void set_threshold(int) override {}
    void info(const std::string& text, int code) override { lines.push_back({"info", text, code}); }
    void error(const std::string& text, int code) override
    {
        lines.push_back({"error", text, code});
    }
    void warning(const std::string& text, int code) override
    {
        lines.push_back({"warning", text, code});
    }

    std::vector<log_line_t> lines;

private:
    Log::QmLogger* const former_logger_ = Log::LogAdaptor::logger_kvl;
    const bool was_enabled_ = Kvl::STPException::g_logging_enabled;
    const std::string name_ = "recording";
};

#endif
