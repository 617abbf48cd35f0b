#include <kvutil/arm.h>

#include "platform_text_impl.h"
#include "support/child.h"
#include "support/fake_arm4_runtime.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/text.h"
#include "support/watched_thread.h"
#include "sys_calls_impl.h"
#include "sysutl_ieee_hostid_impl.h"
#include "tbs_uuid_gen_impl.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using Kvl::ArmApplication;
using Kvl::ArmBuffer;
using Kvl::ArmRuntimeLoader;
using Kvl::OperationRegistrar;
using Kvl::UString;
typedef Kvl::ArmPerThreadOperationStack Stack;

constexpr int UNAVAILABLE = -21000;

typedef std::vector<std::string> names_t;

const names_t FUNCTIONS = {"arm_register_application", "arm_start_application",
                           "arm_start_transaction",    "arm_stop_transaction",
                           "arm_register_transaction", "arm_get_error_message",
                           "arm_get_arrival_time"};

// Linked before the library's own objects, so constructed before its statics.
const OperationRegistrar g_early(u"constructed before the statics of the library");

/// The system's loader with one of our run-times in place of "libarm4.so", and a note of each call.
class noted_loader_t {
public:
    explicit noted_loader_t(const std::string& runtime)
    {
        g_loader = this;
        path = arm4_runtime(runtime);
        Kvl::sys_calls.dlopen = open;
        Kvl::sys_calls.dlsym = find;
        Kvl::sys_calls.dlclose = close;
    }
    ~noted_loader_t() { Kvl::sys_calls = real_; }
    noted_loader_t(const noted_loader_t&) = delete;
    noted_loader_t& operator=(const noted_loader_t&) = delete;

    std::string path;
    names_t notes;
    void* handle = nullptr;

private:
    static void* open(const char* name, int flags)
    {
        g_loader->notes.push_back(std::string("open ") + name + (flags == RTLD_NOW ? " now" : "?"));
        return g_loader->handle = dlopen(g_loader->path.c_str(), flags);
    }
    static void* find(void* library, const char* name)
    {
        EXPECT_EQ(library, g_loader->handle);
        g_loader->notes.push_back(name);
        return dlsym(library, name);
    }
    static int close(void* library)
    {
        EXPECT_EQ(library, g_loader->handle);
        g_loader->notes.push_back("close");
        return dlclose(library);
    }

    static inline noted_loader_t* g_loader = nullptr;
    const Kvl::sys_calls_t real_ = Kvl::sys_calls;
};

/// The seven pointers, in the order of FUNCTIONS.
std::vector<void*> found_functions()
{
    typedef ArmRuntimeLoader L;
    return {reinterpret_cast<void*>(L::g_fnc_arm_register_application),
            reinterpret_cast<void*>(L::g_fnc_arm_start_application),
            reinterpret_cast<void*>(L::g_fnc_arm_start_transaction),
            reinterpret_cast<void*>(L::g_fnc_arm_stop_transaction),
            reinterpret_cast<void*>(L::g_fnc_arm_register_transaction),
            reinterpret_cast<void*>(L::g_fnc_arm_get_error_message),
            reinterpret_cast<void*>(L::g_fnc_arm_get_arrival_time)};
}

TEST(ArmRuntimeLoader, FindsTheSevenFunctionsInTheirOrderOnce)
{
    in_child([] {
        noted_loader_t loader("stub_arm4");
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, nullptr);
        EXPECT_EQ(found_functions(), std::vector<void*>(7));
        EXPECT_EQ(ArmRuntimeLoader::load_runtime(), 0);
        names_t expected = {"open libarm4.so now"};
        expected.insert(expected.end(), FUNCTIONS.begin(), FUNCTIONS.end());
        EXPECT_EQ(loader.notes, expected);
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, loader.handle);
        for (std::size_t i = 0; i < FUNCTIONS.size(); ++i)
            EXPECT_EQ(found_functions()[i], dlsym(loader.handle, FUNCTIONS[i].c_str()));

        EXPECT_EQ(ArmRuntimeLoader::load_runtime(), 0);
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
        EXPECT_EQ(loader.notes, expected) << "it stays loaded";
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_ON);
    });
}

class ArmRuntimeThatLacks : public testing::TestWithParam<std::size_t> {};

