#include <kvutil/umessage.h>
#include <qmlogger/qmlogger.h>

#include "support/memory_fault.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Kvl::Resource;
using Kvl::UMessage;
using Kvl::UString;
using Kvl::Utf8String;
using Arg = UMessage::Arg;

// ---- helpers ----

class File : public Resource {
public:
    explicit File(std::string name) : name_(std::move(name)) { ++alive; }
    File(const File& o) : Resource(o), name_(o.name_)
    {
        ++alive;
        ++times_copied;
    }
    ~File() override { --alive; }
    Resource* do_clone() const override { return new File(*this); }
    UString text() const override
    {
        ++times_asked;
        return ustr(name_);
    }

    static int alive;
    static int times_copied;
    static thread_local int times_asked;

private:
    std::string name_;
};
int File::alive = 0;
int File::times_copied = 0;
thread_local int File::times_asked = 0;

class Nothing : public Resource {
public:
    Resource* do_clone() const override { return nullptr; }
};

class Uncopyable : public Resource {
public:
    explicit Uncopyable(int copies_left) : copies_left_(copies_left) {}
    Resource* do_clone() const override
    {
        if (copies_left_ == 0)
            throw std::runtime_error("no copy");
        return new Uncopyable(copies_left_ - 1);
    }
    UString text() const override { return ustr("uncopyable"); }

private:
    int copies_left_;
};

class Mute : public Resource {
public:
    Resource* do_clone() const override { return new Mute(*this); }
    UString text() const override { throw std::runtime_error("no text"); }
};

class Counting : public Resource {
public:
    Resource* do_clone() const override { return new Counting(*this); }
    UString text() const override
    {
        return ustr(std::string(100, 'x') + std::to_string(++times_asked_));
    }

private:
    mutable int times_asked_ = 0;
};

cxPrintfArgVal record_of(const Arg& arg, unsigned char before = 0)
{
    cxPrintfArgVal record;
    std::memset(&record, before, sizeof record);
    arg.get_print_val(record);
    return record;
}

std::string text_in(const Arg& arg)
{
    return static_cast<const char*>(record_of(arg).p);
}

std::string utf8(const UString& text)
{
    return text.utf8_str();
}

// ---- kinds ----

enum unscoped_t { UNSCOPED = 77 };
enum negative_t { NEGATIVE = -5 };
enum large_t : unsigned long long { LARGE = 1ull << 40 };

struct number_t {
    const char* type;
    Arg arg;
    int kind;
    long long value;
};

TEST(UMessageArg, ArithmeticTypesArriveAsTabled)
{
    volatile const unsigned char from_volatile = 200;
    const number_t rows[] = {
        {"char", Arg('a'), 1, 'a'},
        {"char, high bit", Arg('\xE9'), 1, -23},  // sign-extended
        {"bool", Arg(true), 2, 1},
        {"signed char", Arg(static_cast<signed char>(-100)), 2, -100},
        {"unsigned char", Arg(static_cast<unsigned char>(200)), 2, 200},
        {"volatile", Arg(from_volatile), 2, 200},
        {"short", Arg(static_cast<short>(SHRT_MIN)), 2, SHRT_MIN},
        {"unsigned short", Arg(static_cast<unsigned short>(USHRT_MAX)), 2, USHRT_MAX},
        {"wchar_t", Arg(L'\U0001F600'), 2, 0x1F600},
        {"char8_t", Arg(u8'a'), 2, 'a'},
        {"char16_t", Arg(u'\uFFFD'), 2, 0xFFFD},
        {"char32_t", Arg(U'\U0001F600'), 4, 0x1F600},  // promotes to unsigned int
        {"int", Arg(INT_MIN), 2, INT_MIN},
        {"int", Arg(INT_MAX), 2, INT_MAX},
        {"int", Arg(0), 2, 0},
        {"unscoped enumeration", Arg(UNSCOPED), 2, 77},
        {"unscoped enumeration with a negative value", Arg(NEGATIVE), 2, -5},
        {"unscoped enumeration of a 64-bit type", Arg(LARGE), 4, 1ll << 40},
        {"long", Arg(-1L), 3, -1},
        {"long", Arg(static_cast<long>(INT_MAX)), 3, INT_MAX},
        {"long", Arg(static_cast<long>(INT_MIN)), 3, INT_MIN},
        {"long above 32 bits", Arg(INT_MAX + 1L), 4, INT_MAX + 1LL},
        {"long below 32 bits", Arg(INT_MIN - 1L), 4, INT_MIN - 1LL},
        {"long", Arg(LONG_MAX), 4, LONG_MAX},
        {"long", Arg(LONG_MIN), 4, LONG_MIN},
        {"unsigned int", Arg(UINT_MAX), 4, UINT_MAX},
        {"unsigned long", Arg(1UL), 4, 1},
        {"unsigned long above 63 bits", Arg(1UL << 63), 4, LLONG_MIN},  // the bit pattern
        {"unsigned long", Arg(ULONG_MAX), 4, -1},
        {"long long", Arg(LLONG_MIN), 4, LLONG_MIN},
        {"long long", Arg(1LL), 4, 1},
        {"unsigned long long", Arg(ULLONG_MAX), 4, -1},
    };
    for (const number_t& row : rows) {
        SCOPED_TRACE(row.type);
        EXPECT_EQ(row.arg.kind(), row.kind);
        EXPECT_EQ(record_of(row.arg, 0xAA).i, row.value);
    }
}

TEST(UMessageArg, FloatingTypesAreWidened)
{
    EXPECT_EQ(Arg(0.5f).kind(), 5);
    EXPECT_EQ(record_of(Arg(0.5f)).d, 0.5L);
    EXPECT_EQ(Arg(0.1).kind(), 5);
    EXPECT_EQ(record_of(Arg(0.1)).d, static_cast<long double>(0.1));
    EXPECT_EQ(Arg(2.5L).kind(), 5);
    EXPECT_EQ(record_of(Arg(2.5L)).d, 2.5L);
    EXPECT_EQ(record_of(Arg(-1e308)).d, static_cast<long double>(-1e308));
    EXPECT_TRUE(std::isnan(record_of(Arg(std::nan(""))).d));
}

TEST(UMessageArg, NarrowTextsStayAsGiven)
{
    char writable[] = "wr";
    const char* const null = nullptr;
    EXPECT_EQ(Arg("literal").kind(), 6);
    EXPECT_EQ(text_in(Arg("literal")), "literal");
    EXPECT_EQ(Arg(writable).kind(), 6);
    EXPECT_EQ(text_in(Arg(writable)), "wr");
    EXPECT_EQ(Arg(null).kind(), 6);
    EXPECT_EQ(text_in(Arg(null)), "");
    EXPECT_EQ(text_in(Arg("\xC3\x28")), "\xC3\x28");
    EXPECT_EQ(Arg(std::string("text")).kind(), 7);
    EXPECT_EQ(text_in(Arg(std::string("text"))), "text");
    EXPECT_EQ(Arg(Utf8String("text")).kind(), 7);
    EXPECT_EQ(text_in(Arg(Utf8String("\xC3\xA4"))), "\xC3\xA4");
    EXPECT_EQ(text_in(Arg(std::string())), "");
}

