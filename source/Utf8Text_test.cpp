#include "Utf8Text.h"

#include <gtest/gtest.h>

#include <string>

TEST(Utf8Text, WellFormedPassesAndMalformedFails) {
  for (const std::string& text : {std::string("/opt/Tarvo/Tool"), std::string("\xC3\xA9t\xC3\xA9"),
                                  std::string("\xF4\x8F\xBF\xBF"), std::string("a\0b", 3)}) {
    EXPECT_TRUE(IsValidUtf8(text)) << text;
  }
  // Stray continuation, cut short, overlong "/", surrogate, above U+10FFFF.
  for (const char* text : {"\x80", "ok\xF0\x9F\x98", "\xC3\x28", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                           "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_FALSE(IsValidUtf8(text)) << text;
  }
}
