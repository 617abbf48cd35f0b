#include "failing_calls.h"
#include "words.h"

#include "support/child.h"
#include "support/credentials_failure.h"
#include "support/credentials_model.h"
#include "support/fake_arm4_runtime.h"
#include "support/files.h"
#include "support/memory_fault.h"
#include "support/restricted_child.h"
#include "support/scratch.h"
#include "support/text.h"
#include "sysutl_ieee_hostid_impl.h"
#include "tbs_uuid_gen_impl.h"

#include <kvutil/fileutl.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/tbs_version_id.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <net/if.h>
#include <net/if_arp.h>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>

// Each operation that reaches the system, with each of its calls failing in each way: once, and
// from then on. Allowed are the result that it has otherwise and the failure that its rule names;
// then everything is as before, nothing is left open or on the heap, and the same call succeeds.

namespace torture {
namespace {

using namespace Kvl;

// ---- rows ----

/// An operation, on what `prepare` makes new each time.
struct row_t {
    std::string name;
    std::function<void()> prepare;
    /// The call; the words of its result.
    std::function<std::string()> call;
    /// What a caller can see, in words.
    std::function<std::string()> seen;
    /// Whether the words are those of the failure that belongs to a fault.
    std::function<bool(const std::string& words, const call_fault_t& fault)> is_failure;
    /// Forgets a failure that the process would remember for good.
    std::function<void()> forget = [] {};
};

/// A file that ends too early is no error; a device that takes nothing is one.
std::string reason_of(const call_fault_t& fault)
{
    if (fault.error == 0)
        return fault.entry == "read" ? "Success" : std::strerror(EIO);
    return std::strerror(fault.error);
}

// ---- files of credentials ----

const scratch_t& directory()
{
    static const scratch_t made;
    return made;
}

const std::string OLD_CONTENT = "old";

std::string path()
{
    return directory() / "credentials";
}

Credentials credentials()
{
    Credentials c;
    c.user = model::identity(1, "user");
    c.groups.assign(2, model::identity(2, std::string(3000, 'g')));
    return c;
}

void empty_directory()
{
    for (const std::string& name : directory().names())
        std::filesystem::remove_all(directory() / name);
}

bool can_remove()
{
    const call_fault_t& fault = failing_calls::g_fault;
    return fault.entry != "unlink" && !fault.is_the_end;
}

/// The files, all but temporary ones whose removal was made to fail.
std::string files()
{
    std::string all;
    for (const std::string& name : directory().names())
        if (name.rfind(".kvutil-", 0) != 0 || can_remove())
            all += name + ":" + content_of(directory() / name) + "\n";
    return all;
}

/// The message of one of the verbs, with the fault's own reason.
bool is_file_failure(std::initializer_list<const char*> verbs, const std::string& words,
                     const call_fault_t& fault)
{
    return std::any_of(verbs.begin(), verbs.end(), [&](const char* verb) {
        return words == file_failure(verb, path(), reason_of(fault));
    });
}

/// The words of a failure, or of nothing.
template <class Operation>
std::string outcome_of(Operation operation)
{
    try {
        operation();
        return "done";
    } catch (const STPException& e) {
        return rendered(e);
    }
}

std::string names()
{
    std::string all;
    for (const std::string& name : directory().names())
        all += name + "\n";
    return all;
}

void make_old_with_two_names()
{
    set_content(path(), OLD_CONTENT);
    std::filesystem::create_hard_link(path(), directory() / "other");
}

row_t writing(const char* name, std::function<void()> prepare,
              std::function<std::string()> seen = files)
{
    return {name,
            [prepare] {
                empty_directory();
                prepare();
            },
            [] {
                const std::string outcome = outcome_of([] { credentials().write_to_file(path()); });
                return outcome == "done" ? content_of(path()) : outcome;
            },
            seen,
            [](const std::string& words, const call_fault_t& fault) {
                return is_file_failure({"open", "write", "close"}, words, fault);
            }};
}

std::vector<row_t> credentials_rows()
{
    return {
        writing("write_to_file, new", [] {}),
        writing("write_to_file, replacing", [] { set_content(path(), OLD_CONTENT); }),
        // Once it has begun to write over the old content, that is gone.
        writing("write_to_file, in place", make_old_with_two_names, names),
        {"read_from_file", [] { set_content(path(), model::file(credentials())); },
         [] {
             Credentials c;
             const std::string outcome = outcome_of([&] { c.read_from_file(path(), false); });
             return outcome == "done" ? words(c) : outcome;
         },
         [] { return std::string(); },
         [](const std::string& words, const call_fault_t& fault) {
             return is_file_failure({"open", "read"}, words, fault);
         }},
    };
}

/// A system whose directories give a list of rights to each new file.
void have_lists(sys_calls_t& calls)
{
    calls.fgetxattr = [](int descriptor, const char*, void*, std::size_t) -> ssize_t {
        const auto file =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
        errno = ENODATA;
        return file.filename().string().rfind(".kvutil-", 0) == 0 ? 44 : -1;
    };
    calls.fremovexattr = [](int, const char*) { return 0; };
}

// ---- temporary objects ----

std::string recorded_objects() KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    return std::to_string(Fileutl::g_tmp_table.size()) + " recorded";
}

std::string objects()
{
    return recorded_objects() + ", " + std::to_string(directory().names().size()) + " there";
}

bool is_refusal(const std::string& words, const call_fault_t& fault)
{
    return words == "PLXSV0664E Cannot create temporary file system object: " + reason_of(fault);
}

bool never(const std::string&, const call_fault_t&)
{
    return false;
}

void forget_objects()
{
    Fileutl::delete_tmp_files(0);
    empty_directory();
}

UString g_object;

row_t creation(const char* name, std::function<void()> create)
{
    return {name, forget_objects, [create] { return outcome_of(create); }, objects, is_refusal};
}

/// What cannot be removed stays, and is forgotten all the same.
row_t deletion(const char* name, std::function<void()> remove)
{
    return {name,
            [] {
                forget_objects();
                g_object = Fileutl::create_tmp_file(u"name", 7);
                set_content(g_object.utf8_str(), "");
            },
            [remove] { return outcome_of(remove); }, recorded_objects, never};
}

std::vector<row_t> creations()
{
    return {
        creation("make_tmp_object, file", [] { Fileutl::make_tmp_object(u"x", false); }),
        creation("make_tmp_object, directory", [] { Fileutl::make_tmp_object(u"x", true); }),
        creation("create_tmp_file", [] { Fileutl::create_tmp_file(1); }),
        creation("create_tmp_file, with a name", [] { Fileutl::create_tmp_file(u"n", 1); }),
    };
}

std::vector<row_t> deletions()
{
    return {
        deletion("delete_tmp_file", [] { Fileutl::delete_tmp_file(g_object); }),
        deletion("delete_tmp_files", [] { Fileutl::delete_tmp_files(7); }),
    };
}

// ---- identifiers ----

void forget_host()
{
    HostIdImpl::forget();
    UuidGenImpl::forget();
}

std::string nothing_seen()
{
    return {};
}

/// The result; the other allowed one is that there is no source.
row_t number_from_system(const char* name, std::function<int()> call, int failure)
{
    return {name,
            forget_host,
            [call] { return std::to_string(call()); },
            nothing_seen,
            [failure](const std::string& words, const call_fault_t&) {
                return words == std::to_string(failure);
            },
            forget_host};
}

std::vector<row_t> identifier_rows()
{
    return {
        number_from_system(
            "sysutl_my_ieee_hostid",
            [] {
                unsigned char address[6];
                return brenner_sysutl_my_ieee_hostid(address);
            },
            1),
        number_from_system(
            "sysutl_get_random_bytes",
            [] {
                unsigned char bytes[32];
                return brenner_sysutl_get_random_bytes(bytes, sizeof bytes);
            },
            1),
        number_from_system(
            "tbs_uuid_gen",
            [] {
                tbs_uuid_s uuid;
                return brenner_tbs_uuid_gen(&uuid);
            },
            1001),
        {"Oid::gen", forget_host, [] { return outcome_of([] { Oid::gen(); }); }, nothing_seen,
         [](const std::string& words, const call_fault_t&) {
             return words ==
                    "PLXSV0651E Can't generate a UUID (possible network/adapter configuration "
                    "problem) - UuidCreate error 1001";
         },
         forget_host},
    };
}

/// A system with one interface, which has an address.
void have_interface(sys_calls_t& calls)
{
    calls.open = [](const char* path, int flags, mode_t mode) {
        const bool is_list = path == std::string("/proc/net/dev");
        return ::open(is_list ? (directory() / "interfaces").c_str() : path, flags, mode);
    };
    calls.ioctl = [](int, unsigned long, void* argument) {
        auto& request = *static_cast<ifreq*>(argument);
        request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
        std::memcpy(request.ifr_hwaddr.sa_data, "\x02\xA1\xA2\xA3\xA4\xA5", 6);
        return 0;
    };
}

/// A clock that stands still until the window's last ticket was taken. From there on each look at
/// it moves it, as each sleep does.
class used_up_window_t {
public:
    static void prepare()
    {
        UuidGenImpl::forget();
        g_look_takes_microseconds = 0;
        const UuidGenImpl::ticket_t first = UuidGenImpl::next_ticket();
        g_window = first.window;
        constexpr std::uint32_t block = 4096;
        const std::uint32_t end = first.sequence / block * block;
        for (std::uint32_t next = first.sequence + 1; next % SEQUENCES != end;)
            next = UuidGenImpl::next_ticket().sequence + 1;
        g_look_takes_microseconds = 1000;
    }

