#include <kvutil/critsec.h>

#include "critsec_lock_impl.h"
#include "support/sanitizer.h"
#include "support/watched_thread.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <list>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kvl::CriticalSection;
using Kvl::CriticalSectionLock;

static_assert(!std::is_copy_constructible_v<CriticalSectionLock>);
static_assert(!std::is_copy_assignable_v<CriticalSectionLock>);
static_assert(!std::is_copy_constructible_v<CriticalSection>);

// Comes first: this is the only thread of the process until now.
TEST(CriticalSectionLock, TakenByTheOnlyThreadKeepsOutThoseThatItStarts)
{
    const CriticalSectionLock lock;
    lock.lock();
    std::atomic<bool> entered{false};
    watched_thread_t other([&] {
        const CriticalSection section(lock);
        entered = true;
    });
    EXPECT_TRUE(other.falls_asleep());
    EXPECT_FALSE(entered);
    lock.unlock();
    other.join();
    EXPECT_TRUE(entered);
}

TEST(CriticalSectionNests, OnOneThreadWithoutBlocking)
{
    const CriticalSectionLock lock;
    const CriticalSection outer(lock);
    const CriticalSection inner(lock);
}

TEST(CriticalSectionNests, AndLetsAnotherThreadInOnlyAfterTheOutermostEnds)
{
    const CriticalSectionLock lock;
    std::atomic<bool> entered{false};
    std::optional<watched_thread_t> other;
    {
        const CriticalSection outer(lock);
        {
            const CriticalSection inner(lock);
            other.emplace([&] {
                const CriticalSection section(lock);
                entered = true;
            });
        }
        EXPECT_TRUE(other->falls_asleep());
        EXPECT_FALSE(entered);
    }
    other->join();
    EXPECT_TRUE(entered);
}

TEST(CriticalSectionLock, WorksAsConstStatic)
{
    static const CriticalSectionLock lock;
    lock.lock();
    lock.lock();
    lock.unlock();
    lock.unlock();
    EXPECT_TRUE(std::async(std::launch::async, [] {
                    const CriticalSection section(lock);
                    return true;
                }).get());
}

TEST(CriticalSectionLock, ExcludesOtherThreads)
{
    const CriticalSectionLock lock;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10'000; ++i) {
                const CriticalSection section(lock);
                ++counter;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80'000);
}

// All of them sleep before the first is let in, which may let in the next by itself.
TEST(CriticalSectionLock, LetsInEveryThreadThatWaits)
{
    const CriticalSectionLock lock;
    int counter = 0;
    std::list<watched_thread_t> threads;
    {
        const CriticalSection section(lock);
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] {
                const CriticalSection waits(lock);
                ++counter;
            });
        for (const watched_thread_t& thread : threads)
            EXPECT_TRUE(thread.falls_asleep());
        EXPECT_EQ(counter, 0);
    }
    for (watched_thread_t& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 8);
}

TEST(CriticalSectionLock, IsNotReleasedByAThreadThatDoesNotHoldIt)
{
    if (HAS_THREAD_SANITIZER)
        GTEST_SKIP() << "the thread sanitizer ends a program that does so";
    const CriticalSectionLock lock;
    lock.unlock();
    std::atomic<bool> entered{false};
    std::optional<watched_thread_t> other;
    {
        const CriticalSection section(lock);
        std::thread([&] { lock.unlock(); }).join();
        other.emplace([&] {
            const CriticalSection waits(lock);
            entered = true;
        });
        EXPECT_TRUE(other->falls_asleep());
        EXPECT_FALSE(entered);
    }
    other->join();
    EXPECT_TRUE(entered);
}

TEST(CriticalSectionLock, LeavesErrnoAlone)
{
    const CriticalSectionLock lock;
    lock.lock();
    watched_thread_t other([&] {
        errno = ENOTTY;
        const CriticalSection waits(lock);
        EXPECT_EQ(errno, ENOTTY);
    });
    EXPECT_TRUE(other.falls_asleep());
    errno = ENOTTY;
    lock.unlock();
    EXPECT_EQ(errno, ENOTTY);
    other.join();
}

