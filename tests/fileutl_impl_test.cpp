// Temporary files over system calls that fail, in ways and numbers that no real system would.

#include "fileutl_impl.h"
#include "sys_calls_impl.h"

#include <kvutil/fileutl.h>
#include <kvutil/stpexception.h>

#include "support/child.h"
#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/scratch.h"
#include "support/text.h"
#include "support/watched_thread.h"

#include <gmock/gmock.h>
#include <unicode/ucnv.h>

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <future>
#include <thread>

namespace {

using Kvl::CriticalSection;
using Kvl::Fileutl;
using Kvl::RuntimeException;
using Kvl::STPException;
using Kvl::sys_calls;
using Kvl::UString;
using Kvl::FileutlImpl::change_lock;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

/// What the replaced calls were asked for, in order, and what they are to answer.
struct script_t {
    std::vector<std::string> calls;
    std::deque<int> errors;    // one for each attempt to make an object; success when it is empty
    int every_error = 0;       // when `errors` is empty
    std::string not_writable;  // the names, each between blanks, that access() refuses
    int access_to_tmp = 0;     // how often it has been asked about "/tmp"
};

script_t script;

int answer(const std::string& call, int success)
{
    script.calls.push_back(call);
    int error = script.every_error;
    if (!script.errors.empty()) {
        error = script.errors.front();
        script.errors.pop_front();
    }
    errno = error;
    return error == 0 ? success : -1;
}

constexpr int DESCRIPTOR = 4711;

std::string octal(unsigned int mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

int scripted_open(const char* path, int flags, mode_t mode)
{
    EXPECT_EQ(flags, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC);
    return answer("open " + std::string(path) + " " + octal(mode), DESCRIPTOR);
}

int scripted_mkdir(const char* path, mode_t mode)
{
    return answer("mkdir " + std::string(path) + " " + octal(mode), 0);
}

int failing_close(int descriptor)
{
    script.calls.push_back("close " + std::to_string(descriptor));
    errno = EINTR;
    return -1;
}

int failing_remove(const char* path)
{
    script.calls.push_back("remove " + std::string(path));
    errno = EACCES;
    return -1;
}

int failing_rmdir(const char* path)
{
    script.calls.push_back("rmdir " + std::string(path));
    errno = EBUSY;
    return -1;
}

int scripted_access(const char* path, int mode)
{
    EXPECT_EQ(mode, W_OK);
    script.calls.push_back("access " + std::string(path));
    const bool refuses =
        script.not_writable.find(" " + std::string(path) + " ") != std::string::npos;
    errno = refuses ? EACCES : 0;
    return refuses ? -1 : 0;
}

/// In a process of its own with "TMP" set to "/t" and every call replaced.
template <class Body>
void with_scripted_calls(Body body)
{
    in_child([&] {
        setenv("TMP", "/t", 1);
        unsetenv("TMPDIR");
        sys_calls.open = scripted_open;
        sys_calls.close = failing_close;
        sys_calls.access = scripted_access;
        sys_calls.mkdir = scripted_mkdir;
        sys_calls.remove = failing_remove;
        sys_calls.rmdir = failing_rmdir;
        body();
    });
}

/// The same, with the directory known.
template <class Body>
void with_scripted_objects(Body body)
{
    with_scripted_calls([&] {
        Fileutl::sys_tmpdir();
        script.calls.clear();
        body();
    });
}

void fail_next(std::initializer_list<int> errors)
{
    script.errors.assign(errors);
}

std::string refusal_of(const char16_t* prefix, bool is_dir)
{
    try {
        Fileutl::make_tmp_object(prefix, is_dir);
        return "made";
    } catch (const STPException& e) {
        EXPECT_EQ(typeid(e), typeid(STPException));
        EXPECT_EQ(e.stp_reason_code(), 40);
        return rendered(e);
    }
}

const std::string REFUSAL = "PLXSV0664E Cannot create temporary file system object: ";

TEST(SysTmpdirCalls, AskForEachCandidateInTurn)
{
    with_scripted_calls([] {
        setenv("TMP", "/a", 1);
        setenv("TMPDIR", "/b", 1);
        script.not_writable = " /a ";
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr("/b"));
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr("/b"));
        EXPECT_THAT(script.calls, ElementsAre("access /a", "access /b"));
    });
}

