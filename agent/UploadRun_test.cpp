#include "agent/UploadRun.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/StopFlag.h"
#include "agent/TerminateSignal.h"
#include "settings/SettingsFile.h"
#include "tests/support/RawServer.h"
#include "tests/support/ReceiverProcess.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double SecondsSince(Clock::time_point inStart) {
  return std::chrono::duration<double>(Clock::now() - inStart).count();
}

// The wake-date text of today + inDays, as the settings file holds it.
std::string WakeDate(int inDays) {
  return boost::gregorian::to_simple_string(boost::gregorian::day_clock::local_day() +
                                            boost::gregorian::days(inDays));
}

// Runs inAction on its own thread once inCondition holds (checked every
// 20 ms, for at most 30 s). SIGTERM is blocked on that thread, so a signal
// it sends to the process reaches the thread that runs the upload.
class WhenThen {
 public:
  WhenThen(std::function<bool()> inCondition, std::function<void()> inAction)
      : mThread([this, inCondition, inAction] {
          sigset_t terminate;
          sigemptyset(&terminate);
          sigaddset(&terminate, SIGTERM);
          pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
          const auto deadline = Clock::now() + std::chrono::seconds(30);
          while (!inCondition() && Clock::now() < deadline && !mCancelled.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          if (mCancelled.load()) return;
          mActedAt = Clock::now();
          inAction();
          mActed = true;
        }) {}
  ~WhenThen() { Join(); }
  WhenThen(const WhenThen&) = delete;
  WhenThen& operator=(const WhenThen&) = delete;

  void Join() {
    mCancelled = true;
    if (mThread.joinable()) mThread.join();
  }
  bool Acted() const { return mActed.load(); }
  Clock::time_point ActedAt() const { return mActedAt; }

 private:
  std::atomic<bool> mCancelled{false};
  std::atomic<bool> mActed{false};
  Clock::time_point mActedAt;
  std::thread mThread;
};

// OnTerminateSignal handles SIGTERM for the life of the object.
class TerminateHandler {
 public:
  TerminateHandler() : mPrevious(signal(SIGTERM, OnTerminateSignal)) {}
  ~TerminateHandler() { signal(SIGTERM, mPrevious); }
  TerminateHandler(const TerminateHandler&) = delete;
  TerminateHandler& operator=(const TerminateHandler&) = delete;

 private:
  sighandler_t mPrevious;
};

void SendTerminateToSelf() { kill(getpid(), SIGTERM); }

// A raw server whose reply body the test changes between requests.
class AnsweringServer {
 public:
  AnsweringServer()
      : mServer([this](int inSocket, RawServer& inServer) {
          inServer.ReadRequest(inSocket);
          {
            std::lock_guard<std::mutex> guard(mMutex);
            mRequestTimes.push_back(Clock::now());
          }
          RawServer::WriteAll(inSocket, RawServer::HttpReply(Body()));
        }) {}

  void SetBody(const std::string& inBody) {
    std::lock_guard<std::mutex> guard(mMutex);
    mBody = inBody;
  }
  std::string Body() {
    std::lock_guard<std::mutex> guard(mMutex);
    return mBody;
  }
  std::vector<Clock::time_point> RequestTimes() {
    std::lock_guard<std::mutex> guard(mMutex);
    return mRequestTimes;
  }
  RawServer& Server() { return mServer; }

 private:
  std::mutex mMutex;
  std::string mBody = "nope";
  std::vector<Clock::time_point> mRequestTimes;
  RawServer mServer;  // last: its thread uses the members above
};

// A private home (state, data, log and spool folders) for each test.
class UploadRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("HOME", mHome.Path().c_str(), 1);
    setenv("XDG_STATE_HOME", (mHome / "state").c_str(), 1);
    setenv("XDG_DATA_HOME", (mHome / "data").c_str(), 1);
    fs::create_directories(mLogs);
    fs::create_directories(mSpool);
    ASSERT_EQ(activeStopFlag.load(), nullptr);
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

  std::string PolicyFile(const std::string& inPolicyLines) {
    const std::string sPath = mHome / "policy.cfg";
    WriteFile(sPath, "[Policy]\n" + inPolicyLines);
    return sPath;
  }

