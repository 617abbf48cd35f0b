#ifndef KVUTIL_USED_CHARSET_IMPL_H
#define KVUTIL_USED_CHARSET_IMPL_H

#include <unicode/ucnv.h>

namespace Kvl {

struct charset_converter_t;
class known_charset_t;

/// What a string has of the charset that it converted last: a converter of its own, or what the
/// library knows for ever of a charset of this name. Which of the two shows in nothing but time.
class used_charset_t {
public:
    /// @return  null when it is a converter
    const known_charset_t* known() const noexcept;

    /// Whether a string that has this charset keeps it when this name is wanted: ICU's own name for
    /// it decides, which leaves out some options and is compared loosely.
    bool is_for(const char* name) const noexcept;

protected:
    explicit used_charset_t(bool is_known) noexcept : is_known_(is_known) {}
    ~used_charset_t() = default;

private:
    friend class converter_loan_t;
    friend void give_back_charset(const used_charset_t* charset) noexcept;
    const charset_converter_t* converter() const noexcept;
    void give_back_converter() const noexcept;

    const bool is_known_;
};

/// @param charset  not null
inline void give_back_charset(const used_charset_t* charset) noexcept
{
    if (!charset->is_known_)
        charset->give_back_converter();
}

/// The converter of a charset, for one conversion.
class converter_loan_t {
public:
    /// @throws std::bad_alloc there is no memory to open one
    explicit converter_loan_t(const used_charset_t& charset);
    ~converter_loan_t();
    converter_loan_t(const converter_loan_t&) = delete;
    converter_loan_t& operator=(const converter_loan_t&) = delete;

    /// @return  null when ICU had this charset once and now has it no longer
    UConverter* handle() const noexcept;

private:
    const bool is_mine_;
    const charset_converter_t* const converter_;
};

}  // namespace Kvl

#endif
