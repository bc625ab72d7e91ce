#include "DirSizeLimit.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(DirSizeLimitTest, OnlyAPlainDecimalNumberOfBytesIsACeiling) {
  const double kRefused = -1;
  const std::pair<const char*, double> kCases[] = {{"500000", 500000}, {" 5e5\t\r\n", 500000}, {"", 500000},
      {" ", 500000}, {"0", 0}, {"7.", 7}, {"2E-1", 0.2}, {"1e+3", 1000}, {"1e400", HUGE_VAL}, {"abc", kRefused},
      {"-5", kRefused}, {"+5", kRefused}, {"500 KB", kRefused}, {"0x10", kRefused}, {"nan", kRefused},
      {"inf", kRefused}, {".5", kRefused}, {"1e", kRefused}, {"1e+", kRefused}, {"5,0", kRefused}, {"1..2", kRefused}};
  for (const auto& [text, limit] : kCases) {
    double parsed = kRefused;
    EXPECT_TRUE(ParseMaxTotalDirSize(text, parsed) == (limit != kRefused) && parsed == limit) << '"' << text << '"';
  }
}
