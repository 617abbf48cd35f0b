// What files there are, and what becomes of them: kinds, rights, names, full disks, signals, and
// writers that are killed.

#include <kvutil/credentials.h>

#include "support/child.h"
#include "support/credentials_failure.h"
#include "support/credentials_model.h"
#include "support/files.h"
#include "support/restricted_child.h"
#include "support/sanitizer.h"
#include "support/scratch.h"
#include "support/text.h"
#include "support/watched_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

using Kvl::Credentials;
using Kvl::Identity;
using Kvl::RuntimeException;
using Kvl::UString;

namespace {

typedef std::vector<std::string> names_t;

Credentials sample()
{
    Credentials credentials;
    credentials.user = Identity::from_str(ustr("3:010a0b0c"));
    credentials.primary_group = Identity::from_str(ustr("1:02ff"));
    return credentials;
}

/// More than is held back.
Credentials large_sample()
{
    Credentials credentials = sample();
    credentials.groups.assign(3, model::identity(7, std::string(20000, 'g')));
    return credentials;
}

struct stat status_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t mode_of(const std::string& path)
{
    return status_of(path).st_mode & 07777;
}

void expect_not_written(const Credentials& credentials, const std::string& verb,
                        const std::string& path, int error)
{
    const auto descriptors = open_descriptors();
    expect_failure<RuntimeException>([&] { credentials.write_to_file(path); },
                                     file_failure(verb, path, error));
    EXPECT_EQ(open_descriptors(), descriptors);
}

void expect_not_read(const std::string& verb, const std::string& path, int error)
{
    const auto descriptors = open_descriptors();
    Credentials credentials = sample();
    expect_failure<RuntimeException>([&] { credentials.read_from_file(path, false); },
                                     file_failure(verb, path, error));
    EXPECT_TRUE(model::same(credentials, sample()));
    EXPECT_EQ(open_descriptors(), descriptors);
}

class CredentialsFiles : public testing::Test {
protected:
    const scratch_t dir;
    const std::string path = dir / "credentials";
    const std::string content = model::file(sample());

