#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

// Registration while libraries are loaded: a program of its own, because it uses up fixed numbers.

namespace {

using Kvl::UString;
using Kvl::XmlTag;

// A program adds its own well-known tags the way a library does: before main().
const XmlTag ADDED = Kvl::create(u"ACL:", u"acl-added", 174);
const XmlTag WITHOUT_NAMESPACE = Kvl::create(u"nowhere:", u"added-by-id", 176);
const XmlTag OPEN = Kvl::create(u"ATR:", u"open", 179);
const bool IS_SORTED = Kvl::sort_namespaces_sorted_wk_tag_vectors();

// The other spelling of 16-bit text.
const unsigned short OB[] = {'O', 'B', ':', 0};
const unsigned short TEXT[] = {'o', 'b', '-', 'a', 'd', 'd', 'e', 'd', 0};
const XmlTag FROM_UNITS = Kvl::create(OB, TEXT, 180);
const bool IS_SORTED_AGAIN = Kvl::sort_namespaces_sorted_wk_tag_vectors();

const char* const INTERNAL_ERROR =
    "PLXSV0653E Internal error: XmlTag::XmlTag(), at line: 703 in file: 'lib/kvutil/xmltag'";

template <class Operation>
std::string failure_of(Operation operation)
{
    try {
        operation();
    } catch (const Kvl::StateException& e) {
        EXPECT_EQ(e.stp_reason_code(), 39);
        return rendered(e);
    }
    return "no failure";
}

std::size_t num_wk_tags()
{
    std::size_t n = 0;
    for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
        n += ns->wk_tags.size();
    return n;
}

TEST(XmlTagCreate, RegistersTheObjectItConstructs)
{
    EXPECT_TRUE(IS_SORTED && IS_SORTED_AGAIN);
    EXPECT_EQ(XmlTag::lookup(174), &ADDED);
    EXPECT_EQ(ADDED.ns_id(), 0);
    EXPECT_EQ(ADDED.id(), 174);
    EXPECT_EQ(ADDED.simple_name(), ustr("acl-added"));
    EXPECT_EQ(XmlTag::lookup(180), &FROM_UNITS);
    EXPECT_EQ(FROM_UNITS.to_string(), ustr("http://kvutil.example.com/xmlns/TEAM/OB/ob-added"));
}

TEST(XmlTagCreate, MakesTheTagKnownByName)
{
    EXPECT_EQ(XmlTag::lookup(0, ustr("acl-added")), &ADDED);
    EXPECT_EQ(XmlTag::lookup(5, ustr("ob-added")), &FROM_UNITS);
    EXPECT_EQ(XmlTag::lookup(0, ustr("acl-entry")), XmlTag::lookup(3));
    EXPECT_THAT(XmlTag::g_namespace_array[0]->wk_tags, testing::Contains(&ADDED));
    EXPECT_GE(XmlTag::lookup(0, ustr("acl-adde"))->id(), 1155);
}

TEST(XmlTagCreate, WithAnUnknownAbbreviationMakesItKnownByIdOnly)
{
    EXPECT_EQ(XmlTag::lookup(176), &WITHOUT_NAMESPACE);
    EXPECT_EQ(WITHOUT_NAMESPACE.ns_id(), -1);
    for (XmlTag::NsId nsid = 0; nsid < 21; ++nsid)
        EXPECT_NE(XmlTag::lookup(nsid, ustr("added-by-id")), &WITHOUT_NAMESPACE);
}

// "ATR:" has no well-known names that are looked for, so its names are always the users'.
TEST(XmlTagCreate, InANamespaceOfOpenNamesMakesItKnownByIdOnly)
{
    EXPECT_EQ(XmlTag::lookup(179), &OPEN);
    EXPECT_GE(XmlTag::lookup(2, ustr("open"))->id(), 1155);
}

TEST(XmlTagCreate, RefusesAnIdThatIsTaken)
{
    const std::size_t before = num_wk_tags();
    for (const int id : {0, 3, 112, 174, 1154}) {
        const XmlTag* const holder = XmlTag::lookup(id);
        EXPECT_EQ(failure_of([=] { Kvl::create(u"ACL:", u"second", id); }), INTERNAL_ERROR);
        EXPECT_EQ(failure_of([=] { XmlTag(0, u"second", id); }), INTERNAL_ERROR);
        EXPECT_EQ(XmlTag::lookup(id), holder);
    }
    EXPECT_EQ(num_wk_tags(), before);
}

TEST(XmlTagCreate, RefusesNumbersOutOfRange)
{
    const std::size_t before = num_wk_tags();
    for (const int id : {-1, INT_MIN, 1155, INT_MAX})
        EXPECT_EQ(failure_of([=] { XmlTag(0, u"out-of-range", id); }), INTERNAL_ERROR) << id;
    for (const int nsid : {-2, INT_MIN, 21, INT_MAX})
        EXPECT_EQ(failure_of([=] { XmlTag(nsid, u"out-of-range", 917); }), INTERNAL_ERROR) << nsid;
    EXPECT_EQ(num_wk_tags(), before);
    EXPECT_THROW(XmlTag::lookup(917), Kvl::StateException);
}

TEST(XmlTagCreate, WithoutANameLeavesTheTagWithoutNamespace)
{
    static const XmlTag empty(0, u"", 1024);
    static const unsigned short* const no_text = nullptr;
    static const XmlTag null(0, no_text, 1025);
    static const XmlTag nowhere(-1, u"named", 1072);
    const XmlTag* const expected[] = {&empty, &null, &nowhere};
    const XmlTag::Id ids[] = {1024, 1025, 1072};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(XmlTag::lookup(ids[i]), expected[i]);
        EXPECT_EQ(expected[i]->ns_id(), -1);
    }
    EXPECT_EQ(nowhere.to_string(), ustr("/named"));
    EXPECT_TRUE(null.simple_name().empty());
}

// The tag is made where it stays, so that the run without a fault registers a lasting object.
TEST(XmlTagCreate, LeavesTheRegistryAsItWasWhenMemoryRunsOut)
{
    alignas(XmlTag) static unsigned char place[sizeof(XmlTag)];
    const std::size_t before = num_wk_tags();
    const int faults = for_each_memory_fault(
        [&] {
            new (place) XmlTag(9, u"a-name-that-is-too-long-to-stand-in-the-string-itself", 1073);
        },
        [&] {
            ASSERT_EQ(num_wk_tags(), before);
            ASSERT_THROW(XmlTag::lookup(1073), Kvl::StateException);
        });
    EXPECT_GE(faults, 2);  // the text and the namespace's list
    EXPECT_EQ(num_wk_tags(), before + 1);
    EXPECT_EQ(XmlTag::lookup(1073)->ns_id(), 9);
}

}  // namespace
