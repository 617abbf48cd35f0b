#include <qmlogger/qmlogger.h>

#include "support/memory_fault.h"
#include "support/sanitizer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

/// What the clock on the wall shows to the whole program, while a test has set it.
std::optional<timespec> g_wall_clock;

}  // namespace

/// Comes before the C library's own.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock != CLOCK_REALTIME || !g_wall_clock)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = *g_wall_clock;
    return 0;
}

namespace {

namespace fs = std::filesystem;
using Log::QmLogger;
using Log::QmLogManager;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> lines_of(const fs::path& file)
{
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// The parts of a line as docs/log-format.md describes it.
struct parts_t {
    std::string time, level, logger, ids, text;
};

bool is_time(const std::string& field)
{
    const std::string form = "0000-00-00T00:00:00.000000Z";
    return std::ranges::equal(field, form, [](char c, char formed) {
        return formed == '0' ? c >= '0' && c <= '9' : c == formed;
    });
}

bool is_level(const std::string& field)
{
    return field == "info" || field == "warning" || field == "error";
}

bool are_ids(const std::string& field)
{
    return field.find_first_not_of("0123456789:-") == field.npos && field.find(':') != field.npos;
}

parts_t parts_of(const std::string& line)
{
    std::string fields[5];
    size_t begin = 0;
    for (size_t i = 0; i < 4; ++i) {
        const size_t blank = line.find(' ', begin);
        if (blank == line.npos)
            return {"no line: " + line, "", "", "", ""};
        fields[i] = line.substr(begin, blank - begin);
        begin = blank + 1;
    }
    if (!is_time(fields[0]) || !is_level(fields[1]) || !are_ids(fields[3]))
        return {"no line: " + line, "", "", "", ""};
    return {fields[0], fields[1], fields[2], fields[3], line.substr(begin)};
}

std::vector<std::string> texts_of(const fs::path& file)
{
    std::vector<std::string> texts;
    for (const std::string& line : lines_of(file))
        texts.push_back(parts_of(line).text);
    return texts;
}

std::vector<std::string> ids_of(const fs::path& file)
{
    std::vector<std::string> ids;
    for (const std::string& line : lines_of(file))
        ids.push_back(parts_of(line).ids);
    return ids;
}

/// Undoes the escapes of a line, as docs/log-format.md describes them.
std::string unescaped(const std::string& text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            result += text[i];
            continue;
        }
        const char kind = text.at(++i);
        if (kind == 'x') {
            result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else if (kind == 'u') {
            const int c = std::stoi(text.substr(i + 1, 4), nullptr, 16);
            i += 4;
            if (c >= 0x800) {
                result += static_cast<char>(0xE0 | c >> 12);
                result += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            } else {
                result += static_cast<char>(0xC0 | c >> 6);
            }
            result += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            result += kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind == 't' ? '\t' : kind;
        }
    }
    return result;
}

class QmLoggerTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "qmlogger_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
    }
    void TearDown() override { fs::remove_all(directory); }

    QmLogManager* initialize(const std::string& thresholds = "", int megabytes = 0,
                             const std::string& program = "server")
    {
        return QmLogManager::initialize(program, directory, thresholds, megabytes, "");
    }
    fs::path file(const std::string& name = "server.log") const { return directory / name; }
    std::string last_line() const
    {
        const auto lines = lines_of(file());
        return lines.empty() ? "no line" : lines.back();
    }

    fs::path directory;
};

