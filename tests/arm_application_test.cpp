#include <kvutil/arm.h>
#include <kvutil/exception.h>
#include <kvutil/stpexception.h>

#include "support/child.h"
#include "support/fake_arm4_runtime.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/scratch.h"
#include "support/text.h"
#include "support/virtual_slot.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <type_traits>

// What a process is to ARM it is for good, so each of these runs in a process of its own.

namespace {

using Kvl::ArmApplication;
using Kvl::ArmBuffer;
using Kvl::ArmPerThreadOperationStack;
using Kvl::ArmRuntimeLoader;
using Kvl::OperationRegistrar;
using Kvl::UString;

constexpr int UNAVAILABLE = -21000;

typedef std::vector<std::string> calls_t;
typedef std::vector<log_line_t> lines_t;

int register_as(const char16_t* name, const ArmBuffer* buffer = nullptr)
{
    return ArmApplication::register_application(Kvl::ARM_LEVEL_ON, UString(name), buffer);
}

std::string id(char kind, const std::string& number)
{
    return std::string(1, kind) + "0" + std::string(30 - number.size(), '0') + number;
}

std::string hex(const arm_id& identifier)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : identifier.id_u.uint8)
        text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

const std::string NO_ID(32, '0');

std::string app_call(const std::string& name, const std::string& buffer = "null")
{
    return "arm_register_application app_name=\"" + name +
           "\" input_app_id=fresh flags=0 buffer=" + buffer + " -> 0 app_id=" + id('a', "1");
}

std::string tran_call(const std::string& name, const std::string& number,
                      const std::string& buffer = "null", const std::string& code = "0")
{
    return "arm_register_transaction app_id=" + id('a', "1") + " tran_name=\"" + name +
           "\" input_tran_id=fresh flags=0 buffer=" + buffer + " -> " + code +
           (number.empty() ? "" : " tran_id=" + id('b', number));
}

/// An operation with a diagnostic text for registration data, which any call may carry.
class described_t final : public OperationRegistrar {
public:
    described_t(const char16_t* name, const char16_t* detail)
        : OperationRegistrar(UString(name)), detail_(detail)
    {
    }
    void user_data(ArmBuffer& buffer) const override
    {
        EXPECT_EQ(buffer.count(), 0);
        buffer.add_buffer(detail_);
    }

private:
    const UString detail_;
};

/// An operation without registration data, for who destroys it before the process ends.
class plain_t final : public OperationRegistrar {
public:
    using OperationRegistrar::OperationRegistrar;
};

/// An operation whose registration data runs some code.
template <class Code>
class running_t final : public OperationRegistrar {
public:
    running_t(const char16_t* name, Code code) : OperationRegistrar(UString(name)), code_(code) {}
    void user_data(ArmBuffer&) const override { code_(); }

private:
    const Code code_;
};

void expect_everything_unavailable()
{
    arm_id out{};
    char text[ARM_MSG_BUFFER_LENGTH] = "untouched";
    long long time = -7;
    EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_OFF);
    EXPECT_FALSE(ArmApplication::is_on());
    EXPECT_EQ(ArmApplication::start_application(nullptr, u"group", u"instance"), UNAVAILABLE);
    EXPECT_EQ(ArmApplication::register_transaction("name", 0, nullptr, &out), UNAVAILABLE);
    EXPECT_EQ(ArmApplication::get_error_message(106, -1, text), UNAVAILABLE);
    EXPECT_EQ(ArmApplication::get_arrival_time(&time), UNAVAILABLE);
    EXPECT_EQ(ArmPerThreadOperationStack::get_base_correlator(), nullptr);
    EXPECT_EQ(ArmPerThreadOperationStack::start_transaction(out, nullptr, true), UNAVAILABLE);
    EXPECT_EQ(ArmPerThreadOperationStack::stop_transaction(0, nullptr), UNAVAILABLE);
    EXPECT_EQ(ArmPerThreadOperationStack::current_local_operation(), 0);
    EXPECT_EQ(ArmPerThreadOperationStack::current_local_correlator(), nullptr);
    EXPECT_FALSE(ArmPerThreadOperationStack::doing_local_operation());
    EXPECT_EQ(hex(out), NO_ID);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(time, -7);
}

