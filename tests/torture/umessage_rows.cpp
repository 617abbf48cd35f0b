#include "resource_of_text.h"
#include "rows.h"
#include "texts.h"

#include <qmlogger/qmlogger.h>

namespace torture {

using Kvl::UMessage;
using Kvl::UString;
typedef UMessage::Arg Arg;
typedef UMessage::collection_t collection_t;

namespace {

const resource_of_text_t RESOURCE(LONG);
constexpr int TWO_TEXTS = 21;  // of the catalogue: a message with two of them

UMessage message()
{
    return UMessage(kvutil, TWO_TEXTS, LONG, NARROW);
}

UMessage other_message()
{
    return UMessage(kvutil, 12, OTHER, RESOURCE);
}

// ---- arguments ----

template <class Value>
void add_argument(rows_t& rows, symbols_t symbols, const Value& value)
{
    rows.add(std::move(symbols), [&value] { return Arg(value); });
}

/// What a union owns is given to an argument only by the library; here it is freed by hand.
template <class Value, class Free>
void add_union(rows_t& rows, const char* symbol, Value value, Free free)
{
    rows.add({symbol}, [value, free] {
        const Arg::arg_union_t made(value());
        free(made);
    });
}

void free_text(const Arg::arg_union_t& made)
{
    delete made.str;
}

void add_unions(rows_t& rows)
{
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(char const*)", [] { return NARROW.c_str(); },
        [](const Arg::arg_union_t& made) { delete[] made.cstr; });
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(std::string const&)",
        [] { return std::cref(NARROW); }, free_text);
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(UString const&)",
        [] { return std::cref(LONG); }, free_text);
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(unsigned short const*)",
        [] { return units(UNITS); }, free_text);
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(char16_t const*)",
        [] { return UNITS.c_str(); }, free_text);
    add_union(
        rows, "UMessage::Arg::arg_union_t::arg_union_t(Resource const&)",
        [] { return std::cref<const Kvl::Resource>(RESOURCE); },
        [](const Arg::arg_union_t& made) { delete made.res; });
}

void add_arguments(rows_t& rows)
{
    static const char* const cstr = NARROW.c_str();
    static const unsigned short* const wide = units(UNITS);
    static const char16_t* const wide16 = UNITS.c_str();
    static const Arg text(NARROW);
    static const Arg resource(RESOURCE);
    add_argument(rows, {"UMessage::Arg::Arg(char const*)"}, cstr);
    add_argument(rows, {"UMessage::Arg::Arg(std::string const&)"}, NARROW);
    add_argument(rows, {"UMessage::Arg::Arg(UString const&)"}, LONG);
    add_argument(rows, {"UMessage::Arg::Arg(unsigned short const*)"}, wide);
    add_argument(rows, {"UMessage::Arg::Arg(char16_t const*)"}, wide16);
    add_argument(rows, {"UMessage::Arg::Arg(Resource const&)"}, RESOURCE);
    add_argument(rows, {"UMessage::Arg::Arg(UMessage::Arg const&)"}, text);
    add_argument(rows, {"UMessage::Arg::Arg(UMessage::Arg const&)"}, resource);
    rows.add({"UMessage::Arg::Arg(char)", "UMessage::Arg::Arg(int)", "UMessage::Arg::Arg(long)",
              "UMessage::Arg::Arg(unsigned int)", "UMessage::Arg::Arg(unsigned long)",
              "UMessage::Arg::Arg(long long)", "UMessage::Arg::Arg(unsigned long long)",
              "UMessage::Arg::Arg(double)", "UMessage::Arg::Arg(long double)",
              "UMessage::Arg::kind() const"},
             [] {
                 return Arg('c').kind() + Arg(1).kind() + Arg(1L).kind() + Arg(1u).kind() +
                        Arg(1uL).kind() + Arg(1LL).kind() + Arg(1uLL).kind() + Arg(1.5).kind() +
                        Arg(1.5L).kind();
             })
        .needs_none();
    rows.add(
            {"UMessage::Arg::Arg(UMessage::Arg&&)", "UMessage::Arg::operator=(UMessage::Arg&&)"},
            [] { return Arg(NARROW); },
            [](Arg& a) {
                Arg moved(std::move(a));
                a = std::move(moved);
            })
        .needs_none();
    rows.add(
        {"UMessage::Arg::operator=(UMessage::Arg const&)"}, [] { return Arg(NARROW); },
        [](Arg& a) { a = resource; });
    rows.add(
        {"UMessage::Arg::get_print_val(cxPrintfArgVal&) const"}, [] { return Arg(RESOURCE); },
        [](const Arg& a) {
            cxPrintfArgVal value{};
            a.get_print_val(value);
            return std::string_view(static_cast<const char*>(value.p)).size();
        });
}

