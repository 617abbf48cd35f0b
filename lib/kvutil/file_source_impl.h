#ifndef KVUTIL_FILE_SOURCE_IMPL_H
#define KVUTIL_FILE_SOURCE_IMPL_H

#include "descriptor_impl.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace Kvl {

/// The bytes of a file, one after the other. They come in blocks, so that a field of a few bytes is
/// a copy, where a C stream makes three calls of it.
class file_source_t {
public:
    /// @param descriptor  open for reading
    explicit file_source_t(descriptor_t descriptor) noexcept;

    /// A signal that arrives meanwhile is no failure.
    /// @return  whether there were so many bytes; otherwise `errno` says why not: 0 at the file's
    /// end
    bool read(void* to, std::size_t size)
    {
        if (size > available())
            return read_beyond(static_cast<char*>(to), size);
        take(to, size);
        return true;
    }

private:
    std::size_t available() const { return static_cast<std::size_t>(end_ - at_); }

    void take(void* to, std::size_t size)
    {
        std::memcpy(to, at_, size);
        at_ += size;
    }

    bool read_beyond(char* to, std::size_t size);
    bool fill();

    const descriptor_t descriptor_;
    std::array<char, 16384> block_;
    const char* at_ = block_.data();
    const char* end_ = block_.data();
};

}  // namespace Kvl

#endif
