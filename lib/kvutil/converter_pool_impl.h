#ifndef KVUTIL_CONVERTER_POOL_IMPL_H
#define KVUTIL_CONVERTER_POOL_IMPL_H

#include "used_charset_impl.h"

#include <kvutil/critsec_lock.h>

#include <unicode/ucnv.h>

#include <string>

namespace Kvl {

/// Held around what opens and closes converters: ICU's table of charsets has a lock of its own that
/// no fork() waits for, and a child that found it taken would wait for ever.
extern const CriticalSectionLock icu_lock;

// An ICU converter and the name it was asked for by. That name is its key in the pool: ICU's own
// name for it leaves out options.
struct charset_converter_t : used_charset_t {
    explicit charset_converter_t(const char* name);
    ~charset_converter_t();
    charset_converter_t(const charset_converter_t&) = delete;
    charset_converter_t& operator=(const charset_converter_t&) = delete;

    const std::string requested_name;
    UErrorCode open_status = U_ZERO_ERROR;
    UConverter* const handle;  // null when ICU has no such converter
    // Whether every conversion starts as the first one did. ICU's compound text is never reset: it
    // goes on in the character set in which the last text ended.
    const bool is_reusable;
};

// Opening a converter costs more than a short conversion, and most strings convert once. So what
// strings no longer need waits here for the next string, a bounded number of them. Both operations
// may be used at exit and after a fork.

/// A converter with its default callbacks, an idle one if there is one of this name. Which state
/// that is in does not matter to ucnv_toUChars() and ucnv_fromUChars(), which reset it first.
/// @param name  not null
/// @return      owned by the caller, who gives it back; null when ICU has none of this name
/// @throws std::bad_alloc there is no memory to open it
const charset_converter_t* take_converter(const char* name);

/// Keeps the converter for others, or closes it, as one that is not reusable.
/// @param converter  not null
void give_back_converter(const charset_converter_t* converter) noexcept;

/// ICU's name for the charset of the platform.
/// @return  ICU's own text; may be null
const char* default_converter_name() noexcept;

}  // namespace Kvl

#endif
