#include "Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Assert.h"

namespace {

// The temporary files start with this; no upload is stored under it.
constexpr std::string_view kIncomingPrefix = ".incoming-";

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

// Gives inFrom the name inTo unless inTo exists. Some file systems cannot
// rename without replacing; a hard link does the same there.
int RenameNoReplace(const std::string& inFrom, const std::string& inTo) {
  if (::renameat2(AT_FDCWD, inFrom.c_str(), AT_FDCWD, inTo.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  if (::link(inFrom.c_str(), inTo.c_str()) != 0) return errno;
  ::unlink(inFrom.c_str());
  return 0;
}

}  // namespace

Spool::Spool(std::string inFolder, unsigned long long inMaxBytes)
    : mFolder(std::move(inFolder)), mMaxBytes(inMaxBytes), mLastCount(std::chrono::steady_clock::now()) {
  if (mMaxBytes > 0) mStored = StoredBytes();
}

std::string Spool::StoredName(std::string_view inFileName) {
  size_t slash = inFileName.rfind('/');
  std::string_view leaf = slash == std::string_view::npos ? inFileName : inFileName.substr(slash + 1);
  if (leaf.empty() || leaf == "." || leaf == ".." || leaf.find('\0') != std::string_view::npos) return {};
  return std::string(leaf);
}

std::unique_ptr<Spool::Incoming> Spool::Open(int& outError) {
  std::string path = mFolder + "/" + std::string(kIncomingPrefix) + "XXXXXX";
  FileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file.IsOpen() || ::fchmod(file.Get(), 0644) != 0) {
    outError = errno;
    if (file.IsOpen()) ::unlink(path.c_str());
    return nullptr;
  }
  return std::unique_ptr<Incoming>(new Incoming(*this, std::move(path), std::move(file)));
}

int Spool::Place(Incoming& ioFile, const std::string& inStoredName, std::string& outName) {
  QVD_ASSERT(!inStoredName.empty() && StoredName(inStoredName) == inStoredName && !ioFile.mPath.empty());
  if (int error = ioFile.mFile.Close()) return error;
  int error = EEXIST;
  for (int copy = 0; copy <= kMaxCopies && error == EEXIST; ++copy) {
    outName = copy == 0 ? inStoredName : inStoredName + "." + std::to_string(copy);
    error = RenameNoReplace(ioFile.mPath, mFolder + "/" + outName);
  }
  if (error != 0) return error;
  ioFile.mPath.clear();
  Release(ioFile.mWritten, ioFile.mWritten);
  return 0;
}

bool Spool::Reserve(unsigned long long inBytes) {
  if (mMaxBytes == 0) return true;
  std::unique_lock<std::mutex> lock(mMutex);
  if (mStored + mReceiving + inBytes <= mMaxBytes) {
    mReceiving += inBytes;
    return true;
  }
  // Files may have been taken out of the folder since it was last counted.
  const auto now = std::chrono::steady_clock::now();
  if (now - mLastCount < std::chrono::seconds(1)) return false;
  mLastCount = now;
  lock.unlock();
  const unsigned long long stored = StoredBytes();
  lock.lock();
  mStored = stored;
  if (mStored + mReceiving + inBytes > mMaxBytes) return false;
  mReceiving += inBytes;
  return true;
}

void Spool::Release(unsigned long long inReceiving, unsigned long long inStored) {
  if (mMaxBytes == 0) return;
  std::lock_guard<std::mutex> lock(mMutex);
  mReceiving -= std::min(mReceiving, inReceiving);
  mStored += inStored;
}

unsigned long long Spool::StoredBytes() const {
  unsigned long long total = 0;
  DirectoryStream dir(::opendir(mFolder.c_str()));
  if (!dir) return 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    struct stat info {};
    if (std::string_view(entry->d_name).compare(0, kIncomingPrefix.size(), kIncomingPrefix) == 0) continue;
    if (::fstatat(::dirfd(dir.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
      total += static_cast<unsigned long long>(info.st_size);
  }
  return total;
}

Spool::Incoming::Incoming(Spool& inSpool, std::string inPath, FileDescriptor inFile)
    : mSpool(inSpool), mPath(std::move(inPath)), mFile(std::move(inFile)) {}

Spool::Incoming::~Incoming() {
  if (mPath.empty()) return;
  mFile.Close();
  ::unlink(mPath.c_str());
  mSpool.Release(mWritten, 0);
}

int Spool::Incoming::Write(std::string_view inData) {
  if (!mSpool.Reserve(inData.size())) return EDQUOT;
  if (int error = WriteAll(mFile.Get(), inData)) {
    mSpool.Release(inData.size(), 0);
    return error;
  }
  mWritten += inData.size();
  return 0;
}

int Spool::Incoming::DropTail(unsigned long long inCount) {
  QVD_ASSERT(inCount <= mWritten);
  if (::ftruncate(mFile.Get(), static_cast<off_t>(mWritten - inCount)) != 0) return errno;
  mWritten -= inCount;
  mSpool.Release(inCount, 0);
  return 0;
}
