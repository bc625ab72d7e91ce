// porvane-unlock: clears the agent's lock when a dead agent left it behind.
//
// An agent that dies while holding its lock (SIGKILL, a crash) leaves the
// named semaphore in the system, and every later agent gives up after its
// time-out.
//
//   porvane-unlock [--name NAME]             removes the lock, whoever holds it
//   porvane-unlock --if-stale [--name NAME]  removes it only when it is this
//                                            user's and no live process holds it
//
// Without --if-stale: prints one line saying whether a lock was removed, and
// when it could not be, why (another user's lock says whose it is); exit
// status 0 when one was removed, 1 when there was none or it could not be
// removed. With --if-stale: prints a line only when it removed a lock, left
// one that is held or another user's, or could not remove a stale one, and
// exits 0 in every such case, so that it can run before every pass. A
// removal is reported only when the name is gone. Both exit 2 on a usage error or when
// the C library bridge cannot be loaded.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "AgentLock.h"
#include "LockSemaphoreName.h"
#include "ResourceLocker.h"
#include "StaleLock.h"

namespace {

const char kUsage[] =
    "usage: porvane-unlock [--if-stale] [--name NAME]\n"
    "Removes the lock an agent left behind when it did not end normally.\n"
    "  --if-stale   remove it only when it is yours and no live process holds it;\n"
    "               safe at any time (porvane.service runs it before each pass)\n"
    "  --name NAME  the lock to remove (default: the agent's lock)\n"
    "  --help       show this text\n"
    "Without --if-stale the lock goes whoever holds it: use that only when no agent\n"
    "is running, for instance for another user's lock (as root).\n"
    "Any local user can hold the lock; only its owner or root can remove it.\n"
    "Exit status: 0 when a lock was removed (with --if-stale: always), 1 when there\n"
    "was none or it could not be removed, 2 on error.\n";

enum ExitStatus { kRemoved = 0, kNoneRemoved = 1, kFailed = 2 };

struct Arguments {
  std::string name = kAgentLockName;
  bool ifStale = false;
};

// Reads the arguments. Returns -1 to go on, else the exit status to end with.
int ParseArguments(int argc, char** argv, Arguments& outArguments) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0) {
      std::fputs(kUsage, stdout);
      return kRemoved;
    }
    if (std::strcmp(argv[i], "--if-stale") == 0) {
      outArguments.ifStale = true;
      continue;
    }
    if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc && argv[i + 1][0] != '\0') {
      outArguments.name = argv[++i];
      continue;
    }
    std::fprintf(stderr, "porvane-unlock: unexpected argument \"%s\"\n%s", argv[i], kUsage);
    return kFailed;
  }
  return -1;
}

// "user NAME (uid N)", or "user N" when the id has no name.
std::string DescribeUser(uid_t inUid) {
  const std::string uid = std::to_string(inUid);
  std::vector<char> buffer(16384);
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(inUid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return "user " + uid;
  return "user " + std::string(found->pw_name) + " (uid " + uid + ")";
}

int RemoveIfStale(const std::string& inName, const std::string& inSemaphore) {
  pid_t holder = 0;
  const qvd::LockState state = qvd::RemoveStaleLock(inName, holder);
  const int error = errno;
  switch (state) {
    case qvd::LockState::kStale:
      std::printf("porvane-unlock: removed stale lock \"%s\" (semaphore %s)\n", inName.c_str(), inSemaphore.c_str());
      break;
    case qvd::LockState::kHeld:
      std::printf("porvane-unlock: lock \"%s\" is held by process %d; left in place\n", inName.c_str(),
                  static_cast<int>(holder));
      break;
    case qvd::LockState::kOtherOwner:
      std::printf("porvane-unlock: lock \"%s\" belongs to another user; left in place\n", inName.c_str());
      break;
    case qvd::LockState::kStuck:
      std::printf("porvane-unlock: stale lock \"%s\" could not be removed: %s; left in place\n", inName.c_str(),
                  std::strerror(error));
      break;
    case qvd::LockState::kFree:
    case qvd::LockState::kChanged:
      break;
  }
  return kRemoved;
}

int RemoveAnyway(const std::string& inName, const std::string& inSemaphore) {
  int error = 0;
  {
    // The time-out does not matter: unlock(true) never waits.
    qvd::ResourceLocker locker(inName, 0);
    if (locker.unlock(true)) {
      std::printf("porvane-unlock: removed lock \"%s\" (semaphore %s)\n", inName.c_str(), inSemaphore.c_str());
      return kRemoved;
    }
    error = errno;
  }
  struct stat info;
  if (error == ENOENT || lstat(qvd::LockSemaphoreFile(inName).c_str(), &info) != 0) {
    std::printf("porvane-unlock: no lock \"%s\" to remove (semaphore %s)\n", inName.c_str(), inSemaphore.c_str());
  } else if (info.st_uid != geteuid()) {
    // The folder of semaphores is sticky: only the name's owner and root
    // may remove it.
    const std::string owner = DescribeUser(info.st_uid);
    std::printf("porvane-unlock: lock \"%s\" belongs to %s; only that user or root may remove it (semaphore %s)\n",
                inName.c_str(), owner.c_str(), inSemaphore.c_str());
  } else {
    std::printf("porvane-unlock: lock \"%s\" could not be removed: %s (semaphore %s)\n", inName.c_str(),
                std::strerror(error), inSemaphore.c_str());
  }
  return kNoneRemoved;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  const int parsed = ParseArguments(argc, argv, arguments);
  if (parsed >= 0) return parsed;

  const std::string sSemaphore = qvd::LockSemaphoreName(arguments.name);
  try {
    return arguments.ifStale ? RemoveIfStale(arguments.name, sSemaphore) : RemoveAnyway(arguments.name, sSemaphore);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "porvane-unlock: %s\n", error.what());
    return kFailed;
  }
}
