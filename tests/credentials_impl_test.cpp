// Each system call that files are written and read with fails in turn.

#include "file_content_impl.h"
#include "sys_calls_impl.h"

#include <kvutil/credentials.h>

#include "support/credentials_failure.h"
#include "support/credentials_model.h"
#include "support/files.h"
#include "support/memory_fault.h"
#include "support/scratch.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

using namespace Kvl;

namespace {

typedef std::vector<std::string> names_t;

// ---- calls that fail ----

const sys_calls_t real_calls = sys_calls;

/// Which call fails, and how.
struct fault_t {
    std::string row;
    int nth = 0;
    int error = 0;
    int times = 1;
};

fault_t fault;
int calls_of_row = 0;
bool struck = false;

bool fails_now(const char* row)
{
    if (fault.row != row)
        return false;
    ++calls_of_row;
    if (calls_of_row < fault.nth || calls_of_row >= fault.nth + fault.times)
        return false;
    struck = true;
    errno = fault.error;
    return true;
}

/// While one lives, every row fails when it is told to.
class failing_calls {
public:
    explicit failing_calls(const fault_t& what)
    {
        fault = what;
        calls_of_row = 0;
        struck = false;
        sys_calls.open = [](const char* path, int flags, mode_t mode) {
            return fails_now("open") ? -1 : real_calls.open(path, flags, mode);
        };
        // As Linux does it: the descriptor is gone, whatever the answer.
        sys_calls.close = [](int descriptor) {
            const int result = real_calls.close(descriptor);
            return fails_now("close") ? -1 : result;
        };
        sys_calls.read = [](int descriptor, void* bytes, std::size_t size) {
            return fails_now("read") ? -1 : real_calls.read(descriptor, bytes, size);
        };
        sys_calls.write = [](int descriptor, const void* bytes, std::size_t size) {
            return fails_now("write") ? -1 : real_calls.write(descriptor, bytes, size);
        };
        sys_calls.fstat = [](int descriptor, struct stat* status) {
            return fails_now("fstat") ? -1 : real_calls.fstat(descriptor, status);
        };
        sys_calls.lstat = [](const char* path, struct stat* status) {
            return fails_now("lstat") ? -1 : real_calls.lstat(path, status);
        };
        sys_calls.fgetxattr = [](int descriptor, const char* name, void* value, std::size_t size) {
            return fails_now("fgetxattr") ? -1
                                          : real_calls.fgetxattr(descriptor, name, value, size);
        };
        sys_calls.fremovexattr = [](int descriptor, const char* name) {
            return fails_now("fremovexattr") ? -1 : real_calls.fremovexattr(descriptor, name);
        };
        sys_calls.ftruncate = [](int descriptor, off_t size) {
            return fails_now("ftruncate") ? -1 : real_calls.ftruncate(descriptor, size);
        };
        sys_calls.mkostemp = [](char* path, int flags) {
            return fails_now("mkostemp") ? -1 : real_calls.mkostemp(path, flags);
        };
        sys_calls.fchown = [](int descriptor, uid_t owner, gid_t group) {
            return fails_now("fchown") ? -1 : real_calls.fchown(descriptor, owner, group);
        };
        sys_calls.fchmod = [](int descriptor, mode_t mode) {
            return fails_now("fchmod") ? -1 : real_calls.fchmod(descriptor, mode);
        };
        // Nothing can be seen of a disk that is really waited for.
        sys_calls.fsync = [](int) { return fails_now("fsync") ? -1 : 0; };
        sys_calls.rename = [](const char* from, const char* to) {
            return fails_now("rename") ? -1 : real_calls.rename(from, to);
        };
        sys_calls.unlink = [](const char* path) {
            return fails_now("unlink") ? -1 : real_calls.unlink(path);
        };
    }
    ~failing_calls() { sys_calls = real_calls; }
    failing_calls(const failing_calls&) = delete;
    failing_calls& operator=(const failing_calls&) = delete;
};

const char* const ROWS[] = {"open",   "close",     "read",         "write",     "fstat",
                            "lstat",  "fgetxattr", "fremovexattr", "ftruncate", "mkostemp",
                            "fchown", "fchmod",    "fsync",        "rename",    "unlink"};
const int ERRORS[] = {EINTR, EIO,    ENOSPC, EDQUOT, EACCES, EPERM,  EROFS,        EBUSY,
                      EXDEV, ENOENT, EMFILE, ENOMEM, EINVAL, ENOSYS, ENAMETOOLONG, ELOOP};

// ---- fixtures ----

Credentials with_groups(unsigned char type, std::size_t group_size)
{
    Credentials credentials;
    credentials.user = model::identity(type, "user");
    credentials.groups.assign(2, model::identity(type, std::string(group_size, 'g')));
    return credentials;
}

class CredentialsCalls : public testing::Test {
protected:
    const scratch_t dir;
    const std::string path = dir / "credentials";
    const std::string old_content = "old";
    const Credentials credentials = with_groups(1, 5000);
    const std::string new_content = model::file(credentials);