// ---- messages ----

void add_constructors(rows_t& rows)
{
    rows.add({"UMessage::UMessage()"}, [] { return UMessage().index(); }).needs_none();
    rows.add(
        {"UMessage::UMessage(char const**, int, UMessage::Arg const&, UMessage::Arg const&)"},
        [] { return std::pair(Arg(NARROW), Arg(RESOURCE)); },
        [](const std::pair<Arg, Arg>& a) {
            return UMessage(kvutil, TWO_TEXTS, a.first, a.second);
        });
    rows.add(
        {"UMessage::UMessage(char const**, int, UMessage::Arg const&, UMessage::Arg const&, "
         "UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg "
         "const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, "
         "UMessage::Arg const&)"},
        [] { return std::pair(Arg(NARROW), Arg(RESOURCE)); },
        [](const std::pair<Arg, Arg>& a) {
            return UMessage(kvutil, TWO_TEXTS, a.first, a.second, a.first, a.second);
        });
    rows.add({"UMessage::UMessage(char const**, int, UMessage::Arg&&)"},
             [] { return UMessage(kvutil, 6, LONG); });
    rows.add({"UMessage::UMessage(char const**, int, UMessage::Arg&&, UMessage::Arg&&)"},
             [] { return UMessage(kvutil, TWO_TEXTS, LONG, RESOURCE); });
    rows.add({"UMessage::UMessage(char const**, int, UMessage::Arg&&, UMessage::Arg&&, "
              "UMessage::Arg&&)"},
             [] { return UMessage(kvutil, TWO_TEXTS, LONG, RESOURCE, 3); });
    rows.add({"UMessage::UMessage(UMessage const&)"}, message,
             [](const UMessage& m) { return UMessage(m); });
    rows.add({"UMessage::UMessage(UMessage&&)", "UMessage::operator=(UMessage&&)"}, message,
             [](UMessage& m) {
                 UMessage moved(std::move(m));
                 m = std::move(moved);
             })
        .needs_none();
}

void add_operations(rows_t& rows)
{
    static const UMessage other = other_message();
    rows.add({"UMessage::operator=(UMessage const&)"}, message, [](UMessage& m) { m = other; });
    rows.add({"UMessage::is_nil() const", "UMessage::catalogue() const", "UMessage::index() const",
              "UMessage::arguments() const"},
             message,
             [](const UMessage& m) {
                 return m.is_nil() + m.index() + (m.catalogue() == kvutil) +
                        static_cast<int>(m.arguments().size());
             })
        .needs_none();
    rows.add({"UMessage::message_string(char const*) const"}, message,
             [](const UMessage& m) { return m.message_string(); })
        .and_in_new_processes();
    rows.add({"UMessage::message_string(char const*) const"}, other_message,
             [](const UMessage& m) { return m.message_string("extra"); });
}

// ---- formatting ----

typedef std::vector<const Arg*> list_t;

