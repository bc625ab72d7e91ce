#include "ResourceLocker.h"

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "AgentLock.h"
#include "LockSemaphoreName.h"
#include "Microseconds.h"

namespace {

// A lock name of this test alone (the pid keeps parallel runs apart); its
// semaphore is removed when the object goes, whatever the test left behind.
// Declare it first so that it outlives every holder of the lock.
struct TestLock {
  explicit TestLock(const std::string& inTag)
      : name("porvane-lock-test-" + std::to_string(getpid()) + "-" + inTag), semaphore(qvd::LockSemaphoreName(name)) {}
  ~TestLock() { sem_unlink(semaphore.c_str()); }
  bool Exists() const {
    sem_t* handle = sem_open(semaphore.c_str(), 0);
    if (handle != SEM_FAILED) sem_close(handle);
    return handle != SEM_FAILED;
  }
  const std::string name;
  const std::string semaphore;
};

// Another process that takes the lock (one attempt) and holds it until told
// to release it or killed. It ends with _exit, so no destructor of its own
// releases anything behind the test's back. No signal handler is installed
// in these tests, so the pipe calls are not interrupted (no EINTR).
class LockHolder {
 public:
  explicit LockHolder(const std::string& inName) {
    if (pipe2(mDown, O_CLOEXEC) != 0 || pipe2(mUp, O_CLOEXEC) != 0 || (mPid = fork()) < 0) return;
    if (mPid == 0) {
      auto* locker = new qvd::ResourceLocker(inName, 0);  // never destroyed, on purpose
      Reply(locker->lock());
      char command;
      if (read(mDown[0], &command, 1) == 1) Reply(locker->unlock(false));
      _exit(0);
    }
    close(mDown[0]);
    close(mUp[1]);  // so that a dead holder reads as end of file
    locked = Answer();
  }
  ~LockHolder() {
    Kill();
    close(mDown[1]);
    close(mUp[0]);
  }
  // The holder's own unlock(false) result; it ends after it.
  bool Release() {
    const bool released = write(mDown[1], "u", 1) == 1 && Answer();
    Kill();
    return released;
  }
  void Kill() {
    if (mPid > 0 && kill(mPid, SIGKILL) == 0) waitpid(mPid, nullptr, 0);
    mPid = -1;
  }
  bool locked = false;