TEST(UMessageArg, WideTextsBecomeUtf8)
{
    const unsigned short units[] = {'a', 0xE4, 0xD83D, 0xDE00, 0};
    const unsigned short* const no_units = nullptr;
    const char16_t* const no_text = nullptr;
    EXPECT_EQ(Arg(ustr("\xC3\xA4")).kind(), 8);
    EXPECT_EQ(text_in(Arg(ustr("\xC3\xA4"))), "\xC3\xA4");
    EXPECT_EQ(Arg(units).kind(), 8);
    EXPECT_EQ(text_in(Arg(units)), "a\xC3\xA4\xF0\x9F\x98\x80");
    EXPECT_EQ(Arg(u"\u00E4").kind(), 8);
    EXPECT_EQ(text_in(Arg(u"\u00E4")), "\xC3\xA4");
    EXPECT_EQ(Arg(no_units).kind(), 8);
    EXPECT_EQ(text_in(Arg(no_units)), "");
    EXPECT_EQ(Arg(no_text).kind(), 8);
    EXPECT_EQ(text_in(Arg(no_text)), "");
}

// Short texts are converted on another way than long ones; both are held against the conversion of
// the text itself.
TEST(UMessageArg, TextsOfEveryLengthAreThoseOfTheirUtf8)
{
    for (const std::u16string last : {u"", u"\u00E4", u"\u20AC", u"\U0001F600", u"\xD800"}) {
        for (std::size_t length = 0; length < 600; ++length) {
            std::u16string units(length, u'x');
            units.replace(0, length / 2, length / 2, u'\u20AC');
            const UString text(units + last);
            ASSERT_EQ(text_in(Arg(text)), text.utf8_str()) << length;
            ASSERT_EQ(text_in(Arg(text.c_str())), text.utf8_str()) << length;
        }
    }
    EXPECT_EQ(text_in(Arg(UString(std::u16string(u"a\0b", 3)))), "a");
    EXPECT_EQ(text_in(Arg(UString(std::u16string(u"a\0\xDC00", 3)))), "");
}

TEST(UMessageArg, ResourcesAreClonedAndAskedForTheirText)
{
    const int before = File::alive;
    {
        std::unique_ptr<Arg> arg;
        {
            const File file("\xC3\xA4/b");
            arg = std::make_unique<Arg>(file);
        }
        EXPECT_EQ(File::alive, before + 1);
        EXPECT_EQ(arg->kind(), 9);
        EXPECT_EQ(text_in(*arg), "\xC3\xA4/b");
        const Arg copy(*arg);
        EXPECT_EQ(File::alive, before + 2);
    }
    EXPECT_EQ(File::alive, before);
}

TEST(UMessageArg, ResourceThatCopiesToNothingHasNoText)
{
    const Nothing nothing;
    const Arg arg(nothing);
    const Arg copy(arg);
    EXPECT_EQ(copy.kind(), 9);
    EXPECT_EQ(text_in(copy), "");
    EXPECT_EQ(UMessage::sprintf("<%s>", copy), ustr("<>"));
}

TEST(UMessageArg, EveryTypeConvertsImplicitly)
{
    EXPECT_TRUE((std::is_convertible_v<bool, Arg>));
    EXPECT_TRUE((std::is_convertible_v<long double, Arg>));
    EXPECT_TRUE((std::is_convertible_v<std::size_t, Arg>));
    EXPECT_TRUE((std::is_convertible_v<const char(&)[3], Arg>));
    EXPECT_TRUE((std::is_convertible_v<const char16_t(&)[3], Arg>));
    EXPECT_TRUE((std::is_convertible_v<const unsigned short*, Arg>));
    EXPECT_TRUE((std::is_convertible_v<Utf8String, Arg>));
    EXPECT_TRUE((std::is_convertible_v<UString, Arg>));
    EXPECT_TRUE((std::is_convertible_v<const Resource&, Arg>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Arg>);
}

TEST(UMessageArg, KindZeroLeavesTheRecordUntouched)
{
    const cxPrintfArgVal record = record_of(Arg(), 0x5A);
    unsigned char bytes[sizeof record];
    std::memcpy(bytes, &record, sizeof record);
    for (const unsigned char byte : bytes)
        EXPECT_EQ(byte, 0x5A);
    EXPECT_EQ(Arg::nil.kind(), 0);
}

TEST(UMessageArgUnion, ConstructorsOwnCopies)
{
    typedef UMessage::arg_union_t arg_union_t;
    EXPECT_EQ(sizeof(arg_union_t), 8u);
    EXPECT_EQ(arg_union_t().i64, 0);
    char source[] = "abc";
    const arg_union_t narrow(source);
    source[0] = 'x';
    EXPECT_STREQ(narrow.cstr, "abc");
    delete[] narrow.cstr;
    const arg_union_t null(static_cast<const char*>(nullptr));
    EXPECT_STREQ(null.cstr, "");
    delete[] null.cstr;
    const arg_union_t string(std::string("a\0b", 3));
    EXPECT_EQ(*string.str, std::string("a\0b", 3));
    delete string.str;
    const arg_union_t text(ustr("\xC3\xA4"));
    EXPECT_EQ(*text.str, "\xC3\xA4");
    delete text.str;
    const unsigned short units[] = {0xE4, 0};
    const arg_union_t sixteen(units);
    EXPECT_EQ(*sixteen.str, "\xC3\xA4");
    delete sixteen.str;
    const arg_union_t literal(u"\u00E4");
    EXPECT_EQ(*literal.str, "\xC3\xA4");
    delete literal.str;
    const int before = File::alive;
    {
        const File file("a");
        const arg_union_t resource(file);
        EXPECT_EQ(resource.res->text(), ustr("a"));
        EXPECT_EQ(File::alive, before + 2);
        delete resource.res;
    }
    EXPECT_EQ(File::alive, before);
}

TEST(UMessageArg, TextOfAResourceStaysWhileItIsTheSame)
{
    const Arg arg(File(std::string(100, 'f')));
    const cxPrintfArgVal first = record_of(arg);
    const cxPrintfArgVal second = record_of(arg);
    EXPECT_EQ(first.p, second.p);
    EXPECT_EQ(static_cast<const char*>(first.p), std::string(100, 'f'));
}

TEST(UMessageArg, TextOfAResourceIsTheNewOneWhereItHasChanged)
{
    const Arg arg{Counting()};
    const std::string x(100, 'x');
    EXPECT_EQ(static_cast<const char*>(record_of(arg).p), x + "1");
    EXPECT_EQ(static_cast<const char*>(record_of(arg).p), x + "2");
}

// ---- copies ----

/// One argument of each kind, in order. The low byte of each number is a letter, so that "%c" of it
/// is UTF-8.
std::vector<Arg> one_of_each_kind()
{
    const std::string long_text(95, '.');
    return {Arg(),
            Arg('c'),
            Arg(-191),
            Arg(-190L),
            Arg((1LL << 40) + 'C'),
            Arg(0.5),
            Arg(("narrow text longer than what stands in an argument itself" + long_text).c_str()),
            Arg("string that is longer than what stands in an argument itself" + long_text),
            Arg(ustr("text that is longer than what stands in an argument itself" + long_text)),
            Arg(File("resource that is longer than inline storage")),
            Arg("short"),
            Arg(std::string("short")),
            Arg(ustr("short"))};
}

void expect_same(const Arg& a, const Arg& b)
{
    ASSERT_EQ(a.kind(), b.kind());
    if (a.kind() == 0)
        return;
    if (a.kind() < 5) {
        EXPECT_EQ(record_of(a).i, record_of(b).i);
    } else if (a.kind() == 5) {
        EXPECT_EQ(record_of(a).d, record_of(b).d);
    } else {
        EXPECT_EQ(text_in(a), text_in(b));
        EXPECT_NE(record_of(a).p, record_of(b).p);
    }
}

TEST(UMessageArg, CopiesOfEveryKindAreDeep)
{
    std::vector<Arg> all = one_of_each_kind();
    for (int kind = 0; kind <= 9; ++kind)
        EXPECT_EQ(all[static_cast<std::size_t>(kind)].kind(), kind);
    for (const Arg& arg : all) {
        const Arg copy(arg);
        expect_same(copy, arg);
        for (const Arg& old : all) {
            Arg assigned(old);
            Arg& result = assigned = arg;
            EXPECT_EQ(&result, &assigned);
            expect_same(assigned, arg);
        }
    }
}

TEST(UMessageArg, CanBeAssignedItself)
{
    for (Arg& arg : one_of_each_kind()) {
        const Arg before(arg);
        const Arg& self = arg;
        arg = self;
        expect_same(arg, before);
    }
}

TEST(UMessageArg, MovesLeaveKindZero)
{
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Arg>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Arg>);
    for (Arg& arg : one_of_each_kind()) {
        const Arg before(arg);
        Arg moved(std::move(arg));
        EXPECT_EQ(arg.kind(), 0);
        expect_same(moved, before);
        Arg target("overwritten");
        target = std::move(moved);
        EXPECT_EQ(moved.kind(), 0);
        expect_same(target, before);
        Arg& self = target;
        target = std::move(self);
        expect_same(target, before);
    }
}

