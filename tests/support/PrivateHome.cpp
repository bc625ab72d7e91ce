#include "PrivateHome.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

PrivateHome::PrivateHome() {
  const char* const kFolders[][2] = {{"HOME", "home"},          {"XDG_STATE_HOME", "state"}, {"XDG_DATA_HOME", "data"},
                                     {"XDG_CONFIG_HOME", "config"}, {"XDG_CACHE_HOME", "cache"},
                                     {"XDG_RUNTIME_DIR", "run"},   {"TMPDIR", "tmp"}};
  mEnvironment["PATH"] = "/usr/bin:/bin";
  for (const auto& [name, folder] : kFolders) {
    std::filesystem::create_directories(mRoot / folder);
    mEnvironment[name] = mRoot / folder;
    Set(name, mRoot / folder);
  }
}

PrivateHome::~PrivateHome() {
  for (const auto& [name, value] : mSaved) {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }
}

void PrivateHome::Set(const std::string& inName, const std::optional<std::string>& inValue) {
  if (mSaved.count(inName) == 0) {
    const char* old = std::getenv(inName.c_str());
    mSaved[inName] = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
  }
  if (inValue) {
    setenv(inName.c_str(), inValue->c_str(), 1);
  } else {
    unsetenv(inName.c_str());
  }
}

ChildProcess::Environment PrivateHome::Environment() const { return mEnvironment; }

namespace {

bool WriteText(const char* inPath, const std::string& inText) {
  const int fd = open(inPath, O_WRONLY | O_CLOEXEC);
  const bool written = fd >= 0 && write(fd, inText.data(), inText.size()) == static_cast<ssize_t>(inText.size());
  if (fd >= 0) close(fd);
  return written;
}

std::string Enter() {
  if (geteuid() != 0) {
    // A user namespace lends the capability to mount, inside it only; the
    // ids map to themselves, so files keep their owners.
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return std::string("user namespaces refused: ") + strerror(errno);
    if (!WriteText("/proc/self/setgroups", "deny") || !WriteText("/proc/self/uid_map", uid + " " + uid + " 1") ||
        !WriteText("/proc/self/gid_map", gid + " " + gid + " 1"))
      return "cannot map ids in the user namespace";
  } else if (unshare(CLONE_NEWNS) != 0) {
    return std::string("mount namespace refused: ") + strerror(errno);
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
    return std::string("cannot mount a private /dev/shm: ") + strerror(errno);
  return "";
}

}  // namespace

std::string UsePrivateShm() {
  static const std::string kWhyNot = Enter();
  return kWhyNot;
}
