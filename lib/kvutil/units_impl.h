#ifndef KVUTIL_UNITS_IMPL_H
#define KVUTIL_UNITS_IMPL_H

#include <unicode/char16ptr.h>

namespace Kvl {

// The one place where text changes between our unit type and ICU's. The two are different types
// for the optimiser, so each change goes through ICU's aliasing barrier.

inline const char16_t* to_char16(const unsigned short* units)
{
    return icu::ConstChar16Ptr(units).get();
}

inline const unsigned short* to_units(const char16_t* text)
{
    return icu::toOldUCharPtr(text);
}

inline unsigned short* to_units(char16_t* text)
{
    return icu::toOldUCharPtr(text);
}

}  // namespace Kvl

#endif
