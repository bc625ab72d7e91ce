#include "UploadRun.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StopFlag.h"
#include "TerminateSignal.h"
#include "RawServer.h"
#include "ReceiverProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double SecondsBetween(Clock::time_point inStart, Clock::time_point inEnd) {
  return std::chrono::duration<double>(inEnd - inStart).count();
}

// The wake-date text of today + inDays, as the settings file holds it.
std::string WakeDate(int inDays) {
  return boost::gregorian::to_simple_string(boost::gregorian::day_clock::local_day() +
                                            boost::gregorian::days(inDays));
}

// A handler that reads the request and, after inDelayMs, answers inBody with
// inStatus, or sends inRaw instead when it is not empty.
RawServer::Handler Answer(const std::string& inBody, int inStatus = 200, const std::string& inRaw = "",
                          int inDelayMs = 0) {
  return [=](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    std::this_thread::sleep_for(std::chrono::milliseconds(inDelayMs));
    RawServer::WriteAll(inSocket, inRaw.empty() ? RawServer::HttpReply(inBody, inStatus) : inRaw);
  };
}

// A private home (state, data, log and spool folders) for each test.
class UploadRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mEnvironment.Set("HOME", mHome.Path());
    mEnvironment.Set("XDG_STATE_HOME", mHome / "state");
    mEnvironment.Set("XDG_DATA_HOME", mHome / "data");
    fs::create_directories(mLogs);
    fs::create_directories(mSpool);
  }

  std::string AddLog(const std::string& inName, const std::string& inContent) {
    WriteFile(mLogs + "/" + inName, inContent);
    return mLogs + "/" + inName;
  }

  std::set<std::string> LogNames() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(mLogs)) names.insert(entry.path().filename());
    return names;
  }

  std::string UserSettings() const { return ReadFile(mHome / "data/Tarvo/Porvane/UserSettings.cfg"); }

  TempDir mHome{"uploadrun"};
  ScopedEnvironment mEnvironment;
  const std::string mLogs = mHome / "logs";
  const std::string mSpool = mHome / "spool";
};

TEST_F(UploadRunTest, FolderRunSendsEachFinishedFileOnceAndLeavesTheRest) {
  const char kBinary[] = "\0\r\n--120751630488417592\r\n";
  const std::map<std::string, std::string> finished = {
      {"a_1.log", "first"},
      {"a_2.log", std::string(kBinary, sizeof kBinary - 1)},
      {"b_1.log", std::string(2048, 'b')},
      {"plain.log", "p"},
  };
  for (const auto& [name, content] : finished) AddLog(name, content);
  AddLog("x.tmp", "unfinished");
  AddLog("a.tmp.log", "unfinished too");
  fs::create_directories(mLogs + "/sub");
  AddLog("sub/c_1.log", "inside a subfolder");

  ReceiverProcess receiver(mSpool);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  std::vector<std::string> lines = receiver.WaitForLines(5, 500);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "kind=a file=a_1.log bytes=5 answer=Active",
                       "kind=a file=a_2.log bytes=25 answer=Active",
                       "kind=b file=b_1.log bytes=2048 answer=Active",
                       "kind=plain.log file=plain.log bytes=1 answer=Active",
                   }));
  for (const auto& [name, content] : finished) EXPECT_EQ(ReadFile(mSpool + "/" + name), content) << name;
  EXPECT_EQ(LogNames(), (std::set<std::string>{"a.tmp.log", "sub", "x.tmp"}));
  // Each kind's first check created its entry; the unnamed kind of
  // "plain.log" cannot be stored.
  EXPECT_EQ(UserSettings(), "[a]\nstatus=Active\n[b]\nstatus=Active\n");

  // ".tmp" anywhere in the path counts: a folder named so holds only
  // unfinished files. An empty folder is done; a missing one or a file fails.
  const std::string sMarked = mHome / "logs.tmp";
  fs::create_directories(sMarked);
  WriteFile(sMarked + "/a_3.log", "kept");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), sMarked), UploadDone);
  EXPECT_TRUE(fs::exists(sMarked + "/a_3.log"));
  fs::create_directories(mHome / "empty");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mHome / "empty"), UploadDone);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mHome / "missing"), UploadFailed);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs + "/x.tmp"), UploadFailed);
  EXPECT_EQ(receiver.WaitForLines(5, 500).size(), 4u);
}

