// The vocabulary of selectors, their values and their relatives. Parsing is in
// selector_parse_test.cpp, the text forms and segments in selector_text_test.cpp.

#include <kvutil/selector.h>

#include "support/memory_fault.h"
#include "support/selector_literal.h"
#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

namespace {

using Kvl::Selector;
using Kvl::UString;
using literal::fields;
using testing::ElementsAre;

static_assert(std::is_nothrow_move_constructible_v<Selector>);
static_assert(std::is_nothrow_move_assignable_v<Selector>);
static_assert(noexcept(std::declval<const Selector&>().is_nil()));
static_assert(noexcept(Selector::namespace_string(Selector::NS_FILE)));
static_assert(noexcept(Selector::provider_domain_string(Selector::PD_VD)));
static_assert(std::is_convertible_v<const UString&, Selector>, "a text can stand for a selector");

// ---- Vocabulary ----

struct namespace_row_t {
    int value;
    Selector::namespace_t enumerator;
    const char* text;
};

// The values are what other components store, so they are spelled out here once more.
const namespace_row_t NAMESPACES[] = {
    {0, Selector::NS_ACTION, "action"},
    {1, Selector::NS_ACTIVITY, "activity"},
    {2, Selector::NS_ATTYPE, "attype"},
    {3, Selector::NS_BASELINE, "baseline"},
    {4, Selector::NS_BRTYPE, "brtype"},
    {5, Selector::NS_COMPONENT, "component"},
    {6, Selector::NS_DBID, "dbid"},
    {7, Selector::NS_DBSET, "dbset"},
    {8, Selector::NS_DEFAULT, "DEFAULT"},
    {9, Selector::NS_DOMAINSERVER, "domainserver"},
    {10, Selector::NS_CHOICELIST, "choicelist"},  // out of alphabetical order
    {11, Selector::NS_ELTYPE, "eltype"},
    {12, Selector::NS_FAST, "fast"},
    {13, Selector::NS_FIELD, "field"},
    {14, Selector::NS_FILE, "file"},
    {15, Selector::NS_FOLDER, "folder"},
    {16, Selector::NS_FORM, "form"},
    {17, Selector::NS_GROUP, "group"},
    {18, Selector::NS_HLINK, "hlink"},
    {19, Selector::NS_HLTYPE, "hltype"},
    {20, Selector::NS_HOOK, "hook"},
    {21, Selector::NS_HTTP, "http"},
    {22, Selector::NS_HTTPS, "https"},
    {23, Selector::NS_INVALID, "INVALID"},
    {24, Selector::NS_LBTYPE, "lbtype"},
    {25, Selector::NS_LEGACYSERVER, "legacyserver"},
    {26, Selector::NS_NONE, "NONE"},
    {27, Selector::NS_OID, "oid"},  // out of alphabetical order
    {28, Selector::NS_PNAME, "pname"},
    {29, Selector::NS_IMPLICIT, "implicit"},  // out of alphabetical order
    {30, Selector::NS_POOL, "pool"},
    {31, Selector::NS_PROJECT, "project"},
    {32, Selector::NS_PROJCONFIG, "projconfig"},
    {33, Selector::NS_QUERY, "query"},
    {34, Selector::NS_RECORD, "record"},
    {35, Selector::NS_REGISTRYREGION, "registryregion"},
    {36, Selector::NS_REPLICA, "replica"},
    {37, Selector::NS_REPLICAUUID, "replicauuid"},
    {38, Selector::NS_REPO, "repo"},
    {39, Selector::NS_RPTYPE, "rptype"},
    {40, Selector::NS_STREAM, "stream"},
    {41, Selector::NS_TRTYPE, "trtype"},
    {42, Selector::NS_USER, "user"},
    {43, Selector::NS_USERDB, "userdb"},
    {44, Selector::NS_VIEWTAG, "viewtag"},
    {45, Selector::NS_VIEWUUID, "viewuuid"},
    {46, Selector::NS_VOB, "vob"},
    {47, Selector::NS_VOBTAG, "vobtag"},
    {48, Selector::NS_VOBTAGASDIRECTORY, "vobtagasdirectory"},
    {49, Selector::NS_WORKSPACE, "workspace"},
    {50, Selector::NS_BRANCH, "branch"},  // out of alphabetical order
    {51, Selector::NS_VOBUUID, "vobuuid"},
};

TEST(SelectorVocabulary, HasTheNamespacesWithTheirValues)
{
    ASSERT_EQ(std::size(NAMESPACES), 52u);
    for (const auto& row : NAMESPACES) {
        EXPECT_EQ(int{row.enumerator}, row.value) << row.text;
        EXPECT_EQ(Selector::namespace_string(row.enumerator), ustr(row.text));
    }
}

TEST(SelectorVocabulary, HasTheProviderDomainsWithTheirValues)
{
    EXPECT_EQ(Selector::provider_domain_string(Selector::provider_domain_t(0)), ustr("vd"));
    EXPECT_EQ(Selector::provider_domain_string(Selector::provider_domain_t(1)), ustr("ob"));
    EXPECT_EQ(Selector::provider_domain_string(Selector::provider_domain_t(2)), ustr("<invalid>"));
    EXPECT_EQ(Selector::provider_domain_string(Selector::provider_domain_t(3)), ustr(""));
    EXPECT_EQ(Selector::PD_VD, 0);
    EXPECT_EQ(Selector::PD_OB, 1);
    EXPECT_EQ(Selector::PD_INVALID, 2);
    EXPECT_EQ(Selector::PD_NONE, 3);
}

TEST(SelectorVocabulary, GivesTheEmptyTextForValuesThatDoNotExist)
{
    for (const int value : {-1, 52, 1000, -2147483647 - 1, 2147483647})
        EXPECT_TRUE(Selector::namespace_string(Selector::namespace_t(value)).empty()) << value;
    for (const int value : {-1, 4, 1000, -2147483647 - 1, 2147483647})
        EXPECT_TRUE(Selector::provider_domain_string(Selector::provider_domain_t(value)).empty());
}

TEST(SelectorVocabulary, HandsOutTheSameTextEachTime)
{
    EXPECT_EQ(&Selector::namespace_string(Selector::NS_FILE),
              &Selector::namespace_string(Selector::NS_FILE));
    EXPECT_EQ(&Selector::provider_domain_string(Selector::PD_OB),
              &Selector::provider_domain_string(Selector::PD_OB));
}

TEST(SelectorVocabulary, HasOneCharacterSeparators)
{
    EXPECT_EQ(Selector::NAMESPACE_FIELD_SEP, ustr(":"));
    EXPECT_EQ(Selector::DOMAIN_FIELD_SEP, ustr("."));
    EXPECT_EQ(Selector::REPO_FIELD_SEP, ustr("@"));
    EXPECT_EQ(Selector::SEGMENT_SEP, ustr("/"));
    EXPECT_EQ(Selector::OTHER_SEGMENT_SEP, ustr("\\"));
    EXPECT_EQ(Selector::ESCAPE_CHAR, ustr("%"));
}

TEST(SelectorVocabulary, EscapesFiveDelimitersAndNoDot)
{
    EXPECT_EQ(Selector::g_delimiters_length, 5);
    EXPECT_THAT(Selector::g_delimiters,
                ElementsAre(ustr("%"), ustr(":"), ustr("@"), ustr("/"), ustr("\\")));
}

// Texts that every thread reads must be terminated already: c_str() would write the terminator.
TEST(SelectorVocabulary, HandsOutTerminatedTexts)
{
    for (const auto& row : NAMESPACES) {
        const UString& text = Selector::namespace_string(row.enumerator);
        ASSERT_LT(text.length(), text.capacity());
        EXPECT_EQ(text.getBuffer()[text.length()], 0) << row.text;
    }
}

// ---- Values ----

TEST(SelectorValue, IsNilAtFirst)
{
    const Selector nil;
    EXPECT_EQ(nil.ns(), Selector::NS_NONE);
    EXPECT_EQ(nil.domain(), Selector::PD_NONE);
    EXPECT_EQ(nil.resource_type(), 0);
    EXPECT_TRUE(nil.name().empty());
    EXPECT_TRUE(nil.repository().empty());
    EXPECT_TRUE(nil.is_nil());
}

TEST(SelectorValue, IsNilOnlyWithoutAnyField)
{
    const auto none = Selector::NS_NONE;
    const auto no_domain = Selector::PD_NONE;
    EXPECT_TRUE(Selector(Selector::NS_DEFAULT, no_domain, 0, {}, {}).is_nil());
    EXPECT_FALSE(Selector(Selector::NS_INVALID, no_domain, 0, {}, {}).is_nil());
    EXPECT_FALSE(Selector(Selector::NS_FILE, no_domain, 0, {}, {}).is_nil());
    EXPECT_FALSE(Selector(none, Selector::PD_INVALID, 0, {}, {}).is_nil());
    EXPECT_FALSE(Selector(none, Selector::PD_VD, 0, {}, {}).is_nil());
    EXPECT_FALSE(Selector(none, no_domain, 1027, {}, {}).is_nil());
    EXPECT_FALSE(Selector(none, no_domain, 0, ustr("a"), {}).is_nil());
    EXPECT_FALSE(Selector(none, no_domain, 0, {}, ustr("/v")).is_nil());
}

TEST(SelectorValue, HoldsTheFieldsAsGiven)
{
    const Selector s(Selector::NS_VOB, Selector::PD_OB, 5000, ustr("/%x//"), ustr("@r"));
    EXPECT_EQ(s.ns(), Selector::NS_VOB);
    EXPECT_EQ(s.domain(), Selector::PD_OB);
    EXPECT_EQ(s.resource_type(), 5000);
    EXPECT_EQ(s.name(), ustr("/%x//"));
    EXPECT_EQ(s.repository(), ustr("@r"));
}

TEST(SelectorValue, IsCopiedWithItsCachedText)
{
    const Selector original(ustr("vd.file:/a@/v"));
    ASSERT_EQ(original.selector(), ustr("file:/a@vd./v"));
    const Selector copy(original);
    EXPECT_EQ(copy.to_string_with_domain(), ustr("file:/a@vd./v"));
    Selector assigned;
    assigned = original;
    EXPECT_EQ(assigned.to_string_with_domain(), ustr("file:/a@vd./v"));
    EXPECT_EQ(fields(assigned), fields(original));
}

TEST(SelectorValue, CanBeAssignedToItself)
{
    Selector s(ustr("vd.file:/a@/v"));
    const Selector& same = s;
    s = same;
    EXPECT_EQ(fields(s), fields(Selector(ustr("vd.file:/a@/v"))));
}

TEST(SelectorValue, StaysAsItWasWhenACopyFails)
{
    const std::string longer(100, 'x');
    const Selector source(ustr("vd.file:" + longer + "@/" + longer));
    const Selector before(ustr("ob.record:y" + longer + "@/r" + longer));
    Selector target(before);
    const auto check = [&] { ASSERT_EQ(fields(target), fields(before)); };
    // Copies may share their units, so that there may be nothing to fail.
    EXPECT_GE(for_each_memory_fault([&] { target = source; }, check), 0);
    EXPECT_EQ(fields(target), fields(source));
}

// ---- Child ----

Selector named(const std::string& name)
{
    return Selector(Selector::NS_FOLDER, Selector::PD_VD, 0, ustr(name), ustr("/vobs/p"));
}

struct child_row_t {
    std::string name, child, result;
};

TEST(SelectorChild, JoinsTheSegmentsOfBothNames)
{
    const child_row_t rows[] = {
        {"/src", "a.c", "src/a.c"},          // the leading separator goes
        {"/vobs//x/", "y/z", "vobs/x/y/z"},  // and so do doubled and trailing ones
        {"/vobs//x/", "", "vobs/x"},         // an empty child only normalises
        {"", "a", "a"},                      //
        {"", "", ""},                        //
        {"///", "//", ""},                   //
        {"a", "/b//c/", "a/b/c"},            //
        {"a%/b", "c%/d", "a%/b/c%/d"},       // escaped separators stay inside their segments
        {"%/x", "y", "%/x/y"},               // position 1 splits: "%" and "x", joined again
        {"a", "50%", "a/50%"},               // neither encoded
        {"a", "x%:y", "a/x%:y"},             // nor decoded
        {"a", "b\\c", "a/b\\c"},             // the other separator splits nothing
    };
    for (const auto& row : rows) {
        const Selector result = named(row.name).child(ustr(row.child));
        EXPECT_EQ(result.name(), ustr(row.result)) << row.name << " and " << row.child;
        EXPECT_EQ(result.ns(), Selector::NS_FOLDER);
        EXPECT_EQ(result.domain(), Selector::PD_VD);
        EXPECT_EQ(result.resource_type(), 0);
        EXPECT_EQ(result.repository(), ustr("/vobs/p"));
    }
}

TEST(SelectorChild, TakesTheNamespaceUnlessItIsNone)
{
    const Selector s = named("x");
    EXPECT_EQ(s.child(ustr("y"), Selector::namespace_t(26)).ns(), Selector::NS_FOLDER);
    EXPECT_EQ(s.child(ustr("y"), Selector::namespace_t(14)).ns(), Selector::NS_FILE);
    EXPECT_EQ(s.child(ustr("y"), Selector::NS_DEFAULT).ns(), Selector::NS_DEFAULT);
}

TEST(SelectorChild, KeepsTheResourceType)
{
    const Selector s(ustr("vd.repo.vob:x@/v"));
    EXPECT_EQ(s.child(ustr("y"), Selector::NS_FILE).resource_type(), 1027);
}

TEST(SelectorChild, HasItsOwnText)
{
    const Selector s = named("x");
    ASSERT_EQ(s.selector(), ustr("folder:x@vd./vobs/p"));
    EXPECT_EQ(s.child(ustr("y")).to_string_with_domain(), ustr("vd.folder:x/y@/vobs/p"));
    EXPECT_EQ(s.selector(), ustr("folder:x@vd./vobs/p"));
}

// ---- Parent ----

TEST(SelectorParent, WalksFromANameToTheNilSelector)
{
    Selector s(Selector::NS_REPO, Selector::PD_VD, 1027, ustr("a"), ustr("/vobs/p"));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{38, 0, 1027, {}, u"/vobs/p"}));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{38, 0, 1027, {}, u"vobs"}));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{38, 0, 1027, {}, {}}));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{38, 0, 0, {}, {}}));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{26, 0, 0, {}, {}}));
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{26, 3, 0, {}, {}}));
    EXPECT_TRUE(s.is_nil());
    EXPECT_EQ(fields(s.parent()), fields(s));
}

