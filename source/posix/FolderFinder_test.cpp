#include "source/posix/FolderFinder.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <string>

#include "source/FileSystemUtils.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TempDir.h"

namespace {

const char* const kXdgVariables[] = {"XDG_RUNTIME_DIR", "TMPDIR",          "XDG_CACHE_HOME", "XDG_CONFIG_HOME",
                                     "XDG_DATA_HOME",   "XDG_STATE_HOME", "HOME"};

std::string Find(int inId, bool inCreate = false) {
  std::string path = "untouched";
  EXPECT_TRUE(FindSpecialFolder(inId, path, inCreate)) << inId;
  return path;
}

TEST(FolderFinderTest, VariablesNameTheFolders) {
  TempDir dir("folders-set");
  ScopedEnvironment env;
  env.Set("XDG_RUNTIME_DIR", dir / "run");
  env.Set("TMPDIR", dir / "tmp");
  env.Set("XDG_CACHE_HOME", dir / "cache");
  env.Set("XDG_CONFIG_HOME", dir / "config");
  env.Set("XDG_DATA_HOME", dir / "data 'x'");
  env.Set("XDG_STATE_HOME", dir / "state");
  env.Set("HOME", dir / "home");

  EXPECT_EQ(Find(0), dir / "run");
  EXPECT_EQ(Find(1), dir / "tmp");
  EXPECT_EQ(Find(2), dir / "home/Desktop");
  EXPECT_EQ(Find(3), dir / "home/Documents");
  EXPECT_EQ(Find(4), dir / "cache");
  EXPECT_EQ(Find(5), dir / "config");
  EXPECT_EQ(Find(6), dir / "data 'x'");
  EXPECT_EQ(Find(7), "/var/lib");
  EXPECT_EQ(Find(8), "/var/lib");
  EXPECT_EQ(Find(9), "/usr/local/share/fonts");
  EXPECT_EQ(Find(10), "/usr");
  EXPECT_EQ(Find(11), "/usr/bin");
  EXPECT_EQ(Find(12), "/");
  std::string library;
  EXPECT_TRUE(FindLibraryFolder(library, false));
  EXPECT_EQ(library, dir / "state");
  // Looking up creates nothing unless asked to.
  EXPECT_FALSE(FileSystemUtils::PathExists(dir / "data 'x'"));
  EXPECT_FALSE(FileSystemUtils::PathExists(dir / "state"));

  // Asked to, the folder is made with its parents.
  env.Set("XDG_DATA_HOME", dir / "deep/er/data");
  EXPECT_EQ(Find(6, true), dir / "deep/er/data");
  EXPECT_TRUE(FileSystemUtils::PathExists(dir / "deep/er/data"));
  EXPECT_TRUE(FindLibraryFolder(library, true));
  EXPECT_TRUE(FileSystemUtils::PathExists(dir / "state"));

  // A folder that cannot be made is a failed look-up, leaving the path.
  WriteFile(dir / "file", "x");
  env.Set("XDG_CACHE_HOME", dir / "file/cache");
  std::string path = "untouched";
  EXPECT_FALSE(FindSpecialFolder(4, path, true));
  EXPECT_EQ(path, "untouched");
  env.Set("XDG_STATE_HOME", dir / "file/state");
  library = "untouched";
  EXPECT_FALSE(FindLibraryFolder(library, true));
  EXPECT_EQ(library, "untouched");
}

TEST(FolderFinderTest, DefaultsUnderTheHomeFolder) {
  TempDir dir("folders-default");
  ScopedEnvironment env;
  for (const char* name : kXdgVariables) env.Unset(name);
  env.Set("HOME", dir / "home");
  env.Set("XDG_DATA_HOME", "relative/data");  // relative values do not count

  EXPECT_EQ(Find(0), "/tmp");
  EXPECT_EQ(Find(1), "/tmp");
  EXPECT_EQ(Find(4), dir / "home/.cache");
  EXPECT_EQ(Find(5), dir / "home/.config");
  EXPECT_EQ(Find(6), dir / "home/.local/share");
  std::string library;
  EXPECT_TRUE(FindLibraryFolder(library, false));
  EXPECT_EQ(library, dir / "home/.local/state");

  // Without HOME the password database names the home folder.
  env.Unset("HOME");
  const passwd* entry = ::getpwuid(::geteuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(Find(5), FileSystemUtils::AppendPath(entry->pw_dir, ".config"));
}

TEST(FolderFinderTest, UserDirsFileNamesDesktopAndDocuments) {
  TempDir dir("folders-userdirs");
  ScopedEnvironment env;
  env.Set("HOME", dir / "home");
  env.Set("XDG_CONFIG_HOME", dir / "config");
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(dir / "config"));
  WriteFile(dir / "config/user-dirs.dirs",
            "# written by xdg-user-dirs-update\n"
            "XDG_DOWNLOAD_DIR=\"$HOME/Downloads\"\n"
            "  XDG_DESKTOP_DIR=\"$HOME/My \\\"Desk\\\" \xC3\xA9\"\n"
            "XDG_DOCUMENTS_DIR=\"/srv/docs/\"\n");
  EXPECT_EQ(Find(2), dir / "home/My \"Desk\" \xC3\xA9");
  EXPECT_EQ(Find(3), "/srv/docs");

  // A relative entry is ignored; so is a missing one.
  WriteFile(dir / "config/user-dirs.dirs", "XDG_DESKTOP_DIR=\"Desk\"\n");
  EXPECT_EQ(Find(2), dir / "home/Desktop");
  EXPECT_EQ(Find(3), dir / "home/Documents");

  // "$HOME" alone is the home folder itself; an unquoted value is read too.
  WriteFile(dir / "config/user-dirs.dirs", "XDG_DESKTOP_DIR=\"$HOME/\"\nXDG_DOCUMENTS_DIR=$HOME/Docs");
  EXPECT_EQ(Find(2), dir / "home");
  EXPECT_EQ(Find(3), dir / "home/Docs");
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
  char resolved[4096];
  ASSERT_NE(::realpath(PORVANE_BINARY_DIR, resolved), nullptr);
  const std::string build = resolved;

  std::string path;
  ASSERT_TRUE(GetMainBundlePath(path));
  EXPECT_EQ(path, build);
  std::string name;
  ASSERT_TRUE(GetMainBundleName(name));
  EXPECT_EQ(name, FileSystemUtils::GetLeafName(build));
  ASSERT_TRUE(GetMainBundleParent(path));
  EXPECT_EQ(path, FileSystemUtils::GetParentPath(build));
  ASSERT_TRUE(GetMainExecutableName(name));
  EXPECT_EQ(name, "fs_test");
}

}  // namespace
