#include <kvutil/critsec.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kvl::CriticalSection;
using Kvl::CriticalSectionLock;
using namespace std::chrono_literals;

static_assert(!std::is_copy_constructible_v<CriticalSectionLock>);
static_assert(!std::is_copy_assignable_v<CriticalSectionLock>);
static_assert(!std::is_copy_constructible_v<CriticalSection>);

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
    std::thread other;
    {
        const CriticalSection outer(lock);
        {
            const CriticalSection inner(lock);
            other = std::thread([&] {
                const CriticalSection section(lock);
                entered = true;
            });
        }
        std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(entered);
    }
    other.join();
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

/// Runs `body` in a child process; the child's alarm ends it when it blocks.
template <class Body>
int exit_status_of_child(Body body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(10);
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

}  // namespace
