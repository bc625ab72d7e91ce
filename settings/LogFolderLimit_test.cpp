#include "settings/LogFolderLimit.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace {

// The installation settings this test binary reads: it runs inside a host
// (its name is not "porvane"), so they lie in
// <build>/lib/<binary name>/porvane/share/porvane/Porvane.cfg. Several test
// processes share that file, so each holds an exclusive lock on a file beside
// it for as long as its own content is in place, and removes it afterwards.
class InstallConfig {
 public:
  explicit InstallConfig(const std::string& inMaxTotalDirSize) {
    const fs::path exe = fs::read_symlink("/proc/self/exe");
    const fs::path container = exe.parent_path().parent_path() / "lib" / exe.filename();
    fs::create_directories(container / "porvane/share/porvane");
    mLock = open((container.native() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(mLock, 0);
    while (flock(mLock, LOCK_EX) != 0 && errno == EINTR) {
    }
    mPath = (container / "porvane/share/porvane/Porvane.cfg").native();
    WriteFile(mPath, "[System]\nMaxTotalDirSize=" + inMaxTotalDirSize + "\n");
  }
  ~InstallConfig() {
    std::error_code ignored;
    fs::remove(mPath, ignored);
    if (mLock >= 0) close(mLock);
  }
  InstallConfig(const InstallConfig&) = delete;
  InstallConfig& operator=(const InstallConfig&) = delete;

 private:
  int mLock = -1;
  std::string mPath;
};

// A private home: the log folder is $XDG_STATE_HOME/Logs/Tarvo/Porvane.
class LogFolderLimitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("HOME", mHome.Path().c_str(), 1);
    setenv("XDG_STATE_HOME", (mHome / "state").c_str(), 1);
    setenv("XDG_DATA_HOME", (mHome / "data").c_str(), 1);
    mLogFolder = mHome / "state/Logs/Tarvo/Porvane";
    fs::create_directories(mLogFolder);
    fs::create_directories(mHome / "data/Tarvo/Porvane");
  }

  // A file of inBytes bytes whose modification time is inAgeSeconds before now.
  std::string AddFile(const std::string& inName, size_t inBytes, int inAgeSeconds = 0) {
    const std::string sPath = mLogFolder + "/" + inName;
    WriteFile(sPath, std::string(inBytes, 'x'));
    fs::last_write_time(sPath, fs::file_time_type::clock::now() - std::chrono::seconds(inAgeSeconds));
    return sPath;
  }

  // The names of the log folder's direct children, in directory order.
  std::vector<std::string> Listing() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(mLogFolder)) names.push_back(entry.path().filename());
    return names;
  }

  bool Exists(const std::string& inName) const { return fs::exists(mLogFolder + "/" + inName); }

  TempDir mHome{"limit"};
  std::string mLogFolder;
};