TEST(ArmApplication, IsOffBeforeItRegisters)
{
    in_child([] {
        const fake_runtime_t runtime;
        expect_everything_unavailable();
        EXPECT_EQ(runtime.count(), 0);
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, nullptr);
    });
}

TEST(ArmApplication, IsUnavailableWithoutARuntime)
{
    in_child([] {
        ASSERT_EQ(dlopen("libarm4.so", RTLD_NOW), nullptr) << "this test is for a machine without";
        const std::string reason = dlerror();
        recording_logger logger;
        Kvl::STPException::g_logging_enabled = false;  // that is for exceptions
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        EXPECT_EQ(logger.lines,
                  (lines_t{{"error", "ArmRuntimeLoader::load_runtime: " + reason, 0},
                           {"error",
                            "ArmApplication::register_application: Failed to load ARM runtime. "
                            "ARM is disabled.",
                            0}}));
        expect_everything_unavailable();
        EXPECT_EQ(logger.lines.size(), 2u);
    });
}

TEST(ArmApplication, IsUnavailableWithoutALoggerToo)
{
    in_child([] {
        EXPECT_EQ(Log::LogAdaptor::logger_kvl, nullptr);
        EXPECT_EQ(ArmRuntimeLoader::load_runtime(), UNAVAILABLE);
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        expect_everything_unavailable();
    });
}

TEST(ArmApplication, SurvivesALoggerThatThrows)
{
    class thrower_t : public recording_logger {
        void error(const std::string&, int) override { throw 1; }
    };
    in_child([] {
        const thrower_t logger;
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        expect_everything_unavailable();
    });
}

TEST(ArmApplication, LoadsNothingAtLevelZero)
{
    in_child([] {
        const fake_runtime_t runtime;
        const OperationRegistrar operation(u"pay");
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_OFF, u"shop", nullptr), 0);
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, nullptr);
        EXPECT_EQ(ArmRuntimeLoader::g_fnc_arm_register_application, nullptr);
        EXPECT_EQ(runtime.count(), 0);
        expect_everything_unavailable();
    });
}

TEST(ArmApplication, RegistersItselfAndItsOperationsInTheOrderOfTheirConstruction)
{
    in_child([] {
        const fake_runtime_t runtime;
        EXPECT_EQ(ArmApplication::g_registrars, nullptr);
        const OperationRegistrar pay(u"pay");
        const described_t ship(u"ship \u00FC", u"by \"sea\"");
        const OperationRegistrar refund(u"refund");
        EXPECT_EQ(*ArmApplication::g_registrars,
                  (std::vector<OperationRegistrar*>{const_cast<OperationRegistrar*>(&pay),
                                                    const_cast<described_t*>(&ship),
                                                    const_cast<OperationRegistrar*>(&refund)}));
        EXPECT_EQ(pay.name(), u"pay");
        EXPECT_EQ(hex(pay.tran_id()), NO_ID);

        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_EQ(runtime.calls(),
                  (calls_t{app_call("shop"), tran_call("pay", "1"),
                           tran_call("ship \u00FC", "2", R"([diag_detail("by \"sea\"")])"),
                           tran_call("refund", "3")}))
            << "what one operation adds is not there for the next";
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_ON);
        EXPECT_TRUE(ArmApplication::is_on());
        EXPECT_NE(ArmRuntimeLoader::g_arm4_handle, nullptr);
        EXPECT_EQ(hex(ArmApplication::g_app_id), id('a', "1"));
        EXPECT_EQ(hex(pay.tran_id()), id('b', "1"));
        EXPECT_EQ(hex(ship.tran_id()), id('b', "2"));
        EXPECT_EQ(hex(refund.tran_id()), id('b', "3"));

        const std::vector<std::string> ids = runtime.fresh_ids();
        EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 4u);
        EXPECT_EQ(std::count(ids.begin(), ids.end(), NO_ID), 0);
    });
}

