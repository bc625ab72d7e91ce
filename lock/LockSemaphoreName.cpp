#include "LockSemaphoreName.h"

#include <algorithm>

#include "MD5Hash.h"

namespace qvd {

std::string LockSemaphoreName(const std::string& inLockName) {
  // The base64 text may hold "/", which a semaphore name may only have in
  // front; "_" is not in the base64 alphabet, so no two names collide.
  std::string sHash = MD5Hash(inLockName);
  std::replace(sHash.begin(), sHash.end(), '/', '_');
  return "/" + sHash;
}

std::string LockSemaphoreFile(const std::string& inLockName) {
  return "/dev/shm/sem." + LockSemaphoreName(inLockName).substr(1);
}

}  // namespace qvd
