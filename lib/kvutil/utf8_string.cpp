#include "latin1_impl.h"
#include "utf8_impl.h"

#include <array>
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <unicode/utf16.h>

namespace Kvl {

namespace {

// Texts that are not ASCII are converted piece by piece on the stack, so that the bytes are made
// once and to measure.
constexpr std::size_t PIECE = 1024;

// A text of one piece.
std::string short_utf8(std::u16string_view text)
{
    std::array<char, utf8_room_for(PIECE)> buffer;
    bool has_zero = false;
    const char* const end = utf16_to_utf8(text, buffer.data(), has_zero);
    if (end == nullptr)
        return {};
    const auto size = static_cast<std::size_t>(end - buffer.data());
    return std::string(buffer.data(), has_zero ? std::strlen(buffer.data()) : size);
}

// The first units of a longer text, as long as they are ASCII, straight into the bytes: long texts
// cost little more than their memory then.
// @return  how many units
std::size_t put_ascii(std::u16string_view text, std::string& bytes)
{
    narrowed_t ascii{};
    bytes.resize_and_overwrite(text.size(), [&](char* to, std::size_t) {
        ascii = narrow(text, LAST_OF_ASCII, to);
        return ascii.has_zero ? std::strlen(to) : ascii.units;
    });
    return ascii.units;
}

std::u16string_view first_piece(std::u16string_view text)
{
    const bool cuts_pair = text.size() > PIECE && U16_IS_LEAD(text[PIECE - 1]);
    return text.substr(0, cuts_pair ? PIECE - 1 : PIECE);
}

// Room for `text` behind the bytes.
void reserve_for(std::u16string_view text, std::string& bytes)
{
    const std::size_t size = bytes.size() + utf8_size_of(text).value_or(0);
    if (size > INT_MAX)
        throw std::bad_alloc();
    bytes.reserve(size);
}

// @return  false when there is an unpaired surrogate
bool append_pieces(std::u16string_view text, std::string& bytes)
{
    std::array<char, utf8_room_for(PIECE)> buffer;
    while (!text.empty()) {
        const std::u16string_view piece = first_piece(text);
        bool has_zero = false;
        const char* const end = utf16_to_utf8(piece, buffer.data(), has_zero);
        if (end == nullptr)
            return false;
        text.remove_prefix(piece.size());
        if (has_zero) {
            bytes.append(buffer.data());
            return utf8_size_of(text).has_value();
        }
        bytes.append(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
    }
    return true;
}

std::string long_utf8(std::u16string_view text)
{
    std::string bytes;
    const std::size_t ascii = put_ascii(text, bytes);
    const bool has_zero = bytes.size() != ascii;
    text.remove_prefix(ascii);
    if (text.empty())
        return bytes;
    if (has_zero)
        return utf8_size_of(text) ? bytes : std::string();
    reserve_for(text, bytes);
    return append_pieces(text, bytes) ? bytes : std::string();
}

}  // namespace

// Deliberate: a U+0000 ends the bytes, though the text behind it is looked at.
std::string utf8_of(std::u16string_view text)
{
    return text.size() <= PIECE ? short_utf8(text) : long_utf8(text);
}

}  // namespace Kvl
