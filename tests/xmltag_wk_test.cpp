#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace {

using Kvl::UString;
using Kvl::XmlTag;

struct namespace_row_t {
    const char* abbreviation;
    const char* path;
    std::size_t tags;
};

const namespace_row_t NAMESPACES[] = {
    {"ACL:", "/TEAM/ACL", 19},
    {"ACT:", "/TEAM/ACTTYPE", 10},
    {"ATR:", "/TEAM/ATTRS", 0},
    {"AUTHMODE:", "/TEAM/OBAUTHMODE", 3},
    {"VD:", "/TEAM/VD", 200},
    {"OB:", "/TEAM/OB", 67},
    {"CTG:", "/TEAM/CTG", 468},
    {"EVT:", "/TEAM/EVENTS", 81},
    {"FLD:", "/TEAM/FIELDS", 0},
    {"FRM:", "/TEAM/FORM", 63},
    {"FVT:", "/TEAM/VALTYPE", 14},
    {"GROUP_ACCESS:", "/TEAM/FOLDER_ACLS/GROUP", 0},
    {"MPN:", "/TEAM/METAPROPERTY", 29},
    {"MPT:", "/TEAM/MPTYPE", 27},
    {"NAMEDVAL:", "/TEAM/NAMED_VALUE", 0},
    {"PREF:", "/TEAM/PREF", 0},
    {"RES:", "/TEAM/RESTYPE", 52},
    {"TEAMPVT:", "/TEAM/PVT", 17},
    {"TEAM:", "/TEAM", 80},
    {"USER_ACCESS:", "/TEAM/FOLDER_ACLS/USER", 0},
    {"VENDOR:", "/TEAM/OBDBVENDOR", 5},
};

struct tag_row_t {
    XmlTag::Id id;
    std::string abbreviation;
    std::string name;
};

/// The rows of data/well_known_tags.tsv.
const std::vector<tag_row_t>& table()
{
    static const std::vector<tag_row_t> rows = [] {
        std::vector<tag_row_t> result;
        std::ifstream file(KVUTIL_TEST_DATA "/well_known_tags.tsv");
        for (std::string line; std::getline(file, line);) {
            if (line[0] == '#')
                continue;
            const std::size_t tab = line.find('\t');
            const std::size_t second = line.find('\t', tab + 1);
            result.push_back(
                {std::stoi(line), line.substr(tab + 1, second - tab - 1), line.substr(second + 1)});
        }
        return result;
    }();
    return rows;
}

XmlTag::NsId nsid_of(const tag_row_t& row)
{
    for (int i = 0; i < 21; ++i)
        if (!row.name.empty() && row.abbreviation == NAMESPACES[i].abbreviation)
            return i;
    return -1;
}

/// What the registry itself lists: the straightforward way to find a name.
const XmlTag* find_in_sorted_list(XmlTag::NsId nsid, const UString& name)
{
    const auto& tags = XmlTag::g_namespace_array[nsid]->wk_tags;
    const auto found = std::lower_bound(tags.begin(), tags.end(), name,
                                        Kvl::XmlTagImpl::CompareXmlTagSimpleName());
    return found != tags.end() && (*found)->simple_name() == name ? *found : nullptr;
}

TEST(WellKnownNamespaces, HaveTheirUriAbbreviationAndFlags)
{
    for (XmlTag::NsId i = 0; i < 21; ++i) {
        const namespace_row_t& row = NAMESPACES[i];
        const UString uri = ustr(std::string("http://kvutil.example.com/xmlns") + row.path);
        const XmlTag::Namespace& ns = *XmlTag::g_namespace_array[i];
        EXPECT_EQ(ns.id, i);
        EXPECT_EQ(ns.uri, uri);
        EXPECT_EQ(ns.has_wk_tags, i != 2 && i != 8);
        EXPECT_EQ(ns.open_names, i == 2 || i == 8);
        EXPECT_EQ(&XmlTag::ns_URI(i), &ns.uri);
        EXPECT_EQ(XmlTag::ns_abbreviation(i), ustr(row.abbreviation));
        EXPECT_EQ(XmlTag::ns_lookup_abbreviation(ustr(row.abbreviation)), i);
        EXPECT_TRUE(XmlTag::is_well_known_namespace(uri));
        EXPECT_EQ(XmlTag(uri, UString()).ns_id(), i);
    }
}

