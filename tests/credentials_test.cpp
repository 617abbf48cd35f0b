#include <kvutil/credentials.h>

#include "support/credentials_failure.h"
#include "support/credentials_model.h"
#include "support/files.h"
#include "support/memory_fault.h"
#include "support/scratch.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <type_traits>
#include <unistd.h>

using Kvl::Credentials;
using Kvl::Identity;
using Kvl::RuntimeException;
using Kvl::UString;
using Kvl::UtlFileIoPtr;
using namespace std::string_literals;

namespace {

Identity identity(const std::string& text)
{
    return Identity::from_str(ustr(text));
}

/// Two groups of the lengths 2 and 0.
Credentials sample()
{
    Credentials credentials;
    credentials.user = identity("3:010a0b0c");
    credentials.primary_group = identity("1:02ff");
    credentials.groups.push_back(identity("2:0301ab"));
    credentials.groups.push_back(identity("0:04"));
    return credentials;
}

// Written down from the layout.
const std::string SAMPLE_FILE = "\x02\x00"                  // two groups
                                "\x03\x00\x01\x0a\x0b\x0c"  // the user
                                "\x01\x00\x02\xff"          // the primary group
                                "\x02\x00\x03\x01\xab"      //
                                "\x00\x00\x04"s;
const std::string SAMPLE_TEXTS = "\x03\x00one"
                                 "\x05\x00third"
                                 "\x06\x00second"s;

/// What is in the object before a file is read.
Credentials old_credentials()
{
    Credentials credentials;
    credentials.text1 = ustr("old 1");
    credentials.text2 = ustr("old 2");
    credentials.text3 = ustr("old 3");
    credentials.user = identity("1:0901");
    credentials.primary_group = identity("1:0902");
    credentials.groups.assign(5, identity("1:0903"));
    return credentials;
}

class CredentialsFile : public testing::Test {
protected:
    const scratch_t dir;
    const std::string path = dir / "credentials";

    Credentials read_back(const std::string& content, bool read_strings) const
    {
        set_content(path, content);
        Credentials credentials = old_credentials();
        credentials.read_from_file(path, read_strings);
        return credentials;
    }

    void expect_unreadable(Credentials& credentials, bool read_strings,
                           const std::string& reason = "Success") const
    {
        expect_failure<RuntimeException>([&] { credentials.read_from_file(path, read_strings); },
                                         file_failure("read", path, reason));
    }
};

// ---- values ----

TEST(Credentials, AreNobodyInNoGroupByDefault)
{
    const Credentials credentials;
    EXPECT_TRUE(credentials.user.is_nobody());
    EXPECT_TRUE(credentials.primary_group.is_nobody());
    EXPECT_TRUE(credentials.groups.empty());
    EXPECT_TRUE(credentials.text1.empty());
    EXPECT_TRUE(credentials.text2.empty());
    EXPECT_TRUE(credentials.text3.empty());
}

TEST(Credentials, CopiesAreDeep)
{
    Credentials original = sample();
    original.text1 = ustr("text");
    const Credentials expected = original;
    const Credentials copy(original);
    Credentials assigned = old_credentials();
    Credentials& result = assigned = original;
    EXPECT_EQ(&result, &assigned);
    EXPECT_NE(copy.user.bits(), original.user.bits());
    EXPECT_NE(copy.groups[0].bits(), original.groups[0].bits());
    original = Credentials();
    EXPECT_TRUE(model::same(copy, expected));
    EXPECT_TRUE(model::same(assigned, expected));
    const Credentials& same = assigned;
    assigned = same;
    EXPECT_TRUE(model::same(assigned, expected));
}

TEST(Credentials, MovedFromAreNobody)
{
    static_assert(std::is_nothrow_move_constructible_v<Credentials>);
    static_assert(std::is_nothrow_move_assignable_v<Credentials>);
    Credentials original = sample();
    const Credentials moved(std::move(original));
    EXPECT_TRUE(model::same(moved, sample()));
    EXPECT_TRUE(original.user.is_nobody());
    EXPECT_TRUE(original.groups.empty());
}

TEST(Credentials, GroupListHasItsOperations)
{
    Credentials::group_list_t list;
    list.reserve(2u);
    list.push_back(identity("0:01"));
    list.push_back(identity("0:02"));
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1u], identity("0:02"));
    const Credentials::group_list_t copy(list);
    EXPECT_TRUE(copy == list);
    EXPECT_NE(copy[0].bits(), list[0].bits());
    EXPECT_EQ(*copy.begin(), identity("0:01"));
    EXPECT_EQ(copy.end() - copy.begin(), 2);
    *list.begin() = identity("0:03");
    EXPECT_FALSE(copy == list);
    std::swap(list[0], list[1]);
    EXPECT_EQ(list[1], identity("0:03"));
    list.clear();
    EXPECT_TRUE(list == Credentials::group_list_t());
    // Nobody equals nobody, with and without a block.
    EXPECT_TRUE(Credentials::group_list_t(1, Identity()) ==
                Credentials::group_list_t(1, identity("0:00")));
}

