#include "sys_calls_impl.h"
#include "ustring_impl.h"
#include "xmltag_hash_impl.h"
#include "xmltag_impl.h"
#include "xmltag_lanes_impl.h"

#include <algorithm>
#include <array>
#include <functional>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

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

constexpr auto NAMESPACES_BY_URI = [] {
    std::array<std::uint8_t, NUM_WK_NAMESPACES> order{};
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = static_cast<std::uint8_t>(i);
    std::ranges::sort(order, {}, [](std::size_t i) { return NAMESPACES[i].uri; });
    return order;
}();

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

// ---- Names to rows, hashed at compile time

/// The rows never change, so it is enough to look at the ends and the middle of a name and at its
/// length: whatever the length, the same few steps.
constexpr std::uint64_t hash_of_name(XmlTag::NsId nsid, std::u16string_view name)
{
    using namespace XmlTagImpl;
    const std::size_t length = name.size();
    const std::uint64_t context = (static_cast<std::uint64_t>(nsid) << 32 ^ length) * ODD;
    if (length < 4)
        return fold_multiply(few_units(name) ^ context, ODD);
    const char16_t* const text = name.data();
    return fold_multiply(four_units(text) ^ 0x8A5CD789635D2DFFu,
                         four_units(text + length - 4) ^ 0x121FD2155C472F96u) ^
           fold_multiply(four_units(text + length / 2 - 2) ^ 0x4F2E6B6A3C1D9E37u, context ^ ODD);
}

constexpr std::size_t NUM_BUCKETS = 1024;  // so that none overflows

struct bucket_t {
    std::uint64_t checks;
    std::uint16_t rows[XmlTagImpl::NUM_LANES];
};

constexpr std::size_t bucket_of(std::uint64_t hash)
{
    return hash % NUM_BUCKETS;
}

constexpr auto BUCKETS = [] {
    using namespace XmlTagImpl;
    std::array<bucket_t, NUM_BUCKETS> buckets{};
    for (const std::uint16_t i : SORTED_ROWS) {
        const std::uint64_t hash = hash_of_name(ROWS[i].nsid, name_of(ROWS[i]));
        bucket_t& bucket = buckets[bucket_of(hash)];
        bucket.rows[num_taken(bucket.checks)] = i;
        bucket.checks = with_check(bucket.checks, check_of(hash));
    }
    return buckets;
}();

const XmlTag* find_row(XmlTag::NsId nsid, std::u16string_view name)
{
    using namespace XmlTagImpl;
    const std::uint64_t hash = hash_of_name(nsid, name);
    const bucket_t& bucket = BUCKETS[bucket_of(hash)];
    std::uint64_t lanes = lanes_with(bucket.checks, check_of(hash));
    for (; lanes != 0; lanes = without_first_lane(lanes)) {
        const std::size_t i = bucket.rows[first_lane(lanes)];
        if (ROWS[i].nsid == nsid && equal_units(name_of(ROWS[i]), name))
            return &g_storage.tags.value[i];
    }
    return nullptr;
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

/// Asks for all pages of the storage at once, which costs half of what a page fault for each does.
/// Where the system has no such call, or no memory now, the faults come one by one.
void populate_storage() noexcept
{
#ifdef MADV_POPULATE_WRITE
    const auto page = static_cast<std::uintptr_t>(getpagesize());
    const auto first = reinterpret_cast<std::uintptr_t>(&g_storage) / page * page;
    const auto end = reinterpret_cast<std::uintptr_t>(&g_storage + 1);
    static_cast<void>(
        sys_calls.madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE));
#endif
}

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
    for (std::size_t i = 0; i < NUM_WK_NAMESPACES; ++i)
        XmlTag::g_namespace_array[i]->wk_tags.reserve(NUM_TAGS_OF_NAMESPACE[i]);
    for (const std::uint16_t i : SORTED_ROWS)
        XmlTag::g_namespace_array[static_cast<std::size_t>(ROWS[i].nsid)]->wk_tags.push_back(
            &g_storage.tags.value[i]);
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

bool load()
{
    populate_storage();
    construct_wk_namespaces_array();
    ::new (&g_storage.dynamic_tags.value) IdToTagMap;
    XmlTag::create_wk_namespaces();
    construct_wk_tags();
    fill_wk_tags_of_namespaces();
    return true;
}

}  // namespace XmlTagImpl

std::vector<XmlTag::Namespace*>* XmlTag::create_wk_namespaces()
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
