#include "Locations.h"

#include <cstring>
#include <vector>

#include "FileSystemUtils.h"
#include "FolderFinder.h"
#include "SettingsFile.h"

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
  std::string executable;
  if (!GetMainExecutablePath(executable)) return kLocationNotFound;
  const std::string prefix = FileSystemUtils::GetParentPath(FileSystemUtils::GetParentPath(executable));
  const std::string executableName = FileSystemUtils::GetLeafName(executable);

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

InstallSettings ReadInstallSettings(const std::string& inConfigPath) {
  SettingsFile settings;
  settings.Read(inConfigPath);
  InstallSettings install;
  install.maxTotalDirSize = settings.GetValue("System", "MaxTotalDirSize");
  if (install.maxTotalDirSize.empty()) install.maxTotalDirSize = kDefaultMaxTotalDirSize;
  install.uploadUrl = settings.GetValue("System", "UploadURL");
  return install;
}

int GetUserPaths(std::string& outSettingsFilePath, std::string& outLogFolder) {
  int status = kLocationNotFound;

  // Each base folder is looked up with creation: one that cannot be made is
  // a failed look-up, which leaves the status as it was; only a subfolder
  // that cannot be made below a base that is there gives 8 or 5.
  std::string library;
  if (FindLibraryFolder(library, true)) {
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
  // here keeps the log folder's status, so the pass goes on without a place
  // to keep the user's status. Callers of old depend on both.
  std::string support;
  if (FindSpecialFolder(kUserApplicationSupport, support, true)) {
    const std::string settingsFolder = FileSystemUtils::AppendPath(support, kSettingsFolderPiece);
    if (!EnsureFolder(settingsFolder)) return kSettingsFolderNotCreated;
    outSettingsFilePath = settingsFolder + kSettingsFileName;
    status = kLocationOk;
  }
  return status;
}

int GetMaxTotalDirSize(std::string& outValue) {
  std::string executable, config, container;
  if (GetInstallPaths(executable, config, container) != kLocationOk) return kLocationNotFound;
  outValue = ReadInstallSettings(config).maxTotalDirSize;
  return kLocationOk;
}

extern "C" int GetDefaultLogFolder(char* ioBuffer, unsigned int* ioSize) {
  std::string settings, logFolder;
  const int status = GetUserPaths(settings, logFolder);
  if (status != kLocationOk) return status;
  const std::size_t needed = logFolder.size() + 1;
  if (needed > *ioSize) {
    *ioSize = static_cast<unsigned int>(needed);
    return kBufferTooSmall;
  }
  std::strncpy(ioBuffer, logFolder.c_str(), *ioSize);
  *ioSize = static_cast<unsigned int>(needed);
  return kLocationOk;
}

int GetDefaultLogFolder(std::string& outFolder) {
  unsigned int size = 1024;
  std::vector<char> buffer(size);
  int status = GetDefaultLogFolder(buffer.data(), &size);
  if (status == kBufferTooSmall) {
    buffer.assign(size, '\0');
    status = GetDefaultLogFolder(buffer.data(), &size);
  }
  if (status == kLocationOk) outFolder = buffer.data();
  return status;
}
