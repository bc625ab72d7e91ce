#include "source/posix/SystemUtilsPosix.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <thread>

#include "source/MD5Hash.h"
#include "source/posix/FolderFinder.h"
#include "source/posix/LoginWindowPList.h"
#include "source/posix/testdata/PrivateUserFolders.h"
#include "tests/support/TempDir.h"

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

void WriteExecutable(const std::string& inPath, const std::string& inContent) {
  WriteFile(inPath, inContent);
  ASSERT_EQ(0, ::chmod(inPath.c_str(), 0755));
}

// A script that writes its "message" to its "target" in one step, so that a
// reader never sees half of it.
std::string WriterScript(const std::string& inMessage, const std::string& inTarget) {
  return "printf '%s\\n' \"" + inMessage + "\" > \"" + inTarget + ".part\" && /bin/mv \"" + inTarget + ".part\" \"" +
         inTarget + "\"\n";
}

std::string HexMD5(const std::string& inText) {
  MD5Digest digest;
  digest.update(inText.begin(), inText.end());
  std::string bytes;
  std::string hex;
  digest.finish(std::back_inserter(bytes), hex);
  return hex;
}

}  // namespace

TEST(SystemUtils, PlatformNames) {
  EXPECT_EQ("Linux", GetPlatformName());
  std::string name = "x";
  EXPECT_TRUE(GetPlatformShortName(name));
  EXPECT_EQ("linux", name);
}

TEST(SystemUtils, EnvironmentVariables) {
  const std::string name = "PORVANE_SYSTEM_TEST_VARIABLE";
  ScopedEnvironmentVariable restore(name, std::nullopt);
  std::string value = "untouched";
  EXPECT_FALSE(GetEnvironmentVariable(name, value));
  EXPECT_EQ("untouched", value);

  EXPECT_TRUE(SetEnvironmentVariable(name, ""));
  EXPECT_TRUE(GetEnvironmentVariable(name, value));
  EXPECT_EQ("", value);

  EXPECT_TRUE(SetEnvironmentVariable(name, "first"));
  EXPECT_TRUE(SetEnvironmentVariable(name, "second"));  // overwrites
  EXPECT_TRUE(GetEnvironmentVariable(name, value));
  EXPECT_EQ("second", value);

  EXPECT_FALSE(SetEnvironmentVariable("", "v"));
  EXPECT_FALSE(SetEnvironmentVariable("A=B", "v"));
}

TEST(SystemUtils, LaunchRunsANonFileThroughTheShell) {
  TempDir dir("porvane-launch");
  const std::string output = dir / "out.txt";
  ScopedEnvironmentVariable restore("PORVANE_LAUNCH_EXTRA", std::nullopt);
  EXPECT_TRUE(LaunchApplication("echo hi > " + output, {{"PORVANE_LAUNCH_EXTRA", "set"}}));
  EXPECT_EQ("hi\n", ReadFile(output));  // system() has finished with it already
  std::string value;
  EXPECT_TRUE(GetEnvironmentVariable("PORVANE_LAUNCH_EXTRA", value));
  EXPECT_EQ("set", value);

  EXPECT_FALSE(LaunchApplication("exit 3", {}));
  EXPECT_FALSE(LaunchApplication(dir / "no-such-program", {}));  // the shell answers 127
}

TEST(SystemUtils, LaunchStartsAnExecutableDetachedWithItsEnvironment) {
  TempDir dir("porvane-launch");
  const std::string script = dir / "tool";
  const std::string output = dir / "out.txt";
  WriteExecutable(script, "#!/bin/sh\n" + WriterScript("$PORVANE_LAUNCH_VALUE", "$PORVANE_LAUNCH_TARGET"));
  ScopedEnvironmentVariable value("PORVANE_LAUNCH_VALUE", std::nullopt);
  ScopedEnvironmentVariable target("PORVANE_LAUNCH_TARGET", std::nullopt);

  ASSERT_TRUE(LaunchApplication(script, {{"PORVANE_LAUNCH_VALUE", "from the launcher"},
                                         {"PORVANE_LAUNCH_TARGET", output}}));
  // The program is nobody's child here: the intermediate process has been
  // reaped and the program belongs to init, so no zombie can be left.
  errno = 0;
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
  EXPECT_EQ("from the launcher\n", WaitForFile(output));
}

TEST(SystemUtils, LaunchFallsBackToTheShellWhenExecFails) {
  TempDir dir("porvane-launch");
  // No "#!" line: exec refuses it (ENOEXEC), the shell runs it as a script.
  // The quote in the folder name exercises the quoting on a real shell.
  const std::string folder = dir / "it's here";
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  const std::string output = dir / "out.txt";
  WriteExecutable(folder + "/tool", WriterScript("by the shell", output));
  EXPECT_TRUE(LaunchApplication(folder + "/tool", {}));
  EXPECT_EQ("by the shell\n", WaitForFile(output));
}

