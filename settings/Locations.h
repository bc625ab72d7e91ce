// Where the agent's installation, logs and user settings are.
//
// Status codes: 0 success; 4 location not found; 5 the settings folder could
// not be created; 8 the log folder could not be created.
#ifndef PORVANE_SETTINGS_LOCATIONS_H
#define PORVANE_SETTINGS_LOCATIONS_H

#include <string>

enum LocationStatus {
  kLocationOk = 0,
  kLocationNotFound = 4,
  kSettingsFolderNotCreated = 5,
  kLogFolderNotCreated = 8,
};

// The installation: own install when the running executable is named
// "porvane" (container = prefix, executable = prefix + "/bin/porvane",
// config = prefix + "/share/porvane/Porvane.cfg"); otherwise inside a host
// (container = prefix + "/lib/" + host executable name, executable =
// container + "/porvane/bin/porvane", config = container +
// "/porvane/share/porvane/Porvane.cfg"). The prefix is the parent of the
// folder holding /proc/self/exe, which is read once. Returns 0, or 4 (the
// outputs untouched) when the running executable cannot be located.
int GetInstallPaths(std::string& outExecutablePath, std::string& outConfigPath,
                    std::string& outContainerPath);

// What the agent takes from the installation settings file (section
// "System").
struct InstallSettings {
  std::string maxTotalDirSize;  // "MaxTotalDirSize", or "500000" when missing or empty
  std::string uploadUrl;        // "UploadURL", "" when missing
};

// Reads the installation settings file at inConfigPath once. A file that
// cannot be read gives the defaults.
InstallSettings ReadInstallSettings(const std::string& inConfigPath);

// The user settings file ($XDG_DATA_HOME/Tarvo/Porvane/UserSettings.cfg) and
// the default log folder ($XDG_STATE_HOME/Logs/Tarvo/Porvane), creating their
// folders, each base folder ($XDG_STATE_HOME, $XDG_DATA_HOME or their
// defaults) with its parents too. In this order:
// - the base state folder is looked up; when it can be named and made, the
//   log folder below it is made: 0 and outLogFolder set, or 8 when it cannot
//   be made; a failed look-up leaves the status at 4;
// - then, whatever happened, the base data folder is looked up; when it can
//   be named and made, the settings folder below it is made: 0 and
//   outSettingsFilePath set, or 5 at once when it cannot be made; a failed
//   look-up leaves the status of the first step.
// Deliberately a failure with the log folder is masked when the settings
// folder is found (0 with outLogFolder untouched), and a base data folder
// that cannot be made still lets a found log folder give 0 (with
// outSettingsFilePath untouched).
int GetUserPaths(std::string& outSettingsFilePath, std::string& outLogFolder);

#endif  // PORVANE_SETTINGS_LOCATIONS_H
