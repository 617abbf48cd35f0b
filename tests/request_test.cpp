// The request program as a client sees it: what it is asked, what it answers and how it ends.

#include "support/sanitizer.h"
#include "support/text.h"
#include "xml_writer.h"

#include <kvutil/credentials.h>
#include <kvutil/davtime.h>
#include <kvutil/oid.h>
#include <kvutil/selector.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

unsigned long occurrences(const std::string& text, const std::string& part)
{
    unsigned long count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::string quoted(const std::string& argument)
{
    return "'" + replaced(argument, "'", "'\\''") + "'";
}

// The text between the tags of the first element of that name, references kept; "" for an empty
// one.
std::string element(const std::string& xml, const std::string& name)
{
    if (xml.find("<" + name + "/>") != std::string::npos)
        return "";
    const size_t start = xml.find("<" + name + ">");
    const size_t end = xml.find("</" + name + ">");
    if (start == std::string::npos || end == std::string::npos)
        return "(no " + name + ")";
    return xml.substr(start + name.size() + 2, end - start - name.size() - 2);
}

// With what is new in every answer replaced by what kind of thing it is.
std::string without_object(const std::string& xml)
{
    static const std::regex oid(
        ">[0-9a-f]{8}[.][0-9a-f]{8}[.][0-9a-f]{4}[.][0-9a-f]{2}(:[0-9a-f]{2}){5}<");
    static const std::regex iso8601(">[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z<");
    static const std::regex rfc1123(
        ">[A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT<");
    std::string text = std::regex_replace(xml, oid, ">(an identifier)<");
    text = std::regex_replace(text, iso8601, ">(a date)<");
    return std::regex_replace(text, rfc1123, ">(a date)<");
}

std::string summary(unsigned long accepted, unsigned long rejected)
{
    return "accepted " + std::to_string(accepted) + ", rejected " + std::to_string(rejected) + "\n";
}

struct result_t {
    int status;
    std::string out, err;
};

class Request : public testing::Test {
protected:
    Request()
    {
        std::string name = (fs::temp_directory_path() / "request_test.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), name);
        directory_ = name;
    }
    ~Request() override { fs::remove_all(directory_); }

    // Runs the program with its log in log_directory().
    result_t run(const std::vector<std::string>& arguments, const std::string& input = "")
    {
        return run_with_log(log_directory(), arguments, input);
    }

    result_t run_with_log(const std::string& directory, const std::vector<std::string>& arguments,
                          const std::string& input = "")
    {
        write_file(path("in"), input);
        std::string command = quoted(REQUEST_PROGRAM) + " --log " + quoted(directory);
        for (const std::string& argument : arguments)
            command += " " + quoted(argument);
        return run_command(command + " <" + quoted(path("in")) + " >" + quoted(path("out")));
    }

    result_t run_command(const std::string& command)
    {
        const int status = std::system((command + " 2>" + quoted(path("err"))).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(path("out")),
                contents(path("err"))};
    }

    // The answer to one text, which the tests of properties look into.
    std::string answer_to(const std::string& selector) { return run({}, selector + "\n").out; }

    // What a reader of XML says against the last output; "" for nothing.
    std::string xml_complaints()
    {
        const std::string command =
            quoted(XMLLINT) + " --stream --noout --nonet --huge " + quoted(path("out"));
        const int status = std::system((command + " >" + quoted(path("lint")) + " 2>&1").c_str());
        return status == 0 ? "" : "xmllint: " + contents(path("lint"));
    }

    std::string path(const std::string& name) const { return (directory_ / name).string(); }
    std::string log_directory() const { return path("made/on/demand"); }
    std::string log() const { return contents(fs::path(log_directory()) / "request.log"); }

private:
    fs::path directory_;
};

// The whole document, byte for byte: names, order, prefixes and one declaration for each namespace.
TEST_F(Request, AnswersWithNamesOfTheVocabularyAndEachNamespaceDeclaredOnce)
{
    const result_t result = run({"vd.file:/src/main.c@/vobs/proj"});
    const std::string base = Kvl::XmlTag::ns_URI(18).utf8_str();
    EXPECT_EQ(without_object(result.out),
              R"(<?xml version="1.0" encoding="UTF-8"?>
<TEAM:multistatus xmlns:TEAM=")" +
                  base + R"(" xmlns:CTG=")" + base + R"(/CTG" xmlns:TEAMPVT=")" + base + R"(/PVT">
  <TEAM:response>
    <TEAM:href>vd.file:/src/main.c@/vobs/proj</TEAM:href>
    <TEAM:propstat>
      <TEAM:prop>
        <TEAM:display-name>main.c</TEAM:display-name>
        <TEAM:resource-type/>
        <TEAM:namespace>file</TEAM:namespace>
        <TEAM:domain>vd</TEAM:domain>
        <TEAM:name>/src/main.c</TEAM:name>
        <CTG:parent-repository>vd.vob:/vobs/proj</CTG:parent-repository>
        <CTG:naming-parent>vd.file:src@/vobs/proj</CTG:naming-parent>
        <TEAMPVT:oid>(an identifier)</TEAMPVT:oid>
        <TEAM:creation-date>(a date)</TEAM:creation-date>
        <TEAM:last-modified>(a date)</TEAM:last-modified>
      </TEAM:prop>
    </TEAM:propstat>
  </TEAM:response>
</TEAM:multistatus>
)");
    EXPECT_EQ(result.err, summary(1, 0));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(xml_complaints(), "");
}

struct properties_t {
    std::string selector, href, display_name, resource_type, ns, domain, name, repository, parent;
};

TEST_F(Request, AnswersEveryPropertyOfEveryKindOfSelector)
{
    const properties_t rows[] = {
        // The three repository namespaces: the repository is the resource, and gives its name.
        {"vd.vob:/vobs/p", "vd.vob:/vobs/p", "p", "", "vob", "vd", "", "vd.vob:/vobs/p",
         "vd.vob:vobs"},
        {"ob.dbset:7.1", "ob.dbset:7.1", "7.1", "", "dbset", "ob", "", "ob.dbset:7.1", "ob.dbset:"},
        {"ob.userdb:7.1/S", "ob.userdb:7.1/S", "S", "", "userdb", "ob", "", "ob.userdb:7.1/S",
         "ob.userdb:7.1"},
        // A resource type says what kind of repository it is, before the domain does.
        {"vd.repo.vob:@/v", "vd.repo.vob:@/v", "v", "vob", "repo", "vd", "", "vd.vob:/v",
         "vd.repo.vob:"},
        {"ob.repo.ob-dbset:@7", "ob.repo.ob-dbset:@7", "7", "ob-dbset", "repo", "ob", "",
         "ob.dbset:7", "ob.repo.ob-dbset:"},
        {"ob.repo.ob-userdb:@7/S", "ob.repo.ob-userdb:@7/S", "S", "ob-userdb", "repo", "ob", "",
         "ob.userdb:7/S", "ob.repo.ob-userdb:@7"},
        {"ob.repo.ob-record:D/1@7/S", "ob.repo.ob-record:D/1@7/S", "1", "ob-record", "repo", "ob",
         "D/1", "ob.userdb:7/S", "ob.repo.ob-record:D@7/S"},
        // Escapes are kept where a selector is written, and undone where a person reads.
        {"vd.file:/a%/b%:c@/v", "vd.file:/a%/b%:c@/v", "a/b:c", "", "file", "vd", "/a%/b%:c",
         "vd.vob:/v", "vd.file:/v"},
        {"vd.file:/src//inc/@/v", "vd.file:/src//inc/@/v", "inc", "", "file", "vd", "/src//inc/",
         "vd.vob:/v", "vd.file:src@/v"},
        // A name of separators only has no segment; at the top, the parent has one field less.
        {"vd.file:/@/vobs/p", "vd.file:/@/vobs/p", "p", "", "file", "vd", "/", "vd.vob:/vobs/p",
         "vd.file:vobs"},
        {"vd.vob:/", "vd.vob:/", "", "", "vob", "vd", "", "vd.vob:/", "vd:"},
        // No namespace, no domain, and the domain that stands for an invalid one.
        {"vd:/a/b@/v", "vd:/a/b@/v", "b", "", "NONE", "vd", "/a/b", "vd.vob:/v", "vd:a@/v"},
        {":/a/b@/v", "/a/b@/v", "b", "", "NONE", "", "/a/b", "vob:/v", "a@/v"},
        {"<invalid>.file:a@/v", "file:a@/v", "a", "", "file", "&lt;invalid&gt;", "a", "vob:/v",
         "file:/v"},
        {"vd.file:/été/📁/日本.c@/v", "vd.file:/été/📁/日本.c@/v", "日本.c", "", "file", "vd",
         "/été/📁/日本.c", "vd.vob:/v", "vd.file:été/📁@/v"},
    };
    for (const properties_t& row : rows) {
        SCOPED_TRACE(row.selector);
        const std::string xml = answer_to(row.selector);
        EXPECT_EQ(element(xml, "TEAM:href"), row.href);
        EXPECT_EQ(element(xml, "TEAM:display-name"), row.display_name);
        EXPECT_EQ(element(xml, "TEAM:resource-type"), row.resource_type);
        EXPECT_EQ(element(xml, "TEAM:namespace"), row.ns);
        EXPECT_EQ(element(xml, "TEAM:domain"), row.domain);
        EXPECT_EQ(element(xml, "TEAM:name"), row.name);
        EXPECT_EQ(element(xml, "CTG:parent-repository"), row.repository);
        EXPECT_EQ(element(xml, "CTG:naming-parent"), row.parent);
        EXPECT_EQ(xml_complaints(), "");
    }
}

struct rejection_t {
    std::string selector, detail;
};

const rejection_t REJECTIONS[] = {
    {"vd.file", R"(missing namespace seperator: ":")"},  // [sic] the spelling is the message's
    {"", R"(missing namespace seperator: ":")"},         // an empty line is a text as well
    {"file:/a@/v", "unknown provider domain: file"},
    {"vd.bogus:/a@/v", "unknown namespace: bogus"},
    {"vd.repo.nosuch:x@/v", "unknown resource type: nosuch"},
    {"vd.file.extra:/a@/v", "extra segment before name and repository: extra"},
    {"vd.file:", "no name or repository segments"},
    {"vd.file:/a", R"(missing repository seperator: "@")"},
    {"vd.file:@/v", "no name for non-repository resource type"},
    {"vd.file:/a@", "no repository segment"},
};

TEST_F(Request, AnswersARejectedTextWithTheMessageAndLogsItOnce)
{
    std::string input;
    for (const rejection_t& row : REJECTIONS)
        input += row.selector + "\n";
    const result_t result = run({}, input);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, summary(0, std::size(REJECTIONS)));
    EXPECT_EQ(xml_complaints(), "");
    EXPECT_THAT(result.out, Not(HasSubstr("<TEAM:href>")));
    const std::vector<std::string> logged = lines_of(log());
    ASSERT_EQ(logged.size(), std::size(REJECTIONS));
    for (size_t i = 0; i < logged.size(); ++i) {
        const std::string message = "PLXSV0671E The selector '" + REJECTIONS[i].selector +
                                    "' is not valid: " + REJECTIONS[i].detail;
        EXPECT_THAT(result.out, HasSubstr("    <TEAM:error>" + message + "</TEAM:error>\n"));
        EXPECT_THAT(logged[i], HasSubstr(message));
    }
}

TEST_F(Request, TellsMalformedUtf8FromAnEmptyText)
{
    const result_t result = run({}, "vd.file:/\xC3\x28@/v\n\xFF\nvd.file:/a@/v\n");
    EXPECT_EQ(result.err, summary(1, 2));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(
        result.out,
        HasSubstr("The selector 'vd.file:/\uFFFD(@/v' is not valid: not well-formed UTF-8<"));
    EXPECT_THAT(result.out,
                HasSubstr("The selector '\uFFFD' is not valid: not well-formed UTF-8<"));
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, WritesMarkupCharactersAsReferencesAndUnwritableOnesAsReplacements)
{
    const std::string name = "/a&b<c>d\"e'f]]>\x01\x1F\x7F\tg\uFFFE\uFFFF";
    const result_t result = run({}, "vd.file:" + name + "@/R&D\n" + "<bad>&\x02:x@y\n");
    EXPECT_EQ(element(result.out, "TEAM:name"),
              "/a&amp;b&lt;c&gt;d\"e'f]]&gt;\uFFFD\uFFFD\x7F\tg\uFFFD\uFFFD");
    EXPECT_EQ(element(result.out, "CTG:parent-repository"), "vd.vob:/R&amp;D");
    EXPECT_EQ(element(result.out, "TEAM:error"),
              "PLXSV0671E The selector '&lt;bad&gt;&amp;\uFFFD:x@y' is not valid: "
              "unknown provider domain: &lt;bad&gt;&amp;\uFFFD");
    EXPECT_EQ(result.err, summary(1, 1));
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, KeepsWhatFollowsAZeroCharacter)
{
    const std::string xml = answer_to(std::string("vd.file:/a\0b@/v", 15));
    EXPECT_EQ(element(xml, "TEAM:name"), "/a\uFFFDb");
    EXPECT_EQ(element(xml, "TEAM:href"), "vd.file:/a\uFFFDb@/v");
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, TakesAnyLineEndAndALastLineWithoutOne)
{
    const result_t result = run({}, "vd.file:/a@/v\r\nvd.file:/b\r@/v\n\r\nvd.file:/c@/v");
    EXPECT_EQ(result.err, summary(3, 1));
    EXPECT_THAT(result.out, HasSubstr("<TEAM:name>/a</TEAM:name>"));
    EXPECT_THAT(result.out, HasSubstr("<TEAM:name>/b&#13;</TEAM:name>"));
    EXPECT_THAT(result.out, HasSubstr("<TEAM:href>vd.file:/c@/v</TEAM:href>"));
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, AnswersNothingToAnEmptyInput)
{
    const result_t result = run({});
    EXPECT_EQ(result.err, summary(0, 0));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, TakesTextsFromArgumentsAsTheyAre)
{
    const result_t result =
        run({"vd.file:/a@/v", "[x,y]", "", "{}", "--", "--log", "-x", "%%"}, "vd.file:/in@/v\n");
    EXPECT_EQ(result.err, summary(1, 6));
    EXPECT_EQ(result.status, 0);
    for (const std::string text : {"[x,y]", "", "{}", "--log", "-x", "%%"})
        EXPECT_THAT(result.out, HasSubstr("The selector '" + text + "' is not valid"));
    EXPECT_THAT(result.out, Not(HasSubstr("/in")));  // arguments stand in for standard input
}

TEST_F(Request, AnswersArgumentsBeforeTheFile)
{
    write_file(path("list"), "vd.file:/second@/v\n");
    const result_t result = run({"--file", path("list"), "vd.file:/first@/v"});
    EXPECT_EQ(result.err, summary(2, 0));
    EXPECT_LT(result.out.find("/first"), result.out.find("/second"));
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, AnswersALineOfTenMebibytes)
{
    constexpr size_t SIZE = 10 << 20;
    const result_t accepted = run({}, "vd.file:/" + std::string(SIZE, 'a') + "@/v\n");
    EXPECT_EQ(accepted.err, summary(1, 0));
    EXPECT_EQ(element(accepted.out, "TEAM:display-name").size(), SIZE);
    EXPECT_EQ(xml_complaints(), "");
    const result_t rejected = run({}, std::string(SIZE, '%') + "\nvd.file:/a@/v\n");
    EXPECT_EQ(rejected.err, summary(1, 1));
    EXPECT_GT(rejected.out.size(), SIZE);
    EXPECT_EQ(xml_complaints(), "");
}

// Written from the grammar alone, to tell which lines of the sample must be accepted.
bool is_proper(const std::string& line)
{
    static const std::regex grammar(
        R"(\.*(vd|ob|<invalid>)\.+((dbset|userdb|vob)\.*:.+|repo\.+(vob|ob-dbset|ob-userdb)\.*:[^@]*@.+|repo\.+(vd-file|vd-activity|ob-record|ob-query)\.*:[^@]+@.+|(?!dbset|userdb\.*:|vob\.*:)[A-Za-z]+\.*:[^@]+@.+)|(vd|ob)?:[^@]+@.+)");
    return std::regex_match(line, grammar) && line.find("bogus") == std::string::npos &&
           line.find("vd.default") == std::string::npos;
}

TEST_F(Request, AnswersTheSampleWhichShowsTheWholeVocabularyAndEveryRejection)
{
    const std::string sample = contents(REQUEST_SAMPLE);
    const std::vector<std::string> lines = lines_of(sample);
    ASSERT_GE(lines.size(), 60u);
    const auto accepted =
        static_cast<unsigned long>(std::count_if(lines.begin(), lines.end(), is_proper));
    const result_t result = run({"--file", REQUEST_SAMPLE});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, summary(accepted, lines.size() - accepted));
    EXPECT_EQ(occurrences(result.out, "<TEAM:response>"), lines.size());
    EXPECT_EQ(occurrences(result.out, "<TEAM:href>"), accepted);
    EXPECT_EQ(occurrences(result.out, "<TEAM:error>"), lines.size() - accepted);
    EXPECT_EQ(occurrences(result.out, " xmlns"), 3u);
    EXPECT_EQ(lines_of(log()).size(), lines.size() - accepted);
    EXPECT_EQ(xml_complaints(), "");
    for (int ns = 0; ns < 52; ++ns) {
        const auto text = Kvl::Selector::namespace_string(Kvl::Selector::namespace_t(ns));
        EXPECT_THAT(result.out,
                    HasSubstr("<TEAM:namespace>" + text.utf8_str() + "</TEAM:namespace>"));
    }
    for (const rejection_t& row : REJECTIONS)
        EXPECT_THAT(result.out, HasSubstr(row.detail.substr(0, row.detail.find(": "))));
}

