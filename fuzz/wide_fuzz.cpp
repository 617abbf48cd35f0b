// Wide texts become the units that they have one by one; a word is read from a stream as the
// standard library reads it, width, flags and all. What memory runs out for is unchanged. The input
// is the failing allocation, the width, and the text: its bytes, and each as a wide character.

#include <kvutil/ustring.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <ios>
#include <sstream>
#include <string>
#include <string_view>

using Kvl::UString;
using Kvl::Utf8String;

namespace {

// ---- The model. ----

std::u16string narrowed(const std::wstring& text)
{
    std::u16string units;
    if (!text.empty())
        units += u'\0';
    for (const wchar_t c : text) {
        const auto value = static_cast<std::uint32_t>(c);
        if (value < 0x10000) {
            units += static_cast<char16_t>(value);
        } else if (value < 0x110000) {
            units += static_cast<char16_t>(0xD800 + (value - 0x10000) / 0x400);
            units += static_cast<char16_t>(0xDC00 + (value - 0x10000) % 0x400);
        }
    }
    return units;
}

std::wstring widened(std::string_view bytes)
{
    static constexpr std::uint32_t odd[] = {0x10000,    0x10FFFF, 0x110000, 0xD800,
                                            0xDC00,     0xFFFF,   0x1F600,  0xFFFFFFFF,
                                            0x80000000, 0x3000,   0x110000, 0x7FFFFFFF};
    std::wstring text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += static_cast<wchar_t>(byte < 128 ? byte : odd[byte % std::size(odd)]);
    }
    return text;
}

bool same(const UString& text, std::u16string_view model)
{
    return std::u16string_view(text.getBuffer(), text.length()) == model;
}

// ---- The library. ----

void check_wide(const std::wstring& wide, unsigned long fault)
{
    const std::u16string expected = narrowed(wide);
    has_memory(fault, [&] { require(same(UString(wide), expected)); });
    require(same(UString(wide), expected));
}

/// What is left of a stream: its state and its width.
template <class Stream>
bool same_rest(const Stream& a, const Stream& b)
{
    return a.rdstate() == b.rdstate() && a.width() == b.width() &&
           const_cast<Stream&>(a).rdbuf()->in_avail() == const_cast<Stream&>(b).rdbuf()->in_avail();
}

std::u16string as_units(const std::string& word)
{
    const UString text{Utf8String(word)};
    return {text.getBuffer(), text.length()};
}

std::u16string as_units(const std::wstring& word)
{
    return narrowed(word);
}

std::u16string as_units(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

/// Whether a target without a word keeps what it had.
template <class Target>
constexpr bool KEEPS_OLD = false;
template <>
constexpr bool KEEPS_OLD<Utf8String> = true;

/// Reads all words of `content` beside the standard library.
template <class Target, class Char>
void check_words(const std::basic_string<Char>& content, std::streamsize width, unsigned long fault)
{
    std::basic_istringstream<Char> stream(content);
    std::basic_istringstream<Char> model(content);
    Target text("old");
    for (int words = 0; words < 4; ++words) {
        const Target before(text);
        stream.width(width);
        model.width(width);
        if (!has_memory(words == 0 ? fault : 0, [&] { stream >> text; })) {
            require(stream.bad() && text == before);
            return;
        }
        std::basic_string<Char> word;
        model >> word;
        require(same_rest(stream, model));
        const bool keeps = KEEPS_OLD<Target> && word.empty();
        require(as_units(text) == (keeps ? as_units(before) : as_units(word)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const std::streamsize width = input.byte() % 16;
    const std::string bytes(input.bytes(size));
    const std::wstring wide = widened(bytes);
    check_wide(wide, fault);
    check_words<Utf8String>(bytes, width, fault);
    check_words<UString>(bytes, width, fault);
    check_words<UString>(wide, width, fault);
    return 0;
}
