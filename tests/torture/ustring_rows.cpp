#include "rows.h"
#include "texts.h"

#include <sstream>

namespace torture {

using Kvl::UString;
using Kvl::Utf8String;

namespace {

void add_constructors(rows_t& rows)
{
    rows.add({"UString::UString(char)"}, [] { return UString('c').length(); }).needs_none();
    rows.add({"UString::UString(UString const&)"}, [] { return UString(LONG); }).needs_none();
    rows.add({"UString::UString(UString const&)"}, alias_of_units,
             [](const UString& s) { return UString(s); });
    rows.add({"UString::UString(UString&&)", "UString::operator=(UString&&)",
              "UString::swap(UString&)", "UString::clear()"},
             own_text,
             [](UString& s) {
                 UString moved(std::move(s));
                 s = std::move(moved);
                 s.swap(moved);
                 moved.swap(s);
                 s.clear();
             })
        .needs_none();
    rows.add({"UString::UString(unsigned short const*)"}, [] { return UString(units(UNITS)); });
    rows.add({"UString::UString(char16_t const*)"}, [] { return UString(UNITS.c_str()); });
    rows.add({"UString::UString(Utf8String const&)"}, utf8_text,
             [](const Utf8String& u) { return UString(u); });
    rows.add({"UString::UString(char const*, char const*)"},
             [] { return UString(NARROW.c_str(), "ISO-8859-2"); })
        .and_in_new_processes();
    rows.add(
        {"UString::UString(std::basic_string<unsigned short> const&)"},
        [] { return std::basic_string<unsigned short>(100, u'u'); },
        [](const auto& s) { return UString(s); });
    rows.add({"UString::UString(std::basic_string<char16_t> const&)"},
             [] { return UString(UNITS); });
    rows.add(
        {"UString::UString(std::basic_string<wchar_t> const&)"},
        [] { return std::wstring(100, L'\U0001F600'); }, [](const auto& w) { return UString(w); });
}

/// Once for a text of its own, once for one that shares its units.
template <class Change>
void add_change(rows_t& rows, const char* symbol, Change change)
{
    rows.add({symbol}, own_text, change);
    rows.add({symbol}, shared_text, change);
}

void add_changes(rows_t& rows)
{
    add_change(rows, "UString::operator+=(UString const&)", [](UString& s) { s += OTHER; });
    add_change(rows, "UString::operator+=(unsigned short)", [](UString& s) { s += u'x'; });
    add_change(rows, "UString::append(unsigned short)", [](UString& s) { s.append(u'x'); });
    add_change(rows, "UString::append(unsigned short const*)",
               [](UString& s) { s.append(units(UNITS)); });
    add_change(rows, "UString::append(UString const&)", [](UString& s) { s.append(s); });
    add_change(rows, "UString::insert(unsigned int, unsigned short)",
               [](UString& s) { s.insert(3, u'x'); });
    add_change(rows, "UString::insert(unsigned int, unsigned short const*)",
               [](UString& s) { s.insert(3, units(UNITS)); });
    add_change(rows, "UString::insert(unsigned int, UString const&)",
               [](UString& s) { s.insert(3, s); });
    add_change(rows, "UString::replace(unsigned int, unsigned int, unsigned short const*)",
               [](UString& s) { s.replace(3, 2, s.c_str() + 1); });
    add_change(rows, "UString::replace(unsigned int, unsigned int, UString const&)",
               [](UString& s) { s.replace(3, 2, OTHER); });
    add_change(rows, "UString::reserve(unsigned int)", [](UString& s) { s.reserve(1000); });
}

/// What needs memory only because the units belong to another text, too.
void add_changes_of_shared_text(rows_t& rows)
{
    rows.add({"UString::set_at(unsigned int, unsigned short)"}, shared_text,
             [](UString& s) { s.set_at(3, u'x'); });
    rows.add({"UString::erase(unsigned int, unsigned int)"}, shared_text,
             [](UString& s) { s.erase(3, 2); });
    rows.add(
        {"UString::trim()"}, [] { return UString(BLANKS); }, [](UString& s) { s.trim(); });
    rows.add({"UString::c_str() const"}, unterminated_alias,
             [](UString& s) { return s.c_str()[s.length()]; });
}

void add_assignments(rows_t& rows)
{
    static const UString alias = [] {
        UString text;
        text.setTo(true, LONGER_UNITS.c_str(), static_cast<int>(LONGER_UNITS.size()));
        return text;
    }();
    static const std::string bytes(500, 'b');
    add_change(rows, "UString::operator=(UString const&)", [](UString& s) { s = alias; });
    add_change(rows, "UString::assign(UString const&)", [](UString& s) { s.assign(alias); });
    add_change(rows, "UString::assign(unsigned short const*, unsigned int)",
               [](UString& s) { s.assign(units(LONGER_UNITS)); });
    add_change(rows, "UString::assign(char16_t const*, unsigned int)",
               [](UString& s) { s.assign(LONGER_UNITS.c_str(), 400); });
    add_change(rows, "UString::assign(std::string const&, char const*)",
               [](UString& s) { return s.assign(bytes, "ISO-8859-3") != nullptr; });
    add_change(rows, "UString::assign(std::string const&, char const*, bool&)", [](UString& s) {
        bool failed = true;
        s.assign(bytes, "Shift_JIS", failed);
        return failed;
    });
    add_change(rows, "UString::utf8_assign(Utf8String const&)",
               [](UString& s) { s.utf8_assign(LONG_UTF8); });
}

void add_conversions(rows_t& rows)
{
    rows.add({"UString::substr(unsigned int, unsigned int) const"}, own_text,
             [](const UString& s) { return s.substr(1, 90); });
    rows.add({"operator+(UString const&, UString const&)"}, own_text,
             [](const UString& s) { return s + OTHER; });
    rows.add({"UString::utf8_str() const"}, own_text,
             [](const UString& s) { return s.utf8_str(); });
    rows.add({"UString::std_str(char const*, bool&) const"}, own_text,
             [](const UString& s) {
                 bool failed = true;
                 std::string bytes = s.std_str("ISO-8859-4", failed);
                 return std::pair(std::move(bytes), failed);
             })
        .and_in_new_processes();
    rows.add({"UString::std_str(char const*, bool&) const"}, own_text,
             [](const UString& s) {
                 bool failed = true;
                 std::string bytes = s.std_str("ISO-2022-JP", failed);
                 return std::pair(std::move(bytes), failed);
             })
        .and_in_new_processes();
    rows.add({"UString::default_charset()"}, [] { return UString::default_charset(); })
        .needs_none();
    rows.add({"UString::eval_charset(char const*)"},
             [] { return UString::eval_charset("DEFAULT"); })
        .needs_none();
}

}  // namespace

template <class Stream, class Text>
struct text_reading_t {
    Stream in;
    Text text;
};

template <class Stream, class Text>
std::string words(const text_reading_t<Stream, Text>& reading)
{
    return words(reading.text);
}

namespace {

/// The second attempt starts at the beginning, as whoever has to read again does.
template <class Stream, class Text, class String>
void add_reading(rows_t& rows, const char* symbol, const Text& old, const String& source)
{
    rows.add(
        {symbol},
        [=] {
            return text_reading_t<Stream, Text>{Stream(source), old};
        },
        [](text_reading_t<Stream, Text>& reading) {
            reading.in.clear();
            reading.in.seekg(0);
            reading.in >> reading.text;
            return reading.in.bad();
        });
}

void add_streams(rows_t& rows)
{
    add_reading<std::istringstream>(rows, "operator>>(std::istream&, Utf8String&)",
                                    Utf8String("old"), NARROW);
    add_reading<std::istringstream>(rows, "operator>>(std::istream&, UString&)", LONG, NARROW);
    add_reading<std::wistringstream>(rows, "operator>>(std::basic_istream<wchar_t>&, UString&)",
                                     LONG, std::wstring(100, L'w'));
}

void add_searches(rows_t& rows)
{
    rows.add({"UString::find(unsigned short, unsigned int) const",
              "UString::find(unsigned short const*, unsigned int) const",
              "UString::find(UString const&, unsigned int) const",
              "UString::find_last(unsigned short, unsigned int) const",
              "UString::find_last(unsigned short const*, unsigned int) const",
              "UString::find_last(UString const&, unsigned int) const",
              "UString::find_first_of(unsigned short, unsigned int) const"},
             own_text,
             [](const UString& s) {
                 return s.find(u'x') + s.find(units(UNITS)) + s.find(s) + s.find_last(u'x') +
                        s.find_last(units(UNITS)) + s.find_last(s) + s.find_first_of(u'x');
             })
        .needs_none();
    rows.add({"UString::find_first_of(unsigned short const*, unsigned int) const",
              "UString::find_first_of(UString const&, unsigned int) const"},
             own_text,
             [](const UString& s) {
                 return s.find_first_of(units(UNITS), 2) + s.find_first_of(OTHER);
             })
        .needs_none();
    rows.add({"UString::compare(unsigned short const*) const",
              "UString::compare(UString const&) const",
              "UString::compare(unsigned int, unsigned int, UString const&) const"},
             own_text,
             [](const UString& s) {
                 return s.compare(units(UNITS)) + s.compare(OTHER) + s.compare(1, 5, OTHER);
             })
        .needs_none();
}

}  // namespace

rows_t ustring_rows()
{
    rows_t rows("ustring.h");
    add_constructors(rows);
    add_changes(rows);
    add_changes_of_shared_text(rows);
    add_assignments(rows);
    add_conversions(rows);
    add_streams(rows);
    add_searches(rows);
    return rows;
}

}  // namespace torture