// The text of the exception inCall throws, for the messages that repeat it.
std::string WhatOf(const std::function<void()>& inCall) {
  try {
    inCall();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "(nothing thrown)";
}

// Runs inCheck in a child process as the unprivileged user 65534 with its
// standard output in inOutputFile; returns the child's exit status.
int RunAsNobody(const std::string& inOutputFile, const std::function<int()>& inCheck) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int out = open(inOutputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out < 0 || dup2(out, STDOUT_FILENO) < 0) _exit(90);
    if (setresgid(65534, 65534, 65534) != 0 || setgroups(0, nullptr) != 0 || setresuid(65534, 65534, 65534) != 0)
      _exit(91);
    const int result = inCheck();
    fflush(nullptr);
    _exit(result);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(LogFolderLimitTest, DeletesTheOlderFileOnceAndStopsWithinTheLimit) {
  InstallConfig config("500000");
  // Unfinished files and subfolders are neither counted nor deleted, however
  // big and old they are.
  AddFile("report.tmp", 900000, 5000);
  AddFile("a.tmp.log", 900000, 5000);
  fs::create_directories(mLogFolder + "/sub");
  WriteFile(mLogFolder + "/sub/old.log", std::string(900000, 'y'));
  fs::last_write_time(mLogFolder + "/sub", fs::file_time_type::clock::now() - std::chrono::hours(10));

  for (bool olderIsBigger : {true, false}) {
    SCOPED_TRACE(olderIsBigger ? "300,000 older" : "250,000 older");
    AddFile("u1_big.log", 300000, olderIsBigger ? 100 : 0);
    AddFile("u1_small.log", 250000, olderIsBigger ? 0 : 100);
    EXPECT_EQ(GetLogFolderSize(), 550000.0);

    testing::internal::CaptureStdout();
    EXPECT_TRUE(EnforceLogFolderLimit());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    EXPECT_EQ(Exists("u1_big.log"), !olderIsBigger);
    EXPECT_EQ(Exists("u1_small.log"), olderIsBigger);
    EXPECT_EQ(GetLogFolderSize(), olderIsBigger ? 250000.0 : 300000.0);
    EXPECT_TRUE(Exists("report.tmp"));
    EXPECT_TRUE(Exists("a.tmp.log"));
    EXPECT_TRUE(Exists("sub/old.log"));
    fs::remove(mLogFolder + "/u1_big.log");
    fs::remove(mLogFolder + "/u1_small.log");
  }
}

TEST_F(LogFolderLimitTest, TotalEqualToTheLimitDeletesNothing) {
  InstallConfig config("500000");
  AddFile("a_1.log", 300000, 100);
  AddFile("a_2.log", 200000, 0);
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_TRUE(Exists("a_1.log"));
  EXPECT_TRUE(Exists("a_2.log"));
}

TEST_F(LogFolderLimitTest, LimitThatIsNoNumberDeletesEveryCountableFile) {
  InstallConfig config("abc");
  AddFile("a_1.log", 10, 300);
  AddFile("a_2.log", 20, 200);
  AddFile("b_1.log", 1, 100);
  AddFile("writing.tmp", 50, 400);
  fs::create_directories(mLogFolder + "/sub");
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_EQ(GetLogFolderSize(), 0.0);
  EXPECT_EQ(Listing().size(), 2u);
  EXPECT_TRUE(Exists("writing.tmp"));
  EXPECT_TRUE(Exists("sub"));
}

TEST_F(LogFolderLimitTest, EmptyFolderWithZeroLimitIsWithinIt) {
  InstallConfig config("0");
  EXPECT_EQ(GetLogFolderSize(), 0.0);
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_FALSE(DeleteOldestLogFile());
}

TEST_F(LogFolderLimitTest, AmongFilesOfTheSameSecondTheFirstListedGoes) {
  // All three share one second; the sub-second parts increase along the
  // listing, so only whole seconds make the first one the choice.
  const auto base = std::chrono::floor<std::chrono::seconds>(fs::file_time_type::clock::now()) - std::chrono::hours(1);
  for (const char* name : {"k_1.log", "k_2.log", "k_3.log"}) AddFile(name, 10);
  std::vector<std::string> listed = Listing();
  ASSERT_EQ(listed.size(), 3u);
  for (size_t i = 0; i < listed.size(); ++i)
    fs::last_write_time(mLogFolder + "/" + listed[i], base + std::chrono::milliseconds(100 + 300 * (2 - i)));

  EXPECT_TRUE(DeleteOldestLogFile());
  EXPECT_FALSE(Exists(listed[0]));
  EXPECT_TRUE(Exists(listed[1]));
  EXPECT_TRUE(Exists(listed[2]));

  // One whole second older wins wherever it stands in the listing.
  fs::last_write_time(mLogFolder + "/" + listed[2], base - std::chrono::seconds(1));
  EXPECT_TRUE(DeleteOldestLogFile());
  EXPECT_TRUE(Exists(listed[1]));
  EXPECT_FALSE(Exists(listed[2]));
}

TEST_F(LogFolderLimitTest, UnreadableEntryIsReportedAndSkipped) {
  InstallConfig config("15");
  AddFile("a_old.log", 10, 100);
  AddFile("a_new.log", 10, 0);
  const std::string sDangling = mLogFolder + "/dangling.log";
  fs::create_symlink(mHome / "nowhere", sDangling);
  const std::string sSizeError = WhatOf([&] { static_cast<void>(fs::file_size(sDangling)); });
  const std::string sTimeError = WhatOf([&] { static_cast<void>(fs::last_write_time(sDangling)); });

  testing::internal::CaptureStdout();
  EXPECT_EQ(GetLogFolderSize(), 20.0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "dangling.log " + sSizeError + "\n");

  // Measure (report), delete the oldest (report), measure again (report).
  testing::internal::CaptureStdout();
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "dangling.log " + sSizeError + "\n" + "dangling.log " +
                                                        sTimeError + "\n" + "dangling.log " + sSizeError + "\n");
  EXPECT_FALSE(Exists("a_old.log"));
  EXPECT_TRUE(Exists("a_new.log"));
  EXPECT_TRUE(fs::is_symlink(sDangling));
}

TEST_F(LogFolderLimitTest, FileThatCannotBeDeletedStopsWithFalse) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to user 65534";
  InstallConfig config("500000");
  AddFile("a_1.log", 300000, 100);
  AddFile("a_2.log", 300000, 0);
  // User 65534 may reach and read the folder but not change it.
  for (fs::path p = mLogFolder; p != fs::path(mHome.Path()).parent_path(); p = p.parent_path())
    chmod(p.c_str(), 0755);
  chmod(mLogFolder.c_str(), 0555);

  const std::string sOutput = mHome / "output.txt";
  const int status = RunAsNobody(sOutput, [] { return EnforceLogFolderLimit() ? 10 : 20; });
  EXPECT_EQ(status, 20);
  EXPECT_EQ(ReadFile(sOutput), "");
  EXPECT_TRUE(Exists("a_1.log"));
  EXPECT_TRUE(Exists("a_2.log"));

  // A folder that cannot be listed fails the scan as a whole: -1, reported
  // without a leaf name, and the loop ends within the limit.
  chmod(mLogFolder.c_str(), 0311);
  const int scanStatus = RunAsNobody(sOutput, [&] {
    const std::string sExpected = WhatOf([&] { fs::directory_iterator it(mLogFolder); }) + "\n";
    if (GetLogFolderSize() != -1) return 30;
    if (!EnforceLogFolderLimit()) return 31;
    fflush(nullptr);
    return ReadFile(sOutput) == sExpected + sExpected ? 10 : 32;
  });
  EXPECT_EQ(scanStatus, 10) << ReadFile(sOutput);
}

}  // namespace