  std::string UserSettingsPath() const { return mHome / "data/Tarvo/Porvane/UserSettings.cfg"; }
  std::string UserSettings() const { return ReadFile(UserSettingsPath()); }
  std::string StoredValue(const std::string& inSection, const std::string& inKey) const {
    SettingsFile settings;
    settings.Read(UserSettingsPath());
    return settings.GetValue(inSection, inKey);
  }

  TempDir mHome{"uploadrun"};
  const std::string mLogs = mHome / "logs";
  const std::string mSpool = mHome / "spool";
};

std::map<std::string, int> CountByKind(const std::vector<std::string>& inLines) {
  std::map<std::string, int> counts;
  for (const auto& line : inLines) ++counts[line.substr(0, line.find(' '))];
  return counts;
}

TEST_F(UploadRunTest, SendsEachFinishedFileOnceAndLeavesUnfinishedOnesAndFolders) {
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
  EXPECT_EQ(ReadFile(mLogs + "/sub/c_1.log"), "inside a subfolder");
  // Each kind's first check created its entry; the unnamed kind of
  // "plain.log" cannot be stored.
  EXPECT_EQ(UserSettings(), "[a]\nstatus=Active\n[b]\nstatus=Active\n");

  // ".tmp" anywhere in the path counts: a folder named so holds only
  // unfinished files.
  const std::string sMarked = mHome / "logs.tmp";
  fs::create_directories(sMarked);
  WriteFile(sMarked + "/a_3.log", "kept");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), sMarked), UploadDone);
  EXPECT_TRUE(fs::exists(sMarked + "/a_3.log"));
  EXPECT_EQ(receiver.WaitForLines(5, 500).size(), 4u);
}

TEST_F(UploadRunTest, FileArrivingDuringTheRunIsSentByALaterPass) {
  // The receiver drops a new log file into the folder while it takes the
  // first one, after the pass has listed the folder.
  std::atomic<int> requests{0};
  RawServer server([&](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    if (requests++ == 0) WriteFile(mLogs + "/late_1.log", "late");
    RawServer::WriteAll(inSocket, RawServer::HttpReply("Active"));
  });
  AddLog("early_1.log", "early");
  EXPECT_EQ(UploadLogFolder(server.Url(), mLogs), UploadDone);
  EXPECT_EQ(requests.load(), 2);
  EXPECT_TRUE(LogNames().empty());
  const std::vector<std::string> bodies = server.Requests();
  ASSERT_EQ(bodies.size(), 2u);
  EXPECT_NE(bodies[1].find("late_1.log"), std::string::npos);
}

TEST_F(UploadRunTest, FolderThatIsEmptyMissingOrNoFolder) {
  AnsweringServer answering;
  const std::string sUrl = answering.Server().Url();
  EXPECT_EQ(UploadLogFolder(sUrl, mLogs), UploadDone);
  EXPECT_EQ(UploadLogFolder(sUrl, mHome / "missing"), UploadFailed);
  EXPECT_EQ(UploadLogFolder(sUrl, ""), UploadFailed);
  const std::string sFile = AddLog("u_1.log", "a file, not a folder");
  EXPECT_EQ(UploadLogFolder(sUrl, sFile), UploadFailed);
  EXPECT_TRUE(fs::exists(sFile));
  EXPECT_EQ(answering.Server().Connections(), 0);
}

TEST_F(UploadRunTest, RefusesToStartWhileAFileIsBeingHandled) {
  AnsweringServer answering;
  answering.SetBody("Active");
  AddLog("u_1.log", "waits");
  StopFlag busy;
  activeStopFlag.store(&busy);
  const int result = UploadLogFolder(answering.Server().Url(), mLogs);
  activeStopFlag.store(nullptr);
  EXPECT_EQ(result, UploadFailed);
  EXPECT_EQ(LogNames(), std::set<std::string>{"u_1.log"});
  EXPECT_EQ(answering.Server().Connections(), 0);
  EXPECT_FALSE(busy.stopRequested.load());
}

