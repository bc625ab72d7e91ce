#include "StaleLock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "LockSemaphoreName.h"
#include "ProcessTable.h"
#include "ResourceLocker.h"

namespace qvd {

namespace {

LockState Inspect(const std::string& inFile, FileIdentity& outIdentity, pid_t& outHolder) {
  struct stat info;
  if (lstat(inFile.c_str(), &info) != 0) return LockState::kFree;
  if (info.st_uid != geteuid()) return LockState::kOtherOwner;
  outIdentity = FileIdentity{info.st_dev, info.st_ino};
  pid_t holder = 0;
  ForEachProcess([&](pid_t inPid) {
    if (ProcessMaps(inPid, outIdentity)) holder = inPid;
    return holder == 0;
  });
  if (holder == 0) return LockState::kStale;
  outHolder = holder;
  return LockState::kHeld;
}

}  // namespace

LockState InspectLock(const std::string& inLockName, pid_t& outHolder) {
  FileIdentity identity;
  return Inspect(LockSemaphoreFile(inLockName), identity, outHolder);
}

LockState RemoveStaleLock(const std::string& inLockName, pid_t& outHolder) {
  const std::string file = LockSemaphoreFile(inLockName);
  FileIdentity first, second;
  LockState state = Inspect(file, first, outHolder);
  if (state != LockState::kStale) return state;
  // The walk took a while: the semaphore must still be the same one, and
  // still unmapped, to go.
  state = Inspect(file, second, outHolder);
  if (state != LockState::kStale) return state;
  if (!(first == second)) return LockState::kChanged;
  int error = 0;
  {
    ResourceLocker locker(inLockName, 0);
    if (locker.unlock(true)) return LockState::kStale;
    error = errno;
  }
  errno = error;  // past the locker's end
  return LockState::kStuck;
}

}  // namespace qvd
