#include "FileSystemUtils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Assert.h"
#include "FileDescriptor.h"

namespace FileSystemUtils {

namespace {

bool RemoveEntry(int inParentFd, const char* inName);

// The names in inDir, "." and ".." left out. Taking the whole list before
// deleting keeps the walk independent of how the folder stream copes with
// entries vanishing under it. False on a read error.
bool ListFolder(DIR* inDir, std::vector<std::string>& outNames) {
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(inDir);
    if (entry == nullptr) return errno == 0;
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    outNames.emplace_back(entry->d_name);
  }
}

// Empties and removes the folder inName of inParentFd. A folder without
// owner read, write or search permission gets them first, so that read-only
// trees go as a whole; the first failure stops the walk.
bool RemoveFolder(int inParentFd, const char* inName, mode_t inMode) {
  if ((inMode & S_IRWXU) != S_IRWXU) ::fchmodat(inParentFd, inName, (inMode & 07777) | S_IRWXU, 0);
  FileDescriptor folderFd(::openat(inParentFd, inName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folderFd.IsOpen()) return false;
  DirectoryStream folder(::fdopendir(folderFd.Get()));
  if (!folder) return false;
  folderFd.Release();  // the folder stream owns it now
  std::vector<std::string> names;
  if (!ListFolder(folder.get(), names)) return false;
  for (const std::string& name : names) {
    if (!RemoveEntry(::dirfd(folder.get()), name.c_str())) return false;
  }
  return ::unlinkat(inParentFd, inName, AT_REMOVEDIR) == 0;
}

// Removes inName of inParentFd whatever it is; links are removed, never
// followed.
bool RemoveEntry(int inParentFd, const char* inName) {
  struct stat info;
  if (::fstatat(inParentFd, inName, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  if (S_ISDIR(info.st_mode)) return RemoveFolder(inParentFd, inName, info.st_mode);
  return ::unlinkat(inParentFd, inName, 0) == 0;
}

// Whether the effective user may write the file by its mode bits alone.
// Deliberately no exception for the superuser: a file made read-only stays
// even for root, as the agent has always treated it.
bool ModeAllowsWrite(const struct stat& inInfo) {
  if (inInfo.st_uid == ::geteuid()) return (inInfo.st_mode & S_IWUSR) != 0;
  if (inInfo.st_gid == ::getegid()) return (inInfo.st_mode & S_IWGRP) != 0;
  return (inInfo.st_mode & S_IWOTH) != 0;
}

// Writes all of inContent to inFd, resuming after a signal.
bool WriteAll(int inFd, const std::string& inContent) {
  size_t done = 0;
  while (done < inContent.size()) {
    const ssize_t count = ::write(inFd, inContent.data() + done, inContent.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(count);
  }
  return true;
}

// The path a chain of links at inPath ends at; the end need not exist. False
// (errno set) on a loop or an unreadable link.
bool FollowLinks(const std::string& inPath, std::string& outPath) {
  std::string sPath = inPath;
  for (int hops = 0; hops < 40; ++hops) {
    struct stat info;
    if (::lstat(sPath.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
      outPath = sPath;
      return true;
    }
    std::vector<char> target(static_cast<size_t>(info.st_size > 0 ? info.st_size : 255) + 2);
    const ssize_t length = ::readlink(sPath.c_str(), target.data(), target.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) >= target.size()) continue;  // grew meanwhile: read it again
    const std::string sTarget(target.data(), static_cast<size_t>(length));
    const std::string sParent = GetParentPath(sPath);
    sPath = sTarget[0] == '/' || sParent.empty() ? sTarget : AppendPath(sParent, sTarget);
  }
  errno = ELOOP;
  return false;
}

// Makes a new file beside inTarget for ReplaceWholeFile, mode 0666 less the
// umask (as a file made by WriteWholeFile); never opens one that was there.
FileDescriptor CreateSibling(const std::string& inTarget, std::string& outPath) {
  const std::string sParent = GetParentPath(inTarget);
  const std::string sStem = "." + GetLeafName(inTarget) + "." + std::to_string(::getpid()) + ".";
  for (int attempt = 0; attempt < 100; ++attempt) {
    outPath = sParent.empty() ? sStem + std::to_string(attempt) : AppendPath(sParent, sStem + std::to_string(attempt));
    FileDescriptor file(
        ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0666));
    if (file.IsOpen() || errno != EEXIST) return file;
  }
  return FileDescriptor();
}

// Fills and flushes the new file, then puts it in inTarget's place.
bool CommitSibling(FileDescriptor& ioFile, const std::string& inSibling, const std::string& inTarget,
                   const struct stat* inOld, const std::string& inContent) {
  if (inOld != nullptr) {
    if (::fchmod(ioFile.Get(), inOld->st_mode & 07777) != 0) return false;
    // Only the superuser may give a file away; anyone else keeps it as theirs.
    static_cast<void>(::fchown(ioFile.Get(), inOld->st_uid, inOld->st_gid) == 0);
  }
  if (!WriteAll(ioFile.Get(), inContent) || ::fsync(ioFile.Get()) != 0) return false;
  if (const int error = ioFile.Close(); error != 0) {
    errno = error;
    return false;
  }
  return ::rename(inSibling.c_str(), inTarget.c_str()) == 0;
}

}  // namespace

const std::string& GetPathSeparator() {
  static const std::string kSeparator = "/";
  return kSeparator;
}

char GetPathSeparatorChar() { return '/'; }

std::string GetParentPath(const std::string& inPath) {
  const size_t pos = inPath.rfind('/');
  if (pos == std::string::npos) return std::string();
  if (pos == 0) return "/";
  return inPath.substr(0, pos);
}

std::string GetLeafName(const std::string& inPath) {
  const size_t pos = inPath.rfind('/');
  if (pos == std::string::npos) return inPath;
  return inPath.substr(pos + 1);
}

std::string AppendPath(const std::string& sPath, const std::string& sAppend) {
  QVD_ASSERT(!sPath.empty());
  QVD_ASSERT(!sAppend.empty());
  const size_t skip = sAppend[0] == '/' ? 1 : 0;
  std::string sResult = sPath;
  if (sResult.back() != '/') sResult += '/';
  sResult.append(sAppend, skip, std::string::npos);
  return sResult;
}

bool PathExists(const std::string& inPath) {
  struct stat info;
  return ::stat(inPath.c_str(), &info) == 0;
}

bool RemovePath(const std::string& inPath) {
  struct stat info;
  // Nothing there (not even a dangling link) means there is nothing to do.
  if (::lstat(inPath.c_str(), &info) != 0) return true;
  if (S_ISDIR(info.st_mode)) return RemoveFolder(AT_FDCWD, inPath.c_str(), info.st_mode);

  // The mode check uses the object a link points to; a dangling link has no
  // mode to honour and is simply removed.
  struct stat target;
  if (::stat(inPath.c_str(), &target) == 0 && !ModeAllowsWrite(target)) return false;
  return std::remove(inPath.c_str()) == 0;
}

bool CreateDirectoryChain(const std::string& sDir) {
  const std::string parentPath = GetParentPath(sDir);
  QVD_ASSERT(parentPath != sDir);
  if (!PathExists(parentPath) && !CreateDirectoryChain(parentPath)) return false;

  struct stat parentInfo;
  if (::stat(parentPath.c_str(), &parentInfo) != 0) return false;

  if (::mkdir(sDir.c_str(), 0700) != 0) return errno == EEXIST;
  // A new folder is made like its parent: same mode (not filtered by the
  // umask), same owner and group, so folders made for another user's files
  // stay that user's.
  ::chmod(sDir.c_str(), parentInfo.st_mode & 07777);
  // Only the superuser may give a folder away; for anyone else the folder
  // simply stays theirs, which is no failure.
  static_cast<void>(::chown(sDir.c_str(), parentInfo.st_uid, parentInfo.st_gid) == 0);
  return true;
}

FileDescriptor OpenRegularFile(const std::string& inPath, struct stat& outInfo) {
  // O_NONBLOCK: opening a pipe must not wait for a writer; the type check
  // below turns it away anyway. Regular files ignore the flag.
  FileDescriptor file(::open(inPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.IsOpen()) return file;
  if (::fstat(file.Get(), &outInfo) != 0) return FileDescriptor();
  if (!S_ISREG(outInfo.st_mode)) {
    file.Close();
    errno = EINVAL;
  }
  return file;
}

ReadStatus ReadWholeFile(const std::string& inPath, std::string& outContent) {
  outContent.clear();
  struct stat info;
  FileDescriptor file = OpenRegularFile(inPath, info);
  if (!file.IsOpen()) return ReadStatus::kCannotOpen;
  if (info.st_size > 0) outContent.reserve(static_cast<size_t>(info.st_size));
  char block[65536];
  for (;;) {
    const ssize_t count = ::read(file.Get(), block, sizeof block);
    if (count > 0) {
      outContent.append(block, static_cast<size_t>(count));
    } else if (count == 0) {
      return ReadStatus::kComplete;
    } else if (errno != EINTR) {  // a signal (SIGTERM in the agent) is no failure
      return ReadStatus::kReadError;
    }
  }
}

bool WriteWholeFile(const std::string& inPath, const std::string& inContent) {
  FileDescriptor file(::open(inPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0666));
  if (!file.IsOpen()) return false;
  if (!WriteAll(file.Get(), inContent)) return false;
  return file.Close() == 0;
}

bool ReplaceWholeFile(const std::string& inPath, const std::string& inContent) {
  QVD_ASSERT(!inPath.empty());
  std::string sTarget;
  if (!FollowLinks(inPath, sTarget)) return false;
  struct stat old;
  const bool exists = ::stat(sTarget.c_str(), &old) == 0;
  if (!exists && errno != ENOENT) return false;
  if (exists && !S_ISREG(old.st_mode)) {
    errno = S_ISDIR(old.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  // A file made read-only stays as it is, as RemovePath leaves it.
  if (exists && !ModeAllowsWrite(old)) {
    errno = EACCES;
    return false;
  }
  std::string sSibling;
  FileDescriptor file = CreateSibling(sTarget, sSibling);
  if (!file.IsOpen()) return false;
  if (!CommitSibling(file, sSibling, sTarget, exists ? &old : nullptr, inContent)) {
    const int error = errno;
    ::unlink(sSibling.c_str());
    errno = error;
    return false;
  }
  // The rename is only durable once the folder is on disk too; the new file
  // is in place either way, so a failure here is no failure of the replace.
  const std::string sParent = GetParentPath(sTarget);
  FileDescriptor folder(::open(sParent.empty() ? "." : sParent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.IsOpen()) static_cast<void>(::fsync(folder.Get()) == 0);
  return true;
}

}  // namespace FileSystemUtils
