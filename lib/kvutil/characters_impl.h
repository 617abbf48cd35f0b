#ifndef KVUTIL_CHARACTERS_IMPL_H
#define KVUTIL_CHARACTERS_IMPL_H

#include <unicode/ucnv.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace Kvl {

/// What a charset makes of each character by itself, as far as that is the same in every text. To
/// look it up takes a fraction of what the converter takes for a text. Nothing here throws.
/// @par Thread-safety
/// May be used at once.
class characters_t {
public:
    /// No charset's most_bytes() are more.
    static constexpr std::size_t MOST_BYTES = 8;

    virtual ~characters_t() = default;
    characters_t(const characters_t&) = delete;
    characters_t& operator=(const characters_t&) = delete;

    /// @param to  room for as many units as there are bytes
    /// @return    how many units there are; 0 when only the converter knows
    virtual std::size_t decode(std::string_view bytes, char16_t* to) const noexcept = 0;

    /// @param to  room for most_bytes() for each unit
    /// @return    how many bytes there are; 0 when only the converter knows
    virtual std::size_t encode(std::u16string_view text, char* to) const noexcept = 0;
    std::size_t most_bytes() const noexcept { return most_bytes_; }

protected:
    explicit characters_t(std::size_t most_bytes) noexcept : most_bytes_(most_bytes) {}

private:
    const std::size_t most_bytes_;
};

/// @param charset    the name of it, for converters to learn from; outlives the result
/// @param converter  asked now; not kept
/// @return           null when the charset is of no kind for which this is done
/// @throws std::bad_alloc  no memory
std::unique_ptr<const characters_t> characters_of(const char* charset, UConverter* converter);

}  // namespace Kvl

#endif
