#include "rows.h"
#include "texts.h"

#include <kvutil/arm.h>

namespace torture {

using namespace Kvl;

namespace {

constexpr unsigned char SLOT = 0;
constexpr unsigned char GAUGE32 = ARM_METRIC_FORMAT_GAUGE32;
constexpr unsigned char GAUGE64 = ARM_METRIC_FORMAT_GAUGE64;
const UString NAME(u"name" + UNITS);

ArmAppIdentyBuffer identity()
{
    ArmAppIdentyBuffer b;
    b.add_identity_prop(u"one", UNITS.c_str());
    b.add_context_prop(NAME);
    return b;
}

ArmTransIdentyBuffer transaction_identity()
{
    ArmTransIdentyBuffer b;
    b.add_identity_prop(u"two", UNITS.c_str());
    b.set_uri(alias_of_units());
    return b;
}

ArmAppContextBuffer context()
{
    ArmAppContextBuffer b(identity());
    b.add_ctx_prop(NAME, LONG);
    return b;
}

ArmMetricValuesBuffer values()
{
    ArmMetricValuesBuffer b;
    b.add_value(1, true, LONG);
    b.add_value(SLOT, GAUGE32, 1, true, 7);
    return b;
}

ArmMetricBindingsBuffer bindings()
{
    ArmMetricBindingsBuffer b;
    b.add_binding(1, arm_id());
    return b;
}

/// As many properties as the run-time takes.
ArmAppIdentyBuffer full_identity()
{
    ArmAppIdentyBuffer b;
    for (int i = 0; i < 19; ++i)
        b.add_context_prop(LONG);
    return b;
}

// ---- what collects ----

template <class Buffer, class Make>
void add_moves(rows_t& rows, symbols_t symbols, Make make)
{
    rows.add(std::move(symbols), make,
             [](Buffer& b) {
                 Buffer moved(std::move(b));
                 b = std::move(moved);
             })
        .needs_none();
}

template <class Buffer, class Make>
void add_copies(rows_t& rows, const std::string& name, Make make)
{
    const std::string parameter = "(" + name + " const&)";
    rows.add({name + "::" + name + parameter}, make, [](const Buffer& b) { return Buffer(b); });
    rows.add({name + "::operator=" + parameter}, make, [make](Buffer& b) {
        static const Buffer other = make();
        b = other;
    });
    add_moves<Buffer>(
        rows, {name + "::" + name + "(" + name + "&&)", name + "::operator=(" + name + "&&)"},
        make);
}

void add_identities(rows_t& rows)
{
    add_copies<ArmAppIdentyBuffer>(rows, "ArmAppIdentyBuffer", identity);
    rows.add({"ArmAppIdentyBuffer::ArmAppIdentyBuffer()",
              "ArmTransIdentyBuffer::ArmTransIdentyBuffer()"},
             [] {
                 return ArmAppIdentyBuffer().ctx_indicies().size() +
                        ArmTransIdentyBuffer().ctx_indicies().size();
             })
        .needs_none();
    rows.add({"ArmAppIdentyBuffer::add_identity_prop(char16_t const*, char16_t const*)"}, identity,
             [](ArmAppIdentyBuffer& b) { b.add_identity_prop(UNITS.c_str(), UNITS.c_str()); });
    rows.add({"ArmAppIdentyBuffer::add_identity_prop(unsigned short const*, unsigned short "
              "const*)"},
             identity,
             [](ArmAppIdentyBuffer& b) { b.add_identity_prop(units(UNITS), units(UNITS)); });
    rows.add({"ArmAppIdentyBuffer::add_context_prop(UString const&)"}, identity,
             [](ArmAppIdentyBuffer& b) { b.add_context_prop(OTHER); });
    rows.add({"ArmTransIdentyBuffer::set_uri(UString const&)"}, transaction_identity,
             [](ArmTransIdentyBuffer& b) { b.set_uri(alias_of_units()); });
    rows.add({"ArmAppIdentyBuffer::check_max_num_properties() const"}, full_identity,
             [](const ArmAppIdentyBuffer& b) { b.check_max_num_properties(); });
}

void add_contexts(rows_t& rows)
{
    static const ArmAppIdentyBuffer names = identity();
    add_copies<ArmAppContextBuffer>(rows, "ArmAppContextBuffer", context);
    rows.add({"ArmAppContextBuffer::ArmAppContextBuffer(ArmAppIdentyBuffer const&)"},
             [] { return ArmAppContextBuffer(names); });
    rows.add({"ArmAppContextBuffer::ArmAppContextBuffer(std::map<UString, int> const&)"},
             [] { return ArmAppContextBuffer(names.ctx_indicies()); });
    rows.add(
        {"ArmAppContextBuffer::add_ctx_prop(UString const&, UString const&)"},
        [] { return ArmAppContextBuffer(names); },
        [](ArmAppContextBuffer& b) { b.add_ctx_prop(NAME, alias_of_units()); });
    rows.add({"ArmAppContextBuffer::add_ctx_prop(UString const&, UString const&)"}, context,
             [](ArmAppContextBuffer& b) { b.add_ctx_prop(OTHER, LONG); });
}

template <class Value>
void add_value(rows_t& rows, const char* type, Value value)
{
    rows.add(
        {std::string("ArmMetricValuesBuffer::add_value(unsigned char, short, bool, ") + type + ")"},
        values, [value](ArmMetricValuesBuffer& b) { b.add_value(SLOT, short{1}, true, value); });
}

template <class Value>
void add_formatted_value(rows_t& rows, const char* type, unsigned char format, Value value)
{
    rows.add({std::string("ArmMetricValuesBuffer::add_value(unsigned char, unsigned char, short, "
                          "bool, ") +
              type + ")"},
             values, [format, value](ArmMetricValuesBuffer& b) {
                 b.add_value(SLOT, format, 1, true, value);
             });
}

void add_values(rows_t& rows)
{
    add_copies<ArmMetricValuesBuffer>(rows, "ArmMetricValuesBuffer", values);
    rows.add({"ArmMetricValuesBuffer::ArmMetricValuesBuffer()"}, [] { ArmMetricValuesBuffer(); })
        .needs_none();
    rows.add({"ArmMetricValuesBuffer::add_value(short, bool, UString const&)"}, values,
             [](ArmMetricValuesBuffer& b) { b.add_value(1, true, alias_of_units()); });
    add_value(rows, "arm_metric_gaugedivr32", arm_metric_gaugedivr32());
    add_value(rows, "arm_metric_cntrdivr32", arm_metric_cntrdivr32());
    add_formatted_value(rows, "int", GAUGE32, 1);
    add_formatted_value(rows, "long", GAUGE64, 1L);
    add_formatted_value(rows, "long long", GAUGE64, 1LL);
    rows.add({"ArmMetricValuesBuffer::check_non_string_slot(unsigned char) const"}, values,
             [](const ArmMetricValuesBuffer& b) { b.check_non_string_slot(7); });
    rows.add({"ArmMetricBindingsBuffer::add_binding(unsigned char, arm_id)"}, bindings,
             [](ArmMetricBindingsBuffer& b) { b.add_binding(2, arm_id()); });
}

// ---- what is handed to the run-time ----

}  // namespace

/// A buffer with a record in it, and a collector.
template <class Collector>
struct addition_t {
    explicit addition_t(Collector c, bool use_global_pool = false)
        : buffer(use_global_pool), collector(std::move(c))
    {
        buffer.add_buffer(7LL);
    }
    ArmBuffer buffer;
    Collector collector;
};

template <class Collector>
std::string words(const addition_t<Collector>& addition)
{
    return words(addition.buffer) + words(addition.collector);
}

namespace {

template <class Make>
void add_addition(rows_t& rows, const char* type, Make make)
{
    typedef addition_t<decltype(make())> addition;
    rows.add(
        {std::string("ArmBuffer::add_buffer(") + type + "&)"},
        [make] { return std::make_unique<addition>(make()); },
        [](auto& a) { a->buffer.add_buffer(a->collector); });
}

template <class Add>
void add_plain(rows_t& rows, const char* parameters, Add add)
{
    rows.add(
        {std::string("ArmBuffer::add_buffer(") + parameters + ")"},
        [] { return std::make_unique<ArmBuffer>(); }, [add](auto& b) { add(*b); });
}

void add_additions(rows_t& rows)
{
    add_addition(rows, "ArmAppIdentyBuffer", identity);
    add_addition(rows, "ArmTransIdentyBuffer", transaction_identity);
    add_addition(rows, "ArmAppContextBuffer", context);
    add_addition(rows, "ArmTransContextBuffer", [] {
        ArmTransContextBuffer b(identity());
        b.add_ctx_prop(NAME, LONG);
        return b;
    });
    add_addition(rows, "ArmMetricValuesBuffer", values);
    add_addition(rows, "ArmMetricBindingsBuffer", bindings);
    static arm_id id{};
    add_plain(rows, "", [](ArmBuffer& b) { b.add_buffer(); });
    add_plain(rows, "long long const&", [](ArmBuffer& b) { b.add_buffer(7LL); });
    add_plain(rows, "UString const&", [](ArmBuffer& b) { b.add_buffer(LONG); });
    add_plain(rows, "UString const&, bool, arm_id&",
              [](ArmBuffer& b) { b.add_buffer(LONG, true, id); });
    add_plain(rows, "short, short, unsigned char const*, bool, arm_id&", [](ArmBuffer& b) {
        static const unsigned char address[4] = {127, 0, 0, 1};
        b.add_buffer(short{0}, short{4}, address, true, id);
    });
}

// ---- buffers and their texts ----

/// As many records as the run-time takes.
std::unique_ptr<ArmBuffer> full_buffer()
{
    auto buffer = std::make_unique<ArmBuffer>();
    for (int i = 0; i < 4; ++i)
        buffer->add_buffer(LONG);
    return buffer;
}

}  // namespace

/// Texts that are in no pool, for the one that all buffers share.
struct fresh_addition_t {
    static ArmTransIdentyBuffer fresh_identity()
    {
        ArmTransIdentyBuffer b;
        b.add_context_prop(fresh_text_t().text);
        b.set_uri(fresh_text_t().text);
        return b;
    }
    addition_t<ArmTransIdentyBuffer> addition{fresh_identity(), true};
};

static std::string words(const fresh_addition_t& fresh)
{
    return std::to_string(fresh.addition.buffer.count()) + " records, " +
           std::to_string(fresh.addition.collector.ctx_indicies().size()) + " names";
}

/// A pool of a caller's own.
struct pool_t {
    ~pool_t()
    {
        for (const auto& [text, string] : strings)
            delete[] string;
    }
    ArmBuffer::str_pool_t strings;
};

static std::string words(const pool_t& pool)
{
    return std::to_string(pool.strings.size());
}

namespace {

void add_buffers(rows_t& rows)
{
    rows.add({"ArmBuffer::ArmBuffer(bool)", "ArmBuffer::clear()"}, full_buffer,
             [](auto& b) {
                 b->clear();
                 return ArmBuffer(true).count();
             })
        .needs_none();
    rows.add({"ArmBuffer::check_buff_length(UString const&) const"}, full_buffer,
             [](const auto& b) { b->check_buff_length(LONG); });
    rows.add(
        {"ArmBuffer::pool_string(UString const&, std::map<UString, char const*>&)"},
        [] { return std::make_unique<pool_t>(); },
        [](auto& pool) { return ArmBuffer::pool_string(LONG, pool->strings); });
    rows.add({"ArmBuffer::pool_string(ArmBuffer*, UString const&)"}, full_buffer,
             [](auto& b) { return ArmBuffer::pool_string(b.get(), OTHER); });
    rows.add({"ArmBuffer::pool_string(ArmBuffer*, UString const&)"}, fresh_text,
             [](const fresh_text_t& fresh) {
                 return ArmBuffer::pool_string(nullptr, fresh.text) != nullptr;
             })
        .grows();
    rows.add(
            {"ArmBuffer::add_buffer(ArmTransIdentyBuffer&)"},
            [] { return std::make_unique<fresh_addition_t>(); },
            [](auto& a) { a->addition.buffer.add_buffer(a->addition.collector); })
        .grows_in_parts();
}

}  // namespace

rows_t arm_buffer_rows()
{
    rows_t rows("arm.h, the buffers");
    add_identities(rows);
    add_contexts(rows);
    add_values(rows);
    add_additions(rows);
    add_buffers(rows);
    return rows;
}

}  // namespace torture