TEST_F(UploadRunTest, FileArrivingDuringTheRunIsSentByALaterPass) {
  // The receiver drops a new log file into the folder while it takes the
  // first one, after the pass has listed the folder.
  RawServer server([&](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    if (inServer.Connections() == 1) WriteFile(mLogs + "/late_1.log", "late");
    RawServer::WriteAll(inSocket, RawServer::HttpReply("Active"));
  });
  AddLog("early_1.log", "early");
  EXPECT_EQ(UploadLogFolder(server.Url(), mLogs), UploadDone);
  EXPECT_TRUE(LogNames().empty());
  const std::vector<std::string> requests = server.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_NE(requests[1].find("late_1.log"), std::string::npos);
}

TEST_F(UploadRunTest, HibernateAndDisabledAnswersStoreTheStatusAndDiscardLaterFiles) {
  const std::string sPolicy = mHome / "policy.cfg";
  WriteFile(sPolicy, "[Policy]\nhib=Hibernate 7\ndis=Disabled\nact=Active\n");
  ReceiverProcess receiver(mSpool, sPolicy);
  for (const char* name : {"hib_1.log", "hib_2.log", "dis_1.log", "dis_2.log", "act_1.log"}) AddLog(name, name);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  EXPECT_TRUE(LogNames().empty());
  EXPECT_EQ(UserSettings(), "[act]\nstatus=Active\n[dis]\nstatus=Disabled\n[hib]\n"
                            "hibernatewakedate=" + WakeDate(7) + "\nstatus=Hibernate\n");

  // A later run: the stored statuses hold without asking; other kinds go.
  for (const char* name : {"hib_3.log", "dis_3.log", "act_2.log"}) AddLog(name, name);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  EXPECT_TRUE(LogNames().empty());
  // One file of each kind got the answer; the others went unsent.
  std::vector<std::string> lines = receiver.WaitForLines(5, 1000);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines.back(), "kind=act file=act_2.log bytes=9 answer=Active");
  std::map<std::string, int> perKind;
  for (const auto& line : lines) ++perKind[line.substr(0, line.find(' '))];
  EXPECT_EQ(perKind, (std::map<std::string, int>{{"kind=act", 2}, {"kind=dis", 1}, {"kind=hib", 1}}));
}

TEST_F(UploadRunTest, OnlyTheExactFirstWordOfTheReplyCounts) {
  struct Case {
    std::string reply;
    int result;
    std::string stored;  // the section's lines in the user settings
  };
  const std::string sActive = "status=Active\n";
  const std::vector<Case> cases = {
      {"Active\r\n", UploadDone, sActive},
      {"Delete\tnow", UploadDone, sActive},
      {"active", UploadFailed, sActive},
      {"Actively", UploadFailed, sActive},
      {"Disabled\r\n", UploadDisabled, "status=Disabled\n"},
      {"Hibernate 12 days", UploadHibernating, "hibernatewakedate=" + WakeDate(12) + "\nstatus=Hibernate\n"},
      {"Hibernate", UploadHibernating, "hibernatewakedate=" + WakeDate(0) + "\nstatus=Hibernate\n"},
      // No space: the days are read from the whole reply.
      {"Hibernate\t5", UploadHibernating, "hibernatewakedate=" + WakeDate(0) + "\nstatus=Hibernate\n"},
  };
  std::string sExpected;
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("reply \"" + cases[i].reply + "\"");
    const std::string sSection = "r" + std::to_string(i);
    const std::string sPath = AddLog(sSection + "_1.log", "content");
    RawServer server(Answer(cases[i].reply));
    StopFlag stop;
    EXPECT_EQ(UploadOneFile(&stop, server.Url(), sPath), cases[i].result);
    EXPECT_EQ(server.Connections(), 1);
    EXPECT_EQ(fs::exists(sPath), cases[i].result == UploadFailed);
    sExpected += "[" + sSection + "]\n" + cases[i].stored;
  }
  EXPECT_EQ(UserSettings(), sExpected);
}