TEST(ArmApplication, RegistersWithoutOperations)
{
    in_child([] {
        const fake_runtime_t runtime;
        EXPECT_EQ(register_as(u""), 0);
        EXPECT_EQ(runtime.calls(), calls_t{app_call("")});
        EXPECT_EQ(ArmApplication::g_registrars, nullptr);
        EXPECT_TRUE(ArmApplication::is_on());
    });
}

// A run-time may keep what it was given when something was registered.
TEST(ArmApplication, GivesArmTextsThatStay)
{
    in_child([] {
        const fake_runtime_t runtime;
        const described_t ship(u"ship", u"by sea");
        ArmBuffer buffer;
        EXPECT_EQ(register_as(u"shop", &buffer), 0);
        EXPECT_EQ(ArmApplication::start_application(&buffer, u"till", u"7"), 0);
        for (const char16_t* const text : {u"shop", u"ship", u"by sea", u"till", u"7"})
            EXPECT_EQ(ArmBuffer::g_str_pool.count(text), 1u) << UString(text).utf8_str();
    });
}

TEST(ArmApplication, TakesAnyLevelButZero)
{
    in_child([] {
        const fake_runtime_t runtime;
        for (const int level : {7, -1, 0x7FFFFFFF}) {
            const auto given = static_cast<Kvl::arm_level_t>(level);
            EXPECT_EQ(ArmApplication::register_application(given, u"shop", nullptr), 0);
            EXPECT_EQ(ArmApplication::g_level, given);
            EXPECT_TRUE(ArmApplication::is_on());
        }
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_OFF, u"shop", nullptr), 0);
        EXPECT_TRUE(ArmApplication::is_on()) << "nothing is done at level 0";
    });
}

TEST(ArmApplication, PassesABufferThatHoldsSomething)
{
    in_child([] {
        const fake_runtime_t runtime;
        ArmBuffer buffer;
        buffer.add_buffer();
        EXPECT_EQ(register_as(u"shop", &buffer), 0);
        EXPECT_EQ(ArmApplication::start_application(&buffer, u"g", u"i"), 0);
        buffer.clear();
        EXPECT_EQ(ArmApplication::start_application(&buffer, u"g", u"i"), 0);
        EXPECT_EQ(runtime.calls()[0], app_call("shop", "[charset(106 flags=0)]"));
        EXPECT_NE(runtime.calls()[1].find(" buffer=[charset(106 flags=0)] ->"), std::string::npos);
        EXPECT_NE(runtime.calls()[2].find(" buffer=null ->"), std::string::npos);
    });
}

TEST(ArmApplication, PassesABufferThatHoldsNothingAsNone)
{
    in_child([] {
        const fake_runtime_t runtime;
        const ArmBuffer buffer;
        EXPECT_EQ(register_as(u"shop", &buffer), 0);
        EXPECT_EQ(runtime.calls(), calls_t{app_call("shop")});
    });
}

TEST(ArmApplication, StaysOffWhenArmRefusesIt)
{
    in_child([] {
        const fake_runtime_t runtime;
        const OperationRegistrar pay(u"pay");
        const recording_logger logger;
        runtime.plan("arm_register_application", 1, -5);
        EXPECT_EQ(register_as(u"shop"), -5);
        EXPECT_EQ(runtime.calls(),
                  calls_t{"arm_register_application app_name=\"shop\" input_app_id=fresh flags=0 "
                          "buffer=null -> -5"});
        EXPECT_EQ(logger.lines, lines_t());
        expect_everything_unavailable();

        EXPECT_EQ(register_as(u"shop"), 0) << "it may try again";
        EXPECT_TRUE(ArmApplication::is_on());
        EXPECT_EQ(hex(pay.tran_id()), id('b', "1"));
    });
}

