// A named lock shared by every process of the machine.
#ifndef PORVANE_LOCK_RESOURCELOCKER_H
#define PORVANE_LOCK_RESOURCELOCKER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "LockPolicyInterface.h"
#include "ResourceLockExceptions.h"

namespace qvd {

// The lock is the existence of a POSIX named semaphore (LockSemaphoreName of
// the lock name): taking it creates the semaphore exclusively, giving it back
// removes the name. The semaphore's count is never used. Two objects with the
// same name exclude each other whether they live in one process or two.
//
// A process that ends while holding the lock leaves the semaphore behind;
// every later lock() then times out until someone calls unlock(true) (see
// porvane-unlock) or the machine restarts.
//
// Not thread-safe: one object belongs to one thread.
class ResourceLocker : public LockPolicyInterface {
 public:
  // Makes no semaphore call. The first locker of a process loads the C
  // library bridge; its std::runtime_error ("unable to load bundle",
  // "missing symbol") passes out of here.
  ResourceLocker(const std::string& inName, uint32_t inTimeoutMs);
  // Releases a held lock as unlock(false) would.
  virtual ~ResourceLocker();

  // Tries at once, then every millisecond until inTimeoutMs have passed since
  // the call; a time-out of 0 makes exactly one attempt. True when held.
  // Any failure to create the semaphore is waited out alike, whatever its
  // reason; lastError() tells the last attempt's. Not re-entrant: on an
  // object that already holds the lock it throws resource_lock_fail
  // (resource() = the lock name) and stays held.
  bool lock() override;

  // The errno of the last attempt of the last lock() that returned false:
  // EEXIST when the lock was held (by anyone: any local user can hold it),
  // anything else when it could not be made at all (ENOSPC, EACCES, EROFS,
  // ...). 0 before any failed lock() and after a successful one.
  int lastError() const;

  // Removes the semaphore's name, then closes this object's handle if it has
  // one. True when the name was removed. False when it could not be (it did
  // not exist, or removal was refused): a held lock then stays held.
  // inForce false on an object that holds nothing throws no_resource_lock
  // (resource() = "Resource unknown"). inForce true removes the name whoever
  // created it, which is how a stale lock is cleared.
  bool unlock(bool inForce) override;

  // True while this object holds the lock. Makes no system call.
  bool isLocked() const override;

  // Hands the object a stop flag (may be null): a wait in lock() gives up,
  // the lock not taken, within a millisecond of the flag becoming true.
  // REQUIRES: the flag outlives the object.
  void SetStopFlag(const std::atomic<bool>* inStop);

  class ResourceLockerPlat;

 private:
  std::unique_ptr<ResourceLockerPlat> mImpl;
};

}  // namespace qvd

#endif  // PORVANE_LOCK_RESOURCELOCKER_H
