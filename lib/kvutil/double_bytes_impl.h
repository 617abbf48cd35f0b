#ifndef KVUTIL_DOUBLE_BYTES_IMPL_H
#define KVUTIL_DOUBLE_BYTES_IMPL_H

#include "characters_impl.h"
#include "learned_pages_impl.h"

namespace Kvl {

/// The characters of one and two bytes of a charset without shifts, like Shift_JIS.
class double_bytes_t final : public characters_t {
public:
    /// Whether the converter always starts a character where one ends, in no state that lasts.
    static bool can_serve(const UConverter* converter) noexcept;

    double_bytes_t(const char* charset, UConverter* converter) noexcept;
    std::size_t decode(std::string_view bytes, char16_t* to) const noexcept override;
    std::size_t encode(std::u16string_view text, char* to) const noexcept override;

private:
    // Of each byte that is a character.
    const learned_pages_t::page_t single_units_;
    // By first byte and second byte.
    const learned_pages_t units_;
    // By high byte and low byte of the unit; one or two bytes, as a number.
    const learned_pages_t bytes_;
};

}  // namespace Kvl

#endif
