#include "lock/ResourceLocker.h"

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "lock/AgentLock.h"
#include "lock/LockSemaphoreName.h"
#include "lock/Microseconds.h"

namespace {

// Reads one byte, retrying on EINTR; '\0' when the other end closed.
char ReadByte(int inFd) {
  char byte = '\0';
  ssize_t got;
  do {
    got = read(inFd, &byte, 1);
  } while (got < 0 && errno == EINTR);
  return got == 1 ? byte : '\0';
}

void WriteByte(int inFd, char inByte) {
  ssize_t put;
  do {
    put = write(inFd, &inByte, 1);
  } while (put < 0 && errno == EINTR);
}

// A child process that takes the lock inName (one attempt) and holds it until
// it is told to give it back or is killed. Exits with _exit, so the locker's
// destructor never runs in the child: what happens to the semaphore is only
// what the test asks for.
class LockHolderProcess {
 public:
  explicit LockHolderProcess(const std::string& inName) {
    int toChild[2], fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) return;
    mPid = fork();
    if (mPid == 0) {
      close(toChild[1]);
      close(fromChild[0]);
      RunChild(inName, toChild[0], fromChild[1]);
    }
    close(toChild[0]);
    close(fromChild[1]);
    mToChild = toChild[1];
    mFromChild = fromChild[0];
    mLocked = ReadByte(mFromChild) == '1';
  }

  ~LockHolderProcess() {
    if (mPid > 0) Kill();
    if (mToChild >= 0) close(mToChild);
    if (mFromChild >= 0) close(mFromChild);
  }

  LockHolderProcess(const LockHolderProcess&) = delete;
  LockHolderProcess& operator=(const LockHolderProcess&) = delete;

  bool Locked() const { return mLocked; }

  // The child's unlock(false) result; the child ends after it.
  bool Release() {
    WriteByte(mToChild, 'u');
    const bool released = ReadByte(mFromChild) == '1';
    Reap();
    return released;
  }

  // Ends the child without letting it release anything.
  void Kill() {
    kill(mPid, SIGKILL);
    Reap();
  }

 private:
  [[noreturn]] static void RunChild(const std::string& inName, int inCommands, int inReplies) {
    try {
      // Left undestroyed on purpose: the child ends with _exit.
      auto* locker = new qvd::ResourceLocker(inName, 0);
      WriteByte(inReplies, locker->lock() ? '1' : '0');
      if (ReadByte(inCommands) == 'u') WriteByte(inReplies, locker->unlock(false) ? '1' : '0');
    } catch (...) {
      WriteByte(inReplies, 'e');
    }
    _exit(0);
  }

  void Reap() {
    int status;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
  }

  pid_t mPid = -1;
  int mToChild = -1;
  int mFromChild = -1;
  bool mLocked = false;
};

// True when the named semaphore exists (opened without creating it).
bool SemaphoreExists(const std::string& inSemaphoreName) {
  sem_t* semaphore = sem_open(inSemaphoreName.c_str(), 0);
  if (semaphore == SEM_FAILED) return false;
  sem_close(semaphore);
  return true;
}

// Output and exit status of porvane-unlock run with inArguments.
struct ProgramRun {
  std::string output;
  int status = -1;
};

ProgramRun RunPorvaneUnlock(const std::string& inArguments) {
  const std::string command = std::string(PORVANE_BINARY_DIR) + "/bin/porvane-unlock " + inArguments + " 2>&1";
  ProgramRun run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char chunk[256];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) run.output.append(chunk, got);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

// Each test gets lock names of its own (the pid keeps parallel runs apart)
// and removes every semaphore they may have left.
class ResourceLockerTest : public ::testing::Test {
 protected:
  std::string LockName(const std::string& inTag) {
    const std::string name = "porvane-lock-test-" + std::to_string(getpid()) + "-" + inTag;
    mNames.push_back(name);
    return name;
  }

  void TearDown() override {
    for (const std::string& name : mNames) sem_unlink(qvd::LockSemaphoreName(name).c_str());
  }

 private:
  std::vector<std::string> mNames;
};

