#include "xmltag_order_impl.h"

#include "units_order_impl.h"
#include "ustring_impl.h"
#include "xmltag_hash_impl.h"

#include <algorithm>
#include <bit>
#include <iterator>

namespace Kvl {
namespace XmlTagImpl {

namespace {

constexpr std::uint64_t UNUSED = ~std::uint64_t{0};

/// How many of the keys are less, of keys that rise. No branch depends on a key or on how many are
/// used, which the processor could not foresee, and three keys at a time need not wait for each
/// other.
template <unsigned int size>
unsigned int num_less(const std::uint64_t (&keys)[size], std::uint64_t key)
{
    static_assert(std::has_single_bit(size + 1) && std::bit_width(size) % 2 == 0);
    unsigned int at = 0;
    for (unsigned int quarter = (size + 1) / 4; quarter > 0; quarter /= 4) {
        const std::uint64_t* const last = keys + at + quarter - 1;
        at += (unsigned{last[0] < key} + unsigned{last[quarter] < key} +
               unsigned{last[quarter * 2] < key}) *
              quarter;
    }
    return at;
}

std::size_t length_in_common(std::u16string_view a, std::u16string_view b)
{
    const auto differ = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    return static_cast<std::size_t>(differ.first - a.begin());
}

/// Up to eight units, the first in the highest byte, so that words are ordered like texts or equal.
/// A unit that needs more than a byte is the greatest byte, and what is behind it does not count.
std::uint64_t word_of(std::u16string_view text)
{
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(text.size(), 8); ++i) {
        word |= std::uint64_t{std::min<char16_t>(text[i], 0xFF)} << (56 - 8 * i);
        if (text[i] >= 0xFF)
            break;
    }
    return word;
}

/// To wait for one line of a node after the other would take longer than the search in it.
template <class T>
void prefetch(const T& object)
{
    constexpr std::size_t LINE = 64;
    const auto* const first = reinterpret_cast<const std::byte*>(&object);
    for (std::size_t i = 0; i < sizeof object; i += LINE)
        __builtin_prefetch(first + i);
}

}  // namespace

name_order_t::keys_t::keys_t() noexcept
{
    std::fill(std::begin(keys), std::end(keys), UNUSED);
}

name_order_t::place_t name_order_t::find(const map_t& map, std::u16string_view name)
{
    if (root_ == nullptr && !begin(map))
        return {map.end(), nullptr, 0, 0};
    shorten_common(name);
    make_room_in_root();
    const sought_t sought{key_of(name), name};
    keys_t* node = root_;
    for (unsigned int level = height_; level > 0; --level)
        node = &child_with_room(static_cast<inner_t&>(*node), level, sought);
    auto& leaf = static_cast<leaf_t&>(*node);
    const unsigned int at = num_before(sought, leaf, 0);
    // The map is about to look at both neighbours.
    if (at > 0)
        prefetch(*leaf.items[at - 1]);
    if (at == leaf.size)
        return {std::next(leaf.items[at - 1]), &leaf, at, sought.key};
    prefetch(*leaf.items[at]);
    return {leaf.items[at], &leaf, at, sought.key};
}

void name_order_t::add(const place_t& place, element_t element) noexcept
{
    if (place.leaf != nullptr)
        insert(*place.leaf, place.position, place.key, element);
}

/// @return whether there is a tree now
bool name_order_t::begin(const map_t& map)
{
    if (map.size() != SMALL_MAP)
        return false;
    auto* const leaf = new leaf_t;
    root_ = leaf;
    const std::u16string_view first = view_of(map.begin()->first);
    common_ = first.substr(0, length_in_common(first, view_of(map.rbegin()->first)));
    for (element_t element = map.begin(); element != map.end(); ++element)
        leaf->items[leaf->size++] = element;
    renew_keys(*root_, 0);
    return true;
}

/// At least by half, so that names cannot be chosen to have all keys renewed again and again.
void name_order_t::shorten_common(std::u16string_view name) noexcept
{
    if (equal_units(common_, name.substr(0, common_.size()))) [[likely]]
        return;
    common_ = common_.substr(0, std::min(length_in_common(common_, name), common_.size() / 2));
    renew_keys(*root_, height_);
}

std::uint64_t name_order_t::key_of(std::u16string_view name) const noexcept
{
    return word_of(name.substr(common_.size()));
}

// As deep as the tree: a handful of levels.
void name_order_t::renew_keys(keys_t& node, unsigned int level) noexcept
{
    for (unsigned int i = 0; i < node.size; ++i) {
        if (level > 0)
            renew_keys(*static_cast<inner_t&>(node).items[i], level - 1);
        node.keys[i] = key_of(name_at(node, level, i));
    }
}

void name_order_t::make_room_in_root()
{
    if (root_->size < CAPACITY)
        return;
    auto* const root = new inner_t;
    insert(*root, 0, root_->keys[0], root_);
    root_ = root;
    ++height_;
    split_child(*root, 0, height_);
}

/// The child that has the place. Full ones are split on the way down, so that `node` has room.
/// @param level  of `node`
name_order_t::keys_t& name_order_t::child_with_room(inner_t& node, unsigned int level,
                                                    const sought_t& sought)
{
    const auto child = [&] { return std::max(num_before(sought, node, level), 1u) - 1; };
    const unsigned int at = child();
    prefetch(node.items[at]->keys);
    if (node.items[at]->size < CAPACITY)
        return *node.items[at];
    split_child(node, at, level);
    return *node.items[child()];
}

/// @param level  of `parent`
void name_order_t::split_child(inner_t& parent, unsigned int at, unsigned int level)
{
    keys_t& full = *parent.items[at];
    const bool is_last = at + 1 == parent.size;
    keys_t* upper = nullptr;
    if (level == 1)
        upper = upper_part(static_cast<leaf_t&>(full), is_last);
    else
        upper = upper_part(static_cast<inner_t&>(full), is_last);
    parent.keys[at] = full.keys[0];  // or keys would not rise where names came in falling order
    insert(parent, at + 1, upper->keys[0], upper);
}

/// A new node with what a full one gives away: little if it is the last one, since names often come
/// in order.
template <class Node>
Node* name_order_t::upper_part(Node& full, bool is_last)
{
    auto* const upper = new Node;
    const unsigned int kept = is_last ? CAPACITY * 7 / 8 : CAPACITY / 2;
    std::copy(full.keys + kept, full.keys + CAPACITY, upper->keys);
    std::copy(full.items + kept, full.items + CAPACITY, upper->items);
    std::fill(full.keys + kept, full.keys + CAPACITY, UNUSED);
    upper->size = CAPACITY - kept;
    full.size = kept;
    return upper;
}

template <class Item>
void name_order_t::insert(node_t<Item>& node, unsigned int at, std::uint64_t key,
                          Item item) noexcept
{
    std::copy_backward(node.keys + at, node.keys + node.size, node.keys + node.size + 1);
    std::copy_backward(node.items + at, node.items + node.size, node.items + node.size + 1);
    node.keys[at] = key;
    node.items[at] = item;
    ++node.size;
}

/// How many of a node's items are less.
unsigned int name_order_t::num_before(const sought_t& sought, const keys_t& node,
                                      unsigned int level) noexcept
{
    unsigned int at = num_less(node.keys, sought.key);
    if (at == node.size || node.keys[at] != sought.key) [[likely]]
        return at;
    // Equal keys: texts decide.
    unsigned int end = num_less(node.keys, sought.key + 1);
    while (at < end) {
        const unsigned int middle = at + (end - at) / 2;
        if (order_of_units(name_at(node, level, middle), sought.name) < 0)
            at = middle + 1;
        else
            end = middle;
    }
    return at;
}

/// The name of an item's first element.
std::u16string_view name_order_t::name_at(const keys_t& node, unsigned int level,
                                          unsigned int at) noexcept
{
    const keys_t* leaf = &node;
    for (; level > 0; --level, at = 0)
        leaf = static_cast<const inner_t*>(leaf)->items[at];
    return view_of(static_cast<const leaf_t*>(leaf)->items[at]->first);
}

}  // namespace XmlTagImpl
}  // namespace Kvl
