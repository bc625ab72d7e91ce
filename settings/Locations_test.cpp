#include "settings/Locations.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "source/FileSystemUtils.h"
#include "source/posix/testdata/ChildRun.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TempDir.h"

extern char** environ;

namespace {

// The user folders of one test: Library and application support inside a
// private TempDir (neither exists yet).
struct UserFolders {
  explicit UserFolders(const std::string& inTag) : dir(inTag) {
    env.Set("HOME", dir / "home");
    env.Set("XDG_STATE_HOME", dir / "state home");
    env.Set("XDG_DATA_HOME", dir / "data 'home' \xC3\xA9");
  }
  std::string LogFolder() const { return dir / "state home/Logs/Tarvo/Porvane"; }
  std::string SettingsFile() const { return dir / "data 'home' \xC3\xA9/Tarvo/Porvane/UserSettings.cfg"; }

  TempDir dir;
  ScopedEnvironment env;
};

bool IsFolder(const std::string& inPath) {
  struct stat info;
  return ::stat(inPath.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

TEST(LocationsTest, UserPathsAreCreatedWhereTheVariablesSay) {
  UserFolders folders("locations-user");
  std::string settingsFile;
  std::string logFolder;
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kLocationOk);
  EXPECT_EQ(logFolder, folders.LogFolder());
  EXPECT_EQ(settingsFile, folders.SettingsFile());
  EXPECT_TRUE(IsFolder(logFolder));
  EXPECT_TRUE(IsFolder(FileSystemUtils::GetParentPath(settingsFile)));
  EXPECT_FALSE(FileSystemUtils::PathExists(settingsFile));  // only its folder is made

  // Existing folders are found again.
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kLocationOk);
  std::string folder = "untouched";
  EXPECT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, folders.LogFolder());
}

TEST(LocationsTest, FolderFailuresAndTheirMasking) {
  UserFolders folders("locations-fail");
  WriteFile(folders.dir / "plain file", "x");

  // The settings folder cannot be made: 5, settings path untouched.
  folders.env.Set("XDG_DATA_HOME", folders.dir / "plain file/data");
  std::string settingsFile = "untouched";
  std::string logFolder = "untouched";
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kSettingsFolderNotCreated);
  EXPECT_EQ(settingsFile, "untouched");
  EXPECT_EQ(logFolder, folders.LogFolder());
  std::string folder = "untouched";
  EXPECT_EQ(GetDefaultLogFolder(folder), kSettingsFolderNotCreated);
  EXPECT_EQ(folder, "untouched");

  // The log folder cannot be made but the settings folder can: 0, and the
  // log folder is left as it was, so the default log folder is "".
  folders.env.Set("XDG_DATA_HOME", folders.dir / "data");
  folders.env.Set("XDG_STATE_HOME", folders.dir / "plain file/state");
  settingsFile = logFolder = "untouched";
  EXPECT_EQ(GetUserPaths(settingsFile, logFolder), kLocationOk);
  EXPECT_EQ(logFolder, "untouched");
  EXPECT_EQ(settingsFile, folders.dir / "data/Tarvo/Porvane/UserSettings.cfg");
  folder = "untouched";
  EXPECT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, "");
  char buffer[4] = {'x', 'x', 'x', 'x'};
  unsigned size = sizeof buffer;
  EXPECT_EQ(GetDefaultLogFolder(buffer, size), kLocationOk);
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(buffer[0], '\0');
}

TEST(LocationsTest, FailedSettingsLookUpKeepsTheLogFolderStatus) {
  // Without HOME, an XDG_DATA_HOME or a password entry, the settings folder
  // cannot even be named. Only a user id without a password entry shows it.
  const int kNoSuchUser = 54321;
  TempDir dir("locations-nouser");
  ::chmod(dir.Path().c_str(), 0777);
  WriteFile(dir / "plain file", "x");
  ScopedEnvironment env;
  env.Unset("HOME");
  env.Unset("XDG_DATA_HOME");
  const int result = RunInChild(
      [&] {
        std::string settingsFile = "untouched";
        std::string logFolder = "untouched";
        ::setenv("XDG_STATE_HOME", (dir / "state").c_str(), 1);
        if (GetUserPaths(settingsFile, logFolder) != kLocationOk) return 1;
        if (logFolder != dir / "state/Logs/Tarvo/Porvane" || settingsFile != "untouched") return 2;
        ::setenv("XDG_STATE_HOME", (dir / "plain file/state").c_str(), 1);
        if (GetUserPaths(settingsFile, logFolder) != kLogFolderNotCreated) return 3;
        ::unsetenv("XDG_STATE_HOME");
        if (GetUserPaths(settingsFile, logFolder) != kLocationNotFound) return 4;
        std::string folder = "untouched";
        if (GetDefaultLogFolder(folder) != kLocationNotFound || folder != "untouched") return 5;
        return 0;
      },
      kNoSuchUser);
  EXPECT_EQ(result, 0);
}

