#include "given_at_once_impl.h"

namespace Kvl {

units_given_t::units_given_t(UConverter* converter, std::string_view bytes) noexcept
{
    UErrorCode status = U_ZERO_ERROR;
    const char* from = bytes.data();
    char16_t* to = units_.data();
    ucnv_reset(converter);
    ucnv_toUnicode(converter, &to, to + units_.size(), &from, from + bytes.size(), nullptr,
                   static_cast<UBool>(false), &status);
    const std::int32_t waiting = ucnv_toUCountPending(converter, &status);
    if (U_FAILURE(status))
        return;
    count_ = to - units_.data();
    waiting_ = waiting;
}

std::uint16_t units_given_t::unit() const noexcept
{
    const char16_t unit = units_[0];
    const bool is_substitute = unit == u'\uFFFD' || unit == u'\u001A';
    return count_ == 1 && waiting_ == 0 && !is_substitute ? unit : std::uint16_t{0};
}

bool units_given_t::is_waiting() const noexcept
{
    return count_ == 0 && waiting_ > 0;
}

bytes_given_t::bytes_given_t(UConverter* converter, std::u16string_view text) noexcept
{
    UErrorCode status = U_ZERO_ERROR;
    const char16_t* from = text.data();
    char* to = bytes_.data();
    ucnv_reset(converter);
    ucnv_fromUnicode(converter, &to, to + bytes_.size(), &from, from + text.size(), nullptr,
                     static_cast<UBool>(false), &status);
    const std::int32_t waiting = ucnv_fromUCountPending(converter, &status);
    if (U_SUCCESS(status) && waiting == 0)
        size_ = static_cast<std::size_t>(to - bytes_.data());
}

}  // namespace Kvl
