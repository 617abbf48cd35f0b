#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace {

using Kvl::UString;
using Kvl::XmlTag;

const std::string BASE = "http://kvutil.example.com/xmlns";

// What a program finds before its main(): the registry is complete, and nothing is registered at
// run time yet. Only here does the first Id that is given out have a known value.
struct first_use_t {
    std::string lookup_of_1155;
    XmlTag::Id next_id = XmlTag::g_num_defined_tags;
    std::size_t namespaces = XmlTag::g_sorted_namespace_vector->size();
    std::size_t runtime_namespaces = XmlTag::g_nsid_to_namespace_map->size();
    const XmlTag* well_known = XmlTag::lookup(0, ustr("acl-entry"));
    const XmlTag* by_id = XmlTag::lookup(3);
    const XmlTag* constant = &Kvl::WkTag::ACL_ENTRY;
    const XmlTag* first = nullptr;
    const XmlTag* second = nullptr;
    const XmlTag* first_again = nullptr;
    XmlTag::NsId first_namespace = 0;
    XmlTag::NsId second_namespace = 0;
    XmlTag::Id id_after_namespaces = 0;

    first_use_t()
    {
        try {
            XmlTag::lookup(1155);
        } catch (const Kvl::IllegalArgException& e) {
            lookup_of_1155 = rendered(e);
        }
        first = XmlTag::lookup(18, ustr("first-of-all"));
        second = XmlTag::lookup(2, ustr("second-of-all"));
        first_again = XmlTag::lookup(18, ustr("first-of-all"));
        first_namespace = XmlTag(ustr("urn:first"), ustr("a")).ns_id();
        second_namespace = XmlTag(ustr("urn:second"), ustr("a")).ns_id();
        XmlTag(ustr("urn:first"), ustr("b"));
        id_after_namespaces = XmlTag::g_num_defined_tags;
    }
};
const first_use_t FIRST_USE;

template <class Exception>
std::string failure_of(const std::function<void()>& operation)
{
    const XmlTag::Id ids = XmlTag::g_num_defined_tags;
    const std::size_t namespaces = XmlTag::g_sorted_namespace_vector->size();
    try {
        operation();
    } catch (const Exception& e) {
        EXPECT_EQ(typeid(e), typeid(Exception));
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_THAT(e.causes(), testing::IsEmpty());
        EXPECT_EQ(XmlTag::g_num_defined_tags, ids);
        EXPECT_EQ(XmlTag::g_sorted_namespace_vector->size(), namespaces);
        return rendered(e);
    }
    return "no failure";
}

const char* const ILLEGAL_ID = "PLXSV0655E XmlTag::lookup(): called with illegal id value.";
const char* const ILLEGAL_NS = "PLXSV0656E XmlTag::lookup(): called with illegal ns value.";

/// A local name that no test has used yet.
UString fresh_name()
{
    static int n = 0;
    return ustr("fresh-" + std::to_string(++n));
}

UString fresh_uri()
{
    static int n = 0;
    return ustr("urn:fresh:" + std::to_string(++n));
}

// ---- First use

TEST(XmlTagAtStart, HasTheWellKnownTagsOnly)
{
    EXPECT_EQ(FIRST_USE.next_id, 1155);
    EXPECT_EQ(FIRST_USE.lookup_of_1155, ILLEGAL_ID);
    EXPECT_EQ(FIRST_USE.namespaces, 21u);
    EXPECT_EQ(FIRST_USE.runtime_namespaces, 0u);
    EXPECT_EQ(FIRST_USE.well_known, FIRST_USE.by_id);
    EXPECT_EQ(FIRST_USE.constant, FIRST_USE.by_id);
    EXPECT_EQ(FIRST_USE.by_id->id(), 3);
}

TEST(XmlTagAtStart, NumbersRunTimeTagsFrom1155)
{
    EXPECT_EQ(FIRST_USE.first->id(), 1155);
    EXPECT_EQ(FIRST_USE.second->id(), 1156);
    EXPECT_EQ(FIRST_USE.first_again, FIRST_USE.first);
    EXPECT_EQ(FIRST_USE.id_after_namespaces, 1157);
}

TEST(XmlTagAtStart, NumbersRunTimeNamespacesFrom21)
{
    EXPECT_EQ(FIRST_USE.first_namespace, 21);
    EXPECT_EQ(FIRST_USE.second_namespace, 22);
    EXPECT_EQ(XmlTag::ns_URI(21), ustr("urn:first"));
    EXPECT_EQ(XmlTag::ns_URI(22), ustr("urn:second"));
}

// ---- The constants and records of the interface

TEST(XmlTagInterface, HasItsFixedNumbers)
{
    EXPECT_EQ(XmlTag::START_TAG, 0);
    EXPECT_EQ(XmlTag::END_TAG, 1);
    EXPECT_EQ(XmlTag::EMPTY_TAG, 2);
    EXPECT_EQ(XmlTag::NUM_WK_IDS, 1155);
    EXPECT_EQ(XmlTag::NUM_WK_NAMESPACES, 21);
    EXPECT_TRUE(XmlTag::EMPTY_NS_PREFIX.empty());
    static_assert(std::is_same_v<XmlTag::Id, int> && std::is_same_v<XmlTag::NsId, int>);
    static_assert(XmlTag::Format{-1} < 0);  // any int is a value of it
    static_assert(std::is_nothrow_move_constructible_v<XmlTag>);
    static_assert(std::is_nothrow_move_assignable_v<XmlTag>);
}

