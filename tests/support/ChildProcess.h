// A program run by a test as a user would run it: its own argument list and
// environment, standard output and error captured to files, signals sent and
// the exit waited for with a bound.
#ifndef PORVANE_TESTS_SUPPORT_CHILDPROCESS_H
#define PORVANE_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

class ChildProcess {
 public:
  using Environment = std::map<std::string, std::string>;

  // Starts inArgs[0] with inArgs and exactly inEnvironment. Its standard
  // output and error go to files in inCaptureDir (which must exist).
  ChildProcess(const std::vector<std::string>& inArgs, const Environment& inEnvironment,
               const std::string& inCaptureDir);
  // Kills (SIGKILL) and reaps a child that is still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return mPid; }
  void Signal(int inSignal) const;

  // Waits up to inTimeoutMs for the child to end. True when it ended; then
  // ExitCode() is its exit status, or -1 when a signal ended it (TermSignal()).
  bool Wait(int inTimeoutMs);
  bool Running() const { return mPid > 0 && !mEnded; }
  int ExitCode() const { return mExitCode; }
  int TermSignal() const { return mTermSignal; }

  std::string Stdout() const;
  std::string Stderr() const;

  // The process's environment as a map (to start from it and change a few).
  static Environment CurrentEnvironment();

 private:
  pid_t mPid = -1;
  bool mEnded = false;
  int mExitCode = -1;
  int mTermSignal = 0;
  std::string mStdoutPath;
  std::string mStderrPath;
};

#endif  // PORVANE_TESTS_SUPPORT_CHILDPROCESS_H
