#ifndef KVUTIL_KVUTIL_MSG_IMPL_H
#define KVUTIL_KVUTIL_MSG_IMPL_H

#include <kvutil/kvutil_msg.h>

namespace Kvl {

/// Indexes of the library's messages in the catalogue, from the rows of kvutil.msg.
enum kvutil_msg_t : int {
#define KVUTIL_MSG(index, name, text) name = index,
#include "kvutil.msg"
#undef KVUTIL_MSG
};

}  // namespace Kvl

#endif
