#include <kvutil/arm.h>

#include "support/arm4_layout.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

TEST(Arm4, NamesTheTypesOfTheFunctionsThatAreLookedUp)
{
    EXPECT_TRUE(
        (std::is_same_v<decltype(&::arm_start_transaction), arm_start_transaction_function_t*>));
    EXPECT_TRUE((std::is_same_v<decltype(&::arm_get_arrival_time), int (*)(long long*)>));
}

}  // namespace
