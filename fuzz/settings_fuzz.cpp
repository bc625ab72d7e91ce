// SettingsFile over arbitrary file contents: Read and Write never fail, and a
// value set with the input's first line ("key=value") under a section that no
// section of the file starts with reads back trimmed after Write and Read.
// (Sections that share a prefix are written under each other's headers on
// purpose, so only such a section is sure to come back as it was.)
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "SettingsFile.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* inData, size_t inSize) {
  static std::string folder = fs::temp_directory_path() / "porvane-settings-fuzz-XXXXXX";
  static const bool ready = ::mkdtemp(folder.data()) != nullptr && std::atexit([] { fs::remove_all(folder); }) == 0;
  std::string input(reinterpret_cast<const char*>(inData), inSize), section = "fuzz-section", path = folder + "/f.cfg";
  std::ofstream(path, std::ios::binary) << input;
  SettingsFile settings;
  const std::string line = input.substr(0, input.find('\n')), key = line.substr(0, line.find('='));
  const std::string value = key.size() < line.size() ? line.substr(key.size() + 1) : "", name = TrimString(key);
  const std::string stored = settings.Read(path) == 0 ? settings.SetValue(section, key, value) : "Read failed";
  const bool kept = !name.empty() && name.find('/') == std::string::npos && !TrimString(value).empty();
  const bool sure = ToLower(input).find(section) == std::string::npos && name.find_first_of("#;[") != 0;
  if (!ready || stored != (kept ? value : "") || settings.GetValue(section, key) != stored ||
      settings.Write(path) != 0 || settings.Read(path) != 0 ||
      (sure && settings.GetValue(section, key) != TrimString(stored)))
    std::abort();
  return 0;
}