TEST(SystemUtils, ShellLaunchCommandQuoting) {
  EXPECT_EQ("'/opt/tool' &", BuildShellLaunchCommand("/opt/tool"));
  EXPECT_EQ("'' &", BuildShellLaunchCommand(""));
  EXPECT_EQ("'/opt/it'\\''s/tool' &", BuildShellLaunchCommand("/opt/it's/tool"));
  // Each insertion pushes the rest three places on, but the walk still stops
  // at the original length: later quotes past that point stay unescaped.
  EXPECT_EQ("'x'\\''y'z' &", BuildShellLaunchCommand("x'y'z"));
  EXPECT_EQ("''\\''''' &", BuildShellLaunchCommand("'''"));  // only the first of three
  EXPECT_EQ("'/a/b'\\''c/d'\\''e/f'g' &", BuildShellLaunchCommand("/a/b'c/d'e/f'g"));
}

TEST(SystemUtils, OpenURL) {
  for (const char* bad : {"", "has space", "-option", "tab\there", "\xff\xfe", "new\nline"}) {
    EXPECT_FALSE(OpenURL(bad)) << bad;
  }

  TempDir dir("porvane-open");
  const std::string empty = dir / "empty";
  ASSERT_EQ(0, ::mkdir(empty.c_str(), 0755));
  {
    ScopedEnvironmentVariable path("PATH", empty);
    EXPECT_FALSE(OpenURL("https://example.org/")) << "no xdg-open to start";
  }

  // A stand-in for the desktop's xdg-open that records what it was asked.
  const std::string bin = dir / "bin";
  const std::string output = dir / "opened.txt";
  ASSERT_EQ(0, ::mkdir(bin.c_str(), 0755));
  WriteExecutable(bin + "/xdg-open", "#!/bin/sh\n" + WriterScript("$*", output));
  ScopedEnvironmentVariable path("PATH", bin + ":/usr/bin:/bin");
  EXPECT_TRUE(OpenURL("https://example.org/a?b=c&d=%20"));
  EXPECT_EQ("https://example.org/a?b=c&d=%20\n", WaitForFile(output));
}

TEST(SystemUtils, RestartMarker) {
  PrivateUserFolders folders;
  EXPECT_TRUE(HasRestartedSinceMarker("never marked"));

  ASSERT_TRUE(SetRestartMarker("abc"));
  EXPECT_FALSE(HasRestartedSinceMarker("abc"));
  EXPECT_TRUE(HasRestartedSinceMarker("abd"));
  const std::string marker = folders.Runtime() + "/Tarvo/Kestrane/RebootCheck/900150983cd24fb0d6963f7d28e17f72";
  EXPECT_EQ("", ReadFile(marker));
  EXPECT_TRUE(SetRestartMarker("abc")) << "an existing marker is success";

  // What a restart does: the marker is gone.
  ASSERT_EQ(0, ::unlink(marker.c_str()));
  EXPECT_TRUE(HasRestartedSinceMarker("abc"));

  // The unnamed forms use the program's bundle path as the name.
  std::string bundle;
  ASSERT_TRUE(GetMainBundlePath(bundle));
  ASSERT_TRUE(SetRestartMarker());
  EXPECT_FALSE(HasRestartedSinceMarker());
  EXPECT_TRUE(Exists(folders.Runtime() + "/Tarvo/Kestrane/RebootCheck/" + HexMD5(bundle)));
}

TEST(SystemUtils, RestartMarkerWithoutAFolder) {
  PrivateUserFolders folders;
  WriteFile(folders.Root() + "/blocker", "");
  ScopedEnvironmentVariable runtime("XDG_RUNTIME_DIR", folders.Root() + "/blocker/run");
  EXPECT_FALSE(SetRestartMarker("abc"));
  EXPECT_TRUE(HasRestartedSinceMarker("abc"));
}

