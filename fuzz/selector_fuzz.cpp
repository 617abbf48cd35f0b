// Selectors from the wire: parsing does what the rules say, a step a line; a proper selector of the
// domain vd or ob, printed in full and parsed again, has the same fields; walking up ends; escapes
// are those of one replacement a delimiter.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include "../tests/support/selector_literal.h"
#include "property.h"

#include <cstdint>
#include <string>

using Kvl::Selector;
using Kvl::UString;

namespace {

void check_escapes(const UString& text)
{
    const UString encoded = Selector::encode_segment(text);
    require(encoded == literal::encode_segment(text));
    require(Selector::decode_string(text) == literal::decode_string(text));
    const bool comes_back = Selector::decode_string(encoded) == text;
    require(comes_back == (text.find(UString(u"%@@")) < 0));
}

void check_pieces(const UString& text)
{
    const auto pieces = Selector::split_segments(text, Selector::SEGMENT_SEP);
    require(pieces == literal::split_segments(text, Selector::SEGMENT_SEP));
    const UString joined = Selector::join_segments(pieces, Selector::SEGMENT_SEP);
    require(joined.length() <= text.length());
}

void check_printing(const Selector& selector)
{
    const bool is_pseudo = selector.ns() == Selector::NS_DEFAULT ||
                           selector.ns() == Selector::NS_INVALID ||
                           selector.ns() == Selector::NS_NONE;
    require(Selector(selector).selector().empty() == is_pseudo);
    const UString full = Selector(selector).to_string_with_domain();
    if (is_pseudo || selector.domain() > Selector::PD_OB)
        return;
    require(literal::fields(Selector(full)) == literal::fields(selector));
}

// Each step takes at least a segment or a field away.
void check_walk(Selector selector, std::size_t steps)
{
    for (; !selector.is_nil(); --steps) {
        require(steps != 0);
        selector = selector.parent();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const UString text = text_of(data, size);
    check_escapes(text);
    check_pieces(text);
    const literal::outcome_t expected = literal::parse(text);
    try {
        const Selector selector(text);
        require(literal::fields(selector) == expected);
        check_printing(selector);
        check_walk(selector, size + 4);
    } catch (const Kvl::StateException& e) {
        require(!expected.detail.empty());
        const UString whole = e.message().message_string();
        require(whole.find(UString(u"PLXSV0671E The selector '")) == 0);
    }
    return 0;
}
