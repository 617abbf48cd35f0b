#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>

#include "sys_calls_impl.h"
#include "tbs_uuid_gen_impl.h"
#include "uncancelled_impl.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <sys/mman.h>

namespace Kvl {

using UuidGenImpl::ticket_t;

namespace {

// ---- The clock ----

// Deliberate: 2^32 more than the 100-ns units from 15 October 1582 to 1 January 1970, so that time
// stamps continue those of identifiers already issued.
constexpr std::uint64_t EPOCH_OFFSET = 0x01B21DD313814000;
constexpr std::uint64_t UNITS_PER_SECOND = 10'000'000;
constexpr std::uint64_t UNITS_PER_MICROSECOND = 10;
constexpr long NANOSECONDS_PER_MICROSECOND = 1000;

constexpr int WINDOW_SHIFT = 20;
constexpr std::uint64_t UNITS_PER_WINDOW = std::uint64_t{1} << WINDOW_SHIFT;
constexpr std::uint64_t WINDOW_MASK = (std::uint64_t{1} << 40) - 1;

struct clock_reading_t {
    std::uint64_t time_units;
    std::uint32_t microseconds;  ///< of the second

    std::uint64_t window() const { return time_units >> WINDOW_SHIFT & WINDOW_MASK; }
    std::uint64_t units_into_window() const { return time_units & (UNITS_PER_WINDOW - 1); }
};

clock_reading_t read_clock()
{
    timeval now{};
    sys_calls.gettimeofday(&now, nullptr);
    const auto seconds = static_cast<std::uint64_t>(now.tv_sec);
    const auto microseconds = static_cast<std::uint32_t>(now.tv_usec);
    return {seconds * UNITS_PER_SECOND + microseconds * UNITS_PER_MICROSECOND + EPOCH_OFFSET,
            microseconds};
}

// Not a cancellation point: the callers are C functions, and a window is short. Windows do not end
// on whole microseconds, which is what the clock shows.
void sleep_units(std::uint64_t units)
{
    const uncancelled_t whole;
    const auto microseconds =
        static_cast<long>((units + UNITS_PER_MICROSECOND - 1) / UNITS_PER_MICROSECOND);
    timespec left{0, microseconds * NANOSECONDS_PER_MICROSECOND};
    while (sys_calls.nanosleep(&left, &left) != 0 && errno == EINTR)
        ;
}

// ---- Sequence ----

// Within one window, a sequence number must not come twice. What has been issued last is one atomic
// word, so that there is no lock to be lost over fork() or to wait for: the window, the sequence,
// and where the sequence stood when the window began, in blocks of 4,096 because 6 bits are left
// for it. A window ends before the sequence enters that block again, so it is at most 4,095 short
// of all 2^18. Nothing else is published through the word: its own order is enough.
constexpr std::uint32_t SEQUENCE_MASK = 0x3FFFF;
constexpr int BLOCK_SHIFT = 12;

struct issued_t {
    std::uint64_t window;
    std::uint32_t sequence;
    std::uint32_t first_block;
};

constexpr std::uint64_t NOTHING_ISSUED = 0;
constinit std::atomic<std::uint64_t> g_issued{NOTHING_ISSUED};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

constexpr std::uint64_t pack(const issued_t& i)
{
    return i.window << 24 | std::uint64_t{i.sequence} << 6 | i.first_block;
}

constexpr issued_t unpack(std::uint64_t word)
{
    return {word >> 24, static_cast<std::uint32_t>(word >> 6) & SEQUENCE_MASK,
            static_cast<std::uint32_t>(word & 0x3F)};
}

constexpr issued_t first_in_window(std::uint64_t window, std::uint32_t sequence)
{
    return {window, sequence & SEQUENCE_MASK, (sequence & SEQUENCE_MASK) >> BLOCK_SHIFT};
}

constexpr std::uint32_t after(std::uint32_t sequence)
{
    return (sequence + 1) & SEQUENCE_MASK;
}

/// Whether the sequence has come round to the block in which its window began.
constexpr bool is_used_up(const issued_t& last)
{
    return after(last.sequence) == last.first_block << BLOCK_SHIFT;
}

/// What follows `last` at a time in `window`. A clock that was set back is no reason to leave the
/// last window.
constexpr issued_t following(const issued_t& last, std::uint64_t window)
{
    const std::uint32_t sequence = after(last.sequence);
    return window > last.window ? first_in_window(window, sequence)
                                : issued_t{last.window, sequence, last.first_block};
}

bool issue(std::uint64_t& last, const issued_t& next)
{
    return g_issued.compare_exchange_strong(last, pack(next), std::memory_order_relaxed);
}

/// Sleeps until the last window is over: by the clock or, when the clock was set back, for its
/// length. If nobody else has gone on by then, the next window begins, whatever the clock says, so
/// that no wait is longer than one window.
/// @return  the window that may now begin
std::uint64_t wait_for_window_after(const issued_t& last)
{
    const clock_reading_t now = read_clock();
    if (now.window() > last.window)
        return now.window();
    const std::uint64_t units_into_window =
        now.window() == last.window ? now.units_into_window() : 0;
    sleep_units(UNITS_PER_WINDOW - units_into_window);
    const std::uint64_t window = read_clock().window();
    return window > last.window ? window : last.window + 1;
}

/// What to issue behind `word`.
issued_t next_after(std::uint64_t word, const clock_reading_t& now)
{
    if (word == NOTHING_ISSUED)
        return first_in_window(now.window(), now.microseconds);
    const issued_t last = unpack(word);
    if (now.window() <= last.window && is_used_up(last))
        return first_in_window(wait_for_window_after(last), after(last.sequence));
    return following(last, now.window());
}

// ---- Process id ----

using remembered_id_t = std::atomic<std::uint32_t>;
constexpr std::size_t REMEMBERED_ID_BYTES = sizeof(remembered_id_t);
static_assert(remembered_id_t::is_always_lock_free);

/// Stands in where the kernel cannot empty a page on fork(): the id is then asked for each time.
constinit remembered_id_t g_never_remembered{0};
/// Null until the first call.
constinit std::atomic<remembered_id_t*> g_remembered_id{nullptr};

/// A place that the kernel sets to zero in the child of every fork(), however that is called.
remembered_id_t* new_remembered_id()
{
    void* const page = sys_calls.mmap(nullptr, REMEMBERED_ID_BYTES, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return &g_never_remembered;
    if (sys_calls.madvise(page, REMEMBERED_ID_BYTES, MADV_WIPEONFORK) == 0)
        return std::construct_at(static_cast<remembered_id_t*>(page), 0u);
    sys_calls.munmap(page, REMEMBERED_ID_BYTES);
    return &g_never_remembered;
}

void discard(remembered_id_t* place)
{
    if (place != &g_never_remembered && place != nullptr)
        sys_calls.munmap(place, REMEMBERED_ID_BYTES);
}

/// The place, the same for every thread.
remembered_id_t* place_of_remembered_id()
{
    remembered_id_t* known = g_remembered_id.load(std::memory_order_acquire);
    if (known != nullptr)
        return known;
    remembered_id_t* const own = new_remembered_id();
    if (g_remembered_id.compare_exchange_strong(known, own, std::memory_order_acq_rel))
        return own;
    discard(own);
    return known;
}

std::uint32_t ask_process_id(remembered_id_t* place)
{
    const auto id = static_cast<std::uint32_t>(sys_calls.getpid());
    if (place != &g_never_remembered)
        place->store(id, std::memory_order_relaxed);
    return id;
}

// ---- Node ----

constexpr int NO_NODE = 1001;

constinit pthread_once_t g_node_once = PTHREAD_ONCE_INIT;
constinit unsigned char g_node[6] = {};
constinit bool g_node_failure = true;

/// Random bytes with the top bit of the first one set.
bool obtain_random_node()
{
    if (brenner_sysutl_get_random_bytes(g_node, sizeof g_node) != 0)
        return false;
    g_node[0] |= 0x80;
    return true;
}

void obtain_node()
{
    g_node_failure = brenner_sysutl_my_ieee_hostid(g_node) != 0 && !obtain_random_node();
}

void fill_time_and_clock(tbs_uuid_s& out, const ticket_t& ticket, std::uint32_t pid)
{
    const std::uint64_t time = ticket.window << WINDOW_SHIFT;
    out.time_low = static_cast<std::uint32_t>(time) | ticket.sequence << 2 | (pid & 3);
    out.time_mid = static_cast<unsigned short>(time >> 32);
    out.time_hi_and_version = static_cast<unsigned short>((time >> 48 & 0x0FFF) | 0x1000);
    out.clock_seq_low = static_cast<unsigned char>(pid >> 2);
    out.clock_seq_hi_and_reserved = static_cast<unsigned char>((pid >> 10 & 0x3F) | 0x80);
}

}  // namespace

// The clock is read before the word and not again: that takes ten times as long as all the rest,
// and meanwhile another thread would nearly always have issued what this one is about to.
ticket_t UuidGenImpl::next_ticket() noexcept
{
    const clock_reading_t now = read_clock();
    std::uint64_t word = g_issued.load(std::memory_order_relaxed);
    issued_t next = next_after(word, now);
    while (!issue(word, next))
        next = next_after(word, now);
    return {next.window, next.sequence};
}

std::uint32_t UuidGenImpl::process_id() noexcept
{
    remembered_id_t* const place = place_of_remembered_id();
    const std::uint32_t id = place->load(std::memory_order_relaxed);
    return id != 0 ? id : ask_process_id(place);
}

void UuidGenImpl::forget() noexcept
{
    g_issued = NOTHING_ISSUED;
    discard(g_remembered_id.exchange(nullptr));
    g_node_once = PTHREAD_ONCE_INIT;
}

}  // namespace Kvl

using namespace Kvl;

int brenner_tbs_uuid_gen(tbs_uuid_s* out)
{
    if (out == nullptr)
        return NO_NODE;
    const std::uint32_t pid = UuidGenImpl::process_id();
    fill_time_and_clock(*out, UuidGenImpl::next_ticket(), pid);
    pthread_once(&g_node_once, obtain_node);
    if (g_node_failure)
        return NO_NODE;
    std::memcpy(out->node, g_node, sizeof g_node);
    return 0;
}
