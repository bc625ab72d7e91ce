// The lock that keeps two agents of one machine from uploading at once.
// porvane-unlock clears it when a killed agent left it behind.
#ifndef PORVANE_LOCK_AGENTLOCK_H
#define PORVANE_LOCK_AGENTLOCK_H

#include <cstdint>

inline constexpr char kAgentLockName[] = "TarvoUsageTrackerFileUploadLocker";
// How long an agent waits for another one before it gives up.
inline constexpr uint32_t kAgentLockTimeoutMs = 1000;

#endif  // PORVANE_LOCK_AGENTLOCK_H
