#include "ProcessTable.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <cstdlib>

#include "FileDescriptor.h"
#include "FileSystemUtils.h"

namespace {

// A /proc entry name that is a process id, else 0.
pid_t ProcessId(const char* inName) {
  char* end = nullptr;
  const long id = std::strtol(inName, &end, 10);
  return *inName >= '1' && *inName <= '9' && *end == '\0' && id > 0 ? static_cast<pid_t>(id) : 0;
}

}  // namespace

bool ForEachProcess(const std::function<bool(pid_t)>& inVisit) {
  const DirectoryStream proc(opendir("/proc"));
  if (!proc) return false;
  while (const dirent* entry = readdir(proc.get())) {
    const pid_t pid = ProcessId(entry->d_name);
    if (pid != 0 && !inVisit(pid)) break;
  }
  return true;
}

bool IdentifyFile(const std::string& inPath, FileIdentity& outIdentity) {
  struct stat info;
  if (stat(inPath.c_str(), &info) != 0) return false;
  outIdentity = FileIdentity{info.st_dev, info.st_ino};
  return true;
}

bool ProcessMaps(pid_t inPid, const FileIdentity& inIdentity) {
  std::string maps;
  if (FileSystemUtils::ReadWholeFile("/proc/" + std::to_string(inPid) + "/maps", maps) !=
      FileSystemUtils::ReadStatus::kComplete)
    return false;
  // Each line: address perms offset major:minor inode [path]. The path is no
  // help: a semaphore is mapped under the temporary name it was made with,
  // and a file may be renamed or removed while mapped.
  for (size_t start = 0; start < maps.size();) {
    size_t end = maps.find('\n', start);
    if (end == std::string::npos) end = maps.size();
    unsigned major = 0, minor = 0;
    unsigned long long inode = 0;
    if (std::sscanf(maps.c_str() + start, "%*s %*s %*s %x:%x %llu", &major, &minor, &inode) == 3 &&
        inode == inIdentity.inode && makedev(major, minor) == inIdentity.device)
      return true;
    start = end + 1;
  }
  return false;
}
