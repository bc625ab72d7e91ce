#include "AgentMain.h"

#include <csignal>
#include <memory>
#include <string>

#include "CommandLineOptions.h"
#include "TerminateSignal.h"
#include "UploadRun.h"
#include "AgentLock.h"
#include "ResourceLocker.h"
#include "Locations.h"
#include "LogFolderLimit.h"
#include "SettingsFile.h"

const char* const kBuiltInReceiverUrl = "https://collect.tarvo.example/glowmark/FileDataCaptureServlet";

namespace {

// The receiver named by the installation settings, else the built-in one.
// Empty when the installation cannot be located: then there is no receiver
// at all, even though a built-in URL exists.
std::string ReceiverFromInstallation() {
  std::string executablePath, configPath, containerPath;
  if (GetInstallPaths(executablePath, configPath, containerPath) != 0) return std::string();
  SettingsFile settings;
  settings.Read(configPath);
  std::string receiverUrl = settings.GetValue("System", "UploadURL");
  if (receiverUrl.empty()) receiverUrl = kBuiltInReceiverUrl;
  return receiverUrl;
}

// Resolves the log folder and the receiver and runs the upload. The receiver
// option is consulted only when a log folder was found.
int ResolveAndUpload(const CommandLineOptions& inOptions) {
  std::string logFolder, receiverUrl;
  bool haveLogFolder = false;
  if (inOptions.HasOption("logDir")) {
    inOptions.GetOptionValue("logDir", logFolder);
    haveLogFolder = true;
  } else {
    std::string candidate;
    if (GetDefaultLogFolder(candidate) == 0) {
      logFolder = candidate;
      haveLogFolder = true;
    }
  }

  if (haveLogFolder && inOptions.HasOption("receiverURL")) {
    inOptions.GetOptionValue("receiverURL", receiverUrl);
  } else {
    receiverUrl = ReceiverFromInstallation();
  }

  if (!haveLogFolder || logFolder.empty() || receiverUrl.empty()) return 1;
  return UploadLogFolder(receiverUrl, logFolder) == 0 ? 0 : 1;
}

}  // namespace

int RunAgent(int argc, char** argv) {
  // From here on SIGTERM never ends the process by itself: it only asks the
  // upload in progress to stop.
  std::signal(SIGTERM, OnTerminateSignal);

  auto options = std::make_shared<CommandLineOptions>(argc, argv);
  const bool noLock = options->HasOption("noLock");
  qvd::ResourceLocker locker(kAgentLockName, kAgentLockTimeoutMs);

  if (!noLock && !locker.lock()) return 1;  // not taken: nothing to release

  EnforceLogFolderLimit();
  const int exitStatus = ResolveAndUpload(*options);

  if (!noLock) locker.unlock(false);
  return exitStatus;
}
