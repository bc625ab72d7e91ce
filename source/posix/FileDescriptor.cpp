#include "FileDescriptor.h"

#include <unistd.h>

#include <cerrno>

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& ioOther) noexcept {
  if (this != &ioOther) {
    Close();
    mFd = ioOther.Release();
  }
  return *this;
}

int FileDescriptor::Release() noexcept {
  const int fd = mFd;
  mFd = -1;
  return fd;
}

int FileDescriptor::Close() noexcept {
  if (mFd < 0) return 0;
  const int result = ::close(mFd);
  mFd = -1;
  return result == 0 ? 0 : errno;
}