/// Stops the clock on the wall while it lives, and sets it on.
class wall_clock_t {
public:
    wall_clock_t() { g_wall_clock = timespec{784111777, 42'000}; }  // 1994-11-06T08:49:37Z
    ~wall_clock_t() { g_wall_clock.reset(); }
    wall_clock_t(const wall_clock_t&) = delete;
    wall_clock_t& operator=(const wall_clock_t&) = delete;

    void set_on_by_a_second() const { ++g_wall_clock->tv_sec; }
};

/// Runs `body` in a child process. @return its wait status.
/// @param end  how it ends: where threads were left behind by the fork, with _exit()
template <class Body>
int status_of_child(Body body, void (*end)(int) = _exit)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        end(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// -- opening --------------------------------------------------------------------------------------

using QmLogManagerInitialize = QmLoggerTest;

TEST_F(QmLogManagerInitialize, OpensAFileNamedAfterTheProgram)
{
    ASSERT_NE(initialize(), nullptr);
    EXPECT_TRUE(fs::exists(file("server.log")));
}

TEST_F(QmLogManagerInitialize, CallsTheFileKvutilWithoutAProgram)
{
    ASSERT_NE(initialize("", 0, ""), nullptr);
    EXPECT_TRUE(fs::exists(file("kvutil.log")));
}

TEST_F(QmLogManagerInitialize, KeepsTheFileInTheDirectoryWhateverTheProgramIsCalled)
{
    const std::pair<std::string, std::string> names[] = {
        {"/usr/bin/server", "_usr_bin_server.log"},
        {"../x", ".._x.log"},
        {"..", "...log"},
        {".", "..log"},
        {"a\nb\x7F", "a_b_.log"},
        {std::string("a\0b", 3), "a_b.log"},
        {"na\u00EFve server", "na\u00EFve server.log"}};
    for (const auto& [program, name] : names) {
        ASSERT_NE(initialize("", 0, program), nullptr) << program;
        EXPECT_TRUE(fs::exists(file(name))) << program;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}),
              static_cast<long>(std::size(names)));
}

TEST_F(QmLogManagerInitialize, RefusesAProgramWhoseOldFilesCouldNotBeNamed)
{
    EXPECT_NE(initialize("", 0, std::string(249, 'x')),
              nullptr);  // 249 + ".5.log" = 255 = NAME_MAX
    EXPECT_EQ(initialize("", 0, std::string(250, 'x')), nullptr);
}

TEST_F(QmLogManagerInitialize, RefusesADirectoryThatCannotBeUsed)
{
    std::ofstream(file("plain")) << "text";
    for (const std::string& unusable :
         {(directory / "missing").string(), file("plain").string(), std::string("/proc"),
          std::string(), directory.string() + std::string("\0x", 2)})
        EXPECT_EQ(QmLogManager::initialize("server", unusable, "", 0, ""), nullptr) << unusable;
}

TEST_F(QmLogManagerInitialize, RefusesADirectoryThatMayNotBeWrittenTo)
{
    std::ofstream(file("server.log"));
    fs::permissions(file("server.log"), fs::perms::all);
    fs::permissions(directory, fs::perms::owner_read | fs::perms::owner_exec |
                                   fs::perms::others_read | fs::perms::others_exec);
    EXPECT_EQ(status_of_child([&] {
                  if (geteuid() == 0 && setuid(65534) != 0)
                      return 2;
                  return initialize() == nullptr ? 0 : 1;
              }),
              0);
    fs::permissions(directory, fs::perms::owner_all);
}

TEST_F(QmLogManagerInitialize, RefusesWhatIsNoFile)
{
    fs::create_directory(file("directory.log"));
    EXPECT_EQ(initialize("", 0, "directory"), nullptr);
    ASSERT_EQ(mkfifo(file("fifo.log").c_str(), 0600), 0);
    EXPECT_EQ(initialize("", 0, "fifo"), nullptr);
    const int reader = open(file("fifo.log").c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(initialize("", 0, "fifo"), nullptr);
    close(reader);
}

TEST_F(QmLogManagerInitialize, LeavesTheLogAsItWasWhenItFails)
{
    QmLogger* const logger = initialize("error")->logger("Kvl");
    EXPECT_EQ(QmLogManager::initialize("server", directory / "missing", "", 0, ""), nullptr);
    EXPECT_EQ(logger->threshold(), 2);
    logger->error("still here", 0);
    EXPECT_THAT(texts_of(file()), ElementsAre("still here"));
}

TEST_F(QmLogManagerInitialize, MovesEveryLoggerToTheNewFileAndThreshold)
{
    QmLogManager* const manager = initialize("error");
    QmLogger* const logger = manager->logger("Kvl");
    logger->error("first", 0);
    ASSERT_EQ(initialize("warning", 0, "other"), manager);
    EXPECT_EQ(manager->logger("Kvl"), logger);
    EXPECT_EQ(logger->threshold(), 1);
    logger->warning("second", 0);
    EXPECT_THAT(texts_of(file("server.log")), ElementsAre("first"));
    EXPECT_THAT(texts_of(file("other.log")), ElementsAre("second"));
}

TEST_F(QmLogManagerInitialize, AppendsToAFileThatIsThere)
{
    initialize()->logger("Kvl")->info("first", 0);
    initialize()->logger("Kvl")->info("second", 0);
    EXPECT_THAT(texts_of(file()), ElementsAre("first", "second"));
}

TEST_F(QmLogManagerInitialize, IsIndependentOfTheWorkingDirectory)
{
    const wall_clock_t clock;
    EXPECT_EQ(status_of_child([&] {
                  if (chdir(directory.c_str()) != 0)
                      return 2;
                  QmLogManager* const manager = QmLogManager::initialize("server", ".", "", 0, "");
                  if (chdir("/") != 0 || manager == nullptr)
                      return 3;
                  fs::rename(file(), file("moved"));
                  clock.set_on_by_a_second();
                  manager->logger("Kvl")->info("text", 0);
                  return 0;
              }),
              0);
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
}

TEST_F(QmLogManagerInitialize, MakesAFileForTheOwnerAndToBeReadByTheGroup)
{
    const mode_t before = umask(0);
    initialize();
    umask(before);
    EXPECT_EQ(fs::status(file()).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
}

std::set<std::string> open_descriptors()
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
        names.insert(entry.path().filename());
    return names;
}

TEST_F(QmLogManagerInitialize, OpensDescriptorsThatAProgramItStartsDoesNotGet)
{
    QmLogManager* const manager = initialize("", 1);
    manager->logger("Kvl")->info("text", 0);
    int checked = 0;
    for (const std::string& name : open_descriptors()) {
        std::error_code ignored;
        const auto target = fs::read_symlink("/proc/self/fd/" + name, ignored).string();
        if (target.rfind(directory.string(), 0) != 0)
            continue;
        ++checked;
        EXPECT_EQ(fcntl(std::stoi(name), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << target;
    }
    EXPECT_EQ(checked, 2) << "the directory and the file";
}

TEST_F(QmLogManagerInitialize, LeavesNoDescriptorBehind)
{
    initialize();
    const auto before = open_descriptors().size();
    for (int i = 0; i < 20; ++i) {
        initialize("", 0, "server" + std::to_string(i));
        QmLogManager::initialize("server", directory / "missing", "", 0, "");
    }
    EXPECT_EQ(open_descriptors().size(), before);
}

TEST_F(QmLogManagerInitialize, StaysAwayFromTheStandardDescriptors)
{
    EXPECT_EQ(status_of_child([&] {
                  for (const int standard : {0, 1, 2})
                      close(standard);
                  QmLogManager* const manager = initialize();
                  manager->logger("Kvl")->info("text", 0);
                  for (const int standard : {0, 1, 2})
                      if (fcntl(standard, F_GETFD) != -1)
                          return 1;
                  return 0;
              }),
              0);
}

// -- thresholds -----------------------------------------------------------------------------------

struct threshold_row_t {
    std::string text;
    std::map<std::string, int> expected;
};

TEST_F(QmLogManagerInitialize, ReadsThresholds)
{
    const threshold_row_t rows[] = {
        {"", {{"Kvl", 0}, {"StpRpc", 0}}},
        {"info", {{"Kvl", 0}}},
        {"warning", {{"Kvl", 1}}},
        {"error", {{"Kvl", 2}, {"StpRpc", 2}}},
        {"off", {{"Kvl", 3}}},
        {"Kvl=info,*=error", {{"Kvl", 0}, {"StpRpc", 2}, {"", 2}}},
        {"*=error,Kvl=info", {{"Kvl", 0}, {"StpRpc", 2}}},  // the order does not matter
        {"error,Kvl=info", {{"Kvl", 0}, {"StpRpc", 2}}},    // a bare level is for all others
        {"Kvl=warning", {{"Kvl", 1}, {"StpRpc", 0}}},
        {"Kvl=warning,Kvl=error", {{"Kvl", 2}}},  // the last one counts
        {" Kvl = warning ,\t* = error ", {{"Kvl", 1}, {"StpRpc", 2}}},
        {",,error,", {{"Kvl", 2}}},
        {"a=b=error", {{"a=b", 2}, {"a", 0}}},  // a name may hold "="
    };
    for (const auto& [text, expected] : rows) {
        QmLogManager* const manager = initialize(text);
        for (const auto& [name, threshold] : expected)
            EXPECT_EQ(manager->logger(name)->threshold(), threshold) << text << " / " << name;
    }
    EXPECT_THAT(lines_of(file()), IsEmpty());
}

TEST_F(QmLogManagerInitialize, IgnoresWhatIsNoThresholdAndSaysSo)
{
    QmLogManager* const manager = initialize("Kvl=wran,*=error,2,=info,ERROR");
    EXPECT_EQ(manager->logger("Kvl")->threshold(), 2);
    EXPECT_THAT(texts_of(file()),
                ElementsAre("threshold \"Kvl=wran\" is not understood and ignored",
                            "threshold \"2\" is not understood and ignored",
                            "threshold \"=info\" is not understood and ignored",
                            "threshold \"ERROR\" is not understood and ignored"));
    EXPECT_EQ(parts_of(last_line()).logger, "QmLogger");
    EXPECT_EQ(parts_of(last_line()).level, "warning");
}

// -- loggers --------------------------------------------------------------------------------------

TEST_F(QmLoggerTest, IsCreatedOnceForEachName)
{
    QmLogManager* const manager = initialize();
    QmLogger* const logger = manager->logger("Kvl");
    EXPECT_EQ(logger->name(), "Kvl");
    EXPECT_EQ(manager->logger("Kvl"), logger);
    EXPECT_NE(manager->logger("StpRpc"), logger);
    EXPECT_EQ(manager->logger("two words\n")->name(), "two words\n");
}

TEST_F(QmLoggerTest, WritesItsLevelsFromTheThresholdUp)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::vector<std::string> written[] = {{"info", "warning", "error"},
                                                {"info", "warning", "error"},
                                                {"warning", "error"},
                                                {"error"},
                                                {},
                                                {}};
    const int thresholds[] = {std::numeric_limits<int>::min(), 0, 1, 2, 3,
                              std::numeric_limits<int>::max()};
    for (size_t i = 0; i < std::size(thresholds); ++i) {
        fs::resize_file(file(), 0);
        logger->set_threshold(thresholds[i]);
        EXPECT_EQ(logger->threshold(), thresholds[i]);
        EXPECT_EQ(logger->info_enabled(), written[i].size() == 3) << thresholds[i];
        EXPECT_EQ(logger->warning_enabled(), written[i].size() >= 2) << thresholds[i];
        logger->info("info", 0);
        logger->warning("warning", 0);
        logger->error("error", 0);
        EXPECT_EQ(texts_of(file()), written[i]) << thresholds[i];
        for (const std::string& line : lines_of(file()))
            EXPECT_EQ(parts_of(line).level, parts_of(line).text);
    }
}

TEST_F(QmLoggerTest, WritesTimeLevelNameProcessThreadAndText)
{
    setenv("TZ", "Asia/Kathmandu", 1);  // 5:45 h from UTC, in which lines are
    tzset();
    const wall_clock_t clock;
    initialize()->logger("Kvl")->warning("PLXSV0651E text", 0);
    const parts_t parts = parts_of(last_line());
    EXPECT_EQ(parts.time, "1994-11-06T08:49:37.000042Z");
    EXPECT_EQ(parts.level, "warning");
    EXPECT_EQ(parts.logger, "Kvl");
    EXPECT_EQ(parts.ids, std::to_string(getpid()) + ":" + std::to_string(gettid()));
    EXPECT_EQ(parts.text, "PLXSV0651E text");
}

TEST_F(QmLoggerTest, WritesACodeOnlyWhenThereIsOne)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::string ids = std::to_string(getpid()) + ":" + std::to_string(gettid());
    for (const int code : {7, -7, std::numeric_limits<int>::min()}) {
        logger->error("text", code);
        EXPECT_EQ(parts_of(last_line()).ids, ids + ":" + std::to_string(code));
    }
    logger->error("text", 0);
    EXPECT_EQ(parts_of(last_line()).ids, ids);
}

TEST_F(QmLoggerTest, TextNeverBreaksALine)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"a\nb", R"(a\nb)"},
        {"a\r\nb\tc", R"(a\r\nb\tc)"},
        {"back\\slash \\n", R"(back\\slash \\n)"},
        {std::string("a\0b", 3), R"(a\x00b)"},
        {"\x1B[31mred\x7F", R"(\x1b[31mred\x7f)"},
        {"next\u0085line", R"(next\u0085line)"},
        {"\u0080\u009F\u00A0", "\\u0080\\u009f\u00A0"},
        {"\u2027\u2028\u2029", "\u2027\\u2028\\u2029"},
        {"\u202A\u202E\u202F", "\\u202a\\u202e\u202F"},  // change the order of what is shown
        {"\u2065\u2066\u2069", "\u2065\\u2066\\u2069"},
        {"caf\u00E9 \u20AC \U0001F600", "caf\u00E9 \u20AC \U0001F600"},
        {"\xE9t\xE9", R"(\xe9t\xe9)"},                          // Latin-1
        {"\xC0\x8A \xE0\x80\x8A", R"(\xc0\x8a \xe0\x80\x8a)"},  // overlong line feeds
        {"\xED\xA0\x80 \xF4\x90\x80\x80", R"(\xed\xa0\x80 \xf4\x90\x80\x80)"},
        {"\xC3", R"(\xc3)"},
        {"\xE2\x82", R"(\xe2\x82)"},
        {"\xF0\x9F\x98", R"(\xf0\x9f\x98)"},
        {"\xE2\x82\n", R"(\xe2\x82\n)"},
        {"\xFF\xFE", R"(\xff\xfe)"},
    };
    for (const auto& [text, escaped] : rows) {
        const size_t lines = lines_of(file()).size();
        logger->info(text, 0);
        ASSERT_EQ(lines_of(file()).size(), lines + 1) << escaped;
        EXPECT_EQ(parts_of(last_line()).text, escaped);
        EXPECT_EQ(unescaped(escaped), text) << escaped;
    }
}

