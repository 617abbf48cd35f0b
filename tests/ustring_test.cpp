#include <kvutil/ustring.h>

#include "support/memory_fault.h"
#include "support/text.h"

#include <gtest/gtest.h>

namespace {
using Kvl::UString;
using Kvl::Utf8String;
TEST(UString, ConvertsSearchesAndEdits)
{
    EXPECT_EQ(UString("abc"), UString(u"abc"));
    EXPECT_EQ(ustr("abcabc").find_last('a', 3), 3);
    EXPECT_EQ(ustr("abcabc").find_last('a', 4), -1);
    EXPECT_EQ(ustr("abcdef").erase(2), ustr("ab"));
    EXPECT_EQ(ustr("abcdef").substr(2), ustr("cdef"));
    UString s = ustr("héllo");
    bool f = true;
    EXPECT_EQ(s.std_str("ISO-8859-1", f), "h\xE9llo");
    EXPECT_FALSE(f);
    EXPECT_EQ(UString("h\xE9llo", "ISO-8859-1"), s);
    EXPECT_EQ(s.assign("x", "nope"), nullptr);
    s.append(s).insert(1, s.c_str() + 2);
    EXPECT_EQ(s, ustr("hllohélloéllohéllo"));
    EXPECT_EQ(s.find(u"x"), -1);
}
}  // namespace