TEST(XmlTagInterface, BuildsTheNamespacesOnce)
{
    const std::size_t namespaces = XmlTag::g_sorted_namespace_vector->size();
    EXPECT_EQ(XmlTag::create_wk_namespaces(), XmlTag::g_sorted_namespace_vector);
    EXPECT_EQ(XmlTag::g_sorted_namespace_vector->size(), namespaces);
}

TEST(XmlTagInterface, OrdersNamespacesByUri)
{
    const UString uri_a = ustr("urn:a");
    const UString uri_b = ustr("urn:b");
    const XmlTag::Namespace a(uri_a, 5, false, true);
    const XmlTag::Namespace b(uri_b, 4, true, false);
    EXPECT_EQ(&a.uri, &uri_a);
    EXPECT_EQ(a.id, 5);
    EXPECT_FALSE(a.has_wk_tags);
    EXPECT_TRUE(a.open_names);
    EXPECT_TRUE(a.tags.empty());
    EXPECT_TRUE(a.wk_tags.empty());
    const XmlTag::CompareNamespacePtr less;
    EXPECT_TRUE(less(&a, &b));
    EXPECT_FALSE(less(&b, &a));
    EXPECT_FALSE(less(&a, &a));
    EXPECT_TRUE(less(&a, uri_b));
    EXPECT_FALSE(less(&a, uri_a));
    EXPECT_TRUE(less(uri_a, &b));
    EXPECT_FALSE(less(uri_b, &b));
}

TEST(XmlTagInterface, OrdersTagsBySimpleName)
{
    const XmlTag* const entry = XmlTag::lookup(3);      // acl-entry
    const XmlTag* const resource = XmlTag::lookup(17);  // resource
    const Kvl::XmlTagImpl::CompareXmlTagSimpleName less;
    EXPECT_TRUE(less(entry, resource));
    EXPECT_FALSE(less(resource, entry));
    EXPECT_FALSE(less(entry, entry));
    EXPECT_TRUE(less(entry, ustr("acl-entrz")));
    EXPECT_FALSE(less(entry, ustr("acl-entry")));
    EXPECT_TRUE(less(ustr("a"), entry));
    EXPECT_FALSE(less(ustr("acl-entry"), entry));
}

// ---- By Id

TEST(XmlTagLookupById, GivesTheNilTagFor0)
{
    const XmlTag* const nil = XmlTag::lookup(0);
    EXPECT_EQ(nil, &Kvl::WkTag::NIL_TAG);
    EXPECT_EQ(nil->id(), 0);
    EXPECT_EQ(nil->ns_id(), -1);
    EXPECT_TRUE(nil->ns().empty());
    EXPECT_TRUE(nil->simple_name().empty());
    EXPECT_FALSE(nil->is_well_known_namespace());
    EXPECT_EQ(nil->to_string(), ustr("<nil-tag>"));
}

TEST(XmlTagLookupById, SharesOneEmptyUriBetweenTagsWithoutNamespace)
{
    EXPECT_EQ(&XmlTag::lookup(0)->ns(), &XmlTag::lookup(112)->ns());
}

TEST(XmlTagLookupById, RejectsIdsThatWereNeverAssigned)
{
    for (const int id :
         {-1, -1155, INT_MIN, XmlTag::g_num_defined_tags, XmlTag::g_num_defined_tags + 1, INT_MAX})
        EXPECT_EQ(failure_of<Kvl::IllegalArgException>([=] { XmlTag::lookup(id); }), ILLEGAL_ID)
            << id;
}

TEST(XmlTagLookupById, ReportsAFixedNumberWithoutTagAsInternalError)
{
    EXPECT_EQ(failure_of<Kvl::StateException>([] { XmlTag::lookup(174); }),
              "PLXSV0653E Internal error: XmlTag::lookup(), at line: 502 in file: "
              "'lib/kvutil/xmltag'");
}

TEST(XmlTagLookupById, GivesRunTimeTagsAcrossChunks)
{
    std::vector<const XmlTag*> tags;
    for (int i = 0; i < 1000; ++i)
        tags.push_back(XmlTag::lookup(8, fresh_name()));
    const XmlTag::Id first = tags.front()->id();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(XmlTag::lookup(first + i), tags[static_cast<std::size_t>(i)]);
}

// ---- By name

TEST(XmlTagLookupByName, GivesTheWellKnownObject)
{
    EXPECT_EQ(XmlTag::lookup(0, ustr("acl-entry")), XmlTag::lookup(3));
    EXPECT_EQ(XmlTag::lookup(6, ustr("needs-merge-from-latest")), XmlTag::lookup(1154));
}

TEST(XmlTagLookupByName, KeepsEqualNamesOfNamespacesApart)
{
    EXPECT_EQ(XmlTag::lookup(6, ustr("dbid"))->id(), 386);
    EXPECT_EQ(XmlTag::lookup(17, ustr("dbid"))->id(), 385);
    const UString name = fresh_name();
    const XmlTag* const in_attributes = XmlTag::lookup(2, name);
    const XmlTag* const in_fields = XmlTag::lookup(8, name);
    EXPECT_NE(in_attributes, in_fields);
    EXPECT_NE(in_attributes->id(), in_fields->id());
}

