#include "descriptor_impl.h"

#include "sys_calls_impl.h"
#include "uncancelled_impl.h"

#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace Kvl {

descriptor_t& descriptor_t::operator=(descriptor_t&& o) noexcept
{
    descriptor_t taken(std::move(o));
    std::swap(number_, taken.number_);
    return *this;
}

descriptor_t::~descriptor_t()
{
    if (!is_open())
        return;
    const uncancelled_t whole;
    const int error = errno;  // of the failure that brought us here
    sys_calls.close(number_);
    errno = error;
}

int descriptor_t::release() noexcept
{
    return std::exchange(number_, -1);
}

descriptor_t open_file(const char* path, int flags, mode_t mode)
{
    return descriptor_t(
        uninterrupted([&] { return sys_calls.open(path, flags | O_CLOEXEC | O_NOCTTY, mode); }));
}

}  // namespace Kvl
