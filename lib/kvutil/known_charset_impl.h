#ifndef KVUTIL_KNOWN_CHARSET_IMPL_H
#define KVUTIL_KNOWN_CHARSET_IMPL_H

#include "characters_impl.h"
#include "latin1_impl.h"
#include "used_charset_impl.h"

#include <unicode/ucnv.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace Kvl {

/// The name of a charset, and its first and last eight bytes: to compare those mostly is to compare
/// the names.
struct charset_name_t {
    explicit charset_name_t(std::string_view name) noexcept : text(name)
    {
        if (name.size() >= WORD) {
            first = word_at(0);
            last = word_at(name.size() - WORD);
        } else {
            for (const char c : name)
                first = first << 8 | static_cast<unsigned char>(c);
        }
    }

    bool operator==(const charset_name_t& other) const noexcept
    {
        return first == other.first && last == other.last && text.size() == other.text.size() &&
               (text.size() <= 2 * WORD || text == other.text);
    }

    std::string_view text;
    std::uint64_t first = 0;
    std::uint64_t last = 0;

private:
    static constexpr std::size_t WORD = sizeof(std::uint64_t);
    std::uint64_t word_at(std::size_t at) const noexcept
    {
        std::uint64_t word;
        std::memcpy(&word, text.data() + at, WORD);
        return word;
    }
};

/// What a charset makes of each byte by itself, and of the units that are one byte, as its
/// converter has told once. Most texts need no more, and then no converter either.
class known_charset_t : public used_charset_t {
public:
    /// @param name       short enough, see can_be_known()
    /// @param icu_name   ICU's own name for it, which is short enough too
    /// @param converter  asked now; not kept
    /// @throws std::bad_alloc  no memory for what is learned
    known_charset_t(std::string_view name, std::string_view icu_name, UConverter* converter);
    known_charset_t(const known_charset_t&) = delete;
    known_charset_t& operator=(const known_charset_t&) = delete;

    /// The name that it was asked for by, and behind which there is a zero.
    std::string_view name() const noexcept { return name_.text; }
    const charset_name_t& sought_name() const noexcept { return name_; }
    const char* icu_name() const noexcept { return icu_name_.data(); }

    /// Whether each byte is the unit of the same number.
    bool is_latin1() const noexcept { return last_plain_ == LAST_OF_LATIN1; }

    /// Whether the bytes become as many units, by decode().
    bool can_decode(std::string_view bytes) const noexcept { return has_table_ || is_plain(bytes); }

    /// @param bytes  of which can_decode() holds
    /// @param limit  end of the room behind `to`; what lies between may be overwritten
    void decode(std::string_view bytes, char16_t* to, const char16_t* limit) const noexcept
    {
        return is_latin1() ? widen(bytes, to, limit) : decode_other(bytes, to, limit);
    }

    /// @param to  room for as many units as there are bytes
    /// @return    how many units other bytes become; 0 when only the converter knows
    std::size_t decode_characters(std::string_view bytes, char16_t* to) const noexcept
    {
        return characters_ == nullptr ? 0 : characters_->decode(bytes, to);
    }

    /// @param text  not empty
    /// @param to    room for encoded_room() bytes
    /// @return      how many bytes it becomes; 0 when only the converter knows
    std::size_t encode(std::u16string_view text, char* to) const noexcept
    {
        if (is_latin1())
            return narrow_whole(text, LAST_OF_LATIN1, to) ? text.size() : 0;
        return encode_other(text, to);
    }
    static constexpr std::size_t encoded_room(std::size_t units)
    {
        constexpr std::size_t ROOM_THAT_NARROWING_WANTS = 16;
        return characters_t::MOST_BYTES * units + ROOM_THAT_NARROWING_WANTS;
    }

    /// The same straight into the bytes.
    /// @param text   longer than SHORT
    /// @param bytes  empty, and so afterwards when only the converter knows
    /// @throws std::bad_alloc  no memory for the bytes
    void encode(std::u16string_view text, std::string& bytes) const;

    /// Whether the name is short enough.
    static bool can_be_known(std::string_view name) noexcept
    {
        return !name.empty() && name.size() < NAME_ROOM;
    }

private:
    static constexpr std::size_t NAME_ROOM = UCNV_MAX_CONVERTER_NAME_LENGTH;
    using name_room_t = std::array<char, NAME_ROOM>;
    static constexpr std::size_t PAGES = 8;
    using page_t = std::array<char, 256>;

    void learn_plain(UConverter* converter) noexcept;
    void learn_table(UConverter* converter) noexcept;
    bool put_in_table(char16_t unit, char byte) noexcept;
    bool is_plain(std::string_view bytes) const noexcept
    {
        if (last_plain_ == LAST_OF_ASCII)
            return ascii_at_front(bytes) == bytes.size();
        return first_plain_ <= last_plain_ && are_between(bytes, first_plain_, last_plain_);
    }
    void decode_other(std::string_view bytes, char16_t* to, const char16_t* limit) const noexcept;
    bool encode_each(std::u16string_view text, char* to) const noexcept;
    std::size_t encode_other(std::u16string_view text, char* to) const noexcept;
    bool encode_plain(std::u16string_view text, char* to) const noexcept;
    bool encode_by_table(std::u16string_view text, char* to) const noexcept;

    const name_room_t name_room_;
    const charset_name_t name_;
    const name_room_t icu_name_;
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
    // Of charsets with more than one byte a character, some of them.
    std::unique_ptr<const characters_t> characters_;
};

inline const known_charset_t* used_charset_t::known() const noexcept
{
    return is_known_ ? static_cast<const known_charset_t*>(this) : nullptr;
}

template <std::size_t... at>
bool is_same_name(const char* name, const char* wanted, std::index_sequence<at...>) noexcept
{
    return ((name[at] == wanted[at]) && ...);
}

/// Whether std::strcmp() finds no difference, without the call.
/// @param name  not null
template <std::size_t N>
bool is_same_name(const char* name, const char (&literal)[N]) noexcept
{
    return is_same_name(name, literal, std::make_index_sequence<N>());
}

/// The charset of most bytes, by the very name that most callers give it.
inline constexpr char LATIN1_NAME[] = "ISO-8859-1";
/// What is known of it; null until it was learned. To look it up takes as long as to convert a
/// line.
extern constinit std::atomic<const known_charset_t*> g_latin1;

/// The charset of this name, if it was learned.
/// @param name  not null
/// @return      valid for ever
const known_charset_t* known_charset(const char* name) noexcept;

/// The same of one that is not known yet, see take_charset().
const used_charset_t* open_charset(const char* name);

/// @param name  not null
/// @return      to be given back; null when ICU has none of this name
/// @throws std::bad_alloc there is no memory to open a converter
inline const used_charset_t* take_charset(const char* name)
{
    const known_charset_t* const known = known_charset(name);
    return known != nullptr ? known : open_charset(name);
}

/// Learns it, unless it is known or the name is none that is remembered.
/// @param name       not null
/// @param converter  of this name; in no particular state afterwards
/// @throws std::bad_alloc  no memory to remember it
void learn_charset(const char* name, UConverter* converter);

}  // namespace Kvl

#endif
