// Faults on the wire and in the processes, with the built porvane run as a
// user runs it. Whatever goes wrong, no log file may be lost: at the end every
// file was either acknowledged by the receiver (an understood answer was sent
// for it) or is still in the log folder.
//
// A failed upload makes the agent wait 60 s before its retry. The tests do
// not wait that long: once the fault has been served they check that the
// agent is still running (waiting), end the wait with SIGTERM and expect exit
// status 1 with the file kept, as a user's SIGTERM would.
#include <netinet/in.h>
#include <sys/socket.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "lock/AgentLock.h"
#include "lock/ResourceLocker.h"
#include "tests/AgentFixture.h"
#include "tests/support/RawServer.h"
#include "tests/support/ReceiverProcess.h"

namespace {

using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using Acks = std::map<std::string, int>;  // file name -> understood answers sent for it

// Time an agent is given to react to a closed connection before the test
// checks that it is waiting for its retry.
constexpr auto kSettleTime = std::chrono::milliseconds(400);

template <typename Condition>
bool Eventually(Condition inCondition, int inTimeoutMs = 10000) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(inTimeoutMs);
  while (!inCondition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// True when nobody holds the agent's lock (taking it at once succeeds).
bool AgentLockIsFree() {
  qvd::ResourceLocker probe(kAgentLockName, 0);
  if (!probe.lock()) return false;
  probe.unlock(false);
  return true;
}

// The file name of the "logfile" part of a request; "" when there is none.
std::string UploadedName(const std::string& inRequest) {
  const std::string kMarker = "; filename=\"";
  const auto start = inRequest.find(kMarker);
  if (start == std::string::npos) return std::string();
  const auto end = inRequest.find('"', start + kMarker.size());
  if (end == std::string::npos) return std::string();
  return inRequest.substr(start + kMarker.size(), end - start - kMarker.size());
}

// Reads from inSocket until the request's headers and inBodyBytes bytes of
// its body are in, the peer closed, the server stops or 10 s passed.
std::string ReadHeadersAndSome(int inSocket, const RawServer& inServer, size_t inBodyBytes) {
  std::string data;
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!inServer.Stopping() && Clock::now() < deadline) {
    const auto headerEnd = data.find("\r\n\r\n");
    if (headerEnd != std::string::npos && data.size() >= headerEnd + 4 + inBodyBytes) break;
    pollfd pfd{inSocket, POLLIN, 0};
    if (poll(&pfd, 1, 50) <= 0) continue;
    char chunk[4096];
    const ssize_t got = recv(inSocket, chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    data.append(chunk, static_cast<size_t>(got));
  }
  return data;
}

// Makes the server's close of inSocket a reset (RST) instead of an orderly end.
void ResetOnClose(int inSocket) {
  const linger abortive{1, 0};
  setsockopt(inSocket, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
}

// The file names of the receiver's "kind=... file=NAME ..." lines, counted.
Acks AcksFromLines(const Strings& inLines) {
  Acks acks;
  for (const std::string& line : inLines) {
    const auto start = line.find(" file=");
    const auto end = line.find(" bytes=");
    if (line.rfind("kind=", 0) == 0 && start != std::string::npos && end != std::string::npos)
      ++acks[line.substr(start + 6, end - start - 6)];
  }
  return acks;
}

void AddAcks(Acks& ioTotal, const Acks& inMore) {
  for (const auto& [name, count] : inMore) ioTotal[name] += count;
}

class FaultInjection : public AgentFixture {
 protected:
  FaultInjection() { std::filesystem::create_directories(mLogs); }

  // Writes inCount logs "<inStem>_NNNN.log" of inSize bytes into the log
  // folder, each with its own content. Returns their names.
  Strings WriteLogs(const std::string& inStem, int inCount, size_t inSize) {
    Strings names;
    for (int i = 0; i < inCount; ++i) {
      char name[64];
      std::snprintf(name, sizeof name, "%s_%04d.log", inStem.c_str(), i);
      std::string content = std::string(name) + "\n";
      while (content.size() < inSize) content += "line " + std::to_string(content.size()) + " of " + name + "\n";
      content.resize(inSize);
      WriteLog(mLogs, name, content);
      mContents[name] = content;
      names.push_back(name);
    }
    return names;
  }

  std::string NewSpool() const {
    static int serial = 0;
    const std::string dir = mRoot / ("spool/s" + std::to_string(++serial));
    std::filesystem::create_directories(dir);
    return dir;
  }

  // porvane -logDir=<the test's log folder> -receiverURL=inUrl, plus -noLock
  // unless inTakeLock.
  std::unique_ptr<ChildProcess> StartAgent(const std::string& inUrl, bool inTakeLock = false) const {
    Strings args = {"-logDir=" + mLogs, "-receiverURL=" + inUrl};
    if (!inTakeLock) args.push_back("-noLock");
    return Start(args);
  }

  // The agent has been served a fault for its current file and should now be
  // waiting to retry: it must still run; SIGTERM ends the wait, and the pass
  // ends with status 1.
  void EndRetryWait(ChildProcess& ioAgent) const {
    std::this_thread::sleep_for(kSettleTime);
    ASSERT_FALSE(ioAgent.Wait(0)) << "the agent should be waiting to retry; status " << ioAgent.ExitCode()
                                  << ", stderr: " << ioAgent.Stderr();
    ioAgent.Signal(SIGTERM);
    ASSERT_TRUE(ioAgent.Wait(10000)) << "SIGTERM did not end the retry wait";
    EXPECT_EQ(ioAgent.ExitCode(), 1) << ioAgent.Stderr();
    EXPECT_EQ(ioAgent.Stderr(), "");
  }

  // The count: every file written is acknowledged or still in the folder, with
  // its content unchanged; nothing else is in the folder; a file is
  // acknowledged at most once; and at most inInFlight files (answered just as
  // the run was cut off) are both acknowledged and still present. Returns the
  // names still present.
  std::set<std::string> ExpectNoneLost(const Strings& inWritten, const Acks& inAcks, size_t inInFlight) const {
    const Strings present = Names(mLogs);
    const std::set<std::string> presentSet(present.begin(), present.end());
    size_t both = 0;
    for (const std::string& name : inWritten) {
      const auto ack = inAcks.find(name);
      const int acked = ack == inAcks.end() ? 0 : ack->second;
      const bool kept = presentSet.count(name) == 1;
      EXPECT_TRUE(kept || acked > 0) << name << " was lost";
      EXPECT_LE(acked, 1) << name << " was delivered " << acked << " times";
      if (kept) {
        EXPECT_EQ(ReadFile(mLogs + "/" + name), mContents.at(name)) << name << " changed";
        if (acked > 0) ++both;
      }
    }
    EXPECT_LE(both, inInFlight) << "files acknowledged yet kept";
    for (const std::string& name : present)
      EXPECT_TRUE(std::find(inWritten.begin(), inWritten.end(), name) != inWritten.end()) << "stray " << name;
    for (const auto& [name, count] : inAcks)
      EXPECT_TRUE(std::find(inWritten.begin(), inWritten.end(), name) != inWritten.end()) << "unknown ack " << name;
    return presentSet;
  }

  // Delivers what is left to a fresh reference receiver in one pass, checks
  // the stored copies and returns the receiver's acknowledgements.
  Acks DeliverTheRest(bool inTakeLock = false) const {
    const std::string spool = NewSpool();
    ReceiverProcess receiver(spool);
    const Strings left = Names(mLogs);
    auto agent = StartAgent(receiver.Url(), inTakeLock);
    EXPECT_TRUE(agent->Wait(60000)) << "the delivering pass did not end";
    EXPECT_EQ(agent->ExitCode(), 0) << agent->Stderr();
    EXPECT_TRUE(Names(mLogs).empty());
    const Acks acks = AcksFromLines(receiver.WaitForLines(left.size()));
    EXPECT_EQ(acks.size(), left.size());
    for (const std::string& name : left) EXPECT_EQ(ReadFile(spool + "/" + name), mContents.at(name)) << name;
    return acks;
  }

  const std::string mLogs = mRoot / "logs";
  std::map<std::string, std::string> mContents;
};

// One misbehaving peer per case: the agent makes exactly one attempt, keeps
// every file, waits to retry and ends with 1 on SIGTERM; a later pass against
// a sound receiver delivers all of them once.
TEST_F(FaultInjection, BrokenExchangesKeepEveryFileForTheNextPass) {
  using Handler = std::function<void(int, RawServer&)>;
  const std::string kHead = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n";
  const std::vector<std::pair<std::string, Handler>> faults = {
      {"reset mid-request",
       [](int inSocket, RawServer& inServer) {
         const std::string part = ReadHeadersAndSome(inSocket, inServer, 4096);
         EXPECT_NE(part.find("\r\n\r\n"), std::string::npos);
         ResetOnClose(inSocket);
       }},
      {"close after the headers",
       [](int inSocket, RawServer& inServer) { ReadHeadersAndSome(inSocket, inServer, 0); }},
      {"500 with an empty body",
       [](int inSocket, RawServer& inServer) {
         inServer.ReadRequest(inSocket);
         RawServer::WriteAll(inSocket, RawServer::HttpReply("", 500));
       }},
      {"garbage bytes",
       [](int inSocket, RawServer& inServer) {
         inServer.ReadRequest(inSocket);
         std::mt19937 bytes(7);
         std::string garbage;
         for (int i = 0; i < 2048; ++i) garbage.push_back(static_cast<char>(bytes() & 0xff));
         RawServer::WriteAll(inSocket, garbage);
       }},
      {"a valid head with a body that hides the word behind a zero byte",
       [kHead](int inSocket, RawServer& inServer) {
         inServer.ReadRequest(inSocket);
         RawServer::WriteAll(inSocket, kHead + std::string("\0Active\xff\xfe", 9));
       }},
      {"a reply trickled a byte a second",
       // Only the first chunk of a reply is dependable; "Active" arriving one
       // byte per chunk is not understood, so the file must stay.
       [kHead](int inSocket, RawServer& inServer) {
         inServer.ReadRequest(inSocket);
         RawServer::WriteAll(inSocket, kHead);
         for (char byte : std::string("Active")) {
           if (inServer.Stopping() || !RawServer::WriteAll(inSocket, std::string(1, byte))) return;
           std::this_thread::sleep_for(std::chrono::seconds(1));
         }
       }},
  };

  int round = 0;
  for (const auto& [what, handler] : faults) {
    SCOPED_TRACE(what);
    const Strings written = WriteLogs("f" + std::to_string(++round), 3, 256 * 1024);
    std::atomic<int> served{0};
    RawServer server([&served, handler = handler](int inSocket, RawServer& inServer) {
      handler(inSocket, inServer);
      ++served;
    });

    auto agent = StartAgent(server.Url());
    ASSERT_TRUE(Eventually([&] { return served.load() > 0; }, 20000)) << "the fault was never served";
    EndRetryWait(*agent);

    EXPECT_EQ(server.Connections(), 1) << "one attempt before the retry wait";
    const auto kept = ExpectNoneLost(written, {}, 0);
    EXPECT_EQ(kept.size(), written.size());

    ExpectNoneLost(written, DeliverTheRest(), 0);
  }
}

// The reference receiver dies (SIGKILL) in the middle of a run. The files it
// answered are gone from the folder; the one it had stored but not yet
// answered stays, like every later one; the next pass delivers exactly those.
TEST_F(FaultInjection, ReceiverKilledMidRunLosesNothing) {
  const Strings written = WriteLogs("k", 40, 2048);
  Strings lines;
  {
    // The receiver prints its line once it has stored a file and answers
    // 500 ms later, so killed right after its fourth line it dies with that
    // answer unsent. Every earlier file was answered: the agent sends the
    // next file only after the answer for the one before.
    ReceiverProcess receiver(NewSpool(), "", {"--delay-ms", "500"});
    auto agent = StartAgent(receiver.Url());
    ASSERT_GE(receiver.WaitForLines(4, 30000).size(), 4u);
    receiver.Kill();
    lines = receiver.WaitForLines(0, 0);
    EndRetryWait(*agent);
  }
  Acks answered = AcksFromLines(lines);
  ASSERT_EQ(answered.size(), lines.size()) << "one line per file";
  const std::string unanswered = AcksFromLines({lines.back()}).begin()->first;
  answered.erase(unanswered);
  const auto kept = ExpectNoneLost(written, answered, 0);
  EXPECT_EQ(kept.count(unanswered), 1u) << "the file whose answer never came was removed";
  EXPECT_EQ(kept.size(), written.size() - answered.size());

  AddAcks(answered, DeliverTheRest());
  EXPECT_EQ(answered.size(), written.size());
  ExpectNoneLost(written, answered, 0);
}

// The agent itself dies (SIGKILL) mid-upload. Holding the lock, it leaves the
// lock behind: later agents give up on it until porvane-unlock clears it.
// Without the lock it can be killed anywhere in a run. Either way the next
// pass delivers the rest.
TEST_F(FaultInjection, AgentKilledMidUploadLosesNothing) {
  {
    SCOPED_TRACE("killed while holding the lock, its transfer stalled");
    const Strings written = WriteLogs("s", 3, 1024);
    std::atomic<int> stalled{0};
    RawServer server([&stalled](int inSocket, RawServer& inServer) {
      inServer.ReadRequest(inSocket);
      ++stalled;
      inServer.WaitUntilStoppedOrClosed(inSocket);
    });
    ASSERT_TRUE(AgentLockIsFree()) << "another agent holds the lock";
    auto agent = StartAgent(server.Url(), /*inTakeLock=*/true);
    ASSERT_TRUE(Eventually([&] { return stalled.load() > 0; }));
    agent->Signal(SIGKILL);
    ASSERT_TRUE(agent->Wait(10000));
    EXPECT_EQ(agent->TermSignal(), SIGKILL);
    ExpectNoneLost(written, {}, 0);

    EXPECT_FALSE(AgentLockIsFree()) << "a killed agent leaves its lock behind";
    auto blocked = StartAgent(server.Url(), true);
    ASSERT_TRUE(blocked->Wait(10000));
    EXPECT_EQ(blocked->ExitCode(), 1);
    EXPECT_EQ(server.Connections(), 1) << "an agent without the lock uploads nothing";

    auto unlock = ChildProcess({std::string(PORVANE_BINARY_DIR) + "/bin/porvane-unlock"}, mEnv, mRoot / "tmp");
    ASSERT_TRUE(unlock.Wait(10000));
    EXPECT_EQ(unlock.ExitCode(), 0) << unlock.Stderr();
    EXPECT_EQ(unlock.Stdout().rfind("porvane-unlock: removed lock \"TarvoUsageTrackerFileUploadLocker\"", 0), 0u)
        << unlock.Stdout();

    ExpectNoneLost(written, DeliverTheRest(/*inTakeLock=*/true), 0);
    EXPECT_TRUE(AgentLockIsFree());
  }
  {
    SCOPED_TRACE("killed at some point of a run");
    const Strings written = WriteLogs("r", 300, 2048);
    Acks acks;
    {
      ReceiverProcess receiver(NewSpool(), "", {"--delay-ms", "20"});
      auto agent = StartAgent(receiver.Url());
      ASSERT_GE(receiver.WaitForLines(50, 30000).size(), 50u);
      agent->Signal(SIGKILL);
      ASSERT_TRUE(agent->Wait(10000));
      EXPECT_EQ(agent->TermSignal(), SIGKILL);
      std::this_thread::sleep_for(kSettleTime);
      acks = AcksFromLines(receiver.WaitForLines(0, 0));
    }
    const auto kept = ExpectNoneLost(written, acks, 1);
    EXPECT_FALSE(kept.empty()) << "the agent finished before it was killed";

    AddAcks(acks, DeliverTheRest());
    int twice = 0;
    for (const std::string& name : written) {
      ASSERT_EQ(acks.count(name), 1u) << name << " never delivered";
      if (acks[name] == 2) ++twice;
      acks[name] = 1;
    }
    EXPECT_LE(twice, 1);
    ExpectNoneLost(written, acks, 0);
  }
}

// A thousand files and a receiver that fails one request in ten (a reset or
// an empty 500, chosen by a seeded generator). Each pass stops at its first
// failure, where the agent would wait 60 s: it is ended there with SIGTERM and
// the next pass starts. In the end each file was delivered exactly once.
TEST_F(FaultInjection, ThousandFilesThroughAFlakyReceiver) {
  constexpr int kFiles = 1000;
  constexpr int kMaxPasses = 400;
  const Strings written = WriteLogs("t", kFiles, 700);

  std::mt19937 random(20261122);
  std::mutex mutex;
  Acks acks;
  int faults = 0, mismatches = 0;
  std::atomic<int> faultsServed{0};
  RawServer server([&](int inSocket, RawServer& inServer) {
    const std::string request = inServer.ReadRequest(inSocket);
    const std::string name = UploadedName(request);
    std::lock_guard<std::mutex> guard(mutex);
    const unsigned draw = random() % 20;
    if (draw == 0) {
      ResetOnClose(inSocket);
    } else if (draw == 1) {
      RawServer::WriteAll(inSocket, RawServer::HttpReply("", 500));
    } else {
      const auto content = mContents.find(name);
      if (content == mContents.end() || request.find(content->second) == std::string::npos) ++mismatches;
      if (RawServer::WriteAll(inSocket, RawServer::HttpReply("Active"))) ++acks[name];
      return;
    }
    ++faults;
    ++faultsServed;
  });

  int passes = 0;
  while (!Names(mLogs).empty() && passes < kMaxPasses) {
    ++passes;
    const int faultsBefore = faultsServed.load();
    auto agent = StartAgent(server.Url());
    ASSERT_TRUE(Eventually([&] { return faultsServed.load() > faultsBefore || agent->Wait(0); }, 30000))
        << "pass " << passes << " hangs";
    if (!agent->Wait(0)) {
      // The fault was served for the file being handled, so its stop flag is
      // set and only its retries end; SIGTERM never lands between files here.
      agent->Signal(SIGTERM);
      ASSERT_TRUE(agent->Wait(10000));
      EXPECT_EQ(agent->ExitCode(), 1) << "pass " << passes;
    } else {
      EXPECT_EQ(agent->ExitCode(), 0) << "pass " << passes << ": " << agent->Stderr();
    }
  }

  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_TRUE(Names(mLogs).empty()) << "not delivered within " << kMaxPasses << " passes";
  EXPECT_GT(faults, 50) << "the receiver should have failed about one request in ten";
  EXPECT_EQ(mismatches, 0) << "requests whose body did not carry their file";
  EXPECT_EQ(acks.size(), static_cast<size_t>(kFiles));
  ExpectNoneLost(written, acks, 0);
  std::printf("%d files in %d passes, %d faults served\n", kFiles, passes, faults);
}

}  // namespace
