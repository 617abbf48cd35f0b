// Buffers for ARM calls: what a run-time finds in them, what is refused, whose the texts are.

#include <kvutil/arm.h>
#include <kvutil/stpexception.h>

#include "support/arm4_layout.h"
#include "support/arm_record.h"
#include "support/child.h"
#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <functional>
#include <future>
#include <set>
#include <thread>
#include <type_traits>

namespace {

using namespace Kvl;
using testing::ElementsAre;
using testing::IsEmpty;

typedef ArmAppIdentyBuffer::ctx_index_map_t names_t;
typedef unsigned char byte_t;

// The interface, by its types.
static_assert(std::is_same_v<names_t, std::map<UString, int>>);
static_assert(std::is_same_v<ArmBuffer::str_pool_t, std::map<UString, const char*>>);
static_assert(std::is_same_v<decltype(ArmBuffer::g_str_pool), ArmBuffer::str_pool_t>);
static_assert(std::is_default_constructible_v<ArmBuffer>);
static_assert(!std::is_convertible_v<bool, ArmBuffer>);
static_assert(!std::is_copy_constructible_v<ArmBuffer> && !std::is_copy_assignable_v<ArmBuffer>);
static_assert(!std::is_convertible_v<names_t, ArmAppContextBuffer>);
static_assert(!std::is_convertible_v<ArmAppIdentyBuffer, ArmAppContextBuffer>);
static_assert(std::is_base_of_v<ArmAppIdentyBuffer, ArmTransIdentyBuffer>);
static_assert(std::is_base_of_v<ArmAppContextBuffer, ArmTransContextBuffer>);
static_assert(std::is_same_v<decltype(std::declval<const ArmBuffer&>().count()), int>);
static_assert(
    std::is_same_v<decltype(std::declval<const ArmBuffer&>().buffer4()), const arm_buffer4*>);
static_assert(std::is_same_v<decltype(std::declval<const ArmAppIdentyBuffer&>().ctx_indicies()),
                             const names_t&>);
static_assert(noexcept(std::declval<ArmBuffer&>().clear()));
static_assert(std::is_nothrow_move_constructible_v<ArmTransIdentyBuffer> &&
              std::is_nothrow_move_assignable_v<ArmTransIdentyBuffer>);
static_assert(std::is_nothrow_move_constructible_v<ArmTransContextBuffer> &&
              std::is_nothrow_move_assignable_v<ArmTransContextBuffer>);
static_assert(std::is_nothrow_move_constructible_v<ArmMetricValuesBuffer> &&
              std::is_nothrow_move_assignable_v<ArmMetricValuesBuffer>);

typedef ArmMetricValuesBuffer::value_t value_t;
static_assert(offsetof(value_t, slot) == 0 && offsetof(value_t, format) == 1 &&
              offsetof(value_t, usage) == 2 && offsetof(value_t, valid) == 4 &&
              offsetof(value_t, value) == 8 && sizeof(value_t) == 16);

/// A text that no other test pools.
UString fresh_text()
{
    static std::atomic<int> number{0};
    return ustr("a text of its own, number " + std::to_string(++number));
}

std::string words(const ArmBuffer& buffer)
{
    return arm_record::words(*buffer.buffer4());
}

/// What a collector holds, as the record that it becomes. The collector itself stays as it is.
template <class Collector>
std::string words_of(Collector copy)
{
    ArmBuffer buffer;
    buffer.add_buffer(copy);
    return words(buffer);
}

template <class Record>
const Record& record_of(const ArmBuffer& buffer, int position = 0)
{
    return arm_record::as<Record>(buffer.buffer4()->subbuffer_array[position]);
}

arm_id id_of(byte_t first)
{
    arm_id id;
    for (int i = 0; i < 16; ++i)
        id.id_u.uint8[i] = static_cast<byte_t>(first + i);
    return id;
}

const char ID_1[] = "0102030405060708090a0b0c0d0e0f10";
const char ID_FF[] = "ff000102030405060708090a0b0c0d0e";

void add_properties(ArmAppIdentyBuffer& b, int count)
{
    for (int i = 0; i < count; ++i)
        b.add_identity_prop(u"name", u"value");
}

void add_names(ArmAppIdentyBuffer& b, int count)
{
    for (int i = 0; i < count; ++i)
        b.add_context_prop(ustr("context " + std::to_string(i)));
}

void fill(ArmBuffer& buffer)
{
    while (buffer.count() < 4)
        buffer.add_buffer();
}

template <class Operation>
void expect_refusal(Operation operation, const std::string& argument)
{
    const std::string text =
        "PLXSV0670E Application Resource Measurement (ARM) error: " + argument + ".";
    recording_logger logger;
    try {
        operation();
        ADD_FAILURE() << "nothing thrown";
    } catch (const STPException& e) {
        EXPECT_EQ(typeid(e), typeid(STPException));
        EXPECT_EQ(e.stp_reason_code(), 40);
        EXPECT_EQ(rendered(e), text);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
    }
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].operation, "error");
    EXPECT_THAT(logger.lines[0].text, testing::HasSubstr(text));
}

// Without the final stop, which is the message's. [sic] The first two have one of their own too.
const char FULL_BUFFER[] = "ArmBuffer::add_buffer():  Max Buffer count exceeded.";
const char FULL_CHARSET[] = "ArmBuffer::add_charset_buffer():  Max Buffer count exceeded.";
const char TOO_MANY[] = "ArmIdentityBuffer:: trying to register too many properties";
const char UNKNOWN_NAME[] = "ArmContextBuffer:: trying to add unknown context property";
const char ILLEGAL_SLOT[] = "ArmMetricValuesBuffer:: illegal slot # for non-string metric";

// ---- the binding ----

TEST(Arm4, NamesTheTypesOfTheFunctionsThatAreLookedUp)
{
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_register_application),
                                arm_register_application_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_start_application),
                                arm_start_application_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_start_transaction),
                                arm_start_transaction_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_stop_transaction),
                                arm_stop_transaction_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_register_transaction),
                                arm_register_transaction_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_get_error_message),
                                arm_get_error_message_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(ArmRuntimeLoader::g_fnc_arm_get_arrival_time),
                                arm_get_arrival_time_function_t*>));
}

TEST(Arm4, FunctionsTakeTheirParametersInTheStandardsOrder)
{
    EXPECT_TRUE(
        (std::is_same_v<decltype(arm_register_application),
                        int(const char*, const arm_id*, int, const arm_buffer4*, arm_id*)>));
    EXPECT_TRUE((
        std::is_same_v<decltype(arm_start_application), int(const arm_id*, const char*, const char*,
                                                            int, const arm_buffer4*, long long*)>));
    EXPECT_TRUE((std::is_same_v<decltype(arm_start_transaction),
                                int(long long, const arm_id*, const arm_correlator*, int,
                                    const arm_buffer4*, long long*, arm_correlator*)>));
    EXPECT_TRUE((std::is_same_v<decltype(arm_stop_transaction),
                                int(long long, int, int, const arm_buffer4*)>));
    EXPECT_TRUE((std::is_same_v<decltype(arm_register_transaction),
                                int(const arm_id*, const char*, const arm_id*, int,
                                    const arm_buffer4*, arm_id*)>));
    EXPECT_TRUE((std::is_same_v<decltype(arm_get_error_message), int(int, int, char*)>));
    EXPECT_TRUE((std::is_same_v<decltype(arm_get_arrival_time), int(long long*)>));
}

TEST(Arm4, MarksOfNothingAreNullOfTheirType)
{
    const arm_correlator_t* const correlator = ARM_CORR_NONE;
    const arm_buffer4_t* const buffer = ARM_BUF4_NONE;
    const arm_id_t* const id = ARM_ID_NONE;
    const arm_char_t* const text = ARM_STRING_NONE;
    EXPECT_EQ(correlator, nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(id, nullptr);
    EXPECT_EQ(text, nullptr);
    arm_subbuffer_charset_t record = {};
    EXPECT_EQ(ARM_SB(record), &record.header);
}

// ---- identity ----

TEST(ArmIdentity, OfAnApplicationHasItsPropertiesAndContextNamesInOrder)
{
    ArmAppIdentyBuffer b;
    b.add_identity_prop(u"host", u"näme");
    b.add_context_prop(u"zone");
    b.add_identity_prop(u"cell", u"");
    b.add_context_prop(u"area");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), "102: [\"host\"=\"näme\", \"cell\"=\"\"] [\"zone\", \"area\"]\n");
}

