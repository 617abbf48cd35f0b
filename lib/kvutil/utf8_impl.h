#ifndef KVUTIL_UTF8_IMPL_H
#define KVUTIL_UTF8_IMPL_H

#include "latin1_impl.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Kvl {

// Between UTF-8 and UTF-16, with the answers of u_strFromUTF8() and u_strToUTF8(). Each way is a
// pass that checks and measures, so that the result is made once and in its place, and a pass that
// converts what is known to be well-formed. Neither of these allocates or throws.

// The two as calls, for texts of any kind.
std::size_t measured_utf16_length_of(std::string_view bytes) noexcept;
void any_utf8_to_utf16(std::string_view bytes, std::size_t length, char16_t* to,
                       const char16_t* limit) noexcept;

/// @return  the UTF-16 length in units; 0 when the bytes are malformed, as when there are none
inline std::size_t utf16_length_of(std::string_view bytes) noexcept
{
    const bool is_short_ascii = bytes.size() <= SHORT && ascii_at_front(bytes) == bytes.size();
    return is_short_ascii ? bytes.size() : measured_utf16_length_of(bytes);
}

/// @param bytes   well-formed
/// @param length  utf16_length_of(bytes)
/// @param to      room for `length` units
/// @param limit   end of the room; what lies between the text and the limit may be overwritten
inline void utf8_to_utf16(std::string_view bytes, std::size_t length, char16_t* to,
                          const char16_t* limit) noexcept
{
    // Every character that is not ASCII takes fewer units than bytes.
    const bool is_short_ascii = bytes.size() <= SHORT && length == bytes.size();
    return is_short_ascii ? widen(bytes, to, limit) : any_utf8_to_utf16(bytes, length, to, limit);
}

/// @return  the UTF-8 size in bytes; nothing when there is an unpaired surrogate
std::optional<std::size_t> utf8_size_of(std::u16string_view text) noexcept;

/// The room that utf16_to_utf8() wants for so many units, whatever they are.
constexpr std::size_t utf8_room_for(std::size_t units)
{
    return 3 * units + 32;
}

/// @param to        utf8_room_for(text.size()) bytes
/// @param has_zero  set to whether there is a U+0000
/// @return          the end of the bytes; null when there is an unpaired surrogate
char* utf16_to_utf8(std::u16string_view text, char* to, bool& has_zero) noexcept;

/// The text in UTF-8 up to its first U+0000.
/// @return  empty when there is an unpaired surrogate anywhere
/// @throws std::bad_alloc  no memory, or more bytes than ICU's lengths can count
std::string utf8_of(std::u16string_view text);

}  // namespace Kvl

#endif