TEST(XmlTagLookupByName, LeavesTheIdOfAnArgumentThatWasKnown)
{
    XmlTag well_known(ustr(BASE + "/TEAM/ACL"), ustr("acl-entry"));
    EXPECT_EQ(XmlTag::lookup(well_known), XmlTag::lookup(3));
    EXPECT_EQ(well_known.id(), 0);

    const UString name = fresh_name();
    const XmlTag* const registered = XmlTag::lookup(18, name);
    XmlTag run_time(ustr(BASE + "/TEAM"), name);
    EXPECT_EQ(XmlTag::lookup(run_time), registered);
    EXPECT_EQ(run_time.id(), 0);
}

TEST(XmlTagLookupByName, WritesTheNewIdIntoTheArgument)
{
    XmlTag tag(fresh_uri(), ustr("new"));
    const XmlTag::Id next = XmlTag::g_num_defined_tags;
    const XmlTag* const registered = XmlTag::lookup(tag);
    EXPECT_EQ(tag.id(), next);
    EXPECT_EQ(registered->id(), next);
    EXPECT_NE(registered, &tag);
    EXPECT_EQ(XmlTag::g_num_defined_tags, next + 1);
    EXPECT_EQ(XmlTag::lookup(tag), registered);
    EXPECT_EQ(XmlTag::g_num_defined_tags, next + 1);
}

TEST(XmlTagLookupByName, FindsRegisteredTagsByNumberOfARunTimeNamespace)
{
    XmlTag tag(fresh_uri(), ustr("x"));
    const XmlTag* const registered = XmlTag::lookup(tag);
    EXPECT_EQ(XmlTag::lookup(tag.ns_id(), ustr("x")), registered);
    EXPECT_NE(XmlTag::lookup(tag.ns_id(), ustr("y")), registered);
}

TEST(XmlTagLookupByName, RegistersUnknownNamesInTheirNamespacesMap)
{
    for (const XmlTag::NsId nsid : {0, 2, 8, 11, 18, 21}) {
        const UString name = fresh_name();
        XmlTag::Namespace& ns =
            nsid < 21 ? *XmlTag::g_namespace_array[nsid] : *XmlTag::g_nsid_to_namespace_map->at(0);
        const std::size_t wk_tags = ns.wk_tags.size();
        const std::size_t tags = ns.tags.size();
        const XmlTag* const tag = XmlTag::lookup(nsid, name);
        EXPECT_GE(tag->id(), 1155);
        EXPECT_EQ(tag->ns_id(), nsid);
        EXPECT_EQ(&tag->ns(), &ns.uri);
        EXPECT_EQ(tag->simple_name(), name);
        EXPECT_EQ(ns.wk_tags.size(), wk_tags);
        EXPECT_EQ(ns.tags.size(), tags + 1);
        EXPECT_EQ(ns.tags.at(name), tag);
    }
}

TEST(XmlTagLookupByName, TakesAnyUnitsAsAName)
{
    const UString names[] = {
        UString(),
        UString(std::u16string(1, u'\0')),
        UString(std::u16string(2, u'\0')),
        UString(std::u16string(u"a\0b", 3)),
        UString(std::u16string(1, char16_t(0xD800))),
        UString(std::u16string(5000, u'n')),
        UString(std::u16string(5001, u'n')),
    };
    std::vector<const XmlTag*> tags;
    for (const UString& name : names) {
        const XmlTag* const tag = XmlTag::lookup(2, name);
        EXPECT_EQ(units_of(tag->simple_name()), units_of(name));
        EXPECT_EQ(XmlTag::lookup(2, name), tag);
        EXPECT_THAT(tags, testing::Not(testing::Contains(tag)));
        tags.push_back(tag);
    }
}

TEST(XmlTagLookupByName, TakesABogusNameAsTheEmptyOne)
{
    UString bogus;
    bogus.setToBogus();
    EXPECT_EQ(XmlTag::lookup(2, bogus), XmlTag::lookup(2, UString()));
    const XmlTag tag(bogus, bogus);
    EXPECT_EQ(tag, XmlTag(UString(), UString()));
    EXPECT_FALSE(tag.simple_name().isBogus());
    XmlTag argument(tag);
    EXPECT_EQ(*XmlTag::lookup(argument), tag);
}

TEST(XmlTagLookupByName, IsCaseSensitive)
{
    EXPECT_NE(XmlTag::lookup(0, ustr("ACL-ENTRY")), XmlTag::lookup(3));
}

TEST(XmlTagLookupByName, RejectsNumbersWithoutNamespace)
{
    const auto next = static_cast<XmlTag::NsId>(XmlTag::g_sorted_namespace_vector->size());
    for (const int nsid : {-1, -21, INT_MIN, next, next + 1, INT_MAX})
        EXPECT_EQ(failure_of<Kvl::IllegalArgException>([=] { XmlTag::lookup(nsid, ustr("a")); }),
                  ILLEGAL_NS)
            << nsid;
}

