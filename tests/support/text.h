#ifndef KVUTIL_TESTS_SUPPORT_TEXT_H
#define KVUTIL_TESTS_SUPPORT_TEXT_H

#include <kvutil/ustring.h>

#include <ostream>
#include <string>

/// UTF-8 text as a UString.
inline Kvl::UString ustr(const std::string& utf8)
{
    return Kvl::UString(Kvl::Utf8String(utf8));
}

/// The units of a UString, to compare texts that are not well-formed UTF-16.
inline std::u16string units_of(const Kvl::UString& s)
{
    return std::u16string(s.getBuffer(), s.length());
}

namespace Kvl {
/// Failures show the text, and the units when it is not well-formed UTF-16.
inline void PrintTo(const UString& s, std::ostream* out)
{
    const std::string utf8 = s.utf8_str();
    if (!utf8.empty() || s.empty()) {
        *out << '"' << utf8 << '"';
        return;
    }
    *out << "units" << std::hex;
    for (unsigned int i = 0; i < s.length(); ++i)
        *out << ' ' << s[i];
    *out << std::dec;
}
}  // namespace Kvl

#endif
