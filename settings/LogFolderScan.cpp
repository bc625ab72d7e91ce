#include "LogFolderScan.h"

namespace fs = std::filesystem;

namespace {

const char* const kUnfinishedMarker = ".tmp";

bool IsFinishedLogFile(const fs::directory_entry& inEntry) {
  return !inEntry.is_directory() && inEntry.path().native().find(kUnfinishedMarker) == std::string::npos;
}

}  // namespace

bool ScanLogFolder(const std::string& inFolder, const LogFileVisitor& inVisit,
                   const LogEntryErrorHandler& inOnEntryError) {
  for (fs::directory_iterator entry{fs::path(inFolder)}, end; entry != end; ++entry) {
    try {
      if (IsFinishedLogFile(*entry) && !inVisit(*entry)) return false;
    } catch (const std::exception& error) {
      if (!inOnEntryError) throw;
      inOnEntryError(*entry, error);
    }
  }
  return true;
}
