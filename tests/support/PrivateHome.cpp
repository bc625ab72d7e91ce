#include "PrivateHome.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

PrivateHome::PrivateHome() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/porvane-home-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  mRoot = pattern;
  const char* const kFolders[][2] = {{"HOME", "home"},          {"XDG_STATE_HOME", "state"}, {"XDG_DATA_HOME", "data"},
                                     {"XDG_CONFIG_HOME", "config"}, {"XDG_CACHE_HOME", "cache"},
                                     {"XDG_RUNTIME_DIR", "run"},   {"TMPDIR", "tmp"}};
  mEnvironment["PATH"] = "/usr/bin:/bin";
  for (const auto& [name, folder] : kFolders) {
    fs::create_directories(*this / folder);
    mEnvironment[name] = *this / folder;
    Set(name, *this / folder);
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
  // Tests make items read-only on purpose; write permission back lets the
  // whole tree go.
  std::error_code ignored;
  for (auto it = fs::recursive_directory_iterator(mRoot, ignored); it != fs::recursive_directory_iterator();
       it.increment(ignored))
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add | fs::perm_options::nofollow, ignored);
  fs::remove_all(mRoot, ignored);
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

namespace {

// One write, as an id map must be written.
bool WriteText(const char* inPath, const std::string& inText) {
  std::ofstream out(inPath);
  out << inText;
  out.close();
  return !out.fail();
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

void WriteFile(const std::string& inPath, const std::string& inContent) {
  std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + inPath);
  out.write(inContent.data(), static_cast<std::streamsize>(inContent.size()));
  if (!out) throw std::runtime_error("cannot write " + inPath);
}

std::string ReadFile(const std::string& inPath) {
  // One bulk read: a byte-wise copy takes seconds for large uploads in an
  // unoptimised build.
  std::ifstream in(inPath, std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error("cannot read " + inPath);
  std::string content(static_cast<size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (!in) throw std::runtime_error("cannot read " + inPath);
  return content;
}

std::vector<std::string> Names(const std::string& inFolder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(inFolder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}
