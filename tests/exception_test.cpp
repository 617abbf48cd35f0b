#include <kvutil/exception.h>

#include "support/memory_fault.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <exception>
#include <type_traits>

using Kvl::Exception;
using Kvl::STPException;
using Kvl::UString;

namespace {

/// A class of a client, told apart by its kind and with a text of its own.
class disk_full : public Exception {
public:
    explicit disk_full(const UString& text) : Exception(text) {}
    UString msg() const override { return u"disk full: " + Exception::msg(); }
    int kind() const override { return 28; }
};

TEST(Exception, IsARootClass)
{
    static_assert(std::is_polymorphic_v<Exception>);
    static_assert(!std::is_base_of_v<std::exception, Exception>);
    static_assert(!std::is_base_of_v<STPException, Exception>);
    static_assert(!std::is_base_of_v<Exception, STPException>);
    static_assert(!std::is_convertible_v<UString, Exception>, "the constructor is explicit");
}

TEST(Exception, HoldsItsText)
{
    const Exception e(u"no such view");
    EXPECT_EQ(e.msg(), UString(u"no such view"));
    EXPECT_EQ(e.kind(), 0);
}

TEST(Exception, HandsOutACopyOfItsText)
{
    const Exception e(u"abc");
    UString text = e.msg();
    text.append(UString(u"def"));
    EXPECT_EQ(e.msg(), UString(u"abc"));
}

TEST(ExceptionRaise, ThrowsItsTextWithKindZero)
{
    try {
        Exception::raise(u"cannot lock");
        FAIL() << "returned";
    } catch (const Exception& e) {
        EXPECT_TRUE(typeid(e) == typeid(Exception));
        EXPECT_EQ(e.msg(), UString(u"cannot lock"));
        EXPECT_EQ(e.kind(), 0);
    }
}

TEST(ExceptionRaise, ThrowsTheEmptyTextToo)
{
    try {
        Exception::raise(UString());
        FAIL() << "returned";
    } catch (const Exception& e) {
        EXPECT_TRUE(e.msg().empty());
    }
}

TEST(ExceptionAdd, AppendsInCallOrderWithNothingInBetween)
{
    Exception e(u"a");
    e.add(u"b").add(u"").add(u"c");
    EXPECT_EQ(e.msg(), UString(u"abc"));
}

TEST(ExceptionAdd, ReturnsTheExceptionItself)
{
    Exception e(u"a");
    EXPECT_EQ(&e.add(u"b"), &e);
}

TEST(ExceptionAdd, TakesItsOwnText)
{
    Exception e(u"ab");
    e.add(e.msg()).add(e.msg());
    EXPECT_EQ(e.msg(), UString(u"abababab"));
}

TEST(ExceptionAdd, ReachesTheHandlerOfTheRethrownException)
{
    try {
        try {
            Exception::raise(u"cannot read");
        } catch (Exception& e) {
            e.add(u" /etc/map").add(u": gone");
            throw;
        }
    } catch (const Exception& e) {
        EXPECT_EQ(e.msg(), UString(u"cannot read /etc/map: gone"));
    }
}

TEST(ExceptionLogThrow, ChangesNothing)
{
    Exception e(u"a");
    e.log_throw();
    EXPECT_EQ(e.msg(), UString(u"a"));
}

TEST(Exception, CopiesAreIndependent)
{
    Exception original(u"a");
    Exception copy(original);
    Exception assigned(u"x");
    assigned = original;
    original.add(u"b");
    EXPECT_EQ(copy.msg(), UString(u"a"));
    EXPECT_EQ(assigned.msg(), UString(u"a"));
}

TEST(Exception, DerivedClassesAreCaughtByBothTheirClasses)
{
    try {
        throw disk_full(u"/tmp");
    } catch (const Exception& e) {
        EXPECT_EQ(e.kind(), 28);
        EXPECT_EQ(e.msg(), UString(u"disk full: /tmp"));
    }
    EXPECT_THROW(throw disk_full(u"/tmp"), disk_full);
}

TEST(Exception, IsNotCaughtAsAProtocolException)
{
    EXPECT_THROW(
        try { Exception::raise(u"x"); } catch (const STPException&){}, Exception);
}

TEST(ExceptionMemoryFault, LeavesTheTextAsItWas)
{
    const UString tail(std::u16string(400, u'y'));  // too long to be held without allocation
    Exception e(u"x");
    EXPECT_GT(for_each_memory_fault([&] { Exception(e).add(tail); },
                                    [&] { EXPECT_EQ(e.msg(), UString(u"x")); }),
              0);
    Exception target(u"x");
    EXPECT_GT(for_each_memory_fault([&] { target.add(tail); },
                                    [&] { EXPECT_EQ(target.msg(), UString(u"x")); }),
              0);
    EXPECT_EQ(target.msg().length(), 401u);
}

}  // namespace