/// A text of each length in each of the kinds that hold one.
std::vector<Arg> texts_of_length(std::size_t length)
{
    const std::string text(length, 't');
    return {Arg(text.c_str()), Arg(text), Arg(ustr(text))};
}

TEST(UMessageArg, TextsOfAnyLengthAreCopiedAndMoved)
{
    for (std::size_t length = 0; length < 130; ++length) {
        const std::string expected(length, 't');
        for (Arg& arg : texts_of_length(length)) {
            Arg copy(std::string(129, 'b'));  // longer than what stands in an argument itself
            copy = arg;
            Arg moved(std::move(arg));
            EXPECT_EQ(arg.kind(), 0);
            EXPECT_EQ(text_in(copy), expected);
            EXPECT_EQ(text_in(moved), expected);
            copy = std::move(moved);
            EXPECT_EQ(text_in(copy), expected);
        }
    }
}

TEST(UMessageArg, TextsOfAnyLengthAreSwapped)
{
    for (std::size_t length = 0; length < 130; ++length) {
        Arg a = texts_of_length(length)[0];
        for (Arg& b : one_of_each_kind()) {
            const Arg before(b);
            std::swap(a, b);
            expect_same(a, before);
            EXPECT_EQ(text_in(b), std::string(length, 't'));
            std::swap(a, b);
        }
    }
}

TEST(UMessageArg, ShortTextsNeedNoMemory)
{
    const std::vector<Arg> all = texts_of_length(95);
    Arg target("before");
    for (const Arg& arg : all)
        EXPECT_EQ(for_each_memory_fault([&] { target = arg; }, [] {}), 0);
    EXPECT_EQ(text_in(target), std::string(95, 't'));
}

TEST(UMessageArg, RecordOfAShortTextLivesAsLongAsTheArgument)
{
    const UMessage message(kvutil, 15, "short", std::string(96, 'l'));
    const cxPrintfArgVal record = record_of(message.arguments()[0]);
    const UMessage copy(message);
    EXPECT_EQ(record_of(message.arguments()[0]).p, record.p);
    EXPECT_NE(record_of(copy.arguments()[0]).p, record.p);
    EXPECT_STREQ(static_cast<const char*>(record.p), "short");
}

TEST(UMessageArg, AssignmentThatThrowsChangesNothing)
{
    const Arg source{Uncopyable(1)};
    Arg target("kept");
    EXPECT_THROW(target = source, std::runtime_error);
    EXPECT_EQ(text_in(target), "kept");
    EXPECT_THROW(Arg{source}, std::runtime_error);
    EXPECT_EQ(text_in(source), "uncopyable");
}

TEST(UMessageArg, AssignmentWithoutMemoryChangesNothing)
{
    const std::vector<Arg> all = one_of_each_kind();
    for (std::size_t kind = 6; kind <= 9; ++kind) {
        Arg target("kept");
        const int faults = for_each_memory_fault([&] { target = all[kind]; },
                                                 [&] { EXPECT_EQ(text_in(target), "kept"); });
        EXPECT_GE(faults, 1) << kind;
        expect_same(target, all[kind]);
    }
}

// ---- messages ----

TEST(UMessage, LeavesOutArgumentsOfKindZeroOneByOne)
{
    const UMessage one(kvutil, 7, Arg::nil, "second");
    ASSERT_EQ(one.arguments().size(), 1u);
    EXPECT_EQ(one.message_string(),
              ustr("PLXSV0657E Invalid Oid/Uuid format for arg: 'second' with value: '(null)'"));
    const UMessage four(kvutil, 3, Arg::nil, "a", Arg::nil, Arg(), "b", Arg::nil, "c", Arg::nil,
                        Arg::nil, "d");
    ASSERT_EQ(four.arguments().size(), 4u);
    EXPECT_EQ(text_in(four.arguments()[0]), "a");
    EXPECT_EQ(text_in(four.arguments()[1]), "b");
    EXPECT_EQ(text_in(four.arguments()[2]), "c");
    EXPECT_EQ(text_in(four.arguments()[3]), "d");
    EXPECT_TRUE(UMessage(kvutil, 2).arguments().empty());
    EXPECT_EQ(UMessage(kvutil, 2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10).arguments().size(), 10u);
}

TEST(UMessage, KeepsWhatItWasMadeFrom)
{
    const UMessage message(kvutil, 15, "file", "reason");
    EXPECT_EQ(message.catalogue(), kvutil);
    EXPECT_EQ(message.index(), 15);
    EXPECT_FALSE(message.is_nil());
    EXPECT_EQ(message.message_string(), ustr("PLXSV0665E Unable to open file 'file': reason."));
}