TEST(ArmApplication, TakesAPositiveCodeForSuccess)
{
    in_child([] {
        const fake_runtime_t runtime;
        runtime.plan("arm_register_application", 1, 3);
        EXPECT_EQ(register_as(u"shop"), 3);
        EXPECT_TRUE(ArmApplication::is_on());

        const OperationRegistrar pay(u"pay");
        const OperationRegistrar ship(u"ship");
        runtime.plan("arm_register_application", 1, 3);
        runtime.plan("arm_register_transaction", 1, 4);
        EXPECT_EQ(register_as(u"shop"), 0) << "the code of the last call";
        runtime.plan("arm_register_transaction", 2, 5);
        EXPECT_EQ(register_as(u"shop"), 5);
        EXPECT_TRUE(ArmApplication::is_on());
    });
}

TEST(ArmApplication, StopsAtTheFirstOperationThatArmRefuses)
{
    in_child([] {
        const fake_runtime_t runtime;
        const OperationRegistrar pay(u"pay");
        const described_t ship(u"ship", u"by sea");
        const OperationRegistrar refund(u"refund");
        const recording_logger logger;
        runtime.plan("arm_register_transaction", 2, -17);
        EXPECT_EQ(register_as(u"shop"), -17);
        EXPECT_EQ(runtime.calls(),
                  (calls_t{app_call("shop"), tran_call("pay", "1"),
                           tran_call("ship", "", R"([diag_detail("by sea")])", "-17"),
                           "arm_get_error_message charset=106 code=-17 -> 0"}));
        EXPECT_EQ(logger.lines, lines_t()) << "the text goes nowhere";
        EXPECT_EQ(hex(ship.tran_id()), NO_ID);
        EXPECT_EQ(hex(refund.tran_id()), NO_ID);
        expect_everything_unavailable();
        EXPECT_EQ(runtime.count(), 4);
    });
}

TEST(ArmApplication, ReturnsTheRefusalAlsoWhenThereIsNoTextForIt)
{
    in_child([] {
        const fake_runtime_t runtime;
        const OperationRegistrar pay(u"pay");
        runtime.plan("arm_register_transaction", 1, -17);
        runtime.plan("arm_get_error_message", 1, -18);
        EXPECT_EQ(register_as(u"shop"), -17);
        expect_everything_unavailable();
    });
}

TEST(ArmApplication, StartsAnInstance)
{
    in_child([] {
        const fake_runtime_t runtime;
        register_as(u"shop");
        runtime.forget();
        EXPECT_EQ(ArmApplication::start_application(nullptr, u"till", u"7"), 0);
        EXPECT_EQ(ArmApplication::g_app_handle, 1);
        EXPECT_EQ(ArmApplication::start_application(nullptr, u"", u""), 0);
        EXPECT_EQ(ArmApplication::g_app_handle, 2);
        runtime.plan("arm_start_application", 1, -3);
        EXPECT_EQ(ArmApplication::start_application(nullptr, u"till", u"8"), -3);
        EXPECT_EQ(ArmApplication::g_app_handle, 2);
        const std::string start = "arm_start_application app_id=" + id('a', "1");
        EXPECT_EQ(
            runtime.calls(),
            (calls_t{start + " app_group=\"till\" app_instance=\"7\" flags=0 buffer=null -> 0 "
                             "app_handle=1",
                     start + " app_group=\"\" app_instance=\"\" flags=0 buffer=null -> 0 "
                             "app_handle=2",
                     start + " app_group=\"till\" app_instance=\"8\" flags=0 buffer=null -> -3"}));
        EXPECT_TRUE(ArmApplication::is_on());
    });
}