TEST_P(ArmRuntimeThatLacks, AFunctionIsClosedAgain)
{
    in_child([] {
        const std::size_t missing = GetParam();
        const opened_runtime_t kept("stub_arm4_lacks_" + FUNCTIONS[missing]);
        noted_loader_t loader("stub_arm4_lacks_" + FUNCTIONS[missing]);
        recording_logger logger;
        const int level_on_return =
            ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr);
        EXPECT_EQ(level_on_return, UNAVAILABLE);
        names_t attempt = {"open libarm4.so now"};
        attempt.insert(attempt.end(), FUNCTIONS.begin(),
                       FUNCTIONS.begin() + static_cast<std::ptrdiff_t>(missing) + 1);
        attempt.push_back("close");
        EXPECT_EQ(loader.notes, attempt);
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, nullptr);
        for (std::size_t i = 0; i < FUNCTIONS.size(); ++i)
            EXPECT_EQ(found_functions()[i],
                      i < missing ? kept.symbol(FUNCTIONS[i].c_str()) : nullptr)
                << FUNCTIONS[i];
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_OFF);
        EXPECT_EQ(logger.lines,
                  (std::vector<log_line_t>{
                      {"error",
                       "ArmRuntimeLoader::load_runtime: " + loader.path +
                           ": undefined symbol: " + FUNCTIONS[missing],
                       0},
                      {"error",
                       "ArmApplication::register_application: Failed to load ARM runtime. ARM is "
                       "disabled.",
                       0}}));

        loader.notes.clear();
        EXPECT_EQ(ArmRuntimeLoader::load_runtime(), UNAVAILABLE);
        EXPECT_EQ(loader.notes, attempt) << "from the start";

        loader.path = arm4_runtime("stub_arm4");
        EXPECT_EQ(ArmRuntimeLoader::load_runtime(), 0);
        EXPECT_EQ(ArmRuntimeLoader::g_arm4_handle, loader.handle);
    });
}

INSTANTIATE_TEST_SUITE_P(OfTheSeven, ArmRuntimeThatLacks,
                         testing::Range(std::size_t{0}, FUNCTIONS.size()),
                         [](const auto& row) { return FUNCTIONS[row.param]; });

/// What the loader says when nothing can be opened.
std::vector<log_line_t> lines_for_loader_text(char* (*text)())
{
    const Kvl::sys_calls_t real = Kvl::sys_calls;
    Kvl::sys_calls.dlopen = [](const char*, int) -> void* { return nullptr; };
    Kvl::sys_calls.dlerror = text;
    recording_logger logger;
    EXPECT_EQ(ArmRuntimeLoader::load_runtime(), UNAVAILABLE);
    Kvl::sys_calls = real;
    return logger.lines;
}

TEST(ArmRuntimeLoader, LogsWhatTheLoaderSays)
{
    static char fine[] = "not today";
    const auto lines = lines_for_loader_text([] { return fine; });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "ArmRuntimeLoader::load_runtime: not today");

    const auto nothing = lines_for_loader_text([]() -> char* { return nullptr; });
    ASSERT_EQ(nothing.size(), 1u);
    EXPECT_EQ(nothing[0].text, "ArmRuntimeLoader::load_runtime: ");
}

TEST(ArmRuntimeLoader, LogsTheRestOfATextWithAnOddByte)
{
    static char odd[] = "/opt/caf\xFF/libarm4.so: cannot open";
    const auto lines = lines_for_loader_text([] { return odd; });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("/libarm4.so: cannot open"), std::string::npos) << lines[0].text;
    EXPECT_NE(lines[0].text.find("/opt/caf"), std::string::npos) << lines[0].text;
}

// A fork() waits for the library's lock, and not for those of the C library's catalogue.
TEST(ArmRuntimeLoader, HasItsTextLookedUpUnderALock)
{
    EXPECT_TRUE(waits_for(Kvl::error_text_lock,
                          [] { lines_for_loader_text([]() -> char* { return nullptr; }); }));
}

TEST(ArmApplication, KnowsRegistrarsThatAreOlderThanTheLibrarysStatics)
{
    in_child([] {
        const fake_runtime_t runtime;
        EXPECT_EQ(g_early.name(), u"constructed before the statics of the library");
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
        ASSERT_EQ(runtime.count(), 2);
        EXPECT_NE(
            runtime.calls()[1].find("tran_name=\"constructed before the statics of the library\""),
            std::string::npos);
    });
}

TEST(ArmApplication, IsUnavailableWithoutAKey)
{
    in_child([] {
        const fake_runtime_t runtime;
        const Kvl::sys_calls_t real = Kvl::sys_calls;
        Kvl::sys_calls.pthread_key_create = [](pthread_key_t*, void (*)(void*)) { return EAGAIN; };
        recording_logger logger;
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr),
                  UNAVAILABLE);
        EXPECT_EQ(runtime.count(), 0);
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_OFF);
        EXPECT_TRUE(logger.lines.empty());
        Kvl::sys_calls = real;
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
    });
}

