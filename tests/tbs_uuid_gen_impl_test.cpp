#include "tbs_uuid_gen_impl.h"

#include "support/child.h"
#include "support/failure.h"
#include "sys_calls_impl.h"
#include "sysutl_ieee_hostid_impl.h"

#include <gtest/gtest.h>
#include <kvutil/oid.h>
#include <kvutil/stpexception.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Kvl::UuidGenImpl::next_ticket;
using Kvl::UuidGenImpl::process_id;
using Kvl::UuidGenImpl::ticket_t;

constexpr std::uint64_t UNITS_PER_WINDOW = 1 << 20;
constexpr long SEQUENCES = 1 << 18;
/// One window in nanoseconds, up to the next time that a clock of microseconds can show.
constexpr std::int64_t LONGEST_SLEEP = 104'858'000;

/// The time stamp of an instant, as the identifiers have it.
constexpr std::uint64_t stamp(std::uint64_t seconds, std::uint64_t microseconds)
{
    return seconds * 10'000'000 + microseconds * 10 + 0x01B21DD313814000;
}

/// A clock that tests set, a process id that they choose, and a network without interfaces.
class fake_system_t {
public:
    fake_system_t()
    {
        g_system = this;
        Kvl::sys_calls.gettimeofday = gettimeofday;
        Kvl::sys_calls.nanosleep = nanosleep;
        Kvl::sys_calls.getpid = getpid;
        Kvl::sys_calls.open = open;
        Kvl::sys_calls.close = [](int) { return 0; };
        Kvl::sys_calls.read = read;
        Kvl::sys_calls.socket = [](int, int, int) { return -1; };
        forget();
    }
    ~fake_system_t()
    {
        Kvl::sys_calls = real_;
        forget();
    }
    fake_system_t(const fake_system_t&) = delete;
    fake_system_t& operator=(const fake_system_t&) = delete;

    static void forget()
    {
        Kvl::UuidGenImpl::forget();
        Kvl::HostIdImpl::forget();
    }

    std::int64_t seconds = 1'000'000'000;
    std::int64_t microseconds = 0;
    bool clock_runs = true;               ///< whether sleeping moves the clock
    int interruptions = 0;                ///< of the next sleep
    std::int64_t pause_microseconds = 0;  ///< after the next reading of the clock
    pid_t pid = 0x123456;
    bool has_random = true;
    std::int64_t slept_nanoseconds = 0;
    std::int64_t longest_sleep = 0;
    int opens = 0;
    int pid_calls = 0;

    std::uint64_t window() const
    {
        return stamp(static_cast<std::uint64_t>(seconds),
                     static_cast<std::uint64_t>(microseconds)) /
               UNITS_PER_WINDOW;
    }

private:
    static int gettimeofday(timeval* now, void*)
    {
        now->tv_sec = g_system->seconds;
        now->tv_usec = g_system->microseconds;
        g_system->advance(1000 * std::exchange(g_system->pause_microseconds, 0));
        return 0;
    }

    static int nanosleep(const timespec* duration, timespec* left)
    {
        std::int64_t nanoseconds = duration->tv_sec * 1'000'000'000 + duration->tv_nsec;
        const bool is_interrupted = g_system->interruptions > 0;
        if (is_interrupted) {
            --g_system->interruptions;
            nanoseconds /= 2;
            const std::int64_t rest = duration->tv_nsec - nanoseconds;
            *left = {0, rest};
        }
        g_system->slept_nanoseconds += nanoseconds;
        g_system->longest_sleep = std::max(g_system->longest_sleep, nanoseconds);
        if (g_system->clock_runs)
            g_system->advance(nanoseconds);
        if (!is_interrupted)
            return 0;
        errno = EINTR;
        return -1;
    }

    void advance(std::int64_t nanoseconds)
    {
        nanoseconds_ += nanoseconds;
        microseconds += nanoseconds_ / 1000;
        nanoseconds_ %= 1000;
        seconds += microseconds / 1'000'000;
        microseconds %= 1'000'000;
    }

    static pid_t getpid()
    {
        ++g_system->pid_calls;
        return g_system->pid;
    }

    static int open(const char*, int, mode_t)
    {
        ++g_system->opens;
        return g_system->has_random ? 1000 : -1;
    }

    static ssize_t read(int, void* bytes, std::size_t size)
    {
        std::memcpy(bytes, "\x01\x02\x03\x04\x05\x06", size);
        return static_cast<ssize_t>(size);
    }

    static fake_system_t* g_system;
    const Kvl::sys_calls_t real_ = Kvl::sys_calls;
    std::int64_t nanoseconds_ = 0;
};

fake_system_t* fake_system_t::g_system = nullptr;

// ---- Fields ----