    static std::string words_of_next_ticket()
    {
        EXPECT_GT(UuidGenImpl::next_ticket().window, g_window);
        return "a new window";
    }

    static void have_clock(sys_calls_t& calls)
    {
        calls.gettimeofday = [](timeval* now, void*) {
            g_microseconds += g_look_takes_microseconds;
            *now = {g_microseconds / 1'000'000, g_microseconds % 1'000'000};
            return 0;
        };
        calls.nanosleep = [](const timespec* duration, timespec*) {
            g_microseconds += duration->tv_nsec / 1000;
            return 0;
        };
    }

private:
    static constexpr std::uint32_t SEQUENCES = 1 << 18;
    static inline long g_microseconds = 1'000'000'000'000'000;
    static inline long g_look_takes_microseconds = 0;
    static inline std::uint64_t g_window = 0;
};

row_t waiting_for_a_window()
{
    return {"next_ticket, after the last of a window",
            used_up_window_t::prepare,
            used_up_window_t::words_of_next_ticket,
            nothing_seen,
            never,
            UuidGenImpl::forget};
}

// ---- measurement ----

constexpr int UNAVAILABLE = ArmApplication::UNAVAILABLE;

void forget_runtime()
{
    static const fake_runtime_t runtime;
    runtime.record(0);
    if (ArmRuntimeLoader::g_arm4_handle != nullptr)
        dlclose(std::exchange(ArmRuntimeLoader::g_arm4_handle, nullptr));
    ArmApplication::g_level = ARM_LEVEL_OFF;
    forget_host();
}

std::string runtime()
{
    return ArmRuntimeLoader::g_arm4_handle != nullptr ? "loaded" : "not loaded";
}

/// A run-time stays loaded, whether or not it can be used.
std::string level()
{
    return std::to_string(ArmApplication::g_level);
}

/// On a thread that has no stack yet; what it has got is freed when it ends.
std::string base_correlator_of_new_thread()
{
    struct {
        bool is_there = false;
        long blocks = 0;
    } found;
    const auto find = [](void* result) -> void* {
        auto& [is_there, blocks] = *static_cast<decltype(found)*>(result);
        const long before = live_blocks_of_this_thread();
        is_there = ArmPerThreadOperationStack::get_base_correlator() != nullptr;
        blocks = live_blocks_of_this_thread() - before;
        return nullptr;
    };
    // Not std::thread, which allocates here and frees there.
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, find, &found), 0);
    pthread_join(thread, nullptr);
    return found.is_there ? "found" : std::to_string(found.blocks) + " blocks of nothing";
}

