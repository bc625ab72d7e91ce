#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "TempDir.h"

extern char** environ;

namespace {

int OpenCapture(const std::string& inPath) {
  int fd = open(inPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot create " + inPath);
  return fd;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& inArgs, const Environment& inEnvironment,
                           const std::string& inCaptureDir) {
  static int serial = 0;
  const std::string stem = inCaptureDir + "/child" + std::to_string(++serial);
  mStdoutPath = stem + ".out";
  mStderrPath = stem + ".err";
  int out = OpenCapture(mStdoutPath);
  int err = OpenCapture(mStderrPath);

  std::vector<std::string> args = inArgs;
  std::vector<std::string> env;
  for (const auto& [name, value] : inEnvironment) env.push_back(name + "=" + value);
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  for (auto& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  mPid = fork();
  if (mPid < 0) throw std::runtime_error("fork failed");
  if (mPid == 0) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, STDIN_FILENO);
    // A clean signal state: the test process may block or handle SIGTERM.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGTERM, SIG_DFL);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out);
  close(err);
}

ChildProcess::~ChildProcess() {
  if (Running()) {
    kill(mPid, SIGKILL);
    Wait(10000);
  }
}

void ChildProcess::Signal(int inSignal) const {
  if (Running()) kill(mPid, inSignal);
}

bool ChildProcess::Wait(int inTimeoutMs) {
  if (mEnded) return true;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(inTimeoutMs);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(mPid, &status, WNOHANG);
    if (r == mPid) {
      mEnded = true;
      if (WIFEXITED(status)) mExitCode = WEXITSTATUS(status);
      if (WIFSIGNALED(status)) mTermSignal = WTERMSIG(status);
      return true;
    }
    if (r < 0 && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string ChildProcess::Stdout() const { return ReadFile(mStdoutPath); }
std::string ChildProcess::Stderr() const { return ReadFile(mStderrPath); }

ChildProcess::Environment ChildProcess::CurrentEnvironment() {
  Environment env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    auto eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  return env;
}
