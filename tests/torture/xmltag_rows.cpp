#include "rows.h"
#include "texts.h"

#include <kvutil/xmltag.h>

namespace torture {

using Kvl::UString;
using Kvl::XmlTag;
using Kvl::XmlTagImpl::IdToTagMap;
typedef XmlTag::Namespace Namespace;

namespace {

const UString URI(u"urn:torture:" + UNITS);
constexpr XmlTag::NsId NO_NAMESPACE = 1000000;

/// A name that is already registered.
const XmlTag& registered()
{
    static const XmlTag* const tag = XmlTag::lookup(XmlTag(URI, UString()).ns_id(), LONG);
    return *tag;
}

XmlTag tag()
{
    return registered();
}

}  // namespace

struct fresh_tag_t {
    XmlTag tag{URI, fresh_text_t().text};
};

static std::string words(const fresh_tag_t& fresh)
{
    return fresh.tag.id() == 0 ? "unregistered" : "registered";
}

/// One of the numbers that no tag has.
struct free_id_t {
    XmlTag::Id id;
};

static std::string words(free_id_t)
{
    return "id";
}

namespace {

free_id_t free_id()
{
    static constexpr XmlTag::Id ids[] = {174, 176, 179, 180, 1024, 1025};
    static std::size_t used = 0;
    return {ids[used++]};
}

// ---- tags ----

void add_tags(rows_t& rows)
{
    rows.add({"XmlTag::XmlTag(UString const&, UString const&)"}, fresh_text,
             [](const fresh_text_t& uri) { return XmlTag(uri.text, LONG).simple_name(); })
        .grows()
        .and_in_new_processes();
    rows.add({"XmlTag::XmlTag(UString const&, UString const&)"},
             [] { return XmlTag(URI, registered().simple_name()); });
    rows.add({"XmlTag::XmlTag(XmlTag const&)"}, [] { return XmlTag(registered()); });
    rows.add({"XmlTag::XmlTag(XmlTag&&)", "XmlTag::operator=(XmlTag&&)"}, tag,
             [](XmlTag& t) {
                 XmlTag moved(std::move(t));
                 t = std::move(moved);
             })
        .needs_none();
    rows.add(
        {"XmlTag::operator=(XmlTag const&)"}, [] { return *XmlTag::lookup(3); },
        [](XmlTag& t) { t = registered(); });
    rows.add({"XmlTag::operator<(XmlTag const&) const", "XmlTag::operator==(XmlTag const&) const",
              "XmlTag::operator!=(XmlTag const&) const"},
             tag,
             [](const XmlTag& t) {
                 return (t < registered()) + (t == registered()) + (t != registered());
             })
        .needs_none();
    rows.add({"XmlTag::to_string() const"}, [] { return registered().to_string(); });
    rows.add({"XmlTag::format(XmlTag::Format, UString const&) const"},
             [] { return registered().format(XmlTag::EMPTY_TAG, LONG); });
    rows.add({"XmlTag::format(XmlTag::Format, UString const&) const"},
             [] { return registered().format(XmlTag::START_TAG); });
    rows.add({"XmlTag::format(XmlTag::Format, int, UString const&)"},
             [] { return XmlTag::format(XmlTag::END_TAG, registered().id(), LONG); });
}

// ---- look-up ----

void add_look_up(rows_t& rows)
{
    rows.add(
            {"XmlTag::lookup(int, UString const&)"}, [] { return fresh_tag_t(); },
            [](const fresh_tag_t& fresh) {
                const UString& name = fresh.tag.simple_name();
                return XmlTag::lookup(fresh.tag.ns_id(), name)->simple_name() == name;
            })
        .grows()
        .and_in_new_processes();
    rows.add(
            {"XmlTag::lookup(XmlTag&)"}, [] { return fresh_tag_t(); },
            [](fresh_tag_t& fresh) {
                return XmlTag::lookup(fresh.tag)->simple_name() == fresh.tag.simple_name();
            })
        .grows();
    rows.add(
        {"XmlTag::lookup(XmlTag&)"}, [] { return XmlTag(*XmlTag::lookup(112)); },
        [](XmlTag& t) { return XmlTag::lookup(t); });
    rows.add({"XmlTag::lookup(int, UString const&)"},
             [] { return XmlTag::lookup(NO_NAMESPACE, LONG); });
    rows.add({"XmlTag::reject(int)"}, [] { return XmlTag::lookup(-1); });
    rows.add({"XmlTag::reject(int)"}, [] { return XmlTag::lookup(917); });
    rows.add({"XmlTag::ns_abbreviation(int)"},
             []() -> const UString& { return XmlTag::ns_abbreviation(NO_NAMESPACE); });
    rows.add({"XmlTag::ns_URI(int)"},
             []() -> const UString& { return XmlTag::ns_URI(NO_NAMESPACE); });
    rows.add({"XmlTag::ns_lookup_abbreviation(UString const&)",
              "XmlTag::is_well_known_namespace(UString const&)"},
             [] {
                 return XmlTag::ns_lookup_abbreviation(LONG) +
                        XmlTag::is_well_known_namespace(LONG);
             })
        .needs_none();
}

// ---- what is used while libraries are loaded ----

void add_registration(rows_t& rows)
{
    static const char16_t* const text = UNITS.c_str();
    rows.add({"XmlTag::XmlTag(int, char16_t const*, int)"}, free_id,
             [](free_id_t free) { return new XmlTag(9, text, free.id); })
        .only_in_new_processes();
    rows.add({"XmlTag::XmlTag(int, unsigned short const*, int)"}, free_id,
             [](free_id_t free) { return new XmlTag(9, units(UNITS), free.id); })
        .only_in_new_processes();
    rows.add({"create(char16_t const*, char16_t const*, int)"}, free_id,
             [](free_id_t free) { return new XmlTag(Kvl::create(u"ACL:", text, free.id)); })
        .only_in_new_processes();
    rows.add({"create(unsigned short const*, unsigned short const*, int)"}, free_id,
             [](free_id_t free) {
                 return new XmlTag(
                     Kvl::create(units(std::u16string(u"OB:")), units(UNITS), free.id));
             })
        .only_in_new_processes();
    rows.add({"XmlTag::XmlTag(int, char16_t const*, int)"}, [] { XmlTag(9, text, 3); });
    rows.add({"XmlTag::create_wk_namespaces()", "sort_namespaces_sorted_wk_tag_vectors()"},
             [] {
                 return XmlTag::create_wk_namespaces()->size() +
                        Kvl::sort_namespaces_sorted_wk_tag_vectors();
             })
        .needs_none();
}

// ---- the parts of the registry ----

}  // namespace

struct map_t {
    IdToTagMap tags;
};

static std::string words(const map_t&)
{
    return "map";
}

namespace {

void add_parts(rows_t& rows)
{
    static const Namespace* const first = XmlTag::g_namespace_array[0];
    static const Namespace* const second = XmlTag::g_namespace_array[1];
    static const XmlTag* const one = XmlTag::lookup(3);
    rows.add({"XmlTag::Namespace::Namespace(UString const&, int, bool, bool)"},
             [] { return Namespace(URI, 7, true, false).id; })
        .needs_none();
    rows.add({"XmlTag::CompareNamespacePtr::operator()(XmlTag::Namespace const*, "
              "XmlTag::Namespace const*) const",
              "XmlTag::CompareNamespacePtr::operator()(XmlTag::Namespace const*, UString const&) "
              "const",
              "XmlTag::CompareNamespacePtr::operator()(UString const&, XmlTag::Namespace const*) "
              "const"},
             [] {
                 const XmlTag::CompareNamespacePtr before;
                 return before(first, second) + before(first, LONG) + before(LONG, first);
             })
        .needs_none();
    rows.add({"XmlTagImpl::CompareXmlTagSimpleName::operator()(XmlTag const*, XmlTag const*) const",
              "XmlTagImpl::CompareXmlTagSimpleName::operator()(XmlTag const*, UString const&) "
              "const",
              "XmlTagImpl::CompareXmlTagSimpleName::operator()(UString const&, XmlTag const*) "
              "const"},
             [] {
                 const Kvl::XmlTagImpl::CompareXmlTagSimpleName before;
                 return before(one, &registered()) + before(one, LONG) + before(LONG, one);
             })
        .needs_none();
    rows.add(
        {"XmlTagImpl::IdToTagMap::operator[](int)"}, [] { return map_t(); },
        [](map_t& map) { return map.tags[XmlTag::NUM_WK_IDS + 1000] == nullptr; });
}

}  // namespace

rows_t xmltag_rows()
{
    rows_t rows("xmltag.h");
    add_tags(rows);
    add_look_up(rows);
    add_registration(rows);
    add_parts(rows);
    return rows;
}

}  // namespace torture
