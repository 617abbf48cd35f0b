#ifndef KVUTIL_XMLTAG_ORDER_IMPL_H
#define KVUTIL_XMLTAG_ORDER_IMPL_H

#include <kvutil/xmltag.h>

#include <cstdint>
#include <map>
#include <string_view>

namespace Kvl {
namespace XmlTagImpl {

/// Finds the place of a new name in the ordered map of a namespace's tags. The map itself compares
/// a text at each of its levels, each somewhere else in memory, and most of a registration would be
/// waiting for these; here the search stays within a few cache lines.
///
/// A B-tree of the map's elements. Of each name it holds up to eight units as one word, those
/// behind what all names of the map have in common; only names that agree in them are compared as
/// texts. Small maps are left to search for themselves.
///
/// For one thread at a time. A namespace lasts as long as the process, so nothing is ever freed.
class name_order_t {
public:
    typedef std::map<UString, const XmlTag*> map_t;
    typedef map_t::const_iterator element_t;

private:
    static constexpr unsigned int CAPACITY = 63;  // one less than a power of 4, for num_less()
    static constexpr std::size_t SMALL_MAP = 24;

    struct keys_t {
        keys_t() noexcept;
        std::uint64_t keys[CAPACITY];  // those that are not used are greater than any other
        unsigned int size = 0;
    };
    /// A leaf has elements. Any other node has children; its keys are those of their first
    /// elements. Its first key may be too great: whatever is less than the second child's belongs
    /// to the first child.
    template <class Item>
    struct node_t : keys_t {
        Item items[CAPACITY];
    };
    typedef node_t<element_t> leaf_t;
    typedef node_t<keys_t*> inner_t;

public:
    /// The place of a name, for the hint of an insertion into the map and for add() after it.
    struct place_t {
        element_t hint;
        leaf_t* leaf;
        unsigned int position;
        std::uint64_t key;
    };

    constexpr name_order_t() noexcept = default;
    name_order_t(const name_order_t&) = delete;
    name_order_t& operator=(const name_order_t&) = delete;

    /// @param map   always the same one, which changes by what add() is told of only
    /// @param name  one that `map` does not have
    /// @throws std::bad_alloc  other names are found as before
    place_t find(const map_t& map, std::u16string_view name);

    /// Adds the element that was inserted at a place, the last one that was found.
    void add(const place_t& place, element_t element) noexcept;

private:
    struct sought_t {
        std::uint64_t key;
        std::u16string_view name;
    };

    bool begin(const map_t& map);
    void shorten_common(std::u16string_view name) noexcept;
    std::uint64_t key_of(std::u16string_view name) const noexcept;
    void renew_keys(keys_t& node, unsigned int level) noexcept;
    void make_room_in_root();
    static keys_t& child_with_room(inner_t& node, unsigned int level, const sought_t& sought);
    static void split_child(inner_t& parent, unsigned int at, unsigned int level);
    template <class Node>
    static Node* upper_part(Node& full, bool is_last);
    template <class Item>
    static void insert(node_t<Item>& node, unsigned int at, std::uint64_t key, Item item) noexcept;
    static unsigned int num_before(const sought_t& sought, const keys_t& node,
                                   unsigned int level) noexcept;
    static std::u16string_view name_at(const keys_t& node, unsigned int level,
                                       unsigned int at) noexcept;

    keys_t* root_ = nullptr;
    unsigned int height_ = 0;     // 0: the root is a leaf
    std::u16string_view common_;  // what all names begin with: the beginning of one of them
};

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
