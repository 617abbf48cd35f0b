// Tags as XML: the pieces that the form says, one behind the other, in a text whose room was
// reserved at once; copies and moves print the same. Memory that runs out changes nothing. The
// input is the failing allocation, the form, the namespace, the Id, the prefix and the name.

#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

using Kvl::UString;
using Kvl::XmlTag;

namespace {

std::u16string units_of(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

/// Few, because a namespace stays. Nothing in it is escaped.
const UString& uri_of(std::uint8_t byte)
{
    static const UString uris[] = {u"",
                                   u"urn:x",
                                   u"DAV:",
                                   u"\"&<>'",
                                   u"http://\x4E2D.example/",
                                   UString(std::u16string(400, u'u'))};
    return uris[byte % std::size(uris)];
}

std::u16string expected_format(XmlTag::Format form, const std::u16string& uri,
                               const std::u16string& name, const std::u16string& prefix)
{
    std::u16string text = form == XmlTag::END_TAG ? u"</" : u"<";
    text += prefix.empty() ? name : prefix + u":" + name;
    if (prefix.empty() && form != XmlTag::END_TAG)
        text += u" xmlns=\"" + uri + u"\"";
    return text + (form == XmlTag::EMPTY_TAG ? u"/>" : u">");
}

void check_tag(const XmlTag& tag, XmlTag::Format form, const UString& prefix, unsigned long fault)
{
    const std::u16string expected =
        expected_format(form, units_of(tag.ns()), units_of(tag.simple_name()), units_of(prefix));
    has_memory(fault, [&] { require(units_of(tag.format(form, prefix)) == expected); });
    require(units_of(tag.format(form, prefix)) == expected);
    const std::u16string path = units_of(tag.ns()) + u"/" + units_of(tag.simple_name());
    has_memory(fault, [&] {
        require(units_of(tag.to_string()) == (tag.id() == 0 ? u"<nil-tag>" : path));
    });
}

void check_copies(const XmlTag& tag, XmlTag::Format form, const UString& prefix,
                  unsigned long fault)
{
    XmlTag copy(u"urn:x", u"old");
    const bool is_done = has_memory(fault, [&] { copy = tag; });
    require(is_done ? copy == tag && copy.id() == tag.id() : copy.simple_name() == UString(u"old"));
    copy = tag;
    const XmlTag moved(std::move(copy));
    check_tag(moved, form, prefix, 0);
}

void check_id(XmlTag::Id id, XmlTag::Format form, const UString& prefix, unsigned long fault)
{
    UString text;
    try {
        if (has_memory(fault, [&] { text = XmlTag::format(form, id, prefix); }))
            require(text == XmlTag::lookup(id)->format(form, prefix));
        check_tag(*XmlTag::lookup(id), form, prefix, fault);
    } catch (const Kvl::StateException& e) {
        require(e.message().index() == 3 && id >= 0 && id < XmlTag::NUM_WK_IDS);
    } catch (const Kvl::IllegalArgException& e) {
        require(e.message().index() == 5 && (id < 0 || id >= XmlTag::NUM_WK_IDS));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const auto form = static_cast<XmlTag::Format>(input.byte() % 3);
    const UString& uri = uri_of(input.byte());
    const XmlTag::Id id = input.byte() + 256 * (input.byte() % 8) - 8;
    const UString prefix(input.units(16));
    const std::string_view rest = input.bytes(size);
    const UString name = text_of(reinterpret_cast<const std::uint8_t*>(rest.data()), rest.size());
    const XmlTag tag(uri, name);
    check_tag(tag, form, prefix, fault);
    check_copies(tag, form, prefix, fault);
    check_id(id, form, prefix, fault);
    return 0;
}