TEST_F(UploadRunTest, HibernateAndDisabledAnswersStoreTheStatusAndDiscardLaterFiles) {
  ReceiverProcess receiver(mSpool, PolicyFile("hib=Hibernate 7\ndis=Disabled\ndel=Delete\nact=Active\n"));
  for (const char* name : {"hib_1.log", "hib_2.log", "dis_1.log", "dis_2.log", "act_1.log", "del_1.log"})
    AddLog(name, name);

  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  EXPECT_TRUE(LogNames().empty());
  // The first file of a kind got the answer; the second went unsent.
  EXPECT_EQ(CountByKind(receiver.WaitForLines(5, 1000)),
            (std::map<std::string, int>{{"kind=act", 1}, {"kind=del", 1}, {"kind=dis", 1}, {"kind=hib", 1}}));
  EXPECT_EQ(UserSettings(), "[act]\nstatus=Active\n[del]\nstatus=Active\n[dis]\nstatus=Disabled\n[hib]\n"
                            "hibernatewakedate=" + WakeDate(7) + "\nstatus=Hibernate\n");

  // A later run: the stored statuses still hold; other kinds are uploaded.
  for (const char* name : {"hib_3.log", "dis_3.log", "act_2.log"}) AddLog(name, name);
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  EXPECT_TRUE(LogNames().empty());
  const std::vector<std::string> lines = receiver.WaitForLines(6, 1000);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines.back(), "kind=act file=act_2.log bytes=9 answer=Active");
}

TEST_F(UploadRunTest, HibernateWithoutDaysWakesAtTheNextCheck) {
  ReceiverProcess receiver(mSpool, PolicyFile("zz=Hibernate\n"));
  AddLog("zz_1.log", "1");
  AddLog("zz_2.log", "2");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  // Zero days: the wake date is today, so the next file's check reactivates
  // the kind and that file is sent as well.
  EXPECT_EQ(receiver.WaitForLines(2, 2000).size(), 2u);
  EXPECT_TRUE(LogNames().empty());
  EXPECT_EQ(UserSettings(), "[zz]\nhibernatewakedate=" + WakeDate(0) + "\nstatus=Hibernate\n");
}

TEST_F(UploadRunTest, FileNameWithoutUnderscoreUsesTheEmptySection) {
  ReceiverProcess receiver(mSpool, PolicyFile("*=Hibernate 3\n"));
  AddLog("one.log", "1");
  AddLog("two.log", "2");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  // The unnamed section cannot be stored, so "Hibernate 3" never holds back
  // the second file.
  EXPECT_EQ(receiver.WaitForLines(2, 2000).size(), 2u);
  EXPECT_TRUE(LogNames().empty());
  EXPECT_EQ(UserSettings(), "");

  // A path without "/" has no kind either, whatever its name holds.
  const fs::path previous = fs::current_path();
  fs::current_path(mLogs);
  AddLog("k_1.log", "relative");
  StopFlag stop;
  EXPECT_EQ(UploadOneFile(&stop, receiver.Url(), "k_1.log"), UploadHibernating);
  fs::current_path(previous);
  EXPECT_EQ(receiver.WaitForLines(3, 2000).size(), 3u);
  EXPECT_TRUE(LogNames().empty());
  EXPECT_EQ(UserSettings(), "");
}

