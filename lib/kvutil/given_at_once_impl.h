#ifndef KVUTIL_GIVEN_AT_ONCE_IMPL_H
#define KVUTIL_GIVEN_AT_ONCE_IMPL_H

// What a converter gives for a few bytes or units at once, when it is not told that they are all.
// Where it waits with nothing after that, what follows cannot change what it gave.

#include <unicode/ucnv.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Kvl {

class units_given_t {
public:
    units_given_t(UConverter* converter, std::string_view bytes) noexcept;

    /// The only one; 0 when there are others, or it may not be the last, or it only stands for
    /// bytes that are no character.
    std::uint16_t unit() const noexcept;

    /// Whether there is none yet, because the bytes are the first of a character.
    bool is_waiting() const noexcept;

private:
    std::array<char16_t, 8> units_{};
    std::ptrdiff_t count_ = 0;
    std::int32_t waiting_ = 0;
};

class bytes_given_t {
public:
    bytes_given_t(UConverter* converter, std::u16string_view text) noexcept;

    /// Empty when they may not be the last.
    std::string_view bytes() const noexcept { return {bytes_.data(), size_}; }

private:
    std::array<char, 32> bytes_{};
    std::size_t size_ = 0;
};

}  // namespace Kvl

#endif
