#ifndef KVUTIL_CRITSEC_LOCK_IMPL_H
#define KVUTIL_CRITSEC_LOCK_IMPL_H

#include <kvutil/critsec_lock.h>

namespace Kvl::CriticalSectionImpl {

/// A recursive mutex and its place in the lists that the handlers of a fork() walk. The mutex is
/// made when the first lock refers to it.
struct listed_mutex_t : mutex_t {
    /// One that a CriticalSectionLock owns and destroys.
    constexpr listed_mutex_t() noexcept : mutex_t{{}, false} {}

    listed_mutex_t* next = nullptr;
    listed_mutex_t* previous = nullptr;
    const bool is_immortal = false;
    bool is_listed = false;

protected:
    constexpr explicit listed_mutex_t(bool held_over_fork) noexcept
        : mutex_t{{}, held_over_fork}, is_immortal(true)
    {
    }
};

/// The mutex behind one of the library's own static locks: constant-initialised, usable by threads
/// that still run while the process ends, destroyed with no lock that refers to it.
///
///     constinit CriticalSectionImpl::immortal_mutex_t g_table_mutex;
///     const CriticalSectionLock g_table_lock(g_table_mutex);
///
/// What it guards is whole in the child of a fork(), because the forking thread takes it first.
/// The newest of these locks is taken first, so whoever holds one may take older ones only, and
/// calls nothing of its caller's and no logger meanwhile.
struct immortal_mutex_t : listed_mutex_t {
    constexpr immortal_mutex_t() noexcept : listed_mutex_t(true) {}
};

/// The same for a lock that is held while code outside the library runs: a fork() does not wait
/// for it, so what it guards may be seen half changed in the child.
struct unattended_mutex_t : listed_mutex_t {
    constexpr unattended_mutex_t() noexcept : listed_mutex_t(false) {}
};

}  // namespace Kvl::CriticalSectionImpl

#endif