TEST(LocationsTest, BufferFormReportsTheNeededSize) {
  UserFolders folders("locations-buffer");
  const std::string expected = folders.LogFolder();
  const unsigned length = static_cast<unsigned>(expected.size());

  std::vector<char> buffer(length + 8, '#');
  unsigned size = length + 1;  // exactly room for the text and its end
  EXPECT_EQ(GetDefaultLogFolder(buffer.data(), size), kLocationOk);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(std::string(buffer.data()), expected);
  EXPECT_EQ(buffer[length + 1], '#');  // strncpy stops at the size given

  std::fill(buffer.begin(), buffer.end(), '#');
  size = length;  // one short
  EXPECT_EQ(GetDefaultLogFolder(buffer.data(), size), kBufferTooSmall);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(buffer[0], '#');  // nothing copied

  // A larger buffer is zero-filled past the text by strncpy.
  std::fill(buffer.begin(), buffer.end(), '#');
  size = length + 8;
  EXPECT_EQ(GetDefaultLogFolder(buffer.data(), size), kLocationOk);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(buffer[length + 7], '\0');
}

TEST(LocationsTest, StringFormGrowsPastItsFirstBuffer) {
  UserFolders folders("locations-long");
  std::string state = folders.dir.Path();
  while (state.size() < 1500) state += "/" + std::string(100, 's');
  folders.env.Set("XDG_STATE_HOME", state);
  std::string folder;
  EXPECT_EQ(GetDefaultLogFolder(folder), kLocationOk);
  EXPECT_EQ(folder, state + "/Logs/Tarvo/Porvane");
  EXPECT_TRUE(IsFolder(folder));
}

// Runs inProgram with no arguments and returns its standard output as
// "name=value" lines.
std::map<std::string, std::string> RunProbe(const std::string& inProgram) {
  int pipeFds[2];
  EXPECT_EQ(::pipe(pipeFds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  char* argv[] = {const_cast<char*>(inProgram.c_str()), nullptr};
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, inProgram.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  std::string output;
  char block[4096];
  ssize_t count;
  while ((count = ::read(pipeFds[0], block, sizeof block)) > 0) output.append(block, static_cast<size_t>(count));
  ::close(pipeFds[0]);
  std::map<std::string, std::string> values;
  if (spawned != 0) {
    ADD_FAILURE() << "cannot start " << inProgram;
    return values;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << inProgram;
  size_t start = 0;
  while (start < output.size()) {
    const size_t end = output.find('\n', start);
    const std::string line = output.substr(start, end - start);
    const size_t equals = line.find('=');
    if (equals != std::string::npos) values[line.substr(0, equals)] = line.substr(equals + 1);
    start = end == std::string::npos ? output.size() : end + 1;
  }
  return values;
}

TEST(LocationsTest, InstallPathsOwnInstallAndInsideAHost) {
  namespace fs = std::filesystem;
  TempDir dir("locations-install");
  const std::string prefix = dir / "pre fix 'q' \xC3\xA9";
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(prefix + "/bin"));
  const std::string probe = std::string(PORVANE_BINARY_DIR) + "/test/install_paths_probe";
  fs::copy_file(probe, prefix + "/bin/porvane");
  fs::copy_file(probe, prefix + "/bin/hostapp");

  // Own install; an empty MaxTotalDirSize means the default.
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(prefix + "/share/porvane"));
  WriteFile(prefix + "/share/porvane/Porvane.cfg", "[System]\nMaxTotalDirSize=\n");
  auto own = RunProbe(prefix + "/bin/porvane");
  EXPECT_EQ(own["status"], "0");
  EXPECT_EQ(own["container"], prefix);
  EXPECT_EQ(own["executable"], prefix + "/bin/porvane");
  EXPECT_EQ(own["config"], prefix + "/share/porvane/Porvane.cfg");
  EXPECT_EQ(own["sizeStatus"], "0");
  EXPECT_EQ(own["maxTotalDirSize"], "500000");

  WriteFile(prefix + "/share/porvane/Porvane.cfg", "[ system ]\nmaxtotaldirsize = 1234\n");
  EXPECT_EQ(RunProbe(prefix + "/bin/porvane")["maxTotalDirSize"], "1234");

  // Inside a host: the host's private library folder; no configuration
  // there yet, so the default.
  auto hosted = RunProbe(prefix + "/bin/hostapp");
  EXPECT_EQ(hosted["status"], "0");
  EXPECT_EQ(hosted["container"], prefix + "/lib/hostapp");
  EXPECT_EQ(hosted["executable"], prefix + "/lib/hostapp/porvane/bin/porvane");
  EXPECT_EQ(hosted["config"], prefix + "/lib/hostapp/porvane/share/porvane/Porvane.cfg");
  EXPECT_EQ(hosted["maxTotalDirSize"], "500000");

  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(prefix + "/lib/hostapp/porvane/share/porvane"));
  WriteFile(prefix + "/lib/hostapp/porvane/share/porvane/Porvane.cfg", "[System]\nMaxTotalDirSize=777\n");
  EXPECT_EQ(RunProbe(prefix + "/bin/hostapp")["maxTotalDirSize"], "777");
}

}  // namespace
