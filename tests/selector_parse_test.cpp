// Parsing: what is accepted, what is rejected with which detail, and that nothing is left behind.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include "support/all_texts.h"
#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/selector_literal.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using Kvl::Selector;
using Kvl::StateException;
using Kvl::UString;
using Kvl::XmlTag;
using literal::fields;
using literal::outcome_t;

// ---- Accepted ----

struct accepted_t {
    std::string text;
    outcome_t result;
};
void PrintTo(const accepted_t& row, std::ostream* out)
{
    *out << row.text;
}

class SelectorAccepts : public testing::TestWithParam<accepted_t> {};
TEST_P(SelectorAccepts, WithTheFieldsThatTheTextSupplies)
{
    const Selector selector(ustr(GetParam().text));
    EXPECT_EQ(fields(selector), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, SelectorAccepts,
    testing::ValuesIn<accepted_t>({
        {"vd.file:/src/main.c@/vobs/proj", {14, 0, 0, u"/src/main.c", u"/vobs/proj"}},
        {"ob.record:r1@db", {34, 1, 0, u"r1", u"db"}},
        {"<invalid>.file:x@y", {14, 2, 0, u"x", u"y"}},  // a key of the domain map like the others
        {"vd.vob:/vobs/proj", {46, 0, 0, u"", u"/vobs/proj"}},
        {"vd.vob:/vobs/x@y", {46, 0, 0, u"", u"/vobs/x@y"}},  // no "@" is looked for
        {"vd.vob:@", {46, 0, 0, u"", u"@"}},
        {"ob.dbset:s", {7, 1, 0, u"", u"s"}},
        {"ob.userdb:u:@", {43, 1, 0, u"", u"u:@"}},
        {"vd.repo.vob:@/vobs/proj", {38, 0, 1027, u"", u"/vobs/proj"}},
        {"ob.repo.ob-dbset:@d", {38, 1, 1010, u"", u"d"}},
        {"ob.repo.ob-userdb:@d", {38, 1, 1023, u"", u"d"}},
        {"vd.repo.vob:x@/v", {38, 0, 1027, u"x", u"/v"}},
        {"vd.repo.vd-file:x@/v", {38, 0, 975, u"x", u"/v"}},  // any well-known type, with a name
        {"vd.repo:x@/v", {38, 0, 0, u"x", u"/v"}},            // the type may be left out
        {":x@y", {26, 3, 0, u"x", u"y"}},                     // no pieces at all
        {"...:x@y", {26, 3, 0, u"x", u"y"}},                  // only empty ones
        {"vd:x@y", {26, 0, 0, u"x", u"y"}},                   // only a domain
        {"..vd..file.:x@y", {14, 0, 0, u"x", u"y"}},          // empty pieces are dropped
        {"vd.NONE:x@y", {26, 0, 0, u"x", u"y"}},              // the pseudo-namespaces are names
        {"vd.DEFAULT:x@y", {8, 0, 0, u"x", u"y"}},
        {"vd.INVALID:x@y", {23, 0, 0, u"x", u"y"}},
        {"vd.file:/a%@b@/v", {14, 0, 0, u"/a%", u"b@/v"}},  // the first "@" ends the name
        {"vd.file:a@@b@/v", {14, 0, 0, u"a", u"@b@/v"}},    // a marker does not survive
        {"vd.file:a%:b@/v", {14, 0, 0, u"a%:b", u"/v"}},    // nothing is decoded
        {"vd.file:a:b@c:d", {14, 0, 0, u"a:b", u"c:d"}},    // the first ":" ends the field
        {"vd.file::@:", {14, 0, 0, u":", u":"}},
        {"vd.file:x@@", {14, 0, 0, u"x", u"@"}},
        {"vd.file: @ ", {14, 0, 0, u" ", u" "}},
        {"vd.file:///@//", {14, 0, 0, u"///", u"//"}},
        {"vd.file:\xC3\xA9\xF0\x9F\x98\x80@\xE2\x82\xAC",
         {14, 0, 0, u"\u00E9\U0001F600", u"\u20AC"}},
    }));

TEST(SelectorParse, KnowsEveryNamespace)
{
    for (int ns = 0; ns < 52; ++ns) {
        const UString& text = Selector::namespace_string(static_cast<Selector::namespace_t>(ns));
        const Selector selector(ustr("vd.") + text + ustr(":x@y"));
        EXPECT_EQ(selector.ns(), ns);
        EXPECT_EQ(selector.domain(), Selector::PD_VD);
    }
}

TEST(SelectorParse, KnowsEveryResourceType)
{
    const auto types = literal::resource_types();
    EXPECT_EQ(types.size(), 52u);
    for (const auto& [name, id] : types) {
        const Selector selector(ustr("vd.repo.") + name + ustr(":x@y"));
        EXPECT_EQ(selector.resource_type(), id);
    }
}

// Neither half of a surrogate pair is a separator, and none of them is changed.
TEST(SelectorParse, KeepsUnitsThatAreNoText)
{
    const std::u16string name{0xD800, u'%', 0xDC00, 0, 0xFFFF};
    const std::u16string repository{0xDC00, u'@', 0xD800};
    const Selector selector(UString(u"vd.file:" + name + u"@" + repository));
    EXPECT_EQ(units_of(selector.name()), name);
    EXPECT_EQ(units_of(selector.repository()), repository);
}

// To begin anew at each unit would take hours.
TEST(SelectorParse, ReadsATextOfManyMegabytesInOneScan)
{
    const UString name(std::u16string(std::size_t{4} << 20, u'%'));
    const Selector selector(ustr("vd.file:") + name + ustr("@/v"));
    EXPECT_EQ(selector.name(), name);
}

TEST(SelectorParse, AsksForMemoryInProportionToTheText)
{
    const auto bytes_for = [](std::size_t length) {
        const UString text = ustr("vd.file:") + UString(std::u16string(length, u'%')) + ustr("@/v");
        return bytes_asked_for([&] { const Selector selector(text); });
    };
    EXPECT_GT(bytes_for(1 << 16), 0u);
    EXPECT_LT(bytes_for(1 << 17), 3 * bytes_for(1 << 16));
}

// ---- Rejected ----

struct rejected_t {
    std::string text, detail;
};
void PrintTo(const rejected_t& row, std::ostream* out)
{
    *out << row.text;
}

class SelectorRejects : public testing::TestWithParam<rejected_t> {};
TEST_P(SelectorRejects, WithTheDetailOfItsFirstFailedCheck)
{
    const auto& [text, detail] = GetParam();
    try {
        const Selector selector(ustr(text));
        FAIL() << "accepted";
    } catch (const StateException& e) {
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(rendered(e), "PLXSV0671E The selector '" + text + "' is not valid: " + detail);
        EXPECT_EQ(e.message().index(), 21);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
    }
}

const char NO_NAMESPACE[] = R"(missing namespace seperator: ":")";    // [sic]
const char NO_REPOSITORY[] = R"(missing repository seperator: "@")";  // [sic]

INSTANTIATE_TEST_SUITE_P(
    Grammar, SelectorRejects,
    testing::ValuesIn<rejected_t>({
        {"", NO_NAMESPACE},
        {"vd.file", NO_NAMESPACE},
        {"vd.file/a@/v", NO_NAMESPACE},
        {"bogus.bogus@", NO_NAMESPACE},                      // before any piece is looked at
        {"file:/a@/v", "unknown provider domain: file"},     // the first piece is always the domain
        {".file:/a@/v", "unknown provider domain: file"},    // an empty piece is dropped
        {"VD.file:/a@/v", "unknown provider domain: VD"},    // case-sensitive
        {" vd.file:/a@/v", "unknown provider domain:  vd"},  // nothing is trimmed
        {"<none>.file:x@y", "unknown provider domain: <none>"},
        {"bogus:", "unknown provider domain: bogus"},  // before the missing rest
        {"bogus.bogus.bogus:", "unknown provider domain: bogus"},
        {"vd%.file:x@y", "unknown provider domain: vd%.file"},  // the dot is escaped
        {"v%.d:x@y", "unknown provider domain: v%.d"},
        {"%.vd:x@y", "unknown provider domain: %"},  // position 1 splits all the same
        {"vd.bogus:/a@/v", "unknown namespace: bogus"},
        {"vd.File:/a@/v", "unknown namespace: File"},  // case-sensitive
        {"vd.default:x@y", "unknown namespace: default"},
        {"vd.fil:x@y", "unknown namespace: fil"},
        {"vd.files:x@y", "unknown namespace: files"},
        {"vd.vd:x@y", "unknown namespace: vd"},
        {"vd.file%.x:x@y", "unknown namespace: file%.x"},
        {"vd%..file:x@y", "unknown provider domain: file"},  // the lost piece of a split
        {"vd.bogus:", "unknown namespace: bogus"},
        {"vd.repo.nosuch:x@/v", "unknown resource type: nosuch"},
        {"vd.repo.VOB:x@/v", "unknown resource type: VOB"},
        {"vd.repo.acl-entry:x@/v", "unknown resource type: acl-entry"},  // of another namespace
        {"vd.repo.nosuch.x:", "unknown resource type: nosuch"},
        {"vd.file.extra:/a@/v", "extra segment before name and repository: extra"},
        {"vd.file.vob:/a@/v", "extra segment before name and repository: vob"},
        {"vd.vob.vob:/a", "extra segment before name and repository: vob"},
        {"vd.file.a.b:/a@/v", "extra segment before name and repository: a"},
        {"vd.repo.vob.x:@/v", "extra segment before name and repository: x"},
        {"vd.repo.vob.x.y:", "extra segment before name and repository: x"},
        {":", "no name or repository segments"},
        {"vd:", "no name or repository segments"},
        {"vd.file:", "no name or repository segments"},
        {"vd.vob:", "no name or repository segments"},  // before the repository-only form
        {"vd.repo.vob:", "no name or repository segments"},
        {"vd.file:/a", NO_REPOSITORY},
        {"vd.repo.vob:/v", NO_REPOSITORY},               // only "vob" itself takes no "@"
        {"@vd.file:x", "unknown provider domain: @vd"},  // an "@" before the ":" counts as none
        {":x", NO_REPOSITORY},
        {"vd.file:@/v", "no name for non-repository resource type"},
        {"vd.file:@", "no name for non-repository resource type"},  // before the empty repository
        {"vd.repo:@/v", "no name for non-repository resource type"},
        {"vd.repo.vd-file:@/v", "no name for non-repository resource type"},
        {":@x", "no name for non-repository resource type"},
        {"vd.file:/a@", "no repository segment"},
        {"vd.repo.vob:@", "no repository segment"},
        {"vd.repo.vob:x@", "no repository segment"},
        {":x@", "no repository segment"},
    }));

std::string rejection_of(const UString& text)
{
    try {
        const Selector selector(text);
        return "accepted";
    } catch (const StateException& e) {
        return rendered(e);
    }
}

// A text argument is kept as UTF-8, which has no form for half a surrogate pair.
TEST(SelectorParse, RejectsATextThatIsNoTextWithoutShowingIt)
{
    EXPECT_EQ(rejection_of(UString(std::u16string{u'a', 0xD800})),
              R"(PLXSV0671E The selector '' is not valid: missing namespace seperator: ":")");
    EXPECT_EQ(rejection_of(UString(std::u16string{0xDC00, u':'})),
              "PLXSV0671E The selector '' is not valid: ");
    UString bogus;
    bogus.setToBogus();
    EXPECT_EQ(rejection_of(bogus),
              R"(PLXSV0671E The selector '' is not valid: missing namespace seperator: ":")");
}

TEST(SelectorParse, LooksAtUnitsBehindAZero)
{
    EXPECT_EQ(rejection_of(UString(std::u16string(u"vd.fi\0le:x@y", 12))),
              "PLXSV0671E The selector 'vd.fi' is not valid: unknown namespace: fi");
}

TEST(SelectorParse, LogsNothingWhenItRejects)
{
    const recording_logger logger;
    EXPECT_NE(rejection_of(ustr("vd.file")), "accepted");
    EXPECT_TRUE(logger.lines.empty());
}

TEST(SelectorParse, LeavesTheTagRegistryAlone)
{
    const auto before = XmlTag::g_num_defined_tags;
    const auto& names = XmlTag::g_namespace_array[16]->tags;
    const std::size_t names_before = names.size();
    rejection_of(ustr("vd.repo.unheard-of:x@/v"));
    Selector(ustr("vd.repo.vob:x@/v"));
    EXPECT_EQ(XmlTag::g_num_defined_tags, before);
    EXPECT_EQ(names.size(), names_before);
}

TEST(SelectorParse, RejectsAResourceTypeThatWasRegisteredAtRunTime)
{
    const XmlTag* const tag = XmlTag::lookup(16, ustr("of-run-time"));
    ASSERT_GE(tag->id(), XmlTag::NUM_WK_IDS);
    EXPECT_EQ(rejection_of(ustr("vd.repo.of-run-time:x@/v")),
              "PLXSV0671E The selector 'vd.repo.of-run-time:x@/v' is not valid: "
              "unknown resource type: of-run-time");
}

// ---- Every short text ----

outcome_t outcome_of(const UString& text)
{
    try {
        return fields(Selector(text));
    } catch (const StateException& e) {
        const std::string whole = rendered(e);
        const std::string before =
            "PLXSV0671E The selector '" + text.utf8_str() + "' is not valid: ";
        outcome_t result;
        result.detail = ustr(whole.substr(before.size()));
        return result;
    }
}

void expect_same_as_literal(const UString& text)
{
    const outcome_t result = outcome_of(text);
    ASSERT_EQ(result, literal::parse(text)) << text.utf8_str();
}

void expect_round_trip(const UString& text)
{
    const outcome_t result = literal::parse(text);
    const bool is_pseudo = result.ns == 8 || result.ns == 23 || result.ns == 26;
    if (!result.detail.empty() || is_pseudo || result.domain > 1)
        return;
    const UString printed = Selector(text).to_string_with_domain();
    ASSERT_EQ(fields(Selector(printed)), result) << text.utf8_str();
}

void compare(const UString& text)
{
    expect_same_as_literal(text);
    expect_round_trip(text);
}

TEST(SelectorParse, GivesWhatTheRulesGiveForEveryShortText)
{
    const std::vector<std::u16string> parts{
        u"vd", u"<invalid>", u"file", u"repo", u"vob", u"DEFAULT", u".", u":", u"@", u"%", u"x"};
    EXPECT_EQ(for_each_text(parts, 4, compare), 1 + 11 + 121 + 1331 + 14641);
}

TEST(SelectorParse, GivesWhatTheRulesGiveForEveryShortNamespaceField)
{
    const std::vector<std::u16string> parts{u"vd", u"repo", u"vob", u"%", u"."};
    const auto with_rest = [](const UString& field) {
        compare(field + UString(u":x@y"));
        compare(field + UString(u":@y"));
    };
    EXPECT_EQ(for_each_text(parts, 5, with_rest), 1 + 5 + 25 + 125 + 625 + 3125);
}

TEST(SelectorParse, GivesWhatTheRulesGiveForEveryShortRest)
{
    const std::vector<std::u16string> parts{u"@", u":", u"%", u"/", u"x"};
    const auto with_field = [](const UString& rest) {
        for (const char16_t* field : {u"vd.file:", u"vd.vob:", u"vd.repo.vob:", u"ob.repo:"})
            compare(UString(field) + rest);
    };
    EXPECT_EQ(for_each_text(parts, 4, with_field), 1 + 5 + 25 + 125 + 625);
}

// ---- Faults and threads ----

TEST(SelectorParse, ThrowsBadAllocWhenMemoryRunsOut)
{
    const std::string longer(100, 'x');
    const UString text = ustr("vd.file:/" + longer + "@/" + longer);
    EXPECT_GT(for_each_memory_fault([&] { Selector s(text); }, [] {}), 0);
    const UString rejected = ustr("vd.bogus" + longer + ":x@y");
    const auto reject = [&] {
        try {
            const Selector s(rejected);
        } catch (const StateException&) {
        }
    };
    EXPECT_GT(for_each_memory_fault(reject, [] {}), 0);
}

TEST(SelectorParse, MayRunInManyThreads)
{
    const auto work = [] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(Selector(ustr("vd.repo.vob:x@/v")).selector(), ustr("repo/vob:x@vd./v"));
            EXPECT_THROW(Selector(ustr("vd.repo.none:x@/v")), StateException);
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
}

}  // namespace