TEST_F(Request, FailsWhenItsInputCannotBeReadAndClosesTheDocument)
{
    for (const std::string& file : {path("missing"), path(""), std::string()}) {
        const result_t result = run({"vd.file:/a@/v", "--file", file});
        EXPECT_NE(result.status, 0) << file;
        EXPECT_THAT(result.err, StartsWith("request: cannot read " + file + ": "));
        EXPECT_THAT(result.err, HasSubstr(summary(1, 0)));
        EXPECT_EQ(xml_complaints(), "");
    }
    EXPECT_NE(run_command(quoted(REQUEST_PROGRAM) + " --log " + quoted(log_directory()) + " <&- >" +
                          quoted(path("out")))
                  .status,
              0);
    EXPECT_EQ(xml_complaints(), "");
}

TEST_F(Request, FailsWhenItsOutputCannotBeWritten)
{
    const std::string command =
        quoted(REQUEST_PROGRAM) + " --log " + quoted(log_directory()) + " vd.file:/a@/v ";
    const result_t full = run_command(command + ">/dev/full");
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("request: cannot write the answers: No space left on device"));
    const result_t closed = run_command(command + ">&-");
    EXPECT_EQ(closed.status, 1);
    EXPECT_THAT(closed.err, HasSubstr("request: cannot write the answers: Bad file descriptor"));
    EXPECT_FALSE(fs::exists(log_directory()));  // nothing of the answers got into a log
}

