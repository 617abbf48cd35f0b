#include "fork_lock_impl.h"

namespace Log::ForkImpl {

constinit fork_lock g_catalogues_lock;

namespace {

constexpr fork_lock* LOCKS[] = {&g_catalogues_lock};

constinit pthread_once_t g_handlers_once = PTHREAD_ONCE_INIT;

/// Whether this thread is between the handlers before and after its fork().
constinit thread_local bool g_forking = false;

}  // namespace

void before_fork()
{
    for (fork_lock* lock : LOCKS)
        pthread_mutex_lock(&lock->mutex_);
    g_forking = true;
}

void after_fork_in_parent()
{
    g_forking = false;
    for (fork_lock* lock : LOCKS)
        pthread_mutex_unlock(&lock->mutex_);
}

void after_fork_in_child()
{
    after_fork_in_parent();
}

namespace {

void register_handlers()
{
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

}  // namespace

void fork_lock::lock()
{
    pthread_once(&g_handlers_once, register_handlers);
    if (!g_forking)
        pthread_mutex_lock(&mutex_);
}

void fork_lock::unlock()
{
    if (!g_forking)
        pthread_mutex_unlock(&mutex_);
}

}  // namespace Log::ForkImpl