    CredentialsFiles() { chmod(dir.path.c_str(), 0777); }  // for those without privileges
};

// ---- what cannot be opened ----

TEST_F(CredentialsFiles, ThatAreMissingCannotBeRead)
{
    expect_not_read("open", path, ENOENT);
    expect_failure<RuntimeException>(
        [&] { Credentials().read_from_file("/no/such/file", true); },
        "PLXSV0665E Unable to open file '/no/such/file': No such file or directory.");
    expect_failure<RuntimeException>(
        [&] { sample().write_to_file("/no/such/file"); },
        "PLXSV0665E Unable to open file '/no/such/file': No such file or directory.");
}

TEST_F(CredentialsFiles, WithImpossibleNamesCannotBeOpened)
{
    set_content(path, "no directory");
    const std::string too_long(256, 'n');
    const struct {
        std::string path;
        int error;
    } rows[] = {
        {"", ENOENT},
        {dir / "no/such", ENOENT},
        {path + "/x", ENOTDIR},
        {dir / too_long, ENAMETOOLONG},
        {std::string(5000, '/') + "x", ENAMETOOLONG},
    };
    for (const auto& row : rows) {
        expect_not_read("open", row.path, row.error);
        expect_not_written(sample(), "open", row.path, row.error);
    }
    expect_not_read("open", path + "/", ENOTDIR);
    expect_not_written(sample(), "open", path + "/", ENOTDIR);
    expect_not_written(sample(), "open", dir / "new/", EISDIR);
    EXPECT_EQ(dir.names(), names_t{"credentials"});
}

// The system would take the name to end at the zero.
TEST_F(CredentialsFiles, WithAZeroByteInTheNameDoNotExist)
{
    set_content(path, "other");
    const std::string name = path + std::string("\0x", 2);
    for (const bool reading : {false, true}) {
        try {
            Credentials credentials;
            reading ? credentials.read_from_file(name, false) : credentials.write_to_file(name);
            ADD_FAILURE() << "opened";
        } catch (const RuntimeException& e) {
            EXPECT_EQ(e.message().index(), 15);
        }
    }
    EXPECT_EQ(content_of(path), "other");
}

TEST_F(CredentialsFiles, ThatAreDirectoriesAreOpenedForReadingOnly)
{
    expect_not_read("read", dir.path, EISDIR);
    expect_not_written(sample(), "open", dir.path, EISDIR);
    expect_not_written(sample(), "open", dir.path + "/", EISDIR);
    expect_not_written(sample(), "open", dir / ".", EISDIR);
}

TEST_F(CredentialsFiles, ThatMayNotBeReadOrWrittenAreRefused)
{
    const bool allowed = without_privileges([&] {
        sample().write_to_file(path);
        chmod(path.c_str(), 0400);
        expect_not_written(large_sample(), "open", path, EACCES);
        EXPECT_EQ(content_of(path), content);
        EXPECT_EQ(mode_of(path), 0400u);
        chmod(path.c_str(), 0200);
        expect_not_read("open", path, EACCES);
        EXPECT_EQ(dir.names(), names_t{"credentials"});
    });
    if (!allowed)
        GTEST_SKIP() << "cannot become an ordinary user";
}

TEST_F(CredentialsFiles, CannotBeMadeInADirectoryThatIsNotOurs)
{
    chmod(dir.path.c_str(), 0555);
    const bool allowed =
        without_privileges([&] { expect_not_written(sample(), "open", path, EACCES); });
    if (!allowed)
        GTEST_SKIP() << "cannot become an ordinary user";
    EXPECT_EQ(dir.names(), names_t{});
}

// In the charset of the platform, with the substitution character for each byte that has no
// meaning there.
TEST_F(CredentialsFiles, AreNamedInMessagesWhateverTheirBytes)
{
    const std::string name = "/no/f\xC3\xBCr/\xFF";
    const bool is_utf8 = std::string(UString::default_charset()) == "UTF-8";
    const std::string shown =
        is_utf8 ? "/no/f\xC3\xBCr/\xEF\xBF\xBD" : "/no/f\xEF\xBF\xBD\xEF\xBF\xBDr/\xEF\xBF\xBD";
    if (!is_utf8 && std::string(UString::default_charset()) != "US-ASCII")
        GTEST_SKIP() << "not made for the charset " << UString::default_charset();
    expect_failure<RuntimeException>([&] { Credentials().read_from_file(name, false); },
                                     file_failure("open", shown, ENOENT));
    expect_failure<RuntimeException>([&] { sample().write_to_file(name); },
                                     file_failure("open", shown, ENOENT));
}

TEST_F(CredentialsFiles, AreNamedInMessagesInEachCharset)
{
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    for (const char* locale : {"C", "C.UTF-8"}) {
        const bool allowed = in_restricted_child([&]() -> int {
            setenv("LC_ALL", locale, 1);
            execl(self, self,
                  "--gtest_filter=CredentialsFiles.AreNamedInMessagesWhateverTheirBytes",
                  "--gtest_brief=1", nullptr);
            return 1;
        });
        EXPECT_TRUE(allowed);
    }
}

// ---- what is replaced ----

TEST_F(CredentialsFiles, ThatAreNewAreTheOwnersAlone)
{
    for (const mode_t mask : {0u, 022u, 077u}) {
        const mode_t before = umask(mask);
        sample().write_to_file(path);
        umask(before);
        EXPECT_EQ(mode_of(path), 0600u);
        EXPECT_EQ(content_of(path), content);
        unlink(path.c_str());
    }
}

TEST_F(CredentialsFiles, ThatAreReplacedKeepTheirModeAndOwner)
{
    const bool allowed = without_privileges([&] {
        for (const mode_t mode : {0600u, 0640u, 0666u, 0200u, 0755u, 01600u}) {
            set_content(path, "old");
            chmod(path.c_str(), mode);
            const struct stat before = status_of(path);
            const mode_t mask = umask(077);
            sample().write_to_file(path);
            umask(mask);
            const struct stat after = status_of(path);
            EXPECT_EQ(after.st_mode, before.st_mode);
            EXPECT_EQ(after.st_uid, before.st_uid);
            EXPECT_EQ(after.st_gid, before.st_gid);
            EXPECT_NE(after.st_ino, before.st_ino) << "another file";
            chmod(path.c_str(), 0600);
            EXPECT_EQ(content_of(path), content);
            EXPECT_EQ(dir.names(), names_t{"credentials"});
            unlink(path.c_str());
        }
    });
    if (!allowed)
        GTEST_SKIP() << "cannot become an ordinary user";
}

TEST_F(CredentialsFiles, ThatAreReplacedKeepTheirGroup)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot give a file to another group";
    set_content(path, "old");
    ASSERT_EQ(chown(path.c_str(), 0, 12345), 0);
    const struct stat before = status_of(path);
    sample().write_to_file(path);
    EXPECT_EQ(status_of(path).st_gid, 12345u);
    EXPECT_NE(status_of(path).st_ino, before.st_ino);
}

