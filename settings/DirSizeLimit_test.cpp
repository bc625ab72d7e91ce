#include "DirSizeLimit.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(DirSizeLimitTest, OnlyAPlainDecimalNumberOfBytesIsACeiling) {
  const double kUnset = -1;
  const std::pair<const char*, double> kCases[] = {
      {"500000", 500000}, {" 5e5\t\r\n", 500000}, {"", 500000}, {" ", 500000}, {"0", 0}, {"1.5", 1.5},
      {"7.", 7}, {"2E-1", 0.2}, {"1e+3", 1000}, {"1e400", HUGE_VAL}, {"abc", kUnset}, {"-5", kUnset},
      {"+5", kUnset}, {"500 KB", kUnset}, {"0x10", kUnset}, {"nan", kUnset}, {"inf", kUnset}, {".5", kUnset},
      {"1e", kUnset}, {"1e+", kUnset}, {"5 5", kUnset}, {"5,0", kUnset}, {"1..2", kUnset}};
  for (const auto& [text, limit] : kCases) {
    double parsed = kUnset;
    EXPECT_EQ(ParseMaxTotalDirSize(text, parsed), limit != kUnset) << '"' << text << '"';
    EXPECT_EQ(parsed, limit) << '"' << text << '"';
  }
}
