#include "Locations.h"

#include <cstring>
#include <vector>

#include "SettingsFile.h"
#include "FileSystemUtils.h"
#include "FolderFinder.h"

namespace {

// The id of the per-user application support folder in FindSpecialFolder.
const int kUserApplicationSupport = 6;

const char* const kOwnExecutableName = "porvane";
const char* const kLogFolderPiece = "/Logs/Tarvo/Porvane";
const char* const kSettingsFolderPiece = "/Tarvo/Porvane";
const char* const kSettingsFileName = "/UserSettings.cfg";
const char* const kDefaultMaxTotalDirSize = "500000";

// True when inFolder is there or could be made with its parents.
bool EnsureFolder(const std::string& inFolder) {
  return FileSystemUtils::PathExists(inFolder) || FileSystemUtils::CreateDirectoryChain(inFolder);
}

}  // namespace

int GetInstallPaths(std::string& outExecutablePath, std::string& outConfigPath, std::string& outContainerPath) {
  std::string prefix;
  std::string executableName;
  if (!GetMainBundlePath(prefix) || !GetMainExecutableName(executableName)) return kLocationNotFound;

  // Running as the agent itself, its files lie in its own prefix; any other
  // program carries the agent in its private library folder.
  if (executableName == kOwnExecutableName) {
    outContainerPath = prefix;
    outExecutablePath = FileSystemUtils::AppendPath(prefix, "/bin/porvane");
    outConfigPath = FileSystemUtils::AppendPath(prefix, "/share/porvane/Porvane.cfg");
  } else {
    outContainerPath = FileSystemUtils::AppendPath(FileSystemUtils::AppendPath(prefix, "/lib"), executableName);
    outExecutablePath = FileSystemUtils::AppendPath(outContainerPath, "/porvane/bin/porvane");
    outConfigPath = FileSystemUtils::AppendPath(outContainerPath, "/porvane/share/porvane/Porvane.cfg");
  }
  return kLocationOk;
}

int GetMaxTotalDirSize(std::string& outValue) {
  std::string executable;
  std::string config;
  std::string container;
  if (GetInstallPaths(executable, config, container) != kLocationOk) return kLocationNotFound;

  SettingsFile settings;
  settings.Read(config);
  const std::string& value = settings.GetValue("System", "MaxTotalDirSize");
  outValue = value.empty() ? kDefaultMaxTotalDirSize : value;
  return kLocationOk;
}

int GetUserPaths(std::string& outSettingsFilePath, std::string& outLogFolder) {
  // The base folders are made as part of each chain, so a base folder that
  // cannot be made counts as a folder that cannot be created (8 or 5); 4 is
  // left for a base folder that cannot even be named (no home folder).
  int status = kLocationNotFound;

  std::string library;
  if (FindLibraryFolder(library, false)) {
    const std::string logFolder = FileSystemUtils::AppendPath(library, kLogFolderPiece);
    if (EnsureFolder(logFolder)) {
      outLogFolder = logFolder;
      status = kLocationOk;
    } else {
      status = kLogFolderNotCreated;
    }
  }

  // Looked up whatever happened above: a usable settings folder masks a log
  // folder failure (status 0, log folder untouched), and a failed look-up
  // here keeps the log folder's status. Callers of old depend on both.
  std::string support;
  if (FindSpecialFolder(kUserApplicationSupport, support, false)) {
    const std::string settingsFolder = FileSystemUtils::AppendPath(support, kSettingsFolderPiece);
    if (!EnsureFolder(settingsFolder)) return kSettingsFolderNotCreated;
    outSettingsFilePath = settingsFolder + kSettingsFileName;
    status = kLocationOk;
  }
  return status;
}

int GetDefaultLogFolder(char* ioBuffer, unsigned& ioSize) {
  std::string settingsFile;
  std::string logFolder;
  const int status = GetUserPaths(settingsFile, logFolder);
  if (status != kLocationOk) return status;

  const unsigned needed = static_cast<unsigned>(logFolder.size() + 1);
  const unsigned given = ioSize;
  ioSize = needed;
  if (needed > given) return kBufferTooSmall;
  std::strncpy(ioBuffer, logFolder.c_str(), given);
  return kLocationOk;
}

int GetDefaultLogFolder(std::string& outFolder) {
  unsigned size = 1024;
  std::vector<char> buffer(size);
  int status = GetDefaultLogFolder(buffer.data(), size);
  if (status == kBufferTooSmall) {
    buffer.assign(size, '\0');
    status = GetDefaultLogFolder(buffer.data(), size);
  }
  if (status == kLocationOk) outFolder = buffer.data();
  return status;
}
