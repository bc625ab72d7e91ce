#include "UsageStatus.h"

#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "PrivateHome.h"

TEST(UsageStatusTest, LookUpsAndServerWordsKeptInTheFile) {
  using namespace boost::gregorian;
  const auto wake = [](int inDays) { return to_simple_string(day_clock::local_day() + days(inDays)); };
  const std::string active = "[u]\nstatus=Active\n", sleep = "[U]\nStatus=Hibernate\nHibernateWakeDate=";
  const auto asleep = [](std::string inDate) { return "[u]\nhibernatewakedate=" + inDate + "\nstatus=Hibernate\n"; };
  // The file before ("-": none), the file after ("": as before, in a form the
  // writer would change), the status a look-up of the kind (section) gives on
  // the file before, and a SetUsageStatus(kind, set, days) after it unless set
  // is -1.
  struct Case { std::string before, after; unsigned status; int set = -1, days = 0; const char* kind = "u"; };
  const Case cases[] = {
      // First look-up; stored words, matched exactly ("disabled" is unknown);
      // a Hibernate without a wake date or with an unreadable one.
      {"-", active, 0}, {"[U]\nStatus=Active\n", "", 0}, {"[U]\nStatus=Disabled\n", "", 1},
      {"[U]\nStatus=disabled\n", active, 0}, {"[U]\nStatus=Hibernate\n", active, 0}, {sleep + "2006-13-01", active, 0},
      // Wake dates tomorrow, today, yesterday.
      {sleep + wake(1), "", 2}, {sleep + wake(0), active, 0}, {sleep + wake(-1), active, 0},
      // Server words: a wake date stays beside Disabled; any other status is
      // Active; far dates are held at 9999 and 1400.
      {sleep + "9000-Jan-05", "[u]\nhibernatewakedate=9000-Jan-05\nstatus=Disabled\n", 2, 1},
      {"[U]\nStatus=Disabled\n", active, 1, 7}, {"-", asleep("9999-Dec-31"), 0, 2, 2000000000},
      {"-", asleep("1400-Jan-01"), 0, 2, -2000000000}, {"-", asleep(wake(30)), 0, 2, 30},
      // The unnamed section is read but never stored.
      {"Status=Disabled\n[U]\n", "", 1, -1, 0, ""}, {"[u]\nstatus=Disabled\n", "", 0, 2, 5, ""}};
  PrivateHome dir;
  for (const Case& c : cases) {
    const std::string path = dir / std::to_string(&c - cases);
    if (c.before != "-") WriteFile(path, c.before);
    UsageStatusFile file(path);
    unsigned status = 99;
    // Both calls return 0; the look-up's own changes are stored by the end.
    EXPECT_FALSE(file.GetUsageStatus(c.kind, status) || (c.set >= 0 && file.SetUsageStatus(c.kind, c.set, c.days)));
    EXPECT_TRUE(file.Flush() && !file.AnyStoreFailed());
    EXPECT_EQ(std::pair(status, ReadFile(path)), std::pair(c.status, c.after.empty() ? c.before : c.after)) << path;
  }
}

TEST(UsageStatusTest, ALookUpWritesNothingAndAStoreReplacesTheLinkedFileWithOthersChangesKept) {
  PrivateHome dir;
  const std::string real = dir / "real.cfg", link = dir / "link.cfg";
  WriteFile(real, "# kept until a store\n[a]\nstatus=Hibernate\n");
  ASSERT_TRUE(chmod(real.c_str(), 0640) == 0 && symlink("real.cfg", link.c_str()) == 0);
  UsageStatusFile file(link);
  unsigned status = 99;
  EXPECT_TRUE(file.GetUsageStatus("a", status) == 0 && status == kUsageActive && ReadFile(real)[0] == '#');
  WriteFile(real, "[b]\nstatus=Disabled\n");  // another writer, meanwhile
  EXPECT_EQ(file.SetUsageStatus("c", kUsageDisabled, 0), 0);
  EXPECT_EQ(ReadFile(real), "[a]\nstatus=Active\n[b]\nstatus=Disabled\n[c]\nstatus=Disabled\n");
  struct stat info;
  EXPECT_TRUE(lstat(link.c_str(), &info) == 0 && S_ISLNK(info.st_mode) && stat(real.c_str(), &info) == 0 &&
              (info.st_mode & 07777) == 0640) << "still a link, to a file of the same mode";
}

// As a full disk, a read-only file, a folder in its place or no settings folder would have it.
TEST(UsageStatusTest, AStatusThatCannotBeStoredHoldsForTheRunIsReportedAndLeavesTheFileWhole) {
  PrivateHome dir;
  const std::string full = dir / "full", text = std::string(4068, '#') + "\n[zz]\nstatus=Disabled\n";  // 4,090 bytes
  std::string noMount = UsePrivateShm();
  if (noMount.empty() && (mkdir(full.c_str(), 0700) != 0 || mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k") != 0))
    noMount = strerror(errno);
  WriteFile(dir / "ro.cfg", text);
  chmod((dir / "ro.cfg").c_str(), 0444);
  if (noMount.empty()) WriteFile(full + "/s.cfg", text), WriteFile(full + "/filler", std::string(65536 - 4096, 'x'));
  const std::pair<std::string, const char*> cases[] = {{full + "/s.cfg", "No space left on device"},
      {dir / "ro.cfg", "Permission denied"}, {dir / "home", "it could not be read whole: Invalid argument"},
      {"", "nowhere to write it"}};
  for (const auto& [path, reason] : cases) {
    if (path.rfind(full, 0) == 0 && !noMount.empty()) continue;
    UsageStatusFile file(path);
    unsigned status = 99;
    testing::internal::CaptureStderr();
    // A look-up's own change needs no file; a store tried again fails again.
    EXPECT_TRUE(file.GetUsageStatus("new", status) == 0 && file.SetUsageStatus("k", 1, 0) == 1 &&
                file.Flush() == path.empty());
    const std::string line = "porvane: cannot store the usage status in " +
        (path.empty() ? "(no user settings file: its folder was not found)" : path) + ": " + reason +
        "; the file is left as it was\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line) << "said once";
    EXPECT_TRUE(file.GetUsageStatus("k", status) == 0 && status == kUsageDisabled && file.AnyStoreFailed()) << path;
    EXPECT_TRUE(path.find(".cfg") == std::string::npos ||
                (ReadFile(path) == text && file.GetUsageStatus("zz", status) == 0 && status == kUsageDisabled));
  }
  if (!noMount.empty()) GTEST_SKIP() << "the full-disk case needs a private mount: " << noMount;
  EXPECT_EQ(Names(full), (std::vector<std::string>{"filler", "s.cfg"})) << "no new file left behind";
  umount2(full.c_str(), MNT_DETACH);
}
