#include <kvutil/logadaptor.h>

#include "fake_qmlogger.h"
#include "support/watched_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Log::LogAdaptor;
using testing::ElementsAre;

struct logger_t : Log::QmLogger {
    explicit logger_t(std::string name) : name_(std::move(name)) {}
    const std::string& name() const override { return name_; }
    int threshold() const override { return 0; }
    void set_threshold(int) override {}
    void info(const std::string&, int) override {}
    void warning(const std::string&, int) override {}
    void error(const std::string&, int) override {}

private:
    std::string name_;
};

/// Keeps the order in which loggers are asked for.
struct manager_t : Log::QmLogManager {
    void flush() override {}
    Log::QmLogger* logger(const std::string& name) override
    {
        asked_for.push_back(name);
        if (name == failing_name)
            throw std::runtime_error("no logger");
        return made.emplace_back(std::make_unique<logger_t>(name)).get();
    }
    std::vector<std::string> asked_for;
    std::string failing_name;
    std::vector<std::unique_ptr<logger_t>> made;
};

using call_t = std::tuple<std::string, std::string, std::string, int, std::string>;
using handles_t = std::vector<const void*>;

handles_t loggers()
{
    return {LogAdaptor::logger_stprpc, LogAdaptor::logger_kvl, LogAdaptor::logger_vdrpc,
            LogAdaptor::logger_obrpc};
}

std::vector<std::string> names_of_loggers()
{
    return {LogAdaptor::logger_stprpc->name(), LogAdaptor::logger_kvl->name(),
            LogAdaptor::logger_vdrpc->name(), LogAdaptor::logger_obrpc->name()};
}

class LogAdaptorInitialize : public testing::Test {
protected:
    void SetUp() override
    {
        fake_qmlogger::answers().initialize = [this](auto&&... arguments) {
            const std::lock_guard guard(mutex);
            calls.emplace_back(arguments...);
            return manager_to_return;
        };
    }
    void TearDown() override
    {
        fake_qmlogger::answers() = {};
        LogAdaptor::log_manager = nullptr;
        LogAdaptor::logger_stprpc = LogAdaptor::logger_kvl = nullptr;
        LogAdaptor::logger_vdrpc = LogAdaptor::logger_obrpc = nullptr;
    }

    std::mutex mutex;
    std::vector<call_t> calls;
    manager_t manager;
    Log::QmLogManager* manager_to_return = &manager;
};

TEST_F(LogAdaptorInitialize, HandlesAreNullBefore)
{
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    EXPECT_EQ(loggers(), handles_t(4, nullptr));
}

TEST_F(LogAdaptorInitialize, PassesItsArgumentsAndAnEmptyText)
{
    LogAdaptor::initialize("a", "b", "c", 7);
    EXPECT_THAT(calls, ElementsAre(call_t("a", "b", "c", 7, "")));
}

TEST_F(LogAdaptorInitialize, PassesADotForANullDirectory)
{
    LogAdaptor::initialize("a", nullptr, "c", 0);
    EXPECT_THAT(calls, ElementsAre(call_t("a", ".", "c", 0, "")));
}

TEST_F(LogAdaptorInitialize, PassesEmptyTextsForTheOtherNulls)
{
    LogAdaptor::initialize(nullptr, nullptr, nullptr, -1);
    EXPECT_THAT(calls, ElementsAre(call_t("", ".", "", -1, "")));
}

TEST_F(LogAdaptorInitialize, PassesAnEmptyDirectoryUnchanged)
{
    LogAdaptor::initialize("", "", "", 0);
    EXPECT_THAT(calls, ElementsAre(call_t("", "", "", 0, "")));
}

TEST_F(LogAdaptorInitialize, StoresTheManagerAndTheFourLoggersInTheirOrder)
{
    LogAdaptor::initialize("a", "b", "c", 0);
    EXPECT_EQ(LogAdaptor::get_log_manager(), &manager);
    EXPECT_EQ(LogAdaptor::log_manager, &manager);
    EXPECT_THAT(manager.asked_for, ElementsAre("StpRpc", "Kvl", "VdRpc", "ObRpc"));
    EXPECT_THAT(names_of_loggers(), ElementsAre("StpRpc", "Kvl", "VdRpc", "ObRpc"));
}

