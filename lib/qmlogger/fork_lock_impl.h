#ifndef QMLOGGER_FORK_LOCK_IMPL_H
#define QMLOGGER_FORK_LOCK_IMPL_H

#include <pthread.h>
#include <sys/types.h>

namespace Log::ForkImpl {

/// A mutex that the forking thread holds over a fork(), so that what it guards is whole in the
/// child and the child can take it. While that thread runs other fork handlers it passes: those
/// may log too.
///
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
    friend void after_fork();

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// All of them, in the order in which a thread may take several.
extern fork_lock g_catalogues_lock;  ///< guards the open translations
extern fork_lock g_manager_lock;     ///< guards the loggers and the thresholds that new ones get
extern fork_lock g_file_lock;        ///< guards the log file

/// Process and thread, also in the child of a fork(), without a system call for each line.
struct ids_t {
    pid_t process;
    pid_t thread;
};
ids_t current_ids();

}  // namespace Log::ForkImpl

#endif
