#include "SystemUtilsPosix.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "Assert.h"
#include "DetachedProcess.h"
#include "FileDescriptor.h"
#include "FileSystemUtils.h"
#include "FolderFinder.h"
#include "FormatString.h"
#include "LoginWindowPList.h"
#include "MD5Hash.h"
#include "ProcessTable.h"
#include "Utf8Text.h"

namespace {

const int kStartupItemsFolderId = 0;

// True when system() ran the command and it exited with status 0.
bool RunShell(const std::string& inCommand) {
  const int status = std::system(inCommand.c_str());
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool IsUsableURL(const std::string& inURL) {
  if (inURL.empty() || inURL[0] == '-' || !IsValidUtf8(inURL)) return false;
  for (char c : inURL) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F) return false;
  }
  return true;
}

// The marker's file name: the lowercase hexadecimal MD5 of the name, keeping
// only "0".."9" and "A".."z" (ASCII order, so a few punctuation marks pass
// too). Hexadecimal digits always pass; the filter guards the file name
// should the digest text ever change form.
std::string MarkerFileName(const std::string& inString) {
  std::string sName;
  for (char c : MD5HexDigest(inString)) {
    if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'z')) sName += c;
  }
  return sName;
}

// Whether inFolder is a folder (not a link) of the effective user that no
// one else may enter or change.
bool IsPrivateFolder(const std::string& inFolder) {
  struct stat info;
  return ::lstat(inFolder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
         (info.st_mode & 077) == 0;
}

// inFolder made with mode 0700 when missing; true when it is then private.
bool MakePrivateFolder(const std::string& inFolder) {
  if (::mkdir(inFolder.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return IsPrivateFolder(inFolder);
}

// The marker's path for inName, creating its folders when missing; false
// when the folder cannot be found, made, or trusted.
//
// In a folder of the user's own that others may not change (as
// $XDG_RUNTIME_DIR is), the marker's folders are "Tarvo/Kestrane/
// RebootCheck", each made like its parent. In a shared one (/tmp, when there
// is no $XDG_RUNTIME_DIR) those names would be world-writable folders anyone
// could fill or replace, so the marker lives in "porvane-UID/RebootCheck",
// both mode 0700 and the user's own, or nowhere.
bool GetRestartMarkerPath(const std::string& inName, std::string& outPath) {
  const std::string sName = MarkerFileName(inName);
  std::string sBase;
  if (!FindSpecialFolder(kStartupItemsFolderId, sBase, true)) return false;
  struct stat base;
  if (::stat(sBase.c_str(), &base) != 0) return false;
  std::string sFolder;
  if (base.st_uid == ::geteuid() && (base.st_mode & 022) == 0) {
    sFolder = FileSystemUtils::AppendPath(sBase, "Tarvo");
    sFolder = FileSystemUtils::AppendPath(sFolder, "Kestrane");
    sFolder = FileSystemUtils::AppendPath(sFolder, "RebootCheck");
    if (!FileSystemUtils::PathExists(sFolder) && !FileSystemUtils::CreateDirectoryChain(sFolder)) return false;
  } else {
    const std::string sOwn = FileSystemUtils::AppendPath(sBase, "porvane-" + std::to_string(::geteuid()));
    sFolder = FileSystemUtils::AppendPath(sOwn, "RebootCheck");
    if (!MakePrivateFolder(sOwn) || !MakePrivateFolder(sFolder)) return false;
  }
  outPath = FileSystemUtils::AppendPath(sFolder, sName);
  return true;
}

struct EventLoopUnref {
  void operator()(sd_event* inLoop) const { sd_event_unref(inLoop); }
};
using EventLoopOwner = std::unique_ptr<sd_event, EventLoopUnref>;

// RunEventLoopFor's timer: from now on every second, but it ends the loop at
// once.
int OnLoopTimer(sd_event_source* inTimer, uint64_t, void*) {
  sd_event_source_set_time_relative(inTimer, 1000000);
  sd_event_source_set_enabled(inTimer, SD_EVENT_ON);
  return sd_event_exit(sd_event_source_get_event(inTimer), 0);
}

// Owners for the sd-bus handles of RequestRestart.
struct BusClose {
  void operator()(sd_bus* inBus) const { sd_bus_flush_close_unref(inBus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* inMessage) const { sd_bus_message_unref(inMessage); }
};
using BusOwner = std::unique_ptr<sd_bus, BusClose>;
using MessageOwner = std::unique_ptr<sd_bus_message, MessageUnref>;

class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&mError); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error* Get() { return &mError; }

 private:
  sd_bus_error mError = SD_BUS_ERROR_NULL;
};

// Builds Reboot(interactive = true) for logind; a negative errno on failure.
int NewRebootCall(sd_bus* inBus, MessageOwner& outMessage) {
  sd_bus_message* message = nullptr;
  int result = sd_bus_message_new_method_call(inBus, &message, "org.freedesktop.login1", "/org/freedesktop/login1",
                                              "org.freedesktop.login1.Manager", "Reboot");
  outMessage.reset(message);
  if (result < 0) return result;
  // Interactive: polkit may ask the user to confirm, as the desktop's own
  // restart does.
  result = sd_bus_message_set_allow_interactive_authorization(message, 1);
  if (result < 0) return result;
  return sd_bus_message_append(message, "b", 1);
}

}  // namespace

std::string GetPlatformName() { return "Linux"; }

bool GetPlatformShortName(std::string& outName) {
  outName = "linux";
  return true;
}

bool SetEnvironmentVariable(const std::string& inName, const std::string& inValue) {
  return ::setenv(inName.c_str(), inValue.c_str(), 1) == 0;
}

bool GetEnvironmentVariable(const std::string& inName, std::string& outValue) {
  const char* value = std::getenv(inName.c_str());
  if (value == nullptr) return false;
  outValue = value;
  return true;
}

bool OpenURL(const std::string& inURL) {
  if (!IsUsableURL(inURL)) return false;
  // xdg-open hands the URL to the desktop's handler and exits; its status
  // says whether the handing over worked.
  return RunProgram({"xdg-open", inURL}, true) == 0;
}

bool FindProcessByBundleLocation(const std::string& inBundlePath, pid_t& outPid) {
  FileIdentity bundle;
  if (!IdentifyFile(inBundlePath, bundle)) return false;
  bool found = false;
  ForEachProcess([&](pid_t inPid) {
    FileIdentity executable;
    found = IdentifyFile("/proc/" + std::to_string(inPid) + "/exe", executable) && executable == bundle;
    if (found) outPid = inPid;
    return !found;
  });
  return found;
}

bool RunEventLoopFor(double inSeconds) {
  sd_event* loop = nullptr;
  if (sd_event_new(&loop) < 0) return false;
  const EventLoopOwner loopOwner(loop);
  // Held below a bound that keeps the microseconds, and now plus them, in 64 bits.
  const double seconds = inSeconds > 0 ? std::min(inSeconds, 1e13) : 0;
  const uint64_t delay = static_cast<uint64_t>(seconds * 1e6);
  sd_event_source* timer = nullptr;
  // Accuracy 1 µs: the default would let the timer fire up to 250 ms late.
  if (sd_event_add_time_relative(loop, &timer, CLOCK_MONOTONIC, delay, 1, OnLoopTimer, nullptr) < 0) return false;
  const int result = sd_event_loop(loop);
  sd_event_source_disable_unref(timer);
  return result >= 0;
}

bool AddToLoginItems(const std::string& inAppPath, const std::vector<std::string>& inParams, bool inAllUsers) {
  QVD_ASSERT(inParams.empty());
  QVD_ASSERT(false == inAllUsers);
  return AddLoginItem(inAppPath);
}

bool RemoveFromLoginItems(const std::string& inAppPath, bool inAllUsers) {
  if (inAllUsers) return false;
  if (!RemoveLoginItem(inAppPath)) return false;
  // An application that is no longer a login item has no restart pending.
  std::string sMarker;
  if (!GetRestartMarkerPath(inAppPath, sMarker)) return false;
  if (!FileSystemUtils::PathExists(sMarker)) return true;
  return FileSystemUtils::RemovePath(sMarker);
}

bool LaunchApplication(const std::string& inPath, const EnvironmentPairs& inEnvironment) {
  for (const auto& pair : inEnvironment) ::setenv(pair.first.c_str(), pair.second.c_str(), 1);
  if (!FileSystemUtils::PathExists(inPath)) return RunShell(inPath);
  if (StartDetached({inPath}, false)) return true;
  // The program could not be executed directly (no permission, no "#!"
  // line, a folder): leave it to the shell, in the background.
  if (!FileSystemUtils::PathExists(inPath)) return false;
  return RunShell(BuildShellLaunchCommand(inPath));
}

std::string BuildShellLaunchCommand(const std::string& inPath) {
  std::string sCommand = inPath;
  // The bound is the original length on purpose; see the header.
  const std::size_t length = inPath.size();
  for (std::size_t i = 0; i < length; ++i) {
    if (sCommand[i] == '\'') {
      sCommand.insert(i, "'\\'");
      i += 3;  // past the insertion; the loop steps past the quote
    }
  }
  return "'" + sCommand + "' &";
}

bool RequestRestart() {
  sd_bus* bus = nullptr;
  int result = sd_bus_open_system(&bus);
  BusOwner busOwner(bus);
  if (result < 0) {
    std::fprintf(stderr, "Error in AECreateDesc: %d\n", result);
    return false;
  }
  MessageOwner call;
  result = NewRebootCall(bus, call);
  if (result < 0) {
    std::fprintf(stderr, "Error in AECreateAppleEvent: %d\n", result);
    return false;
  }
  BusError error;
  sd_bus_message* reply = nullptr;
  result = sd_bus_call(bus, call.get(), 0, error.Get(), &reply);
  MessageOwner replyOwner(reply);
  if (result < 0) {
    std::fprintf(stderr, "Error sending reboot to LoginWindow: %d\n", result);
    return false;
  }
  return true;
}

bool SetRestartMarker(const std::string& inName) {
  std::string sPath;
  if (!GetRestartMarkerPath(inName, sPath)) return false;
  if (FileSystemUtils::PathExists(sPath)) return true;
  return FileDescriptor(::open(sPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)).IsOpen();
}

bool HasRestartedSinceMarker(const std::string& inName) {
  std::string sPath;
  if (!GetRestartMarkerPath(inName, sPath)) return true;
  return !FileSystemUtils::PathExists(sPath);
}

bool SetRestartMarker() {
  std::string sBundle;
  if (!GetMainBundlePath(sBundle)) return false;
  return SetRestartMarker(sBundle);
}

bool HasRestartedSinceMarker() {
  std::string sBundle;
  if (!GetMainBundlePath(sBundle)) return false;
  return HasRestartedSinceMarker(sBundle);
}

std::string GetSystemVersionString() {
  struct utsname names;
  if (::uname(&names) != 0) return std::string();
  return FormatKernelRelease(names.release);
}

std::string FormatKernelRelease(const std::string& inRelease) {
  unsigned long numbers[3] = {0, 0, 0};
  const char* cursor = inRelease.data();
  const char* const end = cursor + inRelease.size();
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      // Another number follows only after a dot that is followed by a digit.
      if (end - cursor < 2 || cursor[0] != '.' || cursor[1] < '0' || cursor[1] > '9') break;
      ++cursor;
    }
    const std::from_chars_result parsed = std::from_chars(cursor, end, numbers[i]);
    if (parsed.ec != std::errc()) return std::string();
    cursor = parsed.ptr;
  }
  std::string sVersion;
  if (!FormatString(sVersion, "%0.%1.%2", numbers[0], numbers[1], numbers[2])) return std::string();
  return sVersion;
}

std::string FormatBCDVersion(uint32_t inVersion) {
  const uint32_t majorBCD = (inVersion >> 8) & 0xFF;
  const uint32_t major = (majorBCD >> 4) * 10 + (majorBCD & 0x0F);
  const uint32_t minor = (inVersion >> 4) & 0x0F;
  const uint32_t fix = inVersion & 0x0F;
  std::string sVersion;
  if (!FormatString(sVersion, "%0.%1.%2", major, minor, fix)) return std::string();
  return sVersion;
}
