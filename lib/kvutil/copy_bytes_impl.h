#ifndef KVUTIL_COPY_BYTES_IMPL_H
#define KVUTIL_COPY_BYTES_IMPL_H

#include <cstddef>
#include <cstring>

namespace Kvl {

/// Copies as many bytes as make one word, or two at most, the last word over some of the first.
template <std::size_t Word>
void copy_bytes_by_word(char* to, const char* from, std::size_t size)
{
    std::memcpy(to, from, Word);
    std::memcpy(to + size - Word, from + size - Word, Word);
}

/// std::memcpy() for what is mostly a few words: spares the call.
inline void copy_bytes(char* to, const char* from, std::size_t size)
{
    if (size > 32) {
        std::memcpy(to, from, size);
    } else if (size >= 16) {
        copy_bytes_by_word<16>(to, from, size);
    } else if (size >= 8) {
        copy_bytes_by_word<8>(to, from, size);
    } else if (size >= 4) {
        copy_bytes_by_word<4>(to, from, size);
    } else if (size != 0) {
        to[0] = from[0];
        to[size / 2] = from[size / 2];
        to[size - 1] = from[size - 1];
    }
}

}  // namespace Kvl

#endif