TEST_F(UploadRunTest, OnlyTheExactFirstWordOfTheReplyCounts) {
  struct Case {
    std::string reply;
    int result;
    bool removed;
  };
  const std::vector<Case> cases = {
      {"Active\r\n", UploadDone, true},
      {"Active and more", UploadDone, true},
      {"Delete", UploadDone, true},
      {"Delete\tnow", UploadDone, true},
      {"active", UploadFailed, false},
      {"ACTIVE", UploadFailed, false},
      {"Activate", UploadFailed, false},
      {" Active", UploadFailed, false},
      {"", UploadFailed, false},
      {"Disabled\r\n", UploadDisabled, true},
      {"Hibernate 12 days", UploadHibernating, true},
      {"Hibernate\t5", UploadHibernating, true},  // no space: atoi of the whole reply
  };
  AnsweringServer answering;
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("reply \"" + cases[i].reply + "\"");
    // Names of one length: none is a prefix of another in the written file.
    const std::string sSection = (i < 10 ? "r0" : "r") + std::to_string(i);
    const std::string sPath = AddLog(sSection + "_1.log", "content");
    answering.SetBody(cases[i].reply);
    StopFlag stop;
    EXPECT_EQ(UploadOneFile(&stop, answering.Server().Url(), sPath), cases[i].result);
    EXPECT_EQ(fs::exists(sPath), !cases[i].removed);
    const std::string sStatus = StoredValue(sSection, "Status");
    const std::string sWake = StoredValue(sSection, "HibernateWakeDate");
    if (cases[i].result == UploadDisabled) {
      EXPECT_EQ(sStatus, "Disabled");
    } else if (cases[i].result == UploadHibernating) {
      EXPECT_EQ(sStatus, "Hibernate");
      EXPECT_EQ(sWake, WakeDate(cases[i].reply == "Hibernate 12 days" ? 12 : 0));
    } else {
      EXPECT_EQ(sStatus, "Active");
      EXPECT_EQ(sWake, "");
    }
  }
  EXPECT_EQ(answering.Server().Connections(), static_cast<int>(cases.size()));

  // A stored status is obeyed without asking the receiver.
  ASSERT_EQ(cases[9].result, UploadDisabled);
  const std::string sLater = AddLog("r09_2.log", "disabled kind");
  StopFlag stop;
  EXPECT_EQ(UploadOneFile(&stop, answering.Server().Url(), sLater), UploadDisabled);
  EXPECT_FALSE(fs::exists(sLater));
  EXPECT_EQ(answering.Server().Connections(), static_cast<int>(cases.size()));
}

