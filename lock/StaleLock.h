// Telling a lock left behind by a dead process from one that is in use.
//
// A process that holds the lock has the semaphore's file mapped (the C
// library maps it on sem_open); one that died has not. The name's owner is
// that of the entry itself, never of what a link there points to, so
// another user's link is another user's lock. The mapping carries
// the temporary name the semaphore was made under, so it is matched by the
// file's device and inode, not by name.
#ifndef PORVANE_LOCK_STALELOCK_H
#define PORVANE_LOCK_STALELOCK_H

#include <sys/types.h>

#include <string>

namespace qvd {

enum class LockState {
  kFree,        // no semaphore of that name
  kOtherOwner,  // made by another user: never ours to judge
  kHeld,        // a live process has it mapped
  kStale,       // ours, and no process has it
  kChanged,     // replaced by another semaphore while being looked at
  kStuck,       // stale, but its name could not be removed (errno says why)
};

// What the lock inLockName is now. For kHeld, outHolder is the first
// process found that has it.
LockState InspectLock(const std::string& inLockName, pid_t& outHolder);

// Removes the lock inLockName when InspectLock finds it stale, looking again
// just before removing it (the same file, still unmapped). Returns what was
// found; kStale means it was removed, kChanged that it was left because it
// changed between the two looks, kStuck that removing it failed (errno set).
// Races: an agent that takes the lock after it was found stale must make a
// new semaphore, which the second look tells apart by its inode.
LockState RemoveStaleLock(const std::string& inLockName, pid_t& outHolder);

}  // namespace qvd

#endif  // PORVANE_LOCK_STALELOCK_H
