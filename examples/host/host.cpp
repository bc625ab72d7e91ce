// An example host application: it writes one log file where Porvane looks for
// it and starts a pass to send it.
//
//   host NAME [TEXT]
//
// Writes TEXT (by default one line) to NAME.log.tmp in the default log
// folder, renames it to NAME.log once it is complete, and starts a pass:
// through the user's systemd manager when one answers, otherwise by launching
// the agent itself, detached. Says how the pass was started and exits 0;
// exits 1 when the file could not be written or no pass could be started.
//
// PORVANE_AGENT names the system-wide agent: `pkg-config --variable=agent
// porvane`, or ${Porvane_AGENT} after find_package(Porvane).
#include <porvane/Locations.h>
#include <porvane/SystemUtilsPosix.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#ifndef PORVANE_AGENT
#error "define PORVANE_AGENT as the path of the agent's program"
#endif

namespace {

// The agent leaves every path holding ".tmp" alone, so the file is written
// under that name and renamed in one step when it is whole.
bool WriteLog(const std::string& inFolder, const std::string& inName, const std::string& inText) {
  const std::string finished = inFolder + "/" + inName + ".log";
  const std::string unfinished = finished + ".tmp";
  std::ofstream out(unfinished, std::ios::binary | std::ios::trunc);
  out << inText;
  out.close();
  if (!out || std::rename(unfinished.c_str(), finished.c_str()) != 0) {
    std::remove(unfinished.c_str());
    return false;
  }
  return true;
}

// "--no-block": a pass whose receiver is down keeps retrying, and the host
// must not wait for it. Fails when no user manager answers or the unit is
// not installed.
bool StartThroughSystemd() {
  return std::system("systemctl --user start --no-block porvane.service >/dev/null 2>&1") == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: host NAME [TEXT]\n");
    return 2;
  }
  std::string folder;
  const int status = GetDefaultLogFolder(folder);
  if (status != 0 || folder.empty()) {
    std::fprintf(stderr, "host: no log folder (status %d)\n", status);
    return 1;
  }
  if (!WriteLog(folder, argv[1], argc == 3 ? argv[2] : "a line from the example host\n")) {
    std::fprintf(stderr, "host: could not write %s/%s.log\n", folder.c_str(), argv[1]);
    return 1;
  }
  std::printf("host: wrote %s/%s.log\n", folder.c_str(), argv[1]);

  if (StartThroughSystemd()) {
    std::printf("host: pass started by porvane.service\n");
  } else if (LaunchApplication(PORVANE_AGENT, {})) {
    std::printf("host: pass started by launching %s\n", PORVANE_AGENT);
  } else {
    std::fprintf(stderr, "host: no pass started\n");
    return 1;
  }
  return 0;
}
