#ifndef KVUTIL_ARM_BUFFER_IMPL_H
#define KVUTIL_ARM_BUFFER_IMPL_H

#include "undying_impl.h"

#include <kvutil/arm.h>
#include <kvutil/critsec_lock.h>

namespace Kvl::ArmImpl {

/// ArmBuffer::g_str_pool. An object of its declared type would be destroyed at exit, while other
/// threads, and the ARM run-time, still use its texts. So the symbol by which programs know it, its
/// mangled name, is that of an object which is not.
extern KVUTIL_EXPORT undying_t<ArmBuffer::str_pool_t>
    str_pool asm("_ZN3Kvl9ArmBuffer10g_str_poolE");
static_assert(sizeof(str_pool) == sizeof(ArmBuffer::str_pool_t),
              "programs may copy it by its declared size");

/// Held while the pool of the process is used.
extern const CriticalSectionLock str_pool_lock;

}  // namespace Kvl::ArmImpl

#endif