TEST(Credentials, GroupsAreThePrimaryAndTheListedOnes)
{
    const Credentials credentials = sample();
    EXPECT_TRUE(credentials.in_group_list(credentials.primary_group));
    EXPECT_TRUE(credentials.in_group_list(identity("2:0301ab")));
    EXPECT_TRUE(credentials.in_group_list(identity("0:04")));
    EXPECT_FALSE(credentials.in_group_list(identity("2:0401ab")));
    EXPECT_FALSE(credentials.in_group_list(identity("0:05")));
    EXPECT_FALSE(credentials.in_group_list(Identity()));
}

TEST(Credentials, UserIsInNoGroupUnlessItIsOneOfThem)
{
    Credentials credentials = sample();
    EXPECT_FALSE(credentials.in_group_list(credentials.user));
    credentials.groups.push_back(credentials.user);
    EXPECT_TRUE(credentials.in_group_list(credentials.user));
    credentials.groups.clear();
    EXPECT_FALSE(credentials.in_group_list(credentials.user));
    credentials.primary_group = credentials.user;
    EXPECT_TRUE(credentials.in_group_list(credentials.user));
}

TEST(Credentials, NobodyIsInTheGroupsOfNobody)
{
    EXPECT_TRUE(Credentials().in_group_list(identity("0:00")));
}

// ---- writing ----

TEST_F(CredentialsFile, IsWrittenByteByByte)
{
    Credentials credentials = sample();
    credentials.text1 = ustr("never written");
    credentials.write_to_file(path);
    EXPECT_EQ(content_of(path), SAMPLE_FILE);
    EXPECT_EQ(SAMPLE_FILE.size(), 2u + (2 + 1 + 3) + (2 + 1 + 1) + (2 + 1 + 2) + (2 + 1 + 0));
    EXPECT_EQ(dir.names(), std::vector<std::string>{"credentials"});
}

TEST_F(CredentialsFile, OfDefaultCredentialsHoldsNobody)
{
    Credentials().write_to_file(path);
    EXPECT_EQ(content_of(path), "\0\0\0\0\0\0\0\0"s);
    Credentials credentials = old_credentials();
    credentials.read_from_file(path, false);
    EXPECT_TRUE(credentials.user.is_nobody());
    EXPECT_TRUE(credentials.primary_group.is_nobody());
    EXPECT_TRUE(credentials.groups.empty());
}

TEST_F(CredentialsFile, RecordOfLengthZeroIsThreeBytes)
{
    Credentials credentials;
    credentials.user = identity("0:07");
    credentials.write_to_file(path);
    EXPECT_EQ(content_of(path), "\0\0\0\0\x07\0\0\0"s);
}

