#include "common/argument_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using testing::Eq;
using testing::KilledBySignal;

constexpr CheckedPlace kPlace = {"common/some_unit", 123, "int SomeClass::someFunction(int*)"};

TEST(ArgumentCheck, ReturnsSilentlyWhenItHolds) {
    testing::internal::CaptureStderr();
    check_argument(true, "pointer", kPlace);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ArgumentCheckDeathTest, NamesTheArgumentAndItsPlaceAndAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(check_argument(false, "pointer", kPlace), KilledBySignal(SIGABRT),
                Eq("corvik: common/some_unit:123: int SomeClass::someFunction(int*): "
                   "Assertion `pointer' failed.\n"));
}

TEST(ArgumentCheckDeathTest, PercentSignsInTheNameAreText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(check_argument(false, "a % s %s %n", kPlace), KilledBySignal(SIGABRT),
                Eq("corvik: common/some_unit:123: int SomeClass::someFunction(int*): "
                   "Assertion `a % s %s %n' failed.\n"));
}

}  // namespace
