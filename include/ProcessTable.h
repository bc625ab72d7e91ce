// The processes of the machine, as /proc shows them.
#ifndef PORVANE_INCLUDE_PROCESSTABLE_H
#define PORVANE_INCLUDE_PROCESSTABLE_H

#include <sys/types.h>

#include <functional>
#include <string>

#include "PorvaneExport.h"

// Calls inVisit with the id of every process in /proc, in the order /proc
// lists them, until it returns false. Processes come and go meanwhile: one
// that is gone by the time it is looked at is simply not found by what the
// visitor asks of it. Returns false when /proc cannot be read.
PORVANE_API bool ForEachProcess(const std::function<bool(pid_t)>& inVisit);

// The device and inode of a file-system object; what tells two paths (or a
// path and a mapping) to be the same object.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& inOther) const {
    return device == inOther.device && inode == inOther.inode;
  }
};

// The identity of what inPath names, links followed; false when it cannot be
// looked at.
PORVANE_API bool IdentifyFile(const std::string& inPath, FileIdentity& outIdentity);

// Whether process inPid has the object inIdentity mapped into its memory
// (/proc/PID/maps), under whatever name it was mapped. False when the
// process is gone or its map cannot be read.
PORVANE_API bool ProcessMaps(pid_t inPid, const FileIdentity& inIdentity);

#endif  // PORVANE_INCLUDE_PROCESSTABLE_H
