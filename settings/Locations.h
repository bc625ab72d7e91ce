// Where the agent's installation, logs and user settings are.
//
// Status codes: 0 success; 4 location not found; 5 the settings folder could
// not be created; 7 the caller's buffer is too small; 8 the log folder could
// not be created.
//
// Hosts and installers call these too (libporvane): a host asks
// GetDefaultLogFolder where to write its logs.
#ifndef PORVANE_SETTINGS_LOCATIONS_H
#define PORVANE_SETTINGS_LOCATIONS_H

#include <string>

#include "DefaultLogFolder.h"
#include "PorvaneExport.h"

enum LocationStatus {
  kLocationOk = 0,
  kLocationNotFound = 4,
  kSettingsFolderNotCreated = 5,
  kBufferTooSmall = PORVANE_BUFFER_TOO_SMALL,
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
// Called from a host, this answers for an agent carried inside that host,
// not for the one installed system-wide.
PORVANE_API int GetInstallPaths(std::string& outExecutablePath, std::string& outConfigPath,
                    std::string& outContainerPath);

// What the agent takes from the installation settings file (section
// "System").
struct InstallSettings {
  std::string maxTotalDirSize;  // "MaxTotalDirSize", or "500000" when missing or empty
  std::string uploadUrl;        // "UploadURL", "" when missing
};

// Reads the installation settings file at inConfigPath once. A file that
// cannot be read gives the defaults.
PORVANE_API InstallSettings ReadInstallSettings(const std::string& inConfigPath);

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
PORVANE_API int GetUserPaths(std::string& outSettingsFilePath, std::string& outLogFolder);

// The installation's "MaxTotalDirSize" (section "System" of the settings
// file GetInstallPaths names), or "500000" when it is missing or empty: a
// decimal text, read as the trim reads it. Returns 0, or 4 with outValue
// untouched when GetInstallPaths fails.
PORVANE_API int GetMaxTotalDirSize(std::string& outValue);

// The default log folder as a string: the buffer form (DefaultLogFolder.h)
// with 1024 bytes first, and once more with the size it asks for when that
// was too small. Returns that form's status; outFolder is set only on 0.
PORVANE_API int GetDefaultLogFolder(std::string& outFolder);

#endif  // PORVANE_SETTINGS_LOCATIONS_H
