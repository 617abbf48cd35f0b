// Bytes decode to what a reader of one character at a time makes of them, and ICU too, or to the
// empty text where they are malformed; units encode the same way. What memory runs out for is
// unchanged.
// The input is the failing allocation and the bytes, which are taken for units too.

#include <kvutil/ustring.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <unicode/ustring.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

using Kvl::UString;
using Kvl::Utf8String;

namespace {

// ---- The model: a character at a time. ----

/// The value of the well-formed sequence that `bytes` begins with, and its length.
struct sequence_t {
    char32_t value;
    std::size_t length;
};

std::optional<sequence_t> first_sequence(std::string_view bytes)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const std::size_t length = byte(0) < 0x80   ? 1
                               : byte(0) < 0xC0 ? 0
                               : byte(0) < 0xE0 ? 2
                               : byte(0) < 0xF0 ? 3
                               : byte(0) < 0xF8 ? 4
                                                : 0;
    if (length == 0 || length > bytes.size())
        return std::nullopt;
    static constexpr unsigned char first_bits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    char32_t value = byte(0) & first_bits[length];
    for (std::size_t i = 1; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return std::nullopt;
        value = value << 6 | (byte(i) & 0x3F);
    }
    static constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = value >= 0xD800 && value <= 0xDFFF;
    if (value < smallest[length] || value > 0x10FFFF || is_surrogate)
        return std::nullopt;
    return sequence_t{value, length};
}

std::u16string decoded(std::string_view bytes)
{
    std::u16string text;
    while (!bytes.empty()) {
        const auto sequence = first_sequence(bytes);
        if (!sequence)
            return {};
        if (sequence->value < 0x10000) {
            text += static_cast<char16_t>(sequence->value);
        } else {
            text += static_cast<char16_t>(0xD800 + (sequence->value - 0x10000) / 0x400);
            text += static_cast<char16_t>(0xDC00 + (sequence->value - 0x10000) % 0x400);
        }
        bytes.remove_prefix(sequence->length);
    }
    return text;
}

void append_sequence(std::string& bytes, char32_t value)
{
    const auto continuation = [&](int shift) {
        bytes += static_cast<char>(0x80 | (value >> shift & 0x3F));
    };
    if (value < 0x80) {
        bytes += static_cast<char>(value);
    } else if (value < 0x800) {
        bytes += static_cast<char>(0xC0 | value >> 6);
        continuation(0);
    } else if (value < 0x10000) {
        bytes += static_cast<char>(0xE0 | value >> 12);
        continuation(6);
        continuation(0);
    } else {
        bytes += static_cast<char>(0xF0 | value >> 18);
        continuation(12);
        continuation(6);
        continuation(0);
    }
}

/// Up to the first zero; empty where half of a pair stands alone.
std::string encoded(const std::u16string& text)
{
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t value = text[i];
        if (value >= 0xD800 && value <= 0xDFFF) {
            const char32_t trail = i + 1 < text.size() ? text[i + 1] : 0;
            if (value >= 0xDC00 || trail < 0xDC00 || trail > 0xDFFF)
                return {};
            value = 0x10000 + (value - 0xD800) * 0x400 + (trail - 0xDC00);
            ++i;
        }
        append_sequence(bytes, value);
    }
    return bytes.substr(0, bytes.find('\0'));
}

std::u16string decoded_by_icu(std::string_view bytes)
{
    std::u16string text(bytes.size() + 1, u'\0');
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int>(text.size()), &length, bytes.data(),
                  static_cast<int>(bytes.size()), &status);
    text.resize(status == U_ZERO_ERROR ? static_cast<std::size_t>(length) : 0);
    return text;
}

// ---- The library. ----

bool same(const UString& text, std::u16string_view model)
{
    return std::u16string_view(text.getBuffer(), text.length()) == model;
}

void check_decoding(std::string_view bytes, unsigned long fault)
{
    const Utf8String utf8{std::string(bytes)};
    const std::u16string expected = decoded(bytes);
    require(expected == decoded_by_icu(bytes));
    UString text(u"an old text that is longer than what fits into the object");
    const std::u16string old(text.getBuffer(), text.length());
    const bool is_done = has_memory(fault, [&] { text.utf8_assign(utf8); });
    require(same(text, is_done ? expected : old));
    has_memory(fault, [&] { require(same(UString(utf8), expected)); });
    require(same(UString(utf8), expected));
}

void check_encoding(const std::u16string& units, unsigned long fault)
{
    const UString text(units);
    const std::string expected = encoded(units);
    has_memory(fault, [&] { require(text.utf8_str() == expected); });
    require(text.utf8_str() == expected);
    require(same(text, units));
}

/// The bytes two by two.
std::u16string units_of(std::string_view bytes)
{
    std::u16string units;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        units += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                       static_cast<unsigned char>(bytes[i + 1]) << 8);
    return units;
}

std::string repeated(std::string_view bytes, std::size_t times)
{
    std::string result;
    for (; times != 0; --times)
        result += bytes;
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const std::uint8_t choice = input.byte();
    const unsigned long fault = choice < 16 ? choice % 4 : 0;
    const std::string_view rest = input.bytes(size);
    // Now and then beyond the size that is converted in one piece.
    const std::string bytes = choice % 64 == 63 ? repeated(rest, 64) : std::string(rest);
    check_decoding(bytes, fault);
    check_encoding(decoded(bytes), fault);
    check_encoding(units_of(bytes), fault);
    return 0;
}
