#ifndef KVUTIL_FAILURE_IMPL_H
#define KVUTIL_FAILURE_IMPL_H

#include "kvutil_msg_impl.h"

#include <kvutil/stpexception.h>

namespace Kvl {

// The one place where a failure of the library becomes its exception: a message of the library's
// own catalogue, its arguments in the order of the text's conversions, no resource, no cause,
// level 2.
//
// Deliberate: the first three throw on the spot, past STPException::raise, so nothing is logged.

// A throw costs what it unwinds. So the temporaries that make up a message are gone before it, in a
// function that returns the exception, and the throw itself stands in the frame of the caller.

template <class T, class... Args>
[[nodiscard, gnu::noinline]] T failure(kvutil_msg_t message, const Args&... args)
{
    return T(UMessage(kvutil, message, args...));
}

/// A file or system operation failed: reason 39.
template <class... Args>
[[noreturn, gnu::always_inline]] inline void throw_runtime(kvutil_msg_t message,
                                                           const Args&... args)
{
    throw failure<RuntimeException>(message, args...);
}

/// What the caller gave is malformed: reason 39.
template <class... Args>
[[noreturn, gnu::always_inline]] inline void throw_illegal_arg(kvutil_msg_t message,
                                                               const Args&... args)
{
    throw failure<IllegalArgException>(message, args...);
}

/// A rule that the library relies on is broken: reason 39.
template <class... Args>
[[noreturn, gnu::always_inline]] inline void throw_state(kvutil_msg_t message, const Args&... args)
{
    throw failure<StateException>(message, args...);
}

/// As STPException::raise() does it, but for the throw.
template <class... Args>
[[nodiscard, gnu::noinline]] STPException refusal(kvutil_msg_t message, const Args&... args)
{
    constexpr stp_log_level_t AS_ERROR = 2;
    const STPException* const no_cause = nullptr;
    const UMessage m(kvutil, message, args...);
    STPException::log(m, AS_ERROR);
    return STPException(STP_REASON_40, m, nullptr, no_cause, AS_ERROR);
}

/// A refused buffer or temporary object: logged as an error, then an STPException itself with
/// reason 40.
template <class... Args>
[[noreturn, gnu::always_inline]] inline void raise_refusal(kvutil_msg_t message,
                                                           const Args&... args)
{
    throw refusal(message, args...);
}

}  // namespace Kvl

#endif