TEST(XmlTagLookupByName, RejectsATagWithoutNamespace)
{
    for (const XmlTag::Id id : {0, 112, 1098}) {
        XmlTag copy = *XmlTag::lookup(id);
        EXPECT_EQ(failure_of<Kvl::IllegalArgException>([&] { XmlTag::lookup(copy); }), ILLEGAL_NS);
        EXPECT_EQ(copy.id(), id);
    }
}

// The list must not disturb what the tags' own strings share.
TEST(XmlTagLookupByName, KeepsTheNameWhateverBecomesOfTheArgument)
{
    auto name = std::make_unique<UString>(std::u16string(200, u'k'));
    const XmlTag* const tag = XmlTag::lookup(2, *name);
    name->set_at(0, u'x');
    name.reset();
    EXPECT_EQ(units_of(tag->simple_name()), std::u16string(200, u'k'));
}

// ---- Namespaces

TEST(XmlTagNamespace, OfAWellKnownUriIsTheWellKnownOne)
{
    const XmlTag tag(ustr(BASE + "/TEAM/CTG"), ustr("any"));
    EXPECT_EQ(tag.ns_id(), 6);
    EXPECT_TRUE(tag.is_well_known_namespace());
    EXPECT_EQ(&tag.ns(), &XmlTag::g_namespace_array[6]->uri);
    EXPECT_EQ(tag.id(), 0);
}

TEST(XmlTagNamespace, IsCreatedOncePerUri)
{
    const UString uri = fresh_uri();
    const std::size_t before = XmlTag::g_sorted_namespace_vector->size();
    const XmlTag tag(uri, ustr("a"));
    const XmlTag other(uri, ustr("b"));
    EXPECT_EQ(tag.ns_id(), static_cast<XmlTag::NsId>(before));
    EXPECT_EQ(other.ns_id(), tag.ns_id());
    EXPECT_EQ(&other.ns(), &tag.ns());
    EXPECT_EQ(XmlTag::g_sorted_namespace_vector->size(), before + 1);
    EXPECT_FALSE(tag.is_well_known_namespace());
    EXPECT_FALSE(XmlTag::is_well_known_namespace(uri));
    EXPECT_EQ(XmlTag::ns_URI(tag.ns_id()), uri);
}

TEST(XmlTagNamespace, IsRecordedWithItsFlags)
{
    const XmlTag tag(fresh_uri(), ustr("a"));
    const XmlTag::Namespace* const ns = XmlTag::g_nsid_to_namespace_map->back();
    EXPECT_EQ(ns->id, tag.ns_id());
    EXPECT_EQ(&ns->uri, &tag.ns());
    EXPECT_FALSE(ns->has_wk_tags);
    EXPECT_FALSE(ns->open_names);
    EXPECT_TRUE(ns->tags.empty());
    EXPECT_TRUE(ns->wk_tags.empty());
}

TEST(XmlTagNamespace, StandsInTheSortedListAndInTheListByNumber)
{
    for (const char* uri : {"urn:zzz", "", "a", "urn:mmm", "\xC3\xA9"})
        XmlTag(ustr(uri), UString());
    const auto& sorted = *XmlTag::g_sorted_namespace_vector;
    EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end(), XmlTag::CompareNamespacePtr()));
    const auto& by_number = *XmlTag::g_nsid_to_namespace_map;
    ASSERT_EQ(sorted.size(), 21 + by_number.size());
    for (std::size_t k = 0; k < by_number.size(); ++k)
        EXPECT_EQ(by_number[k]->id, static_cast<XmlTag::NsId>(21 + k));
    for (const XmlTag::Namespace* const ns : XmlTag::g_namespace_array)
        EXPECT_THAT(sorted, testing::Contains(ns));
}

TEST(XmlTagNamespace, MayHaveTheEmptyUri)
{
    const XmlTag tag(UString(), ustr("a"));
    EXPECT_GE(tag.ns_id(), 21);
    EXPECT_TRUE(tag.ns().empty());
    EXPECT_EQ(XmlTag(UString(), ustr("b")).ns_id(), tag.ns_id());
    EXPECT_FALSE(XmlTag::is_well_known_namespace(UString()));
}

TEST(XmlTagNamespace, UriIsComparedExactly)
{
    for (const std::string& uri : {BASE, BASE + "/", BASE + "/TEAM/", BASE + "/team",
                                   BASE + "/TEAM/AC", BASE + "/TEAM/ACL/", "/TEAM/ACL" + BASE}) {
        EXPECT_FALSE(XmlTag::is_well_known_namespace(ustr(uri))) << uri;
        EXPECT_GE(XmlTag(ustr(uri), ustr("a")).ns_id(), 21) << uri;
    }
}

TEST(XmlTagNamespace, ManyAreFoundByUriAndByNumber)
{
    std::vector<XmlTag::NsId> ids;
    for (int i = 0; i < 2000; ++i)
        ids.push_back(XmlTag(ustr("urn:many:" + std::to_string(i)), UString()).ns_id());
    for (int i = 0; i < 2000; ++i) {
        const UString uri = ustr("urn:many:" + std::to_string(i));
        ASSERT_EQ(ids[static_cast<std::size_t>(i)], ids[0] + i);
        ASSERT_EQ(XmlTag(uri, UString()).ns_id(), ids[0] + i);
        ASSERT_EQ(XmlTag::ns_URI(ids[0] + i), uri);
    }
}

