// Keeps the log folder under the size ceiling of the installation
// ("MaxTotalDirSize" in section "System", bytes) by deleting its oldest
// files.
//
// Only regular files (links followed) among the finished entries
// (LogFolderScan.h) are counted and deleted, readable or not; pipes,
// sockets, devices and dangling links are neither. Diagnostics go to
// standard output in two forms:
//   "<leaf name> <reason>\n"  an entry that could not be examined (skipped);
//   "<reason>\n"              the folder could not be listed.
#ifndef PORVANE_SETTINGS_LOGFOLDERLIMIT_H
#define PORVANE_SETTINGS_LOGFOLDERLIMIT_H

#include <atomic>
#include <functional>
#include <string>

// What a caller may add to a trim.
struct TrimControl {
  // When set and true after a deletion, the trim ends there.
  const std::atomic<bool>* stop = nullptr;
  // Told the path of every file the trim removed, right after the removal.
  std::function<void(const std::string&)> removed;
};

// Leaves inLogFolder as the measure-and-delete loop would: measure the
// total, and while it is greater than inLimit delete the oldest file (the
// earliest modification time in whole seconds; among equally old files the
// one the listing gives first) and measure again.
//
// It lists once and deletes from that listing, oldest first, as long as the
// folder is known not to have changed meanwhile (FolderWatch: its own
// deletions do not count); a change, or a file gone by its turn, means
// measuring again. Where changes cannot be told it measures again after
// every deletion.
//
// True when the folder ends at or below the ceiling, also when it is empty,
// not a folder, or cannot be listed (reported); false when a file could not
// be deleted or nothing is left to delete while still over (a negative
// limit), or when inControl.stop ended it while still over.
bool EnforceLogFolderLimit(double inLimit, const std::string& inLogFolder, const TrimControl& inControl = {});

#endif  // PORVANE_SETTINGS_LOGFOLDERLIMIT_H
