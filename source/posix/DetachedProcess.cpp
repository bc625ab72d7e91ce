#include "DetachedProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "FileDescriptor.h"

namespace {

// Everything from here to Spawn runs in a child of a process that may have
// other threads, so it only calls async-signal-safe functions.

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

void Exec(char* const* inArgv, bool inSearchPath) {
  if (inSearchPath) {
    ::execvp(inArgv[0], inArgv);
  } else {
    ::execv(inArgv[0], inArgv);
  }
}

// The program itself, in the child: exec, or report why not.
[[noreturn]] void RunDirect(char* const* inArgv, bool inSearchPath, int inReportFd) {
  PrepareForExec();
  Exec(inArgv, inSearchPath);
  ReportAndExit(inReportFd, errno);
}

// An intermediate child in a session of its own that starts the program as
// a grandchild and leaves at once, so that init adopts the program.
[[noreturn]] void RunIntermediate(char* const* inArgv, bool inSearchPath, int inReportFd) {
  ::setsid();
  const pid_t program = ::fork();
  if (program < 0) ReportAndExit(inReportFd, errno);
  if (program > 0) ::_exit(0);
  RunDirect(inArgv, inSearchPath, inReportFd);
}

using ChildBody = void (*)(char* const*, bool, int);

// Forks a child running inBody with the write end of a report pipe, reads
// the report, then waits for the child. The write end closes on a successful
// exec, so end of file means started; otherwise the child sent the errno of
// its failure. Returns that errno (0: started) or the errno of a pipe or
// fork that failed; outStatus is the child's wait status, -1 when none.
int Spawn(ChildBody inBody, const std::vector<std::string>& inArgv, bool inSearchPath, int& outStatus) {
  // Built before fork: the child must not allocate.
  std::vector<char*> argv;
  for (const std::string& argument : inArgv) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  outStatus = -1;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
  FileDescriptor readEnd(fds[0]);
  FileDescriptor writeEnd(fds[1]);
  const pid_t child = ::fork();
  if (child < 0) return errno;
  if (child == 0) inBody(argv.data(), inSearchPath, writeEnd.Get());
  writeEnd.Close();
  int childError = 0;
  ssize_t got;
  while ((got = ::read(readEnd.Get(), &childError, sizeof childError)) < 0 && errno == EINTR) {
  }
  while (::waitpid(child, &outStatus, 0) < 0 && errno == EINTR) {
  }
  if (got == 0) return 0;
  return got == static_cast<ssize_t>(sizeof childError) ? childError : EIO;
}

}  // namespace

bool StartDetached(const std::vector<std::string>& inArgv, bool inSearchPath) {
  int status = 0;
  const int error = inArgv.empty() ? EINVAL : Spawn(RunIntermediate, inArgv, inSearchPath, status);
  if (error == 0) return true;
  errno = error;
  return false;
}

int RunProgram(const std::vector<std::string>& inArgv, bool inSearchPath) {
  int status = 0;
  if (inArgv.empty() || Spawn(RunDirect, inArgv, inSearchPath, status) != 0) return -1;
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
