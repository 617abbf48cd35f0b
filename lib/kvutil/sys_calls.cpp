#include "sys_calls_impl.h"

#include <fcntl.h>
#include <unistd.h>

namespace Kvl {
namespace {

int open_with_mode(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}

}  // namespace

constinit sys_calls_t sys_calls = {
    // Descriptors
    .open = open_with_mode,
    .close = ::close,
    .read = ::read,
};

}  // namespace Kvl
