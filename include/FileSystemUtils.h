// Path and file helpers of the agent.
//
// Paths are byte strings in POSIX form with "/" as the only separator. None of
// these functions resolves ".", ".." or links, and none touches the current
// directory. Only wrong use (empty arguments, a folder that is its own parent)
// is caught, by assertions that abort. The implementation lives in
// source/posix/FileSystemUtilsPosix.cpp.
#ifndef PORVANE_INCLUDE_FILESYSTEMUTILS_H
#define PORVANE_INCLUDE_FILESYSTEMUTILS_H

#include <string>

namespace FileSystemUtils {

// "/".
const std::string& GetPathSeparator();
// '/'.
char GetPathSeparatorChar();

// The text before the last "/": "" when there is none, "/" when it is the
// first character ("/a" -> "/"), so a trailing "/" is cut off ("a/b/" -> "a/b").
std::string GetParentPath(const std::string& inPath);

// The text after the last "/": the whole path when there is none, "" when the
// path ends in "/".
std::string GetLeafName(const std::string& inPath);

// Joins sPath and sAppend with one "/": one leading "/" of sAppend is dropped
// (only one: "//y" keeps one), and "/" is added unless sPath ends in one.
// REQUIRES: both arguments non-empty (asserted).
std::string AppendPath(const std::string& sPath, const std::string& sAppend);

// True when something (file, folder, link target) exists at inPath.
bool PathExists(const std::string& inPath);

// Removes what is at inPath; true when nothing is left there.
// - nothing there: true;
// - a folder: the whole tree, read-only items included;
// - a file: removed only when the effective user may write it by its mode bits
//   (owner bit if the effective user owns it, else group bit if the effective
//   group is the file's group, else the other bit). There is deliberately no
//   exception for the superuser: a read-only log file stays where it is.
bool RemovePath(const std::string& inPath);

// Creates sDir with all missing parents, parents first; each new folder takes
// the mode, owner and group of its parent. True when the folder exists
// afterwards (an existing folder is success).
// REQUIRES: GetParentPath(sDir) != sDir (asserted; catches "/").
bool CreateDirectoryChain(const std::string& sDir);

}  // namespace FileSystemUtils

#endif  // PORVANE_INCLUDE_FILESYSTEMUTILS_H
