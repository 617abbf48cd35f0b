#ifndef KVUTIL_KNOWN_CHARSET_IMPL_H
#define KVUTIL_KNOWN_CHARSET_IMPL_H

#include "latin1_impl.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace Kvl {

/// What a charset makes of each byte by itself, and of the units that are one byte, as its
/// converter has told once. Most texts need no more, and then no converter either.
class known_charset_t {
public:
    /// @param name       short enough, see can_be_known()
    /// @param converter  asked now; not kept
    known_charset_t(std::string_view name, UConverter* converter) noexcept;

    std::string_view name() const noexcept { return {name_.data(), name_size_}; }

    /// Whether the bytes become as many units, by decode().
    bool can_decode(std::string_view bytes) const noexcept { return has_table_ || is_plain(bytes); }

    /// @param bytes  of which can_decode() holds
    /// @param limit  end of the room behind `to`; what lies between may be overwritten
    void decode(std::string_view bytes, char16_t* to, const char16_t* limit) const noexcept;

    /// @param bytes  gets what the converter would give
    /// @return       false when only the converter knows
    /// @throws std::bad_alloc  no memory for the bytes
    bool encode(std::u16string_view text, std::string& bytes) const;

    /// Whether the name is short, and without options: of those not all are in the name by which
    /// ICU tells whether a converter is the wanted one.
    static bool can_be_known(std::string_view name) noexcept
    {
        return !name.empty() && name.size() < NAME_ROOM && name.find(',') == name.npos;
    }

private:
    static constexpr std::size_t NAME_ROOM = 48;
    static constexpr std::size_t PAGES = 8;
    using page_t = std::array<char, 256>;

    void learn_plain(UConverter* converter) noexcept;
    void learn_table(UConverter* converter) noexcept;
    bool put_in_table(char16_t unit, char byte) noexcept;
    bool is_plain(std::string_view bytes) const noexcept
    {
        if (last_plain_ == LAST_OF_LATIN1)
            return true;
        if (last_plain_ == LAST_OF_ASCII)
            return ascii_at_front(bytes) == bytes.size();
        return first_plain_ <= last_plain_ && are_between(bytes, first_plain_, last_plain_);
    }
    bool encode_plain(std::u16string_view text, char* to) const noexcept;
    bool encode_by_table(std::u16string_view text, char* to) const noexcept;
    bool encode_into(std::u16string_view text, char* to) const noexcept;

    std::array<char, NAME_ROOM> name_{};
    std::size_t name_size_;
    // The units that are the bytes of the same numbers, whatever stands beside them. None when the
    // first is beyond the last.
    char16_t first_plain_ = 1;
    char16_t last_plain_ = 0;
    bool has_table_ = false;
    // The unit of each byte.
    std::array<char16_t, 256> units_{};
    // The byte of each unit, in pages of 256 units of which the first is empty; zero for none.
    std::array<unsigned char, 256> page_of_{};
    std::size_t pages_ = 1;
    std::array<page_t, PAGES> bytes_{};
};

/// The charset of this name, if it was learned.
/// @param name  null is never known
/// @return      valid for ever
const known_charset_t* known_charset(const char* name) noexcept;

/// Learns it, unless it is known or the name is none that is remembered.
/// @param name       not null
/// @param converter  of this name; in no particular state afterwards
/// @throws std::bad_alloc  no memory to remember it
void learn_charset(const char* name, UConverter* converter);

}  // namespace Kvl

#endif