TEST_F(CredentialsFiles, AreReplacedForThoseWhoHaveThemOpen)
{
    large_sample().write_to_file(path);
    const int open_before = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    sample().write_to_file(path);
    struct stat status = {};
    fstat(open_before, &status);
    EXPECT_EQ(status.st_nlink, 0u);
    EXPECT_EQ(static_cast<std::size_t>(status.st_size), model::file(large_sample()).size());
    close(open_before);
}

TEST_F(CredentialsFiles, MayHaveTheLongestName)
{
    const std::string longest = dir / std::string(255, 'n');
    sample().write_to_file(longest);
    sample().write_to_file(longest);
    EXPECT_EQ(content_of(longest), content);
    EXPECT_EQ(dir.names(), names_t{std::string(255, 'n')});
}

// A path of 4095 bytes, the most that the system takes, has no room for a longer name beside it.
TEST_F(CredentialsFiles, MayHaveTheLongestPath)
{
    const std::string longest = dir.path + std::string(4095 - dir.path.size() - 1, '/') + "c";
    sample().write_to_file(longest);
    EXPECT_EQ(content_of(longest), content);
    large_sample().write_to_file(longest);
    EXPECT_EQ(content_of(longest), model::file(large_sample()));
    EXPECT_EQ(dir.names(), names_t{"c"});
}

TEST_F(CredentialsFiles, MayBeInTheCurrentDirectory)
{
    in_child([&] {
        EXPECT_EQ(chdir(dir.path.c_str()), 0);
        sample().write_to_file("c");
        sample().write_to_file("c");
        EXPECT_EQ(content_of("c"), content);
        EXPECT_EQ(dir.names(), names_t{"c"});
    });
}

TEST_F(CredentialsFiles, MayHaveAnyBytesInTheirNames)
{
    const std::string name = dir / "\xFF\n'%s";
    sample().write_to_file(name);
    Credentials read;
    read.read_from_file(name, false);
    EXPECT_TRUE(model::same(read, sample()));
}

// ---- what is written in place ----

TEST_F(CredentialsFiles, ThatALinkNamesAreWrittenInPlace)
{
    const std::string link = dir / "link";
    ASSERT_EQ(symlink("credentials", link.c_str()), 0);
    sample().write_to_file(link);  // to nowhere, until now
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(mode_of(path), 0600u);
    const ino_t file = status_of(path).st_ino;
    set_content(path, std::string(100000, 'x'));
    sample().write_to_file(link);
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, file);
    EXPECT_TRUE(S_ISLNK(status_of(link).st_mode));
    EXPECT_EQ(dir.names(), (names_t{"credentials", "link"}));
}

TEST_F(CredentialsFiles, WithALinkToItselfCannotBeOpened)
{
    ASSERT_EQ(symlink("credentials", path.c_str()), 0);
    expect_not_written(sample(), "open", path, ELOOP);
    expect_not_read("open", path, ELOOP);
}

