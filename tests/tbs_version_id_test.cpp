#include <kvutil/tbs_version_id.h>

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

std::string version_line()
{
    char line[128];
    std::memset(line, 'x', sizeof line);
    const int count = libkvutil_sprintf_verid(line);
    EXPECT_EQ(count, static_cast<int>(std::strlen(line)));
    return line;
}

/// The parts of the line that the format puts in place.
struct parts_t {
    std::string component, version, date;
};

parts_t parts_of(const std::string& line)
{
    std::smatch match;
    EXPECT_TRUE(std::regex_match(line, match, std::regex("(.{33}) ([^ ]*) \\((.*)\\)\n"))) << line;
    return match.empty() ? parts_t{} : parts_t{match[1], match[2], match[3]};
}

/// The text that a date of that form has if it is one: the right day of the week, none of the
/// fields out of range.
std::string normalized_date(const std::string& date)
{
    std::tm t{};
    EXPECT_NE(strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &t), nullptr) << date;
    const std::time_t seconds = timegm(&t);
    char text[64];
    std::strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", gmtime_r(&seconds, &t));
    return text;
}

TEST(VersionLine, IsOneAlignedLine)
{
    const std::string line = version_line();
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(line.substr(0, 34), "libkvutil                         ");
    EXPECT_NE(line[34], ' ') << "the version stands in column 35";
    const parts_t parts = parts_of(line);
    EXPECT_TRUE(std::regex_match(parts.version, std::regex("\\d+\\.\\d+\\.\\d+\\.\\d+")));
    EXPECT_EQ(parts.version.rfind(PROJECT_VERSION ".", 0), 0u) << parts.version;
    EXPECT_EQ(parts.date.size(), 24u);
    EXPECT_EQ(parts.date, normalized_date(parts.date));
}

TEST(VersionLine, LeavesANullBufferAlone)
{
    EXPECT_EQ(libkvutil_sprintf_verid(nullptr), -1);
}

TEST(VersionLine, IsPrinted)
{
    testing::internal::CaptureStdout();
    const int count = libkvutil_print_verid();
    std::fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, version_line());
    EXPECT_EQ(count, static_cast<int>(printed.size()));
}

TEST(VersionLine, SaysWhenItCannotBePrinted)
{
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        close(STDOUT_FILENO);
        _exit(libkvutil_print_verid() < 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

// ---- the identification block ----

std::string content_of_library()
{
    std::ifstream file(KVUTIL_LIBRARY, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <class Record>
Record record_at(const std::string& content, std::size_t at)
{
    Record record{};
    if (at <= content.size() && sizeof record <= content.size() - at)
        std::memcpy(&record, content.data() + at, sizeof record);
    return record;
}

std::string section(const std::string& content, const std::string& name)
{
    const auto header = record_at<Elf64_Ehdr>(content, 0);
    const auto section_at = [&](unsigned i) {
        return record_at<Elf64_Shdr>(content, header.e_shoff + i * sizeof(Elf64_Shdr));
    };
    const std::size_t names = section_at(header.e_shstrndx).sh_offset;
    for (unsigned i = 0; i < header.e_shnum; ++i)
        if (name == content.data() + names + section_at(i).sh_name) {
            EXPECT_EQ(section_at(i).sh_flags & SHF_ALLOC, 0u) << "it takes no memory";
            return content.substr(section_at(i).sh_offset, section_at(i).sh_size);
        }
    return {};
}

const std::string MARKER = "@(#)";

/// The one string of the section that holds the block.
std::string identification_block()
{
    const std::string comments = section(content_of_library(), ".comment");
    const std::size_t marker = comments.find(MARKER);
    EXPECT_NE(marker, std::string::npos);
    if (marker == std::string::npos)
        return {};
    const std::size_t begin = comments.rfind('\0', marker);
    return comments.c_str() + (begin == std::string::npos ? 0 : begin + 1);
}

const std::vector<std::string> KEYS = {"Target", "User",     "Host",  "Time",
                                       "View",   "Baseline", "BF_TAG"};

/// Value by position of its key; checks that the block has the form.
std::vector<std::string> identification()
{
    std::string rest = identification_block();
    std::vector<std::string> values;
    for (const std::string& key : KEYS) {
        const std::string start = MARKER + "/./=W=:" + key + "=";
        EXPECT_EQ(rest.substr(0, start.size()), start);
        const std::size_t end = rest.find('\n');
        EXPECT_NE(end, std::string::npos) << key;
        if (rest.size() < start.size() || end == std::string::npos)
            return std::vector<std::string>(KEYS.size());
        values.push_back(rest.substr(start.size(), end - start.size()));
        rest.erase(0, end + 1);
    }
    EXPECT_EQ(rest, "") << "nothing follows";
    return values;
}

TEST(IdentificationBlock, IsOneStringWithItsKeysInOrder)
{
    const std::vector<std::string> values = identification();
    for (std::size_t i = 0; i < KEYS.size(); ++i)
        EXPECT_FALSE(values[i].empty()) << KEYS[i];
}

TEST(IdentificationBlock, NamesTheBuild)
{
    const std::vector<std::string> values = identification();
    const std::string library = KVUTIL_LIBRARY;
    EXPECT_NE(values[0].front(), '/') << "no path of the machine";
    EXPECT_EQ(library.substr(library.size() - values[0].size() - 1), "/" + values[0]);
    EXPECT_EQ(values[1], KVUTIL_BUILD_USER);
    EXPECT_EQ(values[2], KVUTIL_BUILD_HOST " (" KVUTIL_BUILD_KERNEL ")");
    EXPECT_EQ(values[4], KVUTIL_BUILD_VIEW);
}

TEST(IdentificationBlock, AgreesWithTheVersionLine)
{
    const std::vector<std::string> values = identification();
    const parts_t parts = parts_of(version_line());
    EXPECT_EQ(values[3], parts.date);
    EXPECT_EQ(values[6], "libkvutil_" + parts.version + "_" KVUTIL_BUILD_ID);
}

// what(1) searches the whole file.
TEST(IdentificationBlock, IsFoundOnce)
{
    const std::string content = content_of_library();
    std::size_t markers = 0;
    for (std::size_t at = content.find(MARKER); at != std::string::npos;
         at = content.find(MARKER, at + 1))
        ++markers;
    EXPECT_EQ(markers, KEYS.size());
}

TEST(IdentificationBlock, IsShownByReadelf)
{
    std::FILE* const pipe = popen("readelf -p .comment '" KVUTIL_LIBRARY "'", "r");
    ASSERT_NE(pipe, nullptr);
    std::string shown;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        shown += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), 0);
    std::size_t at = 0;
    for (const std::string& key : KEYS) {
        at = shown.find(MARKER + "/./=W=:" + key + "=", at);
        ASSERT_NE(at, std::string::npos) << key;
    }
}

}  // namespace