TEST(UuidGen, FillsTheFieldsByTheRules)
{
    fake_system_t system;
    system.seconds = 1'234'567'890;
    system.microseconds = 0x2A51;
    system.pid = 0x2B6D7;
    tbs_uuid_s uuid;
    ASSERT_EQ(brenner_tbs_uuid_gen(&uuid), 0);
    const std::uint64_t t = stamp(1'234'567'890, 0x2A51);
    EXPECT_EQ(uuid.time_low, (t & 0xFFF00000) | 0x2A51u << 2 | 3);  // the id ends in 11
    EXPECT_EQ(uuid.time_mid, t >> 32 & 0xFFFF);
    EXPECT_EQ(uuid.time_hi_and_version, (t >> 48 & 0x0FFF) | 0x1000);
    EXPECT_EQ(uuid.clock_seq_low, 0x2B6D7 >> 2 & 0xFF);
    EXPECT_EQ(uuid.clock_seq_hi_and_reserved, (0x2B6D7 >> 10 & 0x3F) | 0x80);
}

// The highest bit of the 60, set from the year 3409 on, and what is beyond them, from 5236 on.
TEST(UuidGen, HasSixtyBitsOfTheTime)
{
    for (const std::int64_t seconds : {50'000'000'000, 200'000'000'000}) {
        fake_system_t system;
        system.seconds = seconds;
        tbs_uuid_s uuid;
        ASSERT_EQ(brenner_tbs_uuid_gen(&uuid), 0);
        const std::uint64_t t = stamp(static_cast<std::uint64_t>(seconds), 0);
        ASSERT_NE(t >> 59, 0u);
        EXPECT_EQ(uuid.time_low & 0xFFF00000, t & 0xFFF00000);
        EXPECT_EQ(uuid.time_mid, t >> 32 & 0xFFFF);
        EXPECT_EQ(uuid.time_hi_and_version, (t >> 48 & 0x0FFF) | 0x1000);
    }
}

TEST(UuidGen, SeedsTheSequenceWithTheMicrosecondsAndCountsOn)
{
    fake_system_t system;
    system.microseconds = 0x7FFFE;  // 18 bits of it are 0x3FFFE
    EXPECT_EQ(next_ticket().sequence, 0x3FFFEu);
    EXPECT_EQ(next_ticket().sequence, 0x3FFFFu);
    EXPECT_EQ(next_ticket().sequence, 0u);
    system.seconds += 1000;
    system.microseconds = 500;
    EXPECT_EQ(next_ticket().sequence, 1u);
}

// ---- The node ----

TEST(UuidGen, TakesRandomBytesWithTheTopBitSetWithoutAnInterface)
{
    const fake_system_t system;
    tbs_uuid_s uuid;
    ASSERT_EQ(brenner_tbs_uuid_gen(&uuid), 0);
    const unsigned char expected[] = {0x81, 2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(uuid.node, expected, 6), 0);
    const int opens = system.opens;
    ASSERT_EQ(brenner_tbs_uuid_gen(&uuid), 0);
    EXPECT_EQ(std::memcmp(uuid.node, expected, 6), 0);
    EXPECT_EQ(system.opens, opens) << "asked once";
}

TEST(UuidGen, GivesTimeAndClockButNoNodeWhenThereIsNone)
{
    fake_system_t system;
    system.has_random = false;
    for (int i = 0; i < 3; ++i) {
        tbs_uuid_s uuid;
        std::memset(&uuid, 0xEE, sizeof uuid);
        EXPECT_EQ(brenner_tbs_uuid_gen(&uuid), 1001);
        EXPECT_EQ(uuid.time_mid, stamp(1'000'000'000, 0) >> 32 & 0xFFFF);
        EXPECT_EQ(uuid.time_hi_and_version >> 12, 1);
        EXPECT_EQ(uuid.clock_seq_hi_and_reserved >> 6, 2);
        EXPECT_EQ(std::string(uuid.node, uuid.node + 6), std::string(6, '\xEE'));
        system.has_random = true;  // too late
    }
    EXPECT_EQ(system.opens, 1);
}

TEST(UuidGen, RefusesANullPointer)
{
    const fake_system_t system;
    EXPECT_EQ(brenner_tbs_uuid_gen(nullptr), 1001);
}

TEST(UuidGen, ThrowsTheStatusOfAFailure)
{
    fake_system_t system;
    system.has_random = false;
    const std::string expected = "PLXSV0651E Can't generate a UUID (possible network/adapter "
                                 "configuration problem) - UuidCreate error 1001";
    try {
        Kvl::Uuid::gen();
        FAIL() << "generated";
    } catch (const Kvl::RuntimeException& e) {
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
        EXPECT_EQ(rendered(e), expected);
    }
    try {
        Kvl::Oid::gen();
        FAIL() << "generated";
    } catch (const Kvl::RuntimeException& e) {
        EXPECT_EQ(rendered(e), expected);
    }
}

// ---- No value twice ----

using keys_t = std::vector<std::uint64_t>;

void append_issued(keys_t& keys, long count)
{
    for (long i = 0; i < count; ++i) {
        const ticket_t ticket = next_ticket();
        keys.push_back(ticket.window << 18 | ticket.sequence);
    }
}

void expect_distinct(keys_t& keys)
{
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
}

TEST(UuidGenWindow, HoldsAtMostAllSequencesAndThenTheNextOneIsWaitedFor)
{
    for (const int seed : {0, 1, 4095, 4096, 0x3FFFF}) {
        fake_system_t system;
        system.microseconds = seed;
        const std::uint64_t first = system.window();
        long in_first = 0;
        ticket_t ticket;
        while ((ticket = next_ticket()).window == first) {
            ++in_first;
            ASSERT_LE(in_first, SEQUENCES);
        }
        EXPECT_GT(in_first, SEQUENCES - 4096);
        EXPECT_EQ(ticket.window, first + 1);
        EXPECT_EQ(system.window(), first + 1) << "by the clock";
        EXPECT_EQ(ticket.sequence, static_cast<unsigned int>(seed + in_first) % SEQUENCES);
    }
}

TEST(UuidGenWindow, SleepsNoLongerThanTheRestOfIt)
{
    fake_system_t system;
    system.microseconds = 123;
    keys_t issued;
    append_issued(issued, SEQUENCES + 1);
    const std::uint64_t rest = UNITS_PER_WINDOW - stamp(1'000'000'000, 123) % UNITS_PER_WINDOW;
    const std::uint64_t whole_microseconds = (rest + 9) / 10;
    EXPECT_EQ(system.slept_nanoseconds, static_cast<std::int64_t>(whole_microseconds * 1000));
    expect_distinct(issued);
}

TEST(UuidGenWindow, IsSleptOutAlthoughSignalsInterrupt)
{
    fake_system_t system;
    system.interruptions = 5;
    const std::uint64_t first = system.window();
    keys_t issued;
    append_issued(issued, SEQUENCES + 1);
    EXPECT_EQ(system.interruptions, 0);
    EXPECT_EQ(system.window(), first + 1);
    expect_distinct(issued);
}

// As when the thread did not run for a while.
TEST(UuidGenWindow, IsNotSleptOutWhenItIsOverMeanwhile)
{
    fake_system_t system;
    const std::uint64_t first = system.window();
    keys_t issued;
    append_issued(issued, SEQUENCES);
    ASSERT_EQ(issued.back() >> 18, first) << "a window that begins with sequence 0 has them all";
    system.pause_microseconds = 1'000'000;
    const ticket_t next = next_ticket();
    EXPECT_EQ(next.window, system.window());
    EXPECT_GT(next.window, first + 1);
    EXPECT_EQ(system.slept_nanoseconds, 0);
}

TEST(UuidGenWindow, IsNotLeftWhenTheClockIsSetBack)
{
    fake_system_t system;
    const ticket_t before = next_ticket();
    system.seconds -= 3600;
    const ticket_t after = next_ticket();
    EXPECT_EQ(after.window, before.window);
    EXPECT_EQ(after.sequence, before.sequence + 1);
    system.seconds += 3601;
    EXPECT_EQ(next_ticket().window, system.window());
}

// Set back by an hour, the clock would not reach the next window within one.
TEST(UuidGenWindow, IsFollowedByTheNextOneWhateverTheClockSays)
{
    fake_system_t system;
    keys_t issued;
    append_issued(issued, 10);
    const std::uint64_t first = system.window();
    system.seconds -= 3600;
    append_issued(issued, 5 * SEQUENCES);
    EXPECT_LE(system.longest_sleep, LONGEST_SLEEP);
    EXPECT_GE(system.slept_nanoseconds, 4 * LONGEST_SLEEP);
    const std::uint64_t last = next_ticket().window;
    EXPECT_GE(last, first + 4);
    EXPECT_LE(last, first + 6);
    expect_distinct(issued);
}

// Where the clock then stands in a window of its own says nothing of how long the last one is.
TEST(UuidGenWindow, IsSleptThroughAsAWholeWhenTheClockWasSetBack)
{
    fake_system_t system;
    keys_t issued;
    append_issued(issued, 1);
    system.seconds -= 3600;
    system.microseconds = 0;
    const std::uint64_t rest = UNITS_PER_WINDOW - stamp(1'000'000'000 - 3600, 0) % UNITS_PER_WINDOW;
    system.microseconds = static_cast<std::int64_t>(rest / 10) - 1;
    append_issued(issued, SEQUENCES);
    EXPECT_EQ(system.slept_nanoseconds, LONGEST_SLEEP);
    expect_distinct(issued);
}

TEST(UuidGenWindow, IsFollowedByTheNextOneWhenTheClockStandsStill)
{
    fake_system_t system;
    system.clock_runs = false;
    keys_t issued;
    append_issued(issued, 3 * SEQUENCES);
    EXPECT_LE(system.longest_sleep, LONGEST_SLEEP);
    expect_distinct(issued);
}

// ---- The process id ----

TEST(UuidGenProcess, IsAskedForOnce)
{
    const fake_system_t system;
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(process_id(), 0x123456u);
    EXPECT_EQ(system.pid_calls, 1);
}

TEST(UuidGenProcess, IsAskedForAgainInTheChildOfAFork)
{
    fake_system_t system;
    EXPECT_EQ(process_id(), 0x123456u);
    in_child([&] {
        system.pid = 0x123457;
        EXPECT_EQ(process_id(), 0x123457u);
        EXPECT_EQ(process_id(), 0x123457u);
        EXPECT_EQ(system.pid_calls, 2);
    });
    EXPECT_EQ(process_id(), 0x123456u);
}

TEST(UuidGenProcess, IsAskedForEachTimeWhereNoPageCanBeHad)
{
    fake_system_t system;
    Kvl::sys_calls.mmap = [](void*, std::size_t, int, int, int, off_t) -> void* {
        errno = ENOMEM;
        return MAP_FAILED;
    };
    for (const pid_t pid : {5, 6}) {
        system.pid = pid;
        EXPECT_EQ(process_id(), static_cast<unsigned int>(pid));
    }
    EXPECT_EQ(system.pid_calls, 2);
}

int g_unmapped = 0;

TEST(UuidGenProcess, IsAskedForEachTimeWhereThePageWouldBeCopied)
{
    fake_system_t system;
    g_unmapped = 0;
    Kvl::sys_calls.madvise = [](void*, std::size_t, int) {
        errno = EINVAL;
        return -1;
    };
    Kvl::sys_calls.munmap = [](void* place, std::size_t size) {
        ++g_unmapped;
        return ::munmap(place, size);
    };
    for (const pid_t pid : {5, 6}) {
        system.pid = pid;
        EXPECT_EQ(process_id(), static_cast<unsigned int>(pid));
    }
    EXPECT_EQ(system.pid_calls, 2);
    EXPECT_EQ(g_unmapped, 1);
}

bool g_is_overtaken = false;

// Another thread has its page in place before this one has made its own.
TEST(UuidGenProcess, GivesThePageBackThatNobodyNeeds)
{
    fake_system_t system;
    g_unmapped = 0;
    g_is_overtaken = false;
    Kvl::sys_calls.mmap = [](void* place, std::size_t size, int access, int flags, int descriptor,
                             off_t offset) {
        if (!std::exchange(g_is_overtaken, true))
            std::thread([] { EXPECT_EQ(process_id(), 0x123456u); }).join();
        return ::mmap(place, size, access, flags, descriptor, offset);
    };
    Kvl::sys_calls.munmap = [](void* place, std::size_t size) {
        ++g_unmapped;
        return ::munmap(place, size);
    };
    EXPECT_EQ(process_id(), 0x123456u);
    EXPECT_TRUE(g_is_overtaken);
    EXPECT_EQ(g_unmapped, 1);
    EXPECT_EQ(system.pid_calls, 1);
}

TEST(UuidGenProcess, IsRememberedInOnePageByManyThreads)
{
    for (int round = 0; round < 50; ++round) {
        fake_system_t::forget();
        std::vector<std::thread> threads;
        std::atomic<int> right{0};
        for (int i = 0; i < 4; ++i)
            threads.emplace_back(
                [&] { right += process_id() == static_cast<unsigned int>(getpid()) ? 1 : 0; });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(right, 4);
    }
}

// ---- Cancellation ----

std::atomic<bool> g_is_sleeping{false};

TEST(UuidGen, IsNotCancelledWhileItWaits)
{
    fake_system_t system;
    keys_t issued;
    append_issued(issued, SEQUENCES);
    Kvl::sys_calls.nanosleep = [](const timespec*, timespec*) {
        pthread_testcancel();
        return 0;
    };
    system.clock_runs = false;
    pthread_t thread;
    const auto generate = [](void*) -> void* {
        pthread_cancel(pthread_self());
        tbs_uuid_s uuid;
        return brenner_tbs_uuid_gen(&uuid) == 0 ? &g_is_sleeping : nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, generate, nullptr), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, &g_is_sleeping);
    append_issued(issued, 10);
    expect_distinct(issued);
}

}  // namespace
