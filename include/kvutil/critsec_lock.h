#ifndef KVUTIL_CRITSEC_LOCK_H
#define KVUTIL_CRITSEC_LOCK_H

#include <kvutil/export.h>
#include <pthread.h>

namespace Kvl {

namespace CriticalSectionImpl {
struct mutex_t;
}

/// A recursive mutual-exclusion lock that can be taken and released through a const reference,
/// so that a `const static` lock serves.
///
/// The results of the mutex calls are not checked; the lock reports no errors. There is no
/// try-lock and no timed wait. In the child of a fork() every lock starts free, whoever held it
/// at the fork: the threads that could release it do not exist there.
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
    void lock() const KVUTIL_ACQUIRE();

    /// Releases one hold of this thread. Never throws.
    void unlock() const KVUTIL_RELEASE();

private:
    CriticalSectionImpl::mutex_t* mutex_;
};

}  // namespace Kvl

#endif
