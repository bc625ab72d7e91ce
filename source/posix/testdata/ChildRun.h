// Test helper: runs a piece of a test in a forked child, optionally as another
// user, and hands back how the child ended. The tests run as root, and the
// write-permission rules can only be seen from an ordinary user.
#ifndef PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H
#define PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H

#include <cerrno>
#include <functional>

#include <grp.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

// The child's exit status (inBody's result), or -1 when it did not exit
// normally or could not be started. With inUid >= 0 the child drops to that
// user id and group id (and no supplementary groups) before running inBody;
// a failure to drop is status 125.
inline int RunInChild(const std::function<int()>& inBody, int inUid = -1) {
  const pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    if (inUid >= 0) {
      const uid_t id = static_cast<uid_t>(inUid);
      if (::setresgid(id, id, id) != 0 || ::setgroups(0, nullptr) != 0 || ::setresuid(id, id, id) != 0) {
        ::_exit(125);
      }
    }
    ::_exit(inBody());
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The user and group id of "nobody" on Debian.
constexpr int kNobody = 65534;

#endif  // PORVANE_SOURCE_POSIX_TESTDATA_CHILDRUN_H
