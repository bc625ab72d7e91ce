// Path and file helpers of the agent.
//
// Paths are byte strings in POSIX form with "/" as the only separator. None of
// these functions resolves ".", ".." or links, and none touches the current
// directory. Only wrong use (empty arguments, a folder that is its own parent)
// is caught, by assertions that abort. The implementation lives in
// source/posix/FileSystemUtilsPosix.cpp.
#ifndef PORVANE_INCLUDE_FILESYSTEMUTILS_H
#define PORVANE_INCLUDE_FILESYSTEMUTILS_H

#include <sys/stat.h>

#include <string>

#include "FileDescriptor.h"
#include "PorvaneExport.h"

namespace FileSystemUtils {

// "/".
PORVANE_API const std::string& GetPathSeparator();
// '/'.
PORVANE_API char GetPathSeparatorChar();

// The text before the last "/": "" when there is none, "/" when it is the
// first character ("/a" -> "/"), so a trailing "/" is cut off ("a/b/" -> "a/b").
PORVANE_API std::string GetParentPath(const std::string& inPath);

// The text after the last "/": the whole path when there is none, "" when the
// path ends in "/".
PORVANE_API std::string GetLeafName(const std::string& inPath);

// Joins sPath and sAppend with one "/": one leading "/" of sAppend is dropped
// (only one: "//y" keeps one), and "/" is added unless sPath ends in one.
// REQUIRES: both arguments non-empty (asserted).
PORVANE_API std::string AppendPath(const std::string& sPath, const std::string& sAppend);

// True when something (file, folder, link target) exists at inPath.
PORVANE_API bool PathExists(const std::string& inPath);

// Removes what is at inPath; true when nothing is left there.
// - nothing there: true;
// - a folder: the whole tree, read-only items included;
// - a file: removed only when the effective user may write it by its mode bits
//   (owner bit if the effective user owns it, else group bit if the effective
//   group is the file's group, else the other bit). There is deliberately no
//   exception for the superuser: a read-only log file stays where it is.
PORVANE_API bool RemovePath(const std::string& inPath);

// Creates sDir with all missing parents, parents first; each new folder takes
// the mode, owner and group of its parent. True when the folder exists
// afterwards (an existing folder is success).
// REQUIRES: GetParentPath(sDir) != sDir (asserted; catches "/").
PORVANE_API bool CreateDirectoryChain(const std::string& sDir);

// How ReadWholeFile went.
enum class ReadStatus {
  kComplete,    // every byte up to the end of the file
  kCannotOpen,  // nothing there, no permission, or not a regular file
  kReadError,   // opened, but a read failed: outContent holds what came before
};

// Opens the regular file at inPath (or what a link there points to) for
// reading, and fills outInfo with the fstat of that descriptor, taken before
// anything is read: the file's identity and length as opened. Returns a
// closed descriptor, with errno set, when nothing is there, it may not be
// read, or it is not a regular file (EINVAL for a folder, device, pipe or
// socket; ELOOP for a looping link). Never blocks on a pipe.
PORVANE_API FileDescriptor OpenRegularFile(const std::string& inPath, struct stat& outInfo);

// Reads the regular file at inPath (or what a link there points to) whole
// into outContent, which is replaced. Folders, devices, pipes and sockets
// cannot be opened this way, so a reader never blocks on them. Interrupted
// reads are resumed.
PORVANE_API ReadStatus ReadWholeFile(const std::string& inPath, std::string& outContent);

// Creates or truncates the file at inPath (mode 0666 less the umask) and
// writes inContent. True only when every byte was written and the file closed
// without error.
PORVANE_API bool WriteWholeFile(const std::string& inPath, const std::string& inContent);

// Replaces the file at inPath with inContent so that a reader, or a crash,
// finds either the old file whole or the new one whole, never a mix or a
// cut: the content goes to a new file in the same folder (".NAME.PID.N"),
// is flushed to disk, and is renamed over the old one; then the folder is
// flushed too. A link at inPath (or a chain of them) is followed and the
// file it points to is replaced, so the link stays. The new file keeps the
// old one's mode bits, and its owner and group where the effective user may
// give them; a file made where none was gets mode 0666 less the umask.
// Returns false with errno set, the old file untouched and no new file left
// behind, when:
// - the effective user may not write the old file by its mode bits (EACCES;
//   the same rule as RemovePath: no exception for the superuser);
// - something other than a regular file is there (EISDIR for a folder,
//   EINVAL otherwise), or the links loop (ELOOP);
// - the new file cannot be made, written, flushed or renamed (ENOSPC,
//   EROFS, EACCES, ...).
// REQUIRES: !inPath.empty() (asserted).
bool ReplaceWholeFile(const std::string& inPath, const std::string& inContent);

}  // namespace FileSystemUtils

#endif  // PORVANE_INCLUDE_FILESYSTEMUTILS_H
