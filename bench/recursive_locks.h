#pragma once

#include "contest.h"

#include <kvutil/critsec.h>

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <thread>

#ifdef KVUTIL_BENCH_QT
#include <QMutex>
#endif

/// Recursive locks, each with the guard that holds it for a block.
namespace RecursiveLocks {

struct in_kvutil {
    typedef Kvl::CriticalSectionLock lock_t;
    typedef Kvl::CriticalSection guard_t;
};

class pthread_recursive_mutex {
public:
    pthread_recursive_mutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~pthread_recursive_mutex() { pthread_mutex_destroy(&mutex_); }
    pthread_recursive_mutex(const pthread_recursive_mutex&) = delete;
    pthread_recursive_mutex& operator=(const pthread_recursive_mutex&) = delete;
    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

/// The least that excludes and nests: who waits tries again and again.
class flag_with_owner {
public:
    void lock()
    {
        if (owner_.load(std::memory_order_relaxed) == &own_address_) {
            ++depth_;
            return;
        }
        while (is_taken_.exchange(true, std::memory_order_acquire))
            std::this_thread::yield();
        owner_.store(&own_address_, std::memory_order_relaxed);
        depth_ = 1;
    }
    void unlock()
    {
        if (--depth_ != 0)
            return;
        owner_.store(nullptr, std::memory_order_relaxed);
        is_taken_.store(false, std::memory_order_release);
    }

private:
    static inline thread_local char own_address_ = 0;

    std::atomic<bool> is_taken_ = false;
    std::atomic<const char*> owner_ = nullptr;
    int depth_ = 0;
};

template <class Lock>
struct with_lock_guard {
    typedef Lock lock_t;
    typedef std::lock_guard<Lock> guard_t;
};
typedef with_lock_guard<pthread_recursive_mutex> in_pthread;
typedef with_lock_guard<std::recursive_mutex> in_std;
typedef with_lock_guard<flag_with_owner> in_floor;
#ifdef KVUTIL_BENCH_QT
typedef with_lock_guard<QRecursiveMutex> in_qt;
#endif

/// A section, on its own line of the cache as the state that it guards.
template <class Family>
void one_section(benchmark::State& state)
{
    alignas(64) typename Family::lock_t lock;
    for (auto _ : state)
        const typename Family::guard_t section(lock);
}

template <class Family>
void nested_section(benchmark::State& state)
{
    alignas(64) typename Family::lock_t lock;
    const typename Family::guard_t outer(lock);
    for (auto _ : state)
        const typename Family::guard_t inner(lock);
}

}  // namespace RecursiveLocks
