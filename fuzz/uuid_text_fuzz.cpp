// Texts of identifiers: read exactly where sscanf() reads one, with the same fields; what was read
// comes back from every form that is written; a stream does as the parser does.

#include <kvutil/oid.h>
#include <kvutil/stpexception.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>

using Kvl::Oid;
using Kvl::UString;
using Kvl::Uuid;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

std::optional<Uuid> scanned(const char* text)
{
    static const char* const FORMATS[] = {
        "%08x.%04hx%04hx.%02hx%02hx.%02hx:%02hx:%02hx:%02hx:%02hx:%02hx",
        "%08x-%04hx-%04hx-%02hx%02hx-%02hx%02hx%02hx%02hx%02hx%02hx",
        "%08x%04hx%04hx%02hx%02hx%02hx%02hx%02hx%02hx%02hx%02hx"};
    for (const char* const format : FORMATS) {
        unsigned int low = 0;
        unsigned short v[10] = {};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int count = std::sscanf(text, format, &low, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
                                      &v[6], &v[7], &v[8], &v[9]);
#pragma GCC diagnostic pop
        const auto byte = [&](int i) { return static_cast<unsigned char>(v[i]); };
        if (count == 11)
            return tbs_uuid_s{low,     v[0],
                              v[1],    byte(2),
                              byte(3), {byte(4), byte(5), byte(6), byte(7), byte(8), byte(9)}};
    }
    return std::nullopt;
}

std::optional<Uuid> parsed(const std::string& text)
{
    try {
        return Uuid::from_string(text);
    } catch (const Kvl::IllegalArgException&) {
        return std::nullopt;
    }
}

std::string hyphenated(const Uuid& uuid)
{
    std::string text = uuid.std_str(true);
    for (const std::size_t at : {20u, 16u, 12u, 8u})
        text.insert(at, 1, '-');
    return text;
}

void check_texts_of(const Uuid& uuid)
{
    require(Uuid::from_string(uuid.std_str(false)) == uuid);
    require(Uuid::from_string(uuid.std_str(true)) == uuid);
    require(Uuid::from_string(hyphenated(uuid)) == uuid);
    require(Oid::from_string(uuid.str(false)).uuid() == uuid);
    require(Oid::from_string(uuid.str(true)).uuid() == uuid);
    require(Oid(uuid).std_str(false).size() == 40 && Oid(uuid).std_str(true).size() == 32);
}

// A word of ASCII is the same text for a stream, but for the blanks that end it.
void check_stream(const std::string& text)
{
    const std::wstring wide(text.begin(), text.end());
    std::wistringstream words(wide);
    std::wstring word;
    words >> word;
    for (const wchar_t c : word)
        if (c <= 0 || c > 0x7F)
            return;
    const auto expected = scanned(std::string(word.begin(), word.end()).c_str());
    std::wistringstream is(wide);
    const Oid::bits before = {1, 2, 3, 4};
    Oid oid(before);
    require(static_cast<bool>(is >> oid) == expected.has_value());
    require(oid == (expected ? Oid(*expected) : Oid(before)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto expected = scanned(text.c_str());
    const auto actual = parsed(text);
    require(actual == expected);
    if (actual)
        check_texts_of(*actual);
    check_stream(text);
    return 0;
}