TEST_F(CredentialsFile, HoldsEveryLength)
{
    Credentials credentials;
    for (const std::size_t size : {255u, 256u, 4095u, 4096u, 4097u, 32767u, 32768u, 65534u, 65535u})
        credentials.groups.push_back(model::identity(1, std::string(size, '\xa5')));
    credentials.write_to_file(path);
    EXPECT_TRUE(content_of(path) == model::file(credentials));
    Credentials read;
    read.read_from_file(path, false);
    EXPECT_TRUE(read.groups == credentials.groups);
    EXPECT_EQ(read.groups.back().length(), -1);
}

TEST_F(CredentialsFile, OfMoreThan65535GroupsHasTheirNumberModulo65536)
{
    Credentials credentials = sample();
    credentials.groups.assign(65535, identity("0:01"));
    credentials.write_to_file(path);
    Credentials read;
    read.read_from_file(path, false);
    EXPECT_TRUE(model::same(read, credentials));
    credentials.groups.resize(65536 + 2, identity("0:02"));
    credentials.write_to_file(path);
    const std::string content = content_of(path);
    EXPECT_EQ(content.substr(0, 2), "\x02\x00"s);
    EXPECT_EQ(content.size(), 2u + 6 + 4 + 3 * 65538);
    read.read_from_file(path, false);
    EXPECT_TRUE(read.groups == Credentials::group_list_t(2, identity("0:01")));
}

TEST_F(CredentialsFile, ReplacesALongerFile)
{
    set_content(path, std::string(100000, 'x'));
    sample().write_to_file(path);
    EXPECT_EQ(content_of(path), SAMPLE_FILE);
}

// ---- reading ----

TEST_F(CredentialsFile, IsReadWithoutTexts)
{
    const Credentials credentials = read_back(SAMPLE_FILE, false);
    EXPECT_EQ(credentials.user, sample().user);
    EXPECT_EQ(credentials.primary_group, sample().primary_group);
    EXPECT_TRUE(credentials.groups == sample().groups);
    EXPECT_EQ(credentials.text1, ustr("old 1"));
    EXPECT_EQ(credentials.text2, ustr("old 2"));
    EXPECT_EQ(credentials.text3, ustr("old 3"));
}

TEST_F(CredentialsFile, TextsAreCrossed)
{
    const Credentials credentials = read_back(SAMPLE_FILE + SAMPLE_TEXTS, true);
    EXPECT_EQ(credentials.text1, ustr("one"));
    EXPECT_EQ(credentials.text2, ustr("second"));
    EXPECT_EQ(credentials.text3, ustr("third"));
    EXPECT_TRUE(credentials.groups == sample().groups);
}

TEST_F(CredentialsFile, BytesBehindItAreIgnored)
{
    EXPECT_EQ(read_back(SAMPLE_FILE + "\xff", false).groups.size(), 2u);
    EXPECT_EQ(read_back(SAMPLE_FILE + SAMPLE_TEXTS + "\xff", true).text2, ustr("second"));
}

TEST_F(CredentialsFile, WrittenHereHasNoTextsToRead)
{
    sample().write_to_file(path);
    Credentials credentials = old_credentials();
    expect_unreadable(credentials, true);
    Credentials expected = sample();
    expected.text1 = ustr("old 1");
    expected.text2 = ustr("old 2");
    expected.text3 = ustr("old 3");
    EXPECT_TRUE(model::same(credentials, expected));
}

TEST_F(CredentialsFile, WithFewerGroupsThanItSaysGivesThoseItHas)
{
    std::string content = SAMPLE_FILE;
    content[0] = 3;
    set_content(path, content);
    Credentials credentials = old_credentials();
    expect_unreadable(credentials, false);
    EXPECT_EQ(credentials.user, sample().user);
    EXPECT_EQ(credentials.primary_group, sample().primary_group);
    EXPECT_TRUE(credentials.groups == sample().groups);
}

