#include "file_source_impl.h"

#include "sys_calls_impl.h"

#include <algorithm>
#include <cerrno>
#include <sys/types.h>
#include <utility>

namespace Kvl {

file_source_t::file_source_t(descriptor_t descriptor) noexcept : descriptor_(std::move(descriptor))
{
}

bool file_source_t::read_beyond(char* to, std::size_t size)
{
    for (;;) {
        const std::size_t part = std::min(size, available());
        take(to, part);
        to += part;
        size -= part;
        if (size == 0)
            return true;
        if (!fill())
            return false;
    }
}

bool file_source_t::fill()
{
    const ssize_t count = uninterrupted(
        [&] { return sys_calls.read(descriptor_.number(), block_.data(), block_.size()); });
    if (count == 0)
        errno = 0;
    if (count <= 0)
        return false;
    at_ = block_.data();
    end_ = at_ + count;
    return true;
}

}  // namespace Kvl
