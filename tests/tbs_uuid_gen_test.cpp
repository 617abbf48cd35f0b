#include <kvutil/oid.h>
#include <kvutil/tbs_uuid_gen.h>

#include "support/child.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// Instrumented code makes them an order of magnitude more slowly than the clock allows, so fewer
// do.
constexpr int SHARE = IS_SANITIZED ? 10 : 1;

constexpr std::uint64_t UNITS_PER_WINDOW = 1 << 20;
constexpr std::uint32_t SEQUENCES = 1 << 18;

tbs_uuid_s generate()
{
    tbs_uuid_s uuid;
    if (brenner_tbs_uuid_gen(&uuid) != 0)
        std::abort();
    return uuid;
}

std::uint64_t window_of(const tbs_uuid_s& uuid)
{
    const std::uint64_t high = uuid.time_hi_and_version & 0x0FFF;
    return (high << 48 | std::uint64_t{uuid.time_mid} << 32 | uuid.time_low) / UNITS_PER_WINDOW;
}

std::uint32_t sequence_of(const tbs_uuid_s& uuid)
{
    return uuid.time_low >> 2 & (SEQUENCES - 1);
}

std::uint64_t window_now()
{
    timeval now;
    gettimeofday(&now, nullptr);
    const auto seconds = static_cast<std::uint64_t>(now.tv_sec);
    const auto microseconds = static_cast<std::uint64_t>(now.tv_usec);
    return (seconds * 10'000'000 + microseconds * 10 + 0x01B21DD313814000) / UNITS_PER_WINDOW;
}

int process_bits_of(const tbs_uuid_s& uuid)
{
    return (uuid.clock_seq_hi_and_reserved & 0x3F) << 10 | uuid.clock_seq_low << 2 |
           static_cast<int>(uuid.time_low & 3);
}

// ---- Fields ----

TEST(UuidGen, HasVersionOneAndTheStandardVariant)
{
    for (int i = 0; i < 1000; ++i) {
        const tbs_uuid_s uuid = generate();
        EXPECT_EQ(uuid.time_hi_and_version >> 12, 1);
        EXPECT_EQ(uuid.clock_seq_hi_and_reserved >> 6, 2);
    }
}

TEST(UuidGen, HasTheTimeOfTheClock)
{
    const std::uint64_t before = window_now();
    const std::uint64_t window = window_of(generate());
    const std::uint64_t after = window_now();
    EXPECT_GE(window, before);
    EXPECT_LE(window, after);
}

TEST(UuidGen, CountsTheSequenceOn)
{
    std::uint32_t last = sequence_of(generate());
    for (int i = 0; i < 1000; ++i) {
        const std::uint32_t next = sequence_of(generate());
        EXPECT_EQ(next, (last + 1) % SEQUENCES);
        last = next;
    }
}

TEST(UuidGen, DiffersInTheTimeAndNothingElseWithinAProcess)
{
    const tbs_uuid_s one = generate();
    const tbs_uuid_s other = generate();
    EXPECT_NE(one.time_low, other.time_low);
    EXPECT_EQ(one.clock_seq_hi_and_reserved, other.clock_seq_hi_and_reserved);
    EXPECT_EQ(one.clock_seq_low, other.clock_seq_low);
    EXPECT_EQ(std::memcmp(one.node, other.node, 6), 0);
}

TEST(UuidGen, HasSixteenBitsOfTheProcessId)
{
    EXPECT_EQ(process_bits_of(generate()), getpid() & 0xFFFF);
}

TEST(UuidGen, IsWhatUuidAndOidGive)
{
    const tbs_uuid_s uuid = Kvl::Uuid::gen();
    const tbs_uuid_s oid = Kvl::Oid::gen();
    EXPECT_EQ(process_bits_of(uuid), getpid() & 0xFFFF);
    EXPECT_EQ(sequence_of(oid), (sequence_of(uuid) + 1) % SEQUENCES);
    EXPECT_EQ(std::memcmp(uuid.node, oid.node, 6), 0);
    EXPECT_FALSE(Kvl::Uuid::gen().is_nil());
    EXPECT_NE(Kvl::Oid::gen(), Kvl::Oid::gen());
}

