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

/// Copies as many bytes as make one word, or two at most, the second word over some of the first.
template <std::size_t Word>
void copy_by_word(char* to, const char* from, std::size_t size)
{
    std::memcpy(to, from, Word);
    std::memcpy(to + size - Word, from + size - Word, Word);
}

/// std::memcpy() for what is mostly a few words: spares the call.
inline void copy(char* to, const char* from, std::size_t size)
{
    if (size > 32) {
        std::memcpy(to, from, size);
    } else if (size >= 16) {
        copy_by_word<16>(to, from, size);
    } else if (size >= 8) {
        copy_by_word<8>(to, from, size);
    } else if (size >= 4) {
        copy_by_word<4>(to, from, size);
    } else if (size != 0) {
        to[0] = from[0];
        to[size / 2] = from[size / 2];
        to[size - 1] = from[size - 1];
    }
}

/// Makes room for `size` more bytes behind the `used` ones. @throws std::bad_alloc
void grow(storage_t& storage, std::size_t used, std::size_t size);

/// Writes a text into a storage that grows as needed. A copy goes on where the original stood; who
/// calls functions with a copy lets the compiler keep the original in registers.
class message_buffer {
public:
    explicit message_buffer(storage_t& storage) noexcept
        : storage_(&storage), end_(storage.data), limit_(storage.data + storage.capacity)
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
        if (room() < size || end_ == nullptr) {
            const std::size_t used =
                end_ == nullptr ? 0 : static_cast<std::size_t>(end_ - storage_->data);
            grow(*storage_, used, size);
            end_ = storage_->data + used;
            limit_ = storage_->data + storage_->capacity;
        }
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
        return storage_->data;
    }

private:
    storage_t* storage_;
    char* end_;
    char* limit_;
};

}  // namespace Log::MessageImpl

#endif