TEST_F(QmLoggerTest, TextCanBeReadBackFromItsLine)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    std::vector<std::string> texts;
    std::uint32_t state = 1;
    for (int i = 0; i < 500; ++i) {
        std::string text;
        for (int j = 0; j < 40; ++j) {
            state = state * 1664525 + 1013904223;
            constexpr std::string_view BYTES("\\xun0\n\r\t \x80\xA8\xC2\xE2\xF0\x00\x7F", 17);
            text += BYTES[(state >> 16) % BYTES.size()];
        }
        texts.push_back(text);
        logger->info(text, 0);
    }
    std::vector<std::string> read_back;
    for (const std::string& text : texts_of(file()))
        read_back.push_back(unescaped(text));
    EXPECT_EQ(read_back, texts);
}

/// How a single byte stands in a line.
std::string escaped_byte(int byte)
{
    constexpr std::string_view LETTERS = "tn..r";  // of 9 to 13
    if (byte == '\\')
        return "\\\\";
    if (byte == '\t' || byte == '\n' || byte == '\r')
        return std::string("\\") + LETTERS[static_cast<size_t>(byte - 9)];
    if (byte >= 0x20 && byte < 0x7F)
        return std::string(1, static_cast<char>(byte));
    char text[8];
    snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned>(byte));
    return text;
}