TEST(XmlTagNamespace, IsAnotherOneWithAnyOtherUnit)
{
    const UString known = XmlTag::ns_URI(2);
    EXPECT_TRUE(XmlTag::is_well_known_namespace(known));
    for (unsigned int i = 0; i < known.length(); ++i) {
        std::u16string other(known.getBuffer(), known.length());
        other[i] = u'~';
        EXPECT_FALSE(XmlTag::is_well_known_namespace(UString(other))) << i;
    }
}

TEST(XmlTagNamespace, HasAnAbbreviationOnlyWhenWellKnown)
{
    EXPECT_EQ(XmlTag::ns_abbreviation(0), ustr("ACL:"));
    EXPECT_EQ(XmlTag::ns_abbreviation(20), ustr("VENDOR:"));
    for (const int nsid : {-1, 21, 22, INT_MIN, INT_MAX})
        EXPECT_EQ(failure_of<Kvl::IllegalArgException>([=] { XmlTag::ns_abbreviation(nsid); }),
                  "PLXSV0654E XmlTag::ns_abbreviation(): called with illegal value.")
            << nsid;
}

TEST(XmlTagNamespace, UriOfAnUnknownNumberIsRejected)
{
    const auto next = static_cast<XmlTag::NsId>(XmlTag::g_sorted_namespace_vector->size());
    for (const int nsid : {-1, INT_MIN, next, INT_MAX})
        EXPECT_EQ(failure_of<Kvl::IllegalArgException>([=] { XmlTag::ns_URI(nsid); }),
                  "PLXSV0654E XmlTag::ns_URI(): called with illegal value.")
            << nsid;
}

TEST(XmlTagNamespace, IsFoundByItsExactAbbreviation)
{
    EXPECT_EQ(XmlTag::ns_lookup_abbreviation(ustr("ACL:")), 0);
    for (const char* other : {"ACL", "acl:", "ACL: ", " ACL:", ":", "", "null", "ACL:ACT:"})
        EXPECT_EQ(XmlTag::ns_lookup_abbreviation(ustr(other)), -1) << other;
}

// ---- Text forms

TEST(XmlTagToString, GivesUriSlashName)
{
    EXPECT_EQ(XmlTag::lookup(3)->to_string(), ustr(BASE + "/TEAM/ACL/acl-entry"));
    XmlTag tag(ustr("urn:t"), ustr("n"));
    EXPECT_EQ(tag.to_string(), ustr("<nil-tag>"));
    EXPECT_EQ(XmlTag::lookup(tag)->to_string(), ustr("urn:t/n"));
    EXPECT_EQ(tag.to_string(), ustr("urn:t/n"));
}

TEST(XmlTagToString, OfATagWithAnIdButNoNamespaceBeginsWithTheSlash)
{
    EXPECT_EQ(XmlTag::lookup(112)->to_string(), ustr("/is-vob-root"));
}

TEST(XmlTagFormat, HasThreeFormsWithAndWithoutPrefix)
{
    const XmlTag& tag = *XmlTag::lookup(3);
    const std::string u = BASE + "/TEAM/ACL";
    const UString a = ustr("A");
    EXPECT_EQ(tag.format(XmlTag::START_TAG, a), ustr("<A:acl-entry>"));
    EXPECT_EQ(tag.format(XmlTag::END_TAG, a), ustr("</A:acl-entry>"));
    EXPECT_EQ(tag.format(XmlTag::EMPTY_TAG, a), ustr("<A:acl-entry/>"));
    EXPECT_EQ(tag.format(XmlTag::START_TAG), ustr("<acl-entry xmlns=\"" + u + "\">"));
    EXPECT_EQ(tag.format(XmlTag::END_TAG), ustr("</acl-entry>"));
    EXPECT_EQ(tag.format(XmlTag::EMPTY_TAG, XmlTag::EMPTY_NS_PREFIX),
              ustr("<acl-entry xmlns=\"" + u + "\"/>"));
}

TEST(XmlTagFormat, UsesThePrefixAsItIs)
{
    EXPECT_EQ(XmlTag::lookup(3)->format(XmlTag::START_TAG, XmlTag::ns_abbreviation(0)),
              ustr("<ACL::acl-entry>"));
}

TEST(XmlTagFormat, WritesAnEmptyXmlnsForATagWithoutNamespace)
{
    EXPECT_EQ(XmlTag::lookup(1098)->format(XmlTag::START_TAG), ustr("<status xmlns=\"\">"));
    EXPECT_EQ(XmlTag::lookup(1098)->format(XmlTag::END_TAG), ustr("</status>"));
    EXPECT_EQ(XmlTag::lookup(0)->format(XmlTag::EMPTY_TAG), ustr("< xmlns=\"\"/>"));
}

TEST(XmlTagFormat, ById)
{
    EXPECT_EQ(XmlTag::format(XmlTag::END_TAG, 3), ustr("</acl-entry>"));
    EXPECT_EQ(XmlTag::format(XmlTag::EMPTY_TAG, 3, ustr("p")), ustr("<p:acl-entry/>"));
    const XmlTag* const run_time = XmlTag::lookup(2, ustr("by-id"));
    EXPECT_EQ(XmlTag::format(XmlTag::START_TAG, run_time->id(), ustr("p")), ustr("<p:by-id>"));
    EXPECT_EQ(failure_of<Kvl::IllegalArgException>([] { XmlTag::format(XmlTag::END_TAG, -1); }),
              ILLEGAL_ID);
}

