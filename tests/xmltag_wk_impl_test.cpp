#include "xmltag_wk_table_impl.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>

// The tables of well-known names, against the lists of the namespaces.

namespace {

using Kvl::XmlTag;
using namespace Kvl::XmlTagImpl;

typedef std::map<std::pair<XmlTag::NsId, std::u16string>, const XmlTag*> tags_t;

const tags_t& listed()
{
    static const tags_t tags = [] {
        tags_t result;
        for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
            for (const XmlTag* const tag : ns->wk_tags)
                result[{ns->id, std::u16string(Kvl::view_of(tag->simple_name()))}] = tag;
        return result;
    }();
    return tags;
}

const XmlTag* find_listed(XmlTag::NsId nsid, const std::u16string& name)
{
    const auto found = listed().find({nsid, name});
    return found != listed().end() ? found->second : nullptr;
}

TEST(XmlTagWkTable, FindsEachNameInItsNamespacesOnly)
{
    for (const auto& [key, tag] : listed())
        for (XmlTag::NsId nsid = 0; nsid < XmlTag::NUM_WK_NAMESPACES; ++nsid)
            ASSERT_EQ(find_in_tables(nsid, key.second), find_listed(nsid, key.second));
}

TEST(XmlTagWkTable, FindsNoNameThatDiffersInOneUnit)
{
    for (const auto& [key, tag] : listed())
        for (std::size_t i = 0; i < key.second.size(); ++i)
            for (const int change : {1, 2, 0x20, 0x80, 0x100, 0x8000}) {
                std::u16string name = key.second;
                name[i] = static_cast<char16_t>(name[i] ^ change);
                ASSERT_EQ(find_in_tables(key.first, name), find_listed(key.first, name));
            }
}

TEST(XmlTagWkTable, FindsNoNameOfAnotherLength)
{
    for (const auto& [key, tag] : listed()) {
        const std::u16string& name = key.second;
        for (const std::u16string& other : {name + u's', u'x' + name, name + name, name + u'\0',
                                            name + std::u16string(256, u'\0')})
            ASSERT_EQ(find_in_tables(key.first, other), find_listed(key.first, other));
        for (std::size_t i = 0; i < name.size(); ++i)
            ASSERT_EQ(find_in_tables(key.first, name.substr(0, i)),
                      find_listed(key.first, name.substr(0, i)));
    }
}

// What it is there for.
TEST(XmlTagWkFilter, LetsFewOtherNamesPass)
{
    int passed = 0;
    for (int i = 0; i < 10'000; ++i) {
        const std::string name = "property-" + std::to_string(i);
        passed += wk_filter.may_have(ends_of(i % 21, std::u16string(name.begin(), name.end())));
    }
    EXPECT_LT(passed, 10'000 / 15);
}

}  // namespace
