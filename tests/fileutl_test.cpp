// Temporary files as a caller sees them. The directory, the counter and the table belong to the
// process, so that nearly every test has one of its own.

#include <kvutil/credentials.h>
#include <kvutil/fileutl.h>
#include <kvutil/stpexception.h>

#include "support/child.h"
#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/sanitizer.h"
#include "support/scratch.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unicode/ucnv.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <thread>
#include <type_traits>

static const char* platform_charset = "UTF-8";

// Takes the place of ICU's own, whose answer can be fixed when ICU is built.
const char* ucnv_getDefaultName()
{
    return platform_charset;
}

static bool ends_with_a_thread_at_work = false;

// Asked by the leak check: what a thread at work holds looks lost.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return ends_with_a_thread_at_work ? 1 : 0;
}

namespace {

using Kvl::CriticalSection;
using Kvl::CriticalSectionLock;
using Kvl::Fileutl;
using Kvl::RuntimeException;
using Kvl::STPException;
using Kvl::UString;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

typedef std::vector<std::string> names_t;

// The interface, by its types.
static_assert(std::is_same_v<decltype(&Fileutl::sys_tmpdir), UString (*)()>);
static_assert(
    std::is_same_v<decltype(&Fileutl::make_tmp_object), UString (*)(const UString&, bool)>);
static_assert(
    std::is_same_v<decltype(&Fileutl::set_file_id), void (*)(const UString&, unsigned int)>);
static_assert(std::is_same_v<decltype(&Fileutl::delete_tmp_file), void (*)(const UString&)>);
static_assert(std::is_same_v<decltype(&Fileutl::delete_tmp_files), void (*)(unsigned int)>);
static_assert(
    std::is_same_v<decltype(Fileutl::g_tmp_table), std::map<UString, Fileutl::tmp_file_info_t>>);
static_assert(std::is_same_v<decltype(Fileutl::g_lock), const CriticalSectionLock>);
static_assert(!std::is_default_constructible_v<Fileutl>);

std::string utf8(const UString& text)
{
    return text.utf8_str();
}

void set_variable(const char* name, const std::optional<std::string>& value)
{
    if (value)
        setenv(name, value->c_str(), 1);
    else
        unsetenv(name);
}

/// Only before a process first converts from or to the platform's character set, whose name is
/// asked for once.
void set_platform_charset(const char* name)
{
    platform_charset = name;
    ASSERT_STREQ(UString::default_charset(), name);
}

void make_file(const std::string& path)
{
    std::ofstream file(path);
    ASSERT_TRUE(file.is_open()) << path;
}

/// One row of the table, to compare.
struct row_t {
    std::string path;
    bool in_dir;
    unsigned int id;

    bool operator==(const row_t& o) const
    {
        return path == o.path && in_dir == o.in_dir && id == o.id;
    }
};

void PrintTo(const row_t& row, std::ostream* out)
{
    *out << row.path << (row.in_dir ? " in its directory, id " : ", id ") << row.id;
}

std::vector<row_t> table()
{
    const CriticalSection section(Fileutl::g_lock);
    std::vector<row_t> rows;
    for (const auto& [path, info] : Fileutl::g_tmp_table)
        rows.push_back({utf8(path), info.in_dir, info.id});
    return rows;
}

template <class Operation>
void expect_conversion_failure(Operation operation, const std::string& name)
{
    try {
        operation();
        ADD_FAILURE() << "nothing thrown";
    } catch (const RuntimeException& e) {
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(rendered(e),
                  "PLXSV0669E Error converting '" + name + "' to default character set.");
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
    }
}

template <class Operation>
void expect_refusal(Operation operation, const std::string& reason)
{
    try {
        operation();
        ADD_FAILURE() << "nothing thrown";
    } catch (const STPException& e) {
        EXPECT_EQ(typeid(e), typeid(STPException));
        EXPECT_EQ(e.stp_reason_code(), 40);
        EXPECT_EQ(rendered(e), "PLXSV0664E Cannot create temporary file system object: " + reason);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
    }
}

class Tmp : public testing::Test {
protected:
    /// In a process whose platform character set is `charset` and whose "TMP" is the scratch
    /// directory.
    template <class Body>
    void in_new_process(Body body, const char* charset = "UTF-8")
    {
        in_child([&] {
            set_platform_charset(charset);
            set_variable("TMP", scratch.path);
            umask(022);
            body();
        });
    }

    std::string at(const std::string& name) const { return scratch.path + "/" + name; }

    scratch_t scratch;
};

typedef Tmp SysTmpdir;
typedef Tmp MakeTmpObject;
typedef Tmp CreateTmpFile;
typedef Tmp SetFileId;
typedef Tmp DeleteTmpFile;
typedef Tmp DeleteTmpFiles;

// ---- the temporary directory ----

struct choice_t {
    std::optional<std::string> tmp, tmpdir;
    std::string directory;
};

// "a" and "b" are directories, "missing" is not there; all in the current directory.
const choice_t CHOICES[] = {
    {"a", "b", "a"},
    {"a", std::nullopt, "a"},
    {std::nullopt, "b", "b"},
    {"", "b", "b"},  // set and empty: not writable
    {"missing", "b", "b"},
    {"missing", "missing", "/tmp"},
    {std::nullopt, std::nullopt, "/tmp"},
    {"", "", "/tmp"},
    {std::nullopt, "", "/tmp"},
    {std::nullopt, "b/", "b"},
    {"a/", "b", "a"},
    {"a//", "b", "a/"},  // only one separator is stripped
    {"//", "b", "/"},
    {".", "b", "."},
    {"a\\", "a/", "a"},  // a backslash is part of a name
    {"a/.", "b", "a/."},
};

TEST_F(SysTmpdir, IsTheFirstWritableCandidate)
{
    fs::create_directory(at("a"));
    fs::create_directory(at("b"));
    for (const choice_t& row : CHOICES) {
        in_new_process([&] {
            fs::current_path(scratch.path);
            set_variable("TMP", row.tmp);
            set_variable("TMPDIR", row.tmpdir);
            EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(row.directory))
                << "TMP=" << row.tmp.value_or("(unset)")
                << " TMPDIR=" << row.tmpdir.value_or("(unset)");
        });
    }
}

