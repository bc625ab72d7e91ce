// The upload run: every finished log file of a folder goes to the receiver,
// one at a time, and leaves the folder once the receiver has answered for it.
//
// Three layers: the folder walk, the retries of one file and one attempt.
// Everything runs on the calling thread; the only other entry is the SIGTERM
// handler, which reaches the file being handled through activeStopFlag
// (StopFlag.h).
#ifndef PORVANE_AGENT_UPLOADRUN_H
#define PORVANE_AGENT_UPLOADRUN_H

#include <string>

class Diagnostics;
class UsageStatusFile;

// What a run works with, all owned by the caller for the length of the run.
struct RunSettings {
  UsageStatusFile& status;          // the user's status of each kind of log
  const std::string& receiverUrl;   // where the files go
  const Diagnostics& diagnostics;   // one line per attempt, when asked for
};

// Sends the finished log files of inLogFolder (LogFolderScan.h) to the
// run's receiver, consulting and updating the user's status in its status
// file.
//
// For each file: its kind is its name up to the first "_" (the empty kind
// when the path has no "/" or the name no "_"). A stored Disabled or
// Hibernate status removes the file unsent; an unknown stored status keeps
// it. Otherwise the file is posted and the reply decides (InterpretReply):
// "Active" and "Delete" remove it, "Disabled" and "Hibernate N" store the new
// status and remove it, anything else (no reply included) keeps it and the
// file is tried again after 60 s, then 120, 240, ... seconds, doubling in 32
// bits without a cap (after 16 doublings the delay wraps negative and the
// retries follow without a wait), until an understood reply or a SIGTERM,
// which ends that file's retries and the run.
//
// The folder is walked again as long as a walk handled a file, which also
// picks up files that arrive meanwhile; the first walk is always followed
// by a second one.
// Returns 0 when the walk ended normally; 1 when inLogFolder does not exist
// or is not a folder, when a file's retries ended without an understood
// reply (a SIGTERM), or when a file is already being handled
// (activeStopFlag non-null). File-system errors are thrown as
// std::filesystem::filesystem_error.
int UploadLogFolder(const RunSettings& inRun, const std::string& inLogFolder);

#endif  // PORVANE_AGENT_UPLOADRUN_H
