#include "platform_text_impl.h"

#include "support/watched_thread.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using Kvl::error_text;
using Kvl::error_text_lock;

TEST(ErrorText, IsThatOfTheSystem)
{
    EXPECT_EQ(error_text(ENOENT).utf8_str(), "No such file or directory");
    EXPECT_EQ(error_text(12345).utf8_str(), "Unknown error 12345");
}

// A fork() waits for the library's lock, and not for those of the C library's catalogue.
TEST(ErrorText, IsLookedUpUnderALock)
{
    EXPECT_TRUE(waits_for(error_text_lock, [] { error_text(EACCES); }));
}

}  // namespace