TEST_F(CredentialsFiles, WithSeveralNamesAreWrittenInPlace)
{
    const std::string other = dir / "other";
    set_content(path, std::string(100000, 'x'));
    ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
    sample().write_to_file(path);
    EXPECT_EQ(content_of(other), content);
    EXPECT_EQ(status_of(other).st_nlink, 2u);
}

TEST_F(CredentialsFiles, OfOthersAreWrittenInPlace)
{
    set_content(path, std::string(100000, 'x'));
    chmod(path.c_str(), 0666);
    const struct stat before = status_of(path);
    const bool allowed =
        geteuid() == 0 && without_privileges([&] { sample().write_to_file(path); });
    if (!allowed)
        GTEST_SKIP() << "cannot become another user";
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, before.st_ino);
    EXPECT_EQ(status_of(path).st_uid, before.st_uid);
}

TEST_F(CredentialsFiles, InADirectoryThatIsNotOursAreWrittenInPlace)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot become another user";
    set_content(path, std::string(100000, 'x'));
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    chmod(dir.path.c_str(), 0555);
    const ino_t file = status_of(path).st_ino;
    without_privileges([&] { sample().write_to_file(path); });
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, file);
}

// Whoever may do anything could give another file to the same owner; it still would be another
// file.
TEST_F(CredentialsFiles, OfOthersAreWrittenInPlaceByTheSuperuserToo)
{
    set_content(path, std::string(100000, 'x'));
    if (geteuid() != 0 || chown(path.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "cannot give a file to another user";
    const struct stat before = status_of(path);
    sample().write_to_file(path);
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, before.st_ino);
    EXPECT_EQ(status_of(path).st_uid, 65534u);
}

// A group of which its owner is no member cannot be given to another file.
TEST_F(CredentialsFiles, OfAForeignGroupAreWrittenInPlace)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot give a file to another group";
    set_content(path, "old");
    ASSERT_EQ(chown(path.c_str(), 65534, 12345), 0);
    const ino_t file = status_of(path).st_ino;
    without_privileges([&] { sample().write_to_file(path); });
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, file);
    EXPECT_EQ(status_of(path).st_gid, 12345u);
    EXPECT_EQ(dir.names(), names_t{"credentials"});
}

// ---- access control lists ----

constexpr char ACCESS_LIST[] = "system.posix_acl_access";
constexpr char DEFAULT_LIST[] = "system.posix_acl_default";

/// @return whether there can be such lists here
bool set_list(const std::string& path, const char* name)
{
    // Version 2; entries of tag, rights and id: owner rw, user 1 rw, group none, mask rw, others
    // none.
    const unsigned char list[] = {2,    0,    0,    0,    0x01, 0,    6,    0,    0xff, 0xff, 0xff,
                                  0xff, 0x02, 0,    6,    0,    1,    0,    0,    0,    0x04, 0,
                                  0,    0,    0xff, 0xff, 0xff, 0xff, 0x10, 0,    6,    0,    0xff,
                                  0xff, 0xff, 0xff, 0x20, 0,    0,    0,    0xff, 0xff, 0xff, 0xff};
    return setxattr(path.c_str(), name, list, sizeof list, 0) == 0;
}

bool has_list(const std::string& path)
{
    return getxattr(path.c_str(), ACCESS_LIST, nullptr, 0) >= 0;
}

// Otherwise its rights would be lost, and its mask would become the rights of the group.
TEST_F(CredentialsFiles, WithAnAccessControlListAreWrittenInPlace)
{
    set_content(path, "old");
    if (!set_list(path, ACCESS_LIST))
        GTEST_SKIP() << "no access control lists here";
    const ino_t file = status_of(path).st_ino;
    sample().write_to_file(path);
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(status_of(path).st_ino, file);
    EXPECT_TRUE(has_list(path));
}

