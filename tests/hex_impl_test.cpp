// Bytes as hexadecimal digits, in blocks where the processor has them and without.

#include "hex_impl.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

int value_of(unsigned int unit)
{
    return unit >= '0' && unit <= '9'   ? static_cast<int>(unit - '0')
           : unit >= 'a' && unit <= 'f' ? static_cast<int>(unit - 'a' + 10)
                                        : -1;
}

// Two blocks and a rest.
constexpr std::size_t SIZE = 2 * Kvl::hex::BLOCK + 3;

template <class Unit>
void expect_each_byte_at_each_place()
{
    for (std::size_t place = 0; place < SIZE; ++place) {
        for (unsigned int byte = 0; byte < 256; ++byte) {
            std::basic_string<Unit> expected(2 * SIZE, Unit{'0'});
            expected[2 * place] = static_cast<Unit>("0123456789abcdef"[byte / 16]);
            expected[2 * place + 1] = static_cast<Unit>("0123456789abcdef"[byte % 16]);
            unsigned char bytes[SIZE] = {};
            bytes[place] = static_cast<unsigned char>(byte);
            std::basic_string<Unit> printed(2 * SIZE, Unit{'-'});
            Kvl::print_hex(bytes, SIZE, printed.data());
            ASSERT_EQ(printed, expected);
        }
    }
}

TEST(Hex, PrintsEachByteAtEachPlace)
{
    expect_each_byte_at_each_place<char>();
    expect_each_byte_at_each_place<char16_t>();
}

TEST(Hex, ReadsDigitsAndNothingElseAtEachPlace)
{
    std::u16string digits(2 * SIZE, u'5');
    unsigned char bytes[SIZE] = {};
    for (std::size_t place = 0; place < digits.size(); ++place) {
        for (unsigned int unit = 0; unit < 0x10000; ++unit) {
            digits[place] = static_cast<char16_t>(unit);
            ASSERT_EQ(Kvl::read_hex(digits, bytes), value_of(unit) >= 0) << unit << ' ' << place;
            if (value_of(unit) < 0)
                continue;
            for (std::size_t i = 0; i < SIZE; ++i)
                ASSERT_EQ(bytes[i], 16 * value_of(digits[2 * i]) + value_of(digits[2 * i + 1]));
        }
        digits[place] = u'5';
    }
}

// On the heap, where reading or writing one byte too many is noticed by tools that look for it.
TEST(Hex, KeepsToEachSize)
{
    for (std::size_t size = 0; size < 100; ++size) {
        const auto bytes = std::make_unique<unsigned char[]>(size);
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<unsigned char>(37 * i + size);
        const auto digits = std::make_unique<char16_t[]>(2 * size);
        Kvl::print_hex(bytes.get(), size, digits.get());
        const auto narrow = std::make_unique<char[]>(2 * size);
        Kvl::print_hex(bytes.get(), size, narrow.get());
        ASSERT_TRUE(std::equal(narrow.get(), narrow.get() + 2 * size, digits.get()));
        const auto read = std::make_unique<unsigned char[]>(size);
        ASSERT_TRUE(Kvl::read_hex(std::u16string_view(digits.get(), 2 * size), read.get()));
        ASSERT_TRUE(std::equal(read.get(), read.get() + size, bytes.get()));
    }
}

}  // namespace