TEST(ArmApplication, RegistersFurtherTransactions)
{
    in_child([] {
        const fake_runtime_t runtime;
        register_as(u"shop");
        ArmBuffer buffer;
        buffer.add_buffer(UString(u"x"));
        arm_id first{};
        arm_id second{};
        EXPECT_EQ(ArmApplication::register_transaction("first", 0, nullptr, &first), 0);
        EXPECT_EQ(ArmApplication::register_transaction("second", 8, buffer.buffer4(), &second), 0);
        EXPECT_EQ(hex(first), id('b', "1"));
        EXPECT_EQ(hex(second), id('b', "2"));
        runtime.plan("arm_register_transaction", 1, -9);
        EXPECT_EQ(ArmApplication::register_transaction("third", 0, nullptr, &second), -9);
        EXPECT_TRUE(ArmApplication::is_on());
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("first", "1"),
                                            "arm_register_transaction app_id=" + id('a', "1") +
                                                " tran_name=\"second\" input_tran_id=fresh flags=8 "
                                                "buffer=[diag_detail(\"x\")] -> 0 tran_id=" +
                                                id('b', "2"),
                                            tran_call("third", "", "null", "-9")}));
        const std::vector<std::string> ids = runtime.fresh_ids();
        EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 4u);
    });
}

TEST(ArmApplication, PassesAnEmptyBufferOfAFurtherTransactionAsNone)
{
    in_child([] {
        const fake_runtime_t runtime;
        register_as(u"shop");
        const ArmBuffer empty;
        arm_id out{};
        EXPECT_EQ(ArmApplication::register_transaction("first", 0, empty.buffer4(), &out), 0);
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("first", "1")}));
    });
}

TEST(ArmApplication, ForwardsErrorTextsAndTimes)
{
    in_child([] {
        const fake_runtime_t runtime;
        register_as(u"shop");
        runtime.forget();
        arm_message_buffer_t text{};
        EXPECT_EQ(ArmApplication::get_error_message(3, -44, text), 0);
        EXPECT_EQ(std::strlen(text), 765u);
        runtime.plan("arm_get_error_message", 1, -2);
        EXPECT_EQ(ArmApplication::get_error_message(106, -45, text), -2);
        long long time = 0;
        EXPECT_EQ(ArmApplication::get_arrival_time(&time), 0);
        EXPECT_EQ(time, 1);
        runtime.plan("arm_get_arrival_time", 1, -6);
        EXPECT_EQ(ArmApplication::get_arrival_time(&time), -6);
        EXPECT_EQ(runtime.calls(),
                  (calls_t{"arm_get_error_message charset=3 code=-44 -> 0",
                           "arm_get_error_message charset=106 code=-45 -> -2",
                           "arm_get_arrival_time -> 0 time=1", "arm_get_arrival_time -> -6"}));
    });
}

TEST(ArmApplication, TakesNullPointersForWhatNobodyNeeds)
{
    in_child([] {
        const fake_runtime_t runtime;
        register_as(u"shop");
        runtime.forget();
        EXPECT_EQ(ArmApplication::register_transaction(nullptr, 0, nullptr, nullptr), 0);
        EXPECT_EQ(ArmApplication::get_error_message(106, -44, nullptr), 0);
        EXPECT_EQ(ArmApplication::get_arrival_time(nullptr), 0);
        EXPECT_EQ(runtime.calls(),
                  (calls_t{tran_call("", "1"), "arm_get_error_message charset=106 code=-44 -> 0",
                           "arm_get_arrival_time -> 0 time=1"}));
    });
}

// ---- What registration data may do ----

