#include "SystemUtilsPosix.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "FileSystemUtils.h"
#include "PrivateHome.h"

using namespace FileSystemUtils;

TEST(SystemUtils, ShellLaunchCommandQuotesAsItAlwaysHas) {
  // The walk stops at the path's own length: quotes that insertions pushed past it stay as they are.
  const char* const kCases[][2] = {
      {"a'b", "'a'\\''b' &"}, {"x'y'z", "'x'\\''y'z' &"}, {"''abc", "''\\'''\\''abc' &"}, {"''ab", "''\\'''ab' &"}};
  for (const auto& c : kCases) EXPECT_EQ(BuildShellLaunchCommand(c[0]), c[1]) << c[0];
}

TEST(SystemUtils, RestartMarkerGoesWithTheLoginItem) {
  PrivateHome home;
  // The unnamed marker is named after this program's bundle.
  ASSERT_TRUE(AddToLoginItems("a", {}, false) && SetRestartMarker("a") && SetRestartMarker("a") && SetRestartMarker());
  EXPECT_EQ(ReadFile(home / "run/Tarvo/Kestrane/RebootCheck/0cc175b9c0f1b6a831c399e269772661"), "");  // MD5 of "a"
  EXPECT_FALSE(RemoveFromLoginItems("a", true) || HasRestartedSinceMarker("a") || HasRestartedSinceMarker());
  EXPECT_TRUE(RemoveFromLoginItems("a", false) && HasRestartedSinceMarker("a"));
  EXPECT_TRUE(RemoveFromLoginItems("a", false) && ReadFile(home / "config/loginwindow.plist").empty());
  home.Set("XDG_RUNTIME_DIR", home / "config/loginwindow.plist/run");  // no folder for markers: a restart is assumed
  EXPECT_TRUE(!SetRestartMarker("a") && HasRestartedSinceMarker("a") && !RemoveFromLoginItems("a", false));
}

TEST(SystemUtils, InASharedFolderTheRestartMarkerLivesInAFolderOfTheUsersOwnOrNowhere) {
  PrivateHome home;
  const std::string shared = home / "shared", own = shared + "/porvane-" + std::to_string(geteuid());
  ASSERT_TRUE(mkdir(shared.c_str(), 0700) == 0 && chmod(shared.c_str(), 01777) == 0);
  home.Set("XDG_RUNTIME_DIR", shared);  // as /tmp is
  ASSERT_TRUE(SetRestartMarker("a") && !HasRestartedSinceMarker("a"));
  EXPECT_EQ(ReadFile(own + "/RebootCheck/0cc175b9c0f1b6a831c399e269772661"), "");
  struct stat info, inner;
  EXPECT_TRUE(stat(own.c_str(), &info) == 0 && stat((own + "/RebootCheck").c_str(), &inner) == 0 &&
              (info.st_mode & 07777) == 0700 && (inner.st_mode & 07777) == 0700);
  // A folder there that others may enter, or a link, is not trusted: no marker, and a restart is assumed.
  chmod(own.c_str(), 0750);
  EXPECT_TRUE(!SetRestartMarker("b") && HasRestartedSinceMarker("a"));
  ASSERT_TRUE(chmod(own.c_str(), 0700) == 0 && rename(own.c_str(), (own + "x").c_str()) == 0);
  ASSERT_TRUE(symlink((own + "x").c_str(), own.c_str()) == 0);
  EXPECT_TRUE(!SetRestartMarker("b") && HasRestartedSinceMarker("a"));
}

TEST(SystemUtils, VersionTexts) {
  EXPECT_EQ(FormatBCDVersion(0x1049) + " " + FormatBCDVersion(0xFFFF2158), "10.4.9 21.5.8");  // the low 16 bits
  const char* const kReleases[][2] = {{"6.1.0-18-amd64", "6.1.0"}, {"5.15", "5.15.0"}, {"6.8-rc1", "6.8.0"},
      {"1.0.9", "1.0.9"}, {"3.x.1", "3.0.0"}, {"7.", "7.0.0"}, {"linux-6.1", ""}, {"99999999999999999999", ""}};
  for (const auto& c : kReleases) EXPECT_EQ(FormatKernelRelease(c[0]), c[1]) << c[0];
  EXPECT_NE(GetSystemVersionString(), "") << "the kernel release of uname";
}

TEST(SystemUtils, ProgramsAreLaunchedAndOpenedAndFoundByTheirExecutable) {
  PrivateHome home;  // and a stand-in xdg-open: no desktop session runs here
  WriteFile(home / "tool", "#!/bin/sh\necho ok > \"$TMPDIR/out\"\n");
  WriteFile(home / "xdg-open", "#!/bin/sh\necho \"$1\" >>\"$0.log\"\nexit \"$(cat \"$0.status\")\"\n");
  // A path that names no file is a shell command line, run to its end; then the program is started on its own, with
  // the extra environment, which stays set here too.
  ASSERT_TRUE(LaunchApplication("chmod 755 " + (home / "tool") + " " + (home / "xdg-open"), {}));
  EXPECT_FALSE(LaunchApplication("exit 3", {}));
  ASSERT_TRUE(LaunchApplication(home / "tool", {{"TMPDIR", home.Root()}}));  // PrivateHome puts it back
  std::string text;
  EXPECT_TRUE(Eventually([&] { return ReadWholeFile(home / "out", text) == ReadStatus::kComplete && text == "ok\n"; }));
  EXPECT_TRUE(GetEnvironmentVariable("TMPDIR", text) && text == home.Root());
  EXPECT_TRUE(SetEnvironmentVariable("TMPDIR", "") && GetEnvironmentVariable("TMPDIR", text) && text.empty());

  home.Set("PATH", home.Root() + ":/usr/bin:/bin");
  for (const char* status : {"0", "4"}) {
    WriteFile(home / "xdg-open.status", status);
    EXPECT_EQ(OpenURL("https://x.example/" + std::string(status)), *status == '0');
  }
  EXPECT_EQ(ReadFile(home / "xdg-open.log"), "https://x.example/0\nhttps://x.example/4\n");

  ASSERT_TRUE(LaunchApplication("cp /bin/sleep " + (home / "napper"), {}));
  ChildProcess napper({home / "napper", "60"}, {}, home / "tmp/napper");
  pid_t found = 0;
  EXPECT_TRUE(Eventually([&] { return FindProcessByBundleLocation(home / "napper", found) && found == napper.Pid(); }));
  EXPECT_FALSE(FindProcessByBundleLocation(home / "xdg-open.log", found));
  // The loop returns, and not before its time.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(RunEventLoopFor(0.3));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}
