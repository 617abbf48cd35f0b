#ifndef QMLOGGER_FORK_LOCK_IMPL_H
#define QMLOGGER_FORK_LOCK_IMPL_H

#include <pthread.h>

namespace Log::ForkImpl {

/// A mutex that the forking thread holds over a fork(), so that what it guards is whole in the
/// child and the child can take it. While that thread runs other fork handlers it passes: those
/// may log too.
///
/// All of them are listed in fork_lock.cpp, in the order in which a thread may take several.
/// Constant-initialised, never destroyed.
class fork_lock {
public:
    constexpr fork_lock() = default;
    fork_lock(const fork_lock&) = delete;
    fork_lock& operator=(const fork_lock&) = delete;

    void lock();
    void unlock();

private:
    friend void before_fork();
    friend void after_fork_in_parent();
    friend void after_fork_in_child();

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

extern fork_lock g_catalogues_lock;  ///< guards the open translations

}  // namespace Log::ForkImpl

#endif
