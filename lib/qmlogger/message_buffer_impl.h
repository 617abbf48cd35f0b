#ifndef QMLOGGER_MESSAGE_BUFFER_IMPL_H
#define QMLOGGER_MESSAGE_BUFFER_IMPL_H

#include <cstddef>
#include <cstring>

namespace Log::MessageImpl {

/// The memory of one text. Trivially destructible on purpose: a thread may format a message from
/// the destructor of any of its other thread-local objects, so nothing here may be destroyed.
struct storage_t {
    char* data = nullptr;
    std::size_t capacity = 0;
};

/// The memory for this thread's next text: two storages take turns, so that the previous text may
/// be the format, or an argument, of the next one. Both are freed when the thread ends.
storage_t& next_storage();

/// Marks the storage that next_storage() handed out as the one that holds the last text.
void keep_storage();

/// std::memcpy() for what is mostly a few bytes between two conversions: spares the call.
inline void copy(char* to, const char* from, std::size_t size)
{
    if (size > 3) {
        std::memcpy(to, from, size);
    } else if (size != 0) {
        to[0] = from[0];
        to[size / 2] = from[size / 2];
        to[size - 1] = from[size - 1];
    }
}

/// Writes a text into a storage that grows as needed.
class message_buffer {
public:
    explicit message_buffer(storage_t& storage) noexcept
        : storage_(storage), end_(storage.data), limit_(storage.data + storage.capacity)
    {
    }

    void append(const char* text, std::size_t size)
    {
        copy(claim(size), text, size);
        end_ += size;
    }

    void append(char c)
    {
        *claim(1) = c;
        ++end_;
    }

    void fill(std::size_t count, char c)
    {
        std::memset(claim(count), c, count);
        end_ += count;
    }

    /// Room for `size` more characters, at their place. @throws std::bad_alloc
    char* claim(std::size_t size)
    {
        if (static_cast<std::size_t>(limit_ - end_) < size || end_ == nullptr)
            grow(size);
        return end_;
    }

    /// How many characters fit without growing.
    std::size_t room() const { return static_cast<std::size_t>(limit_ - end_); }

    /// Takes over characters that were written to claim()ed room.
    void advance(std::size_t size) { end_ += size; }

    /// The text so far, zero-terminated.
    const char* finish()
    {
        append('\0');
        return storage_.data;
    }

private:
    void grow(std::size_t size);

    storage_t& storage_;
    char* end_;
    char* limit_;
};

}  // namespace Log::MessageImpl

#endif
