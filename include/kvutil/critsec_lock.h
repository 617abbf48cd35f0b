#ifndef KVUTIL_CRITSEC_LOCK_H
#define KVUTIL_CRITSEC_LOCK_H

#include <kvutil/export.h>
#include <pthread.h>

#include <atomic>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define KVUTIL_HAS_SINGLE_THREADED 1
#endif

// Inline, so that taking a free lock costs two writes to it and no call. The library defines this
// as nothing once: it has the functions too, for programs that were compiled when they were not
// inline.
#ifndef KVUTIL_CRITSEC_INLINE
#define KVUTIL_CRITSEC_INLINE inline
#endif

namespace Kvl {

namespace CriticalSectionImpl {

/// What a lock refers to; the library's own are more than this. Inline functions of programs look
/// into it: its members stay as they are.
struct mutex_t {
    enum state_t : int { FREE, HELD, HELD_AND_AWAITED };

    std::atomic<int> state{FREE};     ///< HELD_AND_AWAITED is a guess: perhaps nobody waits
    int depth = 0;                    ///< how often the holder has taken it again
    std::atomic<pthread_t> holder{};  ///< only the holder finds itself here
};

/// Waits until the mutex is free and takes it. Never throws.
KVUTIL_EXPORT void take_when_free(mutex_t& mutex) noexcept;

/// Lets one of those go on who wait, if any does. Never throws.
/// @param mutex  may be gone already: only its address is used
KVUTIL_EXPORT void wake_one(mutex_t& mutex) noexcept;

/// Whether this is surely the only thread of the process: then nothing needs to be indivisible.
inline bool is_only_thread() noexcept
{
#ifdef KVUTIL_HAS_SINGLE_THREADED
    return __libc_single_threaded != 0;
#else
    return false;
#endif
}

inline bool take_if_free(std::atomic<int>& state) noexcept
{
    int seen = mutex_t::FREE;
    if (!is_only_thread())
        return state.compare_exchange_strong(seen, mutex_t::HELD, std::memory_order_acquire,
                                             std::memory_order_relaxed);
    state.store(mutex_t::HELD, std::memory_order_relaxed);
    return true;
}

/// @return  whether somebody may wait for it
inline bool make_free(std::atomic<int>& state) noexcept
{
    if (!is_only_thread())
        return state.exchange(mutex_t::FREE, std::memory_order_release) ==
               mutex_t::HELD_AND_AWAITED;
    state.store(mutex_t::FREE, std::memory_order_relaxed);
    return false;
}

/// Takes a mutex for the first time or once more. Never throws.
inline void take(mutex_t& mutex) noexcept
{
    const pthread_t self = pthread_self();
    if (mutex.holder.load(std::memory_order_relaxed) == self) {
        ++mutex.depth;
        return;
    }
    if (!take_if_free(mutex.state))
        take_when_free(mutex);
    mutex.holder.store(self, std::memory_order_relaxed);
}

/// Releases one hold; not one that the thread does not have. Never throws.
inline void release(mutex_t& mutex) noexcept
{
    if (mutex.holder.load(std::memory_order_relaxed) != pthread_self())
        return;
    if (mutex.depth != 0) {
        --mutex.depth;
        return;
    }
    mutex.holder.store(pthread_t(), std::memory_order_relaxed);
    if (make_free(mutex.state))
        wake_one(mutex);
}

}  // namespace CriticalSectionImpl

/// A recursive mutual-exclusion lock that can be taken and released through a const reference,
/// so that a `const static` lock serves.
///
/// The lock reports no errors; releasing one that the thread does not hold does nothing. There is
/// no try-lock and no timed wait. In the child of a fork() every lock starts free, whoever held it
/// at the fork: the threads that could release it do not exist there.
/// @par Thread-safety
/// lock() and unlock() may be called from any thread; a hold is released by the thread that took
/// it, as often as it was taken. Destroying a lock that is held or waited for is the caller's
/// error.
///
/// It does what a POSIX mutex of the type PTHREAD_MUTEX_RECURSIVE does, but a free lock is taken
/// and released in line.
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
    CriticalSectionImpl::mutex_t* mutex_;
};

// clang's analysis sees a capability, not the mutex behind it.
KVUTIL_CRITSEC_INLINE void CriticalSectionLock::lock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    CriticalSectionImpl::take(*mutex_);
}

KVUTIL_CRITSEC_INLINE void CriticalSectionLock::unlock() const KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    CriticalSectionImpl::release(*mutex_);
}

}  // namespace Kvl

#endif
