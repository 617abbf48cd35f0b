#include "ustring_impl.h"
#include "xmltag_order_impl.h"

#include "support/memory_fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// The places of new names in a map, against those that the map finds itself.

namespace {

using Kvl::UString;
using Kvl::XmlTagImpl::name_order_t;

typedef std::vector<std::u16string> names_t;

struct ordered_t {
    name_order_t::map_t map;
    name_order_t& order = *new name_order_t;  // never freed, as in the registry

    // For the leak checker, which comes after all destructors.
    static inline std::vector<name_order_t*>& reachable = *new std::vector<name_order_t*>;
    ordered_t() { reachable.push_back(&order); }

    void add(const name_order_t::place_t& place, const UString& name)
    {
        order.add(place, map.emplace_hint(place.hint, name, nullptr));
    }
};

/// Adds those that are not yet there. Small maps have no place for a name: they search themselves.
void add_in_order_given(ordered_t& ordered, const names_t& names)
{
    for (const std::u16string& text : names) {
        const UString name = Kvl::owned_text_t::make(text);
        if (ordered.map.count(name) != 0)
            continue;
        const auto place = ordered.order.find(ordered.map, text);
        if (place.leaf != nullptr) {
            ASSERT_EQ(place.hint, ordered.map.upper_bound(name)) << ordered.map.size();
        }
        ordered.add(place, name);
    }
}

/// The names in the order of a list, the other way round, and in no order.
void expect_places_of(names_t names)
{
    ordered_t forwards;
    add_in_order_given(forwards, names);
    std::reverse(names.begin(), names.end());
    ordered_t backwards;
    add_in_order_given(backwards, names);
    std::shuffle(names.begin(), names.end(), std::mt19937(3));
    ordered_t shuffled;
    add_in_order_given(shuffled, names);
}

names_t numbered(const std::string& stem, int count)
{
    names_t names;
    for (int i = 0; i < count; ++i) {
        const std::string name = stem + std::to_string(i);
        names.emplace_back(name.begin(), name.end());
    }
    return names;
}

/// Of few different units, on both sides of one byte and of a surrogate's.
std::u16string random_units(std::mt19937& random, std::size_t most)
{
    constexpr char16_t UNITS[] = {0, 1, u'a', u'b', 0xFE, 0xFF, 0x100, 0xD800, 0xFFFF};
    std::u16string text(random() % (most + 1), u'\0');
    for (char16_t& unit : text)
        unit = UNITS[random() % std::size(UNITS)];
    return text;
}

// Deep enough for a root that was split more than once.
TEST(XmlTagOrder, HasThePlacesOfNumberedNames)
{
    expect_places_of(numbered("a-property-", 12'000));
}

TEST(XmlTagOrder, HasThePlacesOfRandomNames)
{
    std::mt19937 random(20261122);
    names_t names;
    for (int i = 0; i < 10'000; ++i)
        names.push_back(random_units(random, 12));
    expect_places_of(names);
}

// Texts decide, at every level.
TEST(XmlTagOrder, HasThePlacesOfNamesThatDifferLate)
{
    names_t names = numbered("one-of-many-properties-", 4'000);
    const names_t others = numbered("other-properties-of-many-", 4'000);
    names.insert(names.end(), others.begin(), others.end());
    expect_places_of(names);
}

// Each name ends what all had in common so far.
TEST(XmlTagOrder, HasThePlacesWhenNamesHaveLessAndLessInCommon)
{
    const std::string stem(40, 'm');
    names_t names = numbered(stem, 10'000);
    for (std::size_t length = stem.size(); length-- > 0;)
        for (const char16_t unit : {u'a', u'z'})
            names.push_back(std::u16string(length, u'm') + unit);
    ordered_t longest_first;
    add_in_order_given(longest_first, names);
    ordered_t many_first;
    std::stable_partition(names.begin(), names.end(),
                          [](const std::u16string& name) { return name.size() > 30; });
    add_in_order_given(many_first, names);
    for (std::size_t length = 0; length < stem.size(); ++length)
        names.emplace_back(length, u'm');
    expect_places_of(names);
}

TEST(XmlTagOrder, IsUnchangedWhenThereIsNoMemory)
{
    ordered_t ordered;
    int failures = 0;
    for (const std::u16string& text : numbered("property-", 10'000)) {
        const UString name = Kvl::owned_text_t::make(text);
        const int failed = for_each_memory_fault(
            [&] { static_cast<void>(ordered.order.find(ordered.map, text)); }, [] {});
        ASSERT_GE(failed, 0);
        failures += failed;
        const auto place = ordered.order.find(ordered.map, text);
        if (place.leaf != nullptr) {
            ASSERT_EQ(place.hint, ordered.map.upper_bound(name));
        }
        ordered.add(place, name);
    }
    EXPECT_GT(failures, 100);
}

}  // namespace
