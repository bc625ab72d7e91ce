#include "Locations.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FileSystemUtils.h"
#include "ChildRun.h"
#include "ChildProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace {

// HOME and the XDG folders of one test inside a private TempDir (none exists
// yet), named with spaces, quotes and non-ASCII bytes.
struct UserFolders {
  explicit UserFolders(const std::string& inTag) : dir(inTag) {
    env.Set("HOME", dir / "home");
    env.Set("XDG_STATE_HOME", dir / "state home");
    env.Set("XDG_DATA_HOME", dir / "data 'home' \xC3\xA9");
  }

  TempDir dir;
  ScopedEnvironment env;
  const std::string logFolder = dir / "state home/Logs/Tarvo/Porvane";
};

TEST(LocationsTest, UserPathsAreCreatedWhereTheVariablesSay) {
  UserFolders folders("locations-user");
  std::string settingsFile, logFolder;
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kLocationOk);
  EXPECT_EQ(logFolder, folders.logFolder);
  EXPECT_EQ(settingsFile, folders.dir / "data 'home' \xC3\xA9/Tarvo/Porvane/UserSettings.cfg");
  EXPECT_TRUE(FileSystemUtils::PathExists(logFolder));
  EXPECT_TRUE(FileSystemUtils::PathExists(FileSystemUtils::GetParentPath(settingsFile)));
  EXPECT_FALSE(FileSystemUtils::PathExists(settingsFile));  // only its folder is made

  // The buffer form, found again: one short of room for the terminating zero
  // gives 7 and the size needed; exactly room fits.
  const unsigned length = static_cast<unsigned>(folders.logFolder.size());
  std::vector<char> buffer(length + 2, '#');
  unsigned size = length;
  EXPECT_EQ(GetDefaultLogFolder(buffer.data(), size), kBufferTooSmall);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(buffer[0], '#');  // nothing copied
  EXPECT_EQ(GetDefaultLogFolder(buffer.data(), size), kLocationOk);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(std::string(buffer.data()), folders.logFolder);
  EXPECT_EQ(buffer[length + 1], '#');  // nothing written past the size given

  // The string form retries past its first 1024-byte buffer.
  std::string state = folders.dir.Path();
  while (state.size() < 1500) state += "/" + std::string(100, 's');
  folders.env.Set("XDG_STATE_HOME", state);
  std::string folder;
  EXPECT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, state + "/Logs/Tarvo/Porvane");
}

TEST(LocationsTest, UncreatableFoldersAndTheirMasking) {
  UserFolders folders("locations-fail");
  ::chmod(folders.dir.Path().c_str(), 0755);  // the child below must see why it fails
  WriteFile(folders.dir / "plain file", "x");

  // The settings folder cannot be made: 5, settings path untouched.
  folders.env.Set("XDG_DATA_HOME", folders.dir / "plain file/data");
  std::string settingsFile = "untouched", logFolder = "untouched", folder = "untouched";
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kSettingsFolderNotCreated);
  EXPECT_EQ(settingsFile, "untouched");
  EXPECT_EQ(logFolder, folders.logFolder);
  EXPECT_EQ(GetDefaultLogFolder(folder), kSettingsFolderNotCreated);
  EXPECT_EQ(folder, "untouched");

  // An uncreatable log folder is masked when the settings folder is found:
  // 0 with the log folder untouched, so the default log folder is "".
  folders.env.Set("XDG_DATA_HOME", folders.dir / "data");
  folders.env.Set("XDG_STATE_HOME", folders.dir / "plain file/state");
  settingsFile = logFolder = "untouched";
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kLocationOk);
  EXPECT_EQ(logFolder, "untouched");
  EXPECT_EQ(settingsFile, folders.dir / "data/Tarvo/Porvane/UserSettings.cfg");
  EXPECT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, "");

  // A settings folder that cannot even be named (no HOME, no XDG_DATA_HOME
  // and a user id without a password entry) leaves the log folder's status.
  folders.env.Unset("HOME");
  folders.env.Unset("XDG_DATA_HOME");
  const auto asUnknownUser = [] {
    std::string settings, log;
    const int uncreatable = GetUserPaths(settings, log);
    ::unsetenv("XDG_STATE_HOME");
    return uncreatable * 10 + GetUserPaths(settings, log);
  };
  EXPECT_EQ(RunInChild(asUnknownUser, 54321), kLogFolderNotCreated * 10 + kLocationNotFound);
}

// What testdata/install_paths_probe prints when started as inProgram.
std::string RunProbe(const std::string& inProgram, const std::string& inCaptureDir) {
  ChildProcess probe({inProgram}, ChildProcess::CurrentEnvironment(), inCaptureDir);
  EXPECT_TRUE(probe.Wait(10000)) << inProgram;
  EXPECT_EQ(probe.ExitCode(), 0) << probe.Stderr();
  return probe.Stdout();
}

TEST(LocationsTest, InstallPathsOwnInstallAndInsideAHost) {
  TempDir dir("locations-install");
  const std::string prefix = dir / "pre fix 'q' \xC3\xA9";
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(prefix + "/bin"));
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(prefix + "/share/porvane"));
  const std::string probe = std::string(PORVANE_BINARY_DIR) + "/test/install_paths_probe";
  std::filesystem::copy_file(probe, prefix + "/bin/porvane");
  std::filesystem::copy_file(probe, prefix + "/bin/hostapp");
  WriteFile(prefix + "/share/porvane/Porvane.cfg", "[ system ]\nmaxtotaldirsize = 1234\n");

  // Named porvane: its own install, configured from the prefix.
  EXPECT_EQ(RunProbe(prefix + "/bin/porvane", dir.Path()),
            "0\n" + prefix + "/bin/porvane\n" + prefix + "/share/porvane/Porvane.cfg\n" + prefix + "\n0\n1234\n");
  // Inside a host: the host's private library folder, which holds no
  // configuration, so the default size.
  const std::string container = prefix + "/lib/hostapp";
  EXPECT_EQ(RunProbe(prefix + "/bin/hostapp", dir.Path()), "0\n" + container + "/porvane/bin/porvane\n" + container +
                                                               "/porvane/share/porvane/Porvane.cfg\n" + container +
                                                               "\n0\n500000\n");
}

}  // namespace
