#include "ustring_impl.h"
#include "xmltag_hash_impl.h"
#include "xmltag_impl.h"

#include <algorithm>
#include <array>
#include <functional>
#include <new>

namespace Kvl {

namespace {

using XmlTagImpl::g_storage;
using XmlTagImpl::NUM_WK_TAGS;

constexpr std::size_t NUM_WK_NAMESPACES = XmlTag::NUM_WK_NAMESPACES;

// ---- Namespaces

struct namespace_row_t {
    XmlTag::NsId nsid;
    std::string_view narrow_abbreviation;
    std::u16string_view abbreviation;
    std::u16string_view uri;
    bool has_wk_tags;
};

constexpr namespace_row_t NAMESPACES[] = {
#define KVUTIL_WK_NAMESPACE(nsid, abbreviation, path, has_wk_tags)                                 \
    {nsid, abbreviation, u"" abbreviation, u"" KVUTIL_XML_NS_BASE path, has_wk_tags},
#include "xmltag_wk_ns.def"
#undef KVUTIL_WK_NAMESPACE
};
static_assert(std::size(NAMESPACES) == NUM_WK_NAMESPACES);

constexpr std::size_t BASE_LENGTH = std::size(u"" KVUTIL_XML_NS_BASE) - 1;

// ---- Tags

/// The local names one behind the other, each terminated. One array instead of 1,143 pointers
/// leaves the loader nothing to relocate.
constexpr char16_t NAMES[] =
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) u"" name u"\0"
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
    ;

struct row_t {
    std::int16_t id;
    std::int8_t nsid;
    std::uint8_t length;
    std::uint16_t offset;  // in NAMES
};

constexpr std::u16string_view name_of(const row_t& row)
{
    return {NAMES + row.offset, row.length};
}

/// -1 for a row without a name and for an abbreviation that names no namespace.
constexpr int nsid_of(std::string_view abbreviation, std::size_t name_length)
{
    for (const namespace_row_t& row : NAMESPACES)
        if (name_length != 0 && row.narrow_abbreviation == abbreviation)
            return row.nsid;
    return -1;
}

constexpr auto ROWS = [] {
    struct source_t {
        int id;
        std::string_view abbreviation;
        std::size_t length;
    };
    constexpr source_t source[] = {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) {id, abbreviation, sizeof(name) - 1},
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
    };
    std::array<row_t, std::size(source)> rows{};
    std::size_t offset = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i] = {static_cast<std::int16_t>(source[i].id),
                   static_cast<std::int8_t>(nsid_of(source[i].abbreviation, source[i].length)),
                   static_cast<std::uint8_t>(source[i].length), static_cast<std::uint16_t>(offset)};
        offset += source[i].length + 1;
    }
    return rows;
}();
static_assert(ROWS.size() == NUM_WK_TAGS, "1142 tags and the nil tag");
static_assert(std::size(NAMES) < 0x10000, "offsets are 16 bits");
static_assert(ROWS.front().id == 0 && ROWS.back().id == XmlTag::NUM_WK_IDS - 1);
static_assert(std::ranges::adjacent_find(ROWS, std::greater_equal<>{}, &row_t::id) == ROWS.end(),
              "ids rise, each once");

constexpr bool has_namespace(const row_t& row)
{
    return row.nsid >= 0;
}

constexpr std::size_t NUM_NAMED = std::ranges::count_if(ROWS, has_namespace);

constexpr auto NUM_TAGS_OF_NAMESPACE = [] {
    std::array<std::size_t, NUM_WK_NAMESPACES> counts{};
    for (const row_t& row : ROWS)
        if (has_namespace(row))
            ++counts[static_cast<std::size_t>(row.nsid)];
    return counts;
}();

constexpr bool by_namespace_and_name(std::uint16_t a, std::uint16_t b)
{
    if (ROWS[a].nsid != ROWS[b].nsid)
        return ROWS[a].nsid < ROWS[b].nsid;
    return name_of(ROWS[a]) < name_of(ROWS[b]);
}