void expect_alike_at(const std::vector<size_t>& places, size_t size, QmLogger& logger,
                     const fs::path& file)
{
    std::vector<std::string> expected;
    for (int byte = 0; byte < 256; ++byte)
        for (const size_t place : places) {
            std::string text(size, 'x');
            text[place] = static_cast<char>(byte);
            logger.info(text, 0);
            text.replace(place, 1, escaped_byte(byte));
            expected.push_back(text);
        }
    EXPECT_EQ(texts_of(file), expected);
}

// Eight or sixteen bytes are looked at together, so a byte's place must not matter.
TEST_F(QmLoggerTest, TreatsEveryByteAlikeAtEveryPlace)
{
    std::vector<size_t> places(150);
    std::iota(places.begin(), places.end(), 0);
    expect_alike_at(places, places.size(), *initialize()->logger("Kvl"), file());
}

// Long texts without escapes are written from where they are.
TEST_F(QmLoggerTest, TreatsEveryByteOfALongTextAlike)
{
    expect_alike_at({0, 15, 16, 31, 500, 992, 999}, 1000, *initialize()->logger("Kvl"), file());
}

TEST_F(QmLoggerTest, NameIsOneWordOfTheLine)
{
    QmLogManager* const manager = initialize();
    const std::pair<std::string, std::string> rows[] = {
        {"two words", R"(two\x20words)"}, {"a\nb", R"(a\nb)"}, {"", R"(\)"}, {"\\", R"(\\)"}};
    for (const auto& [name, word] : rows) {
        manager->logger(name)->info("text", 0);
        EXPECT_EQ(parts_of(last_line()).logger, word);
    }
}