TEST(ArmIdentity, OfATransactionHasTheUriToo)
{
    ArmTransIdentyBuffer b;
    b.add_identity_prop(u"a", u"1");
    b.add_context_prop(u"c");
    b.set_uri(u"http://host/old");
    b.set_uri(u"http://host/path");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), "104: [\"a\"=\"1\"] [\"c\"] uri \"http://host/path\"\n");
}

TEST(ArmIdentity, WithoutUriHasNull)
{
    ArmTransIdentyBuffer b;
    b.add_identity_prop(u"a", u"1");
    EXPECT_EQ(words_of(b), "104: [\"a\"=\"1\"] null uri null\n");
    b.set_uri(u"http://host");
    b.set_uri(u"");
    EXPECT_EQ(words_of(b), "104: [\"a\"=\"1\"] null uri null\n");
}

TEST(ArmIdentity, PassesEmptyArraysAsNull)
{
    ArmAppIdentyBuffer b;
    EXPECT_EQ(words_of(b), "102: null null\n");
    b.add_context_prop(u"c");
    EXPECT_EQ(words_of(b), "102: null [\"c\"]\n");
    EXPECT_EQ(words_of(ArmTransIdentyBuffer()), "104: null null uri null\n");
}

TEST(ArmIdentity, TakesBothTypesOfUnits)
{
    const unsigned short name[] = {'n', 0xE9, 0};
    const unsigned short value[] = {'v', 0};
    ArmAppIdentyBuffer b;
    b.add_identity_prop(name, value);
    b.add_identity_prop(u"né", u"v");
    EXPECT_EQ(words_of(b), "102: [\"né\"=\"v\", \"né\"=\"v\"] null\n");
}

TEST(ArmIdentity, TakesNullAsTheEmptyText)
{
    const unsigned short* const no_units = nullptr;
    const char16_t* const no_text = nullptr;
    ArmAppIdentyBuffer b;
    b.add_identity_prop(no_units, no_units);
    b.add_identity_prop(no_text, u"v");
    b.add_identity_prop(u"n", no_text);
    EXPECT_EQ(words_of(b), "102: [\"\"=\"\", \"\"=\"v\", \"n\"=\"\"] null\n");
}

TEST(ArmIdentity, ListsNamesThatAreAddedTwice)
{
    ArmAppIdentyBuffer b;
    b.add_identity_prop(u"n", u"1");
    b.add_identity_prop(u"n", u"2");
    b.add_context_prop(u"c");
    b.add_context_prop(u"d");
    b.add_context_prop(u"c");
    EXPECT_EQ(words_of(b), "102: [\"n\"=\"1\", \"n\"=\"2\"] [\"c\", \"d\", \"c\"]\n");
}

// Two texts for each property, one for each name.
TEST(ArmIdentity, IndexesContextNamesAmongAllTexts)
{
    ArmAppIdentyBuffer b;
    b.add_context_prop(u"first");
    b.add_identity_prop(u"n", u"v");
    b.add_context_prop(u"second");
    EXPECT_EQ(b.ctx_indicies(), (names_t{{u"first", 0}, {u"second", 3}}));
}

TEST(ArmIdentity, TheFirstIndexOfANameCounts)
{
    ArmAppIdentyBuffer b;
    b.add_context_prop(u"c");
    b.add_context_prop(u"d");
    b.add_context_prop(u"c");
    EXPECT_EQ(b.ctx_indicies(), (names_t{{u"c", 0}, {u"d", 1}}));
}

TEST(ArmIdentity, TakesABogusNameAsTheEmptyText)
{
    UString bogus(u"text");
    bogus.setToBogus();
    ArmTransIdentyBuffer b;
    b.add_context_prop(bogus);
    b.set_uri(bogus);
    EXPECT_EQ(b.ctx_indicies(), (names_t{{u"", 0}}));
    EXPECT_EQ(words_of(b), "104: null [\"\"] uri null\n");
}

TEST(ArmIdentity, IsEmptiedByTheBufferThatTakesIt)
{
    ArmTransIdentyBuffer b;
    b.add_identity_prop(u"a", u"1");
    b.add_context_prop(u"c");
    b.set_uri(u"http://host");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_THAT(b.ctx_indicies(), IsEmpty());
    EXPECT_EQ(words_of(b), "104: null null uri null\n");

    add_names(b, 19);
    EXPECT_EQ(b.ctx_indicies().size(), 19u);
    EXPECT_EQ(b.ctx_indicies().at(u"context 0"), 0);
}

TEST(ArmIdentity, HoldsNineteenIdentityProperties)
{
    ArmAppIdentyBuffer b;
    add_properties(b, 19);
    const std::string before = words_of(b);
    expect_refusal([&] { b.add_identity_prop(u"n", u"v"); }, TOO_MANY);
    const unsigned short unit[] = {'n', 0};
    expect_refusal([&] { b.add_identity_prop(unit, unit); }, TOO_MANY);
    expect_refusal([&] { b.add_context_prop(u"c"); }, TOO_MANY);
    EXPECT_EQ(words_of(b), before);
    EXPECT_THAT(b.ctx_indicies(), IsEmpty());
}

TEST(ArmIdentity, HoldsTenIdentityPropertiesAndNineContextNames)
{
    ArmTransIdentyBuffer b;
    add_properties(b, 10);
    add_names(b, 9);
    const std::string before = words_of(b);
    expect_refusal([&] { b.add_identity_prop(u"n", u"v"); }, TOO_MANY);
    expect_refusal([&] { b.add_context_prop(u"c"); }, TOO_MANY);
    // Also one that is there.
    expect_refusal([&] { b.add_context_prop(u"context 0"); }, TOO_MANY);
    EXPECT_EQ(words_of(b), before);
    EXPECT_EQ(b.ctx_indicies().size(), 9u);
}

TEST(ArmIdentity, CountsNamesThatAreListedTwice)
{
    ArmAppIdentyBuffer b;
    for (int i = 0; i < 19; ++i)
        b.add_context_prop(u"c");
    EXPECT_EQ(b.ctx_indicies().size(), 1u);
    expect_refusal([&] { b.add_context_prop(u"d"); }, TOO_MANY);
}

TEST(ArmIdentity, CanBeAskedForRoom)
{
    ArmAppIdentyBuffer b;
    add_properties(b, 18);
    EXPECT_NO_THROW(b.check_max_num_properties());
    EXPECT_NO_THROW(b.check_max_num_properties());
    add_names(b, 1);
    expect_refusal([&] { b.check_max_num_properties(); }, TOO_MANY);
}

TEST(ArmIdentity, HasRoomAgainOnceItIsTaken)
{
    ArmAppIdentyBuffer b;
    add_properties(b, 19);
    ArmBuffer buffer;
    buffer.add_buffer(b);
    add_names(b, 19);
    expect_refusal([&] { b.check_max_num_properties(); }, TOO_MANY);
}

// ---- context ----

ArmTransIdentyBuffer identity_of_three()
{
    ArmTransIdentyBuffer identity;
    identity.add_context_prop(u"zone");
    identity.add_identity_prop(u"n", u"v");
    identity.add_context_prop(u"area");
    identity.add_context_prop(u"hall");
    return identity;
}

TEST(ArmContext, HasAValueForEachNameInTheOrderOfTheIdentity)
{
    ArmAppContextBuffer b(identity_of_three());
    b.add_ctx_prop(u"hall", u"3");
    b.add_ctx_prop(u"zone", u"1");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), "103: [\"1\", null, \"3\"]\n");
}