std::vector<row_t> arm_rows()
{
    const auto is_unavailable = [](const std::string& words, const call_fault_t&) {
        return words == std::to_string(UNAVAILABLE);
    };
    const auto register_application = [] {
        return ArmApplication::register_application(ARM_LEVEL_ON, u"shop", nullptr);
    };
    const auto register_first = [=] {
        forget_runtime();
        register_application();
    };
    return {
        {"load_runtime", forget_runtime,
         [] { return std::to_string(ArmRuntimeLoader::load_runtime()); }, runtime, is_unavailable},
        {"register_application", forget_runtime,
         [=] { return std::to_string(register_application()); }, level, is_unavailable,
         forget_host},
        {"register_transaction",
         [=] {
             register_first();
             forget_host();
         },
         [] {
             arm_id id;
             return std::to_string(ArmApplication::register_transaction("x", 0, nullptr, &id));
         },
         level, is_unavailable, forget_host},
        {"get_base_correlator", register_first, base_correlator_of_new_thread, level,
         [](const std::string& words, const call_fault_t&) {
             return words == "0 blocks of nothing";
         }},
    };
}

// ---- faults ----

/// The ways in which the nth call of an entry goes wrong.
std::vector<call_fault_t> faults_of(const std::string& entry, int nth)
{
    constexpr int for_good = 1000000;
    constexpr int many = 50;  // what a signal has interrupted is tried again until it has not
    std::vector<call_fault_t> all;
    for (const int error : {EIO, ENOSPC, EINTR, EMFILE, EACCES, ENOMEM})
        for (const int times : {1, error == EINTR ? many : for_good})
            all.push_back({entry, nth, times, error});
    for (const int error : {EIO, ENOSPC, EMFILE, EACCES, ENOMEM})
        all.push_back({entry, nth, for_good, error, 0, true});
    if (entry == "read" || entry == "write")
        for (const std::size_t count : {0u, 1u, 7u})
            for (const int times : {1, for_good})
                all.push_back({entry, nth, times, 0, count});
    return all;
}

