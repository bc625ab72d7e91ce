#include "FormatString.h"

#include <gtest/gtest.h>

// A death test suite (run first, before any thread exists), as numbers above 9 abort.
TEST(FormatStringDeathTest, NumberedArgumentsPercentSignsAndGaps) {
  // A number without an argument is copied as written; "%%" is one "%"; any other "%" stays.
  const std::pair<const char*, const char*> kCases[] = {{"%0.%1.%0", "10.4.10"}, {"[%3%2]", "[ctwo]"}, {"%01", "4"},
      {"%4 %9 %1", "%4 %9 4"}, {"100%% %%0 %s %/%:", "100% %0 %s %/%:"}, {"end%", "end%"}};
  std::string out = "old text";
  for (const auto& [format, text] : kCases)
    EXPECT_TRUE(FormatString(out, format, 10, 4, static_cast<const char*>("two"), 'c') && out == text) << out;
  EXPECT_DEATH(FormatString(out, "%10", 0, 1), "^include/FormatString\\.h:[0-9]+: failed assertion `NULL == \"Format");
}