// At each place, against an independent reader of the layout.
TEST_F(CredentialsFile, CutOffGivesWhatStandsBeforeTheCut)
{
    const std::string whole = SAMPLE_FILE + SAMPLE_TEXTS;
    for (const bool read_strings : {false, true}) {
        const std::size_t needed = (read_strings ? whole : SAMPLE_FILE).size();
        for (std::size_t size = 0; size <= whole.size(); ++size) {
            SCOPED_TRACE(size);
            const std::string content = whole.substr(0, size);
            set_content(path, content);
            Credentials expected = old_credentials();
            model::reader in(content);
            EXPECT_EQ(model::read_file(in, read_strings, expected), size >= needed);
            Credentials credentials = old_credentials();
            errno = ENOSPC;  // a stale one must not show
            if (size < needed)
                expect_unreadable(credentials, read_strings);
            else
                credentials.read_from_file(path, read_strings);
            EXPECT_TRUE(model::same(credentials, expected));
        }
    }
}

TEST_F(CredentialsFile, WithoutANumberOfGroupsChangesNothing)
{
    for (const std::string& content : {""s, "\x02"s}) {
        set_content(path, content);
        Credentials credentials = old_credentials();
        expect_unreadable(credentials, false);
        EXPECT_TRUE(model::same(credentials, old_credentials()));
    }
}

TEST_F(CredentialsFile, ClaimsAreNotBelieved)
{
    // 65535 groups of 65535 bytes are 4 GiB.
    set_content(path, std::string(100, '\xff'));
    Credentials credentials = old_credentials();
    expect_unreadable(credentials, true);
    EXPECT_EQ(credentials.user, old_credentials().user);
    EXPECT_TRUE(credentials.groups.empty());
}

struct text_row_t {
    std::string bytes;
    UString text;
};

TEST_F(CredentialsFile, TextsAreZeroTerminatedUtf8)
{
    const text_row_t rows[] = {
        {"", u""},
        {"\0"s, u""},
        {"ab\0cd"s, u"ab"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", u"\u00E4\u20AC\U0001F600"},
        {"ab\xFF", u""},        // malformed
        {"\xC3", u""},          // cut off
        {"\xED\xA0\x80", u""},  // a surrogate
        {"ab\0\xFF"s, u"ab"},   // malformed behind the end
        {"\xEF\xBB\xBFx", u"\uFEFFx"},
    };
    for (const auto& [bytes, text] : rows) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        const std::string record = model::text_record(bytes);
        const Credentials credentials =
            read_back(SAMPLE_FILE + record + model::text_record("3") + record, true);
        EXPECT_EQ(credentials.text1, text);
        EXPECT_EQ(credentials.text2, text);
        EXPECT_EQ(credentials.text3, ustr("3"));
    }
}

TEST_F(CredentialsFile, TextsHaveUpTo65535Bytes)
{
    const std::string longest(65535, 'x');
    const std::string records = model::text_record(longest) + model::text_record("") +
                                model::text_record(longest.substr(1));
    const Credentials credentials = read_back(SAMPLE_FILE + records, true);
    EXPECT_EQ(credentials.text1, ustr(longest));
    EXPECT_EQ(credentials.text3, UString());
    EXPECT_EQ(credentials.text2, ustr(longest.substr(1)));
}

TEST_F(CredentialsFile, StringsAreReadOneAfterAnother)
{
    set_content(path, model::text_record("one") + model::text_record("") + "\x05\x00two"s);
    UtlFileIoPtr file(std::fopen(path.c_str(), "rb"));
    EXPECT_EQ(Credentials::read_string("name", file), ustr("one"));
    EXPECT_EQ(std::ftell(file.get()), 5) << "no byte more";
    EXPECT_EQ(Credentials::read_string("name", file), UString());
    // The path is for the message only.
    const auto read = [&] { Credentials::read_string("the name", file); };
    expect_failure<RuntimeException>(read, file_failure("read", "the name", "Success"));
    expect_failure<RuntimeException>(read, file_failure("read", "the name", "Success"));
    EXPECT_NE(file.get(), nullptr);
}

TEST_F(CredentialsFile, StringsCannotBeReadFromAStreamForWriting)
{
    UtlFileIoPtr file(std::fopen(path.c_str(), "wb"));
    expect_failure<RuntimeException>([&] { Credentials::read_string(path, file); },
                                     file_failure("read", path, "Bad file descriptor"));
    UtlFileIoPtr none;
    expect_failure<RuntimeException>([&] { Credentials::read_string(path, none); },
                                     file_failure("read", path, "Bad file descriptor"));
}

