// SettingsFile over arbitrary file contents. Read never fails; every stored
// name is trimmed and lower-case; GetValue finds what Read stored; SetValue
// stores, erases or refuses exactly as promised; and a map that the file
// format can represent reads back unchanged after Write.
#include <cctype>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "FuzzScratch.h"
#include "SettingsFile.h"

namespace {

using Entries = std::map<std::string, std::string>;

const std::string kBlank = " \t\r\n";

bool IsTrimmed(const std::string& inText) {
  return inText.empty() || (kBlank.find(inText.front()) == std::string::npos &&
                            kBlank.find(inText.back()) == std::string::npos);
}

bool IsLowerCase(const std::string& inText) {
  for (char c : inText)
    if (std::tolower(static_cast<unsigned char>(c)) != static_cast<unsigned char>(c)) return false;
  return true;
}

std::string SectionOf(const std::string& inComposite) { return inComposite.substr(0, inComposite.find('/')); }
std::string KeyOf(const std::string& inComposite) { return inComposite.substr(inComposite.find('/') + 1); }

// Whether Write then Read gives inEntries back. The writer files the entries
// of every section whose name starts with an earlier section's name under
// that earlier header too (with shortened names), writes the empty section
// as "[]" followed by every entry, and splits a composite key at its first
// "/"; its lines are read back trimmed, split at the first "=", and lines
// starting with '#', ';' or '[' are comments or headers. Maps that avoid all
// of these round-trip; the others are kept as they are on purpose.
bool Representable(const Entries& inEntries) {
  std::set<std::string> sections;
  for (const auto& entry : inEntries) {
    const std::string section = SectionOf(entry.first), key = KeyOf(entry.first);
    if (section.empty() || !IsTrimmed(section) || !IsTrimmed(key)) return false;
    if (key.find('=') != std::string::npos) return false;
    if (!key.empty() && (key[0] == '#' || key[0] == ';' || key[0] == '[')) return false;
    sections.insert(section);
  }
  for (const std::string& a : sections)
    for (const std::string& b : sections)
      if (a != b && b.compare(0, a.size(), a) == 0) return false;
  return true;
}

void CheckReadEntries(const SettingsFile& inSettings) {
  for (const auto& [composite, value] : inSettings.Entries()) {
    FUZZ_CHECK(composite.find('/') != std::string::npos);
    const std::string section = SectionOf(composite), key = KeyOf(composite);
    FUZZ_CHECK(IsLowerCase(composite));
    FUZZ_CHECK(IsTrimmed(value));
    FUZZ_CHECK(value.find('\n') == std::string::npos);
    if (IsTrimmed(section) && IsTrimmed(key)) FUZZ_CHECK(inSettings.GetValue(section, key) == value);
  }
}

// SetValue(section, key, value) with the three texts cut from the input.
void CheckSetValue(SettingsFile& ioSettings, const std::string& inInput) {
  const size_t first = inInput.find('\n');
  const size_t second = first == std::string::npos ? first : inInput.find('\n', first + 1);
  if (second == std::string::npos) return;
  const std::string section = inInput.substr(0, first);
  const std::string key = inInput.substr(first + 1, second - first - 1);
  const std::string value = inInput.substr(second + 1);

  std::string s = TrimString(section), k = TrimString(key);
  ToLower(s);
  ToLower(k);
  const Entries before = ioSettings.Entries();
  const std::string& stored = ioSettings.SetValue(section, key, value);
  if (s.empty() || k.empty() || s.find('/') != std::string::npos || k.find('/') != std::string::npos) {
    FUZZ_CHECK(stored.empty());
    FUZZ_CHECK(ioSettings.Entries() == before);
    return;
  }
  Entries expected = before;
  if (TrimString(value).empty()) {
    FUZZ_CHECK(stored.empty());
    expected.erase(s + "/" + k);
  } else {
    FUZZ_CHECK(stored == value);
    expected[s + "/" + k] = value;
    FUZZ_CHECK(ioSettings.GetValue(section, key) == value);
  }
  FUZZ_CHECK(ioSettings.Entries() == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize) {
  const std::string input(reinterpret_cast<const char*>(inData), inSize);
  const std::string path = ScratchFolder() + "/in.cfg";
  const std::string copy = ScratchFolder() + "/out.cfg";
  WriteWholeFile(path, input);

  SettingsFile settings;
  FUZZ_CHECK(settings.Read(path) == 0);
  CheckReadEntries(settings);

  FUZZ_CHECK(settings.Write(copy) == 0);
  SettingsFile reread;
  FUZZ_CHECK(reread.Read(copy) == 0);
  CheckReadEntries(reread);
  if (Representable(settings.Entries())) FUZZ_CHECK(reread.Entries() == settings.Entries());

  CheckSetValue(settings, input);
  return 0;
}