// The exact length is reserved, so however long the parts are, one allocation does: it is the
// result's own.
TEST(XmlTagFormat, AllocatesOnce)
{
    const std::u16string name(300, u'n');
    const XmlTag tag(UString(std::u16string(400, u'u')), UString(name));
    for (const XmlTag::Format f : {XmlTag::START_TAG, XmlTag::END_TAG, XmlTag::EMPTY_TAG})
        for (const UString& prefix : {UString(), UString(std::u16string(500, u'p'))}) {
            const unsigned long before = allocations_of_this_thread();
            const UString text = tag.format(f, prefix);
            EXPECT_EQ(allocations_of_this_thread() - before, 1u);
            EXPECT_GE(text.capacity(), text.length());
        }
}

// ---- Comparison and copies

TEST(XmlTagComparison, IgnoresIds)
{
    XmlTag registered(ustr("urn:c"), ustr("same"));
    const XmlTag* const other = XmlTag::lookup(registered);
    const XmlTag fresh(ustr("urn:c"), ustr("same"));
    EXPECT_NE(fresh.id(), other->id());
    EXPECT_TRUE(fresh == *other);
    EXPECT_FALSE(fresh != *other);
    EXPECT_FALSE(fresh < *other);
    EXPECT_FALSE(*other < fresh);
    EXPECT_TRUE(fresh == fresh);
    EXPECT_FALSE(fresh < fresh);
}

TEST(XmlTagComparison, OrdersByNamespaceAddressThenName)
{
    std::vector<XmlTag> tags;
    for (const char* uri : {"urn:o1", "urn:o2", "urn:o3"})
        for (const char* name : {"b", "", "a"})
            tags.emplace_back(ustr(uri), ustr(name));
    tags.push_back(*XmlTag::lookup(112));
    const auto namespace_of = [](const XmlTag& tag) -> const XmlTag::Namespace* {
        return tag.ns_id() < 0 ? nullptr
                               : XmlTag::g_nsid_to_namespace_map->at(
                                     static_cast<std::size_t>(tag.ns_id() - 21));
    };
    for (const XmlTag& a : tags)
        for (const XmlTag& b : tags) {
            const bool same_namespace = namespace_of(a) == namespace_of(b);
            const bool less = same_namespace ? a.simple_name() < b.simple_name()
                                             : std::less<>()(namespace_of(a), namespace_of(b));
            EXPECT_EQ(a < b, less);
            EXPECT_EQ(a == b, same_namespace && a.simple_name() == b.simple_name());
            EXPECT_EQ(a != b, !(a == b));
        }
}

constexpr bool reads_never_throw(const XmlTag& a, const XmlTag& b, const UString& text)
{
    return noexcept(a.ns())&& noexcept(a.ns_id())&& noexcept(a.simple_name())&& noexcept(a.id())&& noexcept(a.is_well_known_namespace())&& noexcept(
        a <
        b)&& noexcept(a ==
                      b)&& noexcept(a !=
                                    b)&& noexcept(XmlTag::
                                                      is_well_known_namespace(
                                                          text))&& noexcept(XmlTag::
                                                                                ns_lookup_abbreviation(
                                                                                    text));
}

TEST(XmlTagComparison, AndReadingNeverThrow)
{
    const XmlTag& tag = *XmlTag::lookup(3);
    EXPECT_TRUE(reads_never_throw(tag, tag, tag.ns()));
}

TEST(XmlTagCopy, OwnsItsName)
{
    for (const XmlTag* const source : {XmlTag::lookup(3), XmlTag::lookup(2, ustr("copied"))}) {
        const XmlTag copy = *source;
        EXPECT_TRUE(copy == *source);
        EXPECT_EQ(copy.id(), source->id());
        EXPECT_EQ(&copy.ns(), &source->ns());
        EXPECT_NE(copy.simple_name().c_str(), source->simple_name().c_str());
        const UString name = source->simple_name();
        EXPECT_NE(name.c_str(), source->simple_name().c_str());
    }
}

TEST(XmlTagCopy, IsAssignedAndMoved)
{
    XmlTag tag(ustr("urn:m"), ustr("one"));
    const XmlTag other(ustr("urn:n"), ustr("two"));
    tag = other;
    EXPECT_TRUE(tag == other);
    const XmlTag& self = tag;
    tag = self;
    EXPECT_TRUE(tag == other);
    XmlTag moved = std::move(tag);
    EXPECT_TRUE(moved == other);
    tag = std::move(moved);
    EXPECT_TRUE(tag == other);
}

TEST(XmlTagCopy, ThatFailsLeavesTheTargetAsItWas)
{
    XmlTag tag(ustr("urn:m"), ustr("one"));
    const XmlTag other(ustr("urn:n"), UString(std::u16string(300, u'n')));
    const XmlTag& registered = *XmlTag::lookup(2, UString(std::u16string(300, u'r')));
    const auto check = [&] {
        EXPECT_EQ(tag.ns(), ustr("urn:m"));
        EXPECT_EQ(tag.simple_name(), ustr("one"));
        EXPECT_EQ(tag.id(), 0);
    };
    EXPECT_GE(for_each_memory_fault([&] { tag = registered; }, check), 1);
    EXPECT_TRUE(tag == registered);
}

