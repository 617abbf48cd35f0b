#include "file_failure_impl.h"

#include "failure_impl.h"
#include "platform_text_impl.h"

namespace Kvl {

namespace {

// What makes up the message is gone before the throw, which then has nothing to unwind here.
[[gnu::cold, gnu::noinline]] RuntimeException file_failure(kvutil_msg_t message,
                                                           const std::string& path, int error)
{
    return failure<RuntimeException>(message, platform_text(path), error_text(error));
}

}  // namespace

void fail_on_file(kvutil_msg_t message, const std::string& path, int error)
{
    throw file_failure(message, path, error);
}

}  // namespace Kvl