 private:
  void Reply(bool inResult) { (void)!write(mUp[1], inResult ? "1" : "0", 1); }
  bool Answer() {
    char reply = '\0';
    return read(mUp[0], &reply, 1) == 1 && reply == '1';
  }
  pid_t mPid = -1;
  int mDown[2] = {-1, -1};
  int mUp[2] = {-1, -1};
};

// Exit status and combined output of porvane-unlock with inArguments.
std::pair<int, std::string> RunPorvaneUnlock(const std::string& inArguments) {
  const std::string command = std::string(PORVANE_BINARY_DIR) + "/bin/porvane-unlock " + inArguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, ""};
  std::string output;
  char chunk[256];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// Matches a call that throws Error with the message inWhat and inResource.
template <typename Error>
auto ThrowsWith(const char* inWhat, const std::string& inResource) {
  return testing::Throws<Error>(testing::AllOf(testing::Property(&Error::what, testing::StrEq(inWhat)),
                                               testing::Property(&Error::resource, testing::StrEq(inResource))));
}

TEST(ResourceLockerTest, SecondProcessWaitsOutTheTimeoutThenGetsTheReleasedLock) {
  const TestLock name("handover");
  LockHolder holder(name.name);
  ASSERT_TRUE(holder.locked);

  qvd::ResourceLocker second(name.name, 200);
  const uint64_t start = qvd::Microseconds();
  EXPECT_FALSE(second.lock());
  const uint64_t waited = qvd::Microseconds() - start;
  EXPECT_GE(waited, 200000u);
  EXPECT_LT(waited, 30000000u);  // a hang, not a speed limit
  EXPECT_FALSE(second.isLocked());

  EXPECT_TRUE(holder.Release());
  EXPECT_FALSE(name.Exists());
  EXPECT_TRUE(second.lock());
  EXPECT_TRUE(second.isLocked());
  EXPECT_TRUE(second.unlock(false));
  EXPECT_FALSE(name.Exists());
}

TEST(ResourceLockerTest, MisuseThrowsAndDestructionReleasesOnlyAHeldLock) {
  const TestLock name("misuse");
  qvd::ResourceLocker locker(name.name, 0);
  EXPECT_THAT([&] { locker.unlock(false); },
              ThrowsWith<qvd::no_resource_lock>("This object is not locking an item", "Resource unknown"));
  ASSERT_TRUE(locker.lock());
  EXPECT_THAT([&] { locker.lock(); },
              ThrowsWith<qvd::resource_lock_fail>("A resource is already being locked", name.name));
  EXPECT_TRUE(locker.isLocked());
  {
    qvd::ResourceLocker other(name.name, 0);
    EXPECT_FALSE(other.lock()) << "objects of one process exclude each other too";
  }
  EXPECT_TRUE(name.Exists()) << "an object that holds nothing releases nothing";

  EXPECT_TRUE(locker.unlock(false));
  EXPECT_THROW(locker.unlock(false), qvd::no_resource_lock);
  {
    qvd::ResourceLocker scoped(name.name, 0);
    ASSERT_TRUE(scoped.lock());
  }
  EXPECT_FALSE(name.Exists()) << "destruction releases a held lock";
}

TEST(ResourceLockerTest, ForcedUnlockRemovesAnotherProcesssLock) {
  const TestLock name("forced");
  LockHolder holder(name.name);
  ASSERT_TRUE(holder.locked);
  qvd::ResourceLocker clearer(name.name, 0);
  EXPECT_TRUE(clearer.unlock(true));
  EXPECT_FALSE(clearer.isLocked());
  EXPECT_FALSE(name.Exists());
  EXPECT_FALSE(clearer.unlock(true)) << "nothing left to remove";
  EXPECT_FALSE(holder.Release()) << "the holder's name is gone, so its own release fails";
}

TEST(ResourceLockerTest, KilledHolderLeavesAStaleLockThatPorvaneUnlockClears) {
  const TestLock name("stale");
  LockHolder holder(name.name);
  ASSERT_TRUE(holder.locked);
  holder.Kill();
  qvd::ResourceLocker blocked(name.name, 20);
  EXPECT_FALSE(blocked.lock());

  const std::string quoted = "\"" + name.name + "\" ";
  EXPECT_EQ(RunPorvaneUnlock("--name " + name.name),
            std::make_pair(0, "porvane-unlock: removed lock " + quoted + "(semaphore " + name.semaphore + ")\n"));
  EXPECT_EQ(RunPorvaneUnlock("--name " + name.name),
            std::make_pair(1, "porvane-unlock: no lock " + quoted + "to remove (semaphore " + name.semaphore + ")\n"));
  EXPECT_TRUE(blocked.lock());
  EXPECT_TRUE(blocked.unlock(false));
  EXPECT_EQ(RunPorvaneUnlock("--bogus").first, 2);
}

TEST(LockSemaphoreNameTest, SlashPlusTheHashWithNoOtherSlash) {
  EXPECT_EQ(qvd::LockSemaphoreName(kAgentLockName), "/rDYSDwOgFCbsPgPa4MYm3Q==");
  // MD5Hash("abc") is kAFQmDzST7DWlj99KOF/cg==: its "/" becomes "_".
  EXPECT_EQ(qvd::LockSemaphoreName("abc"), "/kAFQmDzST7DWlj99KOF_cg==");
  EXPECT_EQ(qvd::LockSemaphoreName(std::string(5000, 'x')).size(), 25u);
}

}  // namespace
