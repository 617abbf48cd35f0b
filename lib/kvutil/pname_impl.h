#ifndef KVUTIL_PNAME_IMPL_H
#define KVUTIL_PNAME_IMPL_H

#include <kvutil/ustring.h>

namespace Kvl::PnameImpl {

/// What separates the parts of a path.
extern const UString PNAME_SEP_CHARSET_USTRING;

}  // namespace Kvl::PnameImpl

#endif
