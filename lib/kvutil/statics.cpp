// Every object of the library that runs code at load or unload, and nothing else.
// Reading order is construction order; unload runs it backwards.

#include <kvutil/umessage.h>

#include <unicode/uclean.h>

namespace Kvl {

// ICU first, so that a memory fault later on cannot leave it half initialised for good.
[[maybe_unused]] static const bool icu_is_ready = [] {
    UErrorCode status = U_ZERO_ERROR;
    u_init(&status);
    return U_SUCCESS(status) != 0;
}();

// Messages. The argument exists before any code runs, because a failure at load may name it.
constinit const UMessage::Arg UMessage::Arg::nil;
const UMessage UMessage::nil;

}  // namespace Kvl
