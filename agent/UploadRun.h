// The upload run: every finished log file of a folder goes to the receiver,
// one at a time, and leaves the folder once the receiver has answered for it.
//
// Three layers: the folder walk (UploadLogFolder), the retries of one file
// (UploadWithRetry) and one attempt (UploadOneFile). Everything runs on the
// calling thread; the only other entry is the SIGTERM handler, which reaches
// the file being handled through activeStopFlag (agent/StopFlag.h).
#ifndef PORVANE_AGENT_UPLOADRUN_H
#define PORVANE_AGENT_UPLOADRUN_H

#include <cstdint>
#include <string>

#include "StopFlag.h"

// Results of one attempt, and of the retries of one file.
constexpr int UploadDone = 0;         // "Active" or "Delete": file removed
constexpr int UploadFailed = 1;       // no answer, another word, or an unknown stored status: file kept
constexpr int UploadHibernating = 2;  // stored or newly stored Hibernate: file removed
constexpr int UploadDisabled = 3;     // stored or newly stored Disabled: file removed
constexpr int StatusNotSaved = 4;     // new status could not be stored: file removed

// What the walk hands to UploadWithRetry for each file.
constexpr int kUploadAttempts = 10;
constexpr int kFirstRetryDelayMs = 60000;

// Sends the finished files of inLogFolder to inReceiverUrl. Entries come in
// the order the file system gives them. Folders are skipped (never entered),
// and so is every entry whose full path contains ".tmp" anywhere: files still
// being written carry that marker, and a folder path holding it makes all of
// its files count as unfinished. The folder is walked again as long as a pass
// handled a file, which also picks up files that arrive meanwhile; the first
// pass is always followed by a second one.
// Returns 0 when the walk ended normally; 1 when inLogFolder does not exist
// or is not a folder, when a file's retries ended with a result other than
// 0, 2 or 3 (a SIGTERM during a failing file's retries), or when a file is
// already being handled (activeStopFlag non-null).
// File-system errors are thrown as std::filesystem::filesystem_error.
int UploadLogFolder(const std::string& inReceiverUrl, const std::string& inLogFolder);

// Attempts inFilePath until an attempt gives 0, 2 or 3, or inStop is set.
// Between failed attempts it waits inInitialDelayMs / 1000 seconds, doubling
// the delay each time (NextRetryDelay); a negative delay gives no wait. The
// wait is made of one-second sleeps and ends early when inStop is set.
// inAttempts < 1 returns 1 without an attempt; otherwise it bounds nothing:
// a failing file is retried until SIGTERM. Returns the last attempt's result
// (1 when inStop was already set).
// REQUIRES: inStop is non-null and outlives the call.
int UploadWithRetry(StopFlag* inStop, const std::string& inReceiverUrl, const std::string& inFilePath,
                    int inAttempts, int inInitialDelayMs);

// One attempt for inFilePath. The file's kind (its name up to the first "_";
// empty when the path has no "/" or the name no "_") selects the stored usage
// status: Disabled or Hibernate remove the file unsent (3 or 2), an unknown
// status keeps it (1). When Active the file is posted to inReceiverUrl and
// the reply's first word (ended by ' ', '\t', '\n' or '\r') decides,
// case-sensitively: "Disabled" stores Disabled (3), "Hibernate" stores
// Hibernate for atoi(text after the first ' ') days (2), "Active" and
// "Delete" give 0; each of these removes the file. Anything else, no reply
// included, gives 1 and keeps the file. A failed store would give 4.
// inStop, when set during the transfer, ends it (giving 1).
// REQUIRES: inStop is non-null and outlives the call.
int UploadOneFile(StopFlag* inStop, const std::string& inReceiverUrl, const std::string& inFilePath);

// The delay after inDelayMs: doubled in 32 bits without a cap, wrapping like
// the two's-complement shift it is (60000 ms turns negative after 16
// doublings, and a negative delay means no wait).
int32_t NextRetryDelay(int32_t inDelayMs);

#endif  // PORVANE_AGENT_UPLOADRUN_H