/// Indexes of the rows that have a namespace, by namespace and name. Rows of one namespace stand
/// nearly in order, so inserting one after the other stays within what compilers evaluate.
constexpr auto SORTED_ROWS = [] {
    std::array<std::size_t, NUM_WK_NAMESPACES> end{};
    for (std::size_t i = 1; i < end.size(); ++i)
        end[i] = end[i - 1] + NUM_TAGS_OF_NAMESPACE[i - 1];
    std::array<std::uint16_t, NUM_NAMED> order{};
    for (std::uint16_t i = 0; i < std::uint16_t{ROWS.size()}; ++i) {
        if (!has_namespace(ROWS[i]))
            continue;
        std::size_t at = end[static_cast<std::size_t>(ROWS[i].nsid)]++;
        for (; at > 0 && by_namespace_and_name(i, order[at - 1]); --at)
            order[at] = order[at - 1];
        order[at] = i;
    }
    return order;
}();
static_assert(std::ranges::adjacent_find(SORTED_ROWS, std::not_fn(by_namespace_and_name)) ==
                  SORTED_ROWS.end(),
              "sorted, and a name stands once in its namespace");

// ---- Names to rows: a table without collisions, made at compile time

/// The rows never change, so it is enough to look at four places of a name and at its length:
/// whatever the length, the same few steps. Where two names differ in none of those places, the
/// table does not compile.
constexpr std::uint64_t hash_of_name(XmlTag::NsId nsid, std::u16string_view name)
{
    using namespace XmlTagImpl;
    const std::size_t length = name.size();
    // Where letters have no bits.
    const std::uint64_t context = static_cast<std::uint64_t>(nsid) << 24 ^ length << 8;
    if (length < 4)
        return fold_multiply(few_units(name) ^ context * ODD, ODD);
    const char16_t* const first = name.data();
    const std::size_t last = length - 4;
    return fold_multiply(four_units(first) ^ four_units(first + last / 3) * ODD,
                         four_units(first + last) ^
                             (four_units(first + last - last / 4) ^ context) * ODD);
}

/// All that a look-up needs of a row, in one word: what must agree with the name that is looked
/// for, which in its lower bits only one row has, and behind it where the row and its text are.
class slot_t {
public:
    constexpr slot_t() = default;
    constexpr slot_t(std::size_t row, std::uint64_t hash)
        : word_(agreeing(ROWS[row].nsid, ROWS[row].length, hash) | row << ROW_BITS_FROM |
                ROWS[row].offset)
    {
    }
    constexpr bool is_empty() const { return word_ == 0; }
    constexpr bool may_be(XmlTag::NsId nsid, std::size_t length, std::uint64_t hash) const
    {
        return length <= LONGEST &&
               ((word_ ^ agreeing(nsid, length, hash)) & ~std::uint64_t{0} << AGREEING_FROM) == 0;
    }
    constexpr const char16_t* text() const { return NAMES + word_ % 0x10000; }
    constexpr std::size_t row() const { return word_ >> ROW_BITS_FROM & 0x7FF; }

private:
    static constexpr std::size_t LONGEST = 0xFF;
    static constexpr int ROW_BITS_FROM = 16;
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

constexpr std::size_t NUM_SLOTS = 2048;
constexpr std::size_t NUM_GROUPS = 512;

constexpr std::size_t group_of(std::uint64_t hash)
{
    return hash >> 24 & (NUM_GROUPS - 1);
}

/// Names that have some bits of their hashes in common are a group. Each group is shifted to where
/// all its names have a slot of their own.
struct slots_t {
    std::uint16_t shift_of_group[NUM_GROUPS] = {};
    slot_t slots[NUM_SLOTS];

