#include "source/posix/oru/ORUSysAccessor.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "source/posix/oru/ORUFrameworkBundle.h"

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

TEST(ResolveFunctionTableTest, AllOrNothing) {
  qvd::ORUFrameworkBundle bundle("libc.so.6");
  const char* const kGood[] = {"strlen", "getenv", "abs"};
  void* slots[3] = {};
  qvd::ResolveFunctionTable(bundle, kGood, 3, slots);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(slots[i], bundle.getFunctionPointer(kGood[i])) << kGood[i];

  // The missing name sits between two good ones: neither is stored.
  const char* const kMissing[] = {"strlen", "porvane_no_such_function", "abs"};
  void* untouched[3] = {&slots, &slots, &slots};
  EXPECT_EQ(RuntimeErrorOf([&] { qvd::ResolveFunctionTable(bundle, kMissing, 3, untouched); }),
            "missing symbol");
  for (void* slot : untouched) EXPECT_EQ(slot, static_cast<void*>(&slots));
}

TEST(ORUSysAccessorTest, ForwardsToTheCLibrary) {
  const qvd::ORUSysAccessor accessor;

  // getenv reads the process environment; a wrong slot would not.
  ASSERT_EQ(setenv("PORVANE_ORU_TEST", "through the table", 1), 0);
  ASSERT_NE(accessor.getenv("PORVANE_ORU_TEST"), nullptr);
  EXPECT_STREQ(accessor.getenv("PORVANE_ORU_TEST"), "through the table");
  EXPECT_EQ(accessor.getenv("PORVANE_ORU_TEST_UNSET"), nullptr);

  // ioctl: the bytes waiting in a pipe.
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  ASSERT_EQ(write(fds[1], "abc", 3), 3);
  int waiting = -1;
  EXPECT_EQ(accessor.ioctl(fds[0], FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 3);
  errno = 0;
  EXPECT_EQ(accessor.ioctl(-1, FIONREAD, &waiting), -1);
  EXPECT_EQ(errno, EBADF);
  close(fds[0]);
  close(fds[1]);
}

TEST(ORUSysAccessorTest, NamedSemaphoresThroughTheTable) {
  const qvd::ORUSysAccessor accessor;
  const std::string name = "/porvane-oru-test-" + std::to_string(getpid());
  sem_unlink(name.c_str());

  sem_t* first = accessor.sem_open(name.c_str(), O_CREAT | O_EXCL, 0700, 1);
  ASSERT_NE(first, SEM_FAILED) << std::strerror(errno);
  int value = -1;
  EXPECT_EQ(sem_getvalue(first, &value), 0);
  EXPECT_EQ(value, 1);  // the initial count reached the call

  errno = 0;
  EXPECT_EQ(accessor.sem_open(name.c_str(), O_CREAT | O_EXCL, 0700, 1), SEM_FAILED);
  EXPECT_EQ(errno, EEXIST);

  EXPECT_EQ(accessor.sem_unlink(name.c_str()), 0);
  EXPECT_EQ(accessor.sem_close(first), 0);
  errno = 0;
  EXPECT_EQ(accessor.sem_unlink(name.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  sem_unlink(name.c_str());
}

TEST(GlobalORUSysAccessorTest, OneInstancePerProcess) {
  qvd::GlobalORUSysAccessor& first = qvd::GlobalORUSysAccessor::instance();
  EXPECT_EQ(&first, &qvd::GlobalORUSysAccessor::instance());
  EXPECT_EQ(first.sem_unlink("/porvane-oru-never-created"), -1);
}

}  // namespace
