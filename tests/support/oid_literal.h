#ifndef KVUTIL_TESTS_SUPPORT_OID_LITERAL_H
#define KVUTIL_TESTS_SUPPORT_OID_LITERAL_H

#include <kvutil/tbs_uuid_gen.h>

#include <cstdio>
#include <optional>
#include <string>

/// Reading and writing identifiers straight from the rules, with the C library's own sscanf() and
/// snprintf(). Slow on purpose; the library's must give the same on every input.
namespace literal {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/// @return  nothing when the text is in none of the forms
inline std::optional<tbs_uuid_s> scan_uuid(const std::string& text)
{
    static const char* const formats[] = {
        "%08x.%04hx%04hx.%02hx%02hx.%02hx:%02hx:%02hx:%02hx:%02hx:%02hx",
        "%08x-%04hx-%04hx-%02hx%02hx-%02hx%02hx%02hx%02hx%02hx%02hx",
        "%08x%04hx%04hx%02hx%02hx%02hx%02hx%02hx%02hx%02hx%02hx"};
    for (const char* const format : formats) {
        unsigned int low = 0;
        unsigned short v[10] = {};
        const int count = std::sscanf(text.c_str(), format, &low, &v[0], &v[1], &v[2], &v[3], &v[4],
                                      &v[5], &v[6], &v[7], &v[8], &v[9]);
        const auto byte = [&](int i) { return static_cast<unsigned char>(v[i]); };
        if (count == 11)
            return tbs_uuid_s{low,     v[0],
                              v[1],    byte(2),
                              byte(3), {byte(4), byte(5), byte(6), byte(7), byte(8), byte(9)}};
    }
    return std::nullopt;
}

inline std::string uuid_text(const tbs_uuid_s& s, bool compact)
{
    const char* const format = compact ? "%08x%04hx%04hx%02x%02x%02x%02x%02x%02x%02x%02x"
                                       : "%08x.%04hx%04hx.%02x%02x.%02x:%02x:%02x:%02x:%02x:%02x";
    char text[64];
    std::snprintf(text, sizeof text, format, s.time_low, s.time_mid, s.time_hi_and_version,
                  s.clock_seq_hi_and_reserved, s.clock_seq_low, s.node[0], s.node[1], s.node[2],
                  s.node[3], s.node[4], s.node[5]);
    return text;
}

#pragma GCC diagnostic pop

}  // namespace literal

#endif
