#include "Microseconds.h"

#include <time.h>

namespace qvd {

uint64_t Microseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

}  // namespace qvd
