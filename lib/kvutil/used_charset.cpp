#include "used_charset_impl.h"

#include "converter_pool_impl.h"
#include "known_charset_impl.h"

namespace Kvl {

const charset_converter_t* used_charset_t::converter() const noexcept
{
    return is_known_ ? nullptr : static_cast<const charset_converter_t*>(this);
}

bool used_charset_t::is_for(const char* name) const noexcept
{
    // By its very name it would be taken again.
    if (is_known_)
        return known()->name() == name || ucnv_compareNames(known()->icu_name(), name) == 0;
    if (!converter()->is_reusable)
        return false;
    UErrorCode status = U_ZERO_ERROR;
    const char* const icu_name = ucnv_getName(converter()->handle, &status);
    return U_SUCCESS(status) && ucnv_compareNames(icu_name, name) == 0;
}

const used_charset_t* open_charset(const char* name)
{
    const charset_converter_t* const converter = take_converter(name);
    if (converter == nullptr)
        return nullptr;
    // To open it may have been to learn it.
    const known_charset_t* const known = known_charset(name);
    if (known == nullptr)
        return converter;
    give_back_converter(converter);
    return known;
}

void used_charset_t::give_back_converter() const noexcept
{
    Kvl::give_back_converter(converter());
}

converter_loan_t::converter_loan_t(const used_charset_t& charset)
    : is_mine_(charset.known() != nullptr),
      converter_(is_mine_ ? take_converter(charset.known()->name().data()) : charset.converter())
{
}

converter_loan_t::~converter_loan_t()
{
    if (is_mine_ && converter_ != nullptr)
        give_back_converter(converter_);
}

UConverter* converter_loan_t::handle() const noexcept
{
    return converter_ == nullptr ? nullptr : converter_->handle;
}

}  // namespace Kvl
