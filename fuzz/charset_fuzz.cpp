// Bytes in a charset decode, and texts encode, to what ICU's own converters make of them, whichever
// converter the text keeps from before. What memory runs out for is unchanged.
// The input is a byte for each of two charsets, the failing allocation, and the bytes.

#include <kvutil/ustring.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <unicode/ucnv.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using Kvl::UString;
using Kvl::Utf8String;

namespace {

constexpr const char* CHARSETS[] = {
    "ISO-8859-1", "utf-8",    "UTF-16",     "UTF-7",       "Shift_JIS",   "ISO-2022-JP",
    "GB18030",    "SCSU",     "iso-8859-1", "ISO-2022-KR", "HZ",          "UTF-32",
    "BOCU-1",     "US-ASCII", "UTF-8",      "DEFAULT",     "no such one", "IMAP-mailbox-name",
    "IBM-37"};

// ---- The model: a converter of its own for each charset. ----

const char* known_name(const char* charset)
{
    return std::strcmp(charset, "DEFAULT") == 0 ? ucnv_getDefaultName() : charset;
}

/// @return  null for an unknown charset
UConverter* converter_of(const char* charset)
{
    // Never destroyed: the converters are kept until the process ends.
    static auto& converters = *new std::map<std::string, UConverter*>;
    const auto [place, is_new] = converters.try_emplace(charset, nullptr);
    if (is_new) {
        UErrorCode status = U_ZERO_ERROR;
        place->second = ucnv_open(known_name(charset), &status);
        require((place->second == nullptr) == (U_FAILURE(status) != 0));
    }
    if (place->second != nullptr)
        ucnv_reset(place->second);
    return place->second;
}

bool is_utf8(const char* charset)
{
    return std::strcmp(charset, "UTF-8") == 0;
}

/// @param old  what stays where there is no such charset
std::u16string decoded(const std::string& bytes, const char* charset, const std::u16string& old)
{
    if (bytes.empty())
        return {};
    if (is_utf8(charset)) {
        const UString text{Utf8String(bytes)};
        return {text.getBuffer(), text.length()};
    }
    UConverter* const converter = converter_of(charset);
    if (converter == nullptr)
        return old;
    std::u16string text(16 * bytes.size() + 16, u'\0');
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length =
        ucnv_toUChars(converter, text.data(), static_cast<std::int32_t>(text.size()), bytes.data(),
                      static_cast<std::int32_t>(bytes.size()), &status);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

struct bytes_t {
    std::string bytes;
    bool failed;
    friend bool operator==(const bytes_t&, const bytes_t&) = default;
};

bytes_t encoded(const std::u16string& text, const char* charset)
{
    if (text.empty())
        return {};
    if (is_utf8(charset))
        return {UString(text).utf8_str(), false};
    UConverter* const converter = converter_of(charset);
    if (converter == nullptr)
        return {};
    const auto room = static_cast<std::size_t>(ucnv_getMaxCharSize(converter)) * text.size() + 1;
    std::vector<char> buffer(room + 1, '\0');
    UErrorCode status = U_ZERO_ERROR;
    ucnv_fromUChars(converter, buffer.data(), static_cast<std::int32_t>(room), text.data(),
                    static_cast<std::int32_t>(text.size()), &status);
    return {buffer.data(), status != U_ZERO_ERROR};
}

// ---- The library. ----

std::u16string units_of(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

void check_decoding(UString& text, const std::string& bytes, const char* charset,
                    unsigned long fault)
{
    const std::u16string old = units_of(text);
    const std::u16string expected = decoded(bytes, charset, old);
    const bool is_known = bytes.empty() || is_utf8(charset) || converter_of(charset) != nullptr;
    const bool is_done = has_memory(
        fault, [&] { require(text.assign(bytes, charset) == (is_known ? &text : nullptr)); });
    require(units_of(text) == (is_done ? expected : old));
}

void check_encoding(const UString& text, const char* charset, unsigned long fault)
{
    const bytes_t expected = encoded(units_of(text), charset);
    has_memory(fault, [&] {
        bytes_t result{};
        result.bytes = text.std_str(charset, result.failed);
        require(result == expected);
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const char* const first = CHARSETS[input.byte() % std::size(CHARSETS)];
    const char* const second = CHARSETS[input.byte() % std::size(CHARSETS)];
    const unsigned long fault = fault_of(input);
    const std::string bytes(input.bytes(size));
    UString text(u"old");
    for (const char* const charset : {first, second, first}) {
        check_decoding(text, bytes, charset, fault);
        for (const char* const other : {charset, second})
            check_encoding(text, other, fault);
    }
    // With the memory that was missing.
    check_decoding(text, bytes, first, 0);
    check_encoding(text, first, 0);
    return 0;
}
