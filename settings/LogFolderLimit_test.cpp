#include "LogFolderLimit.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace fs = std::filesystem;

namespace {

// The installation settings this test binary reads: it runs inside a host
// (its name is not "porvane"), so they lie in
// <build>/lib/<binary name>/porvane/share/porvane/Porvane.cfg. Tests run in
// parallel processes, so each owner holds an exclusive flock beside the file
// for its whole life and the tests take turns.
class InstallConfig {
 public:
  InstallConfig() {
    const fs::path exe = fs::read_symlink("/proc/self/exe");
    const fs::path folder = exe.parent_path().parent_path() / "lib" / exe.filename() / "porvane/share/porvane";
    fs::create_directories(folder);
    mPath = (folder / "Porvane.cfg").native();
    mLock = open((mPath + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(mLock, 0) << "cannot open the lock file beside " << mPath;
    while (mLock >= 0 && flock(mLock, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~InstallConfig() {
    std::error_code ignored;
    fs::remove(mPath, ignored);
    if (mLock >= 0) close(mLock);
  }
  InstallConfig(const InstallConfig&) = delete;
  InstallConfig& operator=(const InstallConfig&) = delete;

  void SetLimit(const std::string& inMaxTotalDirSize) {
    WriteFile(mPath, "[System]\nMaxTotalDirSize=" + inMaxTotalDirSize + "\n");
  }

 private:
  std::string mPath;
  int mLock = -1;
};

// A private home: the log folder is $XDG_STATE_HOME/Logs/Tarvo/Porvane.
// Every test also puts an unfinished file and a subfolder there, both big
// and old, which must be neither counted nor deleted.
class LogFolderLimitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mEnvironment.Set("HOME", mHome.Path());
    mEnvironment.Set("XDG_STATE_HOME", mHome / "state");
    mEnvironment.Set("XDG_DATA_HOME", mHome / "data");
    fs::create_directories(mLogFolder + "/sub");
    fs::create_directories(mHome / "data/Tarvo/Porvane");
    AddFile("report.tmp", 900000, 5000);
    AddFile("a.tmp.log", 900000, 5000);
    AddFile("sub/old.log", 900000, 5000);
    fs::last_write_time(mLogFolder + "/sub", fs::file_time_type::clock::now() - std::chrono::hours(10));
  }

  void TearDown() override {
    for (const char* name : {"report.tmp", "a.tmp.log", "sub/old.log"}) EXPECT_TRUE(Exists(name)) << name;
  }

  // A file of inBytes bytes whose modification time is inAgeSeconds before now.
  void AddFile(const std::string& inName, size_t inBytes, int inAgeSeconds = 0) {
    WriteFile(mLogFolder + "/" + inName, std::string(inBytes, 'x'));
    fs::last_write_time(mLogFolder + "/" + inName,
                        fs::file_time_type::clock::now() - std::chrono::seconds(inAgeSeconds));
  }

  bool Exists(const std::string& inName) const { return fs::exists(mLogFolder + "/" + inName); }

  // The names starting with inPrefix, in the order the folder lists them.
  std::vector<std::string> Listed(const std::string& inPrefix) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(mLogFolder))
      if (entry.path().filename().native().rfind(inPrefix, 0) == 0) names.push_back(entry.path().filename());
    return names;
  }

  TempDir mHome{"limit"};
  ScopedEnvironment mEnvironment;
  const std::string mLogFolder = mHome / "state/Logs/Tarvo/Porvane";
};

TEST_F(LogFolderLimitTest, DeletesTheOldestFilesUntilWithinTheInstalledLimit) {
  InstallConfig config;
  config.SetLimit("500000");
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
    fs::remove(mLogFolder + (olderIsBigger ? "/u1_small.log" : "/u1_big.log"));
  }
  // A total equal to the limit is within it.
  AddFile("a_1.log", 300000, 100);
  AddFile("a_2.log", 200000, 0);
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_TRUE(Exists("a_1.log"));
  EXPECT_TRUE(Exists("a_2.log"));

  // A limit that is no number reads as 0: every countable file goes.
  config.SetLimit("abc");
  AddFile("b_1.log", 1, 100);
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_EQ(GetLogFolderSize(), 0.0);
  EXPECT_EQ(std::distance(fs::directory_iterator(mLogFolder), fs::directory_iterator()), 3);

