#include "UploadRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>

#include "Diagnostics.h"
#include "FileSystemUtils.h"
#include "LogFolderScan.h"
#include "LogKind.h"
#include "ReceiverReply.h"
#include "Uploader.h"
#include "UsageStatus.h"

namespace {

// What handling one file came to, for the walk.
enum class Outcome {
  kRemoved,     // accepted and removed, or removed unsent by its kind's status
  kPassedOver,  // kept for the next run; the walk goes on without it
  kNotRemoved,  // accepted or unwanted, but could not be removed: passed over, and the run returns 1
  kKept,        // kept after a failed attempt that a stop request ended, or an unknown stored status
};

// What the walk hands to UploadWithRetry for each file.
constexpr int kUploadAttempts = 10;
constexpr int kFirstRetryDelayMs = 60000;

// While an uploader that returned early is still busy: one long sleep,
// which a delivered signal cuts short.
const unsigned kFinishWaitSeconds = 1000;

bool Stopped(const RunSettings& inRun) { return inRun.stop.stopRequested.load(); }

// The kind of log: the status section of the file's name.
std::string SectionOf(const std::string& inFilePath) { return LogKindOf(FileSystemUtils::GetLeafName(inFilePath)); }

// The delay after inDelayMs: doubled in 32 bits without a cap. Unsigned
// arithmetic makes the wrap well-defined; the conversion back is modular
// (two's complement), as the shift it replaces.
int32_t NextRetryDelay(int32_t inDelayMs) { return static_cast<int32_t>(static_cast<uint32_t>(inDelayMs) * 2u); }

// True when inPath still names the file that was opened as inOpened, with
// nothing written to it or changed about it since.
bool StillTheOpenedFile(const std::string& inPath, const struct stat& inOpened) {
  struct stat now;
  if (::stat(inPath.c_str(), &now) != 0) return false;
  return now.st_dev == inOpened.st_dev && now.st_ino == inOpened.st_ino && now.st_size == inOpened.st_size &&
         now.st_mtim.tv_sec == inOpened.st_mtim.tv_sec && now.st_mtim.tv_nsec == inOpened.st_mtim.tv_nsec &&
         now.st_ctim.tv_sec == inOpened.st_ctim.tv_sec && now.st_ctim.tv_nsec == inOpened.st_ctim.tv_nsec;
}

// Removes a file the run is done with; never says "removed" when it was not.
Outcome Remove(const RunSettings& inRun, const std::string& inFilePath, const std::string& inNote) {
  errno = 0;
  if (FileSystemUtils::RemovePath(inFilePath)) {
    inRun.diagnostics.Say(inFilePath + " " + inNote + "; removed");
    return Outcome::kRemoved;
  }
  // RemovePath refuses a read-only file by its mode bits, without an errno.
  const std::string why = errno != 0 ? std::strerror(errno) : "read-only";
  inRun.diagnostics.Say(inFilePath + " " + inNote + "; could not be removed (" + why + "), kept until the next run");
  return Outcome::kNotRemoved;
}

// A stored status other than Active: the file goes unsent, or stays when the
// status is not one the agent knows.
Outcome HandleStoredStatus(const RunSettings& inRun, const std::string& inFilePath, unsigned inStatus) {
  if (inStatus == kUsageHibernate) return Remove(inRun, inFilePath, "its kind hibernates, not sent");
  if (inStatus == kUsageDisabled) return Remove(inRun, inFilePath, "its kind is disabled, not sent");
  inRun.diagnostics.Say(inFilePath + " stored status " + std::to_string(inStatus) + " unknown, not sent; kept");
  return Outcome::kKept;
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

// An accepted reply: stores the status it asks for, then removes the file
// if it is still the one that was sent.
Outcome Accept(const RunSettings& inRun, const std::string& inFilePath, const struct stat& inOpened,
               const ReceiverReply& inReply, const std::string& inNote) {
  const std::string sSection = SectionOf(inFilePath);
  if (inReply.word == ReplyWord::kDisabled) inRun.status.SetUsageStatus(sSection.c_str(), kUsageDisabled, 0);
  if (inReply.word == ReplyWord::kHibernate) inRun.status.SetUsageStatus(sSection.c_str(), kUsageHibernate, inReply.days);
  if (!StillTheOpenedFile(inFilePath, inOpened)) {
    inRun.diagnostics.Say(inFilePath + " " + inNote + "; changed while it was sent, kept for the next run");
    return Outcome::kPassedOver;
  }
  return Remove(inRun, inFilePath, inNote);
}

// Posts the open file until a reply is understood or a stop request comes.
// inAttempts < 1 gives up without an attempt; otherwise it bounds nothing:
// a failing file is retried until a reply is understood or the run stops.
Outcome UploadWithRetry(const RunSettings& inRun, const std::string& inFilePath, const UploadSource& inSource,
                        const struct stat& inOpened, int inAttempts, int inInitialDelayMs) {
  if (inAttempts < 1) return Outcome::kKept;
  int32_t delay = inInitialDelayMs;
  while (!Stopped(inRun)) {
    std::unique_ptr<Uploader> uploader = inRun.makeUploader();
    // A stop request during the transfer ends it within about a second.
    uploader->SetStopFlag(&inRun.stop.stopRequested);
    ExchangeNote exchange;
    uploader->SetObserver(&exchange);
    uploader->UploadFile(inSource, inRun.receiverUrl);
    // UploadFile blocks until the exchange ends; this serves uploaders that
    // return earlier.
    while (!uploader->IsFinished()) {
      sleep(kFinishWaitSeconds);
      if (Stopped(inRun)) break;
    }
    const char* text = uploader->GetReply();
    const ReceiverReply reply = InterpretReply(text != nullptr ? text : "");
    const std::string note = DescribeExchange(exchange.report, reply.text);
    if (exchange.report.fileShrank) {
      inRun.diagnostics.Say(inFilePath + " " + note + "; shrank while it was sent, kept for the next run");
      return Outcome::kPassedOver;
    }
    if (reply.word != ReplyWord::kUnknown) return Accept(inRun, inFilePath, inOpened, reply, note);
    if (Stopped(inRun)) {
      inRun.diagnostics.Say(inFilePath + " " + note + "; kept, stopped");
      return Outcome::kKept;
    }
    const int seconds = delay > 0 ? delay / 1000 : 0;
    inRun.diagnostics.Say(inFilePath + " " + note + "; kept, next try in " + std::to_string(seconds) + " s");
    inRun.wait(seconds, inRun.stop);
    delay = NextRetryDelay(delay);
  }
  inRun.diagnostics.Say(inFilePath + " kept, stopped while waiting");
  return Outcome::kKept;
}

// Handles one finished entry the walk has found.
Outcome HandleFile(const RunSettings& inRun, const std::string& inFilePath) {
  const std::string sSection = SectionOf(inFilePath);
  // GetUsageStatus writes the status only on some paths; Active otherwise.
  unsigned status = kUsageActive;
  inRun.status.GetUsageStatus(sSection.c_str(), status);
  // A kind that is not wanted goes whatever the entry is.
  if (status != kUsageActive) return HandleStoredStatus(inRun, inFilePath, status);

  struct stat opened;
  const FileDescriptor file = FileSystemUtils::OpenRegularFile(inFilePath, opened);
  if (!file.IsOpen()) {
    const std::string why = errno == EINVAL ? "not a regular file" : std::strerror(errno);
    inRun.diagnostics.Say(inFilePath + " cannot be sent (" + why + "), passed over");
    return Outcome::kPassedOver;
  }
  const UploadSource source{file.Get(), static_cast<uint64_t>(opened.st_size), FileSystemUtils::GetLeafName(inFilePath)};
  return UploadWithRetry(inRun, inFilePath, source, opened, kUploadAttempts, kFirstRetryDelayMs);
}

}  // namespace

std::unique_ptr<Uploader> RunSettings::MakeCurlUploader() { return std::unique_ptr<Uploader>(CreateUploader()); }

void RunSettings::SleepUnlessStopped(int inSeconds, const StopFlag& inStop) {
  for (int i = 0; i < inSeconds && !inStop.stopRequested.load(); ++i) {
    // A signal may cut the second short; the flag decides whether to go on.
    sleep(1);
  }
}

int UploadLogFolder(const RunSettings& inRun, const std::string& inLogFolder) {
  std::set<EntryId> passedOver;
  bool removalFailed = false;
  // The folder is walked again after every walk that handled a file, so
  // files that came in meanwhile are sent too; the run ends after a walk
  // that was itself a repeat and handled none.
  for (bool repeat = false;; repeat = true) {
    bool handled = false;
    int error = 0;
    const ScanEnd end = ScanLogFolder(
        inLogFolder,
        [&](const LogFolderEntry& inEntry) {
          if (Stopped(inRun)) return false;
          if (passedOver.count(inEntry.id) != 0) return true;
          switch (HandleFile(inRun, inEntry.path)) {
            case Outcome::kRemoved:
              handled = true;
              return true;
            case Outcome::kNotRemoved:
              removalFailed = true;
              passedOver.insert(inEntry.id);
              return true;
            case Outcome::kPassedOver:
              passedOver.insert(inEntry.id);
              return true;
            case Outcome::kKept:
              return false;
          }
          return false;
        },
        &error);
    if (end == ScanEnd::kCannotList) {
      inRun.diagnostics.Say("log folder " + inLogFolder + " cannot be listed (" + std::strerror(error) + ")");
      return 1;
    }
    if (end == ScanEnd::kStopped) return 1;
    if (repeat && !handled) return removalFailed ? 1 : 0;
    if (Stopped(inRun)) return 1;
  }
}