TEST(UMessage, IsNilWithoutCatalogueAndIndex)
{
    EXPECT_TRUE(UMessage::nil.is_nil());
    EXPECT_TRUE(UMessage().is_nil());
    EXPECT_TRUE(UMessage(nullptr, -1, "argument").is_nil());
    EXPECT_TRUE(UMessage(UMessage::nil).is_nil());
    EXPECT_FALSE(UMessage(kvutil, -1).is_nil());
    EXPECT_FALSE(UMessage(nullptr, 0).is_nil());
    EXPECT_FALSE(UMessage(nullptr, 1).is_nil());
    EXPECT_EQ(UMessage::nil.catalogue(), nullptr);
    EXPECT_EQ(UMessage::nil.index(), -1);
    EXPECT_TRUE(UMessage::nil.arguments().empty());
}

TEST(UMessage, RendersAsNothingWithoutCatalogueOrIndex)
{
    EXPECT_EQ(UMessage::nil.message_string(), UString());
    EXPECT_EQ(UMessage(nullptr, 7, "a").message_string(), UString());
    EXPECT_EQ(UMessage(kvutil, -1, "a").message_string(), UString());
}

TEST(UMessage, RendersTheFallbackForAMissingMessage)
{
    const UString fallback = ustr("Could not locate Catalog File");
    EXPECT_EQ(UMessage(kvutil, 22).message_string(), fallback);
    EXPECT_EQ(UMessage(kvutil, 0, "a").message_string(), fallback);
    EXPECT_EQ(UMessage(kvutil, -2).message_string(), fallback);
    EXPECT_EQ(UMessage(kvutil, INT_MAX).message_string(), fallback);
    EXPECT_EQ(UMessage::sprintf(static_cast<const char**>(nullptr), 1, "a"), fallback);
}

TEST(UMessage, RendersEveryMessageOfTheCatalogue)
{
    EXPECT_EQ(UMessage(kvutil, 1, -7).message_string(),
              ustr("PLXSV0651E Can't generate a UUID (possible network/adapter configuration "
                   "problem) - UuidCreate error -7"));
    EXPECT_EQ(UMessage(kvutil, 2).message_string(), ustr(kvutil[2]));
    EXPECT_EQ(UMessage(kvutil, 3, "f", "12", "x.cpp").message_string(),
              ustr("PLXSV0653E Internal error: f(), at line: 12 in file: 'x.cpp'"));
    EXPECT_EQ(UMessage(kvutil, 19, "/tmp/x").message_string(),
              ustr("PLXSV0669E Error converting '/tmp/x' to default character set."));
    for (int index = 1; index <= 21; ++index) {
        std::string expected = kvutil[index];
        for (const char* letter : {"a", "b", "c"}) {
            const auto conversion = expected.find("%s");
            if (conversion != std::string::npos)
                expected.replace(conversion, 2, letter);
        }
        if (index != 1) {
            EXPECT_EQ(UMessage(kvutil, index, "a", "b", "c").message_string(), ustr(expected));
        }
    }
}

TEST(UMessage, KeepsTextsOfItsOwn)
{
    auto source = std::make_unique<UMessage>(kvutil, 13, "%20");
    const UMessage copy(*source);
    UMessage assigned(kvutil, 2);
    assigned = *source;
    source.reset();
    EXPECT_EQ(copy.message_string(), ustr("PLXSV0663E Invalid escape sequence in URI '%20'"));
    EXPECT_EQ(assigned.message_string(), copy.message_string());
}

TEST(UMessage, TakesTemporaryArgumentsAndCopiesOthers)
{
    File::times_copied = 0;
    const UMessage one(kvutil, 13, File("a"));
    EXPECT_EQ(File::times_copied, 1);  // the argument's own
    const UMessage two(kvutil, 12, File("a"), File("b"));
    EXPECT_EQ(File::times_copied, 3);
    const UMessage three(kvutil, 3, File("a"), Arg(), File("c"));
    EXPECT_EQ(File::times_copied, 5);
    EXPECT_EQ(three.arguments().size(), 2u);
    EXPECT_EQ(text_in(three.arguments()[1]), "c");
    const Arg lasting(File("a"));
    File::times_copied = 0;
    const UMessage copied(kvutil, 12, lasting, "b");
    EXPECT_EQ(File::times_copied, 1);
    EXPECT_EQ(text_in(lasting), "a");
    Arg given(File("a"));
    const UMessage taken(kvutil, 13, std::move(given));
    EXPECT_EQ(given.kind(), 0);
    EXPECT_EQ(text_in(taken.arguments()[0]), "a");
    EXPECT_TRUE(UMessage(kvutil, 13, Arg()).arguments().empty());
}

TEST(UMessage, CanBeAssignedItself)
{
    UMessage message(kvutil, 13, "a");
    const UMessage& self = message;
    message = self;
    EXPECT_EQ(message.message_string(), ustr("PLXSV0663E Invalid escape sequence in URI 'a'"));
}

TEST(UMessage, MovesLeaveTheNilMessage)
{
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<UMessage>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<UMessage>);
    UMessage source(kvutil, 13, "a");
    UMessage moved(std::move(source));
    EXPECT_TRUE(source.is_nil());
    EXPECT_TRUE(source.arguments().empty());
    UMessage target(kvutil, 2);
    target = std::move(moved);
    EXPECT_TRUE(moved.is_nil());
    EXPECT_EQ(target.message_string(), ustr("PLXSV0663E Invalid escape sequence in URI 'a'"));
}

TEST(UMessage, AssignmentThatThrowsChangesNothing)
{
    const UMessage source(kvutil, 12, "first", Uncopyable(1));
    UMessage target(kvutil, 13, "kept");
    EXPECT_THROW(target = source, std::runtime_error);
    EXPECT_EQ(target.message_string(), ustr("PLXSV0663E Invalid escape sequence in URI 'kept'"));
    const Arg uncopyable{Uncopyable(1)};
    EXPECT_THROW(UMessage(kvutil, 12, "first", uncopyable), std::runtime_error);
}

TEST(UMessage, AssignmentWithoutMemoryChangesNothing)
{
    const std::string text(100, 't');
    const UMessage source(kvutil, 3, text.c_str(), text, ustr(text), File("file"));
    UMessage target(kvutil, 13, "kept");
    const auto unchanged = [&] {
        EXPECT_EQ(target.index(), 13);
        ASSERT_EQ(target.arguments().size(), 1u);
        EXPECT_EQ(text_in(target.arguments()[0]), "kept");
    };
    EXPECT_GE(for_each_memory_fault([&] { target = source; }, unchanged), 5);
    EXPECT_EQ(target.arguments().size(), 4u);
    EXPECT_GE(for_each_memory_fault([&] { UMessage(kvutil, 3, text, text, text); }, [] {}), 4);
}

