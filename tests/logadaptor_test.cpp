#include <kvutil/logadaptor.h>

#include <kvutil/stpexception.h>
#include <qmlogger/qmlogger.h>

#include "support/recording_logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Kvl::STPException;
using Kvl::UMessage;
using Log::LogAdaptor;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

std::vector<std::string> lines_of(const fs::path& file)
{
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// Runs in a directory of its own, with handles as they are at load and logging enabled.
class LogAdaptorTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "logadaptor_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
        fs::current_path(directory);
        LogAdaptor::log_manager = nullptr;
        LogAdaptor::logger_stprpc = LogAdaptor::logger_kvl = nullptr;
        LogAdaptor::logger_vdrpc = LogAdaptor::logger_obrpc = nullptr;
        STPException::g_logging_enabled = true;
    }
    void TearDown() override
    {
        STPException::g_logging_enabled = false;
        fs::current_path("/");
        fs::remove_all(directory);
    }

    fs::path directory;
};

TEST_F(LogAdaptorTest, WithoutInitializationNothingIsLogged)
{
    STPException::log(UMessage(kvutil, 2), 2);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    EXPECT_TRUE(fs::is_empty(directory));
}

TEST_F(LogAdaptorTest, ConnectsTheLibraryToALogFile)
{
    LogAdaptor::initialize("server", directory.c_str(), "", 0);
    ASSERT_NE(LogAdaptor::get_log_manager(), nullptr);
    EXPECT_EQ(LogAdaptor::logger_stprpc->name(), "StpRpc");
    EXPECT_EQ(LogAdaptor::logger_kvl->name(), "Kvl");
    EXPECT_EQ(LogAdaptor::logger_vdrpc->name(), "VdRpc");
    EXPECT_EQ(LogAdaptor::logger_obrpc->name(), "ObRpc");
    STPException::log(UMessage(kvutil, 19, "/tmp/x"), 2);
    EXPECT_THAT(
        lines_of(directory / "server.log"),
        ElementsAre(EndsWith(" PLXSV0669E Error converting '/tmp/x' to default character set.")));
}

TEST_F(LogAdaptorTest, NullArgumentsMeanKvutilInTheCurrentDirectory)
{
    LogAdaptor::initialize(nullptr, nullptr, nullptr, 0);
    STPException::log(UMessage(kvutil, 2), 0);
    EXPECT_THAT(lines_of(directory / "kvutil.log"), SizeIs(1));
}

TEST_F(LogAdaptorTest, HandlesStayNullWhenTheDirectoryIsMissing)
{
    LogAdaptor::initialize("server", (directory / "missing").c_str(), "", 0);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    for (const Log::QmLogger* logger : {LogAdaptor::logger_stprpc, LogAdaptor::logger_kvl,
                                        LogAdaptor::logger_vdrpc, LogAdaptor::logger_obrpc})
        EXPECT_EQ(logger, nullptr);
}

TEST_F(LogAdaptorTest, LoggersWorkOnWhenASecondInitializationFails)
{
    LogAdaptor::initialize("server", nullptr, "", 0);
    LogAdaptor::initialize("server", (directory / "missing").c_str(), "", 0);
    EXPECT_EQ(LogAdaptor::get_log_manager(), nullptr);
    STPException::log(UMessage(kvutil, 2), 1);
    EXPECT_THAT(lines_of(directory / "server.log"), SizeIs(1));
}

// To be run under TSan, which sees a handle that is written while it is read.
TEST_F(LogAdaptorTest, HandlesMayBeReadWhileAnotherThreadInitialisesAgain)
{
    LogAdaptor::initialize("server", nullptr, "", 0);
    constexpr int TIMES = 20;
    std::thread other([] {
        for (int i = 0; i < TIMES; ++i)
            LogAdaptor::initialize("server", nullptr, "", 0);
    });
    for (int i = 0; i < TIMES; ++i) {
        EXPECT_NE(LogAdaptor::log_manager, nullptr);
        EXPECT_EQ(LogAdaptor::logger_stprpc->name(), "StpRpc");
        LogAdaptor::logger_kvl->error("text", 0);
    }
    other.join();
    EXPECT_THAT(lines_of(directory / "server.log"), SizeIs(TIMES));
}

TEST_F(LogAdaptorTest, ThresholdsArePassedOn)
{
    LogAdaptor::initialize("server", nullptr, "Kvl=error,*=info", 0);
    EXPECT_EQ(LogAdaptor::logger_kvl->threshold(), 2);
    EXPECT_EQ(LogAdaptor::logger_obrpc->threshold(), 0);
    for (const int level : {0, 1, 2, 3, -1})
        STPException::log(UMessage(kvutil, 2), level);
    EXPECT_THAT(lines_of(directory / "server.log"), SizeIs(1));
}

TEST_F(LogAdaptorTest, AProgramMayPutALoggerOfItsOwnInPlace)
{
    LogAdaptor::initialize("server", nullptr, "", 0);
    {
        recording_logger own;
        STPException::log(UMessage(kvutil, 2), 0);
        EXPECT_THAT(own.lines, SizeIs(1));
        EXPECT_EQ(own.lines[0].operation, "info");
    }
    EXPECT_TRUE(lines_of(directory / "server.log").empty());
}

}  // namespace
