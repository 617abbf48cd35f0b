// Any text as a format, and any text as a catalogue's header. The records are zero, which every
// conversion can read, and as many as the longest format may ask for.

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

std::string filled(const std::string& format)
{
    // A width, a precision and a value for every "%", and the highest record that `n$` names.
    std::vector<cxPrintfArgVal> records(
        std::max(LARGEST_RECORD, 3 * static_cast<std::size_t>(std::ranges::count(format, '%'))));
    // All bytes: an initialisation reaches the first member, which is the shorter one.
    std::memset(records.data(), 0, records.size() * sizeof records[0]);
    return Log::QmMsg::format(format.c_str(), records.data());
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

/// The count of a header, read the plain way; -1 for another form.
long count_of(const std::string& header)
{
    const std::size_t blank = header.find(' ');
    if (blank == 0 || blank == header.npos || blank + 1 == header.size())
        return -1;
    const std::string digits = header.substr(blank + 1);
    if (digits.find_first_not_of("0123456789") != digits.npos)
        return -1;
    const std::size_t significant = digits.find_first_not_of('0');
    if (significant == digits.npos)
        return 0;
    return digits.size() - significant > 4 ? -1
                                           : std::strtol(digits.c_str() + significant, nullptr, 10);
}

void check_header(const std::string& header)
{
    static std::vector<const char*> catalogue(10'001, "text");
    catalogue[0] = header.c_str();
    const long count = count_of(header);
    for (const int index : {-1, 0, 1, 21, 9'999, 10'000}) {
        const char* const text = Log::QmMsg::format(catalogue.data(), index, nullptr);
        require((text != nullptr) == (index >= 1 && index <= count));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    check_format(text);
    check_header(text);
    return 0;
}
