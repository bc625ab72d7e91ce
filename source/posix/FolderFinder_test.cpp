#include "FolderFinder.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "FileSystemUtils.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace {

std::string Find(int inId, bool inCreate = false) {
  std::string path = "untouched";
  EXPECT_TRUE(FindSpecialFolder(inId, path, inCreate)) << inId;
  return path;
}

TEST(FolderFinderTest, VariablesAndUserDirsNameTheFolders) {
  TempDir dir("folders-set");
  ScopedEnvironment env;
  env.Set("XDG_RUNTIME_DIR", dir / "run");
  env.Set("TMPDIR", dir / "tmp");
  env.Set("XDG_CACHE_HOME", dir / "cache");
  env.Set("XDG_CONFIG_HOME", dir.Path());
  env.Set("XDG_DATA_HOME", dir / "data 'x'/share");
  env.Set("XDG_STATE_HOME", dir / "state");
  env.Set("HOME", dir / "home");
  const std::string expected[] = {dir / "run", dir / "tmp", dir / "home/Desktop", dir / "home/Documents",
                                  dir / "cache", dir.Path(), dir / "data 'x'/share", "/var/lib", "/var/lib",
                                  "/usr/local/share/fonts", "/usr", "/usr/bin", "/"};
  for (int id = 0; id < 13; ++id) EXPECT_EQ(Find(id), expected[id]) << id;
  std::string library;
  EXPECT_TRUE(FindLibraryFolder(library, false));
  EXPECT_EQ(library, dir / "state");
  // Looking up creates nothing unless asked to; asked to, parents are made.
  EXPECT_FALSE(FileSystemUtils::PathExists(dir / "data 'x'"));
  EXPECT_EQ(Find(6, true), dir / "data 'x'/share");
  EXPECT_TRUE(FileSystemUtils::PathExists(dir / "data 'x'/share"));

  // user-dirs.dirs names Desktop and Documents; a relative entry is ignored.
  WriteFile(dir / "user-dirs.dirs",
            "# written by xdg-user-dirs-update\n"
            "  XDG_DESKTOP_DIR=\"$HOME/My \\\"Desk\\\" \xC3\xA9\"\n"
            "XDG_DOCUMENTS_DIR=\"/srv/docs/\"\n");
  EXPECT_EQ(Find(2), dir / "home/My \"Desk\" \xC3\xA9");
  EXPECT_EQ(Find(3), "/srv/docs");
  WriteFile(dir / "user-dirs.dirs", "XDG_DESKTOP_DIR=\"Desk\"\n");
  EXPECT_EQ(Find(2), dir / "home/Desktop");

  // A folder that cannot be made (below a file) is a failed look-up, leaving
  // the path.
  env.Set("XDG_CACHE_HOME", dir / "user-dirs.dirs/cache");
  std::string path = "untouched";
  EXPECT_TRUE(!FindSpecialFolder(4, path, true) && path == "untouched") << path;
}

TEST(FolderFinderTest, DefaultsUnderTheHomeFolder) {
  TempDir dir("folders-default");
  ScopedEnvironment env;
  for (const char* name : {"XDG_RUNTIME_DIR", "TMPDIR", "XDG_CACHE_HOME", "XDG_STATE_HOME"}) env.Unset(name);
  env.Set("HOME", dir / "home");
  env.Set("XDG_DATA_HOME", "relative/data");  // relative values do not count
  EXPECT_EQ(Find(0), "/tmp");
  EXPECT_EQ(Find(1), "/tmp");
  EXPECT_EQ(Find(4), dir / "home/.cache");
  EXPECT_EQ(Find(6), dir / "home/.local/share");
  std::string library;
  EXPECT_TRUE(FindLibraryFolder(library, false));
  EXPECT_EQ(library, dir / "home/.local/state");
  // Without HOME the password database names the home folder.
  env.Unset("HOME");
  env.Unset("XDG_CONFIG_HOME");
  const passwd* entry = ::getpwuid(::geteuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(Find(5), FileSystemUtils::AppendPath(entry->pw_dir, ".config"));
}

TEST(FolderFinderDeathTest, UnknownIdIsAnAssertion) {
  std::string path;
  EXPECT_DEATH(FindSpecialFolder(13, path, false),
               "^source/posix/FolderFinder\\.cpp:[0-9]+: failed assertion `!\"Invalid FolderID\"'\n$");
  EXPECT_DEATH(FindSpecialFolder(-1, path, false), "failed assertion `!\"Invalid FolderID\"'");
}

TEST(FolderFinderTest, MainBundleIsTheExecutablesPrefix) {
  // This test program lives in <build>/test, so its "bundle" is the build
  // folder.
  const std::string build = std::filesystem::canonical(PORVANE_BINARY_DIR);
  std::string path, name;
  EXPECT_TRUE(GetMainBundlePath(path) && path == build) << path;
  EXPECT_TRUE(GetMainBundleName(name) && name == FileSystemUtils::GetLeafName(build)) << name;
  EXPECT_TRUE(GetMainBundleParent(path) && path == FileSystemUtils::GetParentPath(build)) << path;
  EXPECT_TRUE(GetMainExecutableName(name) && name == "support_test") << name;
}

}  // namespace