TEST_F(UploadRunTest, MisbehavingReceiverNeverCostsAFile) {
  struct Fault {
    const char* what;
    RawServer::Handler handler;  // null: nobody listening
    int result;
  };
  const std::vector<Fault> faults = {
      {"refused", nullptr, UploadFailed},
      {"reset mid-request",
       [](int inSocket, RawServer&) {
         char chunk[512];
         recv(inSocket, chunk, sizeof chunk, 0);
         linger abort{1, 0};  // close with a reset instead of an orderly end
         setsockopt(inSocket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
       },
       UploadFailed},
      {"closed after the headers",
       [](int inSocket, RawServer&) {
         std::string data;
         for (char c = 0; data.find("\r\n\r\n") == std::string::npos && recv(inSocket, &c, 1, 0) == 1;) data += c;
       },
       UploadFailed},
      {"500 with an empty body", Answer("", 500), UploadFailed},
      {"garbage", Answer("", 200, "\x01\x02 garbage Active\r\n\r\n"), UploadFailed},
      // A slow answer is waited for: the file goes once it is answered.
      {"slow answer", Answer("Active", 200, "", 2000), UploadDone},
  };
  const std::string sContent(256 * 1024, 'z');  // still being sent when the reset comes
  for (const auto& fault : faults) {
    SCOPED_TRACE(fault.what);
    const std::string sPath = AddLog("m_1.log", sContent);
    auto server = std::make_unique<RawServer>(fault.handler ? fault.handler : Answer("Active"));
    const std::string sUrl = server->Url();
    if (!fault.handler) server.reset();
    StopFlag stop;
    EXPECT_EQ(UploadOneFile(&stop, sUrl, sPath), fault.result);
    if (fault.result == UploadDone) {
      EXPECT_NE(server->Requests().at(0).find(sContent), std::string::npos);
    } else {
      EXPECT_EQ(ReadFile(sPath), sContent);
    }
  }
}

TEST_F(UploadRunTest, FailingFileIsRetriedWithDoublingWaitsUntilStopped) {
  const std::string sPath = AddLog("w_1.log", "retried");
  StopFlag stop;
  // Written by the server thread only; the stop flag hands it over.
  std::vector<Clock::time_point> times;
  RawServer server([&](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    times.push_back(Clock::now());
    if (times.size() == 4) stop.stopRequested = true;
    RawServer::WriteAll(inSocket, RawServer::HttpReply("active"));
  });
  EXPECT_EQ(UploadWithRetry(&stop, server.Url(), sPath, 0, 1000), UploadFailed);
  EXPECT_EQ(server.Connections(), 0);

  // The attempt count bounds nothing: one "attempt" goes on until stopped.
  EXPECT_EQ(UploadWithRetry(&stop, server.Url(), sPath, 1, 1000), UploadFailed);
  ASSERT_EQ(times.size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    const double expected = 1 << i, gap = SecondsBetween(times[i], times[i + 1]);
    EXPECT_GT(gap, expected - 0.2) << i;
    EXPECT_LT(gap, expected * 1.5 + 0.5) << i;
  }
  EXPECT_EQ(ReadFile(sPath), "retried");
}

TEST(NextRetryDelayTest, DoublesIn32BitsAndWraps) {
  int32_t delay = kFirstRetryDelayMs;
  for (int doubling = 1; doubling <= 15; ++doubling) delay = NextRetryDelay(delay);
  EXPECT_EQ(delay, 1966080000);
  EXPECT_EQ(NextRetryDelay(delay), -362807296);  // the 16th doubling turns negative: no wait
  EXPECT_EQ(NextRetryDelay(INT32_MIN), 0);
}

TEST_F(UploadRunTest, TerminateSignalEndsTheRunAndKeepsTheFile) {
  const sighandler_t previous = signal(SIGTERM, OnTerminateSignal);
  const std::string sPath = AddLog("s_1.log", "stays");
  // The server thread sends the signal to the process while it handles the
  // request; whichever thread takes it, the file's flag is set.
  std::atomic<Clock::time_point> sentAt{};
  auto terminateAfter = [&sentAt](int inDelayMs) {
    std::this_thread::sleep_for(std::chrono::milliseconds(inDelayMs));
    sentAt = Clock::now();
    kill(getpid(), SIGTERM);
  };
  {
    // During the 60-second wait after a failed attempt.
    RawServer refusing([&](int inSocket, RawServer& inServer) {
      Answer("nope")(inSocket, inServer);
      terminateAfter(300);
    });
    EXPECT_EQ(UploadLogFolder(refusing.Url(), mLogs), UploadFailed);
    EXPECT_LT(SecondsBetween(sentAt, Clock::now()), 1.5);
    EXPECT_EQ(refusing.Connections(), 1);
    EXPECT_EQ(ReadFile(sPath), "stays");
    EXPECT_EQ(activeStopFlag.load(), nullptr);
  }
  // During a transfer the receiver never answers. It gives up after 20 s, so
  // a transfer that ignores the signal fails the test instead of hanging it.
  RawServer stalled([&](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    terminateAfter(500);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    pollfd pfd{inSocket, POLLIN, 0};
    char c = 0;
    while (!inServer.Stopping() && Clock::now() < deadline)
      if (poll(&pfd, 1, 50) > 0 && recv(inSocket, &c, 1, 0) <= 0) return;
  });
  EXPECT_EQ(UploadLogFolder(stalled.Url(), mLogs), UploadFailed);
  EXPECT_LT(SecondsBetween(sentAt, Clock::now()), 2.5);
  EXPECT_EQ(ReadFile(sPath), "stays");
  signal(SIGTERM, previous);
}

}  // namespace