TEST(ArmContext, OfATransactionHasNoUri)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    identity.set_uri(u"http://host");
    ArmTransContextBuffer b(identity);
    b.add_ctx_prop(u"area", u"é");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), "105: [null, \"é\", null] uri null\n");
}

TEST(ArmContext, TakesTheNamesFromTheMapToo)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    ArmAppContextBuffer application(identity.ctx_indicies());
    ArmTransContextBuffer transaction(identity.ctx_indicies());
    application.add_ctx_prop(u"area", u"2");
    transaction.add_ctx_prop(u"hall", u"3");
    EXPECT_EQ(words_of(application), "103: [null, \"2\", null]\n");
    EXPECT_EQ(words_of(transaction), "105: [null, null, \"3\"] uri null\n");
}

TEST(ArmContext, OrdersValuesByTheIndexesOfTheirNames)
{
    ArmAppContextBuffer b(names_t{{u"a", 1000000}, {u"b", 7}, {u"c", -5}});
    b.add_ctx_prop(u"a", u"last");
    b.add_ctx_prop(u"b", u"middle");
    b.add_ctx_prop(u"c", u"first");
    EXPECT_EQ(words_of(b), "103: [\"first\", \"middle\", \"last\"]\n");
}

TEST(ArmContext, WithoutNamesHasNoArray)
{
    EXPECT_EQ(words_of(ArmAppContextBuffer(names_t())), "103: null\n");
    EXPECT_EQ(words_of(ArmTransContextBuffer(ArmAppIdentyBuffer())), "105: null uri null\n");
}

TEST(ArmContext, WithoutValuesHasNulls)
{
    EXPECT_EQ(words_of(ArmAppContextBuffer(identity_of_three())), "103: [null, null, null]\n");
}

TEST(ArmContext, TellsAnEmptyValueFromNone)
{
    ArmAppContextBuffer b(identity_of_three());
    b.add_ctx_prop(u"zone", u"");
    EXPECT_EQ(words_of(b), "103: [\"\", null, null]\n");
}

TEST(ArmContext, KeepsTheLastValueOfAName)
{
    ArmAppContextBuffer b(identity_of_three());
    b.add_ctx_prop(u"zone", u"old");
    b.add_ctx_prop(u"zone", u"new");
    EXPECT_EQ(words_of(b), "103: [\"new\", null, null]\n");
}

// A value belongs to the name at its place, so a repeated name takes one, which stays empty.
TEST(ArmContext, LeavesRoomForNamesThatAreListedTwice)
{
    ArmAppIdentyBuffer identity;
    for (const char16_t* const name : {u"c", u"c", u"d", u"c"})
        identity.add_context_prop(name);
    ArmAppContextBuffer b(identity);
    b.add_ctx_prop(u"c", u"1");
    b.add_ctx_prop(u"d", u"2");
    EXPECT_EQ(words_of(b), "103: [\"1\", null, \"2\", null]\n");
}

TEST(ArmContext, RefusesAnUnknownName)
{
    ArmAppContextBuffer b(identity_of_three());
    b.add_ctx_prop(u"zone", u"1");
    for (const char16_t* const name : {u"Zone", u"zon", u"zone ", u"", u"n", u"v"})
        expect_refusal([&] { b.add_ctx_prop(name, u"2"); }, UNKNOWN_NAME);
    EXPECT_EQ(words_of(b), "103: [\"1\", null, null]\n");
    ArmTransContextBuffer none{names_t()};
    expect_refusal([&] { none.add_ctx_prop(u"zone", u"2"); }, UNKNOWN_NAME);
}

TEST(ArmContext, LosesItsValuesToTheBufferAndKeepsItsNames)
{
    ArmTransContextBuffer b(identity_of_three());
    b.add_ctx_prop(u"zone", u"1");
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words_of(b), "105: [null, null, null] uri null\n");
    b.add_ctx_prop(u"area", u"2");
    EXPECT_EQ(words_of(b), "105: [null, \"2\", null] uri null\n");
}

TEST(ArmContext, OutlivesTheNamesOfTheIdentity)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    ArmAppContextBuffer before(identity);
    ArmBuffer buffer;
    buffer.add_buffer(identity);
    ArmAppContextBuffer after(identity);
    before.add_ctx_prop(u"zone", u"1");
    EXPECT_EQ(words_of(before), "103: [\"1\", null, null]\n");
    expect_refusal([&] { after.add_ctx_prop(u"zone", u"1"); }, UNKNOWN_NAME);
}

TEST(ArmContext, TakesBogusTextsAsEmptyOnes)
{
    UString bogus(u"text");
    bogus.setToBogus();
    ArmAppContextBuffer b(names_t{{u"", 0}, {u"c", 1}});
    b.add_ctx_prop(bogus, u"1");
    b.add_ctx_prop(u"c", bogus);
    EXPECT_EQ(words_of(b), "103: [\"1\", \"\"]\n");
}

// ---- metric values ----

TEST(ArmMetricValues, HasEveryKindInTheOrderOfAddition)
{
    ArmMetricValuesBuffer b;
    b.add_value(5, ARM_METRIC_FORMAT_COUNTER32, 0, true, -7);
    b.add_value(0, ARM_METRIC_USE_TRAN_SIZE, false, arm_metric_gaugedivr32{-1, 3});
    b.add_value(1, ARM_METRIC_USE_TRAN_STATUS, true, arm_metric_cntrdivr32{INT_MAX, INT_MIN});
    b.add_value(-32768, true, u"ünits");
    b.add_value(2, ARM_METRIC_FORMAT_NUMERICID64, 32767, true, LLONG_MIN);
    b.add_value(3, ARM_METRIC_FORMAT_GAUGE64, 0, true, LONG_MAX);
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), "5: [slot 5 format 1 usage 0 valid 1 value -7,"
                             " slot 0 format 6 usage 1 valid 0 value -1/3,"
                             " slot 1 format 3 usage 2 valid 1 value 2147483647/-2147483648,"
                             " slot 6 format 10 usage -32768 valid 1 value \"ünits\","
                             " slot 2 format 8 usage 32767 valid 1 value -9223372036854775808,"
                             " slot 3 format 5 usage 0 valid 1 value 9223372036854775807]\n");
}

TEST(ArmMetricValues, WithoutValuesHasNoArray)
{
    EXPECT_EQ(words_of(ArmMetricValuesBuffer()), "5: null\n");
}

struct number_row_t {
    byte_t format;
    long long value;
    std::string words;
};

// Each of the formats of one number, from an argument of each type that holds the value.
TEST(ArmMetricValues, GivesANumberToTheFormatsOfEitherWidth)
{
    const number_row_t rows[] = {
        {ARM_METRIC_FORMAT_COUNTER32, INT_MIN, "-2147483648"},
        {ARM_METRIC_FORMAT_GAUGE32, -1, "-1"},
        {ARM_METRIC_FORMAT_NUMERICID32, INT_MAX, "2147483647"},
        {ARM_METRIC_FORMAT_COUNTER64, INT_MIN, "-2147483648"},
        {ARM_METRIC_FORMAT_GAUGE64, -1, "-1"},
        {ARM_METRIC_FORMAT_NUMERICID64, INT_MAX, "2147483647"},
        {ARM_METRIC_FORMAT_COUNTER64, LLONG_MAX, "9223372036854775807"},
        {ARM_METRIC_FORMAT_COUNTER32, (1LL << 32) + 5, "5"},  // the low 32 bits
    };
    for (const number_row_t& row : rows) {
        ArmMetricValuesBuffer b;
        b.add_value(1, row.format, 0, true, row.value);
        b.add_value(1, row.format, 0, true, static_cast<long>(row.value));
        if (row.value == static_cast<int>(row.value))
            b.add_value(1, row.format, 0, true, static_cast<int>(row.value));
        else
            b.add_value(1, row.format, 0, true, row.value);
        const std::string one =
            "slot 1 format " + std::to_string(row.format) + " usage 0 valid 1 value " + row.words;
        EXPECT_EQ(words_of(b), "5: [" + one + ", " + one + ", " + one + "]\n");
    }
}