TEST(ArmApplication, MakesItsKeyWithTheStacksDestructorAndGivesUnusedOnesBack)
{
    in_child([] {
        const fake_runtime_t runtime;
        static std::vector<pthread_key_t> made;
        static std::vector<pthread_key_t> deleted;
        Kvl::sys_calls.pthread_key_create = [](pthread_key_t* key, void (*destructor)(void*)) {
            EXPECT_EQ(destructor, ArmApplication::global_data_t::delete_stack);
            const int error = pthread_key_create(key, destructor);
            made.push_back(*key);
            return error;
        };
        Kvl::sys_calls.pthread_key_delete = [](pthread_key_t key) {
            deleted.push_back(key);
            return pthread_key_delete(key);
        };
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
            EXPECT_EQ(ArmApplication::g_global_data.key, made.back());
            if (i == 1)
                Stack::get_base_correlator();
        }
        ASSERT_EQ(made.size(), 4u);
        EXPECT_EQ(deleted, (std::vector<pthread_key_t>{made[0], made[2]}))
            << "the second one has a stack";
    });
}

const std::string NO_IDENTIFIER =
    "PLXSV0651E Can't generate a UUID (possible network/adapter configuration problem) - "
    "UuidCreate error 1001";

/// From here on there is nothing to make identifiers from.
void lose_identifiers()
{
    Kvl::sys_calls.open = [](const char*, int, mode_t) { return -1; };
    Kvl::sys_calls.socket = [](int, int, int) { return -1; };
    Kvl::UuidGenImpl::forget();
    Kvl::HostIdImpl::forget();
}

TEST(ArmApplication, IsOffWithoutAnIdentifierOfItsOwn)
{
    in_child([] {
        const fake_runtime_t runtime;
        lose_identifiers();
        const recording_logger logger;
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr),
                  UNAVAILABLE);
        EXPECT_EQ(runtime.count(), 0);
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_OFF);
        EXPECT_EQ(logger.lines,
                  (std::vector<log_line_t>{
                      {"error", "ArmApplication::register_application: " + NO_IDENTIFIER, 0}}));
    });
}

TEST(ArmApplication, IsOffWithoutAnIdentifierForAnOperation)
{
    class loser_t final : public OperationRegistrar {
    public:
        using OperationRegistrar::OperationRegistrar;
        void user_data(ArmBuffer&) const override { lose_identifiers(); }
    };
    in_child([] {
        const fake_runtime_t runtime;
        const loser_t loser(UString(u"second, after the early one"));
        const recording_logger logger;
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr),
                  UNAVAILABLE);
        EXPECT_EQ(runtime.count(), 2) << "ARM has not refused anything, and is asked for no text";
        EXPECT_EQ(ArmApplication::g_level, Kvl::ARM_LEVEL_OFF);
        EXPECT_EQ(logger.lines,
                  (std::vector<log_line_t>{
                      {"error", "ArmApplication::register_application: " + NO_IDENTIFIER, 0}}));
    });
}

TEST(ArmApplication, RegistersNoTransactionWithoutAnIdentifier)
{
    in_child([] {
        const fake_runtime_t runtime;
        ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr);
        lose_identifiers();
        const recording_logger logger;
        arm_id out{};
        EXPECT_EQ(ArmApplication::register_transaction("x", 0, nullptr, &out), UNAVAILABLE);
        EXPECT_EQ(runtime.count(), 2);
        EXPECT_TRUE(ArmApplication::is_on());
        EXPECT_EQ(logger.lines,
                  (std::vector<log_line_t>{
                      {"error", "ArmApplication::register_transaction: " + NO_IDENTIFIER, 0}}));
    });
}

TEST(ArmStack, IsNotMadeWhenItCannotBeKept)
{
    in_child([] {
        const fake_runtime_t runtime;
        runtime.record(0);
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
        const Kvl::sys_calls_t real = Kvl::sys_calls;
        Kvl::sys_calls.pthread_setspecific = [](pthread_key_t, const void*) { return ENOMEM; };
        EXPECT_EQ(Stack::get_base_correlator(), nullptr);
        EXPECT_EQ(Stack::start_transaction(g_early.tran_id(), nullptr, true), UNAVAILABLE);
        Kvl::sys_calls = real;
        EXPECT_NE(Stack::get_base_correlator(), nullptr);
        EXPECT_EQ(Stack::start_transaction(g_early.tran_id(), nullptr, true), 0);
    });
}

// ---- Off ----

void* forbidden(const char* what)
{
    ADD_FAILURE() << what << " was called";
    return nullptr;
}

