#ifndef KVUTIL_FILE_FAILURE_IMPL_H
#define KVUTIL_FILE_FAILURE_IMPL_H

#include "kvutil_msg_impl.h"

#include <string>

namespace Kvl {

/// A file operation failed: one of the messages that name the file and the system's reason.
/// @param error  the `errno` of the operation
[[noreturn]] void fail_on_file(kvutil_msg_t message, const std::string& path, int error);

}  // namespace Kvl

#endif
