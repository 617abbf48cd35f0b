#ifndef KVUTIL_USTRING_IMPL_H
#define KVUTIL_USTRING_IMPL_H

#include "storage_impl.h"

#include <kvutil/ustring.h>

#include <cstddef>
#include <string_view>

namespace Kvl {

// Inline, because more than a thousand are made while the library is loaded.
inline UString::UString(alias_t, const char16_t* text, int length_units) noexcept
{
    initialize();
    stand_on(*this, {text, static_cast<std::size_t>(length_units)});
}

/// Makes texts that stand on constant storage of the library: nothing is allocated, c_str() only
/// reads, and a copy owns its units. The result is a prvalue, so it is built where it is to live.
struct constant_text_t {
    /// @param text          at least `length_units` units and a U+0000 behind them; outlives the
    ///                      result and everything moved from it
    /// @param length_units  without the terminator, 0..2^31-2
    static UString make(const char16_t* text, int length_units) noexcept
    {
        return UString(UString::alias_t(), text, length_units);
    }

    /// The text of a literal, or of an array whose last unit is U+0000.
    template <std::size_t N>
    static UString make(const char16_t (&literal)[N]) noexcept
    {
        return make(literal, static_cast<int>(N - 1));
    }
};

/// Makes texts of units whose number is known.
struct owned_text_t {
    /// @param units  fewer than 2^31; copied
    /// @throws std::bad_alloc  no memory for the text
    static UString make(std::u16string_view units)
    {
        return UString(UString::room_t(units.size()), units.data());
    }

    /// Spares the copy of units that are only just being made.
    /// @param length_units  fewer than 2^31
    /// @param fill          (char16_t* to): writes so many units without throwing
    /// @throws std::bad_alloc  no memory for the text
    template <class Fill>
    static UString make(std::size_t length_units, Fill fill)
    {
        UString text;
        const unit_room_t room = make_room_in_new(text, length_units);
        fill(room.begin);
        set_length(text, room, length_units);
        return text;
    }

    /// The same for units whose number is known only when they are written.
    /// @param bound  at least so many units as are written
    /// @param write  (char16_t* to): writes without throwing, gives the end of what it wrote
    /// @throws std::bad_alloc  no memory for the text
    template <class Write>
    static UString make_at_most(std::size_t bound, Write write)
    {
        UString text;
        const unit_room_t room = make_room_in_new(text, bound);
        set_length(text, room, static_cast<std::size_t>(write(room.begin) - room.begin));
        return text;
    }
};

/// The units of a text; empty when the text is in ICU's bogus state.
inline std::u16string_view view_of(const UString& text) noexcept
{
    // The base's length is inline.
    const icu::UnicodeString& base = text;
    const char16_t* const units = base.getBuffer();
    return units == nullptr ? std::u16string_view()
                            : std::u16string_view(units, static_cast<std::size_t>(base.length()));
}

}  // namespace Kvl

#endif
