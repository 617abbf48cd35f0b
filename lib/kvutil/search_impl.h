#ifndef KVUTIL_SEARCH_IMPL_H
#define KVUTIL_SEARCH_IMPL_H

#include <cstddef>
#include <string_view>

namespace Kvl {

// Searches with the answers of icu::UnicodeString::indexOf(): one half of a surrogate pair is not
// found inside the pair, unless `text` itself cuts the pair.

constexpr std::size_t NOT_FOUND = std::u16string_view::npos;

std::size_t find_unit(std::u16string_view text, char16_t unit) noexcept;

/// @param needle  not empty
std::size_t find_text(std::u16string_view text, std::u16string_view needle) noexcept;

/// The first unit that is in `set`, looking unit by unit.
std::size_t find_unit_of(std::u16string_view text, std::u16string_view set) noexcept;

}  // namespace Kvl

#endif