// Handlers of a receiver that goes wrong in one way each.
void ResetMidRequest(int inSocket, RawServer&) {
  char chunk[512];
  recv(inSocket, chunk, sizeof chunk, 0);
  linger abort{1, 0};  // close with a reset instead of an orderly end
  setsockopt(inSocket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

void CloseAfterHeaders(int inSocket, RawServer&) {
  std::string data;
  char chunk[1];
  while (data.find("\r\n\r\n") == std::string::npos && recv(inSocket, chunk, 1, 0) == 1) data += chunk[0];
}

void ServerErrorWithoutBody(int inSocket, RawServer& inServer) {
  inServer.ReadRequest(inSocket);
  RawServer::WriteAll(inSocket, RawServer::HttpReply("", 500));
}

void Garbage(int inSocket, RawServer& inServer) {
  inServer.ReadRequest(inSocket);
  RawServer::WriteAll(inSocket, std::string("\x01\x02 garbage Active\r\n\r\n"));
}

void SlowActive(int inSocket, RawServer& inServer) {
  inServer.ReadRequest(inSocket);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  RawServer::WriteAll(inSocket, RawServer::HttpReply("Active"));
}

TEST_F(UploadRunTest, MisbehavingReceiverNeverCostsAFile) {
  const std::string sContent(256 * 1024, 'z');  // still being sent when the reset comes
  const std::string sPath = AddLog("m_1.log", sContent);
  StopFlag stop;

  // Nobody listening.
  std::string sRefusedUrl;
  {
    RawServer closedSoon([](int, RawServer&) {});
    sRefusedUrl = closedSoon.Url();
  }
  EXPECT_EQ(UploadOneFile(&stop, sRefusedUrl, sPath), UploadFailed);
  EXPECT_EQ(ReadFile(sPath), sContent);

  const std::vector<std::pair<const char*, RawServer::Handler>> faults = {
      {"reset mid-request", ResetMidRequest},
      {"closed after the headers", CloseAfterHeaders},
      {"500 without a body", ServerErrorWithoutBody},
      {"garbage", Garbage},
  };
  for (const auto& [what, handler] : faults) {
    SCOPED_TRACE(what);
    RawServer server(handler);
    EXPECT_EQ(UploadOneFile(&stop, server.Url(), sPath), UploadFailed);
    EXPECT_EQ(server.Connections(), 1);
    EXPECT_EQ(ReadFile(sPath), sContent);
  }

  // The whole run keeps retrying such a receiver; SIGTERM ends it with 1.
  TerminateHandler handler;
  RawServer resetting(ResetMidRequest);
  WhenThen terminate([&] { return resetting.Connections() >= 1; }, SendTerminateToSelf);
  EXPECT_EQ(UploadLogFolder(resetting.Url(), mLogs), UploadFailed);
  EXPECT_EQ(ReadFile(sPath), sContent);

  // A slow answer is waited for.
  RawServer slow(SlowActive);
  EXPECT_EQ(UploadOneFile(&stop, slow.Url(), sPath), UploadDone);
  EXPECT_FALSE(fs::exists(sPath));
}

TEST_F(UploadRunTest, FailingFileIsRetriedUntilStopped) {
  ReceiverProcess receiver(mSpool, PolicyFile("odd=active\n"));
  const std::string sPath = AddLog("odd_1.log", "lower-case answer");

  StopFlag never;
  EXPECT_EQ(UploadWithRetry(&never, receiver.Url(), sPath, 0, 1000), UploadFailed);
  EXPECT_EQ(UploadWithRetry(&never, receiver.Url(), sPath, -3, 1000), UploadFailed);
  EXPECT_TRUE(receiver.WaitForLines(1, 300).empty());

  // The attempt count bounds nothing: one "attempt" goes on until stopped.
  StopFlag stop;
  WhenThen setStop([&] { return receiver.Lines().size() >= 3; }, [&] { stop.stopRequested = true; });
  EXPECT_EQ(UploadWithRetry(&stop, receiver.Url(), sPath, 1, 1000), UploadFailed);
  setStop.Join();
  EXPECT_TRUE(setStop.Acted());
  const std::vector<std::string> lines = receiver.Lines();
  EXPECT_GE(lines.size(), 3u);
  for (const auto& line : lines) EXPECT_EQ(line, "kind=odd file=odd_1.log bytes=17 answer=active");
  EXPECT_EQ(ReadFile(sPath), "lower-case answer");

  // Already stopped: no attempt at all.
  EXPECT_EQ(UploadWithRetry(&stop, receiver.Url(), sPath, 10, 1000), UploadFailed);
  EXPECT_EQ(receiver.WaitForLines(lines.size() + 1, 300).size(), lines.size());
}

TEST_F(UploadRunTest, RetryWaitsDoubleFromTheInitialDelay) {
  const std::string sPath = AddLog("w_1.log", "retried");
  {
    AnsweringServer answering;
    StopFlag stop;
    WhenThen setStop([&] { return answering.RequestTimes().size() >= 4; }, [&] { stop.stopRequested = true; });
    EXPECT_EQ(UploadWithRetry(&stop, answering.Server().Url(), sPath, 10, 1000), UploadFailed);
    const Clock::time_point returned = Clock::now();
    setStop.Join();
    ASSERT_TRUE(setStop.Acted());
    const std::vector<Clock::time_point> times = answering.RequestTimes();
    ASSERT_EQ(times.size(), 4u);
    auto gap = [&](size_t i) { return std::chrono::duration<double>(times[i + 1] - times[i]).count(); };
    EXPECT_GT(gap(0), 0.8);
    EXPECT_LT(gap(0), 1.9);
    EXPECT_GT(gap(1), 1.8);
    EXPECT_LT(gap(1), 3.5);
    EXPECT_GT(gap(2), 3.8);
    EXPECT_LT(gap(2), 6.5);
    // The 8-second wait in progress ends at the next one-second check.
    EXPECT_LT(std::chrono::duration<double>(returned - setStop.ActedAt()).count(), 3.0);
  }
  for (int initial : {0, 999, -5000}) {
    SCOPED_TRACE(initial);
    AnsweringServer answering;
    StopFlag stop;
    const size_t attempts = initial == 999 ? 2 : 4;  // 999 ms: no wait, then 1 s
    WhenThen setStop([&] { return answering.RequestTimes().size() >= attempts; },
                     [&] { stop.stopRequested = true; });
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(UploadWithRetry(&stop, answering.Server().Url(), sPath, 10, initial), UploadFailed);
    setStop.Join();
    const std::vector<Clock::time_point> times = answering.RequestTimes();
    ASSERT_GE(times.size(), attempts);
    EXPECT_LT(std::chrono::duration<double>(times[attempts - 1] - start).count(), 0.9);
  }
  EXPECT_TRUE(fs::exists(sPath));
}

TEST(NextRetryDelayTest, DoublesIn32BitsAndWraps) {
  int32_t delay = kFirstRetryDelayMs;
  for (int doubling = 1; doubling <= 15; ++doubling) {
    const int32_t next = NextRetryDelay(delay);
    EXPECT_EQ(next, delay * 2) << doubling;
    delay = next;
  }
  EXPECT_EQ(delay, 1966080000);
  EXPECT_EQ(NextRetryDelay(delay), -362807296);  // the 16th doubling turns negative: no wait
  EXPECT_EQ(NextRetryDelay(INT32_MIN), 0);
  EXPECT_EQ(NextRetryDelay(-1000), -2000);
}

TEST_F(UploadRunTest, TerminateSignalDuringAWaitEndsTheRunAndKeepsTheFile) {
  TerminateHandler handler;
  AnsweringServer answering;  // "nope" to everything
  AddLog("s_1.log", "stays");
  WhenThen terminate([&] { return answering.Server().Connections() >= 1; }, [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    SendTerminateToSelf();
  });
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(UploadLogFolder(answering.Server().Url(), mLogs), UploadFailed);
  // The 60-second wait was cut short by the signal.
  EXPECT_LT(SecondsSince(start), 20.0);
  terminate.Join();
  EXPECT_TRUE(terminate.Acted());
  EXPECT_EQ(answering.Server().Connections(), 1);
  EXPECT_EQ(ReadFile(mLogs + "/s_1.log"), "stays");
  EXPECT_EQ(activeStopFlag.load(), nullptr);
}

TEST_F(UploadRunTest, TerminateSignalDuringAStalledTransferEndsIt) {
  TerminateHandler handler;
  std::atomic<bool> giveUp{false};
  // Takes the request and never answers; gives up only when the test does,
  // so a transfer that ignores the signal fails the test instead of hanging.
  RawServer stalled([&](int inSocket, RawServer& inServer) {
    inServer.ReadRequest(inSocket);
    while (!giveUp.load() && !inServer.Stopping()) {
      pollfd pfd{inSocket, POLLIN, 0};
      char chunk[256];
      if (poll(&pfd, 1, 50) > 0 && recv(inSocket, chunk, sizeof chunk, 0) <= 0) return;
    }
  });
  AddLog("t_1.log", "stays");
  WhenThen terminate([&] { return stalled.Requests().size() >= 1; }, [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    SendTerminateToSelf();
  });
  std::atomic<bool> returned{false};
  WhenThen watchdog([&] { return returned.load() || (terminate.Acted() && SecondsSince(terminate.ActedAt()) > 20); },
                    [&] {
                      if (!returned.load()) giveUp = true;
                    });

  EXPECT_EQ(UploadLogFolder(stalled.Url(), mLogs), UploadFailed);
  returned = true;
  terminate.Join();
  ASSERT_TRUE(terminate.Acted());
  EXPECT_LT(SecondsSince(terminate.ActedAt()), 10.0);
  EXPECT_FALSE(giveUp.load());
  EXPECT_EQ(ReadFile(mLogs + "/t_1.log"), "stays");
}

TEST_F(UploadRunTest, TerminateSignalWithNoFileHandledChangesNothing) {
  TerminateHandler handler;
  // No file being handled: the signal neither ends the process nor leaves
  // anything behind for the next file.
  SendTerminateToSelf();
  EXPECT_EQ(activeStopFlag.load(), nullptr);

  // While a file is handled, it reaches exactly that file's flag.
  StopFlag handled;
  activeStopFlag.store(&handled);
  raise(SIGTERM);
  activeStopFlag.store(nullptr);
  EXPECT_TRUE(handled.stopRequested.load());

  ReceiverProcess receiver(mSpool);
  AddLog("n_1.log", "sent");
  EXPECT_EQ(UploadLogFolder(receiver.Url(), mLogs), UploadDone);
  EXPECT_EQ(receiver.WaitForLines(1, 2000), std::vector<std::string>{"kind=n file=n_1.log bytes=4 answer=Active"});
  EXPECT_TRUE(LogNames().empty());
}

TEST(StopFlagTest, RemoveFileReportsWhetherSomethingWasRemoved) {
  TempDir folder("stopflag");
  StopFlag flag;
  const std::string sPath = folder / "f_1.log";
  WriteFile(sPath, "x");
  EXPECT_TRUE(flag.RemoveFile(sPath));
  EXPECT_FALSE(fs::exists(sPath));
  EXPECT_FALSE(flag.RemoveFile(sPath));
}

}  // namespace
