#include "Locations.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "PrivateHome.h"

namespace fs = std::filesystem;

// A file where a folder must go. Below a base folder that is there, a
// settings folder that cannot be made fails the call and a log folder that
// cannot be made is only left out; a base folder that cannot itself be made
// is a failed look-up, which leaves the status as it was.
TEST(LocationsTest, UserPathsAreMadeUnderTheXdgFolders) {
  struct Case { std::string stateFile, dataHome, stateHome; int status; bool settings, logs; } const kCases[] = {
      {"", "data", "state", kLocationOk, true, true},
      {"data/Tarvo", "data", "state", kSettingsFolderNotCreated, false, true},
      {"state/Logs", "data", "state", kLocationOk, true, false},
      {"", "blocker/data", "state", kLocationOk, false, true},
      {"", "data", "blocker/state", kLocationOk, true, false},
      {"", "blocker/data", "blocker/state", kLocationNotFound, false, false},
      {"state/Logs", "blocker/data", "state", kLogFolderNotCreated, false, false},
  };
  for (const Case& c : kCases) {
    PrivateHome home;
    WriteFile(home / "blocker", "");
    if (!c.stateFile.empty()) WriteFile(home / c.stateFile, "");
    home.Set("XDG_DATA_HOME", home / c.dataHome);
    home.Set("XDG_STATE_HOME", home / c.stateHome);
    std::string settings = "untouched", logs = "untouched";
    SCOPED_TRACE(c.stateFile + " " + c.dataHome + " " + c.stateHome);
    EXPECT_EQ(GetUserPaths(settings, logs), c.status);
    EXPECT_EQ(settings, c.settings ? home.UserSettings() : "untouched");
    EXPECT_EQ(logs, c.logs ? home.LogFolder() : "untouched");
    EXPECT_EQ(fs::is_directory(home / "data/Tarvo/Porvane"), c.settings);
  }
}

// The test binary is a host, which carries the agent in its private library
// folder; the agent's installation settings, with their defaults for a
// missing file and an empty size.
TEST(LocationsTest, InstallPathsAndSettingsOfAHost) {
  std::string executable, config, container;
  EXPECT_EQ(GetInstallPaths(executable, config, container), kLocationOk);
  const std::string host = fs::canonical(PORVANE_BINARY_DIR).native() + "/lib/settings_test";
  EXPECT_EQ(container + " " + executable, host + " " + host + "/porvane/bin/porvane");
  EXPECT_EQ(config, host + "/porvane/share/porvane/Porvane.cfg");
  PrivateHome dir;
  WriteFile(dir / "a", "[ system ]\nmaxtotaldirsize = 1234\nUploadURL=http://h/u\n");
  WriteFile(dir / "b", "[System]\nMaxTotalDirSize=\nUploadURL=x\n");
  for (const auto& [name, want] : {std::pair{"a", "1234 http://h/u"}, {"b", "500000 x"}, {"none", "500000 "}})
    EXPECT_EQ(ReadInstallSettings(dir / name).maxTotalDirSize + " " + ReadInstallSettings(dir / name).uploadUrl, want);
}

// The buffer form copies a folder of size - 1 characters and answers 7 with
// the size it needs for one character more, leaving the buffer alone; the
// string form asks again when 1024 bytes are not enough.
TEST(LocationsTest, DefaultLogFolderInABufferOrAString) {
  PrivateHome home;
  const std::string logs = home.LogFolder();
  const unsigned needed = static_cast<unsigned>(logs.size() + 1);
  for (const unsigned size : {needed, needed - 1}) {
    std::string buffer(needed + 1, '#');
    unsigned ioSize = size;
    SCOPED_TRACE(size);
    ASSERT_EQ(GetDefaultLogFolder(&buffer[0], &ioSize), size == needed ? kLocationOk : kBufferTooSmall);
    EXPECT_EQ(ioSize, needed);
    EXPECT_EQ(buffer, size == needed ? logs + '\0' + '#' : std::string(needed + 1, '#'));
  }
  std::string deep = home.Root();
  for (const char c : {'s', 't', 'u', 'v', 'w'}) deep += "/" + std::string(200, c);
  home.Set("XDG_STATE_HOME", deep);
  std::string folder;
  ASSERT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, deep + "/Logs/Tarvo/Porvane");
  EXPECT_TRUE(fs::is_directory(folder));
  std::string size;
  EXPECT_EQ(GetMaxTotalDirSize(size), kLocationOk);
  EXPECT_EQ(size, "500000");
}