TEST_F(QmLoggerTest, WritesTextsOfEverySize)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    for (const size_t size : {0u, 1u, 200u, 250u, 251u, 65'536u, 10'000'000u}) {
        const std::string text(size, 'x');
        logger->info(text, 0);
        const std::string line = last_line();
        EXPECT_TRUE(line.ends_with(" " + text)) << size;
        EXPECT_LT(line.size(), size + 100) << size;
    }
}

TEST_F(QmLoggerTest, LeavesErrnoAlone)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    errno = 4711;
    logger->info("text", 0);
    EXPECT_EQ(errno, 4711);
}

TEST_F(QmLoggerTest, LinesAreInTheFileAtOnce)
{
    QmLogManager* const manager = initialize();
    manager->logger("Kvl")->info("text", 0);
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
    manager->flush();
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
}

// -- rotation -------------------------------------------------------------------------------------

constexpr size_t MEGABYTE = 1024 * 1024;

using QmLoggerRotation = QmLoggerTest;

TEST_F(QmLoggerRotation, KeepsFiveOldFilesNewestFirst)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    const std::string half(MEGABYTE * 6 / 10, 'x');
    for (int i = 0; i < 8; ++i)
        logger->info(std::to_string(i) + half, 0);
    std::map<std::string, std::string> first_digits;
    for (const auto& entry : fs::directory_iterator(directory)) {
        EXPECT_LE(entry.file_size(), MEGABYTE);
        first_digits[entry.path().filename()] = texts_of(entry.path()).at(0).substr(0, 1);
    }
    EXPECT_THAT(first_digits,
                ElementsAre(testing::Pair("server.1.log", "6"), testing::Pair("server.2.log", "5"),
                            testing::Pair("server.3.log", "4"), testing::Pair("server.4.log", "3"),
                            testing::Pair("server.5.log", "2"), testing::Pair("server.log", "7")));
}

TEST_F(QmLoggerRotation, NeverHappensForALimitOfZeroOrLess)
{
    for (const int limit : {0, -1, std::numeric_limits<int>::min()}) {
        QmLogger* const logger = initialize("", limit)->logger("Kvl");
        logger->info(std::string(2 * MEGABYTE, 'x'), 0);
        logger->info("text", 0);
        EXPECT_FALSE(fs::exists(file("server.1.log"))) << limit;
    }
}

TEST_F(QmLoggerRotation, AcceptsTheLargestLimit)
{
    QmLogger* const logger = initialize("", std::numeric_limits<int>::max())->logger("Kvl");
    logger->info(std::string(2 * MEGABYTE, 'x'), 0);
    logger->info("text", 0);
    EXPECT_FALSE(fs::exists(file("server.1.log")));
}

TEST_F(QmLoggerRotation, FillsAFileToTheLastByte)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    logger->info("", 0);
    const size_t empty_line = fs::file_size(file());
    logger->info(std::string(MEGABYTE - 2 * empty_line, 'x'), 0);
    EXPECT_EQ(fs::file_size(file()), MEGABYTE);
    EXPECT_FALSE(fs::exists(file("server.1.log")));
    logger->info("", 0);
    EXPECT_EQ(fs::file_size(file("server.1.log")), MEGABYTE);
    EXPECT_EQ(fs::file_size(file()), empty_line);
}

TEST_F(QmLoggerRotation, GivesALineThatIsTooLargeAFileOfItsOwn)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    logger->info(std::string(3 * MEGABYTE, 'x'), 0);
    EXPECT_FALSE(fs::exists(file("server.1.log"))) << "it was the first of its file";
    logger->info("text", 0);
    EXPECT_GT(fs::file_size(file("server.1.log")), 3 * MEGABYTE);
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
}

TEST_F(QmLoggerRotation, CountsWhatIsInTheFileAlready)
{
    std::ofstream(file()) << std::string(MEGABYTE - 1, 'x') << '\n';
    initialize("", 1)->logger("Kvl")->info("text", 0);
    EXPECT_EQ(fs::file_size(file("server.1.log")), MEGABYTE);
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
}

/// Every line of the log with its old files, oldest file first.
std::vector<std::string> all_texts(const fs::path& directory)
{
    std::vector<std::string> texts;
    for (const char* name : {"server.5.log", "server.4.log", "server.3.log", "server.2.log",
                             "server.1.log", "server.log"})
        for (const std::string& text : texts_of(directory / name))
            texts.push_back(text);
    return texts;
}

std::string numbered(int writer, int number)
{
    return std::to_string(writer) + "/" + std::to_string(number) + std::string(1000, 'x');
}

/// Whether all lines of all writers are there, each once, those of one writer in their order.
void expect_all(const std::vector<std::string>& texts, int writers, int lines)
{
    ASSERT_EQ(texts.size(), static_cast<size_t>(writers * lines));
    std::vector<int> next(static_cast<size_t>(writers), 0);
    for (const std::string& text : texts) {
        const int writer = std::stoi(text);
        ASSERT_EQ(text, numbered(writer, next.at(static_cast<size_t>(writer))++));
    }
}

TEST_F(QmLoggerRotation, LosesNothingWhenManyThreadsWrite)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 4; ++writer)
        threads.emplace_back([=] {
            for (int i = 0; i < 1000; ++i)
                logger->info(numbered(writer, i), 0);
        });
    for (auto& thread : threads)
        thread.join();
    expect_all(all_texts(directory), 4, 1000);
    EXPECT_TRUE(fs::exists(file("server.3.log")));
}