TEST_F(ResourceLockerTest, SecondProcessWaitsOutTheTimeoutThenGetsTheReleasedLock) {
  const std::string name = LockName("handover");
  LockHolderProcess holder(name);
  ASSERT_TRUE(holder.Locked());
  EXPECT_TRUE(SemaphoreExists(qvd::LockSemaphoreName(name)));

  qvd::ResourceLocker second(name, 200);
  const uint64_t start = qvd::Microseconds();
  EXPECT_FALSE(second.lock());
  const uint64_t waited = qvd::Microseconds() - start;
  EXPECT_GE(waited, 200000u);
  EXPECT_LT(waited, 30000000u);  // a hang, not a speed limit
  EXPECT_FALSE(second.isLocked());

  EXPECT_TRUE(holder.Release());
  EXPECT_FALSE(SemaphoreExists(qvd::LockSemaphoreName(name)));
  EXPECT_TRUE(second.lock());
  EXPECT_TRUE(second.isLocked());
  EXPECT_TRUE(second.unlock(false));
  EXPECT_FALSE(second.isLocked());
  EXPECT_FALSE(SemaphoreExists(qvd::LockSemaphoreName(name)));
}

TEST_F(ResourceLockerTest, TwoObjectsOfOneProcessExcludeEachOther) {
  const std::string name = LockName("same-process");
  qvd::ResourceLocker first(name, 0);
  qvd::ResourceLocker second(name, 20);
  EXPECT_FALSE(first.isLocked());
  ASSERT_TRUE(first.lock());
  EXPECT_TRUE(first.isLocked());
  EXPECT_TRUE(SemaphoreExists(qvd::LockSemaphoreName(name)));
  EXPECT_FALSE(second.lock());
  EXPECT_TRUE(first.unlock(false));
  EXPECT_TRUE(second.lock());
  EXPECT_FALSE(first.lock());
  EXPECT_TRUE(second.unlock(false));
}

TEST_F(ResourceLockerTest, MisuseThrowsWithItsResource) {
  const std::string name = LockName("misuse");
  qvd::ResourceLocker locker(name, 0);
  try {
    locker.unlock(false);
    ADD_FAILURE() << "unlock(false) on a fresh object did not throw";
  } catch (const qvd::no_resource_lock& error) {
    EXPECT_STREQ(error.what(), "This object is not locking an item");
    EXPECT_STREQ(error.resource(), "Resource unknown");
  }

  ASSERT_TRUE(locker.lock());
  try {
    locker.lock();
    ADD_FAILURE() << "a second lock() did not throw";
  } catch (const qvd::resource_lock_fail& error) {
    EXPECT_STREQ(error.what(), "A resource is already being locked");
    EXPECT_EQ(std::string(error.resource()), name);
  }
  EXPECT_TRUE(locker.isLocked());
  EXPECT_TRUE(SemaphoreExists(qvd::LockSemaphoreName(name)));

  EXPECT_TRUE(locker.unlock(false));
  EXPECT_THROW(locker.unlock(false), qvd::no_resource_lock);  // free again
}

TEST_F(ResourceLockerTest, ForcedUnlockRemovesAnotherProcesssLock) {
  const std::string name = LockName("forced");
  LockHolderProcess holder(name);
  ASSERT_TRUE(holder.Locked());

  qvd::ResourceLocker clearer(name, 0);
  EXPECT_TRUE(clearer.unlock(true));
  EXPECT_FALSE(clearer.isLocked());
  EXPECT_FALSE(SemaphoreExists(qvd::LockSemaphoreName(name)));
  EXPECT_FALSE(clearer.unlock(true));  // nothing left to remove

  qvd::ResourceLocker taker(name, 0);
  EXPECT_TRUE(taker.lock());
  EXPECT_TRUE(taker.unlock(false));

  // The holder's name is gone: its own release fails, and it keeps holding.
  EXPECT_FALSE(holder.Release());
}

TEST_F(ResourceLockerTest, FailedUnlinkLeavesTheLockHeld) {
  const std::string name = LockName("unlink-fails");
  qvd::ResourceLocker holder(name, 0);
  ASSERT_TRUE(holder.lock());
  qvd::ResourceLocker clearer(name, 0);
  ASSERT_TRUE(clearer.unlock(true));

  EXPECT_FALSE(holder.unlock(false));
  EXPECT_TRUE(holder.isLocked());
  EXPECT_THROW(holder.lock(), qvd::resource_lock_fail);
}

