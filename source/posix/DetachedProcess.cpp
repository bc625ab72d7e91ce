#include "DetachedProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "FileDescriptor.h"

namespace {

// Everything below up to ReportAndExit runs in a child of a process that may
// have other threads, so it only calls async-signal-safe functions.

[[noreturn]] void ReportAndExit(int inReportFd, int inError) {
  // Four bytes into a pipe are written atomically or not at all.
  while (::write(inReportFd, &inError, sizeof inError) < 0 && errno == EINTR) {
  }
  ::_exit(127);
}

// Undoes what the caller's process state should not pass on: blocked signals
// and an ignored SIGPIPE survive exec, and the program has no use for the
// caller's terminal input.
void PrepareForExec() {
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction dflt = {};
  dflt.sa_handler = SIG_DFL;
  ::sigaction(SIGPIPE, &dflt, nullptr);
  const int nullFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nullFd >= 0) {
    ::dup2(nullFd, STDIN_FILENO);  // dup2 clears close-on-exec on the copy
    ::close(nullFd);
  }
}

[[noreturn]] void RunIntermediate(char* const* inArgv, bool inSearchPath, int inReportFd) {
  ::setsid();
  const pid_t program = ::fork();
  if (program < 0) ReportAndExit(inReportFd, errno);
  if (program > 0) ::_exit(0);
  PrepareForExec();
  if (inSearchPath) {
    ::execvp(inArgv[0], inArgv);
  } else {
    ::execv(inArgv[0], inArgv);
  }
  ReportAndExit(inReportFd, errno);
}

void WaitForExit(pid_t inChild) {
  while (::waitpid(inChild, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

bool StartDetached(const std::vector<std::string>& inArgv, bool inSearchPath) {
  if (inArgv.empty()) {
    errno = EINVAL;
    return false;
  }
  // Built before fork: the child must not allocate.
  std::vector<char*> argv;
  for (const std::string& argument : inArgv) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  FileDescriptor readEnd(fds[0]);
  FileDescriptor writeEnd(fds[1]);

  const pid_t child = ::fork();
  if (child < 0) return false;
  if (child == 0) RunIntermediate(argv.data(), inSearchPath, writeEnd.Get());

  writeEnd.Close();
  WaitForExit(child);
  // The write end closes on a successful exec, so end of file means started;
  // otherwise the child sent the errno of its failure.
  int childError = 0;
  ssize_t got;
  while ((got = ::read(readEnd.Get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
  }
  if (got == 0) return true;
  errno = (got == static_cast<ssize_t>(sizeof childError)) ? childError : EIO;
  return false;
}
