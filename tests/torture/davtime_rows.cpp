#include "rows.h"

#include <kvutil/davtime.h>

#include <cstdlib>

namespace torture {

using Kvl::DavTime;

rows_t davtime_rows()
{
    static const Kvl::UString text(u"Sun, 06 Nov 1994 08:49:37 GMT");
    rows_t rows("davtime.h");
    rows.add(
            {"DavTime::parse(UString const&)"}, [] { return DavTime(); },
            [](DavTime& t) { t.parse(text); })
        .needs_none();
    rows.add({"DavTime::to_string(DavTime::Format) const"},
             [] { return DavTime(784111777).to_string(DavTime::RFC1123); });
    rows.add({"DavTime::to_string(DavTime::Format) const"},
             [] { return DavTime(784111777).to_string(DavTime::ISO8601); })
        .may_need_none();
    // Once the zone has been read. The C library reads it when TZ has changed; without memory it
    // then takes UTC, says nothing, and does not read again until TZ changes.
    setenv("TZ", "Asia/Kathmandu", 1);
    DavTime::get_tz_offset(0);
    rows.add({"DavTime::get_tz_offset(long)"}, [] { return DavTime::get_tz_offset(784111777); })
        .needs_none();
    return rows;
}

}  // namespace torture
