#include "Assert.h"

#include <gtest/gtest.h>

namespace {

int CheckedHalf(int inValue) {
  QVD_ASSERT(inValue % 2 == 0);
  return inValue / 2;
}

TEST(AssertTest, PassingAssertionReturnsNormally) { EXPECT_EQ(CheckedHalf(8), 4); }

TEST(AssertDeathTest, FailureReportsFileLineAndExpressionThenAborts) {
  // The file is named relative to the project root, whatever the build folder.
  EXPECT_DEATH(CheckedHalf(3), "^source/Assert_test\\.cpp:8: failed assertion `inValue % 2 == 0'\n$");
}

}  // namespace