TEST(SelectorParent, DropsTheLastSegmentAndNormalisesTheOthers)
{
    EXPECT_EQ(named("/vobs/p/src/a.c").parent().name(), ustr("vobs/p/src"));
    EXPECT_EQ(named("a//b///c//").parent().name(), ustr("a/b"));
    EXPECT_EQ(named("a%/b/c").parent().name(), ustr("a%/b"));
    EXPECT_EQ(named("a%/b").parent().name(), ustr(""));
    EXPECT_EQ(named("/a/b").parent().repository(), ustr("/vobs/p"));  // not normalised yet
}

TEST(SelectorParent, TakesTheDefaultNamespaceToNoneFirst)
{
    const Selector s(Selector::NS_DEFAULT, Selector::PD_NONE, 0, {}, {});
    ASSERT_TRUE(s.is_nil());
    EXPECT_EQ(s.parent().ns(), Selector::NS_NONE);
}

TEST(SelectorParent, ClearsAnInvalidDomainLast)
{
    Selector s(Selector::NS_INVALID, Selector::PD_INVALID, 0, {}, {});
    s = s.parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{26, 2, 0, {}, {}}));
    s = s.parent();
    EXPECT_TRUE(s.is_nil());
}

TEST(SelectorParent, EmptiesANameOfSeparatorsWhileItShortensTheRepository)
{
    const Selector s = named("//").parent();
    EXPECT_EQ(s.name(), ustr(""));
    EXPECT_EQ(s.repository(), ustr("vobs"));
}

