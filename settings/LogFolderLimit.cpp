#include "settings/LogFolderLimit.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>

#include "settings/Locations.h"

namespace fs = std::filesystem;

namespace {

// Files being written carry this marker anywhere in their path.
const char* const kUnfinishedMarker = ".tmp";

bool IsCountable(const fs::directory_entry& inEntry) {
  return !inEntry.is_directory() && inEntry.path().native().find(kUnfinishedMarker) == std::string::npos;
}

// One unreadable entry does not spoil the scan: it is reported and skipped.
void ReportEntryFailure(const fs::directory_entry& inEntry, const std::exception& inError) {
  std::cout << inEntry.path().filename().native() << " " << inError.what() << "\n" << std::flush;
}

void ReportScanFailure(const std::exception& inError) { std::cout << inError.what() << "\n" << std::flush; }

// The log folder when it can be located and is a folder.
bool FindLogFolder(fs::path& outFolder) {
  std::string sFolder;
  if (GetDefaultLogFolder(sFolder) != kLocationOk) return false;
  outFolder = sFolder;
  std::error_code ignored;
  return fs::is_directory(outFolder, ignored);
}

// Whole seconds, as the modification time of a file is usually told.
int64_t WriteTimeSeconds(const fs::directory_entry& inEntry) {
  return std::chrono::floor<std::chrono::seconds>(fs::last_write_time(inEntry.path()).time_since_epoch()).count();
}

}  // namespace

double GetLogFolderSize() {
  fs::path folder;
  if (!FindLogFolder(folder)) return 0;
  double total = 0;
  try {
    for (fs::directory_iterator entry(folder), end; entry != end; ++entry) {
      try {
        if (IsCountable(*entry)) total += static_cast<double>(fs::file_size(entry->path()));
      } catch (const std::exception& error) {
        ReportEntryFailure(*entry, error);
      }
    }
  } catch (const std::exception& error) {
    ReportScanFailure(error);
    return -1;
  }
  return total;
}

bool DeleteOldestLogFile() {
  std::string sCandidate;
  int64_t candidateTime = 0;
  unsigned candidates = 0;
  fs::path folder;
  if (FindLogFolder(folder)) {
    try {
      for (fs::directory_iterator entry(folder), end; entry != end; ++entry) {
        try {
          if (!IsCountable(*entry)) continue;
          const int64_t writeTime = WriteTimeSeconds(*entry);
          // Strictly older only: among equally old files the first met stays
          // the choice.
          if (candidates == 0 || writeTime < candidateTime) {
            sCandidate = entry->path().native();
            candidateTime = writeTime;
          }
          ++candidates;
        } catch (const std::exception& error) {
          ReportEntryFailure(*entry, error);
        }
      }
    } catch (const std::exception& error) {
      // A scan cut short still removes the oldest file seen so far.
      ReportScanFailure(error);
    }
  }
  try {
    return fs::remove(fs::path(sCandidate));
  } catch (const std::exception&) {
    return false;
  }
}

bool EnforceLogFolderLimit() {
  std::string sLimit;
  if (GetMaxTotalDirSize(sLimit) != kLocationOk) return false;
  const double limit = std::atof(sLimit.c_str());
  for (;;) {
    const double total = GetLogFolderSize();
    // Not "total <= limit": an unordered comparison (a NaN limit) ends the
    // loop as well, and so does the -1 of a failed scan.
    if (!(total > limit)) return true;
    if (!DeleteOldestLogFile()) return false;
  }
}
