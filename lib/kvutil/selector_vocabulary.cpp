#include "selector_impl.h"

#include "undying_impl.h"
#include "ustring_impl.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

namespace Kvl {
namespace SelectorImpl {

namespace {

template <class Value>
struct row_t {
    Value value;
    std::u16string_view text;
    std::size_t place = 0;  // among the rows in order of their texts
};

template <class Row, std::size_t size>
consteval std::array<Row, size> with_places(const Row (&rows)[size])
{
    std::array<Row, size> placed = std::to_array(rows);
    for (Row& row : placed)
        for (const Row& other : rows)
            row.place += other.text < row.text;
    return placed;
}

constexpr auto NAMESPACES = with_places<row_t<Selector::namespace_t>>({
#define KVUTIL_SELECTOR_NAMESPACE(value, enumerator, text) {Selector::enumerator, u"" text},
#include <kvutil/selector_namespaces.def>
#undef KVUTIL_SELECTOR_NAMESPACE
});

constexpr auto DOMAINS = with_places<row_t<Selector::provider_domain_t>>({
#define KVUTIL_SELECTOR_DOMAIN(value, enumerator, text) {Selector::enumerator, u"" text},
#include <kvutil/selector_domains.def>
#undef KVUTIL_SELECTOR_DOMAIN
});

/// Whether row i has value i, so that a value is the index of its row.
template <class Rows>
constexpr bool values_are_indexes(const Rows& rows)
{
    for (std::size_t i = 0; i < rows.size(); ++i)
        if (static_cast<std::size_t>(rows[i].value) != i)
            return false;
    return true;
}
static_assert(values_are_indexes(NAMESPACES) && values_are_indexes(DOMAINS));
static_assert(NUM_NAMESPACES == 52 && NUM_DOMAINS == 4);

template <class Vocabulary, class Rows>
void fill(Vocabulary& vocabulary, const Rows& rows)
{
    for (std::size_t i = 0; i < rows.size(); ++i) {
        stand_on(vocabulary.texts[i], rows[i].text);
        auto& [text, value] = vocabulary.values[rows[i].place];
        stand_on(text, rows[i].text);
        value = rows[i].value;
    }
}

// Length, first and last unit tell the namespaces apart. With the right factor they are a hash
// without collisions, found when this is compiled.
typedef std::array<signed char, 256> slots_t;
constexpr signed char FREE = -1;

constexpr std::size_t slot_of(std::u16string_view text, std::size_t factor)
{
    return ((text.size() * factor + text.front()) * factor + text.back()) % slots_t().size();
}

/// The row of each slot.
/// @return whether no two rows share one
constexpr bool fill_slots(slots_t& slots, std::size_t factor)
{
    slots.fill(FREE);
    for (const auto& row : NAMESPACES) {
        auto& slot = slots[slot_of(row.text, factor)];
        if (slot != FREE)
            return false;
        slot = static_cast<signed char>(row.value);
    }
    return true;
}

struct hash_t {
    std::size_t factor = 1;
    slots_t slots{};
};

consteval hash_t make_hash()
{
    hash_t hash;
    while (!fill_slots(hash.slots, hash.factor))
        ++hash.factor;
    return hash;
}
constexpr hash_t HASH = make_hash();

// operator== compares unit by unit, this as memory.
bool is_same(std::u16string_view a, std::u16string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

}  // namespace

KVUTIL_AT_LOAD InitMaps::InitMaps()
{
    fill(g_namespace_id_map, NAMESPACES);
    fill(g_provider_domain_string, DOMAINS);
}

const Selector::namespace_t* find_namespace(std::u16string_view text) noexcept
{
    if (text.empty())
        return nullptr;
    const int index = HASH.slots[slot_of(text, HASH.factor)];
    if (index == FREE)
        return nullptr;
    const auto& row = NAMESPACES[static_cast<std::size_t>(index)];
    return is_same(row.text, text) ? &row.value : nullptr;
}

const Selector::provider_domain_t* find_domain(std::u16string_view text) noexcept
{
    for (const auto& row : DOMAINS)
        if (is_same(row.text, text))
            return &row.value;
    return nullptr;
}

}  // namespace SelectorImpl

const UString& Selector::namespace_string(namespace_t ns) noexcept
{
    const auto& texts = SelectorImpl::g_namespace_id_map.texts;
    const auto index = static_cast<std::size_t>(ns);
    return index < std::size(texts) ? texts[index] : provider_domain_string(PD_NONE);
}

// The vocabulary's own empty text stands for every value that has none.
const UString& Selector::provider_domain_string(provider_domain_t pd) noexcept
{
    const auto& texts = SelectorImpl::g_provider_domain_string.texts;
    const auto index = static_cast<std::size_t>(pd);
    return index < std::size(texts) ? texts[index] : texts[PD_NONE];
}

}  // namespace Kvl