void add_formatting(rows_t& rows)
{
    static const Arg number(1.5);
    static const Arg narrow(NARROW);
    static const Arg resource(RESOURCE);
    static const list_t list = {&narrow, &number, &resource};
    static const std::string format = "%s %40.3f %s" + NARROW;
    static const UString wide_format = UString(Kvl::Utf8String(format));
    rows.add({"UMessage::sprintf(char const*, std::vector<UMessage::Arg const*> const&)"},
             [] { return UMessage::sprintf(format.c_str(), list); });
    rows.add({"UMessage::sprintf(char const*, UMessage::Arg const&)"},
             [] { return UMessage::sprintf("%s", resource); });
    rows.add({"UMessage::sprintf(char const*, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg "
              "const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&)"},
             [] { return UMessage::sprintf(format.c_str(), narrow, number, resource); });
    rows.add({"UMessage::sprintf(UString const&, std::vector<UMessage::Arg const*> const&)"},
             [] { return UMessage::sprintf(wide_format, list); });
    rows.add({"UMessage::sprintf(UString const&, UMessage::Arg const&)"},
             [] { return UMessage::sprintf(wide_format, narrow); });
    rows.add({"UMessage::sprintf(UString const&, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg "
              "const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&)"},
             [] { return UMessage::sprintf(wide_format, narrow, number, resource); });
    rows.add({"UMessage::sprintf(char const**, int, std::vector<UMessage::Arg const*> const&, "
              "char const*)"},
             [] { return UMessage::sprintf(kvutil, TWO_TEXTS, list, "extra"); });
    rows.add({"UMessage::sprintf(char const**, int, UMessage::Arg const&)"},
             [] { return UMessage::sprintf(kvutil, 13, resource); });
    rows.add({"UMessage::sprintf(char const**, int, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg "
              "const&, UMessage::Arg const&, UMessage::Arg const&, UMessage::Arg const&, "
              "UMessage::Arg const&)"},
             [] { return UMessage::sprintf(kvutil, TWO_TEXTS, narrow, resource); });
    // Into memory that its thread keeps.
    rows.add({"Log::QmMsg::format(char const*, cxPrintfArgVal*)"},
             [] {
                 cxPrintfArgVal records[2] = {};
                 records[0].p = records[1].p = NARROW.c_str();
                 return Log::QmMsg::format("%s%3000s", records);
             })
        .and_in_new_processes()
        .needs_none();
    rows.add({"Log::QmMsg::format(char const**, int, char const*)"},
             [] { return Log::QmMsg::format(kvutil, TWO_TEXTS, nullptr); })
        .needs_none();
}

// ---- sequences ----

collection_t two_messages()
{
    collection_t messages;
    messages.push_back(message());
    messages.push_back(other_message());
    return messages;
}

void add_sequences(rows_t& rows)
{
    static const collection_t more = two_messages();
    static const UMessage another = other_message();
    rows.add({"UMessage::collection_t::collection_t()",
              "UMessage::collection_t::collection_t(UMessage::collection_t&&)",
              "UMessage::collection_t::operator=(UMessage::collection_t&&)",
              "UMessage::collection_t::clear()"},
             two_messages,
             [](collection_t& c) {
                 collection_t moved(std::move(c));
                 c = collection_t();
                 c = std::move(moved);
                 c.clear();
             })
        .needs_none();
    rows.add({"UMessage::collection_t::begin()", "UMessage::collection_t::begin() const",
              "UMessage::collection_t::end()", "UMessage::collection_t::end() const",
              "UMessage::collection_t::size() const", "UMessage::collection_t::empty() const",
              "UMessage::collection_t::operator[](unsigned int)",
              "UMessage::collection_t::operator[](unsigned int) const"},
             two_messages,
             [](collection_t& c) {
                 return (c.end() - c.begin()) + (std::as_const(c).end() - more.begin()) * 0 +
                        c.size() + c.empty() + static_cast<unsigned int>(c[0].index()) +
                        static_cast<unsigned int>(more[1].index());
             })
        .needs_none();
    rows.add({"UMessage::collection_t::collection_t(UMessage::collection_t const&)"}, two_messages,
             [](const collection_t& c) { return collection_t(c); });
    rows.add({"UMessage::collection_t::operator=(UMessage::collection_t const&)"}, two_messages,
             [](collection_t& c) { c = more; });
    rows.add({"UMessage::collection_t::operator+=(UMessage::collection_t const&)"}, two_messages,
             [](collection_t& c) { c += c; });
    rows.add({"UMessage::collection_t::push_back(UMessage const&)"}, two_messages,
             [](collection_t& c) { c.push_back(another); });
    rows.add({"UMessage::collection_t::push_back(UMessage const&)"}, two_messages,
             [](collection_t& c) { c.push_back(c[0]); });
    rows.add({"UMessage::collection_t::reserve(unsigned int)"}, two_messages,
             [](collection_t& c) { c.reserve(100); });
}

// ---- resources ----

void add_resources(rows_t& rows)
{
    rows.add({"Resource::clone() const"},
             [] { return std::unique_ptr<Kvl::Resource>(RESOURCE.clone()); });
    rows.add({"Resource::text() const"}, [] { return RESOURCE.Kvl::Resource::text(); })
        .needs_none();
}

}  // namespace

rows_t umessage_rows()
{
    rows_t rows("umessage.h, resource.h, qmlogger.h");
    add_unions(rows);
    add_arguments(rows);
    add_constructors(rows);
    add_operations(rows);
    add_formatting(rows);
    add_sequences(rows);
    add_resources(rows);
    return rows;
}

}  // namespace torture
