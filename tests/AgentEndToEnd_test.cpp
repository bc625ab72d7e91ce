// The built porvane, run as a user runs it: a private home, a private install
// prefix, a private /dev/shm (so its machine-wide lock is never the
// machine's), against the reference receiver or a misbehaving peer on
// loopback. Whatever happens, every log file is acknowledged once or still
// in its folder.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

#include "ChildProcess.h"
#include "PrivateHome.h"
#include "RawServer.h"

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace {

const char kLockFile[] = "/dev/shm/sem.rDYSDwOgFCbsPgPa4MYm3Q==";

class AgentEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = UsePrivateShm();
    if (!why.empty()) GTEST_SKIP() << "needs a private /dev/shm for the agent's lock: " << why;
    fs::create_directories(mHome / "prefix/bin");
    fs::create_directories(mHome / "prefix/share/porvane");
    fs::copy_file(BuiltProgram("porvane"), mHome / "prefix/bin/porvane");
  }
  void Install(const std::string& inConfig) { WriteFile(mHome / "prefix/share/porvane/Porvane.cfg", inConfig); }
  // A log file inAgeSeconds old, in the default log folder unless inDir says
  // otherwise; the folder is made when missing.
  void Log(const std::string& inName, const std::string& inContent, int inAgeSeconds = 0, std::string inDir = "") {
    if (inDir.empty()) inDir = mLogs;
    fs::create_directories(inDir);
    const std::string path = inDir + "/" + inName;
    WriteFile(path, inContent);
    const utimbuf times{std::time(nullptr) - inAgeSeconds, std::time(nullptr) - inAgeSeconds};
    utime(path.c_str(), &times);
  }
  std::unique_ptr<ChildProcess> Start(Strings inArgs, const ChildProcess::Environment& inEnv = {}) {
    inArgs.insert(inArgs.begin(), mHome / "prefix/bin/porvane");
    ChildProcess::Environment env = mHome.Environment();
    for (const auto& [name, value] : inEnv) env[name] = value;
    return std::make_unique<ChildProcess>(inArgs, env, mHome / ("tmp/agent" + std::to_string(++mRuns)));
  }
  int Run(const Strings& inArgs, const ChildProcess::Environment& inEnv = {}) {
    auto agent = Start(inArgs, inEnv);
    EXPECT_TRUE(agent->Wait()) << "the pass did not end";
    EXPECT_EQ(agent->Stdout() + agent->Stderr(), "");
    return agent->ExitCode();
  }
  // A file kept for a retry: the agent waits 60 s, so the test ends the wait
  // with inSignal (SIGTERM, SIGINT and SIGHUP alike), which ends the pass
  // with status 1, the file kept and the lock released.
  void ExpectWaitingThenStop(ChildProcess& ioAgent, int inSignal = SIGTERM) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(ioAgent.Running()) << "the agent should wait to retry";
    ioAgent.Signal(inSignal);
    ASSERT_TRUE(ioAgent.Wait(10000)) << "SIGTERM did not end the pass";
    EXPECT_EQ(ioAgent.ExitCode(), 1);
    EXPECT_FALSE(fs::exists(kLockFile));
  }
  // The output of porvane-unlock inOption, which must exit 0.
  std::string Unlock(const std::string& inOption) {
    ChildProcess unlock({BuiltProgram("porvane-unlock"), inOption}, mHome.Environment(), mHome / "tmp/unlock");
    EXPECT_TRUE(unlock.Wait() && unlock.ExitCode() == 0) << unlock.Stderr();
    return unlock.Stdout();
  }

  PrivateHome mHome;
  const std::string mLogs = mHome.LogFolder();
  int mRuns = 0;
};

std::string DateInDays(int inDays) {
  const std::time_t when = std::time(nullptr) + inDays * 86400;
  char text[32];
  std::strftime(text, sizeof text, "%Y-%b-%d", std::localtime(&when));
  return text;
}