TEST(SysTmpdirCalls, AskTwiceForTheLastCandidate)
{
    with_scripted_calls([] {
        setenv("TMP", "/a", 1);
        setenv("TMPDIR", "", 1);
        script.not_writable = " /a  /tmp   ";  // the empty name stands between two blanks
        for (int i = 0; i < 2; ++i) {
            script.calls.clear();
            try {
                Fileutl::sys_tmpdir();
                ADD_FAILURE() << "nothing thrown";
            } catch (const RuntimeException& e) {
                EXPECT_EQ(e.stp_reason_code(), 39);
                EXPECT_EQ(rendered(e),
                          "PLXSV0669E Error converting '/tmp' to default character set.");
            }
            EXPECT_THAT(script.calls,
                        ElementsAre("access /a", "access ", "access /tmp", "access /tmp"));
        }
        script.not_writable.clear();
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr("/a"));
    });
}

TEST(SysTmpdirCalls, TakeTheSecondAnswerAboutTheLastCandidate)
{
    with_scripted_calls([] {
        unsetenv("TMP");
        sys_calls.access = [](const char* path, int) {
            EXPECT_STREQ(path, "/tmp");
            return ++script.access_to_tmp == 2 ? 0 : -1;
        };
        EXPECT_EQ(Fileutl::sys_tmpdir(), ustr("/tmp"));
        EXPECT_EQ(script.access_to_tmp, 2);
    });
}

TEST(SysTmpdirCalls, FailForTheRoot)
{
    with_scripted_calls([] {
        setenv("TMP", "/", 1);
        setenv("TMPDIR", "/b", 1);
        try {
            Fileutl::sys_tmpdir();
            ADD_FAILURE() << "nothing thrown";
        } catch (const RuntimeException& e) {
            EXPECT_EQ(e.stp_reason_code(), 39);
            EXPECT_EQ(rendered(e), "PLXSV0669E Error converting '/' to default character set.");
        }
        EXPECT_THAT(script.calls, ElementsAre("access /"));
    });
}

TEST(MakeTmpObjectCalls, OpenExclusivelyAndCloseOnce)
{
    with_scripted_objects([] {
        EXPECT_EQ(Fileutl::make_tmp_object(u"x", false), ustr("/t/x0"));
        EXPECT_THAT(script.calls, ElementsAre("open /t/x0 0600", "close 4711"));
    });
}

TEST(MakeTmpObjectCalls, MakeADirectoryForAll)
{
    with_scripted_objects([] {
        EXPECT_EQ(Fileutl::make_tmp_object(u"x", true), ustr("/t/x0"));
        EXPECT_THAT(script.calls, ElementsAre("mkdir /t/x0 0777"));
    });
}

TEST(MakeTmpObjectCalls, RepeatWhatWasInterrupted)
{
    for (const bool is_dir : {false, true}) {
        with_scripted_objects([&] {
            fail_next({EINTR, EINTR, EEXIST, EINTR});
            EXPECT_EQ(Fileutl::make_tmp_object(u"x", is_dir), ustr("/t/x1"));
            const std::string call = is_dir ? "mkdir /t/x" : "open /t/x";
            const std::string mode = is_dir ? " 0777" : " 0600";
            script.calls.resize(5);
            EXPECT_THAT(script.calls,
                        ElementsAre(call + "0" + mode, call + "0" + mode, call + "0" + mode,
                                    call + "1" + mode, call + "1" + mode));
        });
    }
}

TEST(MakeTmpObjectCalls, DoNotCountInterruptions)
{
    with_scripted_objects([] {
        script.errors.assign(20000, EINTR);
        for (int i = 0; i < 9999; ++i)
            script.errors.push_back(EEXIST);
        EXPECT_EQ(Fileutl::make_tmp_object(u"x", true), ustr("/t/x9999"));
    });
}

TEST(MakeTmpObjectCalls, GiveUpAfterTenThousandNames)
{
    for (const bool is_dir : {false, true}) {
        with_scripted_objects([&] {
            recording_logger logger;
            script.every_error = EEXIST;
            EXPECT_EQ(refusal_of(u"x", is_dir), REFUSAL + "too many retries");
            ASSERT_EQ(script.calls.size(), 10000u);
            for (unsigned int i = 0; i < 10000; ++i)
                ASSERT_EQ(script.calls[i], is_dir ? "mkdir /t/x" + std::to_string(i) + " 0777"
                                                  : "open /t/x" + std::to_string(i) + " 0600");
            ASSERT_EQ(logger.lines.size(), 1u);
            EXPECT_EQ(logger.lines[0].operation, "error");
            // The number was moved on 10,000 times, once around.
            script.every_error = 0;
            EXPECT_EQ(Fileutl::make_tmp_object(u"y", is_dir), ustr("/t/y0"));
        });
    }
}

