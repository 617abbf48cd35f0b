// Texts of identifiers: read exactly where sscanf() reads one, with the same fields; what was read
// is written as printf() writes it and comes back from every form; a stream does as the parser
// does.

#include <kvutil/oid.h>
#include <kvutil/stpexception.h>

#include "../tests/support/oid_literal.h"
#include "property.h"

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>

using Kvl::Oid;
using Kvl::UString;
using Kvl::Uuid;

namespace {

std::optional<Uuid> scanned(const std::string& text)
{
    const auto record = literal::scan_uuid(text);
    return record ? std::optional<Uuid>(*record) : std::nullopt;
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
    for (const bool compact : {false, true})
        require(Oid(uuid).std_str(compact) == literal::uuid_text(uuid, compact));
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
    const auto expected = scanned(std::string(word.begin(), word.end()));
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
    const auto expected = scanned(text);
    const auto actual = parsed(text);
    require(actual == expected);
    if (actual)
        check_texts_of(*actual);
    check_stream(text);
    return 0;
}
