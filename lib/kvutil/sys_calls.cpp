#include "sys_calls_impl.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
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

    // Names
    .access = ::access,
    .mkdir = ::mkdir,
    .remove = std::remove,
    .rmdir = ::rmdir,
};

}  // namespace Kvl
