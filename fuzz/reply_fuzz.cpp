// The upload run's reply handling, for real, over arbitrary reply bodies:
// UploadOneFile with the agent's status store and file removal, behind an
// in-memory uploader that hands the input over as the receiver's reply (one
// chunk of at most 16384 bytes, as the transport does). The outcome must
// follow the reply's first word exactly:
//   "Active", "Delete"  -> 0, file removed, status stays Active
//   "Disabled"          -> 3, file removed, status Disabled
//   "Hibernate"         -> 2, file removed, status Hibernate with a wake date
//                          today + atoi(text after the first space) days,
//                          held within the calendar's years 1400..9999
//   anything else       -> 1, file kept, status Active
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "UploadRun.h"
#include "FuzzScratch.h"
#include "Uploader.h"

namespace {

const uint8_t* gReply = nullptr;
size_t gReplySize = 0;

// Delivers the current input as the reply, in transport-sized chunks.
class ReplayUploader : public Uploader {
 public:
  ~ReplayUploader() override { Close(); }
  void Close() override {}
  bool UploadFile(const std::string&, const std::string&) override {
    m_inProgress = true;
    for (size_t done = 0; done < gReplySize;) {
      const size_t chunk = std::min<size_t>(gReplySize - done, 16384);
      AppendReply(gReply + done, static_cast<uint32_t>(chunk));
      done += chunk;
    }
    m_inProgress = false;
    m_finished = true;
    return true;
  }
};

std::string ExpectedWakeDate(int inDays) {
  using boost::gregorian::date;
  const date today = boost::gregorian::day_clock::local_day();
  const long long target = inDays;
  if (target > (date(9999, 12, 31) - today).days()) return "9999-Dec-31";
  if (target < (date(1400, 1, 1) - today).days()) return "1400-Jan-01";
  return boost::gregorian::to_simple_string(today + boost::gregorian::date_duration(inDays));
}

std::string SettingsPath() { return ScratchFolder() + "/data/Tarvo/Porvane/UserSettings.cfg"; }
std::string LogPath() { return ScratchFolder() + "/logs/k_1.log"; }

}  // namespace

Uploader* CreateUploader() { return new ReplayUploader(); }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string root = ScratchFolder();
  setenv("HOME", root.c_str(), 1);
  setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
  setenv("XDG_STATE_HOME", (root + "/state").c_str(), 1);
  std::filesystem::create_directories(root + "/logs");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  // Longer replies arrive in several chunks, of which only the first is
  // dependable; the receiver's answers are one short word.
  if (inSize > 16384) return 0;
  gReply = inData;
  gReplySize = inSize;
  std::filesystem::remove(SettingsPath());
  WriteWholeFile(LogPath(), "log");

  StopFlag stop;
  const int result = UploadOneFile(&stop, "http://127.0.0.1:9/upload", LogPath());

  // The reply is read as a C string: it ends at the first zero byte.
  const std::string response(reinterpret_cast<const char*>(inData), strnlen(reinterpret_cast<const char*>(inData), inSize));
  const std::string word = response.substr(0, response.find_first_of(" \t\n\r"));
  const bool kept = std::filesystem::exists(LogPath());
  const std::string settings = ReadWholeFile(SettingsPath());

  if (word == "Active" || word == "Delete") {
    FUZZ_CHECK(result == UploadDone && !kept);
    FUZZ_CHECK(settings == "[k]\nstatus=Active\n");
  } else if (word == "Disabled") {
    FUZZ_CHECK(result == UploadDisabled && !kept);
    FUZZ_CHECK(settings == "[k]\nstatus=Disabled\n");
  } else if (word == "Hibernate") {
    const size_t space = response.find(' ');
    const int days = std::atoi((space == std::string::npos ? response : response.substr(space + 1)).c_str());
    FUZZ_CHECK(result == UploadHibernating && !kept);
    FUZZ_CHECK(settings == "[k]\nhibernatewakedate=" + ExpectedWakeDate(days) + "\nstatus=Hibernate\n");
  } else {
    FUZZ_CHECK(result == UploadFailed && kept);
    FUZZ_CHECK(settings == "[k]\nstatus=Active\n");
  }
  return 0;
}
