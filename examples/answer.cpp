#include "answer.h"

#include "measurement.h"
#include "xml_writer.h"

#include <kvutil/davtime.h>
#include <kvutil/oid.h>
#include <kvutil/selector.h>

#include <ctime>
#include <vector>

namespace WkTag = Kvl::WkTag;
namespace WkTagId = Kvl::WkTagId;
using Kvl::DavTime;
using Kvl::Oid;
using Kvl::Selector;
using Kvl::StateException;
using Kvl::STPException;
using Kvl::UMessage;
using Kvl::UString;
using Kvl::XmlTag;

namespace {

constexpr int SELECTOR_NOT_VALID = 21;  // its index in the catalogue
constexpr Kvl::stp_log_level_t AS_ERROR = 2;
constexpr unsigned int ANSWER_DEPTH = 1;  // within the outermost element

// Deliberate: UString takes malformed UTF-8 as the empty text, so that it must be told apart here.
// The message shows the bytes as ICU's converter reads them, which the name "utf8" selects: only
// "UTF-8" stands for the built-in conversion.
UString decoded(const std::string& bytes)
{
    UString text{Kvl::Utf8String(bytes)};
    if (text.empty() && !bytes.empty()) {
        text.assign(bytes, "utf8");
        StateException::raise(UMessage(kvutil, SELECTOR_NOT_VALID, text, "not well-formed UTF-8"));
    }
    return text;
}

const OperationType parsing(UString(u"parse"), {UString(u"selector")});

Selector parsed(const std::string& text)
{
    Operation operation(parsing, {text});
    operation.set_size(text.size());
    Selector selector(decoded(text));
    operation.succeed();
    return selector;
}

UString href(const Selector& selector)
{
    return selector.to_string_with_domain();
}

// The last segment as a person knows it, that of the repository when there is no name.
UString display_name(const Selector& selector)
{
    std::vector<UString> segments =
        Selector::split_segments(selector.name(), Selector::SEGMENT_SEP);
    if (segments.empty())
        segments = Selector::split_segments(selector.repository(), Selector::SEGMENT_SEP);
    return segments.empty() ? UString() : Selector::decode_string(segments.back());
}

// Empty without a resource type: Id 0 is the nil tag, which has no name.
UString resource_type(const Selector& selector)
{
    return XmlTag::lookup(selector.resource_type())->simple_name();
}

UString ns(const Selector& selector)
{
    return Selector::namespace_string(selector.ns());
}

UString domain(const Selector& selector)
{
    return Selector::provider_domain_string(selector.domain());
}

UString name(const Selector& selector)
{
    return selector.name();
}

// The namespace that addresses a whole repository: as the selector says, otherwise the one that its
// provider keeps such resources in.
Selector::namespace_t repository_namespace(const Selector& selector)
{
    if (selector.ns() == Selector::NS_DBSET || selector.ns() == Selector::NS_USERDB ||
        selector.ns() == Selector::NS_VOB)
        return selector.ns();
    switch (selector.resource_type()) {
    case WkTagId::RES_VOB:
        return Selector::NS_VOB;
    case WkTagId::RES_OB_DBSET:
        return Selector::NS_DBSET;
    case WkTagId::RES_OB_USERDB:
        return Selector::NS_USERDB;
    default:
        return selector.domain() == Selector::PD_OB ? Selector::NS_USERDB : Selector::NS_VOB;
    }
}

UString repository(const Selector& selector)
{
    return href(Selector(repository_namespace(selector), selector.domain(), WkTagId::NIL_TAG,
                         UString(), selector.repository()));
}

UString parent(const Selector& selector)
{
    return href(selector.parent());
}

// A property that is answered for every selector: its name on the wire and how its value is found.
struct property_t {
    const XmlTag& tag;
    UString (*value)(const Selector&);
};

const property_t PROPERTIES[] = {
    {WkTag::TEAM_DISPLAY_NAME, display_name},
    {WkTag::TEAM_RESOURCE_TYPE, resource_type},
    {WkTag::TEAM_NAMESPACE, ns},
    {WkTag::TEAM_DOMAIN, domain},
    {WkTag::TEAM_NAME, name},
    {WkTag::CTG_PARENT_REPOSITORY, repository},
    {WkTag::CTG_NAMING_PARENT, parent},
};

// What the server keeps about an object besides its address. It is new, so it was last modified
// when it was created.
void write_object(XmlWriter& xml, std::optional<bool> is_visible)
{
    const DavTime now(std::time(nullptr));
    xml.element(WkTag::TEAMPVT_OID, Oid::gen().str(false));
    xml.element(WkTag::TEAM_CREATION_DATE, now.to_string(DavTime::ISO8601));
    xml.element(WkTag::TEAM_LAST_MODIFIED, now.to_string(DavTime::RFC1123));
    if (is_visible)
        xml.element(WkTag::CTG_NOT_VISIBLE, UString(*is_visible ? u"false" : u"true"));
}

std::string success(const Selector& selector, std::optional<bool> is_visible)
{
    XmlWriter xml(ANSWER_DEPTH);
    xml.start(WkTag::TEAM_RESPONSE);
    xml.element(WkTag::TEAM_HREF, href(selector));
    xml.start(WkTag::TEAM_PROPSTAT);
    xml.start(WkTag::TEAM_PROP);
    for (const property_t& property : PROPERTIES)
        xml.element(property.tag, property.value(selector));
    write_object(xml, is_visible);
    xml.end(WkTag::TEAM_PROP);
    xml.end(WkTag::TEAM_PROPSTAT);
    xml.end(WkTag::TEAM_RESPONSE);
    return xml.text();
}

std::string failure(const STPException& e)
{
    XmlWriter xml(ANSWER_DEPTH);
    xml.start(WkTag::TEAM_RESPONSE);
    xml.element(WkTag::TEAM_ERROR, e.message().message_string());
    xml.end(WkTag::TEAM_RESPONSE);
    return xml.text();
}

// Not one of the well-known names, so it is registered when it is first used.
const XmlTag& root()
{
    return *XmlTag::lookup(WkTag::TEAM_RESPONSE.ns_id(), UString(u"multistatus"));
}

}  // namespace

answer_t answer(const std::string& selector, std::optional<bool> is_visible)
{
    try {
        return {true, success(parsed(selector), is_visible)};
    } catch (const STPException& e) {
        STPException::log(e.message(), AS_ERROR);
        return {false, failure(e)};
    }
}

std::string opening()
{
    XmlWriter xml;
    xml.start_document(root(), {WkTag::TEAM_RESPONSE.ns_id(), WkTag::CTG_NAMING_PARENT.ns_id(),
                                WkTag::TEAMPVT_OID.ns_id()});
    return xml.text();
}

std::string closing()
{
    XmlWriter xml(ANSWER_DEPTH);
    xml.end(root());
    return xml.text();
}
