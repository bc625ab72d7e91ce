// The built porvane, run as a user runs it, against the reference receiver on
// loopback, with a private home and a fake install prefix.
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "AgentFixture.h"
#include "AgentLock.h"
#include "RawServer.h"
#include "ReceiverProcess.h"
#include "ResourceLocker.h"

namespace {

using Strings = std::vector<std::string>;

// True when nobody holds the agent's lock (taking it at once succeeds).
bool AgentLockIsFree() {
  qvd::ResourceLocker probe(kAgentLockName, 0);
  if (!probe.lock()) return false;
  probe.unlock(false);
  return true;
}

// Waits (bounded) until inCondition holds.
template <typename Condition>
bool Eventually(Condition inCondition, int inTimeoutMs = 10000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(inTimeoutMs);
  while (!inCondition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class AgentEndToEnd : public AgentFixture {
 protected:
  std::string Spool(const std::string& inName) const {
    std::string dir = mRoot / ("spool/" + inName);
    std::filesystem::create_directories(dir);
    return dir;
  }
};

TEST_F(AgentEndToEnd, OnePassUploadsEveryFinishedFileAndStoresTheStatus) {
  ReceiverProcess receiver(Spool("r"));
  WriteInstallConfig("[System]\nUploadURL=" + receiver.Url() + "\n");
  WriteLog(DefaultLogFolder(), "u1_a.log", "first");
  WriteLog(DefaultLogFolder(), "u2_b.log", "second");
  WriteLog(DefaultLogFolder(), "u1_c.log.tmp", "still being written");
  std::filesystem::create_directories(DefaultLogFolder() + "/sub");

  auto agent = Run({});

  EXPECT_EQ(agent->ExitCode(), 0) << agent->Stderr();
  EXPECT_EQ(agent->Stdout(), "");
  EXPECT_EQ(agent->Stderr(), "");
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"sub", "u1_c.log.tmp"}));
  EXPECT_EQ(ReadFile(mRoot / "spool/r/u1_a.log"), "first");
  EXPECT_EQ(ReadFile(mRoot / "spool/r/u2_b.log"), "second");
  EXPECT_EQ(receiver.WaitForLines(2).size(), 2u);
  EXPECT_EQ(ReadFile(UserSettingsPath()), "[u1]\nstatus=Active\n[u2]\nstatus=Active\n");
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, ReceiverComesFromOptionThenEnvironmentThenInstallation) {
  ReceiverProcess byOption(Spool("option")), byEnv(Spool("env")), byConfig(Spool("config"));
  WriteInstallConfig("[System]\nUploadURL=" + byConfig.Url() + "\n");
  const ChildProcess::Environment env = {{"receiverURL", byEnv.Url()}};

  WriteLog(DefaultLogFolder(), "k_1.log", "one");
  EXPECT_EQ(Run({"-receiverURL=" + byOption.Url()}, env)->ExitCode(), 0);
  WriteLog(DefaultLogFolder(), "k_2.log", "two");
  EXPECT_EQ(Run({}, env)->ExitCode(), 0);
  WriteLog(DefaultLogFolder(), "k_3.log", "three");
  EXPECT_EQ(Run({})->ExitCode(), 0);

  EXPECT_EQ(byOption.WaitForLines(1), (Strings{"kind=k file=k_1.log bytes=3 answer=Active"}));
  EXPECT_EQ(byEnv.WaitForLines(1), (Strings{"kind=k file=k_2.log bytes=3 answer=Active"}));
  EXPECT_EQ(byConfig.WaitForLines(1), (Strings{"kind=k file=k_3.log bytes=5 answer=Active"}));
}

