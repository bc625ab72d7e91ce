#include "MD5Hash.h"

#include <gtest/gtest.h>

TEST(MD5Hash, IsTheBase64OfTheDigest) {
  // 55 bytes leave room for the length in the last block, 56 to 63 need one
  // block more, 64 and 65 fill a whole block inside update.
  const std::pair<std::string, const char*> kCases[] = {
      {"abc", "kAFQmDzST7DWlj99KOF/cg=="}, {std::string(55, 'a'), "7xdytt/5oSI1hVKVStDfZQ=="},
      {std::string(56, 'a'), "OwyKxwP4KLBMbBlwBtFyGA=="}, {std::string(63, 'a'), "sGUh85FT1hhVBga+KXRm1Q=="},
      {std::string(64, 'a'), "AUhC1IC1cUlaSgNjeT9zZw=="}, {std::string(65, 'a'), "x0OkXg0uapXLhZra4CSENQ=="}};
  for (const auto& [text, digest] : kCases) EXPECT_EQ(MD5Hash(text), digest) << text.size() << " bytes";
}
