#include "LogFolderLimit.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "LogFolderScan.h"

namespace fs = std::filesystem;

namespace {

// One unreadable entry does not spoil the listing: it is reported and skipped.
void ReportEntryFailure(const fs::directory_entry& inEntry, const std::exception& inError) {
  std::cout << inEntry.path().filename().native() << " " << inError.what() << "\n" << std::flush;
}

void ReportScanFailure(const std::exception& inError) { std::cout << inError.what() << "\n" << std::flush; }

bool IsFolder(const std::string& inFolder) {
  std::error_code ignored;
  return !inFolder.empty() && fs::is_directory(inFolder, ignored);
}

// Whole seconds, as the modification time of a file is usually told.
int64_t WriteTimeSeconds(const fs::path& inPath) {
  return std::chrono::floor<std::chrono::seconds>(fs::last_write_time(inPath).time_since_epoch()).count();
}

// True when the file was removed; a file already gone, an empty path or any
// error gives false, without a message.
bool RemoveSilently(const std::string& inPath) {
  try {
    return fs::remove(fs::path(inPath));
  } catch (const std::exception&) {
    return false;
  }
}

// The total size in bytes of the finished files; 0 when inFolder is not a
// folder; -1 when the listing fails.
double GetLogFolderSize(const std::string& inFolder) {
  if (!IsFolder(inFolder)) return 0;
  double total = 0;
  try {
    ScanLogFolder(
        inFolder,
        [&](const fs::directory_entry& inEntry) {
          total += static_cast<double>(fs::file_size(inEntry.path()));
          return true;
        },
        ReportEntryFailure);
  } catch (const std::exception& error) {
    ReportScanFailure(error);
    return -1;
  }
  return total;
}

// Removes the oldest finished file; true when one was removed.
bool DeleteOldestLogFile(const std::string& inFolder) {
  std::string sCandidate;
  int64_t candidateTime = 0;
  bool found = false;
  if (IsFolder(inFolder)) {
    try {
      ScanLogFolder(
          inFolder,
          [&](const fs::directory_entry& inEntry) {
            const int64_t writeTime = WriteTimeSeconds(inEntry.path());
            // Strictly older only: among equally old files the first met
            // stays the choice.
            if (!found || writeTime < candidateTime) {
              sCandidate = inEntry.path().native();
              candidateTime = writeTime;
              found = true;
            }
            return true;
          },
          ReportEntryFailure);
    } catch (const std::exception& error) {
      // A listing cut short still removes the oldest file seen so far.
      ReportScanFailure(error);
    }
  }
  return RemoveSilently(sCandidate);
}

// A finished file as one listing saw it.
struct LogFile {
  std::string sPath;
  double size;
  int64_t writeTime;
};

// Reads every finished file of the folder once, in listing order, with the
// same calls as GetLogFolderSize and DeleteOldestLogFile. Writes nothing:
// false as soon as anything would have been reported (an entry or the
// listing failing) or the folder is not one, and the caller then leaves the
// work to those two functions.
bool ScanSilently(const std::string& inFolder, std::vector<LogFile>& outFiles, double& outTotal) {
  if (!IsFolder(inFolder)) return false;
  outTotal = 0;
  try {
    ScanLogFolder(inFolder, [&](const fs::directory_entry& inEntry) {
      const fs::path& path = inEntry.path();
      const double size = static_cast<double>(fs::file_size(path));
      outFiles.push_back(LogFile{path.native(), size, WriteTimeSeconds(path)});
      // Summed in listing order, as GetLogFolderSize sums.
      outTotal += size;
      return true;
    });
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

// One file at a time, measuring the whole folder before every deletion.
bool TrimOneByOne(double inLimit, const std::string& inFolder) {
  for (;;) {
    const double total = GetLogFolderSize(inFolder);
    // Not "total <= limit": an unordered comparison (a NaN limit) ends the
    // loop as well, and so does the -1 of a failed listing.
    if (!(total > inLimit)) return true;
    if (!DeleteOldestLogFile(inFolder)) return false;
  }
}
// How the removal of a file that a listing showed went.
enum class Removal { kRemoved, kGone, kFailed };

Removal RemoveListed(const std::string& inPath) {
  std::error_code error;
  if (fs::remove(fs::path(inPath), error)) return Removal::kRemoved;
  return error ? Removal::kFailed : Removal::kGone;
}

// Deletes oldest first from one listing, until the sizes it removed bring
// the listed total to the limit. True when it removed what it set out to
// (the caller then measures again), false when a removal failed or there was
// nothing left to remove. A file that had gone by its turn ends it early.
//
// This is the one-by-one loop worked out from a single listing. Each of that
// loop's listings would differ from this one only by what others changed
// meanwhile: removing an entry does not reorder the rest of a listing, so
// without outside changes it would list these files minus those deleted, in
// the same order, with the same sizes and times; its choice, the oldest in
// whole seconds and the first listed among equals, is the front of this list
// sorted stably by seconds, and its measure the first total minus the sizes
// deleted (whole numbers, so the doubles stay exact). Outside changes are
// met as the loop would meet them at some moment of its run: a file that is
// gone at its turn is one the loop's next listing would not have shown, so
// the work goes back to measuring; files that arrive are counted by the
// listing that must confirm the end. A file that is there but cannot be
// removed ends the trim with false at once, as in the loop.
bool TrimFromOneListing(std::vector<LogFile>& ioFiles, double inTotal, double inLimit) {
  std::stable_sort(ioFiles.begin(), ioFiles.end(),
                   [](const LogFile& inA, const LogFile& inB) { return inA.writeTime < inB.writeTime; });
  double total = inTotal;
  bool removedAny = false;
  for (const LogFile& file : ioFiles) {
    if (!(total > inLimit)) break;
    switch (RemoveListed(file.sPath)) {
      case Removal::kFailed:
        return false;
      case Removal::kGone:
        return true;
      case Removal::kRemoved:
        removedAny = true;
        total -= file.size;
        break;
    }
  }
  // Over the limit with nothing listed to remove (a negative limit): the loop
  // would find no file to delete.
  return removedAny;
}

}  // namespace

bool EnforceLogFolderLimit(const std::string& inMaxTotalDirSize, const std::string& inLogFolder) {
  const double limit = std::atof(inMaxTotalDirSize.c_str());
  for (;;) {
    std::vector<LogFile> files;
    double total = 0;
    // Anything the quiet listing could not read must be reported once per
    // listing, as the one-by-one loop does; that loop then does the work.
    if (!ScanSilently(inLogFolder, files, total)) return TrimOneByOne(limit, inLogFolder);
    // Not "total <= limit": an unordered comparison ends the trim too.
    if (!(total > limit)) return true;
    if (!TrimFromOneListing(files, total, limit)) return false;
    // Measure again: after a file that had gone, and to confirm the end
    // against what arrived meanwhile.
  }
}
