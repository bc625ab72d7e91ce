#include "SettingsFile.h"

#include <cctype>
#include <cerrno>
#include <set>

#include "FileSystemUtils.h"

const char* const kSettingsTrimCharacters = " \t\r\n";

namespace {

const std::string& EmptyValue() {
  static const std::string kEmpty;
  return kEmpty;
}

// The normalised form of a section or key name: trimmed, then lower case.
std::string NormalisedName(const std::string& inName) {
  std::string name = TrimString(inName);
  ToLower(name);
  return name;
}

// The text of a "[...]" header line: from the second character up to the
// first "]", or to the end when there is none.
std::string HeaderName(const std::string& inLine) {
  const size_t close = inLine.find(']');
  const std::string inner = close == std::string::npos ? inLine.substr(1) : inLine.substr(1, close - 1);
  return NormalisedName(inner);
}

}  // namespace

std::string TrimString(const std::string& inText, const char* inCharacters) {
  const size_t first = inText.find_first_not_of(inCharacters);
  if (first == std::string::npos) return std::string();
  const size_t last = inText.find_last_not_of(inCharacters);
  return inText.substr(first, last - first + 1);
}

std::string ToLower(std::string& ioText) {
  for (char& c : ioText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ioText;
}

int SettingsFile::Read(const std::string& inPath) {
  Load(inPath);
  return 0;
}

int SettingsFile::Load(const std::string& inPath) {
  mValues.clear();
  std::string text;
  const FileSystemUtils::ReadStatus status = FileSystemUtils::ReadWholeFile(inPath, text);
  const int readError = status == FileSystemUtils::ReadStatus::kComplete ? 0 : errno;
  // A missing or unreadable file reads as empty; after a failed read only the
  // lines that arrived whole count.
  if (status == FileSystemUtils::ReadStatus::kCannotOpen) return readError;
  if (status == FileSystemUtils::ReadStatus::kReadError) text.erase(text.rfind('\n') + 1);

  std::string section;
  // The line feed is the only delimiter: a CR before it stays in the line
  // and goes with the trimming. An empty tail after the last line feed is no
  // line; a last line without one still counts.
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    // Only the very first character marks a comment: an indented "#" line is
    // an ordinary key line, as files written by earlier versions expect.
    if (line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      section = HeaderName(line);
      continue;
    }
    // A line without "=" keeps its whole text as key and as value: the value
    // starts one past the missing "=", which wraps round to the start.
    const size_t equals = line.find('=');
    const std::string key = NormalisedName(line.substr(0, equals));
    const std::string value = TrimString(line.substr(equals == std::string::npos ? 0 : equals + 1));
    mValues[section + "/" + key] = value;
  }
  return readError;
}

int SettingsFile::Write(const std::string& inPath) const {
  // An unwritable file loses the change; callers go on regardless.
  FileSystemUtils::WriteWholeFile(inPath, Text());
  return 0;
}

std::string SettingsFile::Text() const {
  std::string out;
  std::set<std::string> written;
  for (const auto& entry : mValues) {
    const size_t slash = entry.first.find('/');
    const std::string section = entry.first.substr(0, slash);
    if (!written.insert(section).second) continue;
    out.append("[").append(section).append("]\n");
    // The entries listed under a header are those whose composite key merely
    // begins with the section's text, not with the text plus "/": so "sys"
    // also gathers the "system" entries (names cut at the length of "sys"),
    // and the unnamed section "[]" gathers every entry with its first
    // character dropped. Files already in the field were written this way and
    // read back into the same map, so the rule is kept. Keys sharing a prefix
    // are adjacent in the sorted map, so the walk starts at the first of them.
    for (auto it = mValues.lower_bound(section); it != mValues.end(); ++it) {
      if (it->first.compare(0, slash, section) != 0) break;
      out.append(it->first, slash + 1, std::string::npos).append("=").append(it->second).append("\n");
    }
  }
  return out;
}

const std::string& SettingsFile::GetValue(const std::string& inSection, const std::string& inKey) const {
  const auto found = mValues.find(NormalisedName(inSection) + "/" + NormalisedName(inKey));
  return found == mValues.end() ? EmptyValue() : found->second;
}

const std::string& SettingsFile::SetValue(const std::string& inSection, const std::string& inKey,
                                          const std::string& inValue) {
  const std::string section = NormalisedName(inSection);
  const std::string key = NormalisedName(inKey);
  // The unnamed section cannot be written, and a "/" would make the
  // composite key ambiguous.
  if (section.empty() || key.empty()) return EmptyValue();
  if (section.find('/') != std::string::npos || key.find('/') != std::string::npos) return EmptyValue();

  const std::string composite = section + "/" + key;
  // The value is stored as given; only its trimmed form decides between
  // storing and erasing.
  if (!TrimString(inValue).empty()) {
    std::string& stored = mValues[composite];
    stored = inValue;
    return stored;
  }
  mValues.erase(composite);
  return EmptyValue();
}