// Otherwise those whom the directory grants rights to its new files could read what was kept from
// them.
TEST_F(CredentialsFiles, ThatAreReplacedTakeNoListFromTheirDirectory)
{
    set_content(path, "old");
    chmod(path.c_str(), 0640);
    if (!set_list(dir.path, DEFAULT_LIST))
        GTEST_SKIP() << "no access control lists here";
    const ino_t file = status_of(path).st_ino;
    sample().write_to_file(path);
    EXPECT_EQ(content_of(path), content);
    EXPECT_NE(status_of(path).st_ino, file);
    EXPECT_EQ(mode_of(path), 0640u);
    EXPECT_FALSE(has_list(path));
}

TEST_F(CredentialsFiles, ThatAreNewAreTheOwnersAloneWhateverTheListOfTheirDirectory)
{
    if (!set_list(dir.path, DEFAULT_LIST))
        GTEST_SKIP() << "no access control lists here";
    sample().write_to_file(path);
    EXPECT_EQ(content_of(path), content);
    EXPECT_EQ(mode_of(path), 0600u) << "the rights of the group are those of the list at most";
}

// ---- devices and pipes ----

TEST_F(CredentialsFiles, OnAFullDeviceFailAtTheCloseOrAtTheWrite)
{
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full";
    expect_not_written(sample(), "close", "/dev/full", ENOSPC);
    expect_not_written(large_sample(), "write", "/dev/full", ENOSPC);
    EXPECT_TRUE(S_ISCHR(status_of("/dev/full").st_mode));
}

TEST_F(CredentialsFiles, MayBeTheNullDevice)
{
    sample().write_to_file("/dev/null");
    EXPECT_TRUE(S_ISCHR(status_of("/dev/null").st_mode));
    expect_not_read("read", "/dev/null", 0);
}

TEST_F(CredentialsFiles, MayBeAPipeBothWays)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const Credentials written = large_sample();
    std::thread writer([&] { written.write_to_file(path); });
    Credentials read;
    read.read_from_file(path, false);
    writer.join();
    EXPECT_TRUE(model::same(read, written));
    EXPECT_TRUE(S_ISFIFO(status_of(path).st_mode));
    EXPECT_EQ(dir.names(), names_t{"credentials"});
}

TEST_F(CredentialsFiles, OnABrokenPipeFail)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    in_restricted_child([&] {
        signal(SIGPIPE, SIG_IGN);
        std::thread reader([&] { close(open(path.c_str(), O_RDONLY | O_CLOEXEC)); });
        Credentials endless;
        endless.groups.assign(1000, model::identity(7, std::string(65535, 'g')));
        expect_failure<RuntimeException>([&] { endless.write_to_file(path); },
                                         file_failure("write", path, EPIPE));
        reader.join();
        return 0;
    });
}

// ---- signals ----

