#include "rows.h"

#include <kvutil/critsec.h>

namespace torture {

using Kvl::CriticalSection;
using Kvl::CriticalSectionLock;

rows_t critsec_rows()
{
    static const CriticalSectionLock lock;
    rows_t rows("critsec_lock.h, critsec.h");
    rows.add({"CriticalSectionLock::CriticalSectionLock()"}, [] { CriticalSectionLock(); });
    rows.add({"CriticalSectionLock::lock() const", "CriticalSectionLock::unlock() const",
              "CriticalSection::CriticalSection(CriticalSectionLock const&)"},
             [] {
                 const CriticalSection section(lock);
                 lock.lock();
                 lock.unlock();
             })
        .needs_none();
    return rows;
}

}  // namespace torture
