#include "file_sink_impl.h"

#include "sys_calls_impl.h"
#include "uncancelled_impl.h"

#include <algorithm>
#include <cerrno>
#include <sys/types.h>
#include <utility>

namespace Kvl {

file_sink_t::file_sink_t(descriptor_t descriptor) noexcept : descriptor_(std::move(descriptor)) {}

bool file_sink_t::write_beyond(const char* bytes, std::size_t size)
{
    for (;;) {
        const std::size_t part = std::min(size, room());
        put(bytes, part);
        bytes += part;
        size -= part;
        if (size == 0)
            return true;
        if (!flush())
            return false;
    }
}

bool file_sink_t::flush()
{
    const char* const end = block_.data() + used_;
    for (const char* at = block_.data(); at != end;) {
        const ssize_t count = uninterrupted(
            [&] { return sys_calls.write(number(), at, static_cast<std::size_t>(end - at)); });
        // A device that takes nothing and calls that a success might do so for ever.
        if (count == 0)
            errno = EIO;
        if (count <= 0)
            return false;
        at += count;
    }
    used_ = 0;
    return true;
}

// Interrupted or not, the descriptor is gone, and everything has been handed to the system before.
bool file_sink_t::close()
{
    const uncancelled_t whole;
    return sys_calls.close(descriptor_.release()) == 0 || errno == EINTR;
}

}  // namespace Kvl
