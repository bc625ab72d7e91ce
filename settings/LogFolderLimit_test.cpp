#include "LogFolderLimit.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "PrivateHome.h"

namespace fs = std::filesystem;

namespace {

const auto kSecond = std::chrono::floor<std::chrono::seconds>(fs::file_time_type::clock::now());

void MakeLog(const std::string& inPath, size_t inSize, int inMs) {
  WriteFile(inPath, "");
  fs::resize_file(inPath, inSize);
  fs::last_write_time(inPath, kSecond + std::chrono::milliseconds(inMs));
}

}  // namespace

// Each case: the limit; three files, set up in the order the folder lists
// them (sizes, dates in ms past a whole second); which of them stay ("1");
// the result. Beside them lie a bigger unfinished x.tmp, a subfolder y and a
// pipe: counted, they would make files go.
TEST(LogFolderLimitTest, DeletesTheOldestFilesUntilTheRestFit) {
  struct Case { double limit; size_t size[3]; int ms[3]; const char* kept; bool ok = true; };
  const Case cases[] = {
      {500000, {300000, 250000, 0}, {0, 1000, 2000}, "011"}, {500000, {250000, 300000, 0}, {1000, 0, 2000}, "101"},
      {500000, {300000, 200000, 0}, {0, 1000, 2000}, "111"}, {100, {100, 100, 100}, {2000, 0, 1000}, "100"},
      {0, {1, 1, 1}, {0, 0, 0}, "000"}, {-1, {1, 1, 1}, {0, 0, 0}, "000", false},
      // Within one second the first listed goes (the second, later in that
      // second than the third).
      {20, {10, 10, 10}, {2000, 900, 600}, "101"}};
  for (const Case& c : cases) {
    PrivateHome home;
    const std::string dir = home / "tmp";  // empty
    for (const char* name : {"f1", "f2", "f3"}) WriteFile(dir + "/" + name, "");
    const std::vector<fs::directory_entry> listed{fs::directory_iterator(dir), fs::directory_iterator()};
    for (int i = 0; i < 3; ++i) MakeLog(listed[i].path(), c.size[i], c.ms[i]);
    WriteFile(dir + "/x.tmp", std::string(900000, 'x'));
    fs::create_directory(dir + "/y");
    ASSERT_EQ(::mkfifo((dir + "/pipe.log").c_str(), 0600), 0);
    EXPECT_EQ(EnforceLogFolderLimit(c.limit, dir), c.ok) << c.limit;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(fs::exists(listed[i]), c.kept[i] == '1') << c.limit << " " << i;
    EXPECT_TRUE(fs::exists(dir + "/x.tmp") && fs::exists(dir + "/pipe.log"));
  }
}

// What another process does to the folder while the trim deletes is met as
// the measure-and-delete loop would meet it; entries that cannot be
// examined are reported, neither counted nor fatal; a stop request ends the
// trim after the deletion in progress.
TEST(LogFolderLimitTest, FollowsTheFolderAsItChangesUnderIt) {
  PrivateHome home;
  const std::string dir = home / "logs";
  fs::create_directory(dir);
  // a (300,000, oldest), b (200,000), c (100,000) over 250,000: c goes
  // while a is deleted, so the loop measures 200,000 and keeps b.
  MakeLog(dir + "/a", 300000, 0);
  MakeLog(dir + "/b", 200000, 1000);
  MakeLog(dir + "/c", 100000, 2000);
  fs::create_symlink("nowhere", dir + "/dangling.log");
  fs::create_symlink("loop.log", dir + "/loop.log");
  TrimControl control;
  control.removed = [&](const std::string& inPath) {
    if (inPath == dir + "/a") fs::remove(dir + "/c");
  };
  testing::internal::CaptureStdout();
  EXPECT_TRUE(EnforceLogFolderLimit(250000, dir, control));
  const std::string reports = testing::internal::GetCapturedStdout();
  EXPECT_NE(reports.find("dangling.log No such file or directory\n"), std::string::npos) << reports;
  EXPECT_NE(reports.find("loop.log Too many levels of symbolic links\n"), std::string::npos) << reports;
  EXPECT_EQ(Names(dir), (std::vector<std::string>{"b", "dangling.log", "loop.log"}));

  // x, y, z (100 each) over 150; an older w (50) arrives once x is gone:
  // the loop deletes w and y and keeps z, not w.
  fs::remove(dir + "/dangling.log");
  fs::remove(dir + "/loop.log");
  fs::remove(dir + "/b");
  MakeLog(dir + "/x", 100, 1000);
  MakeLog(dir + "/y", 100, 2000);
  MakeLog(dir + "/z", 100, 3000);
  control.removed = [&](const std::string& inPath) {
    if (inPath == dir + "/x") MakeLog(dir + "/w", 50, -5000);
  };
  EXPECT_TRUE(EnforceLogFolderLimit(150, dir, control));
  EXPECT_EQ(Names(dir), std::vector<std::string>{"z"});

  // A stop request: the deletion in progress is finished, no other follows.
  MakeLog(dir + "/u", 100, 0);
  const std::atomic<bool> stop{true};
  control = TrimControl{&stop, nullptr};
  EXPECT_FALSE(EnforceLogFolderLimit(0, dir, control));
  EXPECT_EQ(Names(dir), std::vector<std::string>{"z"});
}
