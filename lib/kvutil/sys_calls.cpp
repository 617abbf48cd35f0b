#include "sys_calls_impl.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Kvl {
namespace {

int open_with_mode(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}

int ioctl_with_argument(int descriptor, unsigned long request, void* argument)
{
    return ::ioctl(descriptor, request, argument);
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

    // Interfaces of the network
    .socket = ::socket,
    .ioctl = ioctl_with_argument,

    // Time and process
    .gettimeofday = ::gettimeofday,
    .nanosleep = ::nanosleep,
    .getpid = ::getpid,
    .mmap = ::mmap,
    .munmap = ::munmap,
    .madvise = ::madvise,

    // Files that get new content
    .write = ::write,
    .fstat = ::fstat,
    .lstat = ::lstat,
    .fgetxattr = ::fgetxattr,
    .fremovexattr = ::fremovexattr,
    .ftruncate = ::ftruncate,
    .mkostemp = ::mkostemp,
    .fchown = ::fchown,
    .fchmod = ::fchmod,
    .fsync = ::fsync,
    .rename = ::rename,
    .unlink = ::unlink,

    // Libraries, and what a thread keeps under a key
    .dlopen = ::dlopen,
    .dlsym = ::dlsym,
    .dlclose = ::dlclose,
    .dlerror = ::dlerror,
    .pthread_key_create = ::pthread_key_create,
    .pthread_key_delete = ::pthread_key_delete,
    .pthread_setspecific = ::pthread_setspecific,
};

}  // namespace Kvl