TEST_F(ResourceLockerTest, DestructionReleasesOnlyAHeldLock) {
  const std::string name = LockName("destruction");
  {
    qvd::ResourceLocker locker(name, 0);
    ASSERT_TRUE(locker.lock());
  }
  EXPECT_FALSE(SemaphoreExists(qvd::LockSemaphoreName(name)));

  LockHolderProcess holder(name);
  ASSERT_TRUE(holder.Locked());
  { qvd::ResourceLocker unused(name, 0); }
  {
    qvd::ResourceLocker loser(name, 0);
    EXPECT_FALSE(loser.lock());
  }
  EXPECT_TRUE(SemaphoreExists(qvd::LockSemaphoreName(name)));
  EXPECT_TRUE(holder.Release());
}

TEST_F(ResourceLockerTest, ZeroTimeoutMakesOneAttempt) {
  const std::string name = LockName("zero-timeout");
  {
    qvd::ResourceLocker locker(name, 0);
    EXPECT_TRUE(locker.lock());  // a free name is taken on the first attempt
  }

  LockHolderProcess holder(name);
  ASSERT_TRUE(holder.Locked());
  qvd::ResourceLocker locker(name, 0);
  const uint64_t start = qvd::Microseconds();
  EXPECT_FALSE(locker.lock());
  const uint64_t waited = qvd::Microseconds() - start;
  EXPECT_GE(waited, 1000u);      // the one sleep after the failed attempt
  EXPECT_LT(waited, 10000000u);  // a hang, not a speed limit
}

TEST_F(ResourceLockerTest, KilledHolderLeavesAStaleLockThatPorvaneUnlockClears) {
  const std::string name = LockName("stale");
  const std::string semaphore = qvd::LockSemaphoreName(name);
  {
    LockHolderProcess holder(name);
    ASSERT_TRUE(holder.Locked());
    holder.Kill();
  }
  EXPECT_TRUE(SemaphoreExists(semaphore));
  {
    qvd::ResourceLocker blocked(name, 20);
    EXPECT_FALSE(blocked.lock());
  }

  const ProgramRun removed = RunPorvaneUnlock("--name " + name);
  EXPECT_EQ(removed.status, 0);
  EXPECT_EQ(removed.output, "porvane-unlock: removed lock \"" + name + "\" (semaphore " + semaphore + ")\n");
  EXPECT_FALSE(SemaphoreExists(semaphore));

  const ProgramRun none = RunPorvaneUnlock("--name " + name);
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.output, "porvane-unlock: no lock \"" + name + "\" to remove (semaphore " + semaphore + ")\n");

  qvd::ResourceLocker after(name, 0);
  EXPECT_TRUE(after.lock());
  EXPECT_TRUE(after.unlock(false));
}

TEST(PorvaneUnlockTest, HelpAndUsageErrors) {
  const ProgramRun help = RunPorvaneUnlock("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output.rfind("usage: porvane-unlock [--name NAME]\n", 0), 0u) << help.output;

  const ProgramRun unknown = RunPorvaneUnlock("--bogus");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output.rfind("porvane-unlock: unexpected argument \"--bogus\"\nusage:", 0), 0u)
      << unknown.output;

  const ProgramRun missingValue = RunPorvaneUnlock("--name");
  EXPECT_EQ(missingValue.status, 2);
}

TEST(LockSemaphoreNameTest, SlashPlusTheHashWithNoOtherSlash) {
  EXPECT_EQ(qvd::LockSemaphoreName(kAgentLockName), "/rDYSDwOgFCbsPgPa4MYm3Q==");
  EXPECT_EQ(qvd::LockSemaphoreName(kAgentLockName), qvd::LockSemaphoreName(kAgentLockName));
  // MD5Hash("abc") is kAFQmDzST7DWlj99KOF/cg==: its "/" becomes "_".
  EXPECT_EQ(qvd::LockSemaphoreName("abc"), "/kAFQmDzST7DWlj99KOF_cg==");
  const std::string longName(5000, 'x');
  for (const std::string& lockName : {std::string("a"), std::string("with/slash"), longName}) {
    const std::string semaphore = qvd::LockSemaphoreName(lockName);
    EXPECT_EQ(semaphore.size(), 25u) << lockName;
    EXPECT_EQ(semaphore.find('/', 1), std::string::npos) << lockName;
    EXPECT_EQ(semaphore.compare(23, 2, "=="), 0) << lockName;
  }
}

TEST(ResourceLockerDeathTest, EmptyLockNameIsAProgrammingError) {
  qvd::ResourceLocker locker("", 0);
  EXPECT_DEATH(locker.lock(), "^source/MD5Hash\\.cpp:[0-9]+: failed assertion `!inString\\.empty\\(\\)'\n$");
}

}  // namespace
