#include <kvutil/critsec.h>

namespace Kvl {

CriticalSection::CriticalSection(const CriticalSectionLock& lock) : lock_(lock)
{
    lock_.lock();
}

CriticalSection::~CriticalSection()
{
    lock_.unlock();
}

}  // namespace Kvl