template <class Throw>
void expect_off_after(Throw thrower, const std::string& text)
{
    in_child([&] {
        const fake_runtime_t runtime;
        const OperationRegistrar pay(u"pay");
        const running_t<Throw> ship(u"ship", thrower);
        const OperationRegistrar refund(u"refund");
        const recording_logger logger;
        Kvl::STPException::g_logging_enabled = false;  // what is thrown may log itself
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("pay", "1")}));
        EXPECT_EQ(logger.lines,
                  (lines_t{{"error", "ArmApplication::register_application: " + text, 0}}));
        expect_everything_unavailable();
    });
}

TEST(ArmRegistrationData, MayThrowAnything)
{
    expect_off_after([] { throw std::runtime_error("no data"); }, "no data");
    expect_off_after([] { throw 42; }, "unknown exception");
    expect_off_after([] { throw Kvl::Exception(u"no d\u00E4ta"); }, "no d\u00E4ta");
    expect_off_after(
        [] {
            ArmBuffer buffer;
            for (int i = 0; i < 5; ++i)
                buffer.add_buffer(UString(u"x"));
        },
        "PLXSV0670E Application Resource Measurement (ARM) error: "
        "ArmBuffer::add_buffer():  Max Buffer count exceeded..");
}

TEST(ArmRegistrationData, IsToldWithTheRestOfATextThatHasAnOddByte)
{
    in_child([] {
        const fake_runtime_t runtime;
        const running_t ship(u"ship", [] { throw std::runtime_error("no \xFF data"); });
        const recording_logger logger;
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_NE(logger.lines[0].text.find("register_application: no "), std::string::npos);
        EXPECT_NE(logger.lines[0].text.find(" data"), std::string::npos);
    });
}

TEST(ArmRegistrationData, MayThrowWithoutALogger)
{
    in_child([] {
        const fake_runtime_t runtime;
        const running_t ship(u"ship", [] { throw 42; });
        EXPECT_EQ(register_as(u"shop"), UNAVAILABLE);
        expect_everything_unavailable();
    });
}

TEST(ArmRegistrationData, MayConstructRegistrarsWhichComeTooLate)
{
    in_child([] {
        const fake_runtime_t runtime;
        std::vector<std::unique_ptr<plain_t>> late;
        const running_t pay(u"pay", [&late] {
            for (int i = 0; i < 100; ++i)
                late.push_back(std::make_unique<plain_t>(UString(u"late")));
        });
        const OperationRegistrar ship(u"ship");
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_EQ(runtime.calls(),
                  (calls_t{app_call("shop"), tran_call("pay", "1"), tran_call("ship", "2")}));
        EXPECT_EQ(ArmApplication::g_registrars->size(), 102u);
    });
}

TEST(ArmRegistrationData, MayDestroyRegistrarsThatAreStillToCome)
{
    in_child([] {
        const fake_runtime_t runtime;
        std::optional<plain_t> ship;
        const running_t pay(u"pay", [&ship] { ship.reset(); });
        ship.emplace(UString(u"ship"));
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("pay", "1")}));
    });
}

// ---- Registrars ----

TEST(OperationRegistrar, LeavesTheListWhenItIsDestroyed)
{
    in_child([] {
        {
            const OperationRegistrar first(u"first");
            auto second = std::make_unique<plain_t>(UString(u"second"));
            const OperationRegistrar third(u"third");
            second.reset();
            EXPECT_EQ(*ArmApplication::g_registrars,
                      (std::vector<OperationRegistrar*>{const_cast<OperationRegistrar*>(&first),
                                                        const_cast<OperationRegistrar*>(&third)}));
        }
        ASSERT_NE(ArmApplication::g_registrars, nullptr) << "the list is never freed";
        EXPECT_TRUE(ArmApplication::g_registrars->empty());
        const fake_runtime_t runtime;
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_EQ(runtime.calls(), calls_t{app_call("shop")});
    });
}

