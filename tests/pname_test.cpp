#include <kvutil/pname.h>

#include "support/memory_fault.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kvl::Pname;
using Kvl::UString;

struct split_t {
    std::string path, parent, leaf;
};

// The rule is: the parent is what precedes the last "/", the leaf what follows it; the parent "/"
// is written as the empty text.
const split_t SPLITS[] = {
    {"a/b/c", "a/b", "c"},
    {"c", "", "c"},
    {"/c", "", "c"},
    {"//c", "", "c"},  // the parent "/" is the root
    {"///c", "//", "c"},
    {"a//c", "a/", "c"},
    {"x/c", "x", "c"},  // a parent of one character that is no separator
    {"a/", "a", ""},
    {"a//", "a/", ""},
    {"/", "", ""},
    {"//", "", ""},
    {"///", "//", ""},
    {"", "", ""},
    {"a\\b/c\\d", "a\\b", "c\\d"},  // the backslash is no separator
    {"\\", "", "\\"},
    {"./..", ".", ".."},
    {"ä/ö", "ä", "ö"},
    {"😀/😀", "😀", "😀"},
};

TEST(Pname, SplitsAtTheLastSeparator)
{
    for (const split_t& row : SPLITS) {
        SCOPED_TRACE(row.path);
        const Pname leaf_first(ustr(row.path));
        EXPECT_EQ(leaf_first.leaf(), ustr(row.leaf));
        EXPECT_EQ(leaf_first.parent_dir(), ustr(row.parent));
        EXPECT_EQ(leaf_first.path(), ustr(row.path));
        const Pname parent_first(ustr(row.path));
        EXPECT_EQ(parent_first.parent_dir(), ustr(row.parent));
        EXPECT_EQ(parent_first.leaf(), ustr(row.leaf));
        const Pname explicitly(ustr(row.path));
        explicitly.split_leaf();
        EXPECT_EQ(explicitly.leaf(), ustr(row.leaf));
        EXPECT_EQ(explicitly.parent_dir(), ustr(row.parent));
    }
}

/// Checks the parts of a path, and that reading them as C texts changes nothing, against the rule.
void expect_split_by_the_rule(const std::u16string& path)
{
    const auto separator = path.rfind(u'/');
    const bool has_separator = separator != std::u16string::npos;
    std::u16string parent = has_separator ? path.substr(0, separator) : u"";
    if (parent == u"/")
        parent.clear();
    const Pname name{UString(path)};
    ASSERT_EQ(name.leaf(), UString(has_separator ? path.substr(separator + 1) : path));
    ASSERT_EQ(name.parent_dir(), UString(parent));
    ASSERT_EQ(name.path(), UString(path));
    for (const UString* text : {&name.path(), &name.leaf(), &name.parent_dir()}) {
        ASSERT_LT(text->length(), text->capacity());
        ASSERT_EQ(text->getBuffer()[text->length()], u'\0');
    }
}

// Every text of up to seven units from the separator, the other slash, a letter and half a pair.
TEST(Pname, SplitsEveryShortPathByTheRule)
{
    constexpr char16_t UNITS[] = {u'/', u'\\', u'a', 0xD83D};
    for (unsigned int length = 0; length <= 7; ++length) {
        for (unsigned int digits = 0; digits < 1u << 2 * length; ++digits) {
            std::u16string path;
            for (unsigned int i = 0; i < length; ++i)
                path += UNITS[digits >> 2 * i & 3];
            SCOPED_TRACE(digits);
            ASSERT_NO_FATAL_FAILURE(expect_split_by_the_rule(path));
        }
    }
}

// Short texts stand inside their object, longer ones elsewhere.
TEST(Pname, SplitsPartsOfEveryLengthByTheRule)
{
    for (std::size_t parent = 0; parent < 40; ++parent)
        for (std::size_t leaf = 0; leaf < 40; ++leaf)
            ASSERT_NO_FATAL_FAILURE(expect_split_by_the_rule(std::u16string(parent, u'p') + u'/' +
                                                             std::u16string(leaf, u'l')));
}

TEST(Pname, IsEmptyByDefault)
{
    const Pname name;
    EXPECT_TRUE(name.path().empty());
    EXPECT_TRUE(name.leaf().empty());
    EXPECT_TRUE(name.parent_dir().empty());
}

TEST(Pname, TakesABogusTextAsTheEmptyPath)
{
    UString bogus;
    bogus.setToBogus();
    const Pname constructed(bogus);
    EXPECT_TRUE(constructed.path().empty());
    EXPECT_FALSE(constructed.path().isBogus());
    EXPECT_TRUE(constructed.leaf().empty());
    Pname assigned(ustr("a/b"));
    assigned = bogus;
    EXPECT_FALSE(assigned.path().isBogus());
    EXPECT_TRUE(assigned.path().empty());
    EXPECT_TRUE(assigned.leaf().empty());
    EXPECT_TRUE(assigned.parent_dir().empty());
}