TEST(SelectorParent, EmptiesARepositoryOfSeparatorsWhileItGeneralises)
{
    const Selector s = Selector(Selector::NS_FILE, Selector::PD_VD, 0, {}, ustr("/")).parent();
    EXPECT_EQ(fields(s), (literal::outcome_t{26, 0, 0, {}, {}}));
    const Selector bare = Selector(Selector::NS_NONE, Selector::PD_NONE, 0, {}, ustr("/")).parent();
    EXPECT_TRUE(bare.is_nil());
}

TEST(SelectorParent, AlwaysEndsAtTheNilSelector)
{
    for (const char* text :
         {"", "/", "%", "%/", "//", "a", "/a", "a%//b", "%//", "a/%/", "a/b/c"}) {
        for (const char* repository : {"", "/", "///", "a", "/a%/", "%/b", "x/y/"}) {
            Selector s(Selector::NS_REPO, Selector::PD_INVALID, 1010, ustr(text), ustr(repository));
            for (int i = 0; i < 10; ++i)
                s = s.parent();
            EXPECT_TRUE(s.is_nil()) << text << " in " << repository;
            EXPECT_EQ(s.ns(), Selector::NS_NONE);
        }
    }
}

TEST(SelectorParent, HasItsOwnText)
{
    const Selector s = named("x/y");
    ASSERT_EQ(s.selector(), ustr("folder:x/y@vd./vobs/p"));
    EXPECT_EQ(s.parent().to_string_with_domain(), ustr("vd.folder:x@/vobs/p"));
}

