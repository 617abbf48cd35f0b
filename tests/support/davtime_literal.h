#ifndef KVUTIL_TESTS_SUPPORT_DAVTIME_LITERAL_H
#define KVUTIL_TESTS_SUPPORT_DAVTIME_LITERAL_H

#include <kvutil/ustring.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <optional>
#include <string>

/// Reading and writing times straight from the rules, with the C library's own sscanf(), timegm()
/// and strftime(). Slow on purpose; the library's must give the same on every input.
namespace literal {

inline std::optional<std::tm> scan_iso8601(const std::string& text)
{
    std::tm t{};
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ", &t.tm_year, &t.tm_mon, &t.tm_mday,
                    &t.tm_hour, &t.tm_min, &t.tm_sec) < 6)
        return std::nullopt;
    t.tm_mon -= 1;
    return t;
}

inline std::optional<std::tm> scan_rfc1123(const std::string& text)
{
    static const char* const names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm t{};
    char day[4];
    char month[4];
    if (std::sscanf(text.c_str(), "%3s, %2d %3s %4d %2d:%2d:%2d GMT", day, &t.tm_mday, month,
                    &t.tm_year, &t.tm_hour, &t.tm_min, &t.tm_sec) < 7)
        return std::nullopt;
    const auto name = std::find_if(std::begin(names), std::end(names),
                                   [&](const char* n) { return std::strcmp(n, month) == 0; });
    if (name == std::end(names))
        return std::nullopt;
    t.tm_mon = static_cast<int>(name - names);
    return t;
}

/// @return  nothing when the text is in neither form
inline std::optional<std::time_t> parse_davtime(const Kvl::UString& text)
{
    const std::string utf8 = text.utf8_str();
    if (utf8.size() < 4)
        return std::nullopt;
    std::optional<std::tm> t = utf8[3] == ',' ? scan_rfc1123(utf8) : scan_iso8601(utf8);
    if (!t)
        return std::nullopt;
    t->tm_year -= 1900;
    return timegm(&*t);
}

/// @param t  of a year that an int holds
inline std::string iso8601_text(std::time_t t)
{
    std::tm utc{};
    char text[30];
    gmtime_r(&t, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

/// @param t  of a year that an int holds
inline std::string rfc1123_text(std::time_t t)
{
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm utc{};
    char text[100];
    gmtime_r(&t, &utc);
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[utc.tm_wday],
                  utc.tm_mday, months[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
                  utc.tm_sec);
    return text;
}

}  // namespace literal

#endif
