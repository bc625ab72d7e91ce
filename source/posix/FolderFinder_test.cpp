#include "FolderFinder.h"

#include <gtest/gtest.h>

#include "PrivateHome.h"

// The special folders inFirst to inLast, each followed by a space; "<failed>" for a failed look-up.
static std::string Folders(int inFirst, int inLast) {
  std::string text, path;
  for (int id = inFirst; id <= inLast; ++id) text += (FindSpecialFolder(id, path, false) ? path : "<failed>") + " ";
  return text;
}

TEST(FolderFinder, SpecialFoldersFollowTheVariablesElseTheirDefaults) {
  PrivateHome home;
  std::string r = home.Root(), h = home / "home", library;
  EXPECT_EQ(Folders(0, 12), r + "/run " + r + "/tmp " + h + "/Desktop " + h + "/Documents " + r + "/cache " + r +
                                "/config " + r + "/data /var/lib /var/lib /usr/local/share/fonts /usr /usr/bin / ");
  EXPECT_TRUE(FindLibraryFolder(library, false) && library == r + "/state") << library;
  // Desktop and Documents from user-dirs.dirs: quoted with escapes and $HOME, or bare with backslashes; a comment,
  // a value that is no absolute path and text after $HOME other than "/" leave the default.
  const std::pair<std::string, std::string> kDesktops[] = {{"\"$HOME/My \\\"Desk\\\"\"", h + "/My \"Desk\""},
      {"/srv/a\\ b/\\", "/srv/a b/\\"}, {"\"$HOMEX/d\"", h + "/Desktop"}, {"\"d\"", h + "/Desktop"}};
  for (const auto& [dirs, desktop] : kDesktops) {
    WriteFile(home / "config/user-dirs.dirs", "XDG_DESKTOP_DIR=" + dirs + "\n#XDG_DOCUMENTS_DIR=/x\n XDG_DOCUMENTS_DIR=/");
    EXPECT_EQ(Folders(2, 3), desktop + " / ") << dirs;
  }
  // Unset and relative values count as not set.
  for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CACHE_HOME", "XDG_STATE_HOME"}) home.Set(name, std::nullopt);
  for (const char* name : {"TMPDIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) home.Set(name, "relative");
  EXPECT_EQ(Folders(0, 6), "/tmp /tmp " + h + "/Desktop " + h + "/Documents " + h + "/.cache " + h + "/.config " + h +
                               "/.local/share ");
  EXPECT_TRUE(FindLibraryFolder(library, false) && library == h + "/.local/state") << library;
  EXPECT_NE(access((h + "/.cache").c_str(), F_OK), 0) << "looked up, not made";
}