TEST(CriticalSectionLock, IsReleasedWhenAnExceptionLeavesTheBlock)
{
    const CriticalSectionLock lock;
    try {
        const CriticalSection section(lock);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(std::async(std::launch::async, [&] {
                    const CriticalSection section(lock);
                    return true;
                }).get());
}

/// Runs `body` in a child process; the child's alarm ends it when it blocks for ever.
template <class Body>
int exit_status_of_child(Body body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

TEST(CriticalSectionLock, IsUsableInTheChildAlthoughAnotherThreadHeldItAtTheFork)
{
    const CriticalSectionLock lock;
    std::promise<void> held;
    std::promise<void> done;
    std::thread holder([&] {
        const CriticalSection section(lock);
        held.set_value();
        done.get_future().wait();
    });
    held.get_future().wait();
    EXPECT_EQ(exit_status_of_child([&] {
                  const CriticalSection outer(lock);
                  const CriticalSection inner(lock);
                  return 0;
              }),
              0);
    done.set_value();
    holder.join();
}

TEST(CriticalSectionLock, CreatedAndDestroyedInTheChildOfAFork)
{
    const CriticalSectionLock first;
    EXPECT_EQ(exit_status_of_child([] {
                  const CriticalSectionLock second;
                  const CriticalSection section(second);
                  return 0;
              }),
              0);
}

TEST(CriticalSectionLock, StartsFreeInTheChildWhenTheForkingThreadHeldIt)
{
    if (HAS_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer does not learn that a mutex was made anew";
    const CriticalSectionLock lock;
    const CriticalSection section(lock);
    EXPECT_EQ(exit_status_of_child([&] {
                  return std::async(std::launch::async,
                                    [&] {
                                        const CriticalSection other(lock);
                                        return 0;
                                    })
                      .get();
              }),
              0);
}

// -- locks whose mutex the library never destroys
// ---------------------------------------------------

constinit Kvl::CriticalSectionImpl::immortal_mutex_t g_mutex;
constinit Kvl::CriticalSectionImpl::immortal_mutex_t g_second_mutex;
constinit Kvl::CriticalSectionImpl::immortal_mutex_t g_mutex_listed_late;
constinit Kvl::CriticalSectionImpl::unattended_mutex_t g_unattended_mutex;

TEST(ImmortalLock, NestsAndExcludesOtherThreads)
{
    const CriticalSectionLock lock(g_mutex);
    std::atomic<bool> entered{false};
    std::optional<watched_thread_t> other;
    {
        const CriticalSection outer(lock);
        const CriticalSection inner(lock);
        other.emplace([&] {
            const CriticalSection section(lock);
            entered = true;
        });
        EXPECT_TRUE(other->falls_asleep());
        EXPECT_FALSE(entered);
    }
    other->join();
    EXPECT_TRUE(entered);
}

TEST(ImmortalLock, LeavesItsMutexUsableWhenItIsDestroyed)
{
    for (int i = 0; i < 3; ++i) {
        const CriticalSectionLock lock(g_mutex);
        const CriticalSection section(lock);
    }
    EXPECT_EQ(pthread_mutex_lock(&g_mutex.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&g_mutex.mutex), 0);
}

TEST(ImmortalLock, IsTheSameLockThroughEveryObject)
{
    const CriticalSectionLock one(g_mutex);
    const CriticalSectionLock other(g_mutex);
    one.lock();
    watched_thread_t waiting([&] { const CriticalSection waits(other); });
    EXPECT_TRUE(waiting.falls_asleep());
    one.unlock();
    waiting.join();
}

/// Two numbers that are equal whenever nobody holds the lock.
struct guarded_pair_t {
    std::atomic<int> first{0}, second{0};
};

// The fork() comes while the numbers differ. It waits for them to be equal, or for its child.
TEST(ImmortalLock, GuardsWhatIsWholeInTheChildOfAFork)
{
    const CriticalSectionLock lock(g_mutex);
    const CriticalSectionLock newer(g_second_mutex);
    guarded_pair_t pair;
    watched_t forking;
    std::promise<void> is_begun;
    std::thread writer([&] {
        const CriticalSection newest_first(newer);
        const CriticalSection section(lock);
        ++pair.first;
        is_begun.set_value();
        EXPECT_TRUE(forking.falls_asleep());
        ++pair.second;
    });
    is_begun.get_future().wait();
    forking.watch_me();
    EXPECT_EQ(exit_status_of_child([&] {
                  const CriticalSection outer(newer);
                  const CriticalSection inner(lock);
                  return pair.first == 1 && pair.second == 1 ? 0 : 1;
              }),
              0);
    writer.join();
}

// The fork() first waits for an older lock. Meanwhile this one is listed, held, and half used.
TEST(ImmortalLock, ThatIsListedWhileAForkWaitsIsTakenToo)
{
    const CriticalSectionLock older(g_mutex);
    guarded_pair_t pair;
    watched_t forking;
    std::promise<void> is_held;
    std::promise<void> is_begun;
    std::thread holder([&] {
        const CriticalSection section(older);
        is_held.set_value();
        is_begun.get_future().wait();
    });
    std::thread writer([&] {
        EXPECT_TRUE(forking.falls_asleep());
        const unsigned long waits = forking.num_waits();
        const CriticalSectionLock newer(g_mutex_listed_late);
        const CriticalSection section(newer);
        ++pair.first;
        is_begun.set_value();
        EXPECT_TRUE(forking.falls_asleep(waits));
        ++pair.second;
    });
    is_held.get_future().wait();
    forking.watch_me();
    EXPECT_EQ(exit_status_of_child([&] { return pair.first == pair.second ? 0 : 1; }), 0);
    holder.join();
    writer.join();
}

TEST(ImmortalLock, UnattendedIsNotWaitedForByAFork)
{
    const CriticalSectionLock lock(g_unattended_mutex);
    std::promise<void> held;
    std::promise<void> done;
    std::thread holder([&] {
        const CriticalSection section(lock);
        held.set_value();
        done.get_future().wait();
    });
    held.get_future().wait();
    EXPECT_EQ(exit_status_of_child([&] {
                  const CriticalSection section(lock);
                  return 0;
              }),
              0);
    done.set_value();
    holder.join();
}

std::atomic<const CriticalSectionLock*> g_lock_of_handlers{nullptr};

void use_locks_in_handler()
{
    if (const CriticalSectionLock* const lock = g_lock_of_handlers) {
        const CriticalSectionLock own;
        const CriticalSection outer(own);
        const CriticalSection inner(*lock);
    }
}

int g_early_handlers = -1;

void register_early_handlers()
{
    g_early_handlers =
        pthread_atfork(use_locks_in_handler, use_locks_in_handler, use_locks_in_handler);
}

// Runs before the libraries are initialised, so before this one registers handlers of its own: the
// handler before the fork then runs after the library's, and those after the fork before them.
[[gnu::section(".preinit_array"), gnu::used]] void (*g_register_early)() = register_early_handlers;

TEST(ImmortalLock, MayBeUsedByOtherForkHandlers)
{
    ASSERT_EQ(g_early_handlers, 0);
    const CriticalSectionLock lock(g_mutex);
    g_lock_of_handlers = &lock;
    ASSERT_EQ(pthread_atfork(use_locks_in_handler, use_locks_in_handler, use_locks_in_handler), 0);
    EXPECT_EQ(exit_status_of_child([&] {
                  const CriticalSection section(lock);
                  return 0;
              }),
              0);
    g_lock_of_handlers = nullptr;
}

/// How often a thread has used the lock that is destroyed meanwhile.
std::atomic<unsigned long> g_uses{0};

void await_two_more_uses()
{
    const unsigned long before = g_uses;
    while (g_uses < before + 2)
        std::this_thread::yield();
}

/// Destroyed after the lock; lets the process end when the lock has been used without its object.
struct awaits_uses_t {
    ~awaits_uses_t()
    {
        if (is_on)
            await_two_more_uses();
    }
    bool is_on = false;
};
awaits_uses_t g_awaits_uses;
const CriticalSectionLock g_destroyed_at_exit(g_mutex);

TEST(ImmortalLock, MayBeUsedByThreadsThatStillRunAtExit)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        std::thread([] {
            const CriticalSectionLock& lock = g_destroyed_at_exit;
            for (;; ++g_uses)
                const CriticalSection section(lock);
        }).detach();
        await_two_more_uses();
        g_awaits_uses.is_on = true;
        std::exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace
