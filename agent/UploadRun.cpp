#include "UploadRun.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "UsageStatus.h"
#include "Uploader.h"

namespace fs = std::filesystem;

namespace {

// Files being written carry this marker anywhere in their path.
const char* const kUnfinishedMarker = ".tmp";
// The characters that end the receiver's status word.
const char* const kWordEnd = " \t\n\r";
// While an uploader that returned early is still busy: one long sleep,
// which a delivered signal cuts short.
const unsigned kFinishWaitSeconds = 1000;

// Results after which the walk goes on to the next file.
bool WalkGoesOn(int inResult) {
  return inResult == UploadDone || inResult == UploadHibernating || inResult == UploadDisabled;
}

// The kind of log: the file name up to its first "_"; "" without a "/" in
// the path or a "_" in the name.
std::string SectionOf(const std::string& inFilePath) {
  const std::string::size_type slash = inFilePath.rfind('/');
  if (slash == std::string::npos) return std::string();
  const std::string sName = inFilePath.substr(slash + 1);
  const std::string::size_type underscore = sName.find('_');
  if (underscore == std::string::npos) return std::string();
  return sName.substr(0, underscore);
}

// Sleeps inSeconds one second at a time, leaving as soon as inStop is set.
void WaitSeconds(const StopFlag& inStop, int inSeconds) {
  for (int i = 0; i < inSeconds; ++i) {
    // A signal may cut the second short; the flag decides whether to go on.
    sleep(1);
    if (inStop.stopRequested.load()) return;
  }
}

// Handles an entry the walk has decided to upload. Returns the file's result,
// or -1 when another file is still being handled.
int HandleFile(const std::string& inReceiverUrl, const std::string& inFilePath) {
  // Never holds in one run; guards the handler's single pointer.
  if (activeStopFlag.load() != nullptr) return -1;
  auto flag = std::make_unique<StopFlag>();
  activeStopFlag.store(flag.get());
  const int result = UploadWithRetry(flag.get(), inReceiverUrl, inFilePath, kUploadAttempts, kFirstRetryDelayMs);
  activeStopFlag.store(nullptr);
  return result;
}

// A stored status other than Active: the file goes unsent, or stays when the
// status is not one the agent knows.
int HandleStoredStatus(const StopFlag& inStop, const std::string& inFilePath, unsigned inStatus) {
  if (inStatus == kUsageHibernate) {
    inStop.RemoveFile(inFilePath);
    return UploadHibernating;
  }
  if (inStatus == kUsageDisabled) {
    inStop.RemoveFile(inFilePath);
    return UploadDisabled;
  }
  return UploadFailed;
}

// Acts on the receiver's reply; removes the file for every understood word.
int HandleReply(const StopFlag& inStop, const std::string& inSection, const std::string& inFilePath,
                const std::string& inResponse) {
  const std::string sWord = inResponse.substr(0, inResponse.find_first_of(kWordEnd));
  int result = UploadFailed;
  if (sWord == "Disabled") {
    result = SetUsageStatus(inSection.c_str(), kUsageDisabled, 0) == 0 ? UploadDisabled : StatusNotSaved;
  } else if (sWord == "Hibernate") {
    // The days follow the first space; without one the whole reply is read,
    // which gives 0 days.
    const std::string::size_type space = inResponse.find(' ');
    const std::string sRest = space == std::string::npos ? inResponse : inResponse.substr(space + 1);
    const int days = std::atoi(sRest.c_str());
    result = SetUsageStatus(inSection.c_str(), kUsageHibernate, days) == 0 ? UploadHibernating : StatusNotSaved;
  } else if (sWord == "Active" || sWord == "Delete") {
    result = UploadDone;
  } else {
    return UploadFailed;
  }
  inStop.RemoveFile(inFilePath);
  return result;
}

}  // namespace

int32_t NextRetryDelay(int32_t inDelayMs) {
  // Unsigned arithmetic makes the wrap well-defined; the conversion back is
  // modular (two's complement), as the shift it replaces.
  return static_cast<int32_t>(static_cast<uint32_t>(inDelayMs) * 2u);
}

int UploadLogFolder(const std::string& inReceiverUrl, const std::string& inLogFolder) {
  const fs::path folder(inLogFolder);
  if (!fs::exists(folder) || !fs::is_directory(folder)) return UploadFailed;

  bool rescanned = false;
  fs::directory_iterator entry(folder);
  const fs::directory_iterator end;
  for (;;) {
    while (entry != end) {
      const std::string sPath = entry->path().native();
      bool handled = false;
      int result = UploadDone;
      if (!entry->is_directory() && sPath.find(kUnfinishedMarker) == std::string::npos) {
        handled = true;
        rescanned = false;
        result = HandleFile(inReceiverUrl, sPath);
      }
      ++entry;
      if (handled && !WalkGoesOn(result)) return UploadFailed;
    }
    // A pass that handled a file is followed by another, so files that came
    // in meanwhile are sent too; the run ends after a pass that handled none.
    if (rescanned) return UploadDone;
    entry = fs::directory_iterator(folder);
    if (entry == end) return UploadDone;
    rescanned = true;
  }
}

int UploadWithRetry(StopFlag* inStop, const std::string& inReceiverUrl, const std::string& inFilePath,
                    int inAttempts, int inInitialDelayMs) {
  // The count is only checked for being positive; it bounds nothing, so a
  // failing file is retried until an answer is understood or SIGTERM comes.
  if (inAttempts < 1) return UploadFailed;
  int result = UploadFailed;
  int32_t delay = inInitialDelayMs;
  while (!inStop->stopRequested.load()) {
    result = UploadOneFile(inStop, inReceiverUrl, inFilePath);
    if (WalkGoesOn(result)) return result;
    if (inStop->stopRequested.load()) return result;
    WaitSeconds(*inStop, delay / 1000);
    delay = NextRetryDelay(delay);
  }
  return result;
}

int UploadOneFile(StopFlag* inStop, const std::string& inReceiverUrl, const std::string& inFilePath) {
  const std::string sSection = SectionOf(inFilePath);
  // GetUsageStatus writes the status only on some paths; Active otherwise.
  unsigned status = kUsageActive;
  GetUsageStatus(sSection.c_str(), status);
  if (status != kUsageActive) return HandleStoredStatus(*inStop, inFilePath, status);

  std::unique_ptr<Uploader> uploader(CreateUploader());
  // A SIGTERM during the transfer ends it promptly instead of after it.
  uploader->SetStopFlag(&inStop->stopRequested);
  uploader->UploadFile(inFilePath, inReceiverUrl);
  // UploadFile blocks until the exchange ends; this serves uploaders that
  // return earlier.
  while (!uploader->IsFinished()) {
    sleep(kFinishWaitSeconds);
    if (inStop->stopRequested.load()) break;
  }
  const char* reply = uploader->GetReply();
  const std::string sResponse = reply != nullptr ? reply : "";
  return HandleReply(*inStop, sSection, inFilePath, sResponse);
}