// What the library calls outside of itself, it calls through the table.
TEST(ArmOff, CallsNothingAndAllocatesNothing)
{
    in_child([] {
        Kvl::sys_calls = {};  // a call through it is a call to nowhere
        Kvl::sys_calls.dlopen = [](const char*, int) { return forbidden("dlopen"); };
        const auto operation = [] {
            arm_id id{};
            char text[ARM_MSG_BUFFER_LENGTH];
            long long time = 0;
            int sum = ArmApplication::start_application(nullptr, u"", u"");
            sum += ArmApplication::register_transaction("x", 0, nullptr, &id);
            sum += ArmApplication::get_error_message(106, -1, text);
            sum += ArmApplication::get_arrival_time(&time);
            sum += Stack::start_transaction(id, nullptr, true);
            sum += Stack::stop_transaction(0, nullptr);
            sum += Stack::get_base_correlator() != nullptr;
            sum += Stack::current_local_operation() != 0;
            sum += Stack::current_local_correlator() != nullptr;
            sum += Stack::doing_local_operation();
            return sum;
        };
        const unsigned long before = allocations_of_this_thread();
        EXPECT_EQ(operation(), 6 * UNAVAILABLE);
        EXPECT_EQ(allocations_of_this_thread(), before);
        const pthread_key_t none{};
        EXPECT_EQ(std::memcmp(&ArmApplication::g_global_data.key, &none, sizeof none), 0);
    });
}

// ---- What reaches the run-time, by address ----

struct started_t {
    const arm_id_t* tran_id;
    const arm_correlator_t* parent;
    const arm_buffer4_t* buffer;
    arm_subbuffer_t* const* subbuffers;
    arm_tran_start_handle_t* handle;
    arm_correlator_t* correlator;
};
started_t g_started;

arm_error_t note_start(arm_app_start_handle_t, const arm_id_t* tran_id,
                       const arm_correlator_t* parent, arm_int32_t, const arm_buffer4_t* buffer,
                       arm_tran_start_handle_t* handle, arm_correlator_t* correlator)
{
    g_started = {tran_id, parent,    buffer, buffer == nullptr ? nullptr : buffer->subbuffer_array,
                 handle,  correlator};
    return 0;
}

TEST(ArmStack, GivesTheRuntimeItsOwnAreasAndACopyOfTheBuffer)
{
    in_child([] {
        const fake_runtime_t runtime;
        ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr);
        ArmRuntimeLoader::g_fnc_arm_start_transaction = note_start;
        ArmBuffer buffer;
        buffer.add_buffer();
        arm_correlator* const base = Stack::get_base_correlator();
        EXPECT_EQ(Stack::start_transaction(g_early.tran_id(), &buffer, true), 0);
        EXPECT_EQ(g_started.tran_id, &g_early.tran_id());
        EXPECT_EQ(g_started.parent, base);
        EXPECT_NE(g_started.buffer, buffer.buffer4());
        EXPECT_EQ(g_started.subbuffers, buffer.buffer4()->subbuffer_array);
        EXPECT_EQ(g_started.correlator, Stack::current_local_correlator());
        const arm_correlator* const lower = Stack::current_local_correlator();
        EXPECT_EQ(Stack::start_transaction(g_early.tran_id(), nullptr, true), 0);
        EXPECT_EQ(g_started.parent, lower);
        EXPECT_NE(g_started.correlator, lower);
        EXPECT_EQ(g_started.buffer, nullptr);
    });
}

/// Both bytes of its length are in use.
arm_error_t store_correlator(arm_app_start_handle_t, const arm_id_t*, const arm_correlator_t*,
                             arm_int32_t, const arm_buffer4_t*, arm_tran_start_handle_t*,
                             arm_correlator_t* correlator)
{
    correlator->opaque[0] = 1;
    correlator->opaque[1] = 4;
    return 0;
}

TEST(ArmStack, HasNoCorrelatorWhereTheRuntimeStoresNone)
{
    in_child([] {
        const fake_runtime_t runtime;
        ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr);
        Stack::get_base_correlator();
        ArmRuntimeLoader::g_fnc_arm_start_transaction = store_correlator;
        Stack::start_transaction(g_early.tran_id(), nullptr, true);
        EXPECT_EQ(Stack::current_local_correlator()->opaque[1], 4);
        Stack::stop_transaction(0, nullptr);
        ArmRuntimeLoader::g_fnc_arm_start_transaction = note_start;
        for (int depth = 1; depth <= 2; ++depth) {
            Stack::start_transaction(g_early.tran_id(), nullptr, true);
            EXPECT_EQ(Stack::current_local_correlator()->opaque[0], 0);
            EXPECT_EQ(Stack::current_local_correlator()->opaque[1], 0);
        }
    });
}

}  // namespace