TEST(ArmMetricValues, TakesSlotsUpToFiveForNumbers)
{
    ArmMetricValuesBuffer b;
    b.add_value(5, 0, true, arm_metric_gaugedivr32{1, 1});
    b.add_value(5, 0, true, arm_metric_cntrdivr32{1, 1});
    b.add_value(5, ARM_METRIC_FORMAT_COUNTER32, 0, true, 1);
    b.add_value(5, ARM_METRIC_FORMAT_COUNTER32, 0, true, 1L);
    b.add_value(5, ARM_METRIC_FORMAT_COUNTER32, 0, true, 1LL);
    const std::string before = words_of(b);
    for (const byte_t slot : {byte_t{6}, byte_t{7}, byte_t{128}, byte_t{255}}) {
        expect_refusal(
            [&] {
                b.add_value(slot, 0, true, arm_metric_gaugedivr32{2, 2});
            },
            ILLEGAL_SLOT);
        expect_refusal(
            [&] {
                b.add_value(slot, 0, true, arm_metric_cntrdivr32{2, 2});
            },
            ILLEGAL_SLOT);
        expect_refusal([&] { b.add_value(slot, 1, 0, true, 2); }, ILLEGAL_SLOT);
        expect_refusal([&] { b.add_value(slot, 1, 0, true, 2L); }, ILLEGAL_SLOT);
        expect_refusal([&] { b.add_value(slot, 1, 0, true, 2LL); }, ILLEGAL_SLOT);
        expect_refusal([&] { b.check_non_string_slot(slot); }, ILLEGAL_SLOT);
    }
    EXPECT_EQ(words_of(b), before);
    for (byte_t slot = 0; slot <= 5; ++slot)
        EXPECT_NO_THROW(b.check_non_string_slot(slot));
}

TEST(ArmMetricValues, HasOneStringMetric)
{
    ArmMetricValuesBuffer b;
    b.add_value(1, true, u"first");
    b.add_value(0, ARM_METRIC_FORMAT_GAUGE32, 0, true, 4);
    b.add_value(2, false, u"second");
    EXPECT_EQ(words_of(b), "5: [slot 6 format 10 usage 2 valid 0 value \"second\","
                           " slot 0 format 4 usage 0 valid 1 value 4]\n");
}

// A run-time takes it for a pointer.
TEST(ArmMetricValues, HasATextWhereTheFormatOfANumberIsThatOfATexts)
{
    ArmMetricValuesBuffer b;
    b.add_value(0, ARM_METRIC_FORMAT_STRING32, 0, true, 4);
    EXPECT_EQ(words_of(b), "5: [slot 0 format 10 usage 0 valid 1 value \"\"]\n");
    b.add_value(0, true, u"text");
    EXPECT_EQ(words_of(b), "5: [slot 0 format 10 usage 0 valid 1 value \"text\","
                           " slot 6 format 10 usage 0 valid 1 value \"text\"]\n");
}

TEST(ArmMetricValues, IsEmptiedByTheBufferThatTakesIt)
{
    ArmMetricValuesBuffer b;
    b.add_value(0, true, u"text");
    b.add_value(0, 1, 0, true, 1);
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words_of(b), "5: null\n");
    // Its text is gone too.
    b.add_value(0, ARM_METRIC_FORMAT_STRING32, 0, true, 4);
    EXPECT_EQ(words_of(b), "5: [slot 0 format 10 usage 0 valid 1 value \"\"]\n");
}

TEST(ArmMetricValues, DoesNotLimitTheirNumber)
{
    ArmMetricValuesBuffer b;
    for (int i = 0; i < 1000; ++i)
        b.add_value(0, ARM_METRIC_FORMAT_GAUGE32, 0, true, i);
    ArmBuffer buffer;
    buffer.add_buffer(b);
    const auto& record = record_of<arm_subbuffer_metric_values>(buffer);
    ASSERT_EQ(record.count, 1000);
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(record.metric_value_array[i].metric_u.gauge32, i);
}

// ---- metric bindings ----

TEST(ArmMetricBindings, HasThemInTheOrderOfAddition)
{
    ArmMetricBindingsBuffer b;
    b.add_binding(6, id_of(1));
    b.add_binding(0, id_of(0xFF));
    b.add_binding(255, id_of(1));
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words(buffer), std::string("106: [slot 6 ") + ID_1 + ", slot 0 " + ID_FF +
                                 ", slot 255 " + ID_1 + "]\n");
}

TEST(ArmMetricBindings, WithoutAnyHasNoArray)
{
    EXPECT_EQ(words_of(ArmMetricBindingsBuffer()), "106: null\n");
}

TEST(ArmMetricBindings, IsEmptiedByTheBufferThatTakesIt)
{
    ArmMetricBindingsBuffer b;
    b.add_binding(6, id_of(1));
    ArmBuffer buffer;
    buffer.add_buffer(b);
    EXPECT_EQ(words_of(b), "106: null\n");
}

// ---- the other records ----

TEST(ArmBufferRecord, OfAnArrivalTime)
{
    ArmBuffer buffer;
    const long long time = 1234567890123456789;
    buffer.add_buffer(time);
    buffer.add_buffer(LLONG_MIN);
    buffer.add_buffer(0LL);
    EXPECT_EQ(words(buffer), "4: 1234567890123456789\n4: -9223372036854775808\n4: 0\n");
}

TEST(ArmBufferRecord, OfTheCharacterSet)
{
    ArmBuffer buffer;
    buffer.add_buffer();
    EXPECT_EQ(words(buffer), "107: 106 flags 0\n");
}

TEST(ArmBufferRecord, OfADiagnosticDetail)
{
    ArmBuffer buffer;
    buffer.add_buffer(u"disk füll");
    buffer.add_buffer(UString());
    EXPECT_EQ(words(buffer), "7: \"disk füll\"\n7: \"\"\n");
}

TEST(ArmBufferRecord, OfAUser)
{
    ArmBuffer buffer;
    arm_id id = id_of(1);
    buffer.add_buffer(u"jürgen", true, id);
    buffer.add_buffer(u"", false, id);
    id = id_of(0xFF);
    EXPECT_EQ(words(buffer),
              std::string("3: \"jürgen\" id 1 ") + ID_1 + "\n3: \"\" id 0 " + ID_1 + "\n");
}

TEST(ArmBufferRecord, OfASystemAddress)
{
    ArmBuffer buffer;
    byte_t address[] = {127, 0, 0, 1, 0x1F, 0x90};
    arm_id id = id_of(1);
    buffer.add_buffer(ARM_SYSADDR_FORMAT_IPV4PORT, 6, address, true, id);
    buffer.add_buffer(-32768, 1, address, false, id);
    // The bytes are the record's own.
    address[0] = 10;
    id = id_of(0xFF);
    EXPECT_EQ(words(buffer), std::string("6: format 2 length 6 7f0000011f90 id 1 ") + ID_1 +
                                 "\n6: format -32768 length 1 7f id 0 " + ID_1 + "\n");
    EXPECT_NE(record_of<arm_subbuffer_system_address>(buffer).address, address);
}

TEST(ArmBufferRecord, OfTheLongestSystemAddress)
{
    std::vector<byte_t> address(32767);
    for (std::size_t i = 0; i < address.size(); ++i)
        address[i] = static_cast<byte_t>(i * 7);
    ArmBuffer buffer;
    arm_id id = id_of(1);
    buffer.add_buffer(ARM_SYSADDR_FORMAT_HOSTNAME, 32767, address.data(), true, id);
    const auto& record = record_of<arm_subbuffer_system_address>(buffer);
    ASSERT_EQ(record.address_length, 32767);
    EXPECT_TRUE(std::equal(address.begin(), address.end(), record.address));
}

