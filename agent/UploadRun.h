// The upload run: every finished log file of a folder goes to the receiver,
// one at a time, and leaves the folder once the receiver has answered for it.
//
// Three layers: the folder walk, the retries of one file and one attempt.
// Everything runs on the calling thread. What the run sends with and waits
// with is handed to it (RunSettings), so its decisions can be driven by a
// scripted uploader and a clock that does not sleep.
#ifndef PORVANE_AGENT_UPLOADRUN_H
#define PORVANE_AGENT_UPLOADRUN_H

#include <functional>
#include <memory>
#include <string>

#include "StopFlag.h"
#include "Uploader.h"

class Diagnostics;
class UsageStatusFile;

// What a run works with, all owned by the caller for the length of the run.
struct RunSettings {
  UsageStatusFile& status;          // the user's status of each kind of log
  const std::string& receiverUrl;   // where the files go
  const Diagnostics& diagnostics;   // one line per attempt, when asked for
  const StopFlag& stop;             // the pass's stop request (StopFlag.h)
  // A fresh uploader for each attempt.
  std::function<std::unique_ptr<Uploader>()> makeUploader = MakeCurlUploader;
  // The wait before a retry: inSeconds, or less once the stop flag is set.
  std::function<void(int inSeconds, const StopFlag&)> wait = SleepUnlessStopped;

  static std::unique_ptr<Uploader> MakeCurlUploader();
  // Sleeps one second at a time, looking at the flag after each.
  static void SleepUnlessStopped(int inSeconds, const StopFlag& inStop);
};

// Sends the finished log files of inLogFolder (LogFolderScan.h) to the
// run's receiver, consulting and updating the user's status in its status
// file.
//
// For each file: its kind is its name up to the first "_" (the empty kind
// when the name has no "_"). A stored Disabled or Hibernate status removes
// the file unsent, whatever it is; an unknown stored status keeps it and
// ends the run. Otherwise the file is opened once (its identity and length
// are the fstat of that open) and posted, and the reply decides
// (InterpretReply): "Active" and "Delete" remove it, "Disabled" and
// "Hibernate N" store the new status and remove it, anything else (no reply
// included) keeps it and the file is tried again after 60 s, then 120, 240,
// ... seconds, doubling in 32 bits without a cap (after 16 doublings the
// delay wraps negative and the retries follow without a wait), until an
// understood reply or a stop request, which ends the run.
//
// An accepted file is removed only when its path still names the file that
// was opened, unchanged (device, inode, size, modification and change
// times); a write that lands between that check and the removal is lost.
//
// Passed over for the rest of the run (kept, tried afresh by the next run,
// and not counted as handled): an entry to be sent that is no regular file
// once links are followed, cannot be opened, is gone, shrank while it was
// sent, or changed while it was sent; and a file that could not be removed
// (then the run returns 1). A passed-over entry never holds up the rest.
//
// The folder is walked again as long as a walk handled a file, which also
// picks up files that arrive meanwhile; the first walk is always followed
// by a second one.
// Returns 0 when the walks ended by themselves and every removal succeeded;
// 1 when inLogFolder cannot be listed (missing, not a folder, no
// permission), when a file's retries ended without an understood reply (a
// stop request) or an unknown status was stored, when a file could not be
// removed, or when a stop request ended the walks.
int UploadLogFolder(const RunSettings& inRun, const std::string& inLogFolder);

#endif  // PORVANE_AGENT_UPLOADRUN_H
