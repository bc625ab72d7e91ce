// The stop request of the one log file being handled, and the process-wide
// pointer through which the SIGTERM handler reaches it.
#ifndef PORVANE_AGENT_STOPFLAG_H
#define PORVANE_AGENT_STOPFLAG_H

#include <atomic>
#include <string>

// One byte that a signal handler may set at any moment: a lock-free atomic
// store is async-signal-safe, and every wait of the upload run re-reads it.
// Created fresh for each file, so a request to stop ends only that file's
// retries.
struct StopFlag {
  std::atomic<bool> stopRequested{false};

  // Deletes the file at inPath when something exists there: the result of
  // FileSystemUtils::RemovePath, or false when nothing was there. Callers
  // ignore it: a file that stays is found again by the next pass.
  bool RemoveFile(const std::string& inPath) const;
};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler stores to this flag");
static_assert(sizeof(StopFlag) == 1, "the stop flag is one byte");

// The flag of the file being handled; null whenever no file is being handled.
// Set before the file's first attempt and cleared only after its last one,
// so the handler never stores through a flag that is gone.
extern std::atomic<StopFlag*> activeStopFlag;

static_assert(std::atomic<StopFlag*>::is_always_lock_free, "the signal handler loads this pointer");

#endif  // PORVANE_AGENT_STOPFLAG_H