TEST(ArmBufferRecord, OfTheLocalSystemHasNoAddress)
{
    const byte_t address[] = {127, 0, 0, 1};
    arm_id id = id_of(1);
    ArmBuffer buffer;
    buffer.add_buffer(ARM_SYSADDR_FORMAT_IPV4, 0, address, true, id);
    buffer.add_buffer(ARM_SYSADDR_FORMAT_IPV4, -1, address, false, id);
    buffer.add_buffer(ARM_SYSADDR_FORMAT_IPV4, -32768, nullptr, false, id);
    buffer.add_buffer(ARM_SYSADDR_FORMAT_IPV4, 4, nullptr, false, id);
    const std::string rest = std::string("6: format 1 length 0 null id 0 ") + ID_1 + "\n";
    EXPECT_EQ(words(buffer),
              std::string("6: format 1 length 0 null id 1 ") + ID_1 + "\n" + rest + rest + rest);
}

// ---- the buffer ----

TEST(ArmBufferCount, IsZeroAtFirst)
{
    for (const bool is_global : {false, true}) {
        const ArmBuffer buffer(is_global);
        EXPECT_EQ(buffer.count(), 0);
        ASSERT_NE(buffer.buffer4(), nullptr);
        EXPECT_EQ(buffer.buffer4()->count, 0);
        EXPECT_NE(buffer.buffer4()->subbuffer_array, nullptr);
    }
}

TEST(ArmBufferCount, FollowsTheAdditionsInTheirOrder)
{
    ArmBuffer buffer;
    const arm_buffer4* const buffer4 = buffer.buffer4();
    buffer.add_buffer(u"detail");
    EXPECT_EQ(buffer.count(), 1);
    buffer.add_buffer(7LL);
    EXPECT_EQ(buffer.count(), 2);
    buffer.add_buffer();
    EXPECT_EQ(buffer.count(), 3);
    buffer.add_buffer(8LL);
    EXPECT_EQ(buffer.count(), 4);
    EXPECT_EQ(buffer.buffer4(), buffer4);
    EXPECT_EQ(buffer4->count, 4);
    EXPECT_EQ(arm_record::words(*buffer4), "7: \"detail\"\n4: 7\n107: 106 flags 0\n4: 8\n");
}

TEST(ArmBufferCount, EndsAtFourForEveryKind)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    identity.set_uri(u"http://host");
    ArmTransContextBuffer context(identity);
    context.add_ctx_prop(u"zone", u"1");
    ArmMetricValuesBuffer values;
    values.add_value(0, true, u"text");
    ArmMetricBindingsBuffer bindings;
    bindings.add_binding(1, id_of(1));
    arm_id id = id_of(1);
    const byte_t address[] = {1};
    const std::string before =
        words_of(identity) + words_of(context) + words_of(values) + words_of(bindings);

    ArmBuffer buffer;
    fill(buffer);
    const std::string full = words(buffer);
    expect_refusal([&] { buffer.add_buffer(identity); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(static_cast<ArmAppIdentyBuffer&>(identity)); },
                   FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(context); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(static_cast<ArmAppContextBuffer&>(context)); },
                   FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(values); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(bindings); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(7LL); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(u"detail"); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(u"user", true, id); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(1, 1, address, true, id); }, FULL_BUFFER);
    expect_refusal([&] { buffer.add_buffer(); }, FULL_CHARSET);

    EXPECT_EQ(buffer.count(), 4);
    EXPECT_EQ(words(buffer), full);
    EXPECT_EQ(words_of(identity) + words_of(context) + words_of(values) + words_of(bindings),
              before);
}

TEST(ArmBufferCount, IsCheckedForWhoeverAsks)
{
    ArmBuffer buffer;
    for (int i = 0; i < 3; ++i)
        buffer.add_buffer();
    EXPECT_NO_THROW(buffer.check_buff_length(u"my_function"));
    buffer.add_buffer();
    expect_refusal([&] { buffer.check_buff_length(ustr("mäin")); },
                   "ArmBuffer::mäin():  Max Buffer count exceeded.");
    expect_refusal([&] { buffer.check_buff_length(UString()); },
                   "ArmBuffer::():  Max Buffer count exceeded.");
    EXPECT_EQ(buffer.count(), 4);
}

// What a refused addition would have pooled is not in the pool.
TEST(ArmBufferCount, ARefusalPoolsNothing)
{
    ArmBuffer buffer(true);
    fill(buffer);
    const UString text = fresh_text();
    expect_refusal([&] { buffer.add_buffer(text); }, FULL_BUFFER);
    EXPECT_EQ(ArmBuffer::g_str_pool.count(text), 0u);
}

TEST(ArmBufferClear, MakesRoomAgain)
{
    ArmBuffer buffer;
    for (int round = 0; round < 3; ++round) {
        fill(buffer);
        buffer.clear();
        EXPECT_EQ(buffer.count(), 0);
        EXPECT_EQ(buffer.buffer4()->count, 0);
    }
    buffer.clear();
    buffer.add_buffer(u"detail");
    EXPECT_EQ(words(buffer), "7: \"detail\"\n");
}

TEST(ArmBufferCopies, OfTheStandardsRecordReferToTheSameSubBuffers)
{
    ArmBuffer buffer;
    buffer.add_buffer(u"detail");
    const arm_buffer4 copy = *buffer.buffer4();
    buffer.add_buffer(7LL);
    EXPECT_EQ(arm_record::words(copy), "7: \"detail\"\n");
    EXPECT_EQ(copy.subbuffer_array[0], buffer.buffer4()->subbuffer_array[0]);
}

TEST(ArmBufferRecord, ArraysAreAligned)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    ArmMetricBindingsBuffer bindings;
    bindings.add_binding(0, id_of(1));
    ArmMetricValuesBuffer values;
    values.add_value(0, 1, 0, true, 1);
    ArmBuffer buffer;
    buffer.add_buffer(identity);
    buffer.add_buffer(bindings);
    buffer.add_buffer(values);
    const auto& first = record_of<arm_subbuffer_tran_identity>(buffer, 0);
    for (const void* const array :
         {static_cast<const void*>(first.identity_property_array),
          static_cast<const void*>(first.context_name_array),
          static_cast<const void*>(
              record_of<arm_subbuffer_metric_bindings>(buffer, 1).metric_binding_array),
          static_cast<const void*>(
              record_of<arm_subbuffer_metric_values>(buffer, 2).metric_value_array)})
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(array) % 8, 0u);
}

// ---- pools ----

TEST(ArmPool, GivesTheSamePointerForTheSameText)
{
    const UString text = fresh_text();
    const UString same = ustr(text.utf8_str());
    const char* const string = ArmBuffer::pool_string(text, ArmBuffer::g_str_pool);
    EXPECT_EQ(string, text.utf8_str());
    EXPECT_EQ(ArmBuffer::pool_string(same, ArmBuffer::g_str_pool), string);
    EXPECT_EQ(ArmBuffer::g_str_pool.at(text), string);
    EXPECT_NE(ArmBuffer::pool_string(fresh_text(), ArmBuffer::g_str_pool), string);
}

TEST(ArmPool, IsTheOneThatTheBufferWasMadeWith)
{
    ArmBuffer global(true);
    ArmBuffer own(false);
    ArmBuffer by_default;
    const UString first = fresh_text();
    const UString second = fresh_text();
    EXPECT_EQ(ArmBuffer::pool_string(&own, first), first.utf8_str());
    EXPECT_EQ(ArmBuffer::pool_string(&by_default, first), first.utf8_str());
    EXPECT_EQ(ArmBuffer::g_str_pool.count(first), 0u);
    EXPECT_NE(ArmBuffer::pool_string(&own, first), ArmBuffer::pool_string(&by_default, first));
    const char* const string = ArmBuffer::pool_string(&global, second);
    EXPECT_EQ(ArmBuffer::g_str_pool.at(second), string);
}

TEST(ArmPool, OfTheProcessServesWhoHasNoBuffer)
{
    const UString text = fresh_text();
    const char* const string = ArmBuffer::pool_string(nullptr, text);
    EXPECT_EQ(string, text.utf8_str());
    EXPECT_EQ(ArmBuffer::g_str_pool.at(text), string);
}