TEST_F(SysTmpdir, TakesWhatIsWritableWhateverItIs)
{
    make_file(at("file"));
    in_new_process([&] {
        set_variable("TMP", at("file"));
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(at("file")));
        expect_refusal([] { Fileutl::create_tmp_file(0); }, "Not a directory");
    });
}

TEST_F(SysTmpdir, IsFoundOnce)
{
    fs::create_directory(at("later"));
    in_new_process([&] {
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(scratch.path));
        set_variable("TMP", at("later"));
        set_variable("TMPDIR", at("later"));
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(scratch.path));
        set_variable("TMP", std::nullopt);
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(scratch.path));
    });
}

TEST_F(SysTmpdir, GivesCopies)
{
    in_new_process([&] {
        UString mine = Fileutl::sys_tmpdir();
        mine.append(u"changed");
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(scratch.path));
    });
}

TEST_F(SysTmpdir, FailsForTheRootAndTriesAgain)
{
    if (access("/", W_OK) != 0)
        GTEST_SKIP() << "the root directory is not writable for this user";
    in_new_process([&] {
        set_variable("TMP", "/");
        set_variable("TMPDIR", scratch.path);
        recording_logger logger;
        for (int i = 0; i < 2; ++i)
            expect_conversion_failure([] { Fileutl::sys_tmpdir(); }, "/");
        expect_conversion_failure([] { Fileutl::make_tmp_object(u"X", false); }, "/");
        expect_conversion_failure([] { Fileutl::create_tmp_file(1); }, "/");
        expect_conversion_failure([] { Fileutl::create_tmp_file(u"x", 1); }, "/");
        EXPECT_TRUE(logger.lines.empty());
        EXPECT_THAT(table(), IsEmpty());
        set_variable("TMP", std::nullopt);
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(scratch.path));
        EXPECT_EQ(Fileutl::create_tmp_file(1), ustr(at("TMP0")));
    });
}

TEST_F(SysTmpdir, SubstitutesBytesThatAreNoText)
{
    const std::string odd = at("x\xFFy");
    fs::create_directory(odd);
    in_new_process([&] {
        set_variable("TMP", odd);
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(at("x\uFFFDy")));
        expect_refusal([] { Fileutl::create_tmp_file(0); }, "No such file or directory");
    });
}

TEST_F(SysTmpdir, IsDecodedFromThePlatformCharset)
{
    fs::create_directory(at("\xE9"));
    in_new_process(
        [&] {
            set_variable("TMP", at("\xE9"));
            EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(at("é")));
        },
        "ISO-8859-1");
}

// In UTF-16 these two bytes are a mark of the byte order and no text.
TEST_F(SysTmpdir, NamesTheBytesOfADirectoryThatDecodesToNothing)
{
    fs::create_directory(at("\xFF\xFE"));
    in_new_process(
        [&] {
            fs::current_path(scratch.path);
            set_variable("TMP", "\xFF\xFE");
            expect_conversion_failure([] { Fileutl::sys_tmpdir(); }, "\uFFFD\uFFFD");
            EXPECT_THAT(scratch.names(), ElementsAre("\xFF\xFE"));
        },
        "UTF-16");
}

// In ISO-2022-JP these three bytes choose a set of characters and are no text. The files that are
// opened are named in messages as the directory is, which can be seen here, where the character set
// can be chosen.
TEST_F(SysTmpdir, NamesTheBytesOfAnyPathThatDecodesToNothing)
{
    in_new_process(
        [&] {
            fs::current_path(scratch.path);
            try {
                Kvl::Credentials().read_from_file("\x1B(B", false);
                ADD_FAILURE() << "nothing thrown";
            } catch (const RuntimeException& e) {
                EXPECT_EQ(rendered(e), "PLXSV0665E Unable to open file '\x1B(B': "
                                       "No such file or directory.");
            }
        },
        "ISO-2022-JP");
}

TEST_F(SysTmpdir, RemembersNothingWhenMemoryRunsOut)
{
    const std::string long_path = at(std::string(100, 'l'));
    fs::create_directory(long_path);
    fs::create_directory(at("other"));
    in_new_process([&] {
        int i = 0;
        set_variable("TMP", at("other"));
        const int faults = for_each_memory_fault(
            [] { Fileutl::sys_tmpdir(); },
            [&] { set_variable("TMP", ++i % 2 == 0 ? at("other") : long_path); });
        EXPECT_GE(faults, 1);
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr(i % 2 == 0 ? at("other") : long_path));
    });
}