// As when the handler of a signal changes it.
TEST_F(CredentialsFile, StringsEndWithTheirStreamWhateverElseErrnoSays)
{
    cookie_io_functions_t functions = {};
    functions.read = [](void*, char*, std::size_t) -> ssize_t {
        errno = EINTR;
        return 0;
    };
    UtlFileIoPtr file(fopencookie(nullptr, "r", functions));
    expect_failure<RuntimeException>([&] { Credentials::read_string(path, file); },
                                     file_failure("read", path, "Interrupted system call"));
}

/// Gives a byte at a time, each of them after a signal.
class interrupted_stream_t {
public:
    explicit interrupted_stream_t(std::string content) : content_(std::move(content)) {}
    std::FILE* open()
    {
        cookie_io_functions_t functions = {};
        functions.read = [](void* self, char* byte, std::size_t) -> ssize_t {
            return static_cast<interrupted_stream_t*>(self)->read(*byte);
        };
        return fopencookie(this, "r", functions);
    }

private:
    ssize_t read(char& byte)
    {
        is_interrupted_ = !is_interrupted_;
        if (is_interrupted_) {
            errno = EINTR;
            return -1;
        }
        if (next_ == content_.size())
            return 0;
        byte = content_[next_++];
        return 1;
    }

    const std::string content_;
    std::size_t next_ = 0;
    bool is_interrupted_ = false;
};

TEST_F(CredentialsFile, StringsAreReadWholeAlthoughSignalsInterrupt)
{
    interrupted_stream_t stream(model::text_record("one") + model::text_record("four"));
    UtlFileIoPtr file(stream.open());
    EXPECT_EQ(Credentials::read_string("name", file), ustr("one"));
    EXPECT_EQ(Credentials::read_string("name", file), ustr("four"));
}

// ---- the holder of a stream ----

