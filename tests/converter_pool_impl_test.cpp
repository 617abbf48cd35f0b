#include "converter_pool_impl.h"

#include "support/watched_thread.h"

#include <gtest/gtest.h>

namespace {

using Kvl::charset_converter_t;
using Kvl::default_converter_name;
using Kvl::icu_lock;

// A fork() waits for the library's lock, and not for that of ICU's table of charsets.

TEST(IcuLock, IsHeldWhileAConverterIsOpenedAndClosed)
{
    EXPECT_TRUE(waits_for(icu_lock, [] { charset_converter_t("EUC-JP"); }));
    const auto* const open = new charset_converter_t("EUC-JP");
    EXPECT_TRUE(waits_for(icu_lock, [open] { delete open; }));
}

TEST(IcuLock, IsHeldWhileTheDefaultIsLookedUp)
{
    EXPECT_TRUE(waits_for(icu_lock, [] { default_converter_name(); }));
}

}  // namespace
