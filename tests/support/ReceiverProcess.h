// The reference receiver (build/bin/porvane-receiver) as a child process of a
// test: started on a free loopback port, its output lines collected, stopped
// with SIGTERM when the object goes away.
//
// The receiver prints, one line each and flushed:
//   porvane-receiver: listening on 127.0.0.1:<port>
//   kind=<kind> file=<file name> bytes=<content bytes> answer=<reply text>
//   rejected status=<http status> reason=<text>
#ifndef PORVANE_TESTS_SUPPORT_RECEIVERPROCESS_H
#define PORVANE_TESTS_SUPPORT_RECEIVERPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

class ReceiverProcess {
 public:
  // Starts the receiver with --port 0 --spool inSpoolDir, plus --policy
  // inPolicyFile when it is not empty and inExtraArgs. Throws
  // std::runtime_error when it does not report its port within 10 s.
  explicit ReceiverProcess(const std::string& inSpoolDir, const std::string& inPolicyFile = "",
                           const std::vector<std::string>& inExtraArgs = {});
  ~ReceiverProcess();
  ReceiverProcess(const ReceiverProcess&) = delete;
  ReceiverProcess& operator=(const ReceiverProcess&) = delete;

  int Port() const { return mPort; }
  pid_t Pid() const { return mPid; }
  // "http://127.0.0.1:<port>" + inPath.
  std::string Url(const std::string& inPath = "/upload") const;

  // The lines printed after the listening line, waiting up to inTimeoutMs
  // for at least inCount of them (returns what there is at the deadline).
  std::vector<std::string> WaitForLines(size_t inCount, int inTimeoutMs = 10000);
  // The lines printed so far, without waiting.
  std::vector<std::string> Lines() { return WaitForLines(0, 0); }

  // SIGTERM, then waits for the process; idempotent. Returns its wait status.
  int Stop();
  // SIGKILL, then waits; idempotent.
  void Kill();

  // The path of the receiver program in the build tree.
  static std::string ProgramPath();

 private:
  bool ReadAvailable(int inTimeoutMs);

  pid_t mPid = -1;
  int mOutput = -1;
  int mPort = 0;
  std::string mPending;
  std::vector<std::string> mLines;
};

#endif  // PORVANE_TESTS_SUPPORT_RECEIVERPROCESS_H
