#ifndef KVUTIL_ESCAPED_BYTES_IMPL_H
#define KVUTIL_ESCAPED_BYTES_IMPL_H

#include "characters_impl.h"
#include "learned_pages_impl.h"

namespace Kvl {

/// The printing ASCII characters and those of JIS X 0208 in a charset that changes between the two
/// by the escape sequences of ISO-2022-JP.
/// @see RFC 1468
class escaped_bytes_t final : public characters_t {
public:
    /// Whether the converter knows the escape sequences and changes by them.
    static bool can_serve(UConverter* converter) noexcept;

    escaped_bytes_t(const char* charset, const UConverter* converter) noexcept;
    std::size_t decode(std::string_view bytes, char16_t* to) const noexcept override;
    std::size_t encode(std::u16string_view text, char* to) const noexcept override;

private:
    char16_t* decode_pairs(std::string_view& bytes, char16_t* to) const noexcept;

    // For each unit the room that ICU is given.
    const std::size_t icu_room_;
    // By first byte and second byte.
    const learned_pages_t units_;
    // By high byte and low byte of the unit; the two bytes as a number.
    const learned_pages_t bytes_;
};

}  // namespace Kvl

#endif