    constexpr std::size_t place(std::uint64_t hash) const
    {
        return ((hash >> 48) + shift_of_group[group_of(hash)]) % NUM_SLOTS;
    }
};

struct hashed_row_t {
    std::uint64_t hash = 0;
    std::uint16_t row = 0;
};

struct group_t {
    static constexpr std::size_t LARGEST = 12;
    hashed_row_t rows[LARGEST];
    std::size_t size = 0;
};

constexpr bool has_room(const slots_t& slots, const group_t& group)
{
    for (std::size_t i = 0; i < group.size; ++i) {
        const std::size_t place = slots.place(group.rows[i].hash);
        for (std::size_t k = 0; k < i; ++k)
            if (slots.place(group.rows[k].hash) == place)
                return false;
        if (!slots.slots[place].is_empty())
            return false;
    }
    return true;
}

constexpr void place_group(slots_t& slots, const group_t& group)
{
    while (!has_room(slots, group))
        if (++slots.shift_of_group[group_of(group.rows[0].hash)] == NUM_SLOTS)
            throw "two names always collide: take other bits of the hash, or other places of a "
                  "name";
    for (std::size_t i = 0; i < group.size; ++i)
        slots.slots[slots.place(group.rows[i].hash)] = {group.rows[i].row, group.rows[i].hash};
}

// The largest groups choose first, while there is most room.
constexpr auto SLOTS = [] {
    std::array<group_t, NUM_GROUPS> groups{};
    for (const std::uint16_t i : SORTED_ROWS) {
        const std::uint64_t hash = hash_of_name(ROWS[i].nsid, name_of(ROWS[i]));
        group_t& group = groups[group_of(hash)];
        group.rows[group.size++] = {hash, i};
    }
    slots_t slots;
    for (std::size_t size = group_t::LARGEST; size > 0; --size)
        for (const group_t& group : groups)
            if (group.size == size)
                place_group(slots, group);
    return slots;
}();

const XmlTag* find_row(XmlTag::NsId nsid, std::u16string_view name)
{
    const std::uint64_t hash = hash_of_name(nsid, name);
    const slot_t slot = SLOTS.slots[SLOTS.place(hash)];
    if (!slot.may_be(nsid, name.size(), hash) ||
        !XmlTagImpl::equal_units(slot.text(), name.data(), name.size()))
        return nullptr;
    return &g_storage.tags.value[slot.row()];
}

/// Tags that a program has added at load with create() stand in the sorted list only.
[[gnu::noinline]] const XmlTag* find_added(const XmlTag::Namespace& ns, std::u16string_view name)
{
    const auto name_of_tag = [](const XmlTag* tag) { return view_of(tag->simple_name()); };
    const auto found = std::ranges::lower_bound(ns.wk_tags, name, {}, name_of_tag);
    if (!ns.has_wk_tags || found == ns.wk_tags.end() || name_of_tag(*found) != name)
        return nullptr;
    return *found;
}

// ---- URIs to namespaces: few enough to be told apart by the path's length and text

bool has_uri(const namespace_row_t& row, std::u16string_view uri)
{
    // The base is common to all, so the path decides, and decides sooner.
    return row.uri.size() == uri.size() &&
           XmlTagImpl::equal_units(row.uri.substr(BASE_LENGTH), uri.substr(BASE_LENGTH)) &&
           XmlTagImpl::equal_units(row.uri, uri);
}

// ---- Load

void construct_wk_namespaces_array()
{
    const auto text = [](std::u16string_view view) {
        return constant_text_t::make(view.data(), static_cast<int>(view.size()));
    };
    for (std::size_t i = 0; i < NUM_WK_NAMESPACES; ++i)
        ::new (&g_storage.wk_namespaces.value[i]) XmlTagImpl::wk_namespace_t{
            NAMESPACES[i].nsid, text(NAMESPACES[i].uri), text(NAMESPACES[i].abbreviation)};
}

void construct_namespaces()
{
    for (std::size_t i = 0; i < NUM_WK_NAMESPACES; ++i)
        XmlTag::g_namespace_array[i] = ::new (&g_storage.namespaces.value[i])
            XmlTag::Namespace(XmlTagImpl::wk_namespaces_array[i].uri, NAMESPACES[i].nsid,
                              NAMESPACES[i].has_wk_tags, !NAMESPACES[i].has_wk_tags);
}

// The same as create() for each row, but its look-ups and checks were made at compile time.
void construct_wk_tags()
{
    for (std::size_t i = 0; i < NUM_WK_TAGS; ++i) {
        const row_t& row = ROWS[i];
        XmlTag::Namespace* const ns =
            row.nsid < 0 ? nullptr : XmlTag::g_namespace_array[static_cast<std::size_t>(row.nsid)];
        XmlTagImpl::tag_access_t::set_well_known(*XmlTagImpl::tag_access_t::construct(
            &g_storage.tags.value[i], ns, name_of(row), row.id));
    }
}

void fill_wk_tags_of_namespaces()
{
    auto row = SORTED_ROWS.begin();
    for (std::size_t i = 0; i < NUM_WK_NAMESPACES; ++i) {
        XmlTag::g_namespace_array[i]->wk_tags.resize(NUM_TAGS_OF_NAMESPACE[i]);
        for (const XmlTag*& tag : XmlTag::g_namespace_array[i]->wk_tags)
            tag = &g_storage.tags.value[*row++];
    }
}

}  // namespace