// ---- What is handed out is terminated, and reading it allocates nothing

TEST(XmlTagTexts, AreTerminatedWithoutAllocating)
{
    std::vector<const UString*> texts = {&XmlTag::EMPTY_NS_PREFIX, &XmlTag::lookup(0)->ns()};
    for (XmlTag::Id id : {0, 1, 3, 112, 1154}) {
        texts.push_back(&XmlTag::lookup(id)->simple_name());
        texts.push_back(&XmlTag::lookup(id)->ns());
    }
    for (XmlTag::NsId nsid = 0; nsid < 21; ++nsid) {
        texts.push_back(&XmlTag::ns_URI(nsid));
        texts.push_back(&XmlTag::ns_abbreviation(nsid));
    }
    for (std::size_t length = 0; length < 70; ++length) {
        const XmlTag tag(UString(std::u16string(length, u'u')), UString());
        texts.push_back(&tag.ns());
        texts.push_back(
            &XmlTag::lookup(tag.ns_id(), UString(std::u16string(length, u't')))->simple_name());
    }
    for (const UString* const text : texts) {
        const unsigned long before = allocations_of_this_thread();
        const unsigned short* const units = text->c_str();
        EXPECT_EQ(allocations_of_this_thread(), before);
        ASSERT_NE(units, nullptr);
        EXPECT_EQ(units[text->length()], 0);
    }
}

// A name may fill its storage to the last unit, so that there was no place for the terminator.
TEST(XmlTagTexts, OfTagsThatWereBuiltAndCopiedAreTerminatedToo)
{
    for (std::size_t length = 0; length < 70; ++length) {
        const XmlTag tag(ustr("urn:terminated"), UString(std::u16string(length, u't')));
        const XmlTag copy(tag);
        const unsigned long before = allocations_of_this_thread();
        EXPECT_EQ(tag.simple_name().c_str()[length], 0);
        EXPECT_EQ(copy.simple_name().c_str()[length], 0);
        EXPECT_EQ(allocations_of_this_thread(), before) << length;
    }
}

TEST(XmlTagLookup, OfWhatIsKnownAllocatesNothing)
{
    const UString well_known = ustr("acl-entry");
    const UString run_time = fresh_name();
    const UString uri = fresh_uri();
    XmlTag in_namespace(uri, run_time);
    const XmlTag::Id id = XmlTag::lookup(in_namespace)->id();
    XmlTag::lookup(0, run_time);
    const unsigned long before = allocations_of_this_thread();
    XmlTag::lookup(3);
    XmlTag::lookup(id);
    XmlTag::lookup(0, well_known);
    XmlTag::lookup(0, run_time);
    XmlTag::lookup(in_namespace.ns_id(), run_time);
    XmlTag::lookup(in_namespace);
    XmlTag::ns_URI(in_namespace.ns_id());
    XmlTag::is_well_known_namespace(uri);
    XmlTag::ns_lookup_abbreviation(well_known);
    const XmlTag tag(uri, well_known);
    EXPECT_EQ(allocations_of_this_thread(), before);
}

// ---- Memory faults

// Long enough a run to meet new chunks, larger indexes and larger lists.
TEST(XmlTagMemoryFault, RegistersATagWhollyOrNotAtAll)
{
    const XmlTag::Namespace& ns = *XmlTag::g_namespace_array[8];
    const XmlTag::Id first = XmlTag::g_num_defined_tags;
    int faults = 0;
    for (int i = 0; i < 400; ++i) {
        const UString name = ustr(i % 2 == 0 ? "0" : "z") + fresh_name();  // in no order
        const XmlTag::Id next = XmlTag::g_num_defined_tags;
        const std::size_t tags = ns.tags.size();
        XmlTag tag(ns.uri, name);
        const int n =
            for_each_memory_fault([&] { XmlTag::lookup(tag); },
                                  [&] {
                                      ASSERT_EQ(XmlTag::g_num_defined_tags, next);
                                      ASSERT_EQ(ns.tags.size(), tags);
                                      ASSERT_EQ(tag.id(), 0);
                                      ASSERT_THROW(XmlTag::lookup(next), Kvl::IllegalArgException);
                                  });
        ASSERT_GE(n, 1);  // the map's node at least
        faults += n;
        ASSERT_EQ(tag.id(), next);
        ASSERT_EQ(XmlTag::lookup(next), ns.tags.at(name));
        ASSERT_EQ(XmlTag::lookup(8, name)->id(), next);
    }
    EXPECT_EQ(XmlTag::g_num_defined_tags, first + 400);
    EXPECT_TRUE(std::is_sorted(ns.tags.begin(), ns.tags.end(), ns.tags.value_comp()));
    EXPECT_GT(faults, 400);  // some registrations had more to allocate
}