TEST(SystemUtils, LoginItemsAndTheirMarker) {
  PrivateUserFolders folders;
  const std::string app = "/opt/Tarvo/Kestrane";
  ASSERT_TRUE(AddToLoginItems(app, {}, false));
  ASSERT_TRUE(SetRestartMarker(app));

  EXPECT_FALSE(RemoveFromLoginItems(app, true)) << "all-users registration is not supported";
  EXPECT_FALSE(HasRestartedSinceMarker(app));
  EXPECT_NE("", ReadFile(folders.LoginItemsFile()));

  EXPECT_TRUE(RemoveFromLoginItems(app, false));
  EXPECT_EQ("", ReadFile(folders.LoginItemsFile()));
  EXPECT_TRUE(HasRestartedSinceMarker(app)) << "removing the item clears its marker";
  EXPECT_TRUE(RemoveFromLoginItems(app, false)) << "no item and no marker is still success";

  WriteFile(folders.LoginItemsFile(), "not a property list");
  EXPECT_FALSE(RemoveFromLoginItems(app, false));
}

TEST(SystemUtilsDeathTest, LoginItemsRejectUnsupportedRequests) {
  PrivateUserFolders folders;
  EXPECT_DEATH(AddToLoginItems("/opt/a", {"--minimized"}, false),
               "source/posix/SystemUtilsPosix.cpp:[0-9]+: failed assertion `inParams.empty\\(\\)'");
  EXPECT_DEATH(AddToLoginItems("/opt/a", {}, true),
               "source/posix/SystemUtilsPosix.cpp:[0-9]+: failed assertion `false == inAllUsers'");
  EXPECT_DEATH(SetRestartMarker(""), "failed assertion `!inString.empty\\(\\)'");
}

TEST(SystemUtils, RequestRestartWithoutABus) {
  TempDir dir("porvane-bus");
  // Never the real system bus: the address names a socket that is not there.
  ScopedEnvironmentVariable address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir.Path() + "/none");
  ASSERT_EQ("unix:path=" + dir.Path() + "/none", std::string(std::getenv("DBUS_SYSTEM_BUS_ADDRESS")));
  testing::internal::CaptureStderr();
  const bool restarted = RequestRestart();
  const std::string messages = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(restarted);
  EXPECT_EQ("Error in AECreateDesc: " + std::to_string(-ENOENT) + "\n", messages);
}

TEST(SystemUtils, RequestRestartWhenTheBusHangsUp) {
  TempDir dir("porvane-bus");
  const std::string socketPath = dir / "bus";
  // A "bus" that takes the connection and closes it at once: no logind, no
  // machine to restart.
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, ::listen(listener, 1));
  std::thread hangUp([listener] {
    const int connection = ::accept(listener, nullptr, nullptr);
    if (connection >= 0) ::close(connection);
  });

  ScopedEnvironmentVariable bus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + socketPath);
  ASSERT_EQ("unix:path=" + socketPath, std::string(std::getenv("DBUS_SYSTEM_BUS_ADDRESS")));
  testing::internal::CaptureStderr();
  const bool restarted = RequestRestart();
  const std::string messages = testing::internal::GetCapturedStderr();
  hangUp.join();
  ::close(listener);
  EXPECT_FALSE(restarted);
  // The number is whatever sd-bus makes of the hang-up (ENOTCONN here); the
  // words and the form are fixed.
  EXPECT_THAT(messages, testing::MatchesRegex("Error sending reboot to LoginWindow: -[0-9]+\n"));
}

TEST(SystemUtils, VersionTexts) {
  EXPECT_EQ("10.3.9", FormatBCDVersion(0x1039));
  EXPECT_EQ("10.4.9", FormatBCDVersion(0x1049));
  EXPECT_EQ("10.0.0", FormatBCDVersion(0x1000));
  EXPECT_EQ("9.2.2", FormatBCDVersion(0x0922));
  EXPECT_EQ("10.4.9", FormatBCDVersion(0xFFFF1049)) << "only the low 16 bits count";

  EXPECT_EQ("6.1.0", FormatKernelRelease("6.1.0-18-amd64"));
  EXPECT_EQ("5.15.0", FormatKernelRelease("5.15"));
  EXPECT_EQ("6.8.0", FormatKernelRelease("6.8-rc1"));
  EXPECT_EQ("4.0.0", FormatKernelRelease("4"));
  EXPECT_EQ("4.19.123", FormatKernelRelease("4.19.123.4"));
  EXPECT_EQ("3.0.0", FormatKernelRelease("3.x.1"));
  EXPECT_EQ("", FormatKernelRelease("linux-6.1"));
  EXPECT_EQ("", FormatKernelRelease(""));
  EXPECT_EQ("", FormatKernelRelease("99999999999999999999999.1.2"));

  struct utsname names;
  ASSERT_EQ(0, ::uname(&names));
  unsigned major = 0, minor = 0, patch = 0;
  ASSERT_GE(std::sscanf(names.release, "%u.%u.%u", &major, &minor, &patch), 1) << names.release;
  EXPECT_EQ(std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch),
            GetSystemVersionString());
}
