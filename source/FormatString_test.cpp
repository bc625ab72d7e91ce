#include "FormatString.h"

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

// The text FormatString makes, into a string that held something before.
template <typename... Args>
std::string Format(const std::string& inFormat, const Args&... inArgs) {
  std::string out = "old content";
  EXPECT_TRUE(FormatString(out, inFormat, inArgs...)) << inFormat;
  return out;
}

TEST(FormatString, PlaceholdersAndPercentSigns) {
  EXPECT_EQ("10.4.9", Format("%0.%1.%2", 10, 4, 9));
  EXPECT_EQ("9876543210", Format("%9%8%7%6%5%4%3%2%1%0", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_EQ("b then a, b", Format("%1 then %0, %1", std::string("a"), "b"));
  EXPECT_EQ("[-42][3000000000][c][2.5]", Format("[%0][%1][%2][%3]", -42, 3000000000u, 'c', 2.5));
  EXPECT_EQ("y", Format("%01", "x", "y")) << "leading zeros name the same argument";
  EXPECT_EQ("a-b-%3", Format("%0-%1-%3", "a", "b")) << "a number without an argument is copied";
  // "%%" is one "%"; any other "%" is copied as it is, also at the very end.
  EXPECT_EQ("100% %0 %s 7%", Format("100%% %%0 %s %0%", 7));
}

TEST(FormatString, FailedConversionStopsFormatting) {
  std::string out;
  EXPECT_FALSE(FormatString(out, "before %1 after", 1, Unprintable()));
  EXPECT_EQ("before ", out);
  EXPECT_TRUE(FormatString(out, "%0", 1, Unprintable())) << "an argument never referred to is never converted";
}

TEST(FormatStringDeathTest, NumbersAboveNineAreAProgrammingError) {
  std::string out;
  EXPECT_DEATH(FormatString(out, "%10", 0, 1),
               "include/FormatString.h:[0-9]+: failed assertion `NULL == \"Format values above %9 are not "
               "supported\"'");
}

}  // namespace