TEST_F(LogAdaptorInitialize, LeavesEveryHandleNullWithoutAManager)
{
    manager_to_return = nullptr;
    LogAdaptor::initialize("a", "b", "c", 0);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    EXPECT_EQ(loggers(), handles_t(4, nullptr));
}

TEST_F(LogAdaptorInitialize, RepeatsEverythingWhenCalledAgain)
{
    LogAdaptor::initialize("a", "b", "c", 0);
    const handles_t before = loggers();
    manager_t second;
    manager_to_return = &second;
    LogAdaptor::initialize("d", "e", "f", 1);
    EXPECT_THAT(calls, ElementsAre(call_t("a", "b", "c", 0, ""), call_t("d", "e", "f", 1, "")));
    EXPECT_EQ(LogAdaptor::get_log_manager(), &second);
    EXPECT_THAT(second.asked_for, ElementsAre("StpRpc", "Kvl", "VdRpc", "ObRpc"));
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_NE(loggers()[i], before[i]) << i;
}

TEST_F(LogAdaptorInitialize, KeepsTheLoggersWhenASecondCallFails)
{
    LogAdaptor::initialize("a", "b", "c", 0);
    const handles_t before = loggers();
    manager_to_return = nullptr;
    LogAdaptor::initialize("a", "b", "c", 0);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    EXPECT_EQ(loggers(), before);
}

/// Another thread can initialise, so the lock is not held any more: it would wait for ever.
void expect_lock_is_free()
{
    auto other = std::async(std::launch::async, [] { LogAdaptor::initialize("a", "b", "c", 0); });
    EXPECT_NO_THROW(other.get());
}

TEST_F(LogAdaptorInitialize, ReleasesItsLockWhenTheManagerThrows)
{
    const auto answer = fake_qmlogger::answers().initialize;
    fake_qmlogger::answers().initialize = [](auto&&...) -> Log::QmLogManager* {
        throw std::runtime_error("no log");
    };
    EXPECT_THROW(LogAdaptor::initialize("a", "b", "c", 0), std::runtime_error);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    fake_qmlogger::answers().initialize = answer;
    expect_lock_is_free();
}

TEST_F(LogAdaptorInitialize, ChangesNoHandleWhenALoggerCannotBeMade)
{
    LogAdaptor::initialize("a", "b", "c", 0);
    const handles_t before = loggers();
    manager_t second;
    second.failing_name = "VdRpc";
    manager_to_return = &second;
    EXPECT_THROW(LogAdaptor::initialize("a", "b", "c", 0), std::runtime_error);
    EXPECT_EQ(LogAdaptor::get_log_manager(), &manager);
    EXPECT_EQ(loggers(), before);
    manager_to_return = nullptr;
    expect_lock_is_free();
}

TEST_F(LogAdaptorInitialize, MayBeCalledAgainWhileItRuns)
{
    int depth = 0;
    fake_qmlogger::answers().initialize = [&](auto&&...) {
        if (++depth == 1)
            LogAdaptor::initialize("inner", "b", "c", 0);
        return manager_to_return;
    };
    LogAdaptor::initialize("outer", "b", "c", 0);
    EXPECT_EQ(depth, 2);
    EXPECT_EQ(LogAdaptor::get_log_manager(), &manager);
    EXPECT_EQ(manager.asked_for.size(), 8u);
}

TEST_F(LogAdaptorInitialize, IsSerialisedWhenSeveralThreadsCallItAtOnce)
{
    const auto initialize_often = [] {
        for (int i = 0; i < 50; ++i) {
            LogAdaptor::initialize("a", "b", "c", 0);
            EXPECT_NE(LogAdaptor::get_log_manager(), nullptr);
            EXPECT_NE(__atomic_load_n(&LogAdaptor::logger_kvl, __ATOMIC_ACQUIRE), nullptr);
        }
    };
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::list<watched_thread_t> others;
    const auto answer = fake_qmlogger::answers().initialize;
    fake_qmlogger::answers().initialize = [&](auto&&... arguments) {
        if (++inside != 1)
            overlapped = true;
        while (others.size() < 3)  // they come while the first call runs, and wait for its end
            EXPECT_TRUE(others.emplace_back(initialize_often).falls_asleep());
        const auto result = answer(arguments...);
        --inside;
        return result;
    };
    initialize_often();
    for (watched_thread_t& other : others)
        other.join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(calls.size(), 200u);
}

}  // namespace