TEST_F(SysTmpdir, IsTheSameForThreadsThatAskFirst)
{
    in_new_process([&] {
        std::atomic<int> equal{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] { equal += Fileutl::sys_tmpdir() == ustr(scratch.path); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(equal, 8);
    });
}

// ---- new objects ----

TEST_F(MakeTmpObject, CreatesAnEmptyFileThatIsNotRecorded)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::make_tmp_object(u"log.", false), ustr(at("log.0")));
        EXPECT_TRUE(fs::is_regular_file(at("log.0")));
        EXPECT_EQ(fs::file_size(at("log.0")), 0u);
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(MakeTmpObject, CreatesAnEmptyDirectoryThatIsNotRecorded)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::make_tmp_object(u"work-", true), ustr(at("work-0")));
        EXPECT_TRUE(fs::is_directory(at("work-0")));
        EXPECT_THAT(table(), IsEmpty());
    });
}

unsigned int mode_of(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777u;
}

TEST_F(MakeTmpObject, AppliesTheUmaskToItsModes)
{
    const unsigned int masks[] = {0, 022, 027, 077, 0277, 0777};
    in_new_process([&] {
        for (const unsigned int mask : masks) {
            umask(mask);
            const std::string prefix = "m" + std::to_string(mask) + ".";
            EXPECT_EQ(mode_of(utf8(Fileutl::make_tmp_object(ustr(prefix + "f"), false))),
                      0600u & ~mask);
            EXPECT_EQ(mode_of(utf8(Fileutl::make_tmp_object(ustr(prefix + "d"), true))),
                      0777u & ~mask);
        }
    });
}

TEST_F(MakeTmpObject, TriesTheLastNumberFirst)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a0")));
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a1")));
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a2")));
        // The number is shared, and success leaves it alone.
        EXPECT_EQ(Fileutl::make_tmp_object(u"b", true), ustr(at("b2")));
        EXPECT_EQ(Fileutl::make_tmp_object(u"c", false), ustr(at("c2")));
        fs::remove(at("a2"));
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a2")));
        // Lower numbers that have become free wait until the numbers start again.
        fs::remove(at("a0"));
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a3")));
        EXPECT_EQ(Fileutl::make_tmp_object(u"b", true), ustr(at("b3")));
    });
}

TEST_F(MakeTmpObject, MovesTheNumberOnWithEveryFailure)
{
    in_new_process([&] {
        expect_refusal([] { Fileutl::make_tmp_object(u"missing/", false); },
                       "No such file or directory");
        EXPECT_EQ(Fileutl::make_tmp_object(u"a", false), ustr(at("a1")));
        expect_refusal([] { Fileutl::make_tmp_object(u"missing/", true); },
                       "No such file or directory");
        EXPECT_EQ(Fileutl::make_tmp_object(u"b", true), ustr(at("b2")));
    });
}

TEST_F(MakeTmpObject, TakesAnyKindOfExistingNameForTaken)
{
    fs::create_directory(at("x0"));
    fs::create_symlink("nowhere", at("x1"));
    make_file(at("x2"));
    in_new_process([&] { EXPECT_EQ(Fileutl::make_tmp_object(u"x", false), ustr(at("x3"))); });
    in_new_process([&] { EXPECT_EQ(Fileutl::make_tmp_object(u"x", true), ustr(at("x4"))); });
    EXPECT_THAT(scratch.names(), ElementsAre("x0", "x1", "x2", "x3", "x4"));
}

struct prefix_t {
    std::u16string prefix;
    std::string name;  // what is made in the temporary directory
};

const prefix_t PREFIXES[] = {
    {u"", "0"},           {u"a b", "a b0"},    {u"\u00E4\u3042\U0001F600", "äあ😀0"},
    {u"sub/x", "sub/x0"}, {u"sub/../y", "y0"}, {u"7", "70"},
    {u"%s%n", "%s%n0"},
};

TEST_F(MakeTmpObject, TakesThePrefixAsItIs)
{
    fs::create_directory(at("sub"));
    for (const prefix_t& row : PREFIXES) {
        in_new_process([&] {
            UString expected = ustr(scratch.path);
            expected += UString(u"/" + row.prefix + u"0");
            EXPECT_EQ(Fileutl::make_tmp_object(UString(row.prefix), false), expected);
            EXPECT_TRUE(fs::is_regular_file(at(row.name))) << row.name;
        });
    }
}

TEST_F(MakeTmpObject, TakesABogusPrefixForTheEmptyOne)
{
    in_new_process([&] {
        UString bogus;
        bogus.setToBogus();
        EXPECT_EQ(Fileutl::make_tmp_object(bogus, false), ustr(at("0")));
    });
}

