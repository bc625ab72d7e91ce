#include "FolderFinder.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "Assert.h"
#include "FileSystemUtils.h"

namespace {

// The value of an XDG base-directory variable; per the base-directory rules
// an empty or relative value counts as unset.
bool AbsoluteEnvironmentPath(const char* inName, std::string& outPath) {
  const char* value = std::getenv(inName);
  if (value == nullptr || value[0] != '/') return false;
  outPath = value;
  return true;
}

// $HOME, else the home folder of the effective user in the password database.
bool HomeFolder(std::string& outPath) {
  if (AbsoluteEnvironmentPath("HOME", outPath)) return true;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  for (;;) {
    passwd entry;
    passwd* found = nullptr;
    const int error = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] == '\0') return false;
    outPath = found->pw_dir;
    return true;
  }
}

// The home folder plus inRelative.
bool HomeRelative(const char* inRelative, std::string& outPath) {
  std::string home;
  if (!HomeFolder(home)) return false;
  outPath = FileSystemUtils::AppendPath(home, inRelative);
  return true;
}

// The variable's value, else the home folder plus inHomeRelative.
bool BaseDirectory(const char* inVariable, const char* inHomeRelative, std::string& outPath) {
  return AbsoluteEnvironmentPath(inVariable, outPath) || HomeRelative(inHomeRelative, outPath);
}

// The folder named by a user-dirs.dirs value: the text between the quotes,
// backslash escapes resolved, "$HOME" at the start replaced by the home
// folder. Only absolute results count.
bool UserDirValue(const std::string& inValue, std::string& outPath) {
  std::string text;
  size_t pos = 0;
  const bool quoted = !inValue.empty() && inValue[0] == '"';
  if (quoted) pos = 1;
  for (; pos < inValue.size(); ++pos) {
    const char c = inValue[pos];
    if (quoted && c == '"') break;
    if (c == '\\' && pos + 1 < inValue.size()) {
      text += inValue[++pos];
      continue;
    }
    text += c;
  }
  if (text.compare(0, 5, "$HOME") == 0 && (text.size() == 5 || text[5] == '/')) {
    std::string home;
    if (!HomeFolder(home)) return false;
    text = home + text.substr(5);
  }
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  if (text.empty() || text[0] != '/') return false;
  outPath = text;
  return true;
}

// An XDG user folder ("DESKTOP", "DOCUMENTS") from
// $XDG_CONFIG_HOME/user-dirs.dirs, else the home folder plus inFallback.
bool UserDirectory(const std::string& inName, const char* inFallback, std::string& outPath) {
  std::string config;
  std::string text;
  if (BaseDirectory("XDG_CONFIG_HOME", ".config", config) &&
      FileSystemUtils::ReadWholeFile(FileSystemUtils::AppendPath(config, "user-dirs.dirs"), text) !=
          FileSystemUtils::ReadStatus::kCannotOpen) {
    const std::string prefix = "XDG_" + inName + "_DIR=";
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      const size_t first = text.find_first_not_of(" \t", start);
      if (first < end && text.compare(first, prefix.size(), prefix) == 0 &&
          UserDirValue(text.substr(first + prefix.size(), end - first - prefix.size()), outPath)) {
        return true;
      }
      start = end + 1;
    }
  }
  return HomeRelative(inFallback, outPath);
}

bool LocateFolder(int inFolderId, std::string& outPath) {
  switch (inFolderId) {
    case 0:
      if (AbsoluteEnvironmentPath("XDG_RUNTIME_DIR", outPath)) return true;
      outPath = "/tmp";
      return true;
    case 1:
      if (AbsoluteEnvironmentPath("TMPDIR", outPath)) return true;
      outPath = "/tmp";
      return true;
    case 2:
      return UserDirectory("DESKTOP", "Desktop", outPath);
    case 3:
      return UserDirectory("DOCUMENTS", "Documents", outPath);
    case 4:
      return BaseDirectory("XDG_CACHE_HOME", ".cache", outPath);
    case 5:
      return BaseDirectory("XDG_CONFIG_HOME", ".config", outPath);
    case 6:
      return BaseDirectory("XDG_DATA_HOME", ".local/share", outPath);
    case 7:
    case 8:  // both ids name the machine-wide application support folder
      outPath = "/var/lib";
      return true;
    case 9:
      outPath = "/usr/local/share/fonts";
      return true;
    case 10:
      outPath = "/usr";
      return true;
    case 11:
      outPath = "/usr/bin";
      return true;
    default:
      QVD_ASSERT(!"Invalid FolderID");
      return false;
  }
}

// With inCreate, a missing folder is made with its parents.
bool Finish(const std::string& inPath, bool inCreate) {
  if (!inCreate || FileSystemUtils::PathExists(inPath)) return true;
  return FileSystemUtils::CreateDirectoryChain(inPath);
}

}  // namespace

bool FindSpecialFolder(int inFolderId, std::string& outPath, bool inCreate) {
  if (inFolderId == 12) {
    outPath = "/";
    return true;
  }
  std::string path;
  if (!LocateFolder(inFolderId, path) || !Finish(path, inCreate)) return false;
  outPath = path;
  return true;
}

bool FindLibraryFolder(std::string& outPath, bool inCreate) {
  std::string path;
  if (!BaseDirectory("XDG_STATE_HOME", ".local/state", path) || !Finish(path, inCreate)) return false;
  outPath = path;
  return true;
}

bool GetMainBundlePath(std::string& outPath) {
  std::string executable;
  if (!GetMainExecutablePath(executable)) return false;
  outPath = FileSystemUtils::GetParentPath(FileSystemUtils::GetParentPath(executable));
  return true;
}

bool GetMainBundleName(std::string& outName) {
  std::string bundle;
  if (!GetMainBundlePath(bundle)) return false;
  const size_t pos = bundle.rfind('/');
  if (pos == std::string::npos || pos + 1 == bundle.size()) return false;
  outName = bundle.substr(pos + 1);
  return true;
}

bool GetMainBundleParent(std::string& outPath) {
  std::string bundle;
  if (!GetMainBundlePath(bundle)) return false;
  outPath = FileSystemUtils::GetParentPath(bundle);
  return true;
}

bool GetMainExecutablePath(std::string& outPath) {
  std::vector<char> buffer(1024);
  for (;;) {
    const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) < buffer.size()) {
      outPath.assign(buffer.data(), static_cast<size_t>(length));
      return !outPath.empty();
    }
    buffer.resize(buffer.size() * 2);  // possibly cut short: try again larger
  }
}