TEST_F(AgentEndToEnd, EachReplyWordDecidesTheFileAndTheKindsNextFiles) {
  WriteFile(mHome / "policy.cfg", "[Policy]\nu2=Delete\nu3=Hibernate 3\nu4=Disabled\n*=Active\n");
  ReceiverProcess receiver(mHome / "spool-r", {"--policy", mHome / "policy.cfg"});
  Install("[System]\nUploadURL=" + receiver.Url() + "\n");
  for (const char* name : {"u1_a.log", "u2_b.log", "u3_c.log", "u4_d.log", "nokind.log", "u5_e.log.tmp"})
    Log(name, std::string("content of ") + name);
  fs::create_directories(mLogs + "/sub");

  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(Names(mLogs), (Strings{"sub", "u5_e.log.tmp"}));
  EXPECT_EQ(Names(mHome / "spool-r"), (Strings{"nokind.log", "u1_a.log", "u2_b.log", "u3_c.log", "u4_d.log"}));
  EXPECT_EQ(ReadFile(mHome / "spool-r/u3_c.log"), "content of u3_c.log");
  EXPECT_EQ(ReadFile(mHome.UserSettings()), "[u1]\nstatus=Active\n[u2]\nstatus=Active\n[u3]\nhibernatewakedate=" +
                                                DateInDays(3) + "\nstatus=Hibernate\n[u4]\nstatus=Disabled\n");
  EXPECT_FALSE(fs::exists(kLockFile));

  // Hibernating and disabled kinds go unsent; a hibernation that has ended
  // is lifted.
  WriteFile(mHome.UserSettings(), "[u3]\nStatus=Hibernate\nHibernateWakeDate=" + DateInDays(2) +
                                      "\n[u4]\nStatus=Disabled\n[u6]\nStatus=Hibernate\nHibernateWakeDate=" +
                                      DateInDays(0) + "\n");
  for (const char* name : {"u3_f.log", "u4_g.log", "u6_h.log"}) Log(name, "later");
  EXPECT_EQ(Run({}), 0);
  EXPECT_EQ(Names(mLogs), (Strings{"sub", "u5_e.log.tmp"}));
  EXPECT_EQ(receiver.Lines(6).size(), 6u);
  EXPECT_EQ(receiver.Lines().back(), "kind=u6 file=u6_h.log bytes=5 answer=Active");
}

TEST_F(AgentEndToEnd, ReceiverAndFolderComeFromOptionThenEnvironmentThenInstallation) {
  ReceiverProcess byOption(mHome / "spool-option"), byEnv(mHome / "spool-env"), byConfig(mHome / "spool-config");
  Install("[System]\nUploadURL=" + byConfig.Url() + "\n");
  const std::string optionDir = mHome / "byOption", envDir = mHome / "byEnv";
  Log("k_1.log", "o", 0, optionDir);
  Log("k_2.log", "e", 0, envDir);
  Log("k_3.log", "d");
  EXPECT_EQ(Run({"-logDir=" + optionDir, "-receiverURL=" + byOption.Url()}, {{"logDir", envDir}}), 0);
  EXPECT_EQ(Run({}, {{"logDir", envDir}, {"receiverURL", byEnv.Url()}}), 0);
  // A data folder that cannot be made costs the status file, not the pass.
  WriteFile(mHome / "blocker", "");
  EXPECT_EQ(Run({"-noLock"}, {{"XDG_DATA_HOME", mHome / "blocker/data"}}), 0);
  EXPECT_EQ(byOption.Lines(1), Strings{"kind=k file=k_1.log bytes=1 answer=Active"});
  EXPECT_EQ(byEnv.Lines(1), Strings{"kind=k file=k_2.log bytes=1 answer=Active"});
  EXPECT_EQ(byConfig.Lines(1), Strings{"kind=k file=k_3.log bytes=1 answer=Active"});

  // An empty UploadURL means the built-in receiver (https): the proxy named
  // by https_proxy is asked to CONNECT to it.
  RawServer proxy([](RawServer& inServer, int inSocket) { inServer.ReadRequest(inSocket); });
  Install("[System]\nUploadURL=\n");
  Log("k_4.log", "kept");
  auto agent = Start({}, {{"https_proxy", proxy.Url("")}});
  ASSERT_TRUE(Eventually([&] { return !proxy.Requests().empty(); }));
  EXPECT_EQ(proxy.Requests()[0].rfind("CONNECT collect.tarvo.example:443 HTTP/1.1\r\n", 0), 0u);
  ExpectWaitingThenStop(*agent);
  // Only http(s) delivers: a file that says "Delete" is no receiver.
  WriteFile(mHome / "reply.txt", "Delete");
  agent = Start({"-receiverURL=file://" + (mHome / "reply.txt")}, {{"PORVANE_DEBUG", "1"}});
  const std::string refused = ": HTTP 0, error \"not a usable http or https URL\", reply \"\"; kept, next try in 60 s";
  ASSERT_TRUE(Eventually([&] { return agent->Stderr().find(refused) != std::string::npos; })) << agent->Stderr();
  ExpectWaitingThenStop(*agent);
  EXPECT_EQ(Names(mLogs), Strings{"k_4.log"});
}

