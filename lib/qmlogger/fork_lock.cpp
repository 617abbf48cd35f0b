#include "fork_lock_impl.h"

#include <unistd.h>

namespace Log::ForkImpl {

constinit fork_lock g_catalogues_lock;
constinit fork_lock g_manager_lock;
constinit fork_lock g_file_lock;

namespace {

constexpr fork_lock* LOCKS[] = {&g_catalogues_lock, &g_manager_lock, &g_file_lock};

/// Whether this thread is between the handlers before and after its fork().
[[gnu::tls_model("initial-exec")]] constinit thread_local bool g_forking = false;

/// 0 = to be asked for.
[[gnu::tls_model("initial-exec")]] constinit thread_local ids_t g_ids = {0, 0};

}  // namespace

void before_fork()
{
    for (fork_lock* lock : LOCKS)
        pthread_mutex_lock(&lock->mutex_);
    g_forking = true;
}

void after_fork()
{
    g_forking = false;
    for (fork_lock* lock : LOCKS)
        pthread_mutex_unlock(&lock->mutex_);
}

namespace {

void after_fork_in_child()
{
    after_fork();
    g_ids = {0, 0};
}

// At load, so that the handlers stand before those of everything that uses this library: a thread
// that logs while it holds locks of its own is then waited for in the same order by a fork().
[[gnu::constructor]] void register_handlers()
{
    pthread_atfork(before_fork, after_fork, after_fork_in_child);
}

}  // namespace

void fork_lock::lock()
{
    if (!g_forking)
        pthread_mutex_lock(&mutex_);
}

void fork_lock::unlock()
{
    if (!g_forking)
        pthread_mutex_unlock(&mutex_);
}

ids_t current_ids()
{
    if (g_forking)  // on which side of it is not known yet
        return {getpid(), gettid()};
    if (g_ids.thread == 0)
        g_ids = {getpid(), gettid()};
    return g_ids;
}

}  // namespace Log::ForkImpl
