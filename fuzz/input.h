#ifndef KVUTIL_FUZZ_INPUT_H
#define KVUTIL_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// An input that is taken apart from its front: operations and their arguments. Behind its end
/// there are only zeros.
class input_t {
public:
    input_t(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

    bool is_empty() const { return next_ == end_; }

    std::uint8_t byte() { return is_empty() ? std::uint8_t{0} : *next_++; }

    /// @return  up to `size` bytes
    std::string_view bytes(std::size_t size)
    {
        size = std::min(size, static_cast<std::size_t>(end_ - next_));
        const std::string_view taken(reinterpret_cast<const char*>(next_), size);
        next_ += size;
        return taken;
    }

    /// A text of up to `longest` units, a byte for its length and one for each unit: ASCII, and
    /// what makes a difference to UTF-16.
    std::u16string units(std::size_t longest)
    {
        std::u16string text;
        for (std::size_t length = byte() % (longest + 1); length != 0; --length)
            text += unit();
        return text;
    }

    char16_t unit()
    {
        static constexpr char16_t odd[] = {0xD83D, 0xDE00, 0xD800, 0xDFFF, 0x3000, 0x00E9,
                                           0xFFFF, 0xFEFF, 0x0085, 0x2028, 0x4E2D, 0x00A0};
        const std::uint8_t value = byte();
        return value < 128 ? value : odd[value % std::size(odd)];
    }

private:
    const std::uint8_t* next_;
    const std::uint8_t* end_;
};

#endif