TEST(WellKnownNamespaces, ListTheirTagsSortedByName)
{
    for (XmlTag::NsId i = 0; i < 21; ++i) {
        const auto& tags = XmlTag::g_namespace_array[i]->wk_tags;
        EXPECT_EQ(tags.size(), NAMESPACES[i].tags) << NAMESPACES[i].abbreviation;
        EXPECT_TRUE(
            std::is_sorted(tags.begin(), tags.end(), Kvl::XmlTagImpl::CompareXmlTagSimpleName()));
        EXPECT_EQ(std::set<const XmlTag*>(tags.begin(), tags.end()).size(), tags.size());
        for (const XmlTag* const tag : tags)
            EXPECT_EQ(tag->ns_id(), i);
    }
}

TEST(WellKnownTags, AreTheTable)
{
    ASSERT_EQ(table().size(), 1143u);
    for (const tag_row_t& row : table()) {
        const XmlTag* const tag = XmlTag::lookup(row.id);
        const XmlTag::NsId nsid = nsid_of(row);
        ASSERT_EQ(tag->id(), row.id);
        ASSERT_EQ(tag->simple_name(), ustr(row.name)) << row.id;
        ASSERT_EQ(tag->ns_id(), nsid) << row.id;
        ASSERT_EQ(tag->is_well_known_namespace(), nsid >= 0) << row.id;
        if (nsid < 0)
            continue;
        ASSERT_EQ(XmlTag::lookup(nsid, ustr(row.name)), tag) << row.id;
        XmlTag by_texts(XmlTag::ns_URI(nsid), ustr(row.name));
        ASSERT_EQ(XmlTag::lookup(by_texts), tag) << row.id;
        ASSERT_EQ(by_texts.id(), 0) << row.id;
    }
    EXPECT_EQ(XmlTag::g_num_defined_tags, 1155);
}

TEST(WellKnownTags, LeaveTheOtherNumbersUnassigned)
{
    std::set<XmlTag::Id> assigned;
    for (const tag_row_t& row : table())
        assigned.insert(row.id);
    std::vector<XmlTag::Id> unassigned;
    for (XmlTag::Id id = 0; id < 1155; ++id) {
        if (assigned.count(id) != 0)
            continue;
        unassigned.push_back(id);
        EXPECT_THROW(XmlTag::lookup(id), Kvl::StateException) << id;
    }
    EXPECT_THAT(unassigned, testing::ElementsAre(174, 176, 179, 180, 917, 1024, 1025, 1072, 1073,
                                                 1112, 1120, 1130));
}

TEST(WellKnownTags, KeepTheirOddSpellings)
{
    const std::map<XmlTag::Id, const char*> odd = {
        {145, "merge-type-nevero"},
        {156, "permissions_gmask"},
        {278, "permission_read_limited"},
        {354, "child-original-source-directory-no-longer-exits"},
        {525, "legal-acccessible-actions"},
        {657, "record-reqiredness-by-state"},
    };
    for (const auto& [id, name] : odd)
        EXPECT_EQ(XmlTag::lookup(id)->simple_name(), ustr(name));
}

TEST(WellKnownTags, WithoutNamespaceAreFoundByIdOnly)
{
    const std::map<XmlTag::Id, const char*> rows = {
        {112, "is-vob-root"}, {114, "fully-labeled"}, {115, "incrementally-labeled"},
        {116, "is-initial"},  {117, "not-labeled"},   {118, "no-versions-to-label"},
        {1098, "status"},
    };
    for (const auto& [id, name] : rows) {
        const XmlTag* const tag = XmlTag::lookup(id);
        EXPECT_EQ(tag->simple_name(), ustr(name));
        EXPECT_EQ(tag->ns_id(), -1);
        EXPECT_TRUE(tag->ns().empty());
        EXPECT_FALSE(tag->is_well_known_namespace());
        for (XmlTag::NsId nsid = 0; nsid < 21; ++nsid) {
            EXPECT_NE(XmlTag::lookup(nsid, ustr(name)), tag);
            EXPECT_NE(XmlTag::lookup(nsid, UString()), XmlTag::lookup(0));
        }
    }
}