TEST(UMessage, RendersAnyNumberOfArgumentsAndConversions)
{
    const Arg nine(9);
    for (std::size_t arguments = 0; arguments < 45; ++arguments) {
        std::string format, expected;
        for (std::size_t conversions = 1; conversions < 45; ++conversions) {
            format += "%d";
            expected += conversions <= arguments ? '9' : '0';
            EXPECT_EQ(UMessage::sprintf(format.c_str(), std::vector<const Arg*>(arguments, &nine)),
                      ustr(expected));
        }
    }
}

TEST(UMessage, RendersWithoutMemoryOrThrows)
{
    const UMessage message(kvutil, 12, std::string(5000, 'a'), File(std::string(5000, 'b')));
    UString text = ustr("kept");
    EXPECT_GE(for_each_memory_fault([&] { text = message.message_string(); },
                                    [&] { EXPECT_EQ(text, ustr("kept")); }),
              1);
    EXPECT_EQ(text.length(), 10000 + std::strlen("PLXSV0662E The URI '' is not valid: "));
    const std::vector<const Arg*> none;
    EXPECT_GE(
        for_each_memory_fault([&] { text = UMessage::sprintf("%y%s%*c%.3S%d", 1.5, "x", 3, 'c'); },
                              [&] { EXPECT_EQ(text.length(), 10036u); }),
        1);
}

// ---- collections ----

UMessage::collection_t collection_of(std::initializer_list<int> indexes)
{
    UMessage::collection_t messages;
    for (const int index : indexes)
        messages.push_back(UMessage(kvutil, index, "a", "b"));
    return messages;
}

std::vector<int> indexes_of(const UMessage::collection_t& messages)
{
    std::vector<int> indexes;
    for (const UMessage& message : messages)
        indexes.push_back(message.index());
    return indexes;
}

TEST(UMessageCollection, IsASequence)
{
    UMessage::collection_t messages;
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(messages.size(), 0u);
    EXPECT_EQ(messages.begin(), messages.end());
    messages.reserve(3);
    messages.push_back(UMessage(kvutil, 2));
    messages.push_back(UMessage(kvutil, 13, "a"));
    messages.push_back(messages[0]);
    EXPECT_FALSE(messages.empty());
    EXPECT_EQ(messages.size(), 3u);
    EXPECT_EQ(indexes_of(messages), (std::vector<int>{2, 13, 2}));
    messages[2] = UMessage(kvutil, 5);
    EXPECT_EQ(std::as_const(messages)[2].index(), 5);
    for (UMessage& message : messages)
        message = UMessage(kvutil, 6);
    EXPECT_EQ(indexes_of(messages), (std::vector<int>{6, 6, 6}));
    messages.clear();
    EXPECT_TRUE(messages.empty());
}

TEST(UMessageCollection, CopiesAreIndependent)
{
    UMessage::collection_t original = collection_of({1, 2});
    const UMessage::collection_t copy(original);
    UMessage::collection_t assigned = collection_of({9});
    assigned = original;
    const UMessage::collection_t& self = original;
    original = self;
    original.clear();
    EXPECT_EQ(indexes_of(copy), (std::vector<int>{1, 2}));
    EXPECT_EQ(indexes_of(assigned), (std::vector<int>{1, 2}));
    const UMessage::collection_t moved(std::move(assigned));
    EXPECT_EQ(indexes_of(moved), (std::vector<int>{1, 2}));
    EXPECT_TRUE(assigned.empty());
}

TEST(UMessageCollection, AppendsInOrder)
{
    UMessage::collection_t messages = collection_of({1, 2});
    UMessage::collection_t& result = messages += collection_of({3, 4});
    EXPECT_EQ(&result, &messages);
    EXPECT_EQ(indexes_of(messages), (std::vector<int>{1, 2, 3, 4}));
    messages += messages;
    EXPECT_EQ(indexes_of(messages), (std::vector<int>{1, 2, 3, 4, 1, 2, 3, 4}));
    messages += UMessage::collection_t();
    EXPECT_EQ(messages.size(), 8u);
}

TEST(UMessageConstructor, ReservesTwoOrTenSlots)
{
    const UMessage::Arg a("a");
    EXPECT_EQ(UMessage(kvutil, 7, a, a).arguments().capacity(), 2u);
    EXPECT_EQ(UMessage(kvutil, 7, "a").arguments().capacity(), 2u);
    EXPECT_EQ(UMessage(kvutil, 7, "a", "b").arguments().capacity(), 2u);
    EXPECT_EQ(UMessage(kvutil, 7, a, a, a).arguments().capacity(), 10u);
    EXPECT_EQ(UMessage(kvutil, 7, "a", "b", "c").arguments().capacity(), 10u);
}

TEST(UMessageCollection, AppendingManyTimesMovesSeldom)
{
    const UMessage::collection_t one = collection_of({1});
    UMessage::collection_t messages;
    const UMessage* place = nullptr;
    int times_moved = 0;
    for (int i = 0; i < 1000; ++i) {
        messages += one;
        times_moved += std::exchange(place, &messages[0]) != &messages[0];
    }
    EXPECT_EQ(messages.size(), 1000u);
    EXPECT_LE(times_moved, 50);
}

TEST(UMessageCollection, ChangesNothingWithoutMemory)
{
    UMessage::collection_t messages = collection_of({1, 2});
    const UMessage::collection_t more = collection_of({3, 4});
    const UMessage message(kvutil, 5, "a", "b");
    const auto unchanged = [&] {
        EXPECT_EQ(messages.size(), 2u);
        EXPECT_EQ(messages[0].index(), 1);
        EXPECT_EQ(messages[1].index(), 2);
    };
    EXPECT_GE(for_each_memory_fault([&] { messages += more; }, unchanged), 3);
    messages = collection_of({1, 2});
    EXPECT_GE(for_each_memory_fault([&] { messages += messages; }, unchanged), 3);
    messages = collection_of({1, 2});
    EXPECT_GE(for_each_memory_fault([&] { messages.push_back(message); }, unchanged), 2);
    messages = collection_of({1, 2});
    EXPECT_GE(for_each_memory_fault([&] { messages = more; }, unchanged), 3);
    messages = collection_of({1, 2});
    EXPECT_EQ(for_each_memory_fault([&] { messages.reserve(100); }, unchanged), 1);
}

// ---- rendering: forms ----

TEST(UMessageSprintf, EveryFormFillsTheFormat)
{
    const Arg text("text");
    const Arg number(7);
    const std::vector<const Arg*> both{&text, &number};
    EXPECT_EQ(UMessage::sprintf("%s=%d", both), ustr("text=7"));
    EXPECT_EQ(UMessage::sprintf("<%s>", text), ustr("<text>"));
    EXPECT_EQ(UMessage::sprintf("%s=%d", text, number), ustr("text=7"));
    EXPECT_EQ(UMessage::sprintf(ustr("ä%s=%d"), both), ustr("ätext=7"));
    EXPECT_EQ(UMessage::sprintf(ustr("<%s>"), text), ustr("<text>"));
    EXPECT_EQ(UMessage::sprintf(ustr("%s=%d"), text, number), ustr("text=7"));
    EXPECT_EQ(UMessage::sprintf(kvutil, 12, both),
              ustr("PLXSV0662E The URI 'text' is not valid: 7"));
    EXPECT_EQ(UMessage::sprintf(kvutil, 12, both, "extra"),
              ustr("PLXSV0662E The URI 'text' is not valid: 7"));
    EXPECT_EQ(UMessage::sprintf(kvutil, 13, text),
              ustr("PLXSV0663E Invalid escape sequence in URI 'text'"));
    EXPECT_EQ(UMessage::sprintf(kvutil, 12, text, number),
              ustr("PLXSV0662E The URI 'text' is not valid: 7"));
}