TEST(ArmPool, OfABufferDoesNotCopyWhatTheProcessHas)
{
    const UString text = fresh_text();
    const char* const shared = ArmBuffer::pool_string(nullptr, text);
    ArmBuffer buffer;
    EXPECT_EQ(ArmBuffer::pool_string(&buffer, text), shared);
    buffer.add_buffer(text);
    EXPECT_EQ(record_of<arm_subbuffer_diag_detail>(buffer).diag_detail, shared);
    buffer.clear();
    EXPECT_EQ(shared, text.utf8_str());
}

TEST(ArmPool, OfABufferKeepsWhatItHadBeforeTheProcess)
{
    const UString text = fresh_text();
    ArmBuffer buffer;
    const char* const own = ArmBuffer::pool_string(&buffer, text);
    const char* const shared = ArmBuffer::pool_string(nullptr, text);
    EXPECT_NE(own, shared);
    EXPECT_EQ(ArmBuffer::pool_string(&buffer, text), own);
    // Once it has forgotten its own, there is the other.
    buffer.clear();
    EXPECT_EQ(ArmBuffer::pool_string(&buffer, text), shared);
}

TEST(ArmPool, FindsWhatAProgramHasPutThere)
{
    const UString text = fresh_text();
    static const std::string bytes = text.utf8_str();
    const char* const string = bytes.c_str();
    ArmBuffer::g_str_pool.emplace(text, string);
    ArmBuffer own;
    EXPECT_EQ(ArmBuffer::pool_string(nullptr, text), string);
    EXPECT_EQ(ArmBuffer::pool_string(&own, text), string);
    const UString another = fresh_text();
    const char* const pooled = ArmBuffer::pool_string(nullptr, another);
    EXPECT_EQ(pooled, another.utf8_str());
    EXPECT_EQ(ArmBuffer::pool_string(&own, another), pooled);
}

// Texts are found by an index beside the map, which grows with it.
TEST(ArmPool, HasEachOfManyTextsOnce)
{
    const std::size_t before = ArmBuffer::g_str_pool.size();
    std::vector<UString> texts;
    std::vector<const char*> strings;
    for (int i = 0; i < 3000; ++i) {
        texts.push_back(fresh_text());
        strings.push_back(ArmBuffer::pool_string(nullptr, texts.back()));
    }
    EXPECT_EQ(ArmBuffer::g_str_pool.size(), before + texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        ASSERT_EQ(strings[i], texts[i].utf8_str());
        ASSERT_EQ(ArmBuffer::pool_string(nullptr, texts[i]), strings[i]);
        ASSERT_EQ(ArmBuffer::g_str_pool.at(texts[i]), strings[i]);
    }
}

TEST(ArmPool, OfACallerIsFilledTheSameWay)
{
    const UString text = fresh_text();
    const UString known = fresh_text();
    const char* const shared = ArmBuffer::pool_string(nullptr, known);
    ArmBuffer::str_pool_t mine;
    EXPECT_EQ(ArmBuffer::pool_string(known, mine), shared);
    EXPECT_THAT(mine, IsEmpty());
    const char* const string = ArmBuffer::pool_string(text, mine);
    EXPECT_EQ(string, text.utf8_str());
    EXPECT_EQ(ArmBuffer::pool_string(text, mine), string);
    EXPECT_EQ(mine, (ArmBuffer::str_pool_t{{text, string}}));
    EXPECT_EQ(ArmBuffer::g_str_pool.count(text), 0u);
    delete[] string;
}

TEST(ArmPool, TextsInRecordsAreThePools)
{
    const UString text = fresh_text();
    const char* const string = ArmBuffer::pool_string(nullptr, text);
    ArmTransIdentyBuffer identity;
    identity.add_identity_prop(text.c_str(), text.c_str());
    identity.add_context_prop(text);
    identity.set_uri(text);
    ArmAppContextBuffer context(identity);
    context.add_ctx_prop(text, text);
    ArmMetricValuesBuffer values;
    values.add_value(0, true, text);
    arm_id id = id_of(1);
    ArmBuffer buffer(true);
    buffer.add_buffer(identity);
    buffer.add_buffer(context);
    buffer.add_buffer(values);
    buffer.add_buffer(text, false, id);
    const auto& record = record_of<arm_subbuffer_tran_identity>(buffer, 0);
    EXPECT_EQ(record.identity_property_array[0].name, string);
    EXPECT_EQ(record.identity_property_array[0].value, string);
    EXPECT_EQ(record.context_name_array[0], string);
    EXPECT_EQ(record.uri, string);
    EXPECT_EQ(record_of<arm_subbuffer_app_context>(buffer, 1).context_value_array[0], string);
    const auto& metrics = record_of<arm_subbuffer_metric_values>(buffer, 2);
    EXPECT_EQ(metrics.metric_value_array[0].metric_u.string32, string);
    EXPECT_EQ(record_of<arm_subbuffer_user>(buffer, 3).name, string);
}

TEST(ArmPool, OfTheProcessOutlivesTheBuffer)
{
    const UString text = fresh_text();
    const char* string = nullptr;
    {
        ArmBuffer buffer(true);
        buffer.add_buffer(text);
        string = record_of<arm_subbuffer_diag_detail>(buffer).diag_detail;
        buffer.clear();
        EXPECT_EQ(buffer.count(), 0);
        EXPECT_EQ(string, text.utf8_str());
        buffer.add_buffer(text);
        EXPECT_EQ(record_of<arm_subbuffer_diag_detail>(buffer).diag_detail, string);
    }
    EXPECT_EQ(string, text.utf8_str());
    EXPECT_EQ(ArmBuffer::pool_string(nullptr, text), string);
}

TEST(ArmPool, HoldsUtf8)
{
    ArmBuffer buffer;
    const std::u16string with_zero(u"a\0b", 3);
    EXPECT_STREQ(ArmBuffer::pool_string(&buffer, u"x\u00E9\u20AC\U0001D11E"),
                 "x\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E");
    EXPECT_STREQ(ArmBuffer::pool_string(&buffer, UString()), "");
    EXPECT_STREQ(ArmBuffer::pool_string(&buffer, UString(with_zero)), "a");
    EXPECT_STREQ(ArmBuffer::pool_string(&buffer, u"\xD834"), "");
}

// They have the same bytes, but are different texts.
TEST(ArmPool, HasAStringForEachText)
{
    ArmBuffer buffer;
    const std::u16string with_zero(u"a\0b", 3);
    const std::set<const char*> strings = {
        ArmBuffer::pool_string(&buffer, u"a"), ArmBuffer::pool_string(&buffer, UString(with_zero)),
        ArmBuffer::pool_string(&buffer, u"a "), ArmBuffer::pool_string(&buffer, u"A")};
    EXPECT_EQ(strings.size(), 4u);
}

TEST(ArmPool, TakesABogusTextAsTheEmptyOne)
{
    UString bogus(u"text");
    bogus.setToBogus();
    ArmBuffer::str_pool_t mine;
    const char* const empty = ArmBuffer::pool_string(UString(), mine);
    EXPECT_EQ(ArmBuffer::pool_string(bogus, mine), empty);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(ArmBuffer::pool_string(nullptr, bogus), ArmBuffer::pool_string(nullptr, UString()));
    if (!mine.empty())
        delete[] mine.begin()->second;
}

// c_str() writes the terminator when there is none, which many threads could not do at once.
TEST(ArmPool, HasTerminatedTextsToBeReadByManyThreads)
{
    UString text(std::u16string(100, u't'));
    icu::UnicodeString& units_only = text;
    units_only.append(u"xyz", 0, 3);  // not terminated, and shared by its copies
    ArmBuffer::str_pool_t mine;
    ArmBuffer::pool_string(text, mine);
    ASSERT_EQ(mine.size(), 1u);
    for (const auto& [key, string] : mine) {
        const char16_t* const units = key.getBuffer();
        key.c_str();
        EXPECT_EQ(key.getBuffer(), units) << "the text was moved";
        delete[] string;
    }
}

TEST(ArmPool, HoldsLongTexts)
{
    const UString text(std::u16string(1000000, u'\u20AC'));
    ArmBuffer buffer;
    buffer.add_buffer(text);
    const std::string string = record_of<arm_subbuffer_diag_detail>(buffer).diag_detail;
    EXPECT_EQ(string.size(), 3000000u);
    EXPECT_EQ(string, text.utf8_str());
}

