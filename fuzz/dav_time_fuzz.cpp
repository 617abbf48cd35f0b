// A text is read as sscanf() and timegm() read it, in any time zone; a time that has been read is
// written as strftime() and printf() write it, and is read back when its year has room in the
// forms.

#include <kvutil/davtime.h>

#include "../tests/support/davtime_literal.h"
#include "property.h"

#include <cstdint>
#include <cstring>
#include <string>

using Kvl::DavTime;
using Kvl::UString;

namespace {

std::time_t parsed(const UString& text)
{
    DavTime time(1);
    time.parse(text);
    return time.value();
}

// From the first second of -999 to the last of 9999.
bool is_read_back(std::time_t t)
{
    return t >= -93692592000 && t <= 253402300799;
}

void check_writing(std::time_t t)
{
    const UString iso = DavTime(t).to_string(DavTime::ISO8601);
    const UString rfc = DavTime(t).to_string(DavTime::RFC1123);
    require(iso.utf8_str() == literal::iso8601_text(t));
    require(rfc.utf8_str() == literal::rfc1123_text(t));
    require(!is_read_back(t) || (parsed(iso) == t && parsed(rfc) == t));
}

/// The input's first bytes as an instant whose year an int holds.
std::time_t instant_of(const std::uint8_t* data, std::size_t size)
{
    std::int64_t t = 0;
    std::memcpy(&t, data, size < sizeof t ? size : sizeof t);
    return t / 256;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const UString text = text_of(data, size);
    const std::time_t t = parsed(text);
    require(t == literal::parse_davtime(text).value_or(0));
    check_writing(t);
    if (size != 0)
        check_writing(instant_of(data, size));
    return 0;
}