TEST(UuidGen, NeedsLittleStack)
{
    on_small_stack([] { EXPECT_EQ(generate().time_hi_and_version >> 12, 1); });
}

// ---- No value twice ----

using oids_t = std::vector<Kvl::Oid>;

void append_generated(oids_t& oids, int count)
{
    oids.reserve(oids.size() + static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        oids.push_back(Kvl::Oid::gen());
}

void expect_distinct(oids_t& oids)
{
    std::sort(oids.begin(), oids.end());
    EXPECT_EQ(std::adjacent_find(oids.begin(), oids.end()), oids.end());
}

TEST(UuidGen, NeverRepeatsInOneThread)
{
    oids_t oids;
    append_generated(oids, 3'000'000 / SHARE);
    EXPECT_EQ(oids.size(), 3'000'000u / SHARE);
    expect_distinct(oids);
}

TEST(UuidGen, NeverRepeatsInEightThreads)
{
    std::array<oids_t, 8> shares;
    std::vector<std::thread> threads;
    for (oids_t& share : shares)
        threads.emplace_back([&share] { append_generated(share, 300'000 / SHARE); });
    oids_t all;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        all.insert(all.end(), shares[i].begin(), shares[i].end());
    }
    EXPECT_EQ(all.size(), 2'400'000u / SHARE);
    expect_distinct(all);
}

// ---- fork() ----

constexpr int PER_CHILD = 200;

/// What a child of this process generates, and that the child's id is in it.
oids_t generated_by_child()
{
    int ends[2];
    if (pipe(ends) != 0)
        return {};
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        std::array<tbs_uuid_s, PER_CHILD> uuids;
        for (tbs_uuid_s& uuid : uuids)
            uuid = generate();
        _exit(write(ends[1], &uuids, sizeof uuids) == sizeof uuids ? 0 : 1);
    }
    close(ends[1]);
    std::array<tbs_uuid_s, PER_CHILD> uuids{};
    EXPECT_EQ(read(ends[0], &uuids, sizeof uuids), static_cast<ssize_t>(sizeof uuids));
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    for (const tbs_uuid_s& uuid : uuids)
        EXPECT_EQ(process_bits_of(uuid), pid & 0xFFFF);
    return oids_t(uuids.begin(), uuids.end());
}

void append(oids_t& oids, const oids_t& more)
{
    oids.insert(oids.end(), more.begin(), more.end());
}

TEST(UuidGen, DiffersInParentAndChildren)
{
    oids_t all;
    append_generated(all, 1);
    for (int i = 0; i < 20; ++i) {
        append(all, generated_by_child());
        append_generated(all, PER_CHILD);
    }
    EXPECT_EQ(all.size(), 20u * 2 * PER_CHILD + 1);
    expect_distinct(all);
}

TEST(UuidGen, DiffersInChildrenForkedWhileThreadsGenerate)
{
    std::atomic<bool> done{false};
    std::atomic<int> batches{0};
    std::array<oids_t, 2> shares;
    std::vector<std::thread> threads;
    for (oids_t& share : shares)
        threads.emplace_back([&] {
            for (; !done; ++batches)
                append_generated(share, 1000);
        });
    oids_t all;
    for (int i = 0; i < 20; ++i) {
        while (batches < i)  // they are at work
            std::this_thread::yield();
        append(all, generated_by_child());
    }
    done = true;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        append(all, shares[i]);
    }
    EXPECT_GE(all.size(), 20u * PER_CHILD + 19'000);
    expect_distinct(all);
}

// The child of a child, which its grandparent's memory has passed through twice.
TEST(UuidGen, HasTheIdOfAGrandchild)
{
    generate();
    in_child([] {
        in_child([] { EXPECT_EQ(process_bits_of(generate()), getpid() & 0xFFFF); });
        EXPECT_EQ(process_bits_of(generate()), getpid() & 0xFFFF);
    });
}

}  // namespace
