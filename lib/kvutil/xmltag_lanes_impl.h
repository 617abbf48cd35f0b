#ifndef KVUTIL_XMLTAG_LANES_IMPL_H
#define KVUTIL_XMLTAG_LANES_IMPL_H

#include <bit>
#include <cstdint>

namespace Kvl {
namespace XmlTagImpl {

// Seven bytes in one word, one for each entry of a bucket of a hash table: its check, a few bits of
// its hash. A look-up compares all of them in one step, so that which entry it is, or that it is
// none, costs no branch that the processor cannot foresee. Entries stand in the lowest lanes.

constexpr unsigned int NUM_LANES = 7;

/// The check of a hash: bits other than those that choose the bucket, below one that tells a taken
/// lane from a free one.
constexpr std::uint64_t check_of(std::uint64_t hash)
{
    return hash >> 57 | 0x80;
}

/// Bit 7 of each lane that has `check`. Other lanes above one that has it may be marked too, but
/// never a free one.
constexpr std::uint64_t lanes_with(std::uint64_t checks, std::uint64_t check)
{
    constexpr std::uint64_t ones = 0x01010101'01010101u;
    const std::uint64_t zero_if_same = checks ^ check * ones;
    return (zero_if_same - ones) & ~zero_if_same & ones << 7;
}

/// The lowest lane of a set that is not empty.
constexpr unsigned int first_lane(std::uint64_t lanes)
{
    return static_cast<unsigned int>(std::countr_zero(lanes)) / 8;
}

constexpr std::uint64_t without_first_lane(std::uint64_t lanes)
{
    return lanes & (lanes - 1);
}

constexpr unsigned int num_taken(std::uint64_t checks)
{
    return static_cast<unsigned int>(std::bit_width(checks)) / 8;
}

constexpr bool is_full(std::uint64_t checks)
{
    return num_taken(checks) == NUM_LANES;
}

/// The checks with that of the next entry.
constexpr std::uint64_t with_check(std::uint64_t checks, std::uint64_t check)
{
    return checks | check << 8 * num_taken(checks);
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