TEST(UMessageSprintf, TakesTenArgumentsAndLeavesOutThoseOfKindZero)
{
    EXPECT_EQ(UMessage::sprintf("%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 0),
              ustr("1234567890"));
    EXPECT_EQ(UMessage::sprintf(ustr("%d%d%d%d%d%d%d%d%d%d"), 1, 2, 3, 4, 5, 6, 7, 8, 9, 0),
              ustr("1234567890"));
    EXPECT_EQ(UMessage::sprintf("%s%s", Arg::nil, "a", Arg(), "b"), ustr("ab"));
    EXPECT_EQ(UMessage::sprintf("%s", Arg::nil), ustr("(null)"));
}

TEST(UMessageSprintf, CountsNothingInAVectorAsAPlaceWithoutArgument)
{
    const Arg text("b");
    const std::vector<const Arg*> args{&Arg::nil, &text, nullptr, &text};
    EXPECT_EQ(UMessage::sprintf("%d%s%s%s", args), ustr("0b(null)b"));
    EXPECT_EQ(UMessage::sprintf("%f", std::vector<const Arg*>{nullptr}), ustr("0.000000"));
    EXPECT_EQ(UMessage::sprintf("%s", std::vector<const Arg*>{}), ustr("(null)"));
}

TEST(UMessageSprintf, TakesAVectorOfAnyLength)
{
    std::vector<Arg> args;
    std::vector<const Arg*> pointers;
    std::string format, expected;
    for (int i = 0; i < 500; ++i) {
        args.emplace_back(i);
        format += "%d,";
        expected += std::to_string(i) + ",";
    }
    for (const Arg& arg : args)
        pointers.push_back(&arg);
    EXPECT_EQ(UMessage::sprintf(format.c_str(), pointers), ustr(expected));
    EXPECT_EQ(UMessage::sprintf("%500$s %499$d", pointers), ustr("499 498"));
}

TEST(UMessageSprintf, TakesFormatsWithoutConversionsAsTheyAre)
{
    const std::vector<const Arg*> none;
    EXPECT_EQ(UMessage::sprintf("", none), UString());
    EXPECT_EQ(UMessage::sprintf(static_cast<const char*>(nullptr), none), UString());
    EXPECT_EQ(UMessage::sprintf("plain", none), ustr("plain"));
    EXPECT_EQ(UMessage::sprintf("plain", "unused"), ustr("plain"));
    EXPECT_EQ(UMessage::sprintf("100%%", none), ustr("100%"));
    EXPECT_EQ(UMessage::sprintf(UString(), none), UString());
}

// Deliberate: the finished text is decoded at once.
TEST(UMessageSprintf, IsEmptiedByAByteThatIsNotUtf8)
{
    EXPECT_EQ(UMessage::sprintf("a %s", "\xC3\x28"), UString());
    EXPECT_EQ(UMessage::sprintf("\xFF %s", "a"), UString());
    EXPECT_EQ(UMessage::sprintf("%c", '\xE9'), UString());
    EXPECT_EQ(UMessage::sprintf("%c%c", '\xC3', '\xA4'), ustr("ä"));
}

// Messages of different lengths, and those that are not ASCII, are decoded on ways of their own.
TEST(UMessageSprintf, DecodesEveryLengthOfAsciiAndOfOthers)
{
    for (std::size_t length = 0; length < 300; ++length) {
        const std::string ascii(length, 'x');
        ASSERT_EQ(utf8(UMessage::sprintf("%s", ascii)), ascii);
        for (const std::size_t at : {std::size_t{0}, length / 2, length}) {
            const std::string begin = ascii.substr(0, at), end = ascii.substr(at);
            const std::string text = begin + "\xE2\x82\xAC" + end;
            ASSERT_EQ(UMessage::sprintf("%s", text), UString(Utf8String(text))) << length;
            ASSERT_EQ(UMessage::sprintf("%s", begin + "\xE2\x82" + end), UString()) << length;
        }
    }
}

// Deliberate: texts are handed over zero-terminated.
TEST(UMessageSprintf, EndsATextAtItsFirstZero)
{
    EXPECT_EQ(UMessage::sprintf("<%s>", std::string("a\0b", 3)), ustr("<a>"));
    EXPECT_EQ(UMessage::sprintf("<%s>", UString(std::u16string(u"a\0b", 3))), ustr("<a>"));
}

TEST(UMessageSprintf, NeverCutsALongText)
{
    const std::string text(1 << 20, 'x');
    EXPECT_EQ(UMessage::sprintf("<%s>", text), ustr("<" + text + ">"));
    EXPECT_EQ(UMessage(kvutil, 13, text).message_string().length(),
              text.size() + std::strlen("PLXSV0663E Invalid escape sequence in URI ''"));
    EXPECT_EQ(UMessage::sprintf(text.c_str(), 1), ustr(text));
    EXPECT_EQ(UMessage::sprintf("%d %s", text, text).length(), 2 * text.size() + 1);
}

TEST(UMessageSprintf, TakesUpToTenArguments)
{
    const char* four[] = {"four 1", "%d%d%d%d"};
    const char* ten[] = {"ten 1", "%d%d%d%d%d%d%d%d%d%d"};
    EXPECT_EQ(UMessage::sprintf(four, 1, 1, 2, 3, 4), ustr("1234"));
    EXPECT_EQ(UMessage::sprintf(ten, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0), ustr("1234567890"));
    EXPECT_EQ(UMessage::sprintf(four[1], 1, 2, 3, 4), ustr("1234"));
    EXPECT_EQ(UMessage::sprintf(ten[1], 1, 2, 3, 4, 5, 6, 7, 8, 9, 0), ustr("1234567890"));
}

// ---- rendering: resources ----

TEST(UMessageSprintf, AsksAResourceOncePerPlace)
{
    const Arg file(File("file"));
    const std::vector<const Arg*> twice{&file, &file};
    File::times_asked = 0;
    EXPECT_EQ(UMessage::sprintf("%s %s", twice), ustr("file file"));
    EXPECT_EQ(File::times_asked, 2);
    EXPECT_EQ(UMessage::sprintf("%1$s %1$s %1$d", file), ustr("file file file"));
    EXPECT_EQ(File::times_asked, 3);
}

TEST(UMessageSprintf, KeepsTheTextsOfOneResourceInTwoPlaces)
{
    const Arg counting{Counting()};
    const std::vector<const Arg*> twice{&counting, &counting};
    const std::string x(100, 'x');
    EXPECT_EQ(UMessage::sprintf("%s %s", twice), ustr(x + "1 " + x + "2"));
}

TEST(UMessageSprintf, LetsExceptionsOfAResourcePass)
{
    EXPECT_THROW(UMessage::sprintf("%s %s", "a", Mute()), std::runtime_error);
    EXPECT_THROW(UMessage(kvutil, 13, Mute()).message_string(), std::runtime_error);
}

class Nested : public Resource {
public:
    Resource* do_clone() const override { return new Nested(*this); }
    UString text() const override { return UMessage(kvutil, 13, "inner").message_string(); }
};

TEST(UMessageSprintf, MayBeUsedByAResourceForItsText)
{
    EXPECT_EQ(UMessage(kvutil, 20, Nested()).message_string(),
              ustr("PLXSV0670E Application Resource Measurement (ARM) error: PLXSV0663E Invalid "
                   "escape sequence in URI 'inner'."));
}

TEST(UMessage, IsRenderedByThreadsAtOnce)
{
    const UMessage message(kvutil, 12, File("file"), 1);
    const auto render = [&message] {
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(utf8(message.message_string()), "PLXSV0662E The URI 'file' is not valid: 1");
    };
    std::thread other(render);
    render();
    other.join();
}

// ---- rendering: conversions against arguments ----

struct rendering_t {
    const char* format;
    std::vector<Arg> args;
    const char* text;
};

void expect_rendered(const std::vector<rendering_t>& rows)
{
    for (const rendering_t& row : rows) {
        std::vector<const Arg*> args;
        for (const Arg& arg : row.args)
            args.push_back(&arg);
        EXPECT_EQ(utf8(UMessage::sprintf(row.format, args)), row.text) << row.format;
    }
}

TEST(UMessageRendering, ConversionsThatFitPrintAsInC)
{
    expect_rendered({
        {"%d %i %u", {-1, 2L, 3u}, "-1 2 3"},
        {"%x %X %o %#x", {255, 255, 8, 255}, "ff FF 10 0xff"},
        {"%5d|%-5d|%05d|%+d|% d", {42, 42, 42, 42, 42}, "   42|42   |00042|+42| 42"},
        {"%.3d|%6.3d", {7, 7}, "007|   007"},
        {"%ld %lld %hd %hhd", {1L << 40, 1LL << 40, 65537, 257}, "1099511627776 1099511627776 1 1"},
        {"%zd %jd %td", {1, 2, 3}, "1 2 3"},
        {"%c%c", {'a', 98}, "ab"},
        {"%3c|%-3c|", {'a', 'b'}, "  a|b  |"},
        {"%.2f %e %g", {1.5, 1.5, 1.5}, "1.50 1.500000e+00 1.5"},
        {"%lf %Lf", {1.5, 1.5}, "1.500000 1.500000"},
        {"%s|%5s|%-5s|%.2s", {"abc", "abc", "abc", "abc"}, "abc|  abc|abc  |ab"},
        {"%*d|%-*d|%.*s", {5, 42, 5, 42, 2, "abc"}, "   42|42   |ab"},
        {"%*d|", {-5, 42}, "42   |"},
        {"%.*s|", {-1, "abc"}, "abc|"},
        {"%2$s %1$s", {"a", "b"}, "b a"},
        {"%1$s %1$s", {"a"}, "a a"},
        {"%2$*1$d", {5, 42}, "   42"},
        {"%u", {1UL << 63}, "9223372036854775808"},
        {"%d", {ULONG_MAX}, "-1"},
    });
}

// Neither fits, which only who finds the second conversion sees.
TEST(UMessageRendering, ConversionsAreFoundAtAnyDistance)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string between(length, '-');
        const std::string format = between + "%d" + between + "%s" + between + "%%" + between;
        ASSERT_EQ(utf8(UMessage::sprintf(format.c_str(), "text", 7)),
                  between + "text" + between + "7" + between + "%" + between);
    }
}