TEST(MakeTmpObjectCalls, CountTheNamesOfEachCallAlone)
{
    with_scripted_objects([] {
        for (const char* const name : {"/t/x9999", "/t/x9998", "/t/x9997"}) {
            script.errors.assign(9999, EEXIST);
            EXPECT_EQ(Fileutl::make_tmp_object(u"x", false), ustr(name));
        }
    });
}

TEST(MakeTmpObjectCalls, StartAgainAfter9999)
{
    with_scripted_objects([] {
        script.errors.assign(9999, EEXIST);
        EXPECT_EQ(Fileutl::make_tmp_object(u"x", false), ustr("/t/x9999"));
        EXPECT_EQ(Fileutl::make_tmp_object(u"y", true), ustr("/t/y9999"));
        fail_next({EEXIST});
        EXPECT_EQ(Fileutl::make_tmp_object(u"z", false), ustr("/t/z0"));
        EXPECT_EQ(Fileutl::make_tmp_object(u"z", false), ustr("/t/z0"));
    });
}

TEST(MakeTmpObjectCalls, StartAgainAfterAFailureAt9999)
{
    with_scripted_objects([] {
        script.errors.assign(9999, EEXIST);
        script.errors.push_back(ENOSPC);
        EXPECT_EQ(refusal_of(u"x", false), REFUSAL + "No space left on device");
        EXPECT_EQ(Fileutl::make_tmp_object(u"x", false), ustr("/t/x0"));
    });
}

struct reason_t {
    int error;
    const char* text;
};

const reason_t REASONS[] = {
    {EACCES, "Permission denied"},    {ENOSPC, "No space left on device"},
    {EROFS, "Read-only file system"}, {EMFILE, "Too many open files"},
    {EDQUOT, "Disk quota exceeded"},  {4095, "Unknown error 4095"},
};

TEST(MakeTmpObjectCalls, EndWithTheReasonOfTheSystem)
{
    for (const reason_t& row : REASONS) {
        for (const bool is_dir : {false, true}) {
            with_scripted_objects([&] {
                fail_next({row.error});
                EXPECT_EQ(refusal_of(u"x", is_dir), REFUSAL + row.text);
                EXPECT_EQ(script.calls.size(), 1u);
                fail_next({EEXIST, row.error});
                EXPECT_EQ(refusal_of(u"x", is_dir), REFUSAL + row.text);
                EXPECT_EQ(script.calls.size(), 3u);
                EXPECT_EQ(Fileutl::make_tmp_object(u"x", is_dir), ustr("/t/x3"));
            });
        }
    }
}

TEST(MakeTmpObjectCalls, KeepTheReasonWhenMemoryRunsOutOnTheWay)
{
    with_scripted_objects([] {
        script.every_error = EACCES;
        int calls = 0;
        const int faults = for_each_memory_fault(
            [] {
                try {
                    Fileutl::make_tmp_object(u"x", true);
                } catch (const STPException& e) {
                    EXPECT_EQ(rendered(e), REFUSAL + "Permission denied");
                }
            },
            [&] { ++calls; });
        EXPECT_GE(faults, 1);
        EXPECT_EQ(calls, faults);
    });
}

TEST(DeleteTmpFileCalls, RemoveTheObjectAndThenItsDirectory)
{
    with_scripted_objects([] {
        const UString path = Fileutl::create_tmp_file(u"n", 1);
        script.calls.clear();
        Fileutl::delete_tmp_file(path);
        EXPECT_THAT(script.calls, ElementsAre("remove /t/DIR0/n", "rmdir /t/DIR0"));
        EXPECT_TRUE(Fileutl::g_tmp_table.empty());
        script.calls.clear();
        Fileutl::delete_tmp_file(path);
        EXPECT_THAT(script.calls, ElementsAre("remove /t/DIR0/n"));
    });
}

// Where the platform's charset is UTF-8, most paths go without its converter.
TEST(DeleteTmpFileCalls, RemoveThePathThatTheConverterWrites)
{
    with_scripted_objects([] {
        ucnv_setDefaultName("UTF-8");
        ASSERT_STREQ(UString::default_charset(), "UTF-8");
        const std::u16string lead(1, char16_t{0xD83D});
        const std::u16string trail(1, char16_t{0xDE00});
        const std::u16string zero(1, u'\0');
        const std::u16string longest(4000, u'\u3042');
        for (const std::u16string& units :
             {u"/a"s, u"/\u00e9"s, u"/\u3042"s, u"/"s + lead + trail, longest, u"/a"s + lead,
              trail + u"/a"s, lead, u"/a"s + zero + u"b"s, zero + u"a"s, zero, u""s}) {
            const UString path(units);
            bool failed = false;
            const std::string bytes = UString(path).std_str("DEFAULT", failed);
            EXPECT_FALSE(failed);
            script.calls.clear();
            Fileutl::delete_tmp_file(path);
            EXPECT_THAT(script.calls, ElementsAre("remove " + bytes));
        }
    });
}

