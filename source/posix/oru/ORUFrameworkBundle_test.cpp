#include "ORUFrameworkBundle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>

namespace {

TEST(ORUFrameworkBundleTest, LoadsTheCLibraryAndCallsThroughItsPointers) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");
  auto* resolvedStrlen = reinterpret_cast<size_t (*)(const char*)>(bundle.getFunctionPointer("strlen"));
  ASSERT_NE(resolvedStrlen, nullptr);
  EXPECT_EQ(resolvedStrlen("porvane"), 7u);
  EXPECT_NE(bundle.getDataPointer("environ"), nullptr);
  EXPECT_EQ(bundle.getFunctionPointer("porvane_no_such_function"), nullptr);
  EXPECT_EQ(bundle.getDataPointer("porvane_no_such_data"), nullptr);
}

TEST(ORUFrameworkBundleTest, UnknownLibraryIsUnableToLoad) {
  EXPECT_THAT([] { qvd::ORUFrameworkBundle bundle("libporvane-does-not-exist.so.9"); },
              testing::ThrowsMessage<std::runtime_error>(testing::StrEq("unable to load bundle")));
}

TEST(ORUFrameworkBundleDeathTest, NullNamesAreProgrammingErrors) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");
  EXPECT_DEATH(bundle.getFunctionPointer(nullptr),
               "^source/posix/oru/ORUFrameworkBundle\\.cpp:24: failed assertion `inFunctionName'\n$");
  EXPECT_DEATH(bundle.getDataPointer(nullptr),
               "^source/posix/oru/ORUFrameworkBundle\\.cpp:29: failed assertion `inSymbolName'\n$");
}

}  // namespace