  // A file that cannot be deleted ends the loop with false. User 65534 may
  // reach and read the folder but not change it.
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to user 65534";
  config.SetLimit("500000");
  AddFile("a_1.log", 300000, 100);
  AddFile("a_2.log", 300000, 0);
  for (fs::path p = mLogFolder; p != fs::path(mHome.Path()).parent_path(); p = p.parent_path())
    chmod(p.c_str(), 0755);
  chmod(mLogFolder.c_str(), 0555);
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    if (setresgid(65534, 65534, 65534) != 0 || setgroups(0, nullptr) != 0 || setresuid(65534, 65534, 65534) != 0)
      _exit(91);
    _exit(EnforceLogFolderLimit() ? 10 : 20);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 20) << status;
  EXPECT_TRUE(Exists("a_1.log"));
  EXPECT_TRUE(Exists("a_2.log"));
}

// Whole seconds, then the listing, give the order of deletion.
TEST_F(LogFolderLimitTest, TrimsOldestFirstAndAmongTheSameSecondTheFirstListed) {
  const auto base = std::chrono::floor<std::chrono::seconds>(fs::file_time_type::clock::now()) - std::chrono::hours(2);
  // Three files share one second; the sub-second parts increase along the
  // listing, so only whole seconds make the first one the choice.
  for (const char* name : {"k_1.log", "k_2.log", "k_3.log"}) AddFile(name, 10);
  const std::vector<std::string> listed = Listed("k_");
  ASSERT_EQ(listed.size(), 3u);
  for (size_t i = 0; i < listed.size(); ++i)
    fs::last_write_time(mLogFolder + "/" + listed[i], base + std::chrono::milliseconds(100 + 300 * (2 - i)));
  EXPECT_TRUE(DeleteOldestLogFile());
  EXPECT_FALSE(Exists(listed[0]));
  EXPECT_TRUE(Exists(listed[1]));
  EXPECT_TRUE(Exists(listed[2]));
  for (const std::string& name : Listed("k_")) fs::remove(mLogFolder + "/" + name);

  // Forty files in four interleaved seconds; within a second the sub-second
  // parts fall along the listing. Sizes vary so that where the limit stops
  // (inside the second group) shows which files went. The one-by-one loop
  // trims a first fill; the same fill again goes to EnforceLogFolderLimit.
  InstallConfig config;
  std::map<std::string, fs::file_time_type> times;
  const auto fill = [&] {
    for (int i = 0; i < 40; ++i) AddFile("t_" + std::to_string(100 + i) + ".log", 300 + (i * 37) % 200);
    const std::vector<std::string> listing = Listed("t_");
    if (times.empty())
      for (size_t k = 0; k < listing.size(); ++k)
        times[listing[k]] = base + std::chrono::seconds(k % 4) + std::chrono::milliseconds(900 - 20 * k);
    for (const auto& [name, time] : times) fs::last_write_time(mLogFolder + "/" + name, time);
    return listing;
  };
  const std::vector<std::string> listing = fill();
  const long long limit = static_cast<long long>(GetLogFolderSize() * 0.6);
  while (GetLogFolderSize() > limit) ASSERT_TRUE(DeleteOldestLogFile());
  const std::vector<std::string> kept = Listed("t_");
  for (const std::string& name : kept) fs::remove(mLogFolder + "/" + name);
  ASSERT_EQ(fill(), listing) << "a second fill is listed differently; nothing to compare";
  config.SetLimit(std::to_string(limit));
  testing::internal::CaptureStdout();
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(Listed("t_"), kept);
  for (const std::string& name : Listed("t_")) fs::remove(mLogFolder + "/" + name);

}

// An entry that cannot be measured is reported and skipped by every scan:
// measuring alone, and in the limit's loop measure, choose, measure again.
TEST_F(LogFolderLimitTest, AnEntryThatCannotBeMeasuredIsReportedAndSkipped) {
  AddFile("a_1.log", 10);
  const std::string sDangling = mLogFolder + "/dangling.log";
  fs::create_symlink(mHome / "nowhere", sDangling);
  const auto report = [](auto inProbe) {
    try {
      inProbe();
    } catch (const fs::filesystem_error& error) {
      return "dangling.log " + std::string(error.what()) + "\n";
    }
    return std::string("no error");
  };
  const std::string sSizeError = report([&] { static_cast<void>(fs::file_size(sDangling)); });
  const std::string sTimeError = report([&] { static_cast<void>(fs::last_write_time(sDangling)); });
  testing::internal::CaptureStdout();
  EXPECT_EQ(GetLogFolderSize(), 10.0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), sSizeError);

  InstallConfig config;
  config.SetLimit("1000");
  AddFile("u_old.log", 600, 100);
  AddFile("u_new.log", 600, 0);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(EnforceLogFolderLimit());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), sSizeError + sTimeError + sSizeError);
  EXPECT_FALSE(Exists("u_old.log"));
  EXPECT_TRUE(Exists("u_new.log"));
}

}  // namespace