// ---- values ----

TEST(ArmCollectors, CopiesAreOnTheirOwn)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    identity.set_uri(u"uri");
    const std::string three = words_of(identity);
    ArmTransIdentyBuffer other;
    other.add_identity_prop(u"x", u"y");
    other = identity;
    identity.add_context_prop(u"fourth");
    EXPECT_EQ(words_of(other), three);
    other = *&other;
    EXPECT_EQ(words_of(other), three);

    ArmTransContextBuffer context(identity);
    context.add_ctx_prop(u"zone", u"1");
    ArmTransContextBuffer second{names_t()};
    second = context;
    context.add_ctx_prop(u"zone", u"2");
    EXPECT_EQ(words_of(second), "105: [\"1\", null, null, null] uri null\n");

    ArmMetricValuesBuffer values;
    values.add_value(0, true, u"1");
    ArmMetricValuesBuffer third;
    third = values;
    values.add_value(0, true, u"2");
    EXPECT_EQ(words_of(third), "5: [slot 6 format 10 usage 0 valid 1 value \"1\"]\n");
}

TEST(ArmCollectors, MoveAndLeaveNothingBehind)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    identity.set_uri(u"uri");
    const std::string three = words_of(identity);
    ArmTransContextBuffer context(identity);
    ArmTransIdentyBuffer taken = std::move(identity);
    EXPECT_EQ(words_of(taken), three);
    EXPECT_EQ(words_of(identity), "104: null null uri null\n");  // NOLINT(bugprone-use-after-move)
    identity = std::move(taken);
    EXPECT_EQ(words_of(identity), three);

    context.add_ctx_prop(u"zone", u"1");
    ArmTransContextBuffer other = std::move(context);
    EXPECT_EQ(words_of(other), "105: [\"1\", null, null] uri null\n");
    EXPECT_EQ(words_of(context), "105: null uri null\n");  // NOLINT(bugprone-use-after-move)

    ArmMetricValuesBuffer values;
    values.add_value(0, true, u"1");
    ArmMetricValuesBuffer third = std::move(values);
    EXPECT_EQ(words_of(third), "5: [slot 6 format 10 usage 0 valid 1 value \"1\"]\n");
    EXPECT_EQ(words_of(values), "5: null\n");  // NOLINT(bugprone-use-after-move)
}

// ---- memory ----

const UString LONG_TEXT(std::u16string(100, u'l'));
const UString LONG_NAME(std::u16string(100, u'n'));

/// Adds `collector` to a buffer with every allocation failing in turn. Both stay as they were.
template <class Collector>
void expect_whole_or_not_at_all(Collector collector, bool is_global = false)
{
    const std::string before = words_of(collector);
    ArmBuffer buffer(is_global);
    buffer.add_buffer(7LL);
    const int faults = for_each_memory_fault([&] { buffer.add_buffer(collector); },
                                             [&] {
                                                 EXPECT_EQ(words(buffer), "4: 7\n");
                                                 EXPECT_EQ(words_of(collector), before);
                                             });
    EXPECT_GE(faults, 1);
    EXPECT_EQ(words(buffer), "4: 7\n" + before);
    EXPECT_NE(words_of(collector), before);
}

/// The same with a buffer that has no text yet, so that each allocation has its turn.
template <class Collector>
void expect_nothing_lost(const Collector& collector)
{
    const std::string before = words_of(collector);
    std::string after;
    const int faults = for_each_memory_fault(
        [&] {
            Collector copy(collector);
            ArmBuffer buffer;
            buffer.add_buffer(copy);
            after = words(buffer);
        },
        [&] { EXPECT_EQ(words_of(collector), before); });
    EXPECT_GE(faults, 2);
    EXPECT_EQ(after, before);
}

ArmTransIdentyBuffer long_identity()
{
    ArmTransIdentyBuffer identity;
    identity.add_identity_prop(LONG_NAME.c_str(), LONG_TEXT.c_str());
    identity.add_context_prop(LONG_TEXT);
    identity.add_context_prop(LONG_NAME);
    identity.set_uri(UString(std::u16string(100, u'u')));
    return identity;
}

TEST(ArmMemory, RunsOutDuringAnAdditionWithoutATrace)
{
    ArmTransContextBuffer context(long_identity());
    context.add_ctx_prop(LONG_NAME, UString(std::u16string(100, u'v')));
    ArmMetricValuesBuffer values;
    values.add_value(0, true, LONG_TEXT);
    ArmMetricBindingsBuffer bindings;
    bindings.add_binding(1, id_of(1));
    expect_whole_or_not_at_all(long_identity());
    expect_whole_or_not_at_all<ArmAppIdentyBuffer>(long_identity());
    expect_whole_or_not_at_all(context);
    expect_whole_or_not_at_all<ArmAppContextBuffer>(context);
    expect_whole_or_not_at_all(values);
    expect_whole_or_not_at_all(bindings);
    expect_whole_or_not_at_all(long_identity(), true);
    expect_nothing_lost(long_identity());
    expect_nothing_lost(context);
    expect_nothing_lost(values);
}

TEST(ArmMemory, RunsOutDuringASmallAdditionWithoutATrace)
{
    arm_id id = id_of(1);
    const byte_t address[] = {1, 2, 3};
    const UString detail(std::u16string(100, u'd'));
    const UString user(std::u16string(100, u'x'));
    for (const bool is_global : {false, true}) {
        ArmBuffer buffer(is_global);
        const auto expect_empty = [&] { EXPECT_EQ(buffer.count(), 0); };
        const std::function<void()> additions[] = {
            [&] { buffer.add_buffer(); },
            [&] { buffer.add_buffer(7LL); },
            [&] { buffer.add_buffer(detail); },
            [&] { buffer.add_buffer(user, true, id); },
            [&] { buffer.add_buffer(1, 3, address, true, id); },
        };
        for (const auto& addition : additions) {
            EXPECT_GE(for_each_memory_fault(addition, expect_empty), 1);
            EXPECT_EQ(buffer.count(), 1);
            buffer.clear();
        }
    }
}

TEST(ArmMemory, RunsOutDuringPoolingWithoutATrace)
{
    const UString text(std::u16string(100, u'p'));
    const std::size_t before = ArmBuffer::g_str_pool.size();
    const char* string = nullptr;
    EXPECT_GE(for_each_memory_fault([&] { string = ArmBuffer::pool_string(nullptr, text); },
                                    [&] { EXPECT_EQ(ArmBuffer::g_str_pool.size(), before); }),
              2);
    EXPECT_EQ(string, text.utf8_str());

    ArmBuffer::str_pool_t mine;
    const UString other(std::u16string(100, u'q'));
    EXPECT_GE(for_each_memory_fault([&] { string = ArmBuffer::pool_string(other, mine); },
                                    [&] { EXPECT_THAT(mine, IsEmpty()); }),
              2);
    EXPECT_EQ(string, other.utf8_str());
    delete[] string;
}

TEST(ArmMemory, RunsOutWhileGatheringPropertiesWithoutATrace)
{
    ArmTransIdentyBuffer identity;
    const std::string nothing = words_of(identity);
    const auto expect_nothing = [&] {
        EXPECT_EQ(words_of(identity), nothing);
        EXPECT_THAT(identity.ctx_indicies(), IsEmpty());
        // Without the room that it has made by now, so that each allocation has its turn.
        identity = ArmTransIdentyBuffer();
    };
    const auto add_property = [&] {
        identity.add_identity_prop(LONG_NAME.c_str(), LONG_TEXT.c_str());
    };
    EXPECT_GE(for_each_memory_fault(add_property, expect_nothing), 5);
    EXPECT_NE(words_of(identity), nothing);
    identity = ArmTransIdentyBuffer();
    EXPECT_GE(for_each_memory_fault([&] { identity.add_context_prop(LONG_NAME.substr(1)); },
                                    expect_nothing),
              4);
    EXPECT_EQ(identity.ctx_indicies(), (names_t{{LONG_NAME.substr(1), 0}}));
    identity = ArmTransIdentyBuffer();
    EXPECT_GE(for_each_memory_fault([&] { identity.set_uri(LONG_TEXT.substr(1)); }, expect_nothing),
              1);
    EXPECT_NE(words_of(identity), nothing);
}

