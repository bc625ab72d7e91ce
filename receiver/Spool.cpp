#include "Spool.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Assert.h"
#include "FileDescriptor.h"

namespace {

// Writes all of inData; returns 0 or errno.
int WriteAll(int inFd, std::string_view inData) {
  while (!inData.empty()) {
    ssize_t written = ::write(inFd, inData.data(), inData.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    inData.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

}  // namespace

Spool::Spool(std::string inFolder) : mFolder(std::move(inFolder)) {}

std::string Spool::StoredName(std::string_view inFileName) {
  size_t slash = inFileName.rfind('/');
  std::string_view leaf = slash == std::string_view::npos ? inFileName : inFileName.substr(slash + 1);
  if (leaf.empty() || leaf == "." || leaf == ".." || leaf.find('\0') != std::string_view::npos) return {};
  return std::string(leaf);
}

int Spool::Store(const std::string& inStoredName, std::string_view inContent) const {
  QVD_ASSERT(!inStoredName.empty() && StoredName(inStoredName) == inStoredName);
  // The temporary name starts with a dot and holds a random part, so it
  // meets no upload of the same moment.
  std::string temporary = mFolder + "/.incoming-XXXXXX";
  FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() < 0) return errno;
  int error = ::fchmod(file.Get(), 0644) == 0 ? 0 : errno;
  if (error == 0) error = WriteAll(file.Get(), inContent);
  int closeError = file.Close();
  if (error == 0) error = closeError;
  if (error == 0 && ::rename(temporary.c_str(), (mFolder + "/" + inStoredName).c_str()) != 0) error = errno;
  if (error != 0) ::unlink(temporary.c_str());
  return error;
}
