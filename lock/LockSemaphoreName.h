// The named semaphore that stands for a lock name.
#ifndef PORVANE_LOCK_LOCKSEMAPHORENAME_H
#define PORVANE_LOCK_LOCKSEMAPHORENAME_H

#include <string>

namespace qvd {

// "/" + MD5Hash(inLockName) with every "/" replaced by "_": always 25
// characters, one leading "/" and no other, so any lock name, however long,
// makes a valid semaphore name. A pure function of inLockName.
// REQUIRES: !inLockName.empty() (asserted by MD5Hash).
std::string LockSemaphoreName(const std::string& inLockName);

// The file the C library keeps that semaphore in: "/dev/shm/sem." followed
// by the name without its "/".
std::string LockSemaphoreFile(const std::string& inLockName);

}  // namespace qvd

#endif  // PORVANE_LOCK_LOCKSEMAPHORENAME_H