TEST(ArmMemory, RunsOutWhileGatheringValuesWithoutATrace)
{
    ArmTransContextBuffer context(identity_of_three());
    context.add_ctx_prop(u"zone", u"1");
    std::string before = words_of(context);
    const auto expect_same_context = [&] { EXPECT_EQ(words_of(context), before); };
    EXPECT_GE(for_each_memory_fault([&] { context.add_ctx_prop(u"area", LONG_TEXT.substr(1)); },
                                    expect_same_context),
              1);
    before = words_of(context);
    EXPECT_GE(for_each_memory_fault([&] { context.add_ctx_prop(u"area", LONG_NAME.substr(1)); },
                                    expect_same_context),
              1);

    ArmMetricValuesBuffer values;
    before = words_of(values);
    const auto expect_same_values = [&] { EXPECT_EQ(words_of(values), before); };
    EXPECT_GE(for_each_memory_fault([&] { values.add_value(0, true, LONG_TEXT.substr(1)); },
                                    expect_same_values),
              2);
    before = words_of(values);
    EXPECT_GE(
        for_each_memory_fault([&] { values.add_value(0, 1, 0, true, 1); }, expect_same_values), 1);
    before = words_of(values);
    EXPECT_GE(for_each_memory_fault([&] { values.add_value(0, false, LONG_NAME.substr(1)); },
                                    expect_same_values),
              1);

    ArmMetricBindingsBuffer bindings;
    before = words_of(bindings);
    EXPECT_GE(for_each_memory_fault([&] { bindings.add_binding(0, id_of(1)); },
                                    [&] { EXPECT_EQ(words_of(bindings), before); }),
              1);
}

template <class Collector>
void expect_same_when_assignment_fails(Collector& target, const Collector& source)
{
    const std::string before = words_of(target);
    EXPECT_GE(for_each_memory_fault([&] { target = source; },
                                    [&] { EXPECT_EQ(words_of(target), before); }),
              1);
    EXPECT_EQ(words_of(target), words_of(source));
}

TEST(ArmMemory, RunsOutDuringAnAssignmentWithoutATrace)
{
    ArmTransIdentyBuffer identity = identity_of_three();
    ArmTransContextBuffer context(identity);
    context.add_ctx_prop(u"zone", u"1");
    expect_same_when_assignment_fails(identity, long_identity());
    ArmTransContextBuffer long_context(long_identity());
    long_context.add_ctx_prop(LONG_NAME, LONG_TEXT);
    expect_same_when_assignment_fails(context, long_context);
    ArmMetricValuesBuffer values;
    values.add_value(0, true, u"1");
    ArmMetricValuesBuffer long_values;
    long_values.add_value(0, 1, 0, true, 1);
    long_values.add_value(0, true, LONG_TEXT);
    expect_same_when_assignment_fails(values, long_values);
    ArmMetricBindingsBuffer bindings;
    ArmMetricBindingsBuffer other;
    other.add_binding(1, id_of(1));
    expect_same_when_assignment_fails(bindings, other);
}

// A refusal that has no memory for its message is std::bad_alloc, and changes nothing either.
TEST(ArmMemory, RunsOutDuringARefusalWithoutATrace)
{
    ArmBuffer buffer;
    fill(buffer);
    for (unsigned long nth = 1; nth < 1000; ++nth) {
        const memory_fault fault(nth);
        try {
            buffer.add_buffer(7LL);
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::bad_alloc&) {
        } catch (const STPException&) {
            if (!fault.struck())
                break;
        }
    }
    EXPECT_EQ(buffer.count(), 4);
}

TEST(ArmMemory, SmallStacksSuffice)
{
    const UString text(std::u16string(1000000, u's'));
    names_t names;
    for (int i = 0; i < 20000; ++i)
        names[ustr("name " + std::to_string(i))] = -i;
    int values = 0;
    on_small_stack([&] {
        ArmAppContextBuffer context(names);
        context.add_ctx_prop(u"name 19999", text);
        ArmTransIdentyBuffer identity;
        identity.add_identity_prop(text.c_str(), text.c_str());
        identity.set_uri(text);
        arm_id id = id_of(1);
        ArmBuffer buffer;
        buffer.add_buffer(context);
        buffer.add_buffer(identity);
        buffer.add_buffer(text);
        buffer.add_buffer(text, true, id);
        const auto& record = record_of<arm_subbuffer_app_context>(buffer);
        values = record.context_value_array[0] != nullptr ? record.context_value_count : -1;
        ArmBuffer::pool_string(nullptr, text);
        try {
            buffer.check_buff_length(text);
        } catch (const STPException&) {
            ++values;
        }
    });
    EXPECT_EQ(values, 20001);
}

// ---- threads ----

UString numbered(int i)
{
    return ustr("shared by threads, number " + std::to_string(i));
}

TEST(ArmThreads, AgreeOnTheStringsOfTheProcess)
{
    constexpr int texts = 300;
    constexpr std::size_t threads = 4;
    std::vector<std::vector<const char*>> found(threads);
    std::vector<std::thread> workers;
    for (std::size_t t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            ArmBuffer global(true);
            for (int i = 0; i < texts; ++i) {
                // Each begins elsewhere.
                const int n = (i + static_cast<int>(t) * 70) % texts;
                const char* const string = ArmBuffer::pool_string(&global, numbered(n));
                ArmBuffer own;
                if (ArmBuffer::pool_string(&own, numbered(n)) == string)
                    found[t].push_back(string);
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    for (std::size_t t = 0; t < threads; ++t) {
        ASSERT_EQ(found[t].size(), static_cast<std::size_t>(texts));
        for (int i = 0; i < texts; ++i) {
            const int n = (i + static_cast<int>(t) * 70) % texts;
            const char* const string = found[t][static_cast<std::size_t>(i)];
            EXPECT_EQ(ArmBuffer::g_str_pool.at(numbered(n)), string);
            EXPECT_EQ(string, numbered(n).utf8_str());
        }
    }
}

TEST(ArmThreads, ReadOneCollector)
{
    const ArmTransIdentyBuffer identity = long_identity();
    const std::string expected = words_of(identity);
    std::vector<std::future<bool>> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(std::async(std::launch::async, [&] {
            bool is_same = words_of(identity) == expected;
            for (const auto& [name, index] : identity.ctx_indicies())
                is_same = is_same && name == UString(name.c_str());
            return is_same;
        }));
    }
    for (auto& reader : readers)
        EXPECT_TRUE(reader.get());
}

TEST(ArmThreads, HaveAWholePoolInTheChildOfAFork)
{
    if (HAS_ADDRESS_SANITIZER)
        GTEST_SKIP() << "its allocator may stay locked in the child";
    in_child([] {
        std::atomic<bool> stop{false};
        std::atomic<int> pooled{0};
        std::vector<std::thread> threads;
        for (int t = 1; t <= 2; ++t) {
            threads.emplace_back([&, t] {
                for (int n = 0; !stop; ++n, ++pooled)
                    ArmBuffer::pool_string(nullptr, numbered(t * 1000000 + n % 10000));
            });
        }
        for (int i = 0; i < 10; ++i) {
            while (pooled < i * 100)  // they are at work
                std::this_thread::yield();
            in_child([] {
                const UString* former = nullptr;
                for (const auto& [text, string] : ArmBuffer::g_str_pool) {
                    EXPECT_EQ(string, text.utf8_str());
                    EXPECT_TRUE(former == nullptr || *former < text);
                    former = &text;
                }
                const UString text = fresh_text();
                EXPECT_EQ(ArmBuffer::pool_string(nullptr, text), text.utf8_str());
                _exit(testing::Test::HasFailure() ? 1 : 0);
            });
        }
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    });
}

}  // namespace
