#include "SystemUtilsPosix.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "FolderFinder.h"
#include "PrivateUserFolders.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace {

bool Exists(const std::string& inPath) {
  struct stat info;
  return ::stat(inPath.c_str(), &info) == 0;
}

// Waits (at most 20 s, to catch a hang rather than to time anything) for a
// file that a detached program writes, and returns its content.
std::string WaitForFile(const std::string& inPath) {
  for (int i = 0; i < 400 && !Exists(inPath); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return Exists(inPath) ? ReadFile(inPath) : "<never written>";
}

// An executable script (after inFirstLine) that writes inMessage to inTarget
// in one step, so that a reader never sees half of it.
void WriteScript(const std::string& inPath, const std::string& inFirstLine, const std::string& inMessage,
                 const std::string& inTarget) {
  WriteFile(inPath, inFirstLine + "printf '%s\\n' \"" + inMessage + "\" > \"" + inTarget + ".part\" && /bin/mv \"" +
                        inTarget + ".part\" \"" + inTarget + "\"\n");
  ASSERT_EQ(0, ::chmod(inPath.c_str(), 0755));
}

}  // namespace

TEST(SystemUtils, EnvironmentVariables) {
  const std::string name = "PORVANE_SYSTEM_TEST_VARIABLE";
  ScopedEnvironmentVariable restore(name, std::nullopt);
  std::string value = "untouched";
  EXPECT_FALSE(GetEnvironmentVariable(name, value));
  EXPECT_EQ("untouched", value);
  EXPECT_TRUE(SetEnvironmentVariable(name, ""));
  EXPECT_TRUE(GetEnvironmentVariable(name, value));
  EXPECT_EQ("", value);
  EXPECT_FALSE(SetEnvironmentVariable("", "v"));
  EXPECT_FALSE(SetEnvironmentVariable("A=B", "v"));
}