// c_str() writes the terminator when there is none, which many threads could not do at once.
TEST(OperationRegistrar, HasATerminatedNameToBeReadByManyThreads)
{
    in_child([] {
        UString name(u"a name that is too long to be kept within the object itself");
        icu::UnicodeString& units_only = name;
        units_only.append(u"xyz", 0, 3);  // not terminated, and shared by its copies
        const plain_t operation(name);
        const char16_t* const units = operation.name().getBuffer();
        operation.name().c_str();
        EXPECT_EQ(operation.name().getBuffer(), units) << "the text was moved";
    });
}

TEST(OperationRegistrar, IsNamedByTheEmptyTextForABogusOne)
{
    in_child([] {
        const fake_runtime_t runtime;
        UString bogus(u"text");
        bogus.setToBogus();
        const plain_t operation(bogus);
        EXPECT_EQ(operation.name(), u"");
        EXPECT_FALSE(operation.name().isBogus());
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("", "1")}));
    });
}

TEST(OperationRegistrar, EntersNothingWithoutMemory)
{
    in_child([] {
        const UString name(u"a name that is too long to be kept within the object itself");
        EXPECT_EQ(for_each_memory_fault([&] { const OperationRegistrar operation(name); },
                                        [] { EXPECT_EQ(ArmApplication::g_registrars, nullptr); }),
                  2)
            << "the list and its element; the text itself is shared";
        const OperationRegistrar kept(name);
        const std::vector<OperationRegistrar*> before = *ArmApplication::g_registrars;
        EXPECT_GT(for_each_memory_fault([&] { const OperationRegistrar operation(name); },
                                        [&] { EXPECT_EQ(*ArmApplication::g_registrars, before); }),
                  0);
    });
}

TEST(OperationRegistrar, HasOneVirtualOperationAndNoVirtualDestructor)
{
    EXPECT_FALSE(std::has_virtual_destructor_v<OperationRegistrar>);
    EXPECT_EQ(virtual_slot(&OperationRegistrar::user_data), 0u) << "no destructor before it";
    EXPECT_EQ(sizeof(OperationRegistrar), sizeof(void*) + sizeof(UString) + sizeof(arm_id));
}

