#include "LogFolderLimit.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <vector>

#include "FileSystemUtils.h"
#include "FolderWatch.h"
#include "LogFolderScan.h"

namespace {

// A file as one listing saw it.
struct LogFile {
  std::string path;
  double size;
  int64_t writeTime;  // whole seconds, as a modification time is usually told
};

// Every countable file of the folder, in listing order, and their total.
// False when the folder cannot be listed (reported).
bool ListCountable(const std::string& inFolder, std::vector<LogFile>& outFiles, double& outTotal) {
  outFiles.clear();
  outTotal = 0;
  int error = 0;
  const ScanEnd end = ScanLogFolder(
      inFolder,
      [&](const LogFolderEntry& inEntry) {
        if (inEntry.statError != 0) {
          std::cout << FileSystemUtils::GetLeafName(inEntry.path) << " " << std::strerror(inEntry.statError) << "\n"
                    << std::flush;
        } else if (inEntry.IsRegularFile()) {
          const double size = static_cast<double>(inEntry.info.st_size);
          outFiles.push_back(LogFile{inEntry.path, size, static_cast<int64_t>(inEntry.info.st_mtim.tv_sec)});
          outTotal += size;
        }
        return true;
      },
      &error);
  if (end == ScanEnd::kListed) return true;
  // No folder there holds nothing, and is no error.
  if (error != ENOENT && error != ENOTDIR) std::cout << inFolder << ": " << std::strerror(error) << "\n" << std::flush;
  return false;
}

enum class Pass { kFits, kMeasureAgain, kCannotDelete, kStopped };

// Deletes from one listing, oldest first, while the total is over the
// limit and the folder is known not to have changed since it was listed.
Pass DeleteFromListing(std::vector<LogFile>& ioFiles, double inTotal, double inLimit, FolderWatch& ioWatch,
                       const TrimControl& inControl) {
  std::stable_sort(ioFiles.begin(), ioFiles.end(),
                   [](const LogFile& inA, const LogFile& inB) { return inA.writeTime < inB.writeTime; });
  double total = inTotal;
  bool deleted = false;
  for (const LogFile& file : ioFiles) {
    // Not "total <= limit": an unordered comparison (a NaN limit) fits too.
    if (!(total > inLimit)) return Pass::kFits;
    // The first deletion follows the measure, as in the loop; each further
    // one only while the listing still holds.
    if (deleted && ioWatch.Stale()) return Pass::kMeasureAgain;
    if (::unlink(file.path.c_str()) != 0) return errno == ENOENT ? Pass::kMeasureAgain : Pass::kCannotDelete;
    ioWatch.RemovedByUs(FileSystemUtils::GetLeafName(file.path));
    deleted = true;
    total -= file.size;
    if (inControl.removed) inControl.removed(file.path);
    if (inControl.stop != nullptr && inControl.stop->load()) return total > inLimit ? Pass::kStopped : Pass::kFits;
  }
  if (!(total > inLimit)) return Pass::kFits;
  // Still over with nothing left: something may have arrived meanwhile.
  return deleted && ioWatch.Stale() ? Pass::kMeasureAgain : Pass::kCannotDelete;
}

}  // namespace

bool EnforceLogFolderLimit(double inLimit, const std::string& inLogFolder, const TrimControl& inControl) {
  if (inLogFolder.empty()) return true;
  FolderWatch watch(inLogFolder, ".tmp");
  std::vector<LogFile> files;
  for (;;) {
    watch.StartListing();
    double total = 0;
    if (!ListCountable(inLogFolder, files, total)) {
      // A missing folder, or a path that names no folder, holds nothing.
      return true;
    }
    switch (DeleteFromListing(files, total, inLimit, watch, inControl)) {
      case Pass::kFits:
        return true;
      case Pass::kMeasureAgain:
        break;
      case Pass::kCannotDelete:
      case Pass::kStopped:
        return false;
    }
  }
}
