// Taking and releasing a lock, once and nested, against the two that a caller would use instead.

#include <kvutil/critsec.h>

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <mutex>

namespace {

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

Kvl::CriticalSectionLock g_kvutil_lock;
pthread_recursive_mutex g_pthread_lock;
std::recursive_mutex g_std_lock;

void section_in_kvutil(benchmark::State& state)
{
    for (auto _ : state)
        const Kvl::CriticalSection section(g_kvutil_lock);
}
BENCHMARK(section_in_kvutil)->Threads(1)->Threads(2);

void section_in_pthread(benchmark::State& state)
{
    for (auto _ : state)
        const std::lock_guard section(g_pthread_lock);
}
BENCHMARK(section_in_pthread)->Threads(1)->Threads(2);

void section_in_std(benchmark::State& state)
{
    for (auto _ : state)
        const std::lock_guard section(g_std_lock);
}
BENCHMARK(section_in_std)->Threads(1)->Threads(2);

void nested_section_in_kvutil(benchmark::State& state)
{
    const Kvl::CriticalSection outer(g_kvutil_lock);
    for (auto _ : state)
        const Kvl::CriticalSection inner(g_kvutil_lock);
}
BENCHMARK(nested_section_in_kvutil);

void nested_section_in_std(benchmark::State& state)
{
    const std::lock_guard outer(g_std_lock);
    for (auto _ : state)
        const std::lock_guard inner(g_std_lock);
}
BENCHMARK(nested_section_in_std);

}  // namespace
