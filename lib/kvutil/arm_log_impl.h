#ifndef KVUTIL_ARM_LOG_IMPL_H
#define KVUTIL_ARM_LOG_IMPL_H

/// What the measurement has to say, which returns codes and throws nothing: a line in the library's
/// logger, when there is one, `<function>: <text>`, as an error. A line for which there is no
/// memory is lost.
namespace Kvl::ArmLog {

/// @param function  that reports it, with its class
/// @param text      ASCII
void write(const char* function, const char* text) noexcept;

/// The same for what the system says, in the platform's charset.
/// @param function  that reports it, with its class
/// @param text      the system's; null is the empty text
void write_system_text(const char* function, const char* text) noexcept;

/// The same for the exception that is being handled.
/// @param function  that reports it, with its class
void write_current_exception(const char* function) noexcept;

}  // namespace Kvl::ArmLog

#endif
