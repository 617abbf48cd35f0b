#ifndef KVUTIL_CRITSEC_LOCK_H
#define KVUTIL_CRITSEC_LOCK_H

#include <kvutil/export.h>
#include <pthread.h>

// Inline, so that taking a lock costs what its mutex costs. The library defines this as nothing
// once: it has the functions too, for programs that were compiled when they were not inline.
#ifndef KVUTIL_CRITSEC_INLINE
#define KVUTIL_CRITSEC_INLINE inline
#endif

namespace Kvl {

namespace CriticalSectionImpl {

/// What a lock refers to; the library's own are more than this. Inline functions of programs look
/// into it: its members stay as they are.
struct mutex_t {
    pthread_mutex_t mutex;         ///< recursive
    const bool is_held_over_fork;  ///< by the forking thread, while fork handlers run
};

}  // namespace CriticalSectionImpl

/// A recursive mutual-exclusion lock that can be taken and released through a const reference,
/// so that a `const static` lock serves.
///
/// The results of the mutex calls are not checked; the lock reports no errors. There is no
/// try-lock and no timed wait. In the child of a fork() every lock starts free, whoever held it
/// at the fork: the threads that could release it do not exist there. It is free as soon as the
/// library's own fork handlers have run, so not for handlers of the child that were registered
/// before the library was loaded.
/// @par Thread-safety
/// lock() and unlock() may be called from any thread; a hold is released by the thread that took
/// it, as often as it was taken. Destroying a lock that is held or waited for is the caller's
/// error.
/// @see POSIX.1-2008, pthread_mutexattr_settype(), PTHREAD_MUTEX_RECURSIVE
class KVUTIL_EXPORT KVUTIL_CAPABILITY("mutex") CriticalSectionLock {
public:
    /// Creates a lock that nobody holds.
    /// @throws std::bad_alloc  no memory for the mutex
    CriticalSectionLock();

    /// A lock on a mutex that the library itself never destroys. Never throws.
    /// @param immortal  one of the library's own mutexes; the lock's destructor leaves it alone
    explicit CriticalSectionLock(CriticalSectionImpl::mutex_t& immortal) noexcept;

    /// Destroys the mutex and frees its storage.
    ~CriticalSectionLock();

    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

    /// Takes the lock, waiting as long as needed. Never throws. A thread that holds it already
    /// takes it again.
    KVUTIL_EXPORT void lock() const KVUTIL_ACQUIRE();

    /// Releases one hold of this thread. Never throws.
    KVUTIL_EXPORT void unlock() const KVUTIL_RELEASE();

private:
    void lock_held_over_fork() const;
    void unlock_held_over_fork() const;

    CriticalSectionImpl::mutex_t* mutex_;
};

// clang's analysis sees a capability, not the mutex behind it.
KVUTIL_CRITSEC_INLINE void CriticalSectionLock::lock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (mutex_->is_held_over_fork)
        lock_held_over_fork();
    else
        pthread_mutex_lock(&mutex_->mutex);
}

KVUTIL_CRITSEC_INLINE void CriticalSectionLock::unlock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    if (mutex_->is_held_over_fork)
        unlock_held_over_fork();
    else
        pthread_mutex_unlock(&mutex_->mutex);
}

}  // namespace Kvl

#endif