// A name ends at its first zero for the system, before the number.
TEST_F(MakeTmpObject, EndsTheNameAtAZero)
{
    in_new_process([&] {
        const UString path = Fileutl::make_tmp_object(UString(std::u16string(u"z\0y", 3)), false);
        EXPECT_EQ(units_of(path), units_of(ustr(at("z"))) + std::u16string(u"\0y0", 3));
        EXPECT_THAT(scratch.names(), ElementsAre("z"));
        Fileutl::delete_tmp_file(path);
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

TEST_F(MakeTmpObject, HasNoNameForHalfACharacter)
{
    in_new_process([&] {
        const std::u16string prefixes[] = {u"\xD83D", u"a\xDE00", u"\xDE00\xD83D"};
        for (const std::u16string& prefix : prefixes) {
            expect_refusal([&] { Fileutl::make_tmp_object(UString(prefix), false); },
                           "No such file or directory");
            expect_refusal([&] { Fileutl::make_tmp_object(UString(prefix), true); },
                           "No such file or directory");
        }
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

TEST_F(MakeTmpObject, RefusesNamesThatAreTooLong)
{
    // A component of a path has 255 bytes at most, the number included.
    in_new_process([&] {
        const UString longest(std::u16string(254, u'n'));
        EXPECT_EQ(Fileutl::make_tmp_object(longest, false), ustr(at(std::string(254, 'n') + "0")));
        const UString too_long(std::u16string(255, u'n'));
        expect_refusal([&] { Fileutl::make_tmp_object(too_long, false); }, "File name too long");
        expect_refusal([&] { Fileutl::make_tmp_object(too_long, true); }, "File name too long");
    });
}

TEST_F(MakeTmpObject, LogsARefusalAsAnError)
{
    in_new_process([&] {
        recording_logger logger;
        expect_refusal([] { Fileutl::make_tmp_object(u"missing/", false); },
                       "No such file or directory");
        ASSERT_EQ(logger.lines.size(), 1u);
        EXPECT_EQ(logger.lines[0].operation, "error");
        EXPECT_NE(logger.lines[0].text.find("PLXSV0664E Cannot create temporary file system "
                                            "object: No such file or directory"),
                  std::string::npos)
            << logger.lines[0].text;
    });
}

TEST_F(MakeTmpObject, KeepsNoDescriptor)
{
    in_new_process([&] {
        Fileutl::make_tmp_object(u"x", false);
        const int next = dup(0);
        close(next);
        for (int i = 0; i < 10; ++i)
            Fileutl::make_tmp_object(u"x", i % 2 == 0);
        const int later = dup(0);
        close(later);
        EXPECT_EQ(later, next);
    });
}

TEST_F(MakeTmpObject, LeavesNothingBehindWhenMemoryRunsOut)
{
    in_new_process([&] {
        const UString prefix(std::u16string(100, u'p'));
        const auto expect_nothing = [&] { EXPECT_THAT(scratch.names(), IsEmpty()); };
        EXPECT_GE(
            for_each_memory_fault([&] { Fileutl::make_tmp_object(prefix, false); }, expect_nothing),
            1);
        EXPECT_THAT(scratch.names(), ElementsAre(std::string(100, 'p') + "0"));
        fs::remove(at(std::string(100, 'p') + "0"));
        EXPECT_GE(
            for_each_memory_fault([&] { Fileutl::make_tmp_object(prefix, true); }, expect_nothing),
            1);
    });
}

// ---- recorded objects ----

TEST_F(CreateTmpFile, CreatesAndRecordsAnEmptyFile)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::create_tmp_file(0), ustr(at("TMP0")));
        EXPECT_EQ(Fileutl::create_tmp_file(0), ustr(at("TMP1")));
        EXPECT_EQ(Fileutl::create_tmp_file(0xFFFFFFFFu), ustr(at("TMP2")));
        EXPECT_THAT(scratch.names(), ElementsAre("TMP0", "TMP1", "TMP2"));
        EXPECT_EQ(mode_of(at("TMP0")), 0600u);
        EXPECT_THAT(table(), ElementsAre(row_t{at("TMP0"), false, 0}, row_t{at("TMP1"), false, 0},
                                         row_t{at("TMP2"), false, 0xFFFFFFFFu}));
    });
}

TEST_F(CreateTmpFile, CreatesADirectoryForANamedFile)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::create_tmp_file(u"a.txt", 5), ustr(at("DIR0/a.txt")));
        EXPECT_TRUE(fs::is_directory(at("DIR0")));
        EXPECT_EQ(mode_of(at("DIR0")), 0755u);
        EXPECT_TRUE(fs::is_empty(at("DIR0")));
        EXPECT_EQ(Fileutl::create_tmp_file(u"a.txt", 6), ustr(at("DIR1/a.txt")));
        EXPECT_THAT(table(), ElementsAre(row_t{at("DIR0/a.txt"), true, 5},
                                         row_t{at("DIR1/a.txt"), true, 6}));
    });
}

TEST_F(CreateTmpFile, TakesTheNameAsItIs)
{
    in_new_process([&] {
        EXPECT_EQ(Fileutl::create_tmp_file(u"", 1), ustr(at("DIR0/")));
        EXPECT_EQ(Fileutl::create_tmp_file(u"b/c", 1), ustr(at("DIR1/b/c")));
        EXPECT_EQ(Fileutl::create_tmp_file(u"/d", 1), ustr(at("DIR2//d")));
        EXPECT_EQ(Fileutl::create_tmp_file(u"..", 1), ustr(at("DIR3/..")));
        EXPECT_THAT(scratch.names(), ElementsAre("DIR0", "DIR1", "DIR2", "DIR3"));
    });
}

TEST_F(CreateTmpFile, ReplacesARecordWhoseObjectIsGone)
{
    in_new_process([&] {
        Fileutl::create_tmp_file(1);
        Fileutl::set_file_id(ustr(at("DIR0/x")), 2);
        fs::remove(at("TMP0"));
        EXPECT_EQ(Fileutl::create_tmp_file(3), ustr(at("TMP0")));
        EXPECT_EQ(Fileutl::create_tmp_file(u"x", 4), ustr(at("DIR0/x")));
        EXPECT_THAT(table(),
                    ElementsAre(row_t{at("DIR0/x"), true, 4}, row_t{at("TMP0"), false, 3}));
    });
}

