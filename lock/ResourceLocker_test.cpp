#include "ResourceLocker.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <chrono>

#include "AgentLock.h"
#include "PrivateHome.h"

using namespace testing;

template <typename Error>
auto Misuse(const char* inWhat, const char* inResource) {
  return Throws<Error>(AllOf(Property(&Error::what, StrEq(inWhat)), Property(&Error::resource, StrEq(inResource))));
}

// porvane-unlock with inArgs: exit status, standard output, standard error.
static std::tuple<int, std::string, std::string> Unlock(std::vector<std::string> inArgs) {
  const PrivateHome capture;
  inArgs.insert(inArgs.begin(), BuiltProgram("porvane-unlock"));
  ChildProcess unlock(inArgs, {}, capture / "run");
  return {unlock.Wait() ? unlock.ExitCode() : -2, unlock.Stdout(), unlock.Stderr()};
}

// The test has a /dev/shm of its own, so the agent's lock it takes is not the machine's.
TEST(ResourceLockerTest, OneHolderPerMachineUntilReleasedOrClearedByPorvaneUnlock) {
  if (const std::string why = UsePrivateShm(); !why.empty()) GTEST_SKIP() << why;
  qvd::ResourceLocker locker(kAgentLockName, 200);
  EXPECT_THAT([&] { locker.unlock(false); },
              Misuse<qvd::no_resource_lock>("This object is not locking an item", "Resource unknown"));
  ASSERT_TRUE(locker.lock());
  EXPECT_EQ(access("/dev/shm/sem.rDYSDwOgFCbsPgPa4MYm3Q==", F_OK), 0);
  EXPECT_THAT([&] { locker.lock(); },
              Misuse<qvd::resource_lock_fail>("A resource is already being locked", kAgentLockName));
  EXPECT_FALSE(qvd::ResourceLocker(kAgentLockName, 0).lock()) << "another object of this process is shut out too";
  EXPECT_TRUE(locker.unlock(false));
  ASSERT_TRUE(qvd::ResourceLocker(kAgentLockName, 0).lock()) << "free again";

  if (fork() == 0) _exit(qvd::ResourceLocker(kAgentLockName, 0).lock() ? 0 : 1);  // ends holding the lock
  int status = -1;
  ASSERT_TRUE(wait(&status) > 0 && status == 0) << "the destructor above released the lock";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(locker.lock());
  EXPECT_FALSE(qvd::ResourceLocker(kAgentLockName, 0).lock());
  // The whole time-out, then one attempt and one 1 ms pause.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(201));
  EXPECT_THAT(Unlock({}), FieldsAre(0, "porvane-unlock: removed lock \"TarvoUsageTrackerFileUploadLocker\" "
                                       "(semaphore /rDYSDwOgFCbsPgPa4MYm3Q==)\n", ""));
  // MD5Hash("abc") is kAFQmDzST7DWlj99KOF/cg==; a semaphore name holds no "/" after the first.
  EXPECT_THAT(Unlock({"--name", "abc"}),
              FieldsAre(1, "porvane-unlock: no lock \"abc\" to remove (semaphore /kAFQmDzST7DWlj99KOF_cg==)\n", ""));
  EXPECT_THAT(Unlock({"--help"}), FieldsAre(0, StartsWith("usage: porvane-unlock "), ""));
  EXPECT_THAT(Unlock({"--name"}),
              FieldsAre(2, "", StartsWith("porvane-unlock: unexpected argument \"--name\"\nusage: porvane-unlock")));
}

TEST(ResourceLockerTest, ALockAnotherUsersProcessDiedHoldingIsNeverTakenForStale) {
  if (const std::string why = UsePrivateShm(); !why.empty()) GTEST_SKIP() << why;
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a lock as another user";
  ASSERT_EQ(RunAsUser(kNobody, []() -> int { _exit(qvd::ResourceLocker(kAgentLockName, 0).lock() ? 0 : 1); }), 0);
  EXPECT_THAT(Unlock({"--if-stale"}), FieldsAre(0, "porvane-unlock: lock \"TarvoUsageTrackerFileUploadLocker\" "
                                                   "belongs to another user; left in place\n", ""));
  EXPECT_EQ(access("/dev/shm/sem.rDYSDwOgFCbsPgPa4MYm3Q==", F_OK), 0);
}
