#include "AutostartEntry.h"

#include <cstring>

#include "FileSystemUtils.h"
#include "MD5Hash.h"

namespace {

std::string EntryPath(const std::string& inConfigFolder, const std::string& inAppPath) {
  return FileSystemUtils::AppendPath(inConfigFolder, "autostart/login-item-" + MD5HexDigest(inAppPath) + ".desktop");
}

// A value as the format stores it: backslash, line ends and tabs escaped,
// and a leading space kept as "\s".
std::string EscapeValue(const std::string& inText) {
  std::string escaped;
  for (char c : inText) {
    switch (c) {
      case '\\': escaped += "\\\\"; break;
      case '\n': escaped += "\\n"; break;
      case '\t': escaped += "\\t"; break;
      case '\r': escaped += "\\r"; break;
      default: escaped += c;
    }
  }
  if (!escaped.empty() && escaped[0] == ' ') escaped.replace(0, 1, "\\s");
  return escaped;
}

// The path as the one argument of an Exec line: "%" doubled (field codes
// start with it), and in double quotes, with '"', '`', '$' and '\' escaped,
// when it holds any character the format reserves.
std::string ExecArgument(const std::string& inPath) {
  std::string argument;
  bool reserved = false;
  for (char c : inPath) {
    if (c == '%') {
      argument += "%%";
      continue;
    }
    if (std::strchr(" \t\n\"'\\><~|&;$*?#()`", c) != nullptr) reserved = true;
    if (std::strchr("\"`$\\", c) != nullptr) argument += '\\';
    argument += c;
  }
  return reserved ? "\"" + argument + "\"" : argument;
}

}  // namespace

bool WriteAutostartEntry(const std::string& inConfigFolder, const std::string& inAppPath) {
  const std::string entry = "[Desktop Entry]\nType=Application\nName=" +
                            EscapeValue(FileSystemUtils::GetLeafName(inAppPath)) +
                            "\nExec=" + EscapeValue(ExecArgument(inAppPath)) + "\n";
  const std::string path = EntryPath(inConfigFolder, inAppPath);
  std::string present;
  if (FileSystemUtils::ReadWholeFile(path, present) == FileSystemUtils::ReadStatus::kComplete && present == entry) {
    return true;
  }
  const std::string folder = FileSystemUtils::GetParentPath(path);
  if (!FileSystemUtils::PathExists(folder) && !FileSystemUtils::CreateDirectoryChain(folder)) return false;
  return FileSystemUtils::WriteWholeFile(path, entry);
}

bool RemoveAutostartEntry(const std::string& inConfigFolder, const std::string& inAppPath) {
  return FileSystemUtils::RemovePath(EntryPath(inConfigFolder, inAppPath));
}