TEST(Pname, HandsOutReferencesToItsFields)
{
    const Pname name(ustr("a/b"));
    EXPECT_EQ(&name.leaf(), &name.leaf());
    EXPECT_EQ(&name.parent_dir(), &name.parent_dir());
    EXPECT_EQ(&name.path(), &name.path());
}

TEST(Pname, HandsOutTerminatedTexts)
{
    const std::string dir(100, 'd');
    const std::string leaf(100, 'l');
    Pname name(ustr(dir + "/" + leaf + "/"));
    name.strip_trailing_separator();
    for (const UString* text : {&name.path(), &name.leaf(), &name.parent_dir()}) {
        ASSERT_LT(text->length(), text->capacity());
        EXPECT_EQ(text->getBuffer()[text->length()], u'\0');
    }
}

TEST(Pname, AssignedPathForgetsTheOldParts)
{
    Pname name(ustr("a/b"));
    EXPECT_EQ(name.leaf(), ustr("b"));
    Pname& result = name = ustr("c/d/e");
    EXPECT_EQ(&result, &name);
    EXPECT_EQ(name.leaf(), ustr("e"));
    EXPECT_EQ(name.parent_dir(), ustr("c/d"));
    name = UString();
    EXPECT_TRUE(name.leaf().empty());
    EXPECT_TRUE(name.parent_dir().empty());
}

TEST(Pname, SplittingAnEmptyPathLeavesThePartsAlone)
{
    Pname name(ustr("a/b"));
    name.split_leaf();
    name = UString();
    name.split_leaf();
    EXPECT_TRUE(name.leaf().empty());
}

TEST(Pname, CanBeAssignedItsOwnParts)
{
    const std::string dir(60, 'd');
    const std::string leaf(60, 'l');
    Pname to_leaf(ustr(dir + "/" + leaf));
    to_leaf = to_leaf.leaf();
    EXPECT_EQ(to_leaf.path(), ustr(leaf));
    EXPECT_EQ(to_leaf.leaf(), ustr(leaf));
    EXPECT_TRUE(to_leaf.parent_dir().empty());
    Pname to_parent(ustr(dir + "/x/" + leaf));
    to_parent = to_parent.parent_dir();
    EXPECT_EQ(to_parent.path(), ustr(dir + "/x"));
    EXPECT_EQ(to_parent.leaf(), ustr("x"));
    EXPECT_EQ(to_parent.parent_dir(), ustr(dir));
    Pname to_path(ustr(dir + "/" + leaf));
    EXPECT_EQ(to_path.leaf(), ustr(leaf));
    to_path = to_path.path();
    EXPECT_EQ(to_path.path(), ustr(dir + "/" + leaf));
    EXPECT_EQ(to_path.leaf(), ustr(leaf));
}

TEST(Pname, CopiesAndItselfAreEqualAndIndependent)
{
    Pname original(ustr("a/b"));
    EXPECT_EQ(original.leaf(), ustr("b"));
    const Pname copy(original);
    Pname assigned;
    assigned = original;
    Pname& self = original;
    original = self;
    EXPECT_EQ(original.path(), ustr("a/b"));
    EXPECT_EQ(original.leaf(), ustr("b"));
    original = ustr("x/y");
    for (const Pname* name : {&copy, static_cast<const Pname*>(&assigned)}) {
        EXPECT_EQ(name->path(), ustr("a/b"));
        EXPECT_EQ(name->leaf(), ustr("b"));
        EXPECT_EQ(name->parent_dir(), ustr("a"));
    }
}

TEST(Pname, CopiesTheParts)
{
    const std::string leaf(100, 'l');
    const Pname split(ustr("a/" + leaf));
    split.split_leaf();
    const Pname copy(split);
    const unsigned long before = allocations_of_this_thread();
    EXPECT_EQ(copy.leaf().length(), 100u);
    EXPECT_EQ(allocations_of_this_thread(), before) << "the copy was split again";
}

// Only a non-empty leaf says that the parts are known, so "a/" is split by every call.
TEST(Pname, SplitsAgainWhenTheLeafIsEmpty)
{
    const std::string dir(100, 'd');
    const Pname name(ustr(dir + "/"));
    EXPECT_TRUE(name.leaf().empty());
    const unsigned long before = allocations_of_this_thread();
    EXPECT_EQ(name.parent_dir().length(), 100u);
    EXPECT_GT(allocations_of_this_thread(), before);
}

