// Selectors from the wire: parsing does what the rules say, a step a line, as far as memory goes; a
// proper selector of the domain vd or ob, printed in full and parsed again, has the same fields;
// walking up ends.
// The input is the failing allocation and the text.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include "../tests/support/selector_literal.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstdint>
#include <string_view>

using Kvl::Selector;
using Kvl::UString;

namespace {

void check_parsing(const UString& text, const literal::outcome_t& expected, unsigned long fault)
{
    has_memory(fault, [&] {
        try {
            require(literal::fields(Selector(text)) == expected);
        } catch (const Kvl::StateException& e) {
            require(!expected.detail.empty());
            const auto& arguments = e.message().arguments();
            require(e.stp_reason_code() == 39 && e.message().index() == 21);
            require(arguments.size() == 2);
        }
    });
}

void check_rejection(const UString& text, const UString& detail)
{
    try {
        const Selector selector(text);
        require(false);
    } catch (const Kvl::StateException& e) {
        const UString start(u"PLXSV0671E The selector '");
        const UString middle(u"' is not valid: ");
        // Deliberate: a text without a form in UTF-8 is left out of the message.
        const UString shown = text.utf8_str().empty() ? UString() : UString(text.utf8_str());
        const UString piece = detail.utf8_str().empty() ? UString() : UString(detail.utf8_str());
        require(e.message().message_string() == start + shown + middle + piece);
    }
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
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const std::string_view rest = input.bytes(size);
    const UString text = text_of(reinterpret_cast<const std::uint8_t*>(rest.data()), rest.size());
    const literal::outcome_t expected = literal::parse(text);
    check_parsing(text, expected, fault);
    if (!expected.detail.empty()) {
        check_rejection(text, expected.detail);
        return 0;
    }
    const Selector selector(text);
    require(literal::fields(selector) == expected);
    check_printing(selector);
    check_walk(selector, size + 4);
    return 0;
}
