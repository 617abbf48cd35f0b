// The text forms of a selector, the escapes of its segments, and the text utilities beneath.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include "support/all_texts.h"
#include "support/memory_fault.h"
#include "support/sanitizer.h"
#include "support/selector_literal.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <chrono>
#include <cstddef>
#include <random>

namespace {

using Kvl::Selector;
using Kvl::UString;
using testing::ElementsAre;
using testing::IsEmpty;

UString encode(const std::string& segment)
{
    return Selector::encode_segment(ustr(segment));
}

UString decode(const std::string& text)
{
    return Selector::decode_string(ustr(text));
}

std::vector<UString> split(const std::string& text, const std::string& separator = "/")
{
    return Selector::split_segments(ustr(text), ustr(separator));
}

// ---- Both text forms ----

struct forms_row_t {
    int ns, domain;
    Kvl::XmlTag::Id resource_type;
    std::string name, repository, full, brief;
};

TEST(SelectorText, HasAFullAndAShortForm)
{
    const forms_row_t rows[] = {
        {14, 0, 0, "/src/a.c", "/vobs/p", "vd.file:/src/a.c@/vobs/p", "file:/src/a.c@vd./vobs/p"},
        {46, 0, 0, "", "/vobs/p", "vd.vob:/vobs/p", "vob:@vd./vobs/p"},
        {38, 0, 1027, "", "/vobs/p", "vd.repo.vob:@/vobs/p", "repo/vob:@vd./vobs/p"},
        {38, 1, 1010, "n", "d", "ob.repo.ob-dbset:n@d", "repo/ob-dbset:n@ob.d"},
        {38, 0, 0, "", "/v", "vd.repo:@/v", "repo:@vd./v"},     // no type, but the "@"
        {38, 0, 0, "n", "", "vd.repo:n", "repo:n@vd."},         // the short form's "@" always
        {14, 0, 1027, "n", "r", "vd.file:n@r", "file:n@vd.r"},  // a type counts only with repo
        {14, 2, 0, "n", "r", "file:n@r", "file:n@r"},           // "<invalid>" is not written
        {14, 3, 0, "n", "r", "file:n@r", "file:n@r"},           //
        {14, 0, 0, "", "r", "vd.file:r", "file:@vd.r"},         // no name, so no "@"
        {14, 0, 0, "", "", "vd.file:", "file:@vd."},            //
        {46, 1, 0, "n", "r", "ob.vob:n@r", "vob:n@ob.r"},       // a name that no text can give
        {26, 1, 0, "x", "", "ob:x", ""},                        // pseudo-selectors
        {26, 1, 0, "x", "r", "ob:x@r", ""},                     //
        {8, 0, 0, "", "r", "vd:r", ""},                         //
        {23, 0, 1027, "x", "r", "vd:x@r", ""},                  //
        {26, 3, 0, "x", "r", "x@r", ""},                        //
        {26, 2, 0, "", "", "", ""},                             //
        {26, 3, 0, "", "", "", ""},                             // nil
        {14, 0, 0, "a%@b", "c:@/", "vd.file:a%@b@c:@/", "file:a%@b@vd.c:@/"},  // nothing escaped
    };
    for (const auto& row : rows) {
        const Selector s(Selector::namespace_t(row.ns), Selector::provider_domain_t(row.domain),
                         row.resource_type, ustr(row.name), ustr(row.repository));
        EXPECT_EQ(Selector(s).to_string_with_domain(), ustr(row.full));
        EXPECT_EQ(Selector(s).selector(), ustr(row.brief));
    }
}

TEST(SelectorText, IsTheFormThatWasAskedForFirst)
{
    const Selector brief(ustr("vd.file:/a@/v"));
    EXPECT_EQ(brief.selector(), ustr("file:/a@vd./v"));
    EXPECT_EQ(brief.to_string_with_domain(), ustr("file:/a@vd./v"));
    const Selector full(ustr("vd.file:/a@/v"));
    EXPECT_EQ(full.to_string_with_domain(), ustr("vd.file:/a@/v"));
    EXPECT_EQ(full.selector(), ustr("vd.file:/a@/v"));
}

TEST(SelectorText, OfAPseudoSelectorIsEmptyUntilTheFullFormIsCached)
{
    const Selector s(Selector::NS_NONE, Selector::PD_OB, 0, ustr("x"), {});
    EXPECT_EQ(s.selector(), ustr(""));
    EXPECT_EQ(s.to_string_with_domain(), ustr("ob:x"));
    EXPECT_EQ(s.selector(), ustr("ob:x"));
}

TEST(SelectorText, OfEveryNamespaceHasItsText)
{
    for (int ns = 0; ns < 52; ++ns) {
        const Selector s(Selector::namespace_t(ns), Selector::PD_VD, 0, ustr("n"), ustr("r"));
        const UString& text = Selector::namespace_string(s.ns());
        const bool is_pseudo = ns == 8 || ns == 23 || ns == 26;
        const UString full = is_pseudo ? ustr("vd:n@r") : ustr("vd.") + text + ustr(":n@r");
        EXPECT_EQ(Selector(s).to_string_with_domain(), full);
        EXPECT_EQ(Selector(s).selector(), is_pseudo ? UString() : text + ustr(":n@vd.r"));
    }
}

// No text gives such a type, but any well-known tag has a name.
TEST(SelectorText, NamesAResourceTypeOfAnotherNamespace)
{
    const Selector s(Selector::NS_REPO, Selector::PD_VD, 3, ustr("n"), ustr("r"));
    EXPECT_EQ(s.to_string_with_domain(), ustr("vd.repo.acl-entry:n@r"));
}

// No text gives such an id, so there is no name to print; printing must not fail all the same.
TEST(SelectorText, LeavesOutAResourceTypeThatNoWellKnownTagHas)
{
    for (const int id : {174, 1155, 5000, 2147483647, -1, -2147483647 - 1}) {
        const Selector s(Selector::NS_REPO, Selector::PD_VD, id, ustr("n"), ustr("r"));
        EXPECT_EQ(Selector(s).to_string_with_domain(), ustr("vd.repo:n@r")) << id;
        EXPECT_EQ(Selector(s).selector(), ustr("repo:n@vd.r")) << id;
    }
}

TEST(SelectorText, OfValuesOutsideTheEnumerationsHasNoneOfTheirTexts)
{
    for (const int value : {-1, 52, 2147483647}) {
        const auto ns = static_cast<Selector::namespace_t>(value);
        const auto domain = static_cast<Selector::provider_domain_t>(value);
        const Selector s(ns, domain, 0, ustr("n"), ustr("r"));
        EXPECT_EQ(Selector(s).to_string_with_domain(), ustr(":n@r"));
        EXPECT_EQ(Selector(s).selector(), ustr(":n@r"));
    }
}

// Also the choice of form is undecided after a failure: the short form follows, not the full one.
TEST(SelectorText, IsNotDecidedByACallThatRanOutOfMemory)
{
    const std::string longer(100, 'x');
    const Selector s(ustr("vd.file:" + longer + "@r"));
    const auto check = [&] { ASSERT_EQ(Selector(s).selector(), ustr("file:" + longer + "@vd.r")); };
    EXPECT_GT(for_each_memory_fault([&] { s.to_string_with_domain(); }, check), 0);
    EXPECT_EQ(s.selector(), ustr("vd.file:" + longer + "@r"));
    const Selector t(ustr("vd.file:" + longer + "@r"));
    const auto check_full = [&] {
        ASSERT_EQ(Selector(t).to_string_with_domain(), ustr("vd.file:" + longer + "@r"));
    };
    EXPECT_GT(for_each_memory_fault([&] { t.selector(); }, check_full), 0);
}

// ---- Splitting ----

TEST(SelectorSplit, GivesThePiecesBetweenSeparators)
{
    EXPECT_THAT(split("a/b/c"), ElementsAre(ustr("a"), ustr("b"), ustr("c")));
    EXPECT_THAT(split("a"), ElementsAre(ustr("a")));
    EXPECT_THAT(split("a.b", "."), ElementsAre(ustr("a"), ustr("b")));
    EXPECT_THAT(split("a\\b"), ElementsAre(ustr("a\\b")));  // the other separator splits nothing
}

TEST(SelectorSplit, DropsEmptyPieces)
{
    EXPECT_THAT(split(""), IsEmpty());
    EXPECT_THAT(split("///"), IsEmpty());
    EXPECT_THAT(split("/a//b/"), ElementsAre(ustr("a"), ustr("b")));
}

TEST(SelectorSplit, KeepsAnEscapedSeparatorInsideItsPiece)
{
    EXPECT_THAT(split("a%/b/c"), ElementsAre(ustr("a%/b"), ustr("c")));
    EXPECT_THAT(split("ab%/"), ElementsAre(ustr("ab%/")));
    EXPECT_THAT(split("a%%/b"), ElementsAre(ustr("a%%/b")));  // only one unit is looked at
    EXPECT_THAT(split("/%/x"), ElementsAre(ustr("%/x")));     // the "%" is not at the start here
}

TEST(SelectorSplit, PositionOneIgnoresTheEscape)
{
    EXPECT_THAT(split("%/x"), ElementsAre(ustr("%"), ustr("x")));
    EXPECT_THAT(split("%/"), ElementsAre(ustr("%")));
    EXPECT_THAT(split("%//%/"), ElementsAre(ustr("%"), ustr("%/")));
}

TEST(SelectorSplit, ASeparatorAfterAnEscapedOneLosesThePiece)
{
    EXPECT_THAT(split("a%//b"), ElementsAre(ustr("b")));
    EXPECT_THAT(split("x/a%//b"), ElementsAre(ustr("x"), ustr("b")));
    EXPECT_THAT(split("a%//"), IsEmpty());
}

TEST(SelectorSplit, TakesSeparatorsOfManyUnits)
{
    EXPECT_THAT(split("a--b---c", "--"), ElementsAre(ustr("a"), ustr("b"), ustr("-c")));
    EXPECT_THAT(split("ab%--c--d", "--"), ElementsAre(ustr("ab%--c"), ustr("d")));
    EXPECT_THAT(split("----", "--"), IsEmpty());
}

TEST(SelectorSplit, NeverFindsAnEmptySeparator)
{
    EXPECT_THAT(split("a/b", ""), ElementsAre(ustr("a/b")));
    EXPECT_THAT(split("", ""), IsEmpty());
}

TEST(SelectorSplit, NeverCutsASurrogatePair)
{
    const UString pair(u"a\U0001F600b");
    EXPECT_THAT(Selector::split_segments(pair, UString(std::u16string{0xD83D})), ElementsAre(pair));
    EXPECT_THAT(Selector::split_segments(pair, UString(u"\U0001F600")),
                ElementsAre(ustr("a"), ustr("b")));
}

// ---- Joining ----

TEST(SelectorJoin, TakesARunOfSegments)
{
    const std::vector<UString> abc{ustr("a"), ustr("b"), ustr("c")};
    const auto join = [&](unsigned int start, unsigned int count) {
        return Selector::join_segments(abc, ustr("/"), start, count);
    };
    EXPECT_EQ(Selector::join_segments(abc, ustr("/")), ustr("a/b/c"));
    EXPECT_EQ(join(0, 2), ustr("a/b"));
    EXPECT_EQ(join(1, 5), ustr("b/c"));
    EXPECT_EQ(join(2, 1), ustr("c"));
    EXPECT_EQ(join(3, 1), ustr(""));
    EXPECT_EQ(join(0, 0), ustr(""));
    EXPECT_EQ(join(1, UString::npos), ustr("b/c"));  // start + count does not fit
    EXPECT_EQ(join(UString::npos, UString::npos), ustr(""));
    EXPECT_EQ(Selector::join_segments({}, ustr("/")), ustr(""));
}

TEST(SelectorJoin, WritesSegmentsAndSeparatorAsTheyAre)
{
    EXPECT_EQ(Selector::join_segments({ustr(""), ustr("/"), ustr("")}, ustr("--")), ustr("--/--"));
    EXPECT_EQ(Selector::join_segments({ustr("a"), ustr("b")}, ustr("")), ustr("ab"));
}

TEST(SelectorJoin, ThrowsBadAllocForATextThatNoLengthCanCount)
{
    const UString separator(std::u16string(std::size_t{1} << 16, u'-'));
    const std::vector<UString> many((1 << 15) + 1);  // 2^15 separators: one unit too many
    EXPECT_THROW(Selector::join_segments(many, separator), std::bad_alloc);
}

// ---- Replacing ----

TEST(SelectorReplace, NeverLooksAtWhatItInserted)
{
    const auto replace = [](const char* source, const char* from, const char* to) {
        return Selector::replaceAll(ustr(source), ustr(from), ustr(to));
    };
    EXPECT_EQ(replace("aaa", "a", "aa"), ustr("aaaaaa"));
    EXPECT_EQ(replace("aaa", "aa", "a"), ustr("aa"));
    EXPECT_EQ(replace("aaaa", "aa", ""), ustr(""));
    EXPECT_EQ(replace("aab", "ab", "b"), ustr("ab"));  // not replaced again
    EXPECT_EQ(replace("abc", "x", "y"), ustr("abc"));
    EXPECT_EQ(replace("", "a", "b"), ustr(""));
    EXPECT_EQ(replace("abc", "abc", "x"), ustr("x"));
    EXPECT_EQ(replace("abc", "abcd", "x"), ustr("abc"));
    EXPECT_EQ(replace("abcbd", "b", "[b]"), ustr("a[b]c[b]d"));
}

TEST(SelectorReplace, NeverFindsTheEmptyText)
{
    EXPECT_EQ(Selector::replaceAll(ustr("abc"), ustr(""), ustr("x")), ustr("abc"));
    EXPECT_EQ(Selector::replaceAll(ustr(""), ustr(""), ustr("x")), ustr(""));
}

TEST(SelectorReplace, TakesOneTextForAllThree)
{
    const UString text = ustr("abab");
    EXPECT_EQ(Selector::replaceAll(text, text, text), text);
}

TEST(SelectorReplace, GivesWhatReplacingInPlaceGives)
{
    const std::u16string lead{0xD83D};
    const std::u16string trail{0xDE00};
    std::vector<UString> needles;
    for_each_text({u"a", lead, trail}, 2, [&](const UString& text) { needles.push_back(text); });
    for_each_text({u"a", u"b", lead, trail}, 4, [&](const UString& source) {
        for (const UString& from : needles)
            for (const UString& to : {UString(), ustr("a"), UString(trail), from + from})
                ASSERT_EQ(Selector::replaceAll(source, from, to),
                          literal::replace_all(source, from, to));
    });
}

// Steps of ICU's own search and edit, on texts that are many blocks long and full of matches that
// overlap and of places that match only in part.
UString replaced_by_icu(const UString& source, const UString& from, const UString& to)
{
    UString result = source;
    const auto removed = static_cast<int>(from.length());
    const auto inserted = static_cast<int>(to.length());
    int at = from.empty() ? -1 : result.indexOf(from, 0);
    for (; at >= 0; at = result.indexOf(from, at + inserted))
        static_cast<icu::UnicodeString&>(result).replace(at, removed, to);
    return result;
}

TEST(SelectorReplace, GivesWhatReplacingInPlaceGivesInLongTexts)
{
    const std::u16string alphabet{u'a', u'a', u'a', u'b', 0xD83D, 0xDE00};
    std::minstd_rand random(5);
    const auto below = [&](unsigned int n) { return static_cast<unsigned int>(random() % n); };
    const auto text_of = [&](std::size_t length, unsigned int letters) {
        std::u16string text;
        while (text.size() < length)
            text += alphabet[below(letters)];
        return UString(text);
    };
    for (int i = 0; i < 4000; ++i) {
        const unsigned int letters = i % 2 == 0 ? 4 : 6;
        const UString source = text_of(below(200), letters);
        const UString from =
            i % 3 == 0 ? source.substr(below(100), below(50)) : text_of(below(5), letters);
        const UString to = text_of(below(40), letters);
        ASSERT_EQ(Selector::replaceAll(source, from, to), replaced_by_icu(source, from, to));
    }
}

TEST(SelectorReplace, ReplacesAnyNumberOfMatches)
{
    for (const std::size_t count : {255u, 256u, 257u, 511u, 512u, 513u, 2000u})
        for (const std::size_t rest : {0u, 1u, 9u}) {
            std::string source;
            std::string expected;
            for (std::size_t i = 0; i < count; ++i) {
                source += "aba";
                expected += "-a";
            }
            source += std::string(rest, 'c');
            expected += std::string(rest, 'c');
            EXPECT_EQ(Selector::replaceAll(ustr(source), ustr("ab"), ustr("-")), ustr(expected));
        }
}

TEST(SelectorReplace, CopiesPiecesOfEveryLength)
{
    for (std::size_t length = 0; length <= 40; ++length) {
        std::string piece;
        while (piece.size() < length)
            piece += static_cast<char>('a' + piece.size() % 26);
        const std::string to = "<" + piece + ">";
        EXPECT_EQ(Selector::replaceAll(ustr(piece + "/" + piece + "/"), ustr("/"), ustr(to)),
                  ustr(piece + to + piece + to));
    }
}

TEST(SelectorReplace, ThrowsBadAllocForATextThatNoLengthCanCount)
{
    const UString source(std::u16string(std::size_t{1} << 16, u'x'));
    const UString to(std::u16string((std::size_t{1} << 16) + 1, u'y'));
    EXPECT_THROW(Selector::replaceAll(source, ustr("x"), to), std::bad_alloc);
}

// ---- Escapes ----

TEST(SelectorEncode, EscapesTheDelimiters)
{
    EXPECT_EQ(encode(""), ustr(""));
    EXPECT_EQ(encode("a/b"), ustr("a%/b"));
    EXPECT_EQ(encode("50%"), ustr("50%%"));
    EXPECT_EQ(encode("x:y\\z"), ustr("x%:y%\\z"));
    EXPECT_EQ(encode("a@b"), ustr("a%@b"));
    EXPECT_EQ(encode("a.b"), ustr("a.b"));
    EXPECT_EQ(encode("%:@/\\"), ustr("%%%:%@%/%\\"));
}

TEST(SelectorEncode, LeavesADoubledAtSign)
{
    EXPECT_EQ(encode("file@@main"), ustr("file@@main"));
    EXPECT_EQ(encode("@@@"), ustr("@@%@"));
    EXPECT_EQ(encode("@@@@"), ustr("@@@@"));
    EXPECT_EQ(encode("%@@"), ustr("%%@@"));
}

TEST(SelectorDecode, RemovesTheEscapes)
{
    EXPECT_EQ(decode(""), ustr(""));
    EXPECT_EQ(decode("a%/b%:c%@d%\\e%%f"), ustr("a/b:c@d\\e%f"));
    EXPECT_EQ(decode("%%%:"), ustr("%:"));
    EXPECT_EQ(decode("%%%%"), ustr("%%"));
    EXPECT_EQ(decode("file@@main"), ustr("file@@main"));
}

TEST(SelectorDecode, TakesTwoLevelsFromATextThatNoEncodingGives)
{
    EXPECT_EQ(decode("%%:"), ustr(":"));
    EXPECT_EQ(decode("%%/"), ustr("/"));
    EXPECT_EQ(decode("%%@"), ustr("@"));
}

TEST(SelectorDecode, KeepsWhatIsNoEscape)
{
    EXPECT_EQ(decode("100%"), ustr("100%"));
    EXPECT_EQ(decode("%x"), ustr("%x"));
    EXPECT_EQ(decode("%."), ustr("%."));
}

const std::vector<std::u16string> DELIMITERS_AND_A{u"%", u":", u"@", u"/", u"\\", u"a"};
const int NUM_TEXTS = 1 + 6 + 36 + 216 + 1296 + 7776;

TEST(SelectorEscapes, AreThoseOfOneReplacementADelimiter)
{
    const auto compare = [](const UString& text) {
        ASSERT_EQ(Selector::encode_segment(text), literal::encode_segment(text));
        ASSERT_EQ(Selector::decode_string(text), literal::decode_string(text));
    };
    EXPECT_EQ(for_each_text(DELIMITERS_AND_A, 5, compare), NUM_TEXTS);
}

// Eight units are looked at together, so each text also stands at each place of such a block.
TEST(SelectorEscapes, AreTheSameWhereverTheyStand)
{
    for_each_text(DELIMITERS_AND_A, 3, [](const UString& text) {
        for (unsigned int before = 0; before < 9; ++before) {
            const UString whole = ustr(std::string(before, 'x')) + text + ustr("yyyyyyyyy");
            ASSERT_EQ(Selector::encode_segment(whole), literal::encode_segment(whole));
            ASSERT_EQ(Selector::decode_string(whole), literal::decode_string(whole));
        }
    });
}

// Short texts stand in the text object, longer ones on the heap.
TEST(SelectorEscapes, AreTheSameHoweverLongTheTextIs)
{
    std::u16string units;
    for (int i = 0; i < 80; ++i) {
        units += u"a%b@@c/:d\\%%"[i % 13];
        const UString text(units);
        const UString encoded = Selector::encode_segment(text);
        ASSERT_EQ(encoded, literal::encode_segment(text));
        ASSERT_EQ(Selector::decode_string(encoded), literal::decode_string(encoded));
        ASSERT_EQ(encoded.c_str()[encoded.length()], 0);
        ASSERT_EQ(Selector(UString(u"vd.vob:") + text).repository(), text);
    }
}

// "%@@" is encoded to "%%@@", whose "%%" and "@" then form an escape of their own.
TEST(SelectorEscapes, ComeBackExactlyWithoutAPercentBeforeADoubledAtSign)
{
    int lost = 0;
    const auto check = [&](const UString& text) {
        const bool comes_back = Selector::decode_string(Selector::encode_segment(text)) == text;
        ASSERT_EQ(comes_back, text.find(UString(u"%@@")) < 0) << text.utf8_str();
        lost += comes_back ? 0 : 1;
    };
    EXPECT_EQ(for_each_text(DELIMITERS_AND_A, 5, check), NUM_TEXTS);
    // Of length 3, 4, 5: one place, two places of six, three places of 36, no text holds it twice.
    EXPECT_EQ(lost, 1 + 2 * 6 + 3 * 36);
    EXPECT_EQ(decode("%%@@"), ustr("@@"));
}

TEST(SelectorEscapes, ProtectASegmentFromTheSplitter)
{
    for (const char* segment : {"a/b", "//", "x%/y", "a\\b"}) {
        const UString name = ustr("dir/") + encode(segment);
        EXPECT_THAT(Selector::split_segments(name, Selector::SEGMENT_SEP),
                    ElementsAre(ustr("dir"), encode(segment)))
            << segment;
    }
}

RC_GTEST_PROP(SelectorEscapes, AreThoseOfOneReplacementADelimiterInLongerTexts,
              (const std::vector<unsigned char>& picks))
{
    const std::u16string units = u"%%%%:@@@/\\ab";
    std::u16string text{0xD800};
    for (const unsigned char pick : picks)
        text += pick < 240 ? units[pick % units.size()] : char16_t(0xD7F0 + pick);
    RC_ASSERT(Selector::encode_segment(UString(text)) == literal::encode_segment(UString(text)));
    RC_ASSERT(Selector::decode_string(UString(text)) == literal::decode_string(UString(text)));
}

RC_GTEST_PROP(SelectorSplit, GivesWhatTheRulesGive, (const std::vector<unsigned char>& picks))
{
    const std::u16string units = u"%%///ab";
    std::u16string text;
    for (const unsigned char pick : picks)
        text += units[pick % units.size()];
    for (const char16_t* separator : {u"/", u"//", u"%", u"/%", u""})
        RC_ASSERT(Selector::split_segments(UString(text), UString(separator)) ==
                  literal::split_segments(UString(text), UString(separator)));
}

TEST(SelectorSplit, GivesWhatTheRulesGiveForEveryShortText)
{
    const auto compare = [](const UString& text) {
        for (const char16_t* separator : {u"/", u"//", u"%", u"%/", u"/a", u""})
            ASSERT_EQ(Selector::split_segments(text, UString(separator)),
                      literal::split_segments(text, UString(separator)));
    };
    EXPECT_EQ(for_each_text({u"/", u"%", u"a"}, 7, compare), 3280);
}

// ---- Growth and faults ----

// Editing in place would take many minutes for each of these, where this takes seconds.
TEST(SelectorSegments, AreHandledWholeWhenTheyAreMegabytesLong)
{
    const std::size_t length = std::size_t{1} << (IS_SANITIZED || IS_COUNTED ? 18 : 22);
    const UString text(std::u16string(length, u'%'));
    const UString encoded = Selector::encode_segment(text);
    EXPECT_EQ(encoded.length(), 2 * length);
    EXPECT_EQ(Selector::decode_string(encoded), text);
    EXPECT_EQ(Selector::replaceAll(text, ustr("%"), ustr("%%")), encoded);
    EXPECT_EQ(Selector::replaceAll(encoded, ustr("%%"), ustr("%")), text);
    EXPECT_TRUE(Selector::split_segments(text, ustr("%")).empty());
}

TEST(SelectorSegments, AreSplitAndJoinedHoweverManyTheyAre)
{
    const unsigned int count = 1u << 17;
    const UString text =
        Selector::join_segments(std::vector<UString>(count, ustr("ab")), ustr("/"));
    EXPECT_EQ(text.length(), 3 * count - 1);
    EXPECT_EQ(Selector::split_segments(text, ustr("/")).size(), count);
}

// One place after the other, this would take minutes.
TEST(SelectorSegments, TakeNoLongerForASeparatorAsLongAsTheyAre)
{
    constexpr std::size_t LENGTH = std::size_t{8} << 20;
    const UString text(std::u16string(LENGTH, u'a'));
    const UString wanted = text.substr(LENGTH / 2) + ustr("b") + text.substr(LENGTH / 2);
    const UString with_wanted = text + wanted + text;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Selector::replaceAll(with_wanted, wanted, UString()).length(), 2 * LENGTH);
    EXPECT_EQ(Selector::split_segments(with_wanted, wanted).size(), 2u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(SelectorSegments, AskForMemoryInProportionToTheText)
{
    typedef void (*operation_t)(const UString& text);
    const operation_t operations[] = {
        [](const UString& text) { Selector::encode_segment(text); },
        [](const UString& text) { Selector::decode_string(text); },
        [](const UString& text) { Selector::replaceAll(text, ustr("/"), ustr("//")); },
        [](const UString& text) { Selector::replaceAll(text, ustr("%%"), ustr("%")); },
        [](const UString& text) { Selector::split_segments(text, ustr("/")); },
        [](const UString& text) {
            Selector::join_segments(Selector::split_segments(text, ustr("/")), ustr("//"));
        },
    };
    const auto text_of = [](int segments) {
        std::u16string text;
        for (int i = 0; i < segments; ++i)
            text += u"a%%b/";
        return UString(text);
    };
    const UString text = text_of(1 << 15);
    const UString twice = text_of(1 << 16);
    for (const operation_t operation : operations) {
        const unsigned long bytes = bytes_asked_for([&] { operation(text); });
        EXPECT_GT(bytes, 0u);
        EXPECT_LT(bytes_asked_for([&] { operation(twice); }), 3 * bytes);
    }
}

TEST(SelectorSegments, NeedLittleStackHoweverManyTheyAre)
{
    const UString text =
        Selector::join_segments(std::vector<UString>(1u << 17, ustr("a")), ustr("/"));
    UString decoded;
    UString shortened;
    on_small_stack([&] {
        decoded = Selector::decode_string(Selector::encode_segment(text));
        const Selector selector(ustr("vd.file:") + text + ustr("@") + text);
        const UString printed = selector.child(text).to_string_with_domain();
        shortened = Selector(printed).parent().name();
        EXPECT_THROW(Selector(ustr("vd.bogus:") + text), Kvl::StateException);
    });
    EXPECT_EQ(decoded, text);
    EXPECT_EQ(shortened.length(), 2 * text.length() - 1);  // both, and "/" for the "/a" it lost
}

TEST(SelectorSegments, ThrowBadAllocWhenMemoryRunsOut)
{
    const UString text = ustr(std::string(60, '%') + "/" + std::string(60, '@'));
    const std::vector<UString> segments(3, text);
    const auto none = [] {};
    EXPECT_GT(for_each_memory_fault([&] { Selector::encode_segment(text); }, none), 0);
    EXPECT_GT(for_each_memory_fault([&] { Selector::decode_string(text); }, none), 0);
    EXPECT_GT(for_each_memory_fault([&] { Selector::join_segments(segments, text); }, none), 0);
    EXPECT_GT(for_each_memory_fault([&] { Selector::split_segments(text, ustr("@")); }, none), 0);
    const auto replace = [&] { Selector::replaceAll(text, ustr("/"), text); };
    EXPECT_GT(for_each_memory_fault(replace, none), 0);
}

TEST(SelectorSegments, TakeABogusTextAsEmpty)
{
    UString bogus;
    bogus.setToBogus();
    const UString text = ustr("a/b");
    EXPECT_EQ(Selector::encode_segment(bogus), ustr(""));
    EXPECT_EQ(Selector::decode_string(bogus), ustr(""));
    EXPECT_EQ(Selector::replaceAll(bogus, text, text), ustr(""));
    EXPECT_EQ(Selector::replaceAll(text, bogus, text), text);
    EXPECT_EQ(Selector::replaceAll(text, ustr("/"), bogus), ustr("ab"));
    EXPECT_EQ(Selector::join_segments({text, bogus}, bogus), text);
    EXPECT_THAT(Selector::split_segments(bogus, text), IsEmpty());
    EXPECT_THAT(Selector::split_segments(text, bogus), ElementsAre(text));
}

}  // namespace
