#include "UsageStatus.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "FileSystemUtils.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

namespace {

// A private user settings file for one test; its folder exists.
class UsageStatusTest : public ::testing::Test {
 protected:
  UsageStatusTest() {
    mEnv.Set("XDG_STATE_HOME", mDir / "state");
    mEnv.Set("XDG_DATA_HOME", mDir / "data");
    EXPECT_TRUE(FileSystemUtils::CreateDirectoryChain(mDir / "data/Tarvo/Porvane"));
  }
  // The status reported, starting from a value it must replace.
  unsigned Check(const char* inSection) {
    unsigned status = 99;
    EXPECT_EQ(GetUsageStatus(inSection, status), 0);
    return status;
  }
  static std::string DateText(int inDays) {
    using namespace boost::gregorian;
    return to_simple_string(day_clock::local_day() + days(inDays));
  }

  TempDir mDir{"usage-status"};
  ScopedEnvironment mEnv;
  const std::string mFile = mDir / "data/Tarvo/Porvane/UserSettings.cfg";
};

TEST_F(UsageStatusTest, FirstCheckCreatesTheEntryAndServerWordsChangeIt) {
  EXPECT_EQ(Check("u123"), kUsageActive);
  EXPECT_EQ(ReadFile(mFile), "[u123]\nstatus=Active\n");

  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Check("u123"), kUsageDisabled);
  EXPECT_EQ(Check("other"), kUsageActive);  // a disabled kind is its own
  EXPECT_EQ(ReadFile(mFile), "[other]\nstatus=Active\n[u123]\nstatus=Disabled\n");

  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, 30), 0);
  const std::string hibernating = "[other]\nstatus=Active\n[u123]\nhibernatewakedate=" + DateText(30);
  EXPECT_EQ(ReadFile(mFile), hibernating + "\nstatus=Hibernate\n");
  EXPECT_EQ(Check("u123"), kUsageHibernate);
  // "Active" leaves the wake date behind; unknown codes store "Active".
  EXPECT_EQ(SetUsageStatus("u123", 7, 0), 0);
  EXPECT_EQ(ReadFile(mFile), hibernating + "\nstatus=Active\n");

  // Wake dates past the calendar's ends are held at them.
  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, INT_MAX), 0);
  EXPECT_EQ(ReadFile(mFile), "[other]\nstatus=Active\n[u123]\nhibernatewakedate=9999-Dec-31\nstatus=Hibernate\n");
  EXPECT_EQ(SetUsageStatus("u123", kUsageHibernate, INT_MIN), 0);
  EXPECT_EQ(Check("u123"), kUsageActive);
}

TEST_F(UsageStatusTest, WakeDateEdges) {
  // A future date keeps the file as it is; today, the past and dates that are
  // missing, unreadable or special wake the kind and drop the date.
  const std::pair<std::string, unsigned> cases[] = {
      {DateText(1), kUsageHibernate}, {"9000/1/5", kUsageHibernate}, {DateText(0), kUsageActive},
      {DateText(-1), kUsageActive},   {"", kUsageActive},           {"2006-13-01", kUsageActive},
      {"+infinity", kUsageActive}};
  for (const auto& [wake, status] : cases) {
    const std::string text = "[U123]\nStatus=Hibernate\nHibernateWakeDate = " + wake + "\n";
    WriteFile(mFile, text);
    EXPECT_EQ(Check("u123"), status) << wake;
    EXPECT_EQ(ReadFile(mFile), status == kUsageActive ? "[u123]\nstatus=Active\n" : text) << wake;
  }
}

TEST_F(UsageStatusTest, UnknownWordsAndTheUnnamedSection) {
  // Words match exactly: 'disabled' is unknown and becomes "Active".
  WriteFile(mFile, "# mine\n[u123]\nStatus=disabled\nHibernateWakeDate=2006-Jan-05\n");
  EXPECT_EQ(Check("u123"), kUsageActive);
  EXPECT_EQ(ReadFile(mFile), "[u123]\nhibernatewakedate=2006-Jan-05\nstatus=Active\n");

  // The unnamed section is read but never stored: Active, and the file is
  // rewritten without a new entry. Lines before any header fill it.
  WriteFile(mFile, "# mine\n[Other]\nStatus=Disabled\n");
  EXPECT_EQ(Check(""), kUsageActive);
  EXPECT_EQ(ReadFile(mFile), "[other]\nstatus=Disabled\n");
  EXPECT_EQ(SetUsageStatus("", kUsageDisabled, 0), 0);
  EXPECT_EQ(ReadFile(mFile), "[other]\nstatus=Disabled\n");
  WriteFile(mFile, "Status=Disabled\n");
  EXPECT_EQ(Check(""), kUsageDisabled);
}

TEST_F(UsageStatusTest, UnusableSettingsFolderOrFileLosesOnlyTheDecision) {
  WriteFile(mDir / "plain file", "x");
  mEnv.Set("XDG_DATA_HOME", mDir / "plain file/data");
  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Check("u123"), kUsageActive);
  // A folder where the settings file should be cannot be written either.
  mEnv.Set("XDG_DATA_HOME", mDir / "data");
  ASSERT_TRUE(FileSystemUtils::CreateDirectoryChain(mFile));
  EXPECT_EQ(SetUsageStatus("u123", kUsageDisabled, 0), 0);
  EXPECT_EQ(Check("u123"), kUsageActive);
}

}  // namespace