    void make_old() const { set_content(path, old_content); }

    /// @return the failure's text; empty when it succeeded
    std::string write_with(const fault_t& what) const
    {
        const failing_calls on(what);
        try {
            credentials.write_to_file(path);
            return {};
        } catch (const RuntimeException& e) {
            EXPECT_EQ(e.stp_reason_code(), 39);
            return rendered(e);
        }
    }
};

// ---- replacing ----

struct step_t {
    std::string row;
    int nth;
    int error;
    std::string verb;  // of the message; empty when it succeeds all the same
};

void PrintTo(const step_t& step, std::ostream* out)
{
    *out << step.row << ' ' << step.nth << ' ' << std::strerror(step.error);
}

class CredentialsSteps : public CredentialsCalls, public testing::WithParamInterface<step_t> {};

TEST_P(CredentialsSteps, FailWithTheirMessageAndLeaveTheOldFile)
{
    const auto& [row, nth, error, verb] = GetParam();
    make_old();
    const auto descriptors = open_descriptors();
    const std::string text = write_with({row, nth, error});
    EXPECT_TRUE(struck);
    EXPECT_EQ(text, verb.empty() ? "" : file_failure(verb, path, error));
    EXPECT_TRUE(content_of(path) == (verb.empty() ? new_content : old_content));
    EXPECT_EQ(dir.names(), names_t{"credentials"});
    EXPECT_EQ(open_descriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Replacing, CredentialsSteps,
                         testing::ValuesIn<step_t>({
                             {"open", 1, EINTR, ""},
                             {"open", 1, EACCES, "open"},
                             {"open", 1, EMFILE, "open"},
                             {"open", 1, ETXTBSY, "open"},
                             {"fstat", 1, EIO, "open"},
                             {"lstat", 1, EACCES, ""},  // it is not known to be replaceable
                             {"mkostemp", 1, EINTR, ""},
                             {"mkostemp", 1, EACCES, ""},  // in place
                             {"mkostemp", 1, EPERM, ""},
                             {"mkostemp", 1, EROFS, ""},
                             {"mkostemp", 1, ENAMETOOLONG, ""},
                             {"mkostemp", 1, ENOENT, ""},  // as in /proc
                             {"mkostemp", 1, ENOSYS, ""},
                             {"mkostemp", 1, EOPNOTSUPP, ""},
                             {"mkostemp", 1, ENOSPC,
                              "open"},  // in place the old content would be lost
                             {"mkostemp", 1, EDQUOT, "open"},
                             {"mkostemp", 1, EMFILE, "open"},
                             {"mkostemp", 1, EEXIST, "open"},
                             {"fchown", 1, EINTR, ""},
                             {"fchown", 1, EPERM, ""},  // in place
                             {"fchown", 1, EOPNOTSUPP, ""},
                             {"fchown", 1, EIO, "open"},
                             {"fchmod", 1, EINTR, ""},
                             {"fchmod", 1, EPERM, ""},
                             {"fchmod", 1, EIO, "open"},
                             {"write", 1, EINTR, ""},
                             {"write", 1, ENOSPC, "write"},
                             {"write", 1, EIO, "write"},
                             {"write", 2, EINTR, ""},
                             {"fsync", 1, EINTR, ""},
                             {"fsync", 1, ENOSPC, "close"},
                             {"fsync", 1, EIO, "close"},
                             {"close", 1, EINTR, ""},  // everything is on the disk by then
                             {"close", 1, EIO, "close"},
                             {"close", 1, ENOSPC, "close"},
                             {"rename", 1, EBUSY, ""},  // in place
                             {"rename", 1, EPERM, ""},
                             {"rename", 1, EACCES, ""},
                             {"rename", 1, EXDEV, ""},
                             {"rename", 1, ENOSYS, ""},
                             {"rename", 1, ENOSPC, "close"},
                             {"rename", 1, EIO, "close"},
                             {"rename", 1, ENOENT, "close"},
                             {"open", 2, EACCES, ""},  // the directory
                             {"fsync", 2, EIO, ""},
                             {"close", 2, EIO, ""},
                             {"close", 3, EIO, ""},  // the old file
                         }));

// The list that a new file gets from its directory must go before the file gets its mode.
TEST_F(CredentialsCalls, ThatCannotRemoveAListWriteInPlaceOrNotAtAll)
{
    for (const int error : {EPERM, EIO}) {
        make_old();
        const failing_calls on({"fremovexattr", 1, error});
        sys_calls.fgetxattr = [](int, const char*, void*, std::size_t) -> ssize_t {
            static int calls = 0;
            const bool is_of_the_new_file = ++calls % 2 == 0;
            errno = ENODATA;
            return is_of_the_new_file ? 44 : -1;
        };
        sys_calls.fchmod = [](int, mode_t) {
            ADD_FAILURE() << "the list has taken effect";
            return 0;
        };
        if (error == EPERM) {
            credentials.write_to_file(path);
            EXPECT_TRUE(content_of(path) == new_content);
        } else {
            expect_failure<RuntimeException>([&] { credentials.write_to_file(path); },
                                             file_failure("open", path, error));
            EXPECT_EQ(content_of(path), old_content);
        }
        EXPECT_TRUE(struck);
        EXPECT_EQ(dir.names(), names_t{"credentials"});
    }
}

// The last of what is written is handed over by the flush that precedes the close.
TEST_F(CredentialsCalls, LastWriteFailsAsTheClose)
{
    make_old();
    int writes = 0;
    while (write_with({"write", writes + 1, EINTR}).empty() && struck)
        ++writes;
    ASSERT_GT(writes, 1);
    EXPECT_EQ(write_with({"write", writes, ENOSPC}), file_failure("close", path, ENOSPC));
    EXPECT_EQ(write_with({"write", writes - 1, ENOSPC}), file_failure("write", path, ENOSPC));
}

// Whichever call fails, however, the file is the old one or the new one, and nothing is left over.
TEST_F(CredentialsCalls, AnyOfThemFailingLeavesTheOldOrTheNew)
{
    int faults = 0;
    for (const bool is_new : {false, true}) {
        for (const char* row : ROWS) {
            for (const int error : ERRORS) {
                bool more = true;
                for (int nth = 1; more; ++nth) {
                    SCOPED_TRACE(std::string(row) + " " + std::to_string(nth) + " " +
                                 std::strerror(error));
                    unlink(path.c_str());
                    if (!is_new)
                        make_old();
                    const auto descriptors = open_descriptors();
                    const std::string text = write_with({row, nth, error});
                    more = struck;
                    faults += struck ? 1 : 0;
                    ASSERT_TRUE(struck || text.empty());
                    if (text.empty()) {
                        ASSERT_TRUE(content_of(path) == new_content);
                    } else if (is_new) {
                        ASSERT_EQ(dir.names(), names_t{});
                    } else {
                        ASSERT_EQ(content_of(path), old_content);
                    }
                    ASSERT_LE(dir.names().size(), 1u);
                    ASSERT_EQ(open_descriptors(), descriptors);
                }
            }
        }
    }
    EXPECT_GT(faults, 300);
}

// The disk is full: every write fails, and the fallback must not be tried.
TEST_F(CredentialsCalls, FailingForGoodLeavesTheOld)
{
    make_old();
    for (const char* row : {"write", "fsync"}) {
        EXPECT_FALSE(write_with({row, 1, ENOSPC, 1000}).empty());
        EXPECT_EQ(content_of(path), old_content);
        EXPECT_EQ(dir.names(), names_t{"credentials"});
    }
}

TEST_F(CredentialsCalls, InterruptedManyTimesSucceed)
{
    for (const char* row : {"open", "mkostemp", "write", "fsync", "close"}) {
        make_old();
        EXPECT_EQ(write_with({row, 1, EINTR, 100}), "") << row;
        EXPECT_TRUE(content_of(path) == new_content);
    }
}

TEST_F(CredentialsCalls, ThatCannotRemoveATemporaryReportTheFirstFailure)
{
    make_old();
    static int unlinks;
    unlinks = 0;
    const failing_calls on({"rename", 1, EIO});
    sys_calls.unlink = [](const char*) {
        ++unlinks;
        errno = EACCES;
        return -1;
    };
    expect_failure<RuntimeException>([&] { credentials.write_to_file(path); },
                                     file_failure("close", path, EIO));
    EXPECT_EQ(unlinks, 1);
    EXPECT_EQ(content_of(path), old_content);
}

TEST_F(CredentialsCalls, WritingLittleAtATimeWriteEverything)
{
    make_old();
    const failing_calls on({});
    sys_calls.write = [](int descriptor, const void* bytes, std::size_t size) {
        return real_calls.write(descriptor, bytes, std::min<std::size_t>(size, 7));
    };
    credentials.write_to_file(path);
    EXPECT_TRUE(content_of(path) == new_content);
}

TEST_F(CredentialsCalls, WritingNothingAtAllFail)
{
    make_old();
    const failing_calls on({});
    sys_calls.write = [](int, const void*, std::size_t) { return ssize_t{0}; };
    expect_failure<RuntimeException>([&] { credentials.write_to_file(path); },
                                     file_failure("write", path, EIO));
    EXPECT_EQ(content_of(path), old_content);
    EXPECT_EQ(dir.names(), names_t{"credentials"});
}

// The name of the new file, and when it gets its rights.
TEST_F(CredentialsCalls, MakeATemporaryBesideTheFile)
{
    make_old();
    static std::vector<std::string> order;
    order.clear();
    const failing_calls on({});
    sys_calls.mkostemp = [](char* name, int flags) {
        EXPECT_EQ(flags & O_CLOEXEC, O_CLOEXEC);
        const int descriptor = real_calls.mkostemp(name, flags);
        order.push_back("create");
        order.push_back(name);
        return descriptor;
    };
    sys_calls.fsync = [](int descriptor) {
        order.push_back("sync");
        return real_calls.fsync(descriptor);
    };
    sys_calls.close = [](int descriptor) {
        order.push_back("close");
        return real_calls.close(descriptor);
    };
    sys_calls.rename = [](const char* from, const char* to) {
        order.push_back("rename");
        order.push_back(from);
        return real_calls.rename(from, to);
    };
    credentials.write_to_file(path);
    ASSERT_EQ(order.size(), 9u);
    const std::string name = order[1];
    EXPECT_EQ(order,
              (names_t{"create", name, "sync", "close", "rename", name, "sync", "close", "close"}));
    EXPECT_EQ(name.substr(0, name.rfind('/')), dir.path);
}

TEST_F(CredentialsCalls, OpenEverythingCloseOnExec)
{
    static int opens;
    opens = 0;
    const failing_calls on({});
    sys_calls.open = [](const char* name, int flags, mode_t mode) {
        ++opens;
        EXPECT_EQ(flags & O_CLOEXEC, O_CLOEXEC) << name;
        EXPECT_EQ(flags & O_NOCTTY, O_NOCTTY) << name;
        return real_calls.open(name, flags, mode);
    };
    credentials.write_to_file(path);  // a new one
    credentials.write_to_file(path);  // over the old one
    const std::string link = dir / "link";
    ASSERT_EQ(symlink("other", link.c_str()), 0);
    credentials.write_to_file(link);  // in place, new
    credentials.write_to_file(link);  // in place
    Credentials().read_from_file(path, false);
    EXPECT_EQ(opens, 2 + 2 + 2 + 1 + 1);
}

// ---- in place ----

class CredentialsInPlace : public CredentialsCalls, public testing::WithParamInterface<step_t> {};

TEST_P(CredentialsInPlace, FailWithTheirMessage)
{
    const auto& [row, nth, error, verb] = GetParam();
    make_old();
    const std::string other = dir / "other";
    ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
    const auto descriptors = open_descriptors();
    const std::string text = write_with({row, nth, error});
    EXPECT_TRUE(struck);
    EXPECT_EQ(text, verb.empty() ? "" : file_failure(verb, path, error));
    if (verb.empty()) {
        EXPECT_TRUE(content_of(other) == new_content);
    } else if (verb == "open") {
        EXPECT_EQ(content_of(other), old_content);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(dir.names(), (names_t{"credentials", "other"}));
}

INSTANTIATE_TEST_SUITE_P(Links, CredentialsInPlace,
                         testing::ValuesIn<step_t>({
                             {"open", 1, EINTR, ""},
                             {"open", 1, EACCES, "open"},
                             {"fstat", 1, EIO, "open"},
                             {"ftruncate", 1, EINTR, ""},
                             {"ftruncate", 1, EIO, "open"},
                             {"write", 1, EINTR, ""},
                             {"write", 1, ENOSPC, "write"},
                             {"write", 3, ENOSPC, "close"},
                             {"close", 1, EINTR, ""},
                             {"close", 1, EIO, "close"},
                         }));

TEST_F(CredentialsCalls, ThroughALinkToNowhereFailWithTheirMessage)
{
    ASSERT_EQ(symlink("other", path.c_str()), 0);
    EXPECT_EQ(write_with({"open", 2, EMFILE}), file_failure("open", path, EMFILE));
    EXPECT_EQ(write_with({"open", 2, EINTR}), "");
    EXPECT_TRUE(content_of(dir / "other") == new_content);
}

// What is not known to be a new name may be such a link.
TEST_F(CredentialsCalls, ThatCannotTellALinkToNowhereDoNotReplaceIt)
{
    const std::string other = dir / "other";
    ASSERT_EQ(symlink("other", path.c_str()), 0);
    EXPECT_EQ(write_with({"lstat", 1, EIO}), "");
    EXPECT_TRUE(content_of(other) == new_content);
    EXPECT_EQ(dir.names(), (names_t{"credentials", "other"}));
}

// ---- cancellation ----

// A request to end the thread, met while the new file is made, waits until somebody removes it.
TEST_F(CredentialsCalls, CancelledLeaveTheOldAndNothingElse)
{
    make_old();
    const auto descriptors = open_descriptors();
    const failing_calls on({});
    sys_calls.mkostemp = [](char* name, int flags) {
        const int descriptor = real_calls.mkostemp(name, flags);
        pthread_cancel(pthread_self());
        pthread_testcancel();
        return descriptor;
    };
    bool was_cancelled = true;
    std::thread writer([&] {
        credentials.write_to_file(path);
        was_cancelled = false;
    });
    writer.join();
    EXPECT_TRUE(was_cancelled);
    EXPECT_EQ(content_of(path), old_content);
    EXPECT_EQ(dir.names(), names_t{"credentials"});
    EXPECT_EQ(open_descriptors(), descriptors);
}

// No close is a place to end the thread at: it stands in destructors, which may not throw.
TEST_F(CredentialsCalls, CancelledOnceEverythingIsOnTheDiskHaveReplacedTheOld)
{
    const auto descriptors = open_descriptors();
    for (const int nth : {1, 2}) {  // the file, the directory
        make_old();
        static int syncs_left;
        syncs_left = nth;
        const failing_calls on({});
        sys_calls.fsync = [](int) {
            if (--syncs_left == 0)
                pthread_cancel(pthread_self());
            return 0;
        };
        std::thread writer([&] { credentials.write_to_file(path); });
        writer.join();
        EXPECT_EQ(syncs_left, 0);
        EXPECT_TRUE(content_of(path) == new_content);
        EXPECT_EQ(dir.names(), names_t{"credentials"});
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

// ---- reading ----

TEST_F(CredentialsCalls, FailingReadsAreReported)
{
    set_content(path, new_content);
    const auto descriptors = open_descriptors();
    const auto read_with = [&](const fault_t& what, Credentials& into) -> std::string {
        const failing_calls on(what);
        try {
            into.read_from_file(path, false);
            return {};
        } catch (const RuntimeException& e) {
            EXPECT_EQ(e.stp_reason_code(), 39);
            return rendered(e);
        }
    };
    Credentials read;
    EXPECT_EQ(read_with({"open", 1, EMFILE}, read), file_failure("open", path, EMFILE));
    EXPECT_EQ(read_with({"read", 1, EIO}, read), file_failure("read", path, EIO));
    EXPECT_TRUE(read.user.is_nobody());
    EXPECT_EQ(read_with({"open", 1, EINTR, 5}, read), "");
    EXPECT_TRUE(model::same(read, credentials));
    EXPECT_EQ(read_with({"read", 1, EINTR, 5}, read), "");
    EXPECT_TRUE(model::same(read, credentials));
    EXPECT_EQ(read_with({"close", 1, EIO}, read), "") << "the close is not checked";
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(CredentialsCalls, ReadingLittleAtATimeReadEverything)
{
    set_content(path, new_content);
    const failing_calls on({});
    sys_calls.read = [](int descriptor, void* bytes, std::size_t size) {
        static int calls = 0;
        if (++calls % 3 == 0) {
            errno = EINTR;
            return ssize_t{-1};
        }
        return real_calls.read(descriptor, bytes, std::min<std::size_t>(size, 7));
    };
    Credentials read;
    read.read_from_file(path, false);
    EXPECT_TRUE(model::same(read, credentials));
}

TEST_F(CredentialsCalls, AreFewForAHundredRecords)
{
    Credentials hundred;
    hundred.groups.assign(98, model::identity(1, std::string(28, 'i')));
    hundred.write_to_file(path);
    static int reads;
    static int writes;
    reads = writes = 0;
    const failing_calls on({});
    sys_calls.read = [](int descriptor, void* bytes, std::size_t size) {
        ++reads;
        return real_calls.read(descriptor, bytes, size);
    };
    sys_calls.write = [](int descriptor, const void* bytes, std::size_t size) {
        ++writes;
        return real_calls.write(descriptor, bytes, size);
    };
    hundred.write_to_file(path);
    EXPECT_EQ(writes, 1);
    Credentials read;
    read.read_from_file(path, false);
    EXPECT_EQ(reads, 1);
}

// Files that end within a block, with it, and behind it, whole or in pieces of records that do.
TEST_F(CredentialsCalls, WriteAndReadEverySizeAroundABlock)
{
    for (const std::size_t around : {4096u, 8192u, 16384u, 32768u}) {
        for (std::size_t size = around - 12; size < around + 4; ++size) {
            for (const std::size_t first : {std::size_t{0}, std::size_t{1000}, size}) {
                Credentials all;
                all.user = model::identity(1, std::string(first, 'u'));
                all.primary_group = model::identity(2, std::string(size - first, 'g'));
                all.groups.push_back(model::identity(3, "last"));
                all.write_to_file(path);
                ASSERT_EQ(content_of(path), model::file(all)) << size << ' ' << first;
                Credentials read;
                read.read_from_file(path, false);
                ASSERT_TRUE(model::same(read, all)) << size << ' ' << first;
            }
        }
    }
}

// ---- memory ----

TEST_F(CredentialsCalls, FailingWithoutMemoryLeaveTheOldAndNothingElse)
{
    make_old();
    const auto descriptors = open_descriptors();
    const auto reject = [&] {
        const failing_calls on({"rename", 1, EIO});
        try {
            credentials.write_to_file(path);
            ADD_FAILURE() << "succeeded";
        } catch (const RuntimeException&) {
        }
    };
    const int faults = for_each_memory_fault(reject, [&] {
        EXPECT_EQ(content_of(path), old_content);
        EXPECT_EQ(dir.names(), names_t{"credentials"});
        EXPECT_EQ(open_descriptors(), descriptors);
    });
    EXPECT_GE(faults, 2);
}

}  // namespace
