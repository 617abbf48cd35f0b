#include "rows.h"
#include "texts.h"

#include <kvutil/pname.h>

namespace torture {

using Kvl::Pname;
using Kvl::UString;

namespace {

const UString PATH(u"/" + std::u16string(60, u'd') + u"/" + std::u16string(60, u'f') + u"/");

Pname name()
{
    return Pname(PATH);
}

}  // namespace

rows_t pname_rows()
{
    static const UString alias = alias_of_units();
    static const Pname other(OTHER);
    rows_t rows("pname.h");
    rows.add({"Pname::Pname()", "Pname::Pname(Pname const&)", "Pname::Pname(Pname&&)",
              "Pname::operator=(Pname const&)", "Pname::operator=(Pname&&)", "Pname::path() const"},
             name,
             [](Pname& p) {
                 Pname empty;
                 Pname copy(p);
                 Pname moved(std::move(p));
                 empty = moved;
                 p = other;
                 p = std::move(moved);
                 return copy.path() == p.path();
             })
        .needs_none();
    rows.add({"Pname::Pname(UString const&)"}, [] { return Pname(alias); });
    rows.add({"Pname::operator=(UString const&)"}, name, [](Pname& p) { p = alias; });
    rows.add({"Pname::split_leaf() const"}, name, [](const Pname& p) { p.split_leaf(); });
    rows.add({"Pname::leaf() const"}, name,
             [](const Pname& p) -> const UString& { return p.leaf(); });
    rows.add({"Pname::parent_dir() const"}, name,
             [](const Pname& p) -> const UString& { return p.parent_dir(); });
    rows.add({"Pname::strip_trailing_separator()"}, name,
             [](Pname& p) { p.strip_trailing_separator(); });
    return rows;
}

}  // namespace torture
