#ifndef KVUTIL_SEARCH_IMPL_H
#define KVUTIL_SEARCH_IMPL_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace Kvl {

// Searches with the answers of icu::UnicodeString::indexOf(): one half of a surrogate pair is not
// found inside the pair, unless `text` itself cuts the pair.

constexpr std::size_t NOT_FOUND = std::u16string_view::npos;

std::size_t find_whole_unit(std::u16string_view text, char16_t unit) noexcept;

/// @param needle  not empty
std::size_t find_text(std::u16string_view text, std::u16string_view needle) noexcept;

/// Where the needle stands, left to right and without overlap, in one scan. Behind a match the
/// search goes on as if the text began there.
/// @param text    shorter than 2^32
/// @param needle  not empty
/// @param places  not empty; the first of them get the places found, until there are no more
/// @return        how many
std::size_t find_matches(std::u16string_view text, std::u16string_view needle,
                         std::span<std::uint32_t> places) noexcept;

/// The first unit that is in `set`, looking unit by unit.
std::size_t find_unit_of(std::u16string_view text, std::u16string_view set) noexcept;

}  // namespace Kvl

#endif
