#include "ResourceLockerPlat.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "LockSemaphoreName.h"
#include "Microseconds.h"

namespace qvd {

ResourceLocker::ResourceLockerPlat::ResourceLockerPlat(const std::string& inName, uint32_t inTimeoutMs)
    : mSysAccessor(GlobalORUSysAccessor::instance()),
      mSemaphore(SEM_FAILED),
      mName(inName),
      mTimeoutMs(inTimeoutMs) {}

ResourceLocker::ResourceLockerPlat::~ResourceLockerPlat() {
  if (isLocked()) unlock(false);
}

bool ResourceLocker::ResourceLockerPlat::lock() {
  const uint64_t start = Microseconds();
  // Taking a held lock again is a caller's error, not a no-op: the lock is
  // deliberately not re-entrant.
  if (isLocked()) throw resource_lock_fail(mName, "A resource is already being locked");
  const uint64_t deadline = start + static_cast<uint64_t>(mTimeoutMs) * 1000u;
  for (;;) {
    // The error is not inspected: "exists", "refused" and "invalid" are all
    // waited out alike. The name is derived anew on every attempt.
    mSemaphore = mSysAccessor.sem_open(LockSemaphoreName(mName).c_str(), O_CREAT | O_EXCL, 0700, 1);
    mLastError = mSemaphore != SEM_FAILED ? 0 : errno;  // kept for the report, not to decide
    if (mSemaphore != SEM_FAILED) return true;
    // The sleep follows every failed attempt, so even a time-out of 0 sleeps
    // once. A signal may cut it short (EINTR); the clock or the stop flag decides.
    usleep(1000);
    if (!(Microseconds() < deadline) || (mStop != nullptr && mStop->load())) return false;
  }
}

bool ResourceLocker::ResourceLockerPlat::unlock(bool inForce) {
  // The resource is deliberately the fixed text, not mName.
  if (!isLocked() && !inForce) throw no_resource_lock("Resource unknown", "This object is not locking an item");
  // Unlink first: if the name cannot be removed the handle stays open and
  // the object still counts as holding the lock.
  if (mSysAccessor.sem_unlink(LockSemaphoreName(mName).c_str()) != 0) return false;
  if (isLocked()) {
    mSysAccessor.sem_close(mSemaphore);  // nothing useful to do on failure
    mSemaphore = SEM_FAILED;
  }
  return true;
}

}  // namespace qvd