TEST(XmlTagLimits, ReportUsedUpIdsAsExhaustedMemory)
{
    const UString name = fresh_name();
    const XmlTag::Id next = std::exchange(XmlTag::g_num_defined_tags, INT_MAX);
    EXPECT_THROW(XmlTag::lookup(8, name), std::bad_alloc);
    EXPECT_EQ(std::exchange(XmlTag::g_num_defined_tags, next), INT_MAX);
    EXPECT_EQ(XmlTag::lookup(8, name)->id(), next);
}

TEST(XmlTagMemoryFault, CreatesANamespaceWhollyOrNotAtAll)
{
    int faults = 0;
    for (int i = 0; i < 200; ++i) {
        // So long that new memory is needed every few times, whatever other tests have left over.
        const UString uri = fresh_uri() + UString(std::u16string(2000, u'u'));
        const std::size_t sorted = XmlTag::g_sorted_namespace_vector->size();
        const std::size_t by_number = XmlTag::g_nsid_to_namespace_map->size();
        const auto next = static_cast<XmlTag::NsId>(sorted);
        const int n =
            for_each_memory_fault([&] { XmlTag(uri, UString()); },
                                  [&] {
                                      ASSERT_EQ(XmlTag::g_sorted_namespace_vector->size(), sorted);
                                      ASSERT_EQ(XmlTag::g_nsid_to_namespace_map->size(), by_number);
                                      ASSERT_THROW(XmlTag::ns_URI(next), Kvl::IllegalArgException);
                                  });
        ASSERT_GE(n, 0);
        faults += n;
        ASSERT_EQ(XmlTag::ns_URI(next), uri);
        ASSERT_EQ(XmlTag(uri, UString()).ns_id(), next);
        ASSERT_EQ(XmlTag::g_sorted_namespace_vector->size(), sorted + 1);
    }
    EXPECT_GE(faults, 40);  // not for each: room for a few is made at once
}

TEST(XmlTagMemoryFault, ReachesTheCallerOfTheTextForms)
{
    const XmlTag& tag = *XmlTag::lookup(2, UString(std::u16string(300, u'f')));
    const auto nothing = [] {};
    EXPECT_GE(for_each_memory_fault([&] { tag.to_string(); }, nothing), 1);
    EXPECT_GE(for_each_memory_fault([&] { tag.format(XmlTag::START_TAG); }, nothing), 1);
}

// ---- Small stacks

TEST(XmlTagStack, Of128KiBIsEnough)
{
    const UString name(std::u16string(1'000'000, u'n'));
    const UString uri(std::u16string(1'000'000, u'u'));
    on_small_stack([&] {
        XmlTag tag(uri, name);
        const XmlTag* const registered = XmlTag::lookup(tag);
        EXPECT_EQ(XmlTag::lookup(tag.ns_id(), name), registered);
        EXPECT_EQ(registered->to_string().length(), 2'000'001u);
        EXPECT_EQ(registered->format(XmlTag::START_TAG).length(), 2'000'011u);
        EXPECT_TRUE(XmlTag(tag) == *registered);
        for (int i = 0; i < 10'000; ++i)
            XmlTag::lookup(2, fresh_name());
    });
}

// ---- IdToTagMap

TEST(XmlTagIdToTagMap, KeepsEntriesWhereTheyAre)
{
    Kvl::XmlTagImpl::IdToTagMap map;
    std::vector<const XmlTag**> entries;
    for (XmlTag::Id id = 1155; id < 1155 + 20000; ++id) {
        const XmlTag*& entry = map[id];
        ASSERT_EQ(entry, nullptr);
        entry = XmlTag::lookup(id % 100);
        entries.push_back(&entry);
    }
    for (XmlTag::Id id = 1155; id < 1155 + 20000; ++id) {
        ASSERT_EQ(&map[id], entries[static_cast<std::size_t>(id - 1155)]);
        ASSERT_EQ(map[id], XmlTag::lookup(id % 100));
    }
}

TEST(XmlTagIdToTagMap, HasChunksOf128AndAppendsOneAtATime)
{
    Kvl::XmlTagImpl::IdToTagMap map;
    const XmlTag*& first = map[1155 + 127];
    EXPECT_EQ(&first, &map[1155] + 127);
    const XmlTag*& far = map[1155 + 128 * 5 + 3];  // the next chunk, at the Id's place in it
    EXPECT_EQ(&far, &map[1155 + 128 + 3]);
}

TEST(XmlTagIdToTagMap, RejectsIdsBelowTheFirst)
{
    Kvl::XmlTagImpl::IdToTagMap map;
    EXPECT_EQ(failure_of<Kvl::IllegalArgException>([&] { map[1154]; }), ILLEGAL_ID);
    EXPECT_EQ(failure_of<Kvl::IllegalArgException>([&] { map[INT_MIN]; }), ILLEGAL_ID);
}

TEST(XmlTagIdToTagMap, IsUnchangedByAMemoryFault)
{
    Kvl::XmlTagImpl::IdToTagMap map;
    for (XmlTag::Id id = 1155; id < 1155 + 128 * 70; id += 128)
        EXPECT_GE(for_each_memory_fault([&] { map[id] = XmlTag::lookup(3); }, [] {}), 1);
    for (XmlTag::Id id = 1155; id < 1155 + 128 * 70; id += 128)
        EXPECT_EQ(map[id], XmlTag::lookup(3));
}

}  // namespace
