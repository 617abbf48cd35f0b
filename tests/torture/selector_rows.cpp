#include "rows.h"
#include "texts.h"

#include <kvutil/selector.h>

namespace torture {

using Kvl::Selector;
using Kvl::UString;
typedef std::vector<UString> segments_t;

namespace {

const UString NAME(std::u16string(50, u'd') + u"/" + std::u16string(50, u'n'));
const UString REPOSITORY(std::u16string(50, u'r') + u"/" + std::u16string(50, u's'));
const UString TEXT = UString(u"vd.file:") + NAME + UString(u"@") + REPOSITORY;
const UString REJECTED = UString(u"nowhere.file:") + NAME;
const UString ESCAPED(u"%/" + UNITS + u"%@%%" + UNITS);
const UString SEPARATOR(u"/");

/// New each time, because the text forms are kept.
Selector selector()
{
    return Selector(Selector::NS_FILE, Selector::PD_VD, 0, NAME, REPOSITORY);
}

void add_values(rows_t& rows)
{
    static const Selector other(TEXT);
    rows.add({"Selector::Selector()", "Selector::is_nil() const"},
             [] { return Selector().is_nil(); })
        .needs_none();
    rows.add({"Selector::Selector(UString const&)"}, [] { return Selector(TEXT); });
    rows.add({"Selector::Selector(UString const&)"}, [] { return Selector(REJECTED); });
    rows.add(
        {"Selector::Selector(Selector::namespace_t, Selector::provider_domain_t, int, UString "
         "const&, UString const&)"},
        [] { return std::pair(alias_of_units(), alias_of_units()); },
        [](const auto& texts) {
            return Selector(Selector::NS_FILE, Selector::PD_OB, 3, texts.first, texts.second);
        });
    rows.add(
            {"Selector::operator=(Selector const&)"},
            [] {
                Selector s = selector();
                s.selector();
                return s;
            },
            [](Selector& s) { s = other; })
        .may_need_none();
}

void add_texts(rows_t& rows)
{
    rows.add({"Selector::to_string_with_domain() const"}, selector,
             [](const Selector& s) { return s.to_string_with_domain(); });
    rows.add({"Selector::selector() const"}, selector,
             [](const Selector& s) { return s.selector(); });
    rows.add({"Selector::namespace_string(Selector::namespace_t)",
              "Selector::provider_domain_string(Selector::provider_domain_t)"},
             [] {
                 return Selector::namespace_string(Selector::NS_OID).length() +
                        Selector::provider_domain_string(Selector::PD_OB).length();
             })
        .needs_none();
}

void add_relatives(rows_t& rows)
{
    rows.add({"Selector::child(UString const&, Selector::namespace_t) const"}, selector,
             [](const Selector& s) { return s.child(LONG); });
    rows.add({"Selector::parent() const"}, selector, [](const Selector& s) { return s.parent(); });
    rows.add({"Selector::recompose_with_name(UString const&) const"}, selector,
             [](const Selector& s) { return s.recompose_with_name(OTHER); })
        .may_need_none();
}

void add_segments(rows_t& rows)
{
    static const segments_t segments = {LONG, OTHER, LONG};
    rows.add({"Selector::split_segments(UString const&, UString const&)"},
             [] { return Selector::split_segments(NAME, SEPARATOR); });
    rows.add({"Selector::join_segments(std::vector<UString> const&, UString const&, unsigned int, "
              "unsigned int)"},
             [] { return Selector::join_segments(segments, SEPARATOR); });
    rows.add({"Selector::replaceAll(UString const&, UString const&, UString const&)"},
             [] { return Selector::replaceAll(NAME, SEPARATOR, LONG); });
    rows.add({"Selector::encode_segment(UString const&)"},
             [] { return Selector::encode_segment(NAME); });
    rows.add({"Selector::decode_string(UString const&)"},
             [] { return Selector::decode_string(ESCAPED); });
}

}  // namespace

rows_t selector_rows()
{
    rows_t rows("selector.h");
    add_values(rows);
    add_texts(rows);
    add_relatives(rows);
    add_segments(rows);
    return rows;
}

}  // namespace torture