TEST_F(QmLoggerRotation, LosesNothingWhenManyProcessesWrite)
{
    std::vector<pid_t> children;
    for (int writer = 0; writer < 3; ++writer) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(200);
            QmLogger* const logger = initialize("", 1)->logger("Kvl");
            for (int i = 0; i < 1000; ++i)
                logger->info(numbered(writer, i), 0);
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const auto texts = all_texts(directory);
    EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()).size(), 3000u);
    EXPECT_EQ(texts.size(), 3000u);
}

TEST_F(QmLoggerRotation, FollowsAFileThatWasMovedWithinASecond)
{
    const wall_clock_t clock;
    QmLogger* const logger = initialize()->logger("Kvl");
    logger->info("before", 0);
    fs::rename(file(), file("moved"));
    logger->info("in the same second", 0);
    clock.set_on_by_a_second();
    logger->info("after", 0);
    EXPECT_THAT(texts_of(file("moved")), ElementsAre("before", "in the same second"));
    EXPECT_THAT(texts_of(file()), ElementsAre("after"));
}

TEST_F(QmLoggerRotation, GoesOnInTheFileItHasWhenADirectoryIsGone)
{
    const wall_clock_t clock;
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    fs::remove_all(directory);
    clock.set_on_by_a_second();
    logger->info(std::string(2 * MEGABYTE, 'x'), 0);
    logger->info("text", 0);
}

/// A process that keeps others from rotating a file, as one does that is about to rotate it.
class locking_process_t {
public:
    explicit locking_process_t(const fs::path& file)
    {
        if (pipe(locked_) != 0 || pipe(done_) != 0)
            return;
        pid_ = fork();
        if (pid_ != 0)
            return;
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        const int descriptor = open(file.c_str(), O_WRONLY);
        const char has_locked = fcntl(descriptor, F_SETLK, &whole) == 0 ? 'y' : 'n';
        char any;
        const bool has_waited =
            write(locked_[1], &has_locked, 1) == 1 && read(done_[0], &any, 1) == 1;
        _exit(has_waited ? 0 : 1);
    }
    bool has_locked() const
    {
        char answer = 'n';
        return read(locked_[0], &answer, 1) == 1 && answer == 'y';
    }
    /// @return  its wait status
    int end() const
    {
        int status = -1;
        if (write(done_[1], "", 1) == 1)
            waitpid(pid_, &status, 0);
        for (const int descriptor : {locked_[0], locked_[1], done_[0], done_[1]})
            close(descriptor);
        return status;
    }

private:
    int locked_[2] = {-1, -1};
    int done_[2] = {-1, -1};
    pid_t pid_ = -1;
};

TEST_F(QmLoggerRotation, IsLeftToTheProcessThatHasBegunIt)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    const std::string half(MEGABYTE * 6 / 10, 'x');
    logger->info(half, 0);
    const locking_process_t other(file());
    ASSERT_TRUE(other.has_locked());
    logger->info(half, 0);
    EXPECT_FALSE(fs::exists(file("server.1.log")));
    EXPECT_THAT(texts_of(file()), ElementsAre(half, half)) << "nothing waits, and nothing is lost";
    EXPECT_EQ(other.end(), 0);
    logger->info("text", 0);
    EXPECT_THAT(texts_of(file("server.1.log")), SizeIs(2));
    EXPECT_THAT(texts_of(file()), ElementsAre("text"));
}

// As some tools do after they have copied it.
TEST_F(QmLoggerRotation, DoesNotHappenToAFileThatWasEmptied)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    const std::string half(MEGABYTE * 6 / 10, 'x');
    logger->info(half, 0);
    fs::resize_file(file(), 0);
    logger->info(half, 0);
    EXPECT_FALSE(fs::exists(file("server.1.log")));
    EXPECT_THAT(texts_of(file()), ElementsAre(half));
}

// -- failures -------------------------------------------------------------------------------------

using QmLoggerFailure = QmLoggerTest;

TEST_F(QmLoggerFailure, AFullDeviceLosesLinesAndNothingElse)
{
    fs::create_symlink("/dev/full", file());
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    logger->error("lost", 0);
    logger->error("lost", 0);
    EXPECT_TRUE(fs::is_symlink(file()));
    initialize("", 0, "other");
    logger->error("written", 0);
    EXPECT_THAT(texts_of(file("other.log")), ElementsAre("2 lines lost: ENOSPC", "written"));
    EXPECT_EQ(parts_of(lines_of(file("other.log"))[0]).logger, "QmLogger");
}

/// Logs a line, one for which there are only so many bytes of room, one without any, and a last
/// one.
int log_with_room_for(rlim_t room_bytes, QmLogger& logger, const fs::path& file)
{
    signal(SIGXFSZ, SIG_IGN);
    logger.info("first", 0);
    const rlimit little = {fs::file_size(file) + room_bytes, RLIM_INFINITY};
    const rlimit much = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &little);
    logger.info(std::string(1000, 'x'), 0);
    logger.info("lost as well", 0);
    setrlimit(RLIMIT_FSIZE, &much);
    logger.info("last", 0);
    return 0;
}

TEST_F(QmLoggerFailure, ALineThatWasCutIsEndedBeforeTheNext)
{
    // Within what stands before the text, within the text, and before the end of the line.
    for (const rlim_t room_from_text : {rlim_t(-20), rlim_t(1), rlim_t(999), rlim_t(1000)}) {
        fs::remove(file());
        QmLogger* const logger = initialize()->logger("Kvl");
        EXPECT_EQ(status_of_child(
                      [&] {
                          logger->info("", 0);
                          const rlim_t room_bytes = last_line().size() + room_from_text;
                          return log_with_room_for(room_bytes, *logger, file());
                      },
                      std::exit),
                  0);
        const auto lines = lines_of(file());
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(parts_of(lines[1]).text, "first");
        EXPECT_EQ(lines[2].size(), lines[0].size() + room_from_text) << "what there was room for";
        EXPECT_EQ(parts_of(lines[3]).text, "2 lines lost: EFBIG");
        EXPECT_EQ(parts_of(lines[4]).text, "last");
    }
}

