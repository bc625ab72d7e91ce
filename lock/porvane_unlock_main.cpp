// porvane-unlock: clears the agent's lock when a killed agent left it behind.
//
// An agent that dies while holding its lock leaves the named semaphore in the
// system, and every later agent gives up after its time-out. This removes the
// semaphore, whoever created it.
//
//   porvane-unlock [--name NAME]
//
// Prints one line saying whether a lock was removed. Exit status: 0 when one
// was removed, 1 when there was none to remove (or it could not be removed),
// 2 on a usage error or when the C library bridge cannot be loaded.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "AgentLock.h"
#include "LockSemaphoreName.h"
#include "ResourceLocker.h"

namespace {

const char kUsage[] =
    "usage: porvane-unlock [--name NAME]\n"
    "Removes a stale lock left behind by an agent that did not end normally.\n"
    "  --name NAME  the lock to remove (default: the agent's lock)\n"
    "  --help       show this text\n"
    "Exit status: 0 when a lock was removed, 1 when there was none, 2 on error.\n";

enum ExitStatus { kRemoved = 0, kNoneRemoved = 1, kFailed = 2 };

// Reads the arguments into outName. Returns -1 to go on, else the exit
// status to end with.
int ParseArguments(int argc, char** argv, std::string& outName) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0) {
      std::fputs(kUsage, stdout);
      return kRemoved;
    }
    if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc && argv[i + 1][0] != '\0') {
      outName = argv[++i];
      continue;
    }
    std::fprintf(stderr, "porvane-unlock: unexpected argument \"%s\"\n%s", argv[i], kUsage);
    return kFailed;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string sName = kAgentLockName;
  const int parsed = ParseArguments(argc, argv, sName);
  if (parsed >= 0) return parsed;

  const std::string sSemaphore = qvd::LockSemaphoreName(sName);
  try {
    // The time-out does not matter: unlock(true) never waits.
    qvd::ResourceLocker locker(sName, 0);
    if (locker.unlock(true)) {
      std::printf("porvane-unlock: removed lock \"%s\" (semaphore %s)\n", sName.c_str(), sSemaphore.c_str());
      return kRemoved;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "porvane-unlock: %s\n", error.what());
    return kFailed;
  }
  std::printf("porvane-unlock: no lock \"%s\" to remove (semaphore %s)\n", sName.c_str(), sSemaphore.c_str());
  return kNoneRemoved;
}
