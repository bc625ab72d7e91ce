// The one walk over a log folder, shared by the size limit and the upload
// run.
//
// A finished log file is a direct child of the folder that is not a folder
// itself (links are followed) and whose full path does not contain ".tmp"
// anywhere. Files still being written carry that marker; deliberately, a
// folder path that holds it makes every file in it count as unfinished, and
// "a.tmp.log" is unfinished too. Subfolders are never entered. Files come in
// the order the file system lists them, unsorted.
#ifndef PORVANE_SETTINGS_LOGFOLDERSCAN_H
#define PORVANE_SETTINGS_LOGFOLDERSCAN_H

#include <exception>
#include <filesystem>
#include <functional>
#include <string>

// Called for each finished file; returning false ends the walk.
using LogFileVisitor = std::function<bool(const std::filesystem::directory_entry&)>;
// Called with an entry and the exception that looking at it (its type) or
// visiting it raised.
using LogEntryErrorHandler = std::function<void(const std::filesystem::directory_entry&, const std::exception&)>;

// Visits the finished log files of inFolder in listing order. Returns false
// when inVisit ended the walk, true when the listing ran out.
// An exception of the standard family from one entry goes to inOnEntryError
// when one is given, and the walk goes on with the next entry; without one
// it passes on. The listing itself failing (opening the folder or reading
// the next entry) throws std::filesystem::filesystem_error.
bool ScanLogFolder(const std::string& inFolder, const LogFileVisitor& inVisit,
                   const LogEntryErrorHandler& inOnEntryError = nullptr);

#endif  // PORVANE_SETTINGS_LOGFOLDERSCAN_H