/// Signals to this process while it waits in a system call. A child of it sends them, one at a
/// time, and learns that each was handled.
class interruptions {
public:
    interruptions()
    {
        handled = new (mmap(nullptr, sizeof *handled, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<int>(0);
        struct sigaction action = {};
        action.sa_handler = [](int) { ++*handled; };
        action.sa_flags = 0;  // no SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~interruptions()
    {
        signal(SIGUSR1, SIG_IGN);
        munmap(handled, sizeof *handled);
    }
    interruptions(const interruptions&) = delete;
    interruptions& operator=(const interruptions&) = delete;

    /// Interrupts the call in which the process waits, or will wait. To be called by the child.
    void send() const
    {
        const int before = *handled;
        while (state_of_process(process_) != 'S' && lives())
            usleep(100);
        kill(process_, SIGUSR1);
        while (*handled == before && lives())
            usleep(100);
    }

    int count() const { return *handled; }

private:
    bool lives() const { return kill(process_, 0) == 0; }
    static inline std::atomic<int>* handled = nullptr;
    const pid_t process_ = getpid();
};

/// fork() for a child that does not outlive its parent, which may fail to open what it waits for.
pid_t fork_companion()
{
    const pid_t child = fork();
    if (child == 0)
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    return child;
}

/// The status with which a child ends, however many signals arrive meanwhile.
int status_at_end(pid_t child)
{
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// The peer opens, and takes or gives more, only when the process waits for it and was interrupted.
TEST_F(CredentialsFiles, AreReadThroughAPipeAlthoughSignalsArrive)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const std::string texts =
        model::text_record("1") + model::text_record("3") + model::text_record("2");
    const std::string whole = model::file(large_sample()) + texts;
    in_restricted_child([&] {
        const interruptions signals;
        const pid_t writer = fork_companion();
        if (writer == 0) {
            signals.send();
            const int pipe = open(path.c_str(), O_WRONLY);
            for (std::size_t at = 0; at < whole.size(); at += 5000) {
                signals.send();
                const std::string piece = whole.substr(at, 5000);
                if (write(pipe, piece.data(), piece.size()) < 0)
                    _exit(1);
            }
            _exit(0);
        }
        Credentials read;
        read.read_from_file(path, true);
        EXPECT_GT(signals.count(), 10);
        EXPECT_TRUE(read.groups == large_sample().groups);
        EXPECT_EQ(read.text2, ustr("2"));
        EXPECT_EQ(status_at_end(writer), 0);
        return 0;
    });
}

TEST_F(CredentialsFiles, AreWrittenThroughAPipeAlthoughSignalsArrive)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    Credentials large = large_sample();
    large.groups.resize(20, large.groups[0]);
    in_restricted_child([&] {
        const interruptions signals;
        const pid_t reader = fork_companion();
        if (reader == 0) {
            signals.send();
            const int pipe = open(path.c_str(), O_RDONLY);
            std::string content_read;
            char bytes[20000];
            for (;;) {
                signals.send();
                const ssize_t n = read(pipe, bytes, sizeof bytes);
                if (n <= 0)
                    break;
                content_read.append(bytes, static_cast<std::size_t>(n));
            }
            _exit(content_read == model::file(large) ? 0 : 1);
        }
        large.write_to_file(path);
        EXPECT_GT(signals.count(), 10);
        EXPECT_EQ(status_at_end(reader), 0);
        return 0;
    });
}

// The stream of a caller knows nothing of our way with signals.
TEST_F(CredentialsFiles, StringsAreReadAlthoughSignalsArrive)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text(3000, 't');
    in_restricted_child([&] {
        const interruptions signals;
        const pid_t writer = fork_companion();
        if (writer == 0) {
            for (const char byte : model::text_record(text).substr(0, 30)) {
                signals.send();
                if (write(ends[1], &byte, 1) != 1)
                    _exit(1);
            }
            const std::string rest = model::text_record(text).substr(30);
            _exit(write(ends[1], rest.data(), rest.size()) < 0 ? 1 : 0);
        }
        Kvl::UtlFileIoPtr file(fdopen(ends[0], "rb"));
        EXPECT_EQ(Credentials::read_string("pipe", file), ustr(text));
        EXPECT_EQ(std::ferror(file.get()), 0);
        EXPECT_EQ(signals.count(), 30);
        EXPECT_EQ(status_at_end(writer), 0);
        return 0;
    });
    close(ends[0]);
    close(ends[1]);
}

// ---- cancellation ----

/// Cancels a thread that `operation` holds up, once it is there.
template <class Operation>
void cancel_while_waiting(Operation operation)
{
    const auto descriptors = open_descriptors();
    watched_t watched;
    auto watched_operation = [&] {
        watched.watch_me();
        operation();
    };
    const auto run = [](void* argument) -> void* {
        (*static_cast<decltype(watched_operation)*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &watched_operation), 0);
    EXPECT_TRUE(watched.falls_asleep());
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(CredentialsFiles, AreClosedWhenTheThreadThatUsesThemIsCancelled)
{
    // It takes what a cancellation leaves of inner frames for live ones, and stops at the clean-up
    // of the outer ones.
    if (HAS_ADDRESS_SANITIZER)
        GTEST_SKIP() << "the address sanitizer does not follow the cancellation of a thread";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    cancel_while_waiting([&] { Credentials().read_from_file(path, false); });
    cancel_while_waiting([&] { sample().write_to_file(path); });
    const int both_ends = open(path.c_str(), O_RDWR | O_CLOEXEC);  // open, and never anything there
    cancel_while_waiting([&] { Credentials().read_from_file(path, false); });
    cancel_while_waiting([&] {
        Credentials endless;
        endless.groups.assign(10, model::identity(7, std::string(65535, 'g')));
        endless.write_to_file(path);
    });
    close(both_ends);
}

// ---- full disks ----

/// Runs `operation` in a child, with a small file system of its own in `directory`.
template <class Operation>
bool on_small_disk(const std::string& directory, const char* options, Operation operation)
{
    return in_restricted_child([&] {
        if (unshare(CLONE_NEWNS) != 0)
            return NOT_ALLOWED;
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        if (mount("none", directory.c_str(), "tmpfs", 0, options) != 0)
            return NOT_ALLOWED;
        operation();
        return 0;
    });
}

TEST_F(CredentialsFiles, OnAFullDiskKeepTheirOldContent)
{
    const bool allowed = on_small_disk(dir.path, "size=64k", [&] {
        sample().write_to_file(path);
        const std::string filler = dir / "filler";
        const int descriptor = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string page(4096, 'f');
        while (write(descriptor, page.data(), page.size()) > 0)
            continue;
        close(descriptor);
        Credentials other = sample();
        other.user = model::identity(1, "other");
        expect_not_written(other, "close", path, ENOSPC);
        expect_not_written(large_sample(), "write", path, ENOSPC);
        expect_not_written(other, "close", dir / "new", ENOSPC);
        EXPECT_EQ(content_of(path), content);
        EXPECT_EQ(dir.names(), (names_t{"credentials", "filler"}));
    });
    if (!allowed)
        GTEST_SKIP() << "cannot mount a file system";
}

TEST_F(CredentialsFiles, OnADiskWithoutRoomForNamesKeepTheirOldContent)
{
    const bool allowed = on_small_disk(dir.path, "nr_inodes=2", [&] {
        sample().write_to_file(path);  // the directory and this file are all there can be
        const ino_t file = status_of(path).st_ino;
        expect_not_written(large_sample(), "open", path, ENOSPC);
        expect_not_written(sample(), "open", dir / "new", ENOSPC);
        EXPECT_EQ(content_of(path), content);
        EXPECT_EQ(status_of(path).st_ino, file);
    });
    if (!allowed)
        GTEST_SKIP() << "cannot mount a file system";
}

TEST_F(CredentialsFiles, OnAReadOnlyDiskAreRefused)
{
    const bool allowed = on_small_disk(dir.path, "size=64k", [&] {
        sample().write_to_file(path);
        ASSERT_EQ(mount(nullptr, dir.path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        expect_not_written(large_sample(), "open", path, EROFS);
        expect_not_written(sample(), "open", dir / "new", EROFS);
        EXPECT_EQ(content_of(path), content);
    });
    if (!allowed)
        GTEST_SKIP() << "cannot mount a file system";
}

// A single file that is mounted, as containers do, cannot be replaced by another.
TEST_F(CredentialsFiles, ThatAreMountPointsAreWrittenInPlace)
{
    const bool allowed = on_small_disk(dir.path, "size=640k", [&] {
        set_content(path, std::string(100, 'o'));
        const std::string mounted = dir / "mounted";
        set_content(mounted, "");
        ASSERT_EQ(mount(path.c_str(), mounted.c_str(), nullptr, MS_BIND, nullptr), 0);
        large_sample().write_to_file(mounted);
        EXPECT_EQ(content_of(path), model::file(large_sample()));
        sample().write_to_file(mounted);
        EXPECT_EQ(content_of(path), content);
        EXPECT_EQ(dir.names(), (names_t{"credentials", "mounted"}));
    });
    if (!allowed)
        GTEST_SKIP() << "cannot mount a file";
}

// In /proc are regular files of ours, beside which no other can be made.
TEST_F(CredentialsFiles, OfTheKernelAreWrittenInPlace)
{
    const std::string name_of_this_thread = "/proc/thread-self/comm";
    char former[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, former), 0);
    Credentials credentials;
    credentials.groups.resize('k');
    credentials.write_to_file(name_of_this_thread);
    EXPECT_EQ(content_of(name_of_this_thread), "k\n");  // it ends at the first zero byte
    EXPECT_EQ(prctl(PR_SET_NAME, former), 0);
}

// ---- killed ----

/// Kills a child that writes `credentials` at its nth stop: before or after a system call.
/// @return whether it was still running then
bool kill_writer(const Credentials& credentials, const std::string& path, int nth, bool& allowed)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(NOT_ALLOWED);
        raise(SIGSTOP);
        credentials.write_to_file(path);
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    for (int stop = 0; WIFSTOPPED(status) && stop < nth; ++stop) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &status, 0);
    }
    const bool was_running = WIFSTOPPED(status);
    if (was_running) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
    } else {
        allowed = WEXITSTATUS(status) != NOT_ALLOWED;
    }
    return was_running;
}

