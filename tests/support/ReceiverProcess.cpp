#include "ReceiverProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point inDeadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(inDeadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::string ReceiverProcess::ProgramPath() { return std::string(PORVANE_BINARY_DIR) + "/bin/porvane-receiver"; }

ReceiverProcess::ReceiverProcess(const std::string& inSpoolDir, const std::string& inPolicyFile,
                                 const std::vector<std::string>& inExtraArgs) {
  std::vector<std::string> args = {ProgramPath(), "--port", "0", "--spool", inSpoolDir};
  if (!inPolicyFile.empty()) {
    args.push_back("--policy");
    args.push_back(inPolicyFile);
  }
  args.insert(args.end(), inExtraArgs.begin(), inExtraArgs.end());

  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  mPid = fork();
  if (mPid < 0) throw std::runtime_error("fork failed");
  if (mPid == 0) {
    // A test that crashes must not leave its receiver running (holding the
    // test's standard error open and ctest waiting on it).
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(pipeFds[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  mOutput = pipeFds[0];

  const std::string kListening = "porvane-receiver: listening on 127.0.0.1:";
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (mPort == 0) {
    if (!mLines.empty()) {
      std::string first = mLines.front();
      mLines.erase(mLines.begin());
      if (first.compare(0, kListening.size(), kListening) == 0) mPort = std::atoi(first.c_str() + kListening.size());
      continue;
    }
    if (MillisecondsLeft(deadline) == 0 || !ReadAvailable(MillisecondsLeft(deadline))) {
      Kill();
      throw std::runtime_error("porvane-receiver did not report its port");
    }
  }
}

ReceiverProcess::~ReceiverProcess() {
  Stop();
  if (mOutput >= 0) close(mOutput);
}

std::string ReceiverProcess::Url(const std::string& inPath) const {
  return "http://127.0.0.1:" + std::to_string(mPort) + inPath;
}

bool ReceiverProcess::ReadAvailable(int inTimeoutMs) {
  if (mOutput < 0) return false;
  pollfd pfd{mOutput, POLLIN, 0};
  int ready = poll(&pfd, 1, inTimeoutMs);
  if (ready <= 0) return ready == 0 || errno == EINTR;
  char chunk[4096];
  ssize_t got = read(mOutput, chunk, sizeof chunk);
  if (got <= 0) {
    if (got < 0 && errno == EINTR) return true;
    close(mOutput);
    mOutput = -1;
    return false;
  }
  mPending.append(chunk, static_cast<size_t>(got));
  for (size_t end; (end = mPending.find('\n')) != std::string::npos;) {
    mLines.push_back(mPending.substr(0, end));
    mPending.erase(0, end + 1);
  }
  return true;
}

std::vector<std::string> ReceiverProcess::WaitForLines(size_t inCount, int inTimeoutMs) {
  auto deadline = Clock::now() + std::chrono::milliseconds(inTimeoutMs);
  while (ReadAvailable(0) && mOutput >= 0) {
    pollfd pfd{mOutput, POLLIN, 0};
    if (poll(&pfd, 1, 0) <= 0) break;
  }
  while (mLines.size() < inCount && MillisecondsLeft(deadline) > 0) {
    if (!ReadAvailable(MillisecondsLeft(deadline))) break;
  }
  return mLines;
}

int ReceiverProcess::Stop() {
  int status = 0;
  if (mPid > 0) {
    kill(mPid, SIGTERM);
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
  }
  return status;
}

void ReceiverProcess::Kill() {
  if (mPid > 0) {
    kill(mPid, SIGKILL);
    int status;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
  }
}