// ---- Another name ----

TEST(SelectorRecompose, ReplacesTheNameAsGiven)
{
    const Selector s(ustr("vd.repo.vob:x@/v"));
    ASSERT_EQ(s.selector(), ustr("repo/vob:x@vd./v"));
    const Selector result = s.recompose_with_name(ustr("//a:b%"));
    EXPECT_EQ(fields(result), (literal::outcome_t{38, 0, 1027, u"//a:b%", u"/v"}));
    EXPECT_EQ(result.to_string_with_domain(), ustr("vd.repo.vob://a:b%@/v"));
    EXPECT_EQ(s.name(), ustr("x"));
    EXPECT_EQ(s.to_string_with_domain(), ustr("repo/vob:x@vd./v"));  // its own cache is kept
}

TEST(SelectorRelatives, LeaveTheSelectorAloneWhenMemoryRunsOut)
{
    const std::string longer(100, 'x');
    const UString name = ustr("/a" + longer + "/b" + longer);
    const Selector s(Selector::NS_FILE, Selector::PD_VD, 0, name, ustr("/vobs/" + longer));
    const auto before = fields(s);
    const auto check = [&] { ASSERT_EQ(fields(s), before); };
    EXPECT_GT(for_each_memory_fault([&] { s.child(name); }, check), 0);
    EXPECT_GT(for_each_memory_fault([&] { s.parent(); }, check), 0);
    EXPECT_GE(for_each_memory_fault([&] { s.recompose_with_name(name); }, check), 0);
}

}  // namespace
