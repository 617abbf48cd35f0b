#include "arm_log_impl.h"

#include "platform_text_impl.h"

#include <kvutil/exception.h>
#include <kvutil/logadaptor.h>
#include <qmlogger/qmlogger.h>

#include <exception>
#include <string>

namespace Kvl {
namespace {

UString text_of_current_exception()
{
    try {
        throw;
    } catch (const STPException& e) {
        return e.message().message_string();
    } catch (const Exception& e) {
        return e.msg();
    } catch (const std::exception& e) {
        return platform_text(e.what());
    } catch (...) {
        return UString(u"unknown exception");
    }
}

/// @param text  makes the text, where there is somebody to read it
template <class Text>
void write_made(const char* function, Text text) noexcept
{
    Log::QmLogger* const logger = __atomic_load_n(&Log::LogAdaptor::logger_kvl, __ATOMIC_ACQUIRE);
    if (logger == nullptr)
        return;
    try {
        logger->error(std::string(function) + ": " + text(), 0);
    } catch (...) {  // nobody is left to be told
    }
}

}  // namespace

void ArmLog::write(const char* function, const char* text) noexcept
{
    write_made(function, [text] { return std::string(text); });
}

void ArmLog::write_system_text(const char* function, const char* text) noexcept
{
    write_made(function, [text] { return platform_text(text != nullptr ? text : "").utf8_str(); });
}

void ArmLog::write_current_exception(const char* function) noexcept
{
    write_made(function, [] { return text_of_current_exception().utf8_str(); });
}

}  // namespace Kvl