namespace XmlTagImpl {

constinit bool tags_were_added = false;

constinit const wk_namespace_t (&wk_namespaces_array)[XmlTag::NUM_WK_NAMESPACES] =
    g_storage.wk_namespaces.value;

const XmlTag* find_well_known(XmlTag::NsId nsid, const char16_t* name, std::size_t length) noexcept
{
    if (const XmlTag* const tag = find_row(nsid, {name, length}))
        return tag;
    return tags_were_added ? find_added(*XmlTag::g_namespace_array[nsid], {name, length}) : nullptr;
}

XmlTag::Namespace* find_well_known_namespace(std::u16string_view uri) noexcept
{
    for (std::size_t i = 0; i < NUM_WK_NAMESPACES; ++i)
        if (has_uri(NAMESPACES[i], uri))
            return XmlTag::g_namespace_array[i];
    return nullptr;
}

KVUTIL_AT_LOAD bool load()
{
    construct_wk_namespaces_array();
    ::new (&g_storage.dynamic_tags.value) IdToTagMap;
    XmlTag::create_wk_namespaces();
    construct_wk_tags();
    fill_wk_tags_of_namespaces();
    return true;
}

}  // namespace XmlTagImpl

constexpr auto NAMESPACES_BY_URI = [] {
    std::array<std::uint8_t, NUM_WK_NAMESPACES> order{};
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = static_cast<std::uint8_t>(i);
    std::ranges::sort(order, {}, [](std::size_t i) { return NAMESPACES[i].uri; });
    return order;
}();

KVUTIL_AT_LOAD std::vector<XmlTag::Namespace*>* XmlTag::create_wk_namespaces()
{
    if (g_sorted_namespace_vector != nullptr)
        return g_sorted_namespace_vector;
    construct_namespaces();
    g_nsid_to_namespace_map = ::new (&g_storage.runtime_namespaces.value) std::vector<Namespace*>;
    auto* const sorted = ::new (&g_storage.sorted_namespaces.value) std::vector<Namespace*>;
    sorted->reserve(NUM_WK_NAMESPACES);
    for (const std::uint8_t i : NAMESPACES_BY_URI)
        sorted->push_back(g_namespace_array[i]);
    return g_sorted_namespace_vector = sorted;
}

// ---- The names of the tags

namespace {
namespace row_index {
enum : std::size_t {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) constant,
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
};
}  // namespace row_index
}  // namespace

namespace WkTag {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name)                                            \
    constinit const XmlTag& constant = g_storage.tags.value[row_index::constant];
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
}  // namespace WkTag

}  // namespace Kvl
