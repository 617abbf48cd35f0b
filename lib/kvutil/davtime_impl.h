#ifndef KVUTIL_DAVTIME_IMPL_H
#define KVUTIL_DAVTIME_IMPL_H

#include <kvutil/critsec_lock.h>

namespace Kvl::DavTimeImpl {

/// Held around every use of the C library's time zone: between the tzset() of one thread and the
/// breakdown that it asks for, no other one of the library's makes the zone another.
extern const CriticalSectionLock clib_lock;

}  // namespace Kvl::DavTimeImpl

#endif