TEST_F(AgentEndToEnd, BrokenExchangesKeepTheFileAndOnlyTheReplyBodyCounts) {
  const auto reset = [](RawServer& inServer, int inSocket) {
    inServer.ReadRequest(inSocket);
    const linger abortive{1, 0};
    setsockopt(inSocket, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  };
  const auto answer = [](const std::string& inReply) {
    return [inReply](RawServer& inServer, int inSocket) {
      inServer.ReadRequest(inSocket);
      RawServer::Send(inSocket, inReply);
    };
  };
  // Each peer, and what PORVANE_DEBUG's line for the attempt says of it.
  const std::map<std::string, std::pair<RawServer::Handler, std::string>> kPeers = {
      {"reset", {reset, "HTTP 0, error \"Recv failure: Connection reset by peer\", reply \"\"; kept, next try in 60 s"}},
      {"close after headers",
       {answer("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\n"),
        "HTTP 200, error \"transfer closed with 6 bytes remaining to read\", reply \"\"; kept, next try in 60 s"}},
      {"500, empty body", {answer(RawServer::Reply("", 500)), "HTTP 500, reply \"\"; kept, next try in 60 s"}},
      {"garbage", {answer("What?\r\n\r\n"), "HTTP 0, error \"Received HTTP/0.9 when not allowed\", reply \"\"; kept, next try in 60 s"}},
      {"never answers",
       {[](RawServer& inServer, int inSocket) {
          inServer.ReadRequest(inSocket);
          inServer.ReadRequest(inSocket);  // until the agent goes
        },
        "HTTP 0, error \"Callback aborted\", reply \"\"; kept, stopped"}},
      {"301 elsewhere", {answer("HTTP/1.1 301 Moved\r\nLocation: /x\r\nContent-Length: 0\r\n\r\n"),
                         "HTTP 301, reply \"\"; kept, next try in 60 s"}},
      {"500 saying Active", {answer(RawServer::Reply("Active", 500)), "HTTP 500, reply \"Active\"; removed"}},
  };
  int stops = 0;
  for (const auto& [name, peer] : kPeers) {
    SCOPED_TRACE(name);
    RawServer server(peer.first);
    Log("k_1.log", name);
    auto agent = Start({"-receiverURL=" + server.Url()}, {{"PORVANE_DEBUG", "1"}});
    ASSERT_TRUE(Eventually([&] { return !server.Requests().empty(); }));
    const std::string attempt = "porvane: " + mLogs + "/k_1.log to " + server.Url() + ": " + peer.second + "\n";
    if (peer.second.find("removed") != std::string::npos) {
      EXPECT_TRUE(agent->Wait());
      EXPECT_EQ(agent->ExitCode(), 0);
      EXPECT_TRUE(Names(mLogs).empty());
      EXPECT_EQ(agent->Stderr(), "porvane: lock taken\nporvane: trim of " + mLogs +
                                     " to 500000 bytes: within the limit\nporvane: log folder " + mLogs + "\n" +
                                     attempt + "porvane: pass ended with status 0\n");
    } else {
      ExpectWaitingThenStop(*agent, std::vector<int>{SIGTERM, SIGINT, SIGHUP}[stops++ % 3]);
      EXPECT_EQ(server.Requests().size(), 1u) << "retried too early";
      EXPECT_EQ(Names(mLogs), Strings{"k_1.log"});
      EXPECT_NE(agent->Stderr().find(attempt), std::string::npos) << agent->Stderr();
    }
  }
}

TEST_F(AgentEndToEnd, KilledProgramsLoseNoFileAndADeadAgentsLockHealsByItself) {
  for (int i = 0; i < 40; ++i) Log("k_" + std::to_string(100 + i) + ".log", std::string(1000, 'a' + i % 26));
  std::set<std::string> acked;
  const auto acknowledge = [&](const ReceiverProcess& inReceiver) {
    for (const std::string& line : inReceiver.Lines()) acked.insert(line.substr(line.find("file=") + 5, 9));
  };
  // Every file was acknowledged or is still there (or both, when the kill
  // came between the two).
  const auto lost = [&] {
    std::set<std::string> seen = acked;
    for (const std::string& name : Names(mLogs)) seen.insert(name);
    return 40 - seen.size();
  };
  // The agent dies mid-upload. Its lock stays and stops a plain pass; the
  // shipped unit's commands, in order, clear it (while the agent lived,
  // --if-stale left it) and deliver the rest.
  ReceiverProcess receiver(mHome / "spool-r", {"--delay-ms", "30"});
  auto agent = Start({"-receiverURL=" + receiver.Url()});
  ASSERT_TRUE(Eventually([&] { return receiver.Lines().size() >= 5; }));
  EXPECT_EQ(Unlock("--if-stale"), "porvane-unlock: lock \"TarvoUsageTrackerFileUploadLocker\" is held by process " +
                                      std::to_string(agent->Pid()) + "; left in place\n");
  agent->Signal(SIGKILL);
  ASSERT_TRUE(agent->Wait());
  acknowledge(receiver);
  EXPECT_EQ(lost(), 0u);
  EXPECT_EQ(Run({"-receiverURL=" + receiver.Url()}), 1);
  ChildProcess::Environment env = mHome.Environment();
  env["receiverURL"] = receiver.Url();
  std::istringstream unit(ReadFile(std::string(PORVANE_BINARY_DIR) + "/packaging/verify/porvane.service"));
  for (std::string line; std::getline(unit, line);) {
    if (line.rfind("ExecStart", 0) != 0) continue;
    std::istringstream words(line.substr(line.find('=') + 1));
    Strings command{std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
    if (command[0][0] == '-') command[0].erase(0, 1);
    ChildProcess step(command, env, mHome / "tmp/unit");
    ASSERT_TRUE(step.Wait());
    EXPECT_EQ(step.ExitCode(), 0) << line << ": " << step.Stdout() << step.Stderr();
  }
  acknowledge(receiver);
  EXPECT_EQ(lost(), 0u);
  EXPECT_EQ(acked.size(), 40u);
  EXPECT_TRUE(Names(mLogs).empty());
  EXPECT_EQ(Unlock("--if-stale"), "");
}

TEST_F(AgentEndToEnd, TheLockAndTheTrimComeFirstAndTheTrimIsOfTheDefaultFolder) {
  ReceiverProcess receiver(mHome / "spool-r");
  Install("[System]\nMaxTotalDirSize=2500\nUploadURL=" + receiver.Url() + "\n");
  const std::string other = mHome / "other";
  Log("k_o.log", "elsewhere", 500, other);
  for (const auto& [name, age] : {std::pair{"k_oldest.log", 300}, {"k_older.log", 200}, {"k_new.log", 100}, {"k_newest.log", 0}})
    Log(name, std::string(1000, 'x'), age);
  Log("k_big.log.tmp", std::string(5000, 't'), 400);

  sem_t* held = sem_open("/rDYSDwOgFCbsPgPa4MYm3Q==", O_CREAT | O_EXCL, 0700, 1);
  ASSERT_NE(held, SEM_FAILED);
  EXPECT_EQ(Run({"-logDir=" + other}), 1);
  EXPECT_EQ(Names(mLogs).size(), 5u);
  // A stop request ends the wait for the lock: freed 0.1 s later, the lock
  // is not taken, nothing is trimmed or sent.
  auto waiting = Start({"-logDir=" + other});
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  waiting->Signal(SIGTERM);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  sem_unlink("/rDYSDwOgFCbsPgPa4MYm3Q==");
  ASSERT_TRUE(waiting->Wait());
  EXPECT_EQ(waiting->ExitCode(), 1);
  sem_close(held);
  held = sem_open("/rDYSDwOgFCbsPgPa4MYm3Q==", O_CREAT | O_EXCL, 0700, 1);
  ASSERT_NE(held, SEM_FAILED) << "the stopped agent took the lock";
  EXPECT_EQ(Names(mLogs).size(), 5u);
  EXPECT_EQ(Names(other), Strings{"k_o.log"});
  EXPECT_EQ(Run({"-noLock", "-logDir=" + other}), 0);
  EXPECT_TRUE(fs::exists(kLockFile));
  sem_unlink("/rDYSDwOgFCbsPgPa4MYm3Q==");
  EXPECT_EQ(Names(mLogs), (Strings{"k_big.log.tmp", "k_new.log", "k_newest.log"}));
  EXPECT_TRUE(Names(other).empty());
  // A ceiling that is no number of bytes (atof reads 500) trims nothing, and says so.
  Install("[System]\nMaxTotalDirSize=500 KB\nUploadURL=" + receiver.Url() + "\n");
  auto agent = Start({"-logDir=" + other});
  EXPECT_TRUE(agent->Wait() && agent->ExitCode() == 0);
  EXPECT_EQ(agent->Stderr(), "porvane: MaxTotalDirSize \"500 KB\" is not a number of bytes; the log folder is not trimmed\n");
  EXPECT_EQ(Names(mLogs), (Strings{"k_big.log.tmp", "k_new.log", "k_newest.log"}));
}

TEST_F(AgentEndToEnd, NothingToRunWithEndsWithOneAndABadArgumentWithTwo) {
  ReceiverProcess receiver(mHome / "spool-r");
  Install("[System]\nMaxTotalDirSize=0\nUploadURL=" + receiver.Url() + "\n");
  Log("k_1.log", "stays");
  for (const std::string bad : {"-logDir=/tmp/logs/", "-logDir=", "noLock", "-a=b c", "---noLock"}) {
    auto agent = Start({"-noLock", bad});
    ASSERT_TRUE(agent->Wait());
    EXPECT_EQ(agent->ExitCode(), 2);
    EXPECT_EQ(agent->Stderr(), "porvane: invalid argument: " + bad + "\n");
  }
  EXPECT_EQ(Names(mLogs), Strings{"k_1.log"});
  WriteFile(mHome / "blocker", "a file where folders should go");
  const std::pair<Strings, ChildProcess::Environment> kNothing[] = {
      {{}, {{"logDir", ""}}},
      {{"-logDir=" + (mHome / "missing")}, {}},
      {{"-noLock"}, {{"receiverURL", ""}}},
      {{}, {{"XDG_STATE_HOME", mHome / "blocker/s"}, {"XDG_DATA_HOME", mHome / "blocker/d"}}},
  };
  for (const auto& [args, env] : kNothing) EXPECT_EQ(Run(args, env), 1) << ::testing::PrintToString(env);
  EXPECT_TRUE(receiver.Lines().empty());
  EXPECT_FALSE(fs::exists(kLockFile));
}

}  // namespace