TEST(OperationRegistrar, MayBeConstructedByManyThreadsAtOnce)
{
    in_child([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([] {
                for (int n = 0; n < 1000; ++n)
                    const OperationRegistrar operation(u"x");
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_TRUE(ArmApplication::g_registrars->empty());
    });
}

// ---- Failures ----

/// Runs an operation that returns a code with its first, second, ... allocation failing.
/// @return  how many failed
template <class Operation, class Check>
int for_each_silent_memory_fault(Operation operation, Check check)
{
    for (unsigned long nth = 1;; ++nth) {
        int code = 0;
        bool struck = false;
        {
            const memory_fault fault(nth);
            code = operation();
            struck = fault.struck();
        }
        if (!struck)
            return static_cast<int>(nth) - 1;
        EXPECT_EQ(code, UNAVAILABLE);
        check();
    }
}

TEST(ArmApplication, IsOffWhenMemoryRunsOutWhileItRegisters)
{
    in_child([] {
        const fake_runtime_t runtime;
        runtime.record(0);
        const described_t pay(u"pay", u"a text that has to be made");
        const described_t ship(u"ship", u"another text");
        const recording_logger logger;
        EXPECT_GT(for_each_silent_memory_fault([] { return register_as(u"shop"); },
                                               [] { expect_everything_unavailable(); }),
                  3);
        ASSERT_FALSE(logger.lines.empty());
        for (const log_line_t& line : logger.lines)
            EXPECT_EQ(line.text, "ArmApplication::register_application: std::bad_alloc");
        EXPECT_TRUE(ArmApplication::is_on());
    });
}

TEST(ArmApplication, IsNotStartedWhenMemoryRunsOut)
{
    in_child([] {
        const fake_runtime_t runtime;
        runtime.record(0);
        register_as(u"shop");
        EXPECT_GT(for_each_silent_memory_fault(
                      [] { return ArmApplication::start_application(nullptr, u"till", u"7"); },
                      [] {
                          EXPECT_EQ(ArmApplication::g_app_handle, 0);
                          EXPECT_TRUE(ArmApplication::is_on());
                      }),
                  1);
        EXPECT_EQ(ArmApplication::g_app_handle, 1);
    });
}

TEST(ArmApplication, SaysSilentlyThatThereIsNoRuntimeWhenMemoryRunsOut)
{
    in_child([] {
        const recording_logger logger;
        for_each_silent_memory_fault([] { return register_as(u"shop"); },
                                     [] { expect_everything_unavailable(); });
    });
}

TEST(ArmApplication, RegistersWholeInAThreadThatIsCancelled)
{
    in_child([] {
        const fake_runtime_t runtime;
        const running_t pay(u"pay", [] { pthread_testcancel(); });
        pthread_t thread;
        int code = -1;
        pthread_create(
            &thread, nullptr,
            [](void* result) -> void* {
                pthread_cancel(pthread_self());
                *static_cast<int*>(result) = register_as(u"shop");
                pthread_testcancel();
                *static_cast<int*>(result) = -2;
                return nullptr;
            },
            &code);
        pthread_join(thread, nullptr);
        EXPECT_EQ(code, 0);
        EXPECT_EQ(runtime.calls(), (calls_t{app_call("shop"), tran_call("pay", "1")}));
    });
}

// ---- The log of the run-time ----

TEST(FakeArm4, WritesEachCallToTheFileThatTheEnvironmentNames)
{
    const scratch_t scratch;
    const std::string log = scratch.path + "/calls";
    in_child([&log] {
        setenv("FAKE_ARM4_LOG", log.c_str(), 1);
        const fake_runtime_t runtime;
        const OperationRegistrar pay(u"pay");
        register_as(u"shop \"x\"\n");
        std::thread([] {
            long long time = 0;
            ArmApplication::get_arrival_time(&time);
        }).join();
    });
    std::ifstream lines(log);
    std::string line;
    for (const char* const expected :
         {R"(\d+ 1 arm_register_application app_name="shop \\"x\\"\\x0a" input_app_id=\w{32} .*)",
          R"(\d+ 1 arm_register_transaction .* tran_name="pay" .* -> 0 tran_id=b0\d{29}1)",
          R"(\d+ 2 arm_get_arrival_time -> 0 time=1)"}) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_TRUE(std::regex_match(line, std::regex(expected))) << line;
    }
    EXPECT_FALSE(std::getline(lines, line));
}

// ---- Keys ----

TEST(ArmApplication, MakesANewKeyEachTime)
{
    in_child([] {
        const fake_runtime_t runtime;
        EXPECT_EQ(register_as(u"shop"), 0);
        const pthread_key_t first = ArmApplication::g_global_data.key;
        arm_correlator* const base = ArmPerThreadOperationStack::get_base_correlator();
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_NE(ArmApplication::g_global_data.key, first);
        EXPECT_EQ(ArmPerThreadOperationStack::start_transaction(arm_id{}, nullptr, true),
                  UNAVAILABLE)
            << "the stack was under the former key";
        EXPECT_NE(ArmPerThreadOperationStack::get_base_correlator(), base);
        EXPECT_NE(pthread_getspecific(first), nullptr) << "to be freed with the thread";
    });
}

TEST(ArmApplication, MayTryAgainAsOftenAsItLikes)
{
    in_child([] {
        const fake_runtime_t runtime;
        runtime.record(0);
        for (int i = 0; i < 3 * PTHREAD_KEYS_MAX; ++i) {
            runtime.plan("arm_register_application", 1, -5);
            ASSERT_EQ(register_as(u"shop"), -5);
        }
        EXPECT_EQ(register_as(u"shop"), 0);
        EXPECT_NE(ArmPerThreadOperationStack::get_base_correlator(), nullptr);
    });
}

}  // namespace
