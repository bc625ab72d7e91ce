#include "ResourceLocker.h"

#include <sys/mount.h>
#include <sys/stat.h>
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

// porvane-unlock with inArgs, run by the command inAs if given: exit status, standard output, standard error.
static std::tuple<int, std::string, std::string> Unlock(std::vector<std::string> inArgs,
                                                        const std::vector<std::string>& inAs = {}) {
  const PrivateHome capture;
  inArgs.insert(inArgs.begin(), BuiltProgram("porvane-unlock"));
  inArgs.insert(inArgs.begin(), inAs.begin(), inAs.end());
  ChildProcess unlock(inArgs, {}, capture / "run");
  return {unlock.Wait() ? unlock.ExitCode() : -2, unlock.Stdout(), unlock.Stderr()};
}

const std::vector<std::string> kAsNobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};

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

TEST(ResourceLockerTest, ALockThatCannotBeMadeOrRemovedIsToldForWhatItIs) {
  if (const std::string why = UsePrivateShm(); !why.empty()) GTEST_SKIP() << why;
  ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=4k,mode=1777"), 0);  // full at once
  WriteFile("/dev/shm/filler", std::string(4096, 'x'));
  qvd::ResourceLocker locker(kAgentLockName, 0);
  EXPECT_TRUE(!locker.lock() && locker.lastError() == ENOSPC) << "no room is not a holder";
  ASSERT_EQ(umount2("/dev/shm", MNT_DETACH), 0);
  qvd::ResourceLocker(kAgentLockName, 0).unlock(true);  // whatever an earlier test of this process left
  ASSERT_TRUE(locker.lock() && locker.lastError() == 0);
  if (geteuid() != 0) GTEST_SKIP() << "only root can act as two other users";
  EXPECT_THAT(Unlock({}, kAsNobody), FieldsAre(1, "porvane-unlock: lock \"TarvoUsageTrackerFileUploadLocker\" belongs to "
      "user root (uid 0); only that user or root may remove it (semaphore /rDYSDwOgFCbsPgPa4MYm3Q==)\n", ""));
  ASSERT_TRUE(locker.unlock(false));
  // A link another user (uid 1) planted at the name, to a file of nobody's, is not nobody's to remove.
  const char* const kName = "/dev/shm/sem.rDYSDwOgFCbsPgPa4MYm3Q==";
  WriteFile("/dev/shm/nobodys", "");
  ASSERT_TRUE(chown("/dev/shm/nobodys", kNobody, 0) == 0 && symlink("nobodys", kName) == 0 && lchown(kName, 1, 1) == 0);
  EXPECT_THAT(Unlock({"--if-stale"}, kAsNobody), FieldsAre(0, "porvane-unlock: lock \"TarvoUsageTrackerFileUploadLocker"
      "\" belongs to another user; left in place\n", ""));
}