TEST_F(CreateTmpFile, RecordsNothingThatItCannotCreate)
{
    in_new_process([&] {
        Fileutl::sys_tmpdir();
        fs::remove_all(scratch.path);
        expect_refusal([] { Fileutl::create_tmp_file(1); }, "No such file or directory");
        expect_refusal([] { Fileutl::create_tmp_file(u"x", 1); }, "No such file or directory");
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(CreateTmpFile, RecordsTerminatedPaths)
{
    in_new_process([&] {
        Fileutl::create_tmp_file(1);
        Fileutl::create_tmp_file(UString(std::u16string(200, u'n')), 1);
        Fileutl::set_file_id(ustr("/short"), 1);
        const CriticalSection section(Fileutl::g_lock);
        EXPECT_EQ(Fileutl::g_tmp_table.size(), 3u);
        for (const auto& [path, info] : Fileutl::g_tmp_table) {
            ASSERT_LT(path.length(), path.capacity());
            EXPECT_EQ(path.getBuffer()[path.length()], u'\0');
        }
    });
}

TEST_F(CreateTmpFile, LeavesNothingBehindWhenMemoryRunsOut)
{
    in_new_process([&] {
        Fileutl::set_file_id(ustr("/elsewhere"), 9);
        const auto expect_nothing = [&] {
            EXPECT_THAT(scratch.names(), IsEmpty());
            EXPECT_THAT(table(), ElementsAre(row_t{"/elsewhere", false, 9}));
        };
        EXPECT_GE(for_each_memory_fault([] { Fileutl::create_tmp_file(1); }, expect_nothing), 1);
        EXPECT_THAT(scratch.names(), ElementsAre("TMP0"));
        Fileutl::delete_tmp_files(1);
        const UString name(std::u16string(100, u'n'));
        EXPECT_GE(for_each_memory_fault([&] { Fileutl::create_tmp_file(name, 1); }, expect_nothing),
                  1);
        EXPECT_THAT(scratch.names(), ElementsAre("DIR0"));
        EXPECT_EQ(table().size(), 2u);
    });
}

TEST_F(SetFileId, MovesAKnownPathToAnotherGroup)
{
    in_new_process([&] {
        const UString file = Fileutl::create_tmp_file(1);
        const UString in_dir = Fileutl::create_tmp_file(u"x", 1);
        Fileutl::set_file_id(file, 2);
        Fileutl::set_file_id(in_dir, 3);
        EXPECT_THAT(table(),
                    ElementsAre(row_t{at("DIR0/x"), true, 3}, row_t{at("TMP0"), false, 2}));
        Fileutl::set_file_id(file, 0);
        EXPECT_THAT(table(),
                    ElementsAre(row_t{at("DIR0/x"), true, 3}, row_t{at("TMP0"), false, 0}));
    });
}

TEST_F(SetFileId, RecordsAnUnknownPath)
{
    fs::create_directory(at("home"));
    make_file(at("home/made"));
    in_new_process([&] {
        Fileutl::set_file_id(ustr(at("home/made")), 7);
        EXPECT_THAT(table(), ElementsAre(row_t{at("home/made"), false, 7}));
        Fileutl::delete_tmp_file(ustr(at("home/made")));
        EXPECT_THAT(table(), IsEmpty());
        EXPECT_TRUE(fs::is_empty(at("home")));  // removed with the file would be one with in_dir
    });
}

TEST_F(SetFileId, RecordsAnyTextInTheOrderOfItsUnits)
{
    in_new_process([&] {
        // In UTF-8 the order of the last two would be the other one.
        Fileutl::set_file_id(UString(u"\uFFFD"), 3);
        Fileutl::set_file_id(UString(u"\U0001F600"), 2);
        Fileutl::set_file_id(UString(), 1);
        Fileutl::set_file_id(UString(u"a"), 4);
        EXPECT_THAT(table(), ElementsAre(row_t{"", false, 1}, row_t{"a", false, 4},
                                         row_t{"😀", false, 2}, row_t{"\uFFFD", false, 3}));
        Fileutl::delete_tmp_files(0);
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(SetFileId, RecordsNothingWhenMemoryRunsOut)
{
    in_new_process([&] {
        const UString path(std::u16string(200, u'x'));
        EXPECT_GE(for_each_memory_fault([&] { Fileutl::set_file_id(path, 1); },
                                        [] { EXPECT_THAT(table(), IsEmpty()); }),
                  1);
        EXPECT_EQ(table().size(), 1u);
    });
}

// ---- deletion ----

TEST_F(DeleteTmpFile, RemovesAFileAndForgetsIt)
{
    in_new_process([&] {
        const UString first = Fileutl::create_tmp_file(1);
        const UString second = Fileutl::create_tmp_file(1);
        Fileutl::delete_tmp_file(first);
        EXPECT_THAT(scratch.names(), ElementsAre("TMP1"));
        EXPECT_THAT(table(), ElementsAre(row_t{utf8(second), false, 1}));
        Fileutl::delete_tmp_file(first);
        EXPECT_THAT(table(), ElementsAre(row_t{utf8(second), false, 1}));
    });
}

TEST_F(DeleteTmpFile, RemovesThePrivateDirectoryToo)
{
    in_new_process([&] {
        const UString made = Fileutl::create_tmp_file(u"a.txt", 5);
        const UString not_made = Fileutl::create_tmp_file(u"a.txt", 5);
        make_file(utf8(made));
        for (int i = 0; i < 2; ++i) {
            Fileutl::delete_tmp_file(made);
            EXPECT_THAT(scratch.names(), ElementsAre("DIR1"));
        }
        Fileutl::delete_tmp_file(not_made);
        EXPECT_THAT(scratch.names(), IsEmpty());
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(DeleteTmpFile, RemovesWhatIsNotRecorded)
{
    fs::create_directory(at("empty"));
    fs::create_directory(at("home"));
    make_file(at("home/file"));
    in_new_process([&] {
        Fileutl::delete_tmp_file(ustr(at("empty")));
        Fileutl::delete_tmp_file(ustr(at("home/file")));
        Fileutl::delete_tmp_file(ustr(at("missing")));
        Fileutl::delete_tmp_file(UString());
        EXPECT_THAT(scratch.names(), ElementsAre("home"));
        Fileutl::delete_tmp_file(Fileutl::make_tmp_object(u"dir", true));
        EXPECT_THAT(scratch.names(), ElementsAre("home"));
    });
}

TEST_F(DeleteTmpFile, ForgetsWhatTheSystemDoesNotRemove)
{
    in_new_process([&] {
        const UString full = Fileutl::create_tmp_file(u"x", 1);
        fs::create_directory(utf8(full));
        make_file(utf8(full) + "/inside");
        Fileutl::delete_tmp_file(full);
        EXPECT_TRUE(fs::exists(utf8(full) + "/inside"));
        const UString with_sibling = Fileutl::create_tmp_file(u"y", 1);
        make_file(utf8(with_sibling));
        make_file(utf8(with_sibling) + ".bak");
        Fileutl::delete_tmp_file(with_sibling);
        EXPECT_FALSE(fs::exists(utf8(with_sibling)));
        EXPECT_TRUE(fs::exists(utf8(with_sibling) + ".bak"));
        EXPECT_THAT(table(), IsEmpty());
    });
}

// What is removed with a file is the directory that its path names.
TEST_F(DeleteTmpFile, RemovesTheParentOfANameWithSeparators)
{
    in_new_process([&] {
        const UString deep = Fileutl::create_tmp_file(u"sub/x", 1);
        fs::create_directory(at("DIR0/sub"));
        make_file(utf8(deep));
        Fileutl::delete_tmp_file(deep);
        EXPECT_TRUE(fs::is_directory(at("DIR0")));
        EXPECT_TRUE(fs::is_empty(at("DIR0")));
        const UString nameless = Fileutl::create_tmp_file(u"", 1);
        EXPECT_EQ(nameless, ustr(at("DIR1/")));
        Fileutl::delete_tmp_file(nameless);
        EXPECT_THAT(scratch.names(), ElementsAre("DIR0"));
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(DeleteTmpFile, TakesAPathFromTheTableItself)
{
    in_new_process([&] {
        Fileutl::create_tmp_file(UString(std::u16string(100, u'n')), 1);
        const CriticalSection section(Fileutl::g_lock);
        Fileutl::delete_tmp_file(Fileutl::g_tmp_table.begin()->first);
        EXPECT_TRUE(Fileutl::g_tmp_table.empty());
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

// "UTF-16" writes a mark of the byte order that its size per unit leaves no room for.
TEST_F(DeleteTmpFile, KeepsTheEntryOfAPathThatCannotBeConverted)
{
    make_file(at("kept"));
    in_new_process(
        [&] {
            recording_logger logger;
            Fileutl::set_file_id(ustr(at("kept")), 1);
            Fileutl::set_file_id(ustr("/other"), 2);
            const std::vector<row_t> before = table();
            expect_conversion_failure([&] { Fileutl::delete_tmp_file(ustr(at("kept"))); },
                                      at("kept"));
            expect_conversion_failure([&] { Fileutl::delete_tmp_file(ustr("/not recorded")); },
                                      "/not recorded");
            expect_conversion_failure([&] { Fileutl::delete_tmp_files(2); }, "/other");
            EXPECT_EQ(table(), before);
            EXPECT_TRUE(logger.lines.empty());
            std::async(std::launch::async, [] { EXPECT_EQ(table().size(), 2u); }).get();
        },
        "UTF-16");
    EXPECT_THAT(scratch.names(), ElementsAre("kept"));
}

// In UTF-7 the one unit of this directory fills the room that is reckoned for it, which counts as
// a failure; the path of the file has room to spare.
TEST_F(DeleteTmpFile, KeepsTheEntryOfADirectoryThatCannotBeConverted)
{
    fs::create_directory(at("+AOk-"));
    make_file(at("+AOk-/x"));
    in_new_process(
        [&] {
            fs::current_path(scratch.path);
            {
                const CriticalSection section(Fileutl::g_lock);
                Fileutl::g_tmp_table[ustr("é/x")] = {true, 1};
            }
            expect_conversion_failure([&] { Fileutl::delete_tmp_file(ustr("é/x")); }, "é");
            EXPECT_THAT(table(), ElementsAre(row_t{"é/x", true, 1}));
            EXPECT_TRUE(fs::is_empty(at("+AOk-")));
            // Those before it are deleted, those after it are not.
            Fileutl::set_file_id(ustr("a"), 1);
            Fileutl::set_file_id(ustr("\uFFFDz"), 1);
            expect_conversion_failure([] { Fileutl::delete_tmp_files(1); }, "é");
            EXPECT_THAT(table(), ElementsAre(row_t{"é/x", true, 1}, row_t{"\uFFFDz", false, 1}));
        },
        "UTF-7");
}

// Deliberate: made under the name in UTF-8, deleted under that in the platform's character set.
TEST_F(DeleteTmpFile, MissesNamesThatThePlatformCharsetCannotHold)
{
    in_new_process(
        [&] {
            Fileutl::delete_tmp_file(Fileutl::make_tmp_object(u"\u3042", false));
            EXPECT_THAT(scratch.names(), ElementsAre("あ0"));
        },
        "US-ASCII");
}

TEST_F(DeleteTmpFile, RemovesNothingWhenMemoryRunsOut)
{
    in_new_process([&] {
        const UString path = Fileutl::create_tmp_file(UString(std::u16string(100, u'n')), 1);
        make_file(utf8(path));
        const int faults = for_each_memory_fault([&] { Fileutl::delete_tmp_file(path); },
                                                 [&] {
                                                     EXPECT_TRUE(fs::exists(utf8(path)));
                                                     EXPECT_EQ(table().size(), 1u);
                                                 });
        EXPECT_GE(faults, 1);
        EXPECT_THAT(scratch.names(), IsEmpty());
        EXPECT_THAT(table(), IsEmpty());
    });
}

TEST_F(DeleteTmpFiles, DeletesAGroup)
{
    in_new_process([&] {
        Fileutl::create_tmp_file(5);
        Fileutl::create_tmp_file(6);
        Fileutl::create_tmp_file(5);
        Fileutl::create_tmp_file(0);
        const UString named = Fileutl::create_tmp_file(u"x", 5);
        make_file(utf8(named));
        Fileutl::delete_tmp_files(5);
        EXPECT_THAT(scratch.names(), ElementsAre("TMP1", "TMP3"));
        EXPECT_THAT(table(), ElementsAre(row_t{at("TMP1"), false, 6}, row_t{at("TMP3"), false, 0}));
        Fileutl::delete_tmp_files(5);
        Fileutl::delete_tmp_files(77);
        EXPECT_EQ(table().size(), 2u);
    });
}

TEST_F(DeleteTmpFiles, DeletesAllGroupsForZero)
{
    in_new_process([&] {
        Fileutl::delete_tmp_files(0);
        Fileutl::create_tmp_file(0);
        Fileutl::create_tmp_file(5);
        Fileutl::create_tmp_file(0xFFFFFFFFu);
        Fileutl::create_tmp_file(u"x", 6);
        Fileutl::make_tmp_object(u"unrecorded", false);
        Fileutl::delete_tmp_files(0);
        EXPECT_THAT(table(), IsEmpty());
        EXPECT_EQ(scratch.names().size(), 1u);
    });
}

TEST_F(DeleteTmpFiles, RemovesNothingWhenMemoryRunsOut)
{
    in_new_process([&] {
        for (int i = 0; i < 5; ++i)
            make_file(utf8(Fileutl::create_tmp_file(UString(std::u16string(50, u'n')), 1)));
        Fileutl::create_tmp_file(2);
        const std::vector<row_t> before = table();
        const int faults = for_each_memory_fault([] { Fileutl::delete_tmp_files(1); },
                                                 [&] {
                                                     EXPECT_EQ(table(), before);
                                                     EXPECT_EQ(scratch.names().size(), 6u);
                                                 });
        EXPECT_GE(faults, 1);
        EXPECT_THAT(table(), ElementsAre(row_t{at("TMP4"), false, 2}));
        EXPECT_THAT(scratch.names(), ElementsAre("TMP4"));
    });
}

// ---- names as long as it gets, and little stack ----

TEST_F(Tmp, NeedsLittleStackForLongNames)
{
    in_new_process([&] {
        const UString name(std::u16string(1 << 20, u'n'));
        on_small_stack([&] {
            for (const bool is_dir : {false, true})
                expect_refusal([&] { Fileutl::make_tmp_object(name, is_dir); },
                               "File name too long");
            const UString path = Fileutl::create_tmp_file(name, 3);
            EXPECT_EQ(path.length(), scratch.path.size() + 6 + name.length());
            Fileutl::set_file_id(path, 4);
            Fileutl::set_file_id(name, 4);
            Fileutl::create_tmp_file(4);
            Fileutl::delete_tmp_file(name);
            Fileutl::delete_tmp_files(4);
            expect_refusal([&] { Fileutl::make_tmp_object(u"missing/", false); },
                           "No such file or directory");
        });
        EXPECT_THAT(scratch.names(), IsEmpty());
        EXPECT_THAT(table(), IsEmpty());
    });
}

// ---- threads and processes ----

TEST_F(Tmp, GivesEveryThreadPathsOfItsOwn)
{
    in_new_process([&] {
        constexpr int THREADS = 8;
        constexpr int FILES = 50;
        std::vector<std::vector<UString>> paths(THREADS);
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, i] {
                for (int n = 0; n < FILES; ++n)
                    paths[i].push_back(n % 4 == 0 ? Fileutl::create_tmp_file(u"x", i + 1)
                                                  : Fileutl::create_tmp_file(i + 1));
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        std::set<UString> distinct;
        for (const auto& mine : paths)
            distinct.insert(mine.begin(), mine.end());
        EXPECT_EQ(distinct.size(), std::size_t{THREADS * FILES});
        EXPECT_EQ(table().size(), distinct.size());
        EXPECT_EQ(scratch.names().size(), distinct.size());
        Fileutl::delete_tmp_files(0);
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

TEST_F(Tmp, LetsThreadsCreateAndDeleteAtOnce)
{
    in_new_process([&] {
        std::vector<std::thread> threads;
        for (unsigned int id = 1; id <= 6; ++id) {
            threads.emplace_back([id] {
                for (int n = 0; n < 40; ++n) {
                    const UString file = Fileutl::create_tmp_file(id);
                    Fileutl::create_tmp_file(u"x", id);
                    Fileutl::set_file_id(file, 100 + id);
                    EXPECT_TRUE(fs::exists(utf8(file)));
                    Fileutl::delete_tmp_file(file);
                    Fileutl::delete_tmp_files(id);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_THAT(table(), IsEmpty());
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

TEST_F(Tmp, LetsTheHolderOfTheLockUseEveryOperation)
{
    in_new_process([&] {
        const CriticalSection outer(Fileutl::g_lock);
        const CriticalSection inner(Fileutl::g_lock);
        const UString path = Fileutl::create_tmp_file(1);
        Fileutl::create_tmp_file(u"x", 1);
        Fileutl::set_file_id(path, 2);
        Fileutl::delete_tmp_file(path);
        Fileutl::delete_tmp_files(1);
        EXPECT_TRUE(Fileutl::g_tmp_table.empty());
    });
}

TEST_F(Tmp, WaitsForTheHolderOfTheLockButNotToMakeObjects)
{
    in_new_process([&] {
        std::promise<void> made;
        std::thread other;
        {
            const CriticalSection section(Fileutl::g_lock);
            other = std::thread([&] {
                Fileutl::make_tmp_object(u"a", false);
                made.set_value();
                Fileutl::create_tmp_file(1);
            });
            made.get_future().wait();
            EXPECT_TRUE(Fileutl::g_tmp_table.empty());
        }
        other.join();
        EXPECT_EQ(table().size(), 1u);
    });
}

TEST_F(Tmp, IsUsableInTheChildOfAForkWhileTheLockIsHeld)
{
    in_new_process([&] {
        const UString before = Fileutl::create_tmp_file(1);
        std::promise<void> held;
        std::promise<void> done;
        std::thread holder([&] {
            const CriticalSection section(Fileutl::g_lock);
            held.set_value();
            done.get_future().wait();
        });
        held.get_future().wait();
        in_child(
            [&] {
                EXPECT_THAT(table(), ElementsAre(row_t{utf8(before), false, 1}));
                Fileutl::create_tmp_file(u"x", 2);
                Fileutl::delete_tmp_files(0);
                EXPECT_THAT(table(), IsEmpty());
            },
            _exit);
        done.set_value();
        holder.join();
        EXPECT_THAT(table(), ElementsAre(row_t{utf8(before), false, 1}));
    });
}

TEST_F(Tmp, HasAWholeTableInTheChildOfAFork)
{
    if (HAS_ADDRESS_SANITIZER)
        GTEST_SKIP() << "its allocator may stay locked in the child";
    in_new_process([&] {
        std::atomic<bool> stop{false};
        std::atomic<int> changes{0};
        std::vector<std::thread> threads;
        for (unsigned int id = 1; id <= 2; ++id) {
            threads.emplace_back([&, id] {
                for (unsigned int n = 0; !stop; ++n, ++changes)
                    if (n % 64 == 63)
                        Fileutl::delete_tmp_files(id);
                    else
                        Fileutl::set_file_id(ustr("/" + std::to_string(id * 1000000 + n)), id);
            });
        }
        for (int i = 0; i < 20; ++i) {
            while (changes < i * 100)  // they are at work
                std::this_thread::yield();
            in_child(
                [] {
                    // A map that is not whole does not end, crashes, or is out of order.
                    const std::vector<row_t> rows = table();
                    EXPECT_EQ(rows.size(), Fileutl::g_tmp_table.size());
                    for (std::size_t row = 1; row < rows.size(); ++row)
                        EXPECT_LT(rows[row - 1].path, rows[row].path);
                    Fileutl::delete_tmp_files(0);
                    EXPECT_THAT(table(), IsEmpty());
                },
                _exit);
        }
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    });
}

TEST_F(Tmp, KeepsFilesThatAreNotDeletedWhenTheProcessEnds)
{
    in_new_process([&] { Fileutl::create_tmp_file(1); });
    EXPECT_THAT(scratch.names(), ElementsAre("TMP0"));
}

TEST_F(Tmp, IsUsableByThreadsThatStillRunWhileTheProcessEnds)
{
    in_new_process([&] {
        ends_with_a_thread_at_work = true;
        static std::atomic<bool> has_begun{false};
        std::thread([] {
            for (;;) {
                Fileutl::set_file_id(u"/thread", 1);
                Fileutl::delete_tmp_file(Fileutl::create_tmp_file(2));
                has_begun = true;
            }
        }).detach();
        while (!has_begun)
            std::this_thread::yield();
        // The process ends, by exit(), with the thread at work.
    });
}

}  // namespace
