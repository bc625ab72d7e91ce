#include "ChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "PrivateHome.h"

extern char** environ;

ChildProcess::ChildProcess(const std::vector<std::string>& inArgs, const Environment& inEnvironment,
                           const std::string& inCaptureStem)
    : mStem(inCaptureStem) {
  std::vector<std::string> args = inArgs, env;
  for (const auto& [name, value] : inEnvironment) env.push_back(name + "=" + value);
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  for (auto& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  char* const* const environment = inEnvironment.empty() ? environ : envp.data();
  const int out = open((mStem + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int err = open((mStem + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0 || err < 0) throw std::runtime_error("cannot capture into " + mStem);
  mPid = fork();
  if (mPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies takes its programs along
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    const int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, STDIN_FILENO);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv.data(), environment);
    _exit(127);
  }
  close(out);
  close(err);
  if (mPid < 0) throw std::runtime_error("fork failed");
}

bool ChildProcess::Wait(int inTimeoutMs) {
  return mEnded || Eventually(
                       [this] {
                         int status = 0;
                         if (waitpid(mPid, &status, WNOHANG) != mPid) return false;
                         mEnded = true;
                         mExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                         return true;
                       },
                       inTimeoutMs);
}

std::string ChildProcess::Stdout() const { return ReadFile(mStem + ".out"); }
std::string ChildProcess::Stderr() const { return ReadFile(mStem + ".err"); }

static std::vector<std::string> Joined(std::vector<std::string> inFirst, const std::vector<std::string>& inRest) {
  inFirst.insert(inFirst.end(), inRest.begin(), inRest.end());
  return inFirst;
}

ReceiverProcess::ReceiverProcess(const std::string& inSpool, const std::vector<std::string>& inExtraArgs)
    : mProcess(Joined({BuiltProgram("porvane-receiver"), "--port", "0", "--spool", inSpool}, inExtraArgs), {}, inSpool) {
  const std::string kListening = "porvane-receiver: listening on 127.0.0.1:";
  Eventually([&] {
    const std::string out = mProcess.Stdout();
    if (out.compare(0, kListening.size(), kListening) == 0) mPort = std::atoi(out.c_str() + kListening.size());
    return mPort != 0 || !mProcess.Running();
  });
  if (mPort == 0) throw std::runtime_error("porvane-receiver did not start: " + mProcess.Stderr());
}

std::string ReceiverProcess::Url(const std::string& inPath) const {
  return "http://127.0.0.1:" + std::to_string(mPort) + inPath;
}

std::vector<std::string> ReceiverProcess::Lines(size_t inCount) const {
  std::vector<std::string> lines;
  Eventually([&] {
    lines.clear();
    const std::string out = mProcess.Stdout();
    for (size_t start = out.find('\n') + 1, end; (end = out.find('\n', start)) != std::string::npos; start = end + 1)
      lines.push_back(out.substr(start, end - start));
    return lines.size() >= inCount;
  });
  return lines;
}

std::string BuiltProgram(const std::string& inName) { return std::string(PORVANE_BINARY_DIR) + "/bin/" + inName; }

bool Eventually(const std::function<bool()>& inCondition, int inTimeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(inTimeoutMs);
  while (!inCondition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int RunAsUser(uid_t inId, const std::function<int()>& inBody) {
  const pid_t pid = fork();
  if (pid == 0) {
    const bool switched = setresgid(inId, inId, inId) == 0 && setgroups(0, nullptr) == 0 &&
                          setresuid(inId, inId, inId) == 0;
    _exit(switched ? inBody() : 125);
  }
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
