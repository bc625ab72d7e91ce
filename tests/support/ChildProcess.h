// A program run by a test as a user would run it: its own argument list and
// environment, standard output and error captured to files, signals sent and
// the exit waited for with a bound. The child dies with the test process.
#ifndef PORVANE_TESTS_SUPPORT_CHILDPROCESS_H
#define PORVANE_TESTS_SUPPORT_CHILDPROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

class ChildProcess {
 public:
  using Environment = std::map<std::string, std::string>;

  // Starts inArgs[0] with inArgs and exactly inEnvironment (this process's
  // own when it is empty); standard output and error go to inCaptureStem +
  // ".out" and ".err".
  ChildProcess(const std::vector<std::string>& inArgs, const Environment& inEnvironment,
               const std::string& inCaptureStem);
  // Kills (SIGKILL) and reaps a child that is still running.
  ~ChildProcess() { Signal(SIGKILL); Wait(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return mPid; }
  void Signal(int inSignal) const { if (!mEnded) kill(mPid, inSignal); }
  // Waits up to inTimeoutMs for the end. True when it ended; then ExitCode()
  // is its status, or -1 when a signal ended it.
  bool Wait(int inTimeoutMs = 60000);
  bool Running() const { return !mEnded; }
  int ExitCode() const { return mExitCode; }
  std::string Stdout() const;
  std::string Stderr() const;

 private:
  pid_t mPid = -1;
  bool mEnded = false;
  int mExitCode = -1;
  std::string mStem;
};

// The reference receiver of the build tree, listening on a free loopback
// port, stopped when the object goes away. Its output lines are
//   kind=<kind> file=<name> bytes=<count> answer=<reply>
//   rejected status=<http status> reason=<text>
class ReceiverProcess {
 public:
  // porvane-receiver --port 0 --spool inSpool, then inExtraArgs; output is
  // captured beside the spool. Throws when no port is reported within 10 s.
  explicit ReceiverProcess(const std::string& inSpool, const std::vector<std::string>& inExtraArgs = {});
  int Port() const { return mPort; }
  std::string Url(const std::string& inPath = "/upload") const;
  // The lines after the listening line, waiting up to 10 s for inCount.
  std::vector<std::string> Lines(size_t inCount = 0) const;

 private:
  ChildProcess mProcess;
  int mPort = 0;
};

// The path of a program of the build tree ("porvane", "porvane-receiver").
std::string BuiltProgram(const std::string& inName);

// Waits (bounded) until inCondition holds.
bool Eventually(const std::function<bool()>& inCondition, int inTimeoutMs = 10000);

// inBody's result, run in a forked child as user and group inId with no
// supplementary groups; 125 when it could not switch, -1 when it did not
// exit normally. Only root can switch.
int RunAsUser(uid_t inId, const std::function<int()>& inBody);
constexpr uid_t kNobody = 65534;

#endif  // PORVANE_TESTS_SUPPORT_CHILDPROCESS_H