TEST_F(AgentEndToEnd, LogFolderComesFromOptionThenEnvironmentThenDefault) {
  ReceiverProcess receiver(Spool("r"));
  const std::string optionDir = mRoot / "byOption", envDir = mRoot / "byEnv";
  std::filesystem::create_directories(optionDir);
  std::filesystem::create_directories(envDir);
  WriteLog(optionDir, "a_1.log", "o");
  WriteLog(envDir, "b_1.log", "e");
  WriteLog(DefaultLogFolder(), "c_1.log", "d");
  const std::string url = "-receiverURL=" + receiver.Url();

  EXPECT_EQ(Run({"-logDir=" + optionDir, url}, {{"logDir", envDir}})->ExitCode(), 0);
  EXPECT_TRUE(Names(optionDir).empty());
  EXPECT_EQ(Names(envDir).size(), 1u);

  EXPECT_EQ(Run({url}, {{"logDir", envDir}})->ExitCode(), 0);
  EXPECT_TRUE(Names(envDir).empty());
  EXPECT_EQ(Names(DefaultLogFolder()).size(), 1u);

  EXPECT_EQ(Run({url})->ExitCode(), 0);
  EXPECT_TRUE(Names(DefaultLogFolder()).empty());
  EXPECT_EQ(receiver.WaitForLines(3).size(), 3u);
}