struct figures_t {
    unsigned long rows = 0, call_sites = 0, faults = 0, failures = 0;
};
figures_t g_figures;

// ---- runs ----

struct run_t {
    int faults = 0;
    std::string result, before, after;
    long blocks_left = 0;
    std::ptrdiff_t descriptors_left = 0;
};

run_t run_of(const row_t& row, const call_fault_t& fault)
{
    run_t run;
    row.prepare();
    run.before = row.seen();
    const auto descriptors = open_descriptors();
    run.result.reserve(10000);  // from here on it owns one block, whatever it says
    {
        const failing_calls on(fault);
        const long blocks = live_blocks_of_this_thread();
        run.result = row.call();
        run.blocks_left = live_blocks_of_this_thread() - blocks;
        run.faults = on.faults();
    }
    run.descriptors_left = open_descriptors() - descriptors;
    run.after = row.seen();
    return run;
}

/// What is kept for the next call does not come again.
bool leaks(const row_t& row, const call_fault_t& fault, const run_t& run, long allowed)
{
    constexpr int enough = 8;
    long blocks_left = run.blocks_left;
    for (int i = 0; i < enough && blocks_left > allowed; ++i)
        blocks_left = run_of(row, fault).blocks_left;
    return blocks_left > allowed;
}

void expect_that_it_can_be_repeated(const row_t& row, const run_t& reference)
{
    row.forget();
    EXPECT_EQ(row.call(), reference.result) << "the same call";
    EXPECT_EQ(row.seen(), reference.after) << "the same call";
}