TEST(SystemUtils, LaunchApplication) {
  TempDir dir("porvane-launch");
  ScopedEnvironment environment;
  environment.Unset("PORVANE_LAUNCH_VALUE");
  environment.Unset("PORVANE_LAUNCH_TARGET");
  // Not a file: the text is a command line, run by the shell to its end.
  EXPECT_TRUE(LaunchApplication("echo hi > " + (dir / "shell.txt"), {}));
  EXPECT_EQ("hi\n", ReadFile(dir / "shell.txt"));
  EXPECT_FALSE(LaunchApplication("exit 3", {}));

  // A real program, started detached with the extra environment.
  WriteScript(dir / "tool", "#!/bin/sh\n", "$PORVANE_LAUNCH_VALUE", "$PORVANE_LAUNCH_TARGET");
  ASSERT_TRUE(LaunchApplication(dir / "tool", {{"PORVANE_LAUNCH_VALUE", "from the launcher"},
                                               {"PORVANE_LAUNCH_TARGET", dir / "tool.txt"}}));
  EXPECT_EQ("from the launcher\n", WaitForFile(dir / "tool.txt"));

  // No "#!" line: exec refuses it and the shell runs it. The quote in the
  // folder name takes the quoting through a real shell.
  const std::string folder = dir / "it's here";
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  WriteScript(folder + "/tool", "", "by the shell", dir / "fallback.txt");
  EXPECT_TRUE(LaunchApplication(folder + "/tool", {}));
  EXPECT_EQ("by the shell\n", WaitForFile(dir / "fallback.txt"));

  // Launched programs are nobody's child here: no zombie can be left.
  errno = 0;
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST(SystemUtils, ShellLaunchCommandQuoting) {
  EXPECT_EQ("'/opt/tool' &", BuildShellLaunchCommand("/opt/tool"));
  EXPECT_EQ("'/opt/it'\\''s/tool' &", BuildShellLaunchCommand("/opt/it's/tool"));
  // Each insertion pushes the rest on, but the walk still stops at the
  // original length: later quotes past that point stay unescaped.
  EXPECT_EQ("'x'\\''y'z' &", BuildShellLaunchCommand("x'y'z"));
  EXPECT_EQ("''\\''''' &", BuildShellLaunchCommand("'''"));
}

TEST(SystemUtils, OpenURLStartsXdgOpen) {
  for (const char* bad : {"", "has space", "-option", "new\nline", "\xff\xfe"}) EXPECT_FALSE(OpenURL(bad)) << bad;
  TempDir dir("porvane-open");
  // A stand-in for the desktop's xdg-open that records what it was asked.
  WriteScript(dir / "xdg-open", "#!/bin/sh\n", "$*", dir / "opened.txt");
  ScopedEnvironmentVariable path("PATH", dir.Path() + ":/usr/bin:/bin");
  EXPECT_TRUE(OpenURL("https://example.org/a?b=c&d=%20"));
  EXPECT_EQ("https://example.org/a?b=c&d=%20\n", WaitForFile(dir / "opened.txt"));
}

TEST(SystemUtils, RestartMarkerAndLoginItems) {
  PrivateUserFolders folders;
  EXPECT_TRUE(HasRestartedSinceMarker("never marked"));
  ASSERT_TRUE(SetRestartMarker("abc"));
  EXPECT_FALSE(HasRestartedSinceMarker("abc"));
  const std::string marker = folders.Runtime() + "/Tarvo/Kestrane/RebootCheck/900150983cd24fb0d6963f7d28e17f72";
  EXPECT_EQ("", ReadFile(marker));
  ASSERT_EQ(0, ::unlink(marker.c_str()));  // what a restart does
  EXPECT_TRUE(HasRestartedSinceMarker("abc"));

  // The unnamed forms use the program's bundle path as the name.
  std::string bundle;
  ASSERT_TRUE(GetMainBundlePath(bundle));
  ASSERT_TRUE(SetRestartMarker());
  EXPECT_FALSE(HasRestartedSinceMarker());
  EXPECT_FALSE(HasRestartedSinceMarker(bundle));

  // Removing a login item clears its marker.
  const std::string app = "/opt/Tarvo/Kestrane";
  ASSERT_TRUE(AddToLoginItems(app, {}, false));
  ASSERT_TRUE(SetRestartMarker(app));
  EXPECT_FALSE(RemoveFromLoginItems(app, true)) << "all-users registration is not supported";
  EXPECT_FALSE(HasRestartedSinceMarker(app));
  EXPECT_TRUE(RemoveFromLoginItems(app, false));
  EXPECT_EQ("", ReadFile(folders.LoginItemsFile()));
  EXPECT_TRUE(HasRestartedSinceMarker(app));
  EXPECT_TRUE(RemoveFromLoginItems(app, false)) << "no item and no marker is still success";

  // No folder for markers: nothing is set, and a restart is assumed.
  WriteFile(folders.Root() + "/blocker", "");
  ScopedEnvironmentVariable runtime("XDG_RUNTIME_DIR", folders.Root() + "/blocker/run");
  EXPECT_FALSE(SetRestartMarker("abc"));
  EXPECT_TRUE(HasRestartedSinceMarker("abc"));
}

TEST(SystemUtilsDeathTest, UnsupportedRequestsAreProgrammingErrors) {
  PrivateUserFolders folders;
  EXPECT_DEATH(AddToLoginItems("/opt/a", {"--minimized"}, false),
               "source/posix/SystemUtilsPosix.cpp:[0-9]+: failed assertion `inParams.empty\\(\\)'");
  EXPECT_DEATH(AddToLoginItems("/opt/a", {}, true),
               "source/posix/SystemUtilsPosix.cpp:[0-9]+: failed assertion `false == inAllUsers'");
  EXPECT_DEATH(SetRestartMarker(""), "failed assertion `!inString.empty\\(\\)'");
}

// Never the real system bus: the private address is checked before the call.
TEST(SystemUtils, RequestRestartWithoutLogind) {
  TempDir dir("porvane-bus");
  const std::string nothing = "unix:path=" + dir.Path() + "/none";
  ScopedEnvironmentVariable address("DBUS_SYSTEM_BUS_ADDRESS", nothing);
  ASSERT_EQ(nothing, std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(RequestRestart());
  EXPECT_EQ("Error in AECreateDesc: " + std::to_string(-ENOENT) + "\n", testing::internal::GetCapturedStderr());
}

TEST(SystemUtils, VersionTexts) {
  EXPECT_EQ("10.3.9", FormatBCDVersion(0x1039));
  EXPECT_EQ("9.2.2", FormatBCDVersion(0x0922));
  EXPECT_EQ("10.4.9", FormatBCDVersion(0xFFFF1049)) << "only the low 16 bits count";
  const std::pair<const char*, const char*> kReleases[] = {
      {"6.1.0-18-amd64", "6.1.0"}, {"5.15", "5.15.0"}, {"6.8-rc1", "6.8.0"}, {"3.x.1", "3.0.0"}, {"linux-6.1", ""}};
  for (const auto& [release, text] : kReleases) EXPECT_EQ(text, FormatKernelRelease(release)) << release;
  EXPECT_NE("", GetSystemVersionString());
}
