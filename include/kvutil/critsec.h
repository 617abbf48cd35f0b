#ifndef KVUTIL_CRITSEC_H
#define KVUTIL_CRITSEC_H

#include <kvutil/critsec_lock.h>

namespace Kvl {

/// Holds a CriticalSectionLock for the lifetime of a block. Sections on one lock may nest.
/// @par Thread-safety
/// An object belongs to the thread that made it.
class KVUTIL_EXPORT KVUTIL_SCOPED_CAPABILITY CriticalSection {
public:
    /// Takes `lock`, waiting as long as needed. Never throws.
    /// @param lock  outlives this object
    KVUTIL_EXPORT CriticalSection(const CriticalSectionLock& lock) KVUTIL_ACQUIRE(lock);

    /// Releases the hold.
    KVUTIL_EXPORT ~CriticalSection() KVUTIL_RELEASE();

    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

private:
    const CriticalSectionLock& lock_;
};

KVUTIL_CRITSEC_INLINE CriticalSection::CriticalSection(const CriticalSectionLock& lock)
    : lock_(lock)
{
    lock_.lock();
}

KVUTIL_CRITSEC_INLINE CriticalSection::~CriticalSection()
{
    lock_.unlock();
}

}  // namespace Kvl

#endif
