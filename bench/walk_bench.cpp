// walk_bench: the time of one upload run over a folder of small log files,
// sent to the reference receiver on loopback.
//
//   walk_bench [files] [bytes per file]     (defaults: 1000 files of 2048 bytes)
//
// Prints one line: files, bytes, seconds, files per second. The receiver is
// the one of the build tree (bin/porvane-receiver); the log, spool and
// settings folders live in a private temporary folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ChildProcess.h"
#include "Diagnostics.h"
#include "PrivateHome.h"
#include "UploadRun.h"
#include "UsageStatus.h"

int main(int argc, char** argv) {
  const int files = argc > 1 ? std::atoi(argv[1]) : 1000;
  const size_t bytes = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 2048;

  PrivateHome home;
  const std::string sLogs = home / "logs";
  std::filesystem::create_directories(sLogs);
  const std::string sContent(bytes, 'x');
  // A handful of kinds, as several programs' logs would be.
  for (int i = 0; i < files; ++i) WriteFile(sLogs + "/k" + std::to_string(i % 8) + "_" + std::to_string(i) + ".log", sContent);

  ReceiverProcess receiver(home / "spool");
  const auto start = std::chrono::steady_clock::now();
  UsageStatusFile status(home / "UserSettings.cfg");
  const std::string receiverUrl = receiver.Url();
  const Diagnostics quiet(false);
  const int result = UploadLogFolder(RunSettings{status, receiverUrl, quiet}, sLogs);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const size_t received = receiver.Lines(static_cast<size_t>(files)).size();
  const bool emptied = std::filesystem::is_empty(sLogs);
  std::printf("files=%d bytes=%zu result=%d received=%zu emptied=%s seconds=%.3f files_per_second=%.0f\n", files,
              bytes, result, received, emptied ? "yes" : "no", seconds, files / seconds);
  return result == 0 && received == static_cast<size_t>(files) && emptied ? 0 : 1;
}