/// Kills writers at every system call, beginning each time with `prepare`.
/// @return the contents that were left, in the order of the calls
template <class Prepare, class Content>
std::vector<std::string> contents_after_kills(const Credentials& credentials,
                                              const std::string& path, Prepare prepare,
                                              Content content, bool& allowed)
{
    std::vector<std::string> contents;
    bool was_running = true;
    for (int nth = 1; was_running && nth < 1000; ++nth) {
        prepare();
        was_running = kill_writer(credentials, path, nth, allowed);
        contents.push_back(content());
    }
    return contents;
}

/// Whether they are the old one, in the end the new one, and nothing else. Where between it turns
/// may differ by a call from one child to the next.
void expect_turn(const std::vector<std::string>& contents, const std::string& old_content,
                 const std::string& new_content)
{
    const auto old_ones = std::count(contents.begin(), contents.end(), old_content);
    const auto new_ones = std::count(contents.begin(), contents.end(), new_content);
    EXPECT_EQ(static_cast<std::size_t>(old_ones + new_ones), contents.size());
    EXPECT_GT(old_ones, 16) << "two stops for each call";
    EXPECT_GT(new_ones, 2);
    EXPECT_TRUE(contents.front() == old_content);
    EXPECT_TRUE(contents.back() == new_content);
}

