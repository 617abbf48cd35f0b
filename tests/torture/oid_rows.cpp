#include "rows.h"
#include "texts.h"

#include <kvutil/oid.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/tbs_version_id.h>

#include <cstring>
#include <sstream>

namespace torture {

using Kvl::Oid;
using Kvl::UString;
using Kvl::Uuid;

namespace {

const Oid OID = Oid::bits{1, 2, 3, 4};
const std::string TEXT = Uuid(OID).std_str(false);
const std::string BAD_TEXT = "no identifier at all, and too long to stand within the object";

void add_texts(rows_t& rows)
{
    static const UString wide{Kvl::Utf8String(OID.std_str(true))};
    static const UString bad_wide{Kvl::Utf8String(BAD_TEXT)};
    rows.add({"Uuid::Uuid(Oid const&)"}, [] { return Uuid(OID) == Uuid(); }).needs_none();
    rows.add({"Uuid::std_str(bool) const"}, [] { return Uuid(OID).std_str(false); });
    rows.add({"Uuid::str(bool) const"}, [] { return Uuid(OID).str(false); });
    rows.add({"Oid::std_str(bool) const"}, [] { return OID.std_str(true); });
    rows.add({"Oid::str(bool) const"}, [] { return OID.str(true); });
    rows.add({"Uuid::from_string(std::string const&)"}, [] { return Uuid::from_string(TEXT); })
        .needs_none();
    rows.add({"Uuid::from_string(std::string const&)"}, [] { return Uuid::from_string(BAD_TEXT); });
    rows.add({"Oid::from_string(std::string const&)"}, [] { return Oid::from_string(BAD_TEXT); });
    rows.add({"Oid::from_string(UString const&)"}, [] { return Oid::from_string(wide); })
        .may_need_none();
    rows.add({"Oid::from_string(UString const&)"}, [] { return Oid::from_string(bad_wide); });
}

}  // namespace

struct oid_reading_t {
    std::wstringstream stream;
    Oid oid;
};

static std::string words(const oid_reading_t& reading)
{
    return words(reading.oid);
}

namespace {

template <class Text>
row_t& add_reading(rows_t& rows, const Text& text)
{
    return rows.add(
        {"operator>>(std::basic_istream<wchar_t>&, Oid&)"},
        [text] {
            return oid_reading_t{std::wstringstream(text), Oid()};
        },
        [](oid_reading_t& reading) {
            reading.stream.clear();
            reading.stream.seekg(0);
            reading.stream >> reading.oid;
            return reading.stream.fail();
        });
}

void add_streams(rows_t& rows)
{
    // A stream keeps to itself what is thrown while it is written to, and is bad().
    rows.add(
            {"operator<<(std::basic_ostream<wchar_t>&, Oid const&)"},
            [] {
                return oid_reading_t{std::wstringstream(), OID};
            },
            [](oid_reading_t& writing) {
                writing.stream.clear();
                return (writing.stream << OID).good();
            })
        .refuses_with("0");
    add_reading(rows, std::wstring(TEXT.begin(), TEXT.end()));
    add_reading(rows, std::wstring(BAD_TEXT.begin(), BAD_TEXT.end())).needs_none();
}

void add_generation(rows_t& rows)
{
    rows.add({"Uuid::gen()"}, [] { return Uuid::gen().is_nil(); }).needs_none();
    rows.add({"Oid::gen()"}, [] { return Oid::gen().is_nil(); }).needs_none();
    rows.add({"brenner_tbs_uuid_gen"},
             [] {
                 tbs_uuid_s uuid{};
                 return brenner_tbs_uuid_gen(&uuid);
             })
        .needs_none();
    rows.add({"brenner_sysutl_my_ieee_hostid", "brenner_sysutl_get_random_bytes"},
             [] {
                 unsigned char bytes[6];
                 return brenner_sysutl_my_ieee_hostid(bytes) * 10 +
                        brenner_sysutl_get_random_bytes(bytes, sizeof bytes);
             })
        .needs_none();
}

void add_version(rows_t& rows)
{
    rows.add({"libkvutil_sprintf_verid"},
             [] {
                 char line[128];
                 return static_cast<std::size_t>(libkvutil_sprintf_verid(line)) - std::strlen(line);
             })
        .needs_none();
    rows.add({"libkvutil_print_verid"}, [] { return libkvutil_print_verid() > 0; }).needs_none();
}

}  // namespace

rows_t oid_rows()
{
    rows_t rows("oid.h, tbs_uuid_gen.h, sysutl_ieee_hostid.h, tbs_version_id.h");
    add_texts(rows);
    add_streams(rows);
    add_generation(rows);
    add_version(rows);
    return rows;
}

}  // namespace torture
