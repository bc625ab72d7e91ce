// The sectioned settings file: "[Section]" headers and "key=value" lines.
//
// A SettingsFile is the in-memory image of one file for the length of one
// operation: construct, Read, GetValue/SetValue, Write (for files that are
// rewritten), destroy. No file handle is kept between calls and nothing is
// shared between objects. Not thread-safe; the user file is only rewritten by
// the holder of the machine-wide upload lock.
#ifndef PORVANE_SETTINGS_SETTINGSFILE_H
#define PORVANE_SETTINGS_SETTINGSFILE_H

#include <map>
#include <string>

#include "PorvaneExport.h"

// The characters trimmed from names and values: space, tab, CR, LF.
PORVANE_API extern const char* const kSettingsTrimCharacters;

// A copy of inText without leading and trailing characters of inCharacters;
// an all-blank text gives "".
PORVANE_API std::string TrimString(const std::string& inText, const char* inCharacters = kSettingsTrimCharacters);

// Folds ioText to lower case in place with tolower, byte by byte, and returns
// a copy of the result.
PORVANE_API std::string ToLower(std::string& ioText);

class PORVANE_API SettingsFile {
 public:
  SettingsFile() = default;
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  // Clears the map and parses the file at inPath. Always returns 0: a file
  // that cannot be opened reads as an empty file. Linear in the file's size.
  int Read(const std::string& inPath);

  // Read, telling how the read went: 0 when the whole file was read, else
  // the errno of the failure: ENOENT for a missing file; for a file that
  // cannot be opened the map stays empty, after a failed read it keeps the
  // lines that arrived whole.
  int Load(const std::string& inPath);

  // Truncates or creates the file at inPath and writes the map (Text).
  // Always returns 0; a file that cannot be opened silently gets nothing.
  int Write(const std::string& inPath) const;

  // The text Write writes: for each section, in map order, "[section]\n"
  // and then "key=value\n" for every entry whose composite key begins with
  // the section's text.
  std::string Text() const;

  // The stored value of lower(trim(section)) + "/" + lower(trim(key)), or a
  // reference to one shared empty string when there is none.
  const std::string& GetValue(const std::string& inSection, const std::string& inKey) const;

  // Stores inValue untrimmed when trim(inValue) is not empty and returns a
  // reference to it; erases the entry when it is blank and returns "".
  // A section or key that is empty after trimming, or holds "/", changes
  // nothing and returns "".
  const std::string& SetValue(const std::string& inSection, const std::string& inKey,
                              const std::string& inValue);

 private:
  std::map<std::string, std::string> mValues;
};

#endif  // PORVANE_SETTINGS_SETTINGSFILE_H
