#ifndef KVUTIL_SYS_CALLS_IMPL_H
#define KVUTIL_SYS_CALLS_IMPL_H

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <pthread.h>
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

    // Files that get new content
    ssize_t (*write)(int descriptor, const void* bytes, std::size_t size_bytes);
    int (*fstat)(int descriptor, struct stat* status);
    int (*lstat)(const char* path, struct stat* status);
    ssize_t (*fgetxattr)(int descriptor, const char* name, void* value, std::size_t size_bytes);
    int (*fremovexattr)(int descriptor, const char* name);
    int (*ftruncate)(int descriptor, off_t size_bytes);
    int (*mkostemp)(char* path, int flags);
    int (*fchown)(int descriptor, uid_t owner, gid_t group);
    int (*fchmod)(int descriptor, mode_t mode);
    int (*fsync)(int descriptor);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);

    // Libraries, and what a thread keeps under a key. The latter return an error number.
    void* (*dlopen)(const char* name, int flags);
    void* (*dlsym)(void* library, const char* name);
    int (*dlclose)(void* library);
    char* (*dlerror)();
    int (*pthread_key_create)(pthread_key_t* key, void (*destructor)(void*));
    int (*pthread_key_delete)(pthread_key_t key);
    int (*pthread_setspecific)(pthread_key_t key, const void* value);
};

extern sys_calls_t sys_calls;

/// Makes a system call, again and again while a signal interrupts it.
/// @param call  answers as the system does: negative, and `errno`, when it fails
template <class Call>
auto uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

}  // namespace Kvl

#endif
