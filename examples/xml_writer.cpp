#include "xml_writer.h"

#include <cstddef>

using Kvl::UString;
using Kvl::XmlTag;

namespace {

constexpr unsigned short REPLACEMENT = 0xFFFD;

// Deliberate: CR is a reference too, because a reader would turn a plain one into LF.
const char16_t* text_reference(unsigned short unit)
{
    switch (unit) {
    case u'&':
        return u"&amp;";
    case u'<':
        return u"&lt;";
    case u'>':
        return u"&gt;";
    case u'\r':
        return u"&#13;";
    default:
        return nullptr;
    }
}

const char16_t* attribute_reference(unsigned short unit)
{
    switch (unit) {
    case u'"':
        return u"&quot;";
    case u'\t':
        return u"&#9;";
    case u'\n':
        return u"&#10;";
    default:
        return text_reference(unit);
    }
}

bool is_surrogate(unsigned short unit)
{
    return (unit & 0xF800) == 0xD800;
}

bool is_pair(const unsigned short* units, std::ptrdiff_t length)
{
    return length >= 2 && (units[0] & 0xFC00) == 0xD800 && (units[1] & 0xFC00) == 0xDC00;
}

bool is_xml_character(unsigned short unit)
{
    if (unit < 0x20)
        return unit == u'\t' || unit == u'\n' || unit == u'\r';
    return !is_surrogate(unit) && unit < 0xFFFE;
}

UString escaped(const UString& text, const char16_t* (*reference)(unsigned short))
{
    std::u16string result;
    result.reserve(text.length());
    const unsigned short* const end = text.c_str() + text.length();
    for (const unsigned short* unit = text.c_str(); unit != end; ++unit) {
        if (is_pair(unit, end - unit)) {
            result += *unit;
            result += *++unit;
        } else if (const char16_t* const markup = reference(*unit)) {
            result += markup;
        } else {
            result += is_xml_character(*unit) ? *unit : REPLACEMENT;
        }
    }
    return UString(result);
}

// Without its colon: XmlTag::format() writes one.
UString prefix(XmlTag::NsId ns)
{
    const UString& abbreviation = XmlTag::ns_abbreviation(ns);
    return abbreviation.substr(0, abbreviation.length() - 1);
}

UString markup(const XmlTag& tag, XmlTag::Format format)
{
    return tag.format(format, prefix(tag.ns_id()));
}

UString declaration(XmlTag::NsId ns)
{
    return UString(u" xmlns:") + prefix(ns) + UString(u"=\"") + xml_attribute(XmlTag::ns_URI(ns)) +
           UString(u"\"");
}

}  // namespace

UString xml_text(const UString& text)
{
    return escaped(text, text_reference);
}

UString xml_attribute(const UString& text)
{
    return escaped(text, attribute_reference);
}

void XmlWriter::start_document(const XmlTag& root, const std::vector<XmlTag::NsId>& namespaces)
{
    line(UString(u"<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
    UString tag = markup(root, XmlTag::START_TAG);
    for (const XmlTag::NsId ns : namespaces)
        tag.insert(tag.length() - 1, declaration(ns));
    line(tag);
    ++depth_;
}

void XmlWriter::start(const XmlTag& tag)
{
    line(markup(tag, XmlTag::START_TAG));
    ++depth_;
}

void XmlWriter::end(const XmlTag& tag)
{
    --depth_;
    line(markup(tag, XmlTag::END_TAG));
}

void XmlWriter::element(const XmlTag& tag, const UString& text)
{
    if (text.empty())
        line(markup(tag, XmlTag::EMPTY_TAG));
    else
        line(markup(tag, XmlTag::START_TAG) + xml_text(text) + markup(tag, XmlTag::END_TAG));
}

void XmlWriter::line(const UString& markup)
{
    text_.append(2 * depth_, ' ').append(markup.utf8_str()) += '\n';
}
