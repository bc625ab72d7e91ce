#include "Diagnostics.h"

#include <gtest/gtest.h>

TEST(DiagnosticsTest, ALineStaysOneLineWhateverTheNamesInIt) {
  testing::internal::CaptureStderr();
  Diagnostics(true).Say("k_\r\nporvane: forged\t\x7F\\x1B \xC3\xA9.log");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "porvane: k_\\x0D\\x0Aporvane: forged\\x09\\x7F\\\\x1B \xC3\xA9.log\n");
}