TEST_F(Request, AnswersWithoutALogWhenNoneCanBeWritten)
{
    const result_t result = run_with_log("/dev/null/log", {"vd.file"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("request: no log can be written in /dev/null/log\n"));
    EXPECT_THAT(result.err, HasSubstr(summary(0, 1)));
}

// ---- New objects

std::vector<std::string> elements(std::string xml, const std::string& name)
{
    std::vector<std::string> texts;
    const std::string end = "</" + name + ">";
    for (size_t at; (at = xml.find(end)) != std::string::npos; xml.erase(0, at + end.size()))
        texts.push_back(element(xml, name));
    return texts;
}

TEST_F(Request, GivesEachAcceptedSelectorAnIdentifierOfItsOwn)
{
    std::string input;
    for (int i = 0; i < 1000; ++i)
        input += i % 10 == 0 ? "rejected\n" : "vd.file:/a@/v\n";
    const result_t result = run({}, input);
    const std::vector<std::string> identifiers = elements(result.out, "TEAMPVT:oid");
    EXPECT_EQ(identifiers.size(), 900u);
    EXPECT_EQ(std::set<std::string>(identifiers.begin(), identifiers.end()).size(), 900u);
    for (const std::string& identifier : identifiers)
        ASSERT_EQ(Kvl::Oid::from_string(identifier).std_str(false), identifier);
}

std::time_t parsed(const std::string& text)
{
    Kvl::DavTime time;
    time.parse(ustr(text));
    return time.value();
}

TEST_F(Request, DatesEachNewObjectInBothForms)
{
    const std::time_t before = std::time(nullptr);
    const std::string xml = answer_to("vd.file:/a@/v");
    const std::time_t after = std::time(nullptr);
    const std::time_t created = parsed(element(xml, "TEAM:creation-date"));
    EXPECT_GE(created, before);
    EXPECT_LE(created, after);
    EXPECT_EQ(parsed(element(xml, "TEAM:last-modified")), created);
}

// ---- Credentials

std::string group_identity(unsigned long number)
{
    char text[16];
    std::snprintf(text, sizeof text, "4:02%08lx", number);
    return text;
}

TEST_F(Request, AnswersWhetherTheUserMaySeeTheObject)
{
    Kvl::Credentials credentials;
    credentials.user = Kvl::Identity::from_str(u"1:01aa");
    credentials.primary_group = Kvl::Identity::from_str(u"1:02bb");
    credentials.groups.push_back(Kvl::Identity::from_str(u"0:02"));
    credentials.groups.push_back(Kvl::Identity::from_str(u"2:02cccc"));
    credentials.write_to_file(path("credentials"));
    const auto not_visible = [&](const std::string& group) {
        const result_t result =
            run({"--credentials", path("credentials"), "--group", group, "vd.file:/a@/v"});
        EXPECT_EQ(result.err, summary(1, 0));
        EXPECT_EQ(xml_complaints(), "");
        return element(result.out, "CTG:not-visible");
    };
    EXPECT_EQ(not_visible("1:02bb"), "false");
    EXPECT_EQ(not_visible("0:02"), "false");
    EXPECT_EQ(not_visible("2:02cccc"), "false");
    EXPECT_EQ(not_visible("1:01aa"), "true");  // the user is no group of its own
    EXPECT_EQ(not_visible("2:03cccc"), "true");
    EXPECT_EQ(not_visible("0:00"), "true");
}

TEST_F(Request, SaysNothingOfVisibilityWithoutAUserAndAGroup)
{
    EXPECT_THAT(answer_to("vd.file:/a@/v"), Not(HasSubstr("not-visible")));
    const result_t result =
        run({"--credentials", path("mine"), "--make-credentials", "vd.file:/a@/v"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, Not(HasSubstr("not-visible")));
}

TEST_F(Request, MakesTheCredentialsOfWhoRunsIt)
{
    write_file(path("mine"), "something older");
    const result_t result = run({"--credentials", path("mine"), "--make-credentials", "--group",
                                 group_identity(getgid()), "vd.file:/a@/v"});
    EXPECT_EQ(result.err, summary(1, 0));
    EXPECT_EQ(element(result.out, "CTG:not-visible"), "false");
    Kvl::Credentials credentials;
    credentials.read_from_file(path("mine"), false);
    EXPECT_EQ(credentials.user.type(), 1);
    EXPECT_EQ(credentials.user.str().utf8_str().substr(4), group_identity(getuid()).substr(4));
    EXPECT_EQ(credentials.primary_group.str(), ustr(group_identity(getgid())));
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    ASSERT_EQ(getgroups(static_cast<int>(groups.size()), groups.data()),
              static_cast<int>(groups.size()));
    ASSERT_EQ(credentials.groups.size(), groups.size());
    for (size_t i = 0; i < groups.size(); ++i)
        EXPECT_EQ(credentials.groups[i].str(), ustr(group_identity(groups[i])));
}

TEST_F(Request, TakesTheNameOfAGroupOfTheSystem)
{
    const group* const root = getgrgid(0);
    ASSERT_NE(root, nullptr);
    Kvl::Credentials credentials;
    credentials.primary_group = Kvl::Identity::from_str(ustr(group_identity(0)));
    credentials.write_to_file(path("credentials"));
    const result_t result =
        run({"--credentials", path("credentials"), "--group", root->gr_name, "vd.file:/a@/v"});
    EXPECT_EQ(element(result.out, "CTG:not-visible"), "false");
}

TEST_F(Request, SaysWhyCredentialsOrAGroupAreNoGood)
{
    write_file(path("short"), std::string("\0\0\0\0", 4));
    Kvl::Credentials().write_to_file(path("good"));
    struct {
        std::string file, group, error;
    } rows[] = {
        {path("none"), "1:02bb",
         "PLXSV0665E Unable to open file '" + path("none") + "': No such file or directory."},
        {path("short"), "1:02bb",
         "PLXSV0666E Unable to read file '" + path("short") + "': Success."},
        {path("good"), "1:02",
         "PLXSV0660E Invalid Identity - bad string size for arg: 'str' with value: '1:02'"},
        {path("good"), "no such group", "there is no group 'no such group'"},
    };
    for (const auto& row : rows) {
        const result_t result =
            run({"--credentials", row.file, "--group", row.group, "vd.file:/a@/v"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "request: " + row.error + "\n");
        EXPECT_EQ(result.out, "");
    }
}

// ---- A file of answers

std::vector<std::string> names_in(const fs::path& directory)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    return names;
}

mode_t mode_of(const fs::path& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(Request, WritesItsAnswersToAFileThatAppearsWhenItIsComplete)
{
    fs::create_directory(path("answers"));
    const std::string file = path("answers/all.xml");
    const mode_t mask = umask(027);
    const result_t result = run({"--output", file, "vd.file:/a@/v"});
    umask(mask);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, summary(1, 0));
    EXPECT_EQ(without_object(contents(file)), without_object(run({"vd.file:/a@/v"}).out));
    EXPECT_EQ(mode_of(file), 0640u);
    EXPECT_THAT(names_in(path("answers")), testing::ElementsAre("all.xml"));
}

TEST_F(Request, ReplacesAFileOfAnswersWithItsPermissions)
{
    fs::create_directory(path("answers"));
    const std::string file = path("answers/all.xml");
    write_file(file, std::string(100'000, 'x'));
    chmod(file.c_str(), 0604);
    fs::create_symlink("all.xml", path("answers/link"));
    EXPECT_EQ(run({"--output", path("answers/link"), "vd.file:/a@/v"}).status, 0);
    EXPECT_THAT(contents(file), StartsWith("<?xml"));
    EXPECT_EQ(mode_of(file), 0604u);
    EXPECT_TRUE(fs::is_symlink(path("answers/link")));
    EXPECT_THAT(names_in(path("answers")), testing::UnorderedElementsAre("all.xml", "link"));
}

TEST_F(Request, WritesThroughALinkToAFileThatIsNotThereYet)
{
    fs::create_directory(path("answers"));
    fs::create_symlink("all.xml", path("answers/link"));
    EXPECT_EQ(run({"--output", path("answers/link"), "vd.file:/a@/v"}).status, 0);
    EXPECT_TRUE(fs::is_symlink(path("answers/link")));
    EXPECT_THAT(contents(path("answers/all.xml")), StartsWith("<?xml"));
    EXPECT_THAT(names_in(path("answers")), testing::UnorderedElementsAre("all.xml", "link"));
}

TEST_F(Request, LeavesAFileOfAnswersAsItWasWhenItCannotAnswerEverything)
{
    fs::create_directory(path("answers"));
    const std::string file = path("answers/all.xml");
    write_file(file, "older answers");
    EXPECT_EQ(run({"--output", file, "--file", path("missing")}).status, 1);
    EXPECT_EQ(contents(file), "older answers");
    EXPECT_THAT(names_in(path("answers")), testing::ElementsAre("all.xml"));
}

TEST_F(Request, WritesToADeviceWhereItIs)
{
    const result_t null = run({"--output", "/dev/null", "vd.file:/a@/v"});
    EXPECT_EQ(null.err, summary(1, 0));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    const result_t full = run({"--output", "/dev/full", "vd.file:/a@/v"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "request: cannot write the answers: No space left on device\n");
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(Request, SaysWhyAFileOfAnswersCannotBeMade)
{
    fs::create_directory(path("answers"));
    struct {
        std::string file, error;
    } rows[] = {
        {path("missing/all.xml"), "cannot write the answers: No such file or directory"},
        {path("answers"), "cannot write the answers: Is a directory"},
        {path("in/all.xml"), "cannot write the answers: Not a directory"},
    };
    for (const auto& row : rows) {
        const result_t result = run({"--output", row.file, "vd.file:/a@/v"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "request: " + row.error + "\n");
    }
    EXPECT_THAT(names_in(path("answers")), testing::IsEmpty());
}

// ---- Measurement

const std::string RUNTIME = FAKE_ARM4_DIR "/fake_arm4";

class MeasuredRequest : public Request {
protected:
    // The program with the run-time library of the tests, or with a missing one.
    result_t run_measured(const std::string& library_path,
                          const std::vector<std::string>& selectors)
    {
        std::string command = "LD_LIBRARY_PATH=" + quoted(library_path) +
                              " FAKE_ARM4_LOG=" + quoted(path("calls")) + " " +
                              quoted(REQUEST_PROGRAM) + " --arm --log " + quoted(log_directory());
        for (const std::string& selector : selectors)
            command += " " + quoted(selector);
        return run_command(command + " >" + quoted(path("out")));
    }

    // The calls of one function, without the times.
    std::vector<std::string> calls_of(const std::string& function)
    {
        std::vector<std::string> calls;
        for (const std::string& line : lines_of(contents(path("calls"))))
            if (const size_t at = line.find(" " + function + " "); at != std::string::npos)
                calls.push_back(line.substr(at + 1));
        return calls;
    }
};

TEST_F(MeasuredRequest, AnswersAsEverWithoutARunTime)
{
    const std::string selector = "vd.file:/a@/v";
    const result_t result = run_measured(path("none"), {selector});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              summary(1, 0) + "measurement off: there is no usable run-time library libarm4.so\n");
    EXPECT_EQ(without_object(result.out), without_object(run({selector}).out));
    EXPECT_FALSE(fs::exists(path("calls")));
}

TEST_F(MeasuredRequest, SaysNothingOfMeasurementThatNobodyAskedFor)
{
    EXPECT_EQ(run({"vd.file:/a@/v"}).err, summary(1, 0));
}

TEST_F(MeasuredRequest, RegistersItselfAndItsOperations)
{
    const result_t result = run_measured(RUNTIME, {"vd.file:/a@/v"});
    EXPECT_EQ(result.err, summary(1, 0) + "measurement on\n");
    const std::vector<std::string> applications = calls_of("arm_register_application");
    ASSERT_EQ(applications.size(), 1u);
    EXPECT_THAT(applications[0], HasSubstr("app_name=\"request\""));
    EXPECT_THAT(applications[0], HasSubstr("app_identity(properties=[\"Library\": \"libkvutil "));
    const std::vector<std::string> operations = calls_of("arm_register_transaction");
    ASSERT_EQ(operations.size(), 2u);
    for (const std::string& operation : operations) {
        EXPECT_THAT(operation, HasSubstr("metric_bindings([slot 0 "));
        EXPECT_THAT(operation, HasSubstr(", slot 6 "));
    }
    EXPECT_THAT(operations,
                testing::UnorderedElementsAre(HasSubstr("names=[\"source\", \"request\"]"),
                                              HasSubstr("names=[\"selector\"]")));
    EXPECT_EQ(calls_of("arm_start_application").size(), 1u);
}

TEST_F(MeasuredRequest, IsAnOperationWithItsParsingAsAPart)
{
    const result_t result = run_measured(RUNTIME, {"vd.file:/a@/v", "rejected"});
    EXPECT_EQ(result.err, summary(1, 1) + "measurement on\n");
    const std::vector<std::string> starts = calls_of("arm_start_transaction");
    ASSERT_EQ(starts.size(), 4u);
    EXPECT_THAT(starts[0], testing::AllOf(HasSubstr(" parent=none "), HasSubstr(" flags=7 "),
                                          HasSubstr("values=[\"arguments\", \"1\"]"),
                                          HasSubstr("handle=1 "), HasSubstr("\"answer\"")));
    EXPECT_THAT(starts[1],
                testing::AllOf(HasSubstr(" parent=#1 "), HasSubstr("values=[\"vd.file:/a@/v\"]"),
                               HasSubstr("handle=2 "), HasSubstr("\"parse\"")));
    EXPECT_THAT(starts[2], testing::AllOf(HasSubstr(" parent=none "),
                                          HasSubstr("values=[\"arguments\", \"2\"]")));
    EXPECT_THAT(starts[3],
                testing::AllOf(HasSubstr(" parent=#3 "), HasSubstr("values=[\"rejected\"]")));
    const std::vector<std::string> stops = calls_of("arm_stop_transaction");
    ASSERT_EQ(stops.size(), 4u);
    const auto ends = [](int handle, int status, const std::string& outcome) {
        return testing::AllOf(
            HasSubstr(" handle=" + std::to_string(handle) + " status=" + std::to_string(status)),
            HasSubstr("slot 0 format 5 usage 1 "),
            HasSubstr(", slot 6 format 10 usage 2 \"" + outcome + "\"])"));
    };
    EXPECT_THAT(stops, testing::ElementsAre(ends(2, 0, "accepted"), ends(1, 0, "accepted"),
                                            ends(4, 2, "rejected"), ends(3, 2, "rejected")));
    EXPECT_THAT(stops[0], HasSubstr("slot 0 format 5 usage 1 13,"));  // vd.file:/a@/v
    EXPECT_THAT(stops[2], HasSubstr("slot 0 format 5 usage 1 8,"));   // rejected
}

TEST_F(MeasuredRequest, CutsWhatIsTooLongForAContext)
{
    const std::string longest = std::string(255, 'a');
    const std::string wide = "\xF0\x9F\x93\x81";  // two units
    const std::string nearly = std::string(254, 'a');
    run_measured(RUNTIME, {longest + "b", wide + longest, "\xFF", nearly + wide});
    EXPECT_THAT(contents(path("calls")),
                testing::AllOf(HasSubstr("values=[\"" + longest + "\"]"),
                               HasSubstr("values=[\"" + wide + std::string(253, 'a') + "\"]"),
                               HasSubstr("values=[\"\uFFFD\"]"),
                               HasSubstr("values=[\"" + nearly + "\"]")));  // no half of a pair
}

TEST_F(MeasuredRequest, IsShownAsATree)
{
    write_file(path("in"),
               R"(10 1 arm_register_application app_name="shop" flags=0 buffer=null -> 0 app_id=a001
20 1 arm_register_transaction tran_name="pay" flags=0 buffer=null -> 0 tran_id=b001
1000 1 arm_start_transaction parent=none flags=7 buffer=[tran_context(values=["a \" handle=9", null] uri=null)] -> 0 handle=1 tran_name="pay"
2000 1 arm_start_transaction parent=#1 flags=7 buffer=null -> 0 handle=2 tran_name="check"
2500 1 arm_stop_transaction handle=2 status=2 flags=0 buffer=[metric_values([slot 0 format 5 usage 1 13])] -> 0
3000 1 arm_start_transaction parent=#1 flags=7 buffer=null -> -1
4500 1 arm_stop_transaction handle=1 status=0 flags=0 buffer=null -> 0
5000 2 arm_start_transaction parent=none flags=3 buffer=null -> 0 handle=3 tran_name="ship"
)");
    const result_t result =
        run_command(quoted(ARM_TREE) + " <" + quoted(path("in")) + " >" + quoted(path("out")));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, R"(application "shop"
operation   "pay"
      3.5 us  good     "pay" ["a \" handle=9", null]
      0.5 us  failed     "check" [slot 0 format 5 usage 1 13]
              running  "ship"
)");
}

// ----

TEST_F(Request, RefusesOptionsThatItDoesNotHave)
{
    const result_t result = run({"--flie", "x"});
    EXPECT_NE(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("--flie"));
    EXPECT_EQ(result.out, "");
    const result_t help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("--file"));
}

TEST_F(Request, RefusesAGroupOrAnOrderWithoutACredentialsFile)
{
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--group", "0:02"}, {"--make-credentials"}}) {
        const result_t result = run(options);
        EXPECT_NE(result.status, 0);
        EXPECT_THAT(result.err, HasSubstr("requires --credentials"));
        EXPECT_EQ(result.out, "");
    }
}

// Texts unit by unit, also those that no UTF-8 input can hold.
TEST(XmlText, ReplacesWhatXmlCannotCarry)
{
    const std::u16string_view kept = u"\t\n \u007F\u0085\uD7FF\uE000\uFFFD\U0001F680\U0010FFFF";
    EXPECT_EQ(units_of(xml_text(Kvl::UString(std::u16string(kept)))), kept);
    for (char16_t unit = 0; unit < 0x20; ++unit) {
        const std::u16string text(1, unit);
        if (text.find_first_of(u"\t\n\r") == std::u16string::npos) {
            EXPECT_EQ(units_of(xml_text(Kvl::UString(text))), u"\uFFFD");
        }
    }
    const char16_t lone[] = {0xD800, u'a', 0xDC00, 0xDFFF, 0xD83D, 0xD83D, 0xDE80, 0xDBFF};
    EXPECT_EQ(units_of(xml_text(Kvl::UString(std::u16string(lone, std::size(lone))))),
              u"\uFFFDa\uFFFD\uFFFD\uFFFD\U0001F680\uFFFD");
}

TEST(XmlText, WritesReferencesWhereMarkupOrLineEndsWouldBeRead)
{
    EXPECT_EQ(xml_text(ustr("&<>\"'\r\n")), ustr("&amp;&lt;&gt;\"'&#13;\n"));
    EXPECT_EQ(xml_attribute(ustr("&<>\"'\r\n\t")), ustr("&amp;&lt;&gt;&quot;'&#13;&#10;&#9;"));
}

// The program with a pipe at either end: texts are written while another thread reads the answers.
class Server {
public:
    explicit Server(const std::string& log_directory, const std::string& answers_file)
        : answers_(answers_file, std::ios::binary)
    {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            execl(REQUEST_PROGRAM, REQUEST_PROGRAM, "--log", log_directory.c_str(), nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        input_ = in[1];
        reader_ = std::thread([this, fd = out[0]] { read_answers(fd); });
    }

    void send(const std::string& texts) const
    {
        for (size_t sent = 0; sent < texts.size();) {
            const ssize_t n = write(input_, texts.data() + sent, texts.size() - sent);
            if (n <= 0)
                throw std::system_error(errno, std::generic_category(), "write");
            sent += static_cast<size_t>(n);
        }
    }

    // Waits until so many texts are answered, and gives up when the program ends before.
    bool await(unsigned long answers) const
    {
        while (answered_ < answers && !ended_)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return answered_ >= answers;
    }

    // The most memory that the program has had at once.
    long peak_kilobytes() const
    {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string word; status >> word;) {
            long kilobytes = 0;
            if (word == "VmHWM:" && status >> kilobytes)
                return kilobytes;
        }
        return -1;
    }

    int finish()
    {
        close(input_);
        reader_.join();
        answers_.close();
        int status = 0;
        waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    void read_answers(int fd)
    {
        const std::string end = "</TEAM:response>";
        size_t matched = 0;
        char buffer[1 << 16];
        for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
            answers_.write(buffer, n);
            for (ssize_t i = 0; i < n; ++i) {
                matched = buffer[i] == end[matched] ? matched + 1 : (buffer[i] == end[0] ? 1 : 0);
                if (matched == end.size()) {
                    ++answered_;
                    matched = 0;
                }
            }
        }
        close(fd);
        ended_ = true;
    }

    std::ofstream answers_;
    pid_t pid_;
    int input_;
    std::atomic<unsigned long> answered_{0};
    std::atomic<bool> ended_{false};
    std::thread reader_;
};

// Every third line is one of the rejected kinds.
std::string generated_lines(unsigned long first, unsigned long end)
{
    std::string lines;
    for (unsigned long i = first; i < end; ++i) {
        const std::string number = std::to_string(i);
        if (i % 3 == 0)
            lines += "vd.file:/no/repository" + number + "\n";
        else
            lines += "vd.file:/src/a&b/té%:st" + number + ".c@/vobs/proj" + number + "\n";
    }
    return lines;
}

TEST_F(Request, AnswersAHundredThousandLinesInTheMemoryOfAThousand)
{
    // Sanitizers keep freed memory for a while, so that its peak says nothing about the program.
    constexpr unsigned long ALL = IS_SANITIZED ? 10000 : 100000;
    constexpr unsigned long FEW = 1000;
    Server server(log_directory(), path("out"));
    server.send(generated_lines(0, FEW));
    ASSERT_TRUE(server.await(FEW));
    const long peak_of_few = server.peak_kilobytes();
    server.send(generated_lines(FEW, ALL));
    ASSERT_TRUE(server.await(ALL));
    const long peak_of_all = server.peak_kilobytes();
    EXPECT_EQ(server.finish(), 0);
    EXPECT_GT(peak_of_few, 0);
    if (!IS_SANITIZED) {
        EXPECT_LE(peak_of_all - peak_of_few, 512);
    }
    EXPECT_EQ(xml_complaints(), "");
    EXPECT_EQ(lines_of(log()).size(), (ALL + 2) / 3);
}

}  // namespace
