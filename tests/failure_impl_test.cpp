#include "failure_impl.h"

#include "support/failure.h"
#include "support/recording_logger.h"
#include "support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Kvl;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Runs `fails`, which must throw a `T`, and gives what it threw.
template <class T, class Operation>
T thrown(Operation fails)
{
    try {
        fails();
    } catch (const STPException& e) {
        EXPECT_TRUE(typeid(e) == typeid(T));
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_THAT(e.causes(), IsEmpty());
        return dynamic_cast<const T&>(e);
    }
    ADD_FAILURE() << "returned";
    return T(UMessage());
}

TEST(Failure, OfTheSystemIsARuntimeExceptionAndNotLogged)
{
    recording_logger logger;
    const auto e = thrown<RuntimeException>(
        [] { throw_runtime(MSG_FILE_NOT_OPENED, u"/etc/map", std::string("Permission denied")); });
    EXPECT_EQ(e.stp_reason_code(), 39);
    EXPECT_EQ(rendered(e), "PLXSV0665E Unable to open file '/etc/map': Permission denied.");
    EXPECT_THAT(logger.lines, IsEmpty());
}

TEST(Failure, OfTheCallerIsAnIllegalArgExceptionAndNotLogged)
{
    recording_logger logger;
    const auto e = thrown<IllegalArgException>(
        [] { throw_illegal_arg(MSG_OID_FORMAT, "str", ustr("z\xC3\xBC")); });
    EXPECT_EQ(e.stp_reason_code(), 39);
    EXPECT_EQ(rendered(e),
              "PLXSV0657E Invalid Oid/Uuid format for arg: 'str' with value: 'z\xC3\xBC'");
    EXPECT_EQ(rendered(thrown<IllegalArgException>([] { throw_illegal_arg(MSG_ILLEGAL_TAG_ID); })),
              "PLXSV0655E XmlTag::lookup(): called with illegal id value.");
    EXPECT_THAT(logger.lines, IsEmpty());
}

TEST(Failure, OfTheLibraryIsAStateExceptionAndNotLogged)
{
    recording_logger logger;
    const auto e = thrown<StateException>(
        [] { throw_state(MSG_INTERNAL_ERROR, "XmlTag::XmlTag", "123", "lib/kvutil/xmltag"); });
    EXPECT_EQ(e.stp_reason_code(), 39);
    EXPECT_EQ(rendered(e), "PLXSV0653E Internal error: XmlTag::XmlTag(), at line: 123 in file: "
                           "'lib/kvutil/xmltag'");
    EXPECT_THAT(logger.lines, IsEmpty());
}

TEST(Failure, ByRefusalIsAnStpExceptionWithReason40AndIsLoggedAsAnError)
{
    recording_logger logger;
    const std::string text =
        "PLXSV0664E Cannot create temporary file system object: too many retries";
    try {
        raise_refusal(MSG_TMP_OBJECT_NOT_CREATED, u"too many retries");
        FAIL() << "returned";
    } catch (const STPException& e) {
        EXPECT_TRUE(typeid(e) == typeid(STPException));
        EXPECT_EQ(e.stp_reason_code(), 40);
        EXPECT_EQ(rendered(e), text);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_THAT(e.causes(), IsEmpty());
    }
    EXPECT_THAT(logger.lines, ElementsAre(log_line_t{"error", text, 0}));
}

}  // namespace
