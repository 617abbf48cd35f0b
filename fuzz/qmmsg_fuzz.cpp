// Any text as a format. The records are zero, which every conversion can read, and as many as the
// longest format may ask for.

#include <qmlogger/qmlogger.h>

#include "property.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::size_t LARGEST_RECORD = 4096;

/// So many at least, which stay zero. Kept, because to make them takes longer than to use them.
cxPrintfArgVal* zero_records(std::size_t count)
{
    static std::vector<cxPrintfArgVal> records;
    if (records.size() >= count)
        return records.data();
    records.resize(count);
    // All bytes: an initialisation reaches the first member, which is the shorter one.
    std::memset(records.data(), 0, count * sizeof records[0]);
    return records.data();
}

std::string filled(const std::string& format)
{
    // A width, a precision and a value for every "%", and the highest record that `n$` names.
    const auto percents = static_cast<std::size_t>(std::ranges::count(format, '%'));
    return Log::QmMsg::format(format.c_str(), zero_records(std::max(LARGEST_RECORD, 3 * percents)));
}

std::string doubled_percents(const std::string& text)
{
    std::string result;
    for (const char c : text)
        result += c == '%' ? std::string("%%") : std::string(1, c);
    return result;
}

void check_format(const std::string& format)
{
    const std::string result = filled(format);
    require(result == filled(format));
    require(result == Log::QmMsg::format(format.c_str(), nullptr));
    require(filled(doubled_percents(format)) == format);
    if (format.find('%') == format.npos)
        require(result == format);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    check_format(text);
    return 0;
}