/// @return whether a call of the entry was there to go wrong
bool check(const row_t& row, const call_fault_t& fault, const run_t& reference)
{
    const run_t run = run_of(row, fault);
    if (run.faults == 0)
        return false;
    SCOPED_TRACE(row.name + ", " + testing::PrintToString(fault));
    const bool is_failure = run.result != reference.result;
    ++g_figures.faults;
    g_figures.failures += is_failure;
    EXPECT_EQ(run.descriptors_left, 0);
    EXPECT_EQ(run.after, is_failure ? run.before : reference.after);
    if (is_failure) {
        EXPECT_TRUE(row.is_failure(run.result, fault)) << run.result;
        expect_that_it_can_be_repeated(row, reference);
    }
    EXPECT_FALSE(leaks(row, fault, run, is_failure ? 0 : reference.blocks_left));
    return true;
}

/// @return whether there was an nth call of the entry
bool check_all(const row_t& row, const std::string& entry, int nth, const run_t& reference)
{
    bool was_there = false;
    for (const call_fault_t& fault : faults_of(entry, nth))
        was_there |= check(row, fault, reference);
    g_figures.call_sites += was_there;
    return was_there;
}

void torture(const std::vector<row_t>& rows)
{
    for (const row_t& row : rows) {
        ++g_figures.rows;
        run_of(row, {});  // fills what is kept between calls
        const run_t reference = run_of(row, {});
        for (const char* const entry : ENTRIES)
            for (int nth = 1; !testing::Test::HasFailure(); ++nth)
                if (!check_all(row, entry, nth, reference))
                    break;
    }
}

// ---- the tests ----

/// In a child that leaves the parent's directory alone when it ends.
template <class Body>
void in_quick_child(Body body)
{
    in_child(body, _exit);
}

// The directory is looked for once in a process, so here in many.

TEST(SystemCalls, FailingInTheSearchForADirectoryGiveAnotherOne)
{
    for (int nth = 1; nth <= 3; ++nth) {
        for (const call_fault_t& fault : faults_of("access", nth)) {
            in_quick_child([&] {
                setenv("TMP", directory().path.c_str(), 1);
                unsetenv("TMPDIR");
                std::string found;
                {
                    const failing_calls on(fault);
                    found = outcome_of([&] { found = Fileutl::sys_tmpdir().utf8_str(); });
                }
                const bool none_is_writable = nth == 1 && fault.times > 3;
                EXPECT_EQ(found,
                          none_is_writable
                              ? "PLXSV0669E Error converting '/tmp' to default character set."
                              : "done");
                const UString directory_now = Fileutl::sys_tmpdir();
                EXPECT_EQ(directory_now,
                          nth == 1 && !none_is_writable ? ustr("/tmp") : ustr(directory().path));
            });
            ++g_figures.faults;
        }
    }
}

TEST(SystemCalls, FailingLeaveCredentials)
{
    torture(credentials_rows());
}

TEST(SystemCalls, FailingLeaveTemporaryObjects)
{
    setenv("TMP", directory().path.c_str(), 1);
    torture(creations());
    torture(deletions());
    forget_objects();
}

TEST(SystemCalls, FailingLeaveIdentifiers)
{
    torture(identifier_rows());
}

TEST(SystemCalls, FailingLeaveMeasurement)
{
    torture(arm_rows());
}

TEST(SystemCalls, FailingOnNewFilesWithListsOfRightsLeaveCredentials)
{
    const other_system with_lists(have_lists);
    torture({writing("write_to_file, replacing", [] { set_content(path(), OLD_CONTENT); })});
}

TEST(SystemCalls, FailingWhereThereIsAnInterfaceLeaveIdentifiers)
{
    set_content(directory() / "interfaces", "Inter-| Receive\n face |bytes\n  eth0: 1 2\n");
    const other_system with_interface(have_interface);
    torture(identifier_rows());
    empty_directory();
}

