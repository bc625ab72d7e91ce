#include "ORUSysAccessor.h"

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace {

TEST(ResolveFunctionTableTest, AllOrNothing) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");
  const char* const kGood[] = {"strlen", "getenv", "abs"};
  void* slots[3] = {};
  qvd::ResolveFunctionTable(bundle, kGood, 3, slots);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(slots[i], bundle.getFunctionPointer(kGood[i])) << kGood[i];

  // The missing name sits between two good ones: neither is stored.
  const char* const kMissing[] = {"strlen", "porvane_no_such_function", "abs"};
  void* untouched[3] = {&slots, &slots, &slots};
  EXPECT_THAT([&] { qvd::ResolveFunctionTable(bundle, kMissing, 3, untouched); },
              testing::ThrowsMessage<std::runtime_error>(testing::StrEq("missing symbol")));
  for (void* slot : untouched) EXPECT_EQ(slot, static_cast<void*>(&slots));
}

TEST(ORUSysAccessorTest, ForwardsToTheCLibraryUnchanged) {
  const qvd::ORUSysAccessor accessor;
  const std::string name = "/porvane-oru-test-" + std::to_string(getpid());
  sem_t* first = accessor.sem_open(name.c_str(), O_CREAT | O_EXCL, 0700, 1);
  ASSERT_NE(first, SEM_FAILED);
  int value = -1;
  EXPECT_EQ(sem_getvalue(first, &value), 0);
  EXPECT_EQ(value, 1) << "the initial count reached the call";
  errno = 0;
  EXPECT_EQ(accessor.sem_open(name.c_str(), O_CREAT | O_EXCL, 0700, 1), SEM_FAILED);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(accessor.sem_unlink(name.c_str()), 0);
  EXPECT_EQ(accessor.sem_close(first), 0);

  // The process-wide table is one object, and it forwards errno as well.
  qvd::GlobalORUSysAccessor& global = qvd::GlobalORUSysAccessor::instance();
  EXPECT_EQ(&global, &qvd::GlobalORUSysAccessor::instance());
  errno = 0;
  EXPECT_EQ(global.sem_unlink(name.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
