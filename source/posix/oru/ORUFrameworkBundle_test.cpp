#include "source/posix/oru/ORUFrameworkBundle.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace {

// The exception text of inAction, or "" when it throws nothing.
template <typename Action>
std::string RuntimeErrorOf(Action inAction) {
  try {
    inAction();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return std::string();
}

TEST(ORUFrameworkBundleTest, LoadsTheCLibraryAndCallsThroughItsPointers) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");

  using StrlenFunction = size_t (*)(const char*);
  auto* resolvedStrlen = reinterpret_cast<StrlenFunction>(bundle.getFunctionPointer("strlen"));
  ASSERT_NE(resolvedStrlen, nullptr);
  EXPECT_EQ(resolvedStrlen("porvane"), 7u);

  using AbsFunction = int (*)(int);
  auto* resolvedAbs = reinterpret_cast<AbsFunction>(bundle.getFunctionPointer("abs"));
  ASSERT_NE(resolvedAbs, nullptr);
  EXPECT_EQ(resolvedAbs(-42), 42);

  EXPECT_NE(bundle.getDataPointer("environ"), nullptr);
  EXPECT_EQ(bundle.getFunctionPointer("porvane_no_such_function"), nullptr);
  EXPECT_EQ(bundle.getDataPointer("porvane_no_such_data"), nullptr);
}

TEST(ORUFrameworkBundleTest, UnknownLibraryIsUnableToLoad) {
  EXPECT_EQ(RuntimeErrorOf([] { qvd::ORUFrameworkBundle bundle("libporvane-does-not-exist.so.9"); }),
            "unable to load bundle");
  EXPECT_EQ(RuntimeErrorOf([] { qvd::ORUFrameworkBundle bundle("/nonexistent/folder/libc.so.6"); }),
            "unable to load bundle");
}

TEST(ORUFrameworkBundleDeathTest, NullNamesAreProgrammingErrors) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");
  EXPECT_DEATH(bundle.getFunctionPointer(nullptr),
               "^source/posix/oru/ORUFrameworkBundle\\.cpp:24: failed assertion `inFunctionName'\n$");
  EXPECT_DEATH(bundle.getDataPointer(nullptr),
               "^source/posix/oru/ORUFrameworkBundle\\.cpp:29: failed assertion `inSymbolName'\n$");
}

}  // namespace
