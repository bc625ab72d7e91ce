#include "include/FormatString.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace {

// A value whose text form cannot be produced: its writer fails the stream.
struct Unprintable {};
std::ostream& operator<<(std::ostream& ioStream, const Unprintable&) {
  ioStream.setstate(std::ios::failbit);
  return ioStream;
}

}  // namespace

TEST(FormatString, PlaceholdersTakeArgumentsByNumber) {
  std::string out = "old content";
  ASSERT_TRUE(FormatString(out, "%0.%1.%2", 10, 4, 9));
  EXPECT_EQ("10.4.9", out);

  ASSERT_TRUE(FormatString(out, "%9%8%7%6%5%4%3%2%1%0", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_EQ("9876543210", out);

  ASSERT_TRUE(FormatString(out, "%1 then %0, %1 again", std::string("a"), "b"));
  EXPECT_EQ("b then a, b again", out);

  ASSERT_TRUE(FormatString(out, "[%0][%1][%2][%3]", -42, 3000000000u, 'c', 2.5));
  EXPECT_EQ("[-42][3000000000][c][2.5]", out);

  // Leading zeros name the same argument.
  ASSERT_TRUE(FormatString(out, "%01", "x", "y"));
  EXPECT_EQ("y", out);

  ASSERT_TRUE(FormatString(out, ""));
  EXPECT_EQ("", out);
}

TEST(FormatString, PercentSigns) {
  std::string out;
  ASSERT_TRUE(FormatString(out, "100%% sure", 1));
  EXPECT_EQ("100% sure", out);
  ASSERT_TRUE(FormatString(out, "%%0 is literal", 1));
  EXPECT_EQ("%0 is literal", out);
  ASSERT_TRUE(FormatString(out, "%s and %d stay", 1));
  EXPECT_EQ("%s and %d stay", out);
  ASSERT_TRUE(FormatString(out, "ends with %", 1));
  EXPECT_EQ("ends with %", out);
  ASSERT_TRUE(FormatString(out, "%0%", 7));
  EXPECT_EQ("7%", out);
}

TEST(FormatString, NumberWithoutArgumentIsCopied) {
  std::string out;
  ASSERT_TRUE(FormatString(out, "%0-%1-%3", "a", "b"));
  EXPECT_EQ("a-b-%3", out);
  ASSERT_TRUE(FormatString(out, "none %0 %07"));
  EXPECT_EQ("none %0 %07", out);
}

TEST(FormatString, FailedConversionStopsFormatting) {
  std::string out;
  EXPECT_FALSE(FormatString(out, "before %1 after", 1, Unprintable()));
  EXPECT_EQ("before ", out);
  // An argument that is never referred to is never converted.
  EXPECT_TRUE(FormatString(out, "%0", 1, Unprintable()));
  EXPECT_EQ("1", out);
}

TEST(FormatStringDeathTest, NumbersAboveNineAreAProgrammingError) {
  std::string out;
  EXPECT_DEATH(FormatString(out, "%10", 0, 1),
               "include/FormatString.h:[0-9]+: failed assertion `NULL == \"Format values above %9 are not "
               "supported\"'");
  EXPECT_DEATH(FormatString(out, "%99999999999999999999999"), "failed assertion `NULL == ");
}
