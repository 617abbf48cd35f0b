// Segments: splitting, joining, replacing, escaping and its inverse are what the rules say, a step
// a line; escaping is also what one look at each unit makes of it. Memory that runs out changes
// nothing. The input is the failing allocation, the separator, two texts to replace with each
// other, the place and number of the segments to join, and the text.

#include <kvutil/selector.h>

#include "../tests/support/selector_literal.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using Kvl::Selector;
using Kvl::UString;

namespace {

typedef std::vector<UString> segments_t;

/// Each delimiter behind a "%", but a pair of at-signs as it is.
UString escaped(const UString& text)
{
    std::u16string result;
    for (unsigned int i = 0; i < text.length(); ++i) {
        const char16_t unit = text[i];
        const bool is_pair = unit == '@' && i + 1 < text.length() && text[i + 1] == '@';
        if (is_pair)
            ++i;
        else if (std::u16string_view(u"%:@/\\").find(unit) != std::u16string_view::npos)
            result += u'%';
        result.append(is_pair ? 2 : 1, unit);
    }
    return UString(result);
}

void check_escapes(const UString& text, unsigned long fault)
{
    const UString encoded = literal::encode_segment(text);
    const UString decoded = literal::decode_string(text);
    require(encoded == escaped(text));
    has_memory(fault, [&] { require(Selector::encode_segment(text) == encoded); });
    has_memory(fault, [&] { require(Selector::decode_string(text) == decoded); });
    require(Selector::encode_segment(text) == encoded && Selector::decode_string(text) == decoded);
    const bool comes_back = Selector::decode_string(encoded) == text;
    require(comes_back == (text.find(UString(u"%@@")) < 0));
}

UString joined(const segments_t& segments, const UString& separator, std::size_t start,
               std::size_t count)
{
    std::u16string result;
    for (std::size_t i = start; i < segments.size() && i - start < count; ++i) {
        if (i != start)
            result.append(separator.getBuffer(), separator.length());
        result.append(segments[i].getBuffer(), segments[i].length());
    }
    return UString(result);
}

segments_t check_splitting(const UString& text, const UString& separator, unsigned long fault)
{
    const segments_t expected = literal::split_segments(text, separator);
    has_memory(fault, [&] { require(Selector::split_segments(text, separator) == expected); });
    require(Selector::split_segments(text, separator) == expected);
    return expected;
}

void check_joining(const segments_t& segments, const UString& separator, unsigned int start,
                   unsigned int count, unsigned long fault)
{
    const UString expected = joined(segments, separator, start, count);
    has_memory(fault, [&] {
        require(Selector::join_segments(segments, separator, start, count) == expected);
    });
    require(Selector::join_segments(segments, separator, start, count) == expected);
    require(Selector::join_segments(segments, separator) ==
            joined(segments, separator, 0, segments.size()));
}

void check_replacing(const UString& text, const UString& from, const UString& to,
                     unsigned long fault)
{
    const UString expected = literal::replace_all(text, from, to);
    has_memory(fault, [&] { require(Selector::replaceAll(text, from, to) == expected); });
    require(Selector::replaceAll(text, from, to) == expected);
}

/// Small, or beyond all segments.
unsigned int number_of(input_t& input)
{
    const std::uint8_t byte = input.byte();
    return byte < 250 ? byte % 8 : UString::npos - (byte - 250u);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const UString separator(input.units(3));
    const UString from(input.units(3));
    const UString to(input.units(5));
    const unsigned int start = number_of(input);
    const unsigned int count = number_of(input);
    const std::string_view rest = input.bytes(size);
    const UString text = text_of(reinterpret_cast<const std::uint8_t*>(rest.data()), rest.size());

    check_escapes(text, fault);
    check_splitting(text, Selector::SEGMENT_SEP, fault);
    const segments_t segments = check_splitting(text, separator, fault);
    check_joining(segments, separator, start, count, fault);
    check_replacing(text, from, to, fault);
    return 0;
}