bool is_open(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

TEST_F(CredentialsFile, HolderClosesItsStream)
{
    int descriptor = -1;
    {
        const UtlFileIoPtr file(std::fopen(path.c_str(), "wb"));
        descriptor = fileno(file.get());
        EXPECT_TRUE(is_open(descriptor));
    }
    EXPECT_FALSE(is_open(descriptor));
}

TEST_F(CredentialsFile, HolderGivesItsStreamAway)
{
    std::FILE* const stream = std::fopen(path.c_str(), "wb");
    {
        UtlFileIoPtr file(stream);
        EXPECT_EQ(file.release(), stream);
        EXPECT_EQ(file.get(), nullptr);
        EXPECT_EQ(file.close(), 0);
    }
    EXPECT_TRUE(is_open(fileno(stream)));
    std::fclose(stream);
}

TEST_F(CredentialsFile, HolderReportsHowTheCloseWent)
{
    UtlFileIoPtr file(std::fopen(path.c_str(), "wb"));
    const int descriptor = fileno(file.get());
    EXPECT_EQ(file.close(), 0);
    EXPECT_FALSE(is_open(descriptor));
    EXPECT_EQ(file.get(), nullptr);
    EXPECT_EQ(file.close(), 0) << "nothing is held any more";
    EXPECT_EQ(UtlFileIoPtr().close(), 0);
    UtlFileIoPtr full(std::fopen("/dev/full", "wb"));
    std::fputc('x', full.get());
    EXPECT_EQ(full.close(), EOF);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(full.get(), nullptr);
}

// ---- memory and stack ----

TEST_F(CredentialsFile, WithoutMemoryTheOldOneStays)
{
    set_content(path, "old");
    const Credentials credentials = sample();
    const auto descriptors = open_descriptors();
    const int faults = for_each_memory_fault([&] { credentials.write_to_file(path); },
                                             [&] {
                                                 EXPECT_EQ(content_of(path), "old");
                                                 EXPECT_EQ(dir.names().size(), 1u);
                                                 EXPECT_EQ(open_descriptors(), descriptors);
                                             });
    EXPECT_GE(faults, 1);
    EXPECT_EQ(content_of(path), SAMPLE_FILE);
}

TEST_F(CredentialsFile, WithoutMemoryWhatWasReadBeforeStays)
{
    set_content(path, SAMPLE_FILE + model::text_record(std::string(1000, '1')) +
                          model::text_record(std::string(1000, '3')) +
                          model::text_record(std::string(1000, '2')));
    Credentials credentials;
    credentials.read_from_file(path, true);
    const Credentials whole = credentials;
    const auto descriptors = open_descriptors();
    std::vector<Credentials> states;
    const auto read = [&] {
        credentials = Credentials();
        credentials.read_from_file(path, true);
    };
    const int faults = for_each_memory_fault(read, [&] {
        states.push_back(credentials);
        EXPECT_EQ(open_descriptors(), descriptors);
    });
    // Room for the groups, four blocks, and what each text takes.
    EXPECT_GE(faults, 1 + 4 + 3);
    EXPECT_TRUE(model::same(credentials, whole));
    // Each fault comes later, and nothing is ever there but a beginning of the whole.
    for (const Credentials& state : states) {
        EXPECT_TRUE(state.user.is_nobody() || state.user == whole.user);
        EXPECT_TRUE(state.groups.size() <= 2);
        EXPECT_TRUE(state.groups.empty() || state.primary_group == whole.primary_group);
        EXPECT_TRUE(state.text1.empty() || state.groups == whole.groups);
        EXPECT_TRUE(state.text3.empty() || state.text1 == whole.text1);
        EXPECT_TRUE(state.text2.empty());
    }
    EXPECT_TRUE(states.front().user.is_nobody());
    EXPECT_EQ(states.back().text3, whole.text3);
}

TEST_F(CredentialsFile, WithoutMemoryForItsGroupsHasNone)
{
    set_content(path, "\x06\x00"s);
    Credentials credentials = old_credentials();
    const auto read = [&] {
        try {
            credentials.read_from_file(path, false);
        } catch (const RuntimeException&) {
        }
    };
    const int faults =
        for_each_memory_fault(read, [&] { EXPECT_TRUE(credentials.groups.empty()); });
    EXPECT_GE(faults, 1);
    EXPECT_EQ(credentials.user, old_credentials().user);
}

TEST_F(CredentialsFile, WithoutMemoryFailuresAreBadAlloc)
{
    const std::string missing = dir / std::string(100, 'm');
    const auto reject = [&] {
        try {
            Credentials().read_from_file(missing, false);
        } catch (const RuntimeException&) {
        }
    };
    EXPECT_GE(for_each_memory_fault(reject, [] {}), 1);
}

TEST(CredentialsWithoutMemory, AssignmentChangesNothing)
{
    const Credentials source = sample();
    Credentials target = old_credentials();
    const auto unchanged = [&] { EXPECT_TRUE(model::same(target, old_credentials())); };
    const auto assign = [&] { target = source; };
    EXPECT_GE(for_each_memory_fault(assign, unchanged), 5);
    EXPECT_TRUE(model::same(target, source));
}

TEST_F(CredentialsFile, NeedsLittleStack)
{
    Credentials credentials = sample();
    credentials.user = model::identity(1, std::string(65535, 'u'));
    on_small_stack([&] { credentials.write_to_file(path); });
    set_content(path, content_of(path) + model::text_record(std::string(65535, '1')) +
                          model::text_record(std::string(65535, '3')) +
                          model::text_record(std::string(65535, '2')));
    Credentials read;
    on_small_stack([&] { read.read_from_file(path, true); });
    EXPECT_EQ(read.user, credentials.user);
    EXPECT_EQ(read.text2, ustr(std::string(65535, '2')));
    on_small_stack([&] {
        EXPECT_THROW(read.read_from_file(dir.path, true), RuntimeException);
        EXPECT_THROW(read.write_to_file(dir.path), RuntimeException);
    });
}

// ---- every length ----

/// The text of an identity of each length, without copying it: the digits of the longest stay in
/// place, and the length is written in front of those that are wanted.
class texts_of_each_length {
public:
    explicit texts_of_each_length(const Identity& longest)
    {
        const UString text = longest.str();
        units_.assign(text.getBuffer(), text.length());
    }

    /// @return an identity's text, whose digits are the first ones of the longest
    UString operator()(unsigned int length)
    {
        const std::string prefix = std::to_string(length) + ":";
        const std::size_t begin = DIGITS - prefix.size();
        std::copy(prefix.begin(), prefix.end(), units_.begin() + static_cast<long>(begin));
        UString text;
        text.setTo(false, units_.data() + begin,
                   static_cast<int>(prefix.size() + 2 * (length + 1)));
        return text;
    }

private:
    static constexpr std::size_t DIGITS = 6;  // behind "65535:"
    std::u16string units_;
};

bool same_units(const UString& a, const UString& b)
{
    return a.length() == b.length() &&
           std::memcmp(a.getBuffer(), b.getBuffer(), 2 * a.length()) == 0;
}

/// Bits of which no two neighbours, and no two places 256 apart, are alike.
std::string longest_bits()
{
    std::string bits(65535, '\0');
    for (std::size_t i = 0; i < bits.size(); ++i)
        bits[i] = static_cast<char>(i * 7 + i / 256);
    return bits;
}

// Where executed lines are counted, digit by digit, every length would take minutes.
#ifdef KVUTIL_COVERAGE
constexpr unsigned int READ_STEP = 257;
#else
constexpr unsigned int READ_STEP = 1;
#endif
static_assert(65535 % READ_STEP == 0, "the longest is among them");

TEST(IdentityOfEachLength, IsReadAndPrinted)
{
    const std::string bits = longest_bits();
    texts_of_each_length texts(model::identity(0x5a, bits));
    for (unsigned int length = 0; length <= 65535; length += READ_STEP) {
        const UString text = texts(length);
        const Identity read = Identity::from_str(text);
        ASSERT_EQ(read.length(), static_cast<short>(length));
        ASSERT_EQ(read.type(), 0x5a);
        ASSERT_EQ(std::memcmp(read.bits(), bits.data(), length), 0);
        ASSERT_TRUE(same_units(read.str(), text));
    }
}

TEST(IdentityOfEachLength, IsCopiedAndAssigned)
{
    const std::string bits = longest_bits();
    const Identity longest = model::identity(0x5a, bits);
    Identity over_shorter;
    Identity over_longer;
    for (unsigned int length = 0; length <= 65535; ++length) {
        auto* const block = new Identity::identity_t[length + 1];
        std::memcpy(block, longest.bits() - 1, length + 1);
        const Identity identity(static_cast<short>(length), block);
        over_shorter = identity;
        over_longer = longest;
        over_longer = identity;
        ASSERT_TRUE(over_shorter == identity);
        ASSERT_TRUE(Identity(over_longer) == identity);
        ASSERT_EQ(over_longer != longest, length != 65535);
    }
}

TEST(IdentityOfEachLength, IsWrittenAndReadInAFile)
{
    // 2 GiB are written, one file after another; no disk need wait for them.
    const int memory = memfd_create("credentials", MFD_CLOEXEC);
    const std::string file = "/proc/self/fd/" + std::to_string(memory);
    const std::string bits = longest_bits();
    Credentials credentials;
    Credentials read;
    for (unsigned int length = 0; length <= 65535; ++length) {
        auto* const block = new Identity::identity_t[length + 1];
        block[0] = static_cast<unsigned char>(length);
        std::memcpy(block + 1, bits.data(), length);
        credentials.groups.emplace_back(static_cast<short>(length), block);
        if (credentials.groups.size() < 64 && length != 65535)
            continue;
        credentials.write_to_file(file);
        read.read_from_file(file, false);
        ASSERT_TRUE(read.groups == credentials.groups);
        credentials.groups.clear();
    }
    close(memory);
}

}  // namespace
