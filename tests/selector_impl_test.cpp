// The tables behind the vocabulary of selectors, and the scanning of units in blocks.

#include "selector_impl.h"
#include "unit_block_impl.h"

#include "support/all_texts.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Kvl::Selector;
using Kvl::UString;
using namespace Kvl::SelectorImpl;

TEST(SelectorMaps, HoldEveryTextOnceBothWays)
{
    ASSERT_EQ(g_namespace_id_map.values.size(), 52u);
    for (const auto& [text, ns] : g_namespace_id_map.values) {
        EXPECT_EQ(g_namespace_id_map.texts[ns], text);
        EXPECT_EQ(&Selector::namespace_string(ns), &g_namespace_id_map.texts[ns]);
    }
    ASSERT_EQ(g_provider_domain_string.values.size(), 4u);
    for (const auto& [text, domain] : g_provider_domain_string.values)
        EXPECT_EQ(g_provider_domain_string.texts[domain], text);
}

TEST(SelectorMaps, AreOrderedByText)
{
    const auto are_ordered = [](const auto& values) {
        return std::ranges::is_sorted(
            values, [](const auto& a, const auto& b) { return a.first < b.first; });
    };
    EXPECT_TRUE(are_ordered(g_namespace_id_map.values));
    EXPECT_TRUE(are_ordered(g_provider_domain_string.values));
    EXPECT_EQ(g_namespace_id_map.values.front().first, ustr("DEFAULT"));
    EXPECT_EQ(g_namespace_id_map.values.back().first, ustr("workspace"));
}

template <class Values>
auto find(const Values& values, const UString& text)
{
    return std::ranges::find(values, text, &Values::value_type::first);
}

TEST(SelectorMaps, HoldTextsExactly)
{
    const auto& namespaces = g_namespace_id_map.values;
    EXPECT_EQ(find(namespaces, ustr("repo"))->second, 38);
    for (const char* const text : {"Repo", "default", ""})
        EXPECT_EQ(find(namespaces, ustr(text)), namespaces.end()) << text;
    const auto& domains = g_provider_domain_string.values;
    EXPECT_EQ(find(domains, ustr(""))->second, 3);
    EXPECT_EQ(find(domains, ustr("<invalid>"))->second, 2);
    EXPECT_EQ(find(domains, ustr("VD")), domains.end());
}

template <class Values, class Found>
void expect_same(const Values& values, const UString& text, const Found* found)
{
    const auto in_map = find(values, text);
    ASSERT_EQ(found != nullptr, in_map != values.end()) << text.utf8_str();
    if (found != nullptr) {
        EXPECT_EQ(*found, in_map->second);
    }
}

void expect_same(const std::u16string& text)
{
    const UString key(text);
    expect_same(g_namespace_id_map.values, key, find_namespace(text));
    expect_same(g_provider_domain_string.values, key, find_domain(text));
}

// Each text, and what differs from it in one place: the hash looks at three.
TEST(SelectorMaps, AreSearchedWithTheSameResultByTheParser)
{
    expect_same(u"");
    std::vector<std::u16string> texts;
    for (const auto& [text, value] : g_namespace_id_map.values)
        texts.push_back(units_of(text));
    for (const auto& [text, value] : g_provider_domain_string.values)
        texts.push_back(units_of(text));
    for (const auto& text : texts) {
        expect_same(text);
        expect_same(text + u"x");
        expect_same(text.substr(0, text.size() - 1));
        for (std::size_t i = 0; i < text.size(); ++i) {
            for (const char16_t unit : {u'x', u'A', char16_t(0), char16_t(text[i] + 0x100)}) {
                std::u16string other = text;
                other[i] = unit;
                expect_same(other);
            }
        }
    }
    for_each_text({u"a", u"e", u"f", u"i", u"l", u"o", u"v", u"d", u"b"}, 4,
                  [](const UString& text) { expect_same(units_of(text)); });
}

// Lengths up to two blocks and a rest, a wanted unit at each place.
template <class Visit>
void for_each_place(Visit visit)
{
    for (std::size_t size = 0; size < 20; ++size) {
        for (std::size_t at = 0; at <= size; ++at) {
            std::u16string text(size, u'a');
            if (at < size)
                text[at] = u'%';
            visit(text, at);
        }
    }
}

TEST(UnitBlocks, FindTheFirstUnitThatIsWanted)
{
    for_each_place([](std::u16string text, std::size_t at) {
        const std::size_t expected = at < text.size() ? at : text.npos;
        EXPECT_EQ(Kvl::find_unit(text, u'%'), expected);
        EXPECT_EQ(Kvl::find_unit(text, u'%', std::min(at, text.size())), expected);
        if (at < text.size()) {
            EXPECT_EQ(Kvl::find_unit(text, u'%', at + 1), text.npos);
            text.back() = u'%';
            EXPECT_EQ(Kvl::find_unit(text, u'%'), at);
        }
    });
    EXPECT_EQ(Kvl::find_unit(std::u16string(9, 0x2525), u'%'), std::u16string::npos);
}

TEST(UnitBlocks, CountTheUnitsThatAreWanted)
{
    for_each_place([](const std::u16string& text, std::size_t at) {
        EXPECT_EQ(Kvl::count_units(text, u'%', u':'), at < text.size() ? 1u : 0u);
        EXPECT_EQ(Kvl::count_units(text, u'%', u'a'), text.size());
    });
}

TEST(UnitBlocks, CopyUpToTheFirstUnitThatStops)
{
    for_each_place([](const std::u16string& text, std::size_t at) {
        std::u16string copy(text.size() + 1, u'-');
        const char16_t* in = text.data();
        char16_t* const end =
            Kvl::copy_until(in, text.data() + text.size(), copy.data(), u':', u'%');
        EXPECT_EQ(in - text.data(), static_cast<std::ptrdiff_t>(at));
        EXPECT_EQ(std::u16string(copy.data(), end), text.substr(0, at));
        EXPECT_EQ(copy.back(), u'-') << "written behind the room there is";
    });
}

}  // namespace
