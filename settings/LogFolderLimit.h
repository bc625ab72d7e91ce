// Keeps the log folder under the size ceiling of the installation
// ("MaxTotalDirSize" in section "System", bytes, default "500000") by
// deleting its oldest files.
//
// Only finished log files (LogFolderScan.h) are counted and deleted.
// Diagnostics go to standard output in two forms:
//   "<leaf name> <what()>\n"  an entry that could not be read (skipped);
//   "<what()>\n"              the folder listing itself failed.
#ifndef PORVANE_SETTINGS_LOGFOLDERLIMIT_H
#define PORVANE_SETTINGS_LOGFOLDERLIMIT_H

#include <string>

// Deletes the oldest finished file of inLogFolder, one at a time, while the
// total size is greater than atof(inMaxTotalDirSize) (so a text that is no
// number gives 0 and every file goes). The oldest is the earliest
// modification time in whole seconds; among equally old files the one the
// listing gives first. An inLogFolder that is empty or not a folder counts
// as size 0.
// True when the folder ends at or below the ceiling (also when the sizes
// cannot be compared, e.g. after a failed listing, which measures -1);
// false when a deletion did not happen.
// The result is the measure-and-delete loop's (measure, delete the oldest,
// measure again), worked out from as few listings as it takes: one to
// measure and order the files, one more to confirm the end after deleting.
// A file that has gone by its turn (another process removed it) means
// measuring again; files that arrive meanwhile are counted by the confirming
// listing. When a listing meets an entry it cannot measure or date, or fails,
// the loop itself does the work, measuring before every deletion, so every
// listing reports what it could not read.
bool EnforceLogFolderLimit(const std::string& inMaxTotalDirSize, const std::string& inLogFolder);

#endif  // PORVANE_SETTINGS_LOGFOLDERLIMIT_H
