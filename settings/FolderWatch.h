// Tells whether a folder's listing has gone stale: whether anything other
// than this process's own removals changed the folder's entries since the
// listing began. Linux inotify; where none can be had (a file system without
// it, a refused inotify_init, a full queue) every question answers "stale",
// which makes the caller list again.
#ifndef PORVANE_SETTINGS_FOLDERWATCH_H
#define PORVANE_SETTINGS_FOLDERWATCH_H

#include <map>
#include <string>

#include "FileDescriptor.h"

class FolderWatch {
 public:
  // Starts watching inFolder for entries made, removed, renamed, written or
  // retouched. Entries whose name contains inIgnoredMarker (".tmp": files
  // still being written) and subfolders do not count.
  FolderWatch(const std::string& inFolder, const char* inIgnoredMarker);
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Forgets every change so far: call just before listing.
  void StartListing();

  // Notes that this process removed inName, so its removal is no change.
  void RemovedByUs(const std::string& inName) { ++mOwnRemovals[inName]; }

  // True when the folder changed since StartListing in any way but the
  // removals noted, or changes cannot be told.
  bool Stale();

 private:
  // Reads every queued event; true when one of them is a change.
  bool DrainEvents(bool inCount);

  FileDescriptor mInotify;
  bool mWatching = false;
  const char* mIgnoredMarker;
  std::map<std::string, int> mOwnRemovals;
};

#endif  // PORVANE_SETTINGS_FOLDERWATCH_H
