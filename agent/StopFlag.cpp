#include "StopFlag.h"

#include "FileSystemUtils.h"

std::atomic<StopFlag*> activeStopFlag{nullptr};

bool StopFlag::RemoveFile(const std::string& inPath) const {
  if (!FileSystemUtils::PathExists(inPath)) return false;
  return FileSystemUtils::RemovePath(inPath);
}