TEST(SystemCalls, FailingDoNotLetASequenceComeTwice)
{
    const other_system with_clock(used_up_window_t::have_clock);
    torture({waiting_for_a_window()});
}

// access() is, too, but in processes of their own.
TEST(SystemCalls, AreAllMadeToFail)
{
    for (const auto& [entry, hits] : hits_of_entries())
        EXPECT_TRUE(hits != 0 || entry == "access") << entry;
}

// ---- end to end ----

std::vector<row_t> all_rows()
{
    std::vector<row_t> all;
    for (const auto rows : {credentials_rows, creations, deletions, identifier_rows, arm_rows})
        for (const row_t& row : rows())
            all.push_back(row);
    return all;
}

/// Sets a limit of this process, which is a child, while one lives.
class limited_t {
public:
    limited_t(__rlimit_resource_t resource, rlim_t most) : resource_(resource)
    {
        getrlimit(resource_, &former_);
        rlimit limit = former_;
        limit.rlim_cur = most;
        setrlimit(resource_, &limit);
    }
    ~limited_t() { setrlimit(resource_, &former_); }
    limited_t(const limited_t&) = delete;
    limited_t& operator=(const limited_t&) = delete;

private:
    const __rlimit_resource_t resource_;
    rlimit former_;
};

/// Each row under a limit, where it has its result or fails for one reason, and without it.
void check_limited(__rlimit_resource_t resource, rlim_t most, int error)
{
    setenv("TMP", directory().path.c_str(), 1);
    for (const row_t& row : all_rows()) {
        SCOPED_TRACE(row.name);
        const run_t reference = run_of(row, {});
        row.prepare();
        std::string result;
        {
            const limited_t on(resource, most);
            result = row.call();
        }
        if (result == reference.result)
            continue;
        EXPECT_TRUE(row.is_failure(result, {"", 1, 1, error, 0})) << result;
        expect_that_it_can_be_repeated(row, reference);
    }
}

TEST(SystemLimits, OfDescriptors)
{
    in_quick_child([] {
        forget_runtime();
        check_limited(RLIMIT_NOFILE, 3, EMFILE);
    });
}

TEST(SystemLimits, OfTheSizeOfFiles)
{
    in_quick_child([] {
        forget_runtime();
        std::signal(SIGXFSZ, SIG_IGN);
        check_limited(RLIMIT_FSIZE, 100, EFBIG);
    });
}

TEST(SystemLimits, OfNamesOnADisk)
{
    const bool allowed = in_restricted_child([] {
        if (unshare(CLONE_NEWNS) != 0)
            return NOT_ALLOWED;
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        if (mount("none", directory().path.c_str(), "tmpfs", 0, "nr_inodes=1") != 0)
            return NOT_ALLOWED;
        setenv("TMP", directory().path.c_str(), 1);
        const call_fault_t full = {"", 1, 1, ENOSPC, 0};
        for (const row_t& row : creations())
            EXPECT_TRUE(is_refusal(row.call(), full)) << row.name;
        EXPECT_EQ(objects(), "0 recorded, 0 there");
        return 0;
    });
    if (!allowed)
        GTEST_SKIP() << "cannot mount a file system";
}

TEST(SystemLimits, OfAFullDeviceUnderStandardOutput)
{
    in_quick_child([] {
        if (std::freopen("/dev/full", "w", stdout) == nullptr)
            return;
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        EXPECT_LT(libkvutil_print_verid(), 0);
    });
}

/// The last line, for reports.
void print_figures()
{
    std::cout << "system-call torture: rows=" << g_figures.rows << " entries=" << std::size(ENTRIES)
              << " call_sites=" << g_figures.call_sites << " faults=" << g_figures.faults
              << " failures=" << g_figures.failures << std::endl;
}

}  // namespace
}  // namespace torture

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    torture::print_figures();
    return result;
}
