#include "ustring_impl.h"
#include "xmltag_impl.h"
#include "xmltag_wk_table_impl.h"

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

}  // namespace

namespace XmlTagImpl {

/// The local names one behind the other, each terminated. One array instead of 1,143 pointers
/// leaves the loader nothing to relocate.
constexpr char16_t wk_names[] =
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) u"" name u"\0"
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
    ;

}  // namespace XmlTagImpl

namespace {

using XmlTagImpl::wk_names;

struct row_t {
    std::int16_t id;
    std::int8_t nsid;
    std::uint8_t length;
    std::uint16_t offset;  // in wk_names
};

constexpr std::u16string_view name_of(const row_t& row)
{
    return {wk_names + row.offset, row.length};
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
static_assert(std::size(wk_names) < 0x10000, "offsets are 16 bits");
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

// ---- Names to rows: the tables of xmltag_wk_table_impl.h, made at compile time

using XmlTagImpl::wk_slots_t;

constexpr std::uint64_t hash_of_row(const row_t& row)
{
    return XmlTagImpl::hash_of_wk(name_of(row), XmlTagImpl::ends_of(row.nsid, name_of(row)));
}

struct hashed_row_t {
    std::uint64_t hash = 0;
    std::uint16_t row = 0;
};

struct group_t {
    static constexpr std::size_t LARGEST = 12;
    hashed_row_t rows[LARGEST];
    std::size_t size = 0;
};

constexpr bool has_room(const wk_slots_t& slots, const group_t& group)
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

constexpr XmlTagImpl::wk_slot_t slot_of(const hashed_row_t& hashed)
{
    const row_t& row = ROWS[hashed.row];
    return {{hashed.row, row.offset, row.nsid, row.length}, hashed.hash};
}

constexpr void place_group(wk_slots_t& slots, const group_t& group)
{
    while (!has_room(slots, group))
        if (++slots.shift_of_group[wk_slots_t::group_of(group.rows[0].hash)] ==
            wk_slots_t::NUM_SLOTS)
            throw "two names always collide: take other bits of the hash, or other places of a "
                  "name";
    for (std::size_t i = 0; i < group.size; ++i)
        slots.slots[slots.place(group.rows[i].hash)] = slot_of(group.rows[i]);
}

// The largest groups choose first, while there is most room.
constexpr wk_slots_t slots_of_rows()
{
    std::array<group_t, wk_slots_t::NUM_GROUPS> groups{};
    for (const std::uint16_t i : SORTED_ROWS) {
        const std::uint64_t hash = hash_of_row(ROWS[i]);
        group_t& group = groups[wk_slots_t::group_of(hash)];
        group.rows[group.size++] = {hash, i};
    }
    wk_slots_t slots;
    for (std::size_t size = group_t::LARGEST; size > 0; --size)
        for (const group_t& group : groups)
            if (group.size == size)
                place_group(slots, group);
    return slots;
}

constexpr XmlTagImpl::wk_filter_t filter_of_rows()
{
    XmlTagImpl::wk_filter_t filter;
    for (const row_t& row : ROWS)
        if (has_namespace(row))
            filter.add(XmlTagImpl::ends_of(row.nsid, name_of(row)));
    return filter;
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

constexpr wk_filter_t wk_filter = filter_of_rows();
constexpr wk_slots_t wk_slots = slots_of_rows();

constinit const wk_namespace_t (&wk_namespaces_array)[XmlTag::NUM_WK_NAMESPACES] =
    g_storage.wk_namespaces.value;

const XmlTag* find_added(XmlTag::NsId nsid, std::u16string_view name) noexcept
{
    const auto name_of_tag = [](const XmlTag* tag) { return view_of(tag->simple_name()); };
    const XmlTag::Namespace& ns = *XmlTag::g_namespace_array[nsid];
    const auto found = std::ranges::lower_bound(ns.wk_tags, name, {}, name_of_tag);
    if (!ns.has_wk_tags || found == ns.wk_tags.end() || name_of_tag(*found) != name)
        return nullptr;
    return *found;
}

const XmlTag* find_well_known(XmlTag::NsId nsid, const char16_t* name, std::size_t length) noexcept
{
    return find_well_known(nsid, {name, length});
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