TEST(Pname, MovesWithoutThrowing)
{
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Pname>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Pname>);
    Pname from(ustr("a/b"));
    EXPECT_EQ(from.leaf(), ustr("b"));
    Pname to(std::move(from));
    EXPECT_EQ(to.path(), ustr("a/b"));
    EXPECT_EQ(to.leaf(), ustr("b"));
    EXPECT_EQ(to.parent_dir(), ustr("a"));
    EXPECT_TRUE(from.path().empty());
    EXPECT_TRUE(from.leaf().empty());
    Pname assigned(ustr("x/y"));
    assigned = std::move(to);
    EXPECT_EQ(assigned.path(), ustr("a/b"));
    EXPECT_EQ(assigned.leaf(), ustr("b"));
    EXPECT_TRUE(to.path().empty());
    EXPECT_TRUE(to.parent_dir().empty());
}

struct strip_t {
    std::string before, after;
};

TEST(PnameStripTrailingSeparator, RemovesOne)
{
    for (const strip_t& row : std::vector<strip_t>{{"a//", "a/"},
                                                   {"a/", "a"},
                                                   {"/", ""},
                                                   {"", ""},
                                                   {"a", "a"},
                                                   {"/a", "/a"},
                                                   {"a\\", "a\\"}}) {
        Pname name(ustr(row.before));
        name.strip_trailing_separator();
        EXPECT_EQ(name.path(), ustr(row.after)) << row.before;
    }
}

TEST(PnameStripTrailingSeparator, ForgetsTheOldParts)
{
    Pname name(ustr("a/b/"));
    EXPECT_TRUE(name.leaf().empty());
    EXPECT_EQ(name.parent_dir(), ustr("a/b"));
    name.strip_trailing_separator();
    EXPECT_EQ(name.leaf(), ustr("b"));
    EXPECT_EQ(name.parent_dir(), ustr("a"));
    Pname root(ustr("/"));
    root.strip_trailing_separator();
    EXPECT_TRUE(root.leaf().empty());
    EXPECT_TRUE(root.parent_dir().empty());
}

TEST(PnameStripTrailingSeparator, KeepsThePartsWhenThereIsNone)
{
    const std::string leaf(100, 'l');
    Pname name(ustr("a/" + leaf));
    name.split_leaf();
    name.strip_trailing_separator();
    const unsigned long before = allocations_of_this_thread();
    EXPECT_EQ(name.leaf().length(), 100u);
    EXPECT_EQ(allocations_of_this_thread(), before);
}

TEST(PnameWithoutMemory, SplittingAndStrippingChangeNothing)
{
    const std::string dir(100, 'd');
    const std::string leaf(100, 'l');
    Pname name(ustr(dir + "/" + leaf + "/"));
    const auto unchanged = [&] {
        const memory_fault none_left(1, true);
        EXPECT_EQ(name.path().length(), 202u);
        EXPECT_EQ(name.path()[201], u'/');
    };
    EXPECT_GE(for_each_memory_fault([&] { name.split_leaf(); }, unchanged), 1);
    EXPECT_EQ(name.parent_dir(), ustr(dir + "/" + leaf));
    EXPECT_GE(for_each_memory_fault([&] { name.strip_trailing_separator(); }, unchanged), 1);
    EXPECT_EQ(name.path(), ustr(dir + "/" + leaf));
    EXPECT_GE(
        for_each_memory_fault([&] { name.leaf(); }, [&] { EXPECT_EQ(name.path().length(), 201u); }),
        2);
    EXPECT_EQ(name.leaf(), ustr(leaf));
    EXPECT_EQ(name.parent_dir(), ustr(dir));
}

TEST(PnameWithoutMemory, AssignmentChangesNothing)
{
    // A text on somebody else's units is copied in full, so that the assignment allocates.
    std::u16string units(200, u'x');
    UString path;
    path.setTo(true, icu::ConstChar16Ptr(units.c_str()), 200);
    Pname target(ustr("a/b"));
    target.split_leaf();
    const auto unchanged = [&] {
        EXPECT_EQ(target.path(), ustr("a/b"));
        EXPECT_EQ(target.leaf(), ustr("b"));
        EXPECT_EQ(target.parent_dir(), ustr("a"));
    };
    EXPECT_GE(for_each_memory_fault([&] { target = path; }, unchanged), 1);
    EXPECT_EQ(target.path(), path);
    EXPECT_EQ(target.leaf(), path);
}

TEST(Pname, SplitsLongPaths)
{
    const UString dir = ustr(std::string(1 << 20, 'd'));
    const Pname name(dir + ustr("/l"));
    EXPECT_EQ(name.leaf(), ustr("l"));
    EXPECT_EQ(name.parent_dir(), dir);
    const Pname without_separator(dir);
    EXPECT_EQ(without_separator.leaf(), dir);
}

}  // namespace