TEST_F(QmLoggerFailure, LinesGoToTheMovedFileWhereNoOtherCanBeOpened)
{
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    const auto log_without_descriptors = [&] {
        logger->info(std::string(MEGABYTE * 6 / 10, 'x'), 0);
        rlimit descriptors = {};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        const rlimit none = {0, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        logger->info(std::string(MEGABYTE * 6 / 10, 'y'), 0);
        setrlimit(RLIMIT_NOFILE, &descriptors);
        return 0;
    };
    EXPECT_EQ(status_of_child(log_without_descriptors, std::exit), 0);
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_THAT(texts_of(file("server.1.log")), SizeIs(2));
    logger->info("text", 0);
}

TEST_F(QmLoggerFailure, ADeviceServesAsALogFile)
{
    fs::create_symlink("/dev/null", file());
    QmLogger* const logger = initialize("", 1)->logger("Kvl");
    for (int i = 0; i < 3; ++i)
        logger->info(std::string(MEGABYTE, 'x'), 0);
    EXPECT_TRUE(fs::is_symlink(file())) << "devices are not rotated";
}

/// Cancels a thread that repeats `operation`, which has cancellation points in it.
template <class Operation>
void cancel_amid(Operation operation)
{
    std::atomic<bool> running{false};
    std::thread thread([&] {
        for (;;) {
            operation();
            running = true;
            pthread_testcancel();
        }
    });
    while (!running)
        std::this_thread::yield();
    pthread_cancel(thread.native_handle());
    thread.join();
}

TEST_F(QmLoggerFailure, ACancelledThreadLeavesTheLogUsable)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    for (int i = 0; i < 20; ++i) {
        cancel_amid([&] { logger->info("text", 0); });
        cancel_amid([&] { initialize(); });
        logger->info("after", 0);
    }
    EXPECT_EQ(std::ranges::count(texts_of(file()), "after"), 20);
}

// -- threads, forks, exit
// ---------------------------------------------------------------------------

using QmLoggerThreads = QmLoggerTest;

TEST_F(QmLoggerThreads, UseEverythingAtOnce)
{
    QmLogManager* const manager = initialize();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([=, this] {
            for (int i = 0; i < 200; ++i) {
                QmLogger* const logger = manager->logger("logger" + std::to_string(i % 7));
                logger->set_threshold(i % 3);
                logger->warning("text", i);
                if (i % 50 == t)
                    initialize(i % 2 == 0 ? "warning" : "", 1, "server" + std::to_string(t));
                manager->flush();
            }
        });
    for (auto& thread : threads)
        thread.join();
    for (const auto& entry : fs::directory_iterator(directory))
        for (const std::string& text : texts_of(entry.path()))
            EXPECT_EQ(text, "text");
}

TEST_F(QmLoggerThreads, WriteTheirOwnThreadIds)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    pid_t id = 0;
    std::thread([&] {
        id = gettid();
        logger->info("text", 0);
    }).join();
    EXPECT_EQ(parts_of(last_line()).ids, std::to_string(getpid()) + ":" + std::to_string(id));
}

TEST_F(QmLoggerThreads, AChildLogsWhileItsParentsThreadsDo)
{
    if (HAS_ADDRESS_SANITIZER)
        GTEST_SKIP() << "its allocator may stay locked in the child";
    QmLogManager* const manager = initialize();
    QmLogger* const logger = manager->logger("Kvl");
    std::atomic<bool> done{false};
    std::atomic<int> lines{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            for (int i = 0; !done; ++i, ++lines) {
                logger->info("parent", 0);
                manager->logger("logger" + std::to_string(i % 100));
            }
        });
    for (int i = 0; i < 50; ++i) {
        while (lines < i)  // they are at work
            std::this_thread::yield();
        EXPECT_EQ(status_of_child([&] {
                      logger->info("child", 0);
                      manager->logger("logger of the child")->info("child", 0);
                      return 0;
                  }),
                  0);
    }
    done = true;
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(std::ranges::count(texts_of(file()), "child"), 100);
}

/// As its first thread writes them.
std::string ids_of_process(pid_t pid)
{
    return std::to_string(pid) + ":" + std::to_string(pid);
}

TEST_F(QmLoggerThreads, AChildWritesItsOwnIds)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    logger->info("parent", 0);
    const pid_t pid = fork();
    if (pid == 0) {
        logger->info("child", 0);
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(parts_of(last_line()).text, "child");
    EXPECT_EQ(parts_of(last_line()).ids, ids_of_process(pid));
}

QmLogger* g_logger_of_handlers = nullptr;

void log_in_handler()
{
    if (g_logger_of_handlers != nullptr)
        g_logger_of_handlers->info("handler", 0);
}

int g_early_handlers = -1;

void register_early_handlers()
{
    g_early_handlers = pthread_atfork(log_in_handler, log_in_handler, log_in_handler);
}

// Runs before the libraries are initialised: the handler before the fork then runs after the
// library's, and those after the fork before them.
[[gnu::section(".preinit_array"), gnu::used]] void (*g_register_early)() = register_early_handlers;

