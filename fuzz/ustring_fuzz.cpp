// Bytes decode to what ICU makes of them, or to the empty text where it fails. A text decoded from
// UTF-8 without zeros encodes to the same bytes, and any text from any charset can be searched,
// edited and encoded.
#include <kvutil/ustring.h>

#include <unicode/ustring.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

using Kvl::UString;
using Kvl::Utf8String;

namespace {

void require(bool holds, const char* property)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

std::u16string decoded_by_icu(const std::string& bytes)
{
    std::u16string text(bytes.size() + 1, u'\0');
    std::int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int>(text.size()), &length, bytes.data(),
                  static_cast<int>(bytes.size()), &status);
    text.resize(status == U_ZERO_ERROR ? static_cast<std::size_t>(length) : 0);
    return text;
}

void check_utf8(const std::string& bytes)
{
    const UString text{Utf8String(bytes)};
    const std::u16string wanted = decoded_by_icu(bytes);
    require(text == UString(wanted), "the bytes decode to what ICU makes of them");
    UString reused("an old text that is longer than what fits into the object");
    require(reused.utf8_assign(bytes) == text, "it does not matter what was there before");
    const bool is_well_formed = !text.empty();
    const bool has_zero = wanted.find(u'\0') != std::u16string::npos;
    if (is_well_formed && !has_zero)
        require(text.utf8_str() == bytes, "decoding and encoding gives the same bytes");
    if (has_zero)
        require(text.utf8_str() == bytes.substr(0, bytes.find('\0')), "a zero ends the bytes");
}

void check_charset(const std::string& bytes, const char* charset)
{
    UString text;
    require(text.assign(bytes, charset) == &text, "there is such a charset");
    bool failed = false;
    const std::string out = text.std_str(charset, failed);
    require(text.std_str(charset, failed) == out, "a kept converter gives the same bytes");
    require(UString(text).std_str(charset, failed) == out, "so does one that was idle");
    const std::u16string units(text.getBuffer(), text.length());
    require(UString(units) == text, "units are copied");
    for (unsigned int at = 0; at < text.length(); at += 1 + at / 2) {
        const UString piece = text.substr(at, 5);
        require(text.find(piece, at) == text.indexOf(piece, static_cast<int>(at)),
                "a piece is found where ICU finds it");
        require(UString(text).erase(at, piece.length()).insert(at, piece) == text,
                "to take out and to put back changes nothing");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    check_utf8(bytes);
    // One charset each time, to be quick.
    constexpr std::array CHARSETS = {"ISO-8859-1", "utf-8",       "UTF-16",  "UTF-7",
                                     "Shift_JIS",  "ISO-2022-JP", "GB18030", "SCSU"};
    check_charset(bytes, CHARSETS[size % CHARSETS.size()]);
    return 0;
}
