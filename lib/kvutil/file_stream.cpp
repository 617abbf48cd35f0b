#include "file_stream_impl.h"

#include "failure_impl.h"
#include "platform_text_impl.h"
#include "sys_calls_impl.h"
#include "uncancelled_impl.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <new>
#include <stdio_ext.h>
#include <utility>

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

namespace {

void* to_cookie(int descriptor)
{
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor));
}

int to_descriptor(void* cookie)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
}

ssize_t read_some(void* cookie, char* to, std::size_t size)
{
    return sys_calls.read(to_descriptor(cookie), to, size);
}

/// @return how much was written; less than all of it, with `errno`, after a failure
ssize_t write_all(void* cookie, const char* bytes, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = sys_calls.write(to_descriptor(cookie), bytes + done, size - done);
        if (n >= 0)
            done += static_cast<std::size_t>(n);
        else if (errno != EINTR)
            break;
    }
    return static_cast<ssize_t>(done);
}

// Interrupted or not, the descriptor is gone, and everything has been handed to the system before.
int close_once(void* cookie)
{
    const int result = sys_calls.close(to_descriptor(cookie));
    return result < 0 && errno == EINTR ? 0 : result;
}

}  // namespace

std::FILE* stream_over(descriptor_t descriptor, const char* mode, std::span<char> buffer)
{
    const cookie_io_functions_t functions = {read_some, write_all, nullptr, close_once};
    std::FILE* const file = fopencookie(to_cookie(descriptor.number()), mode, functions);
    if (file == nullptr)
        throw std::bad_alloc();
    descriptor.release();
    std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
    __fsetlocking(file, FSETLOCKING_BYCALLER);
    return file;
}

}  // namespace Kvl