TEST_F(QmLoggerThreads, ForkHandlersMayLog)
{
    ASSERT_EQ(g_early_handlers, 0);
    g_logger_of_handlers = initialize()->logger("Kvl");
    ASSERT_EQ(pthread_atfork(log_in_handler, log_in_handler, log_in_handler), 0);
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    g_logger_of_handlers = nullptr;
    EXPECT_THAT(texts_of(file()), AllOf(SizeIs(6), Each("handler")))
        << "before and after the fork in the parent, and after it in the child";
    const std::vector<std::string> ids = ids_of(file());
    EXPECT_EQ(std::ranges::count(ids, ids_of_process(getpid())), 4);
    EXPECT_EQ(std::ranges::count(ids, ids_of_process(child)), 2);
}

/// Logs when it is destroyed, that is after everything the logging library may have destroyed.
struct logs_when_destroyed_t {
    ~logs_when_destroyed_t()
    {
        if (logger != nullptr) {
            cxPrintfArgVal record{};
            record.p = "static destructor";
            logger->info(Log::QmMsg::format("%s", &record), 0);
        }
    }
    QmLogger* logger = nullptr;
};
logs_when_destroyed_t g_logs_when_destroyed;
thread_local logs_when_destroyed_t g_thread_logs_when_destroyed;

TEST_F(QmLoggerThreads, MayLogWhileTheProcessEnds)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        QmLogger* const logger = initialize()->logger("Kvl");
        g_thread_logs_when_destroyed.logger = logger;
        g_logs_when_destroyed.logger = logger;
        std::atomic<bool> has_begun{false};
        std::thread([logger, &has_begun] {
            for (;; has_begun = true)
                logger->info("thread", 0);
        }).detach();
        while (!has_begun)
            std::this_thread::yield();
        std::exit(0);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::ranges::count(texts_of(file()), "static destructor"), 2);
}

TEST_F(QmLoggerThreads, MayLogFromTheDestructorsOfAThread)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    std::thread([logger] {
        g_thread_logs_when_destroyed.logger = logger;
        Log::QmMsg::format("a first message of this thread", nullptr);
    }).join();
    EXPECT_THAT(texts_of(file()), ElementsAre("static destructor"));
}

// -- memory -------------------------------------------------------------------------------------

TEST_F(QmLogManagerInitialize, LeavesTheLogAsItWasWithoutMemory)
{
    QmLogger* const logger = initialize("error")->logger("Kvl");
    const std::string path = directory.string();
    const std::string thresholds = "a-logger-with-a-long-name=warning,another-bad-entry-here";
    const int faults = for_each_memory_fault(
        [&] { QmLogManager::initialize("another-program-name", path, thresholds, 0, ""); },
        [&] {
            EXPECT_EQ(logger->threshold(), 2);
            logger->error("x", 0);
        });
    EXPECT_GT(faults, 3);
    EXPECT_THAT(texts_of(file("server.log")),
                AllOf(SizeIs(static_cast<size_t>(faults)), Each(std::string("x"))));
}

TEST_F(QmLoggerTest, LoggerOfTheManagerWithoutMemoryIsNotKept)
{
    QmLogManager* const manager = initialize();
    const std::string name = "a logger whose name is long enough to be allocated";
    QmLogger* logger = nullptr;
    const int faults = for_each_memory_fault([&] { logger = manager->logger(name); },
                                             [&] { EXPECT_EQ(logger, nullptr); });
    EXPECT_GT(faults, 2);
    EXPECT_EQ(manager->logger(name), logger);
}

TEST_F(QmLoggerFailure, WithoutMemoryALineIsLostAndCounted)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::string text(10'000, '\n');
    {
        const memory_fault fault(1, true);
        logger->info(text, 0);
        EXPECT_TRUE(fault.struck());
    }
    logger->info("written", 0);
    EXPECT_THAT(texts_of(file()), ElementsAre("1 lines lost: ENOMEM", "written"));
}

TEST_F(QmLoggerFailure, ShortLinesNeedNoMemory)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::string text = "PLXSV0671E The selector 'x' is not valid: reason\n";
    const memory_fault fault(1, true);
    logger->info(text, 0);
    EXPECT_FALSE(fault.struck());
}

TEST_F(QmLoggerFailure, LongLinesNeedNoMemoryWithoutEscapes)
{
    QmLogger* const logger = initialize()->logger("Kvl");
    const std::string text = std::string(1'000'000, 'x') + "caf\u00E9";
    const memory_fault fault(1, true);
    logger->info(text, 0);
    EXPECT_FALSE(fault.struck());
}

// -- the base classes
// -------------------------------------------------------------------------------

struct counting_logger_t : QmLogger {
    const std::string& name() const override { return name_; }
    int threshold() const override { return threshold_; }
    void set_threshold(int level) override { threshold_ = level; }
    void info(const std::string&, int) override {}
    void warning(const std::string&, int) override {}
    void error(const std::string&, int) override {}

private:
    std::string name_;
    int threshold_ = 0;
};

TEST(QmLoggerBase, IsEnabledByItsThreshold)
{
    counting_logger_t logger;
    for (const int threshold : {-1, 0, 1, 2, 3}) {
        logger.set_threshold(threshold);
        EXPECT_EQ(logger.info_enabled(), threshold <= 0) << threshold;
        EXPECT_EQ(logger.warning_enabled(), threshold <= 1) << threshold;
    }
}

}  // namespace
