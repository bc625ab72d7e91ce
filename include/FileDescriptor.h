// FileDescriptor: the one owner of a file descriptor; DirectoryStream: the
// one owner of a directory stream.
#ifndef PORVANE_INCLUDE_FILEDESCRIPTOR_H
#define PORVANE_INCLUDE_FILEDESCRIPTOR_H

#include <dirent.h>

#include <memory>

#include "PorvaneExport.h"

// Owns one descriptor (or none, -1) and closes it when it goes away. Movable,
// not copyable: exactly one object closes a descriptor.
class PORVANE_API FileDescriptor {
 public:
  explicit FileDescriptor(int inFd = -1) noexcept : mFd(inFd) {}
  ~FileDescriptor() { Close(); }
  FileDescriptor(FileDescriptor&& ioOther) noexcept : mFd(ioOther.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& ioOther) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int Get() const { return mFd; }
  bool IsOpen() const { return mFd >= 0; }

  // Gives the descriptor up without closing it; the object then holds none.
  int Release() noexcept;

  // Closes the descriptor now. Returns 0, or the errno of close(2). Not
  // retried on EINTR: on Linux the descriptor is gone either way. Closing an
  // object that holds none returns 0.
  int Close() noexcept;

 private:
  int mFd;
};

// Owns a directory stream, and with it the descriptor under it (fdopendir
// takes that over), and closes both when it goes away.
struct DirectoryStreamClose {
  void operator()(DIR* inDir) const noexcept { ::closedir(inDir); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryStreamClose>;

#endif  // PORVANE_INCLUDE_FILEDESCRIPTOR_H
