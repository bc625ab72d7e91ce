#include "UploadRun.h"

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>

#include "Diagnostics.h"
#include "LogFolderScan.h"
#include "ReceiverReply.h"
#include "StopFlag.h"
#include "Uploader.h"
#include "UsageStatus.h"

namespace fs = std::filesystem;

namespace {

// Results of one attempt, and of the retries of one file.
constexpr int UploadDone = 0;         // "Active" or "Delete": file removed
constexpr int UploadFailed = 1;       // no answer, another word, or an unknown stored status: file kept
constexpr int UploadHibernating = 2;  // stored or newly stored Hibernate: file removed
constexpr int UploadDisabled = 3;     // stored or newly stored Disabled: file removed
constexpr int StatusNotSaved = 4;     // unused: a status that could not be stored still holds

// What the walk hands to UploadWithRetry for each file.
constexpr int kUploadAttempts = 10;
constexpr int kFirstRetryDelayMs = 60000;

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

// The delay after inDelayMs: doubled in 32 bits without a cap. Unsigned
// arithmetic makes the wrap well-defined; the conversion back is modular
// (two's complement), as the shift it replaces.
int32_t NextRetryDelay(int32_t inDelayMs) { return static_cast<int32_t>(static_cast<uint32_t>(inDelayMs) * 2u); }

// Sleeps inSeconds one second at a time, leaving as soon as inStop is set.
void WaitSeconds(const StopFlag& inStop, int inSeconds) {
  for (int i = 0; i < inSeconds; ++i) {
    // A signal may cut the second short; the flag decides whether to go on.
    sleep(1);
    if (inStop.stopRequested.load()) return;
  }
}

// A stored status other than Active: the file goes unsent, or stays when the
// status is not one the agent knows.
int HandleStoredStatus(const StopFlag& inStop, const std::string& inFilePath, unsigned inStatus,
                       std::string& outNote) {
  if (inStatus == kUsageHibernate) {
    outNote = "its kind hibernates, not sent";
    inStop.RemoveFile(inFilePath);
    return UploadHibernating;
  }
  if (inStatus == kUsageDisabled) {
    outNote = "its kind is disabled, not sent";
    inStop.RemoveFile(inFilePath);
    return UploadDisabled;
  }
  outNote = "stored status " + std::to_string(inStatus) + " unknown, not sent";
  return UploadFailed;
}

// Keeps the transport's account of the exchange for the attempt's line.
struct ExchangeNote : ExchangeObserver {
  void OnExchangeEnded(const ExchangeReport& inReport) override { report = inReport; }
  ExchangeReport report;
};

// "to URL: HTTP 200, error "...", reply "Active"".
std::string DescribeExchange(const ExchangeReport& inReport, const std::string& inWord) {
  std::string text = "to " + inReport.url + ": HTTP " + std::to_string(inReport.httpStatus);
  if (!inReport.error.empty()) text += ", error \"" + inReport.error + "\"";
  return text + ", reply \"" + inWord + "\"";
}

// Acts on the receiver's reply; removes the file for every understood word.
int HandleReply(const StopFlag& inStop, UsageStatusFile& inStatus, const std::string& inSection,
                const std::string& inFilePath, const ReceiverReply& reply) {
  int result = UploadFailed;
  switch (reply.word) {
    // A status that could not be stored still holds for the rest of the run
    // (the status file keeps it and reports the failure, which ends the run
    // with status 1), so the file goes and the walk goes on.
    case ReplyWord::kDisabled:
      inStatus.SetUsageStatus(inSection.c_str(), kUsageDisabled, 0);
      result = UploadDisabled;
      break;
    case ReplyWord::kHibernate:
      inStatus.SetUsageStatus(inSection.c_str(), kUsageHibernate, reply.days);
      result = UploadHibernating;
      break;
    case ReplyWord::kAccept:
      result = UploadDone;
      break;
    case ReplyWord::kUnknown:
      return UploadFailed;
  }
  inStop.RemoveFile(inFilePath);
  return result;
}

// One attempt for inFilePath; outNote says what happened, for diagnostics.
int UploadOneFile(StopFlag* inStop, UsageStatusFile& inStatus, const std::string& inReceiverUrl,
                  const std::string& inFilePath, std::string& outNote) {
  const std::string sSection = SectionOf(inFilePath);
  // GetUsageStatus writes the status only on some paths; Active otherwise.
  unsigned status = kUsageActive;
  inStatus.GetUsageStatus(sSection.c_str(), status);
  if (status != kUsageActive) return HandleStoredStatus(*inStop, inFilePath, status, outNote);

  std::unique_ptr<Uploader> uploader(CreateUploader());
  // A SIGTERM during the transfer ends it promptly instead of after it.
  uploader->SetStopFlag(&inStop->stopRequested);
  ExchangeNote exchange;
  uploader->SetObserver(&exchange);
  uploader->UploadFile(inFilePath, inReceiverUrl);
  // UploadFile blocks until the exchange ends; this serves uploaders that
  // return earlier.
  while (!uploader->IsFinished()) {
    sleep(kFinishWaitSeconds);
    if (inStop->stopRequested.load()) break;
  }
  const char* text = uploader->GetReply();
  const ReceiverReply reply = InterpretReply(text != nullptr ? text : "");
  outNote = DescribeExchange(exchange.report, reply.text);
  return HandleReply(*inStop, inStatus, sSection, inFilePath, reply);
}

// Attempts inFilePath until an attempt gives 0, 2 or 3, or inStop is set.
// inAttempts < 1 returns 1 without an attempt; otherwise it bounds nothing:
// a failing file is retried until an answer is understood or SIGTERM comes.
int UploadWithRetry(StopFlag* inStop, const RunSettings& inRun, const std::string& inFilePath, int inAttempts,
                    int inInitialDelayMs) {
  if (inAttempts < 1) return UploadFailed;
  int result = UploadFailed;
  int32_t delay = inInitialDelayMs;
  while (!inStop->stopRequested.load()) {
    std::string note;
    result = UploadOneFile(inStop, inRun.status, inRun.receiverUrl, inFilePath, note);
    if (WalkGoesOn(result) || inStop->stopRequested.load()) {
      inRun.diagnostics.Say(inFilePath + " " + note + (WalkGoesOn(result) ? "; removed" : "; kept, stopped"));
      return result;
    }
    const int seconds = delay / 1000;
    inRun.diagnostics.Say(inFilePath + " " + note + "; kept, next try in " +
                          std::to_string(seconds > 0 ? seconds : 0) + " s");
    WaitSeconds(*inStop, seconds);
    delay = NextRetryDelay(delay);
  }
  inRun.diagnostics.Say(inFilePath + " kept, stopped while waiting");
  return result;
}

// Publishes a file's stop flag to the SIGTERM handler for as long as the
// file is handled, and withdraws it on every way out, exceptions included,
// so the handler never stores through a flag that is gone.
class ActiveFile {
 public:
  explicit ActiveFile(StopFlag* inFlag) { activeStopFlag.store(inFlag); }
  ~ActiveFile() { activeStopFlag.store(nullptr); }
  ActiveFile(const ActiveFile&) = delete;
  ActiveFile& operator=(const ActiveFile&) = delete;
};

// Handles a file the walk has found. Returns the file's result, or -1 when
// another file is still being handled.
int HandleFile(const RunSettings& inRun, const std::string& inFilePath) {
  // Never holds in one run; guards the handler's single pointer.
  if (activeStopFlag.load() != nullptr) return -1;
  StopFlag flag;
  ActiveFile active(&flag);
  return UploadWithRetry(&flag, inRun, inFilePath, kUploadAttempts, kFirstRetryDelayMs);
}

}  // namespace

int UploadLogFolder(const RunSettings& inRun, const std::string& inLogFolder) {
  const fs::path folder(inLogFolder);
  if (!fs::exists(folder) || !fs::is_directory(folder)) return UploadFailed;

  // The folder is walked again after every walk that handled a file, so
  // files that came in meanwhile are sent too; the run ends after a walk
  // that was itself a repeat and handled none. (Nothing listed at all ends
  // it the same way.)
  bool repeat = false;
  for (;;) {
    bool handled = false;
    const bool completed = ScanLogFolder(inLogFolder, [&](const fs::directory_entry& inEntry) {
      handled = true;
      return WalkGoesOn(HandleFile(inRun, inEntry.path().native()));
    });
    if (!completed) return UploadFailed;
    if (repeat && !handled) return UploadDone;
    repeat = true;
  }
}
