#ifndef KVUTIL_FUZZ_PROPERTY_H
#define KVUTIL_FUZZ_PROPERTY_H

#include <kvutil/ustring.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

/// What does not hold is a finding.
inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

/// UTF-8 when the input is that, otherwise its bytes two by two: halves of surrogate pairs and all.
inline Kvl::UString text_of(const std::uint8_t* data, std::size_t size)
{
    const Kvl::Utf8String bytes(std::string(reinterpret_cast<const char*>(data), size));
    Kvl::UString text(bytes);
    if (!text.empty())
        return text;
    std::u16string units;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        units += static_cast<char16_t>(data[i] | data[i + 1] << 8);
    return Kvl::UString(units);
}

#endif
