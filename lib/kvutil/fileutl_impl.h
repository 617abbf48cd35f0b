#ifndef KVUTIL_FILEUTL_IMPL_H
#define KVUTIL_FILEUTL_IMPL_H

#include "undying_impl.h"

#include <kvutil/fileutl.h>

#include <map>

namespace Kvl::FileutlImpl {

typedef std::map<UString, Fileutl::tmp_file_info_t> table_t;

/// Fileutl::g_tmp_table. An object of its declared type would be destroyed at exit, while other
/// threads still use it. So the symbol by which programs know it, its mangled name, is that of an
/// object which is not.
extern KVUTIL_EXPORT undying_t<table_t> tmp_table asm("_ZN3Kvl7Fileutl11g_tmp_tableE");
static_assert(sizeof(tmp_table) == sizeof(table_t), "programs may copy it by its declared size");

/// Held, inside Fileutl::g_lock, while the table changes. A fork() waits for this one, so that the
/// child's table is whole. It does not wait for g_lock, which callers may hold as long as they
/// like.
extern const CriticalSectionLock change_lock;

}  // namespace Kvl::FileutlImpl

#endif
