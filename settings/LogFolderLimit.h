// Keeps the default log folder under the size ceiling of the installation
// ("MaxTotalDirSize" in section "System", bytes, default "500000") by
// deleting its oldest files.
//
// Only countable entries take part: direct children of the log folder that
// are not folders and whose path does not contain ".tmp" (files still being
// written). Diagnostics go to standard output in two forms:
//   "<leaf name> <what()>\n"  an entry that could not be read (skipped);
//   "<what()>\n"              the folder scan itself failed.
// No state is kept between calls; every call scans the folder again.
#ifndef PORVANE_SETTINGS_LOGFOLDERLIMIT_H
#define PORVANE_SETTINGS_LOGFOLDERLIMIT_H

// Deletes the oldest countable file, one at a time, while the total size is
// greater than the ceiling (read with atof, so a text that is no number gives
// 0 and every countable file goes). True when the folder ends at or below the
// ceiling (also when the size cannot be compared, e.g. after a failed scan);
// false when the ceiling could not be read or a deletion did not happen.
// The folder is read once and the files go in the order DeleteOldestLogFile
// would pick them. When that read meets an entry it cannot measure or date,
// or the scan itself fails, the work falls to GetLogFolderSize and
// DeleteOldestLogFile in turn, measuring before every deletion, so every
// scan reports what it could not read.
// Meant to run while no other process removes files of the folder (the
// agent holds the upload lock): a file that vanishes between that read and
// its deletion ends the trim with false.
bool EnforceLogFolderLimit();

// The total size in bytes of the countable files; 0 when the log folder
// cannot be located or is not a folder; -1 when the folder scan fails.
double GetLogFolderSize();

// Removes the countable file with the oldest modification time, counted in
// whole seconds; among equally old files the one the directory listing gives
// first goes. True when a file was removed; false when there was none or the
// removal failed (silently).
bool DeleteOldestLogFile();

#endif  // PORVANE_SETTINGS_LOGFOLDERLIMIT_H