TEST(DeleteTmpFileCalls, GoThroughAGroupInTableOrder)
{
    with_scripted_objects([] {
        Fileutl::set_file_id(u"/c", 1);
        Fileutl::set_file_id(u"/a", 1);
        Fileutl::set_file_id(u"/b", 2);
        Fileutl::create_tmp_file(u"n", 1);
        script.calls.clear();
        Fileutl::delete_tmp_files(1);
        EXPECT_THAT(script.calls,
                    ElementsAre("remove /a", "remove /c", "remove /t/DIR0/n", "rmdir /t/DIR0"));
        script.calls.clear();
        Fileutl::delete_tmp_files(0);
        EXPECT_THAT(script.calls, ElementsAre("remove /b"));
    });
}

TEST(CreateTmpFileCalls, RemoveWhatCannotBeRecorded)
{
    with_scripted_objects([] {
        const UString name(std::u16string(100, u'n'));
        int removed = 0;
        const auto count_removed = [&] {
            // What was made is removed, and nothing else is.
            std::vector<std::string> expected;
            for (const std::string& call : script.calls)
                if (call.rfind("mkdir ", 0) == 0)
                    expected.assign({call, "remove " + call.substr(6, call.find(' ', 6) - 6)});
            EXPECT_EQ(script.calls, expected);
            removed += !expected.empty();
            script.calls.clear();
        };
        for_each_memory_fault([&] { Fileutl::create_tmp_file(name, 1); }, count_removed);
        EXPECT_GT(removed, 1);
        EXPECT_THAT(script.calls, ElementsAre("mkdir /t/DIR0 0777"));
    });
}

// A request to end the thread, met between open() and close(), waits until the file is the
// caller's.
TEST(MakeTmpObjectCalls, AreNotTornByCancellation)
{
    const scratch_t scratch;
    in_child([&] {
        setenv("TMP", scratch.path.c_str(), 1);
        static int descriptor = -1;
        sys_calls.open = [](const char* path, int flags, mode_t mode) {
            descriptor = ::open(path, flags, mode);
            pthread_cancel(pthread_self());
            return descriptor;
        };
        static bool is_made = false;
        std::thread thread([] {
            Fileutl::create_tmp_file(1);
            is_made = true;  // not reached when the thread ended on the way
        });
        thread.join();
        EXPECT_TRUE(is_made);
        EXPECT_GE(descriptor, 0);
        EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "still open";
        EXPECT_EQ(Fileutl::g_tmp_table.size(), 1u);
        Fileutl::delete_tmp_files(0);
        EXPECT_THAT(scratch.names(), IsEmpty());
    });
}

// A fork() finds the table whole because it waits for whoever changes it.

TEST(ChangeLock, IsHeldWhileAnEntryComesOrGoes)
{
    in_child([] {
        Fileutl::set_file_id(u"/old", 1);
        EXPECT_TRUE(waits_for(change_lock, [] { Fileutl::set_file_id(u"/new", 2); }));
        EXPECT_TRUE(waits_for(change_lock, [] { Fileutl::delete_tmp_file(u"/old"); }));
        EXPECT_TRUE(waits_for(change_lock, [] { Fileutl::delete_tmp_files(2); }));
        EXPECT_TRUE(Fileutl::g_tmp_table.empty());
    });
}

TEST(ChangeLock, IsWaitedForByAFork)
{
    in_child([] {
        static bool is_changed = false;
        watched_t forking;
        std::promise<void> held;
        std::promise<void> done;
        std::thread changer([&] {
            {
                const CriticalSection section(change_lock);
                held.set_value();
                EXPECT_TRUE(forking.falls_asleep());
                is_changed = true;
            }
            done.get_future().wait();
        });
        held.get_future().wait();
        forking.watch_me();
        in_child(
            [] {
                EXPECT_TRUE(is_changed);
                const CriticalSection section(change_lock);
            },
            _exit);
        done.set_value();
        changer.join();
    });
}

// Callers hold it as long as they like, so that one who waits for another process would never end.
TEST(PublicLock, IsNotWaitedForByAFork)
{
    in_child([] {
        std::promise<void> held;
        std::promise<void> done;
        std::thread holder([&] {
            const CriticalSection section(Fileutl::g_lock);
            held.set_value();
            done.get_future().wait();
        });
        held.get_future().wait();
        in_child([] { const CriticalSection section(Fileutl::g_lock); }, _exit);
        done.set_value();
        holder.join();
    });
}

}  // namespace
