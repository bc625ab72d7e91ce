#include "LogFolderScan.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "FileDescriptor.h"

namespace {

const char* const kUnfinishedMarker = ".tmp";

bool IsUnfinished(const std::string& inText) { return inText.find(kUnfinishedMarker) != std::string::npos; }

// Fills the entry's status from the folder's descriptor, so a path too long
// to name from the root is still examined. False for a folder.
bool Examine(int inFolderFd, const char* inName, LogFolderEntry& ioEntry) {
  if (::fstatat(inFolderFd, inName, &ioEntry.info, 0) == 0) {
    ioEntry.statError = 0;
    ioEntry.id = {ioEntry.info.st_dev, ioEntry.info.st_ino};
    return !S_ISDIR(ioEntry.info.st_mode);
  }
  // A dangling or looping link, a name that went, a target it may not
  // examine: still an entry, known by the name's own identity.
  ioEntry.statError = errno;
  struct stat own;
  ioEntry.id = ::fstatat(inFolderFd, inName, &own, AT_SYMLINK_NOFOLLOW) == 0 ? EntryId{own.st_dev, own.st_ino}
                                                                              : EntryId{0, 0};
  return true;
}

}  // namespace

ScanEnd ScanLogFolder(const std::string& inFolder, const LogEntryVisitor& inVisit, int* outErrno) {
  int ignored = 0;
  int& error = outErrno != nullptr ? *outErrno : ignored;
  FileDescriptor folderFd(::open(inFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DirectoryStream folder(folderFd.IsOpen() ? ::fdopendir(folderFd.Get()) : nullptr);
  if (!folder) {
    error = errno;
    return ScanEnd::kCannotList;
  }
  folderFd.Release();  // the stream owns it now
  const bool allUnfinished = IsUnfinished(inFolder);
  const std::string prefix = !inFolder.empty() && inFolder.back() == '/' ? inFolder : inFolder + "/";
  LogFolderEntry entry;
  for (;;) {
    errno = 0;
    const dirent* item = ::readdir(folder.get());
    if (item == nullptr) {
      if (errno == 0) return ScanEnd::kListed;
      error = errno;
      return ScanEnd::kCannotList;
    }
    if (allUnfinished || std::strcmp(item->d_name, ".") == 0 || std::strcmp(item->d_name, "..") == 0 ||
        IsUnfinished(item->d_name)) {
      continue;
    }
    entry.path = prefix + item->d_name;
    if (!Examine(::dirfd(folder.get()), item->d_name, entry)) continue;
    if (!inVisit(entry)) return ScanEnd::kStopped;
  }
}
