#include "UsageStatus.h"

#include <gtest/gtest.h>

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
      // The unnamed section is read but never stored; without a path there is
      // no file, every kind is Active (before "": the status file has no path).
      {"Status=Disabled\n[U]\n", "", 1, -1, 0, ""}, {"[u]\nstatus=Disabled\n", "", 0, 2, 5, ""}, {"", "", 0, 1}};
  PrivateHome dir;
  for (const Case& c : cases) {
    const std::string path = dir / std::to_string(&c - cases);
    if (c.before != "-") WriteFile(path, c.before);
    const UsageStatusFile file(c.before.empty() ? "" : path);
    unsigned status = 99;
    // Both calls return 0.
    EXPECT_FALSE(file.GetUsageStatus(c.kind, status) || (c.set >= 0 && file.SetUsageStatus(c.kind, c.set, c.days)));
    EXPECT_EQ(std::pair(status, ReadFile(path)), std::pair(c.status, c.after.empty() ? c.before : c.after)) << path;
  }
}
