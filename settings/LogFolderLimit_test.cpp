#include "LogFolderLimit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "PrivateHome.h"

namespace fs = std::filesystem;

// Each case: the limit; three files, set up in the order the folder lists
// them (sizes, dates in ms past a whole second); which of them stay ("1"); the
// result; how many lines report a dangling link, whose size and date cannot
// be read, so that the trim measures anew before every deletion and reports
// size and date in turn; and what is appended to the folder path. Beside the
// files lie a bigger unfinished x.tmp and a subfolder y: counted, they would
// make files go.
TEST(LogFolderLimitTest, DeletesTheOldestFilesUntilTheRestFit) {
  const auto second = std::chrono::floor<std::chrono::seconds>(fs::file_time_type::clock::now());
  struct Case { const char* limit; size_t size[3]; int ms[3]; const char* kept;
                bool ok = true; int reports = 0; const char* in = ""; };
  const Case cases[] = {
      {"500000", {300000, 250000, 0}, {0, 1000, 2000}, "011"}, {"500000", {250000, 300000, 0}, {1000, 0, 2000}, "101"},
      {"500000", {300000, 200000, 0}, {0, 1000, 2000}, "111"}, {"100", {100, 100, 100}, {2000, 0, 1000}, "100"},
      {"abc", {1, 1, 1}, {0, 0, 0}, "000"}, {"-1", {1, 1, 1}, {0, 0, 0}, "000", false},
      // A file is no folder: nothing to do. Nothing left to delete for a
      // negative limit, also when measured anew.
      {"abc", {1, 1, 1}, {0, 0, 0}, "111", true, 0, "/x.tmp"}, {"-1", {1, 1, 1}, {0, 0, 0}, "000", false, 8},
      // Within one second the first listed goes (the second, later in that
      // second than the third), also when measured anew.
      {"20", {10, 10, 10}, {2000, 900, 600}, "101"}, {"20", {10, 10, 10}, {2000, 900, 600}, "101", true, 3}};
  for (const Case& c : cases) {
    PrivateHome home;
    const std::string dir = home / "tmp";  // empty
    for (const char* name : {"f1", "f2", "f3"}) WriteFile(dir + "/" + name, "");
    const std::vector<fs::directory_entry> listed{fs::directory_iterator(dir), fs::directory_iterator()};
    for (int i = 0; i < 3; ++i) fs::resize_file(listed[i], c.size[i]);
    for (int i = 0; i < 3; ++i) fs::last_write_time(listed[i], second + std::chrono::milliseconds(c.ms[i]));
    WriteFile(dir + "/x.tmp", std::string(900000, 'x'));
    fs::create_directory(dir + "/y");
    if (c.reports > 0) fs::create_symlink(dir + "/nowhere", dir + "/dangling.log");
    std::string reports, gone = ": No such file or directory [" + dir + "/dangling.log" + "]\n";
    for (int i = 0; i < c.reports; ++i)
      reports += "dangling.log filesystem error: cannot get file " + std::string(i % 2 ? "time" : "size") + gone;
    testing::internal::CaptureStdout();
    EXPECT_EQ(EnforceLogFolderLimit(c.limit, dir + c.in), c.ok) << c.limit;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), reports) << c.limit;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(fs::exists(listed[i]), c.kept[i] == '1') << c.limit << " " << i;
  }
}