TEST_F(AgentEndToEnd, EmptyUploadUrlFallsBackToTheBuiltInReceiver) {
  // The built-in receiver is https; a proxy named by https_proxy sees the
  // CONNECT for its host. It then hangs up, so the upload fails and the agent
  // waits to retry until SIGTERM ends the file's retries.
  RawServer proxy([](int inSocket, RawServer& inServer) { inServer.ReadRequest(inSocket); });
  WriteInstallConfig("[System]\nUploadURL=\n");
  const std::string log = WriteLog(DefaultLogFolder(), "k_1.log", "kept");

  auto agent = Start({}, {{"https_proxy", "http://127.0.0.1:" + std::to_string(proxy.Port())}});
  ASSERT_TRUE(Eventually([&] { return !proxy.Requests().empty(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  agent->Signal(SIGTERM);
  ASSERT_TRUE(agent->Wait(10000));

  EXPECT_EQ(agent->ExitCode(), 1);
  EXPECT_EQ(proxy.Requests().front().rfind("CONNECT collect.tarvo.example:443 HTTP/1.1\r\n", 0), 0u)
      << proxy.Requests().front();
  EXPECT_EQ(ReadFile(log), "kept");
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, LockHeldElsewhereEndsWithOneAndTrimsNothing) {
  ReceiverProcess receiver(Spool("r"));
  WriteInstallConfig("[System]\nMaxTotalDirSize=10\nUploadURL=" + receiver.Url() + "\n");
  WriteLog(DefaultLogFolder(), "k_old.log", "0123456789", 100);
  WriteLog(DefaultLogFolder(), "k_new.log", "0123456789");

  {
    qvd::ResourceLocker holder(kAgentLockName, 0);
    ASSERT_TRUE(holder.lock());
    auto agent = Run({});
    EXPECT_EQ(agent->ExitCode(), 1);
    EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_new.log", "k_old.log"}));

    // -noLock neither waits for the lock nor touches it: the pass runs, the
    // folder is trimmed to its budget first, and the lock stays ours.
    auto unlocked = Run({"-noLock"});
    EXPECT_EQ(unlocked->ExitCode(), 0);
    EXPECT_TRUE(Names(DefaultLogFolder()).empty());
    EXPECT_EQ(receiver.WaitForLines(1), (Strings{"kind=k file=k_new.log bytes=10 answer=Active"}));
    EXPECT_TRUE(holder.isLocked());
  }
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, TrimsTheDefaultFolderOldestFirstBeforeUploading) {
  ReceiverProcess receiver(Spool("r"));
  WriteInstallConfig("[System]\nMaxTotalDirSize=2500\nUploadURL=" + receiver.Url() + "\n");
  const std::string kilo(1000, 'x');
  WriteLog(DefaultLogFolder(), "k_oldest.log", kilo, 300);
  WriteLog(DefaultLogFolder(), "k_older.log", kilo, 200);
  WriteLog(DefaultLogFolder(), "k_new.log", kilo, 100);
  WriteLog(DefaultLogFolder(), "k_newest.log", kilo);
  WriteLog(DefaultLogFolder(), "k_big.log.tmp", std::string(5000, 't'), 400);

  auto agent = Run({});

  EXPECT_EQ(agent->ExitCode(), 0);
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_big.log.tmp"}));
  EXPECT_EQ(Names(mRoot / "spool/r"), (Strings{"k_new.log", "k_newest.log"}));
}

TEST_F(AgentEndToEnd, ExitStatusIsOneWhenThereIsNothingToRunWith) {
  ReceiverProcess receiver(Spool("r"));
  const std::string url = "-receiverURL=" + receiver.Url();
  WriteLog(DefaultLogFolder(), "k_1.log", "x");

  EXPECT_EQ(Run({url}, {{"logDir", ""}})->ExitCode(), 1) << "empty log folder";
  EXPECT_EQ(Run({"-logDir=" + (mRoot / "missing"), url})->ExitCode(), 1) << "missing log folder";
  EXPECT_EQ(Run({}, {{"receiverURL", ""}})->ExitCode(), 1) << "empty receiver";

  // Neither the log folder nor the settings folder can be made: no log
  // folder, so the run is not attempted even though a receiver is named.
  WriteFile(mRoot / "blocker", "a file where folders should go");
  auto noFolders = Run({url}, {{"XDG_STATE_HOME", mRoot / "blocker/state"}, {"XDG_DATA_HOME", mRoot / "blocker/data"}});
  EXPECT_EQ(noFolders->ExitCode(), 1);

  EXPECT_TRUE(receiver.Lines().empty());
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_1.log"}));
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, RejectedArgumentEndsBeforeAnythingIsTouched) {
  ReceiverProcess receiver(Spool("r"));
  WriteInstallConfig("[System]\nMaxTotalDirSize=0\nUploadURL=" + receiver.Url() + "\n");
  WriteLog(DefaultLogFolder(), "k_1.log", "stays");

  for (const std::string bad : {"-logDir=/tmp/logs/", "-logDir=", "noLock", "-a=b c", "---noLock"}) {
    auto agent = Run({"-noLock", bad});
    EXPECT_EQ(agent->ExitCode(), 2) << bad;
    EXPECT_EQ(agent->Stderr(), "porvane: invalid argument: " + bad + "\n");
    EXPECT_EQ(agent->Stdout(), "");
  }
  EXPECT_TRUE(receiver.Lines().empty());
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_1.log"}));
  EXPECT_FALSE(std::filesystem::exists(UserSettingsPath()));
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, SigtermEndsAStalledUploadAndReleasesTheLock) {
  RawServer stalled([](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    inServer.WaitUntilStoppedOrClosed(inSocket);
  });
  const std::string log = WriteLog(DefaultLogFolder(), "k_1.log", "kept");
  WriteLog(DefaultLogFolder(), "k_2.log", "not reached");

  auto agent = Start({"-receiverURL=" + stalled.Url()});
  ASSERT_TRUE(Eventually([&] { return !stalled.Requests().empty(); }));
  agent->Signal(SIGTERM);
  ASSERT_TRUE(agent->Wait(10000)) << "SIGTERM did not end the stalled upload";

  EXPECT_EQ(agent->ExitCode(), 1);
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_1.log", "k_2.log"}));
  EXPECT_EQ(stalled.Connections(), 1);
  EXPECT_TRUE(AgentLockIsFree());
}

TEST_F(AgentEndToEnd, SigtermDuringTheRetryWaitEndsThePass) {
  const std::string policy = mRoot / "policy.cfg";
  WriteFile(policy, "[Policy]\n*=Later\n");
  ReceiverProcess receiver(Spool("r"), policy);
  WriteLog(DefaultLogFolder(), "k_1.log", "kept");

  auto agent = Start({"-receiverURL=" + receiver.Url()});
  ASSERT_EQ(receiver.WaitForLines(1).size(), 1u);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_TRUE(agent->Running()) << "the agent should be waiting 60 s to retry";
  agent->Signal(SIGTERM);
  ASSERT_TRUE(agent->Wait(10000)) << "SIGTERM did not end the retry wait";

  EXPECT_EQ(agent->ExitCode(), 1);
  EXPECT_EQ(receiver.Lines().size(), 1u);
  EXPECT_EQ(Names(DefaultLogFolder()), (Strings{"k_1.log"}));
  EXPECT_TRUE(AgentLockIsFree());
}

}  // namespace
