#ifndef KVUTIL_SYS_CALLS_IMPL_H
#define KVUTIL_SYS_CALLS_IMPL_H

#include <cstddef>
#include <ctime>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

namespace Kvl {

/// The system calls that can fail. The library calls them through `sys_calls` and nowhere else, so
/// that a test can make each of them fail; only tests replace an entry. Each behaves as the
/// function of its name: -1 or null, and `errno`.
struct sys_calls_t {
    // Descriptors
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int descriptor);
    ssize_t (*read)(int descriptor, void* bytes, std::size_t size_bytes);

    // Names
    int (*access)(const char* path, int mode);
    int (*mkdir)(const char* path, mode_t mode);
    int (*remove)(const char* path);
    int (*rmdir)(const char* path);

    // Interfaces of the network
    int (*socket)(int domain, int type, int protocol);
    int (*ioctl)(int descriptor, unsigned long request, void* argument);

    // Time and process. The clock and the process id do not fail, but tests choose them.
    int (*gettimeofday)(timeval* now, void* unused);
    int (*nanosleep)(const timespec* duration, timespec* remaining);
    pid_t (*getpid)();
    void* (*mmap)(void* place, std::size_t size_bytes, int access, int flags, int descriptor,
                  off_t offset);
    int (*munmap)(void* place, std::size_t size_bytes);
    int (*madvise)(void* place, std::size_t size_bytes, int advice);
};

extern sys_calls_t sys_calls;

}  // namespace Kvl

#endif
