#include "settings/UsageStatus.h"

#include <gtest/gtest.h>

#include <climits>
#include <regex>
#include <string>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "source/FileSystemUtils.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TempDir.h"

namespace {

// A private user settings file for one test.
class UsageStatusTest : public ::testing::Test {
 protected:
  UsageStatusTest() : mDir("usage-status") {
    mEnv.Set("HOME", mDir / "home");
    mEnv.Set("XDG_STATE_HOME", mDir / "state");
    mEnv.Set("XDG_DATA_HOME", mDir / "data");
  }

  std::string SettingsPath() const { return mDir / "data/Tarvo/Porvane/UserSettings.cfg"; }
  std::string Contents() const { return ReadFile(SettingsPath()); }
  void Store(const std::string& inText) {
    EXPECT_TRUE(FileSystemUtils::CreateDirectoryChain(mDir / "data/Tarvo/Porvane"));
    WriteFile(SettingsPath(), inText);
  }

  // The status GetUsageStatus reports, starting from a value it must replace.
  unsigned Check(const char* inSection) {
    unsigned status = 99;
    EXPECT_EQ(GetUsageStatus(inSection, status), 0);
    return status;
  }

  static std::string DateText(int inDaysFromToday) {
    return boost::gregorian::to_simple_string(boost::gregorian::day_clock::local_day() +
                                              boost::gregorian::date_duration(inDaysFromToday));
  }

  TempDir mDir;
  ScopedEnvironment mEnv;
};

TEST_F(UsageStatusTest, FirstCheckCreatesTheEntryAndServerWordsChangeIt) {
  EXPECT_EQ(Check("u123"), kUsageActive);
  EXPECT_EQ(Contents(), "[u123]\nstatus=Active\n");
  EXPECT_EQ(Check("U123"), kUsageActive);  // sections match in any case
  EXPECT_EQ(Contents(), "[u123]\nstatus=Active\n");

  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Contents(), "[u123]\nstatus=Disabled\n");
  EXPECT_EQ(Check("u123"), kUsageDisabled);
  EXPECT_EQ(Check("other"), kUsageActive);  // a disabled kind is its own
  EXPECT_EQ(Contents(), "[other]\nstatus=Active\n[u123]\nstatus=Disabled\n");

  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, 30), 0);
  const std::string wake = DateText(30);
  EXPECT_TRUE(std::regex_match(wake, std::regex("[0-9]{4}-[A-Z][a-z][a-z]-[0-9][0-9]"))) << wake;
  const std::string hibernating = "[other]\nstatus=Active\n[u123]\nhibernatewakedate=" + wake + "\nstatus=Hibernate\n";
  EXPECT_EQ(Contents(), hibernating);
  EXPECT_EQ(Check("u123"), kUsageHibernate);
  EXPECT_EQ(Contents(), hibernating);

  // "Active" and "Disabled" leave the wake date behind.
  EXPECT_EQ(SetUsageStatus("u123", kUsageActive, 0), 0);
  EXPECT_EQ(Contents(), "[other]\nstatus=Active\n[u123]\nhibernatewakedate=" + wake + "\nstatus=Active\n");
  EXPECT_EQ(SetUsageStatus("u123", 7, 0), 0);  // unknown codes store "Active"
  EXPECT_EQ(Check("u123"), kUsageActive);
}

TEST_F(UsageStatusTest, WakeDateEdges) {
  // Not written while hibernating: the file keeps its own spelling.
  const std::string tomorrow = "[U123]\nStatus=Hibernate\nHibernateWakeDate = " + DateText(1) + "\n";
  Store(tomorrow);
  EXPECT_EQ(Check("u123"), kUsageHibernate);
  EXPECT_EQ(Contents(), tomorrow);

  // Today and yesterday wake the kind and drop the date.
  for (int days : {0, -1}) {
    Store("[u123]\nStatus=Hibernate\nHibernateWakeDate=" + DateText(days) + "\n");
    EXPECT_EQ(Check("u123"), kUsageActive) << days;
    EXPECT_EQ(Contents(), "[u123]\nstatus=Active\n") << days;
  }

  // Other spellings the date library reads count as dates.
  Store("[u123]\nStatus=Hibernate\nHibernateWakeDate=9000/1/5\n");
  EXPECT_EQ(Check("u123"), kUsageHibernate);

  // Missing, unreadable or out-of-range wake dates reactivate.
  for (const char* wake : {"", "2006-Foo-99", "2006-13-01", "2006-Jan-32", "1300-Jan-01", "garbage", "+infinity"}) {
    Store(std::string("[u123]\nStatus=Hibernate\nHibernateWakeDate=") + wake + "\n");
    EXPECT_EQ(Check("u123"), kUsageActive) << wake;
    EXPECT_EQ(Contents(), "[u123]\nstatus=Active\n") << wake;
  }

  // Wake dates past the calendar's ends are held at them.
  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, INT_MAX), 0);
  EXPECT_EQ(Contents(), "[u123]\nhibernatewakedate=9999-Dec-31\nstatus=Hibernate\n");
  EXPECT_EQ(Check("u123"), kUsageHibernate);
  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, INT_MIN), 0);
  EXPECT_EQ(Contents(), "[u123]\nhibernatewakedate=1400-Jan-01\nstatus=Hibernate\n");
  EXPECT_EQ(Check("u123"), kUsageActive);
  EXPECT_EQ(Contents(), "[u123]\nstatus=Active\n");
}

TEST_F(UsageStatusTest, UnknownWordsAndTheUnnamedSection) {
  // Words match exactly: 'disabled' is unknown and becomes "Active".
  Store("# mine\n[u123]\nStatus=disabled\nHibernateWakeDate=2006-Jan-05\n");
  EXPECT_EQ(Check("u123"), kUsageActive);
  EXPECT_EQ(Contents(), "[u123]\nhibernatewakedate=2006-Jan-05\nstatus=Active\n");

  // The unnamed section is read but never stored: Active, and the file is
  // rewritten (comment and spelling gone) without a new entry.
  Store("# mine\n[Other]\nStatus=Disabled\n");
  EXPECT_EQ(Check(""), kUsageActive);
  EXPECT_EQ(Contents(), "[other]\nstatus=Disabled\n");
  EXPECT_EQ(SetUsageStatus("", kUsageDisabled, 0), 0);
  EXPECT_EQ(Contents(), "[other]\nstatus=Disabled\n");

  // Lines before any header fill the unnamed section.
  Store("Status=Disabled\n");
  EXPECT_EQ(Check(""), kUsageDisabled);
}

TEST_F(UsageStatusTest, UnusableSettingsFolderLosesOnlyTheDecision) {
  WriteFile(mDir / "plain file", "x");
  mEnv.Set("XDG_DATA_HOME", mDir / "plain file/data");
  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Check("u123"), kUsageActive);

  // A settings file that cannot be written: same.
  mEnv.Set("XDG_DATA_HOME", mDir / "data");
  EXPECT_TRUE(FileSystemUtils::CreateDirectoryChain(mDir / "data/Tarvo/Porvane/UserSettings.cfg"));
  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Check("u123"), kUsageActive);
}

}  // namespace
