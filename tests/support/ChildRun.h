// Test helper: runs part of a test in a forked child as another user. The
// tests run as root, and the write-permission rules only show for an
// ordinary user.
#ifndef PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H
#define PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

// The child's exit status (inBody's result) after it dropped to user and
// group inId with no supplementary groups; 125 when it could not drop, -1
// when it could not start or did not exit normally.
inline int RunInChild(const std::function<int()>& inBody, uid_t inId) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const bool dropped = ::setresgid(inId, inId, inId) == 0 && ::setgroups(0, nullptr) == 0 &&
                         ::setresuid(inId, inId, inId) == 0;
    ::_exit(dropped ? inBody() : 125);
  }
  int status = 0;
  while (pid > 0 && ::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The user and group id of "nobody" on Debian.
constexpr uid_t kNobody = 65534;

#endif  // PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H
