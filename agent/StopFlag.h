// How a request to stop travels through a pass, in one place.
//
//   signal   SIGTERM, SIGINT or SIGHUP runs OnTerminateSignal (installed by
//            InstallStopHandlers without SA_RESTART, so a sleep or a blocking
//            call it interrupts returns early). The handler does nothing
//            else than one store.
//   flag     It stores true into the StopFlag that activeStopFlag points to.
//            A pass has one flag, published there by a StopPublisher from
//            before the lock wait until the pass ends; a request is never
//            forgotten, so from the moment it arrives no new file is started.
//   readers  The lock wait looks at the flag every millisecond and gives up;
//            the trim finishes the deletion in progress and ends, and no walk
//            follows; the walk starts no new file; the uploader's progress
//            callback, called about once a second, ends the transfer in
//            progress (the file is kept); the retry wait looks after every
//            one-second sleep, which the signal cuts short. A file whose reply
//            was already accepted is still finished (removed as usual).
//   end      The lock is released and the pass exits 1.
#ifndef PORVANE_AGENT_STOPFLAG_H
#define PORVANE_AGENT_STOPFLAG_H

#include <atomic>

// One byte that a signal handler may set at any moment: a lock-free atomic
// store is async-signal-safe, and every wait of the pass re-reads it.
struct StopFlag {
  std::atomic<bool> stopRequested{false};
};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler stores to this flag");
static_assert(sizeof(StopFlag) == 1, "the stop flag is one byte");

// The flag of the pass in progress; null when there is none, and the
// handler then does nothing.
extern std::atomic<StopFlag*> activeStopFlag;

static_assert(std::atomic<StopFlag*>::is_always_lock_free, "the signal handler loads this pointer");

// Sets the published flag, if any. Async-signal-safe: one atomic load and at
// most one atomic store; it never logs and never ends the process.
void OnTerminateSignal(int inSignal);

// Installs OnTerminateSignal for SIGTERM, SIGINT and SIGHUP. From then on
// none of them ends the process by itself: the pass ends as described above
// and releases the lock.
void InstallStopHandlers();

// Publishes a flag to the handler for as long as the object lives, and
// withdraws it on every way out, exceptions included, so the handler never
// stores through a flag that is gone. One at a time (asserted).
class StopPublisher {
 public:
  explicit StopPublisher(StopFlag& inFlag);
  ~StopPublisher();
  StopPublisher(const StopPublisher&) = delete;
  StopPublisher& operator=(const StopPublisher&) = delete;
};

#endif  // PORVANE_AGENT_STOPFLAG_H
