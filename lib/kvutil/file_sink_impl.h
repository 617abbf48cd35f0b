#ifndef KVUTIL_FILE_SINK_IMPL_H
#define KVUTIL_FILE_SINK_IMPL_H

#include "descriptor_impl.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace Kvl {

/// Bytes on their way into a file. They go in blocks, so that a field of a few bytes is a copy,
/// where a C stream makes three calls of it. What has not been flushed is forgotten in the end.
///
/// A block is as large as the C library's for files and devices: a file that fits is refused by a
/// full device at the close, a larger one at the write.
///
/// A signal that arrives meanwhile is no failure.
class file_sink_t {
public:
    /// @param descriptor  open for writing
    explicit file_sink_t(descriptor_t descriptor) noexcept;

    int number() const noexcept { return descriptor_.number(); }

    // Each says whether it could be done; otherwise `errno` says why not.

    bool write(const void* bytes, std::size_t size)
    {
        if (size > room())
            return write_beyond(static_cast<const char*>(bytes), size);
        put(bytes, size);
        return true;
    }

    bool flush();

    /// Without a flush. To be called once at most, as the last operation.
    bool close();

private:
    std::size_t room() const { return block_.size() - used_; }

    void put(const void* bytes, std::size_t size)
    {
        std::memcpy(block_.data() + used_, bytes, size);
        used_ += size;
    }

    bool write_beyond(const char* bytes, std::size_t size);

    descriptor_t descriptor_;
    std::array<char, 4096> block_;
    std::size_t used_ = 0;
};

}  // namespace Kvl

#endif
