// The one walk over a log folder, shared by the size limit and the upload
// run.
//
// A finished log entry is a direct child of the folder that is not a folder
// (links are followed) and whose full path does not contain ".tmp"
// anywhere. Files still being written carry that marker; deliberately, a
// folder path that holds it makes every entry in it count as unfinished, and
// "a.tmp.log" is unfinished too. Subfolders are never entered. Entries come in
// the order the file system lists them, unsorted.
//
// Nothing here throws: an entry that cannot be examined is handed over with
// the reason, and a folder that cannot be listed ends the walk with its
// errno.
#ifndef PORVANE_SETTINGS_LOGFOLDERSCAN_H
#define PORVANE_SETTINGS_LOGFOLDERSCAN_H

#include <sys/stat.h>

#include <functional>
#include <string>
#include <utility>

// What identifies an entry for the length of a run, whatever its name.
using EntryId = std::pair<dev_t, ino_t>;

// One finished entry as the listing saw it.
struct LogFolderEntry {
  std::string path;     // the folder, "/", the entry's name
  int statError = 0;    // 0 when info holds the entry's status, links followed; else the errno
  struct stat info {};  // valid when statError is 0
  EntryId id;           // of what the name leads to; of the name itself when that cannot be examined
  bool IsRegularFile() const { return statError == 0 && S_ISREG(info.st_mode); }
};

// Called for each finished entry; returning false ends the walk.
using LogEntryVisitor = std::function<bool(const LogFolderEntry&)>;

enum class ScanEnd {
  kListed,     // every entry was visited
  kStopped,    // the visitor ended the walk
  kCannotList  // the folder could not be opened or read (outErrno says why)
};

// Visits the finished entries of inFolder in listing order. On kCannotList,
// *outErrno (when given) holds the reason; entries visited before a read
// failure stay visited.
ScanEnd ScanLogFolder(const std::string& inFolder, const LogEntryVisitor& inVisit, int* outErrno = nullptr);

#endif  // PORVANE_SETTINGS_LOGFOLDERSCAN_H
