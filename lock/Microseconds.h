// The clock the lock's time-out is measured on.
#ifndef PORVANE_LOCK_MICROSECONDS_H
#define PORVANE_LOCK_MICROSECONDS_H

#include <cstdint>

namespace qvd {

// Microseconds since an arbitrary fixed point (CLOCK_MONOTONIC): never goes
// back, unaffected by changes of the wall clock.
uint64_t Microseconds();

}  // namespace qvd

#endif  // PORVANE_LOCK_MICROSECONDS_H