TEST_F(CredentialsFiles, HoldTheOldOrTheNewWhenTheWriterIsKilled)
{
    const std::string new_content = model::file(large_sample());
    bool allowed = true;
    const auto contents = contents_after_kills(
        large_sample(), path,
        [&] {
            for (const std::string& name : dir.names())
                unlink((dir / name).c_str());
            set_content(path, content);
        },
        [&] { return content_of(path); }, allowed);
    if (!allowed)
        GTEST_SKIP() << "cannot trace a process";
    expect_turn(contents, content, new_content);
}

TEST_F(CredentialsFiles, AreThereOrNotWhenTheWriterOfANewOneIsKilled)
{
    const std::string none = "none";
    const std::string new_content = model::file(large_sample());
    bool allowed = true;
    const auto contents = contents_after_kills(
        large_sample(), path,
        [&] {
            for (const std::string& name : dir.names())
                unlink((dir / name).c_str());
        },
        [&] { return access(path.c_str(), F_OK) == 0 ? content_of(path) : none; }, allowed);
    if (!allowed)
        GTEST_SKIP() << "cannot trace a process";
    expect_turn(contents, none, new_content);
}

// What a killed writer leaves behind is in nobody's way.
TEST_F(CredentialsFiles, AreWrittenBesideWhatAKilledWriterLeft)
{
    bool allowed = true;
    for (int nth = 1; nth < 1000 && kill_writer(large_sample(), path, nth, allowed); ++nth)
        EXPECT_NO_THROW(sample().write_to_file(path));
    if (!allowed)
        GTEST_SKIP() << "cannot trace a process";
    EXPECT_EQ(content_of(path), model::file(large_sample()));
}

}  // namespace