TEST(UMessageRendering, TextConversionPrintsNumbers)
{
    expect_rendered({
        {"%s", {42}, "42"},
        {"%s", {-42L}, "-42"},
        {"%s", {LLONG_MIN}, "-9223372036854775808"},
        {"%s", {true}, "1"},
        {"%s", {'a'}, "a"},  // a character is a text of one
        {"<%s>", {'\0'}, "<>"},
        {"%s", {2.5}, "2.5"},
        {"%s", {0.1}, "0.1"},
        {"%s", {1e100}, "1e+100"},
        {"%s", {-std::numeric_limits<double>::infinity()}, "-inf"},
        {"%s", {std::nan("")}, "nan"},
        {"%5s|%-5s|%5s", {42, 42, 2.5}, "   42|42   |  2.5"},
        {"%.1s|%.1s", {42, 2.5}, "42|2.5"},  // a number is never cut
        {"%s%s%s", {1, "two", 3.5}, "1two3.5"},
        {"%S %ls", {42, 42}, "42 42"},
    });
}

TEST(UMessageRendering, NumericConversionPrintsTexts)
{
    for (const char letter : std::string("diouxXcCeEfFgGaA")) {
        const std::string format = std::string("<%") + letter + ">";
        expect_rendered({{format.c_str(), {"text"}, "<text>"},
                         {format.c_str(), {std::string("text")}, "<text>"},
                         {format.c_str(), {ustr("text")}, "<text>"},
                         {format.c_str(), {File("text")}, "<text>"}});
    }
    expect_rendered({
        {"%5d|%-5x|%+05d|%.1f|%ld", {"ab", "ab", "ab", "ab", "ab"}, "   ab|ab   |   ab|ab|ab"},
        {"%d %s", {"a", 1}, "a 1"},
    });
}

TEST(UMessageRendering, NumbersAreConverted)
{
    expect_rendered({
        {"%f|%.2f|%g|%e", {1, 2L, 'A', -1LL}, "1.000000|2.00|65|-1.000000e+00"},
        {"%d|%i|%d|%5d|", {2.75, -2.75, 1e15, 2.75}, "2|-2|1000000000000000|    2|"},
        {"%x|%u", {255.9, 3.9}, "ff|3"},
        {"%d|%d",
         {-9223372036854775808.0, 9223372036854774784.0},
         "-9223372036854775808|9223372036854774784"},
        {"%d|%d|%x",
         {1e300, 9223372036854775808.0, -std::numeric_limits<double>::infinity()},
         "1e+300|9223372036854775808|-inf"},
        {"%d", {std::nan("")}, "nan"},
        {"%c", {2.5}, "2.5"},
    });
}

