// The POSIX half of qvd::ResourceLocker: the semaphore calls, made through
// the C library bridge.
#ifndef PORVANE_LOCK_RESOURCELOCKERPLAT_H
#define PORVANE_LOCK_RESOURCELOCKERPLAT_H

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "ORUSysAccessor.h"
#include "ResourceLocker.h"

namespace qvd {

// Holds the semaphore handle while the lock is held; SEM_FAILED means free.
// That handle is the whole state of the lock; beside it, the reason the last
// lock() failed is kept for the caller's report. Operations behave as
// documented on ResourceLocker.
class ResourceLocker::ResourceLockerPlat {
 public:
  // Builds the process-wide bridge on first use (may throw, see
  // ResourceLocker).
  ResourceLockerPlat(const std::string& inName, uint32_t inTimeoutMs);
  // Calls unlock(false) when held.
  virtual ~ResourceLockerPlat();

  ResourceLockerPlat(const ResourceLockerPlat&) = delete;
  ResourceLockerPlat& operator=(const ResourceLockerPlat&) = delete;

  bool lock();
  bool unlock(bool inForce);
  bool isLocked() const { return mSemaphore != SEM_FAILED; }
  void SetStopFlag(const std::atomic<bool>* inStop) { mStop = inStop; }
  int lastError() const { return mLastError; }

 private:
  GlobalORUSysAccessor& mSysAccessor;
  sem_t* mSemaphore;
  std::string mName;  // as given, not hashed
  uint32_t mTimeoutMs;
  const std::atomic<bool>* mStop = nullptr;
  int mLastError = 0;  // errno of the last failed attempt
};

}  // namespace qvd

#endif  // PORVANE_LOCK_RESOURCELOCKERPLAT_H