// ---- The constants

/// The rule for a constant's name, applied to a row.
std::string constant_of(const tag_row_t& row)
{
    if (row.id == 0)
        return "NIL_TAG";
    std::string prefix;
    for (const char c : row.abbreviation)
        prefix += c == ':' ? '\0' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    prefix.erase(std::remove(prefix.begin(), prefix.end(), '\0'), prefix.end());
    prefix += '_';
    std::string name;
    for (const char c : row.name) {
        const auto byte = static_cast<unsigned char>(c);
        name += std::isalnum(byte) ? static_cast<char>(std::toupper(byte)) : '_';
    }
    return name.compare(0, prefix.size(), prefix) == 0 ? name : prefix + name;
}

struct constant_t {
    std::string name;
    const XmlTag* tag;
    XmlTag::Id id;
};

const constant_t CONSTANTS[] = {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name)                                            \
    {#constant, &Kvl::WkTag::constant, Kvl::WkTagId::constant},
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
};

TEST(WellKnownTags, AreNamedByTheirRow)
{
    ASSERT_EQ(std::size(CONSTANTS), table().size());
    for (std::size_t i = 0; i < std::size(CONSTANTS); ++i) {
        ASSERT_EQ(CONSTANTS[i].name, constant_of(table()[i]));
        ASSERT_EQ(CONSTANTS[i].id, table()[i].id);
        ASSERT_EQ(CONSTANTS[i].tag, XmlTag::lookup(table()[i].id));
    }
    EXPECT_EQ(&Kvl::WkTag::ACL_CONTROLLED_RESOURCE, XmlTag::lookup(2));
    EXPECT_EQ(&Kvl::WkTag::ACL_ENTRY, XmlTag::lookup(3));
    EXPECT_EQ(&Kvl::WkTag::NULL_STATUS, XmlTag::lookup(1098));
}

// ---- Differential: the compiled table against the sorted lists, on names that nearly match

std::vector<UString> near_misses(const UString& name)
{
    std::vector<UString> result;
    for (unsigned int i = 0; i < name.length(); ++i) {
        UString changed = name;
        changed.set_at(i, static_cast<unsigned short>(name[i] ^ 1));
        result.push_back(changed);
        changed.set_at(i, static_cast<unsigned short>(name[i] | 0x100));
        result.push_back(changed);
        UString shorter = name;
        result.push_back(shorter.erase(i, 1));
        UString longer = name;
        result.push_back(longer.insert(i, name[i]));
    }
    return result;
}

TEST(WellKnownTags, AreFoundWhereTheSortedListHasThemAndNowhereElse)
{
    for (const tag_row_t& row : table())
        for (XmlTag::NsId nsid = 0; nsid < 21; ++nsid) {
            const UString name = ustr(row.name);
            const XmlTag* const expected = find_in_sorted_list(nsid, name);
            const XmlTag* const found = XmlTag::lookup(nsid, name);
            if (expected != nullptr)
                ASSERT_EQ(found, expected);
            else
                ASSERT_GE(found->id(), 1155);
        }
}

TEST(WellKnownTags, AreNotFoundByNamesThatNearlyMatch)
{
    for (const tag_row_t& row : table()) {
        const XmlTag::NsId nsid = nsid_of(row);
        if (nsid < 0)
            continue;
        for (const UString& name : near_misses(ustr(row.name))) {
            const XmlTag* const expected = find_in_sorted_list(nsid, name);
            const XmlTag* const found = XmlTag::lookup(nsid, name);
            if (expected != nullptr)
                ASSERT_EQ(found, expected);
            else
                ASSERT_TRUE(found->id() >= 1155 && found->simple_name() == name);
        }
    }
}

}  // namespace