TEST(UMessageRendering, MissingArgumentsReadAsNothing)
{
    expect_rendered({
        {"%s|%d|%x|%f|%s", {"a"}, "a|0|0|0.000000|(null)"},
        {"%S|%ls", {}, "(null)|(null)"},
        {"%*d|%.*f", {}, "0|0"},
        {"%3$s|%1$s", {"a"}, "(null)|a"},
        {"%9999999999$s|%1$s", {"a"}, "(null)|a"},
        {"%1$*9$d", {1}, "1"},
        {"<%c>", {}, "<>"},  // a zero byte would end the text
        {"<%3c>", {}, "<   >"},
    });
}

TEST(UMessageRendering, WhatIsNoConversionStaysInTheText)
{
    expect_rendered({
        {"%n", {}, "%n"},
        {"%n%s", {"a"}, "%na"},
        {"%5n|%hhn|%1$n|%-ln|%s", {"a"}, "%5n|%hhn|%1$n|%-ln|a"},
        {"%p|%s", {"a"}, "%p|a"},
        {"%y %s", {"a"}, "%y a"},
        {"%", {}, "%"},
        {"%s%", {"a"}, "a%"},
        {"100% %s", {"a"}, "100% a"},
        {"%-%s", {"a"}, "%-a"},
        {"%5%|%s", {"a"}, "%5%|a"},
        {"%1$", {"a"}, "%1$"},
        {"%0$s|%s", {"a"}, "%0$s|a"},
        {"%*5d|%s", {"a"}, "%*5d|a"},
        {"%hhhd|%s", {"a"}, "%hhhd|a"},
        {"%.", {}, "%."},
        {"%.-5d|%s", {"a"}, "%.-5d|a"},
        {"%l", {}, "%l"},
        {"%m|%s", {"a"}, "%m|a"},
        {"%y%%%s", {"a"}, "%y%a"},
        {"%%s%y%s", {"a"}, "%s%ya"},
        {"%\xC3\xA4%s",
         {"a"},
         "%\xC3\xA4"
         "a"},
    });
}

TEST(UMessageRendering, IgnoresWhatCLeavesUndefined)
{
    expect_rendered({
        {"%05s|%#s|%+s", {"ab", "ab", "ab"}, "   ab|ab|ab"},
        {"%.1c|%03c", {'a', 'b'}, "a|  b"},
        {"%#d|%#u", {7, 7}, "7|7"},
        {"%hs|%zs|%Ls|%hf|%lc|%Ld|%qd", {"a", "b", "c", 1.5, 'd', 1, 2}, "a|b|c|1.500000|d|1|2"},
        {"%'d|%'.1f", {1234567, 1234567.5}, "1234567|1234567.5"},
    });
}

TEST(UMessageRendering, OrderByNumberIsSafeInAnyMixture)
{
    expect_rendered({
        {"%1$s %1$d", {42}, "42 42"},
        {"%1$d %1$s", {"a"}, "a a"},
        {"%2$d %1$s", {"a", "b"}, "b a"},
        {"%1$f %1$s %1$d", {2.5}, "2.500000 2.5 2"},
        {"%2$s %s %s %1$s", {"a", "b"}, "b a b a"},  // without number: the next one
        {"%s %2$d", {"a", "b"}, "a b"},
    });
}

TEST(UMessageRendering, FieldsFromArgumentsOfAnotherKind)
{
    expect_rendered({
        {"%*d|%d", {"text", 1, 2}, "1|2"},  // a text is no width
        {"%*d|", {3.9, 1}, "  1|"},
        {"%.*f|", {"text", 1.5}, "2|"},  // nor a precision: 0, and the tie goes to even
        {"%-*d|", {std::nan(""), 1}, "1|"},
    });
}

std::string rendered_width(const char* format, const Arg& a, const Arg& b = Arg::nil)
{
    return std::to_string(UMessage::sprintf(format, a, b).length());
}

TEST(UMessageRendering, FieldsAreCapped)
{
    EXPECT_EQ(rendered_width("%65535d", 1), "65535");
    EXPECT_EQ(rendered_width("%65536d", 1), "65535");
    EXPECT_EQ(rendered_width("%99999999999999999999s", "a"), "65535");
    EXPECT_EQ(rendered_width("%*d", 65536, 1), "65535");
    EXPECT_EQ(rendered_width("%*d", LLONG_MAX, 1), "65535");
    EXPECT_EQ(rendered_width("%*d", LLONG_MIN, 1), "65535");
    EXPECT_EQ(rendered_width("%*d", INT_MIN, 1), "65535");
    EXPECT_EQ(rendered_width("%*d", 1e300, 1), "65535");
    EXPECT_EQ(rendered_width("%.2000000000d", 1), "65535");
    EXPECT_EQ(rendered_width("%.*d", INT_MAX, 1), "65535");
    EXPECT_EQ(rendered_width("%.*d", LLONG_MIN, 1), "1");
    EXPECT_EQ(rendered_width("%.99999s", std::string(70000, 'x')), "65535");
    EXPECT_EQ(rendered_width("%.65537f", 1.0), "65537");  // "1." and the decimals
}

// Every conversion of up to four characters behind "%" against one argument of each kind: prints
// something or stays in the text, and always leaves the text around it alone.
TEST(UMessageRendering, EveryShortConversionLeavesItsSurroundingsAlone)
{
    const std::string alphabet = "sdcfn%*.1$lh-0'";
    const std::vector<Arg> args = one_of_each_kind();
    const Arg tail("tail");
    std::vector<std::string> conversions{""};
    for (std::size_t begin = 0, length = 0; length < 3; ++length) {
        const std::size_t end = conversions.size();
        for (; begin < end; ++begin) {
            for (const char c : alphabet)
                conversions.push_back(conversions[begin] + c);
        }
    }
    for (const std::string& conversion : conversions) {
        for (const Arg& arg : args) {
            const std::string format = "<%" + conversion + "> ";
            const std::vector<const Arg*> both{&arg, &tail};
            const std::string text = utf8(UMessage::sprintf(format.c_str(), both));
            ASSERT_GE(text.size(), 3u) << format << arg.kind();
            ASSERT_EQ(text.front(), '<');
            ASSERT_EQ(text.substr(text.size() - 2), "> ");
        }
    }
}

// ---- limits ----

void on_a_small_stack(const std::function<void()>& run)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
    pthread_t thread;
    const auto body = [](void* function) -> void* {
        (*static_cast<const std::function<void()>*>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&run)),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST(UMessageRendering, NeedsLittleStackForAnyFormat)
{
    std::string conversions, zeros;
    for (int i = 0; i < 100'000; ++i) {
        conversions += "%d";
        zeros += '0';
    }
    on_a_small_stack([&] {
        EXPECT_EQ(UMessage::sprintf(conversions.c_str(), Arg::nil), ustr(zeros));
        EXPECT_EQ(UMessage::sprintf((conversions + "%n").c_str(), Arg::nil), ustr(zeros + "%n"));
        EXPECT_EQ(UMessage(kvutil, 12, std::string(1 << 20, 'x'), File(std::string(1 << 20, 'y')))
                      .message_string()
                      .length(),
                  (2u << 20) + std::strlen("PLXSV0662E The URI '' is not valid: "));
    });
}

}  // namespace
