#ifndef KVUTIL_XMLTAG_WK_TABLE_IMPL_H
#define KVUTIL_XMLTAG_WK_TABLE_IMPL_H

#include "xmltag_hash_impl.h"
#include "xmltag_impl.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Kvl {
namespace XmlTagImpl {

/// What a look-up among well-known names begins with: a word of a name's namespace, its length and
/// the units at its ends, in which few of these names agree. Letters have seven bits, so that those
/// of both ends stand side by side.
constexpr std::uint64_t ends_of(XmlTag::NsId nsid, std::u16string_view name)
{
    const std::size_t length = name.size();
    const std::uint64_t context = static_cast<std::uint64_t>(nsid) << 58 ^ length << 14;
    if (length < 4)
        return (few_units(name) ^ context) * ODD;
    const char16_t* const first = name.data();
    return (four_units(first) ^ four_units(first + length - 4) << 7 ^ context) * ODD;
}

/// Tells most names that are not well-known from those that are, by one bit in 4 KiB. It spares
/// what is registered at run time most of the look-up that comes before its own.
class wk_filter_t {
public:
    constexpr void add(std::uint64_t ends) { words_[place_of(ends) / 64] |= bit_of(ends); }

    /// True for each name that was added, and for one in thirty of all others.
    constexpr bool may_have(std::uint64_t ends) const
    {
        return (words_[place_of(ends) / 64] & bit_of(ends)) != 0;
    }

private:
    static constexpr int PLACE_BITS = 15;
    static constexpr std::size_t place_of(std::uint64_t ends) { return ends >> (64 - PLACE_BITS); }
    static constexpr std::uint64_t bit_of(std::uint64_t ends)
    {
        return std::uint64_t{1} << place_of(ends) % 64;
    }

    std::uint64_t words_[(std::size_t{1} << PLACE_BITS) / 64] = {};
};

/// All that a look-up needs of a row of the tables, in one word: what must agree with the name that
/// is looked for, which in its lower bits only one row has, and behind it where the row and its
/// text are.
class wk_slot_t {
public:
    struct row_t {
        std::size_t index;   // in the order of Ids
        std::size_t offset;  // of its text in wk_names
        XmlTag::NsId nsid;
        std::size_t length;
    };
    constexpr wk_slot_t() = default;
    constexpr wk_slot_t(const row_t& row, std::uint64_t hash)
        : word_(agreeing(row.nsid, row.length, hash) | row.index << INDEX_FROM | row.offset)
    {
    }
    constexpr bool is_empty() const { return word_ == 0; }
    constexpr bool may_be(XmlTag::NsId nsid, std::size_t length, std::uint64_t hash) const
    {
        return length <= LONGEST &&
               ((word_ ^ agreeing(nsid, length, hash)) & ~std::uint64_t{0} << AGREEING_FROM) == 0;
    }
    constexpr std::size_t index() const { return word_ >> INDEX_FROM & 0x7FF; }
    constexpr std::size_t offset() const { return word_ % 0x10000; }

private:
    static constexpr std::size_t LONGEST = 0xFF;
    static constexpr int INDEX_FROM = 16;
    static constexpr int AGREEING_FROM = 27;
    // 5 bits for the namespace, 8 for the length and 24 of the hash. A namespace counts from 1, so
    // that no row is an empty slot.
    static constexpr std::uint64_t agreeing(XmlTag::NsId nsid, std::size_t length,
                                            std::uint64_t hash)
    {
        return (static_cast<std::uint64_t>(nsid + 1) | std::uint64_t{length} << 5 |
                (hash & 0xFFFFFF) << 13)
               << AGREEING_FROM;
    }

    std::uint64_t word_ = 0;
};
static_assert(NUM_WK_TAGS <= 0x800);

/// A table without collisions. Names that have some bits of their hashes in common are a group.
/// Each group is shifted to where all its names have a slot of their own.
struct wk_slots_t {
    static constexpr std::size_t NUM_SLOTS = 2048;
    static constexpr std::size_t NUM_GROUPS = 512;

    std::uint16_t shift_of_group[NUM_GROUPS] = {};
    wk_slot_t slots[NUM_SLOTS];

    static constexpr std::size_t group_of(std::uint64_t hash)
    {
        return hash >> 24 & (NUM_GROUPS - 1);
    }
    constexpr std::size_t place(std::uint64_t hash) const
    {
        return ((hash >> 48) + shift_of_group[group_of(hash)]) % NUM_SLOTS;
    }
};

/// The hash that places a name in the table. The rows never change, so it is enough to look at four
/// places of a name and at its length: whatever the length, the same few steps. Where two names
/// differ in none of those places, the table does not compile.
/// @param ends  of the name
constexpr std::uint64_t hash_of_wk(std::u16string_view name, std::uint64_t ends)
{
    if (name.size() < 4)
        return fold_multiply(ends, ODD);
    const char16_t* const first = name.data();
    const std::size_t last = name.size() - 4;
    return fold_multiply(ends ^ four_units(first + last - last / 4),
                         ODD ^ four_units(first + last / 3));
}

/// What the tables of names were compiled to.
extern const wk_filter_t wk_filter;
extern const wk_slots_t wk_slots;
extern const char16_t wk_names[];

/// The well-known tag of the tables with a name, or null. Inline, since a call costs a tenth of it.
inline const XmlTag* find_in_tables(XmlTag::NsId nsid, std::u16string_view name) noexcept
{
    const std::uint64_t ends = ends_of(nsid, name);
    if (!wk_filter.may_have(ends))
        return nullptr;
    const std::uint64_t hash = hash_of_wk(name, ends);
    const wk_slot_t slot = wk_slots.slots[wk_slots.place(hash)];
    if (!slot.may_be(nsid, name.size(), hash) ||
        !equal_units(wk_names + slot.offset(), name.data(), name.size()))
        return nullptr;
    return &g_storage.tags.value[slot.index()];
}

/// The tag with a name that a program has added to a well-known namespace, or null.
const XmlTag* find_added(XmlTag::NsId nsid, std::u16string_view name) noexcept;

/// As the one of xmltag_impl.h, inline.
inline const XmlTag* find_well_known(XmlTag::NsId nsid, std::u16string_view name) noexcept
{
    if (const XmlTag* const tag = find_in_tables(nsid, name))
        return tag;
    return tags_were_added ? find_added(nsid, name) : nullptr;
}

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
