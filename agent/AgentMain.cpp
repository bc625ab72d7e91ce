#include "AgentMain.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "AgentLock.h"
#include "CommandLineOptions.h"
#include "Diagnostics.h"
#include "DirSizeLimit.h"
#include "Locations.h"
#include "LockSemaphoreName.h"
#include "LogFolderLimit.h"
#include "ResourceLocker.h"
#include "StopFlag.h"
#include "UploadRun.h"
#include "UsageStatus.h"

const char* const kBuiltInReceiverUrl = "https://collect.tarvo.example/glowmark/FileDataCaptureServlet";

namespace {

// Where this pass's files are, each looked up at most once and only when a
// step first needs it, after the lock is taken. The user's folders are made
// by that look-up; the trim needs them whatever "logDir" says.
class PassLocations {
 public:
  // Locates the installation and reads its settings file, once.
  PassLocations() {
    std::string executable, config, container;
    mInstallStatus = GetInstallPaths(executable, config, container);
    if (mInstallStatus == kLocationOk) mInstall = ReadInstallSettings(config);
  }

  // 0, or 4 when the running program cannot be located.
  int InstallStatus() const { return mInstallStatus; }
  // REQUIRES: InstallStatus() == 0.
  const InstallSettings& Install() const { return mInstall; }

  // GetUserPaths' answer, looked up on the first call.
  int UserStatus() { return User().status; }
  const std::string& SettingsFile() { return User().settingsFile; }
  const std::string& DefaultLogFolder() { return User().logFolder; }

 private:
  struct UserPaths {
    int status = kLocationNotFound;
    std::string settingsFile;
    std::string logFolder;
  };

  const UserPaths& User() {
    if (!mUser) {
      mUser.emplace();
      mUser->status = GetUserPaths(mUser->settingsFile, mUser->logFolder);
    }
    return *mUser;
  }

  int mInstallStatus = kLocationNotFound;
  InstallSettings mInstall;
  std::optional<UserPaths> mUser;
};

// Resolves the log folder and the receiver and runs the upload. The receiver
// option is consulted only when a log folder was found.
int ResolveAndUpload(const CommandLineOptions& inOptions, PassLocations& ioWhere, const Diagnostics& inSay,
                     const StopFlag& inStop) {
  std::string logFolder, receiverUrl;
  bool haveLogFolder = false;
  if (inOptions.HasOption("logDir")) {
    inOptions.GetOptionValue("logDir", logFolder);
    haveLogFolder = true;
  } else if (ioWhere.UserStatus() == kLocationOk) {
    // Status 0 with the folder untouched (it could not be made, the settings
    // folder could) gives an empty folder, which ends the pass below.
    logFolder = ioWhere.DefaultLogFolder();
    haveLogFolder = true;
  }

  if (haveLogFolder && inOptions.HasOption("receiverURL")) {
    inOptions.GetOptionValue("receiverURL", receiverUrl);
  } else if (ioWhere.InstallStatus() == kLocationOk) {
    // Without an installation there is no receiver at all, even though a
    // built-in URL exists.
    receiverUrl = ioWhere.Install().uploadUrl;
    if (receiverUrl.empty()) receiverUrl = kBuiltInReceiverUrl;
  }

  if (!haveLogFolder || logFolder.empty()) {
    inSay.Say("no log folder (user folders: status " + std::to_string(ioWhere.UserStatus()) + ")");
    return 1;
  }
  if (receiverUrl.empty()) {
    inSay.Say("no receiver (installation not found, no receiverURL)");
    return 1;
  }
  inSay.Say("log folder " + logFolder);
  UsageStatusFile status(ioWhere.SettingsFile());
  const int result = UploadLogFolder(RunSettings{status, receiverUrl, inSay, inStop}, logFolder);
  // The look-ups' own changes are stored now; any store of the run that
  // failed (already reported) makes the pass fail.
  status.Flush();
  return result == 0 && !status.AnyStoreFailed() ? 0 : 1;
}

// Trims the default log folder; without an installation there is no
// ceiling and nothing is trimmed.
void TrimDefaultFolder(PassLocations& ioWhere, const Diagnostics& inSay, const StopFlag& inStop) {
  if (ioWhere.InstallStatus() != kLocationOk) {
    inSay.Say("trim skipped: installation not found");
    return;
  }
  const std::string& limit = ioWhere.Install().maxTotalDirSize;
  double ceiling = 0;
  if (!ParseMaxTotalDirSize(limit, ceiling)) {
    // Read as atof would, a typo would be a ceiling of 0 and delete every
    // log: a ceiling that is no number trims nothing, and says so.
    const std::string line =
        "porvane: MaxTotalDirSize \"" + Diagnostics::Escape(limit) + "\" is not a number of bytes; the log folder is not trimmed\n";
    std::fputs(line.c_str(), stderr);
    return;
  }
  const std::string logFolder = ioWhere.UserStatus() == kLocationOk ? ioWhere.DefaultLogFolder() : std::string();
  TrimControl control;
  control.stop = &inStop.stopRequested;
  control.removed = [&](const std::string& inPath) { inSay.Say("trim removed " + inPath); };
  const bool fits = EnforceLogFolderLimit(ceiling, logFolder, control);
  inSay.Say("trim of " + (logFolder.empty() ? "(no default log folder)" : logFolder) + " to " + limit + " bytes: " +
            (fits ? "within the limit" : "over the limit"));
}

}  // namespace

int RunAgent(int argc, char** argv) {
  // From here on SIGTERM, SIGINT and SIGHUP never end the process by
  // themselves: they ask the pass to stop (StopFlag.h).
  StopFlag stop;
  StopPublisher publisher(stop);
  InstallStopHandlers();

  auto options = std::make_shared<CommandLineOptions>(argc, argv);
  const Diagnostics say = Diagnostics::FromEnvironment();
  const bool noLock = options->HasOption("noLock");
  qvd::ResourceLocker locker(kAgentLockName, kAgentLockTimeoutMs);
  locker.SetStopFlag(&stop.stopRequested);

  if (noLock) {
    say.Say("lock not used (noLock)");
  } else if (!locker.lock()) {
    if (stop.stopRequested.load()) {
      say.Say("stopped while waiting for the lock; pass ended with status 1");
    } else if (locker.lastError() == EEXIST) {
      say.Say("lock held by another agent; pass ended with status 1 (porvane-unlock --if-stale clears a dead one's)");
    } else {
      // No holder but a fault (a full or read-only /dev/shm): it stops every
      // pass of every user, so it is said whether asked for or not.
      const std::string line = "porvane: the lock " + qvd::LockSemaphoreFile(kAgentLockName) +
                               " cannot be made: " + std::strerror(locker.lastError()) + "; pass ended with status 1\n";
      std::fputs(line.c_str(), stderr);
    }
    return 1;  // not taken: nothing to release
  } else {
    say.Say("lock taken");
  }

  PassLocations where;
  // The trim always works on the default log folder, whatever "logDir" says.
  TrimDefaultFolder(where, say, stop);
  int exitStatus = 1;
  if (stop.stopRequested.load()) {
    say.Say("stopped during the trim");
  } else {
    exitStatus = ResolveAndUpload(*options, where, say, stop);
  }

  if (!noLock) locker.unlock(false);
  say.Say("pass ended with status " + std::to_string(exitStatus));
  return exitStatus;
}
